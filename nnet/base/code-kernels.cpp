#include "nnet/base/code-kernels.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/base/code-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

#include "nnet/base/lanes-inl.h"

// Shared by all targets.
#ifndef NNET_BASE_CODE_KERNELS_CPP_ONCE_
#define NNET_BASE_CODE_KERNELS_CPP_ONCE_

namespace tarev::nnet::handwriting_CTC {
namespace {

// The integers of a row reach up to here: three signed digits of a byte each can say them, and two
// of twelve bits.
constexpr float kLargest = 8355000.0F;
// The largest factor between a row and its integers. Rows of yet smaller values lose places.
constexpr float kLargestFactor = 0x1p120F;
// Inputs whose products with one digit fit 32 bits when they are added up.
constexpr size_t kChunkInputs = 4096;
// Every plane of digits begins on a cache line.
constexpr size_t kAlignment = 64;

// Three planes of bytes, or two planes of 16 bits, which is more.
constexpr size_t kPlaneBytes = 4;

// One row as integers: `digits` holds its planes, each of `padded` digits with zeros behind the
// last input.
struct CodeRow {
  int8_t* digits;
  size_t padded;
  /// 1 / (factor * scale): what turns an integer total into a value.
  double unit;
  /// The sum of the integers, and of the digits of each plane of bytes.
  int64_t sum;
  int32_t plane_sums[3];
  float* out;
};

// What the offset of the codes adds to every total of a row.
double Offset(const CodeRow& row, const CodePanels& weights) {
  return static_cast<double>(weights.offset) * static_cast<double>(row.sum);
}

size_t PaddedInputs(size_t inputs) {
  return std::max<size_t>(1, (inputs + kAlignment - 1) / kAlignment) * kAlignment;
}

bool HasByteProducts() {
  static const bool has = __builtin_cpu_supports("avx512vnni") != 0;
  return has;
}

}  // namespace
}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_CODE_KERNELS_CPP_ONCE_

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Largest magnitude of a row; NaN or infinite when a value is.
float LargestMagnitude(const float* in, size_t n) {
  const hn::ScalableTag<float> d;
  const size_t lanes = hn::Lanes(d);
  // The magnitudes of floats are ordered as their bits are, NaNs above all.
  const hn::RebindToSigned<decltype(d)> di;
  auto largest = hn::Zero(di);
  size_t i = 0;
  for (; i + lanes <= n; i += lanes) {
    largest = hn::Max(largest, hn::BitCast(di, hn::Abs(hn::LoadU(d, in + i))));
  }
  if (i < n) largest = hn::Max(largest, hn::BitCast(di, hn::Abs(LoadPart(d, in + i, n - i))));
  return std::bit_cast<float>(hn::GetLane(hn::MaxOfLanes(di, largest)));
}

