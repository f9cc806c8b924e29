// The compiled part of the Python package: recognizers, networks and model files of the library,
// for the package's own Python, which checks what users give.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include <loguru.hpp>

#include "nnet/base/blas-library.h"
#include "nnet/base/element-kernels.h"
#include "python/core/errors.h"
#include "python/core/network.h"
#include "python/core/recognizer.h"
#include "tools/model-description.h"
#include "tools/model-file.h"
#include "tools/model-writer.h"

namespace handwriting::python {
namespace {

namespace py = pybind11;
using tarev::nnet::handwriting_CTC::Component;

tools::ModelSource SourceOf(const py::bytes& model, const std::string& name) {
  const std::string_view bytes = model;
  return {name, {bytes.data(), bytes.size()}};
}

std::string Describe(const py::bytes& model, const std::string& name) {
  const tools::ModelSource source = SourceOf(model, name);
  const py::gil_scoped_release released;
  return Rethrowing<ModelError>([&] { return tools::DescribeFile(source).dump(); });
}

std::string Written(const tools::ModelFile& model, bool fixed) {
  char* bytes = nullptr;
  size_t size = 0;
  tools::FilePointer stream(open_memstream(&bytes, &size));
  if (stream == nullptr) throw std::bad_alloc();
  std::exception_ptr failure;
  try {
    tools::WriteNetworks(model.networks, fixed, stream.get());
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  const bool closed = std::fclose(stream.release()) == 0;
  const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
  if (failure) std::rethrow_exception(failure);
  if (!closed) throw std::bad_alloc();
  return {bytes, size};
}

py::tuple Convert(const py::bytes& model, const std::string& name, bool fixed) {
  const tools::ModelSource source = SourceOf(model, name);
  std::string written;
  std::vector<std::string> float_layers;
  {
    const py::gil_scoped_release released;
    Rethrowing<ModelError>([&] {
      const tools::ModelFile read = tools::ReadModelFile(source);
      written = Written(read, fixed);
      if (fixed) float_layers = tools::FloatLayers(read.networks);
    });
  }
  return py::make_tuple(py::bytes(written), float_layers);
}

std::map<int, std::string> ComponentTypes() {
  std::map<int, std::string> markers;
  for (const auto& [code, entry] : Component::component_map) markers[code] = entry.first;
  return markers;
}

}  // namespace
}  // namespace handwriting::python

PYBIND11_MODULE(_core, module) {
  namespace py = pybind11;
  using handwriting::python::Network;
  using handwriting::python::Recognizer;
  namespace runtime = tarev::nnet::handwriting_CTC;

  // What it would print arrives as an exception.
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  handwriting::python::TranslateErrors();

  module.attr("version") = HANDWRITING_VERSION;
  module.def("vector_target", [] { return std::string(runtime::vector_target_name()); });
  module.def("blas_core", [] { return std::string(runtime::blas_core_name()); });
  module.def("component_types", &handwriting::python::ComponentTypes);
  module.def("describe", &handwriting::python::Describe, py::arg("model"), py::arg("name"));
  module.def("convert", &handwriting::python::Convert, py::arg("model"), py::arg("name"),
             py::arg("fixed"));

  py::class_<Recognizer>(module, "Recognizer")
      .def(py::init<const py::bytes&, const std::string&, int, int>(), py::arg("model"),
           py::arg("name"), py::arg("nbest"), py::arg("max_frames"))
      .def_property_readonly("changes_input", &Recognizer::changes_input)
      .def("check_width", &Recognizer::CheckWidth, py::arg("dim"))
      .def("recognize", &Recognizer::Recognize, py::arg("features").noconvert(),
           py::arg("in_detail"));

  py::class_<Network>(module, "Network")
      .def(py::init<const py::bytes&, const std::string&, size_t>(), py::arg("model"),
           py::arg("name"), py::arg("index"))
      .def_property_readonly("changes_input", &Network::changes_input)
      .def_property_readonly("takes_planes", &Network::takes_planes)
      .def_property_readonly("channels", &Network::channels)
      .def_property_readonly("dim", &Network::dim)
      .def("forward", &Network::Forward, py::arg("frames").noconvert(), py::arg("last"))
      .def("trace", &Network::Trace, py::arg("frames").noconvert(), py::arg("last"))
      .def("reset", &Network::Reset);
}
