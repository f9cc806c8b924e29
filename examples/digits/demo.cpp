// Recognizes the example's lines of handwritten digits through the public C interface and shows
// what was seen, what was wanted and what was found.
//
// Usage: digits_demo MODEL FOLDER, where FOLDER/truth.txt names a line file and its digits in every
// line, with a tab between them.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "api/handwriting_forward.h"
#include "tools/npy.h"

namespace {

using handwriting::tools::Matrix;
using handwriting::tools::ReadNpy;

constexpr int kSequences = 3;     // best sequences shown for a line
constexpr int kBeam = 10;         // paths that the search keeps
constexpr double kMinTime = 0.5;  // seconds of recognition that are timed

struct Line {
  std::string name;
  std::string digits;
  Matrix frames;  // columns of the picture x rows of a column, 0 for paper and 1 for ink
};

std::vector<Line> ReadLines(const std::string& folder) {
  const std::string path = folder + "/truth.txt";
  std::ifstream file(path);
  if (!file) throw std::runtime_error(path + ": cannot open");
  std::vector<Line> lines;
  for (std::string text; std::getline(file, text);) {
    const size_t tab = text.find('\t');
    if (tab == std::string::npos) throw std::runtime_error(path + ": no tab in '" + text + "'");
    lines.push_back({text.substr(0, tab), text.substr(tab + 1), {}});
    const std::string frames_path = folder + "/" + lines.back().name;
    lines.back().frames = ReadNpy(frames_path);
    const std::vector<size_t>& shape = lines.back().frames.shape;
    if (shape.size() != 2 || shape[0] == 0 || shape[1] == 0) {
      throw std::runtime_error(frames_path + ": not a matrix of frames");
    }
  }
  if (lines.empty()) throw std::runtime_error(path + ": empty");
  return lines;
}

// A recognizer of the library, and the room for its results.
class Recognizer {
 public:
  Recognizer(const std::string& model, const std::vector<Line>& lines) {
    for (const Line& line : lines) max_frames_ = std::max(max_frames_, line.frames.shape[0]);
    labels_.resize(kBeam * max_frames_);
    lengths_.resize(kBeam);
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(model.c_str(), "rb"), std::fclose);
    if (file == nullptr) throw std::runtime_error(model + ": cannot open");
    instance_.reset(handwriting_forward_create(file.get(), static_cast<int>(max_frames_), kBeam));
    if (instance_ == nullptr) throw std::runtime_error(model + ": not a model of the library");
  }

  /// Runs the recognizer over a line and returns the number of sequences found.
  int Process(const Line& line) {
    const std::vector<size_t>& shape = line.frames.shape;
    const int count = handwriting_forward_process(
        instance_.get(), line.frames.values.data(), static_cast<int>(shape[0]),
        static_cast<int>(shape[1]), labels_.data(), lengths_.data());
    if (count < 0) throw std::runtime_error(line.name + ": recognition failed");
    return count;
  }

  /// The digits of the sequences that Process has found, best first. Class k + 1 is digit k.
  std::vector<std::string> Sequences(int count) const {
    std::vector<std::string> sequences;
    const int* label = labels_.data();
    for (int i = 0; i < count; ++i) {
      std::string& sequence = sequences.emplace_back();
      for (int k = 0; k < lengths_[static_cast<size_t>(i)]; ++k) {
        sequence += std::to_string(*label++ - 1);
      }
    }
    return sequences;
  }

 private:
  struct Release {
    void operator()(void* instance) const { handwriting_forward_destory(instance); }
  };

  size_t max_frames_ = 1;
  std::vector<int> labels_;
  std::vector<int> lengths_;
  std::unique_ptr<void, Release> instance_;
};

