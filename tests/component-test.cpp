// Every layer type of the model format, with its codes, its marker and one sample in binary and
// text, and what holds for all of them: the registry, the readers and writers of whole components,
// and the contract's defaults.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <typeinfo>

#include "nnet/dense/activation.h"
#include "nnet/runtime/component-registry.h"
#include "nnet/runtime/nnet-nnet.h"
#include "tests/support/expect.h"
#include "tools/allocations.h"
#include "utils/half-float.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

// What the fixed-point entry creates, and what its float sibling is written as in fixed-point form.
enum class Fixed {
  kSameClass,   // the float class, which is written under the fixed-point code
  kOwnClass,    // a class of its own, which is written under its own code
  kStaysFloat,  // the float class, which is always written under the float code
};

struct Row {
  int code;
  int fixed_code;
  std::string name;
  Bytes bytes;
  std::string text;  // after the marker; empty where the forms do not hold the same
  Fixed fixed = Fixed::kSameClass;
};

// 0, 1/4, 2/4, … : values that every stored float form holds exactly, as an array and as matrices
// of so many values each.
Floats Ramp(int count) {
  Floats values(static_cast<size_t>(count));
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i) / 4;
  return values;
}
std::string Matrices(const std::vector<int>& sizes) {
  std::string text;
  float next = 0;
  for (const int size : sizes) {
    Floats values(static_cast<size_t>(size));
    for (float& value : values) value = std::exchange(next, next + 0.25F);
    text += TextMatrix(values);
  }
  return text;
}
std::vector<int> Twice(std::vector<int> sizes) {
  sizes.insert(sizes.end(), sizes.begin(), sizes.end());
  return sizes;
}
std::string Repeat(int count, const std::string& text) {
  return count == 0 ? std::string() : text + Repeat(count - 1, text);
}

Bytes Join(const Bytes& first, std::initializer_list<Bytes> others) {
  Bytes joined = first;
  for (const Bytes& other : others) joined.Add(other);
  return joined;
}
Bytes Block(int head_num, int layers) {
  Bytes block = Bytes().Int(head_num);
  while (layers-- > 0) block.Add(Affine(1, 1, {3}, {2}));
  return block;
}
Bytes Halves(int count) {
  Bytes block;
  for (const float value : Ramp(count)) block.Raw(FloatToHalf(value));
  return block;
}

const std::string kOneAffine = "<AffineTransform> 1 1 [ 2 ]\n[ 3 ]\n";
const std::vector<int> kLstm = {24, 16, 8, 8}, kGru = {6, 12, 6, 6};
const std::vector<int> kProjectedLstm = {24, 8, 8, 2, 2, 2, 2, 1};

const Bytes kConv2d = Component2d(
    0x301, 2, 2, 9, 0, Bytes().Ints({2, 3, 1, 2, 3, 4, 5, 6, 7, 8, 2, 1}).Floats(Ramp(14)));
const std::string kConv2dText =
    "2 2 <InputDim> 9 <OutputDim> 0\n<KernelHeight> 2 <KernelWidth> 3 <StrideHeight> 1 "
    "<StrideWidth> 2 <Top> 3 <Bottom> 4 <Left> 5 <Right> 6 <DilationHeight> 7 <DilationWidth> 8 "
    "<Groups> 2 <Bias> 1\n" +
    Matrices({6, 6, 2});
const Bytes kNorm2d = Component2d(0x407, 2, 2, 0, 0, Bytes().Float(0.5F).Floats(Ramp(8)));
const std::string kNormText = "2 2 <Epsilon> 0.5\n" + Matrices({2, 2, 2, 2});
const Bytes kPRelu2d = Component2d(0x207, 2, 2, 0, 0, Bytes().Float(0.25F));
const std::string kPReluText = "2 2 <Alpha> 0.25\n";
const std::string kBlockText =
    "<Conv2d> " + kConv2dText + "<BatchNorm2d> " + kNormText + "<PReLU2d> " + kPReluText;

const std::string kWindowText = "<KernelSize> 3 <Stride> 2 <Left> 1 <Right> 2 <Dilation> 3";
const Bytes kWindow = Bytes().Ints({3, 2, 1, 2});
const Bytes kConv1d = Bytes(kWindow).Ints({3, 2, 1}).Floats(Ramp(16));
const Bytes kTransposed = Bytes(kWindow).Ints({5, 3, 2, 1}).Floats(Ramp(16));
const std::string kConv1dText =
    "4 2 " + kWindowText + " <Groups> 2 <Bias> 1\n" + Matrices({3, 3, 3, 3, 4});
