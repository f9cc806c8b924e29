#include "nnet/stream_nnet/convolution.h"

#include <algorithm>
#include <cinttypes>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

// The window.

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
  // Kernels step over rows without reading them: there must be a place to step from.
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

// The call may turn out to be the last one.
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
  Pool(view.rows, view.count, view.padding, ToSize(in_dim), view.out_frames, out);
  window.MoveOn(*this, view);
  output_frames = view.out_frames;
}

// Transposed convolution.
//
// Positions count output frames from the one that the first tap of the oldest held row feeds. Row r
// feeds the positions from r * stride on, over the span of the taps.

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

// The first frame that no call has emitted. The last call left behind as many rows as it had, or
// cache_len of them; either way it stopped HeldBack frames before the end of what these feed.
int64_t StreamConvTranspose1d::NextFrame() const {
  return first_chunk ? padding_left : SpreadFrames(cache.rows()) - HeldBack();
}

// Behind the last frame to be emitted once so many rows are held.
int64_t StreamConvTranspose1d::EndFrame(int64_t rows) const {
  const int64_t cut_off = int64_t{padding_right} - output_padding;
  return SpreadFrames(rows) - (last_chunk ? cut_off : HeldBack());
}

// The most that any call emits is what a last one emits: no fewer frames are held back than the end
// cuts off. It emits all that its rows feed when earlier rows were only held.
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
  // Rows that are not yet more than a later call would look back to are held.
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
