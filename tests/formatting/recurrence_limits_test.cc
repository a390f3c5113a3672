// Recurrence limits converted through the owner event, and week-day order.

#include <gmock/gmock.h>

#include "FormattingFixture.h"
#include "engine/SchemaNames.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

Dictionary event(int year, int month, int day, int hour) {
  const CalendarDate start = test::dateIn("Europe/Paris", year, month, day, hour);
  return Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent},
                    {kCalendarsEventStartDate, start},
                    {kCalendarsEventEndDate, start.dateByAddingTimeInterval(3600)}};
}

Dictionary rule(std::initializer_list<Dictionary::Entry> parts) {
  Dictionary record{{kEngineRecordEntityNameKey, kCalendarsRecurrence},
                    {kCalendarsRecurrenceFrequency, "daily"}};
  for (const auto& [key, value] : parts) record.set(key, value);
  return record;
}

TEST(RecurrenceLimitsTest, CountBecomesUntilThroughTheOwnerInTheSnapshot) {
  auto snapshot = std::make_shared<MemoryTruthSnapshot>();
  snapshot->addRecord("event-1", event(2006, 3, 1, 10));
  auto methods = test::makeFormatter();
  methods->_setSnapShot(snapshot);
  Dictionary counted = rule({{kCalendarsRecurrenceCount, 5}, {kCalendarsRecurrenceOwner, Array{"event-1"}}});
  const Value converted = methods->convertRecurrenceLimitToDate(counted);
  ASSERT_TRUE(converted.isDictionary());
  EXPECT_FALSE(converted.dictionary().contains(kCalendarsRecurrenceCount));
  EXPECT_EQ(test::textIn(converted.dictionary().get(kCalendarsRecurrenceUntil)), "2006-03-05 22:59:59");

  // Without a count there is nothing to convert.
  Dictionary open = rule({{kCalendarsRecurrenceOwner, Array{"event-1"}}});
  EXPECT_TRUE(methods->convertRecurrenceLimitToDate(open).dictionary().isIdenticalTo(open));
}

TEST(RecurrenceLimitsTest, UntilBecomesCountOrLastOccurrenceWithAnInlineOwner) {
  auto methods = test::makeFormatter();
  const Array owner{event(2006, 3, 1, 10)};
  const CalendarDate until = test::dateIn("Europe/Paris", 2006, 3, 25, 8);
  Dictionary weekly = rule({{kCalendarsRecurrenceFrequency, "weekly"}, {kCalendarsRecurrenceUntil, until},
                            {kCalendarsRecurrenceOwner, owner}});
  EXPECT_EQ(methods->convertRecurrenceLimitToCount(weekly.deepCopy()).dictionary().getInteger(kCalendarsRecurrenceCount), 4);
  EXPECT_EQ(test::textIn(methods->convertRecurrenceLimitToLastOcurrenceDate(weekly.deepCopy())
                             .dictionary().get(kCalendarsRecurrenceUntil)),
            "2006-03-22 22:59:59");
}

TEST(RecurrenceLimitsTest, RecurrenceWithoutOwner) {
  auto methods = test::makeFormatter();
  test::LogCapture log;
  Dictionary counted = rule({{kCalendarsRecurrenceCount, 5}});
  EXPECT_TRUE(methods->convertRecurrenceLimitToDate(counted).isNull());
  EXPECT_THAT(log.messages(), ::testing::Contains(::testing::HasSubstr("strange recurrence:\n")));
  Dictionary until = rule({{kCalendarsRecurrenceUntil, test::dateIn("GMT", 2006, 1, 1)}});
  EXPECT_TRUE(methods->convertRecurrenceLimitToCount(until).dictionary().isIdenticalTo(until));
  EXPECT_TRUE(methods->convertRecurrenceLimitToLastOcurrenceDate(until).dictionary().isIdenticalTo(until));
}

TEST(RecurrenceLimitsTest, DaysAreSortedInWeekOrderWithTheirFrequencies) {
  auto methods = test::makeFormatter();
  Dictionary recurrence = rule({{kCalendarsRecurrenceBydaydays, Array{"friday", "monday", "blursday", "friday"}},
                                {kCalendarsRecurrenceBydayfreq, Array{1, 2, 3, -1}}});
  methods->standardFormatRecurrence(recurrence);
  EXPECT_EQ(recurrence.get(kCalendarsRecurrenceBydaydays), Value(Array{"monday", "friday"}));
  EXPECT_EQ(recurrence.get(kCalendarsRecurrenceBydayfreq), Value(Array{2, -1}));

  // Lists of different lengths are left alone.
  Dictionary uneven = rule({{kCalendarsRecurrenceBydaydays, Array{"friday", "monday"}},
                            {kCalendarsRecurrenceBydayfreq, Array{1}}});
  methods->formatRecurrenceSortByDayDays(uneven);
  EXPECT_EQ(uneven.get(kCalendarsRecurrenceBydaydays), Value(Array{"friday", "monday"}));
}

}  // namespace
}  // namespace pc