const std::string kTransposedText =
    "4 2 " + kWindowText + " <OutputPadding> 5 <Groups> 2 <Bias> 1\n" + Matrices({3, 3, 3, 3, 4});
const Bytes kParts = Bytes().Int(2).String("x").String("yz").Ints({1, 1});
const std::string kPartsText = "<RegisterName> x \t <Input> <RegisterName> yz \r\n";
const std::string kPadText = "2 2 <Left> 3 <Right> 4";

const Row kRows[] = {
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

TEST(Registry, KnowsEveryTypeUnderItsCodesAndMarkers) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(Component::component_map.at(row.code).first, "<" + row.name + ">");
    ASSERT_EQ(Component::component_map.at(row.fixed_code).first, "<Fixed" + row.name + ">");
    ASSERT_EQ(Component::marker_map.at("<" + row.name + ">").first, row.code);
    ASSERT_EQ(Component::marker_map.at("<Fixed" + row.name + ">").first, row.fixed_code);
    const Layer layer(NewComponentOfType(row.code, 3, 4));
    const Layer fixed(NewComponentOfType(row.fixed_code, 3, 4));
    EXPECT_EQ(layer->GetType(), row.code);
    EXPECT_EQ(layer->GetFixedType(), row.fixed == Fixed::kStaysFloat ? row.code : row.fixed_code);
    const bool own_class = row.fixed == Fixed::kOwnClass;
    const Component& twin = *fixed;
    const Component& sibling = *layer;
    EXPECT_EQ(typeid(twin) != typeid(sibling), own_class);
    EXPECT_EQ(fixed->GetType(), own_class ? row.fixed_code : row.code);
    EXPECT_EQ(fixed->GetFixedType(), layer->GetFixedType());
  }
  EXPECT_EQ(Component::component_map.size(), 2 * std::size(kRows));
  EXPECT_EQ(Component::marker_map.size(), 2 * std::size(kRows));
  for (const auto& [code, text] : {std::pair(0x102, "0102"), {0xFFFF, "FFFF"}, {0, "0000"}}) {
    EXPECT_EQ(ThrownBy([code = code] { NewComponentOfType(code, 1, 1); }),
              std::string("unknown or unimplemented nnet layer! [") + text + "]");
  }
  const Component::ComponentMap twice = {{0x100, {"<A>", nullptr}}, {0x101, {"<A>", nullptr}}};
  EXPECT_EQ(ThrownBy([&] { BuildMarkerMap(twice); }), "insert component map failed! [<A>:0101]");
}

// The document of the format has a screen for every layer, which begins with its codes.
TEST(Registry, EveryTypeHasItsScreen) {
  std::ifstream file(HANDWRITING_SOURCE_DIR "/docs/model-format.md");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  ASSERT_FALSE(text.empty());
  for (const Row& row : kRows) {
    char screen[128];
    const bool is_pool = row.code == 0x309;  // its fixed-point form is its float form
    std::snprintf(screen, sizeof(screen), "\n| `<%s>` | 0x%03x | 0x%03x |", row.name.c_str(),
                  row.code, is_pool ? row.code : row.fixed_code);
    EXPECT_NE(text.find(screen), std::string::npos) << screen;
  }
}

// Read from binary and from text, a layer is written as the sample, before and after a fixed form
// is made of it. What follows a component in a file belongs to the next one.
TEST(StoredForms, HoldTheSameLayer) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const std::string& bytes = row.bytes.str();
    const File file = FileOf(bytes + "EX");
    const Layer layer(Component::Read(file.get()));
    EXPECT_EQ(std::ftell(file.get()), static_cast<long>(bytes.size()));
    EXPECT_EQ(layer->GetType(), row.code);
    EXPECT_TRUE(EveryPrefixIsRefused(bytes));
    const std::string fixed = FixedWrittenBy(*layer);
    EXPECT_EQ(WrittenBy(*layer), bytes);
    if (layer->HasFixedForm()) {
      EXPECT_TRUE(EveryPrefixIsRefused(fixed));
      const Layer twin = ReadLayer(fixed);
      EXPECT_EQ(FixedWrittenBy(*twin), fixed);
      EXPECT_EQ(twin->ParameterCount(), layer->ParameterCount());
    }
    if (row.text.empty()) continue;
    const File lines = FileOf("<" + row.name + "> " + row.text + "\n<ViewComponent> 3 3\n");
    EXPECT_EQ(WrittenBy(*Layer(Component::Read(lines.get(), false))), bytes);
    EXPECT_EQ(Layer(Component::Read(lines.get(), false))->GetType(), 0x500);
  }
}

