#include "utils/half-float.h"

#include <array>
#include <bit>
#include <cstddef>

namespace tarev::nnet::handwriting_CTC {
namespace {

// Reading by tables, after J. van der Zijp, "Fast Half Float Conversions" (2008): no branch on the
// kind of number, one addition. With `head` the sign and exponent,
//   float bits = mantissa[offset[head] + mantissa bits] + exponent[head].
// The first 1024 mantissa entries are the subnormal numbers, normalised; the others the normal
// ones.
struct Tables {
  std::array<uint16_t, 64> offset{};
  std::array<uint32_t, 64> exponent{};
  std::array<uint32_t, 2048> mantissa{};
};

constexpr uint32_t NormaliseSubnormal(uint32_t mantissa) {
  if (mantissa == 0) return 0;
  const int shift = std::countl_zero(mantissa) - 21;  // brings the leading one to bit 10
  return ((113U - static_cast<uint32_t>(shift)) << 23) | ((mantissa << (13 + shift)) & 0x007FFFFF);
}

constexpr Tables MakeTables() {
  Tables t;
  for (uint32_t i = 0; i < 1024; ++i) {
    t.mantissa[i] = NormaliseSubnormal(i);
    t.mantissa[1024 + i] = 0x38000000 + (i << 13);
  }
  for (uint32_t i = 0; i < 64; ++i) {
    const uint32_t exponent = i & 31;
    t.offset[i] = exponent == 0 ? 0 : 1024;
    t.exponent[i] = (i >= 32 ? 0x80000000 : 0) + (exponent == 31 ? 0x47800000 : exponent << 23);
  }
  return t;
}

constexpr Tables kTables = MakeTables();

// value / 2^shift, rounded to the nearest integer, ties to even.
constexpr uint32_t RoundShift(uint32_t value, uint32_t shift) {
  const uint32_t rest = value & ((1U << shift) - 1);
  const uint32_t half = 1U << (shift - 1);
  const uint32_t whole = value >> shift;
  return whole + (rest > half || (rest == half && (whole & 1) != 0) ? 1 : 0);
}

}  // namespace

float HalfToFloat(uint16_t half) {
  const size_t head = half >> 10;
  return std::bit_cast<float>(kTables.mantissa[kTables.offset[head] + (half & 0x3FFU)] +
                              kTables.exponent[head]);
}

// The encodings of the finite numbers and infinity are consecutive integers in the order of their
// values, so a rounding that carries out of the mantissa gives the next exponent by itself.
uint16_t FloatToHalf(float value) {
  const auto bits = std::bit_cast<uint32_t>(value);
  const uint32_t sign = (bits >> 16) & 0x8000;
  const uint32_t magnitude = bits & 0x7FFFFFFF;
  uint32_t half = 0;
  if (magnitude > 0x7F800000) {  // NaN
    half = 0x7E00 | ((magnitude >> 13) & 0x3FF);
  } else if (magnitude >= 0x477FF000) {  // 65520 and above round beyond 65504
    half = 0x7C00;
  } else if (magnitude >= 0x38800000) {  // normal: 2^-14 and above
    half = RoundShift(magnitude - (112U << 23), 13);
  } else if (magnitude > 0x33000000) {  // subnormal: above 2^-25, in units of 2^-24
    half = RoundShift((magnitude & 0x007FFFFF) | 0x00800000, 126 - (magnitude >> 23));
  }
  return static_cast<uint16_t>(sign | half);
}

}  // namespace tarev::nnet::handwriting_CTC
