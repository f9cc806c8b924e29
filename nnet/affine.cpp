#include "nnet/affine.h"

#include "nnet/parameter-block.h"
#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr int32_t kRowGrain = 8;

}  // namespace

bool LinearParameters::SetShape(const Component& layer) {
  if (layer.input_dim < 0 || layer.output_dim < 0) return false;
  weight_rows = layer.output_dim;
  weight_cols = layer.input_dim;
  padded = weight_rows % kRowGrain != 0;
  const int64_t capacity = (int64_t{weight_rows} + kRowGrain - 1) / kRowGrain * kRowGrain;
  row_capacity = static_cast<int32_t>(capacity);
  return capacity == row_capacity;
}

ParameterRef LinearParameters::WeightRef() {
  return {&weights, ToSize(weight_rows), ToSize(weight_cols), ToSize(row_capacity - weight_rows)};
}

void LinearParameters::Propagate(const float* in, int64_t frames, float* out) const {
  matmul_trans_b(in, weights.data(), out, ToSize(frames), ToSize(weight_rows), ToSize(weight_cols),
                 1.0F, 0.0F);
}

ParameterRef AffineParameters::BiasRef() { return {&bias, 1, ToSize(weight_rows)}; }

void AffineParameters::Propagate(const float* in, int64_t frames, float* out) const {
  LinearParameters::Propagate(in, frames, out);
  add_vec_to_rows(out, ToSize(frames), ToSize(weight_rows), bias.data(), 1.0F);
}

void EmbeddingParameters::ReadScaleProperty(FILE* fp) {
  PropertyTable properties;
  AddProperty(properties, "<Scale>", "f", &scale);
  ReadProperties(fp, properties);
}

void EmbeddingParameters::Propagate(const float* in, int64_t frames, float* out) const {
  LinearParameters::Propagate(in, frames, out);
  scale_vec(out, ToSize(frames) * ToSize(weight_rows), scale);
}

bool AffineTransform::ReadData(FILE* fp) {
  return SetShape(*this) && ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool AffineTransform::MapData(const char** cursor) {
  if (!SetShape(*this)) return false;
  row_capacity = weight_rows;
  return MapFloats(cursor, MutableParameters(), memory_bytes);
}

bool AffineTransform::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetShape(*this)) return false;
  ReadTextFloats(fp, {WeightRef(), BiasRef()}, MatrixOpening::kLenient, memory_bytes);
  return true;
}

bool AffineTransform::WriteData(FILE* fp) const { return WriteFloats(fp, Parameters()); }

bool AffineTransform::WriteFixedData(FILE* fp) const {
  const ConstParameterList list = Parameters();
  return WriteAsymmetricBlock(fp, list[0], RowSums::kNone) &&
         WriteAsymmetricBlock(fp, list[1], RowSums::kPerRow);
}

bool LinearTransform::ReadData(FILE* fp) {
  return SetShape(*this) && ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool LinearTransform::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetShape(*this)) return false;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kLenient, memory_bytes);
  return true;
}

bool LinearTransform::WriteData(FILE* fp) const { return WriteFloats(fp, Parameters()); }

bool LinearTransform::WriteFixedData(FILE* fp) const {
  return WriteSymmetricBlocks(fp, Parameters());
}

bool Embedding::ReadData(FILE* fp) {
  return SetShape(*this) && ReadValues(fp, scale) &&
         ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool Embedding::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetShape(*this)) return false;
  ReadScaleProperty(fp);
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kLenient, memory_bytes);
  return true;
}

bool Embedding::WriteData(FILE* fp) const {
  return WriteValues(fp, scale) && WriteFloats(fp, Parameters());
}

bool Embedding::WriteFixedData(FILE* fp) const {
  return WriteValues(fp, scale) && WriteSymmetricBlocks(fp, Parameters());
}

}  // namespace tarev::nnet::handwriting_CTC
