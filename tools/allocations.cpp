#include "tools/allocations.h"

#include <cstdlib>
#include <new>

#include "nnet/base/nnet-util.h"

namespace {

thread_local uint64_t allocations = 0;

void* Take(std::size_t size, std::size_t alignment) noexcept {
  ++allocations;
  const std::size_t bytes = size == 0 ? 1 : size;
  return alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__
             ? std::malloc(bytes)
             : std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
}

void* TakeOrThrow(std::size_t size, std::size_t alignment) {
  void* const memory = Take(size, alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

// The array forms and those that do not throw call these.
void* operator new(std::size_t size) { return TakeOrThrow(size, 1); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return TakeOrThrow(size, static_cast<std::size_t>(alignment));
}
// GCC sees through inlined calls of the operators above that the memory is malloc's.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
// NOLINTBEGIN(cppcoreguidelines-no-malloc): the memory is malloc's
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

namespace handwriting {

uint64_t CountAllocations() {
  return allocations + tarev::nnet::handwriting_CTC::ArrayAllocations();
}

}  // namespace handwriting
