#include "nnet/convolution/conv1d.h"

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <numeric>
#include <vector>

#include "nnet/base/element-kernels.h"
#include "nnet/base/panel-kernels.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Rounds toward infinity; the divisor is positive.
int64_t CeilDiv(int64_t a, int64_t b) { return a / b + (a % b > 0 ? 1 : 0); }

// Taps that step over `frames` frames: tap j of output frame t reads input frame
//   t * stride + first + j * step.
struct TapWalk {
  int64_t stride;
  int64_t first;
  int64_t step;
  int64_t taps;
  int64_t frames;
};

// The taps [begin, end) of an output frame that lie inside the input, and the next output frame for
// which these are others.
struct TapRange {
  int64_t begin;
  int64_t end;
  int64_t next_frame;
};

// Only at the edges of the input do output frames see part of the taps. As t grows, taps leave at
// the end of the range and enter at its beginning, so a walk has at most 2 taps + 1 ranges, however
// many frames there are. Each range becomes one run of the kernels, whose inner loops then have no
// test for the edges, and no input is copied for the sake of padding.
TapRange TapsOf(const TapWalk& walk, int64_t t) {
  const int64_t position = t * walk.stride + walk.first;
  const int64_t begin = std::clamp<int64_t>(CeilDiv(-position, walk.step), 0, walk.taps);
  const int64_t end = std::clamp<int64_t>(CeilDiv(walk.frames - position, walk.step), 0, walk.taps);
  int64_t next = std::numeric_limits<int64_t>::max();
  if (begin > 0) {
    next = CeilDiv(-walk.first - (begin - 1) * walk.step, walk.stride);
  }
  if (end > 0) {
    const int64_t leaves = walk.frames - walk.first - (end - 1) * walk.step;
    next = std::min(next, CeilDiv(leaves, walk.stride));
  }
  return {begin, std::max(begin, end), next};
}

// Passes the result of a check on and logs its failure.
bool Logged(bool valid, const Refusal& why) {
  if (!valid) LogWarning(Here(), "wrong window or channels! %s", why.text().c_str());
  return valid;
}

}  // namespace

// The window.

int64_t WindowParameters::WindowFrames(int64_t frames) const {
  const int64_t positions = WindowPositions(frames);
  return positions < 1 ? 0 : CeilDiv(positions, stride);
}

FieldList WindowParameters::WindowFields() {
  return {{"<KernelSize>", &kernel_size, FieldUse::kRequired},
          {"<Stride>", &stride},
          {"<Left>", &padding_left},
          {"<Right>", &padding_right},
          {"<Dilation>", &dilation}};
}

bool WindowParameters::ValidateWindow(Refusal& why) {
  effective_kernel = (int64_t{kernel_size} - 1) * dilation + 1;
  return Logged(why.AtLeast("kernel size", kernel_size, 0) && why.AtLeast("stride", stride, 1) &&
                    why.AtLeast("left padding", padding_left, 0) &&
                    why.AtLeast("right padding", padding_right, 0) &&
                    why.AtLeast("dilation", dilation, 1),
                why);
}

// What both convolutions store.

ParameterList ConvolutionParameters::Arrays() {
  ParameterList list = {Matrices("kernel", kernel, kernel_rows, {1, kernel_size}, this)};
  if (has_bias != 0) list.push_back(Vector("bias_vector", bias_vector, OutDim()));
  return list;
}

