#include "tools/npy.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/model-builder.h"

namespace handwriting::tools {
namespace {

class NpyTest : public testing::Test {
 protected:
  NpyTest() { std::filesystem::create_directories(folder_); }
  ~NpyTest() override { std::filesystem::remove_all(folder_); }

  std::string Path(const char* name) const { return (folder_ / name).string(); }

  static std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  static void Store(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }

  // A file as another writer might lay it out: no padding behind the dictionary.
  static std::string FileBytes(const std::string& dictionary, size_t value_bytes,
                               const char* version = "\x01") {
    const char length[] = {static_cast<char>(dictionary.size()), 0};
    return std::string("\x93NUMPY") + version + std::string(1, '\0') + std::string(length, 2) +
           dictionary + std::string(value_bytes, '\0');
  }

  // The message with which the file is refused; empty if it is not.
  static std::string Refusal(const std::string& path) {
    return tests::ThrownBy([&] { ReadNpy(path); });
  }

  const std::filesystem::path folder_ =
      std::filesystem::path(testing::TempDir()) / ("npy-test-" + std::to_string(getpid()));
};

TEST_F(NpyTest, WrittenFilesReadBackBitForBitInTheLayoutOfNumpy) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::string path = Path("matrix.npy");
  for (const Matrix& matrix : {Matrix{{2, 3}, {0.0F, -0.0F, 1.5F, inf, std::nanf("1"), 1e-45F}},
                               Matrix{{2, 1, 2}, {1.0F, 2.0F, 3.0F, 4.0F}}, Matrix{{0, 8}, {}}}) {
    WriteNpy(path, matrix);
    EXPECT_EQ(Contents(path).size(), 128 + 4 * matrix.values.size());
    const Matrix read = ReadNpy(path);
    EXPECT_EQ(read.shape, matrix.shape);
    EXPECT_TRUE(std::ranges::equal(read.values, matrix.values, {}, std::bit_cast<uint32_t, float>,
                                   std::bit_cast<uint32_t, float>));
  }
  EXPECT_EQ(Contents(path), std::string("\x93NUMPY\x01\0v\0", 10) +
                                "{'descr': '<f4', 'fortran_order': False, 'shape': (0, 8), }" +
                                std::string(58, ' ') + "\n");
}

TEST_F(NpyTest, EveryPrefixAndEveryLongerFileIsRefused) {
  const std::string path = Path("cut.npy");
  WriteNpy(path, {{2, 2}, {1.0F, 2.0F, 3.0F, 4.0F}});
  const std::string bytes = Contents(path) + '\0';
  for (size_t size = 0; size <= bytes.size(); ++size) {
    Store(path, bytes.substr(0, size));
    EXPECT_EQ(Refusal(path).starts_with(path + ": "), size + 1 != bytes.size()) << size;
  }
}

TEST_F(NpyTest, HeadersOfOtherWritersAreReadOrRefusedWithWhatWasFoundAndIsWanted) {
  const std::string f4 = "{'descr': '<f4', ", order = "'fortran_order': False, ";
  const std::string one = "'shape': (1, 1)}", shape = f4 + order + "'shape': ";
  const struct {
    std::string dictionary;
    size_t value_bytes;
    const char* message;
  } cases[] = {
      {"{'descr': '<f8', " + order + one, 8, "dtype '<f8' found, '<f4' (float32) wanted"},
      {"{'descr': '>f4', " + order + one, 4, "dtype '>f4' found, '<f4' (float32) wanted"},
      {f4 + "'fortran_order': True, " + one, 4, "Fortran order found, C order wanted"},
      {shape + "(1,)}", 4, "shape (1,) found, 2 or 3 dimensions wanted"},
      {shape + "(1, 1, 1, 1)}", 4, "shape (1, 1, 1, 1) found, 2 or 3 dimensions wanted"},
      {shape + "(3, 2)}", 16, "16 bytes of values found, float32 (3, 2) wanted"},
      // 2^62 + 1 rows of 4 floats: the product is 4 once it has wrapped around.
      {shape + "(4611686018427387905, 4)}", 16,
       "16 bytes of values found, float32 (4611686018427387905, 4) wanted"},
      {shape + "(-1, 2)}", 0, "wrong header, a number of elements is missing"},
      {f4 + one, 4, "wrong header, 'descr', 'fortran_order' and 'shape' wanted"},
      {f4 + "'descr': '<f4', " + order + one, 4,
       "wrong header, key 'descr' is unknown or repeated"},
      {f4 + order + one + " }", 4, "wrong header, end of the header is missing"},
      {"{'descr': [('x', '<f4')], " + order + one, 4, "wrong header, a string is missing"}};
  const std::string path = Path("other.npy");
  for (const auto& c : cases) {
    Store(path, FileBytes(c.dictionary, c.value_bytes));
    EXPECT_EQ(Refusal(path), path + ": " + c.message);
  }
  // Spaces and quotes are free.
  Store(path, FileBytes("{\"shape\":(2,1,),'fortran_order':False , 'descr':'<f4'}  \n", 8));
  EXPECT_EQ(ReadNpy(path).shape, (std::vector<size_t>{2, 1}));
  Store(path, FileBytes("{}", 0, "\x02"));
  EXPECT_EQ(Refusal(path), path + ": format version 2.0 found, 1.0 wanted");
  EXPECT_EQ(Refusal(Path("absent.npy")), Path("absent.npy") + ": No such file or directory");
}

TEST_F(NpyTest, AFailedWriteLeavesTheOldFileAndNothingElse) {
  const std::string path = Path("kept.npy");
  WriteNpy(path, {{1, 1}, {7.0F}});
  EXPECT_THROW(WriteNpy(path, {{2, 2}, {1.0F}}), std::runtime_error);
  EXPECT_THROW(WriteNpy(path, {{1}, {1.0F}}), std::runtime_error);
  EXPECT_THROW(WriteNpy(folder_.string(), {{1, 1}, {1.0F}}), std::runtime_error);
  EXPECT_THROW(WriteNpy(Path("absent/x.npy"), {{1, 1}, {1.0F}}), std::runtime_error);
  EXPECT_EQ(ReadNpy(path).values, std::vector<float>{7.0F});
  std::filesystem::directory_iterator entries(folder_);
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

}  // namespace
}  // namespace handwriting::tools
