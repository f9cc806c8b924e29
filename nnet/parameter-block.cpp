#include "nnet/parameter-block.h"

#include <algorithm>
#include <cstdint>

#include "utils/file-io.h"
#include "utils/half-float.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

std::span<const float> Values(const ConstParameterRef& parameter) {
  return parameter.array->values().first(parameter.count());
}

std::span<float> Allocate(const ParameterRef& parameter, uint64_t& memory_bytes) {
  parameter.array->Allocate(parameter.rows + parameter.spare_rows, parameter.cols, memory_bytes);
  return parameter.array->values().first(parameter.count());
}

// A shape from a model file: its product must not wrap, and its values must still be in the file.
bool Holds(FILE* fp, const ParameterRef& parameter, size_t element_size) {
  size_t count = 0;
  return !__builtin_mul_overflow(parameter.rows, parameter.cols, &count) &&
         FileHolds(fp, count, element_size);
}

}  // namespace

bool ReadFloats(FILE* fp, const ParameterList& list, uint64_t& memory_bytes) {
  return std::ranges::all_of(list, [&](const ParameterRef& parameter) {
    return Holds(fp, parameter, sizeof(float)) && ReadArray(fp, Allocate(parameter, memory_bytes));
  });
}

bool WriteFloats(FILE* fp, const ConstParameterList& list) {
  return std::ranges::all_of(
      list, [fp](const ConstParameterRef& parameter) { return WriteArray(fp, Values(parameter)); });
}

bool ReadHalfFloats(FILE* fp, const ParameterList& list, uint64_t& memory_bytes) {
  std::vector<uint16_t> stored;
  for (const ParameterRef& parameter : list) {
    if (!Holds(fp, parameter, sizeof(uint16_t))) return false;
    stored.resize(parameter.count());
    if (!ReadArray(fp, std::span<uint16_t>(stored))) return false;
    std::ranges::transform(stored, Allocate(parameter, memory_bytes).begin(), HalfToFloat);
  }
  return true;
}

bool WriteHalfFloats(FILE* fp, const ConstParameterList& list) {
  std::vector<uint16_t> stored;
  for (const ConstParameterRef& parameter : list) {
    stored.resize(parameter.count());
    std::ranges::transform(Values(parameter), stored.begin(), FloatToHalf);
    if (!WriteArray(fp, std::span<const uint16_t>(stored))) return false;
  }
  return true;
}

void ReadTextFloats(FILE* fp, const ParameterList& list, MatrixOpening opening,
                    uint64_t& memory_bytes) {
  for (const ParameterRef& parameter : list) {
    const std::vector<float> values = ReadTextValues(fp, static_cast<int>(parameter.rows),
                                                     static_cast<int>(parameter.cols), opening);
    std::ranges::copy(values, Allocate(parameter, memory_bytes).begin());
  }
}

void ReadTextMatrices(FILE* fp, FloatArray& array, size_t count, int rows, int cols,
                      uint64_t& memory_bytes) {
  std::vector<float> values;
  for (size_t i = 0; i < count; ++i) {
    const std::vector<float> matrix = ReadTextValues(fp, rows, cols, MatrixOpening::kStrict);
    values.insert(values.end(), matrix.begin(), matrix.end());
  }
  array.Allocate(1, values.size(), memory_bytes);
  std::ranges::copy(values, array.values().begin());
}

bool MapFloats(const char** cursor, const ParameterList& list, uint64_t& memory_bytes) {
  if (reinterpret_cast<uintptr_t>(*cursor) % alignof(float) != 0) return false;
  for (const ParameterRef& parameter : list) {
    parameter.array->Map(reinterpret_cast<const float*>(*cursor), parameter.count());
    const size_t bytes = parameter.count() * sizeof(float);
    *cursor += bytes;
    memory_bytes += bytes;
  }
  return true;
}

}  // namespace tarev::nnet::handwriting_CTC
