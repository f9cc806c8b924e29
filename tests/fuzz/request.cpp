// Any bytes as requests to the service, in pieces of any size: each is refused or answered, by one
// status of those that the service knows, and however they are cut, the same.

#include <algorithm>
#include <set>

#include <loguru.hpp>

#include "tests/fuzz/input.h"
#include "tools/service.h"

namespace {

using namespace handwriting::fuzz;   // NOLINT(google-build-using-namespace)
using namespace handwriting::tools;  // NOLINT(google-build-using-namespace)
using Stage = RequestReader::State;

// What is no request, or none that is small enough, is seen sooner or later, or not before its end,
// by how much of it comes at once.
constexpr const char* kNoRequest = " no request";

// A model of three classes a frame, which recognizes in no time.
std::string StoredModel() {
  using handwriting::tests::Bytes;
  const std::vector<float> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const Bytes affine = handwriting::tests::Affine(3, 3, {0, 0, 0}, identity);
  const Bytes softmax = handwriting::tests::Component1d(0x204, 3, 3);
  const std::string bytes =
      handwriting::tests::Network({affine}).str() + handwriting::tests::Network({softmax}).str();
  return PathWith(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

Service::Setup SmallSetup() {
  Service::Setup setup;
  setup.model = StoredModel();
  setup.hosts = {"127.0.0.1", "localhost"};
  setup.limits.header_bytes = 512;
  setup.limits.header_fields = 12;
  setup.limits.body_bytes = 4096;
  return setup;
}

struct Host {
  Host() { service.Describe(StoredModel()); }

  Service service{SmallSetup()};
  Recognizer recognizer{StoredModel(), 3};
};

// What becomes of the requests: statuses and paths, as text.
std::string AnswersTo(Host& host, const uint8_t* data, size_t size, size_t piece) {
  const std::set<unsigned> known = {200, 400, 403, 404, 405, 408, 413, 415, 431, 500, 503};
  const auto* bytes = reinterpret_cast<const char*>(data);
  std::string answers;
  std::string pending;
  size_t fed = 0;
  for (bool goes_on = true; goes_on;) {
    RequestReader reader(host.service.limits());
    std::optional<Answer> answer;
    bool is_checked = false;
    while (!answer && reader.state() != Stage::kComplete) {
      const size_t taken = reader.Read(pending.data(), pending.size());
      pending.erase(0, taken);
      Require(reader.body_bytes() <= host.service.limits().body_bytes, "the size of a body");
      if (reader.state() == Stage::kRefused) {
        answer = reader.refusal();
      } else if (!is_checked && reader.state() >= Stage::kBody) {
        is_checked = true;
        answer = host.service.Check(reader.request());
      } else if (taken == 0 && reader.state() != Stage::kComplete) {
        const size_t more = std::min(piece, size - fed);
        if (more == 0) return answers + kNoRequest;
        pending.append(bytes + fed, more);
        fed += more;
      }
    }
    goes_on = !answer && reader.request().keep_alive;
    if (!answer) {
      answer = Service::IsWork(reader.request())
                   ? host.service.Recognize(reader.request(), host.recognizer)
                   : host.service.AnswerAtOnce(reader.request(), true);
    }
    Require(known.contains(answer->status), "a known status");
    if (reader.state() == Stage::kRefused) return answers + kNoRequest;
    Require(answer->status < 400 || answer->body.starts_with("{\"error\":{\"code\":"), "an error");
    Require(!BytesOf(*answer, 11, goes_on, false).empty(), "an answer");
    answers += " " + std::to_string(answer->status) + reader.request().path;
  }
  return answers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
  if (size == 0) return 0;
  static Host host;
  const std::string whole = AnswersTo(host, data + 1, size - 1, size);
  const std::string pieces = AnswersTo(host, data + 1, size - 1, 1 + data[0] % 16);
  Require(whole == pieces, "the same answers in pieces");
  return 0;
}
