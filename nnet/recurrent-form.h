#ifndef NNET_RECURRENT_FORM_H_
#define NNET_RECURRENT_FORM_H_

// The two stored forms of a recurrent layer around one computation. `Base` is a layer class that
// knows its arrays (MutableParameters) and the shape in front of them:
//   bool ReadShape(FILE*)      leading fields of the binary block, and the checks on them
//   bool ReadTextShape(FILE*)  the property list of the text form, and the same checks
//   bool WriteShape(FILE*)     leading fields again

#include <cstdint>
#include <cstdio>
#include <vector>

#include "nnet/nnet-component.h"
#include "nnet/parameter-block.h"

namespace tarev::nnet::handwriting_CTC {

/// Parameters as 32-bit floats; the fixed-point write gives symmetric 8-bit blocks.
template <class Base>
class FloatForm : public Base {
 public:
  using Base::Base;
  bool ReadData(FILE* fp) override {
    return this->ReadShape(fp) && ReadFloats(fp, this->MutableParameters(), this->memory_bytes);
  }
  bool ReadTextData(FILE* fp, bool binary) override {
    if (binary) return ReadData(fp);
    if (!this->ReadTextShape(fp)) return false;
    ReadTextFloats(fp, this->MutableParameters(), MatrixOpening::kStrict, this->memory_bytes);
    return true;
  }
  bool WriteData(FILE* fp) const override {
    return this->WriteShape(fp) && WriteFloats(fp, this->Parameters());
  }
  bool WriteFixedData(FILE* fp) const override {
    return this->WriteShape(fp) && WriteSymmetricBlocks(fp, this->Parameters());
  }
};

/// Parameters as symmetric 8-bit blocks, decoded when they are read and written back with the
/// scales that were read.
template <class Base>
class FixedForm : public Base {
 public:
  using Base::Base;
  bool ReadData(FILE* fp) override {
    return this->ReadShape(fp) &&
           ReadSymmetricBlocks(fp, this->MutableParameters(), block_scales, this->memory_bytes);
  }
  bool ReadTextData(FILE* fp, bool binary) override {
    if (binary) return ReadData(fp);
    if (!this->ReadTextShape(fp)) return false;
    ReadTextFixed(fp, this->MutableParameters(), MatrixOpening::kStrict, block_scales,
                  this->memory_bytes);
    return true;
  }
  bool WriteData(FILE* fp) const override {
    return this->WriteShape(fp) && WriteSymmetricBlocks(fp, this->Parameters(), block_scales);
  }

  std::vector<FixedBlock> block_scales;
};

/// A property list with "<CellDim>", and "<ClipGradient>" where a layer's exporter writes that too:
/// it has a meaning for training only.
enum class ClipProperty { kNone, kIgnored };
void ReadCellDim(FILE* fp, ClipProperty clip, int32_t* cell_dim);

/// The gate rows of a call, for layers that own them. Grows, never shrinks; contents are not kept.
struct GateBuffer {
  FloatArray gate_buffer;
  int64_t frame_capacity = 0;

  void ReserveGates(int64_t frames, size_t gate_dim, uint64_t& memory_bytes);
};

/// The arrays of two directions, one after the other.
ParameterList Join(ParameterList first, const ParameterList& second);

/// Allocates a state vector, zero-filled, the first time.
void AllocateState(FloatArray& state, size_t count, uint64_t& memory_bytes);
/// Zeroes the first `count` values of a state; one that is not allocated yet is skipped.
void ClearState(FloatArray& state, size_t count);

/// Gate rows of all frames of a call: in * weights' + bias.
void InputGates(const float* in, size_t frames, size_t input_dim, const FloatArray& weights,
                const FloatArray& bias, size_t gate_dim, float* gates);

/// Sequence index of the k-th step of a direction over `frames` frames.
enum class Direction { kForward, kBackward };
constexpr size_t StepIndex(Direction direction, size_t k, size_t frames) {
  return direction == Direction::kForward ? k : frames - 1 - k;
}

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RECURRENT_FORM_H_
