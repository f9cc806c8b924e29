#include "nnet/stream_nnet/convolution.h"

#include <algorithm>
#include <cinttypes>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

// The window.
//
// The position of the next window is one number, cached_frames: how far the end of what has arrived
// lies beyond its start. Padding at the start and the end, held rows and new rows all add to it,
// every output frame takes a stride from it, and a stride longer than the window makes it negative;
// so no case of these needs code of its own. Rows of padding are only counted, never stored: the
// kernels skip taps outside the rows that they are given.

void StreamWindow::Reset() {
  cached_frames = 0;
  cache.Clear();
}

int64_t StreamWindow::Length(const WindowParameters& window, int64_t frames,
                             const ChunkEnds& ends) const {
  return cached_frames + (ends.first_chunk ? window.padding_left : 0) +
         std::max<int64_t>(frames, 0) + (ends.last_chunk ? window.padding_right : 0);
}

int64_t StreamWindow::CompleteFrames(const WindowParameters& window, int64_t frames,
                                     const ChunkEnds& ends) const {
  const int64_t length = Length(window, frames, ends);
  return length < window.effective_kernel ? 0
                                          : (length - window.effective_kernel) / window.stride + 1;
}

StreamWindow::View StreamWindow::Take(const WindowParameters& window, const float* in,
                                      int64_t frames, ChunkEnds& ends, uint64_t& memory_bytes) {
  const int64_t out_frames = CompleteFrames(window, frames, ends);
  const int64_t padding = std::max<int64_t>(cached_frames, 0) - cache.rows() +
                          (ends.first_chunk ? window.padding_left : 0);
  const int64_t skipped = std::min(std::max<int64_t>(-cached_frames, 0), frames);
  if (skipped < frames) {
    cache.Append(in + ToSize(skipped) * cache.width(), frames - skipped, memory_bytes);
  }
  cached_frames = Length(window, frames, ends);
  ends = {.first_chunk = false, .last_chunk = false};
  // Without any row the kernels still form addresses, though they read nothing: there must be a
  // place to count from.
  static constexpr float kNoRows = 0.0F;
  return {cache.rows() > 0 ? cache.Row(0) : &kNoRows, cache.rows(), padding, out_frames};
}

void StreamWindow::MoveOn(const WindowParameters& window, const View& view) {
  const int64_t passed = view.out_frames * window.stride;
  cached_frames -= passed;
  cache.DropFront(passed - view.padding);
}

// Convolution.

void StreamConv1d::Reset() {
  ChunkLayer::Reset();
  window.Reset();
}

int64_t StreamConv1d::CalcStreamOutputFrames(int64_t in_frames) const {
  return StreamWindow::MostFrames(*this, in_frames);
}

// A call is known to be the last one only when it runs, so the plan has room for the padding at the
// end.
CallPlan StreamConv1d::Plan(int64_t frames, int /*in_dim*/) const {
  const ChunkEnds ends = {.first_chunk = first_chunk, .last_chunk = true};
  return {CalcStreamOutputFrames(frames), BlockFloats(1, input_dim, frames),
          BlockFloats(1, output_dim, window.CompleteFrames(*this, frames, ends))};
}

void StreamConv1d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  const StreamWindow::View view = window.Take(*this, in, frames, *this, memory_bytes);
  Convolve(view.rows, view.count, view.padding, view.out_frames, out);
  window.MoveOn(*this, view);
  output_frames = view.out_frames;
}

// Pooling.

void StreamMaxPool1d::Reset() {
  ChunkLayer::Reset();
  window.Reset();
}

int64_t StreamMaxPool1d::CalcStreamOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : StreamWindow::MostFrames(*this, in_frames);
}

CallPlan StreamMaxPool1d::Plan(int64_t frames, int /*in_dim*/) const {
  const ChunkEnds ends = {.first_chunk = first_chunk, .last_chunk = true};
  return {CalcStreamOutputFrames(frames), BlockFloats(1, input_dim, frames),
          BlockFloats(1, input_dim, window.CompleteFrames(*this, frames, ends))};
}

