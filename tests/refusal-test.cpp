// Why a block was refused: the field or array, what was found and what was wanted.

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/support/layer-samples.h"
#include "tests/support/model-builder.h"

namespace handwriting::tests {
namespace {

using runtime::Component;
using runtime::ComponentRefused;

// The message and the reason with which a component is refused.
std::string ReasonOf(const std::string& bytes, bool binary) {
  try {
    const Layer layer(Component::Read(FileOf(bytes).get(), binary));
  } catch (const ComponentRefused& refused) {
    EXPECT_STREQ(refused.what(), refused.reason().find("header: ") == std::string::npos
                                     ? "read component failed!"
                                     : "fread failed!");
    return refused.reason();
  }
  return "accepted";
}

TEST(Refusal, SaysWhichFieldOrArrayAndWhatWasWanted) {
  const Bytes relu = Component1d(0x203, 2, 2);
  const Bytes narrow = Component1d(0x203, 2, 3);
  const std::pair<Bytes, const char*> cases[] = {
      {Component1d(0x10d, 2, 3).Raw<int16_t>(1), "<CellDim>: 4 bytes wanted, 2 left"},
      {Component1d(0x10d, 2, 3, Bytes().Int(4)), "<CellDim> [4], output values of a direction [3]"},
      {Component1d(0x103, 2, 1, Bytes().Floats(Floats(8)).Floats({1, 2})),
       "recurrent_weights [4 x 1]: 16 bytes wanted, 8 left"},
      {Component1d(0x801, 2, 3, Bytes().Float(1).Codes({1, 2})),
       "weights [3 x 2]: 10 bytes wanted, 6 left"},
      {Component1d(0x10e, 2, 2, Bytes().Int(1).Raw<int16_t>(0)),
       "input_weights [4 x 2]: 16 bytes wanted, 2 left"},
      {Component1d(0x307, 2, 2, Bytes().Int(1).Int(0).Int(0).Int(0).Int(1).Int(1).Int(0)),
       "stride [0 < 1]"},
      {Component1d(0x107, 2, 2, Bytes().Int(0).Int(0).Int(1).Int(1)),
       "Fsmn layer _depend must <= 0!"},
      {Component1d(0x401, 2, 6, Bytes().Int(-1).Int(1).Int(0)), "offsets do not ascend"},
      {Component1d(0x702, 2, 4, Bytes().Int(0).Int(1).Int(3)), "input position [3] of [1] parts"},
      {Component1d(0x700, 2, 2, Bytes().Int(-1)), "length of <RegisterName> [-1 < 0]"},
      {narrow, "output dimension [3], but rows keep their width [2]"},
      {Component2d(0x206, 16777227, 24, 2, 2),
       "output channels [24], but planes keep their number [16777227]"},
      {Component2d(0x701, 2, 3, 1, 1, Bytes().String("a")),
       "output channels [3], but planes keep their number [2]"},
      {Component1d(0x704, 2, 5, Bytes().Int(2)),
       "<InputChannel> [2] of rows of [2], which make no rows of [5]"},
      {Component1d(0x705, 4, 2, Bytes().Int(3)),
       "<OutputChannel> [3] of rows of [2], which make no rows of [4]"},
      {Component1d(0x109, 2, 2, Bytes().Int(3)), "wrong head number! [3] for dimension [2]"},
      {Component1d(0x109, 2, 2, Bytes().Int(1).Add(relu).Add(narrow)),
       "<Encoder> component 1: output dimension [3], but rows keep their width [2]"},
      {Component1d(0x109, 2, 2, Bytes().Int(1).Add(Component1d(0x706, 2, 2, Bytes().String("0")))),
       "self_atten layer does not map frame to frame! layer[<SliceComponent>]"},
  };
  for (const auto& [bytes, reason] : cases) EXPECT_EQ(ReasonOf(bytes.str(), true), reason);
}

// Wherever a block ends too early, the reason says how many bytes were wanted and how many there
// were.
TEST(Refusal, OfABlockThatIsCutShortSaysHowMuchIsMissing) {
  for (const Bytes& sample : SamplesOfAllForms()) {
    const std::string bytes = sample.str();
    for (size_t size = 0; size < bytes.size(); ++size) {
      const std::string reason = ReasonOf(bytes.substr(0, size), true);
      ASSERT_NE(reason, "accepted");
      EXPECT_TRUE(std::regex_search(reason, std::regex("[0-9]+ bytes wanted, [0-9]+ left$")))
          << ReadLayer(sample)->TypeMarker() << " cut at " << size << ": " << reason;
    }
  }
}

TEST(Refusal, OfTheTextFormToo) {
  const std::pair<const char*, const char*> cases[] = {
      {"<ConcatenateComponent> 4 2 <Output> a", "unknown property name [<Output>]"},
      {"<Fsmn> 2 2 <LOrder> 0 <ROrder> 0 <Depend> 1\n[ 1 2 ]", "Fsmn layer _depend must <= 0!"},
      {"<Register2dComponent> 1 1 <RegisterName> r", "<InputDim> or <OutputDim> is not set!"},
      {"<ConvBN2d> 1 1 </Nnet>", "Failed to read Conv2d layer!"},
      {"<Encoder> 1 1 <HeadNum> 1\n</Nnet>", "self_atten layer is NULL"},
      {"<FixedBlstm> 2 1 [ 1 ]", "<FixedBlstm> has no text form"},
      {"<BGru> 8 2 <CellDim> 3\n[", "<CellDim> [3], output values of a direction [4]"},
  };
  for (const auto& [text, reason] : cases) EXPECT_EQ(ReasonOf(text, false), reason) << text;
}

}  // namespace
}  // namespace handwriting::tests
