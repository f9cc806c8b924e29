// `handwriting inspect`: what a model file holds.

#include <array>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/commands.h"
#include "tools/model-description.h"
#include "tools/table.h"

namespace handwriting::tools {
namespace {

using Json = nlohmann::ordered_json;

struct Options {
  std::string model;
  bool json = false;
};

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
