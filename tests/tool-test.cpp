// Runs the tool that was built, in a folder of its own, and looks at its exit status, what it
// prints and the files that it leaves.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>
#include <tuple>

#include <nlohmann/json.hpp>

#include "api/handwriting_forward.h"
#include "tests/support/expect.h"
#include "tools/npy.h"

namespace handwriting::tools {
namespace {

using nlohmann::json;
using tests::Affine;
using tests::Bytes;
using tests::Component1d;
using tests::Component2d;
using tests::Network;

constexpr int kPRelu = 0x205;
constexpr int kPRelu2d = 0x207;
constexpr int kLogSoftmax = 0x204;
constexpr int kSlidingWindow = 0x603;

const Bytes kSum = Affine(2, 3, {10, 20, 30}, {1, 0, 0, 1, 1, 1});  // (a, b) -> 10+a, 20+b, 30+a+b
const Bytes kHalf = Component1d(kPRelu, 3, 3, Bytes().Float(0.5F));
const Bytes kPlanes = Component2d(kPRelu2d, 2, 2, 0, 0, Bytes().Float(0.5F));

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

class ToolTest : public testing::Test {
 protected:
  ToolTest() { std::filesystem::create_directories(folder_); }
  ~ToolTest() override { std::filesystem::remove_all(folder_); }

  std::string Path(const std::string& name) const { return (folder_ / name).string(); }

  std::string Contents(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void Store(const std::string& name, const std::string& bytes) const {
    std::ofstream(Path(name), std::ios::binary) << bytes;
  }
  void Store(const std::string& name, const Bytes& bytes) const { Store(name, bytes.str()); }

  /// Runs the tool in the folder with arguments as a shell would take them.
  Outcome Run(const std::string& arguments) const {
    return Shell("'" HANDWRITING_TOOL_PATH "' " + arguments + " >.out");
  }
  Outcome Shell(const std::string& command) const {
    const int status =
        std::system(("cd '" + folder_.string() + "' && { " + command + "; } 2>.err").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, Contents(".out"), Contents(".err")};
  }

  long TemporaryFiles() const {
    using Iterator = std::filesystem::directory_iterator;
    return std::count_if(Iterator(folder_), Iterator(),
                         [](const auto& entry) { return entry.path().extension() == ".tmp"; });
  }

  json Inspect(const std::string& model) const {
    return json::parse(Run("inspect --json " + model).out);
  }

  const std::filesystem::path folder_ =
      std::filesystem::path(testing::TempDir()) / ("tool-test-" + std::to_string(getpid()));
};

// One line, by the tool itself.
testing::AssertionResult IsOneLine(const std::string& err) {
  if (err.starts_with("handwriting: ") && err.find('\n') == err.size() - 1) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure() << "not one line of the tool: " << err;
}

TEST_F(ToolTest, WrongCommandLinesAreRefused) {
  Store("model.bin", Network({kSum}));
  WriteNpy(Path("in.npy"), {{1, 2}, {0, 0}});
  std::vector<std::string> lines = {"bench"};
  for (const char* options :
       {"--network 0", "--network 2", "--frames 0", "--chunk 5", "--network 1 --chunk 0",
        "--network 1 --nbest 5", "--nbest 0", "--seconds 0", "--seconds nan", "--seconds 1x"}) {
    lines.push_back(std::string("bench model.bin ") + options);
  }
  for (const char* arguments :
       {"", "frobnicate", "--frobnicate", "inspect", "inspect model.bin other.bin",
        "inspect --frobnicate model.bin", "convert model.bin", "forward model.bin in.npy",
        "forward model.bin in.npy out.npy --chunk 0", "forward model.bin in.npy out.npy --chunk -1",
        "forward model.bin in.npy out.npy --chunk 1.5",
        "forward model.bin in.npy out.npy --chunk 1x",
        "forward model.bin in.npy out.npy --chunk 99999999999999999999",
        "forward model.bin in.npy out.npy --network 0",
        "forward model.bin in.npy out.npy --network 2", "recognize model.bin",
        "recognize model.bin in.npy --nbest 0"}) {
    lines.emplace_back(arguments);
  }
  for (const std::string& arguments : lines) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments;
    EXPECT_EQ(outcome.out, "") << arguments;
    EXPECT_TRUE(IsOneLine(outcome.err)) << arguments;
  }
  EXPECT_FALSE(std::filesystem::exists(Path("out.npy")));
}

TEST_F(ToolTest, HelpNamesEveryOption) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"", {"inspect", "convert", "forward", "recognize", "bench", "Exit status"}},
      {"inspect", {"MODEL", "--json"}},
      {"convert", {"IN", "OUT", "--fixed"}},
      {"forward", {"MODEL", "FEATURES", "OUT", "--network", "--chunk", "--mark-last"}},
      {"recognize", {"MODEL", "FEATURES", "--nbest", "--labels", "--json"}},
      {"bench", {"MODEL", "--network", "--frames", "--chunk", "--seconds", "--nbest", "--json"}}};
  for (const auto& [command, words] : cases) {
    const Outcome outcome = Run(std::string(command) + " --help");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    for (const char* word : words) {
      EXPECT_NE(outcome.out.find(word), std::string::npos) << command << " " << word;
    }
  }
}