// A stream that takes so many bytes and then fails, without a buffer that would hide it.
File StreamOf(size_t& room) {
  const auto write = [](void* cookie, const char*, size_t size) {
    auto& left = *static_cast<size_t*>(cookie);
    const size_t taken = std::min(size, left);
    left -= taken;
    return static_cast<ssize_t>(taken);
  };
  File stream(fopencookie(&room, "wb", {nullptr, write, nullptr, nullptr}));
  std::setvbuf(stream.get(), nullptr, _IONBF, 0);
  return stream;
}

TEST(StoredForms, EveryWriterTellsWhenTheStreamFails) {
  std::vector<Bytes> samples = {
      // a register of the newer form
      Component1d(0x700, 2, 2, Bytes().String("r").Codes({'E', 'X', 'T'}).String("-1"))};
  for (const Row& row : kRows) samples.push_back(row.bytes);
  for (const Bytes& bytes : samples) {
    const Layer layer = ReadLayer(bytes);
    SCOPED_TRACE(layer->TypeMarker());
    const Layer fixed = layer->HasFixedForm() ? ReadLayer(FixedWrittenBy(*layer)) : nullptr;
    const auto expect_failures = [](const std::string& whole, auto write) {
      for (size_t size = 0; size <= whole.size(); ++size) {
        size_t room = size;
        EXPECT_EQ(write(StreamOf(room).get()), size == whole.size()) << size;
      }
    };
    expect_failures(bytes.str(), [&](FILE* fp) { return layer->Write(fp); });
    expect_failures(FixedWrittenBy(*layer), [&](FILE* fp) { return layer->WriteFixed(fp); });
    if (fixed == nullptr) continue;
    expect_failures(WrittenBy(*fixed), [&](FILE* fp) { return fixed->Write(fp); });
  }
}

// Once its buffers have had the size of the largest call, a layer runs and starts anew without
// allocating anything.
TEST(SteadyState, NoLayerAllocates) {
  std::vector<Bytes> samples;
  for (const Row& row : kRows) {
    samples.push_back(row.bytes);
    const Layer layer = ReadLayer(row.bytes);
    if (row.fixed == Fixed::kOwnClass) samples.emplace_back(FixedWrittenBy(*layer));
  }
  for (const Bytes& bytes : samples) {
    const Layer layer = ReadLayer(bytes);
    SCOPED_TRACE(layer->TypeMarker());
    const int dim = layer->InputDim() > 0 ? layer->InputDim() : 3;
    const int channels = layer->GetType() == 0x704 ? 3 : layer->input_channel;
    Floats in = Random(ToSize(channels) * ToSize(dim) * 60, 1);
    std::vector<Bytes> network;  // registers, for the layers that name some
    const int code = layer->GetType();
    if (code >= 0x301 && code <= 0x304) continue;  // only stored
    if (code == 0x702 || code == 0x703 || code == 0x1101) {
      for (const char* name : {"x", "yz"}) {
        network.push_back(code == 0x703 ? Component2d(0x701, 2, 2, 3, 3, Bytes().String(name))
                                        : Component1d(code == 0x702 ? 0x700 : 0x1100, 2, 2,
                                                      Bytes().String(name)));
      }
    }
    network.push_back(bytes);
    Model model(Network(network));
    const auto run = [&] {
      model.forward->Reset();
      for (const int64_t frames : {60, 8, 25, 60}) {
        model.forward->Propagate(in.data(), frames, dim, 1, channels);
      }
      model.forward->Propagate(in.data(), 40, dim, -1, channels);
    };
    run();
    run();
    const uint64_t before = CountAllocations();
    run();
    EXPECT_EQ(CountAllocations(), before);
  }
}

