#include "nnet/runtime/component-registry.h"

#include <memory>

#include "nnet/attention/decoder-layer.h"
#include "nnet/attention/encoder-layer.h"
#include "nnet/attention/fsmn-layer.h"
#include "nnet/attention/positional-encoding.h"
#include "nnet/convolution/conv1d.h"
#include "nnet/convolution/convolution.h"
#include "nnet/dense/activation.h"
#include "nnet/dense/affine.h"
#include "nnet/dense/highway.h"
#include "nnet/dense/nnet-layer.h"
#include "nnet/dense/normalisation.h"
#include "nnet/flow/nnet-control-flow.h"
#include "nnet/flow/nnet-control-flow.shapes.h"
#include "nnet/flow/statistics.h"
#include "nnet/recurrent/gru.h"
#include "nnet/recurrent/lstm.h"
#include "nnet/stream_nnet/convolution.h"
#include "nnet/stream_nnet/nnet-control-flow.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

template <class Layer>
Component* Make(int first, int second) {
  return std::make_unique<Layer>(first, second).release();
}

// One layer type: its code, the word inside its marker, and the factories for the float and for the
// fixed-point code. Most layers have one class for both.
struct Row {
  int code;
  const char* name;
  Component::Factory make;
  Component::Factory make_fixed;
};

template <class Layer, class FixedLayer = Layer>
constexpr Row RowOf(const char* name) {
  return {Layer::kType, name, &Make<Layer>, &Make<FixedLayer>};
}

// Adding a layer adds a row. The codes are part of the model format. A row gives two entries: the
// layer, and the "Fixed" layer under the code of the family's fixed-point twin.
constexpr Row kRows[] = {
    RowOf<AffineTransform, FixedAffineTransform>("AffineTransform"),
    RowOf<LinearTransform, FixedLinearTransform>("LinearTransform"),
    RowOf<Lstm, FixedLstm>("Lstm"),
    RowOf<LstmProjectedNnet3Streams, FixedLstmProjectedNnet3Streams>("LstmProjectedNnet3Streams"),
    RowOf<Fsmn>("Fsmn"),
    RowOf<PositionalEncoding>("PositionalEncoding"),
    RowOf<Encoder>("Encoder"),
    RowOf<Decoder>("Decoder"),
    RowOf<Embedding, FixedEmbedding>("Embedding"),
    RowOf<BlstmProjectedNnet3Streams, FixedBlstmProjectedNnet3Streams>(
        "BlstmProjectedNnet3Streams"),
    RowOf<Gru, FixedGru>("Gru"),
    RowOf<Blstm, FixedBlstm>("Blstm"),
    RowOf<Highway>("Highway"),
    RowOf<BGru, FixedBGru>("BGru"),
    RowOf<Softmax>("Softmax"),
    RowOf<Sigmoid>("Sigmoid"),
    RowOf<Relu>("ReLU"),
    RowOf<LogSoftmax>("LogSoftmax"),
    RowOf<PRelu>("PReLU"),
    RowOf<Relu2d>("ReLU2d"),
    RowOf<PRelu2d>("PReLU2d"),
    RowOf<Conv2d>("Conv2d"),
    RowOf<ConvBN2d>("ConvBN2d"),
    RowOf<ConvDW2d>("ConvDW2d"),
    RowOf<SeperableConv2d>("SeperableConv2d"),
    RowOf<SimpleConv2d1x3s2>("SimpleConv2d1x3s2"),
    RowOf<SimpleDeconv2d1x3s2>("SimpleDeconv2d1x3s2"),
    RowOf<Conv1d>("Conv1d"),
    RowOf<ConvTranspose1d>("ConvTranspose1d"),
    RowOf<MaxPool1d>("MaxPool1d"),
    RowOf<Splice>("Splice"),
    RowOf<AddShift>("AddShift"),
    RowOf<Rescale>("Rescale"),
    RowOf<NormalizeComponent>("NormalizeComponent"),
    RowOf<BatchNormComponent>("BatchNormComponent"),
    RowOf<LayerNorm>("LayerNorm"),
    RowOf<BatchNorm2d>("BatchNorm2d"),
    RowOf<AddComponent>("AddComponent"),
    RowOf<BatchNorm1d>("BatchNorm1d"),
    RowOf<ViewComponent>("ViewComponent"),
    RowOf<TransposeComponent>("TransposeComponent"),
    RowOf<Prior>("Prior"),
    RowOf<StatisticsExtraction>("StatisticsExtractionComponent"),
    RowOf<StatisticsPooling>("StatisticsPoolingComponent"),
    RowOf<SlidingWindow>("SlidingWindowComponent"),
    RowOf<RegisterComponent>("RegisterComponent"),
    RowOf<Register2dComponent>("Register2dComponent"),
    RowOf<ConcatenateComponent>("ConcatenateComponent"),
    RowOf<Concatenate2dComponent>("Concatenate2dComponent"),
    RowOf<FlattenComponent>("FlattenComponent"),
    RowOf<DeflattenComponent>("DeflattenComponent"),
    RowOf<SliceComponent>("SliceComponent"),
    RowOf<ReflectionPad>("ReflectionPad"),
    RowOf<ConstantPad>("ConstantPad"),
    RowOf<StreamConv1d>("StreamConv1d"),
    RowOf<StreamConvTranspose1d>("StreamConvTranspose1d"),
    RowOf<StreamMaxPool1d>("StreamMaxPool1d"),
    RowOf<StreamRegisterComponent>("StreamRegisterComponent"),
    RowOf<StreamConcatenateComponent>("StreamConcatenateComponent"),
    RowOf<StreamReflectionPad>("StreamReflectionPad"),
    RowOf<StreamConstantPad>("StreamConstantPad"),
    RowOf<StreamSliceComponent>("StreamSliceComponent"),
};

std::string Marker(const char* opening, const char* name) {
  return std::string(opening).append(name).append(">");
}

Component::ComponentMap BuildComponentMap() {
  Component::ComponentMap components;
  for (const Row& row : kRows) {
    components.try_emplace(row.code, Marker("<", row.name), row.make);
    components.try_emplace(FixedTypeOf(row.code), Marker("<Fixed", row.name), row.make_fixed);
  }
  return components;
}

}  // namespace

Component::MarkerMap BuildMarkerMap(const Component::ComponentMap& components) {
  Component::MarkerMap markers;
  for (const auto& [code, entry] : components) {
    const auto& [marker, factory] = entry;
    if (!markers.try_emplace(marker, code, factory).second) {
      ThrowError(Here(), "insert component map failed! [%s:%04X]", marker.c_str(),
                 static_cast<unsigned>(code));
    }
  }
  return markers;
}

const Component::ComponentMap Component::component_map = BuildComponentMap();
const Component::MarkerMap Component::marker_map = BuildMarkerMap(component_map);

}  // namespace tarev::nnet::handwriting_CTC