TEST_F(ToolTest, DamagedModelsAreRefusedWithTheirPlace) {
  const std::string network = Network({kSum, kHalf}).str();
  const std::pair<std::string, const char*> cases[] = {
      {"", "the file holds no network"},
      {network.substr(0, 3), "network 1: the file ends inside the number of layers"},
      {network.substr(0, 20),
       "network 1: layer 0: read component failed! (bias [1 x 3]: 12 bytes wanted, 4 left)"},
      {network.substr(0, network.size() - 1),
       "network 1: layer 1: read component failed! (<Alpha>: 4 bytes wanted, 3 left)"},
      {network + "\n", "network 2: the file ends inside the number of layers"},
      {network + Network({kHalf, Component1d(0x102, 1, 1)}).str(),
       "network 2: layer 1: unknown or unimplemented nnet layer! [0102]"},
      {" \n<Sigmoid> 3 3\n", "network 1: the file ends before </Nnet>"},
      {"<Nnet> <Sigmoid> 3 3 </Nnet> <Nope\x1b> 3 3 </Nnet>",
       "network 2: layer 0: unknown or unimplemented nnet layer! [<Nope\\x1b>]"},
      {std::string(4004, '\0'), "more than 1000 networks"}};
  for (const auto& [bytes, message] : cases) {
    Store("model.bin", bytes);
    const Outcome outcome = Run("convert model.bin out.bin");
    EXPECT_EQ(outcome.status, 1) << message;
    EXPECT_EQ(outcome.err, std::string("handwriting: model.bin: ") + message + "\n");
    EXPECT_FALSE(std::filesystem::exists(Path("out.bin"))) << message;
  }
  EXPECT_EQ(Run("inspect absent.bin").err, "handwriting: absent.bin: No such file or directory\n");
  EXPECT_EQ(Run("inspect .").err, "handwriting: .: Is a directory\n");
}

TEST_F(ToolTest, InspectShowsLayersTotalsLinksAndFit) {
  const Bytes planes_of_four = Component2d(kPRelu2d, 2, 2, 4, 4, Bytes().Float(0.5F));
  Bytes model;
  for (const Bytes& network : {Network({kSum, kHalf}), Network({kHalf}), Network({kSum}),
                               Network({kPlanes}), Network({planes_of_four}), Network({})}) {
    model.Add(network);
  }
  Store("model.bin", model);
  const json file = Inspect("model.bin");
  EXPECT_EQ(file["form"], "binary");
  EXPECT_EQ(file["parameters"], 10 + 1 + 9 + 1 + 1);
  // Widths 3 and 3; 3 and 2; 1 channel and 2; not set and 4; nothing to fit.
  EXPECT_EQ(file["fits_next"], json::parse("[true, false, false, null, false]"));
  const json& layers = file["networks"][0]["layers"];
  ASSERT_EQ(layers.size(), 2U);
  EXPECT_EQ(layers[0]["marker"], "<AffineTransform>");
  EXPECT_EQ(layers[0]["type"], "0x0100");
  EXPECT_EQ(layers[0]["input"], json::parse(R"({"channels": 1, "dim": 2})"));
  EXPECT_EQ(layers[0]["output"], json::parse(R"({"channels": 1, "dim": 3})"));
  EXPECT_EQ(layers[0]["parameters"], 9);
  EXPECT_GE(layers[0]["bytes"], 36);
  EXPECT_EQ(layers[1]["position"], 1);
  EXPECT_EQ(file["networks"][3]["layers"][0]["output"],
            json::parse(R"({"channels": 2, "dim": null})"));
  EXPECT_TRUE(file["networks"][0]["link_failure"].is_null());
  EXPECT_EQ(file["networks"][5]["link_failure"], "it has no layers");

  const std::string table = Run("inspect model.bin").out;
  for (const char* text :
       {"vector target ", "BLAS core ", "2 x unset",
        "network 2 fits network 1: yes, 1 x 3 -> 1 x 3\n",
        "network 5 fits network 4: cannot be told", "cannot be linked: it has no layers"}) {
    EXPECT_NE(table.find(text), std::string::npos) << text << "\n" << table;
  }
  EXPECT_EQ(Shell("'" HANDWRITING_TOOL_PATH "' inspect model.bin >/dev/full").status, 1);
}

TEST_F(ToolTest, ConvertWritesTextAndBinaryAlike) {
  const std::string binary = Bytes().Add(Network({kSum, kHalf})).Add(Network({kPlanes})).str();
  Store("model.txt",
        "\t\n<Nnet>\n<AffineTransform> 3 2\n [ 1 0\n 0 1\n 1 1 ]\n [ 10 20 30 ]\n"
        "<PReLU> <InputDim> 3 <OutputDim> 3 <Alpha> 0.5\n</Nnet>\n"
        "<PReLU2d> 2 2 <Alpha> 0.5\n</Nnet>");
  Store("model.bin", binary);
  EXPECT_EQ(Inspect("model.txt")["form"], "text");
  for (const char* in : {"model.txt", "model.bin"}) {
    EXPECT_EQ(Run(std::string("convert ") + in + " out.bin").status, 0);
    EXPECT_EQ(Contents("out.bin"), binary) << in;
  }
  EXPECT_EQ(Run("convert model.txt model.txt").status, 0);
  EXPECT_EQ(Contents("model.txt"), binary);
  EXPECT_EQ(Run("convert model.bin absent/out.bin").status, 1);
}

