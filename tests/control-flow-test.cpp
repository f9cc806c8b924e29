#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "nnet/nnet-control-flow.h"
#include "tests/model-builder.h"

namespace handwriting::tests {
namespace {

constexpr int kHuge = std::numeric_limits<int32_t>::max();

Bytes Register(int dim, const std::string& name, const std::string& index = {}) {
  Bytes block = Bytes().String(name);
  if (!index.empty()) block.Codes({'E', 'X', 'T'}).String(index);
  return Component1d(0x700, dim, dim, block);
}

Bytes Register2d(int channels, int dim, const std::string& name) {
  return Component2d(0x701, channels, channels, dim, dim, Bytes().String(name));
}

Bytes Parts(const std::vector<std::string>& names, const std::vector<int>& positions) {
  Bytes block = Bytes().Int(static_cast<int32_t>(names.size()));
  for (const std::string& name : names) block.String(name);
  block.Int(static_cast<int32_t>(positions.size()));
  for (const int position : positions) block.Int(position);
  return block;
}

Bytes Concatenate(int in_dim, int out_dim, const std::vector<std::string>& names,
                  const std::vector<int>& positions = {}) {
  return Component1d(0x702, in_dim, out_dim, Parts(names, positions));
}

Bytes Concatenate2d(int in_channels, int out_channels, int dim,
                    const std::vector<std::string>& names, const std::vector<int>& positions = {}) {
  return Component2d(0x703, in_channels, out_channels, dim, dim, Parts(names, positions));
}

Bytes Slice(int dim, const std::string& index) {
  return Component1d(0x706, dim, dim, Bytes().String(index));
}

Bytes Reflection(int dim, int left, int right) {
  return Component1d(0x707, dim, dim, Bytes().Int(left).Int(right));
}

Bytes Constant(int dim, int left, int right, float value) {
  return Component1d(0x708, dim, dim, Bytes().Int(left).Int(right).Float(value));
}

Bytes Flatten(int in_dim, int out_dim, int channels) {
  return Component1d(0x704, in_dim, out_dim, Bytes().Int(channels));
}

Bytes Deflatten(int in_dim, int out_dim, int channels) {
  return Component1d(0x705, in_dim, out_dim, Bytes().Int(channels));
}

Bytes Transpose(int in_dim, int out_dim) { return Component1d(0x501, in_dim, out_dim); }

/// Multiplies every value of a row by `factor`.
Bytes Scale(int dim, float factor) {
  const auto n = static_cast<size_t>(dim);
  std::vector<float> weights(n * n, 0.0F);
  for (size_t i = 0; i < n; ++i) weights[i * n + i] = factor;
  return Affine(dim, dim, std::vector<float>(n, 0.0F), weights);
}

using Values = std::vector<float>;

/// 0, 1, 2, …
Values Counting(size_t count) {
  Values values(count);
  for (size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i);
  return values;
}

std::string BuildFailure(const Bytes& network) {
  return ThrownBy([&] { const Model model(network); });
}

std::string CallFailure(const Bytes& network, int64_t frames, int dim, int channels = 1) {
  Model model(network);
  const auto floats = static_cast<size_t>(channels) * static_cast<size_t>(frames * dim);
  return ThrownBy([&] { model.Call(Counting(floats), frames, dim, channels); });
}

// ---- Registers and concatenations of rows
// ---------------------------------------------------------

TEST(Concatenate, PutsPartsInTheirOrder) {
  // Part 1 is the input, which has been multiplied by 100 since a and b kept theirs.
  Model model(Network({Register(1, "a"), Scale(1, 10.0F), Register(1, "b"), Scale(1, 10.0F),
                       Concatenate(1, 3, {"a", "b"}, {1})}));
  EXPECT_EQ(model.Call({1.0F, 2.0F}, 2, 1), (Values{1, 100, 10, 2, 200, 20}));
  EXPECT_EQ(model.nnet.layers[4]->Links(), "joins a, input, b");
  EXPECT_EQ(model.nnet.layers[0]->Links(), "register a");
  // The input twice, around a register of its own.
  Model twice(Network({Register(2, "r"), Scale(2, -1.0F), Concatenate(2, 6, {"r"}, {0, 2})}));
  EXPECT_EQ(twice.Call({1.0F, 2.0F}, 1, 2), (Values{-1, -2, 1, 2, -1, -2}));
}

TEST(Concatenate, WithoutItsInputFollowsTheFirstRegister) {
  // What reaches the concatenation has another width and other frames than the registers.
  const Bytes network =
      Network({Register(2, "all"), Register(2, "last", "-1"), Register(2, "first", "0"),
               Component1d(0x500, 2, 1), Concatenate(7, 4, {"last", "first"})});
  Model model(network);
  EXPECT_EQ(model.Call(Counting(6), 3, 2), (Values{4, 5, 0, 1}));
  EXPECT_EQ(model.forward->OutputFrames(), 1);
  EXPECT_EQ(model.Call(Counting(4), 2, 2), (Values{2, 3, 0, 1}));

  Model all(Network({Register(1, "x"), Slice(1, "0"), Concatenate(1, 1, {"x"})}));
  EXPECT_EQ(all.Call({1, 2, 3, 4}, 4, 1), (Values{1, 2, 3, 4}));
  EXPECT_EQ(all.Call({5, 6}, 2, 1), (Values{5, 6}));
}

TEST(Concatenate, RefusesRegistersThatHoldTooFewFrames) {
  EXPECT_EQ(
      CallFailure(Network({Register(1, "last", "-1"), Concatenate(1, 2, {"last"}, {0})}), 3, 1),
      "too few frames in a register! layer[<ConcatenateComponent>] register[last] [1 < 3]");
  EXPECT_EQ(CallFailure(Network({Register(1, "all"), Register(1, "one", "1"),
                                 Concatenate(1, 2, {"all", "one"})}),
                        4, 1),
            "too few frames in a register! layer[<ConcatenateComponent>] register[one] [1 < 4]");
  // A register behind its reader still holds what the call before brought.
  Model behind(Network({Concatenate(1, 2, {"r"}, {0}), Register(2, "r2"), Component1d(0x500, 2, 1),
                        Register(1, "r")}));
  EXPECT_EQ(ThrownBy([&] {
              behind.Call({1, 2}, 2, 1);
            }),
            "too few frames in a register! layer[<ConcatenateComponent>] register[r] [0 < 2]");
}

TEST(Concatenate, IsLinkedByTheExecutor) {
  EXPECT_EQ(BuildFailure(Network({Register(1, "a"), Register(2, "a")})),
            "insert register failed! maybe register name is duplicated [a]");
  EXPECT_EQ(BuildFailure(Network({Register2d(1, 1, "a"), Register2d(2, 1, "a")})),
            "insert register2d failed! maybe register2d name is duplicated [a]");
  EXPECT_EQ(BuildFailure(Network({Register2d(1, 1, "a"), Concatenate(1, 1, {"a"})})),
            "cannot find register with name [a]");
  EXPECT_EQ(BuildFailure(Network({Register(1, "a"), Concatenate2d(1, 1, 1, {"a"})})),
            "cannot find register with name [a]");
  EXPECT_EQ(BuildFailure(Network({Register(2, "a"), Concatenate(3, 9, {"a"}, {0, 1})})),
            "mismatched concentrate dimension! [8 != 9]");
  EXPECT_EQ(BuildFailure(Network({Register2d(2, 1, "a"), Concatenate2d(3, 4, 1, {"a"}, {1})})),
            "mismatched concentrate dimension! [5 != 4]");
  EXPECT_EQ(BuildFailure(Network({Concatenate(kHuge, kHuge, {}, {0, 1})})),
            "mismatched concentrate dimension! [4294967294 != 2147483647]");

  // A second executor links anew; without any nothing runs.
  Model model(Network({Register(1, "a"), Concatenate(1, 2, {"a"}, {0})}));
  model.forward = std::make_unique<runtime::NnetForward>(&model.nnet);
  EXPECT_EQ(model.Call({7}, 1, 1), (Values{7, 7}));
  const Layer alone = ReadLayer(Concatenate(1, 2, {"a"}, {0}));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*alone, {1.0F}, 1, 1); }),
            "registers are not linked! [0 of 1]");
}

