// The event transformer's recurrence stages: which rules the phone keeps,
// exception dates and detached occurrences on the way to the phone and back,
// date-only until dates, and recurrence records formatted for the phone.
// Run under several system zones (see ctest): nothing here may depend on it.

#include <gmock/gmock.h>

#include "EventStagesFixture.h"
#include "support/LogCapture.h"

namespace pc::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

CalendarDate ny(int y, int m, int d, int h = 0, int mi = 0) { return dateIn("America/New_York", y, m, d, h, mi); }

Dictionary withRules(Dictionary event, const Array& rules) {
  event.set(kCalendarsEventRecurrences, rules);
  return event;
}

TEST(EventRecurrenceDecision, FlagsEventKindsAndTheNextZone) {
  // 2024-01-08 is a Monday; the phone will be set to Paris.
  const Dictionary noon = eventAt(ny(2024, 1, 8, 12)), lateMonday = eventAt(ny(2024, 1, 8, 23, 30));
  const Dictionary allDay = allDayEvent(2024, 1, 8), threeDays = eventAt(ny(2024, 1, 8, 9), 3 * 86400.0);
  const Array weekly{recurrence("weekly")};
  struct Case {
    const char* name;
    Dictionary properties, event;
    Array rules;
    bool brisalde, expected;
    const char* log;
  };
  const Case cases[] = {
      {"full recurrence", {{"hasFullRecurrence", 1}, {"handleAllDayRecurrent", 0}}, allDay, weekly, false, true, nullptr},
      {"all-day refused", {{"hasVCalRecurrence", 1}, {"handleAllDayRecurrent", 0}}, allDay, weekly, false, false,
       "Exploding recurrence rule, because device doesn't support recurrent all-day events"},
      {"multi-day refused", {{"hasVCalRecurrence", 1}, {"handleMultiDayRecurrent", 0}}, threeDays, weekly, false, false,
       "Exploding recurrence rule, because device doesn't support recurrent multi-day events"},
      {"Monday 23:30 is Tuesday there", {{"hasVCalRecurrence", 1}}, lateMonday, weekly, false, false,
       "event crosses day boundary, exploding!!"},
      {"Monday noon is safe", {{"hasVCalRecurrence", 1}}, noon, weekly, false, true, "this one is safe"},
      {"zone not checked in that mode", {{"hasVCalRecurrence", 1}}, lateMonday, weekly, true, true, nullptr},
      {"agent parser", {{"hasSymbianRecurrence", 1}}, noon, weekly, false, true, "we are on symbian"},
      {"no recurrence kind", Dictionary(), noon, weekly, false, false, nullptr},
      {"two rules", {{"hasFullRecurrence", 1}}, noon, {recurrence("weekly"), recurrence("daily")}, false, false,
       "whaow, two recurrence rules"},
      {"no rule", {{"hasFullRecurrence", 1}}, noon, Array(), false, false, "this event is not recurrent\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestHost host;
    host.nextZone = TimeZone::timeZoneWithName("Europe/Paris");
    host.brisalde = c.brisalde;
    auto stages = makeStages(c.properties, &host);
    LogCapture log;
    RecordHolder holder(withRules(c.event, c.rules), "E1");
    EXPECT_EQ(stages->deviceSupportRecurrentEvent(holder), c.expected);
    if (c.log) {
      EXPECT_THAT(log.messages(), Contains(HasSubstr(c.log)));
    }
  }
}

TEST(EventRecurrenceDecision, ParsersAndTheirRawProperties) {
  TestHost host;
  auto parser = std::make_shared<RuleParser>();
  parser->answer = false;
  host.parser = parser;
  host.stored.set("E1", Dictionary{{"RawProperties", Dictionary{{"RRULE", "W1 MO"}}}});
  auto stages = makeStages(Dictionary{{"hasVCalRecurrence", true}}, &host);
  RecordHolder holder(withRules(eventAt(ny(2024, 1, 8, 12)), Array{recurrence("weekly")}), "E1");
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(holder));
  ASSERT_TRUE(parser->extraProperties);
  EXPECT_EQ(parser->extraProperties->getString("RRULE"), "W1 MO");

  LogCapture log;
  host.parser = nullptr;
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(holder));
  EXPECT_TRUE(log.contains("condition \"parser\" failed"));
  EXPECT_FALSE(makeStages(Dictionary{{"hasSymbianRecurrence", true}}, &host)->deviceSupportRecurrentEvent(holder));
  EXPECT_TRUE(log.contains("condition \"agentParser\" failed"));
}

