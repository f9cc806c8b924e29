#ifndef TOOLS_MODEL_FILE_H_
#define TOOLS_MODEL_FILE_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "nnet/runtime/nnet-nnet.h"

namespace handwriting::tools {

struct FileCloser {
  void operator()(FILE* fp) const { std::fclose(fp); }
};
using FilePointer = std::unique_ptr<FILE, FileCloser>;

/// Opens a file for binary reading; throws std::runtime_error with path and reason.
FilePointer OpenForReading(const std::string& path);

/// Where a model comes from: a file, or bytes in memory, which are not copied.
class ModelSource {
 public:
  ModelSource(std::string path) : name_(std::move(path)) {}  // NOLINT(google-explicit-constructor)
  ModelSource(std::string name, std::span<const char> bytes)
      : name_(std::move(name)), bytes_(bytes) {}

  /// What messages begin with.
  const std::string& name() const { return name_; }
  /// A stream over the whole model, seekable where the file is.
  FilePointer Open() const;

 private:
  std::string name_;
  std::optional<std::span<const char>> bytes_;
};

/// All bytes of a file, which need not be seekable. Throws std::runtime_error with path and reason.
std::string BytesOfFile(const std::string& path);

/// Thrown for a command line whose fault shows only in the files that it names; exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Whether the stream, which must be seekable, holds a model in text form. Goes back to its start.
bool IsTextModel(FILE* fp);

/// Throws std::runtime_error for a model in text form, which the library's own reader does not take.
void RefuseTextModel(const ModelSource& source);

/// All networks of a file, in order.
struct ModelFile {
  bool is_text = false;
  std::vector<tarev::nnet::handwriting_CTC::Nnet> networks;
};

/// Reads a model to its end, binary or text. A file without a network, a damaged one and one
/// that goes on after its last network are refused with a std::runtime_error that names the file,
/// the network and the layer. Not read on after `most_networks`.
ModelFile ReadModelFile(const ModelSource& source, size_t most_networks = SIZE_MAX);

/// Reads the network with that number, counted from 1, out of such a file; throws UsageError when
/// the file has fewer.
tarev::nnet::handwriting_CTC::Nnet ReadNetworkOfFile(const ModelSource& source, size_t number);

/// Whether a network's input (its output) is one plane of frames per channel: its first (last)
/// layer is a channel layer, or one that turns planes into rows (rows into planes).
bool TakesPlanes(const tarev::nnet::handwriting_CTC::Nnet& network);
bool GivesPlanes(const tarev::nnet::handwriting_CTC::Nnet& network);

}  // namespace handwriting::tools

#endif  // TOOLS_MODEL_FILE_H_
