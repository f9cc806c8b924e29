#include "nnet/nnet-nnet.h"

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <ranges>
#include <utility>

#include "nnet/fsmn-layer.h"
#include "nnet/lstm.h"
#include "nnet/nnet-control-flow.h"
#include "nnet/nnet-layer.h"
#include "nnet/statistics.h"
#include "nnet/stream_nnet/nnet-control-flow.h"
#include "utils/file-io.h"
#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Beside the bound on a block, frame counts are bounded: so that they leave room for arithmetic,
// and so that a few bytes of padding or stride in a model cannot turn a short call into hours of
// work.
constexpr int64_t kMaxFrames = int64_t{1} << 26;
constexpr int64_t kMaxGrowth = 1024;
constexpr int64_t kFramesAlwaysAllowed = int64_t{1} << 20;

// The shortest component is a one-dimensional header without parameters.
constexpr size_t kMinComponentBytes = 12;

// The most frames that a layer may take or give in a call of so many frames.
int64_t FrameLimit(int64_t call_frames) {
  if (call_frames >= kMaxFrames / kMaxGrowth) return kMaxFrames;
  return std::max(kFramesAlwaysAllowed, call_frames * kMaxGrowth);
}

template <class Register>
void AddRegister(const Component& layer, RegisterMap<Register>& registers) {
  const auto* found = dynamic_cast<const Register*>(&layer);
  if (found == nullptr || registers.emplace(found->register_name, found).second) return;
  ThrowError(Here(), "insert %s failed! maybe %s name is duplicated [%s]", Register::kKind,
             Register::kKind, found->register_name.c_str());
}

// Finds the registers of a concatenation. Its parts must fill its output: dimensions for rows,
// channels for planes.
template <class Concatenation>
void Bind(Component& layer, const RegisterMap<typename Concatenation::Register>& registers) {
  auto* joined = dynamic_cast<Concatenation*>(&layer);
  if (joined == nullptr) return;
  joined->registers.clear();
  int64_t units = static_cast<int64_t>(joined->input_positions.size()) * joined->InputUnits();
  for (const std::string& name : joined->register_names) {
    const auto found = registers.find(name);
    if (found == registers.end()) {
      ThrowError(Here(), "cannot find register with name [%s]", name.c_str());
    }
    joined->registers.push_back(found->second);
    units += Concatenation::RegisterUnits(*found->second);
  }
  if (units != joined->OutputUnits()) {
    ThrowError(Here(), "mismatched concentrate dimension! [%" PRId64 " != %" PRId64 "]", units,
               joined->OutputUnits());
  }
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
  nnet.layers.reserve(std::min<size_t>(count, RemainingBytes(fp) / kMinComponentBytes));
  while (nnet.layers.size() < count) nnet.layers.emplace_back(Component::Read(fp));
  if (nnet.layers.size() == count) return true;
  LogWarning(Here(), "mismatched layer number! [%u/%zu]", count, nnet.layers.size());
  return false;
}

NnetForward::NnetForward(Nnet* network) : nnet(network) {
  if (nnet == nullptr) ThrowWrongParameters(Here(), "NnetForward", "nnet == __null");
  if (nnet->layers.empty()) ThrowWrongParameters(Here(), "NnetForward", "nnet->layers.empty()");
  input_dim = nnet->layers.front()->InputDim();
  output_dim = nnet->layers.back()->OutputDim();
  MapRegisters();
  LinkMemories();
  LinkSpliceContext();
  LinkWindows();
  BindConcatenations();
  // Last, since it lends a buffer of this executor, which a failure above would take away.
  LinkGates();
}

NnetForward::~NnetForward() {
  // The network may outlive its executor: no layer keeps a way into buffers that go away here.
  for (const auto& layer : nnet->layers) {
    if (auto* blstm = dynamic_cast<Blstm*>(layer.get())) blstm->shared_gates = nullptr;
  }
}

void NnetForward::MapRegisters() {
  for (const auto& layer : nnet->layers) {
    AddRegister(*layer, register_map);
    AddRegister(*layer, register2d_map);
    AddRegister(*layer, stream_register_map);
  }
}

void NnetForward::BindConcatenations() {
  for (const auto& layer : nnet->layers) {
    Bind<ConcatenateComponent>(*layer, register_map);
    Bind<Concatenate2dComponent>(*layer, register2d_map);
    Bind<StreamConcatenateComponent>(*layer, stream_register_map);
    const auto* joined = dynamic_cast<const StreamConcatenateComponent*>(layer.get());
    if (joined != nullptr) joined->CheckParts();
  }
}

