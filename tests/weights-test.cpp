// Weight matrices: what goes in comes out again, and products have the bits of their definition on
// every vector target, for any number of rows.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "nnet/base/weight-matrix.h"
#include "tests/support/expect.h"
#include "tests/support/model-builder.h"
#include "tests/support/vector-targets.h"
#include "utils/half-float.h"

namespace handwriting::tests {
namespace {

using runtime::ProductEnd;
using runtime::WeightMatrix;
using Form = WeightMatrix::Form;

struct Shape {
  size_t outputs, inputs;
};
constexpr Shape kShapes[] = {{1, 1},   {3, 5},    {8, 4},    {9, 17},    {16, 64},  {24, 0},
                             {40, 31}, {100, 70}, {130, 65}, {33, 1030}, {72, 4100}};

uint64_t memory = 0;

/// A matrix with the values that it holds, in each of the forms.
struct Sample {
  Sample(Form form, const Shape& shape) : outputs(shape.outputs), inputs(shape.inputs) {
    values = Random(outputs * inputs, static_cast<uint32_t>(outputs));
    if (form == Form::kCodes) {
      FillCodes();
    } else if (form == Form::kHalf) {
      FillHalves();
    } else {
      weights.Allocate(form, outputs, inputs, memory);
      Put(values);
    }
  }

  void FillHalves() {
    std::vector<uint16_t> halves;
    for (float& value : values) {
      halves.push_back(runtime::FloatToHalf(value));
      value = runtime::HalfToFloat(halves.back());
    }
    weights.Allocate(Form::kHalf, outputs, inputs, memory);
    Put(halves);
    std::vector<uint16_t> again(halves.size());
    weights.Get(0, outputs, again.data());
    EXPECT_EQ(again, halves);
  }

  void FillCodes() {
    std::vector<uint8_t> codes;
    for (float& value : values) {
      codes.push_back(static_cast<uint8_t>(std::lround((value + 1.0F) * 127.0F)));
      value = static_cast<float>(codes.back() - 100) / 90.0F;
    }
    weights.AllocateCodes(outputs, inputs, 90.0F, -100, memory);
    Put(codes);
    std::vector<uint8_t> again(codes.size());
    weights.Get(0, outputs, again.data());
    EXPECT_EQ(again, codes);
  }

  /// In parts that begin and end within panels.
  template <class T>
  void Put(const std::vector<T>& rows) {
    for (size_t first = 0; first < outputs; first += 21) {
      weights.Put(first, std::min<size_t>(21, outputs - first), rows.data() + first * inputs);
    }
    Floats again(values.size());
    weights.Get(0, outputs, again.data());
    EXPECT_EQ(again, values);
  }

  Floats Times(const Floats& in, size_t rows, const ProductEnd& end) {
    Floats out(rows * outputs + 16, 77.0F);
    weights.Multiply({in.data(), inputs}, rows, end, {out.data(), outputs});
    EXPECT_EQ(Floats(out.end() - 16, out.end()), Floats(16, 77.0F));
    out.resize(rows * outputs);
    return out;
  }

