#include "utils/utils.h"

#include <cmath>
#include <functional>
#include <tuple>

#include "tests/support/expect.h"
#include "utils/file-io.h"
#include "utils/half-float.h"
#include "utils/messages.h"

namespace handwriting::tests {
namespace {

using namespace tarev::nnet::handwriting_CTC;  // NOLINT(google-build-using-namespace)

TEST(Tokens, StreamTokensEndAtWhiteSpaceAndAreBounded) {
  const std::string fits(kTokenSize - 1, 'x');
  const File file = FileOf(" \n<A>\t" + fits + "\n" + fits + "y z");
  char token[kTokenSize];
  EXPECT_EQ(get_next_token(file.get(), token), '\t');
  EXPECT_STREQ(token, "<A>");
  EXPECT_EQ(get_next_token(file.get(), token), '\n');
  EXPECT_EQ(token, fits);
  EXPECT_EQ(get_next_token(file.get(), token), kTokenTooLong);
  EXPECT_STREQ(token, "");
  EXPECT_EQ(get_next_token(file.get(), token), EOF);
  EXPECT_STREQ(token, "z");
  EXPECT_EQ(get_next_token(file.get(), token), EOF);
  EXPECT_STREQ(token, "");
}

TEST(Tokens, LineTokensAreSeparatedByBlanksOnly) {
  std::string line = "\t<A> 1";
  char token[kTokenSize];
  char* rest = get_next_token(line.data(), token);
  EXPECT_STREQ(token, "<A>");
  ASSERT_NE(rest, nullptr);
  EXPECT_EQ(get_next_token(rest, token), nullptr);
  EXPECT_STREQ(token, "1");
}

TEST(Arguments, NullStreamsPrintOneLineToStandardError) {
  char token[kTokenSize];
  std::string text;
  const std::tuple<const char*, const char*, std::function<bool()>> cases[] = {
      {"get_next_token", "fp == __null || token == __null",
       [&] { return get_next_token(static_cast<FILE*>(nullptr), token) == -1; }},
      {"get_next_token", "line == __null || token == __null",
       [&] { return get_next_token(static_cast<char*>(nullptr), token) == nullptr; }},
      {"fread_string", "fp == __null", [&] { return !fread_string(nullptr, text); }},
      {"fwrite_string", "fp == __null", [&] { return !fwrite_string(nullptr, text); }}};
  for (const auto& [name, condition, fails] : cases) {
    const std::string printed = PrintedBy([&, &f = fails] { EXPECT_TRUE(f()); });
    EXPECT_TRUE(printed.starts_with("[utils:")) << printed;
    EXPECT_TRUE(printed.ends_with(std::string("] Wrong parameter(s) to [") + name +
                                  "], condition [" + condition + "]. \n"))
        << printed;
  }
}

TEST(Strings, CountsAreCheckedAgainstTheFile) {
  const struct {
    Bytes bytes;
    bool ok;
    const char* text;
  } cases[] = {{Bytes().String(""), true, ""},
               {Bytes().String("blue"), true, "blue"},
               {Bytes().Int(-1), false, ""},
               {Bytes().Int(0x7fffffff).Byte(1), false, ""},
               {Bytes().Int(3).Byte('a').Byte('b'), false, ""},
               {Bytes().Byte(1), false, ""}};
  for (const auto& c : cases) {
    const File file = FileOf(c.bytes);
    std::string text;
    EXPECT_EQ(fread_string(file.get(), text), c.ok);
    if (c.ok) {
      EXPECT_EQ(text, c.text);
      EXPECT_EQ(Written([&](FILE* fp) { return fwrite_string(fp, text); }), c.bytes.str());
    }
  }
}

// The end of a file and of a block of memory is known; of a pipe a bound stands in.
TEST(RemainingBytes, AreKnownOrBounded) {
  std::string block(10, 'x');
  block[3] = 'y';
  for (FILE* fp : {FileOf(block).release(), fmemopen(block.data(), block.size(), "rb")}) {
    const File file(fp);
    std::fseek(fp, 3, SEEK_SET);
    EXPECT_EQ(RemainingBytes(fp), 7U);
    EXPECT_TRUE(FileHolds(fp, 3, 2) && !FileHolds(fp, 4, 2));
    EXPECT_EQ(std::getc(fp), 'y');
    std::fseek(fp, 0, SEEK_END);
    EXPECT_EQ(RemainingBytes(fp), 0U);
    EXPECT_TRUE(FileHolds(fp, 0, 2) && !FileHolds(fp, 1, 1));
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen("printf xyz", "r"), pclose);
  EXPECT_EQ(RemainingBytes(pipe.get()), size_t{256} << 20);
  EXPECT_EQ(std::getc(pipe.get()), 'x');
  EXPECT_TRUE(FileHolds(pipe.get(), size_t{64} << 20, 4));
  EXPECT_FALSE(FileHolds(pipe.get(), (size_t{64} << 20) + 1, 4));
}

struct Properties {
  int32_t i = -1;
  float f = -1.0F;
  bool b = false;
  std::string s;

