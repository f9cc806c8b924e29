// `handwriting recognize`: label sequences of feature files, from as many recognizers as there are
// threads.

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/answer.h"
#include "tools/commands.h"
#include "tools/npy.h"
#include "tools/progress.h"
#include "tools/recognizer.h"
#include "tools/show.h"

namespace handwriting::tools {
namespace {

struct Options {
  std::string model;
  std::vector<std::string> features;
  int nbest = 10;
  std::string labels;
  bool json = false;
  bool detail = false;
  bool show = false;
  int threads = 1;
};

/// What is printed of one file.
struct Report {
  std::string out;
  /// Why the file failed; empty where it did not.
  std::string error;
  size_t frames = 0;
};

/// The names on the command line, and where one of them is -, those on standard input, one at a
/// time, with their places in the order of the output.
class Names {
 public:
  explicit Names(const std::vector<std::string>& features) : features_(features) {}

  /// The number of names; 0 where it is not known.
  size_t total() const { return std::ranges::count(features_, "-") > 0 ? 0 : features_.size(); }

  struct Name {
    size_t place;
    std::string path;
  };
  /// Nothing after the last one, and after Stop.
  std::optional<Name> Next() {
    const std::scoped_lock lock(mutex_);
    std::string path;
    if (stopped_ || !NextPath(path)) return std::nullopt;
    return Name{place_++, std::move(path)};
  }
  void Stop() { stopped_ = true; }

 private:
  bool NextPath(std::string& path) {
    for (; next_ < features_.size(); ++next_) {
      if (features_[next_] != "-") return path = features_[next_++], true;
      while (std::getline(std::cin, path)) {
        if (!path.empty()) return true;
      }
    }
    return false;
  }

  const std::vector<std::string>& features_;
  std::mutex mutex_;
  size_t next_ = 0;
  size_t place_ = 0;
  std::atomic<bool> stopped_ = false;
};

/// Prints reports in the order of their places, each as soon as those before it are printed, and
/// written out at once, so that another program can feed names and wait for results.
class Printer {
 public:
  /// Whoever is `window` places ahead of what has been printed waits.
  Printer(size_t total, size_t window) : progress_(total), window_(window) {}

  void Print(size_t place, Report report) {
    std::unique_lock lock(mutex_);
    may_go_on_.wait(lock, [&] { return place < next_ + window_ || stopped_; });
    waiting_.emplace(place, std::move(report));
    while (!stopped_ && !waiting_.empty() && waiting_.begin()->first == next_) {
      PrintNow(waiting_.begin()->second);
      waiting_.erase(waiting_.begin());
      ++next_;
      may_go_on_.notify_all();
    }
  }
  void Stop() {
    const std::scoped_lock lock(mutex_);
    stopped_ = true;
    may_go_on_.notify_all();
  }
  bool all_good() const { return all_good_; }

 private:
  void PrintNow(const Report& report) {
    progress_.Advance(report.frames);
    progress_.Clear();
    if (!report.error.empty()) {
      PrintError(report.error);
      all_good_ = false;
    }
    std::cout << report.out;
    FlushOutput();
    progress_.Show();
  }

  std::mutex mutex_;
  std::condition_variable may_go_on_;
  Progress progress_;
  std::map<size_t, Report> waiting_;
  size_t window_;
  size_t next_ = 0;
  bool stopped_ = false;
  bool all_good_ = true;
};

std::string TextOf(const std::string& path, const std::vector<Record>& records,
                   const Labels& labels) {
  std::string text = path + '\n';
  for (const Record& record : records) text += '\t' + labels.TextOf(record.labels) + '\n';
  return text;
}

class Session {
 public:
  explicit Session(const Options& options)
      : options_(options), names_(options.features), printer_(names_.total(), kWindow) {
    if (!options.labels.empty()) labels_ = Labels::OfFile(options.labels);
  }

  /// Whether all files could be recognized. The first recognizer is made at once, so that a model
  /// that gives none is reported before there are threads; every further thread makes its own.
  bool Run() {
    Recognizer recognizer(options_.model, options_.nbest);
    std::vector<std::jthread> threads;
    Guarded([&] {
      for (size_t i = 1; i < ThreadCount(); ++i) {
        threads.emplace_back([this] {
          Guarded([this] {
            Recognizer own(options_.model, options_.nbest);
            Work(own);
          });
        });
      }
      Work(recognizer);
    });
    threads.clear();
    if (failure_) std::rethrow_exception(failure_);
    return printer_.all_good();
  }

 private:
  static constexpr size_t kWindow = 256;

