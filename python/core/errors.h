#ifndef PYTHON_CORE_ERRORS_H_
#define PYTHON_CORE_ERRORS_H_

#include <stdexcept>

namespace handwriting::python {

// What the module throws; each arrives as the exception of handwriting_forward.errors that has the
// same name.

struct ModelError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct RunError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct InUseError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Has the exceptions above, and no others, translated.
void TranslateErrors();

/// What `work` returns; a std::runtime_error that it throws is thrown as `Error`, with its text.
template <class Error, class Work>
auto Rethrowing(Work work) {
  try {
    return work();
  } catch (const std::runtime_error& error) {
    throw Error(error.what());
  }
}

}  // namespace handwriting::python

#endif  // PYTHON_CORE_ERRORS_H_
