#include "api/handwriting_forward.recognizer.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <vector>

#include "ctc/ctc-confidence.h"
#include "nnet/base/blas-library.h"
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

// Reads one network and builds an executor over it, with room for calls of `frames` frames. False
// when the number of layers cannot be read; throws on any other failure.
bool ReadNetwork(FILE* fp, int frames, runtime::BufferBudget& budget,
                 std::unique_ptr<runtime::Nnet>& nnet,
                 std::unique_ptr<runtime::NnetForward>& forward) {
  nnet = std::make_unique<runtime::Nnet>();
  if (!runtime::ReadNnet(*nnet, fp)) return false;
  forward = std::make_unique<runtime::NnetForward>(nnet.get(), &budget);
  runtime::set_one_blas_thread();
  forward->ReserveFrames(frames);
  return true;
}

// Decodes two frames without a difference, so that the first call after create finds the search's
// memory, and its code and that of the mathematics below it, in place. A search for which that
// would take long has little to gain.
void Rehearse(::handwriting_CTC::_beam_search_t& decoder) {
  constexpr int kMostPaths = 100;
  constexpr int kMostClasses = 1 << 16;
  if (decoder.beam_num > kMostPaths || decoder.label_dim > kMostClasses) return;
  const std::vector<float> scores(static_cast<size_t>(decoder.label_dim), 0.0F);
  int labels[2 * kMostPaths];
  int lengths[kMostPaths];
  decoder.process_first_frame(scores.data());
  decoder.process_one_frame(scores.data());
  decoder.get_CTC_result(labels, lengths);
}

}  // namespace

bool handwriting_forward_t::ReadFirst(FILE* fp, int max_frame_num) {
  return ReadNetwork(fp, max_frame_num, budget, nnet1, forward1);
}

bool handwriting_forward_t::ReadSecond(FILE* fp, int nbest) {
  if (!ReadNetwork(fp, kChunkFrames, budget, nnet2, forward2)) return false;
  if (forward2->OutputDim() < 1) {
    runtime::ThrowError(Here(), "second network has no output dimension! [%d]",
                        forward2->OutputDim());
  }
  decoder =
      std::make_unique<::handwriting_CTC::_beam_search_t>(nbest, nbest, forward2->OutputDim(), fp);
  Rehearse(*decoder);
  return true;
}

// The first network sees the whole input at once, the second one its output in chunks, without a
// copy: a chunk is a part of the first executor's output block. Every row of the second output is
// one step of the search, which starts anew with the first row.
void handwriting_forward_t::Search(const float* feature, int frame_num, int input_dim,
                                   float* keep) {
  forward1->Reset();
  forward2->Reset();
  forward1->Forward(feature, frame_num, input_dim);
  nnet1_output = forward1->Output();
  // A network whose last layer takes its width from the input announces none.
  const runtime::BlockShape& shape = forward1->OutputShape();
  const int width = forward1->OutputDim() > 0 ? forward1->OutputDim() : shape.dim;
  CheckOutput("first", shape, frame_num, width);
  const int head = ((frame_num - 1) & (kChunkFrames - 1)) + 1;
  ProcessChunk(0, head, width, keep);
  for (int first = head; first < frame_num; first += kChunkFrames) {
    ProcessChunk(first, kChunkFrames, width, keep);
  }
}

int handwriting_forward_t::Process(const float* feature, int frame_num, int input_dim, int* output,
                                   int* len) {
  Search(feature, frame_num, input_dim, nullptr);
  return decoder->get_CTC_result(output, len);
}

std::vector<::handwriting_CTC::_ctc_record_t> handwriting_forward_t::ProcessInDetail(
    const float* feature, int frame_num, int input_dim) {
  const size_t count = static_cast<size_t>(frame_num) * static_cast<size_t>(decoder->label_dim);
  try {
    const runtime::BufferBudget::Entered entered(budget);
    kept_scores.Grow(count);
  } catch (const runtime::BudgetExceeded&) {
    runtime::ThrowError(Here(), "too many scores to keep! [%d frames x %d classes]", frame_num,
                        decoder->label_dim);
  }
  Search(feature, frame_num, input_dim, kept_scores.data());
  auto records = decoder->get_CTC_records();
  ::handwriting_CTC::add_confidences({kept_scores.data(), count}, decoder->label_dim, records);
  return records;
}

void handwriting_forward_t::ProcessChunk(int first, int frames, int width, float* keep) {
  const auto row = [](int index, int dim) {
    return static_cast<size_t>(index) * static_cast<size_t>(dim);
  };
  forward2->Forward(nnet1_output + row(first, width), frames, width);
  nnet2_output = forward2->Output();
  CheckOutput("second", forward2->OutputShape(), frames, decoder->label_dim);
  if (keep != nullptr) {
    std::copy_n(nnet2_output, row(frames, decoder->label_dim),
                keep + row(first, decoder->label_dim));
  }
  for (int t = 0; t < frames; ++t) {
    const float* scores = nnet2_output + row(t, decoder->label_dim);
    if (first + t == 0) {
      decoder->process_first_frame(scores);
    } else {
      decoder->process_one_frame(scores);
    }
  }
}
