#include "api/handwriting_forward.h"

#include <cinttypes>
#include <cstdint>
#include <exception>
#include <memory>
#include <source_location>

#include <cblas.h>

#include "ctc/beam-search.h"
#include "nnet/runtime/nnet-nnet.h"
#include "utils/messages.h"

namespace {

namespace runtime = tarev::nnet::handwriting_CTC;
using runtime::Here;

// The second network takes the frames of the first in chunks of this size, a power of two. Only the
// first chunk of an input may be shorter, so that the last one ends with the input.
constexpr int kChunkFrames = 16;

// The next stage reads a network's output row by row: it must be one plane of `frames` rows of
// `width` floats. Throws when the network gave anything else.
void CheckOutput(const char* name, const runtime::BlockShape& shape, int64_t frames, int width) {
  if (shape.channels != 1) {
    runtime::ThrowError(Here(), "mismatched output channels! %s network [%d] vs [%d]", name,
                        shape.channels, 1);
  }
  if (shape.frames != frames) {
    runtime::ThrowError(Here(),
                        "mismatched output frames! %s network [%" PRId64 "] vs [%" PRId64 "]", name,
                        shape.frames, frames);
  }
  if (shape.dim != width) {
    runtime::ThrowError(Here(), "mismatched output dimension! %s network [%d] vs [%d]", name,
                        shape.dim, width);
  }
}

// The recognizer behind the opaque pointer: two networks, each with its executor, and the decoder
// over the second one's output. An executor points to its network and is therefore destroyed before
// it.
struct handwriting_forward_t {
  std::unique_ptr<runtime::Nnet> nnet1;
  std::unique_ptr<runtime::NnetForward> forward1;
  const float* nnet1_output = nullptr;
  std::unique_ptr<runtime::Nnet> nnet2;
  std::unique_ptr<runtime::NnetForward> forward2;
  const float* nnet2_output = nullptr;
  std::unique_ptr<::handwriting_CTC::_beam_search_t> decoder;

  handwriting_forward_t() = default;
  handwriting_forward_t(const handwriting_forward_t&) = delete;
  handwriting_forward_t& operator=(const handwriting_forward_t&) = delete;
  ~handwriting_forward_t() {
    forward2.reset();
    nnet2.reset();
    decoder.reset();
    forward1.reset();
    nnet1.reset();
  }

  // Create in two steps, in the order of the file; false or an exception when the file does not
  // hold what is wanted. Process is then one call of the exported function, and throws on failure.
  bool ReadFirst(FILE* fp, int max_frame_num);
  bool ReadSecond(FILE* fp, int nbest);
  int Process(const float* feature, int frame_num, int input_dim, int* output, int* len);

