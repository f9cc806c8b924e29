#ifndef TOOLS_RECOGNIZER_H_
#define TOOLS_RECOGNIZER_H_

#include <string>
#include <vector>

#include "api/handwriting_forward.recognizer.h"
#include "tools/npy.h"

namespace handwriting::tools {

using Record = ::handwriting_CTC::_ctc_record_t;

/// The recognizer that the exported functions create, for one thread at a time: the same label
/// sequences in the same order, and reasons in words for what fails.
class Recognizer {
 public:
  /// Reads a file of two networks in binary form. Throws std::runtime_error that names the file,
  /// the place in it and the reason.
  Recognizer(const std::string& model, int nbest);

  /// Throws std::runtime_error for features that the model does not take, as far as that can be
  /// told without running it.
  void CheckShape(const Matrix& features) const;
  /// Label sequences, best first; nothing else of the records is filled unless in detail.
  /// `features` is changed where the model computes in place. Throws std::runtime_error with the
  /// reason.
  std::vector<Record> Recognize(Matrix& features);
  std::vector<Record> RecognizeInDetail(Matrix& features);

 private:
  int nbest_;
  handwriting_forward_t recognizer_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_RECOGNIZER_H_
