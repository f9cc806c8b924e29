// `handwriting forward`: runs one network over a matrix of features.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/commands.h"
#include "tools/model-file.h"
#include "tools/npy.h"

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::BlockShape;
using tarev::nnet::handwriting_CTC::Nnet;
using tarev::nnet::handwriting_CTC::NnetForward;
using tarev::nnet::handwriting_CTC::ToSize;

constexpr int kMaxCount = std::numeric_limits<int>::max();

struct Options {
  std::string model;
  std::string features;
  std::string out;
  int network = 1;
  int chunk = 0;  // 0: the whole input is one call
  bool mark_last = false;
};

// The frames of an input, plane after plane (rows are one plane).
class Features {
 public:
  Features(Matrix matrix, bool planes) : matrix_(std::move(matrix)) {
    const std::vector<size_t>& shape = matrix_.shape;
    channels_ = planes ? shape[0] : 1;
    frames_ = shape[shape.size() - 2];
    dim_ = shape.back();
  }

  size_t channels() const { return channels_; }
  size_t frames() const { return frames_; }
  size_t dim() const { return dim_; }

  /// Copies frames [begin, begin + count) of every plane into `block`, which becomes the caller's
  /// to change: some layers compute in place.
  void Gather(size_t begin, size_t count, std::vector<float>& block) const {
    block.resize(channels_ * count * dim_);
    for (size_t c = 0; c < channels_; ++c) {
      const float* from = matrix_.values.data() + (c * frames_ + begin) * dim_;
      std::copy_n(from, count * dim_, block.data() + c * count * dim_);
    }
  }

 private:
  Matrix matrix_;
  size_t channels_;
  size_t frames_;
  size_t dim_;
};

// The results of all calls, joined along the frame axis in every plane.
class JoinedOutput {
 public:
  void Append(const float* block, const BlockShape& shape) {
    // A call without frames says nothing of the width unless there is no other.
    if (shape.frames <= 0 && !planes_.empty()) return;
    if (frames_ == 0) {
      dim_ = shape.dim;
      planes_.resize(ToSize(shape.channels));
    }
    if (shape.dim != dim_ || ToSize(shape.channels) != planes_.size()) {
      throw std::runtime_error("the output of the calls cannot be joined: its width was " +
                               std::to_string(dim_) + " and is now " + std::to_string(shape.dim));
    }
    const size_t size = ToSize(shape.frames) * ToSize(shape.dim);
    for (size_t c = 0; c < planes_.size(); ++c) {
      planes_[c].insert(planes_[c].end(), block + c * size, block + (c + 1) * size);
    }
    frames_ += ToSize(shape.frames);
  }

  Matrix Take(bool planes) && {
    Matrix matrix{{frames_, ToSize(dim_)}, {}};
    if (planes) matrix.shape.insert(matrix.shape.begin(), planes_.size());
    for (std::vector<float>& plane : planes_) {
      matrix.values.insert(matrix.values.end(), plane.begin(), plane.end());
      plane = {};
    }
    return matrix;
  }

 private:
  int dim_ = 0;
  size_t frames_ = 0;
  std::vector<std::vector<float>> planes_;
};

std::string ShapeText(const std::vector<size_t>& shape) {
  std::string text;
  for (const size_t size : shape) text += (text.empty() ? "" : " x ") + std::to_string(size);
  return text;
}

Features ReadFeatures(const std::string& path, const Nnet& network) {
  const bool planes = TakesPlanes(network);
  const size_t channels = ToSize(network.layers.front()->InputChannel());
  Matrix matrix = ReadNpy(path);
  const auto refuse = [&](const std::string& wanted) {
    throw std::runtime_error(path + ": " + ShapeText(matrix.shape) + " found, " + wanted +
                             " wanted");
  };
  if (!planes && matrix.shape.size() != 2) refuse("frames x dim");
  if (planes && (matrix.shape.size() != 3 || matrix.shape[0] != channels)) {
    refuse("channels x frames x dim with " + std::to_string(channels) + " channels");
  }
  const auto too_large = [](size_t size) { return size > kMaxCount; };
  if (std::any_of(matrix.shape.begin(), matrix.shape.end(), too_large)) {
    refuse("at most " + std::to_string(kMaxCount) + " of each");
  }
  return {std::move(matrix), planes};
}

// Every input is at least one call, even an empty one.
JoinedOutput RunNetwork(Nnet& network, const Features& features, const Options& options) {
  NnetForward executor(&network);
  const size_t frames = features.frames();
  const size_t step = options.chunk == 0 ? frames : ToSize(options.chunk);
  JoinedOutput joined;
  std::vector<float> block;
  executor.Reset();
  int call_id = 0;
  size_t begin = 0;
  do {
    const size_t count = std::min(step, frames - begin);
    features.Gather(begin, count, block);
    begin += count;
    ++call_id;
    const bool marked = options.mark_last && begin == frames;
    executor.Propagate(block.data(), static_cast<int64_t>(count), static_cast<int>(features.dim()),
                       marked ? -call_id : call_id, static_cast<int>(features.channels()));
    joined.Append(executor.Output(), executor.OutputShape());
  } while (begin < frames);
  return joined;
}

int Run(const Options& options) {
  const std::string place = options.model + ": network " + std::to_string(options.network) + ": ";
  Nnet network = ReadNetworkOfFile(options.model, ToSize(options.network));
  if (network.layers.empty()) throw std::runtime_error(place + "it has no layers");
  const Features features = ReadFeatures(options.features, network);
  JoinedOutput output;
  try {
    output = RunNetwork(network, features, options);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(place + error.what());
  }
  WriteNpy(options.out, std::move(output).Take(GivesPlanes(network)));
  return kDone;
}

constexpr char kFooter[] =
    R"(FEATURES is frames x dim, or channels x frames x dim when the first layer of the network takes planes
(a channel layer or a flattening). OUT likewise: channels x frames x dim when the last layer gives
planes (a channel layer or a deflattening). The output of all calls is joined along the frame axis.)";

}  // namespace

Command AddForward(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("forward", "Run one network over a matrix of features");
  command->add_option("MODEL", options->model, "Model file, binary or text")->required();
  command->add_option("FEATURES", options->features, "Features, an .npy file")->required();
  command->add_option("OUT", options->out, "Output to write, an .npy file")->required();
  command->add_option("--network", options->network, "Number of the network, counted from 1")
      ->type_name("K")
      ->check(CountUpTo(kMaxCount))
      ->capture_default_str();
  command
      ->add_option("--chunk", options->chunk,
                   "One call per so many frames, the last may be shorter; without it one call")
      ->type_name("N")
      ->check(CountUpTo(kMaxCount));
  command->add_flag("--mark-last", options->mark_last,
                    "Mark the last call as the end of the input (a negative call_id)");
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
