#include "nnet/dense/activation.h"

#include "nnet/base/element-kernels.h"

namespace tarev::nnet::handwriting_CTC {

bool PlaneLayer::Validate(Refusal& why) {
  return why.SameChannels(input_channel, output_channel) &&
         why.SameWidth(input_dim_set ? input_dim : 0, output_dim_set ? output_dim : 0);
}

void Softmax::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  fast_softmax(in, ToSize(frames), AdoptRow(in_dim), out);
}

void Sigmoid::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  fast_sigmoid(in, ToSize(frames), AdoptRow(in_dim), out);
}

void Relu::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int /*call_id*/) {
  relu(in, ToSize(frames), AdoptRow(in_dim), out);
}

void LogSoftmax::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                              int /*call_id*/) {
  fast_log_softmax(in, ToSize(frames), AdoptRow(in_dim), out);
}

void PRelu::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int /*call_id*/) {
  prelu(in, ToSize(frames), AdoptRow(in_dim), out, alpha);
}

void Relu2d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                          int /*call_id*/) {
  const size_t rows = AdoptRows(frames, in_dim);
  relu(in, rows, ToSize(input_dim), out);
}

void PRelu2d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  const size_t rows = AdoptRows(frames, in_dim);
  prelu(in, rows, ToSize(input_dim), out, alpha);
}

}  // namespace tarev::nnet::handwriting_CTC