TEST(Register, RunsUnsizedAndKeepsFramesInBounds) {
  const Layer layer = ReadLayer(Register(2, "r", "-2"));
  auto& kept = dynamic_cast<runtime::RegisterComponent&>(*layer);
  EXPECT_EQ(layer->MemoryBytes(), 8U);
  EXPECT_EQ(kept.stored_frames, 1);
  EXPECT_EQ(RunLayer(*layer, Counting(6), 3, 2), Counting(6));
  EXPECT_EQ(kept.register_buffer[0], 2.0F);
  EXPECT_EQ(ThrownBy([&] {
              RunLayer(*layer, {1, 2}, 1, 2);
            }),
            "frame index out of range! layer[<RegisterComponent>] [-2] of [1] frames");
  const Layer beyond = ReadLayer(Register(2, "r", "99999999999"));
  EXPECT_EQ(ThrownBy([&] { RunLayer(*beyond, Counting(6), 3, 2); }),
            "frame index out of range! layer[<RegisterComponent>] [2147483647] of [3] frames");
  EXPECT_TRUE(RunLayer(*beyond, {}, 0, 2).empty());

  const Layer plain = ReadLayer(Register(3, "r"));
  plain->Reserve(5);
  EXPECT_EQ(plain->MemoryBytes(), 60U);
  RunLayer(*plain, Counting(18), 6, 3);
  EXPECT_EQ(plain->MemoryBytes(), 72U);
}

