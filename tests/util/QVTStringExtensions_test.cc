#include "util/QVTStringExtensions.h"

#include <sys/mman.h>
#include <unicode/translit.h>

#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"

namespace pc {
namespace {

using ::testing::ElementsAre;
using test::LogCapture;
using namespace QVTStringExtensions;

TEST(HexForms, UCS2ConversionIsLossyAndReportsWhatItCannotConvert) {
  EXPECT_EQ(qvt_convertToUTF8Hexa("é"), "c3a9");
  EXPECT_EQ(qvt_convertToUCS2Hexa("A😀"), "0041d83dde00");
  EXPECT_EQ(qvt_stringFromUCS2HexaString("0041D83DDE00"), "A😀");
  EXPECT_EQ(qvt_stringFromUTF8HexaString(""), "");
  // Ill-formed UTF-8 is replaced, not refused.
  EXPECT_EQ(qvt_convertToUCS2Hexa("a\xff" "b"), "0061fffd0062");
  // A text too long to convert: reserved, never touched, pages of zeros.
  const std::size_t size = (std::size_t{1} << 30) + 1;
  void* pages = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(pages, MAP_FAILED);
  LogCapture log;
  EXPECT_EQ(qvt_convertToUCS2Hexa(std::string_view(static_cast<const char*>(pages), size)), "");
  ASSERT_THAT(log.messages(), ElementsAre("this is not possible under lossy conversion"));
  EXPECT_EQ(log.lines()[0].level, kLogError);
  munmap(pages, size);
}

TEST(HexForms, MalformedHexIsRefused) {
  for (const char* bad : {"0g", "c3a", " c3a9", "+1"}) {
    EXPECT_EQ(qvt_stringFromUTF8HexaString(bad), std::nullopt) << bad;
    EXPECT_EQ(qvt_stringFromUCS2HexaString(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(qvt_stringFromUTF8HexaString("c3"), std::nullopt);    // not UTF-8
  EXPECT_EQ(qvt_stringFromUCS2HexaString("00e9ff"), std::nullopt);  // half a unit
  EXPECT_EQ(qvt_stringFromUCS2HexaString("d83d"), std::nullopt);    // lone surrogate

  std::uint8_t bytes[4];
  std::size_t length = 99;
  EXPECT_FALSE(hex_to_bytes("abc", bytes, &length));
  EXPECT_TRUE(hex_to_bytes("00fF7a", bytes, &length));
  EXPECT_EQ(length, 3u);
  EXPECT_THAT(bytes, ::testing::ElementsAre(0x00, 0xff, 0x7a, ::testing::_));
}

TEST(HexForms, SizeLimits) {
  EXPECT_TRUE(qvt_convertToUTF8Hexa(std::string(9999, 'a')));
  EXPECT_FALSE(qvt_convertToUTF8Hexa(std::string(10000, 'a')));

  LogCapture log;
  EXPECT_FALSE(qvt_stringFromUTF8HexaString(std::string(10002, '6')));
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(qvt_stringFromUTF8HexaString(std::string(10000, '6')), std::string(5000, 'f'));
  EXPECT_THAT(log.messages(), ElementsAre("string should be small here"));
}

TEST(Encodings, LossyForms) {
  EXPECT_EQ(stringWithLossyASCIIConversion("Crème brûlée, Œuvre"), "Creme brulee, OEuvre");
  const std::string greek = stringWithLossyASCIIConversion("Ωμέγα 日本");
  EXPECT_TRUE(std::all_of(greek.begin(), greek.end(), [](char c) { return c > 0; })) << greek;
  EXPECT_EQ(stringWithUTF8Conversion("é-a€"), "-a");
}

// ASCII texts are returned as they are: ICU's own transliteration, the
// oracle, leaves every one of the 128 characters alone, alone and in runs.
TEST(Encodings, LossyFormLeavesASCIIAsTheTransliterationDoes) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Transliterator> oracle(
      icu::Transliterator::createInstance("Any-Latin; Latin-ASCII", UTRANS_FORWARD, status));
  ASSERT_TRUE(U_SUCCESS(status));
  std::string all;
  for (int c = 0; c < 0x80; ++c) all += static_cast<char>(c);
  std::vector<std::string> texts{all, "", "Jean-Marc O'Neil, 12 rue X; tel. +33 (0)1"};
  for (int c = 0; c < 0x80; ++c) texts.push_back(std::string(2, static_cast<char>(c)) + "a");
  for (const std::string& text : texts) {
    icu::UnicodeString expected = icu::UnicodeString::fromUTF8(text);
    oracle->transliterate(expected);
    std::string expectedText;
    expected.toUTF8String(expectedText);
    EXPECT_EQ(stringWithLossyASCIIConversion(text), expectedText) << text;
  }
}

// Texts of Latin, Common and Inherited characters go through "Latin-ASCII"
// alone; the answers must stay those of the whole "Any-Latin; Latin-ASCII",
// whose rules read their neighbours (a ligature before a lower-case letter,
// a combining mark after its base), for each such character alone, between
// letters of either case, and in whole texts mixing scripts.
TEST(Encodings, LossyFormOfLatinTextsIsTheWholeTransliteration) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Transliterator> oracle(
      icu::Transliterator::createInstance("Any-Latin; Latin-ASCII", UTRANS_FORWARD, status));
  ASSERT_TRUE(U_SUCCESS(status));
  std::vector<std::string> texts{
      "Chloé Dubois-Garnier", "Jürgen Müller", "Łukasz Wiśniewski", "ÆSIR Ærø æble",
      "Søren Åkesson", "Ólafur Þórarinsson", "e\u0301te\u0301", "\u0301leading mark",
      "caf\xc3", "\xff\xfe Zoë", "Straße — 12 €", "ＦｕｌｌｗｉｄｔｈＡＢＣ", "½ ¼ № ™",
      "Đorđe Јовановић", "Ωμέγα Zoë", "Zoë 日本 Brontë", "İstanbul ǅemal ǈ",
      "Ærø Æa ÆA Æ", "e\u0301 a\u0308\u0301b ß\u0323", "\u0301\u0302", "éé ÆÆ xÆ",
      "Chloé Dubois-Garnier, 12 rue de la Paix, Besançon", "ǆ ǅ Ǆ ǉ ǈ Ǉ ǌ ǋ Ǌ",
  };
  const auto encode = [](UChar32 c) {
    std::string text;
    icu::UnicodeString(c).toUTF8String(text);
    return text;
  };
  const std::pair<UChar32, UChar32> ranges[] = {
      {0x80, 0x24F}, {0x1E00, 0x1EFF}, {0x2000, 0x20CF}, {0x2100, 0x218F}, {0xFB00, 0xFB06}};
  for (const auto& [from, to] : ranges)
    for (UChar32 c = from; c <= to; ++c) {
      const std::string character = encode(c);
      texts.push_back(character);
      texts.push_back("a" + character + "b");
      texts.push_back("A" + character + "B");
      texts.push_back(character + "a");
      texts.push_back(character + "A x" + character + "\u0301");
      texts.push_back("e" + character + "\u0301" + character + "A");
    }
  for (const std::string& text : texts) {
    icu::UnicodeString expected = icu::UnicodeString::fromUTF8(text);
    oracle->transliterate(expected);
    // The conversion writes one '?' per code point the transliteration
    // leaves outside ASCII.
    std::string expectedAnswer;
    for (int32_t i = 0; i < expected.length(); i = expected.moveIndex32(i, 1)) {
      const UChar32 c = expected.char32At(i);
      expectedAnswer += c < 0x80 ? static_cast<char>(c) : '?';
    }
    const std::string answer = stringWithLossyASCIIConversion(text);
    EXPECT_EQ(answer, expectedAnswer) << text;
  }
}

struct Lossless {
  const char* text;
  StringEncoding encoding;
  bool lossless;
};

TEST(Encodings, LosslessEncodingDependsOnTheRepertoire) {
  const Lossless cases[] = {
      {"é", StringEncoding::ASCII, false},           {"é", StringEncoding::ISOLatin1, true},
      {"€", StringEncoding::ISOLatin1, false},       {"€œ", StringEncoding::WindowsCP1252, true},
      {"😀", StringEncoding::UTF16BigEndian, true},  {"\xff", StringEncoding::UTF8, false},
      {"Ça va 5€ {ok} ΔΩ", StringEncoding::GSM0338, true}, {"ç", StringEncoding::GSM0338, false},
      // ASCII: every byte below 0x80, control characters included; a
      // broken sequence is not a character of any repertoire.
      {"plain \t\x7f~", StringEncoding::ASCII, true},  {"", StringEncoding::ASCII, true},
      {"a\xc3", StringEncoding::ASCII, false},        {"\x80", StringEncoding::ASCII, false},
      {"a\xc3", StringEncoding::ISOLatin1, false},
  };
  for (const Lossless& c : cases)
    EXPECT_EQ(qvt_canReallyBeEncodedLosslessInEncoding(c.text, c.encoding), c.lossless)
        << c.text << " in " << static_cast<int>(c.encoding);
  EXPECT_EQ(encodeString(std::string("a\0b", 3), StringEncoding::ASCII), std::string("a\0b", 3));
  EXPECT_EQ(decodeString("\xe9", StringEncoding::ASCII), std::nullopt);
}

TEST(CharacterSets, DeleteReplaceAndCount) {
  const CharacterSet junk = CharacterSet::characterSetWithCharactersInString("#€😀");
  EXPECT_EQ(qvt_stringByRemovingCharactersFromSet("a#€b😀c#", junk), "abc");
  EXPECT_EQ(qvt_stringByReplacingCharactersFromSet("a#€b😀c", junk, "_", false), "a__b_c");
  EXPECT_EQ(qvt_stringByReplacingCharactersFromSet("a#€b😀c", junk, "_", true), "a_b_c");
  EXPECT_EQ(qvt_countOfCharactersFromSet("a#€b😀c", junk), 3u);

  // A replacement holding characters of the set terminates.
  std::string text = "x#y";
  replaceCharactersFromSet(text, junk, "##", true);
  EXPECT_EQ(text, "x##y");
  deleteCharactersFromSet(text, junk);
  EXPECT_EQ(text, "xy");
}

TEST(Conversions, NumbersLineBreaksAndControls) {
  EXPECT_EQ(unsignedIntValue("12a"), 0u);
  EXPECT_EQ(unsignedIntValue("4294967295"), 4294967295u);
  EXPECT_FALSE(containsNonDigitChar(""));
  EXPECT_TRUE(containsNonDigitChar("12 3"));

  std::string escaped = "a\\r\\nb\\tc\\";
  interpretCRLF(escaped);
  EXPECT_EQ(escaped, "a\r\nb\\tc\\");

  const std::string controls = "a\r\nb\nc\rd\t\x01\x1b\a\b\f\x0b";
  EXPECT_EQ(prettyPrint(controls), "a\\r\\n\nb\\n\nc\\r\nd\\t\\1\\e\\a\\b\\f\\11");
  EXPECT_EQ(prettyPrintKeepCR(controls, false), "a\\r\\nb\\nc\\rd\\t\\1\\e\\a\\b\\f\\11");
}

TEST(Conversions, HTMLTags) {
  EXPECT_EQ(qvt_stringByRemovingHTMLTags("a<b>c</p>d < e"), "ac\nd < e");
  EXPECT_EQ(qvt_stringByRemovingHTMLTags("x<i>y</p"), "xy</p");
}

TEST(Addresses, PercentEscapes) {
  const std::string legal =
      qvt_stringWithLegalURLCharactersThatShouldBeEscapedIfYouWantToEmbedThemInAURLSafely();
  EXPECT_EQ(qvt_stringByAddingPercentEscapesUsingEncoding("a b/é?x=1", StringEncoding::UTF8, ""),
            "a%20b/%C3%A9?x=1");
  EXPECT_EQ(qvt_stringByAddingPercentEscapesUsingEncoding("a b/é?x=1", StringEncoding::UTF8, legal),
            "a%20b%2F%C3%A9%3Fx%3D1");
  EXPECT_EQ(qvt_stringByAddingPercentEscapesUsingEncoding("€", StringEncoding::ASCII, ""),
            std::nullopt);
}

TEST(DefaultNames, NumberPastTheHighestUsed) {
  const struct {
    const char* defaultString;
    Array used;
    const char* expected;
  } cases[] = {
      {"Calendar", {"Calendar", "Calendar 3"}, "Calendar 4"},
      {"Calendar", {"Calendar"}, "Calendar 2"},
      {"Calendar", {"Calendar 2b", "Calendars 9", "Calendar 0", 7}, "Calendar"},
      {"7", {"7"}, "7 2"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(guessedStringForDefaultString(c.defaultString, c.used), c.expected)
        << c.defaultString << " with " << c.used.description();
}

struct Comparison {
  const char* text;
  const char* other;
  int order;
};

TEST(Comparisons, NumericalCompare) {
  const Comparison cases[] = {
      {"file2", "file10", -1}, {"a01", "a1", 0}, {"B", "a", -1}, {"1.10", "1.9", 1},
  };
  for (const Comparison& c : cases)
    EXPECT_EQ(qvtNumericalCompare(c.text, c.other), c.order) << c.text << " / " << c.other;
}

TEST(Comparisons, CaseAndDiacriticInsensitiveCollation) {
  const Comparison cases[] = {
      {"Ａｂｃ１", "abc1", 0}, {"e\u0301te\u0301", "été", 0}, {"Item 10", "item 9", 1}, {"a-b", "ab", -1},
      {"apple", "Banana", -1},
  };
  for (const Comparison& c : cases)
    EXPECT_EQ(caseInsensitiveDiacriticalCompare(c.text, c.other), c.order)
        << c.text << " / " << c.other;
  EXPECT_EQ(caseInsensitiveDiacriticalCompare("x", std::nullopt), 0);
}

TEST(Comparisons, TrimmedCompareSortsBlanksLast) {
  const Comparison cases[] = {
      {"  Éva ", "eva", 0}, {"abc", "  ", -1}, {" ", "abc", 1}, {"", "", 0},
  };
  for (const Comparison& c : cases)
    EXPECT_EQ(trimmedDiacriticalCompare(c.text, c.other), c.order)
        << '"' << c.text << "\" / \"" << c.other << '"';
}

}  // namespace
}  // namespace pc
