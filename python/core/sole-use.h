#ifndef PYTHON_CORE_SOLE_USE_H_
#define PYTHON_CORE_SOLE_USE_H_

#include <atomic>
#include <string>

#include "python/core/errors.h"

namespace handwriting::python {

/// Holds an object for one call. Throws InUseError where another thread is in one.
class SoleUse {
 public:
  SoleUse(std::atomic<bool>& in_use, const char* what) : in_use_(in_use) {
    if (in_use_.exchange(true, std::memory_order_acquire)) {
      throw InUseError(std::string("this ") + what +
                       " is in use by another thread: one thread at a time, or one for each");
    }
  }
  SoleUse(const SoleUse&) = delete;
  SoleUse& operator=(const SoleUse&) = delete;
  ~SoleUse() { in_use_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool>& in_use_;
};

}  // namespace handwriting::python

#endif  // PYTHON_CORE_SOLE_USE_H_