bool ConvolutionParameters::ValidateShape(const Component& layer, Refusal& why) {
  const int32_t in_dim = layer.input_dim;
  const int32_t out_dim = layer.output_dim;
  if (!ValidateWindow(why)) return false;
  if (!Logged(why.AtLeast("groups", groups, 1) && why.AtLeast("input dimension", in_dim, 0) &&
                  why.AtLeast("output dimension", out_dim, 0) &&
                  ((in_dim % groups == 0 && out_dim % groups == 0) ||
                   why.Because("[%d] groups do not divide [%d] and [%d]", groups, in_dim, out_dim)),
              why)) {
    return false;
  }
  in_per_group = in_dim / groups;
  out_per_group = out_dim / groups;
  kernel_rows = int64_t{in_dim} * out_per_group;
  const size_t k = ToSize(kernel_size);
  const bool depthwise = in_per_group == 1 && out_per_group == 1 && groups >= int{kNarrowBlock};
  shape_ = depthwise ? ConvolutionShape{1, 1, ToSize(groups), k, true}
                     : ConvolutionShape{ToSize(groups), ToSize(in_per_group), ToSize(out_per_group),
                                        k * ToSize(in_per_group), false};
  return true;
}

// The file holds a row of taps for each pair of channels. The kernels sum over taps and input
// channels with vectors across output channels, so they want the weights of neighbouring output
// channels side by side, term after term in the order of the sum: that is the compute order, cut
// into blocks as wide as the kernels' registers (BlockFrom).
//
// Visits the index in compute order and the index in the file of every weight.
template <class Visit>
void ConvolutionParameters::ForEachWeight(const Visit& visit) const {
  const size_t k = ToSize(kernel_size);
  const size_t in = ToSize(in_per_group);
  if (k == 0 || in == 0 || shape_.Weights() == 0) return;
  const size_t out = ToSize(out_per_group);
  const auto stored = [&](size_t group, size_t p, size_t c, size_t tap) {
    const size_t row =
        row_order_ == RowOrder::kByOutput ? (group * out + p) * in + c : (group * in + c) * out + p;
    return row * k + tap;
  };
  const bool taps_first = TapsFirst();
  size_t computed = 0;
  for (size_t g = 0; g < shape_.groups; ++g) {
    for (size_t next = 0; next < shape_.out_per_group;) {
      const ChannelBlock block = BlockFrom(next, shape_.out_per_group);
      for (size_t term = 0; term < shape_.terms; ++term, computed += block.width) {
        const size_t tap = taps_first ? term / in : term % k;
        const size_t c = taps_first ? term % in : term / k;
        for (size_t lane = 0; lane < block.channels; ++lane) {
          const size_t p = block.offset + lane;
          visit(computed + lane, shape_.depthwise ? stored(p, 0, c, tap) : stored(g, p, c, tap));
        }
      }
      next = block.offset + block.width;
    }
  }
}

// In the file's order of rows the weights of a block come together when rows go by output channel:
// they are turned block by block. When rows go by input channel, those of one belong to every
// block.
bool ConvolutionParameters::Hold(const NextRows& next, float* held) const {
  if (shape_.Weights() == 0) return true;
  const size_t tail = shape_.out_per_group % kWideBlock;
  if (tail != 0) zero_vec(held, shape_.Weights());  // lanes without a channel
  for (size_t g = 0; g < shape_.groups; ++g, held += shape_.GroupWeights()) {
    if (!(row_order_ == RowOrder::kByOutput || shape_.depthwise ? HoldByOutput(next, held)
                                                                : HoldByInput(next, held))) {
      return false;
    }
  }
  return true;
}

// Input channels are asked for in pieces of about so many weights.
constexpr size_t kPieceFloats = size_t{1} << 15;

