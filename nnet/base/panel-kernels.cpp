#include "nnet/base/panel-kernels.h"

#include <algorithm>
#include <array>
#include <utility>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/base/panel-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

#include "nnet/base/lanes-inl.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Sums are formed side by side in registers: rows of input by vectors of outputs. The rows share
// every vector of weights that is loaded, the vectors every input value. With 32 registers
// (AVX-512) four vectors of outputs fit, with 16 two.
using TileTag = hn::CappedTag<float, kPanelOutputs>;
using NarrowTag = hn::CappedTag<float, kNarrowOutputs>;
constexpr size_t kTileRows = 6;
constexpr size_t kTileVectors = HWY_TARGET <= HWY_AVX3 ? 4 : 2;
// The inputs after which the sums of a tile are put down in the output, and the rows that all
// panels are multiplied with before the next rows are: what is read again then lies in the
// second-level cache.
constexpr size_t kBlockInputs = 512;
constexpr size_t kBlockRows = 120;

template <class D>
constexpr size_t LanesOf() {
  return hn::MaxLanes(D());
}
// Vectors of the tag in a panel of that width.
template <class D, size_t kWidth = kPanelOutputs>
constexpr size_t VectorsPerPanel() {
  return kWidth / LanesOf<D>();
}

// A single row has as many chains as vectors: enough to hide the latency of the multiply-adds, and
// few enough streams of weights for the first-level cache. They are those of whole panels.
template <class D>
constexpr size_t RowVectors() {
  return VectorsPerPanel<D>() == 1 ? 6 : std::max<size_t>(8, VectorsPerPanel<D>());
}

template <class D>
HWY_INLINE hn::Vec<D> LoadWeights(D d, const float* weights) {
  return hn::LoadU(d, weights);
}

template <class D>
HWY_INLINE hn::Vec<D> LoadWeights(D d, const uint16_t* weights) {
  const hn::Rebind<hwy::float16_t, D> half;
  return hn::PromoteTo(d, hn::LoadU(half, reinterpret_cast<const hwy::float16_t*>(weights)));
}

// The first `lanes` values of a vector, all of them unless `part`.
template <class D>
HWY_INLINE hn::Vec<D> LoadLanes(D d, const float* from, bool part, size_t lanes) {
  return part ? LoadPart(d, from, lanes) : hn::LoadU(d, from);
}

template <class D>
HWY_INLINE void StoreLanes(D d, hn::Vec<D> v, float* to, bool part, size_t lanes) {
  if (part) {
    StorePart(d, v, to, lanes);
  } else {
    hn::StoreU(v, d, to);
  }
}

template <class D>
HWY_INLINE hn::Vec<D> Scaled(D d, hn::Vec<D> v, float scale) {
  return scale == 0.0F ? hn::Zero(d) : hn::Mul(v, hn::Set(d, scale));
}

// Where a tile lies and what it sums over. Of its last vector only `last_lanes` values exist.
template <class T>
struct TilePlace {
  StridedRows<const float> in = {};
  const T* weights = nullptr;
  size_t panel_step = 0;  // from panel to panel
  size_t inputs = 0;
  ProductEnd end = {};
  StridedRows<float> out = {};
  bool resumes = false;   // from the sums that lie in the output
  bool finishes = false;  // no inputs follow
  size_t last_lanes = 0;
};

