#ifndef TOOLS_HTTP_MESSAGE_H_
#define TOOLS_HTTP_MESSAGE_H_

// Requests and answers of the service as its logic sees them, without sockets, and the reader that
// makes requests of bytes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace handwriting::tools {

/// What the service takes at most. Every limit holds before memory is given.
struct Limits {
  size_t header_bytes = size_t{16} << 10;
  size_t header_fields = 64;
  size_t body_bytes = size_t{16} << 20;
  /// Bodies of all requests that are being received or wait.
  size_t all_bodies_bytes = size_t{1} << 30;
  size_t frames = 100'000;
  size_t connections = 4096;
  size_t queue = 256;
  /// Seconds: a connection without a request; a request from its first byte to its last; an input
  /// on a recognizer, after which the service is not ready.
  int idle_seconds = 60;
  int receive_seconds = 10;
  int work_seconds = 60;
};

struct Request {
  std::string method;
  /// Before the question mark, and behind it.
  std::string path;
  std::string query;
  std::optional<std::string> host;
  std::optional<std::string> origin;
  std::optional<std::string> content_type;
  /// As announced; nothing where there is none or it comes in chunks.
  std::optional<uint64_t> content_length;
  /// Whether a body follows, of whatever length.
  bool has_body = false;
  bool expects_continue = false;
  bool keep_alive = true;
  unsigned version = 11;
  std::string body;
};

struct Answer {
  unsigned status = 200;
  std::string type = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> fields;
};

/// {"error": {"code": status, "message": ...}}.
Answer ErrorAnswer(unsigned status, std::string_view message);

/// The bytes of an answer. A HEAD request gets them without the body.
std::string BytesOf(const Answer& answer, unsigned version, bool keep_alive, bool is_head);

/// Makes a request of the bytes that come, in pieces of any size.
class RequestReader {
 public:
  explicit RequestReader(const Limits& limits);
  RequestReader(RequestReader&&) noexcept;
  RequestReader& operator=(RequestReader&&) noexcept;
  ~RequestReader();

  enum class State { kNothing, kHeader, kBody, kComplete, kRefused };

  /// Takes bytes until the header is complete, and further ones until the body is: returns after
  /// either. Returns how many it has taken; it waits for more where those are none.
  size_t Read(const char* bytes, size_t count);
  /// kNothing before the first byte; kBody once the header is there and the body is not.
  State state() const { return state_; }
  /// The header's fields from kBody on, the body with kComplete.
  Request& request() { return request_; }
  /// Bytes of the body so far.
  size_t body_bytes() const;
  /// Of kRefused: what the request broke.
  const Answer& refusal() const { return refusal_; }

 private:
  struct Parser;

  void TakeHeader();
  void Refuse(unsigned status, const char* message);

  const Limits* limits_;
  std::unique_ptr<Parser> parser_;
  State state_ = State::kNothing;
  size_t header_bytes_ = 0;
  Request request_;
  Answer refusal_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_HTTP_MESSAGE_H_
