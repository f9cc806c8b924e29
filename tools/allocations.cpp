#include "tools/allocations.h"

#include <cstdlib>
#include <new>

#include "nnet/base/nnet-util.h"

// NOLINTBEGIN(cppcoreguidelines-no-malloc): the memory is malloc's

namespace {

using std::align_val_t;
using std::nothrow_t;
using std::size_t;

thread_local uint64_t allocations = 0;

void* Take(size_t size, size_t alignment = 1) noexcept {
  ++allocations;
  const size_t bytes = size == 0 ? 1 : size;
  return alignment <= __STDCPP_DEFAULT_NEW_ALIGNMENT__
             ? std::malloc(bytes)
             : std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
}

void* TakeOrThrow(size_t size, size_t alignment = 1) {
  void* const memory = Take(size, alignment);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

size_t Bytes(align_val_t alignment) { return static_cast<size_t>(alignment); }

}  // namespace

// Every form of both operators: a sanitizer brings its own for those that are left out, and they do
// not fit these.
void* operator new(size_t size) { return TakeOrThrow(size); }
void* operator new[](size_t size) { return TakeOrThrow(size); }
void* operator new(size_t size, const nothrow_t& /*tag*/) noexcept { return Take(size); }
void* operator new[](size_t size, const nothrow_t& /*tag*/) noexcept { return Take(size); }
void* operator new(size_t size, align_val_t alignment) {
  return TakeOrThrow(size, Bytes(alignment));
}
void* operator new[](size_t size, align_val_t alignment) {
  return TakeOrThrow(size, Bytes(alignment));
}
void* operator new(size_t size, align_val_t alignment, const nothrow_t& /*tag*/) noexcept {
  return Take(size, Bytes(alignment));
}
void* operator new[](size_t size, align_val_t alignment, const nothrow_t& /*tag*/) noexcept {
  return Take(size, Bytes(alignment));
}
// GCC sees through inlined calls of the operators above that the memory is malloc's.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t /*size*/) noexcept { std::free(memory); }
void operator delete(void* memory, const nothrow_t& /*tag*/) noexcept { std::free(memory); }
void operator delete[](void* memory, const nothrow_t& /*tag*/) noexcept { std::free(memory); }
void operator delete(void* memory, align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete[](void* memory, align_val_t /*alignment*/) noexcept { std::free(memory); }
void operator delete(void* memory, size_t /*size*/, align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, size_t /*size*/, align_val_t /*alignment*/) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

namespace handwriting {

uint64_t CountAllocations() {
  return allocations + tarev::nnet::handwriting_CTC::ArrayAllocations();
}

}  // namespace handwriting
