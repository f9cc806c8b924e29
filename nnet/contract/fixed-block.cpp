#include "nnet/contract/fixed-block.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "nnet/contract/row-stream.h"
#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

bool HasRowSums(const ParameterRef& parameter, CodeForm form) {
  return form == CodeForm::kAsymmetric && parameter.is_matrix;
}

// Truncates toward zero into [low, high]; NaN gives 0.
int32_t ToIntIn(float value, int32_t low, int32_t high) {
  if (std::isnan(value)) return 0;
  if (value <= static_cast<float>(low)) return low;
  if (value >= static_cast<float>(high)) return high;
  return static_cast<int32_t>(value);
}

// Both directions of one block's code. A write after a read gives the same codes because each
// decoded value encodes to the code it came from; where it does not, the reader keeps the codes.
struct Coding {
  CodeForm form;
  float scale;
  int32_t zero_point;

  // Rounds halves away from zero.
  uint8_t Encode(float value) const {
    const float scaled = value * scale;
    if (form == CodeForm::kSymmetric) {
      const float rounded = value < 0.0F ? scaled - 0.5F : scaled + 0.5F;
      return static_cast<uint8_t>(ToIntIn(rounded, -127, 127));
    }
    return static_cast<uint8_t>(
        ToIntIn(std::round(scaled) - static_cast<float>(zero_point), 0, 255));
  }
  float Decode(uint8_t code) const {
    if (form == CodeForm::kSymmetric) {
      return static_cast<float>(static_cast<int8_t>(code)) / scale;
    }
    return static_cast<float>(int64_t{code} + zero_point) / scale;
  }
};

// The scale and zero point that spread the values over all codes, and those codes. NaNs are passed
// over unless the first value is one: then the scale is NaN and all codes are 0.
FixedBlock FitAsymmetric(std::span<const float> values) {
  FixedBlock block;
  block.codes.resize(values.size());
  if (values.empty()) return block;
  float lo = values[0];
  float hi = values[0];
  for (const float value : values) {  // neither comparison holds for a NaN
    if (value < lo) lo = value;
    if (value > hi) hi = value;
  }
  if (lo != hi) {
    block.scale = static_cast<float>(255.0 / static_cast<double>(hi - lo));
    block.zero_point = ToIntIn(std::round(lo * block.scale), std::numeric_limits<int32_t>::min(),
                               std::numeric_limits<int32_t>::max());
    const Coding coding{CodeForm::kAsymmetric, block.scale, block.zero_point};
    std::ranges::transform(values, block.codes.begin(),
                           [&](float value) { return coding.Encode(value); });
  } else if (lo != 0.0F) {  // one value: code 0 with a zero point of 127 means it
    block.scale = 127.0F / std::fabs(lo);
    block.zero_point = lo > 0.0F ? 127 : -127;
  }
  return block;
}

// A matrix holds unsigned codes; those of the symmetric form differ from them in the top bit.
constexpr uint8_t kSignBit = 0x80;
constexpr int32_t kSymmetricOffset = -0x80;

void TurnSigns(uint8_t* codes, size_t count) {
  for (size_t i = 0; i < count; ++i) codes[i] ^= kSignBit;
}

// A matrix keeps the codes as they are.
bool ReadMatrixCodes(FILE* fp, const ParameterRef& parameter, CodeForm form,
                     const FixedBlock& block, uint64_t& memory_bytes) {
  const bool symmetric = form == CodeForm::kSymmetric;
  parameter.weights->AllocateCodes(parameter.rows, parameter.cols, block.scale,
                                   symmetric ? kSymmetricOffset : block.zero_point, memory_bytes);
  return ReadRows<uint8_t>(fp, parameter, [&](size_t first, size_t rows, uint8_t* codes) {
    if (symmetric) TurnSigns(codes, rows * parameter.cols);
    parameter.weights->Put(first, rows, codes);
  });
}