// The digits of `n` <= kChunkInputs values, which are those of the row from input `first` on, and
// their sums. With bytes the planes are those of 2^16, 2^8 and 1, otherwise those of 2^12 and 1,
// all digits signed.
template <class D>
void StoreDigits(D d, const float* values, size_t n, float factor, bool bytes, CodeRow& row,
                 size_t first) {
  const hn::RebindToSigned<D> di;
  const hn::Rebind<int8_t, D> d8;
  const hn::Rebind<int16_t, D> d16;
  const auto scale = hn::Set(d, factor);
  auto high_sum = hn::Zero(di);
  auto middle_sum = hn::Zero(di);
  auto low_sum = hn::Zero(di);
  if (bytes) {
    int8_t* planes = row.digits + first;
    for (size_t i = 0; i < n; i += hn::Lanes(d)) {
      const auto q = hn::NearestInt(hn::Mul(hn::LoadU(d, values + i), scale));
      const auto low = hn::ShiftRight<24>(hn::ShiftLeft<24>(q));
      const auto rest = hn::ShiftRight<8>(hn::Sub(q, low));
      const auto middle = hn::ShiftRight<24>(hn::ShiftLeft<24>(rest));
      const auto high = hn::ShiftRight<8>(hn::Sub(rest, middle));
      hn::StoreU(hn::DemoteTo(d8, high), d8, planes + i);
      hn::StoreU(hn::DemoteTo(d8, middle), d8, planes + row.padded + i);
      hn::StoreU(hn::DemoteTo(d8, low), d8, planes + 2 * row.padded + i);
      high_sum = hn::Add(high_sum, high);
      middle_sum = hn::Add(middle_sum, middle);
      low_sum = hn::Add(low_sum, low);
    }
    row.plane_sums[0] += hn::GetLane(hn::SumOfLanes(di, high_sum));
    row.plane_sums[1] += hn::GetLane(hn::SumOfLanes(di, middle_sum));
    row.plane_sums[2] += hn::GetLane(hn::SumOfLanes(di, low_sum));
    return;
  }
  int16_t* planes = reinterpret_cast<int16_t*>(row.digits) + first;
  for (size_t i = 0; i < n; i += hn::Lanes(d)) {
    const auto q = hn::NearestInt(hn::Mul(hn::LoadU(d, values + i), scale));
    const auto high = hn::ShiftRight<12>(hn::Add(q, hn::Set(di, 2048)));
    const auto low = hn::Sub(q, hn::ShiftLeft<12>(high));
    hn::StoreU(hn::DemoteTo(d16, high), d16, planes + i);
    hn::StoreU(hn::DemoteTo(d16, low), d16, planes + row.padded + i);
    high_sum = hn::Add(high_sum, high);
    low_sum = hn::Add(low_sum, low);
  }
  row.sum += int64_t{hn::GetLane(hn::SumOfLanes(di, high_sum))} * 4096 +
             hn::GetLane(hn::SumOfLanes(di, low_sum));
}

// Turns one row into integers, the last of them from a padded copy. False when a value is not
// finite.
bool MakeRow(const float* in, size_t inputs, float scale, bool bytes, CodeRow& row) {
  const hn::ScalableTag<float> d;
  const float largest = LargestMagnitude(in, inputs);
  if (!std::isfinite(largest)) return false;
  const float factor = largest > 0.0F ? std::min(kLargest / largest, kLargestFactor) : 1.0F;
  row.unit = 1.0 / (static_cast<double>(factor) * static_cast<double>(scale));
  row.sum = 0;
  std::fill_n(row.plane_sums, 3, 0);
  const size_t whole = inputs / kAlignment * kAlignment;
  for (size_t first = 0; first < whole; first += kChunkInputs) {
    StoreDigits(d, in + first, std::min(kChunkInputs, whole - first), factor, bytes, row, first);
  }
  if (whole != row.padded) {
    HWY_ALIGN float tail[kAlignment] = {};
    std::copy(in + whole, in + inputs, tail);
    StoreDigits(d, tail, kAlignment, factor, bytes, row, whole);
  }
  return true;
}

// Ends neighbouring outputs of a row, as many as `d` has lanes and the matrix has from `n` on, and
// stores them.
template <class D>
HWY_INLINE void StoreOutputs(D d, hn::Vec<D> y, const CodeRow& row, const CodePanels& weights,
                             const ProductEnd& end, size_t n) {
  if (end.scale != 1.0F) {
    y = end.scale == 0.0F ? hn::Zero(d) : hn::Mul(y, hn::Set(d, end.scale));
  }
  const size_t left = weights.outputs - n;
  if (left >= hn::Lanes(d)) {
    if (end.bias != nullptr) y = hn::Add(y, hn::LoadU(d, end.bias + n));
    hn::StoreU(y, d, row.out + n);
  } else {
    if (end.bias != nullptr) y = hn::Add(y, LoadPart(d, end.bias + n, left));
    StorePart(d, y, row.out + n, left);
  }
}

