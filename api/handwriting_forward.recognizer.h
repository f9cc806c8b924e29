#ifndef API_HANDWRITING_FORWARD_RECOGNIZER_H_
#define API_HANDWRITING_FORWARD_RECOGNIZER_H_

// The recognizer that the exported functions hand out, for programs that look inside it.

#include <cstdio>
#include <memory>
#include <vector>

#include "ctc/beam-search.h"
#include "nnet/base/nnet-util.h"
#include "nnet/runtime/nnet-nnet.h"

// The recognizer behind the opaque pointer: two networks, each with its executor, and the decoder
// over the second one's output. An executor points to its network and is therefore destroyed before
// it.
struct handwriting_forward_t {
  std::unique_ptr<tarev::nnet::handwriting_CTC::Nnet> nnet1;
  std::unique_ptr<tarev::nnet::handwriting_CTC::NnetForward> forward1;
  const float* nnet1_output = nullptr;
  std::unique_ptr<tarev::nnet::handwriting_CTC::Nnet> nnet2;
  std::unique_ptr<tarev::nnet::handwriting_CTC::NnetForward> forward2;
  const float* nnet2_output = nullptr;
  std::unique_ptr<::handwriting_CTC::_beam_search_t> decoder;
  // For the buffers of both networks.
  tarev::nnet::handwriting_CTC::BufferBudget budget{tarev::nnet::handwriting_CTC::kMaxBufferBytes};

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

  // The sequences that Process writes, in the same order, with scores, spans and, where the second
  // network gives log probabilities, confidences. Keeps the scores of all frames meanwhile: 4 bytes
  // a frame and class, of the budget of both networks.
  std::vector<::handwriting_CTC::_ctc_record_t> ProcessInDetail(const float* feature, int frame_num,
                                                                int input_dim);

 private:
  // Runs both networks and the search; `keep` gets the rows that the search is given, where it is
  // set.
  void Search(const float* feature, int frame_num, int input_dim, float* keep);
  void ProcessChunk(int first, int frames, int width, float* keep);

  // The scores of an input in detail.
  tarev::nnet::handwriting_CTC::FloatArray kept_scores;
};

#endif  // API_HANDWRITING_FORWARD_RECOGNIZER_H_
