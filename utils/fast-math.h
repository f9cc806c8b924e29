#ifndef UTILS_FAST_MATH_H_
#define UTILS_FAST_MATH_H_

#include <bit>
#include <cstdint>
#include <limits>

// Scalar definitions of the fast exponential and the fast natural logarithm.
//
// Every result of the library depends on these constants and on the order of the operations: the
// activation kernels and the decoder reproduce them bit for bit. Translation units that include
// this header are compiled with -ffp-contract=off, so that no multiply and add are fused.
namespace fast_math {

// Schraudolph's exponential (1999): exp(x) = 2^(x / ln 2). With t = x * kExpScale + kExpBias, the
// integer part of t, read as the bits of a float, has the exponent of that power of two and in its
// mantissa m the linear approximation of the rest; a polynomial in m corrects it.
inline constexpr float kExpScale = std::bit_cast<float>(std::uint32_t{0x4B38AA3B});  // 2^23 / ln 2
inline constexpr float kExpBias = std::bit_cast<float>(std::uint32_t{0x4E7E0000});   // 127 * 2^23
inline constexpr float kExpLimit = std::bit_cast<float>(std::uint32_t{0x4EFF0000});  // 255 * 2^23

// 2^(m - 1) on [1, 2) is (((kExpA4 * m - kExpA3) * m + kExpA2) * m + kExpA1) * m + kExpA0.
inline constexpr float kExpA4 = std::bit_cast<float>(std::uint32_t{0x3C5E18ED});
inline constexpr float kExpA3 = std::bit_cast<float>(std::uint32_t{0x3B0F9081});
inline constexpr float kExpA2 = std::bit_cast<float>(std::uint32_t{0x3E2A9DAF});
inline constexpr float kExpA1 = std::bit_cast<float>(std::uint32_t{0x3E9FD1B2});
inline constexpr float kExpA0 = std::bit_cast<float>(std::uint32_t{0x3F0286E8});

// The inverse: the bits of a float, read as an integer, are about linear in its logarithm, and a
// rational function of the mantissa corrects them.
//   ln(x) = (bits(x) * kLogScale - kLogBias - kLogB1 * m - kLogB2 / (m + kLogB3)) * kLogLn2
// with m the mantissa of x in [0.5, 1).
inline constexpr float kLogScale = std::bit_cast<float>(std::uint32_t{0x34000000});  // 2^-23
inline constexpr float kLogBias = std::bit_cast<float>(std::uint32_t{0x42F87377});
inline constexpr float kLogB1 = std::bit_cast<float>(std::uint32_t{0x3FBFBF75});
inline constexpr float kLogB2 = std::bit_cast<float>(std::uint32_t{0x3FDCE9A3});
inline constexpr float kLogB3 = std::bit_cast<float>(std::uint32_t{0x3EB444F9});
inline constexpr float kLogLn2 = std::bit_cast<float>(std::uint32_t{0x3F317218});

static_assert(kExpScale == 12102203.0F && kExpBias == 1065353216.0F && kExpLimit == 2139095040.0F);
static_assert(kExpA4 == 0.013555747F && kExpA3 == 0.00219062F && kExpA2 == 0.16661714F &&
              kExpA1 == 0.31214672F && kExpA0 == 0.509871F);
static_assert(kLogScale == 0x1p-23F && kLogBias == 124.22552F && kLogB1 == 1.4980303F &&
              kLogB2 == 1.72588F && kLogB3 == 0.35208872F && kLogLn2 == 0.6931472F);

inline constexpr std::uint32_t kMantissaMask = 0x007FFFFF;
inline constexpr std::uint32_t kExponentMask = 0x7F800000;
inline constexpr std::uint32_t kOneBits = 0x3F800000;   // bits of 1.0
inline constexpr std::uint32_t kHalfBits = 0x3F000000;  // bits of 0.5

// The exponential of x for t = x * kExpScale + kExpBias, or of -x for t = kExpBias - x * kExpScale.
// Range: 0 < t < kExpLimit. Below t = 2^23 (x under about -87.34) the result is 0.
constexpr float ExpFromBits(float t) {
  const auto i = static_cast<std::uint32_t>(static_cast<std::int32_t>(t));
  const float m = std::bit_cast<float>((i & kMantissaMask) | kOneBits);
  const float power = std::bit_cast<float>(i & kExponentMask);
  return ((((kExpA4 * m - kExpA3) * m + kExpA2) * m + kExpA1) * m + kExpA0) * power;
}

// ExpFromBits for every t: +infinity when t is NaN or not below kExpLimit, 0 when t <= 0.
constexpr float ExpOrLimits(float t) {
  if (!(t < kExpLimit)) return std::numeric_limits<float>::infinity();
  return t > 0.0F ? ExpFromBits(t) : 0.0F;
}

// exp(-d), with a relative error below 1.5e-5 for d in [-88.72, 87.33] and exactly 1 at 0.
// +infinity for NaN and for d below that range, 0 for d above it.
constexpr float fast_exp(float d) { return ExpOrLimits(kExpBias - d * kExpScale); }

// The natural logarithm of x, with an absolute error below 1.3e-4 for normal x > 0. Finite for zero
// and subnormal numbers too: FastLog(0) is about -88.03.
constexpr float FastLog(float x) {
  const auto bits = std::bit_cast<std::uint32_t>(x);
  const float m = std::bit_cast<float>((bits & kMantissaMask) | kHalfBits);
  return (static_cast<float>(bits) * kLogScale - kLogBias - kLogB1 * m - kLogB2 / (m + kLogB3)) *
         kLogLn2;
}

}  // namespace fast_math

#endif  // UTILS_FAST_MATH_H_
