#include "nnet/base/code-kernels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/base/code-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

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
  HWY_ALIGN float kept[hn::MaxLanes(d)];
  hn::Store(hn::BitCast(d, largest), d, kept);
  float result = 0.0F;
  const auto keep = [&result](float x) {
    const float magnitude = std::fabs(x);
    if (!(magnitude <= result)) result = magnitude;
  };
  for (size_t lane = 0; lane < lanes && !std::isnan(result); ++lane) keep(kept[lane]);
  for (; i < n && !std::isnan(result); ++i) keep(in[i]);
  return result;
}

template <class D, class V>
HWY_INLINE int32_t LaneSum(D d, V v) {
  HWY_ALIGN int32_t lanes[hn::MaxLanes(d)];
  hn::Store(v, d, lanes);
  int32_t sum = 0;
  for (size_t lane = 0; lane < hn::Lanes(d); ++lane) sum += lanes[lane];
  return sum;
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
    row.plane_sums[0] += LaneSum(di, high_sum);
    row.plane_sums[1] += LaneSum(di, middle_sum);
    row.plane_sums[2] += LaneSum(di, low_sum);
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
  row.sum += int64_t{LaneSum(di, high_sum)} * 4096 + LaneSum(di, low_sum);
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

// Ends kOutputs neighbouring outputs of a row: `totals` are the sums of integers times codes, whose
// offset enters through the sum of the integers. Every step is rounded by itself, on all targets
// alike.
template <size_t kOutputs>
HWY_INLINE void EndOutputs(const CodeRow& row, const CodePanels& weights, const ProductEnd& end,
                           size_t n, const double* totals) {
  const double offset = static_cast<double>(weights.offset) * static_cast<double>(row.sum);
  HWY_ALIGN float values[kOutputs];
  for (size_t i = 0; i < kOutputs; ++i) {
    values[i] = static_cast<float>((totals[i] + offset) * row.unit);
  }
  if (end.scale != 1.0F) {
    for (float& value : values) value = end.scale == 0.0F ? 0.0F : value * end.scale;
  }
  const size_t count = std::min(kOutputs, weights.outputs - n);
  if (end.bias != nullptr) {
    for (size_t i = 0; i < count; ++i) values[i] += end.bias[n + i];
  }
  std::copy_n(values, count, row.out + n);
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
  auto y = hn::Combine(d, Half{value(true)}, Half{value(false)});
  if (end.scale != 1.0F) {
    y = end.scale == 0.0F ? hn::Zero(d) : hn::Mul(y, hn::Set(d, end.scale));
  }
  const size_t left = weights.outputs - n;
  if (left >= kPanelOutputs) {
    if (end.bias != nullptr) y = hn::Add(y, hn::LoadU(d, end.bias + n));
    hn::StoreU(y, d, row.out + n);
  } else {
    const auto mask = hn::FirstN(d, left);
    if (end.bias != nullptr) y = hn::Add(y, hn::MaskedLoad(mask, d, end.bias + n));
    hn::BlendedStore(y, mask, d, row.out + n);
  }
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

using PairTag = hn::CappedTag<int16_t, 1>;
constexpr size_t kPairOutputs = 1;
constexpr size_t kPairRows = 1;

template <size_t kRows>
void PairTile(const CodeRow* rows, const CodePanels& weights, const ProductEnd& end, size_t n) {
  const size_t units = UnitsFor(weights.inputs);
  const uint8_t* w = weights.data + n / kPanelOutputs * units * kUnitCodes * kPanelOutputs +
                     n % kPanelOutputs * kUnitCodes;
  const auto* high_digits = reinterpret_cast<const int16_t*>(rows->digits);
  const int16_t* low_digits = high_digits + rows->padded;
  int64_t total = 0;
  for (size_t k = 0; k < weights.inputs; ++k) {
    const int64_t code = w[k / kUnitCodes * kUnitCodes * kPanelOutputs + k % kUnitCodes];
    total += code * (high_digits[k] * 4096 + low_digits[k]);
  }
  const auto totals = static_cast<double>(total);
  EndOutputs<1>(*rows, weights, end, n, &totals);
}

#else

using PairTag = hn::CappedTag<int16_t, 32>;
// Two vectors of outputs by three rows: two sums each, with the codes and the digits, fit sixteen
// registers.
constexpr size_t kPairVectors = 2;
constexpr size_t kPairRows = 3;
constexpr size_t kPairOutputs = kPairVectors * hn::MaxLanes(PairTag()) / kUnitCodes;

// The digits of one unit in all groups of four lanes.
HWY_INLINE hn::Vec<PairTag> FourDigits(const int16_t* digits) {
  int64_t four;
  std::memcpy(&four, digits, sizeof(four));
  return hn::BitCast(PairTag(), hn::Set(hn::Repartition<int64_t, PairTag>(), four));
}

// sum += pairs of products, done here and now: the compiler would otherwise form all products
// before it adds any, and run out of registers.
template <class V>
HWY_INLINE V AddPairs(V sum, hn::Vec<PairTag> codes, hn::Vec<PairTag> digits) {
  V unused = sum;
  auto raw = hn::ReorderWidenMulAccumulate(hn::DFromV<V>(), codes, digits, sum, unused).raw;
  asm volatile("" : "+v"(raw));
  return V{raw};
}

template <size_t kRows>
void PairTile(const CodeRow* rows, const CodePanels& weights, const ProductEnd& end, size_t n) {
  const PairTag d;
  const hn::Rebind<uint8_t, PairTag> d8;
  const hn::Repartition<int32_t, PairTag> d32;
  using V = hn::Vec<decltype(d32)>;
  constexpr size_t kLanes = hn::MaxLanes(d);
  const size_t units = UnitsFor(weights.inputs);
  const uint8_t* w = weights.data + n / kPanelOutputs * units * kUnitCodes * kPanelOutputs +
                     n % kPanelOutputs * kUnitCodes;
  const size_t padded = rows[0].padded;
  double totals[kRows][kPairOutputs] = {};
  for (size_t first = 0; first < units; first += kChunkInputs / kUnitCodes) {
    V high[kRows][kPairVectors];
    V low[kRows][kPairVectors];
    const int16_t* digits[kRows];
#pragma GCC unroll 3
    for (size_t r = 0; r < kRows; ++r) {
      digits[r] = reinterpret_cast<const int16_t*>(rows[r].digits) + first * kUnitCodes;
#pragma GCC unroll 2
      for (size_t v = 0; v < kPairVectors; ++v) high[r][v] = low[r][v] = hn::Zero(d32);
    }
    for (size_t k = std::min(kChunkInputs / kUnitCodes, units - first); k != 0; --k) {
      hn::Vec<PairTag> codes[kPairVectors];
#pragma GCC unroll 2
      for (size_t v = 0; v < kPairVectors; ++v) {
        codes[v] = hn::PromoteTo(d, hn::LoadU(d8, w + v * kLanes));
      }
#pragma GCC unroll 3
      for (size_t r = 0; r < kRows; ++r) {
        const auto high_four = FourDigits(digits[r]);
        const auto low_four = FourDigits(digits[r] + padded);
#pragma GCC unroll 2
        for (size_t v = 0; v < kPairVectors; ++v) {
          high[r][v] = AddPairs(high[r][v], codes[v], high_four);
          low[r][v] = AddPairs(low[r][v], codes[v], low_four);
        }
        digits[r] += kUnitCodes;
      }
      w += kUnitCodes * kPanelOutputs;
    }
#pragma GCC unroll 3
    for (size_t r = 0; r < kRows; ++r) {
      HWY_ALIGN int32_t highs[2 * kPairOutputs];
      HWY_ALIGN int32_t lows[2 * kPairOutputs];
#pragma GCC unroll 2
      for (size_t v = 0; v < kPairVectors; ++v) {
        hn::Store(high[r][v], d32, highs + v * hn::Lanes(d32));
        hn::Store(low[r][v], d32, lows + v * hn::Lanes(d32));
      }
      for (size_t i = 0; i < kPairOutputs; ++i) {
        totals[r][i] += (static_cast<double>(highs[2 * i]) + highs[2 * i + 1]) * 4096.0 +
                        (static_cast<double>(lows[2 * i]) + lows[2 * i + 1]);
      }
    }
  }
  for (size_t r = 0; r < kRows; ++r) {
    EndOutputs<kPairOutputs>(rows[r], weights, end, n, totals[r]);
  }
}

#endif

template <size_t... kLess>
constexpr auto PairTilesOf(std::index_sequence<kLess...> /*rows*/) {
  return std::array{&PairTile<kLess + 1>...};
}

void PairRows(const CodeRow* rows, size_t count, const CodePanels& weights, const ProductEnd& end) {
  static constexpr auto kTiles = PairTilesOf(std::make_index_sequence<kPairRows>());
  for (size_t n = 0; n < weights.outputs; n += kPairOutputs) {
    for (size_t r = 0; r < count; r += kPairRows) {
      kTiles[std::min(kPairRows, count - r) - 1](rows + r, weights, end, n);
    }
  }
}

// The rows in blocks whose digits fit the room that is given.
void CodeProduct(StridedRows<const float> in, size_t rows, const CodePanels& weights,
                 const ProductEnd& end, StridedRows<float> out, int8_t* digits, size_t room) {
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
                  const ProductEnd& end, StridedRows<float> out, int8_t* digits, size_t room) {
  HWY_DYNAMIC_DISPATCH(CodeProduct)(in, rows, weights, end, out, digits, room);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
