#include "tools/http-server.h"

#include <linux/sockios.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

namespace handwriting::tools {

namespace asio = boost::asio;
using asio::redirect_error;
using asio::use_awaitable;
using asio::ip::tcp;
using boost::system::error_code;

namespace {

// How often deadlines are looked at: one timer for all connections costs a request nothing.
constexpr auto kSweep = std::chrono::milliseconds(100);
// How long a connection that is closed waits for the other side to read the answer.
constexpr auto kLinger = std::chrono::seconds(2);
// After a signal: how long everything may take, and how long refusals are given at least.
constexpr auto kMostStopping = std::chrono::milliseconds(4500);
constexpr auto kLeastStopping = std::chrono::milliseconds(300);
// Descriptors beside those of connections.
constexpr size_t kOtherFiles = 64;
constexpr size_t kReadBytes = size_t{64} << 10;
constexpr unsigned kReadsInARow = 16;

// The thread of the connections is woken for every packet. Where it has no core of its own it is
// not to interrupt a recognizer each time: it has its turn when that one waits, or after some
// milliseconds.
void LetOthersFinish() {
  const sched_param none{};
  pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
}

void RaiseOpenFiles(size_t wanted) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted) return;
  if (limit.rlim_max < wanted) {
    throw std::runtime_error(std::to_string(wanted) + " open files wanted, the limit is " +
                             std::to_string(limit.rlim_max) + " (fewer connections want fewer)");
  }
  limit.rlim_cur = wanted;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Bodies that are being received or wait, together.
class BodyBudget {
 public:
  explicit BodyBudget(size_t most) : most_(most) {}
  bool Take(size_t bytes) {
    if (bytes > most_ - used_) return false;
    used_ += bytes;
    return true;
  }
  void GiveBack(size_t bytes) { used_ -= bytes; }

 private:
  size_t most_;
  size_t used_ = 0;
};

// What one request has taken of it.
class BodyShare {
 public:
  explicit BodyShare(BodyBudget& budget) : budget_(budget) {}
  ~BodyShare() { budget_.GiveBack(taken_); }
  BodyShare(const BodyShare&) = delete;
  BodyShare& operator=(const BodyShare&) = delete;

  bool GrowTo(size_t bytes) {
    if (bytes <= taken_) return true;
    if (!budget_.Take(bytes - taken_)) return false;
    taken_ = bytes;
    return true;
  }

 private:
  BodyBudget& budget_;
  size_t taken_ = 0;
};

// A request at a recognizer. Its thread sends the answer itself where it can, so that there is no
// other thread to wake; meanwhile the connection waits for what comes next.
struct Exchange {
  enum Stage { kWaits, kIsSent, kComesByPost };

  Work work;
  unsigned version = 11;
  bool keep_alive = false;
  // Whoever brings it out of kWaits says who sends: the thread of the recognizer, or, later, that
  // of the connections.
  std::atomic<Stage> stage = kWaits;
  // Nobody waits for the answer any more.
  std::atomic<bool> is_gone = false;
  // Set when the answer has been sent: not before, another one may be, nor may the socket be
  // closed.
  std::atomic<bool> is_over = false;
  std::shared_ptr<Exchange> previous;
  // On the thread of the connections: the answer has been left to it.
  bool is_posted = false;
};

struct Connection : std::enable_shared_from_this<Connection> {
  explicit Connection(tcp::socket accepted)
      : socket(std::move(accepted)), wake(socket.get_executor()) {
    socket.non_blocking(true);
    wake.expires_at(Clock::time_point::max());
  }

  tcp::socket socket;
  // Cancelled when the answer to the work is there.
  asio::steady_timer wake;
  // When the sweep cancels what the connection waits for.
  std::atomic<Clock::rep> deadline = kNever;
  bool is_late = false;
  // From the first byte of a request to the last one of its answer.
  std::atomic<bool> is_busy = false;
  // What was read and not yet made use of.
  std::string pending;
  std::shared_ptr<Exchange> last;
  unsigned reads = 0;

  static constexpr Clock::rep kNever = Clock::time_point::max().time_since_epoch().count();