// Rows with infinities and NaNs: all other terms are too small to matter.
void NonFiniteRow(const float* in, const CodePanels& weights, const ProductEnd& end, float* out) {
  const size_t panel_bytes = UnitsFor(weights.inputs) * kUnitCodes * kPanelOutputs;
  for (size_t n = 0; n < weights.outputs; ++n) {
    const uint8_t* codes =
        weights.data + n / kPanelOutputs * panel_bytes + n % kPanelOutputs * kUnitCodes;
    float sum = 0.0F;
    for (size_t k = 0; k < weights.inputs && !std::isnan(sum); ++k) {
      if (std::isfinite(in[k])) continue;
      const size_t unit = k / kUnitCodes * kPanelOutputs * kUnitCodes;
      sum += in[k] * weights.Weight(codes[unit + k % kUnitCodes]);
    }
    if (end.scale != 1.0F) sum = end.scale == 0.0F ? 0.0F : sum * end.scale;
    out[n] = end.bias != nullptr ? sum + end.bias[n] : sum;
  }
}

#if HWY_TARGET <= HWY_AVX3

// Sums of four products of bytes in each 32-bit lane, in one instruction that takes unsigned codes
// and signed digits. It is written out because the compiler moves the accumulators of the intrinsic
// to the stack.
constexpr size_t kByteTileRows = 2;
constexpr size_t kByteTilePanels = 4;
constexpr size_t kBytePlanes = 3;

HWY_INLINE __m512i AddByteProducts(__m512i sums, __m512i codes, __m512i digits) {
  asm("vpdpbusd %2, %1, %0" : "+v"(sums) : "v"(codes), "v"(digits));
  return sums;
}

// Loads 64 codes, once: the compiler would otherwise load them again for every plane.
HWY_INLINE __m512i LoadCodes(const uint8_t* codes) {
  __m512i loaded = _mm512_loadu_si512(codes);
  asm("" : "+v"(loaded));
  return loaded;
}

HWY_INLINE __m512i FourDigits(const int8_t* digits) {
  __m512i four;
  asm("vpbroadcastd %1, %0" : "=v"(four) : "m"(*reinterpret_cast<const int8_t(*)[4]>(digits)));
  return four;
}

// Eight exact totals from their sums in the three planes, of which the lower two may have been
// joined as integers.
HWY_INLINE __m512d JoinPlanes(__m256i high, __m256i middle, __m256i low) {
  const __m512d total =
      _mm512_fmadd_pd(_mm512_cvtepi32_pd(high), _mm512_set1_pd(65536.0), _mm512_cvtepi32_pd(low));
  return _mm512_fmadd_pd(_mm512_cvtepi32_pd(middle), _mm512_set1_pd(256.0), total);
}
HWY_INLINE __m512d JoinPlanes(__m256i high, __m256i lower) {
  return _mm512_fmadd_pd(_mm512_cvtepi32_pd(high), _mm512_set1_pd(65536.0),
                         _mm512_cvtepi32_pd(lower));
}

// Ends a panel as EndOutputs does; the sums hold the part of the offset already.
template <bool kJoinLower>
HWY_INLINE void EndPanel(const CodeRow& row, const CodePanels& weights, const ProductEnd& end,
                         size_t n, __m512i high, __m512i middle, __m512i low) {
  const __m512d unit = _mm512_set1_pd(row.unit);
  const auto half = [](__m512i v, bool upper) HWY_ATTR {
    return upper ? _mm512_extracti64x4_epi64(v, 1) : _mm512_castsi512_si256(v);
  };
  const __m512i lower = _mm512_add_epi32(_mm512_slli_epi32(middle, 8), low);
  const auto value = [&](bool upper) HWY_ATTR {
    const __m512d total =
        kJoinLower ? JoinPlanes(half(high, upper), half(lower, upper))
                   : JoinPlanes(half(high, upper), half(middle, upper), half(low, upper));
    return _mm512_cvtpd_ps(_mm512_mul_pd(total, unit));
  };
  const hn::CappedTag<float, kPanelOutputs> d;
  using Half = hn::Vec<hn::Half<decltype(d)>>;
  StoreOutputs(d, hn::Combine(d, Half{value(true)}, Half{value(false)}), row, weights, end, n);
}