// The loops over rows and vectors must be unrolled for the sums to stay in registers.
template <class D, size_t kWidth, size_t kRows, size_t kVectors, class T>
void Tile(const TilePlace<T>& place) {
  const D d;
  using V = hn::Vec<D>;
  constexpr size_t kLanes = LanesOf<D>();
  constexpr size_t kPerPanel = VectorsPerPanel<D, kWidth>();
  const TilePlace<T> at = place;
  const bool part = at.last_lanes != kLanes;
  V sums[kRows][kVectors];
#pragma GCC unroll 6
  for (size_t r = 0; r < kRows; ++r) {
#pragma GCC unroll 4
    for (size_t v = 0; v < kVectors; ++v) {
      sums[r][v] = at.resumes ? LoadLanes(d, at.out.From(r).data + v * kLanes,
                                          part && v + 1 == kVectors, at.last_lanes)
                              : hn::Zero(d);
    }
  }
  const float* x = at.in.data;
  const T* w = at.weights;
  for (size_t k = at.inputs; k != 0; --k, ++x, w += kWidth) {
    V weights[kVectors];
#pragma GCC unroll 4
    for (size_t v = 0; v < kVectors; ++v) {
      weights[v] = LoadWeights(d, w + v / kPerPanel * at.panel_step + v % kPerPanel * kLanes);
    }
#pragma GCC unroll 6
    for (size_t r = 0; r < kRows; ++r) {
      const V value = hn::Set(d, x[r * at.in.stride]);
#pragma GCC unroll 4
      for (size_t v = 0; v < kVectors; ++v) {
        sums[r][v] = hn::MulAdd(value, weights[v], sums[r][v]);
      }
    }
  }
  // Constants of the end are loaded after the loop: before it they would take registers from it.
  asm volatile("" ::: "memory");
  const float scale = place.finishes ? place.end.scale : 1.0F;
  const float* bias = place.finishes ? place.end.bias : nullptr;
#pragma GCC unroll 4
  for (size_t v = 0; v < kVectors; ++v) {
    const bool part_here = part && v + 1 == kVectors;
    const V addend =
        bias != nullptr ? LoadLanes(d, bias + v * kLanes, part_here, at.last_lanes) : hn::Zero(d);
#pragma GCC unroll 6
    for (size_t r = 0; r < kRows; ++r) {
      V y = sums[r][v];
      if (scale != 1.0F) y = Scaled(d, y, scale);
      if (bias != nullptr) y = hn::Add(y, addend);
      StoreLanes(d, y, at.out.From(r).data + v * kLanes, part_here, at.last_lanes);
    }
  }
}

// The tile functions by rows and vectors, from 1 on: the number of sums in registers must be a
// constant.
template <class D, size_t kWidth, class T, size_t kRows, size_t... kLess>
constexpr auto TilesOfRows(std::index_sequence<kLess...> /*vectors*/) {
  return std::array{&Tile<D, kWidth, kRows, kLess + 1, T>...};
}
template <class D, size_t kWidth>
constexpr size_t TileVectors() {
  return kWidth == kPanelOutputs ? kTileVectors
                                 : std::min(kTileVectors, VectorsPerPanel<D, kWidth>());
}
template <class D, size_t kWidth, class T, size_t... kLess>
constexpr auto TilesOf(std::index_sequence<kLess...> /*rows*/) {
  return std::array{TilesOfRows<D, kWidth, T, kLess + 1>(
      std::make_index_sequence<TileVectors<D, kWidth>()>())...};
}

// All rows of a block with the outputs of one tile. The rows are spread evenly over tiles, so that
// no small one is left over.
template <class D, size_t kWidth, class T>
void TileRows(TilePlace<T> at, size_t rows, size_t outputs) {
  static constexpr auto kTiles = TilesOf<D, kWidth, T>(std::make_index_sequence<kTileRows>());
  constexpr size_t kLanes = LanesOf<D>();
  const size_t vectors = (outputs + kLanes - 1) / kLanes;
  at.last_lanes = outputs - (vectors - 1) * kLanes;
  size_t left = rows;
  for (size_t tiles = (rows + kTileRows - 1) / kTileRows; tiles != 0; --tiles) {
    const size_t count = (left + tiles - 1) / tiles;
    kTiles[count - 1][vectors - 1](at);
    at.in = at.in.From(count);
    at.out = at.out.From(count);
    left -= count;
  }
}

