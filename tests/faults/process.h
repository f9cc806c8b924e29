#ifndef TESTS_FAULTS_PROCESS_H_
#define TESTS_FAULTS_PROCESS_H_

// What the hosts under test share: counting what goes wrong, and the size of their process.

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <fstream>

namespace handwriting::tests {

inline int failures = 0;

inline void Expect(bool holds, const char* what) {
  if (holds) return;
  std::printf("%s\n", what);
  ++failures;
}

/// Prints how many there were. The status of the program.
inline int StatusAfterAll() {
  std::printf("%d failures\n", failures);
  return failures == 0 ? 0 : 1;
}

/// The address space that this process has and the part of it that is in memory, in bytes.
struct ProcessMemory {
  size_t all = 0;
  size_t resident = 0;
};

inline ProcessMemory MemoryOfProcess() {
  ProcessMemory memory;
  std::ifstream("/proc/self/statm") >> memory.all >> memory.resident;
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return {memory.all * page, memory.resident * page};
}

}  // namespace handwriting::tests

#endif  // TESTS_FAULTS_PROCESS_H_
