#ifndef NNET_BASE_BLAS_LIBRARY_H_
#define NNET_BASE_BLAS_LIBRARY_H_

// OpenBLAS as a guest in somebody's process. A host may have a BLAS of its own, with a thread pool
// and settings; this library's copy is another file (the serial build), opened by its path when
// the first product needs it and bound to itself, so that neither sees the other. It stays open.

#include <cstddef>
#include <mutex>

#include <cblas.h>

namespace tarev::nnet::handwriting_CTC {

/// The functions of the copy that are used here.
struct BlasFunctions {
  decltype(&::cblas_sgemm) sgemm;
  decltype(&::cblas_sgemv) sgemv;
  decltype(&::cblas_sgbmv) sgbmv;
  decltype(&::cblas_sscal) sscal;
  decltype(&::openblas_set_num_threads) set_num_threads;
  decltype(&::openblas_get_corename) get_corename;
};

/// A turn at the BLAS library: one caller at a time, since the serial build shares its work memory
/// between threads without asking.
class BlasTurn {
 public:
  /// Opens the library when it is not open. Throws when it cannot be opened, and where it would be
  /// left without memory: OpenBLAS looks for its work memory for ever, and writes to what malloc
  /// refused. `bytes` is what the call may take from malloc.
  explicit BlasTurn(size_t bytes = 0);

  const BlasFunctions* operator->() const { return functions_; }

 private:
  std::lock_guard<std::mutex> turn_;
  const BlasFunctions* functions_;
};

/// Sets the copy to one thread. Where it is not open there is nothing to set: it opens so.
void set_one_blas_thread();
/// The name of the kernel set that the copy chose for this processor; "none" where it cannot be
/// opened.
const char* blas_core_name();

}  // namespace tarev::nnet::handwriting_CTC

#endif  // NNET_BASE_BLAS_LIBRARY_H_
