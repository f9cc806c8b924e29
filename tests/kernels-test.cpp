
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>
#include <limits>

#include <cblas.h>

#include "nnet/nnet-util.h"
#include "nnet/recurrent-kernels.h"
#include "tests/support/model-builder.h"
#include "tests/support/vector-targets.h"
#include "utils/fast-math.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// The scalar meaning of the element kernels, branch by branch.

float Sigmoid(float x) {
  if (x > 0.0F) {
    const float t = fast_math::kExpBias - x * fast_math::kExpScale;
    return t > 0.0F ? 1.0F / (1.0F + fast_math::ExpFromBits(t)) : 1.0F;
  }
  const float t = x * fast_math::kExpScale + fast_math::kExpBias;
  if (!(t < fast_math::kExpLimit)) return kNan;
  if (t <= 0.0F) return 0.0F;
  const float e = fast_math::ExpFromBits(t);
  return e / (1.0F + e);
}

float Tanh(float x) {
  if (x > 0.0F) {
    const float t = fast_math::kExpBias - x * fast_math::kExpScale;
    if (!(t > 0.0F)) return 1.0F;
    const float e = fast_math::ExpFromBits(t);
    return 2.0F / (e * e + 1.0F) - 1.0F;
  }
  const float t = x * fast_math::kExpScale + fast_math::kExpBias;
  if (!(t < fast_math::kExpLimit)) return 1.0F;
  if (t <= 0.0F) return -1.0F;
  const float e = fast_math::ExpFromBits(t);
  return 1.0F - 2.0F / (e * e + 1.0F);
}

float Log(float x) {
  const auto bits = std::bit_cast<uint32_t>(x);
  const float m = std::bit_cast<float>((bits & 0x7FFFFF) | 0x3F000000);
  return (((static_cast<float>(bits) * 0x1p-23F - 124.22552F) - 1.4980303F * m) -
          1.72588F / (m + 0.35208872F)) *
         0.6931472F;
}

float Scaled(float x, float factor) { return factor == 0.0F ? 0.0F : x * factor; }

std::vector<float> Softmax(const std::vector<float>& in, size_t cols, bool log) {
  std::vector<float> out(in.size());
  for (size_t first = 0; first < in.size(); first += cols) {
    float max = in[first];
    for (size_t c = 1; c < cols; ++c) max = in[first + c] > max ? in[first + c] : max;
    float sum = 0.0F;
    for (size_t c = first; c < first + cols; ++c) {
      out[c] = fast_math::ExpOrLimits((in[c] - max) * fast_math::kExpScale + fast_math::kExpBias);
      sum += out[c];
    }
    for (size_t c = first; c < first + cols; ++c) {
      out[c] = Scaled(out[c], 1.0F / sum);
      if (log) out[c] = Log(out[c]);
    }
  }
  return out;
}

// Signed zeros, subnormals, infinities, NaNs, the edges of the exponent range and of the kernels'
// branches, and everything in between on a grid of bit patterns.
std::vector<float> InterestingFloats() {
  std::vector<float> values = {0.0F,   FLT_MIN, FLT_TRUE_MIN, FLT_MAX, kInfinity, kNan,   1.0F,
                               87.33F, 87.34F,  88.02F,       88.03F,  88.04F,    88.72F, 100.0F};
  for (uint32_t bits = 0; bits < 0x7F900000; bits += 0x000FFFFF) {
    values.push_back(std::bit_cast<float>(bits));
  }
  const size_t count = values.size();
  for (size_t i = 0; i < count; ++i) values.push_back(-values[i]);
  return values;
}

void ExpectSame(const std::vector<float>& got, const std::vector<float>& wanted,
                const std::vector<float>& in) {
  ASSERT_EQ(got.size(), wanted.size());
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_TRUE(SameFloat(got[i], wanted[i]))
        << "element " << i << " of " << got.size() << ": " << got[i] << " vs " << wanted[i]
        << (in.empty() ? 0.0F : in[i]);
  }
}

