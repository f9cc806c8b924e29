// `handwriting inspect`: what a model file holds.

#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iomanip>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "nnet/base/blas-library.h"
#include "nnet/base/element-kernels.h"
#include "nnet/runtime/nnet-nnet.h"
#include "tools/commands.h"
#include "tools/model-file.h"
#include "tools/table.h"

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::Nnet;
using tarev::nnet::handwriting_CTC::NnetForward;
using Json = nlohmann::ordered_json;

struct Options {
  std::string model;
  bool json = false;
};

// ---- The document, which --json prints and which the table shows ----------------------------------

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

Json DescribeFile(const std::string& path) {
  ModelFile model = ReadModelFile(path);
  Json networks = Json::array();
  Json fits = Json::array();
  for (size_t i = 0; i < model.networks.size(); ++i) {
    networks.push_back(DescribeNetwork(model.networks[i]));
    if (i > 0) fits.push_back(Fits(model.networks[i - 1], model.networks[i]));
  }
  return {{"file", path},
          {"form", model.is_text ? "text" : "binary"},
          {"parameters", Sum(networks, "parameters")},
          {"bytes", Sum(networks, "bytes")},
          {"vector_target", tarev::nnet::handwriting_CTC::vector_target_name()},
          {"blas_core", tarev::nnet::handwriting_CTC::blas_core_name()},
          {"networks", networks},
          {"fits_next", fits}};
}

// ---- The table ------------------------------------------------------------------------------------

constexpr size_t kColumns = 9;
using TableRow = std::array<std::string, kColumns>;

const TableRow kHeading = {"layer",      "marker", "type",    "input",    "output",
                           "parameters", "bytes",  "context", "linked to"};
// Numbers stand on the right of their column.
constexpr std::array<bool, kColumns> kRightAligned = {true, false, false, true, true,
                                                      true, true,  true,  false};

std::string ShapeText(const Json& shape) {
  const Json& dim = shape.at("dim");
  return shape.at("channels").dump() + " x " + (dim.is_null() ? "unset" : dim.dump());
}

std::string ContextText(const Json& layer) {
  const Json& left = layer.at("left_context");
  const Json& right = layer.at("right_context");
  return left == 0 && right == 0 ? "-" : left.dump() + "+" + right.dump();
}

TableRow RowOf(const Json& layer) {
  return {layer.at("position").dump(),
          layer.at("marker").get<std::string>(),
          layer.at("type").get<std::string>(),
          ShapeText(layer.at("input")),
          ShapeText(layer.at("output")),
          layer.at("parameters").dump(),
          layer.at("bytes").dump(),
          ContextText(layer),
          Escaped(layer.at("links").get<std::string>())};
}

void PrintNetwork(const Json& network, size_t number) {
  std::cout << "\nnetwork " << number << '\n';
  std::vector<TableRow> rows = {kHeading};
  for (const Json& layer : network.at("layers")) rows.push_back(RowOf(layer));
  rows.push_back({"", "total", "", "", "", network.at("parameters").dump(),
                  network.at("bytes").dump(), "", ""});
  PrintTable(rows, kRightAligned);
  if (const Json& failure = network.at("link_failure"); !failure.is_null()) {
    std::cout << "  cannot be linked: " << Escaped(failure.get<std::string>()) << '\n';
  }
}

std::string FitText(const Json& from, const Json& to, const Json& fits) {
  if (fits.is_null()) return "cannot be told, an output dimension is not set";
  if (from.empty() || to.empty()) return "no, a network has no layers";
  const std::string shapes =
      ShapeText(from.back().at("output")) + " -> " + ShapeText(to.front().at("input"));
  return (fits.get<bool>() ? "yes, " : "no, ") + shapes;
}

void PrintFile(const Json& file) {
  const Json& networks = file.at("networks");
  std::cout << Escaped(file.at("file").get<std::string>()) << ": "
            << file.at("form").get<std::string>() << ", networks " << networks.size()
            << ", parameters " << file.at("parameters") << ", bytes held " << file.at("bytes")
            << '\n'
            << MachineText() << '\n';
  for (size_t i = 0; i < networks.size(); ++i) PrintNetwork(networks[i], i + 1);
  const Json& fits = file.at("fits_next");
  if (!fits.empty()) std::cout << '\n';
  for (size_t i = 0; i < fits.size(); ++i) {
    std::cout << "network " << i + 2 << " fits network " << i + 1 << ": "
              << FitText(networks[i].at("layers"), networks[i + 1].at("layers"), fits[i]) << '\n';
  }
}

int Run(const Options& options) {
  const Json file = DescribeFile(options.model);
  if (options.json) {
    // Names in a model file may be any bytes.
    std::cout << file.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
  } else {
    PrintFile(file);
  }
  return kDone;
}

constexpr char kFooter[] =
    R"(Prints for every network a row a layer: position (from 0), marker, type code, input and output as
channels x dimension per channel, number of parameters, bytes held, frames of left+right context that
the layer consumes, and the registers or layers that it is linked to. Then the totals, whether the
layers of the network can be linked, and whether each network takes what the one before it gives. The
heading names the vector target and the BLAS core that this machine runs the model on.

A network that cannot be linked, or networks that do not fit, are findings and no failure: the exit
status is 0 whenever the file can be read. --json prints the same as one document: dimensions that are
not set are null, "link_failure" is null or a text, "fits_next" holds true, false or null (cannot be
told) for each network but the last.)";

}  // namespace

Command AddInspect(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("inspect", "Show the networks and layers of a model file");
  command->add_option("MODEL", options->model, "Model file, binary or text")->required();
  command->add_flag("--json", options->json, "Print one JSON document instead of tables");
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
