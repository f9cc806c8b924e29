#ifndef CTC_CTC_CONFIDENCE_H_
#define CTC_CTC_CONFIDENCE_H_

#include <cstddef>
#include <span>
#include <vector>

#include "ctc/ctc-result.h"

namespace handwriting_CTC {

// Adds confidences to the records of an input whose rows of `label_dim` scores are natural
// logarithms of probabilities, class 0 being the blank; `rows` holds all of them, one after
// another. Every row is first divided by its sum, which fast logarithms leave a little beside 1.
//
// confidence: the probability of the label sequence, summed over all its alignments with the frames
// by the forward recursion (Graves et al. 2006, section 4.1), in [0, 1]. It does not depend on the
// beam; the confidences of all sequences that there are would add up to 1.
//
// label_confidences: for each label the mean of its probability over the frames of its span.
//
// Returns false, and leaves the records as they are, when the scores are no log probabilities: a
// row whose sum is more than 1e-3 off 1.
bool add_confidences(std::span<const float> rows, int label_dim,
                     std::vector<_ctc_record_t>& records);

}  // namespace handwriting_CTC

#endif  // CTC_CTC_CONFIDENCE_H_