// What fits the sums of the planes, the part of the offset included.
bool FitsByteTiles(const CodePanels& weights) {
  constexpr int32_t kLargestOffset = 2048;
  return weights.inputs <= kChunkInputs && std::abs(int64_t{weights.offset}) <= kLargestOffset;
}
// Whether the sums of the two lower planes fit 32 bits together: a digit is no larger than 128, and
// 256 times the larger of the two sums counts.
bool LowerPlanesFit(const CodePanels& weights) {
  const int64_t offset = weights.offset;
  const int64_t largest = std::max(std::abs(offset), std::abs(offset + 255));
  return largest * static_cast<int64_t>(weights.inputs) * 128 * 257 < int64_t{1} << 31;
}

template <size_t kRows, size_t kPanels>
void ByteTile(const CodeRow* rows, const CodePanels& weights, const ProductEnd& end, size_t n) {
  const size_t units = UnitsFor(weights.inputs);
  const size_t panel_bytes = units * kUnitCodes * kPanelOutputs;
  const uint8_t* w = weights.data + n / kPanelOutputs * panel_bytes;
  const size_t padded = rows[0].padded;
  __m512i sums[kRows][kBytePlanes][kPanels];
  const int8_t* digits[kRows];
#pragma GCC unroll 2
  for (size_t r = 0; r < kRows; ++r) {
    digits[r] = rows[r].digits;
#pragma GCC unroll 3
    for (size_t plane = 0; plane < kBytePlanes; ++plane) {
      const __m512i start = _mm512_set1_epi32(weights.offset * rows[r].plane_sums[plane]);
#pragma GCC unroll 4
      for (size_t p = 0; p < kPanels; ++p) sums[r][plane][p] = start;
    }
  }
  for (size_t k = units; k != 0; --k) {
    __m512i codes[kPanels];
#pragma GCC unroll 4
    for (size_t p = 0; p < kPanels; ++p) codes[p] = LoadCodes(w + p * panel_bytes);
#pragma GCC unroll 2
    for (size_t r = 0; r < kRows; ++r) {
#pragma GCC unroll 3
      for (size_t plane = 0; plane < kBytePlanes; ++plane) {
        const __m512i four = FourDigits(digits[r] + plane * padded);
#pragma GCC unroll 4
        for (size_t p = 0; p < kPanels; ++p) {
          sums[r][plane][p] = AddByteProducts(sums[r][plane][p], codes[p], four);
        }
      }
      digits[r] += kUnitCodes;
    }
    w += kUnitCodes * kPanelOutputs;
  }
  asm volatile("" ::: "memory");
  const bool join = LowerPlanesFit(weights);
#pragma GCC unroll 2
  for (size_t r = 0; r < kRows; ++r) {
#pragma GCC unroll 4
    for (size_t p = 0; p < kPanels; ++p) {
      const size_t at = n + p * kPanelOutputs;
      if (join) {
        EndPanel<true>(rows[r], weights, end, at, sums[r][0][p], sums[r][1][p], sums[r][2][p]);
      } else {
        EndPanel<false>(rows[r], weights, end, at, sums[r][0][p], sums[r][1][p], sums[r][2][p]);
      }
    }
  }
}

template <size_t kRows, size_t... kLess>
constexpr auto ByteTilesOf(std::index_sequence<kLess...> /*panels*/) {
  return std::array{&ByteTile<kRows, kLess + 1>...};
}

// Some panels after the others, each with all rows of the block while it is in the cache.
void ByteRows(const CodeRow* rows, size_t count, const CodePanels& weights, const ProductEnd& end) {
  constexpr std::make_index_sequence<kByteTilePanels> kPanels;
  static constexpr auto kSingle = ByteTilesOf<1>(kPanels);
  static constexpr auto kDouble = ByteTilesOf<kByteTileRows>(kPanels);
  const size_t panels = CodePanelsFor(weights.outputs);
  for (size_t p = 0; p < panels; p += kByteTilePanels) {
    const size_t tile = std::min(kByteTilePanels, panels - p) - 1;
    size_t r = 0;
    for (; r + kByteTileRows <= count; r += kByteTileRows) {
      kDouble[tile](rows + r, weights, end, p * kPanelOutputs);
    }
    if (r < count) kSingle[tile](rows + r, weights, end, p * kPanelOutputs);
  }
}

