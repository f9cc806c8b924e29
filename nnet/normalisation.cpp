#include "nnet/normalisation.h"

#include <algorithm>
#include <cmath>

#include "nnet/normalisation-kernels.h"
#include "nnet/parameter-block.h"
#include "utils/file-io.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

void ReadEpsilon(FILE* fp, float* epsilon) {
  PropertyTable properties;
  AddProperty(properties, "<Epsilon>", "f", epsilon);
  ReadProperties(fp, properties);
}

// Rows become scale * row + offset in their own place and are then copied out; row by row, so that
// each is touched while it is close.
void ScaleRowsInPlace(const float* in, size_t rows, size_t cols, const FloatArray& scale,
                      const FloatArray& offset, float* out) {
  float* row = const_cast<float*>(in);  // works in place
  for (size_t r = 0; r < rows; ++r, row += cols, out += cols) {
    mul_vec_to_rows(row, 1, cols, scale.data(), 1.0F);
    add_vec_to_rows(row, 1, cols, offset.data(), 1.0F);
    std::copy_n(row, cols, out);
  }
}

}  // namespace

// NormalizeComponent.

bool NormalizeComponent::ReadData(FILE* fp) { return ReadValues(fp, target_rms); }

bool NormalizeComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<TargetRms>", "f", &target_rms);
  ReadProperties(fp, properties);
  return true;
}

bool NormalizeComponent::WriteData(FILE* fp) const { return WriteValues(fp, target_rms); }

void NormalizeComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                      int /*call_id*/) {
  rms_norm(in, ToSize(frames), Width(), target_rms, out);
}

// BatchNormComponent.

ParameterList BatchNormComponent::MutableParameters() {
  const size_t n = ToSize(block_dim);
  return {{&mean, 1, n}, {&variance, 1, n}};
}

bool BatchNormComponent::ReadData(FILE* fp) {
  return ReadValues(fp, block_dim) && block_dim >= 0 && block_dim == input_dim &&
         ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool BatchNormComponent::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<BlockDim>", "i", &block_dim);
  AddProperty(properties, "<Epsilon>", "f", &epsilon);
  AddProperty(properties, "<TargetRms>", "f", &target_rms);
  AddProperty(properties, "<Count>", "i", &count);
  ReadProperties(fp, properties);
  if (block_dim < 0 || block_dim != input_dim) return false;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kStrict, memory_bytes);
  return true;
}

bool BatchNormComponent::WriteData(FILE* fp) const {
  return WriteValues(fp, block_dim) && WriteFloats(fp, Parameters());
}

void BatchNormComponent::Fold() {
  for (size_t i = 0; i < variance.size(); ++i) {
    const float scale = std::pow(variance[i] + epsilon, -0.5F) * target_rms;
    variance[i] = scale;
    mean[i] = static_cast<float>(-static_cast<double>(scale) * mean[i]);
  }
  folded = true;
}

void BatchNormComponent::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                      int /*call_id*/) {
  if (!folded) Fold();
  ScaleRowsInPlace(in, ToSize(frames), Width(), variance, mean, out);
}

// What BatchNorm1d and BatchNorm2d store.

ParameterList BatchNormParameters::List(int32_t n) {
  const size_t size = ToSize(n);
  return {{&mean, 1, size}, {&variance, 1, size}, {&gamma, 1, size}, {&beta, 1, size}};
}

bool BatchNormParameters::Read(FILE* fp, int32_t n, uint64_t& memory_bytes) {
  return n >= 0 && ReadValues(fp, epsilon) && ReadFloats(fp, List(n), memory_bytes);
}

bool BatchNormParameters::ReadText(FILE* fp, int32_t n, uint64_t& memory_bytes) {
  if (n < 0) return false;
  ReadEpsilon(fp, &epsilon);
  ReadTextFloats(fp, List(n), MatrixOpening::kStrict, memory_bytes);
  return true;
}

bool BatchNormParameters::Write(FILE* fp, const ConstParameterList& list) const {
  return WriteValues(fp, epsilon) && WriteFloats(fp, list);
}

float BatchNormParameters::Scale(size_t i) const {
  const float floored = variance[i] + epsilon;
  return static_cast<float>(gamma[i] / std::sqrt(static_cast<double>(floored)));
}

// BatchNorm1d.

bool BatchNorm1d::ReadData(FILE* fp) {
  return BatchNormParameters::Read(fp, input_dim, memory_bytes);
}

bool BatchNorm1d::ReadTextData(FILE* fp, bool binary) {
  return binary ? ReadData(fp) : ReadText(fp, input_dim, memory_bytes);
}

bool BatchNorm1d::WriteData(FILE* fp) const { return BatchNormParameters::Write(fp, Parameters()); }

void BatchNorm1d::Fold() {
  for (size_t i = 0; i < gamma.size(); ++i) {
    gamma[i] = Scale(i);
    beta[i] = Shift(i, gamma[i]);
  }
  folded = true;
}

void BatchNorm1d::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                               int /*call_id*/) {
  if (!folded) Fold();
  ScaleRowsInPlace(in, ToSize(frames), Width(), gamma, beta, out);
}

// BatchNorm2d.

bool BatchNorm2d::ReadData(FILE* fp) {
  return BatchNormParameters::Read(fp, input_channel, memory_bytes);
}

bool BatchNorm2d::ReadTextData(FILE* fp, bool binary) {
  return binary ? ReadData(fp) : ReadText(fp, input_channel, memory_bytes);
}

bool BatchNorm2d::WriteData(FILE* fp) const { return BatchNormParameters::Write(fp, Parameters()); }

void BatchNorm2d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                               int /*call_id*/) {
  AdoptWidth(in_dim);
  const size_t plane = ToSize(frames) * ToSize(input_dim);
  for (size_t c = 0; c < gamma.size(); ++c, in += plane, out += plane) {
    const float scale = Scale(c);
    scale_and_shift(in, plane, scale, Shift(c, scale), out);
  }
}

// LayerNorm.

ParameterList LayerNorm::MutableParameters() {
  const size_t n = ToSize(norm_dim);
  return {{&gamma, 1, n}, {&beta, 1, n}};
}

bool LayerNorm::ReadData(FILE* fp) {
  return ReadValues(fp, norm_dim) && norm_dim >= 0 && norm_dim == input_dim &&
         ReadValues(fp, epsilon) && ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool LayerNorm::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (input_dim < 0) return false;
  ReadEpsilon(fp, &epsilon);
  norm_dim = input_dim;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kStrict, memory_bytes);
  return true;
}

bool LayerNorm::WriteData(FILE* fp) const {
  return WriteValues(fp, norm_dim, epsilon) && WriteFloats(fp, Parameters());
}

void LayerNorm::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                             int /*call_id*/) {
  layer_norm(in, ToSize(frames), Width(), gamma.data(), beta.data(), epsilon, out);
}

}  // namespace tarev::nnet::handwriting_CTC