  size_t ThreadCount() const {
    const size_t wanted = options_.threads > 0 ? static_cast<size_t>(options_.threads)
                                               : std::thread::hardware_concurrency();
    const size_t total = names_.total();
    return std::max<size_t>(total > 0 ? std::min(wanted, total) : wanted, 1);
  }

  // What fails beside the files themselves ends the work of all threads.
  template <class Function>
  void Guarded(const Function& function) {
    try {
      function();
    } catch (...) {
      const std::scoped_lock lock(failure_mutex_);
      if (!failure_) failure_ = std::current_exception();
      names_.Stop();
      printer_.Stop();
    }
  }

  void Work(Recognizer& recognizer) {
    for (;;) {
      const std::optional<Names::Name> name = names_.Next();
      if (!name.has_value()) return;
      printer_.Print(name->place, ReportOf(recognizer, name->path));
    }
  }

  Report ReportOf(Recognizer& recognizer, const std::string& path) const {
    try {
      Matrix features = ReadNpy(path);
      const size_t frames = features.shape[0];
      return {Recognize(recognizer, path, features), "", frames};
    } catch (const std::exception& error) {
      const std::string reason = error.what();
      return {options_.json ? LineOf({{"file", path}, {"error", reason}}) : "", reason, 0};
    }
  }

  std::string Recognize(Recognizer& recognizer, const std::string& path, Matrix& features) const {
    try {
      const size_t frames = features.shape[0];
      if (options_.detail) {
        return LineFor(path,
                       AnswerInDetail(recognizer.RecognizeInDetail(features), labels_, frames));
      }
      if (options_.show) {
        Matrix changed = features;  // a model may compute in place
        const std::vector<Record> records = recognizer.RecognizeInDetail(changed);
        return path + '\n' + Picture(features, records.at(0), labels_, OutputColumns());
      }
      const std::vector<Record> records = recognizer.Recognize(features);
      if (options_.json) return LineFor(path, AnswerOf(records, labels_));
      return TextOf(path, records, labels_);
    } catch (const std::bad_alloc&) {
      throw std::runtime_error(path + ": out of memory");
    } catch (const std::exception& error) {
      throw std::runtime_error(path + ": " + error.what());
    }
  }

  static std::string LineFor(const std::string& path, const Json& answer) {
    Json line = {{"file", path}};
    line.update(answer);
    return LineOf(line);
  }

  const Options& options_;
  Labels labels_;
  Names names_;
  Printer printer_;
  std::mutex failure_mutex_;
  std::exception_ptr failure_;
};

constexpr char kFooter[] =
    R"(MODEL holds two networks in binary form. A recognizer like the one that the exported C functions
create is made from it for every thread; the results come in the order of the files.

For each file the name is printed on a line, then the label sequences, best first, one per line behind
a tab: class indices with blanks between them, or the joined labels when a label file is given. With
--json each file gives one line {"file": ..., "sequences": [[...], ...]}, with "text": [...] beside it
when labels are given. Class 0 is the blank and appears in no sequence.

--json --detail adds "frames", the number of rows, and "alternatives", for each sequence an object:
  score              natural logarithm that the sequences are ordered by, higher is better
  confidence         probability of the sequence over all alignments with the frames, 0 to 1, whatever
                     --nbest is; null where the second network gives no log probabilities
  spans              for each label [start, end) in rows from 0 on the best path: the peak that the
                     network answers with, which is narrower than what was written
  label_confidences  for each label its mean probability over its span; null with the confidence
Numbers that are not finite are null.

FEATURES - reads file names from standard input, one per line. With one thread the results of a file
are written out before the next name is read. A file that fails is reported on standard error, with
--json also as {"file": ..., "error": ...}, and the rest go on; the exit status is then 1.)";

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
  command
      ->add_option("--labels", options->labels,
                   "UTF-8 text file, line k (from 0) is the label of class k")
      ->type_name("FILE");
  CLI::Option* json =
      command->add_flag("--json", options->json, "Print one JSON object per line and file");
  command
      ->add_flag("--detail", options->detail,
                 "With --json: scores, confidences and where each label stands")
      ->needs(json);
  command
      ->add_flag("--show", options->show,
                 "Draw the features, with the best labels beneath their frames")
      ->excludes(json);
  command
      ->add_option("--threads", options->threads,
                   "Files at a time, each by a recognizer of its own; 0 for one a core, up to 1024")
      ->type_name("N")
      ->check(CountFromTo(0, kMaxThreads))
      ->capture_default_str();
  command->footer(kFooter);
  return {command, [options] { return Session(*options).Run() ? kDone : kFailed; }};
}

}  // namespace handwriting::tools
