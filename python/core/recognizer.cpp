#include "python/core/recognizer.h"

#include <pybind11/stl.h>

#include <string_view>
#include <vector>

#include "python/core/errors.h"
#include "python/core/sole-use.h"

namespace handwriting::python {
namespace {

namespace py = pybind11;

py::tuple LabelsOf(const tools::Record& record) { return py::make_tuple(py::cast(record.labels)); }

py::tuple DetailsOf(const tools::Record& record) {
  py::list spans;
  for (const auto& [begin, end] : record.spans) spans.append(py::make_tuple(begin, end));
  py::object confidence = py::none();
  py::object label_confidences = py::none();
  if (record.confidence) {
    confidence = py::float_(*record.confidence);
    label_confidences = py::cast(record.label_confidences);
  }
  return py::make_tuple(record.labels, record.score, confidence, spans, label_confidences);
}

tools::Recognizer Read(const py::bytes& model, const std::string& name, int nbest, int max_frames) {
  const std::string_view bytes = model;
  const py::gil_scoped_release released;
  return Rethrowing<ModelError>([&] {
    return tools::Recognizer({name, {bytes.data(), bytes.size()}}, nbest, max_frames);
  });
}

}  // namespace

Recognizer::Recognizer(const py::bytes& model, const std::string& name, int nbest, int max_frames)
    : recognizer_(Read(model, name, nbest, max_frames)) {}

void Recognizer::CheckWidth(int dim) const {
  Rethrowing<InputError>([&] { recognizer_.CheckWidth(dim); });
}

py::list Recognizer::Recognize(const Floats& features, bool in_detail) {
  const SoleUse held(in_use_, "recognizer");
  const tools::Rows rows{features.data(), static_cast<int>(features.shape(0)),
                         static_cast<int>(features.shape(1))};
  std::vector<tools::Record> records;
  {
    const py::gil_scoped_release released;
    records = Rethrowing<RunError>([&] {
      return in_detail ? recognizer_.RecognizeInDetail(rows) : recognizer_.Recognize(rows);
    });
  }
  py::list found;
  for (const tools::Record& record : records) {
    found.append(in_detail ? DetailsOf(record) : LabelsOf(record));
  }
  return found;
}

}  // namespace handwriting::python