TEST(Register, RefusesAnotherWidthThanItsOwn) {
  const Layer layer = ReadLayer(Component1d(0x700, 2, 3, Bytes().String("r")));
  EXPECT_EQ(ThrownBy([&] {
              RunLayer(*layer, {1, 2}, 1, 2);
            }),
            "mismatched dimensions! layer[<RegisterComponent>] input [2] output [3]");
  // A dimension that nothing in the file backs takes no memory before its frames have come.
  const Layer wide = ReadLayer(Register(kHuge, "r", "0"));
  wide->Reserve(1 << 20);
  EXPECT_EQ(wide->MemoryBytes(), 0U);
}

// ---- Planes
// ---------------------------------------------------------------------------------------

TEST(Concatenate2d, StacksPlanes) {
  Model model(Network(
      {Register2d(1, 2, "a"), Component2d(0x206, 1, 1, 0, 0), Concatenate2d(1, 2, 2, {"a"}, {1})}));
  EXPECT_EQ(model.Call({-1, 2, 3, -4}, 2, 2), (Values{-1, 2, 3, -4, 0, 2, 3, 0}));
  EXPECT_EQ(model.forward->OutputShape().channels, 2);

  // Without dimensions of its own it takes those of the call.
  Model adopting(Network({Register2d(2, 1, "a"), Concatenate2d(2, 4, 0, {"a"}, {0})}));
  EXPECT_EQ(adopting.Call({1, 2, 3, 4}, 2, 1, 2), (Values{1, 2, 3, 4, 1, 2, 3, 4}));
  EXPECT_EQ(adopting.forward->OutputShape().dim, 1);
}

TEST(Concatenate2d, RefusesPlanesOfAnotherShape) {
  const std::string start = "mismatched planes! layer[<Concatenate2dComponent>] register[a] ";
  EXPECT_EQ(CallFailure(Network({Register2d(1, 2, "a"), Flatten(2, 2, 1), Component1d(0x500, 2, 1),
                                 Deflatten(1, 1, 1), Concatenate2d(1, 2, 1, {"a"}, {0})}),
                        3, 2),
            start + "[3 x 2] for [6 x 1]");
  EXPECT_EQ(CallFailure(Network({Register2d(1, 2, "a"), Flatten(2, 2, 1), Slice(2, "0"),
                                 Deflatten(2, 2, 1), Concatenate2d(1, 2, 2, {"a"}, {1})}),
                        3, 2),
            start + "[3 x 2] for [1 x 2]");
  EXPECT_EQ(CallFailure(Network({Component2d(0x701, 2, 3, 1, 1, Bytes().String("a"))}), 1, 1, 3),
            "mismatched channels! layer[<Register2dComponent>] input [2] output [3]");
}

TEST(Flatten, AndDeflattenAreInverse) {
  // Two planes of three frames x 2.
  Model flatten(Network({Flatten(2, 4, 2)}));
  const Values rows = flatten.Call(Counting(12), 3, 2, 2);
  EXPECT_EQ(rows, (Values{0, 1, 6, 7, 2, 3, 8, 9, 4, 5, 10, 11}));
  Model deflatten(Network({Deflatten(4, 2, 2)}));
  EXPECT_EQ(deflatten.Call(rows, 3, 4), Counting(12));
  EXPECT_EQ(deflatten.forward->OutputShape().channels, 2);

  EXPECT_EQ(CallFailure(Network({Flatten(2, 5, 2)}), 3, 2, 2),
            "mismatched dimensions! layer[<FlattenComponent>] [2] channels x [2] for rows of [5]");
  EXPECT_EQ(CallFailure(Network({Deflatten(4, 2, 3)}), 3, 4),
            "mismatched dimensions! layer[<DeflattenComponent>] [3] channels x [2] for rows of "
            "[4]");
  EXPECT_EQ(CallFailure(Network({Flatten(2, 4, 2)}), 3, 2),
            "too little input! layer[<FlattenComponent>] position[0] reads [12] floats, given [1 "
            "channels x 2 x 3 frames = 6]");
}