void NnetForward::LinkGates() {
  for (const auto& layer : nnet->layers) {
    auto* blstm = dynamic_cast<Blstm*>(layer.get());
    if (blstm == nullptr) continue;
    blstm->shared_gates = &shared_gate_buffer;
    shared_gate_dim = std::max(shared_gate_dim, blstm->OutputDim() / 2);
  }
}

// The splices behind a projected LSTM consume so many frames of a call that come again in the next.
void NnetForward::LinkSpliceContext() {
  int64_t context = 0;
  for (const auto& layer : std::views::reverse(nnet->layers)) {
    if (const auto* splice = dynamic_cast<const Splice*>(layer.get())) {
      context += splice->LeftContext() + splice->RightContext();
    } else if (auto* lstm = dynamic_cast<LstmProjectedNnet3Streams*>(layer.get())) {
      lstm->overlap_frames = context;
    } else if (auto* fixed = dynamic_cast<FixedLstmProjectedNnet3Streams*>(layer.get())) {
      fixed->overlap_frames = context;
    }
  }
}

// A block depends on the depend-th one before it among the blocks of the network. Its first row
// lies later than that of the other by the left contexts of all blocks behind the other.
void NnetForward::LinkMemories() {
  struct Met {
    Fsmn* block;
    int64_t left_contexts;  // of all blocks up to this one
  };
  std::vector<Met> met;
  int64_t left_contexts = 0;
  for (const auto& layer : nnet->layers) {
    auto* fsmn = dynamic_cast<Fsmn*>(layer.get());
    if (fsmn == nullptr) continue;
    left_contexts += fsmn->LeftContext();
    met.push_back({fsmn, left_contexts});
    fsmn->Unlink();
    if (fsmn->depend == 0) continue;
    const int64_t source = static_cast<int64_t>(met.size()) - 1 + fsmn->depend;
    if (source < 0 || source >= static_cast<int64_t>(met.size())) {
      ThrowError(Here(), "fsmn 'depend' out of scope! [%d]", static_cast<int>(source));
    }
    const Met& other = met[ToSize(source)];
    fsmn->LinkTo(*other.block, left_contexts - other.left_contexts);
  }
}

void NnetForward::LinkWindows() {
  for (size_t position = 1; position < nnet->layers.size(); ++position) {
    auto* pooling = dynamic_cast<StatisticsPooling*>(nnet->layers[position].get());
    const auto* window = dynamic_cast<const SlidingWindow*>(nnet->layers[position - 1].get());
    if (pooling != nullptr && window != nullptr) pooling->pool_frames = window->window_size;
  }
}

void NnetForward::ReserveFrames(int64_t frames) {
  if (frames <= 0) return;
  frame_limit = FrameLimit(frames);
  int64_t n = frames;
  int width = input_dim;
  uint64_t need = 0;
  int64_t gate_frames = shared_gate_frames;
  for (size_t position = 0; position < nnet->layers.size(); ++position) {
    Component& layer = *nnet->layers[position];
    CheckFrames(position, n);
    layer.Reserve(n);
    need = std::max(need, layer.Extent(n, width).writes);
    n = MostFrames(layer, n);
    CheckFrames(position, n);
    if (dynamic_cast<const Blstm*>(&layer) != nullptr) gate_frames = std::max(gate_frames, n);
    need = std::max(need, BlockFloats(layer.OutputChannel(), layer.OutputDim(), n));
    if (layer.OutputDim() > 0) width = layer.OutputDim();
  }
  GrowGates(gate_frames);
  GrowBuffers(need);
}

// The most output frames of a call with so many input frames.
int64_t NnetForward::MostFrames(const Component& layer, int64_t frames) {
  if (layer.GetType() == StreamConcatenateComponent::kType) {
    return MostJoinedFrames(static_cast<const StreamConcatenateComponent&>(layer), frames);
  }
  const int64_t out_frames = layer.CalcStreamOutputFrames(frames);
  if (layer.GetType() == StreamRegisterComponent::kType) {
    const auto& part = static_cast<const StreamRegisterComponent&>(layer);
    stream_register_frames[part.register_name] = out_frames;
  }
  return out_frames;
}