#endif

// Tiles with the digits of twelve bits, whose products with codes are summed in pairs.
#if HWY_TARGET > HWY_SSSE3  // without vectors, or with emulated ones

void PairRows(const CodeRow* rows, size_t count, const CodePanels& weights, const ProductEnd& end) {
  const hn::CappedTag<float, 1> d;
  const size_t panel_bytes = UnitsFor(weights.inputs) * kUnitCodes * kPanelOutputs;
  for (size_t n = 0; n < weights.outputs; ++n) {
    const uint8_t* codes =
        weights.data + n / kPanelOutputs * panel_bytes + n % kPanelOutputs * kUnitCodes;
    for (size_t r = 0; r < count; ++r) {
      const auto* high_digits = reinterpret_cast<const int16_t*>(rows[r].digits);
      const int16_t* low_digits = high_digits + rows[r].padded;
      int64_t total = 0;
      for (size_t k = 0; k < weights.inputs; ++k) {
        const int64_t code = codes[k / kUnitCodes * kUnitCodes * kPanelOutputs + k % kUnitCodes];
        total += code * (high_digits[k] * 4096 + low_digits[k]);
      }
      const double exact = static_cast<double>(total) + Offset(rows[r], weights);
      const auto value = static_cast<float>(exact * rows[r].unit);
      StoreOutputs(d, hn::Set(d, value), rows[r], weights, end, n);
    }
  }
}

#else

using PairTag = hn::CappedTag<int16_t, 32>;
using PairVector = hn::Vec<PairTag>;
using SumTag = hn::Repartition<int32_t, PairTag>;
using SumVector = hn::Vec<SumTag>;
using TotalTag = hn::Repartition<double, PairTag>;
// Two sums each, with the codes, four digits and a product, fit sixteen registers. A single row
// goes over more outputs at once.
constexpr size_t kPairRows = 3;
constexpr size_t kPairVectors = 2;
constexpr size_t kVectorOutputs = hn::MaxLanes(PairTag()) / kUnitCodes;
constexpr size_t kSingleRowVectors = std::min<size_t>(4, kPanelOutputs / kVectorOutputs);

// The digits of one unit in all groups of four lanes.
HWY_INLINE PairVector FourDigits(const int16_t* digits) {
  int64_t four;
  std::memcpy(&four, digits, sizeof(four));
  return hn::BitCast(PairTag(), hn::Set(hn::Repartition<int64_t, PairTag>(), four));
}

// sum += pairs of products, done here and now: the compiler would otherwise form all products
// before it adds any, or copy the sums, and run out of registers.
HWY_INLINE void AddPairs(SumVector& sum, PairVector codes, PairVector digits) {
#if HWY_TARGET <= HWY_AVX2
  PairVector product;
  asm("vpmaddwd %[codes], %[digits], %[product]\n\t"
      "vpaddd %[product], %[sum], %[sum]"
      : [sum] "+v"(sum.raw), [product] "=&v"(product.raw)
      : [codes] "v"(codes.raw), [digits] "v"(digits.raw));
#else
  SumVector unused = sum;
  sum = hn::ReorderWidenMulAccumulate(SumTag(), codes, digits, sum, unused);
  asm("" : "+v"(sum.raw));
#endif
}

// The sums of one digit for the outputs of two vectors, in their order.
HWY_INLINE SumVector JoinPairs(SumVector first, SumVector second) {
  const SumTag d;
  return hn::ConcatEven(d, hn::Add(second, hn::Shuffle2301(second)),
                        hn::Add(first, hn::Shuffle2301(first)));
}

