
#include <limits>
#include <tuple>

#include "nnet/flow/nnet-control-flow.h"
#include "tests/support/expect.h"

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

Bytes Flatten(int in, int out, int n) { return Component1d(0x704, in, out, Bytes().Int(n)); }

Bytes Deflatten(int in, int out, int n) { return Component1d(0x705, in, out, Bytes().Int(n)); }

Bytes View(int in_dim, int out_dim) { return Component1d(0x500, in_dim, out_dim); }

Bytes Transpose(int in_dim, int out_dim) { return Component1d(0x501, in_dim, out_dim); }

/// Multiplies every value of a row by `factor`.
Bytes Scale(int dim, float factor) {
  const auto n = static_cast<size_t>(dim);
  std::vector<float> weights(n * n, 0.0F);
  for (size_t i = 0; i < n; ++i) weights[i * n + i] = factor;
  return Affine(dim, dim, std::vector<float>(n, 0.0F), weights);
}

/// 0, 1, 2, …
Floats Counting(size_t count) {
  Floats values(count);
  for (size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i);
  return values;
}

std::string LayerFailure(const Bytes& bytes, int frames, int dim) {
  const Layer layer = ReadLayer(bytes);
  return ThrownBy(
      [&] { RunLayer(*layer, Counting(static_cast<size_t>(frames * dim)), frames, dim); });
}

/// What building the network and one call of it over `frames` frames throw.
std::string CallFailure(const Bytes& network, int frames, int dim, int channels = 1) {
  return ThrownBy([&] {
    Model(network).Call(Counting(static_cast<size_t>(channels * frames * dim)), frames, dim,
                        channels);
  });
}

// Registers and concatenations of rows.

TEST(Concatenate, PutsPartsInTheirOrder) {
  // Part 1 is the input, which has been multiplied by 100 since a and b kept theirs.
  Model model(Network({Register(1, "a"), Scale(1, 10.0F), Register(1, "b"), Scale(1, 10.0F),
                       Concatenate(1, 3, {"a", "b"}, {1})}));
  EXPECT_EQ(model.Call({1.0F, 2.0F}, 2, 1), (Floats{1, 100, 10, 2, 200, 20}));
  EXPECT_EQ(model.nnet.layers[4]->Links(), "joins a, input, b");
  EXPECT_EQ(model.nnet.layers[4]->Plan(5, 1).reads, 5U);
  EXPECT_EQ(model.nnet.layers[4]->Plan(5, 1).writes, 15U);
  EXPECT_EQ(model.nnet.layers[0]->Links(), "register a");
  // The input twice, around a register of its own.
  Model twice(Network({Register(2, "r"), Scale(2, -1.0F), Concatenate(2, 6, {"r"}, {0, 2})}));
  EXPECT_EQ(twice.Call({1.0F, 2.0F}, 1, 2), (Floats{-1, -2, 1, 2, -1, -2}));
}

TEST(Concatenate, WithoutItsInputFollowsTheFirstRegister) {
  // What reaches the concatenation has another width and other frames than the registers.
  Model model(Network({Register(2, "all"), Register(2, "last", "-1"), Register(2, "first", "0"),
                       View(2, 1), Concatenate(7, 4, {"last", "first"})}));
  EXPECT_EQ(model.Call(Counting(6), 3, 2), (Floats{4, 5, 0, 1}));
  EXPECT_EQ(model.forward->OutputFrames(), 1);
  EXPECT_EQ(model.Call(Counting(4), 2, 2), (Floats{2, 3, 0, 1}));

  Model all(Network({Register(1, "x"), Slice(1, "0"), Concatenate(1, 1, {"x"})}));
  EXPECT_EQ(all.Call({1, 2, 3, 4}, 4, 1), (Floats{1, 2, 3, 4}));
}

