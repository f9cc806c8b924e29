#include "nnet/flow/frame-copy.h"

#include <cinttypes>
#include <cstdlib>
#include <limits>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {

// What exceeds an int32 stays out of reach.
std::vector<int32_t> ParseIndexes(const std::string& text) {
  if (text.empty()) return {};
  const long index = std::strtol(text.c_str(), nullptr, 10);
  return {static_cast<int32_t>(std::clamp<long>(index, std::numeric_limits<int32_t>::min(),
                                                std::numeric_limits<int32_t>::max()))};
}

int64_t FrameAt(const Component& layer, int32_t index, int64_t frames) {
  const int64_t frame = index < 0 ? index + frames : index;
  if (frame < 0 || frame >= frames) {
    ThrowError(Here(), "frame index out of range! layer[%s] [%d] of [%" PRId64 "] frames",
               layer.TypeMarker().c_str(), index, frames);
  }
  return frame;
}

void CheckIndexes(const Component& layer, const std::vector<int32_t>& indexes, int64_t frames) {
  for (const int32_t index : indexes) FrameAt(layer, index, frames);
}

}  // namespace tarev::nnet::handwriting_CTC
