#include "nnet/runtime/nnet-nnet.h"

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <utility>

#include "nnet/base/element-kernels.h"
#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Frame counts are bounded beside the floats of a block: they leave room for arithmetic, and a few
// bytes of padding or stride in a model cannot turn a short call into hours of work.
constexpr int64_t kMaxFrames = int64_t{1} << 26;
constexpr int64_t kMaxGrowth = 1024;
constexpr int64_t kFramesAlwaysAllowed = int64_t{1} << 20;

// Work that neither the caller's frames nor parameters explain: frames beyond four times the
// caller's and a margin, rows wider than the caller's, than the parameters are many, and than a
// margin. So many multiply-adds, comparisons and floats moved are allowed for each frame of a call;
// a core does as many in less than a hundredth of a second.
constexpr int64_t kMarginFrames = 1024;
constexpr uint64_t kMarginWidth = 4096;
constexpr uint64_t kWorkAFrame = uint64_t{1} << 23;
constexpr int64_t kLeastWorkFrames = 8;

// What is reserved ahead of a call, at most, for widths that no parameters explain (16 MiB).
constexpr uint64_t kFloatsAhead = uint64_t{1} << 22;

// The shortest component is a one-dimensional header without parameters.
constexpr size_t kMinComponentBytes = 12;

// The most frames that any layer may take or give in a call of `call_frames` frames.
int64_t FrameLimit(int64_t call_frames) {
  if (call_frames >= kMaxFrames / kMaxGrowth) return kMaxFrames;
  return std::max(kFramesAlwaysAllowed, call_frames * kMaxGrowth);
}

int64_t ExplainedFrames(int64_t call_frames) {
  return 4 * std::clamp<int64_t>(call_frames, 0, kMaxFrames) + kMarginFrames;
}

}  // namespace

bool ReadNnet(Nnet& nnet, FILE* fp) {
  if (fp == nullptr) {
    PrintWrongParameters(Here(), "ReadNnet", "fp == __null");
    return false;
  }
  uint32_t count = 0;
  if (!ReadValues(fp, count)) {
    LogWarning(Here(), "fread failed!");
    return false;
  }
  const ArrayArena arena(RemainingBytes(fp));
  nnet.layers.reserve(std::min<size_t>(count, RemainingBytes(fp) / kMinComponentBytes));
  while (nnet.layers.size() < count) nnet.layers.emplace_back(Component::Read(fp));
  if (nnet.layers.size() == count) return true;
  LogWarning(Here(), "mismatched layer number! [%u/%zu]", count, nnet.layers.size());
  return false;
}

NnetForward::NnetForward(Nnet* network, BufferBudget* shared_budget)
    : nnet_(network), budget_(shared_budget != nullptr ? shared_budget : &own_budget_) {
  if (nnet_ == nullptr) ThrowWrongParameters(Here(), "NnetForward", "nnet == __null");
  if (nnet_->layers.empty()) ThrowWrongParameters(Here(), "NnetForward", "nnet->layers.empty()");
  input_dim_ = nnet_->layers.front()->InputDim();
  output_dim_ = nnet_->layers.back()->OutputDim();
  for (const auto& layer : nnet_->layers) {
    layer_parameters_.push_back(layer->ParameterCount());
    parameter_count_ += layer_parameters_.back();
  }
  LinkLayers();
}

// Two visits, because a layer may need what a later one offers: a concatenation may name a register
// that stands after it.
void NnetForward::LinkLayers() {
  NetworkLinks links(Here());
  for (const auto visit : {&Component::Announce, &Component::Link}) {
    for (size_t position = 0; position < nnet_->layers.size(); ++position) {
      links.MoveTo(position);
      (*nnet_->layers[position].*visit)(links);
    }
  }
}

void NnetForward::ReserveFrames(int64_t frames) {
  const BufferBudget::Entered entered(*budget_);
  try {
    Reserve(frames);
  } catch (const BudgetExceeded&) {  // the call that needs the room says so
  }
}

