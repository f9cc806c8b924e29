#ifndef PYTHON_CORE_NETWORK_H_
#define PYTHON_CORE_NETWORK_H_

#include <pybind11/pybind11.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "nnet/runtime/nnet-nnet.h"
#include "python/core/recognizer.h"

namespace handwriting::python {

/// One network of a model with its executor: what it carries goes on from call to call. The
/// interpreter lock is released while the library works.
class Network {
 public:
  /// The network with that number, counted from 0.
  Network(const pybind11::bytes& model, const std::string& name, size_t index);

  bool changes_input() const { return network_.layers.front()->ChangesInput(); }
  bool takes_planes() const { return network_.layers.front()->TakesPlanes(); }
  /// The width of the frames, 0 where the network takes it from its input.
  int dim() const;
  int channels() const { return network_.layers.front()->InputChannel(); }

  /// The output for the next frames of an input: frames x dim or channels x frames x dim, as the
  /// network takes and gives them. `last` marks the end of the input.
  Floats Forward(const Floats& frames, bool last);
  /// The same call; gives the output of every layer, in their order.
  pybind11::list Trace(const Floats& frames, bool last);
  /// Begins a new input.
  void Reset();

 private:
  void Run(const Floats& frames, bool last);

  tarev::nnet::handwriting_CTC::Nnet network_;
  std::unique_ptr<tarev::nnet::handwriting_CTC::NnetForward> executor_;
  int calls_ = 0;
  std::atomic<bool> in_use_ = false;
};

}  // namespace handwriting::python

#endif  // PYTHON_CORE_NETWORK_H_
