#include "nnet/dense/highway.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "nnet/base/element-kernels.h"
#include "nnet/dense/highway-kernels.h"
#include "tests/support/model-builder.h"
#include "tests/support/vector-targets.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

constexpr int kHighway = 0x10f;

struct Sample {
  explicit Sample(size_t n)
      : arrays{Random(n * n, 70), Random(n * n, 71), Random(n, 72), Random(n, 73)} {}

  Bytes Block() const {
    Bytes block;
    for (const Floats& array : arrays) block.Floats(array);
    return block;
  }
  Bytes Component() const {
    const int n = static_cast<int>(arrays[2].size());
    return Component1d(kHighway, n, n, Block());
  }
  // Row j of weights x + bias in double precision.
  double Affine(size_t which, size_t j, const float* x) const {
    const size_t n = arrays[2].size();
    double sum = arrays[which + 2][j];
    for (size_t k = 0; k < n; ++k) sum += double{arrays[which][j * n + k]} * x[k];
    return sum;
  }

  Floats arrays[4];
};

TEST(Highway, AgreesWithDoublePrecision) {
  for (const size_t n : {1, 3, 16, 37}) {
    const Sample sample(n);
    const Layer layer = ReadLayer(sample.Component());
    for (const size_t frames : {1, 2, 19}) {
      const Floats in = Random(frames * n, 74);
      const Floats out =
          RunLayer(*layer, Floats(in), static_cast<int64_t>(frames), static_cast<int>(n));
      ASSERT_EQ(out.size(), in.size());
      for (size_t i = 0; i < in.size(); ++i) {
        const float* x = &in[i / n * n];
        const double h = std::max(0.0, sample.Affine(0, i % n, x));
        const double g = 1.0 / (1.0 + std::exp(-sample.Affine(1, i % n, x)));
        ASSERT_NEAR(out[i], h * g + in[i] * (1.0 - g), 1e-4) << n << " " << frames << " " << i;
      }
    }
    EXPECT_EQ(layer->MemoryBytes(), 4 * (2 * n * n + 2 * n + 2 * 19 * n));
  }
}

TEST(Highway, StoredForms) {
  const Sample sample(3);
  const Bytes component = sample.Component();
  const Layer layer = ReadLayer(component);
  EXPECT_FALSE(layer->HasFixedForm());
  // The fixed-point code reads the same float block.
  const Layer twin = ReadLayer(Component1d(0x80f, 3, 3, sample.Block()));
  EXPECT_EQ(WrittenBy(*twin), component.str());

  const Layer small = ReadLayer(Component1d(kHighway, 1, 1, Bytes().Floats({0.5F, 0, -2, 4})));
  Bytes codes = Bytes().Float(254).Byte(127).Float(1).Byte(0);
  codes.Float(63.5F).Byte(-127).Float(31.75F).Byte(127);
  EXPECT_EQ(FixedWrittenBy(*small), Component1d(kHighway, 1, 1, codes).str());

  for (const auto& [in, out] : {std::pair{3, 2}, {-1, -1}, {1 << 20, 1 << 20}}) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(Component1d(kHighway, in, out, sample.Block())); }),
              "read component failed!");
  }
  EXPECT_EQ(ThrownBy([] { ReadTextLayer("<Highway> 3 2 [ 1 ]"); }), "read component failed!");
  const Layer unset = ReadLayer(Component1d(kHighway, 0, 0));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*unset, {1}, 1, 1); }),
            "mismatched input dimension! layer[<Highway>] [0] vs [1]");
}

TEST(HighwayMix, SameBitsAsTheSeparateStepsOnEveryTarget) {
  for (size_t n = 1; n <= 35; ++n) {
    const Floats transform = Random(n, 75, 2.0F);
    const Floats gate = Random(n, 76, 8.0F);
    const Floats in = Random(n, 77);
    Floats h(n);
    Floats wanted(n);
    relu(transform.data(), 1, n, h.data());
    fast_sigmoid(gate.data(), 1, n, wanted.data());
    for (size_t i = 0; i < n; ++i) {
      const float g = wanted[i];
      wanted[i] = h[i] * g;
      wanted[i] += in[i] * (1.0F - g);
    }
    ForEachVectorTarget([&] {
      Floats out(n);
      highway_mix(transform.data(), gate.data(), in.data(), n, out.data());
      EXPECT_EQ(out, wanted) << n;
    });
  }
}

}  // namespace
}  // namespace handwriting::tests