  void SetDeadline(Clock::duration from_now) {
    deadline = (Clock::now() + from_now).time_since_epoch().count();
  }
};
using ConnectionPointer = std::shared_ptr<Connection>;

// Whether a socket takes so many bytes at once: there is room for as many in an empty buffer.
bool TakesAtOnce(int socket, size_t bytes) {
  constexpr size_t kSurely = size_t{16} << 10;
  int unsent = 1;
  return bytes <= kSurely && ioctl(socket, SIOCOUTQ, &unsent) == 0 && unsent == 0;
}

// Whether the other side has closed: nothing will read the answer.
bool HasLeft(tcp::socket& socket) {
  char byte = 0;
  const ssize_t got = recv(socket.native_handle(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  return got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR);
}

}  // namespace

class HttpServer::State {
 public:
  State(Service& service, const std::string& address, unsigned short port)
      : service_(service),
        bodies_(service.limits().all_bodies_bytes),
        acceptor_(io_),
        signals_(io_),
        sweep_(io_) {
    RaiseOpenFiles(service.limits().connections + kOtherFiles);
    error_code error;
    const auto host = asio::ip::make_address(address == "localhost" ? "127.0.0.1" : address, error);
    if (error) throw std::runtime_error(address + ": no IP address");
    const tcp::endpoint endpoint(host, port);
    acceptor_.open(endpoint.protocol(), error);
    if (!error) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor_.bind(endpoint, error);
    if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
      throw std::runtime_error(address + ":" + std::to_string(port) + ": " + error.message());
    }
  }

  std::string Url() const {
    const tcp::endpoint endpoint = acceptor_.local_endpoint();
    const std::string address = endpoint.address().to_string();
    return "http://" + (endpoint.address().is_v6() ? "[" + address + "]" : address) + ":" +
           std::to_string(endpoint.port());
  }

  void Run(RecognizerPool& pool) {
    pool_ = &pool;
    LetOthersFinish();
    signals_.add(SIGTERM);
    signals_.add(SIGINT);
    signals_.async_wait([this](error_code error, int /*signal*/) {
      if (error) return;
      stopping_since_ = Clock::now();
      is_stopping_ = true;
    });
    asio::co_spawn(io_, Accept(), asio::detached);
    asio::co_spawn(io_, Sweep(), asio::detached);
    io_.run();
  }

  void Stop() { io_.stop(); }

 private:
  bool IsStopping() const { return is_stopping_; }
  bool IsReady() const { return !IsStopping() && pool_->IsReady(); }
  const Limits& limits() const { return service_.limits(); }

  asio::awaitable<void> Accept() {
    for (;;) {
      error_code error;
      tcp::socket socket = co_await acceptor_.async_accept(redirect_error(use_awaitable, error));
      if (error) {
        // No descriptor or no memory for it: those who have one may end.
        asio::steady_timer pause(io_, kSweep);
        co_await pause.async_wait(redirect_error(use_awaitable, error));
        continue;
      }
      try {
        Take(std::move(socket));
      } catch (const std::bad_alloc&) {
        // No memory for one connection more: it is closed.
      }
    }
  }

  void Take(tcp::socket socket) {
    error_code error;
    socket.set_option(tcp::no_delay(true), error);
    if (connections_.size() >= limits().connections) return Refuse(socket);
    const auto connection = std::make_shared<Connection>(std::move(socket));
    connections_.insert(connection);
    asio::co_spawn(io_, Serve(connection), asio::detached);
  }

  // One connection too many: told so as far as that goes without waiting.
  void Refuse(tcp::socket& socket) {
    service_.metrics().Count(Metrics::Outcome::kBusy);
    const std::string bytes = BytesOf(ErrorAnswer(503, "too many connections"), 11, false, false);
    error_code error;
    socket.non_blocking(true, error);
    socket.write_some(asio::buffer(bytes), error);
    socket.shutdown(tcp::socket::shutdown_send, error);
  }