TEST(Concatenate, RefusesPartsThatDoNotFit) {
  const std::string few = "too few frames in a register! layer[<ConcatenateComponent>] register";
  const std::string absent = "cannot find register with name [a]";
  const std::string mismatched = "mismatched concentrate dimension! ";
  const std::pair<Bytes, std::string> cases[] = {
      {Network({Register(1, "last", "-1"), Concatenate(1, 2, {"last"}, {0})}),
       few + "[last] [1 < 3]"},
      {Network({Register(1, "a"), Constant(1, 1, 0, 0.0F), Concatenate(1, 2, {"a"}, {0})}),
       few + "[a] [3 < 4]"},
      {Network({Register(1, "all"), Register(1, "x", "1"), Concatenate(1, 2, {"all", "x"})}),
       few + "[x] [1 < 3]"},
      // A register after its reader still holds what the call before brought.
      {Network({Concatenate(1, 2, {"r"}, {0}), View(2, 1), Register(1, "r")}), few + "[r] [0 < 3]"},
      {Network({Register(1, "a"), Register(2, "a")}),
       "insert register failed! maybe register name is duplicated [a]"},
      {Network({Register2d(1, 1, "a"), Register2d(2, 1, "a")}),
       "insert register2d failed! maybe register2d name is duplicated [a]"},
      {Network({Register2d(1, 1, "a"), Concatenate(1, 1, {"a"})}), absent},
      {Network({Register(1, "a"), Concatenate2d(1, 1, 1, {"a"})}), absent},
      {Network({Register(2, "a"), Concatenate(3, 9, {"a"}, {0, 1})}), mismatched + "[8 != 9]"},
      {Network({Register2d(2, 1, "a"), Concatenate2d(3, 4, 1, {"a"}, {1})}),
       mismatched + "[5 != 4]"},
      {Network({Concatenate(kHuge, kHuge, {}, {0, 1})}),
       mismatched + "[4294967294 != 2147483647]"}};
  for (const auto& [network, wanted] : cases) EXPECT_EQ(CallFailure(network, 3, 1), wanted);
}

TEST(Concatenate, IsLinkedByTheExecutor) {
  // A second executor links anew; without any nothing runs.
  Model model(Network({Register(1, "a"), Concatenate(1, 2, {"a"}, {0})}));
  model.forward = std::make_unique<runtime::NnetForward>(&model.nnet);
  EXPECT_EQ(model.Call({7}, 1, 1), (Floats{7, 7}));
  EXPECT_EQ(LayerFailure(Concatenate(1, 2, {"a"}, {0}), 1, 1),
            "registers are not linked! [0 of 1]");
}

TEST(Register, RunsUnsizedAndKeepsFramesInBounds) {
  const Layer layer = ReadLayer(Register(2, "r", "-2"));
  auto& kept = dynamic_cast<runtime::RegisterComponent&>(*layer);
  EXPECT_EQ(layer->MemoryBytes(), 8U);
  EXPECT_EQ(kept.stored_frames, 1);
  EXPECT_EQ(RunLayer(*layer, Counting(6), 3, 2), Counting(6));
  EXPECT_EQ(kept.register_buffer[0], 2.0F);
  const std::string outside = "frame index out of range! layer[<RegisterComponent>] ";
  EXPECT_EQ(LayerFailure(Register(2, "r", "-2"), 1, 2), outside + "[-2] of [1] frames");
  const Bytes beyond = Register(2, "r", "99999999999");
  EXPECT_EQ(LayerFailure(beyond, 3, 2), outside + "[2147483647] of [3] frames");
  EXPECT_TRUE(RunLayer(*ReadLayer(beyond), {}, 0, 2).empty());

  const Layer plain = ReadLayer(Register(3, "r"));
  plain->Reserve(5);
  EXPECT_EQ(plain->MemoryBytes(), 60U);
  RunLayer(*plain, Counting(18), 6, 3);
  EXPECT_EQ(plain->MemoryBytes(), 72U);
  // A dimension that nothing in the file backs takes no memory before its frames have come.
  const Layer wide = ReadLayer(Register(kHuge, "r", "0"));
  wide->Reserve(1 << 20);
  EXPECT_EQ(wide->MemoryBytes(), 0U);
}

// Planes.

TEST(Concatenate2d, StacksPlanes) {
  Model model(Network(
      {Register2d(1, 2, "a"), Component2d(0x206, 1, 1, 0, 0), Concatenate2d(1, 2, 2, {"a"}, {1})}));
  EXPECT_EQ(model.Call({-1, 2, 3, -4}, 2, 2), (Floats{-1, 2, 3, -4, 0, 2, 3, 0}));
  EXPECT_EQ(model.forward->OutputShape().channels, 2);

  // Without dimensions of its own it takes those of the call.
  Model adopting(Network({Register2d(2, 1, "a"), Concatenate2d(2, 4, 0, {"a"}, {0})}));
  EXPECT_EQ(adopting.Call({1, 2, 3, 4}, 2, 1, 2), (Floats{1, 2, 3, 4, 1, 2, 3, 4}));
  EXPECT_EQ(adopting.forward->OutputShape().dim, 1);
}

