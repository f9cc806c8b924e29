#include "tools/features-json.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace handwriting::tools {
namespace {

using Json = nlohmann::json;

// Takes the values as the parser comes upon them: a tree of them would be ten times the text.
class FeatureReader : public nlohmann::json_sax<Json> {
 public:
  Matrix Take() {
    if (!seen_) Fail("\"features\" is missing");
    matrix_.shape = {rows_, width_};
    return std::move(matrix_);
  }

  bool null() override { return Unexpected("null"); }
  bool boolean(bool /*value*/) override { return Unexpected("a boolean"); }
  bool string(string_t& /*value*/) override { return Unexpected("a string"); }
  bool binary(binary_t& /*value*/) override { return Unexpected("binary data"); }
  bool number_integer(number_integer_t value) override { return Add(static_cast<double>(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Add(static_cast<double>(value)); }
  bool number_float(number_float_t value, const string_t& /*text*/) override { return Add(value); }

  bool start_object(std::size_t /*count*/) override {
    if (depth_ != 0) return Unexpected("an object");
    depth_ = 1;
    return true;
  }
  bool key(string_t& name) override {
    if (name != "features") Fail("unknown key \"" + name.substr(0, 40) + "\"");
    if (seen_) Fail("\"features\" comes twice");
    seen_ = true;
    return true;
  }
  bool end_object() override { return true; }

  bool start_array(std::size_t /*count*/) override {
    if (depth_ == 0 || depth_ == 3) return Unexpected("an array");
    ++depth_;
    column_ = 0;
    return true;
  }
  bool end_array() override {
    --depth_;
    if (depth_ == 1) return true;
    if (rows_ > 0 && column_ != width_) {
      Fail(Row() + ": " + std::to_string(column_) + " values, the rows before it have " +
           std::to_string(width_));
    }
    width_ = column_;
    ++rows_;
    return true;
  }

  bool parse_error(std::size_t position, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    Fail("no JSON at byte " + std::to_string(position));
  }

 private:
  [[noreturn]] static void Fail(const std::string& text) {
    throw std::runtime_error(text + "; {\"features\": [[...], ...]} wanted");
  }
  std::string Row() const { return "row " + std::to_string(rows_); }

  bool Unexpected(const char* what) {
    Fail((depth_ < 2 ? std::string() : Row() + ": ") + what + " found");
  }

  bool Add(double value) {
    if (depth_ != 3) return Unexpected("a number");
    const auto rounded = static_cast<float>(value);
    if (!std::isfinite(rounded)) {
      Fail(Row() + ": value " + std::to_string(column_) + " is no float");
    }
    matrix_.values.push_back(rounded);
    ++column_;
    return true;
  }

  Matrix matrix_;
  bool seen_ = false;
  int depth_ = 0;  // 1 in the object, 2 among rows, 3 in a row
  size_t rows_ = 0;
  size_t width_ = 0;
  size_t column_ = 0;
};

}  // namespace

Matrix ParseFeaturesJson(std::string_view text) {
  FeatureReader reader;
  Json::sax_parse(text.begin(), text.end(), &reader);
  return reader.Take();
}

}  // namespace handwriting::tools