  asio::awaitable<void> Sweep() {
    for (;;) {
      error_code error;
      sweep_.expires_after(kSweep);
      co_await sweep_.async_wait(redirect_error(use_awaitable, error));
      const Clock::time_point now = Clock::now();
      bool is_busy = false;
      for (const ConnectionPointer& connection : connections_) {
        is_busy |= connection->is_busy;
        if (now.time_since_epoch().count() < connection->deadline) continue;
        connection->is_late = true;
        connection->deadline = Connection::kNever;
        connection->socket.cancel(error);
      }
      if (IsStopping() && ((!is_busy && now - stopping_since_ > kLeastStopping) ||
                           now - stopping_since_ > kMostStopping)) {
        io_.stop();
      }
    }
  }

  asio::awaitable<void> Serve(ConnectionPointer connection) {
    try {
      while (co_await ServeRequest(*connection)) {
      }
      co_await WaitForSending(*connection);
      co_await Close(*connection);
    } catch (const std::exception&) {
      // Out of memory, or a connection that broke: this one ends, the others go on.
    }
    connections_.erase(connection);
  }

  // Until an answer that a recognizer's thread sends is on its way.
  asio::awaitable<void> WaitForSending(Connection& connection) {
    while (connection.last && !connection.last->is_over) co_await asio::post(io_, use_awaitable);
    connection.last.reset();
  }

  // A connection is closed once the other side has read the answer: data that it still sends would
  // otherwise make the system throw the answer away.
  asio::awaitable<void> Close(Connection& connection) {
    error_code error;
    connection.socket.shutdown(tcp::socket::shutdown_send, error);
    connection.SetDeadline(kLinger);
    while (!error && !connection.is_late) co_await ReadBlock(connection, error);
  }

  // Reads into the block, and waits for bytes where there are none. None with an error: that of the
  // other side, or that of the sweep. Who sends without a pause lets others have their turn.
  asio::awaitable<std::string_view> ReadBlock(Connection& connection, error_code& error) {
    if (++connection.reads % kReadsInARow == 0) co_await asio::post(io_, use_awaitable);
    for (;;) {
      const size_t got = connection.socket.read_some(asio::buffer(block_), error);
      if (error != asio::error::would_block && error != asio::error::interrupted) {
        co_return std::string_view(block_.data(), got);
      }
      co_await connection.socket.async_wait(tcp::socket::wait_read,
                                            redirect_error(use_awaitable, error));
      if (error) co_return std::string_view();
    }
  }

  // Reads a request and answers it. False where the connection is to be closed.
  asio::awaitable<bool> ServeRequest(Connection& connection) {
    RequestReader reader(limits());
    BodyShare body(bodies_);
    Clock::time_point begin;
    std::optional<Answer> answer;
    if (!co_await Receive(connection, reader, body, begin, answer)) co_return false;
    const bool is_complete = !answer;
    Request& request = reader.request();
    if (is_complete && Service::IsWork(request)) {
      co_return co_await Recognize(connection, request, begin);
    }
    if (is_complete) answer = service_.AnswerAtOnce(request, IsReady());
    const bool keep_alive = is_complete && request.keep_alive && !IsStopping();
    if (!is_complete) Count(*answer, begin);
    co_return co_await Send(connection,
                            BytesOf(*answer, request.version, keep_alive, request.method == "HEAD"),
                            keep_alive);
  }

  // False where the connection is to be closed after it.
  asio::awaitable<bool> Send(Connection& connection, const std::string& bytes, bool keep_alive) {
    co_await WaitForSending(connection);
    connection.SetDeadline(std::chrono::seconds(limits().idle_seconds));
    error_code error;
    co_await asio::async_write(connection.socket, asio::buffer(bytes),
                               redirect_error(use_awaitable, error));
    connection.is_busy = false;
    co_return !error ? keep_alive : false;
  }

  void Count(const Answer& answer, Clock::time_point begin) {
    Metrics& metrics = service_.metrics();
    metrics.Count(answer.status == 503   ? Metrics::Outcome::kBusy
                  : answer.status >= 500 ? Metrics::Outcome::kBroken
                  : answer.status >= 400 ? Metrics::Outcome::kRefused
                                         : Metrics::Outcome::kAnswered);
    metrics.requests.Add(Clock::now() - begin);
  }