// Exact totals of half a vector of outputs, from their sums in the two planes.
HWY_INLINE hn::Vec<TotalTag> JoinDigits(const int32_t* high, const int32_t* low) {
  const TotalTag d;
  const hn::Rebind<int32_t, TotalTag> d_half;
  return hn::Add(hn::Mul(hn::PromoteTo(d, hn::Load(d_half, high)), hn::Set(d, 4096.0)),
                 hn::PromoteTo(d, hn::Load(d_half, low)));
}

// Turns exact totals into outputs. Every step is rounded by itself.
HWY_INLINE void EndPairs(hn::Vec<TotalTag> lower, hn::Vec<TotalTag> upper, const CodeRow& row,
                         const CodePanels& weights, const ProductEnd& end, size_t n) {
  const hn::Rebind<float, SumTag> d;
  const auto offset = hn::Set(TotalTag(), Offset(row, weights));
  const auto unit = hn::Set(TotalTag(), row.unit);
  const auto value = [&](hn::Vec<TotalTag> total) HWY_ATTR {
    return hn::DemoteTo(hn::Half<decltype(d)>(), hn::Mul(hn::Add(total, offset), unit));
  };
  StoreOutputs(d, hn::Combine(d, value(upper), value(lower)), row, weights, end, n);
}

template <size_t kRows, size_t kVectors>
HWY_NOINLINE void PairTile(const CodeRow* rows, const CodePanels& weights, const ProductEnd& end,
                           size_t n) {
  const PairTag d;
  const SumTag d_sum;
  const TotalTag d_total;
  const hn::Rebind<uint8_t, PairTag> d_code;
  // Two vectors of sums give one of outputs.
  constexpr size_t kLanes = hn::MaxLanes(d_sum);
  constexpr size_t kHalf = hn::MaxLanes(d_total);
  const size_t units = UnitsFor(weights.inputs);
  const uint8_t* w = weights.data + n / kPanelOutputs * units * kUnitCodes * kPanelOutputs +
                     n % kPanelOutputs * kUnitCodes;
  const size_t padded = rows[0].padded;
  // What earlier chunks of inputs gave.
  HWY_ALIGN double totals[kRows][kVectors / 2][kLanes];
  size_t first = 0;
  do {
    SumVector high[kRows][kVectors];
    SumVector low[kRows][kVectors];
    const int16_t* digits[kRows];
#pragma GCC unroll 3
    for (size_t r = 0; r < kRows; ++r) {
      digits[r] = reinterpret_cast<const int16_t*>(rows[r].digits) + first * kUnitCodes;
#pragma GCC unroll 4
      for (size_t v = 0; v < kVectors; ++v) high[r][v] = low[r][v] = hn::Zero(d_sum);
    }
    const size_t count = std::min(kChunkInputs / kUnitCodes, units - first);
    for (size_t k = count; k != 0; --k) {
      PairVector codes[kVectors];
#pragma GCC unroll 4
      for (size_t v = 0; v < kVectors; ++v) {
        codes[v] = hn::PromoteTo(d, hn::LoadU(d_code, w + v * hn::Lanes(d)));
      }
#pragma GCC unroll 3
      for (size_t r = 0; r < kRows; ++r) {
        const auto high_four = FourDigits(digits[r]);
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) AddPairs(high[r][v], codes[v], high_four);
        const auto low_four = FourDigits(digits[r] + padded);
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) AddPairs(low[r][v], codes[v], low_four);
        digits[r] += kUnitCodes;
      }
      w += kUnitCodes * kPanelOutputs;
    }
    // Through memory, so that the branches below cannot make the compiler keep the sums there.
    HWY_ALIGN int32_t sums[kRows][kVectors / 2][2][kLanes];