// ---- Frames
// ---------------------------------------------------------------------------------------

TEST(Slice, PicksFrames) {
  for (const auto& [index, wanted] : {std::pair{"0", 0.0F}, {"2", 2.0F}, {"-1", 3.0F}}) {
    const Layer layer = ReadLayer(Slice(1, index));
    EXPECT_EQ(RunLayer(*layer, Counting(4), 4, 1), Values{wanted});
    EXPECT_TRUE(RunLayer(*layer, {}, 0, 1).empty());
  }
  for (const std::string index : {"3", "-4"}) {
    const Layer layer = ReadLayer(Slice(1, index));
    EXPECT_EQ(ThrownBy([&] { RunLayer(*layer, Counting(3), 3, 1); }),
              "frame index out of range! layer[<SliceComponent>] [" + index + "] of [3] frames");
  }
  const Layer widening = ReadLayer(Component1d(0x706, 2, 3, Bytes().String("0")));
  EXPECT_EQ(ThrownBy([&] {
              RunLayer(*widening, {1, 2}, 1, 2);
            }),
            "mismatched dimensions! layer[<SliceComponent>] input [2] output [3]");
}

TEST(ReflectionPad, MirrorsWithoutTheEdge) {
  const Layer layer = ReadLayer(Reflection(2, 2, 1));
  EXPECT_EQ(RunLayer(*layer, Counting(8), 4, 2),
            (Values{4, 5, 2, 3, 0, 1, 2, 3, 4, 5, 6, 7, 4, 5}));
  EXPECT_EQ(RunLayer(*layer, Counting(6), 3, 2), (Values{4, 5, 2, 3, 0, 1, 2, 3, 4, 5, 2, 3}));
  EXPECT_TRUE(RunLayer(*layer, {}, 0, 2).empty());
  EXPECT_EQ(RunLayer(*ReadLayer(Reflection(1, 0, 0)), {5}, 1, 1), Values{5});
  for (const auto& [left, right] : {std::pair{2, 1}, {1, 2}}) {
    const Layer pad = ReadLayer(Reflection(1, left, right));
    EXPECT_EQ(ThrownBy([&] {
                RunLayer(*pad, {1, 2}, 2, 1);
              }),
              "too few input frames! [frames:2, padding:" + std::to_string(left) + "," +
                  std::to_string(right) + "]");
  }
}

TEST(ConstantPad, AddsFramesOfOneValue) {
  const Layer layer = ReadLayer(Constant(2, 1, 2, -1.0F));
  EXPECT_EQ(RunLayer(*layer, Counting(4), 2, 2), (Values{-1, -1, 0, 1, 2, 3, -1, -1, -1, -1}));
  EXPECT_EQ(RunLayer(*layer, {}, 0, 2), Values(6, -1.0F));
  EXPECT_EQ(layer->CalcOutputFrames(-5), 0);
  // Padding beyond what a block may hold ends the call, not the process.
  EXPECT_NE(CallFailure(Network({Constant(4, kHuge, kHuge, 0.0F)}), 1, 4), "");
  EXPECT_NE(CallFailure(Network({Constant(1, 1 << 27, 0, 0.0F), Register(1, "r")}), 1, 1), "");
}

TEST(View, RecutsRows) {
  const Layer layer = ReadLayer(Component1d(0x500, 4, 8));
  EXPECT_EQ(RunLayer(*layer, Counting(24), 6, 4), Counting(24));
  EXPECT_EQ(layer->OutputFrames(), 3);
  EXPECT_EQ(RunLayer(*layer, Counting(20), 5, 4), Counting(16));
  EXPECT_EQ(layer->OutputFrames(), 2);
  EXPECT_TRUE(RunLayer(*layer, {0, 0, 0, 0}, 1, 4).empty());
  EXPECT_EQ(layer->CalcOutputFrames(0), 0);
  EXPECT_EQ(layer->CalcOutputFrames(-3), 0);
}