  // Reads a request; `refusal` where it is refused before its end. False where the other side has
  // gone, or has nothing to say.
  asio::awaitable<bool> Receive(Connection& connection, RequestReader& reader, BodyShare& body,
                                Clock::time_point& begin, std::optional<Answer>& refusal) {
    connection.SetDeadline(std::chrono::seconds(limits().idle_seconds));
    std::string& pending = connection.pending;
    for (bool wants_more = pending.empty();; wants_more = true) {
      std::string_view bytes;
      if (wants_more) {
        error_code error;
        bytes = co_await ReadBlock(connection, error);
        if (error) {
          const bool has_begun = reader.state() != RequestReader::State::kNothing;
          if (!has_begun || !std::exchange(connection.is_late, false)) co_return false;
          refusal = ErrorAnswer(408, "the request took too long to come");
          co_return true;
        }
      }
      if (reader.state() == RequestReader::State::kNothing) {
        begin = Clock::now();
        connection.is_busy = true;
        connection.SetDeadline(std::chrono::seconds(limits().receive_seconds));
      }
      if (!pending.empty()) bytes = pending.append(bytes);
      const size_t used = Feed(bytes, reader, body, refusal);
      pending = std::string(bytes.substr(used));
      if (refusal || reader.state() == RequestReader::State::kComplete) co_return true;
      if (reader.state() == RequestReader::State::kBody && reader.request().expects_continue) {
        reader.request().expects_continue = false;
        if (!co_await Continue(connection)) co_return false;
      }
    }
  }

  // Gives bytes to the reader as long as it takes some; returns how many it took.
  size_t Feed(std::string_view bytes, RequestReader& reader, BodyShare& body,
              std::optional<Answer>& refusal) {
    using Stage = RequestReader::State;
    size_t used = 0;
    while (used < bytes.size()) {
      const Stage before = reader.state();
      const size_t taken = reader.Read(bytes.data() + used, bytes.size() - used);
      used += taken;
      if (reader.state() == Stage::kRefused) {
        refusal = reader.refusal();
      } else if (before < Stage::kBody && reader.state() >= Stage::kBody) {
        refusal = Check(reader.request(), body);
      } else if (!body.GrowTo(reader.body_bytes())) {
        refusal = ErrorAnswer(503, "too many bodies");
      }
      if (refusal || reader.state() == Stage::kComplete || taken == 0) break;
    }
    return used;
  }

  // What the header tells: neither body nor recognizer is wasted on what is refused by it.
  std::optional<Answer> Check(const Request& request, BodyShare& body) {
    if (std::optional<Answer> refusal = service_.Check(request)) return refusal;
    if (!Service::IsWork(request)) return std::nullopt;
    if (IsStopping()) return ErrorAnswer(503, "the service is stopping");
    if (!IsReady()) return ErrorAnswer(503, "the service is not ready");
    if (!body.GrowTo(request.content_length.value_or(0))) {
      return ErrorAnswer(503, "too many bodies");
    }
    return std::nullopt;
  }

  static asio::awaitable<bool> Continue(Connection& connection) {
    constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    error_code error;
    co_await asio::async_write(connection.socket, asio::buffer(kContinue),
                               redirect_error(use_awaitable, error));
    co_return !error;
  }

