#include "util/SyncCategory.h"

#include <cstdint>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "platform/Exception.h"

namespace pc {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using test::LogCapture;
using namespace SyncCategory;

TEST(UnQuotedString, StripsTheOuterQuotes) {
  const std::pair<const char*, const char*> cases[] = {{"\"", ""}, {"\"a\"b\"c", "a\"b"}, {"abc\"", "abc\""}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(unQuotedString(text), expected) << text;
}

TEST(Truncation, ModifiersMoveTheBudget) {
  const Array lineBreaks{Dictionary{{"stringModifier", "\n"}, {"lengthModifier", -1}}};
  EXPECT_EQ(qvt_truncationToMaxLength("ab\ncd\nef\ngh", 10, lineBreaks), "ab\ncd\ne");
  EXPECT_EQ(qvt_truncationToMaxLength("ab\ncd\nef\ngh", 10), "ab\ncd\nef\ng");

  const Array growing{Dictionary{{"stringModifier", "€"}, {"lengthModifier", 2}},
                      Dictionary{{"stringModifier", "x"}, {"lengthModifier", 0}}};
  EXPECT_EQ(qvt_truncationToMaxLength("€€abcdefgh", 4, growing), "€€abcdef");
  // Occurrences do not overlap.
  EXPECT_EQ(occurrenceNb("aaaaa", "aa"), 2u);

  // Below one character nothing is left.
  EXPECT_EQ(qvt_truncationToMaxLength("\n\n\nabc", 3, lineBreaks), std::nullopt);
  // Lengths are UTF-16 units and a surrogate pair is never cut.
  EXPECT_EQ(qvt_truncationToMaxLength("a😀b", 2), "a");
  EXPECT_EQ(qvt_truncationToMaxLength("a😀b", 3), "a😀");
}

// A text is reported unchanged exactly when the cut would be the text itself.
TEST(Truncation, UnchangedOnlyWhenTheCutIsTheWholeText) {
  const Array lineBreaks{Dictionary{{"stringModifier", "\n"}, {"lengthModifier", -1}}};
  const struct {
    const char* text;
    long length;
    bool withLineBreaks;
  } cases[] = {
      {"abc", 3, false},      {"abcd", 3, false},       {"€€€", 3, false},  {"€€€", 2, false},
      {"a😀", 3, false},      {"a😀", 2, false},        {"ab\xff", 9, false}, {"ab\ncd", 5, false},
      {"ab\ncd", 5, true},   {"ab\ncd", 6, true},     {"", 1, false},     {"\n", 1, true},
  };
  for (const auto& c : cases) {
    const std::optional<Array> modifiers = c.withLineBreaks ? std::optional(lineBreaks) : std::nullopt;
    const std::optional<std::string> cut = qvt_truncationToMaxLength(c.text, c.length, modifiers);
    bool unchanged = true;
    const std::optional<std::string> answer =
        qvt_truncationToMaxLength(c.text, c.length, modifiers, &unchanged);
    EXPECT_EQ(unchanged, cut == std::string(c.text)) << c.text << " " << c.length;
    if (!unchanged) {
      EXPECT_EQ(answer, cut) << c.text << " " << c.length;
    }
  }
}

// Budgets at the ends of the 64-bit range neither wrap nor drop the text.
TEST(Truncation, ExtremeLimitsAndModifiersSaturate) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  const auto per = [](const char* string, std::int64_t length) {
    return Dictionary{{"stringModifier", string}, {"lengthModifier", length}};
  };
  const struct {
    long length;
    Array modifiers;
    std::optional<std::string> expected;
  } cases[] = {
      {kMax, {per("a", 1)}, "aaaaa"},
      {kMax, {per("a", kMax), per("a", kMax)}, "aaaaa"},
      {5, {per("a", kMin)}, std::nullopt},
      {kMin, {per("a", -1)}, std::nullopt},
      {kMin, {per("a", kMax)}, "aaaaa"},
      {3, {per("a", kMax), per("a", -kMax)}, "aaa"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(qvt_truncationToMaxLength("aaaaa", c.length, c.modifiers), c.expected)
        << c.length << " " << Value(c.modifiers).description();
  EXPECT_EQ(qvt_truncationToMaxLength(URL("x:y"), std::numeric_limits<long>::max()), URL("x:y"));
  // Addresses are cut without modifiers.
  EXPECT_EQ(qvt_truncationToMaxLength(URL("http://example.org/long/path"), 18), URL("http://example.org"));
  EXPECT_EQ(qvt_truncationToMaxLength(URL(), 10), std::nullopt);
}

TEST(Truncation, MalformedModifiersAreIgnoredAndLogged) {
  LogCapture log;
  const Array modifiers{"junk", Dictionary{{"stringModifier", 3}, {"lengthModifier", -1}}};
  EXPECT_EQ(qvt_truncationToMaxLength("abcdef", 4, modifiers), "abcd");
  EXPECT_EQ(log.messages().size(), 2u);
}

TEST(ResourceNameAttributes, ReadsStringsAndDictionaries) {
  std::optional<Dictionary> attributes;
  const Dictionary resource{{"Name", "QVTSyncEventTransformer"}, {"maxAlarms", 2}};
  EXPECT_EQ(resourceNameAttributes(resource, &attributes), "QVTSyncEventTransformer");
  ASSERT_TRUE(attributes);
  EXPECT_TRUE(attributes->isIdenticalTo(resource));
  // A description without the entry: no name, no attributes, no report.
  LogCapture log;
  EXPECT_EQ(resourceNameAttributes(Value(), &attributes), std::nullopt);
  EXPECT_TRUE(attributes);
  EXPECT_TRUE(log.messages().empty());
}

TEST(ResourceNameAttributes, ReportsMissingNamesAndRefusesOtherKinds) {
  LogCapture log;
  EXPECT_EQ(resourceNameAttributes(Dictionary{{"Name", 3}}, nullptr), std::nullopt);
  EXPECT_THAT(log.messages(), ElementsAre(HasSubstr("condition \"ret\" failed")));

  try {
    resourceNameAttributes(Array{}, nullptr);
    FAIL() << "no exception";
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), kInvalidArgumentException);
    EXPECT_EQ(exception.reason(), "cannot extract name from the object type: array");
  }
}

TEST(Dictionaries, SlicesInversionsAndRemapping) {
  Dictionary kept{{"a", 1}, {"b", 2}, {"c", 3}};
  qvt_keepKeysFromCollection(kept, Array{"c", "a", "z"});
  EXPECT_EQ(kept.keys(), (Array{"a", "c"}));
  qvt_keepKeysFromCollection(kept, Value());
  EXPECT_TRUE(kept.empty());

  const Dictionary dictionary{{"a", 1}, {"b", 2}, {"c", 1}};
  EXPECT_EQ(phc_slice(dictionary, Array{"a", "c", "x"}), (Dictionary{{"a", 1}, {"c", 1}}));
  EXPECT_EQ(phc_complementSlice(dictionary, Dictionary{{"a", 0}}),
            (Dictionary{{"b", 2}, {"c", 1}}));
  EXPECT_EQ(phc_invertDico(dictionary), (Dictionary{{1, "c"}, {2, "b"}}));
  EXPECT_EQ(phc_remapKeys(dictionary, Dictionary{{"a", "A"}, {"b", "B"}}),
            (Dictionary{{"A", 1}, {"B", 2}}));
  EXPECT_EQ(allUniqueValues(dictionary), (Array{1, 2}));
}

TEST(Dictionaries, EqualityOnSomeKeysAndDuplicates) {
  const Dictionary mine{{"a", 1}, {"b", "x"}, {"c", 5}};
  const Dictionary other{{"a", 1.0}, {"b", "x"}, {"c", 6}};
  EXPECT_TRUE(isEqualToDictionary(mine, other, Array{"a", "b", "missing"}));
  EXPECT_FALSE(isEqualToDictionary(mine, other, Array{"c"}));
  EXPECT_FALSE(isEqualToDictionary(Dictionary{{"b", "x"}}, mine, Set{"a"}));

  Array array{3, "a", 3, 1, "a", 3.0};
  qvt_removeDuplicates(array);
  EXPECT_EQ(array, (Array{3, "a", 1}));
}

TEST(DictionaryHelpers, MapKeepsKeysAndDropsNullResults) {
  const Dictionary prices{{"a", 1}, {"b", 2}, {"c", 3}};
  int factor = 10;
  const Dictionary mapped = phc_map(prices, [](const Value&, const Value& value, void* context) {
    return value.intValue() == 2 ? Value() : Value(value.intValue() * *static_cast<int*>(context));
  }, &factor);
  EXPECT_EQ(mapped, (Dictionary{{"a", 10}, {"c", 30}}));
  EXPECT_EQ(prices.count(), 3u);
}

TEST(DictionaryHelpers, RefreshGivesAnEntryContainersOfItsOwn) {
  const Array shared{Dictionary{{"value", "+1 555"}}};
  Dictionary first{{"phones", shared}, {"name", "Ann"}};
  const Dictionary second{{"phones", shared}};

  const Value refreshed = refreshForKey(first, "phones");
  refreshed.array()[0].dictionary().set("value", "+1 999");
  EXPECT_EQ(first.get("phones").array()[0].dictionary().getString("value"), "+1 999");
  EXPECT_EQ(second.get("phones").array()[0].dictionary().getString("value"), "+1 555");
  EXPECT_EQ(refreshForKey(first, "name"), Value("Ann"));
  EXPECT_TRUE(refreshForKey(first, "missing").isNull());
  EXPECT_FALSE(first.contains("missing"));
}

}  // namespace
}  // namespace pc
