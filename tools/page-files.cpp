#include "tools/page-files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace handwriting::tools {
namespace {

// Pages are small; what is larger is no page.
constexpr size_t kMostBytes = size_t{32} << 20;

// A page gets what it is made of from here and from nowhere else, and no other page frames it.
constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data: blob:; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

class Descriptor {
 public:
  // Not waiting for the other end of a pipe.
  explicit Descriptor(const std::string& path)
      : number_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  int number_;
};

// %41 is A; nothing where that is wrong, or gives what no path has.
std::optional<std::string> Decoded(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') {
      unsigned char value = 0;
      const std::string_view digits = text.substr(i + 1, 2);
      const auto [end, error] =
          std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
      if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) {
        return std::nullopt;
      }
      c = static_cast<char>(value);
      i += 2;
    }
    if (c == '\0') return std::nullopt;
    decoded += c;
  }
  return decoded;
}

std::string TypeOf(const std::string& path) {
  constexpr std::pair<const char*, const char*> kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".mjs", "text/javascript; charset=utf-8"},
      {".json", "application/json"},
      {".webmanifest", "application/manifest+json"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".jpg", "image/jpeg"},
      {".ico", "image/vnd.microsoft.icon"},
      {".woff2", "font/woff2"},
      {".txt", "text/plain; charset=utf-8"}};
  const std::string extension = std::filesystem::path(path).extension();
  const auto* found =
      std::ranges::find_if(kTypes, [&](const auto& type) { return extension == type.first; });
  return found == std::end(kTypes) ? "application/octet-stream" : found->second;
}

// Where an open file lies once all links are resolved.
std::string PlaceOf(const Descriptor& file) {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.number()), error);
}

std::optional<std::string> ContentOf(const Descriptor& file, size_t size) {
  std::string content(size, '\0');
  size_t done = 0;
  while (done < size) {
    const ssize_t got = read(file.number(), content.data() + done, size - done);
    if (got <= 0) return std::nullopt;
    done += static_cast<size_t>(got);
  }
  return content;
}

}  // namespace

PageFiles::PageFiles(const std::string& folder) {
  if (folder.empty()) return;
  std::error_code error;
  const auto root = std::filesystem::canonical(folder, error);
  if (error) throw std::runtime_error(folder + ": " + error.message());
  if (!std::filesystem::is_directory(root)) throw std::runtime_error(folder + ": no folder");
  root_ = root.string();
  if (!root_.ends_with('/')) root_ += '/';
}

// Opened first and looked at afterwards: what a name means may change between the two.
std::optional<Answer> PageFiles::Find(std::string_view path) const {
  std::optional<std::string> name = Decoded(path);
  if (root_.empty() || !name || !name->starts_with('/')) return std::nullopt;
  if (name->ends_with('/')) *name += "index.html";
  const Descriptor file(root_ + name->substr(1));
  struct stat status {};
  if (file.number() < 0 || fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  const std::string place = PlaceOf(file);
  const auto size = static_cast<size_t>(status.st_size);
  if (!place.starts_with(root_) || size > kMostBytes) return std::nullopt;
  std::optional<std::string> content = ContentOf(file, size);
  if (!content) return std::nullopt;
  return Answer{200,
                TypeOf(place),
                *std::move(content),
                {{"Content-Security-Policy", kPolicy},
                 {"Referrer-Policy", "no-referrer"},
                 {"Cache-Control", "no-cache"}}};
}

}  // namespace handwriting::tools