// One group. The last block may overlap the one before it: their rows are asked for together.
bool ConvolutionParameters::HoldByOutput(const NextRows& next, float* held) const {
  const size_t out = shape_.out_per_group;
  const size_t k = ToSize(kernel_size);
  const size_t in = shape_.depthwise ? 1 : ToSize(in_per_group);
  std::vector<float> turned(TapsFirst() ? shape_.terms * kWideBlock : 0);
  for (size_t first = 0; first < out;) {
    const size_t left = out - first;
    const size_t channels = left < 2 * kWideBlock ? left : kWideBlock;
    const float* stored = next(channels * in);
    if (stored == nullptr) return false;
    for (size_t p = first; p < first + channels;) {
      const ChannelBlock block = BlockFrom(p, out);
      const float* rows = stored + (block.offset - first) * in * k;
      if (TapsFirst()) {
        Turn(rows, in * k, in * k, block, block.width, turned.data());
        for (size_t tap = 0; tap < k; ++tap) {
          const float* row = turned.data() + tap * block.width;
          for (size_t c = 0; c < in; ++c, row += k * block.width, held += block.width) {
            std::copy_n(row, kNarrowBlock, held);
            if (block.width == kWideBlock) {
              std::copy_n(row + kNarrowBlock, kNarrowBlock, held + kNarrowBlock);
            }
          }
        }
      } else {
        Turn(rows, in * k, in * k, block, block.width, held);
        held += shape_.terms * block.width;
      }
      p = block.offset + block.width;
    }
    first += channels;
  }
  return true;
}

// One group. Block after block for the input channels of a piece, which then lie side by side in the
// block.
bool ConvolutionParameters::HoldByInput(const NextRows& next, float* held) const {
  const size_t out = shape_.out_per_group;
  const size_t k = ToSize(kernel_size);
  const size_t in = ToSize(in_per_group);
  const size_t inputs_at_a_time = std::max<size_t>(1, kPieceFloats / std::max<size_t>(1, out * k));
  for (size_t first = 0; first < in; first += inputs_at_a_time) {
    const size_t inputs = std::min(inputs_at_a_time, in - first);
    const float* stored = next(out * inputs);
    if (stored == nullptr) return false;
    float* to = held;
    for (size_t p = 0; p < out;) {
      const ChannelBlock block = BlockFrom(p, out);
      for (size_t c = 0; c < inputs; ++c) {
        const size_t first_term = TapsFirst() ? first + c : (first + c) * k;
        Turn(stored + (c * out + block.offset) * k, k, k, block,
             (TapsFirst() ? in : 1) * block.width, to + first_term * block.width);
      }
      to += shape_.terms * block.width;
      p = block.offset + block.width;
    }
  }
  return true;
}

// Turns rows of `count` weights, one for each channel of a block, so that those for one term lie
// side by side and terms `step` floats apart.
void ConvolutionParameters::Turn(const float* rows, size_t stride, size_t count,
                                 const ChannelBlock& block, size_t step, float* to) {
  fill_panel({reinterpret_cast<const uint32_t*>(rows), stride}, block.channels, count, 0,
             reinterpret_cast<uint32_t*>(to), step);
}

std::vector<float> ConvolutionParameters::Stored(const FloatArray& held) const {
  std::vector<float> stored(ToSize(kernel_rows) * ToSize(kernel_size));
  ForEachWeight([&](size_t computed, size_t read) { stored[read] = held[computed]; });
  return stored;
}

// Turns the taps of a run into the two loops over its terms. A sum without terms must not look at
// the input at all: its loops have no steps, and frames do not move on.
void ConvolutionParameters::Run(ConvolutionRun run, const Taps& taps) const {
  if (taps.count > 0 && in_per_group > 0) {
    const bool taps_first = term_order_ == TermOrder::kTapsFirst;
    const ptrdiff_t tap_rows = taps_first ? in_per_group : 1;
    const ptrdiff_t channel_rows = taps_first ? 1 : kernel_size;
    const TermLoop tap_loop = {ToSize(taps.count), taps.in_step * InDim(), taps.spacing * tap_rows};
    const TermLoop channel_loop = {ToSize(in_per_group), 1, channel_rows};
    // With one input channel both orders are the same, and the longer loop goes inside.
    const bool taps_outside = taps_first && in_per_group > 1;
    run.outer = taps_outside ? tap_loop : channel_loop;
    run.inner = taps_outside ? channel_loop : tap_loop;
    run.first_row = ToSize(taps.first * tap_rows);
    run.in += taps.in_frame * InDim();
  } else {
    run.in_frame_step = 0;
  }
  convolve_run(shape_, kernel.data(), has_bias != 0 ? bias_vector.data() : nullptr, run);
}

