
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>

#include "bench/plain-kernels.h"
#include "nnet/base/element-kernels.h"
#include "nnet/base/nnet-util.h"
#include "nnet/base/products.h"
#include "nnet/dense/highway-kernels.h"
#include "nnet/recurrent/recurrent-kernels.h"
#include "tests/support/expect.h"
#include "tests/support/vector-targets.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Signed zeros, subnormals, infinities, NaNs, the edges of the exponent range and of the kernels'
// branches, and everything in between on a grid of bit patterns.
Floats InterestingFloats() {
  Floats values = {0.0F,   FLT_MIN, FLT_TRUE_MIN, FLT_MAX, kInfinity, kNan,   1.0F,
                   87.33F, 87.34F,  88.02F,       88.03F,  88.04F,    88.72F, 100.0F};
  for (uint32_t bits = 0; bits < 0x7F900000; bits += 0x000FFFFF) {
    values.push_back(std::bit_cast<float>(bits));
  }
  const size_t count = values.size();
  for (size_t i = 0; i < count; ++i) values.push_back(-values[i]);
  return values;
}

TEST(ElementKernels, SameBitsAsTheirDefinitionOnEveryTarget) {
  const struct {
    const char* name;
    std::function<float(float)> definition;
    std::function<void(const float*, size_t, float*)> kernel;
  } cases[] = {
      {"sigmoid", PlainSigmoid,
       [](const float* in, size_t n, float* out) { fast_sigmoid(in, 1, n, out); }},
      {"tanh", PlainTanh, [](const float* in, size_t n, float* out) { fast_tanh(in, n, 1, out); }},
      {"log", PlainLog, [](const float* in, size_t n, float* out) { fast_log(in, 1, n, out); }},
      {"relu", [](float x) { return 0.0F < x ? x : 0.0F; },
       [](const float* in, size_t n, float* out) { relu(in, 1, n, out); }},
      {"prelu", [](float x) { return x > 0.0F ? x : x * 1.5F; },
       [](const float* in, size_t n, float* out) { prelu(in, 1, n, out, 1.5F); }},
      {"scale", [](float x) { return PlainScaled(x, 0.0F); },
       [](const float* in, size_t n, float* out) {
         std::copy_n(in, n, out);
         scale_vec(out, n, 0.0F);
       }}};
  const Floats in = InterestingFloats();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Floats wanted(in.size());
    std::transform(in.begin(), in.end(), wanted.begin(), c.definition);
    ForEachVectorTarget([&] {
      Floats out(in.size());
      c.kernel(in.data(), in.size(), out.data());
      ExpectSameBits(out, wanted);
      for (size_t n = 0; n < 40; ++n) {  // every tail, and nothing after it
        Floats guarded(n + 1, 7.0F);
        c.kernel(in.data() + 3, n, guarded.data());
        ASSERT_EQ(guarded[n], 7.0F);
        guarded.pop_back();
        ExpectSameBits(guarded, RowsOf(wanted, 1, 3, 3 + n));
      }
    });
  }
}

TEST(ElementKernels, ActivationsFollowTheirFunctions) {
  for (float x = -100.0F; x <= 100.0F; x += 0.0625F) {
    float sigmoid = 0, tanh = 0;
    fast_sigmoid(&x, 1, 1, &sigmoid);
    EXPECT_NEAR(sigmoid, 1.0 / (1.0 + std::exp(-static_cast<double>(x))), 1e-5);
    fast_tanh(&x, 1, 1, &tanh);
    EXPECT_NEAR(tanh, std::tanh(static_cast<double>(x)), 2e-5);
    EXPECT_TRUE(std::fabs(x) < 100.0F || tanh == (x < 0 ? -1.0F : 1.0F));
  }
}

TEST(RowKernels, MaximumKeepsTheFirstOfEquals) {
  ForEachVectorTarget([] {
    for (const size_t n : {1, 2, 15, 16, 17, 40, 100}) {
      Floats v = Random(n, static_cast<uint32_t>(n), 5.0F);
      EXPECT_EQ(max_of(v.data(), n), *std::max_element(v.begin(), v.end()));
      v[n / 2] = kNan;
      EXPECT_EQ(std::isnan(max_of(v.data(), n)), n == 1);
      v[0] = kNan;
      EXPECT_TRUE(std::isnan(max_of(v.data(), n)));
      // The second pair lies in lanes that come in the other order.
      for (const auto& [first, second] : {std::pair{n / 2, n - 1}, {19, 32}}) {
        if (second >= n) continue;
        std::fill(v.begin(), v.end(), -1.0F);
        v[first] = -0.0F;
        v[second] = 0.0F;
        EXPECT_EQ(std::signbit(max_of(v.data(), n)), first < second) << n;
      }
    }
  });
}