  size_t outputs, inputs;
  Floats values;
  WeightMatrix weights;
};

// The sum of a product in its order, each step rounded once.
float FusedSum(const float* x, const float* w, size_t n) {
  float sum = 0.0F;
  for (size_t k = 0; k < n; ++k) sum = std::fma(x[k], w[k], sum);
  return sum;
}

TEST(Weights, ProductsHaveTheBitsOfOneChainOfFusedSteps) {
  ForEachVectorTarget([] {
    const bool fused = (hwy::SupportedTargets() & (HWY_AVX2 | HWY_AVX3)) != 0;
    for (const Form form : {Form::kSingle, Form::kHalf}) {
      for (const Shape& shape : kShapes) {
        SCOPED_TRACE(testing::Message() << shape.outputs << " x " << shape.inputs);
        Sample sample(form, shape);
        const Floats bias = Random(shape.outputs, 2);
        for (const size_t rows : {1, 2, 5, 7, 130}) {
          const Floats in = Random(rows * shape.inputs, 3);
          const Floats out = sample.Times(in, rows, {bias.data(), 0.75F});
          for (size_t i = 0; i < out.size(); ++i) {
            const size_t r = i / shape.outputs, n = i % shape.outputs;
            const float sum = FusedSum(in.data() + r * shape.inputs,
                                       sample.values.data() + n * shape.inputs, shape.inputs);
            const float scaled = sum * 0.75F;
            if (fused) {
              ASSERT_EQ(BitsOf(out[i]), BitsOf(scaled + bias[n])) << rows << " " << i;
            } else {
              ASSERT_NEAR(out[i], scaled + bias[n], 1e-4) << rows << " " << i;
            }
          }
        }
      }
    }
  });
}

// The rows that a code product works with: integers of 24 bits.
double CodeSum(const float* x, const float* w, size_t n) {
  double sum = 0.0;
  for (size_t k = 0; k < n; ++k) sum += static_cast<double>(x[k]) * w[k];
  return sum;
}

TEST(Weights, CodeProductsAreAsExactAsFloatsAndTheSameEverywhere) {
  for (const Shape& shape : kShapes) {
    SCOPED_TRACE(testing::Message() << shape.outputs << " x " << shape.inputs);
    const Floats bias = Random(shape.outputs, 2);
    const Floats in = Random(19 * shape.inputs, 3, 40.0F);
    Floats first;
    ForEachVectorTarget([&] {
      Sample sample(Form::kCodes, shape);
      const Floats out = sample.Times(in, 19, {bias.data(), 0.5F});
      if (first.empty()) first = out;
      EXPECT_EQ(out, first);
      for (size_t r = 0; r < 19; ++r) {
        const float* row = in.data() + r * shape.inputs;
        EXPECT_EQ(sample.Times({row, row + shape.inputs}, 1, {bias.data(), 0.5F}),
                  RowsOf(out, shape.outputs, r, r + 1));
        double largest = 1e-30;
        for (size_t n = 0; n < shape.outputs; ++n) {
          largest = std::max<double>(largest, std::fabs(out[r * shape.outputs + n]));
        }
        for (size_t n = 0; n < shape.outputs; ++n) {
          const double sum = CodeSum(row, sample.values.data() + n * shape.inputs, shape.inputs);
          // The float weights are rounded, the codes are not.
          const double room = largest * (3e-7 + 1e-8 * static_cast<double>(shape.inputs));
          ASSERT_NEAR(out[r * shape.outputs + n], sum * 0.5 + bias[n], room);
        }
      }
    });
  }
}

// The largest sums that digits and codes can give, for offsets that are folded into them and for
// those that are not: all results are known.
TEST(Weights, CodeProductsAtTheEdgesOfTheirRange) {
  ForEachVectorTarget([] {
    for (const int32_t offset : {-128, -255, 0, 250, 2048, -2100, 1 << 30}) {
      for (const size_t inputs : {4, 60, 253, 257, 507, 509, 2048, 4096, 4097}) {
        for (const int code : {0, 255}) {
          WeightMatrix weights;
          weights.AllocateCodes(3, inputs, 8.0F, offset, memory);
          weights.Put(0, 3, std::vector<uint8_t>(3 * inputs, static_cast<uint8_t>(code)).data());
          for (const float x : {1.0F, -1.0F}) {
            const Floats in(2 * inputs, x);
            Floats out(6);
            weights.Multiply({in.data(), inputs}, 2, {}, {out.data(), 3});
            const double wanted =
                (static_cast<double>(code) + offset) / 8.0 * x * static_cast<double>(inputs);
            for (const float y : out) {
              ASSERT_NEAR(y, wanted, std::fabs(wanted) * 2e-7) << offset << " " << inputs;
            }
          }
        }
      }
    }
  });
}

TEST(Weights, CodeProductsOfUnusualRows) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ForEachVectorTarget([&] {
    WeightMatrix weights;  // rows (1, 0, -1, 2) and (2, 2, 2, 2), codes 10 off
    weights.AllocateCodes(2, 4, 2.0F, -10, memory);
    const std::vector<uint8_t> codes = {12, 10, 8, 14, 14, 14, 14, 14};
    weights.Put(0, 2, codes.data());
    const auto times = [&](const Floats& in) {
      Floats out(2);
      weights.Multiply({in.data(), 4}, 1, {}, {out.data(), 2});
      return out;
    };
    EXPECT_EQ(times({0, 0, -0.0F, 0}), Floats({0, 0}));
    EXPECT_EQ(times({1e-42F, 0, 0, 0})[1], times({0, 0, 0, 1e-42F})[1]);
    EXPECT_FLOAT_EQ(times({3e38F, 3e38F, 0, 0})[0], 3e38F);
    EXPECT_EQ(times({3e38F, 3e38F, 0, 0})[1], inf);
    EXPECT_EQ(times({inf, 5, 1, -7}), Floats({inf, inf}));
    EXPECT_EQ(times({0, 0, inf, 1}), Floats({-inf, inf}));
    ExpectSameBits(times({0, inf, 0, 0}), {nan, inf});
    ExpectSameBits(times({inf, 0, inf, 0}), {nan, inf});
    ExpectSameBits(times({0, 0, 0, nan}), {nan, nan});
  });
  for (const float scale : {0.0F, nan, inf, 1e-40F, 1e-38F}) {
    EXPECT_FALSE(WeightMatrix::HoldsCodes(scale, 0)) << scale;
  }
  EXPECT_TRUE(WeightMatrix::HoldsCodes(-1e-28F, std::numeric_limits<int32_t>::max()));
}

TEST(Weights, TakeTheMemoryOfTheirRowsInEights) {
  for (const auto& [form, outputs, bytes] : {std::tuple{Form::kSingle, 11, 16 * 6 * 4},
                                             {Form::kSingle, 24, 24 * 6 * 4},
                                             {Form::kHalf, 9, 16 * 6 * 2},
                                             {Form::kCodes, 11, 16 * 8}}) {
    WeightMatrix weights;
    uint64_t taken = 0;
    form == Form::kCodes ? weights.AllocateCodes(static_cast<size_t>(outputs), 6, 1, 0, taken)
                         : weights.Allocate(form, static_cast<size_t>(outputs), 6, taken);
    EXPECT_EQ(taken, static_cast<uint64_t>(bytes));
  }
}

// Networks of layers with weights that were read, in every form: one set of bits.

Bytes RandomLayer(int code, int in, int out, size_t values, const Bytes& fields = {}) {
  Bytes block = fields;
  for (const float x : Random(values, static_cast<uint32_t>(code), 0.4F)) {
    code == 0x10e ? block.Raw(runtime::FloatToHalf(x)) : block.Float(x);
  }
  return Component1d(code, in, out, block);
}

std::vector<Bytes> CausalLayers() {
  return {RandomLayer(0x103, 9, 21, 4 * 21 * (9 + 21) + 8 * 21),
          RandomLayer(0x106, 21, 13, 4 * 19 * (21 + 13) + 7 * 19 + 13 * 19 + 13, Bytes().Int(19)),
          RandomLayer(0x10d, 13, 18, 3 * 18 * (13 + 18) + 6 * 18, Bytes().Int(18)),
          RandomLayer(0x10f, 18, 18, 2 * 18 * 19),
          RandomLayer(0x101, 18, 33, 18 * 33),
          Affine(33, 10, Random(10, 1), Random(330, 2)),
          Component1d(0x204, 10, 10)};
}

std::vector<Bytes> FixedTwins(std::vector<Bytes> layers) {
  for (Bytes& bytes : layers) {
    const Layer layer = ReadLayer(bytes);
    if (layer->HasFixedForm()) bytes = Bytes(FixedWrittenBy(*layer));
  }
  return layers;
}

// Runs `floats` for every target that fuses; all must give the same.
template <class Run>
void ExpectSameOnFusingTargets(const Run& run) {
  Floats first;
  ForEachVectorTarget([&] {
    if ((hwy::SupportedTargets() & (HWY_AVX2 | HWY_AVX3)) == 0) return;
    const Floats out = run();
    if (first.empty()) first = out;
    ExpectSameBits(out, first);
  });
}

TEST(SameBits, OfCausalNetworksForEveryChunkingOnEveryTarget) {
  constexpr int64_t kFrames = 300;
  const Floats in = Random(kFrames * 9, 4);
  for (const auto& layers : {CausalLayers(), FixedTwins(CausalLayers())}) {
    ExpectSameOnFusingTargets([&] {
      Model model(Network(layers));
      const Floats whole = model.Call(in, kFrames, 9);
      for (const int64_t chunk : {1, 7, 16, 129}) {
        model.forward->Reset();
        std::vector<int64_t> chunks(kFrames / chunk, chunk);
        if (kFrames % chunk != 0) chunks.push_back(kFrames % chunk);
        EXPECT_EQ(model.Chunks(in, 9, chunks, false).frames, whole) << chunk;
      }
      return whole;
    });
  }
}

TEST(SameBits, OfLayersThatSeeAWholeCallOnEveryTarget) {
  Bytes encoder = Bytes().Int(2);
  for (int i = 0; i < 4; ++i) encoder.Add(Affine(12, 12, Random(12, 5), Random(144, 6)));
  encoder.Add(Affine(12, 40, Random(40, 7), Random(480, 8)));
  encoder.Add(Affine(40, 12, Random(12, 9), Random(480, 10)));
  for (int i = 0; i < 2; ++i) {
    encoder.Add(Component1d(0x406, 12, 12, Bytes().Int(12).Float(1e-5F).Floats(Random(24, 11))));
  }
  const std::vector<Bytes> layers = {
      RandomLayer(0x10e, 9, 34, 8 * 17 * (9 + 17 + 2), Bytes().Int(17)),
      RandomLayer(0x110, 34, 12, 6 * 6 * (34 + 6 + 2), Bytes().Int(6)),
      RandomLayer(0x10c, 12, 12, 2 * (4 * 7 * (12 + 6) + 7 * 7 + 6 * 7 + 6), Bytes().Int(7)),
      Component1d(0x109, 12, 12, encoder), Affine(12, 11, Random(11, 1), Random(132, 2))};
  const Floats in = Random(150 * 9, 4);
  for (const auto& network : {layers, FixedTwins(layers)}) {
    ExpectSameOnFusingTargets([&] { return Model(Network(network)).Call(in, 150, 9); });
  }
}

}  // namespace
}  // namespace handwriting::tests
