// `handwriting bench`: how long a model takes.

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "api/handwriting_forward.recognizer.h"
#include "nnet/base/blas-library.h"
#include "nnet/base/element-kernels.h"
#include "nnet/runtime/nnet-nnet.h"
#include "tools/allocations.h"
#include "tools/commands.h"
#include "tools/model-file.h"
#include "tools/table.h"

namespace handwriting::tools {
namespace {

using tarev::nnet::handwriting_CTC::BlockShape;
using tarev::nnet::handwriting_CTC::LayerObserver;
using tarev::nnet::handwriting_CTC::Nnet;
using tarev::nnet::handwriting_CTC::NnetForward;
using tarev::nnet::handwriting_CTC::ToSize;
using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::duration<double, std::nano>;

constexpr int kMaxFrames = 1 << 20;
constexpr int kMaxNetwork = 1000;
constexpr double kMaxSeconds = 3600;
// Enough for a median; keeps small what a long run over a small network stores.
constexpr size_t kMaxCalls = 200000;
constexpr int kMinInputs = 3;
constexpr int kWidthWhereNoneIsSet = 64;

struct Options {
  std::string model;
  int network = 0;  // 0: the whole recognizer
  int frames = 100;
  int chunk = 0;  // 0: the whole input is one call
  double seconds = 2;
  int nbest = 10;
  bool json = false;
};

double Since(Clock::time_point begin) { return Nanoseconds(Clock::now() - begin).count(); }

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Nanoseconds that each layer of one network takes, call by call, and the time between two passes
// over the network within a call.
class LayerTimes final : public LayerObserver {
 public:
  explicit LayerTimes(const Nnet& network) : spent_(network.layers.size()), of_(spent_.size()) {}

  void BeforeLayer(size_t position) override {
    const double lap = Lap();
    if (position == 0 && running_) between_ += lap;
    running_ = true;
  }
  void AfterLayer(size_t position, const float* /*out*/, const BlockShape& /*shape*/) override {
    spent_[position] += Lap();
  }

  void BeginCall() {
    std::fill(spent_.begin(), spent_.end(), 0.0);
    between_ = 0;
    running_ = false;
  }
  /// What has passed since the last layer counts as time between passes.
  void EndCall() {
    between_of_.push_back(between_ + Lap());
    for (size_t i = 0; i < spent_.size(); ++i) of_[i].push_back(spent_[i]);
  }

  size_t layers() const { return of_.size(); }
  double LayerMedian(size_t position) const { return Median(of_[position]); }
  double BetweenMedian() const { return Median(between_of_); }

 private:
  double Lap() {
    const Clock::time_point now = Clock::now();
    return Nanoseconds(now - std::exchange(last_, now)).count();
  }

  Clock::time_point last_;
  bool running_ = false;
  double between_ = 0;
  std::vector<double> spent_;
  std::vector<double> between_of_;
  std::vector<std::vector<double>> of_;
};

// Of all networks; executors hold pointers to them, so they stay where they are.
using NetworkTimes = std::deque<LayerTimes>;

// The width of the network's input: that of the first layer that has one of its own.
int WidthOf(const Nnet& network) {
  for (const auto& layer : network.layers) {
    if (layer->InputDim() > 0) return layer->InputDim();
  }
  return kWidthWhereNoneIsSet;
}

uint64_t MemoryBytes(const Nnet& network) {
  uint64_t bytes = 0;
  for (const auto& layer : network.layers) bytes += layer->MemoryBytes();
  return bytes;
}

// What is timed: calls that together run one input of random features, as often as is asked for.
class Subject {
 public:
  struct Part {
    int number;
    const Nnet* network;
    NnetForward* executor;
  };

