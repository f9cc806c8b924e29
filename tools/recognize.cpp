// `handwriting recognize`: label sequences through the exported functions, as any host gets them.

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <loguru.hpp>
#include <nlohmann/json.hpp>

#include "api/handwriting_forward.h"
#include "tools/commands.h"
#include "tools/model-file.h"
#include "tools/npy.h"

namespace handwriting::tools {
namespace {

using Json = nlohmann::ordered_json;
using Labels = std::vector<std::string>;
using Sequence = std::vector<int>;

// Frames to prepare for; a longer input makes the recognizer grow, once.
constexpr int kPreparedFrames = 256;

struct Options {
  std::string model;
  std::vector<std::string> features;
  int nbest = 10;
  std::string labels;
  bool json = false;
};

// The library logs why it fails before an exported function answers that it does.
class LastWarning {
 public:
  LastWarning() { loguru::add_callback(kId, &Store, &text_, loguru::Verbosity_WARNING); }
  ~LastWarning() { loguru::remove_callback(kId); }
  LastWarning(const LastWarning&) = delete;
  LastWarning& operator=(const LastWarning&) = delete;

  void Clear() { text_.clear(); }
  std::string TextOr(const char* otherwise) const { return text_.empty() ? otherwise : text_; }

 private:
  static constexpr char kId[] = "handwriting-recognize";
  static void Store(void* text, const loguru::Message& message) {
    *static_cast<std::string*>(text) = message.message;
  }

  std::string text_;
};

class Recognizer {
 public:
  Recognizer(const std::string& model, int nbest) : nbest_(nbest) {
    const FilePointer file = OpenForReading(model);
    instance_.reset(handwriting_forward_create(file.get(), kPreparedFrames, nbest));
    if (instance_ != nullptr) return;
    throw std::runtime_error(model + ": " + warning_.TextOr("no recognizer could be created"));
  }

  /// The label sequences of an input, best first. `features` is changed where the model computes in
  /// place. Throws std::runtime_error with the reason.
  std::vector<Sequence> Process(Matrix& features) {
    if (features.shape.size() != 2)
      throw std::runtime_error("3 dimensions found, frames x dim wanted");
    const int frames = ToInt(features.shape[0], "frames");
    const int dim = ToInt(features.shape[1], "values a frame");
    // Every sequence is at most as long as the input. Memory that is not written costs nothing.
    const size_t room = static_cast<size_t>(frames) * static_cast<size_t>(nbest_);
    const auto output = std::make_unique_for_overwrite<int[]>(room);
    std::vector<int> lengths(static_cast<size_t>(nbest_));
    warning_.Clear();
    const int count = handwriting_forward_process(instance_.get(), features.values.data(), frames,
                                                  dim, output.get(), lengths.data());
    if (count < 0) throw std::runtime_error(warning_.TextOr("the recognizer failed"));
    std::vector<Sequence> sequences;
    const int* begin = output.get();
    for (int i = 0; i < count; ++i) {
      const int* end = begin + lengths[static_cast<size_t>(i)];
      sequences.emplace_back(begin, end);
      begin = end;
    }
    return sequences;
  }

 private:
  struct Releaser {
    void operator()(void* instance) const { handwriting_forward_destory(instance); }
  };

  static int ToInt(size_t size, const char* what) {
    if (size < 1 || size > std::numeric_limits<int>::max()) {
      throw std::runtime_error(std::to_string(size) + " " + what + " found, 1 to " +
                               std::to_string(std::numeric_limits<int>::max()) + " wanted");
    }
    return static_cast<int>(size);
  }

  int nbest_;
  LastWarning warning_;
  std::unique_ptr<void, Releaser> instance_;
};

bool IsUtf8(const std::string& text) {
  try {
    static_cast<void>(Json(text).dump());
    return true;
  } catch (const Json::type_error&) {
    return false;
  }
}

std::string ErrnoText(const std::string& path) { return path + ": " + std::strerror(errno); }

Labels ReadLabels(const std::string& path) {
  constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
  std::ifstream file(path);
  if (!file) throw std::runtime_error(ErrnoText(path));
  Labels labels;
  for (std::string line; std::getline(file, line);) {
    if (labels.empty() && line.starts_with(kByteOrderMark)) line.erase(0, kByteOrderMark.size());
    if (line.ends_with('\r')) line.pop_back();
    labels.push_back(std::move(line));
    if (!IsUtf8(labels.back())) {
      throw std::runtime_error(path + ": line " + std::to_string(labels.size()) + " is not UTF-8");
    }
  }
  if (file.bad()) throw std::runtime_error(ErrnoText(path));
  return labels;
}

std::string TextOf(const Sequence& sequence, const Labels& labels) {
  std::string text;
  for (const int label : sequence) {
    const auto index = static_cast<size_t>(label);
    if (index >= labels.size()) {
      throw std::runtime_error("class " + std::to_string(label) + " found, the label file names " +
                               std::to_string(labels.size()));
    }
    text += labels[index];
  }
  return text;
}

std::string IndicesOf(const Sequence& sequence) {
  std::string text;
  for (const int label : sequence) text += (text.empty() ? "" : " ") + std::to_string(label);
  return text;
}

// Recognizes files one after another and prints what comes out of each at once, so that another
// program can feed names and wait for results.
class Session {
 public:
  explicit Session(const Options& options)
      : options_(options), recognizer_(options.model, options.nbest) {
    if (!options.labels.empty()) labels_ = ReadLabels(options.labels);
  }