TEST(ElementKernels, SameBitsAsTheirDefinitionOnEveryTarget) {
  const struct {
    const char* name;
    std::function<float(float)> definition;
    std::function<void(const float*, size_t, float*)> kernel;
  } cases[] = {
      {"sigmoid", Sigmoid,
       [](const float* in, size_t n, float* out) { fast_sigmoid(in, 1, n, out); }},
      {"tanh", Tanh, [](const float* in, size_t n, float* out) { fast_tanh(in, n, 1, out); }},
      {"log", Log, [](const float* in, size_t n, float* out) { fast_log(in, 1, n, out); }},
      {"relu", [](float x) { return 0.0F < x ? x : 0.0F; },
       [](const float* in, size_t n, float* out) { relu(in, 1, n, out); }},
      {"prelu", [](float x) { return x > 0.0F ? x : x * 0.25F; },
       [](const float* in, size_t n, float* out) { prelu(in, 1, n, out, 0.25F); }},
      {"scale", [](float x) { return Scaled(x, 0.0F); },
       [](const float* in, size_t n, float* out) {
         std::copy_n(in, n, out);
         scale_vec(out, n, 0.0F);
       }},
  };
  const std::vector<float> in = InterestingFloats();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<float> wanted(in.size());
    std::transform(in.begin(), in.end(), wanted.begin(), c.definition);
    ForEachVectorTarget([&] {
      std::vector<float> out(in.size());
      c.kernel(in.data(), in.size(), out.data());
      ExpectSame(out, wanted, in);
      for (size_t n = 0; n < 40; ++n) {  // every tail, and nothing behind it
        std::vector<float> guarded(n + 1, 7.0F);
        c.kernel(in.data() + 3, n, guarded.data());
        ASSERT_EQ(guarded[n], 7.0F);
        guarded.pop_back();
        ExpectSame(guarded, {wanted.begin() + 3, wanted.begin() + 3 + static_cast<long>(n)}, {});
      }
    });
  }
}

TEST(ElementKernels, FixedPointsOfTheActivations) {
  const float in[] = {0.0F, 100.0F, -100.0F, kNan};
  float out[4];
  fast_sigmoid(in, 1, 4, out);
  EXPECT_NEAR(out[0], 0.5F, 1e-6F);
  EXPECT_EQ(out[1], 1.0F);
  EXPECT_EQ(out[2], 0.0F);
  EXPECT_TRUE(std::isnan(out[3]));
  fast_tanh(in, 1, 4, out);
  EXPECT_NEAR(out[0], 0.0F, 1e-6F);
  EXPECT_EQ(out[1], 1.0F);
  EXPECT_EQ(out[2], -1.0F);
  EXPECT_EQ(out[3], 1.0F);
  for (float x = -20.0F; x < 20.0F; x += 0.0625F) {
    fast_sigmoid(&x, 1, 1, out);
    EXPECT_NEAR(out[0], 1.0 / (1.0 + std::exp(-static_cast<double>(x))), 1e-5);
    fast_tanh(&x, 1, 1, out);
    EXPECT_NEAR(out[0], std::tanh(static_cast<double>(x)), 2e-5);
  }
}

TEST(RowKernels, SoftmaxSumsInElementOrderOnEveryTarget) {
  const std::vector<std::pair<size_t, size_t>> shapes = {
      {1, 1}, {1, 7}, {8, 33}, {17, 100}, {9, 3}};
  for (const auto& [rows, cols] : shapes) {
    std::vector<float> in = Random(rows * cols, 5, 30.0F);
    if (cols > 6) {
      in[1] = -kInfinity;
      in[2] = -200.0F;
      in[(rows - 1) * cols + 3] = kInfinity;
      in[rows / 2 * cols + 4] = kNan;
    }
    ForEachVectorTarget([&, rows = rows, cols = cols] {
      std::vector<float> out(in.size());
      fast_softmax(in.data(), rows, cols, out.data());
      ExpectSame(out, Softmax(in, cols, false), in);
      fast_log_softmax(in.data(), rows, cols, out.data());
      ExpectSame(out, Softmax(in, cols, true), in);
      out = in;
      fast_softmax(out.data(), rows, cols, out.data());  // in place
      ExpectSame(out, Softmax(in, cols, false), in);
    });
  }
}

