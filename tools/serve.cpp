// `handwriting serve`: the recognizer as an HTTP service.

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/commands.h"
#include "tools/http-server.h"
#include "tools/recognizer-pool.h"
#include "tools/service.h"

namespace handwriting::tools {
namespace {

struct Options {
  Service::Setup setup;
  std::string labels;
  std::string host = "127.0.0.1";
  int port = 8080;
  int threads = 1;
  std::vector<std::string> allowed_hosts;
  int body_mib = 16;
};

size_t ThreadCount(int wanted) {
  if (wanted > 0) return static_cast<size_t>(wanted);
  return std::max(std::thread::hardware_concurrency(), 1U);
}

// The server listens while the recognizers are made, so that it can say that it is not ready.
int Run(const Options& options) {
  Service::Setup setup = options.setup;
  if (!options.labels.empty()) setup.labels = Labels::OfFile(options.labels);
  setup.limits.body_bytes = static_cast<size_t>(options.body_mib) << 20;
  setup.hosts = {options.host, "localhost"};
  setup.hosts.insert(setup.hosts.end(), options.allowed_hosts.begin(), options.allowed_hosts.end());
  Service service(std::move(setup));
  HttpServer server(service, options.host, static_cast<unsigned short>(options.port));
  RecognizerPool pool(service, ThreadCount(options.threads));
  std::exception_ptr failure;
  std::jthread serving([&] {
    try {
      server.Run(pool);
    } catch (...) {
      failure = std::current_exception();
    }
  });
  try {
    pool.Load();
    std::cout << "listening on " << server.Url() << '\n';
    FlushOutput();
  } catch (...) {
    server.Stop();
    throw;
  }
  serving.join();
  if (failure) std::rethrow_exception(failure);
  // What has not come to an end by now is not waited for.
  if (pool.IsWorking()) std::_Exit(kDone);
  return kDone;
}

constexpr char kFooter[] =
    R"(MODEL holds two networks in binary form. A recognizer is made from it for every thread.

  POST /recognize    a .npy file (application/octet-stream) or {"features": [[...], ...]}
                     (application/json): answers what `recognize --json` prints, less "file"; with
                     ?detail=1 what --detail adds
  GET /model         what `inspect --json` prints
  GET /health        200 as long as the service runs
  GET /ready         200 where it takes work; 503 while it loads or stops, and while an input takes
                     longer than --work-seconds
  GET /metrics       counters and durations as Prometheus reads them
  GET /...           files beneath --page

An error is {"error": {"code": ..., "message": ...}}: 400 a body or request that makes no sense, 403
another host or origin, 404, 405, 408 too slow, 413 too large, 415 another content type, 431 a header
that is too large, 500 a model that fails, 503 (with Retry-After) too much at once.

Requests whose Host is neither the address that is listened on, localhost nor named by --allow-host
are refused, and so are those with the Origin of another page: no web page elsewhere can reach the
service through a browser. There is no authentication and no TLS: put a proxy before it where it
leaves this machine. SIGTERM and SIGINT end it within five seconds; what runs is answered.)";

}  // namespace

Command AddServe(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  Limits& limits = options->setup.limits;
  CLI::App* command = app.add_subcommand("serve", "Recognize what comes over HTTP");
  command->add_option("MODEL", options->setup.model, "Model file of two networks, binary")
      ->required();
  command
      ->add_option("--labels", options->labels,
                   "UTF-8 text file, line k (from 0) is the label of class k")
      ->type_name("FILE");
  command->add_option("--host", options->host, "IP address to listen on")
      ->type_name("ADDRESS")
      ->capture_default_str();
  const auto number = [command](const char* name, auto& value, const char* text, int min, int max) {
    command->add_option(name, value, text)
        ->type_name("N")
        ->check(CountFromTo(min, max))
        ->capture_default_str();
  };
  number("--port", options->port, "Port to listen on; 0 picks one", 0, 65535);
  number("--threads", options->threads, "Recognizers at work; 0 for one a core, up to 1024", 0,
         kMaxThreads);
  number("--nbest", options->setup.nbest,
         "Paths that the search keeps, hence the most sequences of an answer; up to 1000", 1,
         kMaxBest);
  command->add_option("--page", options->setup.page, "Folder of a page to serve at /")
      ->type_name("FOLDER");
  command
      ->add_option("--allow-host", options->allowed_hosts,
                   "Further name under which the service is reached")
      ->type_name("NAME");
  number("--max-body", options->body_mib, "MiB of a body", 1, 1024);
  number("--max-frames", limits.frames, "Frames of an input", 1, 100'000'000);
  number("--max-connections", limits.connections, "Connections at a time", 1, 1'000'000);
  number("--queue", limits.queue, "Requests that wait for a recognizer", 1, 1'000'000);
  number("--idle-seconds", limits.idle_seconds,
         "How long a connection stays without a request, and an answer unread", 1, 86400);
  number("--receive-seconds", limits.receive_seconds,
         "How long a request takes to come, from its first byte to its last", 1, 86400);
  number("--work-seconds", limits.work_seconds,
         "How long an input may take before the service is not ready", 1, 86400);
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
