#ifndef TOOLS_MODEL_FILE_H_
#define TOOLS_MODEL_FILE_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "nnet/runtime/nnet-nnet.h"

namespace handwriting::tools {

struct FileCloser {
  void operator()(FILE* fp) const { std::fclose(fp); }
};
using FilePointer = std::unique_ptr<FILE, FileCloser>;

/// Opens a file for binary reading; throws std::runtime_error with path and reason.
FilePointer OpenForReading(const std::string& path);

/// Whether the stream, which must be seekable, holds a model in text form. Goes back to its start.
bool IsTextModel(FILE* fp);

/// Throws std::runtime_error for a file in text form, which the library's own reader does not take.
void RefuseTextModel(const std::string& path);

/// All networks of a file, in order.
struct ModelFile {
  bool is_text = false;
  std::vector<tarev::nnet::handwriting_CTC::Nnet> networks;
};

/// Reads a model file to its end, binary or text. A file without a network, a damaged one and one
/// that goes on after its last network are refused with a std::runtime_error that names the file,
/// the network and the layer. Not read on after `most_networks`.
ModelFile ReadModelFile(const std::string& path, size_t most_networks = SIZE_MAX);

/// Reads the network with that number, counted from 1, out of such a file; throws UsageError when
/// the file has fewer.
tarev::nnet::handwriting_CTC::Nnet ReadNetworkOfFile(const std::string& path, size_t number);

/// Whether a network's input (its output) is one plane of frames per channel: its first (last)
/// layer is a channel layer, or one that turns planes into rows (rows into planes).
bool TakesPlanes(const tarev::nnet::handwriting_CTC::Nnet& network);
bool GivesPlanes(const tarev::nnet::handwriting_CTC::Nnet& network);

}  // namespace handwriting::tools

#endif  // TOOLS_MODEL_FILE_H_
