// Any shapes and values for the kernels and named operations under the layers: on every vector
// target they give what their plain forms give, and touch nothing else.

#include <algorithm>
#include <cmath>
#include <functional>

#include <loguru.hpp>

#include "bench/plain-kernels.h"
#include "ctc/score-records.h"
#include "nnet/base/element-kernels.h"
#include "nnet/base/nnet-util.h"
#include "nnet/base/products.h"
#include "nnet/base/weight-matrix.h"
#include "nnet/dense/normalisation-kernels.h"
#include "tests/fuzz/input.h"
#include "tests/support/chosen-target.h"
#include "utils/half-float.h"

namespace {

using namespace handwriting::fuzz;   // NOLINT(google-build-using-namespace)
using namespace handwriting::tests;  // NOLINT(google-build-using-namespace)
namespace runtime = tarev::nnet::handwriting_CTC;
using Values = std::vector<float>;

/// What to run. Values that the input brings take the place of those made from `values`.
struct Call {
  uint8_t what;
  uint8_t rows;
  uint8_t cols;
  uint8_t inner;
  uint8_t gap;
  uint8_t factor;
  uint8_t values;
  uint8_t form;
  const uint8_t* brought;
  size_t brought_bytes;

  size_t Rows() const { return rows % 40; }
  size_t Cols() const { return cols % 150; }
  size_t Inner() const { return inner; }
  size_t Gap() const { return gap % 5; }
  /// -2 to 2, with 0 and 1 among them.
  float Factor() const { return static_cast<float>(factor % 9) / 2.0F - 2.0F; }

