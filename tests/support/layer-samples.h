#ifndef TESTS_SUPPORT_LAYER_SAMPLES_H_
#define TESTS_SUPPORT_LAYER_SAMPLES_H_

// A small sample of every layer type, in binary and in text form, and networks around them.

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/model-builder.h"
#include "utils/half-float.h"

namespace handwriting::tests {

using runtime::FloatToHalf;

// What the fixed-point entry creates, and what its float sibling is written as in fixed-point form.
enum class Fixed {
  kSameClass,   // the float class, which is written under the fixed-point code
  kOwnClass,    // a class of its own, which is written under its own code
  kStaysFloat,  // the float class, which is always written under the float code
};

struct LayerSample {
  int code;
  int fixed_code;
  std::string name;
  Bytes bytes;
  std::string text;  // after the marker; empty where the forms do not hold the same
  Fixed fixed = Fixed::kSameClass;
};

// 0, 1/4, 2/4, … : values that every stored float form holds exactly, as an array and as matrices
// of so many values each.
inline Floats Ramp(int count) {
  Floats values(static_cast<size_t>(count));
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i) / 4;
  return values;
}
inline std::string Matrices(const std::vector<int>& sizes) {
  std::string text;
  float next = 0;
  for (const int size : sizes) {
    Floats values(static_cast<size_t>(size));
    for (float& value : values) value = std::exchange(next, next + 0.25F);
    text += TextMatrix(values);
  }
  return text;
}
inline std::vector<int> Twice(std::vector<int> sizes) {
  sizes.insert(sizes.end(), sizes.begin(), sizes.end());
  return sizes;
}
inline std::string Repeat(int count, const std::string& text) {
  return count == 0 ? std::string() : text + Repeat(count - 1, text);
}

inline Bytes Join(const Bytes& first, std::initializer_list<Bytes> others) {
  Bytes joined = first;
  for (const Bytes& other : others) joined.Add(other);
  return joined;
}
inline Bytes Block(int head_num, int layers) {
  Bytes block = Bytes().Int(head_num);
  while (layers-- > 0) block.Add(Affine(1, 1, {3}, {2}));
  return block;
}
inline Bytes Halves(int count) {
  Bytes block;
  for (const float value : Ramp(count)) block.Raw(FloatToHalf(value));
  return block;
}

inline const std::string kOneAffine = "<AffineTransform> 1 1 [ 2 ]\n[ 3 ]\n";
inline const std::vector<int> kLstm = {24, 16, 8, 8}, kGru = {6, 12, 6, 6};
inline const std::vector<int> kProjectedLstm = {24, 8, 8, 2, 2, 2, 2, 1};

inline const Bytes kConv2d = Component2d(
    0x301, 2, 2, 9, 0, Bytes().Ints({2, 3, 1, 2, 3, 4, 5, 6, 7, 8, 2, 1}).Floats(Ramp(14)));
inline const std::string kConv2dText =
    "2 2 <InputDim> 9 <OutputDim> 0\n<KernelHeight> 2 <KernelWidth> 3 <StrideHeight> 1 "
    "<StrideWidth> 2 <Top> 3 <Bottom> 4 <Left> 5 <Right> 6 <DilationHeight> 7 <DilationWidth> 8 "
    "<Groups> 2 <Bias> 1\n" +
    Matrices({6, 6, 2});
inline const Bytes kNorm2d = Component2d(0x407, 2, 2, 0, 0, Bytes().Float(0.5F).Floats(Ramp(8)));
inline const std::string kNormText = "2 2 <Epsilon> 0.5\n" + Matrices({2, 2, 2, 2});
inline const Bytes kPRelu2d = Component2d(0x207, 2, 2, 0, 0, Bytes().Float(0.25F));
inline const std::string kPReluText = "2 2 <Alpha> 0.25\n";
inline const std::string kBlockText =
    "<Conv2d> " + kConv2dText + "<BatchNorm2d> " + kNormText + "<PReLU2d> " + kPReluText;

inline const std::string kWindowText = "<KernelSize> 3 <Stride> 2 <Left> 1 <Right> 2 <Dilation> 3";
inline const Bytes kWindow = Bytes().Ints({3, 2, 1, 2});
inline const Bytes kConv1d = Bytes(kWindow).Ints({3, 2, 1}).Floats(Ramp(16));
inline const Bytes kTransposed = Bytes(kWindow).Ints({5, 3, 2, 1}).Floats(Ramp(16));
inline const std::string kConv1dText =
    "4 2 " + kWindowText + " <Groups> 2 <Bias> 1\n" + Matrices({3, 3, 3, 3, 4});
inline const std::string kTransposedText =
    "4 2 " + kWindowText + " <OutputPadding> 5 <Groups> 2 <Bias> 1\n" + Matrices({3, 3, 3, 3, 4});