// The contract and the readers of whole components.

TEST(Contract, ConstructorsSetTheHeaderFields) {
  const Sigmoid unset(0, -3);
  EXPECT_FALSE(unset.input_dim_set || unset.output_dim_set || unset.is_2d);
  EXPECT_EQ(unset.InputChannel(), 1);
  const Relu2d planes(3, 5);
  EXPECT_TRUE(planes.is_2d);
  EXPECT_FALSE(planes.input_dim_set || planes.output_dim_set);
  EXPECT_EQ(planes.InputChannel(), 3);
  EXPECT_EQ(planes.OutputChannel(), 5);
  EXPECT_EQ(planes.InputDim(), 0);
  EXPECT_EQ(unset.CalcOutputFrames(-3), 0);
  EXPECT_EQ(unset.CalcOutputFrames(4), 4);
}

TEST(Contract, AWidthThatDiffersThrowsBeforeAnythingChanges) {
  Sigmoid layer(3, 3);
  layer.output_frames = 17;
  float values[8] = {};
  int width = 0;
  EXPECT_EQ(ThrownBy([&] { layer.Propagate(values, 2, 4, values, &width, 1); }),
            "mismatched input dimension! layer[<Sigmoid>] [3] vs [4]");
  EXPECT_EQ(layer.output_frames, 17);
}

TEST(BinaryComponent, HeadersOfBothForms) {
  const Layer affine = ReadLayer(Affine(2, 1, {0.5F}, {1.0F, 2.0F}));
  EXPECT_EQ(affine->InputDim(), 2);
  EXPECT_EQ(affine->OutputDim(), 1);
  const Bytes bytes = Component2d(0x907, 3, 3, 0, 4, Bytes().Float(0.25F));
  const Layer planes = ReadLayer(bytes);
  EXPECT_EQ(planes->InputChannel(), 3);
  EXPECT_FALSE(planes->input_dim_set);
  EXPECT_TRUE(planes->output_dim_set);
  EXPECT_EQ(planes->OutputDim(), 4);
  EXPECT_EQ(FixedWrittenBy(*planes), bytes.str());
  EXPECT_TRUE(EveryPrefixIsRefused(bytes));
}

TEST(BinaryComponent, Failures) {
  const std::pair<std::string, const char*> cases[] = {
      {Component1d(0x102, 1, 1).str(), "unknown or unimplemented nnet layer! [0102]"},
      {Component1d(0x202, 1, 1).str().substr(0, 11), "fread failed!"},
      {Component2d(0x206, 1, 1, 2, 2).str().substr(0, 21), "fread failed!"},
      {Component1d(0x100, 2, 1).str(), "read component failed!"},
      {Component1d(0x100, 0x7fffffff, 0x7fffffff).str(), "read component failed!"},
      {Component1d(0x100, -2, 8).str(), "read component failed!"}};
  for (const auto& [bytes, message] : cases) {
    const File file = FileOf(bytes);
    EXPECT_EQ(ThrownBy([&] { Layer(Component::Read(file.get())); }), message);
  }
  const File empty = FileOf(std::string());
  std::getc(empty.get());
  EXPECT_EQ(ThrownBy([&] { Layer(Component::Read(empty.get())); }), "end of file reached!");
  EXPECT_EQ(ThrownBy([&] { Layer(Component::Read(empty.get(), false)); }), "end of file reached!");
}

