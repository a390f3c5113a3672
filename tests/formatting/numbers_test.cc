// Priorities, phone numbers and the value operations on text.

#include <gmock/gmock.h>

#include "FormattingFixture.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

TEST(NumbersTest, PrioritiesAreQuantisedToWhatThePhoneHolds) {
  auto methods = test::makeFormatter();
  // Halves round to even; a phone with a single priority maps everything onto it.
  const struct {
    int priority, max, none, want;
  } cases[] = {{3, 3, 0, 1}, {6, 3, 0, 5}, {7, 3, 0, 9}, {0, 3, 0, 0}, {0, 3, 3, 9}, {2, 5, 0, 1}, {7, 1, 0, 1}};
  for (const auto& c : cases)
    EXPECT_EQ(methods->mapPriorityLikeAlmanac(c.priority, c.max, c.none), Value(c.want))
        << c.priority << " on 1.." << c.max << " none " << c.none;
  // A value that survives the round trip is answered as received.
  EXPECT_EQ(methods->mapPriorityLikeAlmanac("5", 3, 0), Value("5"));

  test::LogCapture log;
  EXPECT_EQ(methods->mapPriorityLikeAlmanac(12, 3, 0), Value(9));
  EXPECT_TRUE(log.contains("strange val is too big parameter invalid"));
}

TEST(NumbersTest, PhoneNumbersKeepDigitsAndALeadingPlus) {
  auto methods = test::makeFormatter();
  EXPECT_EQ(methods->removeAllNonDigitButFirstPlus(Value("+33 (1) 23-45")), Value("+3312345"));
  EXPECT_EQ(methods->removeAllNonDigitButFirstPlus(Value("12p34*#+5")), Value("12p34*#5"));
  EXPECT_EQ(methods->removeAllNonDigitButFirstPlusS55(Value("+12p34*#")), Value("+1234*#"));
  EXPECT_EQ(methods->convertPhoneNameToPhoneNumber(Value("1-800-CALLNOW")), Value("1-800-2255669"));
  EXPECT_EQ(FormattingMethods::convertPhoneNameToPhoneNumber(std::string_view("PQRS TUV WXYZ")),
            "7777 888 9999");

  test::LogCapture log;
  EXPECT_EQ(FormattingMethods::removeAllButFirstPlus(std::string("+1 a"), nullptr), "+1 a");
  EXPECT_TRUE(log.contains("condition \"junk\" failed"));
}

TEST(NumbersTest, TextValueOperations) {
  auto methods = test::makeFormatter();
  EXPECT_EQ(methods->maxLength(Value("abcdef"), 4), Value("abcd"));
  EXPECT_EQ(methods->maxLengthForVObjectPropValue(Value("ab\ncd"), 4), Value("ab\n"));
  EXPECT_TRUE(methods->maxLength(Value("abc"), 0).isNull());
  EXPECT_EQ(methods->maxURLLength(Value(URL("http://example.org/x")), 10), Value(URL("http://exa")));
  EXPECT_EQ(methods->maxLength(Value(42), 1), Value(42));  // not text: unchanged

  EXPECT_EQ(methods->mapString("work", Dictionary{{"home", "H"}}), Value("work"));
  EXPECT_EQ(methods->removeBadCharactersFromString(Value("a-b c.d"), "abcd"), Value("abcd"));
  EXPECT_EQ(methods->replaceWhiteSpaceByHyphen(Value("Jean  Pierre Paul")), Value("Jean-Pierre-Paul"));
}

}  // namespace
}  // namespace pc
