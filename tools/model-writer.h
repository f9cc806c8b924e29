#ifndef TOOLS_MODEL_WRITER_H_
#define TOOLS_MODEL_WRITER_H_

#include <cstdio>
#include <string>
#include <vector>

#include "nnet/runtime/nnet-nnet.h"

namespace handwriting::tools {

/// Writes networks back to back in binary form, with `fixed` every layer that has one under its
/// fixed-point type code. Throws std::runtime_error with the place of a layer that cannot be
/// written; a failure of the stream shows in the stream alone.
void WriteNetworks(const std::vector<tarev::nnet::handwriting_CTC::Nnet>& networks, bool fixed,
                   FILE* fp);

/// A line for each layer that a fixed-point write leaves in float: those with parameters that have
/// no 8-bit form, and those that can only be written under their float type code.
std::vector<std::string> FloatLayers(
    const std::vector<tarev::nnet::handwriting_CTC::Nnet>& networks);

}  // namespace handwriting::tools

#endif  // TOOLS_MODEL_WRITER_H_
