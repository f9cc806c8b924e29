#ifndef UTILS_RECTIFY_FEATS_H_
#define UTILS_RECTIFY_FEATS_H_

// Cuts a stream of feature frames into windows of a fixed length at a fixed hop.

#include <cstdint>
#include <vector>

namespace tarev::nnet::handwriting_CTC {

/// What becomes of the frames after the last complete window when the stream ends: a shorter
/// window at the next hop, or one of full length that reaches back.
enum class mode_t : int32_t { FIXED_HOP = 0, FIXED_WIN = 1 };

/// The windowing engine. Frames are added call by call. Every window comes out once, in the call
/// that completes it; the final, incomplete one in the call that is marked as the last.
struct feats_win_generator_t {
  /// Throws "Wrong parameter(s)!" unless 0 < hop_size <= window_size, feat_dim > 0 and the mode is
  /// one of mode_t.
  feats_win_generator_t(int32_t mode, int32_t window_size, int32_t hop_size, int32_t feat_dim);

  /// Appends frames of feat_dim floats and counts the windows of this call. False, with a message,
  /// for a negative count or missing frames.
  bool add_data(const float* feats, int64_t feats_fnum, bool last);
  /// Copies those windows, one after another, and lets go of the frames that no window will need.
  /// Returns the number of frames written.
  int64_t emit_windows(float* out);
  /// The most frames that emit_windows writes in a call that adds so many.
  int64_t max_emitted(int64_t feats_fnum) const;
  /// Forgets the stream.
  void clear();

  mode_t mode;
  int32_t window_size;
  int32_t hop_size;
  int32_t feat_dim;
  /// First `kept` frames that lie before the next window: of use only to a final window that
  /// reaches back, hence never more than a window of them between calls. Then the frames not yet
  /// consumed.
  std::vector<float> frames;
  int64_t kept = 0;
  int64_t window_count = 0;
  bool is_last = false;

 private:
  int64_t held_frames() const;
  int64_t complete_windows(int64_t available) const;
  bool has_final_window(int64_t available) const;
  int64_t final_window_frames(int64_t available) const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_RECTIFY_FEATS_H_
