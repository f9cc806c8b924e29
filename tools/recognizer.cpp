#include "tools/recognizer.h"

#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

#include "tools/model-file.h"

namespace handwriting::tools {
namespace {

// Frames to prepare for; a longer input makes the recognizer grow, once.
constexpr int kPreparedFrames = 256;
constexpr size_t kNetworks = 2;

// What the reader of model files has to say of a file that gives no recognizer, or, where it finds
// nothing wrong with the networks by themselves, why they do not work.
[[noreturn]] void ThrowWhy(const std::string& model, const char* otherwise) {
  const size_t found = ReadModelFile(model, kNetworks).networks.size();
  if (found == kNetworks) throw std::runtime_error(model + ": " + otherwise);
  throw std::runtime_error(model + ": " + std::to_string(found) + " network found, " +
                           std::to_string(kNetworks) + " wanted");
}

int ToInt(size_t size, const char* what) {
  if (size < 1 || size > std::numeric_limits<int>::max()) {
    throw std::runtime_error(std::to_string(size) + " " + what + " found, 1 to " +
                             std::to_string(std::numeric_limits<int>::max()) + " wanted");
  }
  return static_cast<int>(size);
}

struct Shape {
  explicit Shape(const Matrix& features) {
    if (features.shape.size() != 2) {
      throw std::runtime_error("3 dimensions found, frames x dim wanted");
    }
    frames = ToInt(features.shape[0], "frames");
    dim = ToInt(features.shape[1], "values a frame");
  }
  int frames;
  int dim;
};

}  // namespace

Recognizer::Recognizer(const std::string& model, int nbest) : nbest_(nbest) {
  RefuseTextModel(model);
  const FilePointer file = OpenForReading(model);
  try {
    if (recognizer_.ReadFirst(file.get(), kPreparedFrames) &&
        recognizer_.ReadSecond(file.get(), nbest)) {
      return;
    }
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& error) {
    ThrowWhy(model, error.what());
  }
  ThrowWhy(model, "no recognizer could be created");
}

void Recognizer::CheckShape(const Matrix& features) const {
  const Shape shape(features);
  const auto& first = *recognizer_.nnet1->layers.front();
  if (first.CheckInputDim() && first.input_dim_set && shape.dim != first.InputDim()) {
    throw std::runtime_error(std::to_string(shape.dim) + " values a frame found, " +
                             std::to_string(first.InputDim()) + " wanted");
  }
}

std::vector<Record> Recognizer::Recognize(Matrix& features) {
  const Shape shape(features);
  // Every sequence is at most as long as the input. Memory that is not written costs nothing.
  const size_t room = static_cast<size_t>(shape.frames) * static_cast<size_t>(nbest_);
  const auto output = std::make_unique_for_overwrite<int[]>(room);
  std::vector<int> lengths(static_cast<size_t>(nbest_));
  const int count = recognizer_.Process(features.values.data(), shape.frames, shape.dim,
                                        output.get(), lengths.data());
  std::vector<Record> records(static_cast<size_t>(count));
  const int* next = output.get();
  for (size_t i = 0; i < records.size(); ++i) {
    records[i].labels.assign(next, next + lengths[i]);
    next += lengths[i];
  }
  return records;
}

std::vector<Record> Recognizer::RecognizeInDetail(Matrix& features) {
  const Shape shape(features);
  return recognizer_.ProcessInDetail(features.values.data(), shape.frames, shape.dim);
}

}  // namespace handwriting::tools
