#ifndef TOOLS_HTTP_SERVER_H_
#define TOOLS_HTTP_SERVER_H_

#include <memory>
#include <string>

#include "tools/recognizer-pool.h"
#include "tools/service.h"

namespace handwriting::tools {

/// Carries requests to the service and its answers back, over HTTP/1.1 on one thread that never
/// waits for a recognizer.
class HttpServer {
 public:
  /// Listens at once; port 0 picks one. Throws std::runtime_error with the address and the reason.
  HttpServer(Service& service, const std::string& address, unsigned short port);
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;
  ~HttpServer();

  /// http://ADDRESS:PORT.
  std::string Url() const;
  /// Serves until Stop, or until SIGTERM or SIGINT: then new work is refused, what runs is
  /// answered, and the end comes within five seconds. What comes before the pool is ready is
  /// refused.
  void Run(RecognizerPool& pool);
  /// From any thread: ends Run at once.
  void Stop();

 private:
  class State;
  std::unique_ptr<State> state_;
};

}  // namespace handwriting::tools

#endif  // TOOLS_HTTP_SERVER_H_
