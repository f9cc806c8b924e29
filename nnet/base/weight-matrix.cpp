#include "nnet/base/weight-matrix.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "nnet/base/element-kernels.h"
#include "nnet/base/products.h"
#include "utils/half-float.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Digits of a block of rows on the stack.
constexpr size_t kStackDigits = size_t{24} << 10;

// Calls visit(row, rows, n) for the parts of rows [first, first + count) that lie in one panel,
// which begins at output n.
template <class Visit>
void ForEachPanel(size_t first, size_t count, const Visit& visit) {
  for (size_t row = first; row < first + count;) {
    const size_t n = row / kPanelOutputs * kPanelOutputs;
    const size_t rows = std::min(n + kPanelOutputs, first + count) - row;
    visit(row, rows, n);
    row += rows;
  }
}

// T is the unit that a weight is stored in.
template <class T>
void PutRows(T* panels, size_t outputs, size_t inputs, size_t first, size_t count, const T* rows) {
  if (inputs == 0) return;
  ForEachPanel(first, count, [&](size_t row, size_t part, size_t n) {
    fill_panel({rows + (row - first) * inputs, inputs}, part, inputs, row - n, panels + n * inputs,
               PanelWidth(outputs - n));
  });
}

template <class T, class Out, class Convert>
void GetRows(const Panels<T>& panels, size_t first, size_t count, Out* rows,
             const Convert& convert) {
  if (panels.inputs == 0) return;
  for (size_t row = first; row < first + count; ++row) {
    const size_t n = row / kPanelOutputs * kPanelOutputs;
    const size_t width = PanelWidth(panels.outputs - n);
    const T* unit = panels.data + n * panels.inputs + (row - n);
    for (size_t k = 0; k < panels.inputs; ++k, unit += width) *rows++ = convert(*unit);
  }
}

template <class Out, class Convert>
void GetCodes(const CodePanels& panels, size_t first, size_t count, Out* rows,
              const Convert& convert) {
  if (panels.inputs == 0) return;
  constexpr size_t kUnitStep = kPanelOutputs * kUnitCodes;
  for (size_t row = first; row < first + count; ++row) {
    const size_t n = row / kPanelOutputs * kPanelOutputs;
    const uint8_t* codes =
        panels.data + n * UnitsFor(panels.inputs) * kUnitCodes + (row - n) * kUnitCodes;
    for (size_t k = 0; k < panels.inputs; ++k) {
      *rows++ = convert(codes[k / kUnitCodes * kUnitStep + k % kUnitCodes]);
    }
  }
}

}  // namespace

Panels<uint16_t> WeightMatrix::Halves() const {
  return {reinterpret_cast<const uint16_t*>(values_.data()), outputs_, inputs_};
}

CodePanels WeightMatrix::Codes() const {
  return {reinterpret_cast<const uint8_t*>(values_.data()), outputs_, inputs_, scale_, offset_};
}

// The outputs that are missing in the last panel are zeros: that panel is cleared before rows are
// put.
void WeightMatrix::Allocate(Form form, size_t outputs, size_t inputs, uint64_t& memory_bytes) {
  const bool codes = form == Form::kCodes;
  const size_t padded = codes ? CodePanelsFor(outputs) * kPanelOutputs : PaddedOutputs(outputs);
  const size_t output_bytes = codes                 ? UnitsFor(inputs) * kUnitCodes
                              : form == Form::kHalf ? inputs * sizeof(uint16_t)
                                                    : inputs * sizeof(float);
  const size_t group_floats = kNarrowOutputs * output_bytes / sizeof(float);
  values_.AllocateUncleared(padded / kNarrowOutputs, group_floats, memory_bytes);
  form_ = form;
  outputs_ = outputs;
  inputs_ = inputs;
  if (padded != outputs) {
    const size_t before = outputs / kPanelOutputs * kPanelOutputs / kNarrowOutputs * group_floats;
    zero_vec(values_.data() + before, values_.size() - before);
  }
}

void WeightMatrix::AllocateCodes(size_t outputs, size_t inputs, float scale, int32_t offset,
                                 uint64_t& memory_bytes) {
  if (outputs != 0 && CodeRowBytes(inputs) > kStackDigits) {
    digits_.AllocateUncleared(1, CodeRowBytes(inputs) / sizeof(float), memory_bytes);
  }
  Allocate(Form::kCodes, outputs, inputs, memory_bytes);
  scale_ = scale;
  offset_ = offset;
}

