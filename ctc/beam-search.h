#ifndef CTC_BEAM_SEARCH_H_
#define CTC_BEAM_SEARCH_H_

#include <cstddef>
#include <cstdio>
#include <vector>

#include "ctc/ctc-result.h"
#include "ctc/path-pool.h"
#include "ctc/score-records.h"

namespace handwriting_CTC {

// CTC beam search (connectionist temporal classification: Graves et al. 2006): keeps the best
// frame-level label paths of an input that arrives one frame at a time, and turns them into the
// n-best label sequences at its end.
//
// A frame is a row of `label_dim` log-domain scores, one a class; class 0 is the blank. The search
// keeps raw paths, blanks and repeated labels included; paths that collapse to the same label
// sequence are merged by get_CTC_result only.
//
// An instance is used by one thread at a time; instances share nothing. After construction only the
// memory of path nodes grows, and it is kept for the next input. Paths taken from `beam_list` must
// not outlive the decoder. Where no exception is mentioned, only std::bad_alloc can be thrown; the
// decoder can then still be used for a new input.
class _beam_search_t {
  // Declared first, so that it outlives every path.
  _path_pool_t pool_;

 public:
  // Keeps `beam_size` paths and extends each by the `topn_size` best of `label_dim` classes; a size
  // larger than the one after it is lowered to it. Nothing is read from `fp`. Throws
  // std::length_error when a size is negative.
  _beam_search_t(int beam_size, int topn_size, int label_dim, std::FILE* fp);
  _beam_search_t(const _beam_search_t&) = delete;
  _beam_search_t& operator=(const _beam_search_t&) = delete;

  // Starts a new input with its first frame, whatever came before.
  void process_first_frame(const float* frame);

  // Extends the paths by a further frame.
  void process_one_frame(const float* frame);

  // A whole input of `count` >= 1 consecutive rows. The first row is read whatever `count` is.
  void process_all_frame(const float* frames, int count);

  // The steps of the two functions above, which follow get_topn.

  // Makes the best labels in `topn_index` the one-node paths of `beam_list`.
  void search_first_frame();

  // Extends every path of `beam_list` by every label of `topn_index` and collects the best in
  // `topn_result`, in heap order. An entry that no extension replaces keeps its score and path.
  void search_one_frame();

  // Makes the collected paths the current beam and prepares `topn_result` for the next frame.
  void topn_result_reset_swap();

  // Writes the distinct label sequences of the beam (blanks removed, repeats merged) back to back
  // to `output`, best first, and their lengths to `len`; returns their number R <= beam_num. `len`
  // needs room for R ints, `output` for the sum of the lengths, at most beam_num times the number
  // of frames. The order of sequences with equal scores is not specified. Leaves the decoder as it
  // is, so that it can be called after any frame.
  int get_CTC_result(int* output, int* len) const;

  // The same sequences in the same order, with their scores and the spans of their labels.
  std::vector<_ctc_record_t> get_CTC_records() const;

  int beam_num;   // entries of the beam, at most topn_num
  int topn_num;   // labels that a frame extends the beam by, at most label_dim
  int label_dim;  // classes of a frame
  std::vector<_index_score_node> topn_index;  // the frame's best labels, in heap order
  std::vector<_list_score_node> beam_list;    // the current beam, in heap order
  // The beam being collected. Between frames every score is -FLT_MAX, and the paths are those of an
  // earlier frame of the same input.
  std::vector<_list_score_node> topn_result;

 private:
  // Where the path of a candidate comes from.
  struct _origin_t {
    int entry;  // the entry of `beam_list` that it extends; -1: a path that `topn_result` held
    int label;
  };

  // The first half of search_one_frame, on plain records.
  void collect_candidates();
  float best_label_score() const;

  // Working memory of search_one_frame, one element for each beam entry.
  std::vector<_index_score_node> candidates_;  // heap; index is a place in `origins_`
  std::vector<_origin_t> origins_;
  std::vector<_list_score_node> next_result_;

  // The label sequences of `beam_list`, in `scratch_`; merged and sorted.
  void collapse_paths() const;
  void merge_paths() const;
  // Releases the paths of both beams.
  void release_paths();

  // Working memory of the results, kept from call to call: how far the path of each beam entry
  // has been walked, its sequence, the entries sorted by sequence, and what they merge to.
  struct _result_scratch_t {
    std::vector<_path_walk_t> walks;
    std::vector<std::vector<int>> sequences;
    std::vector<std::size_t> order;
    std::vector<_result_score_node> results;
  };
  mutable _result_scratch_t scratch_;
};

}  // namespace handwriting_CTC

#endif  // CTC_BEAM_SEARCH_H_