TEST(Flatten, AndDeflattenAreInverse) {
  // Two planes of three frames x 2.
  Model flatten(Network({Flatten(2, 4, 2)}));
  const Floats rows = flatten.Call(Counting(12), 3, 2, 2);
  EXPECT_EQ(rows, (Floats{0, 1, 6, 7, 2, 3, 8, 9, 4, 5, 10, 11}));
  Model deflatten(Network({Deflatten(4, 2, 2)}));
  EXPECT_EQ(deflatten.Call(rows, 3, 4), Counting(12));
  EXPECT_EQ(deflatten.forward->OutputShape().channels, 2);
}

TEST(Planes, OfAnotherShapeAreRefused) {
  const Bytes kept = Register2d(1, 2, "a");
  const Bytes flat = Flatten(2, 2, 1);
  const Bytes join = Concatenate2d(1, 2, 1, {"a"}, {0});
  const std::string planes = "mismatched planes! layer[<Concatenate2dComponent>] register[a] ";
  const std::tuple<Bytes, int, int, std::string> cases[] = {
      {Network({kept, flat, View(2, 1), Deflatten(1, 1, 1), join}), 2, 1,
       planes + "[3 x 2] for [6 x 1]"},
      {Network({kept, flat, Slice(2, "0"), Deflatten(2, 2, 1), Concatenate2d(1, 2, 2, {"a"}, {1})}),
       2, 1, planes + "[3 x 2] for [1 x 2]"},
      {Network({Flatten(2, 4, 2)}), 2, 1,
       "too little input! layer[<FlattenComponent>] position[0] reads [12] floats, given [1 "
       "channels x 2 x 3 frames = 6]"}};
  for (const auto& [bytes, dim, channels, wanted] : cases) {
    EXPECT_EQ(CallFailure(bytes, 3, dim, channels), wanted);
  }
}

// Frames.

TEST(Slice, PicksFrames) {
  for (const auto& [index, wanted] : {std::pair{"0", 0.0F}, {"2", 2.0F}, {"-1", 3.0F}}) {
    const Layer layer = ReadLayer(Slice(1, index));
    EXPECT_EQ(RunLayer(*layer, Counting(4), 4, 1), Floats{wanted});
    EXPECT_TRUE(RunLayer(*layer, {}, 0, 1).empty());
  }
  for (const std::string index : {"3", "-4"}) {
    EXPECT_EQ(LayerFailure(Slice(1, index), 3, 1),
              "frame index out of range! layer[<SliceComponent>] [" + index + "] of [3] frames");
  }
}

TEST(ReflectionPad, MirrorsWithoutTheEdge) {
  const Layer layer = ReadLayer(Reflection(2, 2, 1));
  EXPECT_EQ(RunLayer(*layer, Counting(8), 4, 2),
            (Floats{4, 5, 2, 3, 0, 1, 2, 3, 4, 5, 6, 7, 4, 5}));
  EXPECT_EQ(RunLayer(*layer, Counting(6), 3, 2), (Floats{4, 5, 2, 3, 0, 1, 2, 3, 4, 5, 2, 3}));
  EXPECT_TRUE(RunLayer(*layer, {}, 0, 2).empty());
  EXPECT_EQ(RunLayer(*ReadLayer(Reflection(1, 0, 0)), {5}, 1, 1), Floats{5});
  const std::string start = "too few input frames! [frames:2, padding:";
  EXPECT_EQ(LayerFailure(Reflection(1, 2, 1), 2, 1), start + "2,1]");
  EXPECT_EQ(LayerFailure(Reflection(1, 1, 2), 2, 1), start + "1,2]");
}

TEST(ConstantPad, AddsFramesOfOneValue) {
  const Layer layer = ReadLayer(Constant(2, 1, 2, -1.0F));
  EXPECT_EQ(RunLayer(*layer, Counting(4), 2, 2), (Floats{-1, -1, 0, 1, 2, 3, -1, -1, -1, -1}));
  EXPECT_EQ(RunLayer(*layer, {}, 0, 2), Floats(6, -1.0F));
  EXPECT_EQ(layer->CalcOutputFrames(-5), 0);
  // Padding beyond what a block may hold ends the call, not the process.
  EXPECT_NE(CallFailure(Network({Constant(4, kHuge, kHuge, 0.0F)}), 1, 4), "");
  EXPECT_NE(CallFailure(Network({Constant(1, 1 << 27, 0, 0.0F), Register(1, "r")}), 1, 1), "");
}

