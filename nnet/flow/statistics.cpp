#include "nnet/flow/statistics.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <limits>
#include <string>

#include "nnet/base/element-kernels.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

static_assert(std::bit_cast<uint32_t>(1.0e-10F) == 0x2EDBE6FF);

namespace {

// The frames of a span that are added up one after another, at most.
constexpr int32_t kMostAddedInOrder = 128;

// The last layer so far that cuts windows.
struct CutWindows {
  size_t position = 0;
  int32_t window_size = 0;
};

}  // namespace

// StatisticsExtraction.

int64_t StatisticsExtraction::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1) return 0;
  return std::max<int64_t>(0, in_frames - (LeftContext() + RightContext()));
}

// Every input frame has a row while the sums are formed; those of the last frames, whose spans are
// not complete, are no output.
CallPlan StatisticsExtraction::Plan(int64_t frames, int /*in_dim*/) const {
  return {CalcOutputFrames(frames), BlockFloats(1, input_dim, frames),
          BlockFloats(1, RowWidth(), frames)};
}

uint64_t StatisticsExtraction::ExtraWork(int64_t frames, int /*in_dim*/) const {
  return BlockFloats(std::min(output_period / input_period, kMostAddedInOrder), RowWidth(), frames);
}

FieldList StatisticsExtraction::Fields() {
  return {{"<InputPeriod>", &input_period},
          {"<OutputPeriod>", &output_period},
          {"<IncludeVarinance>", &include_variance}};
}

bool StatisticsExtraction::Validate(Refusal& why) {
  return why.AtLeast("<InputPeriod>", input_period, 1) &&
         why.AtLeast("<OutputPeriod>", output_period, 1) &&
         why.Equal("<OutputPeriod> modulo <InputPeriod>", output_period % input_period, "wanted",
                   0) &&
         why.AtLeast("input dimension", input_dim, 1) &&
         why.Equal("output dimension", output_dim, "row of statistics", RowWidth());
}

// The values of every frame are copied to its row, and rows are then added up in place: a row only
// reads rows after it, which are still as they were copied. Sums run in frame order.
void StatisticsExtraction::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                        int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  if (LeftContext() + RightContext() >= frames) {
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64 ", left:%" PRId64 ", right:%" PRId64 "]",
               frames, LeftContext(), RightContext());
  }
  const size_t n = ToSize(frames);
  const size_t dim = ToSize(in_dim);
  const size_t width = ToSize(RowWidth());
  zero_vec(out, n * width);
  copy_columns(in, n, dim, out, n, width, 0, 1, dim);
  if (include_variance) {
    pow_in_place(const_cast<float*>(in), n * dim, 2.0F);
    copy_columns(in, n, dim, out, n, width, 0, dim + 1, dim);
  }
  if (output_period / input_period <= kMostAddedInOrder) {
    sum_strided_rows(out, n, width, ToSize(input_period), ToSize(output_period));
  } else {
    SumLongSpans(out, n, width);
  }
  const auto count = static_cast<float>(output_period / input_period);
  for (size_t r = 0; r < n; ++r) out[r * width] = count;
  output_frames = frames - RightContext();
}

// The rows are cut into blocks as long as a span. A span begins in one block and ends in the next:
// its sum is that from its beginning to the end of the block, formed backwards in place, and that
// from the beginning of the next block, whose rows are still as they came, kept up as the span
// moves on. Each of the input_period interleaved sequences has a running sum of its own.
void StatisticsExtraction::SumLongSpans(float* rows, size_t count, size_t width) {
  const size_t step = ToSize(input_period);
  const size_t span = ToSize(output_period);
  const auto row = [&](size_t r) { return rows + r * width; };
  running_.Grow(step * width, memory_bytes);
  for (size_t block = 0; block < count; block += span) {
    const size_t next = std::min(block + span, count);
    for (size_t r = next - std::min(step, next); r-- > block;) {
      add_vec_to_rows(row(r), 1, width, row(r + step), 1.0F);
    }
    zero_vec(running_.data(), step * width);
    for (size_t r = next; r < std::min(next + span - step, count); ++r) {
      float* sum = running_.data() + (r - next) % step * width;
      add_vec_to_rows(sum, 1, width, row(r), 1.0F);
      add_vec_to_rows(row(r - span + step), 1, width, sum, 1.0F);
    }
  }
}

// StatisticsPooling.

// With windows, one row for each and one for what remains: one too many when nothing does. The call
// sets the exact number.
int64_t StatisticsPooling::CalcOutputFrames(int64_t in_frames) const {
  if (in_frames < 1) return 0;
  if (pool_frames < 1 || in_frames < pool_frames) return 1;
  return in_frames / pool_frames + 1;
}

