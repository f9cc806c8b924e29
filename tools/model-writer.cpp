#include "tools/model-writer.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <stdexcept>

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::FixedTypeOf;
using tarev::nnet::handwriting_CTC::Nnet;

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
    // A failure of the stream is the caller's to find, with its reason.
    if (!written && std::ferror(fp) == 0) {
      throw std::runtime_error(Place(number, i, layer) + ": the layer cannot be written");
    }
  }
}

}  // namespace

void WriteNetworks(const std::vector<Nnet>& networks, bool fixed, FILE* fp) {
  for (size_t i = 0; i < networks.size(); ++i) WriteNetwork(networks[i], i, fixed, fp);
}

std::vector<std::string> FloatLayers(const std::vector<Nnet>& networks) {
  std::vector<std::string> lines;
  for (size_t n = 0; n < networks.size(); ++n) {
    for (size_t i = 0; i < networks[n].layers.size(); ++i) {
      const Component& layer = *networks[n].layers[i];
      if (!StaysInFloat(layer)) continue;
      lines.push_back(Place(n, i, layer) + ": stays in float (parameters: " +
                      std::to_string(layer.ParameterCount()) + ")");
    }
  }
  return lines;
}

}  // namespace handwriting::tools