void StreamMaxPool1d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                   int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  AdoptSameWidth(in_dim);
  const StreamWindow::View view = window.Take(*this, in, frames, *this, memory_bytes);
  Pool(view.rows, view.count, view.padding, ToSize(in_dim), view.out_frames, out, memory_bytes);
  window.MoveOn(*this, view);
  output_frames = view.out_frames;
}

// Row r feeds the output positions from r * stride on, over the span of the taps, so the frames
// near the end of what the held rows feed may still change with the next row: HeldBack of them
// wait. The last cache_len rows are kept, which are all rows that reach the waiting frames; every
// call computes its frames from all of their rows anew, in the order of the whole-sequence layer.
// That costs a few products again but no partial sums are kept, and the bits are those of the twin.
//
// Positions count output frames from the one that the first tap of the oldest held row feeds.

bool StreamConvTranspose1d::Validate(Refusal& why) {
  if (!ValidateShape(*this, why)) return false;
  const auto rows_of = [this](int64_t positions) {
    return positions < 1 ? 0 : (positions - 1) / stride + 1;
  };
  const int64_t cut_off = int64_t{padding_right} - output_padding;
  cache_len = std::max({rows_of(effective_kernel) - 1, rows_of(cut_off), int64_t{0}});
  return true;
}

void StreamConvTranspose1d::Reset() {
  ChunkLayer::Reset();
  cache.Clear();
}

int64_t StreamConvTranspose1d::CalcOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, SpreadFrames(in_frames));
}

int64_t StreamConvTranspose1d::CalcStreamOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, SpreadFrames(in_frames) + output_padding);
}

// The first frame that no call has emitted. The last call kept as many rows as it had, or cache_len
// of them; either way it stopped HeldBack frames before the end of what these feed.
int64_t StreamConvTranspose1d::NextFrame() const {
  return first_chunk ? padding_left : SpreadFrames(cache.rows()) - HeldBack();
}

// The position after the last frame that may be emitted when `rows` rows are held.
int64_t StreamConvTranspose1d::EndFrame(int64_t rows) const {
  const int64_t cut_off = int64_t{padding_right} - output_padding;
  return SpreadFrames(rows) - (last_chunk ? cut_off : HeldBack());
}

// The most that any call emits is what a last one emits: no fewer frames are held back than the end
// cuts off. A call that comes after rows were only held emits all that its rows feed.
CallPlan StreamConvTranspose1d::Plan(int64_t frames, int /*in_dim*/) const {
  const int64_t rows = std::max<int64_t>(frames, 0) + cache_len;
  const int64_t most = std::max(rows * stride, SpreadFrames(rows));
  return {CalcStreamOutputFrames(frames), BlockFloats(1, input_dim, frames),
          BlockFloats(1, output_dim, most - padding_right + output_padding)};
}

void StreamConvTranspose1d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                         int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  output_frames = 0;
  const int64_t front = NextFrame();
  cache.Append(in, frames, memory_bytes);
  // As long as there are no more rows than a later call looks back to, nothing is emitted.
  if (first_chunk && (cache.rows() < 1 || (!last_chunk && cache.rows() <= cache_len))) return;
  const int64_t count = EndFrame(cache.rows()) - front;
  if (count < 1 && first_chunk) {
    if (!last_chunk) return;  // nothing is complete yet
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64
               ", padding:%d,%d, output_padding:%d, kernel_size:%d, dilation:%d]",
               frames, padding_left, padding_right, output_padding, kernel_size, dilation);
  }
  Convolve(cache.Row(0), cache.rows(), front, std::max<int64_t>(count, 0), out);
  output_frames = std::max<int64_t>(count, 0);
  first_chunk = false;
  last_chunk = false;
  cache.DropFront(cache.rows() - cache_len);
}

}  // namespace tarev::nnet::handwriting_CTC