  virtual ~Subject() = default;
  /// The networks that a call runs, in order.
  virtual std::vector<Part> parts() const = 0;
  /// Whether what follows the last network in a call is a search.
  virtual bool has_search() const = 0;
  /// Which model, which part of it and what input, for messages and for the heading.
  std::string place() const { return place_; }
  std::string InputText() const {
    const std::string planes = channels_ == 1 ? "" : std::to_string(channels_) + " channels x ";
    return planes + std::to_string(counts_.front()) + " frames x " + std::to_string(dim_);
  }

  size_t calls() const { return counts_.size(); }
  int frames(size_t call) const { return counts_[call]; }
  /// Begins the input anew. Layers that compute in place have changed the features.
  void Begin() {
    blocks_ = features_;
    Reset();
  }
  virtual void Call(size_t index) = 0;

 protected:
  explicit Subject(std::string place) : place_(std::move(place)) {}

  /// Draws the features, the same in every run, uniformly from [-1, 1).
  void Draw(const Nnet& first, int channels, int frames, int chunk) {
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> values(-1, 1);
    channels_ = channels;
    dim_ = WidthOf(first);
    for (int begin = 0; begin < frames; begin += chunk) {
      counts_.push_back(std::min(chunk, frames - begin));
      auto& block =
          features_.emplace_back(ToSize(channels) * ToSize(counts_.back()) * ToSize(dim_));
      for (float& value : block) value = values(engine);
    }
  }
  virtual void Reset() = 0;

  const float* block(size_t call) const { return blocks_[call].data(); }
  int channels() const { return channels_; }
  int dim() const { return dim_; }

 private:
  std::string place_;
  int channels_ = 1;
  int dim_ = 0;
  std::vector<int> counts_;
  std::vector<std::vector<float>> features_;
  std::vector<std::vector<float>> blocks_;
};

class NetworkSubject final : public Subject {
 public:
  explicit NetworkSubject(const Options& options)
      : Subject(options.model + ": network " + std::to_string(options.network)),
        number_(options.network),
        network_(ReadNetworkOfFile(options.model, ToSize(options.network))) {
    if (network_.layers.empty()) throw std::runtime_error(place() + ": it has no layers");
    try {
      executor_ = std::make_unique<NnetForward>(&network_);
      executor_->ReserveFrames(Step(options));
    } catch (const std::runtime_error& error) {
      throw std::runtime_error(place() + ": " + error.what());
    }
  }

  void Prepare(const Options& options) {
    const int channels = TakesPlanes(network_) ? network_.layers.front()->InputChannel() : 1;
    Draw(network_, channels, options.frames, Step(options));
  }
  std::vector<Part> parts() const override { return {{number_, &network_, executor_.get()}}; }
  bool has_search() const override { return false; }
  void Call(size_t index) override {
    executor_->Forward(block(index), frames(index), dim(), channels());
  }

 private:
  static int Step(const Options& options) {
    return options.chunk == 0 ? options.frames : std::min(options.chunk, options.frames);
  }
  void Reset() override { executor_->Reset(); }

  int number_;
  Nnet network_;
  std::unique_ptr<NnetForward> executor_;
};

// The record says that a model does not do; the tool's own reader says what and where.
[[noreturn]] void ThrowUnusable(const std::string& model, const std::string& reason) {
  const size_t found = ReadModelFile(model).networks.size();
  if (found < 2) throw std::runtime_error(model + ": 1 network found, 2 wanted (or --network)");
  throw std::runtime_error(model + ": " + reason);
}

class RecognizerSubject final : public Subject {
 public:
  explicit RecognizerSubject(const Options& options) : Subject(options.model) {
    RefuseTextModel(options.model);
    const FilePointer file = OpenForReading(options.model);
    bool read = false;
    try {
      read = recognizer_.ReadFirst(file.get(), options.frames) &&
             recognizer_.ReadSecond(file.get(), options.nbest);
    } catch (const std::runtime_error& error) {
      ThrowUnusable(options.model, error.what());
    }
    if (!read) ThrowUnusable(options.model, "no recognizer could be created");
  }