TEST(BinaryComponent, NullStreams) {
  const Sigmoid layer(1, 1);
  Nnet nnet;
  const std::string log = PrintedBy([&] {
    EXPECT_EQ(ThrownBy([] { Layer(Component::Read(nullptr)); }), "Wrong parameter(s)!");
    EXPECT_FALSE(layer.Write(nullptr) || layer.WriteFixed(nullptr) || ReadNnet(nnet, nullptr));
  });
  for (const char* line :
       {"[nnet-component:", "] Wrong parameter(s) to [Read], condition [fp == __null]. \n",
        "to [Write], condition", "to [WriteFixed], condition",
        "[nnet-nnet:", "to [ReadNnet], condition [fp == __null]. \n"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << " in\n" << log;
  }
}

TEST(TextComponent, ThreeFormsOfTheDimensions) {
  const std::string block = " [ 1 2 ] [ 0.5 ]\n";
  for (const char* dims : {"1 2", "<InputDim> 2 <OutputDim> 1", "<OutputDim> 1 <InputDim> 2",
                           "<InputChannel> 2 <OutputDim>x 1"}) {
    const Layer layer = ReadTextLayer(std::string("<Nnet> <AffineTransform> ") + dims + block);
    EXPECT_EQ(WrittenBy(*layer), Affine(2, 1, {0.5F}, {1.0F, 2.0F}).str()) << dims;
  }
}

TEST(TextComponent, ChannelDimensionsAreOptional) {
  const std::tuple<const char*, int, int> cases[] = {
      {"", 0, 0}, {"<InputDim> 5 <OutputDim> 5", 5, 5}, {"<OutputDim> 0 <InputDim> 5", 5, 0}};
  for (const auto& [dims, in, out] : cases) {
    const File file = FileOf("<PReLU2d> 3 2 " + std::string(dims) + " <Alpha> 0.5\n</Nnet>tail");
    const Layer layer(Component::Read(file.get(), false));
    EXPECT_EQ(layer->InputChannel(), 2);
    EXPECT_EQ(layer->OutputChannel(), 3);
    EXPECT_EQ(layer->InputDim(), in);
    EXPECT_EQ(layer->OutputDim(), out);
    EXPECT_EQ(layer->input_dim_set, in > 0);
    EXPECT_EQ(dynamic_cast<PRelu2d&>(*layer).alpha, 0.5F);
    EXPECT_EQ(Component::Read(file.get(), false), nullptr);
  }
}

TEST(TextComponent, Failures) {
  const std::string too_long(64, '1');
  const std::pair<std::string, std::string> cases[] = {
      {" ", "wrong nnet format!"},
      {"<Nnet>", "wrong nnet format!"},
      {"<" + too_long + "> 1 1", "wrong nnet format!"},
      {"<Relu> 1 1", "unknown or unimplemented nnet layer! [<Relu>]"},
      {"<ReLU> 1", "wrong nnet format!"},
      {"<ReLU> 1 " + too_long, "wrong nnet format!"},
      {"<ReLU> <InputDim> 1 2", "<OutputDim> or <OutputChannel> expected, but got [2]"},
      {"<ReLU> <OutputDim> 1 <OutputDim> 2",
       "<InputDim> or <InputChannel> expected, but got [<OutputDim>]"},
      {"<ReLU2d> 1 1 <InputDim> 1 x", "<OutputDim> expected, but got [x]"},
      {"<ReLU2d> 1 1 <OutputDim> 1 x", "<InputDim> expected, but got [x]"},
      {"<ReLU2d> 1 1 <OutputDim>", "wrong nnet format!"},
      {"<FixedAffineTransform> 1 1", "read component failed!"},
      {"<AffineTransform> 2 2 [ 1 ]", "mismatched matrix dimension! [rows:0/2, cols:1/2]"},
      {"<AffineTransform> 2000000000 2000000000 [ 1 ]",
       "mismatched matrix dimension! [rows:0/2000000000, cols:1/2000000000]"}};
  for (const auto& [text, message] : cases) {
    EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text); }), message) << text;
  }
}

TEST(Network, CountsAndPrefixes) {
  const Bytes two = Network({Component1d(0x202, 2, 2), Component1d(0x205, 2, 2, Bytes().Float(1))});
  const struct {
    std::string bytes;
    bool read;
    const char* thrown;
  } cases[] = {{Network({}).str(), true, ""},
               {two.str(), true, ""},
               {two.str().substr(0, 3), false, ""},
               {two.str().substr(0, 16), false, "fread failed!"},
               {two.str().substr(0, 30), false, "read component failed!"},
               {Bytes().Raw(uint32_t{0xFFFFFFFF}).Add(Component1d(0x202, 2, 2)).str(), false,
                "fread failed!"}};
  for (const auto& c : cases) {
    const File file = FileOf(c.bytes);
    Nnet nnet;
    bool read = false;
    EXPECT_EQ(ThrownBy([&] { read = ReadNnet(nnet, file.get()); }), c.thrown);
    EXPECT_EQ(read, c.read);
    if (read) {
      EXPECT_EQ(static_cast<size_t>(std::ftell(file.get())), c.bytes.size());
    }
  }
}

}  // namespace
}  // namespace handwriting::tests