// Follows the most frames that a call of so many can bring to each layer, without running any. The
// call itself makes what room is still missing, so stopping early costs time only. It stops where
// buffers would be larger than rows as wide as the network has parameters, and some more: widths
// and paddings are numbers in a file, and no memory is given for those before there is data.
// Both buffers grow, since every layer but the first reads one and writes the other; the first
// reads the caller's block, so that a network of one layer needs only buffer B.
void NnetForward::Reserve(int64_t frames) {
  const int64_t limit = std::min(FrameLimit(frames), ExplainedFrames(frames));
  const auto rows = static_cast<uint64_t>(std::max<int64_t>(frames, 0));
  const uint64_t explained = parameter_count_ > kMaxBlockFloats / std::max<uint64_t>(rows, 1)
                                 ? kMaxBlockFloats
                                 : rows * parameter_count_;
  const uint64_t most_bytes = budget_->used() + (kFloatsAhead + explained) * sizeof(float);
  int64_t n = frames;
  int width = input_dim_;
  uint64_t need = 0;
  for (const auto& layer : nnet_->layers) {
    const CallPlan plan = layer->Plan(n, width);
    const auto fits = [&](uint64_t floats) {
      return floats <= kMaxBlockFloats &&
             budget_->used() + 2 * floats * sizeof(float) <= most_bytes;
    };
    if (n < 1 || n > limit || !fits(plan.writes)) break;
    layer->Reserve(n);
    n = layer->MostFrames(n);
    const uint64_t given = BlockFloats(layer->OutputChannel(), layer->OutputDim(), n);
    if (!fits(given)) break;
    need = std::max({need, plan.writes, given});
    if (layer->OutputDim() > 0) width = layer->OutputDim();
  }
  if (nnet_->layers.size() > 1) buffer_a_.Grow(need);
  buffer_b_.Grow(need);
  reserved_frames_ = std::max(reserved_frames_, frames);
}

void NnetForward::CheckBlock(uint64_t floats) {
  if (floats <= kMaxBlockFloats) return;
  ThrowError(Here(), "frame buffer too large! [%" PRIu64 " > %" PRIu64 " floats]", floats,
             kMaxBlockFloats);
}

void NnetForward::Forward(const float* in, int64_t frames, int dim, int channels) {
  if (forward_count_ < std::numeric_limits<int32_t>::max()) ++forward_count_;
  Propagate(in, frames, dim, forward_count_, channels);
}

// The pass: plan, check, run, layer by layer. The first layer reads the caller's block and writes
// buffer B; each one after it reads what the one before it wrote and writes the other buffer. No
// layer relies on what the layer before it promised, but only on the block that is really there.
void NnetForward::Propagate(const float* in, int64_t frames, int dim, int call_id, int channels) {
  if (frames > reserved_frames_) ReserveFrames(frames);
  const BufferBudget::Entered entered(*budget_);
  const int64_t frame_limit = FrameLimit(frames);
  BlockShape shape{channels, dim, frames};
  explained_frames_ = ExplainedFrames(frames);
  explained_width_ = std::max({BlockFloats(channels, dim, 1), kMarginWidth,
                               std::min<uint64_t>(parameter_count_, kMaxBlockFloats)});
  work_limit_ = kWorkAFrame *
                static_cast<uint64_t>(std::clamp<int64_t>(frames, kLeastWorkFrames, kMaxFrames));
  unexplained_work_ = 0;
  FloatArray* from = &buffer_a_;
  FloatArray* to = &buffer_b_;
  for (size_t position = 0; position < nnet_->layers.size(); ++position) {
    if (observer_ != nullptr) observer_->BeforeLayer(position);
    try {
      shape = RunLayer(position, in, *from, *to, shape, call_id, frame_limit);
    } catch (const BudgetExceeded& error) {
      ThrowTooMuchMemory(position, error.wanted);
    }
    if (observer_ != nullptr) observer_->AfterLayer(position, to->data(), shape);
    std::swap(from, to);
  }
  output_ = from;
  output_shape_ = shape;
  cur_frames_ = shape.frames;
}

