#include "nnet/contract/parameter-block.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include "nnet/contract/nnet-component.h"
#include "nnet/contract/row-stream.h"
#include "utils/file-io.h"
#include "utils/half-float.h"

namespace tarev::nnet::handwriting_CTC {
namespace {

// Every walk goes over the description in the order of the file: fields, arrays, nested components.
// Readers let the layer check the fields in between (Validate), since the shapes of the arrays
// follow from them; a reader therefore asks for the arrays only after that. One description serves
// reading and writing, so the two cannot drift apart, and each check of a size exists once for all
// layers.

bool InBinary(const Field& field) { return field.use != FieldUse::kTextOnly; }
bool InText(const Field& field) { return field.use != FieldUse::kBinaryOnly; }

// ---- Fields ---------------------------------------------------------------------------------------

template <class T>
bool ReadValue(FILE* fp, const char* name, T& value, Refusal& why) {
  return why.Read(fp, name, &value, sizeof(T));
}

// A bool is a byte in the file; only 0 is false.
bool ReadValue(FILE* fp, const char* name, bool& value, Refusal& why) {
  uint8_t byte = 0;
  if (!ReadValue(fp, name, byte, why)) return false;
  value = byte != 0;
  return true;
}

bool ReadValue(FILE* fp, const char* name, std::string& value, Refusal& why) {
  return why.ReadString(fp, name, value);
}

bool ReadValue(FILE* fp, const char* /*name*/, CustomPart& part, Refusal& why) {
  return part.ReadPart(fp, why);
}

bool ReadFields(FILE* fp, const FieldList& fields, Refusal& why) {
  return std::ranges::all_of(fields, [&](const Field& field) {
    return !InBinary(field) ||
           std::visit([&](auto* value) { return ReadValue(fp, field.name, *value, why); },
                      field.value);
  });
}

// Properties form one line, in any order, and custom parts follow them; so the properties are
// collected first, whatever their place in the list.
bool ReadTextFields(FILE* fp, const FieldList& fields, Refusal& why) {
  PropertyTable properties;
  std::vector<CustomPart*> parts;
  for (const Field& field : fields) {
    if (!InText(field)) continue;
    std::visit(
        [&](auto* value) {
          if constexpr (std::is_same_v<decltype(value), CustomPart*>) {
            parts.push_back(value);
          } else {
            AddProperty(properties, field.name, value, field.use == FieldUse::kRequired);
          }
        },
        field.value);
  }
  if (!properties.empty()) ReadProperties(fp, properties);
  return std::ranges::all_of(parts, [&](CustomPart* part) { return part->ReadTextPart(fp, why); });
}

template <class T>
bool WriteValue(FILE* fp, const T& value) {
  return WriteValues(fp, value);
}
bool WriteValue(FILE* fp, bool value) { return WriteValues(fp, static_cast<uint8_t>(value)); }
bool WriteValue(FILE* fp, const std::string& value) { return fwrite_string(fp, value); }
bool WriteValue(FILE* fp, const CustomPart& part) { return part.WritePart(fp); }

bool WriteFields(FILE* fp, const FieldList& fields) {
  return std::ranges::all_of(fields, [fp](const Field& field) {
    return !InBinary(field) ||
           std::visit([fp](auto* value) { return WriteValue(fp, *value); }, field.value);
  });
}

// ---- Arrays ------------------------------------------------------------------------------------

// Room for an array that is held in an order of its own; the values in the file are what counts.
void AllocateOrdered(const ParameterRef& parameter, uint64_t& memory_bytes) {
  uint64_t not_counted = 0;
  parameter.array->AllocateUncleared(1, parameter.order->HeldFloats(), not_counted);
  memory_bytes += parameter.count() * sizeof(float);
}

// Reads the arrays of one layer in its own stored form: 8-bit blocks when `codes` is set, otherwise
// 32-bit or 16-bit floats. Each array is checked against the rest of the file, allocated, filled
// and brought into the order in which the layer holds it.
struct ArrayReader {
  BlockForm form;
  std::vector<FixedBlock>* codes = nullptr;
  uint64_t& memory_bytes;
  Refusal& why;

  size_t StoredBytes(const ParameterRef& parameter) const {
    if (codes != nullptr) return CodeBlockBytes(parameter, form.codes);
    return parameter.count() * (form.floats == FloatForm::kHalf ? sizeof(uint16_t) : sizeof(float));
  }

