#ifndef NNET_RUNTIME_COMPONENT_REGISTRY_H_
#define NNET_RUNTIME_COMPONENT_REGISTRY_H_

#include "nnet/contract/nnet-component.h"

namespace tarev::nnet::handwriting_CTC {

/// The entries of `components` by their markers, each with its code and factory. Throws when two
/// entries have one marker. The maps themselves are Component::component_map and marker_map.
Component::MarkerMap BuildMarkerMap(const Component::ComponentMap& components);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_RUNTIME_COMPONENT_REGISTRY_H_
