#ifndef UTILS_UTILS_H_
#define UTILS_UTILS_H_

// The small readers and writers under every parameter block: tokens, length-prefixed strings,
// property lists and bracketed matrices. All work on the caller's stream and keep no state.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace tarev::nnet::handwriting_CTC {

/// Room that a token needs, its terminator included.
inline constexpr size_t kTokenSize = 64;

/// What get_next_token on a stream returns for a token that does not fit; the token is then empty.
inline constexpr int kTokenTooLong = -2;

/// Reads the next run of characters that are not white space into `token` (kTokenSize bytes).
/// Returns the character that ended it, which is consumed, or EOF. At the end of the stream the
/// token is empty.
int get_next_token(FILE* fp, char* token);

/// Takes the next token from a line in memory; separators are space and tab. Returns the position
/// after the token, or null when the line ended with it. A token that does not fit reads as empty.
char* get_next_token(char* line, char* token);

/// Puts back a token just read and the separator that ended it. The stream must be seekable.
bool UnreadToken(FILE* fp, const char* token, int separator);

/// The rest of the current line without its line end. Throws "wrong property format!" when it is
/// longer than 4096 characters.
std::string ReadRestOfLine(FILE* fp);

/// A string is an int32 byte count and the bytes. A count that is negative or exceeds the rest of
/// the file fails before anything is allocated.
bool fread_string(FILE* fp, std::string& s);
bool fwrite_string(FILE* fp, const std::string& s);

/// One property that a layer understands. The type's first letter is i (int32), f (float), b (bool)
/// or s (std::string), a second character ':' makes it required. A null destination drops the
/// value.
struct Property {
  const char* type;
  void* destination;
  bool set;
};
using PropertyTable = std::map<std::string, Property>;

void AddProperty(PropertyTable& table, const char* name, const char* type, void* destination);
/// The same with the type taken from the destination.
void AddProperty(PropertyTable& table, const char* name, int32_t* destination, bool required);
void AddProperty(PropertyTable& table, const char* name, float* destination, bool required);
void AddProperty(PropertyTable& table, const char* name, bool* destination, bool required);
void AddProperty(PropertyTable& table, const char* name, std::string* destination, bool required);

/// Reads one line of "<Name> value" pairs; a next token that is no name is put back, an empty list.
void ReadProperties(FILE* fp, PropertyTable& table);

/// Reads "[ v v … ]", rows x cols values in row-major order. Tokens before the opening are skipped.
/// Throws on malformed input; dst may then be partly written.
void ReadTextMatrix(FILE* fp, float* dst, int rows, int cols);
void ReadTextMatrix(FILE* fp, int32_t* dst, int rows, int cols);
/// The same, but the very next token must open the matrix.
void ReadTextMatrixStrict(FILE* fp, float* dst, int rows, int cols);

/// The same with the symmetric 8-bit scale of what was read: 127 / largest magnitude, or 1.
void ReadTextMatrix(FILE* fp, float* dst, int rows, int cols, float* scale);
void ReadTextMatrixStrict(FILE* fp, float* dst, int rows, int cols, float* scale);

enum class MatrixOpening { kLenient, kStrict };

/// Reads such a matrix into memory that grows with the text, so that a large shape over a short
/// file allocates nothing.
std::vector<float> ReadTextValues(FILE* fp, int rows, int cols, MatrixOpening opening);
std::vector<int32_t> ReadTextIntegers(FILE* fp, int rows, int cols, MatrixOpening opening);

/// 127 / the largest magnitude of the values, or 1 when there are none or all are zero.
float SymmetricScale(const float* values, size_t count);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_UTILS_H_
