#ifndef TOOLS_ALLOCATIONS_H_
#define TOOLS_ALLOCATIONS_H_

#include <cstdint>

namespace handwriting {

/// Blocks of memory that the calling thread has taken from the heap so far: by operator new, which
/// allocations.cpp replaces in the program that it is linked into, and for the library's arrays.
uint64_t CountAllocations();

}  // namespace handwriting

#endif  // TOOLS_ALLOCATIONS_H_
