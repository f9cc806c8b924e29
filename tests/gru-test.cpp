// What only the GRU layers have; lstm-test.cpp runs the tests that all recurrent layers share.

#include "nnet/gru.h"

#include <gtest/gtest.h>

#include <vector>

#include "nnet/recurrent-kernels.h"
#include "tests/recurrent-sample.h"
#include "tests/vector-targets.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)
using Floats = std::vector<float>;

TEST(Gru, CountsItsMemory) {
  for (const size_t directions : {1, 2}) {
    const RecurrentLayout layout{kRecurrentFamilies[3 + directions], 3, 4, 0};
    const Layer layer = ReadLayer(layout.Float(layout.RandomValues()));
    layer->Reserve(10);
    EXPECT_EQ(layer->MemoryBytes(), 4 * (layer->ParameterCount() + 10 * 12 + directions * 8));
  }
}

// The backward direction continues from frame 0 of the call before it.
TEST(Gru, BothDirectionsContinueFromTheirOwnLastFrame) {
  const RecurrentLayout layout{kRecurrentFamilies[5], 4, 6, 0};
  const Layer layer = ReadLayer(layout.Float(layout.RandomValues()));
  const Floats in = Random(40, 3);
  const Floats whole = RunLayer(*layer, Floats(in), 10, 4);
  layer->Reset();
  const Floats late = RunLayer(*layer, RowsOf(in, 4, 5, 10), 5, 4);
  const Floats early = RunLayer(*layer, RowsOf(in, 4, 0, 5), 5, 4);
  for (size_t t = 0; t < 5; ++t) {
    for (size_t j = 6; j < 12; ++j) {
      EXPECT_NEAR(late[t * 12 + j], whole[(t + 5) * 12 + j], 1e-6);
      EXPECT_NEAR(early[t * 12 + j], whole[t * 12 + j], 1e-6);
    }
  }
}

// The fused update gives the bits of the separate steps, on every target and for every tail.
TEST(GruCell, SameBitsAsTheSeparateSteps) {
  for (size_t n = 1; n <= 35; ++n) {
    const Floats gates = Random(3 * n, 5, 6.0F);
    const Floats candidate = Random(n, 6, 3.0F);
    const Floats bias = Random(3 * n, 7);
    const Floats before = Random(n, 8);
    Floats g = gates;
    Floats s = candidate;
    add_vec_to_rows(g.data(), 1, 2 * n, bias.data(), 1.0F);
    fast_sigmoid(g.data(), 1, 2 * n, g.data());
    add_vec_to_rows(s.data(), 1, n, bias.data() + 2 * n, 1.0F);
    float* m = g.data() + 2 * n;
    for (size_t j = 0; j < n; ++j) m[j] += g[j] * s[j];
    fast_tanh(m, 1, n, m);
    for (size_t j = 0; j < n; ++j) {
      m[j] -= g[n + j] * m[j];
      m[j] += g[n + j] * before[j];
    }
    ForEachVectorTarget([&] {
      Floats hidden(n);
      gru_cell({gates.data(), candidate.data(), bias.data(), before.data(), hidden.data()}, n);
      EXPECT_EQ(hidden, Floats(m, m + n)) << n;
    });
  }
}

}  // namespace
}  // namespace handwriting::tests