TEST_F(ToolTest, ConvertToFixedPointNamesWhatStaysInFloat) {
  Store("model.bin", Network({kSum, kHalf, Component1d(kLogSoftmax, 3, 3)}));
  const Outcome outcome = Run("convert --fixed model.bin fixed.bin");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "network 1, layer 1 <PReLU>: stays in float (parameters: 1)\n");
  EXPECT_EQ(Inspect("fixed.bin")["networks"][0]["layers"][0]["marker"], "<FixedAffineTransform>");
  // Once in that form, nothing changes any more.
  EXPECT_EQ(Run("convert --fixed fixed.bin again.bin").out, outcome.out);
  EXPECT_EQ(Contents("again.bin"), Contents("fixed.bin"));
}

TEST_F(ToolTest, ForwardJoinsTheOutputOfItsCalls) {
  Store("model.bin", Bytes().Add(Network({kPlanes})).Add(Network({kSum})));
  WriteNpy(Path("rows.npy"), {{3, 2}, {1, 2, 3, 4, 5, 6}});
  WriteNpy(Path("none.npy"), {{0, 2}, {}});
  WriteNpy(Path("planes.npy"), {{2, 3, 2}, {1, -2, 3, -4, 5, -6, -10, 20, -30, 40, -50, 60}});
  const std::vector<float> sums = {11, 22, 33, 13, 24, 37, 15, 26, 41};
  const std::vector<float> halves = {1, -1, 3, -2, 5, -3, -5, 20, -15, 40, -25, 60};
  for (const char* calls :
       {"", " --chunk 1", " --chunk 2 --mark-last", " --chunk 3", " --chunk 4"}) {
    EXPECT_EQ(Run(std::string("forward model.bin --network 2 rows.npy rows.out") + calls).status,
              0);
    EXPECT_EQ(ReadNpy(Path("rows.out")).shape, (std::vector<size_t>{3, 3})) << calls;
    EXPECT_EQ(ReadNpy(Path("rows.out")).values, sums) << calls;
    EXPECT_EQ(Run(std::string("forward model.bin planes.npy planes.out") + calls).status, 0);
    EXPECT_EQ(ReadNpy(Path("planes.out")).shape, (std::vector<size_t>{2, 3, 2})) << calls;
    EXPECT_EQ(ReadNpy(Path("planes.out")).values, halves) << calls;
    EXPECT_EQ(Run(std::string("forward model.bin --network 2 none.npy none.out") + calls).status,
              0);
    EXPECT_EQ(ReadNpy(Path("none.out")).shape, (std::vector<size_t>{0, 3})) << calls;
  }
}

TEST_F(ToolTest, ForwardMarksTheLastCallOnly) {
  // Windows of 2 frames, 2 apart; a window that is not full comes out only at the end of the input.
  Store("model.bin", Network({Component1d(kSlidingWindow, 1, 1, Bytes().Int(2).Int(2).Int(0))}));
  const std::tuple<const char*, size_t, std::vector<float>> cases[] = {
      {"", 3, {0, 1}},
      {"--mark-last", 3, {0, 1, 2}},
      {"--chunk 1", 5, {0, 1, 2, 3}},
      {"--chunk 1 --mark-last", 5, {0, 1, 2, 3, 4}},
      {"--chunk 4 --mark-last", 5, {0, 1, 2, 3, 4}},
      {"--chunk 1", 1, {}}};
  for (const auto& [calls, frames, out] : cases) {
    Matrix in{{frames, 1}, {}};
    for (size_t i = 0; i < frames; ++i) in.values.push_back(static_cast<float>(i));
    WriteNpy(Path("in.npy"), in);
    EXPECT_EQ(Run(std::string("forward model.bin in.npy out.npy ") + calls).status, 0);
    EXPECT_EQ(ReadNpy(Path("out.npy")).shape, (std::vector<size_t>{out.size(), 1})) << calls;
    EXPECT_EQ(ReadNpy(Path("out.npy")).values, out) << calls;
  }
}

