#ifndef TOOLS_ANSWER_H_
#define TOOLS_ANSWER_H_

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/recognizer.h"

namespace handwriting::tools {

using Json = nlohmann::ordered_json;

/// What classes are called: line k of a file names class k, class 0 being the blank.
class Labels {
 public:
  /// None: classes keep their numbers.
  Labels() = default;
  /// Throws std::runtime_error that names the file and the line that is no UTF-8.
  static Labels OfFile(const std::string& path);

  bool empty() const { return names_.empty(); }
  /// Throws std::runtime_error for a class that has no name, unless none has.
  std::string NameOf(int label) const;
  /// The names of a sequence, joined; without names its numbers with blanks between them.
  std::string TextOf(const std::vector<int>& sequence) const;

 private:
  std::vector<std::string> names_;
};

/// {"sequences": [[...], ...], "text": [...]}, text only where there are labels. In detail also
/// "frames" and "alternatives": for each sequence an object of labels, text, score, confidence,
/// spans and label_confidences. Numbers that are not finite are null.
Json AnswerOf(const std::vector<Record>& records, const Labels& labels);
Json AnswerInDetail(const std::vector<Record>& records, const Labels& labels, size_t frames);

/// One line of JSON. Bytes that are no UTF-8, which file names may have, are replaced.
std::string LineOf(const Json& json);

}  // namespace handwriting::tools

#endif  // TOOLS_ANSWER_H_