// Convolution.

FieldList Conv1dParameters::ConvolutionFields() {
  FieldList fields = WindowFields();
  fields.insert(fields.end(), {{"<Groups>", &groups}, {"<Bias>", &has_bias}});
  return fields;
}

// One run for each range of taps, from the first output frame to the last.
void Conv1dParameters::Convolve(const float* in, int64_t frames, int64_t padding,
                                int64_t out_frames, float* out) const {
  if (OutDim() == 0) return;
  const TapWalk walk = {stride, -padding, dilation, kernel_size, std::max<int64_t>(frames, 0)};
  for (int64_t t = 0; t < out_frames;) {
    const TapRange taps = TapsOf(walk, t);
    const int64_t end = std::min(taps.next_frame, out_frames);
    const int64_t frame = t * stride - padding + taps.begin * dilation;
    ConvolutionRun run = {};
    run.in = in;
    run.in_frame_step = stride * InDim();
    run.out = out + t * OutDim();
    run.out_frame_step = OutDim();
    run.frames = ToSize(end - t);
    Run(run, {taps.begin, taps.end - taps.begin, 1, frame, dilation});
    t = end;
  }
}

int64_t Conv1d::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : WindowFrames(in_frames);
}

// A call without frames still makes those whose windows lie in the padding.
CallPlan Conv1d::Plan(int64_t frames, int /*in_dim*/) const {
  return {CalcOutputFrames(frames), BlockFloats(1, InDim(), frames),
          BlockFloats(1, OutDim(), WindowFrames(frames))};
}

void Conv1d::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                          int /*call_id*/) {
  const int64_t out_frames = WindowFrames(frames);
  if (out_frames < 1) {
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64
               ", padding:%d,%d, kernel_size:%d, dilation:%d]",
               frames, padding_left, padding_right, kernel_size, dilation);
  }
  Convolve(in, frames, padding_left, out_frames, out);
  output_frames = out_frames;
}

// Transposed convolution.

FieldList ConvTranspose1dParameters::ConvolutionFields() {
  FieldList fields = WindowFields();
  fields.insert(fields.end() - 1, {"<OutputPadding>", &output_padding});
  fields.insert(fields.end(), {{"<Groups>", &groups}, {"<Bias>", &has_bias}});
  return fields;
}

bool ConvTranspose1dParameters::ValidateShape(const Component& layer, Refusal& why) {
  return Logged(why.AtLeast("output padding", output_padding, 0), why) &&
         ConvolutionParameters::ValidateShape(layer, why);
}

void ConvTranspose1dParameters::FillWithBias(int64_t out_frames, float* out) const {
  const size_t width = ToSize(OutDim());
  for (int64_t t = 0; t < out_frames; ++t, out += width) {
    zero_vec(out, width);
    if (has_bias != 0) add_vec_to_rows(out, 1, width, bias_vector.data(), 1.0F);
  }
}

// Scattering each input frame over the output would add to memory once a tap. Instead each output
// frame gathers what reaches it: output frames that lie a stride apart see the same taps, every few
// of the kernel (every spacing-th, spacing = stride / gcd(stride, dilation)), and from one of them
// to the next the input moves on by one frame. Such a phase is an ordinary convolution of stride 1
// with taps that step backwards, and runs through the same kernel. Output frames of no phase are
// reached by no tap and hold the bias.
void ConvTranspose1dParameters::Convolve(const float* in, int64_t frames, int64_t padding,
                                         int64_t out_frames, float* out) const {
  const int64_t spacing = stride / std::gcd(stride, dilation);
  const int64_t phases = in_per_group == 0 ? 0 : std::min<int64_t>(spacing, kernel_size);
  if (OutDim() == 0) return;
  if (phases < stride) FillWithBias(out_frames, out);
  for (int64_t tap = 0; tap < phases; ++tap) {
    const int64_t position = int64_t{tap} * dilation - padding;
    const int64_t input = CeilDiv(-position, stride);
    ConvolvePhase({tap, position + input * stride, input}, in, frames, out_frames, out);
  }
}

