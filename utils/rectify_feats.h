#ifndef UTILS_RECTIFY_FEATS_H_
#define UTILS_RECTIFY_FEATS_H_

// Cuts a stream of feature frames into windows of a fixed length at a fixed hop.

#include <cstdint>
#include <vector>

namespace tarev::nnet::handwriting_CTC {

/// What becomes of the frames after the last complete window when the stream ends: a shorter
/// window at the next hop, or one of full length that reaches back.
enum class mode_t : int32_t { FIXED_HOP = 0, FIXED_WIN = 1 };

/// Cuts the frames of a stream into windows of window_size frames that begin hop_size frames apart.
/// Frames are added call by call: add_data, then emit_windows. Every window comes out once, in the
/// call that completes it; the incomplete one at the end in the call that is marked as the last.
/// After that one the next stream begins with clear. For one thread at a time.
struct feats_win_generator_t {
  /// Throws "Wrong parameter(s)!" unless 0 < hop_size <= window_size, feat_dim > 0 and the mode is
  /// one of mode_t.
  feats_win_generator_t(int32_t mode, int32_t window_size, int32_t hop_size, int32_t feat_dim);

  /// Appends frames of feat_dim floats, which are copied, and counts the windows that this call
  /// completes. False, with a line on standard error, for a negative count or missing frames;
  /// nothing is added then.
  bool add_data(const float* feats, int64_t feats_fnum, bool last);
  /// Copies the frames of those windows to `out`, one window after another, and drops the frames
  /// that no later window needs. Returns the number of frames written, at most max_emitted of the
  /// call.
  int64_t emit_windows(float* out);
  /// The most frames that emit_windows writes after an add_data of feats_fnum frames, the last call
  /// or not. Asked before add_data.
  int64_t max_emitted(int64_t feats_fnum) const;
  /// Forgets the stream; the next frame is the first of a new one.
  void clear();

  mode_t mode;
  int32_t window_size;
  int32_t hop_size;
  int32_t feat_dim;
  /// The frames held: first `kept` frames from before the next window, which only a final window
  /// that reaches back needs, so that they are never more than a window between calls; then the
  /// frames from the beginning of the next window on.
  std::vector<float> frames;
  int64_t kept = 0;
  /// Windows that the last add_data completed and emit_windows has not written.
  int64_t window_count = 0;
  /// Whether the last add_data ended the stream.
  bool is_last = false;

 private:
  /// Frames in `frames`; and for `available` frames from the beginning of the next window: how many
  /// windows are complete, whether the end of the stream makes one more, and of how many frames.
  int64_t held_frames() const;
  int64_t complete_windows(int64_t available) const;
  bool has_final_window(int64_t available) const;
  int64_t final_window_frames(int64_t available) const;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_RECTIFY_FEATS_H_