  void Prepare(const Options& options) {
    Draw(*recognizer_.nnet1, 1, options.frames, options.frames);
    labels_.resize(ToSize(options.frames) * ToSize(options.nbest));
    lengths_.resize(ToSize(options.nbest));
  }
  std::vector<Part> parts() const override {
    return {{1, recognizer_.nnet1.get(), recognizer_.forward1.get()},
            {2, recognizer_.nnet2.get(), recognizer_.forward2.get()}};
  }
  bool has_search() const override { return true; }
  void Call(size_t index) override {
    recognizer_.Process(block(index), frames(index), dim(), labels_.data(), lengths_.data());
  }

 private:
  void Reset() override {}  // Process does it

  handwriting_forward_t recognizer_;
  std::vector<int> labels_;
  std::vector<int> lengths_;
};

struct Figures {
  double load_ms = 0;
  double first_call_ms = 0;
  std::vector<double> ns_per_call;
  std::vector<double> ns_per_frame;  // of whole inputs
  uint64_t allocations = 0;
};

// Times the calls of one input, and counts what they allocate.
void RunTimed(Subject& subject, Figures& figures) {
  double ns = 0;
  int frames = 0;
  subject.Begin();
  for (size_t i = 0; i < subject.calls(); ++i) {
    const uint64_t before = CountAllocations();
    const Clock::time_point begin = Clock::now();
    subject.Call(i);
    const double spent = Since(begin);
    figures.allocations += CountAllocations() - before;
    figures.ns_per_call.push_back(spent);
    ns += spent;
    frames += subject.frames(i);
  }
  figures.ns_per_frame.push_back(ns / frames);
}

// Times the layers in the calls of one input. They are calls of their own, since looking at the
// clock around every layer takes time too.
void RunObserved(Subject& subject, NetworkTimes& times) {
  const std::vector<Subject::Part> parts = subject.parts();
  for (size_t i = 0; i < parts.size(); ++i) parts[i].executor->Observe(&times[i]);
  subject.Begin();
  for (size_t i = 0; i < subject.calls(); ++i) {
    for (LayerTimes& part : times) part.BeginCall();
    subject.Call(i);
    for (LayerTimes& part : times) part.EndCall();
  }
  for (const Subject::Part& part : parts) part.executor->Observe(nullptr);
}

// One call that finds everything cold, then a tenth of the time for the warm-up, then timed and
// observed inputs by turns, so that both meet the same machine.
void Measure(Subject& subject, double seconds, Figures& figures, NetworkTimes& times) {
  Figures warm_up;
  RunTimed(subject, warm_up);
  figures.first_call_ms = warm_up.ns_per_call.front() / 1e6;
  const auto goes_on = [](const Figures& of, Clock::time_point begin, double for_seconds) {
    return of.ns_per_call.size() < kMaxCalls && Since(begin) < for_seconds * 1e9;
  };
  Clock::time_point begin = Clock::now();
  do {
    RunTimed(subject, warm_up);
  } while (goes_on(warm_up, begin, seconds / 10));
  begin = Clock::now();
  for (int inputs = 0; inputs < kMinInputs || goes_on(figures, begin, seconds); ++inputs) {
    RunTimed(subject, figures);
    RunObserved(subject, times);
  }
}

// ---- The document, which --json prints and which the text shows -----------------------------------

// What remains of a call beside the layers is the search: it runs after each pass of the last
// network, once the pass's frames are there.
void DescribeShares(const Subject& subject, const NetworkTimes& times, Json& document) {
  const std::vector<Subject::Part> parts = subject.parts();
  Json layers = Json::array();
  double sum = 0;
  for (size_t n = 0; n < parts.size(); ++n) {
    for (size_t i = 0; i < times[n].layers(); ++i) {
      const double ns = times[n].LayerMedian(i);
      const std::string marker = parts[n].network->layers[i]->TypeMarker();
      Json layer = {{"position", i}, {"marker", marker}, {"ns_median", ns}};
      if (subject.has_search()) layer["network"] = parts[n].number;
      layers.push_back(std::move(layer));
      sum += ns;
    }
  }
  const double search = subject.has_search() ? times.back().BetweenMedian() : 0;
  sum += search;
  for (Json& layer : layers) layer["share"] = layer.at("ns_median").get<double>() / sum;
  document["layers"] = std::move(layers);
  if (subject.has_search()) document["decoder"] = {{"ns_median", search}, {"share", search / sum}};
}

Json Describe(const Subject& subject, const Options& options, const Figures& figures,
              const NetworkTimes& times) {
  const double frame_median = Median(figures.ns_per_frame);
  const auto least = [](const auto& values) {
    return *std::min_element(values.begin(), values.end());
  };
  const double calls = static_cast<double>(figures.ns_per_call.size());
  uint64_t memory = 0;
  for (const Subject::Part& part : subject.parts()) memory += MemoryBytes(*part.network);
  Json document = {{"frames_per_second", 1e9 / frame_median},
                   {"ns_per_frame_min", least(figures.ns_per_frame)},
                   {"ns_per_frame_median", frame_median},
                   {"ns_per_call_min", least(figures.ns_per_call)},
                   {"ns_per_call_median", Median(figures.ns_per_call)},
                   {"allocations_per_call", static_cast<double>(figures.allocations) / calls}};
  DescribeShares(subject, times, document);
  document["load_ms"] = figures.load_ms;
  document["first_call_ms"] = figures.first_call_ms;
  document["model_bytes"] = std::filesystem::file_size(options.model);
  document["memory_bytes"] = memory;
  document["vector_target"] = tarev::nnet::handwriting_CTC::vector_target_name();
  document["blas_core"] = tarev::nnet::handwriting_CTC::blas_core_name();
  return document;
}

// ---- The text -------------------------------------------------------------------------------------

std::string Number(const Json& value, double scale, int digits) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", digits, value.get<double>() * scale);
  return text.data();
}

std::string Microseconds(const Json& ns) { return Number(ns, 1e-3, 3); }
std::string Percent(const Json& share) { return Number(share, 100, 1); }

void PrintShares(const Json& document) {
  std::vector<std::array<std::string, 5>> rows = {
      {"network", "layer", "marker", "us per call", "%"}};
  for (const Json& layer : document.at("layers")) {
    rows.push_back({layer.contains("network") ? layer.at("network").dump() : "",
                    layer.at("position").dump(), layer.at("marker").get<std::string>(),
                    Microseconds(layer.at("ns_median")), Percent(layer.at("share"))});
  }
  if (document.contains("decoder")) {
    const Json& decoder = document.at("decoder");
    rows.push_back(
        {"", "", "search", Microseconds(decoder.at("ns_median")), Percent(decoder.at("share"))});
  } else {
    rows.front()[0].clear();
  }
  PrintTable(rows, {true, true, false, true, true});
}

void Print(const Subject& subject, const Json& document) {
  const auto print = [](const char* name, const std::string& value) {
    std::cout << name << value << '\n';
  };
  const auto times = [&](const std::string& of) {
    return Microseconds(document.at("ns_per_" + of + "_min")) + " us at least, " +
           Microseconds(document.at("ns_per_" + of + "_median")) + " us median";
  };
  print("", Escaped(subject.place()) + ": calls of " + subject.InputText());
  print("", MachineText());
  print("\nframes per second     ", Number(document.at("frames_per_second"), 1, 0));
  print("time per frame        ", times("frame"));
  print("time per call         ", times("call"));
  print("allocations per call  ", Number(document.at("allocations_per_call"), 1, 2));
  print("load, first call      ", Number(document.at("load_ms"), 1, 3) + " ms, " +
                                      Number(document.at("first_call_ms"), 1, 3) + " ms");
  print("model file, memory    ", document.at("model_bytes").dump() + " bytes, " +
                                      document.at("memory_bytes").dump() + " bytes\n");
  PrintShares(document);
}

// ---- The command ----------------------------------------------------------------------------------

template <class Kind>
int RunOn(const Options& options) {
  Figures figures;
  const Clock::time_point begin = Clock::now();
  Kind subject(options);
  figures.load_ms = Since(begin) / 1e6;
  subject.Prepare(options);
  NetworkTimes times;
  for (const auto& part : subject.parts()) times.emplace_back(*part.network);
  try {
    Measure(subject, options.seconds, figures, times);
  } catch (const std::runtime_error& error) {
    std::string reason = error.what();
    if (subject.parts().front().executor->InputDim() <= 0) {
      reason += " (the model does not set the width of its input, tried with ";
      reason += subject.InputText() + ")";
    }
    throw std::runtime_error(subject.place() + ": " + reason);
  }
  const Json document = Describe(subject, options, figures, times);
  if (options.json) {
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
  } else {
    Print(subject, document);
  }
  return kDone;
}

int Run(const Options& options) {
  return options.network == 0 ? RunOn<RecognizerSubject>(options) : RunOn<NetworkSubject>(options);
}

// Refuses what is not in (0, max], also what is no number by name.
CLI::Validator SecondsUpTo(double max) {
  const auto check = [max](const std::string& text) -> std::string {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error == std::errc() && end == text.data() + text.size() && value > 0 && value <= max) {
      return {};
    }
    return "Value " + text + " is no number of seconds above 0 and up to 3600";
  };
  return {check, ""};
}

