#ifndef NNET_BASE_CODE_KERNELS_H_
#define NNET_BASE_CODE_KERNELS_H_

// Products of float rows with 8-bit codes in panels, by integer arithmetic. Code q of a matrix
// means the weight (q + offset) / scale.
//
// A row of input is brought to integers of 24 bits, the largest magnitude near the end of their
// range, so that what is lost is a few units in 10^8 of that magnitude. Codes and integers are
// multiplied and summed exactly; each result is rounded where it is turned into a float. Its bits
// are therefore the same on every vector target, for any number of rows.
//
// Panels are those of panel-kernels.h, all of them of full width, with units of four codes: the
// codes of one output for inputs 4 k to 4 k + 3 are neighbours. Inputs that are missing at the end
// have codes of 0.

#include <cstddef>
#include <cstdint>

#include "nnet/base/panel-kernels.h"
#include "nnet/base/strided-rows.h"

namespace tarev::nnet::handwriting_CTC {

/// Codes of one unit.
inline constexpr size_t kUnitCodes = 4;

/// The units of `inputs` inputs.
constexpr size_t UnitsFor(size_t inputs) {
  return inputs / kUnitCodes + (inputs % kUnitCodes != 0 ? 1 : 0);
}

/// The panels of `outputs` outputs.
constexpr size_t CodePanelsFor(size_t outputs) {
  return outputs / kPanelOutputs + (outputs % kPanelOutputs != 0 ? 1 : 0);
}

/// Panels of `outputs` x `inputs` codes, one panel after another. Not owned. The scale is neither 0
/// nor so small that a weight is infinite.
struct CodePanels {
  const uint8_t* data;
  size_t outputs;
  size_t inputs;
  float scale;
  int32_t offset;

  float Weight(uint8_t code) const { return static_cast<float>(int64_t{code} + offset) / scale; }
};

/// Bytes that the digits of one row of so many inputs take.
size_t CodeRowBytes(size_t inputs);

/// out (rows x outputs) = in (rows x inputs) weights', ended as `end` says. `out` overlaps nothing
/// else. `room` bytes at `digits` hold the digits of as many rows at a time as fit there, one at
/// least; they are 64-byte aligned. In a row with infinities or NaNs these alone decide the result.
void code_product(StridedRows<const float> in, size_t rows, const CodePanels& weights,
                  const ProductEnd& end, const StridedRows<float>& out, int8_t* digits,
                  size_t room);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_CODE_KERNELS_H_
