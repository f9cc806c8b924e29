// The 8-bit blocks of parameter-block.h.

#include <algorithm>
#include <cmath>
#include <limits>

#include "nnet/parameter-block.h"
#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

std::span<const float> Values(const ConstParameterRef& parameter) {
  return parameter.array->values().first(parameter.count());
}

// Truncates toward zero into [low, high]; NaN gives 0.
int32_t ToIntIn(float value, int32_t low, int32_t high) {
  if (std::isnan(value)) return 0;
  if (value <= static_cast<float>(low)) return low;
  if (value >= static_cast<float>(high)) return high;
  return static_cast<int32_t>(value);
}

// Rounds halves away from zero.
uint8_t EncodeSymmetric(float value, float scale) {
  const float scaled = value * scale;
  const float rounded = value < 0.0F ? scaled - 0.5F : scaled + 0.5F;
  return static_cast<uint8_t>(ToIntIn(rounded, -127, 127));
}

float DecodeSymmetric(uint8_t code, float scale) {
  return static_cast<float>(static_cast<int8_t>(code)) / scale;
}

uint8_t EncodeAsymmetric(float value, float scale, int32_t zero_point) {
  return static_cast<uint8_t>(
      ToIntIn(std::round(value * scale) - static_cast<float>(zero_point), 0, 255));
}

float DecodeAsymmetric(uint8_t code, float scale, int32_t zero_point) {
  return static_cast<float>(int64_t{code} + zero_point) / scale;
}

// Reads one code a value, decodes them, and keeps the codes when encoding does not give them back.
template <class Decode, class Encode>
bool ReadCodes(FILE* fp, const ParameterRef& parameter, FixedBlock& block, uint64_t& memory_bytes,
               Decode decode, Encode encode) {
  size_t count = 0;
  if (__builtin_mul_overflow(parameter.rows, parameter.cols, &count)) return false;
  if (!FileHolds(fp, count, 1)) return false;
  std::vector<uint8_t> codes(count);
  if (!ReadArray(fp, std::span<uint8_t>(codes))) return false;
  parameter.array->Allocate(parameter.rows + parameter.spare_rows, parameter.cols, memory_bytes);
  bool same = true;
  for (size_t i = 0; i < count; ++i) {
    const float value = decode(codes[i]);
    (*parameter.array)[i] = value;
    same = same && encode(value) == codes[i];
  }
  if (!same) block.codes = std::move(codes);
  return true;
}

template <class Encode>
bool WriteCodes(FILE* fp, std::span<const float> values, const FixedBlock& block, Encode encode) {
  if (!block.codes.empty()) return WriteArray(fp, std::span<const uint8_t>(block.codes));
  std::vector<uint8_t> codes(values.size());
  std::ranges::transform(values, codes.begin(), encode);
  return WriteArray(fp, std::span<const uint8_t>(codes));
}

auto SymmetricEncoder(float scale) {
  return [scale](float value) { return EncodeSymmetric(value, scale); };
}

auto AsymmetricEncoder(float scale, int32_t zero_point) {
  return [scale, zero_point](float value) { return EncodeAsymmetric(value, scale, zero_point); };
}

FixedBlock EncodeAsymmetric(std::span<const float> values) {
  FixedBlock block;
  block.codes.resize(values.size());
  if (values.empty()) return block;
  float lo = values[0];
  float hi = values[0];
  for (const float value : values) {
    if (value < lo) lo = value;
    if (value > hi) hi = value;
  }
  if (lo != hi) {
    block.scale = static_cast<float>(255.0 / static_cast<double>(hi - lo));
    block.zero_point = ToIntIn(std::round(lo * block.scale), std::numeric_limits<int32_t>::min(),
                               std::numeric_limits<int32_t>::max());
    std::ranges::transform(values, block.codes.begin(),
                           AsymmetricEncoder(block.scale, block.zero_point));
  } else if (lo != 0.0F) {  // one value: code 0 at a zero point of 127 stands for it
    block.scale = 127.0F / std::fabs(lo);
    block.zero_point = lo > 0.0F ? 127 : -127;
  }
  return block;
}

