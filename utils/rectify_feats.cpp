#include "utils/rectify_feats.h"

#include <algorithm>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr const char* kName = "feats_win_generator_t";

}  // namespace

feats_win_generator_t::feats_win_generator_t(int32_t mode_arg, int32_t window_size_arg,
                                             int32_t hop_size_arg, int32_t feat_dim_arg)
    : mode(static_cast<mode_t>(mode_arg)),
      window_size(window_size_arg),
      hop_size(hop_size_arg),
      feat_dim(feat_dim_arg) {
  if (window_size <= 0 || hop_size <= 0) {
    ThrowWrongParameters(Here(), kName, "window_size <= 0 || hop_size <= 0");
  }
  if (window_size < hop_size) ThrowWrongParameters(Here(), kName, "window_size < hop_size");
  if (feat_dim <= 0) ThrowWrongParameters(Here(), kName, "feat_dim <= 0");
  if (mode != mode_t::FIXED_HOP && mode != mode_t::FIXED_WIN) {
    ThrowWrongParameters(Here(), kName,
                         "mode != (int)mode_t::FIXED_HOP && mode != (int)mode_t::FIXED_WIN");
  }
}

int64_t feats_win_generator_t::held_frames() const {
  return static_cast<int64_t>(frames.size()) / feat_dim;
}

int64_t feats_win_generator_t::complete_windows(int64_t available) const {
  return available < window_size ? 0 : (available - window_size) / hop_size + 1;
}

// Whether the end of the stream makes a window of what the complete ones leave: frames after the
// last of them, or all frames when there is none.
bool feats_win_generator_t::has_final_window(int64_t available) const {
  if (available < window_size) return available > 0;
  return (available - window_size) % hop_size != 0;
}

// The short form begins at the next hop and ends with the stream; the full form ends with the
// stream and begins where that puts it, at the earliest at the first frame held.
int64_t feats_win_generator_t::final_window_frames(int64_t available) const {
  return mode == mode_t::FIXED_HOP ? available - complete_windows(available) * hop_size
                                   : std::min<int64_t>(window_size, kept + available);
}

int64_t feats_win_generator_t::max_emitted(int64_t feats_fnum) const {
  const int64_t available = held_frames() - kept + std::max<int64_t>(0, feats_fnum);
  const int64_t frames_of_complete = complete_windows(available) * window_size;
  return frames_of_complete + (has_final_window(available) ? final_window_frames(available) : 0);
}

bool feats_win_generator_t::add_data(const float* feats, int64_t feats_fnum, bool last) {
  window_count = 0;
  is_last = last;
  if (feats_fnum < 0) {
    PrintWrongParameters(Here(), "add_data", "feats_fnum < 0");
    return false;
  }
  if (feats_fnum > 0 && feats == nullptr) {
    PrintWrongParameters(Here(), "add_data", "feats_fnum > 0 && feats == __null");
    return false;
  }
  if (feats_fnum == 0 && !last) return true;
  frames.insert(frames.end(), feats, feats + feats_fnum * feat_dim);
  const int64_t available = held_frames() - kept;
  window_count = complete_windows(available);
  if (last && has_final_window(available)) ++window_count;
  return true;
}

// Window k begins k hops after the frame at `kept`. After the windows have been copied `kept` moves
// on to the beginning of the next one, and frames before it are dropped: all of them when the final
// window is a short one, all but a window of them when it may reach back. Dropping once a call
// keeps the cost per frame constant.
int64_t feats_win_generator_t::emit_windows(float* out) {
  const int64_t held = held_frames();
  const int64_t final_frames = final_window_frames(held - kept);
  int64_t emitted = 0;
  for (int64_t k = 0; k < window_count; ++k) {
    int64_t first = kept + k * hop_size;
    int64_t count = window_size;
    if (held - first < window_size) {  // the final window, which ends where the stream does
      count = final_frames;
      first = held - count;
    }
    std::copy_n(frames.data() + first * feat_dim, count * feat_dim, out + emitted * feat_dim);
    emitted += count;
  }
  // The last window of the stream has no successor: the frames at its beginning are kept.
  const int64_t hops = is_last ? std::max<int64_t>(0, window_count - 1) : window_count;
  kept += hops * hop_size;
  const int64_t reach = mode == mode_t::FIXED_HOP ? 0 : window_size;
  const int64_t dropped = std::max<int64_t>(0, kept - reach);
  frames.erase(frames.begin(), frames.begin() + dropped * feat_dim);
  kept -= dropped;
  window_count = 0;
  return emitted;
}

void feats_win_generator_t::clear() {
  frames.clear();
  kept = 0;
  window_count = 0;
  is_last = false;
}

}  // namespace tarev::nnet::handwriting_CTC