  // A shape from a model file is trusted only after this: its bytes must not wrap around and must
  // still be in the file. The bound leaves room for four-byte values and row sums.
  bool Holds(FILE* fp, const ParameterRef& parameter) const {
    constexpr size_t kMostValues = SIZE_MAX / 16;
    const size_t rows = std::max<size_t>(parameter.rows, 1);
    if (parameter.cols > kMostValues / rows) {
      return why.Because("%s [%zu x %zu]: too large", parameter.name, parameter.rows,
                         parameter.cols);
    }
    const size_t wanted = StoredBytes(parameter);
    if (FileHolds(fp, wanted, 1)) return true;
    return why.Because("%s [%zu x %zu]: %zu bytes wanted, %zu left", parameter.name, parameter.rows,
                       parameter.cols, wanted, RemainingBytes(fp));
  }

  uint64_t& Counter(const ParameterRef& parameter, uint64_t& not_counted) const {
    return parameter.counted ? memory_bytes : not_counted;
  }

  // Room for an array, whose contents are then read.
  float* Allocate(const ParameterRef& parameter) const {
    uint64_t not_counted = 0;
    parameter.array->AllocateUncleared(parameter.rows, parameter.cols,
                                       Counter(parameter, not_counted));
    return parameter.array->data();
  }

  // A matrix is held in the precision of the file.
  template <class T>
  bool ReadMatrix(FILE* fp, const ParameterRef& parameter, WeightMatrix::Form held) const {
    uint64_t not_counted = 0;
    parameter.weights->Allocate(held, parameter.rows, parameter.cols,
                                Counter(parameter, not_counted));
    return ReadRows<T>(fp, parameter, [&](size_t first, size_t rows, const T* values) {
      parameter.weights->Put(first, rows, values);
    });
  }

  // In single precision. The rows lie in a buffer of some of them at a time.
  bool ReadOrdered(FILE* fp, const ParameterRef& parameter) const {
    uint64_t not_counted = 0;
    std::vector<float> rows;
    AllocateOrdered(parameter, Counter(parameter, not_counted));
    return parameter.order->Hold(
        [&](size_t count) -> const float* {
          rows.resize(count * parameter.cols);
          return ReadArray(fp, std::span<float>(rows)) ? rows.data() : nullptr;
        },
        parameter.array->data());
  }

  bool ReadHalves(FILE* fp, const ParameterRef& parameter) const {
    float* array = Allocate(parameter);
    return ReadRows<uint16_t>(
        fp, parameter, [&](size_t /*first*/, size_t rows, const uint16_t* halves) {
          array = std::transform(halves, halves + rows * parameter.cols, array, HalfToFloat);
        });
  }

  bool ReadValues(FILE* fp, const ParameterRef& parameter, size_t index) const {
    if (codes != nullptr) {
      uint64_t not_counted = 0;
      return ReadCodeBlock(fp, parameter, form.codes, (*codes)[index],
                           Counter(parameter, not_counted));
    }
    const bool half = form.floats == FloatForm::kHalf;
    if (parameter.weights != nullptr) {
      return half ? ReadMatrix<uint16_t>(fp, parameter, WeightMatrix::Form::kHalf)
                  : ReadMatrix<float>(fp, parameter, WeightMatrix::Form::kSingle);
    }
    if (parameter.order != nullptr) return ReadOrdered(fp, parameter);
    if (half) return ReadHalves(fp, parameter);
    return ReadArray(fp, std::span<float>(Allocate(parameter), parameter.count()));
  }

  bool Read(FILE* fp, const ParameterRef& parameter, size_t index) const {
    if (!Holds(fp, parameter)) return false;
    return ReadValues(fp, parameter, index) || why.Because("%s: cut short", parameter.name);
  }

