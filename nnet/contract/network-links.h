#ifndef NNET_CONTRACT_NETWORK_LINKS_H_
#define NNET_CONTRACT_NETWORK_LINKS_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <source_location>
#include <typeindex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarev::nnet::handwriting_CTC {

/// Where the layers of one network meet while an executor is built over it. The executor visits all
/// layers twice in network order: first each one announces what it offers (Component::Announce),
/// then each one takes what it needs (Component::Link). What a family shares has a type of its own,
/// so that neither the executor nor this class knows any layer. It lives while the executor is
/// built; layers keep what they took.
class NetworkLinks {
 public:
  /// `place` is the executor's place in the source, under which failures of linking are logged.
  explicit NetworkLinks(std::source_location place) : place_(place) {}

  std::source_location place() const { return place_; }
  /// The layer that is being visited, counted from 0.
  size_t position() const { return position_; }
  void MoveTo(size_t position) { position_ = position; }

  /// The state that the layers of a family share in this network, default-made on first use.
  template <class State>
  State& Shared() {
    std::shared_ptr<void>& slot = shared_[std::type_index(typeid(State))];
    if (slot == nullptr) slot = std::make_shared<State>();
    return *static_cast<State*>(slot.get());
  }

  /// Announces that the layer being visited consumes `frames` frames of context in every call.
  void ConsumeContext(int64_t frames);
  /// The announced context of all layers after the one being visited; complete in the second visit.
  int64_t ContextAfter() const;

 private:
  struct Consumption {
    size_t position;
    int64_t total;  // up to and including this position
  };

  std::source_location place_;
  size_t position_ = 0;
  std::unordered_map<std::type_index, std::shared_ptr<void>> shared_;
  std::vector<Consumption> consumed_;
};

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_CONTRACT_NETWORK_LINKS_H_