constexpr char kFooter[] =
    R"(Times calls over random features, the same in every run: of the whole recognizer, whose model must be
two networks in binary form, or with --network of one network of any model file. The recognizer takes an
input in one call and feeds its second network in chunks by itself, so --chunk goes with --network, and
--nbest without. A network that works on planes gets planes. Where a model does not set the width of its
input, the width of the first layer that sets one is tried, or 64.

A first call is timed by itself; a warm-up follows, then timed calls for the time given, at least three
inputs. Frames per second are those of the median; the time per frame is that of whole inputs, the time
per call that of single calls. Allocations are those of the timed calls. Layers are timed in calls of
their own; shares are of the sum of the layers and the search, a layer that runs several times in a call
counts with all of them. The time to load is that of reading the model and making room for the calls. The
model's bytes are those of the file, the memory is what the layers hold after the calls, parameters and
working buffers, without the search and the blocks that are passed between layers.

--json prints one document with frames_per_second, ns_per_frame_min, ns_per_frame_median,
ns_per_call_min, ns_per_call_median, allocations_per_call, layers (position, marker, ns_median, share, and
network for the whole recognizer), decoder (ns_median, share: the search, for the whole recognizer),
load_ms, first_call_ms, model_bytes, memory_bytes, vector_target and blas_core.)";

}  // namespace

Command AddBench(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("bench", "Time a model on random features");
  command->add_option("MODEL", options->model, "Model file")->required();
  CLI::Option* network =
      command
          ->add_option("--network", options->network,
                       "Number of the network, counted from 1; without it the whole recognizer")
          ->type_name("K")
          ->check(CountUpTo(kMaxNetwork));
  command->add_option("--frames", options->frames, "Frames of an input")
      ->type_name("T")
      ->check(CountUpTo(kMaxFrames))
      ->capture_default_str();
  command
      ->add_option("--chunk", options->chunk,
                   "One call per so many frames, the last may be shorter; without it one call")
      ->type_name("N")
      ->check(CountUpTo(kMaxFrames))
      ->needs(network);
  command->add_option("--seconds", options->seconds, "For how long to measure, up to 3600")
      ->type_name("S")
      ->check(SecondsUpTo(kMaxSeconds))
      ->capture_default_str();
  command
      ->add_option("--nbest", options->nbest,
                   "Paths that the recognizer's search keeps, up to 1000")
      ->type_name("B")
      ->check(CountUpTo(kMaxBest))
      ->excludes(network)
      ->capture_default_str();
  command->add_flag("--json", options->json, "Print one JSON document instead of text");
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
