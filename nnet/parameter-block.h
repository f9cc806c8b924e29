#ifndef NNET_PARAMETER_BLOCK_H_
#define NNET_PARAMETER_BLOCK_H_

// Walks over the arrays of a parameter block. A layer says its arrays once, in file order; these
// helpers read and write them in each form that the model format knows. Every reader compares a
// block with the rest of the file before it allocates, and adds what it allocates to
// `memory_bytes`.

#include <cstdint>
#include <cstdio>
#include <span>
#include <vector>

#include "nnet/nnet-component.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

// 32-bit floats.
bool ReadFloats(FILE* fp, const ParameterList& list, uint64_t& memory_bytes);
bool WriteFloats(FILE* fp, const ConstParameterList& list);

// IEEE 754 binary16, held as 32-bit floats in memory.
bool ReadHalfFloats(FILE* fp, const ParameterList& list, uint64_t& memory_bytes);
bool WriteHalfFloats(FILE* fp, const ConstParameterList& list);

/// Bracketed text matrices. Throws as the matrix reader does.
void ReadTextFloats(FILE* fp, const ParameterList& list, MatrixOpening opening,
                    uint64_t& memory_bytes);

/// `count` text matrices of rows x cols values each, one after another in one array.
void ReadTextMatrices(FILE* fp, FloatArray& array, size_t count, int rows, int cols,
                      uint64_t& memory_bytes);

/// Points the arrays into an image of 32-bit floats and advances the cursor; false when it is not
/// aligned for them.
bool MapFloats(const char** cursor, const ParameterList& list, uint64_t& memory_bytes);

/// What an array that was read from an 8-bit block keeps, so that writing it gives the same bytes.
struct FixedBlock {
  float scale = 1.0F;
  int32_t zero_point = 0;
  /// One per row of an asymmetric weight matrix, as stored. No computation uses them.
  std::vector<float> row_sums;
  /// The codes themselves. After a read they are kept only when the decoded floats cannot give them
  /// back (a zero point too large for a float, a scale of 0).
  std::vector<uint8_t> codes;
};

// Symmetric form: a float scale, then one signed byte a value; code q stands for q / scale.
bool ReadSymmetricBlock(FILE* fp, const ParameterRef& parameter, FixedBlock& block,
                        uint64_t& memory_bytes);
/// Encodes with the scale that gives the largest magnitude the code 127.
bool WriteSymmetricBlock(FILE* fp, const ConstParameterRef& parameter);
/// Encodes with the scale that was read.
bool WriteSymmetricBlock(FILE* fp, const ConstParameterRef& parameter, const FixedBlock& block);

// Asymmetric form: a float scale, an int32 zero point, for weight matrices a float row sum of codes
// per row, then one unsigned byte a value; code q stands for (q + zero point) / scale.
enum class RowSums { kNone, kPerRow };
bool ReadAsymmetricBlock(FILE* fp, const ParameterRef& parameter, RowSums sums, FixedBlock& block,
                         uint64_t& memory_bytes);
/// Encodes with the scale that spreads the values over all 256 codes.
bool WriteAsymmetricBlock(FILE* fp, const ConstParameterRef& parameter, RowSums sums);
/// Encodes with the scale, zero point and row sums that were read.
bool WriteAsymmetricBlock(FILE* fp, const ConstParameterRef& parameter, const FixedBlock& block);

// The symmetric form over a whole list.
bool ReadSymmetricBlocks(FILE* fp, const ParameterList& list, std::vector<FixedBlock>& blocks,
                         uint64_t& memory_bytes);
bool WriteSymmetricBlocks(FILE* fp, const ConstParameterList& list);
bool WriteSymmetricBlocks(FILE* fp, const ConstParameterList& list,
                          const std::vector<FixedBlock>& blocks);
/// Text matrices whose values stay as they are read; only the scale of each block is derived.
void ReadTextFixed(FILE* fp, const ParameterList& list, MatrixOpening opening,
                   std::vector<FixedBlock>& blocks, uint64_t& memory_bytes);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_PARAMETER_BLOCK_H_
