#ifndef CTC_CTC_RESULT_H_
#define CTC_CTC_RESULT_H_

// How the paths of a beam become label sequences: those operations of _beam_search_t are defined
// beside what they add up with.

#include <optional>
#include <vector>

namespace handwriting_CTC {

// ln(exp(v) + exp(s)), by the fast exponential: equal scores give v + ln 2, and scores more than
// about 87.34 apart the larger one. Two scores of -infinity give NaN.
float log_add(float v, float s);

// Frames of an input, the first one 0: from `begin` to before `end`.
struct _frame_span_t {
  int begin;
  int end;

  bool operator==(const _frame_span_t&) const = default;
};

// A label sequence of the beam with what is known about it.
struct _ctc_record_t {
  std::vector<int> labels;
  // ln of the sum of the paths of the beam that collapse to the sequence: what orders the records.
  float score = 0.0F;
  // Where each label stands on the best of these paths: the run of frames that have it, ascending
  // and never overlapping. CTC puts a label into few frames, somewhere over what it stands for: the
  // spans are peaks, not extents.
  std::vector<_frame_span_t> spans;
  // What add_confidences adds, where the scores of the frames are log probabilities.
  std::optional<double> confidence;
  std::vector<double> label_confidences;
};

}  // namespace handwriting_CTC

#endif  // CTC_CTC_RESULT_H_
