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
// are computed in registers, so that nothing but the state and the output is stored. The updates
// run over [begin, end) in steps of the tag's lanes; the tail runs through the same code one value
// at a time, so that a value gives the same bits wherever it is.
template <class D>
void LstmSpan(D d, size_t begin, size_t end, const float* gates, const float* bias, size_t n,
              float* cell, float* hidden) {
  const auto gate = [&](size_t block, size_t j) HWY_ATTR {
    return hn::Add(hn::LoadU(d, gates + block * n + j), hn::LoadU(d, bias + block * n + j));
  };
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto i = Sigmoid(d, gate(0, j));
    const auto f = Sigmoid(d, gate(1, j));
    const auto g = Tanh(d, gate(2, j));
    const auto o = Sigmoid(d, gate(3, j));
    const auto c = hn::Add(hn::Mul(f, hn::LoadU(d, cell + j)), hn::Mul(i, g));
    hn::StoreU(c, d, cell + j);
    hn::StoreU(hn::Mul(o, Tanh(d, c)), d, hidden + j);
  }
}

template <class D>
void PeepholeSpan(D d, size_t begin, size_t end, const PeepholeFrame& frame, size_t n) {
  const auto add_peephole = [d](const float* gates, const float* weights, size_t j,
                                auto c) HWY_ATTR {
    return hn::Add(hn::Mul(hn::LoadU(d, weights + j), c), hn::LoadU(d, gates + j));
  };
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto before = hn::LoadU(d, frame.previous_cell + j);
    const auto g = Tanh(d, hn::LoadU(d, frame.gates + j));
    const auto i = Sigmoid(d, add_peephole(frame.gates + n, frame.peephole_input, j, before));
    const auto f = Sigmoid(d, add_peephole(frame.gates + 2 * n, frame.peephole_forget, j, before));
    const auto c = hn::Add(hn::Mul(i, g), hn::Mul(f, before));
    const auto o = Sigmoid(d, add_peephole(frame.gates + 3 * n, frame.peephole_output, j, c));
    const auto tanh_c = Tanh(d, c);
    hn::StoreU(c, d, frame.cell + j);
    hn::StoreU(tanh_c, d, frame.tanh_cell + j);
    hn::StoreU(hn::Mul(o, tanh_c), d, frame.hidden + j);
  }
}

template <class D>
void GruSpan(D d, size_t begin, size_t end, const GruFrame& frame, size_t n) {
  const auto add_bias = [&](const float* values, size_t block, size_t j) HWY_ATTR {
    return hn::Add(hn::LoadU(d, values + j), hn::LoadU(d, frame.recurrent_bias + block * n + j));
  };
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto r = Sigmoid(d, add_bias(frame.gates, 0, j));
    const auto z = Sigmoid(d, add_bias(frame.gates + n, 1, j));
    const auto from_hidden = hn::Mul(r, add_bias(frame.gates + 2 * n, 2, j));
    const auto m = Tanh(d, hn::Add(from_hidden, hn::LoadU(d, frame.input_candidate + j)));
    const auto kept = hn::Mul(z, hn::LoadU(d, frame.previous_hidden + j));
    hn::StoreU(hn::Add(hn::Sub(m, hn::Mul(z, m)), kept), d, frame.hidden + j);
  }
}

void LstmCell(const float* gates, const float* bias, size_t n, float* cell, float* hidden) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  LstmSpan(d, 0, whole, gates, bias, n, cell, hidden);
  LstmSpan(hn::CappedTag<float, 1>(), whole, n, gates, bias, n, cell, hidden);
}

void PeepholeCell(const PeepholeFrame& frame, size_t n) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  PeepholeSpan(d, 0, whole, frame, n);
  PeepholeSpan(hn::CappedTag<float, 1>(), whole, n, frame, n);
}

void GruCell(const GruFrame& frame, size_t n) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  GruSpan(d, 0, whole, frame, n);
  GruSpan(hn::CappedTag<float, 1>(), whole, n, frame, n);
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