TEST(EventRecurrenceExDates, DetachedDatesFoldedInAndTakenOutAgain) {
  // Daily at 10:00 New York, across the spring change, with one exception
  // date and three detached occurrences, one of them on the exception date.
  TestHost host;
  const CalendarDate start = ny(2024, 3, 5, 10), own = ny(2024, 3, 7, 10);
  const CalendarDate detachedA = ny(2024, 3, 9, 10), detachedB = ny(2024, 3, 11, 10);
  Dictionary master = withRules(eventAt(start), Array{recurrence("daily")});
  master.set(kCalendarsEventDetachedEvents, Array{"D2", "D1", "D3"});
  host.truth->addRecord("E1", master);
  host.truth->addRecord("D1", Dictionary{{kCalendarsEventOriginalDate, detachedA}});
  host.truth->addRecord("D2", Dictionary{{kCalendarsEventOriginalDate, detachedB}});
  host.truth->addRecord("D3", Dictionary{{kCalendarsEventOriginalDate, own}});
  master.set(kCalendarsEventExceptionDates, Array{own, "not a date"});
  auto stages = makeStages(Dictionary(), &host, "America/New_York");
  RecordHolder holder(master, "E1");
  Dictionary record = holder.mutableDictionary();

  stages->_mangleRecurrenceBeforeTimeZoneMangling(holder, false);
  EXPECT_EQ(record.getArray(kCalendarsEventExceptionDates), (Array{own, detachedA, detachedB}));
  stages->_mangleRecurrenceAfterTimeZoneMangling(holder);  // the phone keeps days
  EXPECT_EQ(textIn(record.getArray(kCalendarsEventExceptionDates)->at(2)), "2024-03-11 12:00:00");

  stages->_unmangleRecurrenceBeforeTimeZoneUnMangling(holder);
  EXPECT_EQ(record.getArray(kCalendarsEventExceptionDates)->at(2), Value(detachedB));
  stages->_unmangleRecurrenceAfterTimeZoneUnMangling(holder, start.timeZone());
  EXPECT_EQ(record.getArray(kCalendarsEventExceptionDates), (Array{own}));

  // A converted all-day event: detached dates at midnight on the phone.
  const Array midnights = stages->privateConvertArrayToTimedCalendarDate(
      Array{CalendarDate::dateWithYear(2024, 2, 29, 12, 0, 0), 12});
  ASSERT_EQ(midnights.count(), 1u);
  EXPECT_EQ(textIn(midnights[0], "America/New_York"), "2024-02-29 00:00:00");

  LogCapture log;
  record.remove(kCalendarsEventStartDate);
  stages->_unmangleRecurrenceBeforeTimeZoneUnMangling(holder);
  EXPECT_THAT(log.messages(), Contains(HasSubstr("exdate with not start date: ")));
}

TEST(EventRecurrenceUntil, DateOnlyUntilThereAndBack) {
  // The last start is 23:30 in New York, already the next day in Paris.
  const CalendarDate start = ny(2024, 3, 1, 23, 30);
  Dictionary rule = recurrence("daily");
  rule.set(kCalendarsRecurrenceUntil, ny(2024, 3, 20, 23, 30));
  auto stages = makeStages(Dictionary(), nullptr, "Europe/Paris");
  RecordHolder holder(withRules(eventAt(start), Array{rule, recurrence("weekly")}));
  stages->_mangleRecurrenceBeforeTimeZoneMangling(holder, false);
  stages->_mangleRecurrenceAfterTimeZoneMangling(holder);
  Array sent = holder.mutableDictionary().getArray(kCalendarsEventRecurrences).value();
  ASSERT_EQ(sent.count(), 1u);
  EXPECT_EQ(textIn(sent[0].dictionary().get(kCalendarsRecurrenceUntil)), "2024-03-21 12:00:00");

  // Back from the phone: the end of the until's day in the event's zone.
  sent[0].dictionary().set(kCalendarsRecurrenceUntil, CalendarDate::dateWithYear(2024, 3, 20, 12, 0, 0));
  stages->_unmangleRecurrenceAfterTimeZoneUnMangling(holder, start.timeZone());
  const Value until =
      holder.mutableDictionary().getArray(kCalendarsEventRecurrences)->at(0).dictionary().get(kCalendarsRecurrenceUntil);
  EXPECT_EQ(textIn(until, "America/New_York"), "2024-03-20 23:59:59");
}

