#include "python/core/network.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "python/core/errors.h"
#include "python/core/sole-use.h"
#include "tools/model-file.h"

namespace handwriting::python {
namespace {

namespace py = pybind11;
using tarev::nnet::handwriting_CTC::BlockShape;
using tarev::nnet::handwriting_CTC::LayerObserver;
using tarev::nnet::handwriting_CTC::Nnet;
using tarev::nnet::handwriting_CTC::NnetForward;

Nnet Read(const py::bytes& model, const std::string& name, size_t index) {
  const std::string_view bytes = model;
  const py::gil_scoped_release released;
  return Rethrowing<ModelError>([&] {
    const tools::ModelSource source(name, {bytes.data(), bytes.size()});
    Nnet network = tools::ReadNetworkOfFile(source, index + 1);
    if (network.layers.empty()) {
      throw std::runtime_error(name + ": network " + std::to_string(index + 1) +
                               ": it has no layers");
    }
    return network;
  });
}

Floats ArrayOf(const float* values, const BlockShape& shape, bool planes) {
  std::vector<py::ssize_t> sizes = {std::max<py::ssize_t>(shape.frames, 0), shape.dim};
  if (planes) sizes.insert(sizes.begin(), shape.channels);
  Floats array(sizes);
  std::copy_n(values, array.size(), array.mutable_data());
  return array;
}

// Keeps what every layer of a call gives, until the interpreter can be asked for arrays.
class Outputs final : public LayerObserver {
 public:
  void AfterLayer(size_t /*position*/, const float* out, const BlockShape& shape) override {
    kept_.push_back({shape, {out, out + shape.floats()}});
  }

  py::list Take(const Nnet& network) const {
    py::list arrays;
    for (size_t i = 0; i < kept_.size(); ++i) {
      const bool planes = network.layers[i]->GivesPlanes();
      arrays.append(ArrayOf(kept_[i].values.data(), kept_[i].shape, planes));
    }
    return arrays;
  }

 private:
  struct Kept {
    BlockShape shape;
    std::vector<float> values;
  };
  std::vector<Kept> kept_;
};

// Has a network watched for one call.
class Watch {
 public:
  Watch(NnetForward& executor, LayerObserver& observer) : executor_(executor) {
    executor_.Observe(&observer);
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;
  ~Watch() { executor_.Observe(nullptr); }

 private:
  NnetForward& executor_;
};

}  // namespace

Network::Network(const py::bytes& model, const std::string& name, size_t index)
    : network_(Read(model, name, index)) {
  try {
    executor_ = std::make_unique<NnetForward>(&network_);
  } catch (const std::runtime_error& error) {
    throw ModelError(name + ": network " + std::to_string(index + 1) + ": " + error.what());
  }
  executor_->Reset();
}

int Network::dim() const {
  const auto& first = *network_.layers.front();
  return first.CheckInputDim() && first.input_dim_set ? first.InputDim() : 0;
}

Floats Network::Forward(const Floats& frames, bool last) {
  const SoleUse held(in_use_, "network");
  Run(frames, last);
  return ArrayOf(executor_->Output(), executor_->OutputShape(),
                 network_.layers.back()->GivesPlanes());
}

py::list Network::Trace(const Floats& frames, bool last) {
  const SoleUse held(in_use_, "network");
  Outputs outputs;
  {
    const Watch watch(*executor_, outputs);
    Run(frames, last);
  }
  return outputs.Take(network_);
}

void Network::Reset() {
  const SoleUse held(in_use_, "network");
  executor_->Reset();
  calls_ = 0;
}

void Network::Run(const Floats& frames, bool last) {
  const auto rank = frames.ndim();
  const auto count = static_cast<int64_t>(frames.shape(rank - 2));
  const int dim = static_cast<int>(frames.shape(rank - 1));
  const int planes = rank == 3 ? static_cast<int>(frames.shape(0)) : 1;
  const float* values = frames.data();
  if (calls_ < std::numeric_limits<int>::max()) ++calls_;
  const py::gil_scoped_release released;
  Rethrowing<RunError>(
      [&] { executor_->Propagate(values, count, dim, last ? -calls_ : calls_, planes); });
}

}  // namespace handwriting::python
