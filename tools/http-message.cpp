#include "tools/http-message.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iterator>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

namespace handwriting::tools {

namespace http = boost::beast::http;

namespace {

// A body that grows with the bytes that come, whatever length was announced.
struct GrowingBody {
  using value_type = std::string;

  class reader {  // NOLINT(readability-identifier-naming): named by the parser
   public:
    template <bool kIsRequest, class Fields>
    reader(http::header<kIsRequest, Fields>& /*header*/, value_type& body) : body_(body) {}
    void init(const boost::optional<uint64_t>& /*length*/, boost::beast::error_code& error) {
      error = {};
    }
    template <class Buffers>
    size_t put(const Buffers& buffers, boost::beast::error_code& error) {
      error = {};
      size_t count = 0;
      for (const auto& buffer : boost::beast::buffers_range_ref(buffers)) {
        body_.append(static_cast<const char*>(buffer.data()), buffer.size());
        count += buffer.size();
      }
      return count;
    }
    void finish(boost::beast::error_code& error) { error = {}; }

   private:
    value_type& body_;
  };
};

std::optional<std::string> FieldOf(const http::fields& fields, http::field name) {
  const auto field = fields.find(name);
  if (field == fields.end()) return std::nullopt;
  return std::string(field->value());
}

// Sun, 06 Nov 1994 08:49:37 GMT, whatever the locale.
std::string DateText(std::time_t time) {
  constexpr const char* kDays = "SunMonTueWedThuFriSat";
  constexpr const char* kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  std::tm utc{};
  gmtime_r(&time, &utc);
  char text[64];
  std::snprintf(text, sizeof(text), "%.3s, %02d %.3s %04d %02d:%02d:%02d GMT",
                kDays + size_t{3} * static_cast<size_t>(utc.tm_wday), utc.tm_mday,
                kMonths + size_t{3} * static_cast<size_t>(utc.tm_mon), utc.tm_year + 1900,
                utc.tm_hour, utc.tm_min, utc.tm_sec);
  return text;
}

}  // namespace

Answer ErrorAnswer(unsigned status, std::string_view message) {
  using Json = nlohmann::ordered_json;
  const Json json = {{"error", {{"code", status}, {"message", message}}}};
  Answer answer{status, "application/json", {}, {}};
  answer.body = json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
  if (status == 503) answer.fields.emplace_back("Retry-After", "1");
  return answer;
}

std::string BytesOf(const Answer& answer, unsigned version, bool keep_alive, bool is_head) {
  const auto reason = http::obsolete_reason(static_cast<http::status>(answer.status));
  std::string bytes = version == 10 ? "HTTP/1.0 " : "HTTP/1.1 ";
  bytes.reserve(answer.body.size() + 512);
  bytes += std::to_string(answer.status) + ' ' + std::string(reason) +
           "\r\nContent-Type: " + answer.type +
           "\r\nContent-Length: " + std::to_string(answer.body.size()) +
           "\r\nDate: " + DateText(std::time(nullptr)) + "\r\nX-Content-Type-Options: nosniff\r\n";
  for (const auto& [name, value] : answer.fields) bytes += name + ": " + value + "\r\n";
  if (!keep_alive) {
    bytes += "Connection: close\r\n";
  } else if (version == 10) {
    bytes += "Connection: keep-alive\r\n";
  }
  bytes += "\r\n";
  if (!is_head) bytes += answer.body;
  return bytes;
}

struct RequestReader::Parser : http::request_parser<GrowingBody> {};

RequestReader::RequestReader(const Limits& limits)
    : limits_(&limits), parser_(std::make_unique<Parser>()) {
  parser_->header_limit(static_cast<std::uint32_t>(limits.header_bytes));
  parser_->body_limit(limits.body_bytes);
}

RequestReader::RequestReader(RequestReader&&) noexcept = default;
RequestReader& RequestReader::operator=(RequestReader&&) noexcept = default;
RequestReader::~RequestReader() = default;

size_t RequestReader::body_bytes() const {
  return state_ == State::kComplete ? request_.body.size() : parser_->get().body().size();
}

void RequestReader::Refuse(unsigned status, const char* message) {
  state_ = State::kRefused;
  refusal_ = ErrorAnswer(status, message);
}

size_t RequestReader::Read(const char* bytes, size_t count) {
  if (state_ == State::kComplete || state_ == State::kRefused || count == 0) return 0;
  if (state_ == State::kNothing) state_ = State::kHeader;
  boost::beast::error_code error;
  const size_t taken = parser_->put(boost::asio::const_buffer(bytes, count), error);
  if (state_ == State::kHeader) header_bytes_ += taken;
  if (error == http::error::need_more) error = {};
  if (error == http::error::header_limit) {
    Refuse(431, "the header is too large");
  } else if (error == http::error::body_limit) {
    Refuse(413, "the body is too large");
  } else if (error) {
    Refuse(400, "no HTTP request");
  } else if (parser_->is_done()) {
    if (state_ == State::kHeader) TakeHeader();
    if (state_ != State::kRefused) {
      request_.body = std::move(parser_->get().body());
      state_ = State::kComplete;
    }
  } else if (state_ == State::kHeader && parser_->is_header_done()) {
    TakeHeader();
  }
  return taken;
}

void RequestReader::TakeHeader() {
  const auto& header = parser_->get();
  // The parser's own limit is for the first line and for the fields.
  if (header_bytes_ > limits_->header_bytes) return Refuse(431, "the header is too large");
  if (static_cast<size_t>(std::distance(header.begin(), header.end())) > limits_->header_fields) {
    return Refuse(431, "the header has too many fields");
  }
  for (const http::field name :
       {http::field::host, http::field::origin, http::field::content_type}) {
    if (header.count(name) > 1) return Refuse(400, "a field comes twice");
  }
  const std::string target(header.target());
  const size_t question = std::min(target.find('?'), target.size());
  request_.method = std::string(header.method_string());
  request_.path = target.substr(0, question);
  request_.query = target.substr(std::min(question + 1, target.size()));
  request_.host = FieldOf(header, http::field::host);
  request_.origin = FieldOf(header, http::field::origin);
  request_.content_type = FieldOf(header, http::field::content_type);
  if (const auto length = parser_->content_length()) request_.content_length = *length;
  request_.has_body = parser_->chunked() || request_.content_length.value_or(0) > 0;
  request_.expects_continue = boost::beast::iequals(header[http::field::expect], "100-continue");
  request_.keep_alive = parser_->keep_alive();
  request_.version = header.version();
  state_ = State::kBody;
}

}  // namespace handwriting::tools