#pragma GCC unroll 3
    for (size_t r = 0; r < kRows; ++r) {
#pragma GCC unroll 2
      for (size_t v = 0; v < kVectors / 2; ++v) {
        hn::Store(JoinPairs(high[r][2 * v], high[r][2 * v + 1]), d_sum, sums[r][v][0]);
        hn::Store(JoinPairs(low[r][2 * v], low[r][2 * v + 1]), d_sum, sums[r][v][1]);
      }
    }
    asm volatile("" ::: "memory");
    const bool last = count == units - first;
    for (size_t r = 0; r < kRows; ++r) {
      for (size_t v = 0; v < kVectors / 2 && n + v * kLanes < weights.outputs; ++v) {
        auto lower = JoinDigits(sums[r][v][0], sums[r][v][1]);
        auto upper = JoinDigits(sums[r][v][0] + kHalf, sums[r][v][1] + kHalf);
        double* kept = totals[r][v];
        if (first != 0) {
          lower = hn::Add(lower, hn::Load(d_total, kept));
          upper = hn::Add(upper, hn::Load(d_total, kept + kHalf));
        }
        if (last) {
          EndPairs(lower, upper, rows[r], weights, end, n + v * kLanes);
        } else {
          hn::Store(lower, d_total, kept);
          hn::Store(upper, d_total, kept + kHalf);
        }
      }
    }
    first += count;
  } while (first < units);
}

template <size_t... kLess>
constexpr auto PairTilesOf(std::index_sequence<kLess...> /*rows*/) {
  return std::array{&PairTile<kLess + 1, kPairVectors>...};
}

// Some outputs after the others, each with all rows of the block, spread evenly over tiles.
void PairRows(const CodeRow* rows, size_t count, const CodePanels& weights, const ProductEnd& end) {
  static constexpr auto kTiles = PairTilesOf(std::make_index_sequence<kPairRows>());
  if (count == 1) {
    for (size_t n = 0; n < weights.outputs; n += kSingleRowVectors * kVectorOutputs) {
      PairTile<1, kSingleRowVectors>(rows, weights, end, n);
    }
    return;
  }
  for (size_t n = 0; n < weights.outputs; n += kPairVectors * kVectorOutputs) {
    size_t tiles = (count + kPairRows - 1) / kPairRows;
    for (size_t r = 0; r < count; --tiles) {
      const size_t height = (count - r + tiles - 1) / tiles;
      kTiles[height - 1](rows + r, weights, end, n);
      r += height;
    }
  }
}

#endif

// The rows in blocks whose digits fit the room that is given.
void CodeProduct(StridedRows<const float> in, size_t rows, const CodePanels& weights,
                 const ProductEnd& end, const StridedRows<float>& out, int8_t* digits,
                 size_t room) {
  constexpr size_t kMostRows = 16;
#if HWY_TARGET <= HWY_AVX3
  const bool bytes = HasByteProducts() && FitsByteTiles(weights);
#else
  constexpr bool bytes = false;
#endif
  const size_t row_bytes = CodeRowBytes(weights.inputs);
  const size_t block = std::clamp<size_t>(room / row_bytes, 1, kMostRows);
  CodeRow made[kMostRows] = {};
  for (size_t first = 0; first < rows; first += block) {
    size_t count = 0;
    for (size_t r = first; r < std::min(rows, first + block); ++r) {
      const float* row = in.From(r).data;
      made[count].digits = digits + count * row_bytes;
      made[count].padded = PaddedInputs(weights.inputs);
      made[count].out = out.From(r).data;
      if (MakeRow(row, weights.inputs, weights.scale, bytes, made[count])) {
        ++count;
      } else {
        NonFiniteRow(row, weights, end, out.From(r).data);
      }
    }
#if HWY_TARGET <= HWY_AVX3
    if (bytes) {
      ByteRows(made, count, weights, end);
      continue;
    }
#endif
    PairRows(made, count, weights, end);
  }
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(CodeProduct);

size_t CodeRowBytes(size_t inputs) { return kPlaneBytes * PaddedInputs(inputs); }

void code_product(StridedRows<const float> in, size_t rows, const CodePanels& weights,
                  const ProductEnd& end, const StridedRows<float>& out, int8_t* digits,
                  size_t room) {
  if (weights.inputs == 0) return end_zeros(rows, weights.outputs, end, out);
  HWY_DYNAMIC_DISPATCH(CodeProduct)(in, rows, weights, end, out, digits, room);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
