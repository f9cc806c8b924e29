// The columns of a block of rows, for sums along rows that run in element order. Such a sum is one
// chain of additions, and a vector along the row would split it. Instead one lane holds one row: a
// vector is a column of as many rows as there are lanes, and one addition of vectors advances the
// sums of all of them. Rows are contiguous, so columns are made by transposing blocks of four
// columns in registers.
//
// Included after hwy/highway.h, once per target.

#if defined(NNET_BASE_ROW_COLUMNS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef NNET_BASE_ROW_COLUMNS_INL_H_
#undef NNET_BASE_ROW_COLUMNS_INL_H_
#else
#define NNET_BASE_ROW_COLUMNS_INL_H_
#endif

#include <cstddef>

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

#if HWY_TARGET != HWY_SCALAR  // where all groups are single rows

/// Four floats of every fourth row: 128-bit block b of the result is X[4 b][0..3]. The interleaving
/// instructions work within such blocks, so one sequence of them transposes 4 x 4 values in each
/// block, whatever the width of the vector.
template <class D>
HWY_INLINE hn::Vec<D> LoadRowBlocks(D d, const float* X, size_t cols) {
  if constexpr (hn::MaxLanes(D()) > 4) {
    const hn::Half<D> half;
    return hn::Combine(d, LoadRowBlocks(half, X + hn::Lanes(half) * cols, cols),
                       LoadRowBlocks(half, X, cols));
  } else {
    return hn::LoadU(d, X);
  }
}

/// Calls consume(v) for every one of `count` columns in order; lane r of v is the value of row r. D
/// has at least four lanes, X as many rows as D has lanes, `stride` floats apart. Columns left over
/// after the last four are gathered one by one.
template <class D, class Consume>
HWY_INLINE void ForEachColumn(D d, const float* X, size_t stride, size_t count,
                              const Consume& consume) {
  size_t c = 0;
  for (; c + 4 <= count; c += 4) {
    const auto row0 = LoadRowBlocks(d, X + c, stride);
    const auto row1 = LoadRowBlocks(d, X + stride + c, stride);
    const auto row2 = LoadRowBlocks(d, X + 2 * stride + c, stride);
    const auto row3 = LoadRowBlocks(d, X + 3 * stride + c, stride);
    const auto even_low = hn::InterleaveLower(d, row0, row2);
    const auto odd_low = hn::InterleaveLower(d, row1, row3);
    consume(hn::InterleaveLower(d, even_low, odd_low));
    consume(hn::InterleaveUpper(d, even_low, odd_low));
    const auto even_high = hn::InterleaveUpper(d, row0, row2);
    const auto odd_high = hn::InterleaveUpper(d, row1, row3);
    consume(hn::InterleaveLower(d, even_high, odd_high));
    consume(hn::InterleaveUpper(d, even_high, odd_high));
  }
  for (; c < count; ++c) {
    HWY_ALIGN float column[hn::MaxLanes(d)];
    for (size_t r = 0; r < hn::Lanes(d); ++r) column[r] = X[r * stride + c];
    consume(hn::Load(d, column));
  }
}

/// Transposes the N x N values of `rows`, N being the lanes of D: first every 4 x 4 values in
/// place, by the instructions that interleave within 128-bit blocks, then the blocks among
/// themselves.
template <class D>
HWY_INLINE void TransposeSquare(D d, hn::Vec<D> (&rows)[hn::MaxLanes(D())]) {
  using V = hn::Vec<D>;
  constexpr size_t kLanes = hn::MaxLanes(D());
  V quads[kLanes / 4][4];  // block b of quads[g][c]: column 4 b + c of rows 4 g … 4 g + 3
#pragma GCC unroll 4
  for (size_t g = 0; g < kLanes / 4; ++g) {
    const V* row = rows + 4 * g;
    const V even_low = hn::InterleaveLower(d, row[0], row[2]);
    const V odd_low = hn::InterleaveLower(d, row[1], row[3]);
    const V even_high = hn::InterleaveUpper(d, row[0], row[2]);
    const V odd_high = hn::InterleaveUpper(d, row[1], row[3]);
    quads[g][0] = hn::InterleaveLower(d, even_low, odd_low);
    quads[g][1] = hn::InterleaveUpper(d, even_low, odd_low);
    quads[g][2] = hn::InterleaveLower(d, even_high, odd_high);
    quads[g][3] = hn::InterleaveUpper(d, even_high, odd_high);
  }
#pragma GCC unroll 4
  for (size_t c = 0; c < 4; ++c) {
    if constexpr (kLanes == 4) {
      rows[c] = quads[0][c];
    } else if constexpr (kLanes == 8) {
      rows[c] = hn::ConcatLowerLower(d, quads[1][c], quads[0][c]);
      rows[4 + c] = hn::ConcatUpperUpper(d, quads[1][c], quads[0][c]);
    } else {
      static_assert(kLanes == 16);
      const V even_low = hn::ConcatLowerLower(d, quads[2][c], quads[0][c]);
      const V odd_low = hn::ConcatLowerLower(d, quads[3][c], quads[1][c]);
      const V even_high = hn::ConcatUpperUpper(d, quads[2][c], quads[0][c]);
      const V odd_high = hn::ConcatUpperUpper(d, quads[3][c], quads[1][c]);
      rows[c] = hn::OddEvenBlocks(hn::SwapAdjacentBlocks(odd_low), even_low);
      rows[4 + c] = hn::OddEvenBlocks(odd_low, hn::SwapAdjacentBlocks(even_low));
      rows[8 + c] = hn::OddEvenBlocks(hn::SwapAdjacentBlocks(odd_high), even_high);
      rows[12 + c] = hn::OddEvenBlocks(odd_high, hn::SwapAdjacentBlocks(even_high));
    }
  }
}

#else

/// A single value.
template <class D>
HWY_INLINE void TransposeSquare(D /*d*/, hn::Vec<D> (&/*rows*/)[1]) {}

#endif

/// Cuts `rows` rows into groups as large as vectors are, the last ones smaller: calls run(d, first)
/// with a tag of as many lanes as the group has rows. The smallest group is one row.
template <class D, class Run>
HWY_INLINE void ForEachRowGroup(D d, size_t first, size_t rows, const Run& run) {
  for (; rows - first >= hn::Lanes(d); first += hn::Lanes(d)) run(d, first);
  if constexpr (hn::MaxLanes(D()) > 4) {
    ForEachRowGroup(hn::Half<D>(), first, rows, run);
  } else {
    for (; first < rows; ++first) run(hn::CappedTag<float, 1>(), first);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#endif  // include guard per target
