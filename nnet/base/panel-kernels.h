#ifndef NNET_BASE_PANEL_KERNELS_H_
#define NNET_BASE_PANEL_KERNELS_H_

// Products of rows with a weight matrix in panels. A panel holds the weights of kPanelOutputs
// neighbouring outputs, input after input: those of all its outputs for input 0, then for input 1,
// and so on. A product loads each vector of them once for several rows of input and needs no sum
// across the lanes of a vector.
//
// Every result is one chain of fused multiply-adds over the inputs in ascending order, started from
// zero. On every vector target with fused multiply-add it therefore has the same bits, whatever the
// width of a vector, the number of rows in the call and the place of the output in its panel.

#include <cstddef>
#include <cstdint>

#include "nnet/base/strided-rows.h"

namespace tarev::nnet::handwriting_CTC {

/// Outputs of a panel.
inline constexpr size_t kPanelOutputs = 16;
/// Outputs of the last panel where these are enough for it. Outputs that are missing in the last
/// panel are zeros.
inline constexpr size_t kNarrowOutputs = 8;

/// The outputs of the panel that begins `left` outputs before the end.
constexpr size_t PanelWidth(size_t left) {
  return left > kNarrowOutputs ? kPanelOutputs : kNarrowOutputs;
}
/// The outputs of all panels together.
constexpr size_t PaddedOutputs(size_t outputs) {
  return outputs / kPanelOutputs * kPanelOutputs +
         (outputs % kPanelOutputs != 0 ? PanelWidth(outputs % kPanelOutputs) : 0);
}

/// Panels of `outputs` x `inputs` weights, floats or binary16, one panel after another. Not owned.
template <class T>
struct Panels {
  const T* data;
  size_t outputs;
  size_t inputs;
};

/// What becomes of a finished sum s of output n: s * scale + bias[n], both rounded. Without a bias
/// nothing is added. A scale of 0 gives zeros, whatever the sum is. The bias of a single row may be
/// the row of results itself, to which the product is then added.
struct ProductEnd {
  const float* bias = nullptr;
  float scale = 1.0F;
};

/// out (rows x outputs) = in (rows x inputs) weights', ended as `end` says. `out` overlaps nothing
/// else but for that bias.
void panel_product(StridedRows<const float> in, size_t rows, const Panels<float>& weights,
                   const ProductEnd& end, const StridedRows<float>& out);
void panel_product(StridedRows<const float> in, size_t rows, const Panels<uint16_t>& weights,
                   const ProductEnd& end, const StridedRows<float>& out);

/// The end of a product without inputs, all of whose sums are zeros.
void end_zeros(size_t rows, size_t outputs, const ProductEnd& end, const StridedRows<float>& out);

/// Writes `rows` rows of `count` units into a panel of the given width from its output `first` on:
/// unit k of row r becomes panel[k * width + first + r]. A unit is 16 or 32 bits.
void fill_panel(StridedRows<const uint32_t> units, size_t rows, size_t count, size_t first,
                uint32_t* panel, size_t width);
void fill_panel(StridedRows<const uint16_t> units, size_t rows, size_t count, size_t first,
                uint16_t* panel, size_t width);

/// Panels of rows of weights: an output each of `inputs` weights, or an input each of `outputs`
/// weights. `panels` has room for PaddedOutputs(outputs) x inputs floats.
void pack_outputs(StridedRows<const float> rows, size_t outputs, size_t inputs, float* panels);
void pack_inputs(StridedRows<const float> rows, size_t outputs, size_t inputs, float* panels);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_PANEL_KERNELS_H_
