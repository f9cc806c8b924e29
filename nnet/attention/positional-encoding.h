#ifndef NNET_ATTENTION_POSITIONAL_ENCODING_H_
#define NNET_ATTENTION_POSITIONAL_ENCODING_H_

#include <cstdint>

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// Sinusoidal positions (Vaswani et al. 2017): adds to frame t of every call row t of a fixed
/// table, which is sin(t w_k) in column 2k and cos(t w_k) in column 2k + 1, with
///   w_k = 10000^(-2k / width).
/// Every call starts at position 0.
class PositionalEncoding final : public LayerOf<0x108> {
 public:
  using LayerOf::LayerOf;

  bool Validate(Refusal& why) override { return why.SameWidth(input_dim, output_dim); }
  CallPlan Plan(int64_t frames, int in_dim) const override;
  void PropagateFnc(const float* in, int64_t frames, int in_dim, float* out, int call_id) override;

  /// Rows for as many positions as a call has needed so far. The table grows when a call brings
  /// frames, not when room is reserved for them: a header may claim any width, since the layer has
  /// no parameters.
  FloatArray position_table;
  /// The table has table_rows x table_dim values.
  int64_t table_rows = 0;
  int32_t table_dim = 0;

 private:
  /// Makes the table cover `rows` positions of width `dim`.
  void GrowTable(int64_t rows, int32_t dim);
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_ATTENTION_POSITIONAL_ENCODING_H_