TEST_F(ToolTest, ForwardRefusesFeaturesOfAnotherShape) {
  Store("model.bin", Bytes().Add(Network({kSum})).Add(Network({kPlanes})).Add(Network({})));
  const std::tuple<const char*, std::vector<size_t>, const char*> cases[] = {
      {"1", {1, 3, 2}, "in.npy: 1 x 3 x 2 found, frames x dim wanted"},
      {"1",
       {3, 4},
       "model.bin: network 1: mismatched input dimension! layer[<AffineTransform>] [2] vs [4]"},
      {"2", {3, 2}, "in.npy: 3 x 2 found, channels x frames x dim with 2 channels wanted"},
      {"2", {3, 3, 2}, "in.npy: 3 x 3 x 2 found, channels x frames x dim with 2 channels wanted"},
      {"3", {3, 2}, "model.bin: network 3: it has no layers"}};
  for (const auto& [network, shape, message] : cases) {
    size_t count = 1;
    for (const size_t size : shape) count *= size;
    WriteNpy(Path("in.npy"), {shape, std::vector<float>(count)});
    Store("out.npy", "kept");
    const Outcome outcome =
        Run(std::string("forward model.bin in.npy out.npy --network ") + network);
    EXPECT_EQ(outcome.status, 1) << message;
    EXPECT_EQ(outcome.err, std::string("handwriting: ") + message + "\n");
    EXPECT_EQ(Contents("out.npy"), "kept");
  }
  EXPECT_EQ(TemporaryFiles(), 0);
}

// Both commands write beside their target: what was there stays when the disk takes no more.
TEST_F(ToolTest, AWriteThatFailsKeepsTheOlderFile) {
  const std::vector<float> many(6000);
  Store("model.bin", Network({Affine(2, 2000, std::vector<float>(many.data(), &many[2000]),
                                     std::vector<float>(many.data(), &many[4000]))}));
  WriteNpy(Path("in.npy"), {{3, 2}, std::vector<float>(6)});
  for (const char* arguments : {"convert model.bin out", "forward model.bin in.npy out"}) {
    Store("out", "kept");
    const Outcome outcome = Shell("trap '' XFSZ; ulimit -f 8; '" HANDWRITING_TOOL_PATH "' " +
                                  std::string(arguments) + " >.out");
    EXPECT_EQ(outcome.status, 1) << arguments;
    EXPECT_EQ(outcome.err, "handwriting: out: cannot write: File too large\n");
    EXPECT_EQ(Contents("out"), "kept");
    EXPECT_EQ(TemporaryFiles(), 0);
  }
}

TEST_F(ToolTest, CompletesWhatItsCommandLineKnows) {
  const auto completed = [&](const std::string& words, int cursor) {
    return Shell("'" HANDWRITING_TOOL_PATH
                 "' --bash-completion >complete; bash -c 'source ./complete; "
                 "COMP_WORDS=(handwriting " +
                 words + "); COMP_CWORD=" + std::to_string(cursor) +
                 "; _handwriting; echo \"${COMPREPLY[@]}\"' >.out")
        .out;
  };
  EXPECT_EQ(completed("in", 1), "inspect\n");
  EXPECT_EQ(completed("forward --m", 2), "--mark-last\n");
  EXPECT_EQ(completed("recognize model.bin --de", 3), "--detail\n");
  EXPECT_EQ(completed("recognize --labels --j", 3), "\n");  // a file name
  EXPECT_EQ(completed("recognize mo", 2), "\n");            // the same
}

TEST_F(ToolTest, TheManualPageNamesEveryOptionOfTheHelp) {
  std::string page = Run("--manual-page").out;
  std::erase(page, '\\');
  for (const char* command : {"inspect", "convert", "forward", "recognize", "bench"}) {
    EXPECT_NE(page.find("\n.SS " + std::string(command) + "\n"), std::string::npos);
    const std::string help = Run(std::string(command) + " --help").out;
    for (size_t at = 0; (at = help.find("\n  --", at)) != std::string::npos; ++at) {
      const size_t begin = at + 3;
      const std::string option = help.substr(begin, help.find(' ', begin) - begin);
      EXPECT_NE(page.find("fB" + option), std::string::npos) << option;
    }
  }
  EXPECT_EQ(Run("--help").out.find("manual"), std::string::npos);
}

class RecognizeTest : public ToolTest {
 protected:
  RecognizeTest() {
    const std::vector<float> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    Store("model.bin", Bytes()
                           .Add(Network({Affine(3, 3, {0, 0, 0}, identity)}))
                           .Add(Network({Component1d(kLogSoftmax, 3, 3)})));
    StoreClasses("a.npy", {1, 1, 0, 2, 0, 2});
    StoreClasses("b.npy", {0, 2, 1});
    WriteNpy(Path("wide.npy"), {{2, 4}, std::vector<float>(8)});
  }

  // Frames that speak clearly for one class each.
  void StoreClasses(const std::string& name, const std::vector<size_t>& classes) const {
    Matrix matrix{{classes.size(), 3}, std::vector<float>(classes.size() * 3)};
    for (size_t i = 0; i < classes.size(); ++i) matrix.values[3 * i + classes[i]] = 20.0F;
    WriteNpy(Path(name), matrix);
  }
};

TEST_F(RecognizeTest, PrintsSequencesBestFirst) {
  EXPECT_EQ(Run("recognize model.bin a.npy b.npy --nbest 1").out, "a.npy\n\t1 2 2\nb.npy\n\t2 1\n");
  Store("labels.txt", "\xef\xbb\xbf<blank>\r\n\xc3\xa9\r\n ,\r\n");
  EXPECT_EQ(Run("recognize model.bin --nbest 1 --labels labels.txt a.npy").out,
            "a.npy\n\t\xc3\xa9 , ,\n");
  EXPECT_EQ(Run("recognize model.bin --nbest 1 --labels labels.txt --json a.npy").out,
            "{\"file\":\"a.npy\",\"sequences\":[[1,2,2]],\"text\":[\"\xc3\xa9 , ,\"]}\n");
  const json best = json::parse(Run("recognize model.bin --nbest 3 --json b.npy").out);
  EXPECT_EQ(best["sequences"][0], json::parse("[2, 1]"));
  EXPECT_GT(best["sequences"].size(), 1U);
}

