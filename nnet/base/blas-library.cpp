#include "nnet/base/blas-library.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

#include "utils/messages.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Without RTLD_DEEPBIND the copy's calls of its own functions would reach those of a host's BLAS.
// Sanitizers refuse the flag; no host runs with them.
#ifdef HANDWRITING_INSTRUMENTED
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL;
#else
constexpr int kOpenFlags = RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND;
#endif

// The work memory of one call of OpenBLAS is one mapping of 128 MiB, kept for the next call.
constexpr size_t kWorkMemory = (size_t{128} << 20) + (size_t{1} << 20);

std::mutex turns;
// Null until the library is open; then never changed.
std::atomic<const BlasFunctions*> opened = nullptr;

template <class Function>
void Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function == nullptr) ThrowError(Here(), "BLAS library lacks a function! [%s]", name);
}

const BlasFunctions* Open() {
  static BlasFunctions functions;
  void* library = dlopen(HANDWRITING_BLAS_LIBRARY, kOpenFlags);
  if (library == nullptr) {
    const char* reason = dlerror();
    ThrowError(Here(), "failed to open the BLAS library! %s", reason != nullptr ? reason : "");
  }
  Find(library, "cblas_sgemm", functions.sgemm);
  Find(library, "cblas_sgemv", functions.sgemv);
  Find(library, "cblas_sgbmv", functions.sgbmv);
  Find(library, "cblas_sscal", functions.sscal);
  Find(library, "openblas_set_num_threads", functions.set_num_threads);
  Find(library, "openblas_get_corename", functions.get_corename);
  functions.set_num_threads(1);
  return &functions;
}

const BlasFunctions* Opened() {
  const BlasFunctions* functions = opened.load(std::memory_order_relaxed);
  if (functions == nullptr) {
    functions = Open();
    opened.store(functions, std::memory_order_release);
  }
  return functions;
}

void HoldWorkMemory(const BlasFunctions& functions) {
  static bool is_held = false;
  if (is_held) return;
  void* memory = mmap(nullptr, kWorkMemory, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) {
    ThrowError(Here(), "no memory for the BLAS library! [%zu bytes]", kWorkMemory);
  }
  munmap(memory, kWorkMemory);
  // Products of bands always take it; others may do without at first and want it later.
  const float one = 1.0F;
  float result = 0.0F;
  functions.sgbmv(CblasRowMajor, CblasNoTrans, 1, 1, 0, 0, one, &one, 1, &one, 1, one, &result, 1);
  is_held = true;
}

void CheckHeap(size_t bytes) {
  // Volatile, since a compiler may leave out an allocation that nothing uses.
  // NOLINTBEGIN(cppcoreguidelines-no-malloc)
  void* volatile memory = std::malloc(bytes);
  if (memory == nullptr) {
    ThrowError(Here(), "no memory for the BLAS library! [%zu bytes]", bytes);
  }
  std::free(memory);
  // NOLINTEND(cppcoreguidelines-no-malloc)
}

}  // namespace

BlasTurn::BlasTurn(size_t bytes) : turn_(turns), functions_(Opened()) {
  HoldWorkMemory(*functions_);
  if (bytes != 0) CheckHeap(bytes);
}

void set_one_blas_thread() {
  const BlasFunctions* functions = opened.load(std::memory_order_acquire);
  if (functions != nullptr) functions->set_num_threads(1);
}

const char* blas_core_name() {
  const std::lock_guard turn(turns);
  try {
    return Opened()->get_corename();
  } catch (const std::exception&) {
    return "none";
  }
}

}  // namespace tarev::nnet::handwriting_CTC
