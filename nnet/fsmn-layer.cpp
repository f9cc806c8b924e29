#include "nnet/fsmn-layer.h"

#include <algorithm>
#include <cinttypes>
#include <limits>

#include "nnet/fsmn-kernels.h"
#include "nnet/parameter-block.h"
#include "utils/file-io.h"
#include "utils/messages.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

int64_t Fsmn::CalcOutputFrames(int64_t in_frames) const {
  return std::max<int64_t>(0, in_frames - LeftContext() - RightContext());
}

void Fsmn::Reserve(int64_t frames) {
  if (frames <= frame_capacity) return;
  memory_buffer.Grow(BlockFloats(1, dim, frames), memory_bytes);
  frame_capacity = frames;
}

// Counts beyond 32 bits are more than any call can carry.
bool Fsmn::SetShape() {
  constexpr int64_t kMost = std::numeric_limits<int32_t>::max();
  dim = input_dim;
  return dim >= 1 && output_dim == dim && l_order >= 0 && r_order >= 0 && stride >= 0 &&
         depend <= 0 && Taps() <= kMost && LeftContext() <= kMost && RightContext() <= kMost;
}

ParameterList Fsmn::MutableParameters() { return {{&filter, ToSize(Taps()), ToSize(dim)}}; }

bool Fsmn::ReadData(FILE* fp) {
  return ReadValues(fp, l_order, r_order, stride, depend) && SetShape() &&
         ReadFloats(fp, MutableParameters(), memory_bytes);
}

bool Fsmn::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  PropertyTable properties;
  AddProperty(properties, "<LearnRateCoef>", "f", nullptr);
  AddProperty(properties, "<LOrder>", "i", &l_order);
  AddProperty(properties, "<ROrder>", "i", &r_order);
  AddProperty(properties, "<Stride>", "i", &stride);
  AddProperty(properties, "<Depend>", "i", &depend);
  ReadProperties(fp, properties);
  if (depend > 0) LogWarning(Here(), "Fsmn layer _depend must <= 0!");
  if (!SetShape()) return false;
  ReadTextFloats(fp, MutableParameters(), MatrixOpening::kLenient, memory_bytes);
  return true;
}

bool Fsmn::WriteData(FILE* fp) const {
  return WriteValues(fp, l_order, r_order, stride, depend) && WriteFloats(fp, Parameters());
}

std::string Fsmn::Links() const {
  return depend == 0 ? std::string() : "memory of Fsmn " + std::to_string(depend);
}

void Fsmn::LinkTo(const Fsmn& source, int64_t offset) {
  if (source.dim != dim) {
    ThrowError(Here(), "mismatched fsmn memory! layer[%s] [%d] vs [%d]", TypeMarker().c_str(), dim,
               source.dim);
  }
  skip_source = &source;
  skip_offset = offset;
}

void Fsmn::Unlink() {
  skip_source = nullptr;
  skip_offset = -1;
}

// Layers between two blocks may change the number of frames, so the rows are counted on every call.
void Fsmn::CheckSkip(int64_t out_frames) const {
  if (depend == 0) return;
  if (skip_source == nullptr) {
    ThrowError(Here(), "fsmn is not linked to its dependency! [%d]", depend);
  }
  if (out_frames + skip_offset > skip_source->output_frames) {
    ThrowError(Here(), "too few fsmn memory rows! [needed:%" PRId64 ", produced:%" PRId64 "]",
               out_frames + skip_offset, skip_source->output_frames);
  }
}

void Fsmn::PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int /*call_id*/) {
  output_frames = 0;  // until the rows stand: others read as many
  RequireWidth(dim, in_dim);
  const int64_t out_frames = frames - LeftContext() - RightContext();
  if (out_frames <= 0) {
    ThrowError(Here(),
               "too few input frames! [frames:%" PRId64 ", left:%" PRId64 ", right:%" PRId64 "]",
               frames, LeftContext(), RightContext());
  }
  CheckSkip(out_frames);
  Reserve(frames);
  const size_t n = ToSize(out_frames);
  const size_t width = ToSize(dim);
  fsmn_frames({filter.data(), ToSize(Taps()), ToSize(l_order), ToSize(stride), width}, in, n,
              memory_buffer.data(), out);
  if (skip_source != nullptr) {
    const float* skip = skip_source->memory_buffer.data() + ToSize(skip_offset) * width;
    add_vec_to_rows(out, 1, n * width, skip, 1.0F);
  }
  output_frames = out_frames;
}

}  // namespace tarev::nnet::handwriting_CTC
