#include "platform/Strings.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "platform/Exception.h"

namespace pc {
namespace {

struct Measure {
  const char* text;
  std::size_t units;
};

class UTF16Measure : public ::testing::TestWithParam<Measure> {};

TEST_P(UTF16Measure, CountsUTF16Units) {
  EXPECT_EQ(utf16Length(GetParam().text), GetParam().units);
  EXPECT_EQ(toUTF16(GetParam().text).size(), GetParam().units);
}

INSTANTIATE_TEST_SUITE_P(Platform, UTF16Measure,
                         ::testing::Values(Measure{"", 0}, Measure{"Zoë", 3},
                                           Measure{"e\u0301", 2},  // decomposed accent: two units
                                           Measure{"😀", 2},
                                           Measure{"a😀b👍🏽", 8},
                                           Measure{"a\xff"
                                                   "b",
                                                   3},  // an invalid byte reads as one U+FFFD
                                           Measure{"\xe6\x97", 1}));  // a truncated sequence too

TEST(Strings, ConvertsToAndFromUTF16) {
  EXPECT_EQ(fromUTF16(toUTF16("Zoë 日本 😀")), "Zoë 日本 😀");
  EXPECT_EQ(fromUTF16(u"a\xD83D"
                      "b"),
            "a\uFFFD"
            "b");                                     // an unpaired surrogate
  EXPECT_EQ(toUTF16("a\xc0\xaf"), u"a\uFFFD\uFFFD");  // overlong form
  EXPECT_TRUE(isValidUTF8("Zoë 😀"));
  for (const char* invalid : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "ab\xe6\x97"})
    EXPECT_FALSE(isValidUTF8(invalid)) << invalid;
}

TEST(Strings, CutsNeverSplitASurrogatePair) {
  const std::string text = "a😀b😀";  // units: a, pair at 1-2, b, pair at 4-5
  EXPECT_EQ(utf16Prefix(text, 2), "a");
  EXPECT_EQ(utf16Prefix(text, 3), "a😀");
  EXPECT_EQ(utf16Substring(text, 1, 2), "😀");
  EXPECT_EQ(utf16Substring(text, 2, 2), "b");  // starts inside the first pair
  EXPECT_EQ(utf16Substring(text, 3, 2), "b");  // ends inside the second pair
  EXPECT_EQ(utf16Substring(text, 2, 1), "");
  EXPECT_EQ(utf16Substring(text, 9, 1), "");
  EXPECT_EQ(utf16Find(text, "😀"), 1u);
  EXPECT_EQ(utf16Find(text, "😀", 2), 4u);
  EXPECT_EQ(utf16Find(text, "", 0), std::nullopt);
}

// Lengths and cuts are counted without ICU, in 64 bits; on ill-formed UTF-8
// they must agree with what the ICU-based conversions read (one U+FFFD per
// longest ill-formed start).
TEST(Strings, CountsIllFormedTextAsTheConversionsReadIt) {
  const std::string texts[] = {
      "\xff",          "a\x80z",           "\xe2\x82",        "\xe2\x82z",     "\xed\xa0\x80",
      "\xf0\x9f\x98",  "\xf0\x9f\x98\x80", "\xc0\xaf",        "\xf4\x90\x80\x80", "\xe0\x80\x80",
      "é\xf0\x9f",     "x\xf5y",           "\xf0\x90\x80\x80\xf0"};
  for (const std::string& text : texts) {
    const std::u16string units = toUTF16(text);
    EXPECT_EQ(utf16Length(text), units.size()) << ::testing::PrintToString(text);
    for (std::size_t cut = 0; cut <= units.size() + 1; ++cut) {
      std::size_t end = std::min(cut, units.size());
      if (end > 0 && end < units.size() && (units[end - 1] & 0xFC00) == 0xD800) --end;
      EXPECT_EQ(utf16Prefix(text, cut), fromUTF16(units.substr(0, end)))
          << ::testing::PrintToString(text) << " cut " << cut;
    }
    EXPECT_EQ(isValidUTF8(text), fromUTF16(units) == text) << ::testing::PrintToString(text);
  }
}

// Text beyond what ICU can count is refused with a clear error at the
// boundary (the view is never read: the size alone is refused).
TEST(Strings, RefusesTextICUCannotCount) {
  const char small[] = "abc";
  const std::string_view huge(small, std::size_t(1) << 31);
  try {
    (void)utf16Substring(huge, 0, 10);
    ADD_FAILURE() << "not refused";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), kInvalidArgumentException);
    EXPECT_NE(e.reason().find("2147483648 bytes"), std::string::npos) << e.reason();
  }
  EXPECT_THROW((void)uppercaseString(huge), Exception);
}