TEST_F(RecognizeTest, AFileThatFailsIsReportedAndTheRestGoOn) {
  Store("labels.txt", "blank\none\n");
  const std::array<const char*, 3> cases[] = {
      {"wide.npy b.npy", "b.npy\n\t2 1\n",
       "handwriting: wide.npy: mismatched input dimension! layer[<AffineTransform>] [3] vs [4]\n"},
      {"absent.npy b.npy --json",
       "{\"file\":\"absent.npy\",\"error\":\"absent.npy: No such file or directory\"}\n"
       "{\"file\":\"b.npy\",\"sequences\":[[2,1]]}\n",
       "handwriting: absent.npy: No such file or directory\n"},
      {"b.npy --labels labels.txt", "",
       "handwriting: b.npy: class 2 found, the label file names 2\n"}};
  for (const auto& [arguments, out, last_error] : cases) {
    const Outcome outcome = Run(std::string("recognize model.bin --nbest 1 ") + arguments);
    EXPECT_EQ(outcome.status, 1) << arguments;
    EXPECT_EQ(outcome.out, out);
    EXPECT_TRUE(outcome.err.ends_with(last_error)) << outcome.err;
  }
}

TEST_F(RecognizeTest, ModelsAndLabelsThatCannotBeUsedAreRefused) {
  Store("one.bin", Network({kSum}));
  Store("empty.bin", "");
  Store("unlinked.bin",
        Bytes()
            .Add(Network({kSum}))
            .Add(Network({Component1d(0x702, 3, 3, Bytes().Int(1).String("absent").Int(0))})));
  const std::string whole = Contents("one.bin");
  Store("cut.bin", whole + whole.substr(0, whole.size() - 4));
  Store("model.txt", "<Sigmoid> 3 3\n</Nnet>\n");
  Store("labels.txt", "blank\n\xff\n");
  const std::pair<const char*, const char*> cases[] = {
      {"one.bin a.npy", "one.bin: 1 network found, 2 wanted"},
      {"cut.bin a.npy",
       "cut.bin: network 2: layer 0: read component failed! (weights [3 x 2]: 24 bytes wanted, 20 "
       "left)"},
      {"unlinked.bin a.npy", "unlinked.bin: cannot find register with name [absent]"},
      {"empty.bin a.npy", "empty.bin: the file holds no network"},
      {"model.txt a.npy", "model.txt: text form found, binary form wanted (handwriting convert)"},
      {"model.bin a.npy --labels labels.txt", "labels.txt: line 2 is not UTF-8"},
      {"model.bin a.npy --labels absent.txt", "absent.txt: No such file or directory"}};
  for (const auto& [arguments, message] : cases) {
    const Outcome outcome = Run(std::string("recognize ") + arguments);
    EXPECT_EQ(outcome.status, 1) << arguments;
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(outcome.err.ends_with(std::string("handwriting: ") + message + "\n"))
        << outcome.err;
  }
}

TEST_F(RecognizeTest, NamesOnStandardInputAreAnsweredOneByOne) {
  for (const char* threads : {"1", "3"}) {
    // The second name is sent only when the answer to the first is there.
    const Outcome outcome = Shell(
        ": >.out; { echo a.npy; for i in $(seq 200); do [ -s .out ] && break; sleep 0.05; done; "
        "[ -s .out ] && { echo wide.npy; echo; echo b.npy; }; } | '" HANDWRITING_TOOL_PATH
        "' recognize model.bin --nbest 1 - >>.out --threads " +
        std::string(threads));
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "a.npy\n\t1 2 2\nb.npy\n\t2 1\n");
  }
}

TEST_F(RecognizeTest, ThreadsKeepTheOrderOfTheFiles) {
  std::string names;
  for (int i = 0; i < 60; ++i) {
    const std::string name = "line" + std::to_string(i) + ".npy";
    // Of lengths that end in another order, and some that fail.
    StoreClasses(name, std::vector<size_t>(static_cast<size_t>(1 + i * 37 % 60 * 40), i % 3));
    names += " " + (i % 20 == 7 ? std::string("wide.npy") : name);
  }
  const Outcome one = Run("recognize model.bin --json --detail" + names);
  EXPECT_EQ(one.status, 1);
  for (const char* threads : {"4", "0"}) {
    const Outcome several =
        Run("recognize model.bin --json --detail --threads " + std::string(threads) + names);
    EXPECT_EQ(several.out, one.out);
    EXPECT_EQ(several.err, one.err);
  }
  // What ends one thread ends all.
  EXPECT_EQ(Shell("'" HANDWRITING_TOOL_PATH "' recognize model.bin --threads 4 >/dev/full" + names)
                .status,
            1);
}

