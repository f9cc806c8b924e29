#ifndef NNET_FIXED_AFFINE_H_
#define NNET_FIXED_AFFINE_H_

// The dense layers stored as 8-bit blocks. The codes become floats when they are read; from then on
// the layers compute as their float twins.

#include <cstdint>
#include <vector>

#include "nnet/affine.h"
#include "nnet/parameter-block.h"

namespace tarev::nnet::handwriting_CTC {

/// Bias and weights as asymmetric blocks, kept so that a write gives the bytes that were read.
/// There is no text form.
class FixedAffineTransform final : public DenseLayer<0x800, AffineParameters> {
 public:
  using DenseLayer::DenseLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;

  FixedBlock bias_block;
  FixedBlock weight_block;
};

/// Weights as a symmetric block.
class FixedLinearTransform final : public DenseLayer<0x801, LinearParameters> {
 public:
  using DenseLayer::DenseLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;

  std::vector<FixedBlock> blocks;
};

/// The output scale as a float, weights as a symmetric block.
class FixedEmbedding final : public DenseLayer<0x80b, EmbeddingParameters> {
 public:
  using DenseLayer::DenseLayer;
  bool ReadData(FILE* fp) override;
  bool ReadTextData(FILE* fp, bool binary) override;
  bool WriteData(FILE* fp) const override;

  std::vector<FixedBlock> blocks;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_FIXED_AFFINE_H_