// A streaming concatenation joins what has waited in its queues and what the call brings.
int64_t NnetForward::MostJoinedFrames(const StreamConcatenateComponent& joined,
                                      int64_t frames) const {
  int64_t most = std::numeric_limits<int64_t>::max();
  auto name = joined.register_names.begin();
  for (int32_t part = 0; part < joined.part_count; ++part) {
    int64_t arriving = frames;
    if (!joined.IsInput(part)) {
      const auto sized = stream_register_frames.find(*name);
      if (sized == stream_register_frames.end()) {
        ThrowError(Here(), "cannot find register with name [%s]", name->c_str());
      }
      arriving = sized->second;
      ++name;
    }
    most = std::min(most, arriving + joined.pending[ToSize(part)].rows());
  }
  return joined.part_count == 0 ? 0 : most;
}

void NnetForward::GrowGates(int64_t frames) {
  if (frames <= shared_gate_frames) return;
  shared_gate_buffer.Grow(BlockFloats(4, shared_gate_dim, frames), buffer_bytes);
  shared_gate_frames = frames;
}

void NnetForward::GrowBuffers(uint64_t floats) {
  if (floats <= buffer_capacity) return;
  if (floats > kMaxBlockFloats) {
    ThrowError(Here(), "frame buffer too large! [%" PRIu64 " > %" PRIu64 " floats]", floats,
               kMaxBlockFloats);
  }
  buffer_b.Grow(floats, buffer_bytes);
  if (nnet->layers.size() > 1) buffer_a.Grow(floats, buffer_bytes);
  buffer_capacity = floats;
}

void NnetForward::Forward(const float* in, int64_t frames, int dim, int channels) {
  if (forward_count < std::numeric_limits<int32_t>::max()) ++forward_count;
  Propagate(in, frames, dim, forward_count, channels);
}

void NnetForward::Propagate(const float* in, int64_t frames, int dim, int call_id, int channels) {
  frame_limit = FrameLimit(frames);
  ReserveFrames(frames);
  BlockShape shape{channels, dim, frames};
  for (size_t position = 0; position < nnet->layers.size(); ++position) {
    shape = RunLayer(position, in, shape, call_id);
    std::swap(buffer_a, buffer_b);
  }
  std::swap(buffer_a, buffer_b);
  output_shape = shape;
  cur_frames = shape.frames;
}

BlockShape NnetForward::RunLayer(size_t position, const float* in, const BlockShape& shape,
                                 int call_id) {
  Component& layer = *nnet->layers[position];
  layer.CheckWidth(shape.dim);
  CheckFrames(position, shape.frames);
  CheckFrames(position, layer.CalcStreamOutputFrames(shape.frames));
  const CallExtent extent = layer.Extent(shape.frames, shape.dim);
  CheckInput(position, shape, extent.reads);
  GrowBuffers(extent.writes);
  int width = shape.dim;
  layer.Propagate(position == 0 ? in : buffer_a.data(), shape.frames, shape.dim, buffer_b.data(),
                  &width, call_id);
  const BlockShape produced{layer.OutputChannel(), width, layer.OutputFrames()};
  // A layer whose header claims more than it writes hands on zeros, not what an earlier call left.
  if (const uint64_t floats = produced.floats(); floats > extent.writes) {
    GrowBuffers(floats);
    zero_vec(buffer_b.data() + extent.writes, floats - extent.writes);
  }
  return produced;
}

void NnetForward::CheckFrames(size_t position, int64_t frames) const {
  if (frames <= frame_limit) return;
  ThrowError(Here(), "too many frames! layer[%s] position[%zu] [%" PRId64 " > %" PRId64 "]",
             nnet->layers[position]->TypeMarker().c_str(), position, frames, frame_limit);
}

void NnetForward::CheckInput(size_t position, const BlockShape& shape, uint64_t reads) const {
  if (reads <= shape.floats()) return;
  const Component& layer = *nnet->layers[position];
  ThrowError(Here(),
             "too little input! layer[%s] position[%zu] reads [%" PRIu64
             "] floats, given [%d channels x %d x %" PRId64 " frames = %" PRIu64 "]",
             layer.TypeMarker().c_str(), position, reads, shape.channels, shape.dim, shape.frames,
             shape.floats());
}

void NnetForward::Reset() {
  cur_frames = 0;
  output_shape = {};
  forward_count = 0;
  for (const auto& layer : nnet->layers) layer->Reset();
}

}  // namespace tarev::nnet::handwriting_CTC
