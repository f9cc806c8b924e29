// HANDWRITING_BENCH_TARGET in the environment (AVX2, SSE4, SSSE3) measures the library as it runs
// on a processor whose best vector target is that one. OPENBLAS_CORETYPE does the like for the BLAS
// library.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <hwy/targets.h>

namespace {

[[maybe_unused]] const bool kTargetChosen = [] {
  const char* wanted = std::getenv("HANDWRITING_BENCH_TARGET");
  if (wanted == nullptr) return false;
  for (const int64_t target : {HWY_AVX3, HWY_AVX2, HWY_SSE4, HWY_SSSE3}) {
    if (std::strcmp(wanted, hwy::TargetName(target)) != 0) continue;
    hwy::SetSupportedTargetsForTest(target);
    hwy::GetChosenTarget().Update(target);
    return true;
  }
  std::fprintf(stderr, "HANDWRITING_BENCH_TARGET: unknown vector target %s\n", wanted);
  std::exit(1);
}();

}  // namespace
