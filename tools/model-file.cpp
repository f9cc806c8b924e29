#include "tools/model-file.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::Component;
using tarev::nnet::handwriting_CTC::ComponentRefused;
using tarev::nnet::handwriting_CTC::Nnet;

// A network of no layers is four zero bytes; this bounds what a file of zeros can ask for.
constexpr size_t kMaxNetworks = 1000;

[[noreturn]] void FailWithErrno() { throw std::runtime_error(std::strerror(errno)); }

int SkipBlanks(FILE* fp) {
  int c = std::getc(fp);
  while (c != EOF && std::isspace(c) != 0) c = std::getc(fp);
  if (c == EOF && std::ferror(fp) != 0) FailWithErrno();
  return c;
}

// Blanks after a text component belong to nothing; in a binary file every byte belongs to a
// network.
bool AtEnd(FILE* fp, bool is_text) {
  const int c = is_text ? SkipBlanks(fp) : std::getc(fp);
  return c == EOF || std::ungetc(c, fp) == EOF;
}

std::string Place(const Nnet& network) {
  return "layer " + std::to_string(network.layers.size()) + ": ";
}

// What goes wrong in a reader goes wrong in the layer after those read so far.
template <class Reader>
auto ReadLayers(const Nnet& network, Reader reader) {
  try {
    return reader();
  } catch (const ComponentRefused& refused) {
    const std::string reason = refused.reason().empty() ? "" : " (" + refused.reason() + ")";
    throw std::runtime_error(Place(network) + refused.what() + reason);
  } catch (const std::exception& error) {
    throw std::runtime_error(Place(network) + error.what());
  }
}

void ReadBinaryNetwork(FILE* fp, Nnet& network) {
  if (!ReadLayers(network, [&] { return ReadNnet(network, fp); })) {
    throw std::runtime_error("the file ends inside the number of layers");
  }
}

void ReadTextNetwork(FILE* fp, Nnet& network) {
  for (;;) {
    if (AtEnd(fp, true)) throw std::runtime_error("the file ends before </Nnet>");
    std::unique_ptr<Component> layer(
        ReadLayers(network, [&] { return Component::Read(fp, false); }));
    if (layer == nullptr) return;
    network.layers.push_back(std::move(layer));
  }
}

void ReadNetwork(FILE* fp, ModelFile& model) {
  Nnet& network = model.networks.emplace_back();
  try {
    model.is_text ? ReadTextNetwork(fp, network) : ReadBinaryNetwork(fp, network);
  } catch (const std::exception& error) {
    throw std::runtime_error("network " + std::to_string(model.networks.size()) + ": " +
                             error.what());
  }
}

ModelFile ReadNetworks(FILE* fp, size_t most_networks) {
  ModelFile model;
  model.is_text = IsTextModel(fp);
  while (model.networks.size() < most_networks && !AtEnd(fp, model.is_text)) {
    if (model.networks.size() == kMaxNetworks) {
      throw std::runtime_error("more than " + std::to_string(kMaxNetworks) + " networks");
    }
    ReadNetwork(fp, model);
  }
  if (model.networks.empty()) throw std::runtime_error("the file holds no network");
  return model;
}

}  // namespace

FilePointer OpenForReading(const std::string& path) {
  FilePointer file(std::fopen(path.c_str(), "rb"));
  if (file == nullptr) throw std::runtime_error(path + ": " + std::strerror(errno));
  return file;
}

FilePointer ModelSource::Open() const {
  if (!bytes_) return OpenForReading(name_);
  FilePointer memory(fmemopen(const_cast<char*>(bytes_->data()), bytes_->size(), "rb"));
  if (memory == nullptr) throw std::runtime_error(name_ + ": " + std::strerror(errno));
  return memory;
}

std::string BytesOfFile(const std::string& path) {
  const FilePointer file = OpenForReading(path);
  std::string bytes;
  std::vector<char> piece(1 << 16);
  while (const size_t count = std::fread(piece.data(), 1, piece.size(), file.get())) {
    bytes.append(piece.data(), count);
  }
  if (std::ferror(file.get()) != 0) throw std::runtime_error(path + ": " + std::strerror(errno));
  return bytes;
}

bool IsTextModel(FILE* fp) {
  bool is_text = false;
  if (SkipBlanks(fp) == '<') {
    const int next = std::getc(fp);
    is_text = next == '/' || (next != EOF && std::isalpha(next) != 0);
  }
  if (std::fseek(fp, 0, SEEK_SET) != 0) FailWithErrno();
  return is_text;
}

void RefuseTextModel(const ModelSource& source) {
  const FilePointer file = source.Open();
  if (!IsTextModel(file.get())) return;
  throw std::runtime_error(source.name() +
                           ": text form found, binary form wanted (handwriting convert)");
}

ModelFile ReadModelFile(const ModelSource& source, size_t most_networks) {
  const FilePointer file = source.Open();
  try {
    return ReadNetworks(file.get(), most_networks);
  } catch (const std::exception& error) {
    throw std::runtime_error(source.name() + ": " + error.what());
  }
}

Nnet ReadNetworkOfFile(const ModelSource& source, size_t number) {
  ModelFile model = ReadModelFile(source);
  if (number < 1 || number > model.networks.size()) {
    throw UsageError(source.name() + ": there is no network " + std::to_string(number) +
                     ", the file holds " + std::to_string(model.networks.size()));
  }
  return std::move(model.networks[number - 1]);
}

bool TakesPlanes(const Nnet& network) {
  return !network.layers.empty() && network.layers.front()->TakesPlanes();
}

bool GivesPlanes(const Nnet& network) {
  return !network.layers.empty() && network.layers.back()->GivesPlanes();
}

}  // namespace handwriting::tools
