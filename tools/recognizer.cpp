#include "tools/recognizer.h"

#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

namespace handwriting::tools {
namespace {

constexpr size_t kNetworks = 2;

// What the reader of model files has to say of a file that gives no recognizer, or, where it finds
// nothing wrong with the networks by themselves, why they do not work.
[[noreturn]] void ThrowWhy(const ModelSource& model, const char* otherwise) {
  const size_t found = ReadModelFile(model, kNetworks).networks.size();
  if (found == kNetworks) throw std::runtime_error(model.name() + ": " + otherwise);
  throw std::runtime_error(model.name() + ": " + std::to_string(found) + " network found, " +
                           std::to_string(kNetworks) + " wanted");
}

int ToInt(size_t size, const char* what) {
  if (size < 1 || size > std::numeric_limits<int>::max()) {
    throw std::runtime_error(std::to_string(size) + " " + what + " found, 1 to " +
                             std::to_string(std::numeric_limits<int>::max()) + " wanted");
  }
  return static_cast<int>(size);
}

}  // namespace

Rows RowsOf(const Matrix& features) {
  if (features.shape.size() != 2) {
    throw std::runtime_error("3 dimensions found, frames x dim wanted");
  }
  const int frames = ToInt(features.shape[0], "frames");
  return {features.values.data(), frames, ToInt(features.shape[1], "values a frame")};
}

Recognizer::Recognizer(const ModelSource& model, int nbest, int prepared_frames) : nbest_(nbest) {
  RefuseTextModel(model);
  const FilePointer file = model.Open();
  try {
    if (recognizer_.ReadFirst(file.get(), prepared_frames) &&
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

void Recognizer::CheckWidth(int dim) const {
  const auto& first = *recognizer_.nnet1->layers.front();
  if (first.CheckInputDim() && first.input_dim_set && dim != first.InputDim()) {
    throw std::runtime_error(std::to_string(dim) + " values a frame found, " +
                             std::to_string(first.InputDim()) + " wanted");
  }
}

std::vector<Record> Recognizer::Recognize(const Rows& features) {
  // Every sequence is at most as long as the input. Memory that is not written costs nothing.
  const size_t room = static_cast<size_t>(features.frames) * static_cast<size_t>(nbest_);
  const auto output = std::make_unique_for_overwrite<int[]>(room);
  std::vector<int> lengths(static_cast<size_t>(nbest_));
  const int count = recognizer_.Process(features.values, features.frames, features.dim,
                                        output.get(), lengths.data());
  std::vector<Record> records(static_cast<size_t>(count));
  const int* next = output.get();
  for (size_t i = 0; i < records.size(); ++i) {
    records[i].labels.assign(next, next + lengths[i]);
    next += lengths[i];
  }
  return records;
}

std::vector<Record> Recognizer::RecognizeInDetail(const Rows& features) {
  return recognizer_.ProcessInDetail(features.values, features.frames, features.dim);
}

}  // namespace handwriting::tools
