#include "nnet/activation.h"

#include "utils/file-io.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

bool Slope::ReadText(FILE* fp) {
  PropertyTable properties;
  AddProperty(properties, "<Alpha>", "f:", &alpha);
  ReadProperties(fp, properties);
  return true;
}

void Softmax::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                           int /*call_id*/) {
  fast_softmax(in, ToSize(frames), Width(), out);
}

void Sigmoid::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                           int /*call_id*/) {
  fast_sigmoid(in, ToSize(frames), Width(), out);
}

void Relu::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                        int /*call_id*/) {
  relu(in, ToSize(frames), Width(), out);
}

void LogSoftmax::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                              int /*call_id*/) {
  fast_log_softmax(in, ToSize(frames), Width(), out);
}

bool PRelu::ReadData(FILE* fp) { return ReadValues(fp, alpha); }

bool PRelu::ReadTextData(FILE* fp, bool binary) { return binary ? ReadData(fp) : ReadText(fp); }

bool PRelu::WriteData(FILE* fp) const { return WriteValues(fp, alpha); }

void PRelu::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                         int /*call_id*/) {
  prelu(in, ToSize(frames), Width(), out, alpha);
}

void Relu2d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                          int /*call_id*/) {
  const size_t rows = AdoptRows(frames, in_dim);
  relu(in, rows, ToSize(input_dim), out);
}

bool PRelu2d::ReadData(FILE* fp) { return ReadValues(fp, alpha); }

bool PRelu2d::ReadTextData(FILE* fp, bool binary) { return binary ? ReadData(fp) : ReadText(fp); }

bool PRelu2d::WriteData(FILE* fp) const { return WriteValues(fp, alpha); }

void PRelu2d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                           int /*call_id*/) {
  const size_t rows = AdoptRows(frames, in_dim);
  prelu(in, rows, ToSize(input_dim), out, alpha);
}

}  // namespace tarev::nnet::handwriting_CTC