TEST(Transpose, FollowsTheFramesOfEveryCall) {
  // The header claims a width of its own, smaller or larger than what comes.
  for (const int claimed : {0, 1, 50}) {
    Model model(Network({Scale(3, 1.0F), Transpose(3, claimed)}));
    for (const size_t n : {5U, 7U, 3U}) {
      const Values out = model.Call(Counting(3 * n), static_cast<int64_t>(n), 3);
      ASSERT_EQ(out.size(), 3 * n);
      EXPECT_EQ(model.forward->OutputFrames(), 3);
      EXPECT_EQ(model.forward->OutputShape().dim, static_cast<int>(n));
      for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(out[i], static_cast<float>(i % n * 3 + i / n));
      }
    }
  }
  // The next layer gets rows of that width.
  Model twice(Network({Transpose(2, 0), Transpose(3, 0)}));
  EXPECT_EQ(twice.Call(Counting(6), 3, 2), Counting(6));
  EXPECT_EQ(CallFailure(Network({Transpose(2, 0), Transpose(3, 0)}), 4, 2),
            "mismatched input dimension! layer[<TransposeComponent>] [3] vs [4]");
}

// ---- Files
// ----------------------------------------------------------------------------------------

struct FileCase {
  Bytes bytes;
  int fixed;
  std::string text;
};

std::vector<FileCase> FileCases() {
  return {{Register(2, "left"), 0xd00, "<RegisterComponent> 2 2 <RegisterName> left\n"},
          {Register(2, "last", "-1"), 0xd00,
           "<RegisterComponent> 2 2 <RegisterName> last <SliceIndex> -1\n"},
          {Register2d(2, 3, "p"), 0xd01,
           "<Register2dComponent> 2 2 <InputDim> 3 <OutputDim> 3 <RegisterName> p\n"},
          {Concatenate(2, 6, {"x"}, {0, 2}), 0xd02,
           "<ConcatenateComponent> 6 2 <Input> <RegisterName> x \t <Input> \r\n"},
          {Concatenate(2, 2, {}, {0}), 0xd02, "<ConcatenateComponent> 2 2 <Input>\n"},
          {Concatenate2d(2, 4, 3, {"x", "y"}), 0xd03,
           "<Concatenate2dComponent> 4 2 <InputDim> 3 <OutputDim> 3 <RegisterName> x "
           "<RegisterName> y\n"},
          {Flatten(2, 6, 3), 0xd04, "<FlattenComponent> 6 2 <InputChannel> 3\n"},
          {Deflatten(6, 2, 3), 0xd05, "<DeflattenComponent> 2 6 <OutputChannel> 3\n"},
          {Slice(2, "-3"), 0xd06, "<SliceComponent> 2 2 <Index> -3\n"},
          {Reflection(2, 3, 4), 0xd07, "<ReflectionPad> 2 2 <Left> 3 <Right> 4\n"},
          {Constant(2, 3, 4, 0.25F), 0xd08, "<ConstantPad> 2 2 <Left> 3 <Right> 4 <Value> 0.25\n"},
          {Component1d(0x500, 2, 4), 0xe00, "<ViewComponent> 4 2\n"},
          {Transpose(2, 0), 0xe01, "<TransposeComponent> 0 2\n"}};
}

TEST(ControlFlowFile, BinaryAndTextGiveTheSameLayer) {
  for (const FileCase& c : FileCases()) {
    SCOPED_TRACE(c.text);
    // The bytes and the line behind the block belong to the next component.
    const File file = FileOf(c.bytes.str() + "EX");
    const Layer layer(runtime::Component::Read(file.get()));
    EXPECT_EQ(std::ftell(file.get()), static_cast<long>(c.bytes.str().size()));
    EXPECT_EQ(Written([&](FILE* fp) { return layer->Write(fp); }), c.bytes.str());
    EXPECT_EQ(layer->GetFixedType(), c.fixed);
    EXPECT_EQ(Layer(runtime::NewComponentOfType(c.fixed, 1, 1))->GetType(), layer->GetType());

    const File text = FileOf(c.text + "<ViewComponent> 3 3\n");
    const Layer read(runtime::Component::Read(text.get(), false));
    EXPECT_EQ(Written([&](FILE* fp) { return read->Write(fp); }), c.bytes.str());
    EXPECT_EQ(Layer(runtime::Component::Read(text.get(), false))->GetType(), 0x500);
  }
}

