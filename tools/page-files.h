#ifndef TOOLS_PAGE_FILES_H_
#define TOOLS_PAGE_FILES_H_

#include <optional>
#include <string>
#include <string_view>

#include "tools/http-message.h"

namespace handwriting::tools {

/// The files of a folder as answers: regular ones that lie beneath it once links are resolved, and
/// nothing else.
class PageFiles {
 public:
  /// None where `folder` is empty. Throws std::runtime_error where it is no folder.
  explicit PageFiles(const std::string& folder);

  /// The file of a path as a request has it, index.html for a folder's; nothing where there is
  /// none.
  std::optional<Answer> Find(std::string_view path) const;

 private:
  std::string root_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_PAGE_FILES_H_