// Outputs in panels of full width.
template <class T>
size_t WideOutputs(const Panels<T>& weights) {
  const size_t last = weights.outputs % kPanelOutputs;
  return last != 0 && last <= kNarrowOutputs ? weights.outputs - last : weights.outputs;
}

template <class T>
void BlockOfRows(StridedRows<const float> in, size_t rows, const Panels<T>& weights,
                 const ProductEnd& end, const StridedRows<float>& out) {
  constexpr size_t kTileOutputs = kTileVectors * LanesOf<TileTag>();
  constexpr size_t kNarrowTile = TileVectors<NarrowTag, kNarrowOutputs>() * LanesOf<NarrowTag>();
  const size_t panel_step = weights.inputs * kPanelOutputs;
  const size_t wide = WideOutputs(weights);
  for (size_t k = 0; k < weights.inputs; k += kBlockInputs) {
    const size_t inputs = std::min(kBlockInputs, weights.inputs - k);
    const auto place = [&](size_t n, size_t width) {
      return TilePlace<T>{
          {in.data + k, in.stride},
          weights.data + n / kPanelOutputs * panel_step + k * width + n % kPanelOutputs,
          panel_step,
          inputs,
          {end.bias != nullptr ? end.bias + n : nullptr, end.scale},
          {out.data + n, out.stride},
          k != 0,
          k + inputs == weights.inputs,
          0};
    };
    for (size_t n = 0; n < wide; n += kTileOutputs) {
      TileRows<TileTag, kPanelOutputs>(place(n, kPanelOutputs), rows,
                                       std::min(kTileOutputs, wide - n));
    }
    for (size_t n = wide; n < weights.outputs; n += kNarrowTile) {
      TileRows<NarrowTag, kNarrowOutputs>(place(n, kNarrowOutputs), rows,
                                          std::min(kNarrowTile, weights.outputs - n));
    }
  }
}

// kVectors vectors of the outputs of one row, from output n on, the first of a panel.
template <class D, size_t kWidth, size_t kVectors, class T>
void RowPart(const float* in, const Panels<T>& weights, size_t n, const ProductEnd& end,
             float* out) {
  const D d;
  using V = hn::Vec<D>;
  constexpr size_t kLanes = LanesOf<D>();
  constexpr size_t kPerPanel = VectorsPerPanel<D, kWidth>();
  const size_t panel_step = weights.inputs * kPanelOutputs;
  const float* x = in;
  const T* w = weights.data + n / kPanelOutputs * panel_step;
  V sums[kVectors];
#pragma GCC unroll 16
  for (size_t v = 0; v < kVectors; ++v) sums[v] = hn::Zero(d);
  for (size_t k = weights.inputs; k != 0; --k, ++x, w += kWidth) {
    const V value = hn::Set(d, *x);
#pragma GCC unroll 16
    for (size_t v = 0; v < kVectors; ++v) {
      const T* at = w + v / kPerPanel * panel_step + v % kPerPanel * kLanes;
      sums[v] = hn::MulAdd(value, LoadWeights(d, at), sums[v]);
    }
  }
#pragma GCC unroll 16
  for (size_t v = 0; v < kVectors; ++v) {
    const size_t first = n + v * kLanes;
    if (first >= weights.outputs) break;
    const size_t lanes = std::min(kLanes, weights.outputs - first);
    const bool part = lanes != kLanes;
    if (end.scale != 1.0F) sums[v] = Scaled(d, sums[v], end.scale);
    if (end.bias != nullptr) {
      sums[v] = hn::Add(sums[v], LoadLanes(d, end.bias + first, part, lanes));
    }
    StoreLanes(d, sums[v], out + first, part, lanes);
  }
}

template <class D, size_t kWidth, class T, size_t... kLess>
constexpr auto RowPartsOf(std::index_sequence<kLess...> /*vectors*/) {
  return std::array{&RowPart<D, kWidth, kLess + 1, T>...};
}