TEST(View, RecutsRows) {
  const Layer layer = ReadLayer(View(4, 8));
  EXPECT_EQ(RunLayer(*layer, Counting(24), 6, 4), Counting(24));
  EXPECT_EQ(RunLayer(*layer, Counting(20), 5, 4), Counting(16));
  EXPECT_EQ(layer->OutputFrames(), 2);
  EXPECT_TRUE(RunLayer(*layer, {0, 0, 0, 0}, 1, 4).empty());
  EXPECT_EQ(layer->CalcOutputFrames(-3), 0);
}

TEST(Transpose, FollowsTheFramesOfEveryCall) {
  // The header claims a width of its own, smaller or larger than what comes.
  for (const int claimed : {0, 1, 50}) {
    Model model(Network({Scale(3, 1.0F), Transpose(3, claimed)}));
    for (const size_t n : {5U, 7U, 3U}) {
      const Floats out = model.Call(Counting(3 * n), static_cast<int64_t>(n), 3);
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

// Files.

// Without a whole mark after the name the register is one of the older form.
TEST(ControlFlowFile, PrefixesOfAnIndexedRegister) {
  const std::string bytes = Register(2, "last", "-1").str();
  const Layer layer = ReadTextLayer("<RegisterComponent> 2 2 <RegisterName> last <SliceIndex> -1");
  EXPECT_EQ(WrittenBy(*layer), bytes);
  EXPECT_EQ(WrittenBy(*ReadLayer(bytes)), bytes);
  const size_t name_end = Register(2, "last").str().size();
  for (size_t size = 0; size < bytes.size(); ++size) {
    const File file = FileOf(bytes.substr(0, size));
    const std::string thrown = ThrownBy([&] { Layer(runtime::Component::Read(file.get())); });
    EXPECT_EQ(!thrown.empty(), size < name_end || size >= name_end + 3) << size;
  }
}

TEST(ControlFlowFile, RefusesWhatCannotRun) {
  const auto counts = [](int first, int second) {
    return Component1d(0x702, 1, 1, Bytes().Int(first).Int(second));
  };
  const Bytes cases[] = {
      Register(2, ""), Register(-2, "r"), Register2d(1, 2, ""), Slice(1, ""), View(4, 0),
      Reflection(1, -1, 0), Constant(1, 0, -1, 0.0F), Flatten(2, 0, 0), Deflatten(0, 2, -1),
      // An empty name; positions beyond the parts, negative and twice; a negative width.
      Concatenate(1, 1, {""}), Concatenate(1, 2, {"a"}, {2}), Concatenate(1, 2, {"a"}, {-1}),
      Concatenate(1, 2, {}, {0, 0}), Concatenate(-1, 1, {"a"}, {0}),
      // Names, then positions: more than the file has bytes, and fewer than none.
      counts(kHuge, 0), counts(-1, 0), counts(0, kHuge), counts(0, -1)};
  for (const Bytes& bytes : cases) {
    EXPECT_EQ(ThrownBy([&] { ReadLayer(bytes); }), "read component failed!") << &bytes - cases;
  }
}

// The third text is what the log says, where the exception does not tell.
TEST(ControlFlowFile, RefusesWrongText) {
  const char* const refused = "read component failed!";
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"<ConcatenateComponent> 2 2", "wrong property format!", ""},
      {"<ConcatenateComponent> 2 2 <Input> <RegisterName>\n", "wrong property format!", ""},
      {"<ConcatenateComponent> 2 2 <RegisterName>\nx\n", "wrong property format!", ""},
      {"<ConcatenateComponent> 2 2 <Output>\n", refused, ""},
      {"<ConcatenateComponent> 2 2 <Input> x\n", refused, "unknown property name [x]"},
      {"<RegisterComponent> 2 2 <SliceIndex> 1\n",
       "necessary property is not set! [<RegisterName>]", ""},
      {"<Register2dComponent> 2 2 <RegisterName> a\n", refused,
       "<InputDim> or <OutputDim> is not set!"},
      {"<FlattenComponent> 2 2 <OutputChannel> 1\n", "unknown property name! [<OutputChannel>]",
       ""},
      {"<ReflectionPad> 2 2 <Left> -1 <Right> 0\n", refused, ""},
      {"<ViewComponent> 0 2\n", refused, ""}};
  for (const auto& [text, wanted, logged] : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(ThrownBy([&, line = text] { ReadTextLayer(line); }), wanted) << text;
    EXPECT_NE(testing::internal::GetCapturedStderr().find(logged), std::string::npos) << text;
  }
}

}  // namespace
}  // namespace handwriting::tests
