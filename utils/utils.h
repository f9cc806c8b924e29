#ifndef UTILS_UTILS_H_
#define UTILS_UTILS_H_

// The small readers and writers of which every parameter block is made: tokens, length-prefixed
// strings, property lists and bracketed matrices. All work on the caller's stream and keep no
// state. A number in text that does not parse reads as 0.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace tarev::nnet::handwriting_CTC {

/// Room that a token needs, its terminator included: tokens have at most 63 characters.
inline constexpr size_t kTokenSize = 64;

/// What get_next_token on a stream returns for a token that does not fit; the token is then empty.
inline constexpr int kTokenTooLong = -2;

/// Reads the next run of characters that are not white space into `token` (kTokenSize bytes).
/// Returns the character that ended it, which is consumed, or EOF. At the end of the stream the
/// token is empty. A token that does not fit is consumed whole. Null arguments are reported and
/// give -1.
int get_next_token(FILE* fp, char* token);

/// Takes the next token from a line in memory; separators are space and tab. Returns the position
/// after the token, or null when the line ended with it. A token that does not fit reads as empty.
/// Null arguments are reported and give null.
char* get_next_token(char* line, char* token);

/// Moves the stream back before a token just read and the separator that ended it. False when the
/// stream cannot be moved.
bool UnreadToken(FILE* fp, const char* token, int separator);

/// The rest of the current line without its line end. Throws "wrong property format!" when it is
/// longer than 4096 characters.
std::string ReadRestOfLine(FILE* fp);

/// A string is an int32 byte count and the bytes. False on a short read or write; a count that is
/// negative or exceeds the rest of the file fails before anything is allocated.
bool fread_string(FILE* fp, std::string& s);
bool fwrite_string(FILE* fp, const std::string& s);

/// One property that a layer understands, under its name with the angle brackets. The type's first
/// letter is i (int32), f (float), b (bool) or s (std::string); a second character ':' makes it
/// required. A null destination drops the value. `set` tells whether the line had it.
struct Property {
  const char* type;
  void* destination;
  bool set;
};
using PropertyTable = std::map<std::string, Property>;

/// Adds a property whose destination has the given type. Throws for an unknown type and for a name
/// that the table has already.
void AddProperty(PropertyTable& table, const char* name, const char* type, void* destination);
/// The same with the type taken from the destination.
void AddProperty(PropertyTable& table, const char* name, int32_t* destination, bool required);
void AddProperty(PropertyTable& table, const char* name, float* destination, bool required);
void AddProperty(PropertyTable& table, const char* name, bool* destination, bool required);
void AddProperty(PropertyTable& table, const char* name, std::string* destination, bool required);

/// Reads one line of "<Name> value" pairs into their destinations. When the next token is no name
/// (has no "<"), it stays in the stream and the list is empty. Throws for an unknown name, a name
/// without a value and a required property that is missing; values before the fault are stored
/// then.
void ReadProperties(FILE* fp, PropertyTable& table);

/// Reads "[ v v … ]", rows x cols values in row-major order. Tokens before the opening are skipped.
/// Throws when the matrix is not closed or has another number of values; dst may then be partly
/// written.
void ReadTextMatrix(FILE* fp, float* dst, int rows, int cols);
void ReadTextMatrix(FILE* fp, int32_t* dst, int rows, int cols);
/// The same, but the very next token must open the matrix.
void ReadTextMatrixStrict(FILE* fp, float* dst, int rows, int cols);

/// The same with the symmetric 8-bit scale of what was read, as SymmetricScale.
void ReadTextMatrix(FILE* fp, float* dst, int rows, int cols, float* scale);
void ReadTextMatrixStrict(FILE* fp, float* dst, int rows, int cols, float* scale);

/// Whether tokens before the opening of a matrix are skipped or an error.
enum class MatrixOpening { kLenient, kStrict };

/// Reads such a matrix into memory that grows with the text, so that a large shape over a short
/// file allocates nothing.
std::vector<float> ReadTextValues(FILE* fp, int rows, int cols, MatrixOpening opening);
std::vector<int32_t> ReadTextIntegers(FILE* fp, int rows, int cols, MatrixOpening opening);

/// 127 / the largest magnitude of the values, or 1 when there are none or all are zero. NaNs are
/// passed over.
float SymmetricScale(const float* values, size_t count);

}  // namespace tarev::nnet::handwriting_CTC

#endif  // UTILS_UTILS_H_
