// The readers and writers of whole components, and the contract's defaults.

#include <tuple>

#include "nnet/activation.h"
#include "nnet/nnet-component.h"
#include "tests/support/expect.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

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
      {"", 0, 0}, {"<InputDim> 5 <OutputDim> 6", 5, 6}, {"<OutputDim> 6 <InputDim> 5", 5, 6}};
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
