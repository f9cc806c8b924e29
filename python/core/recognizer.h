#ifndef PYTHON_CORE_RECOGNIZER_H_
#define PYTHON_CORE_RECOGNIZER_H_

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <atomic>
#include <string>

#include "tools/recognizer.h"

namespace handwriting::python {

/// Floats in C order, as the package's own Python hands them over.
using Floats = pybind11::array_t<float, pybind11::array::c_style>;

/// The recognizer of a model. The interpreter lock is released while the library works.
class Recognizer {
 public:
  Recognizer(const pybind11::bytes& model, const std::string& name, int nbest, int max_frames);

  bool changes_input() const { return recognizer_.ChangesFeatures(); }
  /// Throws InputError for rows of a width that the model does not take.
  void CheckWidth(int dim) const;
  /// For each sequence, best first, a tuple (labels, score, confidence or None, spans,
  /// label confidences or None); not in detail labels alone. `features` is frames x dim.
  pybind11::list Recognize(const Floats& features, bool in_detail);

 private:
  tools::Recognizer recognizer_;
  std::atomic<bool> in_use_ = false;
};

}  // namespace handwriting::python

#endif  // PYTHON_CORE_RECOGNIZER_H_
