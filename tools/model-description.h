#ifndef TOOLS_MODEL_DESCRIPTION_H_
#define TOOLS_MODEL_DESCRIPTION_H_

#include <nlohmann/json.hpp>

#include "tools/model-file.h"

namespace handwriting::tools {

/// The document that `inspect --json` prints of a model. Throws std::runtime_error with file,
/// place and reason where it cannot be read.
nlohmann::ordered_json DescribeFile(const ModelSource& source);

}  // namespace handwriting::tools

#endif  // TOOLS_MODEL_DESCRIPTION_H_
