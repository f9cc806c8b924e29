// Runs a fuzz target, without a fuzzer, on the files that are named and on those in the folders that
// are named. What a target finds ends the process; its file is the last that was printed.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int count, char** arguments) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < count; ++i) {
    if (!fs::is_directory(arguments[i])) {
      files.emplace_back(arguments[i]);
      continue;
    }
    for (const auto& entry : fs::directory_iterator(arguments[i])) files.push_back(entry.path());
  }
  std::ranges::sort(files);
  for (const fs::path& path : files) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(file), {});
    if (!file) return std::printf("%s: cannot be read\n", path.c_str()), 1;
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs replayed\n", files.size());
  return files.empty() ? 1 : 0;
}