inline const Bytes kParts = Bytes().Int(2).String("x").String("yz").Ints({1, 1});
inline const std::string kPartsText = "<RegisterName> x \t <Input> <RegisterName> yz \r\n";
inline const std::string kPadText = "2 2 <Left> 3 <Right> 4";

inline const LayerSample kLayerSamples[] = {
    {0x0100, 0x0800, "AffineTransform", Affine(2, 3, {10, 20, 30}, {1, 2, 3, 4, 5, 6}),
     "3 2 [ 1 2\n3 4\n5 6 ]\n[ 10 20 30 ]", Fixed::kOwnClass},
    {0x0101, 0x0801, "LinearTransform", Component1d(0x101, 2, 3, Bytes().Floats(Ramp(6))),
     "3 2 stray " + Matrices({6}), Fixed::kOwnClass},
    {0x0103, 0x0803, "Lstm", Component1d(0x103, 3, 2, Bytes().Floats(Ramp(56))),
     "2 3\n" + Matrices(kLstm), Fixed::kOwnClass},
    {0x0106, 0x0806, "LstmProjectedNnet3Streams",
     Component1d(0x106, 3, 1, Bytes().Int(2).Floats(Ramp(49))),
     "1 3 <CellDim> 2 <ClipGradient> 5\n" + Matrices(kProjectedLstm), Fixed::kOwnClass},
    {0x0107, 0x0807, "Fsmn", Component1d(0x107, 2, 2, Bytes().Ints({1, 1, 2, 0}).Floats(Ramp(6))),
     "2 2 <LOrder> 1 <ROrder> 1 <Stride> 2\n" + Matrices({6})},
    {0x0108, 0x0808, "PositionalEncoding", Component1d(0x108, 4, 4), "4 4"},
    {0x0109, 0x0809, "Encoder", Component1d(0x109, 1, 1, Block(1, 8)),
     "1 1\n<HeadNum> 1\n" + Repeat(8, kOneAffine)},
    {0x010a, 0x080a, "Decoder", Component1d(0x10a, 1, 1, Block(1, 13)),
     "1 1\n<HeadNum> 1\n" + Repeat(13, kOneAffine)},
    {0x010b, 0x080b, "Embedding", Component1d(0x10b, 2, 3, Bytes().Float(2).Floats(Ramp(6))),
     "3 2 <Scale> 2\n" + Matrices({6}), Fixed::kOwnClass},
    {0x010c, 0x080c, "BlstmProjectedNnet3Streams",
     Component1d(0x10c, 3, 2, Bytes().Int(2).Floats(Ramp(98))),
     "2 3 <CellDim> 2\n" + Matrices(Twice(kProjectedLstm)), Fixed::kOwnClass},
    {0x010d, 0x080d, "Gru", Component1d(0x10d, 1, 2, Bytes().Int(2).Floats(Ramp(30))),
     "2 1 <CellDim> 2\n" + Matrices(kGru), Fixed::kOwnClass},
    {0x010e, 0x080e, "Blstm", Component1d(0x10e, 3, 4, Bytes().Int(2).Add(Halves(112))),
     "4 3 <CellDim> 2\n" + Matrices(Twice(kLstm)), Fixed::kOwnClass},
    {0x010f, 0x080f, "Highway", Component1d(0x10f, 2, 2, Bytes().Floats(Ramp(12))),
     "2 2 " + Matrices({4, 4, 2, 2}), Fixed::kStaysFloat},
    {0x0110, 0x0810, "BGru", Component1d(0x110, 1, 4, Bytes().Int(2).Floats(Ramp(60))),
     "4 1 <CellDim> 2\n" + Matrices(Twice(kGru)), Fixed::kOwnClass},
    {0x0201, 0x0901, "Softmax", Component1d(0x201, 2, 2), "2 2"},
    {0x0202, 0x0902, "Sigmoid", Component1d(0x202, 2, 2), "2 2"},
    {0x0203, 0x0903, "ReLU", Component1d(0x203, 2, 2), "2 2"},
    {0x0204, 0x0904, "LogSoftmax", Component1d(0x204, 2, 2), "2 2"},
    {0x0205, 0x0905, "PReLU", Component1d(0x205, 2, 2, Bytes().Float(0.25F)), kPReluText},
    {0x0206, 0x0906, "ReLU2d", Component2d(0x206, 2, 2, 0, 3), "2 2 <OutputDim> 3 <InputDim> 0"},
    {0x0207, 0x0907, "PReLU2d", kPRelu2d, kPReluText},
    {0x0301, 0x0c01, "Conv2d", kConv2d, kConv2dText},
    {0x0302, 0x0c02, "ConvBN2d", Component2d(0x302, 2, 2, 0, 0, Join(kConv2d, {kNorm2d, kPRelu2d})),
     "2 2\n" + kBlockText},
    {0x0303, 0x0c03, "ConvDW2d",
     Component2d(0x303, 2, 2, 0, 0, Join(kConv2d, {kNorm2d, kPRelu2d, kConv2d, kNorm2d, kPRelu2d})),
     "2 2\n" + kBlockText + kBlockText},
    {0x0304, 0x0c04, "SeperableConv2d",
     Component2d(0x304, 2, 2, 0, 0, Join(kConv2d, {kPRelu2d, kConv2d})),
     "2 2 <Conv2d> " + kConv2dText + "<PReLU2d> " + kPReluText + "<Conv2d> " + kConv2dText},
    {0x0305, 0x0c05, "SimpleConv2d1x3s2", Component2d(0x305, 2, 1, 4, 0, Bytes().Floats(Ramp(7))),
     "1 2 <InputDim> 4 <OutputDim> 0\n" + Matrices({3, 3, 1})},
    {0x0306, 0x0c06, "SimpleDeconv2d1x3s2", Component2d(0x306, 2, 1, 4, 0, Bytes().Floats(Ramp(7))),
     "1 2 <OutputDim> 0 <InputDim> 4\n" + Matrices({3, 3, 1})},
    {0x0307, 0x0c07, "Conv1d", Component1d(0x307, 2, 4, kConv1d), kConv1dText},
    {0x0308, 0x0c08, "ConvTranspose1d", Component1d(0x308, 2, 4, kTransposed), kTransposedText},
    {0x0309, 0x0c09, "MaxPool1d", Component1d(0x309, 2, 2, Bytes(kWindow).Int(3)),
     "2 2 " + kWindowText, Fixed::kStaysFloat},
    {0x0401, 0x0a01, "Splice", Component1d(0x401, 2, 6, Bytes().Ints({-1, 0, 1})),
     "6 2 stray [ -1 0 1 ]"},
    {0x0402, 0x0a02, "AddShift", Component1d(0x402, 2, 2, Bytes().Floats(Ramp(2))),
     "2 2 stray " + Matrices({2})},
    {0x0403, 0x0a03, "Rescale", Component1d(0x403, 2, 2, Bytes().Floats(Ramp(2))),
     "2 2 " + Matrices({2})},
    {0x0404, 0x0a04, "NormalizeComponent", Component1d(0x404, 2, 2, Bytes().Float(2)),
     "2 2 <TargetRms> 2"},
    {0x0405, 0x0a05, "BatchNormComponent", Component1d(0x405, 2, 2, Bytes().Int(2).Floats(Ramp(4))),
     "2 2 <BlockDim> 2 <Epsilon> 0 <TargetRms> 1 <Count> 9\n" + Matrices({2, 2})},
    {0x0406, 0x0a06, "LayerNorm", Component1d(0x406, 3, 3, Bytes().Int(3).Float(1).Floats(Ramp(6))),
     "3 3 <Epsilon> 1\n" + Matrices({3, 3})},
    {0x0407, 0x0a07, "BatchNorm2d", kNorm2d, kNormText},
    {0x0408, 0x0a08, "AddComponent", Component1d(0x408, 6, 2, Bytes().Int(3).Floats(Ramp(3))),
     "2 6 <InputNum> 3\n" + Matrices({3})},
    {0x0409, 0x0a09, "BatchNorm1d", Component1d(0x409, 2, 2, Bytes().Float(0.5F).Floats(Ramp(8))),
     kNormText},
    {0x0500, 0x0e00, "ViewComponent", Component1d(0x500, 2, 4), "4 2"},
    {0x0501, 0x0e01, "TransposeComponent", Component1d(0x501, 2, 0), "0 2"},
    {0x0600, 0x0b00, "Prior", Component1d(0x600, 2, 2, Bytes().Floats(Ramp(2))), ""},
    {0x0601, 0x0b01, "StatisticsExtractionComponent",
     Component1d(0x601, 3, 4, Bytes().Ints({2, 6}).Byte(0)),
     "4 3\n<InputPeriod> 2 <OutputPeriod> 6 <IncludeVarinance> F"},
    {0x0602, 0x0b02, "StatisticsPoolingComponent",
     Component1d(0x602, 5, 6, Bytes().Ints({3, -1, -1, 2}).Byte(1).Float(0.5F)),
     "6 5\n<InputPeriod> 3 <LeftContext> -1 <RightContext> -1 <NumLogCountFeatures> 2 "
     "<OutputStddevs> true <VarianceFloor> 0.5"},
    {0x0603, 0x0b03, "SlidingWindowComponent", Component1d(0x603, 2, 2, Bytes().Ints({7, 3, 1})),
     "2 2\n<WindowSize> 7 <HopSize> 3 <SlidingMode> 1"},
    {0x0700, 0x0d00, "RegisterComponent", Component1d(0x700, 2, 2, Bytes().String("left")),
     "2 2 <RegisterName> left"},
    {0x0701, 0x0d01, "Register2dComponent", Component2d(0x701, 2, 2, 3, 3, Bytes().String("p")),
     "2 2 <InputDim> 3 <OutputDim> 3 <RegisterName> p"},
    {0x0702, 0x0d02, "ConcatenateComponent", Component1d(0x702, 2, 6, kParts), "6 2 " + kPartsText},
    {0x0703, 0x0d03, "Concatenate2dComponent", Component2d(0x703, 2, 6, 3, 3, kParts),
     "6 2 <InputDim> 3 <OutputDim> 3 " + kPartsText},
    {0x0704, 0x0d04, "FlattenComponent", Component1d(0x704, 2, 6, Bytes().Int(3)),
     "6 2 <InputChannel> 3"},
    {0x0705, 0x0d05, "DeflattenComponent", Component1d(0x705, 6, 2, Bytes().Int(3)),
     "2 6 <OutputChannel> 3"},
    {0x0706, 0x0d06, "SliceComponent", Component1d(0x706, 2, 2, Bytes().String("-3")),
     "2 2 <Index> -3"},
    {0x0707, 0x0d07, "ReflectionPad", Component1d(0x707, 2, 2, Bytes().Ints({3, 4})), kPadText},
    {0x0708, 0x0d08, "ConstantPad", Component1d(0x708, 2, 2, Bytes().Ints({3, 4}).Float(0.25F)),
     kPadText + " <Value> 0.25"},
    {0x1000, 0x1800, "StreamConv1d", Component1d(0x1000, 2, 4, kConv1d), kConv1dText},
    {0x1001, 0x1801, "StreamConvTranspose1d", Component1d(0x1001, 2, 4, kTransposed),
     kTransposedText},
    {0x1002, 0x1802, "StreamMaxPool1d", Component1d(0x1002, 2, 2, Bytes(kWindow).Int(3)),
     "2 2 " + kWindowText},
    {0x1100, 0x1900, "StreamRegisterComponent", Component1d(0x1100, 2, 2, Bytes().String("name")),
     "2 2 <RegisterName> name"},
    {0x1101, 0x1901, "StreamConcatenateComponent", Component1d(0x1101, 2, 6, kParts),
     "6 2 " + kPartsText},
    {0x1102, 0x1902, "StreamReflectionPad", Component1d(0x1102, 2, 2, Bytes().Ints({3, 4})),
     kPadText},
    {0x1103, 0x1903, "StreamConstantPad",
     Component1d(0x1103, 2, 2, Bytes().Ints({3, 4}).Float(0.25F)), kPadText + " <Value> 0.25"},
    {0x1104, 0x1904, "StreamSliceComponent", Component1d(0x1104, 2, 2, Bytes().String("2:5,7")),
     "2 2 <Index> 2:5,7"},
};