TEST_F(RecognizeTest, DetailTellsScoresConfidencesAndSpans) {
  const std::string one = Run("recognize model.bin --nbest 1 --json --detail a.npy").out;
  const json best = json::parse(one)["alternatives"][0];
  EXPECT_EQ(best["labels"], json::parse("[1, 2, 2]"));
  EXPECT_EQ(best["spans"], json::parse("[[0, 2], [3, 4], [5, 6]]"));
  EXPECT_GT(best["confidence"], 0.999);
  EXPECT_LE(best["confidence"], 1.0);
  EXPECT_GT(best["label_confidences"][2], 0.999);
  EXPECT_NEAR(best["score"], 0.0, 1e-3);
  EXPECT_FALSE(best.contains("text"));
  Store("labels.txt", "-\none\ntwo\n");
  const json several = json::parse(
      Run("recognize model.bin --nbest 3 --json --detail --labels labels.txt a.npy").out);
  EXPECT_EQ(several["frames"], 6);
  EXPECT_EQ(several["alternatives"].size(), several["sequences"].size());
  EXPECT_EQ(several["alternatives"][0]["text"], "onetwotwo");
  EXPECT_EQ(several["alternatives"][0]["confidence"], best["confidence"]);
  EXPECT_LT(several["alternatives"][1]["confidence"], 1e-6);

  // Scores that are no log probabilities, some of them infinite.
  const std::vector<float> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const Bytes network = Network({Affine(3, 3, {0, 0, 0}, identity)});
  Store("raw.bin", Bytes().Add(network).Add(network));
  WriteNpy(Path("infinite.npy"), {{1, 3}, {0, HUGE_VALF, 0}});
  const json raw = json::parse(Run("recognize raw.bin --json --detail infinite.npy").out);
  const json& first = raw["alternatives"][0];
  EXPECT_TRUE(first["confidence"].is_null() && first["label_confidences"].is_null());
  EXPECT_TRUE(first["score"].is_null());
}

// As hosts of the C interface get them, with each shipped model.
TEST_F(RecognizeTest, AllShippedLinesHaveTheSequencesOfTheInterface) {
  const std::string digits = HANDWRITING_SOURCE_DIR "/examples/digits/";
  for (const char* model : {"model.bin", "model-fixed.bin"}) {
    const Outcome outcome = Run("recognize --json --detail --threads 2 --nbest 5 " + digits +
                                model + " " + digits + "lines/*.npy");
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen((digits + model).c_str(), "rb"),
                                                     &std::fclose);
    void* recognizer = handwriting_forward_create(file.get(), 100, 5);
    std::istringstream lines(outcome.out);
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
      const json answer = json::parse(line);
      Matrix features = ReadNpy(answer["file"]);
      const auto frames = static_cast<int>(features.shape[0]);
      std::vector<int> labels(static_cast<size_t>(5 * frames)), lengths(5);
      lengths.resize(static_cast<size_t>(handwriting_forward_process(
          recognizer, features.values.data(), frames, static_cast<int>(features.shape[1]),
          labels.data(), lengths.data())));
      json wanted = json::array();
      auto next = labels.begin();
      for (const int length : lengths) {
        wanted.push_back(std::vector<int>(next, next + length));
        next += length;
      }
      EXPECT_EQ(answer["sequences"], wanted);
      ASSERT_EQ(answer["alternatives"].size(), wanted.size());
      for (size_t k = 0; k < wanted.size(); ++k) {
        const json& alternative = answer["alternatives"][k];
        EXPECT_EQ(alternative["labels"], wanted[k]);
        EXPECT_TRUE(alternative["confidence"] >= 0.0 && alternative["confidence"] <= 1.0);
      }
    }
    EXPECT_EQ(count, 20);
    handwriting_forward_destory(recognizer);
  }
}

TEST_F(RecognizeTest, ShowDrawsTheFeaturesAboveTheLabels) {
  Store("labels.txt", "-\none\n\xe4\xba\x8c\n");
  EXPECT_EQ(Run("recognize model.bin a.npy --show --labels labels.txt").out,
            "a.npy\n"
            "▄▄▀ ▀\n"
            "   ▀ ▀\n"
            "one二二    confidence 1.000\n");
  EXPECT_EQ(Run("recognize model.bin a.npy --show --json").status, 2);
  EXPECT_EQ(Run("recognize model.bin a.npy --detail").status, 2);
}

// A terminal is there when `script` runs it; more than a second of work when names come slowly.
TEST_F(RecognizeTest, ProgressGoesToATerminalOnly) {
  const std::string feed =
      "for i in 1 2 3; do echo a.npy; sleep 0.6; done | '" HANDWRITING_TOOL_PATH
      "' recognize model.bin --nbest 1 - ";
  const Outcome terminal = Shell("script -qec \"" + feed + ">.text\" /dev/null >.out </dev/null");
  EXPECT_NE(terminal.out.find("3 files, "), std::string::npos) << terminal.out;
  EXPECT_NE(terminal.out.find(" frames a second"), std::string::npos);
  EXPECT_TRUE(terminal.out.ends_with("\r\033[K")) << "the line is left";
  EXPECT_EQ(Contents(".text"), "a.npy\n\t1 2 2\na.npy\n\t1 2 2\na.npy\n\t1 2 2\n");
  const Outcome pipe = Shell(feed + ">.out");
  EXPECT_EQ(pipe.err, "");
}