 private:
  void ProcessChunk(int first, int frames, int width);
};

// Reads one network and builds an executor over it, with room for calls of `frames` frames. False
// when the number of layers cannot be read; throws on any other failure.
bool ReadNetwork(FILE* fp, int frames, std::unique_ptr<runtime::Nnet>& nnet,
                 std::unique_ptr<runtime::NnetForward>& forward) {
  nnet = std::make_unique<runtime::Nnet>();
  if (!runtime::ReadNnet(*nnet, fp)) return false;
  forward = std::make_unique<runtime::NnetForward>(nnet.get());
  openblas_set_num_threads(1);
  forward->ReserveFrames(frames);
  return true;
}

bool handwriting_forward_t::ReadFirst(FILE* fp, int max_frame_num) {
  return ReadNetwork(fp, max_frame_num, nnet1, forward1);
}

bool handwriting_forward_t::ReadSecond(FILE* fp, int nbest) {
  if (!ReadNetwork(fp, kChunkFrames, nnet2, forward2)) return false;
  if (forward2->OutputDim() < 1) {
    runtime::ThrowError(Here(), "second network has no output dimension! [%d]",
                        forward2->OutputDim());
  }
  decoder =
      std::make_unique<::handwriting_CTC::_beam_search_t>(nbest, nbest, forward2->OutputDim(), fp);
  return true;
}

// The first network sees the whole input at once, the second one its output in chunks, without a
// copy: a chunk is a part of the first executor's output block. Every row of the second output is
// one step of the search, which starts anew with the first row.
int handwriting_forward_t::Process(const float* feature, int frame_num, int input_dim, int* output,
                                   int* len) {
  forward1->Reset();
  forward2->Reset();
  forward1->Forward(feature, frame_num, input_dim);
  nnet1_output = forward1->Output();
  // A network whose last layer takes its width from the input announces none.
  const runtime::BlockShape& shape = forward1->OutputShape();
  const int width = forward1->OutputDim() > 0 ? forward1->OutputDim() : shape.dim;
  CheckOutput("first", shape, frame_num, width);
  const int head = ((frame_num - 1) & (kChunkFrames - 1)) + 1;
  ProcessChunk(0, head, width);
  for (int first = head; first < frame_num; first += kChunkFrames) {
    ProcessChunk(first, kChunkFrames, width);
  }
  return decoder->get_CTC_result(output, len);
}

void handwriting_forward_t::ProcessChunk(int first, int frames, int width) {
  const auto row = [](int index, int dim) {
    return static_cast<size_t>(index) * static_cast<size_t>(dim);
  };
  forward2->Forward(nnet1_output + row(first, width), frames, width);
  nnet2_output = forward2->Output();
  CheckOutput("second", forward2->OutputShape(), frames, decoder->label_dim);
  for (int t = 0; t < frames; ++t) {
    const float* scores = nnet2_output + row(t, decoder->label_dim);
    if (first + t == 0) {
      decoder->process_first_frame(scores);
    } else {
      decoder->process_one_frame(scores);
    }
  }
}

// Every message of the interface begins with the place that prints it and the exported function.
void PrintPrefix(std::source_location where, const char* function) {
  std::fprintf(stderr, "WARNING * [%s:%d<<%s>>] ", runtime::FileStem(where.file_name()).c_str(),
               static_cast<int>(where.line()), function);
}

void Warn(std::source_location where, const char* function, const char* text) {
  PrintPrefix(where, function);
  std::fprintf(stderr, "%s\n", text);
}

void WarnParameters(std::source_location where, const char* function, const char* condition) {
  PrintPrefix(where, function);
  std::fprintf(stderr, "Wrong parameter(s) to [%s], condition [%s]. \n", function, condition);
}

}  // namespace

void* handwriting_forward_create(FILE* fp, int max_frame_num, int nbest) {
  constexpr const char* kFunction = "handwriting_forward_create";
  if (fp == nullptr || max_frame_num <= 0 || nbest <= 0) {
    WarnParameters(Here(), kFunction, "fp == __null || max_frame_num <= 0 || nbest <= 0");
    return nullptr;
  }
  try {
    auto instance = std::make_unique<handwriting_forward_t>();
    if (instance->ReadFirst(fp, max_frame_num) && instance->ReadSecond(fp, nbest)) {
      return instance.release();
    }
    Warn(Here(), kFunction, "Failed to read nnet.");
  } catch (const std::exception& error) {
    Warn(Here(), kFunction, error.what());
  }
  return nullptr;
}

int handwriting_forward_process(void* instance, const float* feature, int frame_num, int input_dim,
                                int* output, int* len) {
  constexpr const char* kFunction = "handwriting_forward_process";
  if (instance == nullptr || feature == nullptr || frame_num <= 0 || input_dim <= 0 ||
      output == nullptr || len == nullptr) {
    WarnParameters(Here(), kFunction,
                   "instance == __null || feature == __null || frame_num <= 0 || input_dim <= 0 || "
                   "output == __null || len == __null");
    return -1;
  }
  try {
    return static_cast<handwriting_forward_t*>(instance)->Process(feature, frame_num, input_dim,
                                                                  output, len);
  } catch (const std::exception& error) {
    Warn(Here(), kFunction, error.what());
    return -1;
  }
}

void handwriting_forward_destory(void* instance) {
  const std::unique_ptr<handwriting_forward_t> owned(static_cast<handwriting_forward_t*>(instance));
}