// Two rows of the picture, one above the other, in one row of text.
std::string TextRow(const Matrix& frames, size_t upper_row, bool grey) {
  const size_t height = frames.shape[1];
  std::ostringstream text;
  for (size_t column = 0; column < frames.shape[0]; ++column) {
    const float* values = frames.values.data() + column * height;
    const float upper = values[upper_row];
    const float lower = upper_row + 1 < height ? values[upper_row + 1] : 0.0F;
    if (grey) {
      const auto level = [](float value) {
        return std::lround(255 * std::clamp(value, 0.0F, 1.0F));
      };
      const auto colour = [&](float value) {
        const std::string number = std::to_string(level(value));
        return number + ";" + number + ";" + number + "m";
      };
      text << "\x1b[38;2;" << colour(upper) << "\x1b[48;2;" << colour(lower) << "▀";
    } else {
      constexpr const char* kBlocks[] = {" ", "▀", "▄", "█"};
      text << kBlocks[(upper >= 0.5F ? 1 : 0) + (lower >= 0.5F ? 2 : 0)];
    }
  }
  if (grey) text << "\x1b[0m";
  return text.str();
}

void ShowPicture(const Matrix& frames, bool grey) {
  for (size_t row = 0; row < frames.shape[1]; row += 2) {
    std::printf("  %s\n", TextRow(frames, row, grey).c_str());
  }
}

// The fewest insertions, deletions and substitutions that turn one sequence into the other.
size_t EditDistance(std::string_view found, std::string_view wanted) {
  std::vector<size_t> row(wanted.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < found.size(); ++i) {
    size_t diagonal = row[0]++;
    for (size_t j = 0; j < wanted.size(); ++j) {
      const size_t substituted = diagonal + (found[i] == wanted[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({substituted, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

// Shows a line with its best sequences and returns the errors of the best one.
size_t ShowLine(Recognizer& recognizer, const Line& line, bool grey) {
  const std::vector<std::string> sequences = recognizer.Sequences(recognizer.Process(line));
  std::printf("%s\n", line.name.c_str());
  ShowPicture(line.frames, grey);
  std::printf("  truth  %s\n", line.digits.c_str());
  const size_t shown = std::min(sequences.size(), size_t{kSequences});
  for (size_t i = 0; i < shown; ++i) {
    std::printf("  %5zu  %s%s\n", i + 1, sequences[i].c_str(),
                sequences[i] == line.digits ? "  (right)" : "");
  }
  std::printf("\n");
  return EditDistance(sequences.empty() ? "" : sequences.front(), line.digits);
}

// Recognizes all lines again and again. Only the calls of the library are timed.
double FramesPerSecond(Recognizer& recognizer, const std::vector<Line>& lines) {
  using Clock = std::chrono::steady_clock;
  std::chrono::duration<double> time{};
  size_t frames = 0;
  while (time.count() < kMinTime) {
    for (const Line& line : lines) {
      const Clock::time_point start = Clock::now();
      recognizer.Process(line);
      time += Clock::now() - start;
      frames += line.frames.shape[0];
    }
  }
  return static_cast<double>(frames) / time.count();
}

void Run(const std::string& model, const std::string& folder) {
  const std::vector<Line> lines = ReadLines(folder);
  Recognizer recognizer(model, lines);
  const bool grey = isatty(STDOUT_FILENO) != 0;
  size_t errors = 0;
  size_t digits = 0;
  for (const Line& line : lines) {
    errors += ShowLine(recognizer, line, grey);
    digits += line.digits.size();
  }
  std::printf("label error rate  %.2f %% (%zu of %zu digits in %zu lines)\n",
              100.0 * static_cast<double>(errors) / static_cast<double>(digits), errors, digits,
              lines.size());
  std::printf("speed             %.0f frames per second\n", FramesPerSecond(recognizer, lines));
  if (std::fflush(stdout) != 0) throw std::runtime_error("standard output: cannot write");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: digits_demo MODEL FOLDER\n");
    return EXIT_FAILURE;
  }
  try {
    Run(argv[1], argv[2]);
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "digits_demo: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
