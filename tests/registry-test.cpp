// The type codes and markers of the model format, spelled out.

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <typeinfo>

#include "tests/model-builder.h"

namespace handwriting::tests {
namespace {

using runtime::Component;

// What the fixed-point entry creates, and what its float sibling is written as in fixed-point form.
enum class Fixed {
  kSameClass,   // the float class, which is written under the fixed-point code
  kOwnClass,    // a class of its own, which is written under its own code
  kStaysFloat,  // the float class, which is always written under the float code
};

struct Row {
  int code;
  int fixed_code;
  const char* name;
  Fixed fixed = Fixed::kSameClass;
};

constexpr Row kRows[] = {
    {0x0100, 0x0800, "AffineTransform", Fixed::kOwnClass},
    {0x0101, 0x0801, "LinearTransform", Fixed::kOwnClass},
    {0x0103, 0x0803, "Lstm", Fixed::kOwnClass},
    {0x0106, 0x0806, "LstmProjectedNnet3Streams", Fixed::kOwnClass},
    {0x0107, 0x0807, "Fsmn"},
    {0x0108, 0x0808, "PositionalEncoding"},
    {0x0109, 0x0809, "Encoder"},
    {0x010a, 0x080a, "Decoder"},
    {0x010b, 0x080b, "Embedding", Fixed::kOwnClass},
    {0x010c, 0x080c, "BlstmProjectedNnet3Streams", Fixed::kOwnClass},
    {0x010d, 0x080d, "Gru", Fixed::kOwnClass},
    {0x010e, 0x080e, "Blstm", Fixed::kOwnClass},
    {0x010f, 0x080f, "Highway", Fixed::kStaysFloat},
    {0x0110, 0x0810, "BGru", Fixed::kOwnClass},
    {0x0201, 0x0901, "Softmax"},
    {0x0202, 0x0902, "Sigmoid"},
    {0x0203, 0x0903, "ReLU"},
    {0x0204, 0x0904, "LogSoftmax"},
    {0x0205, 0x0905, "PReLU"},
    {0x0206, 0x0906, "ReLU2d"},
    {0x0207, 0x0907, "PReLU2d"},
    {0x0301, 0x0c01, "Conv2d"},
    {0x0302, 0x0c02, "ConvBN2d"},
    {0x0303, 0x0c03, "ConvDW2d"},
    {0x0304, 0x0c04, "SeperableConv2d"},
    {0x0305, 0x0c05, "SimpleConv2d1x3s2"},
    {0x0306, 0x0c06, "SimpleDeconv2d1x3s2"},
    {0x0307, 0x0c07, "Conv1d"},
    {0x0308, 0x0c08, "ConvTranspose1d"},
    {0x0309, 0x0c09, "MaxPool1d", Fixed::kStaysFloat},
    {0x0401, 0x0a01, "Splice"},
    {0x0402, 0x0a02, "AddShift"},
    {0x0403, 0x0a03, "Rescale"},
    {0x0404, 0x0a04, "NormalizeComponent"},
    {0x0405, 0x0a05, "BatchNormComponent"},
    {0x0406, 0x0a06, "LayerNorm"},
    {0x0407, 0x0a07, "BatchNorm2d"},
    {0x0408, 0x0a08, "AddComponent"},
    {0x0409, 0x0a09, "BatchNorm1d"},
    {0x0500, 0x0e00, "ViewComponent"},
    {0x0501, 0x0e01, "TransposeComponent"},
    {0x0600, 0x0b00, "Prior"},
    {0x0601, 0x0b01, "StatisticsExtractionComponent"},
    {0x0602, 0x0b02, "StatisticsPoolingComponent"},
    {0x0603, 0x0b03, "SlidingWindowComponent"},
    {0x0700, 0x0d00, "RegisterComponent"},
    {0x0701, 0x0d01, "Register2dComponent"},
    {0x0702, 0x0d02, "ConcatenateComponent"},
    {0x0703, 0x0d03, "Concatenate2dComponent"},
    {0x0704, 0x0d04, "FlattenComponent"},
    {0x0705, 0x0d05, "DeflattenComponent"},
    {0x0706, 0x0d06, "SliceComponent"},
    {0x0707, 0x0d07, "ReflectionPad"},
    {0x0708, 0x0d08, "ConstantPad"},
    {0x1000, 0x1800, "StreamConv1d"},
    {0x1001, 0x1801, "StreamConvTranspose1d"},
    {0x1002, 0x1802, "StreamMaxPool1d"},
    {0x1100, 0x1900, "StreamRegisterComponent"},
    {0x1101, 0x1901, "StreamConcatenateComponent"},
    {0x1102, 0x1902, "StreamReflectionPad"},
    {0x1103, 0x1903, "StreamConstantPad"},
    {0x1104, 0x1904, "StreamSliceComponent"},
};

// Creates the layer of an entry after checking that both maps have it under this marker.
Layer Create(int code, const std::string& marker) {
  const auto by_code = Component::component_map.find(code);
  const auto by_marker = Component::marker_map.find(marker);
  if (by_code == Component::component_map.end() || by_code->second.first != marker ||
      by_marker == Component::marker_map.end() || by_marker->second.first != code) {
    return nullptr;
  }
  return Layer(runtime::NewComponentOfType(code, 3, 4));
}

TEST(Registry, KnowsEveryTypeUnderItsCodesAndMarkers) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const Layer layer = Create(row.code, "<" + std::string(row.name) + ">");
    const Layer fixed = Create(row.fixed_code, "<Fixed" + std::string(row.name) + ">");
    EXPECT_TRUE(layer != nullptr && fixed != nullptr);
    if (layer == nullptr || fixed == nullptr) continue;
    EXPECT_EQ(layer->GetType(), row.code);
    EXPECT_EQ(layer->GetFixedType(), row.fixed == Fixed::kStaysFloat ? row.code : row.fixed_code);
    const bool own_class = row.fixed == Fixed::kOwnClass;
    EXPECT_EQ(typeid(*fixed) != typeid(*layer), own_class);
    EXPECT_EQ(fixed->GetType(), own_class ? row.fixed_code : row.code);
    EXPECT_EQ(fixed->GetFixedType(), layer->GetFixedType());
  }
  EXPECT_EQ(Component::component_map.size(), 2 * std::size(kRows));
  EXPECT_EQ(Component::marker_map.size(), 2 * std::size(kRows));
  EXPECT_EQ(std::size(kRows), 62U);
}

}  // namespace
}  // namespace handwriting::tests
