#ifndef TOOLS_OUTPUT_FILE_H_
#define TOOLS_OUTPUT_FILE_H_

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace handwriting::tools {

/// A file that appears under its name only when it is complete: it is written beside its target and
/// renamed by Commit. Without a Commit nothing is left behind and an older file of that name stays.
/// Failures throw std::runtime_error with the path and the reason.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path) : path_(path), target_(Target(path)) {
    temporary_ = target_.string() + "." + std::to_string(getpid()) + ".tmp";
    stream_ = std::fopen(temporary_.c_str(), "wbx");
    if (stream_ == nullptr) Fail("cannot create");
  }

  ~OutputFile() {
    if (stream_ != nullptr) std::fclose(stream_);
    if (!committed_) std::remove(temporary_.c_str());
  }

  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// The stream to write to, owned by this object.
  FILE* stream() { return stream_; }

  /// Ends the writing. A write that failed earlier is found here at the latest.
  void Commit() {
    const bool written = std::ferror(stream_) == 0;
    const bool closed = std::fclose(stream_) == 0;
    stream_ = nullptr;
    if (!written || !closed) Fail("cannot write");
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) Fail("cannot replace");
    committed_ = true;
  }

 private:
  // Links are followed, so that a rename replaces what they name. Renaming over a device would
  // destroy it.
  static std::filesystem::path Target(const std::string& path) {
    std::error_code error;
    std::filesystem::path target = std::filesystem::weakly_canonical(path, error);
    if (error) throw std::runtime_error(path + ": " + error.message());
    if (std::filesystem::exists(target, error) && !std::filesystem::is_regular_file(target)) {
      throw std::runtime_error(path + ": not a regular file");
    }
    return target;
  }

  [[noreturn]] void Fail(const char* what) {
    const std::string reason = std::strerror(errno);
    if (stream_ == nullptr) std::remove(temporary_.c_str());
    throw std::runtime_error(path_ + ": " + what + ": " + reason);
  }

  std::string path_;
  std::filesystem::path target_;
  std::string temporary_;
  FILE* stream_ = nullptr;
  bool committed_ = false;
};

}  // namespace handwriting::tools

#endif  // TOOLS_OUTPUT_FILE_H_
