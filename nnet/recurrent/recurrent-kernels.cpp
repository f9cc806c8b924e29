#include "nnet/recurrent/recurrent-kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/recurrent/recurrent-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

#include "nnet/base/vector-math-inl.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

// One pass for a whole frame: a vector of every gate is loaded, and activations, cell and output
// are computed in registers, so that nothing but the state and the output is stored.

void LstmCell(const float* gates, const float* bias, size_t n, float* cell, float* hidden) {
  ForEachVector(n, [=](auto access, size_t j) HWY_ATTR {
    const auto d = access.d;
    const auto gate = [&](size_t block) HWY_ATTR {
      return hn::Add(access.Load(gates + block * n + j), access.Load(bias + block * n + j));
    };
    const auto i = Sigmoid(d, gate(0));
    const auto f = Sigmoid(d, gate(1));
    const auto g = Tanh(d, gate(2));
    const auto o = Sigmoid(d, gate(3));
    const auto c = hn::Add(hn::Mul(f, access.Load(cell + j)), hn::Mul(i, g));
    access.Store(c, cell + j);
    access.Store(hn::Mul(o, Tanh(d, c)), hidden + j);
  });
}

void PeepholeCell(const PeepholeFrame& frame, size_t n) {
  ForEachVector(n, [&frame, n](auto access, size_t j) HWY_ATTR {
    const auto d = access.d;
    const auto add_peephole = [&](size_t block, const float* weights, auto c) HWY_ATTR {
      return hn::Add(hn::Mul(access.Load(weights + j), c),
                     access.Load(frame.gates + block * n + j));
    };
    const auto before = access.Load(frame.previous_cell + j);
    const auto g = Tanh(d, access.Load(frame.gates + j));
    const auto i = Sigmoid(d, add_peephole(1, frame.peephole_input, before));
    const auto f = Sigmoid(d, add_peephole(2, frame.peephole_forget, before));
    const auto c = hn::Add(hn::Mul(i, g), hn::Mul(f, before));
    const auto o = Sigmoid(d, add_peephole(3, frame.peephole_output, c));
    const auto tanh_c = Tanh(d, c);
    access.Store(c, frame.cell + j);
    access.Store(tanh_c, frame.tanh_cell + j);
    access.Store(hn::Mul(o, tanh_c), frame.hidden + j);
  });
}

void GruCell(const GruFrame& frame, size_t n) {
  ForEachVector(n, [&frame, n](auto access, size_t j) HWY_ATTR {
    const auto d = access.d;
    const auto add_bias = [&](const float* values, size_t block) HWY_ATTR {
      return hn::Add(access.Load(values + j), access.Load(frame.recurrent_bias + block * n + j));
    };
    const auto r = Sigmoid(d, add_bias(frame.gates, 0));
    const auto z = Sigmoid(d, add_bias(frame.gates + n, 1));
    const auto from_hidden = hn::Mul(r, add_bias(frame.gates + 2 * n, 2));
    const auto m = Tanh(d, hn::Add(from_hidden, access.Load(frame.input_candidate + j)));
    const auto kept = hn::Mul(z, access.Load(frame.previous_hidden + j));
    access.Store(hn::Add(hn::Sub(m, hn::Mul(z, m)), kept), frame.hidden + j);
  });
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(LstmCell);
HWY_EXPORT(PeepholeCell);
HWY_EXPORT(GruCell);

void lstm_cell(const float* gates, const float* bias, size_t n, float* cell, float* hidden) {
  HWY_DYNAMIC_DISPATCH(LstmCell)(gates, bias, n, cell, hidden);
}

void peephole_lstm_cell(const PeepholeFrame& frame, size_t n) {
  HWY_DYNAMIC_DISPATCH(PeepholeCell)(frame, n);
}

void gru_cell(const GruFrame& frame, size_t n) { HWY_DYNAMIC_DISPATCH(GruCell)(frame, n); }

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
