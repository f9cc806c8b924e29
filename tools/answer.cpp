#include "tools/answer.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace handwriting::tools {
namespace {

bool IsUtf8(const std::string& text) {
  try {
    static_cast<void>(Json(text).dump());
    return true;
  } catch (const Json::type_error&) {
    return false;
  }
}

Json FiniteOrNull(double value) { return std::isfinite(value) ? Json(value) : Json(); }

Json DescribeRecord(const Record& record, const Labels& labels) {
  Json spans = Json::array();
  for (const auto& [begin, end] : record.spans) spans.push_back({begin, end});
  Json json = {{"labels", record.labels}};
  if (!labels.empty()) json["text"] = labels.TextOf(record.labels);
  json["score"] = FiniteOrNull(double{record.score});
  json["confidence"] = record.confidence ? FiniteOrNull(*record.confidence) : Json();
  json["spans"] = std::move(spans);
  json["label_confidences"] = record.confidence ? Json(record.label_confidences) : Json();
  return json;
}

}  // namespace

Labels Labels::OfFile(const std::string& path) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  const auto fail = [&] { throw std::runtime_error(path + ": " + std::strerror(errno)); };
  std::ifstream file(path);
  if (!file) fail();
  Labels labels;
  auto& names = labels.names_;
  for (std::string line; std::getline(file, line);) {
    if (names.empty() && line.starts_with(kByteOrderMark)) line.erase(0, kByteOrderMark.size());
    if (line.ends_with('\r')) line.pop_back();
    names.push_back(std::move(line));
    if (!IsUtf8(names.back())) {
      throw std::runtime_error(path + ": line " + std::to_string(names.size()) + " is not UTF-8");
    }
  }
  if (file.bad()) fail();
  if (names.empty()) throw std::runtime_error(path + ": no labels");
  return labels;
}

std::string Labels::NameOf(int label) const {
  if (empty()) return std::to_string(label);
  const auto index = static_cast<size_t>(label);
  if (index >= names_.size()) {
    throw std::runtime_error("class " + std::to_string(label) + " found, the label file names " +
                             std::to_string(names_.size()));
  }
  return names_[index];
}

std::string Labels::TextOf(const std::vector<int>& sequence) const {
  std::string text;
  for (const int label : sequence) text += (empty() && !text.empty() ? " " : "") + NameOf(label);
  return text;
}

Json AnswerOf(const std::vector<Record>& records, const Labels& labels) {
  Json sequences = Json::array();
  Json texts = Json::array();
  for (const Record& record : records) {
    sequences.push_back(record.labels);
    if (!labels.empty()) texts.push_back(labels.TextOf(record.labels));
  }
  Json json = {{"sequences", std::move(sequences)}};
  if (!labels.empty()) json["text"] = std::move(texts);
  return json;
}

Json AnswerInDetail(const std::vector<Record>& records, const Labels& labels, size_t frames) {
  Json json = AnswerOf(records, labels);
  json["frames"] = frames;
  Json& alternatives = json["alternatives"] = Json::array();
  for (const Record& record : records) alternatives.push_back(DescribeRecord(record, labels));
  return json;
}

std::string LineOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

}  // namespace handwriting::tools