std::vector<float> SumRows(const std::vector<uint8_t>& codes, size_t rows, size_t cols) {
  std::vector<float> sums(rows, 0.0F);
  for (size_t i = 0; i < codes.size(); ++i) sums[i / cols] += static_cast<float>(codes[i]);
  return sums;
}

}  // namespace

bool ReadSymmetricBlock(FILE* fp, const ParameterRef& parameter, FixedBlock& block,
                        uint64_t& memory_bytes) {
  if (!ReadValues(fp, block.scale)) return false;
  const float scale = block.scale;
  return ReadCodes(
      fp, parameter, block, memory_bytes,
      [scale](uint8_t code) { return DecodeSymmetric(code, scale); }, SymmetricEncoder(scale));
}

bool WriteSymmetricBlock(FILE* fp, const ConstParameterRef& parameter) {
  FixedBlock block;
  block.scale = SymmetricScale(parameter.array->data(), parameter.count());
  return WriteSymmetricBlock(fp, parameter, block);
}

bool WriteSymmetricBlock(FILE* fp, const ConstParameterRef& parameter, const FixedBlock& block) {
  return WriteValues(fp, block.scale) &&
         WriteCodes(fp, Values(parameter), block, SymmetricEncoder(block.scale));
}

bool ReadAsymmetricBlock(FILE* fp, const ParameterRef& parameter, RowSums sums, FixedBlock& block,
                         uint64_t& memory_bytes) {
  if (!ReadValues(fp, block.scale, block.zero_point)) return false;
  if (sums == RowSums::kPerRow) {
    if (!FileHolds(fp, parameter.rows, sizeof(float))) return false;
    block.row_sums.resize(parameter.rows);
    if (!ReadArray(fp, std::span<float>(block.row_sums))) return false;
  }
  const float scale = block.scale;
  const int32_t zero_point = block.zero_point;
  return ReadCodes(
      fp, parameter, block, memory_bytes,
      [=](uint8_t code) { return DecodeAsymmetric(code, scale, zero_point); },
      AsymmetricEncoder(scale, zero_point));
}

bool WriteAsymmetricBlock(FILE* fp, const ConstParameterRef& parameter, RowSums sums) {
  FixedBlock block = EncodeAsymmetric(Values(parameter));
  if (sums == RowSums::kPerRow) {
    block.row_sums = SumRows(block.codes, parameter.rows, parameter.cols);
  }
  return WriteAsymmetricBlock(fp, parameter, block);
}

bool WriteAsymmetricBlock(FILE* fp, const ConstParameterRef& parameter, const FixedBlock& block) {
  return WriteValues(fp, block.scale, block.zero_point) &&
         WriteArray(fp, std::span<const float>(block.row_sums)) &&
         WriteCodes(fp, Values(parameter), block, AsymmetricEncoder(block.scale, block.zero_point));
}

bool ReadSymmetricBlocks(FILE* fp, const ParameterList& list, std::vector<FixedBlock>& blocks,
                         uint64_t& memory_bytes) {
  blocks.assign(list.size(), {});
  for (size_t i = 0; i < list.size(); ++i) {
    if (!ReadSymmetricBlock(fp, list[i], blocks[i], memory_bytes)) return false;
  }
  return true;
}

bool WriteSymmetricBlocks(FILE* fp, const ConstParameterList& list) {
  return std::ranges::all_of(list, [fp](const ConstParameterRef& parameter) {
    return WriteSymmetricBlock(fp, parameter);
  });
}

bool WriteSymmetricBlocks(FILE* fp, const ConstParameterList& list,
                          const std::vector<FixedBlock>& blocks) {
  if (blocks.size() != list.size()) return false;
  for (size_t i = 0; i < list.size(); ++i) {
    if (!WriteSymmetricBlock(fp, list[i], blocks[i])) return false;
  }
  return true;
}

void ReadTextFixed(FILE* fp, const ParameterList& list, MatrixOpening opening,
                   std::vector<FixedBlock>& blocks, uint64_t& memory_bytes) {
  ReadTextFloats(fp, list, opening, memory_bytes);
  blocks.assign(list.size(), {});
  for (size_t i = 0; i < list.size(); ++i) {
    blocks[i].scale = SymmetricScale(list[i].array->data(), list[i].count());
  }
}

}  // namespace tarev::nnet::handwriting_CTC
