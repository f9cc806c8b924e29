#ifndef NNET_CONTRACT_FIXED_BLOCK_H_
#define NNET_CONTRACT_FIXED_BLOCK_H_

// Arrays as 8-bit blocks.
//
//   Symmetric: a float scale, then one signed byte a value; code q means q / scale.
//   Asymmetric: a float scale, an int32 zero point, for matrices a float sum of codes for each row,
//   then one unsigned byte a value; code q means (q + zero point) / scale.
//
// The codes of a weight matrix stay codes in memory, and products with it are formed from them (see
// code-kernels.h). Other arrays are decoded when they are read.

#include <cstdint>
#include <cstdio>
#include <vector>

#include "nnet/contract/parameter-block.h"

namespace tarev::nnet::handwriting_CTC {

/// What is kept of the 8-bit block that an array was read from, so that a write gives the same
/// bytes.
struct FixedBlock {
  float scale = 1.0F;
  int32_t zero_point = 0;
  /// As stored, one a row; empty for vectors and in symmetric form. No computation uses them.
  std::vector<float> row_sums;
  /// The codes, where they were decoded when they were read and encoding the floats does not give
  /// them back (a zero point too large for a float, a scale of 0).
  std::vector<uint8_t> codes;
};

/// Reads a block into the array or matrix, which is allocated and counted in memory_bytes. False
/// when the block is cut short. The shape must have been compared with the rest of the file.
bool ReadCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form, FixedBlock& block,
                   uint64_t& memory_bytes);
/// Writes with the scale, zero point and row sums that were read, and the codes where they are
/// kept.
bool WriteCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form,
                    const FixedBlock& block);
/// Encodes with scales that fit the values: symmetric, so that the largest magnitude gets the code
/// 127; asymmetric, so that the values spread over all 256 codes. Both write functions return false
/// on the first failed write.
bool WriteCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form);
/// The bytes that such a block takes in the file. rows x cols must be known not to wrap around.
size_t CodeBlockBytes(const ParameterRef& parameter, CodeForm form);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_FIXED_BLOCK_H_
