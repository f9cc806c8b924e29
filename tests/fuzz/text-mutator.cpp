// Mutates text by its numbers as well as by its bytes: most digits that are added make a width that no
// file of the size can fill.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// Runs of more than four digits become one digit.
void ShortenNumbers(std::string& text) {
  for (auto begin = text.begin(); begin != text.end();) {
    begin = std::find_if(begin, text.end(), IsDigit);
    const auto end = std::find_if_not(begin, text.end(), IsDigit);
    begin = end - begin > 4 ? text.erase(begin + 1, end) : end;
  }
}

void ReplaceANumber(std::string& text, std::minstd_rand& random) {
  constexpr std::array<std::string_view, 16> kNumbers = {"0",   "1",   "2",   "3",   "4",    "6",
                                                         "8",   "16",  "-1",  "100", "0.25", "1e38",
                                                         "nan", "inf", "5 6", ""};
  const auto start = text.begin() + static_cast<std::ptrdiff_t>(random() % (text.size() + 1));
  const auto begin = std::find_if(start, text.end(), IsDigit);
  const auto end = std::find_if_not(begin, text.end(), IsDigit);
  text.replace(begin, end, kNumbers[random() % kNumbers.size()]);
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  std::minstd_rand random(seed);
  if (random() % 4 != 0) size = LLVMFuzzerMutate(data, size, max_size);
  std::string text(data, data + size);
  if (random() % 2 == 0) ReplaceANumber(text, random);
  if (random() % 8 != 0) ShortenNumbers(text);
  const size_t taken = std::min(text.size(), max_size);
  std::copy_n(text.data(), taken, data);
  return taken;
}