TEST(ControlFlowFile, PrefixesAreRefused) {
  for (const FileCase& c : FileCases()) {
    SCOPED_TRACE(c.text);
    if (c.text.find("<SliceIndex>") == std::string::npos) {
      EXPECT_TRUE(EveryPrefixIsRefused(c.bytes));
    }
  }
  // Without a whole mark behind the name the register is one of the older form.
  const std::string bytes = Register(2, "last", "-1").str();
  const size_t name_end = Register(2, "last").str().size();
  for (size_t size = 0; size < bytes.size(); ++size) {
    const File file = FileOf(bytes.substr(0, size));
    const bool refused =
        !ThrownBy([&] { Layer layer(runtime::Component::Read(file.get())); }).empty();
    EXPECT_EQ(refused, size < name_end || size >= name_end + 3) << size;
  }
}

TEST(ControlFlowFile, RefusesWhatCannotRun) {
  const std::pair<const char*, Bytes> cases[] = {
      {"a register without a name", Register(2, "")},
      {"a register of negative width", Register(-2, "r")},
      {"2-D register without a name", Register2d(1, 2, "")},
      {"an empty name in a list", Concatenate(1, 1, {""})},
      {"a position beyond the parts", Concatenate(1, 2, {"a"}, {2})},
      {"a negative position", Concatenate(1, 2, {"a"}, {-1})},
      {"a position twice", Concatenate(1, 2, {}, {0, 0})},
      {"a concatenation of negative width", Concatenate(-1, 1, {"a"}, {0})},
      {"more names than bytes", Component1d(0x702, 1, 1, Bytes().Int(kHuge).Int(0))},
      {"a negative number of names", Component1d(0x702, 1, 1, Bytes().Int(-1).Int(0))},
      {"more positions than bytes", Component1d(0x702, 1, 1, Bytes().Int(0).Int(kHuge))},
      {"a negative number of positions", Component1d(0x702, 1, 1, Bytes().Int(0).Int(-1))},
      {"no channel to flatten", Flatten(2, 0, 0)},
      {"no channel to deflatten", Deflatten(0, 2, -1)},
      {"no index", Slice(1, "")},
      {"a negative reflection", Reflection(1, -1, 0)},
      {"a negative padding", Constant(1, 0, -1, 0.0F)},
      {"a view of no width", Component1d(0x500, 4, 0)},
  };
  for (const auto& [what, bytes] : cases) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(bytes); }), "read component failed!") << what;
  }
}

TEST(ControlFlowFile, RefusesWrongText) {
  const std::pair<const char*, const char*> cases[] = {
      {"<ConcatenateComponent> 2 2", "wrong property format!"},
      {"<ConcatenateComponent> 2 2 <Input> <RegisterName>\n", "wrong property format!"},
      {"<ConcatenateComponent> 2 2 <RegisterName>\nx\n", "wrong property format!"},
      {"<ConcatenateComponent> 2 2 <Output>\n", "read component failed!"},
      {"<ConcatenateComponent> 2 2 <Input> x\n", "read component failed!"},
      {"<RegisterComponent> 2 2 <SliceIndex> 1\n",
       "necessary property is not set! [<RegisterName>]"},
      {"<Register2dComponent> 2 2 <RegisterName> a\n", "read component failed!"},
      {"<FlattenComponent> 2 2 <OutputChannel> 1\n", "unknown property name! [<OutputChannel>]"},
      {"<ReflectionPad> 2 2 <Left> -1 <Right> 0\n", "read component failed!"},
      {"<ViewComponent> 0 2\n", "read component failed!"},
  };
  for (const auto& [text, wanted] : cases) {
    EXPECT_EQ(ThrownBy([&] { ReadTextLayer(text); }), wanted) << text;
  }
  testing::internal::CaptureStderr();
  EXPECT_NE(ThrownBy([&] { ReadTextLayer("<ConcatenateComponent> 2 2 <Input> x\n"); }), "");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("unknown property name [x]"),
            std::string::npos);
  testing::internal::CaptureStderr();
  EXPECT_NE(ThrownBy([&] { ReadTextLayer("<Register2dComponent> 2 2 <RegisterName> a\n"); }), "");
  EXPECT_NE(testing::internal::GetCapturedStderr().find("<InputDim> or <OutputDim> is not set!"),
            std::string::npos);
}

}  // namespace
}  // namespace handwriting::tests