  /// False when the file failed, which has then been reported.
  bool Recognize(const std::string& path) {
    Result result;
    try {
      Matrix features = ReadNpy(path);
      result = ResultOf(features, path);
    } catch (const std::exception& error) {
      Report(path, error.what());
      return false;
    }
    options_.json ? PrintJson(path, result) : Print(path, result);
    FlushOutput();
    return true;
  }

 private:
  struct Result {
    std::vector<Sequence> sequences;
    std::vector<std::string> texts;  // of the sequences, when there are labels
  };

  bool has_labels() const { return !options_.labels.empty(); }

  Result ResultOf(Matrix& features, const std::string& path) {
    try {
      Result result{recognizer_.Process(features), {}};
      if (!has_labels()) return result;
      for (const Sequence& sequence : result.sequences) {
        result.texts.push_back(TextOf(sequence, labels_));
      }
      return result;
    } catch (const std::exception& error) {
      throw std::runtime_error(path + ": " + error.what());
    }
  }

  void Report(const std::string& path, const std::string& reason) const {
    PrintError(reason);
    if (!options_.json) return;
    PrintLine({{"file", path}, {"error", reason}});
    FlushOutput();
  }

  void PrintJson(const std::string& path, const Result& result) const {
    Json line = {{"file", path}, {"sequences", result.sequences}};
    if (has_labels()) line["text"] = result.texts;
    PrintLine(line);
  }

  void Print(const std::string& path, const Result& result) const {
    std::cout << path << '\n';
    for (size_t i = 0; i < result.sequences.size(); ++i) {
      std::cout << '\t' << (has_labels() ? result.texts[i] : IndicesOf(result.sequences[i]))
                << '\n';
    }
  }

  // A file name may be any bytes.
  static void PrintLine(const Json& line) {
    std::cout << line.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
  }

  const Options& options_;
  Recognizer recognizer_;
  Labels labels_;
};

int Run(const Options& options) {
  RefuseTextModel(options.model);
  Session session(options);
  bool done = true;
  for (const std::string& name : options.features) {
    if (name != "-") {
      done &= session.Recognize(name);
      continue;
    }
    for (std::string line; std::getline(std::cin, line);) {
      if (!line.empty()) done &= session.Recognize(line);
    }
  }
  return done ? kDone : kFailed;
}

constexpr char kFooter[] =
    R"(MODEL holds two networks in binary form. One recognizer is created from it through the exported C
functions and processes the files in order.

For each file the name is printed on a line, then the label sequences, best first, one per line behind
a tab: class indices with blanks between them, or the joined labels when a label file is given. With
--json each file gives one line {"file": ..., "sequences": [[...], ...]}, with "text": [...] beside it
when labels are given. Class 0 is the blank and appears in no sequence.

FEATURES - reads file names from standard input, one per line. The results of a file are written out
before the next name is read. A file that fails is reported on standard error, with --json also as
{"file": ..., "error": ...}, and the rest go on; the exit status is then 1.)";

}  // namespace

Command AddRecognize(CLI::App& app) {
  const auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("recognize", "Print the label sequences of feature files");
  command->add_option("MODEL", options->model, "Model file of two networks, binary")->required();
  command
      ->add_option("FEATURES", options->features,
                   ".npy files of frames x dim, or - for a list of names on standard input")
      ->required();
  command
      ->add_option("--nbest", options->nbest,
                   "Paths that the search keeps, hence the most sequences per file; up to 1000")
      ->type_name("N")
      ->check(CountUpTo(kMaxBest))
      ->capture_default_str();
  command->add_option("--labels", options->labels,
                      "UTF-8 text file, line k (from 0) is the label of class k");
  command->add_flag("--json", options->json, "Print one JSON object per line and file");
  command->footer(kFooter);
  return {command, [options] { return Run(*options); }};
}

}  // namespace handwriting::tools
