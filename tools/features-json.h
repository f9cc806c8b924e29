#ifndef TOOLS_FEATURES_JSON_H_
#define TOOLS_FEATURES_JSON_H_

#include <string_view>

#include "tools/npy.h"

namespace handwriting::tools {

/// Reads {"features": [[...], ...]}, a row of numbers a frame, all of one length. Anything else is
/// refused with a std::runtime_error that says what was found and where. Takes less memory than
/// the text.
Matrix ParseFeaturesJson(std::string_view text);

}  // namespace handwriting::tools

#endif  // TOOLS_FEATURES_JSON_H_
