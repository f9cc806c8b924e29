// A host with a threaded BLAS of its own, linked and in use, beside which the library's products run
// on their own copy: neither sees the other, too little address space is an exception and never a
// wait, and many threads at once have the bits of one. Prints what goes wrong.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <thread>
#include <vector>

#include <cblas.h>

#include "nnet/base/blas-library.h"
#include "nnet/base/products.h"
#include "tests/faults/process.h"

namespace {

using namespace handwriting::tests;            // NOLINT(google-build-using-namespace)
using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

constexpr size_t kInputs = 300;
constexpr size_t kOutputs = 200;

std::vector<float> Values(size_t count) {
  std::vector<float> values(count);
  for (size_t i = 0; i < count; ++i) {
    values[i] = static_cast<float>(i * 7919 % 1000) / 500.0F - 1.0F;
  }
  return values;
}

// Products of one row, of a few, which have kernels of their own, and of many.
std::vector<float> AllProducts(const std::vector<float>& in, const std::vector<float>& weights) {
  std::vector<float> out;
  for (const size_t rows : {1, 3, 100}) {
    std::vector<float> product(rows * kOutputs);
    matmul_trans_b(in.data(), weights.data(), product.data(), rows, kOutputs, kInputs, 1.0F, 0.0F);
    out.insert(out.end(), product.begin(), product.end());
  }
  return out;
}

// What a child process does that gets so much more address space, and a second: 0 when products
// came out, 1 when they threw, -1 when it was ended.
int WithAddressSpace(size_t bytes) {
  const std::vector<float> in = Values(100 * kInputs);
  const std::vector<float> weights = Values(kOutputs * kInputs);
  const pid_t child = fork();
  if (child == 0) {
    alarm(1);
    const rlim_t limit = MemoryOfProcess().all + bytes;
    const rlimit limits{limit, limit};
    setrlimit(RLIMIT_AS, &limits);
    try {
      AllProducts(in, weights);
      _exit(0);
    } catch (const std::exception&) {
      _exit(1);
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void LittleAddressSpace() {
  constexpr size_t kMib = size_t{1} << 20;
  int last = 1;
  for (size_t mib = 0; mib <= 320; mib += 5) {
    const int result = WithAddressSpace(mib * kMib);
    Expect(result >= 0, "a product without address space does not come back");
    Expect(result <= last, "more address space is less");
    last = result;
  }
  Expect(WithAddressSpace(0) == 1, "products need no address space, so nothing was tested");
  Expect(last == 0, "products want more than 320 MiB");
}

void ManyThreads() {
  const std::vector<float> in = Values(100 * kInputs);
  const std::vector<float> weights = Values(kOutputs * kInputs);
  const std::vector<float> wanted = AllProducts(in, weights);
  std::vector<std::thread> threads;
  std::vector<char> good(400, 1);
  for (char& result : good) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20; ++round) {
        result &= static_cast<char>(AllProducts(in, weights) == wanted);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const char result : good) Expect(result == 1, "a thread of many multiplies something else");
}

}  // namespace

int main() {
  // First, so that the children are those who open the library.
  LittleAddressSpace();

  openblas_set_num_threads(3);
  const std::vector<float> a = Values(kInputs * kInputs);
  std::vector<float> product(kInputs * kInputs);
  constexpr int kSize = kInputs;
  cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, kSize, kSize, kSize, 1.0F, a.data(), kSize,
              a.data(), kSize, 0.0F, product.data(), kSize);
  // The library, and work memory beside the host's.
  const size_t before = MemoryOfProcess().all;
  AllProducts(Values(100 * kInputs), Values(kOutputs * kInputs));
  Expect(MemoryOfProcess().all - before > (size_t{128} << 20),
         "the copy works in the host's memory");
  ManyThreads();
  set_one_blas_thread();
  Expect(openblas_get_num_threads() == 3, "the host's BLAS has other settings than before");
  Expect(std::strcmp(blas_core_name(), "none") != 0, "the copy is not open");
  Expect(BlasTurn()->set_num_threads != &openblas_set_num_threads, "the copy is the host's BLAS");
  return StatusAfterAll();
}