// One pass a layer: plan, check, make room, run. The plan is made right before the layer runs, with
// the width and the frames that really reach it, since both may depend on what earlier layers did
// in this call; nothing that a file claims is believed before that.
BlockShape NnetForward::RunLayer(size_t position, const float* in, const FloatArray& from,
                                 FloatArray& to, const BlockShape& shape, int call_id,
                                 int64_t frame_limit) {
  Component& layer = *nnet_->layers[position];
  layer.CheckWidth(shape.dim);
  if (shape.frames > frame_limit) ThrowTooManyFrames(position, shape.frames, frame_limit);
  const CallPlan plan = layer.Plan(shape.frames, shape.dim);
  if (plan.frames > frame_limit) ThrowTooManyFrames(position, plan.frames, frame_limit);
  if (plan.reads > shape.floats()) ThrowTooLittleInput(position, shape, plan.reads);
  CheckBlock(plan.writes);
  CountWork(position, shape, plan);
  to.Grow(plan.writes);
  layer.Run(plan, position == 0 ? in : from.data(), shape.frames, shape.dim, to.data(), call_id);
  const BlockShape produced{layer.OutputChannel(), layer.output_dim, layer.OutputFrames()};
  // Zeros, so that what an earlier call left in the buffer does not leak into this one.
  if (const uint64_t floats = produced.floats(); floats > plan.writes) {
    CheckBlock(floats);
    to.Grow(floats);
    zero_vec(to.data() + plan.writes, floats - plan.writes);
  }
  return produced;
}

// A frame that the caller brought, and a stretch of a few times as many, explain whatever a layer
// does with it; so does a row that is no wider than the caller's or than the parameters are many.
// What remains comes from numbers in a file: paddings, windows, rows joined to rows.
void NnetForward::CountWork(size_t position, const BlockShape& shape, const CallPlan& plan) {
  const Component& layer = *nnet_->layers[position];
  const int64_t frames = std::max(shape.frames, plan.frames);
  if (frames <= explained_frames_ &&
      std::max(plan.reads, plan.writes) <=
          static_cast<uint64_t>(std::max<int64_t>(frames, 1)) * explained_width_) {
    return;
  }
  const auto add = [this](uint64_t work) {
    if (__builtin_add_overflow(unexplained_work_, work, &unexplained_work_)) {
      unexplained_work_ = std::numeric_limits<uint64_t>::max();
    }
  };
  uint64_t of_parameters = 0;
  if (__builtin_mul_overflow(static_cast<uint64_t>(std::max<int64_t>(frames, 0)),
                             layer_parameters_[position], &of_parameters)) {
    of_parameters = std::numeric_limits<uint64_t>::max();
  }
  // The system may have to clear the memory that is written, which takes longer than all else.
  constexpr uint64_t kStepsToClear = 16;
  const uint64_t written = std::min(plan.writes, kMaxBlockFloats) * kStepsToClear;
  for (const uint64_t work :
       {of_parameters, plan.reads, written, layer.ExtraWork(shape.frames, shape.dim)}) {
    add(work);
  }
  if (unexplained_work_ <= work_limit_) return;
  ThrowError(Here(), "too much work! layer[%s] position[%zu] [%" PRIu64 " > %" PRIu64 "]",
             layer.TypeMarker().c_str(), position, unexplained_work_, work_limit_);
}

void NnetForward::ThrowTooManyFrames(size_t position, int64_t frames, int64_t limit) const {
  ThrowError(Here(), "too many frames! layer[%s] position[%zu] [%" PRId64 " > %" PRId64 "]",
             nnet_->layers[position]->TypeMarker().c_str(), position, frames, limit);
}

void NnetForward::ThrowTooMuchMemory(size_t position, uint64_t bytes) const {
  ThrowError(Here(), "buffers too large! layer[%s] position[%zu] [%" PRIu64 " > %" PRIu64 " bytes]",
             nnet_->layers[position]->TypeMarker().c_str(), position, bytes, budget_->limit());
}

void NnetForward::ThrowTooLittleInput(size_t position, const BlockShape& shape,
                                      uint64_t reads) const {
  ThrowError(Here(),
             "too little input! layer[%s] position[%zu] reads [%" PRIu64
             "] floats, given [%d channels x %d x %" PRId64 " frames = %" PRIu64 "]",
             nnet_->layers[position]->TypeMarker().c_str(), position, reads, shape.channels,
             shape.dim, shape.frames, shape.floats());
}

void NnetForward::Reset() {
  cur_frames_ = 0;
  output_shape_ = {};
  forward_count_ = 0;
  for (const auto& layer : nnet_->layers) layer->Reset();
}

}  // namespace tarev::nnet::handwriting_CTC
