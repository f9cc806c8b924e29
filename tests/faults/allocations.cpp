// Memory that runs out: every single allocation of reading and running a model fails, alone and
// with all that follow it. What fails must say so, leak nothing, and leave the next call its bits.
//
//   allocation_faults [MODEL FRAMES DIM]     models of every layer, and MODEL through the C functions
//
// This program's malloc stands in the place of the C library's, also for the libraries it calls.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "api/handwriting_forward.h"
#include "tests/support/layer-samples.h"
#include "utils/messages.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* memory);
}

namespace {

constinit uint64_t allocations = 0;
constinit int64_t live = 0;
constinit uint64_t first_fault = 0;  // the number of the allocation that fails; 0 for none
constinit bool faults_last = false;  // and all after it
constinit size_t refused_size = 0;   // pieces of that size and larger ones fail; 0 for none

bool Refused(size_t size) {
  ++allocations;
  if (refused_size != 0 && size >= refused_size) return true;
  if (first_fault == 0) return false;
  return faults_last ? allocations >= first_fault : allocations == first_fault;
}

template <class Allocate>
void* Counted(size_t size, Allocate allocate) {
  if (Refused(size)) {
    errno = ENOMEM;
    return nullptr;
  }
  void* memory = allocate();
  if (memory != nullptr) ++live;
  return memory;
}

void ArmFault(uint64_t number, bool last) {
  allocations = 0;
  first_fault = number;
  faults_last = last;
}
void Disarm() { first_fault = 0; }

}  // namespace

// Visible to the libraries, which call these then.
#pragma GCC visibility push(default)
extern "C" {
void* malloc(size_t size) {
  return Counted(size, [&] { return __libc_malloc(size); });
}
void* calloc(size_t count, size_t size) {
  return Counted(count * size, [&] { return __libc_calloc(count, size); });
}
void* realloc(void* memory, size_t size) {
  if (memory == nullptr) return malloc(size);  // NOLINT(cppcoreguidelines-no-malloc)
  if (Refused(size)) return nullptr;
  return __libc_realloc(memory, size);
}
void* memalign(size_t alignment, size_t size) {
  return Counted(size, [&] { return __libc_memalign(alignment, size); });
}
void* aligned_alloc(size_t alignment, size_t size) { return memalign(alignment, size); }
int posix_memalign(void** memory, size_t alignment, size_t size) {
  *memory = memalign(alignment, size);
  return *memory != nullptr ? 0 : ENOMEM;
}
void free(void* memory) {
  if (memory != nullptr) --live;
  __libc_free(memory);
}
}
#pragma GCC visibility pop

namespace handwriting::tests {
namespace {

using runtime::Nnet;
using runtime::NnetForward;
using runtime::ReadNnet;

// What a child process of a subject reports.
struct Report {
  uint64_t allocation;
  bool last;
  uint64_t count;
  char failure[100];
};

Report* report = nullptr;
uint64_t faults_tried = 0;

[[noreturn]] void Fail(const char* what) {
  Disarm();
  std::snprintf(report->failure, sizeof(report->failure), "%s", what);
  _exit(1);
}

// Something that is made from a file and run. `Make` answers whether it could be made; `Run` gives
// the results, or nothing when it fails. Neither throws.
class Subject {
 public:
  virtual ~Subject() = default;
  virtual bool Make(FILE* file) = 0;
  virtual bool Run() = 0;
  virtual void Destroy() = 0;
  virtual void CopyResult(Floats& to) const = 0;
};

class NetworkSubject : public Subject {
 public:
  explicit NetworkSubject(SampleInput input)
      : input_(input), in_(Random(input.FloatsOf(kFrames), 1)) {}
  bool Make(FILE* file) override {
    try {
      nnet_ = new Nnet;
      if (!ReadNnet(*nnet_, file)) return false;
      forward_ = new NnetForward(nnet_);
      forward_->ReserveFrames(kFrames / 2);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }
  bool Run() override {
    try {
      in_now_.assign(in_.begin(), in_.end());
      forward_->Reset();
      forward_->Propagate(in_now_.data(), kFrames, input_.dim, -1, input_.channels);
      return true;
    } catch (const std::exception&) {
      return false;
    }
  }
  void Destroy() override {
    delete std::exchange(forward_, nullptr);
    delete std::exchange(nnet_, nullptr);
    Floats().swap(in_now_);
  }
  void CopyResult(Floats& to) const override {
    to.assign(forward_->Output(), forward_->Output() + forward_->OutputShape().floats());
  }

 private:
  static constexpr int64_t kFrames = 40;
  SampleInput input_;
  Floats in_;
  Floats in_now_;  // some layers change their input
  Nnet* nnet_ = nullptr;
  NnetForward* forward_ = nullptr;
};

class RecognizerSubject : public Subject {
 public:
  RecognizerSubject(int frames, int dim)
      : frames_(frames),
        dim_(dim),
        features_(Random(static_cast<size_t>(frames * dim), 1)),
        labels_(static_cast<size_t>(kBest * frames)) {}
  bool Make(FILE* file) override {
    handle_ = handwriting_forward_create(file, frames_ / 2, kBest);
    return handle_ != nullptr;
  }
  bool Run() override {
    count_ = handwriting_forward_process(handle_, features_.data(), frames_, dim_, labels_.data(),
                                         lengths_);
    return count_ >= 0;
  }
  void Destroy() override { handwriting_forward_destory(std::exchange(handle_, nullptr)); }
  void CopyResult(Floats& to) const override {
    to.clear();
    const int* label = labels_.data();
    for (int i = 0; i < count_; ++i) {
      to.push_back(-1.0F);
      for (int k = 0; k < lengths_[i]; ++k) to.push_back(static_cast<float>(*label++));
    }
  }

