#ifndef NNET_CONTRACT_FIXED_BLOCK_H_
#define NNET_CONTRACT_FIXED_BLOCK_H_

// Arrays as 8-bit blocks.
//
// Symmetric: a float scale, then one signed byte a value; code q stands for q / scale.
// Asymmetric: a float scale, an int32 zero point, for matrices a float sum of codes a row, then one
// unsigned byte a value; code q stands for (q + zero point) / scale.

#include <cstdint>
#include <cstdio>
#include <vector>

#include "nnet/contract/parameter-block.h"

namespace tarev::nnet::handwriting_CTC {

/// What an array that was read from an 8-bit block keeps, so that writing it gives the same bytes.
struct FixedBlock {
  float scale = 1.0F;
  int32_t zero_point = 0;
  /// As stored. No computation uses them.
  std::vector<float> row_sums;
  /// The codes themselves. After a read they are kept only when the decoded floats cannot give them
  /// back (a zero point too large for a float, a scale of 0).
  std::vector<uint8_t> codes;
};

/// Reads and decodes a block into the array, which is allocated; false when it is cut short.
bool ReadCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form, FixedBlock& block,
                   uint64_t& memory_bytes);
/// Encodes with the scale, zero point and row sums that were read.
bool WriteCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form,
                    const FixedBlock& block);
/// Encodes with scales of its own: symmetric, so that the largest magnitude gets the code 127;
/// asymmetric, so that the values spread over all 256 codes.
bool WriteCodeBlock(FILE* fp, const ParameterRef& parameter, CodeForm form);
/// The bytes that such a block takes in the file; saturates.
size_t CodeBlockBytes(const ParameterRef& parameter, CodeForm form);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_FIXED_BLOCK_H_
