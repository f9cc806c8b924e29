#ifndef TOOLS_SHOW_H_
#define TOOLS_SHOW_H_

#include <string>

#include "tools/answer.h"
#include "tools/npy.h"
#include "tools/recognizer.h"

namespace handwriting::tools {

/// The features as a picture of half-block characters, a column a frame and the first value of a
/// frame on top, dark where a value lies in the upper half of their range; beneath it the labels of
/// `best`, each under its frames. Cut into pieces of `width` columns. Behind the last piece stands
/// the confidence, where there is one.
std::string Picture(const Matrix& features, const Record& best, const Labels& labels, size_t width);

/// Columns of the terminal that standard output is; 100 where it is none.
size_t OutputColumns();

}  // namespace handwriting::tools

#endif  // TOOLS_SHOW_H_