TEST(RecurrentKernels, OnePassHasTheBitsOfTheSeparateSteps) {
  ForEachVectorTarget([] {
    for (size_t n = 1; n < 37; ++n) {
      const Floats gates = Random(4 * n, 3, 4.0F);
      const Floats bias = Random(4 * n, 4);
      const Floats start = Random(n, 5);
      Floats cell = start;
      Floats hidden(n);
      lstm_cell(gates.data(), bias.data(), n, cell.data(), hidden.data());
      const auto gate = [&](size_t block, size_t j) {
        return gates[block * n + j] + bias[block * n + j];
      };
      for (size_t j = 0; j < n; ++j) {
        const float kept = PlainSigmoid(gate(1, j)) * start[j];
        const float added = PlainSigmoid(gate(0, j)) * PlainTanh(gate(2, j));
        ASSERT_EQ(cell[j], kept + added);
        ASSERT_EQ(hidden[j], PlainSigmoid(gate(3, j)) * PlainTanh(cell[j]));
      }

      const Floats peepholes = Random(3 * n, 6);
      Floats tanh_cell(n);
      peephole_lstm_cell(
          {gates.data(), peepholes.data(), peepholes.data() + n, peepholes.data() + 2 * n,
           start.data(), cell.data(), tanh_cell.data(), hidden.data()},
          n);
      for (size_t j = 0; j < n; ++j) {
        const float to_input = peepholes[j] * start[j];
        const float to_forget = peepholes[n + j] * start[j];
        const float added = PlainSigmoid(gates[n + j] + to_input) * PlainTanh(gates[j]);
        const float kept = PlainSigmoid(gates[2 * n + j] + to_forget) * start[j];
        ASSERT_EQ(cell[j], added + kept);
        const float to_output = peepholes[2 * n + j] * cell[j];
        ASSERT_EQ(tanh_cell[j], PlainTanh(cell[j]));
        ASSERT_EQ(hidden[j], PlainSigmoid(gates[3 * n + j] + to_output) * tanh_cell[j]);
      }

      const Floats candidate = Random(n, 7, 3.0F);
      gru_cell({gates.data(), candidate.data(), bias.data(), start.data(), hidden.data()}, n);
      for (size_t j = 0; j < n; ++j) {
        const float from_reset = PlainSigmoid(gate(0, j)) * gate(2, j);
        const float m = PlainTanh(candidate[j] + from_reset);
        const float z = PlainSigmoid(gate(1, j));
        const float taken = z * m, kept = z * start[j];
        ASSERT_EQ(hidden[j], (m - taken) + kept);
      }

      highway_mix(candidate.data(), gates.data(), start.data(), n, hidden.data());
      for (size_t j = 0; j < n; ++j) {
        const float g = PlainSigmoid(gates[j]);
        const float taken = std::max(candidate[j], 0.0F) * g, kept = start[j] * (1.0F - g);
        ASSERT_EQ(hidden[j], taken + kept);
      }
    }
  });
}

TEST(Products, DiagonalRoundsTheProductThenTheSum) {
  const Floats a = Random(50, 1);
  const Floats x = Random(50, 2);
  Floats y = Random(50, 3);
  const Floats before = y;
  vec_mul_vec(a.data(), x.data(), y.data(), y.size(), 1.0F, 1.0F);
  for (size_t i = 0; i < y.size(); ++i) {
    const float product = a[i] * x[i];
    EXPECT_EQ(y[i], product + before[i]);
  }
}

TEST(Buffers, GrowKeepsAndClears) {
  float* p = nullptr;
  grow_floats(&p, 8, 0, 1);
  EXPECT_TRUE(std::all_of(p, p + 8, [](float v) { return v == 0.0F; }));
  p[7] = 3.0F;
  const float* same = p;
  grow_floats(&p, 8, 8, 1);
  EXPECT_EQ(p, same);
  grow_floats(&p, 40, 8, 2);
  EXPECT_EQ(p[7], 3.0F);
  EXPECT_EQ(p[79], 0.0F);
  const size_t most = std::numeric_limits<size_t>::max();
  EXPECT_EQ(ThrownBy([&] { grow_floats(&p, most, 40, 2); }), "realloc memory failed!");
  EXPECT_EQ(p[7], 3.0F);
  free_floats(p);
  float* q = nullptr;
  EXPECT_EQ(ThrownBy([&] { alloc_floats(&q, most / 2, 3); }), "alloc memory failed!");

  uint64_t bytes = 0;
  FloatArray array;
  array.Allocate(3, 4, bytes);
  array.Grow(5, bytes);
  EXPECT_EQ(bytes, 48U);
  array.Grow(20, bytes);
  EXPECT_EQ(bytes, 80U);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(array.data()) % 64, 0U);
}

TEST(Shapes, RowsColumnsAndHeads) {
  Floats powers = {4.0F, -1.0F, 9.0F};
  pow_in_place(powers.data(), 3, 0.5F);
  EXPECT_EQ(powers, (Floats{2.0F, -1.0F, 9.0F}));
  pow_in_place(powers.data(), 3, 2.0F);
  EXPECT_EQ(powers, (Floats{4.0F, 1.0F, 81.0F}));
  pow_in_place(powers.data(), 3, -0.5F);
  EXPECT_FLOAT_EQ(powers[2], 1.0F / 9.0F);

  const Floats src = {1, 2, 3, 4, 5, 6};
  Floats dst(4, 0.0F);
  copy_columns(src.data(), 2, 3, dst.data(), 2, 2, 1, 1, 1);
  EXPECT_EQ(dst, (Floats{0, 2, 0, 5}));
  const Floats kept = dst;
  copy_columns(src.data(), 2, 3, dst.data(), 2, 2, 0, 1, 2);
  EXPECT_EQ(dst, kept);

  Floats rows = {1, 10, 2, 20, 3, 30, 4, 40, 5, 50};
  sum_strided_rows(rows.data(), 5, 2, 1, 3);
  EXPECT_EQ(rows, (Floats{6, 60, 9, 90, 12, 120, 4, 40, 5, 50}));

  Floats wide = Random(19 * 37, 9);
  const Floats original = wide;
  transpose_in_place(wide.data(), 19, 37);
  for (size_t i = 0; i < wide.size(); ++i) ASSERT_EQ(wide[i], original[i % 19 * 37 + i / 19]);

  Floats heads = {1, 2, 3, 4, 5, 6, 7, 8};
  split_heads(heads.data(), 2, 4, 2);
  EXPECT_EQ(heads, (Floats{1, 2, 5, 6, 3, 4, 7, 8}));
}

}  // namespace
}  // namespace handwriting::tests
