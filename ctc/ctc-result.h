#ifndef CTC_CTC_RESULT_H_
#define CTC_CTC_RESULT_H_

// How the paths of a beam become label sequences: _beam_search_t::get_CTC_result is defined beside
// what it adds up with.

namespace handwriting_CTC {

// ln(exp(v) + exp(s)), by the fast exponential: equal scores give v + ln 2, and scores more than
// about 87.34 apart the larger one. Two scores of -infinity give NaN.
float log_add(float v, float s);

}  // namespace handwriting_CTC

#endif  // CTC_CTC_RESULT_H_
