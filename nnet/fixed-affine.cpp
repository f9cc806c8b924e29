#include "nnet/fixed-affine.h"

#include "utils/file-io.h"

namespace tarev::nnet::handwriting_CTC {

bool FixedAffineTransform::ReadData(FILE* fp) {
  return SetShape(*this) &&
         ReadAsymmetricBlock(fp, BiasRef(), RowSums::kNone, bias_block, memory_bytes) &&
         ReadAsymmetricBlock(fp, WeightRef(), RowSums::kPerRow, weight_block, memory_bytes);
}

bool FixedAffineTransform::ReadTextData(FILE* /*fp*/, bool /*binary*/) { return false; }

bool FixedAffineTransform::WriteData(FILE* fp) const {
  const ConstParameterList list = Parameters();
  return WriteAsymmetricBlock(fp, list[0], bias_block) &&
         WriteAsymmetricBlock(fp, list[1], weight_block);
}

bool FixedLinearTransform::ReadData(FILE* fp) {
  return SetShape(*this) && ReadSymmetricBlocks(fp, MutableParameters(), blocks, memory_bytes);
}

bool FixedLinearTransform::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetShape(*this)) return false;
  ReadTextFixed(fp, MutableParameters(), MatrixOpening::kLenient, blocks, memory_bytes);
  return true;
}

bool FixedLinearTransform::WriteData(FILE* fp) const {
  return WriteSymmetricBlocks(fp, Parameters(), blocks);
}

bool FixedEmbedding::ReadData(FILE* fp) {
  return ReadValues(fp, scale) && SetShape(*this) &&
         ReadSymmetricBlocks(fp, MutableParameters(), blocks, memory_bytes);
}

bool FixedEmbedding::ReadTextData(FILE* fp, bool binary) {
  if (binary) return ReadData(fp);
  if (!SetShape(*this)) return false;
  ReadScaleProperty(fp);
  ReadTextFixed(fp, MutableParameters(), MatrixOpening::kLenient, blocks, memory_bytes);
  return true;
}

bool FixedEmbedding::WriteData(FILE* fp) const {
  return WriteValues(fp, scale) && WriteSymmetricBlocks(fp, Parameters(), blocks);
}

}  // namespace tarev::nnet::handwriting_CTC
