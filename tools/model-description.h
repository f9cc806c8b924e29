#ifndef TOOLS_MODEL_DESCRIPTION_H_
#define TOOLS_MODEL_DESCRIPTION_H_

#include <string>

#include <nlohmann/json.hpp>

namespace handwriting::tools {

/// The document that `inspect --json` prints of a model file. Throws std::runtime_error with file,
/// place and reason where it cannot be read.
nlohmann::ordered_json DescribeFile(const std::string& path);

}  // namespace handwriting::tools

#endif  // TOOLS_MODEL_DESCRIPTION_H_