FieldList StatisticsPooling::Fields() {
  return {{"<InputPeriod>", &input_period},     {"<LeftContext>", &left_context},
          {"<RightContext>", &right_context},   {"<NumLogCountFeatures>", &num_log_count_features},
          {"<OutputStddevs>", &output_stddevs}, {"<VarianceFloor>", &variance_floor}};
}

bool StatisticsPooling::Validate(Refusal& why) {
  return why.AtLeast("<NumLogCountFeatures>", num_log_count_features, 0) &&
         why.AtLeast("input dimension", input_dim, 1) &&
         why.AtLeast("output dimension", output_dim, 1) &&
         why.Equal("output dimension", output_dim, "count features and pooled values",
                   int64_t{num_log_count_features} + input_dim - 1);
}

// One visit is enough: only the layer directly before this one counts, and it has announced itself.
void StatisticsPooling::Announce(NetworkLinks& links) {
  const CutWindows& cut = links.Shared<CutWindows>();
  if (cut.window_size > 0 && cut.position + 1 == links.position()) pool_frames = cut.window_size;
}

std::string StatisticsPooling::Links() const {
  return pool_frames < 1 ? std::string() : "windows of " + std::to_string(pool_frames) + " frames";
}

void StatisticsPooling::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                     int /*call_id*/) {
  RequireWidth(input_dim, in_dim);
  output_frames = 0;
  const bool cuts = pool_frames >= 1 && pool_frames <= frames;
  const int64_t block = cuts ? pool_frames : frames;
  auto* rows = const_cast<float*>(in);
  for (int64_t first = 0; first < frames; first += block) {
    PoolBlock(rows + first * input_dim, std::min(block, frames - first),
              out + output_frames * output_dim);
    ++output_frames;
  }
}

// Sums in the first row of the block, then means in the output row, then deviations where the means
// of the squares are.
void StatisticsPooling::PoolBlock(float* rows, int64_t count, float* out) const {
  const size_t dim = ToSize(input_dim);
  for (size_t r = 1; r < ToSize(count); ++r) add_vec_to_rows(rows, 1, dim, rows + r * dim, 1.0F);
  zero_vec(out, ToSize(output_dim));
  float* means = out + num_log_count_features;
  for (size_t j = 1; j < dim; ++j) means[j - 1] = rows[j] / rows[0];
  if (num_log_count_features > 0 || !output_stddevs || dim % 2 == 0) return;
  const size_t half = (dim - 1) / 2;
  float* deviations = means + half;
  for (size_t i = 0; i < half; ++i) {
    deviations[i] = std::max(variance_floor, deviations[i] - means[i] * means[i]);
  }
  pow_in_place(deviations, half, 0.5F);
}

// SlidingWindow.

FieldList SlidingWindow::Fields() {
  return {
      {"<WindowSize>", &window_size}, {"<HopSize>", &hop_size}, {"<SlidingMode>", &sliding_mode}};
}

bool SlidingWindow::Validate(Refusal& why) {
  generator =
      std::make_unique<feats_win_generator_t>(sliding_mode, window_size, hop_size, input_dim);
  return why.Equal("output dimension", output_dim, "input dimension", input_dim);
}

void SlidingWindow::Announce(NetworkLinks& links) {
  links.Shared<CutWindows>() = {links.position(), window_size};
}

int64_t SlidingWindow::CalcOutputFrames(int64_t /*in_frames*/) const {
  ThrowError(Here(), "output frames cannot be calculated precisely!");
}

int64_t SlidingWindow::CalcStreamOutputFrames(int64_t in_frames) const {
  if (in_frames < 1) return 0;
  return ((in_frames + window_size - 1) / window_size + 1) * window_size;
}

// Windows that overlap repeat frames: only the generator knows how many can come out.
CallPlan SlidingWindow::Plan(int64_t frames, int /*in_dim*/) const {
  return {CalcStreamOutputFrames(frames), BlockFloats(1, input_dim, frames),
          BlockFloats(1, output_dim, generator->max_emitted(frames))};
}

void SlidingWindow::Reset() {
  chunk_count = 0;
  output_frames = 0;
  generator->clear();
}

void SlidingWindow::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out,
                                 int /*call_id*/) {
  if (chunk_count < std::numeric_limits<int32_t>::max()) ++chunk_count;
  PropagateChunk(in, frames, in_dim, out, chunk_count);
}

void SlidingWindow::PropagateChunk(const float* in, int64_t frames, int in_dim, float* out,
                                   int call_id) {
  RequireWidth(input_dim, in_dim);
  output_frames = 0;
  if (!generator->add_data(in, frames, call_id < 0)) {
    ThrowError(Here(), "sliding window add data failed!");
  }
  output_frames = generator->emit_windows(out);
}

}  // namespace tarev::nnet::handwriting_CTC
