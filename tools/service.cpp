#include "tools/service.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "tools/features-json.h"
#include "tools/model-description.h"
#include "tools/npy.h"

namespace handwriting::tools {
namespace {

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

// Name or address of a Host field, without the port and in brackets for neither.
std::string HostName(std::string_view host) {
  if (host.starts_with('[')) return Lower(host.substr(1, host.find(']') - 1));
  return Lower(host.substr(0, host.find(':')));
}

bool IsSameOrigin(const std::string& origin, const std::string& host) {
  const std::string lower = Lower(origin);
  return lower == "http://" + Lower(host) || lower == "https://" + Lower(host);
}

enum class BodyKind { kNpy, kJson, kOther };

BodyKind KindOf(const std::optional<std::string>& content_type) {
  if (!content_type) return BodyKind::kNpy;
  const std::string type = Lower(content_type->substr(0, content_type->find_first_of("; \t")));
  if (type == "application/json") return BodyKind::kJson;
  const bool is_npy = type == "application/octet-stream" || type == "application/x-npy";
  return is_npy ? BodyKind::kNpy : BodyKind::kOther;
}

bool IsRoute(const std::string& path) {
  return path == "/model" || path == "/health" || path == "/ready" || path == "/metrics";
}

Answer TextAnswer(unsigned status, std::string body) {
  return {status, "text/plain; charset=utf-8", std::move(body), {{"Cache-Control", "no-store"}}};
}

Answer JsonAnswer(std::string body) {
  return {200, "application/json", std::move(body), {{"Cache-Control", "no-store"}}};
}

Answer NotAllowed(const char* methods) {
  Answer answer = ErrorAnswer(405, std::string("allowed here: ") + methods);
  answer.fields.emplace_back("Allow", methods);
  return answer;
}

}  // namespace

void DurationHistogram::Add(Clock::duration duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  const auto bucket = std::ranges::lower_bound(kBounds, seconds) - kBounds.begin();
  ++counts_[static_cast<size_t>(bucket)];
  nanoseconds_ +=
      static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
}

std::string DurationHistogram::Text(const std::string& name, const std::string& help) const {
  std::ostringstream text;
  text << "# HELP " << name << ' ' << help << "\n# TYPE " << name << " histogram\n";
  uint64_t count = 0;
  for (size_t i = 0; i < kBounds.size(); ++i) {
    count += counts_[i];
    text << name << "_bucket{le=\"" << kBounds[i] << "\"} " << count << '\n';
  }
  count += counts_.back();
  text << name << "_bucket{le=\"+Inf\"} " << count << '\n'
       << name << "_sum " << static_cast<double>(nanoseconds_) / 1e9 << '\n'
       << name << "_count " << count << '\n';
  return text.str();
}

std::string Metrics::Text() const {
  std::ostringstream text;
  text << "# HELP handwriting_requests_total Requests to recognize by what became of them.\n"
       << "# TYPE handwriting_requests_total counter\n";
  for (size_t i = 0; i < kNames.size(); ++i) {
    text << "handwriting_requests_total{outcome=\"" << kNames[i] << "\"} " << outcomes_[i] << '\n';
  }
  text << "# HELP handwriting_frames_total Frames of the inputs that were recognized.\n"
       << "# TYPE handwriting_frames_total counter\n"
       << "handwriting_frames_total " << frames_ << '\n'
       << requests.Text("handwriting_request_duration_seconds",
                        "From the first byte of a request to its answer.")
       << queue.Text("handwriting_queue_duration_seconds",
                     "From the last byte of a request to a recognizer's taking it.");
  return text.str();
}

Service::Service(Setup setup) : setup_(std::move(setup)), page_(setup_.page) {
  std::ranges::transform(setup_.hosts, setup_.hosts.begin(), HostName);
}

void Service::Describe(const ModelSource& model) {
  model_description_ = LineOf(DescribeFile(model));
  is_described_ = true;
}

bool Service::IsHostAllowed(const std::string& host) const {
  return std::ranges::find(setup_.hosts, HostName(host)) != setup_.hosts.end();
}

// A page elsewhere can make a browser send requests here, under a name that it lets point here:
// both fields tell that.
std::optional<Answer> Service::Check(const Request& request) const {
  if (!request.host) return ErrorAnswer(400, "the field Host is missing");
  if (!IsHostAllowed(*request.host)) return ErrorAnswer(403, "not served under this host");
  if (request.origin && !IsSameOrigin(*request.origin, *request.host)) {
    return ErrorAnswer(403, "not served to this origin");
  }
  if (!IsWork(request)) {
    const bool is_read = request.method == "GET" || request.method == "HEAD";
    if (!is_read && (IsRoute(request.path) || !setup_.page.empty())) return NotAllowed("GET, HEAD");
    if (!is_read) return ErrorAnswer(404, "nothing here");
    if (request.has_body) return ErrorAnswer(413, "a body that nothing is done with");
    return std::nullopt;
  }
  if (request.method != "POST") return NotAllowed("POST");
  if (!request.query.empty() && request.query != "detail=1" && request.query != "detail=0") {
    return ErrorAnswer(400, "unknown query, detail=1 is known");
  }
  if (KindOf(request.content_type) == BodyKind::kOther) {
    return ErrorAnswer(415, "application/octet-stream (.npy) or application/json wanted");
  }
  if (!request.has_body) return ErrorAnswer(400, "the body is empty");
  return std::nullopt;
}

Answer Service::AnswerAtOnce(const Request& request, bool is_ready) const {
  if (request.path == "/health") return TextAnswer(200, "ok\n");
  if (request.path == "/ready") {
    return is_ready ? TextAnswer(200, "ready\n") : ErrorAnswer(503, "not ready");
  }
  if (request.path == "/model") {
    return is_described_ ? JsonAnswer(model_description_) : ErrorAnswer(503, "not ready");
  }
  if (request.path == "/metrics") {
    Answer answer = TextAnswer(200, metrics_.Text());
    answer.type = "text/plain; version=0.0.4; charset=utf-8";
    return answer;
  }
  if (std::optional<Answer> file = page_.Find(request.path)) return *std::move(file);
  return ErrorAnswer(404, "nothing here");
}

Answer Service::Recognize(const Request& request, Recognizer& recognizer) {
  try {
    Matrix features;
    size_t frames = 0;
    try {
      features = KindOf(request.content_type) == BodyKind::kJson ? ParseFeaturesJson(request.body)
                                                                 : ParseNpy(request.body);
      frames = features.shape[0];
      if (features.shape.size() == 2 && frames > limits().frames) {
        return ErrorAnswer(413, std::to_string(frames) + " frames found, at most " +
                                    std::to_string(limits().frames) + " taken");
      }
      recognizer.CheckShape(features);
    } catch (const std::runtime_error& error) {
      return ErrorAnswer(400, error.what());
    }
    const bool in_detail = request.query == "detail=1";
    const Json json =
        in_detail ? AnswerInDetail(recognizer.RecognizeInDetail(features), setup_.labels, frames)
                  : AnswerOf(recognizer.Recognize(features), setup_.labels);
    metrics_.CountFrames(frames);
    return JsonAnswer(LineOf(json));
  } catch (const std::bad_alloc&) {
    return ErrorAnswer(503, "out of memory");
  } catch (const std::exception& error) {
    return ErrorAnswer(500, error.what());
  }
}

}  // namespace handwriting::tools