 private:
  static constexpr int kBest = 5;
  int frames_;
  int dim_;
  Floats features_;
  std::vector<int> labels_;
  int lengths_[kBest] = {};
  int count_ = 0;
  void* handle_ = nullptr;
};

// Makes and runs the subject with the n-th allocation failing, for every n, in this process.
void TryEveryFault(Subject& subject, FILE* file) {
  Floats wanted;
  Floats got;
  const auto make = [&] {
    std::rewind(file);
    const bool made = subject.Make(file);
    if (!made) subject.Destroy();
    return made;
  };
  // Whatever libraries allocate once is allocated before anything is counted.
  runtime::LogWarning(runtime::Here(), "a first line");
  for (int round = 0; round < 2; ++round) {
    if (!make() || !subject.Run()) Fail("fails without a fault");
    subject.CopyResult(wanted);
    subject.CopyResult(got);
    subject.Destroy();
    ArmFault(1, false);
    if (make()) subject.Destroy();
    Disarm();
  }
  ArmFault(0, false);
  make();
  subject.Run();
  report->count = allocations;
  subject.Destroy();
  const int64_t at_rest = live;
  for (const bool last : {false, true}) {
    report->last = last;
    for (uint64_t n = 1; n <= report->count; ++n) {
      report->allocation = n;
      ArmFault(n, last);
      bool made = make();
      if (made) subject.Run();
      Disarm();
      if (!made && !make()) Fail("cannot be made after the fault");
      if (!subject.Run()) Fail("does not run after the fault");
      subject.CopyResult(got);
      if (got.size() != wanted.size() ||
          std::memcmp(got.data(), wanted.data(), got.size() * sizeof(float)) != 0) {
        Fail("gives other results after the fault");
      }
      subject.Destroy();
      if (live != at_rest) {
        Fail(("leaks " + std::to_string(live - at_rest) + " allocations").c_str());
      }
    }
  }
}

// A line is dropped when there is only memory for its text.
void LogWithLittleMemory() {
  refused_size = 64;
  runtime::LogWarning(runtime::Here(), "a line");
  refused_size = 0;
}

// In a process of its own, since a fault may end it. Returns whether all went well.
bool Survives(const std::string& name, const std::function<void()>& run) {
  *report = {};
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    run();
    std::exit(0);  // not _exit, which coverage does not notice
  }
  int status = 0;
  waitpid(child, &status, 0);
  faults_tried += 2 * report->count;
  if (status == 0) return true;
  std::printf("%s: allocation %ju of %ju fails%s: ", name.c_str(),
              static_cast<uintmax_t>(report->allocation), static_cast<uintmax_t>(report->count),
              report->last ? " and all after it" : "");
  if (WIFSIGNALED(status)) {
    std::printf("signal %d\n", WTERMSIG(status));
  } else {
    std::printf("%s\n", report->failure);
  }
  return false;
}

std::string ContentOf(const char* path) {
  std::string bytes;
  const File file(std::fopen(path, "rb"));
  for (int c = 0; file != nullptr && (c = std::fgetc(file.get())) != EOF;) {
    bytes.push_back(static_cast<char>(c));
  }
  return bytes;
}

int Main(int count, char** arguments) {
  report = static_cast<Report*>(
      mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  bool good = Survives("LogWarning", LogWithLittleMemory);
  size_t subjects = 0;
  const auto try_all = [&](const std::string& name, const std::string& bytes, Subject& subject) {
    good &= Survives(name, [&] {
      const File file = FileOf(bytes);
      TryEveryFault(subject, file.get());
    });
    ++subjects;
  };
  for (const Bytes& sample : SamplesOfAllForms()) {
    const Layer layer = ReadLayer(sample);
    if (IsOnlyStored(layer->GetType())) continue;
    NetworkSubject subject(InputOf(*layer));
    const Bytes network = Network(WithRegisters(layer->GetType(), sample));
    try_all(layer->TypeMarker(), network.str(), subject);
  }
  // Large enough for its arrays to share a block.
  const int wide = 1200;
  const Bytes affine = Affine(wide, wide, Ramp(wide), Ramp(wide * wide));
  NetworkSubject wide_subject(InputOf(*ReadLayer(affine)));
  try_all("a wide layer", Network({affine}).str(), wide_subject);
  if (count == 4) {
    RecognizerSubject subject(std::atoi(arguments[2]), std::atoi(arguments[3]));
    try_all(arguments[1], ContentOf(arguments[1]), subject);
  }
  std::printf("%zu subjects, %ju faults: %s\n", subjects, static_cast<uintmax_t>(faults_tried),
              good ? "all survive" : "some do not");
  return good ? 0 : 1;
}

}  // namespace
}  // namespace handwriting::tests

int main(int count, char** arguments) { return handwriting::tests::Main(count, arguments); }
