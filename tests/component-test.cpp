// Every layer type of the model format, with its codes, its marker and one sample in binary and
// text, and what holds for all of them: the registry, the readers and writers of whole components,
// and the contract's defaults.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <typeinfo>

#include "nnet/dense/activation.h"
#include "nnet/runtime/component-registry.h"
#include "nnet/runtime/nnet-nnet.h"
#include "tests/support/expect.h"
#include "tests/support/layer-samples.h"
#include "tools/allocations.h"
#include "utils/half-float.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

TEST(Registry, KnowsEveryTypeUnderItsCodesAndMarkers) {
  for (const LayerSample& row : kLayerSamples) {
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
  EXPECT_EQ(Component::component_map.size(), 2 * std::size(kLayerSamples));
  EXPECT_EQ(Component::marker_map.size(), 2 * std::size(kLayerSamples));
  for (const auto& [code, text] : {std::pair(0x102, "0102"), {0xFFFF, "FFFF"}, {0, "0000"}}) {
    EXPECT_EQ(ThrownBy([code = code] { NewComponentOfType(code, 1, 1); }),
              std::string("unknown or unimplemented nnet layer! [") + text + "]");
  }
  const Component::ComponentMap twice = {{0x100, {"<A>", nullptr}}, {0x101, {"<A>", nullptr}}};
  EXPECT_EQ(ThrownBy([&] { BuildMarkerMap(twice); }), "insert component map failed! [<A>:0101]");
}

// What containers, the bounds on work and `inspect` ask every layer.
TEST(Registry, LayersAnswerWhatTheyAreAsked) {
  std::set<std::string> may_change_frames, work_more;
  std::map<std::string, std::string> links;
  for (const LayerSample& row : kLayerSamples) {
    SCOPED_TRACE(row.name);
    const Layer layer = ReadLayer(row.bytes);
    const int dim = InputOf(*layer).dim;
    if (layer->ExtraWork(100, dim) > 0) {
      work_more.insert(row.name);
      EXPECT_GT(layer->ExtraWork(200, dim), layer->ExtraWork(100, dim));
    }
    if (const std::string text = layer->Links(); !text.empty()) links[row.name] = text;
    if (!layer->MapsFrameForFrame()) {
      may_change_frames.insert(row.name);
      continue;
    }
    for (const int64_t frames : {1, 2, 3, 50}) EXPECT_EQ(layer->Plan(frames, dim).frames, frames);
  }
  // Layers of planes and all that look beyond one frame; registers, which a container cannot link.
  EXPECT_EQ(may_change_frames, std::set<std::string>({"Fsmn",
                                                      "ReLU2d",
                                                      "PReLU2d",
                                                      "Conv2d",
                                                      "ConvBN2d",
                                                      "ConvDW2d",
                                                      "SeperableConv2d",
                                                      "SimpleConv2d1x3s2",
                                                      "SimpleDeconv2d1x3s2",
                                                      "Conv1d",
                                                      "ConvTranspose1d",
                                                      "MaxPool1d",
                                                      "Splice",
                                                      "BatchNorm2d",
                                                      "ViewComponent",
                                                      "TransposeComponent",
                                                      "StatisticsExtractionComponent",
                                                      "StatisticsPoolingComponent",
                                                      "SlidingWindowComponent",
                                                      "RegisterComponent",
                                                      "Register2dComponent",
                                                      "ConcatenateComponent",
                                                      "Concatenate2dComponent",
                                                      "FlattenComponent",
                                                      "DeflattenComponent",
                                                      "SliceComponent",
                                                      "ReflectionPad",
                                                      "ConstantPad",
                                                      "StreamConv1d",
                                                      "StreamConvTranspose1d",
                                                      "StreamMaxPool1d",
                                                      "StreamRegisterComponent",
                                                      "StreamConcatenateComponent",
                                                      "StreamReflectionPad",
                                                      "StreamConstantPad",
                                                      "StreamSliceComponent"}));
  EXPECT_EQ(work_more, std::set<std::string>({"Decoder", "Encoder", "MaxPool1d",
                                              "SimpleConv2d1x3s2", "SimpleDeconv2d1x3s2",
                                              "StatisticsExtractionComponent", "StreamMaxPool1d"}));
  EXPECT_EQ(links, (std::map<std::string, std::string>{
                       {"Concatenate2dComponent", "joins x, input, yz"},
                       {"ConcatenateComponent", "joins x, input, yz"},
                       {"Register2dComponent", "register p"},
                       {"RegisterComponent", "register left"},
                       {"StreamConcatenateComponent", "joins x, input, yz"},
                       {"StreamRegisterComponent", "register name"}}));
}

// The document of the format has a screen for every layer, which begins with its codes.
TEST(Registry, EveryTypeHasItsScreen) {
  std::ifstream file(HANDWRITING_SOURCE_DIR "/docs/model-format.md");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  ASSERT_FALSE(text.empty());
  for (const LayerSample& row : kLayerSamples) {
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
  for (const LayerSample& row : kLayerSamples) {
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
  for (const LayerSample& row : kLayerSamples) samples.push_back(row.bytes);
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
  for (const Bytes& bytes : SamplesOfAllForms()) {
    const Layer layer = ReadLayer(bytes);
    SCOPED_TRACE(layer->TypeMarker());
    if (IsOnlyStored(layer->GetType())) continue;
    const SampleInput input = InputOf(*layer);
    Floats in = Random(input.FloatsOf(60), 1);
    Model model(Network(WithRegisters(layer->GetType(), bytes)));
    const auto run = [&] {
      model.forward->Reset();
      for (const int64_t frames : {60, 8, 25, 60}) {
        model.forward->Propagate(in.data(), frames, input.dim, 1, input.channels);
      }
      model.forward->Propagate(in.data(), 40, input.dim, -1, input.channels);
    };
    run();
    run();
    const uint64_t before = CountAllocations();
    run();
    EXPECT_EQ(CountAllocations(), before);
  }
}

// What an earlier input left in buffers and states is never read: NaNs would spread.
TEST(SteadyState, NoInputDependsOnWhatTheMemoryHolds) {
  for (const Bytes& bytes : SamplesOfAllForms()) {
    const Layer layer = ReadLayer(bytes);
    SCOPED_TRACE(layer->TypeMarker());
    if (IsOnlyStored(layer->GetType())) continue;
    const SampleInput input = InputOf(*layer);
    const Bytes network = Network(WithRegisters(layer->GetType(), bytes));
    const auto run = [&](Model& model, const Floats& values) {
      Floats in = values;
      Floats all;
      model.forward->Reset();
      for (const int call : {1, 2, -3}) {
        const int64_t frames = call == 2 ? 9 : 20;
        model.forward->Propagate(in.data(), frames, input.dim, call, input.channels);
        std::ranges::copy(model.Output(), std::back_inserter(all));
      }
      return all;
    };
    const Floats values = Random(input.FloatsOf(20), 1);
    Model fresh(network);
    const Floats wanted = run(fresh, values);
    Model used(network);
    run(used, Floats(values.size(), std::numeric_limits<float>::quiet_NaN()));
    ExpectSameBits(run(used, values), wanted);
  }
}

// A caller's array may be lent to a layer that does not say that it changes its input.
TEST(SteadyState, OnlyLayersThatSaySoChangeTheirInput) {
  for (const Bytes& bytes : SamplesOfAllForms()) {
    const Layer layer = ReadLayer(bytes);
    SCOPED_TRACE(layer->TypeMarker());
    if (IsOnlyStored(layer->GetType())) continue;
    const SampleInput input = InputOf(*layer);
    const Floats given = Random(input.FloatsOf(20), 1);
    Floats in = given;
    Model model(Network(WithRegisters(layer->GetType(), bytes)));
    model.forward->Propagate(in.data(), 20, input.dim, 1, input.channels);
    EXPECT_EQ(in != given, model.nnet.layers.front()->ChangesInput());
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
    const File file = FileOf("<PReLU2d> 3 3 " + std::string(dims) + " <Alpha> 0.5\n</Nnet>tail");
    const Layer layer(Component::Read(file.get(), false));
    EXPECT_EQ(layer->InputChannel(), 3);
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