bool WeightMatrix::HoldsCodes(float scale, int32_t offset) {
  const float magnitude = std::max(std::fabs(static_cast<float>(offset)),
                                   std::fabs(static_cast<float>(int64_t{offset} + 255)));
  return std::isnormal(scale) && std::isfinite(magnitude / scale);
}

void WeightMatrix::Map(const float* rows, size_t outputs, size_t inputs) noexcept {
  values_.Map(rows, outputs * inputs);
  form_ = Form::kMapped;
  outputs_ = outputs;
  inputs_ = inputs;
}

// Panels of floats are filled as units of their bits.
void WeightMatrix::Put(size_t first, size_t count, const float* rows) {
  PutRows(reinterpret_cast<uint32_t*>(values_.data()), outputs_, inputs_, first, count,
          reinterpret_cast<const uint32_t*>(rows));
}

void WeightMatrix::Put(size_t first, size_t count, const uint16_t* rows) {
  PutRows(reinterpret_cast<uint16_t*>(values_.data()), outputs_, inputs_, first, count, rows);
}

// Four codes are one unit of a panel, brought together in a copy that has zeros for those missing.
void WeightMatrix::Put(size_t first, size_t count, const uint8_t* rows) {
  if (inputs_ == 0) return;
  const size_t units = UnitsFor(inputs_);
  std::vector<uint32_t> copy(std::min(count, kPanelOutputs) * units);
  ForEachPanel(first, count, [&](size_t row, size_t part, size_t n) {
    for (size_t r = 0; r < part; ++r) {
      std::memcpy(copy.data() + r * units, rows + (row - first + r) * inputs_, inputs_);
    }
    fill_panel({copy.data(), units}, part, units, row - n,
               reinterpret_cast<uint32_t*>(values_.data()) + n * units, kPanelOutputs);
  });
}

void WeightMatrix::Get(size_t first, size_t count, float* rows) const {
  switch (form_) {
    case Form::kSingle:
      return GetRows(Singles(), first, count, rows, [](float value) { return value; });
    case Form::kHalf:
      return GetRows(Halves(), first, count, rows, HalfToFloat);
    case Form::kCodes:
      return GetCodes(Codes(), first, count, rows,
                      [codes = Codes()](uint8_t code) { return codes.Weight(code); });
    case Form::kMapped:
      std::copy_n(values_.data() + first * inputs_, count * inputs_, rows);
  }
}

void WeightMatrix::Get(size_t first, size_t count, uint16_t* rows) const {
  GetRows(Halves(), first, count, rows, [](uint16_t half) { return half; });
}

void WeightMatrix::Get(size_t first, size_t count, uint8_t* rows) const {
  GetCodes(Codes(), first, count, rows, [](uint8_t code) { return code; });
}

void WeightMatrix::Multiply(StridedRows<const float> in, size_t rows, const ProductEnd& end,
                            const StridedRows<float>& out) {
  switch (form_) {
    case Form::kSingle:
      return panel_product(in, rows, Singles(), end, out);
    case Form::kHalf:
      return panel_product(in, rows, Halves(), end, out);
    case Form::kCodes:
      return MultiplyCodes(in, rows, end, out);
    case Form::kMapped:
      return MultiplyMapped(in, rows, end, out);
  }
}

void WeightMatrix::MultiplyCodes(StridedRows<const float> in, size_t rows, const ProductEnd& end,
                                 const StridedRows<float>& out) {
  if (!digits_.empty()) {
    return code_product(in, rows, Codes(), end, out, reinterpret_cast<int8_t*>(digits_.data()),
                        digits_.size() * sizeof(float));
  }
  alignas(64) int8_t digits[kStackDigits];
  code_product(in, rows, Codes(), end, out, digits, sizeof(digits));
}

void WeightMatrix::MultiplyMapped(StridedRows<const float> in, size_t rows, const ProductEnd& end,
                                  const StridedRows<float>& out) const {
  const bool adds = end.bias == out.data;
  matmul_trans_b(in, {values_.data(), inputs_}, out, rows, outputs_, inputs_, end.scale,
                 adds ? 1.0F : 0.0F);
  if (adds || end.bias == nullptr) return;
  for (size_t r = 0; r < rows; ++r) {
    add_vec_to_rows(out.From(r).data, 1, outputs_, end.bias, 1.0F);
  }
}

}  // namespace tarev::nnet::handwriting_CTC
