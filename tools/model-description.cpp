#include "tools/model-description.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>

#include "nnet/base/blas-library.h"
#include "nnet/base/element-kernels.h"
#include "nnet/runtime/nnet-nnet.h"
#include "tools/model-file.h"

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::Nnet;
using tarev::nnet::handwriting_CTC::NnetForward;
using Json = nlohmann::ordered_json;

std::string TypeText(int code) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "0x%04x", static_cast<unsigned>(code));
  return text.data();
}

Json DescribeShape(int channels, int dim, bool dim_set) {
  return {{"channels", channels}, {"dim", dim_set ? Json(dim) : Json()}};
}

Json InputOf(const Component& layer) {
  return DescribeShape(layer.InputChannel(), layer.InputDim(), layer.input_dim_set);
}

Json OutputOf(const Component& layer) {
  return DescribeShape(layer.OutputChannel(), layer.OutputDim(), layer.output_dim_set);
}

Json DescribeLayer(const Component& layer, size_t position) {
  return {{"position", position},
          {"marker", layer.TypeMarker()},
          {"type", TypeText(layer.GetType())},
          {"input", InputOf(layer)},
          {"output", OutputOf(layer)},
          {"parameters", layer.ParameterCount()},
          {"bytes", layer.MemoryBytes()},
          {"left_context", layer.LeftContext()},
          {"right_context", layer.RightContext()},
          {"links", layer.Links()}};
}

uint64_t Sum(const Json& rows, const char* key) {
  uint64_t sum = 0;
  for (const Json& row : rows) sum += row.at(key).get<uint64_t>();
  return sum;
}

// Building an executor is what links layers; the links last as long as it does.
Json DescribeNetwork(Nnet& network) {
  std::optional<NnetForward> executor;
  Json failure;
  try {
    if (network.layers.empty()) throw std::runtime_error("it has no layers");
    executor.emplace(&network);
  } catch (const std::exception& error) {
    failure = error.what();
  }
  Json layers = Json::array();
  for (const auto& layer : network.layers) layers.push_back(DescribeLayer(*layer, layers.size()));
  return {{"parameters", Sum(layers, "parameters")},
          {"bytes", Sum(layers, "bytes")},
          {"link_failure", failure},
          {"layers", layers}};
}

// Whether the frames that one network gives are what the next one takes; null when a width is not
// set.
Json Fits(const Nnet& from, const Nnet& to) {
  if (from.layers.empty() || to.layers.empty()) return false;
  const Component& last = *from.layers.back();
  const Component& first = *to.layers.front();
  if (last.OutputChannel() != first.InputChannel()) return false;
  if (!first.CheckInputDim() || !first.input_dim_set) return true;
  if (!last.output_dim_set) return nullptr;
  return last.OutputDim() == first.InputDim();
}

}  // namespace

Json DescribeFile(const ModelSource& source) {
  ModelFile model = ReadModelFile(source);
  Json networks = Json::array();
  Json fits = Json::array();
  for (size_t i = 0; i < model.networks.size(); ++i) {
    networks.push_back(DescribeNetwork(model.networks[i]));
    if (i > 0) fits.push_back(Fits(model.networks[i - 1], model.networks[i]));
  }
  return {{"file", source.name()},
          {"form", model.is_text ? "text" : "binary"},
          {"parameters", Sum(networks, "parameters")},
          {"bytes", Sum(networks, "bytes")},
          {"vector_target", tarev::nnet::handwriting_CTC::vector_target_name()},
          {"blas_core", tarev::nnet::handwriting_CTC::blas_core_name()},
          {"networks", networks},
          {"fits_next", fits}};
}

}  // namespace handwriting::tools