TEST(RowKernels, MaximumKeepsTheFirstOfEquals) {
  ForEachVectorTarget([] {
    for (const size_t n : {1, 2, 15, 16, 17, 40, 100}) {
      std::vector<float> v = Random(n, static_cast<uint32_t>(n), 5.0F);
      EXPECT_EQ(max_of(v.data(), n), *std::max_element(v.begin(), v.end()));
      v[n / 2] = kNan;
      EXPECT_EQ(std::isnan(max_of(v.data(), n)), n == 1);
      v[0] = kNan;
      EXPECT_TRUE(std::isnan(max_of(v.data(), n)));
      std::fill(v.begin(), v.end(), -1.0F);
      v[n / 2] = -0.0F;
      v[n - 1] = 0.0F;
      EXPECT_EQ(std::signbit(max_of(v.data(), n)), n / 2 < n - 1) << n;
    }
  });
}

TEST(RowKernels, RowVectors) {
  ForEachVectorTarget([] {
    for (const size_t cols : {1, 3, 8, 19}) {
      const std::vector<float> v = Random(cols, 1);
      const std::vector<float> x = Random(3 * cols, 2);
      std::vector<float> sum = x;
      add_vec_to_rows(sum.data(), 3, cols, v.data(), -0.5F);
      std::vector<float> product = x;
      mul_vec_to_rows(product.data(), 3, cols, v.data(), 0.7F);
      for (size_t i = 0; i < x.size(); ++i) {
        const float scaled = v[i % cols] * -0.5F;
        ASSERT_EQ(sum[i], scaled + x[i]);
        const float first = x[i] * 0.7F;
        ASSERT_EQ(product[i], first * v[i % cols]);
      }
    }
  });
}

TEST(RecurrentKernels, OnePassHasTheBitsOfTheSeparateSteps) {
  ForEachVectorTarget([] {
    for (size_t n = 1; n < 37; ++n) {
      const std::vector<float> gates = Random(4 * n, 3, 4.0F);
      const std::vector<float> bias = Random(4 * n, 4);
      const std::vector<float> start = Random(n, 5);
      std::vector<float> cell = start;
      std::vector<float> hidden(n);
      lstm_cell(gates.data(), bias.data(), n, cell.data(), hidden.data());
      const auto gate = [&](size_t block, size_t j) {
        return gates[block * n + j] + bias[block * n + j];
      };
      for (size_t j = 0; j < n; ++j) {
        const float kept = Sigmoid(gate(1, j)) * start[j];
        const float added = Sigmoid(gate(0, j)) * Tanh(gate(2, j));
        ASSERT_EQ(cell[j], kept + added);
        ASSERT_EQ(hidden[j], Sigmoid(gate(3, j)) * Tanh(cell[j]));
      }

      const std::vector<float> peepholes = Random(3 * n, 6);
      std::vector<float> tanh_cell(n);
      peephole_lstm_cell(
          {gates.data(), peepholes.data(), peepholes.data() + n, peepholes.data() + 2 * n,
           start.data(), cell.data(), tanh_cell.data(), hidden.data()},
          n);
      for (size_t j = 0; j < n; ++j) {
        const float to_input = peepholes[j] * start[j];
        const float to_forget = peepholes[n + j] * start[j];
        const float added = Sigmoid(gates[n + j] + to_input) * Tanh(gates[j]);
        const float kept = Sigmoid(gates[2 * n + j] + to_forget) * start[j];
        ASSERT_EQ(cell[j], added + kept);
        const float to_output = peepholes[2 * n + j] * cell[j];
        ASSERT_EQ(tanh_cell[j], Tanh(cell[j]));
        ASSERT_EQ(hidden[j], Sigmoid(gates[3 * n + j] + to_output) * tanh_cell[j]);
      }

      const std::vector<float> candidate = Random(n, 7, 3.0F);
      gru_cell({gates.data(), candidate.data(), bias.data(), start.data(), hidden.data()}, n);
      for (size_t j = 0; j < n; ++j) {
        const float from_reset = Sigmoid(gate(0, j)) * (candidate[j] + bias[2 * n + j]);
        const float m = Tanh(gates[2 * n + j] + from_reset);
        const float z = Sigmoid(gate(1, j));
        const float taken = z * m, kept = z * start[j];
        ASSERT_EQ(hidden[j], (m - taken) + kept);
      }
    }
  });
}