template <class D, class T>
void OneRow(const float* in, const Panels<T>& weights, const ProductEnd& end, float* out) {
  constexpr size_t kLanes = LanesOf<D>();
  constexpr size_t kVectors = RowVectors<D>();
  constexpr size_t kNarrowVectors = VectorsPerPanel<NarrowTag, kNarrowOutputs>();
  static constexpr auto kParts =
      RowPartsOf<D, kPanelOutputs, T>(std::make_index_sequence<kVectors>());
  const size_t wide = WideOutputs(weights);
  for (size_t n = 0; n < wide; n += kVectors * kLanes) {
    const size_t vectors = (wide - n + kLanes - 1) / kLanes;
    kParts[std::min(kVectors, vectors) - 1](in, weights, n, end, out);
  }
  if (wide < weights.outputs) {
    RowPart<NarrowTag, kNarrowOutputs, kNarrowVectors>(in, weights, wide, end, out);
  }
}

template <class T>
void ManyRows(StridedRows<const float> in, size_t rows, const Panels<T>& weights,
              const ProductEnd& end, const StridedRows<float>& out) {
  for (size_t first = 0; first < rows; first += kBlockRows) {
    BlockOfRows(in.From(first), std::min(kBlockRows, rows - first), weights, end, out.From(first));
  }
}

void Product(StridedRows<const float> in, size_t rows, const Panels<float>& weights,
             const ProductEnd& end, const StridedRows<float>& out) {
  if (rows == 1) return OneRow<TileTag>(in.data, weights, end, out.data);
  ManyRows(in, rows, weights, end, out);
}

// Half as many bytes a weight, so that the conversion counts: to eight floats it takes less than
// half the time of that to sixteen.
void HalfProduct(StridedRows<const float> in, size_t rows, const Panels<uint16_t>& weights,
                 const ProductEnd& end, const StridedRows<float>& out) {
  if (rows == 1) return OneRow<hn::CappedTag<float, 8>>(in.data, weights, end, out.data);
  ManyRows(in, rows, weights, end, out);
}

#if HWY_TARGET != HWY_SCALAR

// A square of units transposed in registers, whose side is the number of units in 16 bytes. Each
// step interleaves the first half of the rows with the second.
template <class T>
HWY_INLINE void TransposeSquare(StridedRows<const T> in, T* panel, size_t width) {
  const hn::CappedTag<T, 16 / sizeof(T)> d;
  constexpr size_t kSide = hn::MaxLanes(d);
  hn::Vec<decltype(d)> rows[kSide];
#pragma GCC unroll 8
  for (size_t i = 0; i < kSide; ++i) rows[i] = hn::LoadU(d, in.From(i).data);
#pragma GCC unroll 3
  for (size_t step = 1; step < kSide; step *= 2) {
    hn::Vec<decltype(d)> turned[kSide];
#pragma GCC unroll 4
    for (size_t i = 0; i < kSide / 2; ++i) {
      turned[2 * i] = hn::InterleaveLower(d, rows[i], rows[i + kSide / 2]);
      turned[2 * i + 1] = hn::InterleaveUpper(d, rows[i], rows[i + kSide / 2]);
    }
#pragma GCC unroll 8
    for (size_t i = 0; i < kSide; ++i) rows[i] = turned[i];
  }
#pragma GCC unroll 8
  for (size_t i = 0; i < kSide; ++i) hn::StoreU(rows[i], d, panel + i * width);
}

#endif

