// What a long-lived host does with the library: loads and unloads it, runs many inputs of all
// lengths and a very long one, forks, creates recognizers beside others that work, on many threads,
// and where there is little address space. Prints what goes wrong.
//
//   host LIBRARY MODEL DIM CALLS FRAMES

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "api/handwriting_forward.h"
#include "tests/faults/process.h"

namespace {

using namespace handwriting::tests;  // NOLINT(google-build-using-namespace)

constexpr int kBest = 4;
constexpr int kMostFrames = 120;
constexpr size_t kKib = 1024;

class Library {
 public:
  explicit Library(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
      std::printf("%s\n", dlerror());
      std::exit(1);
    }
    create = Find<decltype(create)>("handwriting_forward_create");
    process = Find<decltype(process)>("handwriting_forward_process");
    destroy = Find<decltype(destroy)>("handwriting_forward_destory");
  }
  ~Library() { dlclose(handle_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  decltype(&handwriting_forward_create) create;
  decltype(&handwriting_forward_process) process;
  decltype(&handwriting_forward_destory) destroy;

 private:
  template <class Function>
  Function Find(const char* name) {
    return reinterpret_cast<Function>(dlsym(handle_, name));
  }
  void* handle_;
};

struct Input {
  std::vector<float> features;
  int dim;
};

class Recognizer {
 public:
  Recognizer(const Library& library, const char* model, int announced = 20) : library_(library) {
    FILE* file = std::fopen(model, "rb");
    handle_ = library.create(file, announced, kBest);
    std::fclose(file);
  }
  ~Recognizer() { library_.destroy(handle_); }
  Recognizer(const Recognizer&) = delete;
  Recognizer& operator=(const Recognizer&) = delete;

  // All labels of the first so many frames, a -1 behind each sequence.
  const std::vector<int>& Read(const Input& input, int frames) {
    labels_.resize(static_cast<size_t>(kBest) * static_cast<size_t>(frames));
    int lengths[kBest];
    const int count = library_.process(handle_, input.features.data(), frames, input.dim,
                                       labels_.data(), lengths);
    result_.clear();
    const int* label = labels_.data();
    for (int i = 0; i < count; ++i) {
      result_.insert(result_.end(), label, label + lengths[i]);
      result_.push_back(-1);
      label += lengths[i];
    }
    if (count < 0) result_.push_back(-2);
    return result_;
  }

 private:
  const Library& library_;
  void* handle_;
  std::vector<int> labels_;
  std::vector<int> result_;
};

ptrdiff_t Entries(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

bool IsMapped(const char* name) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find(name) != std::string::npos) return true;
  }
  return false;
}

// An instrumented program keeps what it frees for a while, and wants address space and time.
#ifdef HANDWRITING_INSTRUMENTED
constexpr bool kIsInstrumented = true;
constexpr size_t kThreads = 8;
#else
constexpr bool kIsInstrumented = false;
constexpr size_t kThreads = 400;
#endif

void LoadAndUnload(const char* path, const char* model, const Input& input,
                   const std::vector<int>& wanted) {
  ptrdiff_t threads = 0;
  ptrdiff_t descriptors = 0;
  size_t resident = 0;
  for (int round = 0; round < 100; ++round) {
    {
      const Library library(path);
      Expect(Recognizer(library, model).Read(input, kMostFrames) == wanted,
             "a library that was loaded again reads something else");
    }
    if (round != 20) continue;
    threads = Entries("/proc/self/task");
    descriptors = Entries("/proc/self/fd");
    resident = MemoryOfProcess().resident;
  }
  Expect(Entries("/proc/self/task") == threads, "loading leaves threads");
  Expect(Entries("/proc/self/fd") == descriptors, "loading leaves descriptors");
  Expect(kIsInstrumented || MemoryOfProcess().resident < resident + 2048 * kKib,
         "loading leaves memory");
}

void ManyCalls(const Library& library, const char* model, const Input& input, int calls) {
  std::map<int, std::vector<int>> wanted;
  for (int frames = 1; frames <= kMostFrames; frames += 7) {
    wanted[frames] = Recognizer(library, model).Read(input, frames);
  }
  Recognizer recognizer(library, model);
  std::mt19937 random(1);
  size_t resident = 0;
  for (int call = 0; call < calls; ++call) {
    const auto length = std::next(wanted.begin(), random() % wanted.size());
    if (recognizer.Read(input, length->first) != length->second) {
      return Expect(false, "a call of many reads something else");
    }
    if (call == calls / 10) resident = MemoryOfProcess().resident;
  }
  Expect(kIsInstrumented || MemoryOfProcess().resident < resident + 512 * kKib,
         "calls take memory");
}

Input Repeated(const Input& input, int frames) {
  Input repeated{{}, input.dim};
  repeated.features.resize(static_cast<size_t>(frames) * static_cast<size_t>(input.dim));
  for (size_t i = 0; i < repeated.features.size(); ++i) {
    repeated.features[i] = input.features[i % input.features.size()];
  }
  return repeated;
}

// The same lines over and over: as many labels in each part, whether room was made ahead or not.
void LongInput(const Library& library, const char* model, const Input& input, int frames) {
  const Input repeated = Repeated(input, frames);
  Recognizer recognizer(library, model);
  const std::vector<int> whole = recognizer.Read(repeated, frames);
  const std::vector<int> half = recognizer.Read(repeated, frames / 2);
  Expect(recognizer.Read(repeated, frames) == whole, "a long input reads something else once more");
  Expect(Recognizer(library, model, frames).Read(repeated, frames) == whole,
         "a long input that was announced reads something else");
  const auto best = [](const std::vector<int>& labels) {
    return static_cast<double>(std::ranges::find(labels, -1) - labels.begin());
  };
  Expect(best(half) > frames / 1000.0 && std::abs(best(whole) / best(half) - 2) < 0.1,
         "a long input does not read what its parts read");
}

