#ifndef NNET_BASE_WEIGHT_MATRIX_H_
#define NNET_BASE_WEIGHT_MATRIX_H_

// The weights of a layer that are multiplied with rows of input.

#include <cstddef>
#include <cstdint>

#include "nnet/base/code-kernels.h"
#include "nnet/base/nnet-util.h"
#include "nnet/base/panel-kernels.h"
#include "nnet/base/strided-rows.h"

namespace tarev::nnet::handwriting_CTC {

/// A matrix of outputs x inputs, a row an output in the file. It is packed when it is read: held in
/// panels (panel-kernels.h), as floats, as binary16 or as 8-bit codes, in the precision of the
/// file; the rows as they lie in the file are not kept. A mapped matrix is a view of rows of
/// floats, never freed and never written.
///
/// Products of packed matrices have the same bits on every vector target with fused multiply-add,
/// for any number of rows; those of a mapped one round as the BLAS library does (products.h).
class WeightMatrix {
 public:
  enum class Form { kSingle, kHalf, kCodes, kMapped };

  /// Replaces the contents by a packed matrix whose rows are then put. The bytes that it takes are
  /// added to memory_bytes. Throws "alloc memory failed!" and keeps the contents then.
  void Allocate(Form form, size_t outputs, size_t inputs, uint64_t& memory_bytes);
  /// The same with 8-bit codes, of which code q means (q + offset) / scale. The scale is one that
  /// HoldsCodes accepts.
  void AllocateCodes(size_t outputs, size_t inputs, float scale, int32_t offset,
                     uint64_t& memory_bytes);
  /// Whether all codes of 8 bits mean finite weights that integer products can be scaled to.
  static bool HoldsCodes(float scale, int32_t offset);
  /// Drops the contents and views `outputs` rows of `inputs` floats.
  void Map(const float* rows, size_t outputs, size_t inputs) noexcept;

  /// Puts `count` rows from row `first` on, in the form that the matrix has. Every row is put once.
  void Put(size_t first, size_t count, const float* rows);
  void Put(size_t first, size_t count, const uint16_t* rows);
  void Put(size_t first, size_t count, const uint8_t* rows);
  /// The rows again. As floats in any form, as halves or codes in that form only.
  void Get(size_t first, size_t count, float* rows) const;
  void Get(size_t first, size_t count, uint16_t* rows) const;
  void Get(size_t first, size_t count, uint8_t* rows) const;

  /// out (rows x outputs) = in (rows x inputs) W', ended as `end` says. `out` overlaps nothing else
  /// but for a bias as ProductEnd has it. One thread at a time.
  void Multiply(StridedRows<const float> in, size_t rows, const ProductEnd& end,
                const StridedRows<float>& out);

  Form form() const { return form_; }
  size_t outputs() const { return outputs_; }
  size_t inputs() const { return inputs_; }

 private:
  Panels<float> Singles() const { return {values_.data(), outputs_, inputs_}; }
  Panels<uint16_t> Halves() const;
  CodePanels Codes() const;
  void MultiplyCodes(StridedRows<const float> in, size_t rows, const ProductEnd& end,
                     const StridedRows<float>& out);
  void MultiplyMapped(StridedRows<const float> in, size_t rows, const ProductEnd& end,
                      const StridedRows<float>& out) const;

  Form form_ = Form::kSingle;
  size_t outputs_ = 0;
  size_t inputs_ = 0;
  /// The panels, or the view.
  FloatArray values_;
  float scale_ = 1.0F;
  int32_t offset_ = 0;
  /// Room for the digits of a row that is too long for the stack.
  FloatArray digits_;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_WEIGHT_MATRIX_H_
