// Model files that cannot be read as they should: reads that fail, end or are short, streams
// without a descriptor, without seeking, or that begin somewhere inside.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "api/handwriting_forward.h"
#include "tests/support/expect.h"
#include "tests/support/layer-samples.h"

namespace handwriting::tests {
namespace {

enum class Fault { kNone, kFails, kEnds, kIsShort };

// A stream over bytes whose n-th read has a fault. Without a buffer every fread is a read.
class FaultyStream {
 public:
  FaultyStream(std::string bytes, Fault fault, size_t read, bool seekable = true)
      : bytes_(std::move(bytes)), fault_(fault), faulty_read_(read) {
    const cookie_io_functions_t functions = {&Read, nullptr, seekable ? &Seek : nullptr, nullptr};
    file_ = File(fopencookie(this, "rb", functions));
    std::setvbuf(file_.get(), nullptr, _IONBF, 0);
  }

  FILE* file() const { return file_.get(); }
  size_t reads() const { return reads_; }

 private:
  static ssize_t Read(void* cookie, char* to, size_t size) {
    auto& self = *static_cast<FaultyStream*>(cookie);
    const bool faulty = ++self.reads_ == self.faulty_read_;
    if (faulty && self.fault_ == Fault::kFails) {
      errno = EIO;
      return -1;
    }
    size = std::min(size, self.bytes_.size() - self.position_);
    if (faulty && self.fault_ == Fault::kEnds) size = 0;
    if (faulty && self.fault_ == Fault::kIsShort) size = (size + 1) / 2;
    std::memcpy(to, self.bytes_.data() + self.position_, size);
    self.position_ += size;
    return static_cast<ssize_t>(size);
  }
  static int Seek(void* cookie, off64_t* offset, int whence) {
    auto& self = *static_cast<FaultyStream*>(cookie);
    const auto size = static_cast<off64_t>(self.bytes_.size());
    const off64_t from = whence == SEEK_SET   ? 0
                         : whence == SEEK_CUR ? static_cast<off64_t>(self.position_)
                                              : size;
    if (from + *offset < 0 || from + *offset > size) return -1;
    *offset += from;
    self.position_ = static_cast<size_t>(*offset);
    return 0;
  }

  std::string bytes_;
  Fault fault_;
  size_t faulty_read_;
  size_t position_ = 0;
  size_t reads_ = 0;
  File file_;
};

bool CreatesFrom(FILE* file) {
  void* recognizer = handwriting_forward_create(file, 8, 2);
  handwriting_forward_destory(recognizer);
  return recognizer != nullptr;
}

// Two networks, the first of which is a sample with the registers that it names.
std::vector<std::string> Models() {
  std::vector<std::string> models;
  for (const Bytes& sample : SamplesOfAllForms()) {
    const int code = ReadLayer(sample)->GetType();
    models.push_back(Network(WithRegisters(code, sample)).str() +
                     Network({Component1d(0x204, 2, 2)}).str());
  }
  return models;
}

TEST(FileFaults, EveryReadMayFailOrEndOrBeShort) {
  const std::string printed = PrintedBy([] {
    for (const std::string& model : Models()) {
      FaultyStream whole(model, Fault::kNone, 0);
      ASSERT_TRUE(CreatesFrom(whole.file()));
      ASSERT_GT(whole.reads(), 5U);
      for (size_t read = 1; read <= whole.reads(); ++read) {
        SCOPED_TRACE(read);
        FaultyStream halved(model, Fault::kIsShort, read);
        ASSERT_TRUE(CreatesFrom(halved.file()));
        ASSERT_EQ(std::ftell(halved.file()), static_cast<long>(model.size()));
        ASSERT_FALSE(CreatesFrom(FaultyStream(model, Fault::kFails, read).file()));
        ASSERT_FALSE(CreatesFrom(FaultyStream(model, Fault::kEnds, read).file()));
      }
    }
  });
  EXPECT_NE(printed.find(">>] read component failed!\n"), std::string::npos);
}

TEST(FileFaults, StreamsOfEveryKindAreReadFromWhereTheyStand) {
  for (const std::string& model : Models()) {
    const std::string bytes = "before" + model + "after";
    const auto end = static_cast<long>(bytes.size() - 5);
    std::string copy = bytes;
    const File files[] = {FileOf(bytes), File(fmemopen(copy.data(), copy.size(), "rb"))};
    for (const File& file : files) {
      std::fseek(file.get(), 6, SEEK_SET);
      ASSERT_TRUE(CreatesFrom(file.get()));
      EXPECT_EQ(std::ftell(file.get()), end);
    }
    // Without seeking only a register cannot be read, whose block has no fixed end.
    bool created = false;
    const std::string printed = PrintedBy(
        [&] { created = CreatesFrom(FaultyStream(model, Fault::kNone, 0, false).file()); });
    EXPECT_EQ(created, printed.empty());
    EXPECT_EQ(created, printed.find("read component failed!") == std::string::npos);
  }
}

}  // namespace
}  // namespace handwriting::tests
