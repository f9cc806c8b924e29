#include "nnet/dense/highway-kernels.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "nnet/dense/highway-kernels.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
// After foreach_target.h, which includes this file again for every target.
#include <hwy/highway.h>

#include "nnet/base/vector-math-inl.h"

HWY_BEFORE_NAMESPACE();
namespace tarev::nnet::handwriting_CTC {
namespace HWY_NAMESPACE {

// Values [begin, end) in steps of the tag's lanes. One pass in place of rectifier, sigmoid and two
// products: each array is read once, and the tail runs through the same code one value at a time.
template <class D>
void MixSpan(D d, size_t begin, size_t end, const float* transform, const float* gate,
             const float* in, float* out) {
  for (size_t i = begin; i < end; i += hn::Lanes(d)) {
    const auto affine = hn::LoadU(d, transform + i);
    const auto h = hn::IfThenElseZero(hn::Gt(affine, hn::Zero(d)), affine);
    const auto g = Sigmoid(d, hn::LoadU(d, gate + i));
    const auto carried = hn::Mul(hn::LoadU(d, in + i), hn::Sub(hn::Set(d, 1.0F), g));
    hn::StoreU(hn::Add(hn::Mul(h, g), carried), d, out + i);
  }
}

void Mix(const float* transform, const float* gate, const float* in, size_t n, float* out) {
  const hn::ScalableTag<float> d;
  const size_t whole = n / hn::Lanes(d) * hn::Lanes(d);
  MixSpan(d, 0, whole, transform, gate, in, out);
  MixSpan(hn::CappedTag<float, 1>(), whole, n, transform, gate, in, out);
}

}  // namespace HWY_NAMESPACE
}  // namespace tarev::nnet::handwriting_CTC
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace tarev::nnet::handwriting_CTC {

HWY_EXPORT(Mix);

void highway_mix(const float* transform, const float* gate, const float* in, size_t n, float* out) {
  HWY_DYNAMIC_DISPATCH(Mix)(transform, gate, in, n, out);
}

}  // namespace tarev::nnet::handwriting_CTC
#endif  // HWY_ONCE