TEST_F(RecognizeTest, BenchTellsTimesSharesAndAllocations) {
  const std::string keys =
      "allocations_per_call blas_core first_call_ms frames_per_second layers load_ms memory_bytes "
      "model_bytes ns_per_call_median ns_per_call_min ns_per_frame_median ns_per_frame_min "
      "vector_target ";
  Store("planes.txt", "<PReLU2d> 2 2 <Alpha> 0.5\n</Nnet>");
  using Layers = std::vector<std::pair<int, std::string>>;  // network (0: not told) and marker
  const std::tuple<const char*, Layers> cases[] = {
      {"model.bin --frames 40 --nbest 2", {{1, "<AffineTransform>"}, {2, "<LogSoftmax>"}}},
      {"model.bin --network 2", {{0, "<LogSoftmax>"}}},
      {"model.bin --network 1 --frames 7 --chunk 3", {{0, "<AffineTransform>"}}},
      {"planes.txt --network 1 --chunk 500", {{0, "<PReLU2d>"}}}};
  for (const auto& [arguments, layers] : cases) {
    SCOPED_TRACE(arguments);
    const Outcome outcome = Run(std::string("bench --seconds 0.01 --json ") + arguments);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    json document = json::parse(outcome.out);
    const bool whole = layers.front().first != 0;
    EXPECT_EQ(document.contains("decoder"), whole);
    double shares = whole ? document["decoder"]["share"].get<double>() : 0;
    document.erase("decoder");
    std::string found_keys;
    for (const auto& [key, value] : document.items()) {
      found_keys += key + " ";
      EXPECT_TRUE(value > 0.0 || !(key.starts_with("ns_") || key.ends_with("_ms"))) << key;
    }
    EXPECT_EQ(found_keys, keys);
    EXPECT_EQ(document["allocations_per_call"], 0);
    EXPECT_LE(document["ns_per_call_min"], document["ns_per_call_median"]);
    Layers found;
    for (const json& layer : document["layers"]) {
      found.emplace_back(layer.value("network", 0), layer["marker"]);
      EXPECT_EQ(layer["position"], 0);
      EXPECT_TRUE(layer["ns_median"].is_number());
      shares += layer["share"].get<double>();
    }
    EXPECT_EQ(found, layers);
    EXPECT_NEAR(shares, 1, 1e-6);
  }
  const std::string text = Run("bench --seconds 0.01 model.bin").out;
  for (const char* word : {"vector target ", "frames per second ", "<LogSoftmax>", "search"}) {
    EXPECT_NE(text.find(word), std::string::npos) << word << "\n" << text;
  }
}

TEST_F(RecognizeTest, BenchRefusesModelsThatCannotRun) {
  Store("one.bin", Network({kSum}));
  Store("cut.bin", Network({kSum}).str() + Network({kHalf}).str().substr(0, 16));
  Store("model.txt", "<Sigmoid> 3 3\n</Nnet>\n");
  Store("misfit.bin", Bytes().Add(Network({kSum})).Add(Network({kSum})));
  Store("open.bin", Network({Component1d(kLogSoftmax, 0, 0), kSum, kSum}));
  const std::pair<const char*, const char*> cases[] = {
      {"one.bin", "one.bin: 1 network found, 2 wanted (or --network)"},
      {"cut.bin",
       "cut.bin: network 2: layer 0: read component failed! (<Alpha>: 4 bytes wanted, 0 left)"},
      {"model.txt", "model.txt: text form found, binary form wanted (handwriting convert)"},
      {"misfit.bin", "misfit.bin: mismatched input dimension! layer[<AffineTransform>] [2] vs [3]"},
      {"open.bin --network 1",
       "open.bin: network 1: mismatched input dimension! layer[<AffineTransform>] [2] vs [3] (the "
       "model does not set the width of its input, tried with 100 frames x 2)"}};
  for (const auto& [arguments, message] : cases) {
    const Outcome outcome = Run(std::string("bench --seconds 0.01 ") + arguments);
    EXPECT_EQ(outcome.status, 1) << arguments;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, std::string("handwriting: ") + message + "\n");
  }
}

// Matrices of NumPy.

// A file as another writer might lay it out: no padding after the dictionary.
std::string NpyBytes(const std::string& dictionary, size_t value_bytes,
                     const char* version = "\x01") {
  const char length[] = {static_cast<char>(dictionary.size()), 0};
  return std::string("\x93NUMPY") + version + std::string(1, '\0') + std::string(length, 2) +
         dictionary + std::string(value_bytes, '\0');
}

// The message with which the file is refused; empty if it is not.
std::string Refusal(const std::string& path) {
  return tests::ThrownBy([&] { ReadNpy(path); });
}

class NpyTest : public ToolTest {};

