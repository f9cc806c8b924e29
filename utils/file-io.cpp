#include "utils/file-io.h"

#include <sys/stat.h>
#include <sys/types.h>

namespace tarev::nnet::handwriting_CTC {
namespace {

constexpr size_t kUnknownSizeBound = size_t{256} << 20;

}  // namespace

// A regular file is asked for its size through its descriptor: seeking to its end and back would
// drop the stream's buffer, once for every array of a model.
size_t RemainingBytes(FILE* fp) {
  const off_t position = ftello(fp);
  if (position < 0) return kUnknownSizeBound;
  struct stat status {};
  const int descriptor = fileno(fp);
  if (descriptor >= 0 && fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
    return status.st_size > position ? static_cast<size_t>(status.st_size - position) : 0;
  }
  // A stream over memory has no descriptor, but it can be asked where it ends.
  if (fseeko(fp, 0, SEEK_END) != 0) return kUnknownSizeBound;
  const off_t end = ftello(fp);
  if (fseeko(fp, position, SEEK_SET) != 0 || end < position) return 0;
  return static_cast<size_t>(end - position);
}

bool FileHolds(FILE* fp, size_t count, size_t element_size) {
  return count == 0 || count <= RemainingBytes(fp) / element_size;
}

}  // namespace tarev::nnet::handwriting_CTC
