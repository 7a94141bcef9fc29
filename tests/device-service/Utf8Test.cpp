#include "values/Utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using Lumo::Abbreviate;
using Lumo::IsUtf8;
using Lumo::Utf8CharacterLength;

TEST(Utf8Test, AcceptsTheFirstAndLastCharacterOfEachLength) {
  using namespace std::string_view_literals;
  const std::string_view ends[][2] = {{"\0"sv, "\x7F"},
                                      {"\xC2\x80", "\xDF\xBF"},
                                      {"\xE0\xA0\x80", "\xEF\xBF\xBF"},
                                      {"\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}};
  std::size_t length = 0;
  for (const auto& [first, last] : ends) {
    ++length;
    EXPECT_EQ(Utf8CharacterLength(std::string(first) + "x"), length);
    EXPECT_EQ(Utf8CharacterLength(last), length);
  }
  EXPECT_TRUE(IsUtf8("\xED\x9F\xBF\xEE\x80\x80"));  // around the surrogates
  EXPECT_TRUE(IsUtf8(""));
  EXPECT_TRUE(IsUtf8("a\xC3\xA9\xE2\x82\xACz"));
}

TEST(Utf8Test, RefusesWhatIsNoCharacter) {
  for (const std::string text :
       {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
        "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFE", "\xFF", "\xC3", "\xC3(",
        "\xE2\x82", "\xE2\x82(", "\xF0\x9F\x98", "\xF0\x9F\x98("}) {
    EXPECT_EQ(Utf8CharacterLength(text), 0U) << text;
    EXPECT_FALSE(IsUtf8("ok " + text)) << text;
    EXPECT_FALSE(IsUtf8(text + " ok")) << text;
  }
}

// A text is checked in blocks, whose size is the processor's.
TEST(Utf8Test, FindsAWrongByteAtEveryPlace) {
  constexpr std::size_t kSomeBlocks = 140;
  for (std::size_t place = 0; place < kSomeBlocks; ++place) {
    std::string text(kSomeBlocks, 'a');
    text[place] = '\x80';
    EXPECT_FALSE(IsUtf8(text)) << place;
    text[place] = '\x7F';
    EXPECT_TRUE(IsUtf8(text)) << place;
    text.replace(place, 1, "\xE2\x82\xAC");
    EXPECT_TRUE(IsUtf8(text)) << place;
    EXPECT_FALSE(IsUtf8(text.substr(0, place + 2))) << place;
  }
}

TEST(Utf8Test, AbbreviatesOnlyATextOfMoreThanAHundredBytes) {
  const std::string hundred(100, 'x');
  EXPECT_EQ(Abbreviate(""), "");
  EXPECT_EQ(Abbreviate(hundred), hundred);
  EXPECT_EQ(Abbreviate(hundred + "x"), hundred + "\xE2\x80\xA6");
  EXPECT_EQ(Abbreviate(std::string(250'000, 'x')), hundred + "\xE2\x80\xA6");
}

TEST(Utf8Test, AbbreviatesBetweenTwoCharacters) {
  const std::string euro = "\xE2\x82\xAC";
  for (std::size_t length = 96; length <= 100; ++length) {
    const std::string text(length, 'x');
    const std::string kept = length <= 97 ? text + euro : text;
    EXPECT_EQ(Abbreviate(text + euro + "xxxx"), kept + (length == 96 ? "x" : "") + "\xE2\x80\xA6");
  }
}

TEST(Utf8Test, AbbreviatesWhatIsNotUtf8) {
  EXPECT_EQ(Abbreviate(std::string(200, '\x80')), std::string(100, '\x80') + "\xE2\x80\xA6");
}

}  // namespace
