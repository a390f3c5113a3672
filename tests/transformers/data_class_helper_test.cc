// The common base of the data-class helpers: configuration by key, field
// pre-formatting and truncation through the phone's formatting methods.

#include <gtest/gtest.h>

#include "formatting/FormattingFixture.h"
#include "platform/Exception.h"
#include "support/LogCapture.h"
#include "transformers/QVTSyncDataClassHelper.h"

namespace pc::test {
namespace {

std::shared_ptr<QVTSyncDataClassHelper> helperWith(const Dictionary& properties,
                                                   bool withMethods = true) {
  auto helper = std::make_shared<QVTSyncDataClassHelper>();
  helper->initWithProperties(properties);
  if (withMethods) helper->setFormattingMethods(makeFormatter());
  return helper;
}

TEST(DataClassHelper, TruncationCountsLineFeedsTwiceUnlessTold) {
  LogCapture log;
  auto twice = helperWith(Dictionary());
  auto once = helperWith(Dictionary{{"needsLFCount2X", 0}, {"foo", 3}});
  EXPECT_TRUE(log.contains("ignored: foo -> 3"));
  EXPECT_EQ(twice->truncateString("ab\ncd", 4, "notes", "Contacts.Contact"), Value("ab\n"));
  EXPECT_EQ(once->truncateString("ab\ncd", 4, "notes", "Contacts.Contact"), Value("ab\nc"));

  auto bare = helperWith(Dictionary(), false);
  EXPECT_TRUE(bare->truncateString("abc", 1, "f", "e").isNull());
  EXPECT_EQ(bare->phoneTimeZoneForFormatting(), nullptr);
  EXPECT_TRUE(log.contains("condition \"_methods\" failed"));
}

TEST(DataClassHelper, PreFormattingReducesTextOnly) {
  auto both = helperWith(Dictionary{{"onlyAsciiCharacters", "YES"}, {"noNewLines", true}});
  LogCapture log;
  EXPECT_EQ(both->preFormatField("Caf\xC3\xA9\nbar", "notes", "Contacts.Contact"),
            Value("Cafe bar"));
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[1].message,
            "Removed new lines from: <Caf\xC3\xA9\nbar>\nResult: <Cafe bar>");
  for (const Value& other : {Value(12), Value(Data::fromString("\n")), Value(Array{"\n"})})
    EXPECT_EQ(both->preFormatField(other, "a", "e"), other);

  const Dictionary record{{"a", 1}};
  EXPECT_TRUE(both->formatRecord(record)->isIdenticalTo(record));
}

TEST(DataClassHelper, EntitiesAreEachSubclassesOwn) {
  QVTSyncDataClassHelper helper;
  try {
    helper.allPossibleEntities();
    FAIL() << "no exception";
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), kNotImplementedInSubClass);
  }
}

}  // namespace
}  // namespace pc::test