/// Every sample, and its fixed-point form where that is a class of its own.
inline std::vector<Bytes> SamplesOfAllForms() {
  std::vector<Bytes> samples;
  for (const LayerSample& row : kLayerSamples) {
    samples.push_back(row.bytes);
    if (row.fixed == Fixed::kOwnClass) {
      samples.emplace_back(FixedWrittenBy(*ReadLayer(row.bytes)));
    }
  }
  return samples;
}

/// Whether layers of the type can be read and written, but not run.
inline bool IsOnlyStored(int code) { return code >= 0x301 && code <= 0x304; }

/// The input that a sample takes.
struct SampleInput {
  int dim;
  int channels;

  size_t FloatsOf(size_t frames) const {
    return static_cast<size_t>(dim) * static_cast<size_t>(channels) * frames;
  }
};
inline SampleInput InputOf(const runtime::Component& layer) {
  return {layer.InputDim() > 0 ? layer.InputDim() : 3,
          layer.GetType() == 0x704 ? 3 : layer.input_channel};
}

/// A sample, behind the registers that it names if it names any.
inline std::vector<Bytes> WithRegisters(int code, const Bytes& sample) {
  std::vector<Bytes> layers;
  if (code == 0x702 || code == 0x703 || code == 0x1101) {
    for (const char* name : {"x", "yz"}) {
      layers.push_back(
          code == 0x703 ? Component2d(0x701, 2, 2, 3, 3, Bytes().String(name))
                        : Component1d(code == 0x702 ? 0x700 : 0x1100, 2, 2, Bytes().String(name)));
    }
  }
  layers.push_back(sample);
  return layers;
}

}  // namespace handwriting::tests

#endif  // TESTS_SUPPORT_LAYER_SAMPLES_H_
