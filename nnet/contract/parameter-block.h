#ifndef NNET_CONTRACT_PARAMETER_BLOCK_H_
#define NNET_CONTRACT_PARAMETER_BLOCK_H_

// The description of a parameter block. A layer describes its block once: the fields, the arrays
// after them, the nested components and how its arrays are stored. Binary and text reading,
// writing, fixed-point writing and mapping are walks of that description, declared at the end.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "nnet/base/nnet-util.h"
#include "nnet/base/weight-matrix.h"
#include "nnet/contract/refusal.h"
#include "utils/utils.h"

namespace tarev::nnet::handwriting_CTC {

class Component;

/// A dimension as a size; a negative one counts as none.
constexpr size_t ToSize(std::integral auto n) { return n > 0 ? static_cast<size_t>(n) : 0; }

/// A part of a block with a format of its own, which the walks hand over to the layer. Readers
/// return false on a short read or a failed check and give the reason in `why`; the text reader may
/// also throw. A part without a text form keeps the default and reads nothing there.
class CustomPart {
 public:
  CustomPart() = default;
  CustomPart(const CustomPart&) = default;
  CustomPart& operator=(const CustomPart&) = default;
  virtual ~CustomPart() = default;

  virtual bool ReadPart(FILE* fp, Refusal& why) = 0;
  virtual bool ReadTextPart(FILE* /*fp*/, Refusal& /*why*/) { return true; }
  virtual bool WritePart(FILE* fp) const = 0;
};

/// In which forms of a block a field occurs.
enum class FieldUse {
  kOptional,    // in both forms; the text form may leave it out
  kRequired,    // in both forms
  kTextOnly,    // optional in the text form, absent from the binary one
  kBinaryOnly,  // absent from the text form
};

/// A value before the arrays. Its type in the file follows from the member's: int32, float, one
/// byte for a bool, a byte count and the bytes for a string. `name` is that of the text property; a
/// field without one carries a description, which only reasons show. A null int32 pointer is read
/// from the text form and dropped.
struct Field {
  const char* name;
  std::variant<int32_t*, float*, bool*, std::string*, CustomPart*> value;
  FieldUse use = FieldUse::kOptional;
};
using FieldList = std::vector<Field>;

/// A property that exporters write into the text form and that has no meaning here.
inline Field IgnoredField(const char* name) {
  return {name, static_cast<int32_t*>(nullptr), FieldUse::kTextOnly};
}

/// The next rows of an array in the order of the file; null when it is cut short.
using NextRows = std::function<const float*(size_t rows)>;

/// The order in which an array is held in memory, where it is not that of the file: Hold turns what
/// is read into what the layer computes with, Stored turns it back for a write.
class ArrayOrder {
 public:
  ArrayOrder() = default;
  ArrayOrder(const ArrayOrder&) = default;
  ArrayOrder& operator=(const ArrayOrder&) = default;
  virtual ~ArrayOrder() = default;

  /// Floats that are held, and their values from all rows of the array, which are asked for in
  /// turn. False when the file is cut short.
  virtual size_t HeldFloats() const = 0;
  virtual bool Hold(const NextRows& next, float* held) const = 0;
  virtual std::vector<float> Stored(const FloatArray& held) const = 0;
};

/// The shape of one bracketed matrix of the text form.
struct TextShape {
  int rows;
  int cols;
};

/// One array of a block: where its values are kept and the shape that the file gives them. Weights
/// that rows are multiplied with are kept in a matrix, everything else in an array of floats; the
/// other pointer is null.
struct ParameterRef {
  const char* name;
  FloatArray* array;
  WeightMatrix* weights;
  size_t rows;
  size_t cols;
  /// Vectors have one row, and no row sums in asymmetric 8-bit form.
  bool is_matrix;
  /// Whether the text form has it before the other arrays.
  bool text_first = false;
  /// Whether each row of the array is a bracketed matrix of its own in the text form, of the shape
  /// text_row.
  bool text_by_row = false;
  TextShape text_row = {1, 0};
  /// The order in which it is held; null where that is the order of the file. Not owned.
  const ArrayOrder* order = nullptr;
  /// Whether it counts in memory_bytes.
  bool counted = true;