  // Text holds decimal values whatever the stored form. They are kept as they are; a fixed-point
  // layer derives the scales that a write will use.
  void ReadText(FILE* fp, const ParameterRef& parameter, size_t index) const {
    std::vector<float> values;
    if (parameter.text_by_row) {
      for (size_t row = 0; row < parameter.rows; ++row) {
        const std::vector<float> matrix =
            ReadTextValues(fp, parameter.text_row.rows, parameter.text_row.cols, form.opening);
        values.insert(values.end(), matrix.begin(), matrix.end());
      }
    } else {
      values = ReadTextValues(fp, static_cast<int>(parameter.rows),
                              static_cast<int>(parameter.cols), form.opening);
    }
    uint64_t not_counted = 0;
    KeepValues(parameter, values, Counter(parameter, not_counted));
    if (codes != nullptr) (*codes)[index].scale = SymmetricScale(values.data(), values.size());
  }
};

// Calls visit(arrays, reader) with the layer's arrays and the reader of its stored form. Entries of
// stored codes are made anew, one for each array.
template <class Visit>
void VisitArrays(Component& layer, Refusal& why, Visit visit) {
  const ParameterList arrays = layer.MutableParameters();
  std::vector<FixedBlock>* codes = layer.StoredCodes();
  if (codes != nullptr) codes->assign(arrays.size(), {});
  visit(arrays, ArrayReader{layer.Form(), codes, layer.memory_bytes, why});
}

bool ReadArrays(FILE* fp, Component& layer, Refusal& why) {
  bool read = true;
  VisitArrays(layer, why, [&](const ParameterList& arrays, const ArrayReader& reader) {
    for (size_t i = 0; i < arrays.size() && read; ++i) read = reader.Read(fp, arrays[i], i);
  });
  return read;
}

void ReadTextArrays(FILE* fp, Component& layer, Refusal& why) {
  VisitArrays(layer, why, [&](const ParameterList& arrays, const ArrayReader& reader) {
    for (const bool first : {true, false}) {
      for (size_t i = 0; i < arrays.size(); ++i) {
        if (arrays[i].text_first == first) reader.ReadText(fp, arrays[i], i);
      }
    }
  });
}

bool WriteSingles(FILE* fp, const ParameterRef& parameter) {
  if (parameter.weights != nullptr) {
    return WriteRows<float>(fp, parameter, [&](size_t first, size_t rows, float* values) {
      parameter.weights->Get(first, rows, values);
    });
  }
  if (parameter.order != nullptr) {
    const std::vector<float> stored = parameter.order->Stored(*parameter.array);
    return WriteArray(fp, std::span<const float>(stored));
  }
  return WriteArray(fp, std::as_const(*parameter.array).values());
}

// Halves that are held as such are written unchanged; floats, which a mapped or a text block has,
// are rounded.
bool WriteHalves(FILE* fp, const ParameterRef& parameter) {
  if (parameter.weights != nullptr && parameter.weights->form() == WeightMatrix::Form::kHalf) {
    return WriteRows<uint16_t>(fp, parameter, [&](size_t first, size_t rows, uint16_t* halves) {
      parameter.weights->Get(first, rows, halves);
    });
  }
  const std::vector<float> values = StoredValues(parameter);
  std::vector<uint16_t> halves(values.size());
  std::ranges::transform(values, halves.begin(), FloatToHalf);
  return WriteArray(fp, std::span<const uint16_t>(halves));
}

bool WriteFloats(FILE* fp, const ParameterRef& parameter, FloatForm form) {
  return form == FloatForm::kHalf ? WriteHalves(fp, parameter) : WriteSingles(fp, parameter);
}

// Three cases: a fixed-point layer repeats the codes that it read, the fixed-point write of a float
// layer encodes, everything else writes floats.
bool WriteArrays(FILE* fp, const Component& layer, bool fixed) {
  const ParameterList arrays = layer.Parameters();
  const BlockForm form = layer.Form();
  const std::vector<FixedBlock>* codes = const_cast<Component&>(layer).StoredCodes();
  if (codes != nullptr && codes->size() != arrays.size()) return false;
  for (size_t i = 0; i < arrays.size(); ++i) {
    const bool written = codes != nullptr ? WriteCodeBlock(fp, arrays[i], form.codes, (*codes)[i])
                         : fixed && form.codes != CodeForm::kNone
                             ? WriteCodeBlock(fp, arrays[i], form.codes)
                             : WriteFloats(fp, arrays[i], form.floats);
    if (!written) return false;
  }
  return true;
}

// ---- Nested components -------------------------------------------------------------------------

// A refusal inside a nested component is passed on with its place in this one, so that the reason
// names the whole way from the outermost component.
bool ReadNested(FILE* fp, Component& layer, bool binary, Refusal& why) {
  const NestedList nested = layer.Nested();
  for (size_t i = 0; i < nested.size(); ++i) {
    try {
      nested[i].layer->reset(Component::Read(fp, binary));
    } catch (ComponentRefused& refused) {
      refused.AddPlace(layer.TypeMarker() + " component " + std::to_string(i));
      throw;
    }
    if (!layer.AcceptNested(i, why)) return false;
    layer.memory_bytes += (*nested[i].layer)->MemoryBytes();
  }
  return true;
}

bool WriteNested(FILE* fp, const Component& layer, bool fixed) {
  return std::ranges::all_of(const_cast<Component&>(layer).Nested(), [&](const NestedRef& nested) {
    if (*nested.layer == nullptr) return true;
    const Component& component = **nested.layer;
    return fixed ? component.WriteFixed(fp) : component.Write(fp);
  });
}

bool WriteWhole(FILE* fp, const Component& layer, bool fixed) {
  return WriteFields(fp, const_cast<Component&>(layer).Fields()) && WriteArrays(fp, layer, fixed) &&
         WriteNested(fp, layer, fixed);
}

}  // namespace

void KeepValues(const ParameterRef& parameter, const std::vector<float>& values,
                uint64_t& memory_bytes) {
  if (parameter.weights != nullptr) {
    parameter.weights->Allocate(WeightMatrix::Form::kSingle, parameter.rows, parameter.cols,
                                memory_bytes);
    parameter.weights->Put(0, parameter.rows, values.data());
  } else if (parameter.order != nullptr) {
    AllocateOrdered(parameter, memory_bytes);
    const float* next = values.data();
    parameter.order->Hold(
        [&](size_t rows) { return std::exchange(next, next + rows * parameter.cols); },
        parameter.array->data());
  } else {
    parameter.array->AllocateUncleared(parameter.rows, parameter.cols, memory_bytes);
    std::ranges::copy(values, parameter.array->data());
  }
}

std::vector<float> StoredValues(const ParameterRef& parameter) {
  if (parameter.order != nullptr) return parameter.order->Stored(*parameter.array);
  std::vector<float> values(parameter.count());
  if (parameter.weights != nullptr) {
    parameter.weights->Get(0, parameter.rows, values.data());
  } else {
    std::ranges::copy(std::as_const(*parameter.array).values(), values.begin());
  }
  return values;
}

ParameterList Join(ParameterList first, const ParameterList& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

bool ReadBlock(FILE* fp, Component& layer, Refusal& why) {
  why.Clear();
  return ReadFields(fp, layer.Fields(), why) && layer.Validate(why) && ReadArrays(fp, layer, why) &&
         ReadNested(fp, layer, true, why);
}

bool ReadTextBlock(FILE* fp, Component& layer, Refusal& why) {
  why.Clear();
  if (layer.StoredCodes() != nullptr && layer.Form().codes == CodeForm::kAsymmetric) {
    return why.Because("%s has no text form", layer.TypeMarker().c_str());
  }
  if (!ReadTextFields(fp, layer.Fields(), why) || !layer.Validate(why)) return false;
  ReadTextArrays(fp, layer, why);
  return ReadNested(fp, layer, false, why);
}

bool WriteBlock(FILE* fp, const Component& layer) { return WriteWhole(fp, layer, false); }

bool WriteFixedBlock(FILE* fp, const Component& layer) { return WriteWhole(fp, layer, true); }

bool MapBlock(const char** cursor, Component& layer) {
  Refusal why;
  const char* at = *cursor;
  for (const Field& field : layer.Fields()) {
    if (!InBinary(field)) continue;
    auto* const value = std::get<int32_t*>(field.value);
    std::memcpy(value, at, sizeof(*value));
    at += sizeof(*value);
  }
  if (!layer.Validate(why) || reinterpret_cast<uintptr_t>(at) % alignof(float) != 0) return false;
  for (const ParameterRef& parameter : layer.MutableParameters()) {
    const auto* values = reinterpret_cast<const float*>(at);
    if (parameter.weights != nullptr) {
      parameter.weights->Map(values, parameter.rows, parameter.cols);
    } else {
      parameter.array->Map(values, parameter.count());
    }
    const size_t bytes = parameter.count() * sizeof(float);
    at += bytes;
    layer.memory_bytes += bytes;
  }
  *cursor = at;
  return true;
}

}  // namespace tarev::nnet::handwriting_CTC