TEST_F(NpyTest, WrittenFilesReadBackBitForBitInTheLayoutOfNumpy) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::string path = Path("matrix.npy");
  for (const Matrix& matrix : {Matrix{{2, 3}, {0.0F, -0.0F, 1.5F, inf, std::nanf("1"), 1e-45F}},
                               Matrix{{2, 1, 2}, {1.0F, 2.0F, 3.0F, 4.0F}}, Matrix{{0, 8}, {}}}) {
    WriteNpy(path, matrix);
    EXPECT_EQ(Contents("matrix.npy").size(), 128 + 4 * matrix.values.size());
    const Matrix read = ReadNpy(path);
    EXPECT_EQ(read.shape, matrix.shape);
    tests::ExpectSameBits(read.values, matrix.values);
  }
  EXPECT_EQ(Contents("matrix.npy"),
            std::string("\x93NUMPY\x01\0v\0", 10) +
                "{'descr': '<f4', 'fortran_order': False, 'shape': (0, 8), }" +
                std::string(58, ' ') + "\n");
}

TEST_F(NpyTest, EveryPrefixAndEveryLongerFileIsRefused) {
  const std::string path = Path("cut.npy");
  WriteNpy(path, {{2, 2}, {1.0F, 2.0F, 3.0F, 4.0F}});
  const std::string bytes = Contents("cut.npy") + '\0';
  for (size_t size = 0; size <= bytes.size(); ++size) {
    Store("cut.npy", bytes.substr(0, size));
    EXPECT_EQ(Refusal(path).starts_with(path + ": "), size + 1 != bytes.size()) << size;
  }
}

TEST_F(NpyTest, HeadersOfOtherWritersAreReadOrRefusedWithWhatWasFoundAndIsWanted) {
  const std::string f4 = "{'descr': '<f4', ", order = "'fortran_order': False, ";
  const std::string one = "'shape': (1, 1)}", shape = f4 + order + "'shape': ";
  const std::tuple<std::string, size_t, const char*> cases[] = {
      {"{'descr': '<f8', " + order + one, 8, "dtype '<f8' found, '<f4' (float32) wanted"},
      {"{'descr': '>f4', " + order + one, 4, "dtype '>f4' found, '<f4' (float32) wanted"},
      {f4 + "'fortran_order': True, " + one, 4, "Fortran order found, C order wanted"},
      {shape + "(1,)}", 4, "shape (1,) found, 2 or 3 dimensions wanted"},
      {shape + "(1, 1, 1, 1)}", 4, "shape (1, 1, 1, 1) found, 2 or 3 dimensions wanted"},
      {shape + "(3, 2)}", 16, "16 bytes of values found, float32 (3, 2) wanted"},
      // 2^62 + 1 rows of 4 floats: the product is 4 once it has wrapped around.
      {shape + "(4611686018427387905, 4)}", 16,
       "16 bytes of values found, float32 (4611686018427387905, 4) wanted"},
      {shape + "(-1, 2)}", 0, "wrong header, a number of elements is missing"},
      {f4 + one, 4, "wrong header, 'descr', 'fortran_order' and 'shape' wanted"},
      {f4 + "'descr': '<f4', " + order + one, 4,
       "wrong header, key 'descr' is unknown or repeated"},
      {f4 + order + one + " }", 4, "wrong header, end of the header is missing"},
      {"{'descr': [('x', '<f4')], " + order + one, 4, "wrong header, a string is missing"}};
  const std::string path = Path("other.npy");
  for (const auto& [dictionary, value_bytes, message] : cases) {
    Store("other.npy", NpyBytes(dictionary, value_bytes));
    EXPECT_EQ(Refusal(path), path + ": " + message);
  }
  // Spaces and quotes are free.
  Store("other.npy", NpyBytes("{\"shape\":(2,1,),'fortran_order':False , 'descr':'<f4'}  \n", 8));
  EXPECT_EQ(ReadNpy(path).shape, (std::vector<size_t>{2, 1}));
  Store("other.npy", NpyBytes("{}", 0, "\x02"));
  EXPECT_EQ(Refusal(path), path + ": format version 2.0 found, 1.0 wanted");
  EXPECT_EQ(Refusal(Path("absent.npy")), Path("absent.npy") + ": No such file or directory");
}

TEST_F(NpyTest, AFailedWriteLeavesTheOldFileAndNothingElse) {
  const std::string path = Path("kept.npy");
  WriteNpy(path, {{1, 1}, {7.0F}});
  EXPECT_THROW(WriteNpy(path, {{2, 2}, {1.0F}}), std::runtime_error);
  EXPECT_THROW(WriteNpy(path, {{1}, {1.0F}}), std::runtime_error);
  EXPECT_THROW(WriteNpy(folder_.string(), {{1, 1}, {1.0F}}), std::runtime_error);
  EXPECT_THROW(WriteNpy(Path("absent/x.npy"), {{1, 1}, {1.0F}}), std::runtime_error);
  EXPECT_EQ(ReadNpy(path).values, std::vector<float>{7.0F});
  std::filesystem::directory_iterator entries(folder_);
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
}

}  // namespace
}  // namespace handwriting::tools