// Squares first, in strips as wide as a cache line, so that a line is read whole before those of
// other rows take its place; then what is left over at both edges, unit by unit.
template <class T>
void Fill(StridedRows<const T> units, size_t rows, size_t count, size_t first, T* panel,
          size_t width) {
  size_t whole_rows = 0;
  size_t whole = 0;
#if HWY_TARGET != HWY_SCALAR
  constexpr size_t kStrip = 64 / sizeof(T);
  constexpr size_t kSide = 16 / sizeof(T);
  whole_rows = rows / kSide * kSide;
  whole = count / kSide * kSide;
  for (size_t strip = 0; strip < whole; strip += kStrip) {
    const size_t end = std::min(whole, strip + kStrip);
    for (size_t r = 0; r < whole_rows; r += kSide) {
      for (size_t k = strip; k < end; k += kSide) {
        TransposeSquare<T>({units.From(r).data + k, units.stride}, panel + k * width + first + r,
                           width);
      }
    }
  }
#endif
  for (size_t k = 0; k < count; ++k) {
    T* const to = panel + k * width + first;
    const T* from = units.data + k;
#pragma GCC unroll 8
    for (size_t r = k < whole ? whole_rows : 0; r < rows; ++r) to[r] = from[r * units.stride];
  }
}

void FillUnits(StridedRows<const uint32_t> units, size_t rows, size_t count, size_t first,
               uint32_t* panel, size_t width) {
  Fill(units, rows, count, first, panel, width);
}

void FillHalves(StridedRows<const uint16_t> units, size_t rows, size_t count, size_t first,
                uint16_t* panel, size_t width) {
  Fill(units, rows, count, first, panel, width);
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(Product);
HWY_EXPORT(HalfProduct);
HWY_EXPORT(FillUnits);
HWY_EXPORT(FillHalves);

void end_zeros(size_t rows, size_t outputs, const ProductEnd& end, const StridedRows<float>& out) {
  const float sum = end.scale == 0.0F ? 0.0F : 0.0F * end.scale;
  for (size_t r = 0; r < rows; ++r) {
    float* row = out.From(r).data;
    for (size_t n = 0; n < outputs; ++n) row[n] = end.bias == nullptr ? sum : sum + end.bias[n];
  }
}

void panel_product(StridedRows<const float> in, size_t rows, const Panels<float>& weights,
                   const ProductEnd& end, const StridedRows<float>& out) {
  if (weights.inputs == 0) return end_zeros(rows, weights.outputs, end, out);
  HWY_DYNAMIC_DISPATCH(Product)(in, rows, weights, end, out);
}

void panel_product(StridedRows<const float> in, size_t rows, const Panels<uint16_t>& weights,
                   const ProductEnd& end, const StridedRows<float>& out) {
  if (weights.inputs == 0) return end_zeros(rows, weights.outputs, end, out);
  HWY_DYNAMIC_DISPATCH(HalfProduct)(in, rows, weights, end, out);
}

void fill_panel(StridedRows<const uint32_t> units, size_t rows, size_t count, size_t first,
                uint32_t* panel, size_t width) {
  HWY_DYNAMIC_DISPATCH(FillUnits)(units, rows, count, first, panel, width);
}

void fill_panel(StridedRows<const uint16_t> units, size_t rows, size_t count, size_t first,
                uint16_t* panel, size_t width) {
  HWY_DYNAMIC_DISPATCH(FillHalves)(units, rows, count, first, panel, width);
}

// What is missing in the last panel is multiplied and not stored.
void pack_outputs(StridedRows<const float> rows, size_t outputs, size_t inputs, float* panels) {
  for (size_t n = 0; n < outputs; n += kPanelOutputs) {
    fill_panel({reinterpret_cast<const uint32_t*>(rows.From(n).data), rows.stride},
               std::min(kPanelOutputs, outputs - n), inputs, 0,
               reinterpret_cast<uint32_t*>(panels + n * inputs), PanelWidth(outputs - n));
  }
}

void pack_inputs(StridedRows<const float> rows, size_t outputs, size_t inputs, float* panels) {
  for (size_t n = 0; n < outputs; n += kPanelOutputs) {
    const size_t width = PanelWidth(outputs - n);
    float* panel = panels + n * inputs;
    for (size_t k = 0; k < inputs; ++k, panel += width) {
      std::copy_n(rows.From(k).data + n, std::min(width, outputs - n), panel);
    }
  }
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