bool WriteMatrixCodes(FILE* fp, const ParameterRef& parameter, CodeForm form) {
  return WriteRows<uint8_t>(fp, parameter, [&](size_t first, size_t rows, uint8_t* codes) {
    parameter.weights->Get(first, rows, codes);
    if (form == CodeForm::kSymmetric) TurnSigns(codes, rows * parameter.cols);
  });
}

std::vector<float> SumRows(const std::vector<uint8_t>& codes, size_t rows, size_t cols) {
  std::vector<float> sums(rows, 0.0F);
  for (size_t i = 0; i < codes.size(); ++i) sums[i / cols] += static_cast<float>(codes[i]);
  return sums;
}

}  // namespace

size_t CodeBlockBytes(const ParameterRef& parameter, CodeForm form) {
  const size_t head =
      form == CodeForm::kSymmetric ? sizeof(float) : sizeof(float) + sizeof(int32_t);
  const size_t sums = HasRowSums(parameter, form) ? parameter.rows * sizeof(float) : 0;
  return head + sums + parameter.count();
}

// Codes that are decoded are encoded again at once: as long as all of them come back, the floats
// alone are enough for an identical write; otherwise the codes are kept beside them.
bool ReadCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form, FixedBlock& block,
                   uint64_t& memory_bytes) {
  if (!ReadValues(fp, block.scale)) return false;
  if (form == CodeForm::kAsymmetric && !ReadValues(fp, block.zero_point)) return false;
  if (HasRowSums(parameter, form)) {
    block.row_sums.resize(parameter.rows);
    if (!ReadArray(fp, std::span<float>(block.row_sums))) return false;
  }
  const int32_t offset = form == CodeForm::kSymmetric ? kSymmetricOffset : block.zero_point;
  if (parameter.weights != nullptr && WeightMatrix::HoldsCodes(block.scale, offset)) {
    return ReadMatrixCodes(fp, parameter, form, block, memory_bytes);
  }
  std::vector<uint8_t> codes(parameter.count());
  if (!ReadArray(fp, std::span<uint8_t>(codes))) return false;
  const Coding coding{form, block.scale, block.zero_point};
  std::vector<float> values(codes.size());
  bool same = true;
  for (size_t i = 0; i < codes.size(); ++i) {
    values[i] = coding.Decode(codes[i]);
    same = same && coding.Encode(values[i]) == codes[i];
  }
  if (!same) block.codes = std::move(codes);
  KeepValues(parameter, values, memory_bytes);
  return true;
}

bool WriteCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form,
                    const FixedBlock& block) {
  if (!WriteValues(fp, block.scale)) return false;
  if (form == CodeForm::kAsymmetric && !WriteValues(fp, block.zero_point)) return false;
  if (!WriteArray(fp, std::span<const float>(block.row_sums))) return false;
  if (!block.codes.empty()) return WriteArray(fp, std::span<const uint8_t>(block.codes));
  if (parameter.weights != nullptr && parameter.weights->form() == WeightMatrix::Form::kCodes) {
    return WriteMatrixCodes(fp, parameter, form);
  }
  const Coding coding{form, block.scale, block.zero_point};
  std::vector<uint8_t> codes(parameter.count());
  std::ranges::transform(StoredValues(parameter), codes.begin(),
                         [&](float value) { return coding.Encode(value); });
  return WriteArray(fp, std::span<const uint8_t>(codes));
}

bool WriteCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form) {
  FixedBlock block;
  const std::vector<float> values = StoredValues(parameter);
  if (form == CodeForm::kSymmetric) {
    block.scale = SymmetricScale(values.data(), values.size());
  } else {
    block = FitAsymmetric(values);
  }
  if (HasRowSums(parameter, form)) {
    block.row_sums = SumRows(block.codes, parameter.rows, parameter.cols);
  }
  return WriteCodeBlock(fp, parameter, form, block);
}

}  // namespace tarev::nnet::handwriting_CTC