  std::string Read(const std::string& text, std::string* rest = nullptr) {
    const File file = FileOf(text);
    const std::string thrown = ThrownBy([&] {
      PropertyTable table;
      AddProperty(table, "<Int>", "i:", &i);
      AddProperty(table, "<Float>", "f", &f);
      AddProperty(table, "<Bool>", "b", &b);
      AddProperty(table, "<Text>", "s", &s);
      AddProperty(table, "<Dropped>", "i", nullptr);
      ReadProperties(file.get(), table);
    });
    if (rest != nullptr) {
      for (int c = std::getc(file.get()); c != EOF; c = std::getc(file.get())) {
        rest->push_back(static_cast<char>(c));
      }
    }
    return thrown;
  }
};

TEST(Properties, OneLineFillsTheTable) {
  Properties p;
  std::string rest;
  EXPECT_EQ(p.Read("<Int> -7 <Text>\tname <Dropped> 5 <Float> 2.5 <Bool> True \r\n[ 1 ]", &rest),
            "");
  EXPECT_EQ(p.i, -7);
  EXPECT_EQ(p.f, 2.5F);
  EXPECT_TRUE(p.b);
  EXPECT_EQ(p.s, "name");
  EXPECT_EQ(rest, "[ 1 ]");
  for (const auto& [word, value] :
       {std::pair("False", false), {"0", false}, {"7", true}, {"true", true}, {"f", false}}) {
    EXPECT_EQ(p.Read(std::string("<Int> 1 <Bool> ") + word), "");
    EXPECT_EQ(p.b, value) << word;
  }
}

TEST(Properties, MalformedListsAreRefused) {
  const std::string too_long(kTokenSize, 'x');
  const std::pair<std::string, const char*> cases[] = {
      {"", "wrong property format!"},
      {"<Int>", "wrong property format!"},
      {"<Int>\n5\n", "wrong property format!"},
      {"<Int> 5 <Float>\n2\n", "wrong property format!"},
      {"<Int> " + too_long, "wrong property format!"},
      {"<" + too_long + " 1", "wrong property format!"},
      {"<Int> 1 <" + too_long + " 1", "wrong property format!"},
      {"<Int> 1" + std::string(5000, ' ') + "\n", "wrong property format!"},
      {"<Other> 5\n", "unknown property name! [<Other>]"},
      {"<Float> 5\n", "necessary property is not set! [<Int>]"}};
  for (const auto& [text, message] : cases) EXPECT_EQ(Properties().Read(text), message) << text;
}

TEST(Properties, ATokenThatIsNoNameIsPutBack) {
  const File file = FileOf(std::string("[ 3 ]"));
  PropertyTable table;
  ReadProperties(file.get(), table);
  float value = 0.0F;
  ReadTextMatrixStrict(file.get(), &value, 1, 1);
  EXPECT_EQ(value, 3.0F);
}

TEST(Properties, DeclarationsAreChecked) {
  PropertyTable table;
  AddProperty(table, "<A>", "i", nullptr);
  EXPECT_EQ(ThrownBy([&] { AddProperty(table, "<B>", "x:", nullptr); }),
            "unknown property type! [x:]");
  EXPECT_EQ(ThrownBy([&] { AddProperty(table, "<A>", "f", nullptr); }),
            "insert property failed! [<A>,f]");
}

TEST(TextMatrix, ShapesAreHeld) {
  const struct {
    const char* text;
    int rows;
    int cols;
    const char* lenient;
    const char* strict;
  } cases[] = {
      {"[ 1 2\n 3 4 ]", 2, 2, "", ""},
      {"[1 2 ]", 1, 1, "", ""},  // what is attached to the bracket is ignored
      {"[ ]", 0, 5, "", ""},
      {"stray [ 1 ]", 1, 1, "", "wrong matrix format! [leading:stray]"},
      {"[ 1 2 3 4 ]", 2, 3, "mismatched matrix dimension! [rows:1/2, cols:1/3]",
       "mismatched matrix dimension! [rows:1/2, cols:1/3]"},
      {"[ 1 2 3 4 ]", 1, 3, "too many matrix data! [rows:1]", "too many matrix data! [rows:1]"},
      {"[ 1 ]", 3, 0, "too many matrix data! [rows:3]", "too many matrix data! [rows:3]"},
      {"[ 1 2", 1, 2, "wrong matrix format!", "wrong matrix format!"},
      {"", 1, 2, "wrong matrix format!", "wrong matrix format!"}};
  for (const auto& c : cases) {
    float values[16] = {};
    const File lenient = FileOf(std::string(c.text));
    EXPECT_EQ(ThrownBy([&] { ReadTextMatrix(lenient.get(), values, c.rows, c.cols); }), c.lenient)
        << c.text;
    const File strict = FileOf(std::string(c.text));
    EXPECT_EQ(ThrownBy([&] { ReadTextMatrixStrict(strict.get(), values, c.rows, c.cols); }),
              c.strict)
        << c.text;
  }
}

TEST(TextMatrix, ScaleAndIntegers) {
  float values[2];
  float scale = 0.0F;
  ReadTextMatrix(FileOf(std::string("[ 0.5 -2 ]")).get(), values, 1, 2, &scale);
  EXPECT_EQ(scale, 63.5F);
  EXPECT_EQ(values[1], -2.0F);
  ReadTextMatrixStrict(FileOf(std::string("[ 0 nonsense ]")).get(), values, 1, 2, &scale);
  EXPECT_EQ(scale, 1.0F);
  int32_t integers[2];
  ReadTextMatrix(FileOf(std::string("[ -3 4 ]")).get(), integers, 2, 1);
  EXPECT_EQ(integers[0], -3);
  EXPECT_EQ(integers[1], 4);
}

// The value of a binary16 encoding from its definition.
double HalfValue(uint16_t half) {
  const int exponent = (half >> 10) & 31;
  const int fraction = half & 1023;
  const double sign = half >= 0x8000 ? -1.0 : 1.0;
  if (exponent == 0) return sign * std::ldexp(fraction, -24);
  if (exponent == 31) return fraction != 0 ? NAN : sign * INFINITY;
  return sign * std::ldexp(1024 + fraction, exponent - 25);
}

TEST(HalfFloat, EveryEncodingBothWays) {
  for (uint32_t i = 0; i < 65536; ++i) {
    const auto half = static_cast<uint16_t>(i);
    const float value = HalfToFloat(half);
    const double wanted = HalfValue(half);
    ASSERT_TRUE(SameFloat(value, static_cast<float>(wanted))) << std::hex << i;
    const bool signalling = std::isnan(wanted) && (half & 0x200) == 0;
    ASSERT_EQ(FloatToHalf(value), signalling ? half | 0x200 : half) << std::hex << i;
    if (std::isnan(wanted)) {
      ASSERT_EQ(std::bit_cast<uint32_t>(value) & 0x7FFFFF, (half & 0x3FFU) << 13);
    }
  }
}

TEST(HalfFloat, RoundsToNearestEvenBetweenNeighbours) {
  for (uint16_t half = 0; half < 0x7C00; ++half) {
    const auto next = static_cast<uint16_t>(half + 1);
    const double low = HalfValue(half);
    const double high = next == 0x7C00 ? 65536.0 : HalfValue(next);
    const auto middle = static_cast<float>((low + high) / 2.0);  // exact
    const uint16_t even = half % 2 == 0 ? half : next;
    ASSERT_EQ(FloatToHalf(middle), even) << half;
    ASSERT_EQ(FloatToHalf(std::nextafter(middle, 0.0F)), half) << half;
    ASSERT_EQ(FloatToHalf(-std::nextafter(middle, 1e9F)), next | 0x8000) << half;
  }
  EXPECT_EQ(FloatToHalf(1e30F), 0x7C00);
  EXPECT_EQ(FloatToHalf(-1e-30F), 0x8000);
}

TEST(Messages, ThrownTextIsLoggedWithPlaceAndCut) {
  std::string thrown;
  const std::string log = PrintedBy([&] {
    thrown = ThrownBy(
        [] { ThrowError(Here(), "no such frame [%d] %s", 7, std::string(5000, 'x').c_str()); });
  });
  EXPECT_EQ(thrown.size(), 4096U);
  EXPECT_TRUE(thrown.starts_with("no such frame [7] xxx"));
  EXPECT_NE(log.find("utils-test:"), std::string::npos);
  EXPECT_NE(log.find("WARN"), std::string::npos);
  EXPECT_NE(log.find(thrown), std::string::npos);
}

TEST(Messages, WhatATerminalObeysIsEscaped) {
  EXPECT_EQ(Escaped("na\u00efve \u6587\U0001F58B ~"), "na\u00efve \u6587\U0001F58B ~");
  EXPECT_EQ(Escaped("\x1b[2J\n\x7f"), "\\x1b[2J\\x0a\\x7f");
  EXPECT_EQ(Escaped("\xc2\x9b"
                    "1m \xc2\xa0"),
            "\\xc2\\x9b"
            "1m \xc2\xa0");
  EXPECT_EQ(Escaped("\xff\xc0\x80\xe6\x96"), "\\xff\\xc0\\x80\\xe6\\x96");
  EXPECT_EQ(ThrownBy([] { ThrowError(Here(), "no register [%s]", "x\r\n"); }),
            "no register [x\\x0d\\x0a]");
}

TEST(Messages, ALineIsCutAndEnded) {
  const std::string longest(9000, 'x');
  const std::string line = PrintedBy([&] { PrintLine("%s\n", longest.c_str()); });
  EXPECT_EQ(line.size(), 8192U);
  EXPECT_EQ(line.find('\n'), 8191U);
}

}  // namespace
}  // namespace handwriting::tests
