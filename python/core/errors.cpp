#include "python/core/errors.h"

#include <pybind11/pybind11.h>

#include <exception>
#include <utility>

namespace handwriting::python {
namespace {

namespace py = pybind11;

void Raise(const char* name, const std::exception& error) {
  const py::object type = py::module_::import("handwriting_forward.errors").attr(name);
  PyErr_SetString(type.ptr(), error.what());
}

}  // namespace

void TranslateErrors() {
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      if (thrown) std::rethrow_exception(std::move(thrown));
    } catch (const ModelError& error) {
      Raise("ModelError", error);
    } catch (const InputError& error) {
      Raise("InputError", error);
    } catch (const RunError& error) {
      Raise("RunError", error);
    } catch (const InUseError& error) {
      Raise("InUseError", error);
    }
  });
}

}  // namespace handwriting::python