TEST(Products, AgreeWithDoublePrecisionForManyShapes) {
  const struct {
    size_t M, N, K;
  } shapes[] = {{1, 1, 1}, {1, 33, 17},   {2, 5, 3},      {7, 64, 40},
                {1, 4, 0}, {16, 200, 31}, {40, 90, 1100}, {3, 4, 0}};
  for (const auto& [M, N, K] : shapes) {
    const Floats a = Random(M * K, 1);
    Floats b = Random(N * K, 2);
    for (const float beta : {0.0F, 1.0F}) {
      const Floats before(M * N, beta == 0.0F ? kNan : 2.0F);
      Floats c = before, by_columns = before, by_rows = before;
      matmul_trans_b(a.data(), b.data(), c.data(), M, N, K, 0.5F, beta);
      Floats columns(b.size());
      transpose(b.data(), columns.data(), N, K);
      matmul({a.data(), K}, {columns.data(), N}, {by_columns.data(), N}, M, N, K, 0.5F, beta);
      mat_vec(b.data(), a.data(), by_rows.data(), N, K, 0.5F, beta);
      for (size_t i = 0; i < M * N; ++i) {
        double sum = 2.0 * beta;
        for (size_t k = 0; k < K; ++k) sum += 0.5 * a[i / N * K + k] * b[i % N * K + k];
        const double tolerance = 1e-5 * (1.0 + static_cast<double>(K));
        ASSERT_NEAR(c[i], sum, tolerance);
        ASSERT_NEAR(by_columns[i], sum, tolerance);
        ASSERT_TRUE(i >= N || std::fabs(by_rows[i] - sum) <= tolerance);
      }
    }
  }
}

TEST(Products, DiagonalRoundsTheProductThenTheSum) {
  const std::vector<float> a = Random(50, 1);
  const std::vector<float> x = Random(50, 2);
  std::vector<float> y = Random(50, 3);
  const std::vector<float> before = y;
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
  std::vector<float> powers = {4.0F, -1.0F, 9.0F};
  pow_in_place(powers.data(), 3, 0.5F);
  EXPECT_EQ(powers, (std::vector<float>{2.0F, -1.0F, 9.0F}));
  pow_in_place(powers.data(), 3, 2.0F);
  EXPECT_EQ(powers, (std::vector<float>{4.0F, 1.0F, 81.0F}));
  pow_in_place(powers.data(), 3, -0.5F);
  EXPECT_FLOAT_EQ(powers[2], 1.0F / 9.0F);

  const std::vector<float> src = {1, 2, 3, 4, 5, 6};
  std::vector<float> dst(4, 0.0F);
  copy_columns(src.data(), 2, 3, dst.data(), 2, 2, 1, 1, 1);
  EXPECT_EQ(dst, (std::vector<float>{0, 2, 0, 5}));
  const std::vector<float> kept = dst;
  copy_columns(src.data(), 2, 3, dst.data(), 2, 2, 0, 1, 2);
  EXPECT_EQ(dst, kept);

  std::vector<float> rows = {1, 10, 2, 20, 3, 30, 4, 40, 5, 50};
  sum_strided_rows(rows.data(), 5, 2, 1, 3);
  EXPECT_EQ(rows, (std::vector<float>{6, 60, 9, 90, 12, 120, 4, 40, 5, 50}));

  std::vector<float> wide = Random(19 * 37, 9);
  const std::vector<float> original = wide;
  transpose_in_place(wide.data(), 19, 37);
  for (size_t i = 0; i < wide.size(); ++i) ASSERT_EQ(wide[i], original[i % 19 * 37 + i / 19]);

  std::vector<float> heads = {1, 2, 3, 4, 5, 6, 7, 8};
  split_heads(heads.data(), 2, 4, 2);
  EXPECT_EQ(heads, (std::vector<float>{1, 2, 5, 6, 3, 4, 7, 8}));
}

}  // namespace
}  // namespace handwriting::tests