TEST(Strings, MapsCaseWithoutLocaleRules) {
  EXPECT_EQ(uppercaseString("straße ïle"), "STRASSE ÏLE");
  EXPECT_EQ(lowercaseString("ÉTÉ ISTANBUL"), "été istanbul");  // no Turkish dotless i
  EXPECT_EQ(capitalizedString("hello wORLD\tjean-marc  ÉLODIE"), "Hello World\tJean-marc  Élodie");
}

TEST(Strings, TellsASCIIByEveryByte) {
  EXPECT_TRUE(isASCII(""));
  EXPECT_TRUE(isASCII(std::string("tab\tnul\0del\x7f", 12)));
  EXPECT_FALSE(isASCII("caf\xc3\xa9"));  // é
  EXPECT_FALSE(isASCII("\x80"));           // a stray continuation byte
  EXPECT_FALSE(isASCII("last\xff"));
}

TEST(Strings, ReplacesAndTrims) {
  EXPECT_EQ(replaceOccurrences("a-b--c", "-", "+-"), "a+-b+-+-c");
  EXPECT_EQ(replaceOccurrences("abc", "", "x"), "abc");
  EXPECT_EQ(trimWhitespace("\u00a0\t x y \n\u2028"), "x y");
  EXPECT_EQ(trimCharacters("😀x😀", CharacterSet::characterSetWithCharactersInString("😀")), "x");
  EXPECT_EQ(trimCharacters("123", CharacterSet::decimalDigitCharacterSet()), "");
  // Multi-byte blanks at both ends, a text of blanks alone, a text without any.
  const struct {
    const char* text;
    const char* trimmed;
  } cases[] = {
      {"\u0085\u3000é\u2029", "é"}, {" \u00a0 ", ""}, {"", ""}, {"é x\u00e9", "é xé"},
      // A broken sequence reads as U+FFFD and is kept; blanks around it go.
      {" \xff ", "\ufffd"}, {"\xc3 a \xc3", "\ufffd a \ufffd"},
  };
  for (const auto& c : cases) EXPECT_EQ(trimWhitespace(c.text), c.trimmed) << c.text;
}

TEST(CharacterSet, PredefinedSetsHoldTheExpectedCharacters) {
  const struct {
    CharacterSet set;
    std::u32string in;
    std::u32string out;
  } cases[] = {
      {CharacterSet::decimalDigitCharacterSet(), U"09\u0663", U"a½"},
      {CharacterSet::whitespaceCharacterSet(), U" \t\u00a0\u3000", U"\n\r\u2028x"},
      {CharacterSet::newlineCharacterSet(), U"\n\r\u0085\u2028", U" \t"},
      {CharacterSet::letterCharacterSet(), U"aZé日\u0301", U"1 -"},
      {CharacterSet::controlCharacterSet(), U"\u0001\u007f\u200b", U"a "},
      {CharacterSet::punctuationCharacterSet(), U"!-«", U"a+$"},
  };
  for (const auto& c : cases) {
    for (char32_t ch : c.in)
      EXPECT_TRUE(c.set.characterIsMember(ch)) << std::hex << static_cast<std::uint32_t>(ch);
    for (char32_t ch : c.out)
      EXPECT_FALSE(c.set.characterIsMember(ch)) << std::hex << static_cast<std::uint32_t>(ch);
  }
}

TEST(CharacterSet, CombinesInvertsAndCopies) {
  const CharacterSet digits = CharacterSet::decimalDigitCharacterSet();
  const CharacterSet inverted = digits.invertedSet();
  EXPECT_TRUE(inverted.characterIsMember(U'😀'));
  EXPECT_EQ(inverted.invertedSet(), digits);

  const CharacterSet ab = CharacterSet::characterSetWithRange(U'a', U'b');
  const CharacterSet both = ab.unionWith(CharacterSet::characterSetWithCharactersInString("😀"));
  EXPECT_TRUE(both.characterIsMember(U'😀'));
  EXPECT_FALSE(ab.characterIsMember(U'😀'));  // the operands are left alone
  EXPECT_EQ(both.intersectionWith(digits), CharacterSet());

  CharacterSet edited = both;
  edited.removeCharactersInString("a😀");
  edited.addCharactersInString("z");
  EXPECT_EQ(edited, CharacterSet::characterSetWithCharactersInString("bz"));
  EXPECT_TRUE(both.characterIsMember(U'a'));
  EXPECT_TRUE(containsCharacterFromSet("xx😀", both));
}

}  // namespace
}  // namespace pc