// The frames of a phase in runs of equal taps, as in the convolution.
void ConvTranspose1dParameters::ConvolvePhase(const Phase& phase, const float* in, int64_t frames,
                                              int64_t out_frames, float* out) const {
  const int64_t common = std::gcd(stride, dilation);
  const int64_t spacing = stride / common;
  const int64_t step = dilation / common;
  const int64_t taps = CeilDiv(kernel_size - phase.tap, spacing);
  const int64_t count = CeilDiv(out_frames - phase.frame, stride);
  // The walk counts the taps from the last one on, so that they step forwards, as TapsOf needs.
  const TapWalk walk = {1, phase.input - (taps - 1) * step, step, taps,
                        std::max<int64_t>(frames, 0)};
  for (int64_t m = 0; m < count;) {
    const TapRange range = TapsOf(walk, m);
    const int64_t end = std::min(range.next_frame, count);
    const int64_t skipped = taps - range.end;
    ConvolutionRun run = {};
    run.in = in;
    run.in_frame_step = InDim();
    run.out = out + (phase.frame + m * stride) * OutDim();
    run.out_frame_step = stride * OutDim();
    run.frames = ToSize(end - m);
    Run(run, {phase.tap + skipped * spacing, range.end - range.begin, spacing,
              m + phase.input - skipped * step, -step});
    m = end;
  }
}

int64_t ConvTranspose1d::CalcOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0,
                           SpreadFrames(in_frames) - padding_left - padding_right + output_padding);
}

CallPlan ConvTranspose1d::Plan(int64_t frames, int /*in_dim*/) const {
  const int64_t out_frames = CalcOutputFrames(frames);
  return {out_frames, BlockFloats(1, InDim(), frames), BlockFloats(1, OutDim(), out_frames)};
}

void ConvTranspose1d::PropagateFnc(const float* in, int64_t frames, int /*in_dim*/, float* out,
                                   int /*call_id*/) {
  const int64_t out_frames = CalcOutputFrames(frames);
  if (out_frames < 1) {
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64
               ", padding:%d,%d, output_padding:%d, kernel_size:%d, dilation:%d]",
               frames, padding_left, padding_right, output_padding, kernel_size, dilation);
  }
  Convolve(in, frames, padding_left, out_frames, out);
  output_frames = out_frames;
}

// Pooling.

// One run for each range of taps. How many taps lie in the padding does not matter for a largest
// value, only whether any does on either side.
void MaxPool1dParameters::Pool(const float* in, int64_t frames, int64_t padding, size_t columns,
                               int64_t out_frames, float* out, uint64_t& memory_bytes) {
  if (columns == 0) return;
  if (kernel_size > kMostComparedInTurn) {
    return PoolWide(in, frames, padding, columns, out_frames, out, memory_bytes);
  }
  const auto width = static_cast<ptrdiff_t>(columns);
  const TapWalk walk = {stride, -padding, dilation, kernel_size, frames};
  for (int64_t t = 0; t < out_frames;) {
    const TapRange taps = TapsOf(walk, t);
    const int64_t end = std::min(taps.next_frame, out_frames);
    const int64_t frame = t * stride - padding + taps.begin * dilation;
    const bool any = taps.begin < taps.end;
    max_pool_run(
        {any ? in + frame * width : in, any ? stride * width : 0, out + t * width, ToSize(end - t),
         ToSize(taps.end - taps.begin), dilation * width, taps.begin > 0, taps.end < kernel_size},
        columns);
    t = end;
  }
}