Dictionary ownedRule(std::initializer_list<Dictionary::Entry> parts) {
  Dictionary rule = recurrence("daily");
  rule.set(kCalendarsRecurrenceOwner, Array{eventAt(dateIn("Europe/Paris", 2006, 3, 1, 10))});
  for (const auto& [key, value] : parts) rule.set(key, value);
  return rule;
}

TEST(EventRecurrenceFormat, DefaultLimitsAndConversions) {
  const Value until = "2006-12-31 10:00:00 +0000";
  struct Case {
    Dictionary properties;
    Dictionary rule;
    std::int64_t count;  // 0: none
    const char* until;   // in Paris, "" for none
  };
  const Case cases[] = {
      {{{"countValueWhenMissing", 7}, {"untilDateValueWhenMissing", until}}, ownedRule({}), 7, ""},
      {{{"untilDateValueWhenMissing", until}}, ownedRule({}), 0, "2006-12-31 23:59:59"},
      {{{"countValueWhenMissing", 5}, {"needsToFormatCountToUntilDate", 1}}, ownedRule({}), 0, "2006-03-05 23:59:59"},
      {{{"needsToFormatUntilDateToCount", 1}, {"untilDateIsDateOnly", 0}},
       ownedRule({{kCalendarsRecurrenceUntil, dateIn("Europe/Paris", 2006, 3, 4, 12)}}), 4, ""},
      {{{"untilDateIsDateOnly", 0}}, ownedRule({{kCalendarsRecurrenceUntil, dateIn("Europe/Paris", 2006, 3, 5, 8)}}), 0,
       "2006-03-04 23:59:59"},
      // Wrong shapes are kept as they are, never lost.
      {{{"needsToFormatCountToUntilDate", 1}}, Dictionary{{kCalendarsRecurrenceCount, 3}}, 3, ""},
      {{{"needsToFormatCountToUntilDate", 1}},
       Dictionary{{kCalendarsRecurrenceCount, 2}, {kCalendarsRecurrenceUntil, "soon"}}, 2, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.properties.description() + c.rule.description());
    const std::optional<Dictionary> rule = makeStages(c.properties)->formatRecurrence(c.rule.deepCopy());
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->getInteger(kCalendarsRecurrenceCount), c.count);
    EXPECT_EQ(*c.until ? textIn(rule->get(kCalendarsRecurrenceUntil), "Europe/Paris") : "", c.until);
  }
}

TEST(EventRecurrenceYearly, BirthdaysMovedPastTheLimit) {
  auto stages = makeStages(Dictionary{{"dontSyncEventBeforeDate", "2025-06-01 00:00:00 +0000"}});
  const struct {
    CalendarDate start;
    const char* frequency;
    const char* expected;
  } cases[] = {
      {dateIn("Europe/Paris", 1950, 7, 14, 9), "yearly", "2025-07-14 09:00:00"},
      {dateIn("Europe/Paris", 1990, 3, 2, 9), "yearly", "2026-03-02 09:00:00"},
      {dateIn("Europe/Paris", 1960, 2, 29, 8), "yearly", "2026-03-01 08:00:00"},
      {dateIn("Europe/Paris", 1990, 3, 2, 9), "monthly", "1990-03-02 09:00:00"},
      {dateIn("Europe/Paris", 2040, 3, 2, 9), "yearly", "2040-03-02 09:00:00"},
  };
  for (const auto& c : cases) {
    const Dictionary moved = stages->formatYearlyEvent(withRules(eventAt(c.start, 7200), Array{recurrence(c.frequency)}));
    EXPECT_EQ(textIn(moved.get(kCalendarsEventStartDate), "Europe/Paris"), c.expected);
    EXPECT_EQ(moved.get(kCalendarsEventEndDate), Value(moved.get(kCalendarsEventStartDate).date().dateByAddingTimeInterval(7200)));
  }
  LogCapture log;
  stages->formatYearlyEvent(Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}});
  EXPECT_THAT(log.messages(), Contains(HasSubstr("event with no start date or end date:")));
}

}  // namespace
}  // namespace pc::test