void Fork(const Library& library, const char* model, const Input& input,
          const std::vector<int>& wanted) {
  Recognizer recognizer(library, model);
  recognizer.Read(input, 10);
  const pid_t child = fork();
  const bool same = recognizer.Read(input, kMostFrames) == wanted;
  if (child == 0) _exit(same ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  Expect(same && status == 0, "a process or its child reads something else");
}

void CreateBesideOthers(const Library& library, const char* model, const Input& input,
                        const std::vector<int>& wanted) {
  std::vector<std::thread> threads;
  std::vector<char> good(kThreads, 1);
  for (size_t i = 0; i < good.size(); ++i) {
    threads.emplace_back([&, i] {
      Recognizer kept(library, model);
      for (int round = 0; round < 5; ++round) {
        good[i] &= static_cast<char>(kept.Read(input, kMostFrames) == wanted);
        good[i] &= static_cast<char>(Recognizer(library, model).Read(input, kMostFrames) == wanted);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Expect(std::ranges::count(good, 1) == static_cast<ptrdiff_t>(kThreads),
         "threads read something else");
}

enum Outcome { kReads, kCreateFails, kProcessFails, kGoesWrong };

// What children of this process do that have little address space. The first one has all it wants;
// it tells the others, in memory that they share, what there is to read. All work is theirs, so that
// this process has no free memory of the size for them.
class LittleAddressSpace {
 public:
  LittleAddressSpace(const Library& library, const char* model, Input input)
      : library_(library), model_(model), input_(std::move(input)), frames_(FramesOf(input_)) {
    void* memory = mmap(nullptr, Size() * sizeof(int), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    wanted_ = static_cast<int*>(memory);
    Run(1, [this](const int* labels) { std::copy_n(labels, Size(), wanted_); });
  }
  ~LittleAddressSpace() { munmap(wanted_, Size() * sizeof(int)); }
  LittleAddressSpace(const LittleAddressSpace&) = delete;
  LittleAddressSpace& operator=(const LittleAddressSpace&) = delete;

  // One announced frame leaves memory to process; many want it at create.
  void Check() {
    for (const auto& [announced, failure] : {std::pair{1, kProcessFails}, {20000, kCreateFails}}) {
      int failed = 0;
      Outcome outcome = failure;
      for (long kib = 0; kib < 65536 && outcome != kReads; kib += 256) {
        outcome = WithMore(kib, announced);
        Expect(outcome != kGoesWrong, "a call without address space ends the process or is wrong");
        failed += static_cast<int>(outcome == failure);
      }
      Expect(failed > 0, "a call needs no address space, so nothing was tested");
      Expect(outcome == kReads, "a recognizer wants more than 64 MiB");
    }
  }

 private:
  static int FramesOf(const Input& input) {
    return static_cast<int>(input.features.size()) / input.dim;
  }
  size_t Size() const { return static_cast<size_t>(kBest) * static_cast<size_t>(frames_); }

  // Runs a recognizer in a child, with a second for each call, and `look` at the labels.
  template <class Function>
  Outcome Run(int announced, const Function& look, long more_kib = -1) {
    const pid_t child = fork();
    if (child == 0) {
      std::vector<int> labels(Size(), 0);
      int lengths[kBest];
      FILE* file = std::fopen(model_, "rb");
      if (more_kib >= 0) {
        const rlim_t limit = MemoryOfProcess().all + static_cast<size_t>(more_kib) * kKib;
        const rlimit limits{limit, limit};
        setrlimit(RLIMIT_AS, &limits);
      }
      alarm(1);
      void* recognizer = library_.create(file, announced, kBest);
      if (recognizer == nullptr) _exit(kCreateFails);
      alarm(1);
      const int count = library_.process(recognizer, input_.features.data(), frames_, input_.dim,
                                         labels.data(), lengths);
      if (count < 0) _exit(kProcessFails);
      look(labels.data());
      _exit(kReads);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? static_cast<Outcome>(WEXITSTATUS(status)) : kGoesWrong;
  }

  Outcome WithMore(long kib, int announced) {
    const auto compare = [this](const int* labels) {
      if (!std::equal(labels, labels + Size(), wanted_)) _exit(kGoesWrong);
    };
    return Run(announced, compare, kib);
  }

  const Library& library_;
  const char* model_;
  Input input_;
  int frames_;
  int* wanted_ = nullptr;
};

}  // namespace

int main(int count, char** arguments) {
  if (count != 6) return 2;
  const char* path = arguments[1];
  const char* model = arguments[2];
  Input input{{}, std::atoi(arguments[3])};
  std::mt19937 random(7);
  for (int i = 0; i < kMostFrames * input.dim; ++i) {
    input.features.push_back(static_cast<float>(random() % 1000) / 500.0F - 1.0F);
  }
  std::vector<int> wanted;
  {
    const Library library(path);
    wanted = Recognizer(library, model).Read(input, kMostFrames);
    Expect(wanted.size() > 2, "nothing is read");
    if (!kIsInstrumented) LittleAddressSpace(library, model, Repeated(input, 20000)).Check();
    Fork(library, model, input, wanted);
    CreateBesideOthers(library, model, input, wanted);
    ManyCalls(library, model, input, std::atoi(arguments[4]));
    LongInput(library, model, input, std::atoi(arguments[5]));
    Expect(!IsMapped("blas"), "a model of the ordinary layers opens the BLAS library");
  }
  LoadAndUnload(path, model, input, wanted);
  return StatusAfterAll();
}