// The frames that a window can see lie `dilation` apart. Each such sequence is cut into blocks as
// long as a window, and the largest values from the beginning of a block and up to its end are
// formed for every frame. A window lies in two blocks at most: of the first one it sees the end, of
// the second one the beginning. One that the ends of the input cut lies in one block from its
// beginning on, or up to the end of the input.
void MaxPool1dParameters::PoolWide(const float* in, int64_t frames, int64_t padding, size_t columns,
                                   int64_t out_frames, float* out, uint64_t& memory_bytes) {
  constexpr float kLowest = std::numeric_limits<float>::lowest();
  // A later value replaces an earlier one only when it is greater.
  const auto keep_larger = [columns](float* best, const float* later) {
    for (size_t c = 0; c < columns; ++c) best[c] = later[c] > best[c] ? later[c] : best[c];
  };
  const int64_t n = std::max<int64_t>(frames, 0);
  const int64_t taps = kernel_size;
  const int64_t step = dilation;
  const auto at = [columns](auto* rows, int64_t row) { return rows + ToSize(row) * columns; };
  const size_t floats = BlockFloats(1, static_cast<int64_t>(columns), n);
  up_to_.Grow(floats, memory_bytes);
  from_.Grow(floats, memory_bytes);
  std::fill_n(up_to_.data(), floats, kLowest);
  std::fill_n(from_.data(), floats, kLowest);
  for (int64_t i = 0; i < n; ++i) {
    if (i / step % taps != 0) keep_larger(at(up_to_.data(), i), at(up_to_.data(), i - step));
    keep_larger(at(up_to_.data(), i), at(in, i));
  }
  for (int64_t i = n; i-- > 0;) {
    keep_larger(at(from_.data(), i), at(in, i));
    if (i + step < n && (i / step + 1) % taps != 0) {
      keep_larger(at(from_.data(), i), at(from_.data(), i + step));
    }
  }
  for (int64_t t = 0; t < out_frames; ++t, out += columns) {
    const int64_t begin = t * stride - padding;
    const int64_t first = begin < 0 ? CeilDiv(-begin, step) : 0;
    const int64_t end = std::min(taps, CeilDiv(n - begin, step));
    std::fill_n(out, columns, first > 0 ? 0.0F : kLowest);
    if (first < end) {
      const int64_t oldest = begin + first * step;
      const int64_t newest = begin + (end - 1) * step;
      const bool whole_block_begins = oldest / step % taps == 0;
      const bool one_block = oldest / step / taps == newest / step / taps;
      if (!one_block || !whole_block_begins) keep_larger(out, at(from_.data(), oldest));
      if (!one_block || whole_block_begins) keep_larger(out, at(up_to_.data(), newest));
    }
    if (end < taps) {
      for (size_t c = 0; c < columns; ++c) out[c] = 0.0F > out[c] ? 0.0F : out[c];
    }
  }
}

int64_t MaxPool1d::CalcOutputFrames(int64_t in_frames) const {
  return in_frames < 1 ? 0 : WindowFrames(in_frames);
}

bool MaxPool1d::Validate(Refusal& why) {
  return ValidateWindow(why) && why.SameWidth(input_dim, output_dim);
}

CallPlan MaxPool1d::Plan(int64_t frames, int in_dim) const {
  const int64_t out_frames = CalcOutputFrames(frames);
  return {out_frames, BlockFloats(1, in_dim, frames), BlockFloats(1, in_dim, out_frames)};
}

void MaxPool1d::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                             int /*call_id*/) {
  const int64_t out_frames = CalcOutputFrames(frames);
  if (out_frames < 1) ThrowError(Here(), "too few input frames in MaxPool1d");
  AdoptSameWidth(in_dim);
  Pool(in, frames, padding_left, ToSize(in_dim), out_frames, out, memory_bytes);
  output_frames = out_frames;
}

}  // namespace tarev::nnet::handwriting_CTC
