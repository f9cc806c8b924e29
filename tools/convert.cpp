// `handwriting convert`: writes the networks of a model file in binary form.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/commands.h"
#include "tools/model-file.h"
#include "tools/output-file.h"

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::FixedTypeOf;
using tarev::nnet::handwriting_CTC::Nnet;

struct Options {
  std::string in;
  std::string out;
  bool fixed = false;
};

// What a block writer writes.
std::string BlockOf(const Component& layer, bool (Component::*write)(FILE*) const) {
  char* bytes = nullptr;
  size_t size = 0;
  FILE* fp = open_memstream(&bytes, &size);
  if (fp == nullptr) throw std::bad_alloc();
  const bool written = (layer.*write)(fp);
  const bool closed = std::fclose(fp) == 0;
  const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
  if (!closed) throw std::bad_alloc();
  return written ? std::string(bytes, size) : std::string();
}

bool CanBeWrittenFixed(const Component& layer) {
  return layer.HasFixedForm() && Component::component_map.contains(layer.GetFixedType());
}

// Many types write the same block under both codes: no value of theirs becomes an 8-bit code. A
// layer without parameters has nothing that could, and one of a fixed-point type has nothing left
// to do.
bool StaysInFloat(const Component& layer) {
  if (!CanBeWrittenFixed(layer)) return true;
  if (layer.ParameterCount() == 0 || FixedTypeOf(layer.GetType()) == layer.GetType()) return false;
  return BlockOf(layer, &Component::WriteData) == BlockOf(layer, &Component::WriteFixedData);
}

std::string Place(size_t network, size_t layer, const Component& component) {
  return "network " + std::to_string(network + 1) + ", layer " + std::to_string(layer) + " " +
         component.TypeMarker();
}

void WriteNetwork(const Nnet& network, size_t number, bool fixed, FILE* fp) {
  const auto count = static_cast<uint32_t>(network.layers.size());
  std::fwrite(&count, sizeof(count), 1, fp);
  for (size_t i = 0; i < network.layers.size(); ++i) {
    const Component& layer = *network.layers[i];
    const bool written = fixed && CanBeWrittenFixed(layer) ? layer.WriteFixed(fp) : layer.Write(fp);
    // A failure of the stream is found, with its reason, when the file is committed.
    if (!written && std::ferror(fp) == 0) {
      throw std::runtime_error(Place(number, i, layer) + ": the layer cannot be written");
    }
  }
}

void WriteNetworks(const std::vector<Nnet>& networks, const Options& options) {
  OutputFile file(options.out);
  for (size_t i = 0; i < networks.size(); ++i) {
    try {
      WriteNetwork(networks[i], i, options.fixed, file.stream());
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(options.out + ": " + error.what());
    }
  }
  file.Commit();
}

void NameFloatLayers(const std::vector<Nnet>& networks) {
  for (size_t n = 0; n < networks.size(); ++n) {
    for (size_t i = 0; i < networks[n].layers.size(); ++i) {
      const Component& layer = *networks[n].layers[i];
      if (!StaysInFloat(layer)) continue;
      std::cout << Place(n, i, layer) << ": stays in float (parameters: " << layer.ParameterCount()
                << ")\n";
    }
  }
}

int Run(const Options& options) {
  const ModelFile model = ReadModelFile(options.in);
  WriteNetworks(model.networks, options);
  if (options.fixed) NameFloatLayers(model.networks);
  return kDone;
}

constexpr char kFooter[] =
    R"(With --fixed every layer is written under its fixed-point type code: dense and recurrent layers store
their parameters as 8-bit codes, a quarter of the size, and lose precision. A line on standard output
names each layer that holds parameters and keeps them in float, and each layer that can only be
written under its float type code.

OUT may be IN.)";

}  // namespace

Command AddConvert(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* command =
      app.add_subcommand("convert", "Write every network of a model file in binary form");
  command->add_option("IN", options->in, "Model file, binary or text")->required();
  command->add_option("OUT", options->out, "Model file to write")->required();
  command->add_flag("--fixed", options->fixed, "Write the fixed-point form");
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
