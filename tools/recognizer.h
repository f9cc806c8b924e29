#ifndef TOOLS_RECOGNIZER_H_
#define TOOLS_RECOGNIZER_H_

#include <string>
#include <vector>

#include "api/handwriting_forward.recognizer.h"
#include "tools/model-file.h"
#include "tools/npy.h"

namespace handwriting::tools {

using Record = ::handwriting_CTC::_ctc_record_t;

/// The rows of an input, which somebody else owns: frames x dim values.
struct Rows {
  const float* values;
  int frames;
  int dim;
};

/// The rows of features that have two dimensions, none of them empty or beyond an int. Throws
/// std::runtime_error for others.
Rows RowsOf(const Matrix& features);

/// The recognizer that the exported functions create, for one thread at a time: the same label
/// sequences in the same order, and reasons in words for what fails.
class Recognizer {
 public:
  /// Frames to prepare for unless told otherwise; a longer input makes the recognizer grow, once.
  static constexpr int kPreparedFrames = 256;

  /// Reads a model of two networks in binary form. Throws std::runtime_error that names the model,
  /// the place in it and the reason.
  Recognizer(const ModelSource& model, int nbest, int prepared_frames = kPreparedFrames);

  /// Throws std::runtime_error for features that the model does not take, as far as that can be
  /// told without running it.
  void CheckShape(const Matrix& features) const { CheckWidth(RowsOf(features).dim); }
  void CheckWidth(int dim) const;
  /// Whether features are changed where they are: the model begins with a layer that works in place.
  bool ChangesFeatures() const { return recognizer_.nnet1->layers.front()->ChangesInput(); }
  /// Label sequences, best first; nothing else of the records is filled unless in detail.
  /// `features` is changed where the model computes in place. Throws std::runtime_error with the
  /// reason.
  std::vector<Record> Recognize(const Rows& features);
  std::vector<Record> RecognizeInDetail(const Rows& features);
  std::vector<Record> Recognize(Matrix& features) { return Recognize(RowsOf(features)); }
  std::vector<Record> RecognizeInDetail(Matrix& features) {
    return RecognizeInDetail(RowsOf(features));
  }

 private:
  int nbest_;
  handwriting_forward_t recognizer_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_RECOGNIZER_H_