  // Has a request recognized and answered. False where the connection is to be closed.
  asio::awaitable<bool> Recognize(Connection& connection, Request& request,
                                  Clock::time_point begin) {
    const auto exchange = std::make_shared<Exchange>();
    exchange->version = request.version;
    exchange->keep_alive = request.keep_alive;
    exchange->previous = std::exchange(connection.last, nullptr);
    exchange->work.request = std::move(request);
    exchange->work.is_gone = [state = exchange.get()] { return state->is_gone.load(); };
    exchange->work.done = [this, begin, exchange, owner = connection.shared_from_this()] {
      Finish(owner, exchange, begin);
    };
    // With the next request already here, nothing would tell that the answer has been sent.
    const bool has_next = !connection.pending.empty();
    if (has_next) exchange->stage = Exchange::kComesByPost;
    connection.deadline = Connection::kNever;
    if (IsStopping() || !pool_->Add({exchange, &exchange->work})) {
      exchange->work.done = nullptr;  // which holds the exchange
      connection.last = std::move(exchange->previous);
      const Answer answer =
          ErrorAnswer(503, IsStopping() ? "the service is stopping" : "too many requests wait");
      const bool keep_alive = exchange->keep_alive && !IsStopping();
      Count(answer, begin);
      co_return co_await Send(connection, BytesOf(answer, exchange->version, keep_alive, false),
                              keep_alive);
    }
    error_code error;
    if (!has_next) {
      co_await connection.socket.async_wait(tcp::socket::wait_read,
                                            redirect_error(use_awaitable, error));
    }
    Exchange::Stage stage = Exchange::kWaits;
    if (has_next || exchange->stage.compare_exchange_strong(stage, Exchange::kComesByPost)) {
      // Bytes, or the end of them, before the answer.
      if (HasLeft(connection.socket)) exchange->is_gone = true;
      error_code woken;
      co_await connection.wake.async_wait(redirect_error(use_awaitable, woken));
    } else if (stage == Exchange::kIsSent) {
      connection.last = exchange;
      co_return !error;
    }
    while (!exchange->is_posted) co_await asio::post(io_, use_awaitable);
    connection.last = std::move(exchange->previous);
    const std::optional<Answer>& answer = exchange->work.answer;
    if (!answer) {
      service_.metrics().Count(Metrics::Outcome::kGone);
      co_return false;
    }
    const bool keep_alive = exchange->keep_alive && !IsStopping();
    Count(*answer, begin);
    co_return co_await Send(connection, BytesOf(*answer, exchange->version, keep_alive, false),
                            keep_alive);
  }

  // In the thread of the recognizer.
  void Finish(const ConnectionPointer& connection, const std::shared_ptr<Exchange>& exchange,
              Clock::time_point begin) {
    if (SendAtOnce(*connection, *exchange, begin)) return;
    Exchange::Stage stage = Exchange::kWaits;
    exchange->stage.compare_exchange_strong(stage, Exchange::kComesByPost);
    asio::post(io_, [connection, exchange] {
      exchange->is_posted = true;
      connection->wake.cancel();
      error_code error;
      connection->socket.cancel(error);
    });
  }

  // False where the answer is left to the connection. Once the stage is kIsSent the connection may
  // go on to the next request: of it, only the descriptor is used, which stays open until the end.
  bool SendAtOnce(Connection& connection, Exchange& exchange, Clock::time_point begin) {
    if (exchange.previous && exchange.previous->is_over) exchange.previous.reset();
    if (exchange.previous || !exchange.work.answer || pool_->HasWaiting()) return false;
    if (!exchange.keep_alive || IsStopping()) return false;
    const std::string bytes = BytesOf(*exchange.work.answer, exchange.version, true, false);
    const int socket = connection.socket.native_handle();
    if (!TakesAtOnce(socket, bytes.size())) return false;
    connection.is_busy = false;
    connection.SetDeadline(std::chrono::seconds(limits().idle_seconds));
    Exchange::Stage stage = Exchange::kWaits;
    if (!exchange.stage.compare_exchange_strong(stage, Exchange::kIsSent)) {
      connection.is_busy = true;
      connection.deadline = Connection::kNever;
      return false;
    }
    Count(*exchange.work.answer, begin);
    const ssize_t sent = send(socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size())) shutdown(socket, SHUT_RDWR);
    exchange.is_over = true;
    return true;
  }

  Service& service_;
  RecognizerPool* pool_ = nullptr;
  // Requests that the context still holds at its end give back their share.
  BodyBudget bodies_;
  asio::io_context io_{1};
  tcp::acceptor acceptor_;
  asio::signal_set signals_;
  asio::steady_timer sweep_;
  std::unordered_set<ConnectionPointer> connections_;
  std::atomic<bool> is_stopping_ = false;
  Clock::time_point stopping_since_;
  // What is read goes through here, so that a connection that waits has no memory for it.
  std::vector<char> block_ = std::vector<char>(kReadBytes);
};

HttpServer::HttpServer(Service& service, const std::string& address, unsigned short port)
    : state_(std::make_unique<State>(service, address, port)) {}
HttpServer::~HttpServer() = default;

std::string HttpServer::Url() const { return state_->Url(); }
void HttpServer::Run(RecognizerPool& pool) { state_->Run(pool); }
void HttpServer::Stop() { state_->Stop(); }

}  // namespace handwriting::tools