  /// Values in the file. Of meaning once the shape is known not to wrap around.
  size_t count() const { return rows * cols; }
};
using ParameterList = std::vector<ParameterRef>;

inline ParameterRef Matrix(const char* name, FloatArray& array, std::integral auto rows,
                           std::integral auto cols) {
  return {.name = name,
          .array = &array,
          .weights = nullptr,
          .rows = ToSize(rows),
          .cols = ToSize(cols),
          .is_matrix = true};
}
inline ParameterRef Matrix(const char* name, WeightMatrix& weights, std::integral auto rows,
                           std::integral auto cols) {
  return {.name = name,
          .array = nullptr,
          .weights = &weights,
          .rows = ToSize(rows),
          .cols = ToSize(cols),
          .is_matrix = true};
}
inline ParameterRef Vector(const char* name, FloatArray& array, std::integral auto size) {
  ParameterRef vector = Matrix(name, array, 1, size);
  vector.is_matrix = false;
  return vector;
}
/// `count` matrices of the shape, each of them bracketed in the text form.
inline ParameterRef Matrices(const char* name, FloatArray& array, int64_t count, TextShape shape,
                             const ArrayOrder* order = nullptr) {
  ParameterRef matrices = Matrix(name, array, count, int64_t{shape.rows} * shape.cols);
  matrices.text_by_row = true;
  matrices.text_row = shape;
  matrices.order = order;
  return matrices;
}
/// The same array, left out of memory_bytes.
inline ParameterRef Uncounted(ParameterRef parameter) {
  parameter.counted = false;
  return parameter;
}
/// Allocates an array or a matrix of floats, counted in memory_bytes, and gives it the values,
/// which are in the order of the file.
void KeepValues(const ParameterRef& parameter, const std::vector<float>& values,
                uint64_t& memory_bytes);
/// The values of an array in the order of the file, decoded where it is held as codes.
std::vector<float> StoredValues(const ParameterRef& parameter);
/// The arrays of both lists, those of `first` before the others.
ParameterList Join(ParameterList first, const ParameterList& second);

/// A complete component that a block contains; null until it is read.
using NestedLayer = std::unique_ptr<Component>;

/// A complete component inside a block, under the name that messages give it.
struct NestedRef {
  const char* name;
  NestedLayer* layer;
};
using NestedList = std::vector<NestedRef>;

/// How a float array is stored in the binary form.
enum class FloatForm { kSingle, kHalf };
/// What the fixed-point write makes of an array, and how a fixed-point layer stores it; see
/// fixed-block.h. kNone keeps floats.
enum class CodeForm { kNone, kSymmetric, kAsymmetric };

/// What holds for all arrays of a block; `opening` is that of matrices in the text form.
struct BlockForm {
  FloatForm floats = FloatForm::kSingle;
  CodeForm codes = CodeForm::kNone;
  MatrixOpening opening = MatrixOpening::kStrict;
};

// The walks. Readers compare an array with the rest of the file before they allocate it, check the
// fields before the arrays (Component::Validate), and answer false with the reason in `why`. The
// text reader also throws, as the readers of properties and matrices do. Writers answer false on
// the first failed write.

bool ReadBlock(FILE* fp, Component& layer, Refusal& why);
bool ReadTextBlock(FILE* fp, Component& layer, Refusal& why);
bool WriteBlock(FILE* fp, const Component& layer);
/// Writes 8-bit blocks where the layer's form has them and floats elsewhere; nested components in
/// their fixed-point form.
bool WriteFixedBlock(FILE* fp, const Component& layer);
/// Points the arrays into an image of the binary block, which holds int32 fields and 32-bit floats,
/// and advances the cursor. Counts the mapped bytes in memory_bytes. False, with the cursor where
/// it was, when the fields fail their check or the floats are not aligned. Bounds are not checked:
/// the image must be complete.
bool MapBlock(const char** cursor, Component& layer);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_PARAMETER_BLOCK_H_
