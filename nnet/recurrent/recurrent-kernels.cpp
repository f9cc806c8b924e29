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
// run over [begin, end) in steps of the tag's lanes. What is left over after the last whole vector runs
// through the same code, so that a value gives the same bits wherever it is.

// Vectors in memory: whole ones, and one of which only the first few lanes exist.
struct WholeVectors {
  template <class D>
  HWY_INLINE hn::Vec<D> Load(D d, const float* from) const {
    return hn::LoadU(d, from);
  }
  template <class D>
  HWY_INLINE void Store(D d, hn::Vec<D> v, float* to) const {
    hn::StoreU(v, d, to);
  }
};
struct PartVector {
  size_t lanes;
  template <class D>
  HWY_INLINE hn::Vec<D> Load(D d, const float* from) const {
    return LoadPart(d, from, lanes);
  }
  template <class D>
  HWY_INLINE void Store(D d, hn::Vec<D> v, float* to) const {
    StorePart(d, v, to, lanes);
  }
};

template <class D, class Access>
void LstmSpan(D d, Access access, size_t begin, size_t end, const float* gates, const float* bias,
              size_t n, float* cell, float* hidden) {
  const auto gate = [&](size_t block, size_t j) HWY_ATTR {
    return hn::Add(access.Load(d, gates + block * n + j), access.Load(d, bias + block * n + j));
  };
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto i = Sigmoid(d, gate(0, j));
    const auto f = Sigmoid(d, gate(1, j));
    const auto g = Tanh(d, gate(2, j));
    const auto o = Sigmoid(d, gate(3, j));
    const auto c = hn::Add(hn::Mul(f, access.Load(d, cell + j)), hn::Mul(i, g));
    access.Store(d, c, cell + j);
    access.Store(d, hn::Mul(o, Tanh(d, c)), hidden + j);
  }
}

template <class D, class Access>
void PeepholeSpan(D d, Access access, size_t begin, size_t end, const PeepholeFrame& frame,
                  size_t n) {
  const auto add_peephole = [d, access](const float* gates, const float* weights, size_t j,
                                        auto c) HWY_ATTR {
    return hn::Add(hn::Mul(access.Load(d, weights + j), c), access.Load(d, gates + j));
  };
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto before = access.Load(d, frame.previous_cell + j);
    const auto g = Tanh(d, access.Load(d, frame.gates + j));
    const auto i = Sigmoid(d, add_peephole(frame.gates + n, frame.peephole_input, j, before));
    const auto f = Sigmoid(d, add_peephole(frame.gates + 2 * n, frame.peephole_forget, j, before));
    const auto c = hn::Add(hn::Mul(i, g), hn::Mul(f, before));
    const auto o = Sigmoid(d, add_peephole(frame.gates + 3 * n, frame.peephole_output, j, c));
    const auto tanh_c = Tanh(d, c);
    access.Store(d, c, frame.cell + j);
    access.Store(d, tanh_c, frame.tanh_cell + j);
    access.Store(d, hn::Mul(o, tanh_c), frame.hidden + j);
  }
}

template <class D, class Access>
void GruSpan(D d, Access access, size_t begin, size_t end, const GruFrame& frame, size_t n) {
  const auto add_bias = [&](const float* values, size_t block, size_t j) HWY_ATTR {
    return hn::Add(access.Load(d, values + j),
                   access.Load(d, frame.recurrent_bias + block * n + j));
  };
  for (size_t j = begin; j < end; j += hn::Lanes(d)) {
    const auto r = Sigmoid(d, add_bias(frame.gates, 0, j));
    const auto z = Sigmoid(d, add_bias(frame.gates + n, 1, j));
    const auto from_hidden = hn::Mul(r, add_bias(frame.gates + 2 * n, 2, j));
    const auto m = Tanh(d, hn::Add(from_hidden, access.Load(d, frame.input_candidate + j)));
    const auto kept = hn::Mul(z, access.Load(d, frame.previous_hidden + j));
    access.Store(d, hn::Add(hn::Sub(m, hn::Mul(z, m)), kept), frame.hidden + j);
  }
}

void LstmCell(const float* gates, const float* bias, size_t n, float* cell, float* hidden) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  LstmSpan(d, WholeVectors(), 0, whole, gates, bias, n, cell, hidden);
  if (whole < n) LstmSpan(d, PartVector{n - whole}, whole, n, gates, bias, n, cell, hidden);
}

void PeepholeCell(const PeepholeFrame& frame, size_t n) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  PeepholeSpan(d, WholeVectors(), 0, whole, frame, n);
  if (whole < n) PeepholeSpan(d, PartVector{n - whole}, whole, n, frame, n);
}

void GruCell(const GruFrame& frame, size_t n) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  GruSpan(d, WholeVectors(), 0, whole, frame, n);
  if (whole < n) GruSpan(d, PartVector{n - whole}, whole, n, frame, n);
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