  Values ValuesOf(size_t count, uint8_t seed = 0) const {
    Values made = Features(count, static_cast<uint8_t>(values + 3 * seed));
    const size_t taken = seed == 0 ? std::min(brought_bytes / sizeof(float), count) : 0;
    if (taken > 0) std::memcpy(made.data(), brought, taken * sizeof(float));
    return made;
  }
};
constexpr size_t kCallBytes = 8;

bool IsSame(float a, float b) {
  return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

void RequireSame(const Values& given, const Values& wanted, const char* what) {
  Require(std::ranges::equal(given, wanted, IsSame), what);
}

/// Whether sums of the products of such values say anything about rounding.
bool IsTame(const Values& values) {
  return std::ranges::all_of(values, [](float x) { return std::fabs(x) < 1e3F; });
}

void CheckElements(const Call& call) {
  const size_t rows = call.Rows(), cols = call.Cols();
  const float alpha = call.Factor();
  const Values in = call.ValuesOf(rows * cols);
  const auto check = [&](const char* name, const std::function<float(float)>& plain,
                         const std::function<void(float*)>& kernel) {
    Values wanted(in.size());
    std::ranges::transform(in, wanted.begin(), plain);
    Values out(in.size());
    kernel(out.data());
    RequireSame(out, wanted, name);
  };
  const float* x = in.data();
  check("sigmoid", PlainSigmoid, [&](float* y) { runtime::fast_sigmoid(x, rows, cols, y); });
  check("tanh", PlainTanh, [&](float* y) { runtime::fast_tanh(x, rows, cols, y); });
  check("logarithm", PlainLog, [&](float* y) { runtime::fast_log(x, rows, cols, y); });
  check(
      "relu", [](float v) { return 0.0F < v ? v : 0.0F; },
      [&](float* y) { runtime::relu(x, rows, cols, y); });
  check(
      "prelu", [&](float v) { return v > 0.0F ? v : v * alpha; },
      [&](float* y) { runtime::prelu(x, rows, cols, y, alpha); });
  check(
      "zeros", [](float) { return 0.0F; }, [&](float* y) { runtime::zero_vec(y, in.size()); });
  check(
      "squares", [](float v) { return v * v; },
      [&](float* y) {
        std::ranges::copy(in, y);
        runtime::pow_in_place(y, in.size(), 2.0F);
      });
  check(
      "powers", [](float v) { return std::pow(v, 1.5F); },
      [&](float* y) {
        std::ranges::copy(in, y);
        runtime::pow_in_place(y, in.size(), 1.5F);
      });

  Values roots = in;
  runtime::pow_in_place(roots.data(), roots.size(), 0.5F);
  bool ended = false;
  for (size_t i = 0; i < in.size(); ++i) {
    ended = ended || in[i] < 0.0F;
    Require(IsSame(roots[i], ended ? in[i] : std::sqrt(in[i])), "roots");
  }
  if (!in.empty()) {
    float largest = in[0];
    for (const float value : in) largest = value > largest ? value : largest;
    Require(IsSame(runtime::max_of(x, in.size()), largest), "the largest value");
  }
}

void CheckRows(const Call& call) {
  const size_t rows = call.Rows(), cols = call.Cols();
  const float factor = call.Factor();
  const Values in = call.ValuesOf(rows * cols);
  const Values row = call.ValuesOf(cols, 1);
  Values wanted(in.size());
  Values out(in.size());
  if (cols > 0) {
    PlainSoftmax(in.data(), rows, cols, wanted.data());
    runtime::fast_softmax(in.data(), rows, cols, out.data());
    RequireSame(out, wanted, "softmax");
    PlainLogSoftmax(in.data(), rows, cols, wanted.data());
    out = in;
    runtime::fast_log_softmax(out.data(), rows, cols, out.data());
    RequireSame(out, wanted, "logarithm of a softmax");
  }
  const auto by_row = [&](auto operation) {
    for (size_t i = 0; i < in.size(); ++i) wanted[i] = operation(in[i], row[i % cols]);
    out = in;
  };
  by_row([&](float x, float v) { return v * factor + x; });
  runtime::add_vec_to_rows(out.data(), rows, cols, row.data(), factor);
  RequireSame(out, wanted, "a vector added to rows");
  by_row([&](float x, float v) { return x * factor * v; });
  runtime::mul_vec_to_rows(out.data(), rows, cols, row.data(), factor);
  RequireSame(out, wanted, "rows times a vector");

  const size_t step = 1 + call.inner % 4;
  const size_t span = step * (1 + call.gap % 4);
  wanted = in;
  for (size_t r = 0; r + span - step < rows; ++r) {
    for (size_t k = step; k < span; k += step) {
      for (size_t c = 0; c < cols; ++c) wanted[r * cols + c] += in[(r + k) * cols + c];
    }
  }
  out = in;
  runtime::sum_strided_rows(out.data(), rows, cols, step, span);
  RequireSame(out, wanted, "sums of rows");

  if (cols > 0) {
    const Values gamma = call.ValuesOf(cols, 2);
    const float epsilon = 1e-3F;
    for (size_t r = 0; r < rows; ++r) {
      PlainLayerNorm(in.data() + r * cols, cols, gamma.data(), row.data(), epsilon,
                     wanted.data() + r * cols);
    }
    runtime::layer_norm(in.data(), rows, cols, gamma.data(), row.data(), epsilon, out.data());
    RequireSame(out, wanted, "layer normalisation");
  }
  for (size_t r = 0; r < rows && IsTame(in) && cols > 1; ++r) {
    double sum = 0.0, squares = 0.0, rest = 0.0;
    for (size_t c = 0; c < cols; ++c) {
      sum += double{in[r * cols + c]};
      squares += double{in[r * cols + c]} * double{in[r * cols + c]};
    }
    const double mean = runtime::cal_mean(sum, cols);
    for (size_t c = 0; c < cols; ++c) rest += std::pow(double{in[r * cols + c]} - mean, 2.0);
    const double deviation = runtime::std_deviation(sum, squares, cols);
    const double difference = deviation * deviation - rest / static_cast<double>(cols - 1);
    Require(std::fabs(difference) <= 1e-9 * (1.0 + squares), "the deviation");
  }
}

void CheckMoves(const Call& call) {
  const size_t rows = call.Rows(), cols = call.Cols();
  const Values in = call.ValuesOf(rows * cols);
  Values out(in.size());
  runtime::transpose(in.data(), out.data(), rows, cols);
  for (size_t i = 0; i < in.size(); ++i) {
    Require(IsSame(out[i % cols * rows + i / cols], in[i]), "the transpose");
  }
  runtime::transpose_in_place(out.data(), cols, rows);
  RequireSame(out, in, "the transpose of the transpose");

  const size_t heads = 1 + call.form % 4, head_dim = 1 + call.inner % 40, width = heads * head_dim;
  const Values joined = call.ValuesOf(rows * width);
  Values split = joined;
  runtime::split_heads(split.data(), rows, width, head_dim);
  for (size_t i = 0; i < joined.size(); ++i) {
    const size_t row = i / width, head = i % width / head_dim, at = i % head_dim;
    Require(IsSame(split[(head * rows + row) * head_dim + at], joined[i]), "heads");
  }

  const size_t to_cols = call.inner, from = call.gap, to = call.factor, count = call.form;
  const Values before = call.ValuesOf(rows * to_cols, 1);
  Values after = before;
  runtime::copy_columns(in.data(), rows, cols, after.data(), rows, to_cols, from, to, count);
  const bool fits = from + count <= cols && to + count <= to_cols;
  for (size_t i = 0; i < after.size(); ++i) {
    const size_t row = i / to_cols, column = i % to_cols;
    const bool is_copy = fits && column >= to && column < to + count;
    Require(IsSame(after[i], is_copy ? in[row * cols + from + column - to] : before[i]), "columns");
  }
}

/// A matrix in memory, with a gap between rows that no operation may touch.
struct Matrix {
  Matrix(Values content, size_t row_count, size_t col_count, size_t gap)
      : rows(row_count), cols(col_count), stride(col_count + gap), values(std::move(content)) {}
  Matrix(const Call& call, uint8_t seed, size_t row_count, size_t col_count, size_t gap)
      : Matrix(call.ValuesOf(row_count * (col_count + gap), seed), row_count, col_count, gap) {}

  double At(size_t r, size_t c) const { return double{values[r * stride + c]}; }
  runtime::StridedRows<const float> In() const { return {values.data(), stride}; }
  runtime::StridedRows<float> Out() { return {values.data(), stride}; }

  size_t rows, cols, stride;
  Values values;
};

/// Requires given = alpha * sum over `inner` terms + beta * before, as exactly as floats can be.
template <class Term>
void RequireProduct(const Matrix& given, const Matrix& before, size_t inner, float alpha,
                    float beta, Term term) {
  for (size_t i = 0; i < given.values.size(); ++i) {
    const size_t r = i / given.stride, c = i % given.stride;
    if (c >= given.cols) {
      Require(IsSame(given.values[i], before.values[i]), "what lies beside a product");
      continue;
    }
    double sum = 0.0, magnitude = 1.0;
    for (size_t k = 0; k < inner; ++k) {
      sum += term(r, c, k);
      magnitude += std::fabs(term(r, c, k));
    }
    const double rest = beta == 0.0F ? 0.0 : double{beta} * before.At(r, c);
    const double difference = given.At(r, c) - (double{alpha} * sum + rest);
    Require(std::fabs(difference) <= 1e-5 * (magnitude + std::fabs(rest)), "a product");
  }
}

void CheckProducts(const Call& call) {
  const size_t m = call.Rows(), n = call.Cols(), k = call.Inner(), gap = call.Gap();
  const float alpha = call.Factor(), beta = call.form % 3 == 0 ? 0.0F : 0.5F;
  const Matrix a(call, 0, m, k, gap), b(call, 1, k, n, gap), b_trans(call, 2, n, k, gap);
  const Matrix before(call, 3, m, n, gap);
  const Matrix column_before(call, 3, m, 1, 0), row_before(call, 2, 1, k, 0);
  const bool tame = IsTame(a.values) && IsTame(b.values) && IsTame(b_trans.values) &&
                    (beta == 0.0F || (IsTame(before.values) && IsTame(column_before.values) &&
                                      IsTame(row_before.values)));
  Matrix out = before;
  runtime::matmul(a.In(), b.In(), out.Out(), m, n, k, alpha, beta);
  const auto plain = [&](size_t r, size_t c, size_t i) { return a.At(r, i) * b.At(i, c); };
  if (tame) RequireProduct(out, before, k, alpha, beta, plain);
  out = before;
  runtime::matmul_trans_b(a.In(), b_trans.In(), out.Out(), m, n, k, alpha, beta);
  const auto trans = [&](size_t r, size_t c, size_t i) { return a.At(r, i) * b_trans.At(c, i); };
  if (tame) RequireProduct(out, before, k, alpha, beta, trans);
  if (gap == 0) {
    out = before;
    runtime::matmul_trans_b(a.values.data(), b_trans.values.data(), out.values.data(), m, n, k,
                            alpha, beta);
    if (tame) RequireProduct(out, before, k, alpha, beta, trans);
    Matrix column = column_before;
    runtime::mat_vec(a.values.data(), b_trans.values.data(), column.values.data(), m,
                     n == 0 ? 0 : k, alpha, beta);
    if (tame) RequireProduct(column, column_before, n == 0 ? 0 : k, alpha, beta, trans);
  }
  const Values x = call.ValuesOf(k, 1);
  Matrix row = row_before;
  const Values factors = call.ValuesOf(k);
  runtime::vec_mul_vec(factors.data(), x.data(), row.values.data(), k, alpha, beta);
  if (tame && IsTame(x) && IsTame(factors)) {
    RequireProduct(row, row_before, 1, alpha, beta,
                   [&](size_t, size_t c, size_t) { return double{factors[c]} * double{x[c]}; });
  }
}

void CheckWeights(const Call& call) {
  using runtime::WeightMatrix;
  const size_t rows = call.Rows(), outputs = call.Cols(), inputs = call.Inner();
  const auto form = static_cast<WeightMatrix::Form>(call.form % 4);
  Matrix plain(call, 0, outputs, inputs, 0);
  WeightMatrix weights;
  uint64_t memory = 0;
  const size_t cut = outputs == 0 ? 0 : call.gap % outputs;
  const auto put = [&](const auto& stored) {
    weights.Put(0, cut, stored.data());
    weights.Put(cut, outputs - cut, stored.data() + cut * inputs);
    auto again = stored;
    weights.Get(0, outputs, again.data());
    Require(again == stored, "weights are kept as they are stored");
  };
  if (form == WeightMatrix::Form::kMapped) {
    weights.Map(plain.values.data(), outputs, inputs);
  } else if (form == WeightMatrix::Form::kCodes) {
    std::vector<uint8_t> codes(outputs * inputs);
    uint8_t code = call.values;
    for (uint8_t& stored : codes) stored = code = static_cast<uint8_t>(code * 5 + 77);
    weights.AllocateCodes(outputs, inputs, 90.0F, -100, memory);
    put(codes);
  } else if (form == WeightMatrix::Form::kHalf) {
    std::vector<uint16_t> halves(outputs * inputs);
    std::ranges::transform(plain.values, halves.begin(), runtime::FloatToHalf);
    weights.Allocate(form, outputs, inputs, memory);
    put(halves);
  } else {
    weights.Allocate(form, outputs, inputs, memory);
    weights.Put(0, cut, plain.values.data());
    weights.Put(cut, outputs - cut, plain.values.data() + cut * inputs);
  }
  Values again(outputs * inputs);
  weights.Get(0, outputs, again.data());
  if (form == WeightMatrix::Form::kSingle || form == WeightMatrix::Form::kMapped) {
    RequireSame(again, plain.values, "weights are kept");
  }
  plain.values = again;

  const Matrix in(call, 1, rows, inputs, call.Gap());
  const Values bias = call.ValuesOf(outputs, 2);
  const Matrix before(call, 3, rows, outputs, call.Gap());
  Matrix out = before;
  weights.Multiply(in.In(), rows, {bias.data(), 0.5F}, out.Out());
  if (!IsTame(again) || !IsTame(in.values) || !IsTame(bias)) return;
  Matrix biases = before;
  for (size_t r = 0; r < rows; ++r) std::ranges::copy(bias, biases.Out().From(r).data);
  RequireProduct(out, biases, inputs, 0.5F, 1.0F,
                 [&](size_t r, size_t c, size_t k) { return in.At(r, k) * plain.At(c, k); });
}

void CheckSelection(const Call& call) {
  const Values scores = call.ValuesOf(call.Cols());
  if (std::ranges::any_of(scores, [](float x) { return std::isnan(x); })) return;
  const int n = static_cast<int>(scores.size());
  Values sorted = scores;
  std::ranges::sort(sorted, std::greater<>());
  std::vector<handwriting_CTC::_index_score_node> best(call.inner % (scores.size() + 1));
  handwriting_CTC::get_topn(scores.data(), n, best);
  std::ranges::sort(best, handwriting_CTC::index_score_greater);
  for (size_t i = 0; i < best.size(); ++i) {
    Require(best[i].score == sorted[i], "the best scores");
    Require(scores[static_cast<size_t>(best[i].index)] == best[i].score, "a score's index");
  }
  std::vector<handwriting_CTC::_index_score_node> all(scores.size());
  const size_t m = best.size();
  handwriting_CTC::get_topn(scores.data(), n, all, static_cast<int>(m));
  const auto rest = all.begin() + static_cast<ptrdiff_t>(m);
  std::sort(all.begin(), rest, handwriting_CTC::index_score_greater);
  std::sort(rest, all.end(), handwriting_CTC::index_score_greater);
  for (size_t i = 0; i < all.size(); ++i) Require(all[i].score == sorted[i], "parts of scores");
}

/// Arrays that are made in an arena and outside of it, grow, move and go away.
void CheckArrays(const Call& call) {
  struct Kept {
    runtime::FloatArray array;
    Values wanted;
  };
  std::array<Kept, 3> kept;
  uint64_t memory = 0;
  runtime::BufferBudget budget(uint64_t{call.rows} << 16);
  const runtime::BufferBudget::Entered entered(budget);
  const auto run = [&](uint8_t step) {
    Kept& one = kept[step % 3];
    Kept& other = kept[step / 3 % 3];
    const size_t rows = step / 16 + call.Rows(), cols = call.Cols();
    switch (step / 9 % 4) {
      case 0:
        one.array.Allocate(rows, cols, memory);
        one.wanted.assign(one.array.size(), 0.0F);
        break;
      case 1:
        one.array.AllocateUncleared(rows, cols, memory);
        one.wanted.assign(one.array.size(), 0.5F);
        std::ranges::copy(one.wanted, one.array.data());
        break;
      case 2:
        one.array.Grow(rows * cols, memory);
        one.wanted.resize(one.array.size());
        break;
      default:
        if (&one != &other) std::swap(one, other);
    }
  };
  const auto run_all = [&](size_t begin, size_t end) {
    for (size_t i = begin; i < end; ++i) {
      try {
        run(call.brought[i]);
      } catch (const std::exception&) {
        // No room left: the array keeps what it has.
      }
      Require(budget.used() <= budget.limit(), "the budget is kept");
    }
  };
  const size_t steps = std::min<size_t>(call.brought_bytes, 64);
  try {
    const runtime::ArrayArena arena(size_t{call.inner} << 16);
    run_all(0, steps / 2);
  } catch (const std::exception&) {
    // An arena that the budget has no room for.
  }
  run_all(steps / 2, steps);
  for (const Kept& one : kept) {
    Require(reinterpret_cast<uintptr_t>(one.array.data()) % 64 == 0, "arrays are aligned");
    Require(std::ranges::equal(one.array.values(), one.wanted), "arrays keep their contents");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  if (size < kCallBytes) return 0;
  const Call call{data[0], data[1], data[2], data[3],           data[4],
                  data[5], data[6], data[7], data + kCallBytes, size - kCallBytes};
  using Check = void (*)(const Call&);
  constexpr std::array<Check, 4> kVectorised = {CheckElements, CheckRows, CheckWeights, CheckMoves};
  constexpr std::array<Check, 3> kOthers = {CheckProducts, CheckSelection, CheckArrays};
  const size_t what = call.what % (kVectorised.size() + kOthers.size());
  if (what >= kVectorised.size()) {
    kOthers[what - kVectorised.size()](call);
    return 0;
  }
  for (const int64_t target : hwy::SupportedAndGeneratedTargets()) {
    // Emulated vectors, which only Clang compiles and no x86-64 processor is left with, turn a NaN
    // into an integer, which is undefined.
    if (target == HWY_EMU128) continue;
    const ChosenTarget chosen(target);
    kVectorised[what](call);
  }
  return 0;
}
