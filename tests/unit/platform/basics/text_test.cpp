#include "platform/text.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <random>

namespace Tessaro::Iot::Component::Text {
namespace {

using namespace std::string_literals;

TEST(Text, BaseNameIsWhatFollowsTheLastSlash) {
  static_assert(base_name("/a/b/main.cpp") == "main.cpp");
  static_assert(base_name("main.cpp") == "main.cpp");
  static_assert(base_name("/a/").empty());
  static_assert(base_name("").empty());
}

struct Sample {
  std::string text;
  std::string shown;  // as to_bus_text gives it
};

class BusText : public testing::TestWithParam<Sample> {};

TEST_P(BusText, IsAcceptedOrMadeAcceptable) {
  const auto& [text, shown] = GetParam();
  EXPECT_EQ(is_bus_text(text), text == shown);
  EXPECT_EQ(to_bus_text(text), shown);
  EXPECT_TRUE(is_bus_text(to_bus_text(text)));
}
INSTANTIATE_TEST_SUITE_P(
    Samples, BusText,
    testing::Values(Sample{"", ""}, Sample{"plain\n\x1B[0m", "plain\n\x1B[0m"}, Sample{"a\0b"s, "a?b"},
                    Sample{"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"},
                    Sample{"\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", "\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"},
                    Sample{"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"}, Sample{"\xFF", "?"},
                    Sample{"a\x80z", "a?z"},                                // no lead byte
                    Sample{"cut \xE2\x82", "cut ??"}, Sample{"\xC3", "?"},  // cut inside a character
                    Sample{"\xE2\x41\x42", "?AB"},                          // no continuation
                    Sample{"\xC0\x80", "??"}, Sample{"\xC1\xBF", "??"},     // overlong
                    Sample{"\xE0\x80\x80", "???"}, Sample{"\xF0\x80\x80\x80", "????"},
                    Sample{"\xED\xB0\x80", "???"},  // half of a surrogate pair
                    Sample{"\xF4\x90\x80\x80", "????"}, Sample{"\xF8\x88\x80\x80\x80", "?????"}));

TEST(Text, AgreesWithTheBusLibraryOnRandomBytes) {
  constexpr int rounds = 200'000;
  const unsigned char interesting[] = {0x01, 'a',  0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xC1, 0xC2,
                                       0xDF, 0xE0, 0xE1, 0xED, 0xEE, 0xEF, 0xF0, 0xF1, 0xF3, 0xF4, 0xF5, 0xFF};
  std::mt19937 random(1);
  for (int round = 0; round < rounds; ++round) {
    // Plain text before them: the check takes it in steps of several bytes.
    std::string text(random() % 20, 'p');
    for (size_t count = random() % 6; count > 0; --count) {
      text += static_cast<char>(interesting[random() % sizeof interesting]);
    }
    text += std::string(random() % 20, 'p');
    ASSERT_EQ(is_bus_text(text), dbus_validate_utf8(text.c_str(), nullptr) == TRUE) << testing::PrintToString(text);
  }
}

TEST(Text, ALeadingNumberIsTakenOrIsNone) {
  EXPECT_EQ(leading_number("4711"), 4711);
  EXPECT_EQ(leading_number("17\n"), 17);
  EXPECT_EQ(leading_number("-3 x"), -3);
  EXPECT_EQ(leading_number("2147483647"), 2147483647);
  for (const char* text : {"", " 1", "x1", "-", "2147483648", "99999999999999999999"}) {
    EXPECT_EQ(leading_number(text), 0) << text;
  }
}

std::string hidden(std::string text) {
  hide_control_characters(text.data(), text.size());
  return text;
}

TEST(Text, HidesControlCharactersAndNothingElse) {
  EXPECT_EQ(hidden("a\nb\r\t\x1B[31m\x7F\0z"s), "a?b???[31m??z");
  EXPECT_EQ(hidden("plain \xC3\xA4 \xE2\x82\xAC ~"), "plain \xC3\xA4 \xE2\x82\xAC ~");
  EXPECT_EQ(hidden("\xC2\x85\xC2\x9B\xC2\xA0"), "????\xC2\xA0");
  EXPECT_EQ(hidden("\xC2"), "\xC2");
  EXPECT_EQ(hidden(""), "");
}

TEST(Text, HidesOnlyInTheGivenLength) {
  std::string text = "\n\n\n";
  hide_control_characters(text.data(), 2);
  EXPECT_EQ(text, "??\n");
}

}  // namespace
}  // namespace Tessaro::Iot::Component::Text
