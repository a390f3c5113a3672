#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "platform/Exception.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const TimeZonePtr& paris() {
  static const TimeZonePtr zone = TimeZone::timeZoneWithName("Europe/Paris");
  return zone;
}

CalendarDate parisDate(int year, int month, int day, int hour = 0, int minute = 0) {
  return CalendarDate::dateWithYear(year, month, day, hour, minute, 0, paris());
}

Dictionary timedEvent(const CalendarDate& start, int lengthInMinutes = 60) {
  return Dictionary{{kEngineRecordEntityNameKey, "Calendars.Event"},
                    {"summary", "Stand-up"},
                    {kCalendarsEventStartDate, start},
                    {kCalendarsEventEndDate, start.dateByAddingYears(0, 0, 0, 0, lengthInMinutes, 0)}};
}

Dictionary recurrence(const char* frequency, std::initializer_list<Dictionary::Entry> parts = {}) {
  Dictionary record{{kEngineRecordEntityNameKey, "Calendars.Recurrence"},
                    {kCalendarsRecurrenceFrequency, frequency}};
  for (const auto& [key, value] : parts) record.set(key, value);
  return record;
}

CALTimeRange range(int fromYear, int fromMonth, int fromDay, int toYear, int toMonth, int toDay) {
  return CALTimeRange(CALDateTime::dateWithYear(fromYear, fromMonth, fromDay, 0, 0, 0, paris()).get(),
                      CALDateTime::dateWithYear(toYear, toMonth, toDay, 0, 0, 0, paris()).get());
}

std::vector<std::string> iso(const CALDateList& dates) {
  std::vector<std::string> texts;
  for (const CALDateRef& date : dates) texts.push_back(date->isoStringRepresentation());
  return texts;
}

std::string gmtText(const Value& date) { return date.date().descriptionWithCalendarFormat("%Y-%m-%d %H:%M:%S %Z"); }

TEST(EventExploderTest, BuildsTheRuleFromTheRecurrenceRecord) {
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  CALEventExploder exploder(event, recurrence("monthly", {{kCalendarsRecurrenceInterval, 2},
                                                          {kCalendarsRecurrenceCount, "4"},
                                                          {kCalendarsRecurrenceWeekstartday, "sunday"},
                                                          {kCalendarsRecurrenceBydayfreq, Array{-1}},
                                                          {kCalendarsRecurrenceBydaydays, Array{"friday"}}}));
  EXPECT_EQ(exploder.rule().weekStart(), 0);
  // Every other month on its last Friday, four times.
  EXPECT_THAT(iso(exploder.produceDatesForTimeRange(range(2006, 1, 1, 2008, 1, 1), nullptr, "e1")),
              ElementsAre("20060301T100000+0100", "20060331T100000+0200", "20060526T100000+0200",
                          "20060728T100000+0200"));
}

TEST(EventExploderTest, RejectsUnusableRecurrenceRecords) {
  test::LogCapture log;
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  const auto refusal = [&](const Dictionary& record) -> std::string {
    try {
      CALEventExploder exploder(event, record);
    } catch (const Exception& e) {
      return std::string(e.name()) + ": " + e.reason();
    }
    return "no exception";
  };
  EXPECT_EQ(refusal(recurrence("fortnightly")),
            std::string(kInvalidArgumentException) + ": Invalid frequency: fortnightly");
  EXPECT_NE(refusal(Dictionary{{kCalendarsRecurrenceCount, 2}}), "no exception");
  EXPECT_THAT(log.messages(), Contains(HasSubstr("no frequency in rule")));
  EXPECT_THAT(log.messages(), Contains("Invalid frequency: (null)"));
  EXPECT_EQ(refusal(recurrence("weekly", {{kCalendarsRecurrenceBydayfreq, Array{0, 1}},
                                          {kCalendarsRecurrenceBydaydays, Array{"monday"}}})),
            std::string(kInternalInconsistencyException) + ": |bydayfreq| != |bydaydays|");
  // An unknown day name leaves BYDAY unset; an unknown week start is ignored.
  CALEventExploder lenient(event, recurrence("weekly", {{kCalendarsRecurrenceBydaydays, Array{"monday", "funday"}},
                                                        {kCalendarsRecurrenceWeekstartday, "someday"}}));
  EXPECT_FALSE(lenient.rule().byDay());
  EXPECT_FALSE(lenient.rule().hasWeekStart());
  EXPECT_THAT(log.messages(), Contains("can't map day of week funday"));
}

TEST(EventExploderTest, AssembledEventsNeedExactlyOneRecurrence) {
  test::LogCapture log;
  Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  EXPECT_FALSE(CALEventExploder::CALEventExploderWithAssembledEvent(event));
  event.set(kCalendarsEventRecurrences, Array{Dictionary{}, Dictionary{}});
  EXPECT_FALSE(CALEventExploder::CALEventExploderWithAssembledEvent(event));
  EXPECT_THAT(log.messages(), ElementsAre(HasSubstr("no recurrence rule in"), HasSubstr("several recurrence rule in")));
  event.set(kCalendarsEventRecurrences, Array{recurrence("daily")});
  EXPECT_TRUE(CALEventExploder::CALEventExploderWithAssembledEvent(event));
}

TEST(EventExploderTest, ExclusionsRemoveWholeDays) {
  test::LogCapture log;
  Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  // An exception date at another time of day still removes that day.
  event.set(kCalendarsEventExceptionDates, Array{parisDate(2006, 3, 2, 18)});
  event.set(kCalendarsEventDetachedEvents, Array{"d1", "d2"});
  MemoryTruthSnapshot truth;
  truth.addRecord("e1", event);
  truth.addRecord("d1", Dictionary{{kCalendarsEventOriginalDate, parisDate(2006, 3, 4, 10)}});
  truth.addRecord("d2", Dictionary{{"summary", "moved, without original date"}});
  CALEventExploder exploder(event, recurrence("daily"));

  EXPECT_THAT(iso(exploder.produceDatesForTimeRange(range(2006, 3, 1, 2006, 3, 6), &truth, "e1")),
              ElementsAre("20060301T100000+0100", "20060303T100000+0100", "20060305T100000+0100"));
  EXPECT_THAT(log.messages(), Contains(HasSubstr("corruption in the truth.  detached event with no recurrence id")));
  EXPECT_THAT(iso(exploder.produceDatesForTimeRange(range(2006, 3, 1, 2006, 3, 3), &truth, "e1", true)),
              ElementsAre("20060301T100000+0100", "20060302T100000+0100"));
}

TEST(EventExploderTest, AllDayOriginalDatesAreReadInTheEventsZone) {
  // 22:00 GMT on 13 July is 14 July in Paris, the zone of the event's start.
  Dictionary event{{kCalendarsEventStartDate, parisDate(2007, 7, 10)},
                   {kCalendarsEventAllDay, true},
                   {kCalendarsEventDetachedEvents, Array{"d1"}}};
  MemoryTruthSnapshot truth;
  truth.addRecord("e1", event);
  truth.addRecord("d1", Dictionary{{kCalendarsEventOriginalDate,
                                    CalendarDate::dateWithYear(2007, 7, 13, 22, 0, 0, TimeZone::timeZoneWithName("GMT"))}});
  CALEventExploder exploder(event, recurrence("daily"));
  EXPECT_THAT(iso(exploder.produceDatesForTimeRange(range(2007, 7, 10, 2007, 7, 17), &truth, "e1")),
              ElementsAre("20070710", "20070711", "20070712", "20070713", "20070715", "20070716"));
}

TEST(EventExploderTest, ConversionsCountTheStartAndReachTheLastSupportedYear) {
  test::LogCapture log;
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  // An until date before the start still leaves the start: one occurrence,
  // not a count of 0, which would mean no end at all.
  const Dictionary early = CALEventExploder::convertRuleFromUntilDateToCount(
      recurrence("daily", {{kCalendarsRecurrenceUntil, parisDate(2006, 2, 1)}}), event);
  EXPECT_EQ(early.getInteger(kCalendarsRecurrenceCount), 1);
  CALEventExploder converted(event, early);
  EXPECT_THAT(iso(converted.produceDatesForTimeRange(range(2006, 1, 1, 2007, 1, 1), nullptr, "e1")),
              ElementsAre("20060301T100000+0100"));

  struct Case {
    const char* frequency;
    CalendarDate start;
    int count;
    const char* until;
  };
  const std::vector<Case> cases = {
      {"yearly", parisDate(2006, 3, 1, 10), 995, "3000-03-01 22:59:59 GMT"},
      {"yearly", parisDate(2006, 3, 1, 10), 1280, "3285-03-01 22:59:59 GMT"},
      {"daily", parisDate(3100, 3, 1, 10), 3, "3100-03-03 22:59:59 GMT"},
  };
  for (const Case& c : cases) {
    const Dictionary record = CALEventExploder::convertRuleFromCountToUntilDate(
        recurrence(c.frequency, {{kCalendarsRecurrenceCount, c.count}}), timedEvent(c.start));
    EXPECT_FALSE(record.contains(kCalendarsRecurrenceCount)) << c.until;
    EXPECT_EQ(gmtText(record.get(kCalendarsRecurrenceUntil)), c.until);
  }
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("not enought result"))));
}

// A rule changed through the exploder's accessor answers from the new rule,
// not from what it cached before.
TEST(EventExploderTest, ChangingTheRuleChangesTheOccurrences) {
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  CALEventExploder exploder(event, recurrence("daily"));
  EXPECT_EQ(exploder.produceDatesForTimeRange(range(2006, 3, 1, 2006, 3, 8), nullptr, "e1").size(), 7u);
  exploder.rule().setCount(2);
  EXPECT_EQ(exploder.produceDatesForTimeRange(range(2006, 3, 1, 2006, 3, 8), nullptr, "e1").size(), 2u);
}

TEST(EventExploderTest, EventsForDatesMoveACleanCopy) {
  Dictionary event = timedEvent(parisDate(2006, 3, 1, 10), 90);
  event.set(kCalendarsEventRecurrences, Array{recurrence("daily")});
  event.set(kCalendarsEventExceptionDates, Array{parisDate(2006, 3, 2)});
  CALEventExploder exploder(event, recurrence("daily"));
  const Array events = exploder.eventsForDates({CALDateTime::dateWithYear(2006, 3, 3, 10, 0, 0, paris())});
  ASSERT_EQ(events.count(), 1u);
  const Dictionary occurrence = events[0].dictionary();
  EXPECT_FALSE(occurrence.contains(kCalendarsEventRecurrences));
  EXPECT_FALSE(occurrence.contains(kCalendarsEventExceptionDates));
  EXPECT_EQ(occurrence.get(kCalendarsEventStartDate).date().timeIntervalSinceReferenceDate() + 5400,
            occurrence.get(kCalendarsEventEndDate).date().timeIntervalSinceReferenceDate());
  EXPECT_TRUE(event.contains(kCalendarsEventRecurrences));
}

TEST(EventExploderTest, CountToUntilDateRetriesWhenTheEstimateFallsShort) {
  test::LogCapture log;
  const Dictionary event = timedEvent(parisDate(2006, 1, 31, 9));
  const Dictionary converted = CALEventExploder::convertRuleFromCountToUntilDate(
      recurrence("monthly", {{kCalendarsRecurrenceCount, 12}}), event);
  // Twelve months that have a 31st: January 2006 to August 2007.
  EXPECT_EQ(gmtText(converted.get(kCalendarsRecurrenceUntil)), "2007-08-31 21:59:59 GMT");
  EXPECT_THAT(log.messages(), Contains("not enought result 8 over 12"));
  EXPECT_THAT(log.messages(), Contains("one more try"));
}

// A rule that gives fewer dates than its count up to the last supported year
// keeps its count; the tries stop once the range has reached that year.
TEST(EventExploderTest, CountToUntilDateStopsAtTheLastSupportedYear) {
  test::LogCapture log;
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  const Dictionary never = recurrence("yearly", {{kCalendarsRecurrenceCount, 3},
                                                 {kCalendarsRecurrenceBymonth, Array{2}},
                                                 {kCalendarsRecurrenceBymonthday, Array{30}}});
  const Dictionary converted = CALEventExploder::convertRuleFromCountToUntilDate(never.copy(), event);
  EXPECT_EQ(converted.getInteger(kCalendarsRecurrenceCount), 3);
  EXPECT_FALSE(converted.contains(kCalendarsRecurrenceUntil));
  const auto messages = log.messages();
  const auto tries = std::count(messages.begin(), messages.end(), "one more try");
  EXPECT_GT(tries, 0);
  EXPECT_LT(tries, 9);
}

TEST(EventExploderTest, CountToUntilDateLeavesBadRecordsAlone) {
  test::LogCapture log;
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  for (const Dictionary& bad : {recurrence("daily"), recurrence("daily", {{kCalendarsRecurrenceCount, 0}}),
                                recurrence("hourly", {{kCalendarsRecurrenceCount, 2}})})
    EXPECT_EQ(CALEventExploder::convertRuleFromCountToUntilDate(bad.copy(), event), bad);
  EXPECT_THAT(log.messages(), Contains("no count"));
  EXPECT_THAT(log.messages(), Contains("count negative: 0"));
  EXPECT_THAT(log.messages(), Contains("incorrect recur type: hourly"));
}

TEST(EventExploderTest, UntilDateToCountAndToLastOccurrence) {
  const Dictionary event = timedEvent(parisDate(2006, 3, 1, 10));
  const Dictionary weekly = recurrence("weekly", {{kCalendarsRecurrenceUntil, parisDate(2006, 3, 25, 8)}});
  EXPECT_EQ(CALEventExploder::convertRuleFromUntilDateToCount(weekly.copy(), event).getInteger(kCalendarsRecurrenceCount), 4);
  const Dictionary last = CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate(weekly.copy(), event);
  EXPECT_EQ(gmtText(last.get(kCalendarsRecurrenceUntil)), "2006-03-22 22:59:59 GMT");

  // All-day events keep the day itself.
  Dictionary allDay{{kCalendarsEventStartDate, CalendarDate::dateWithYear(2006, 3, 1, 0, 0, 0)},
                    {kCalendarsEventAllDay, true}};
  const Dictionary allDayLast = CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate(
      recurrence("daily", {{kCalendarsRecurrenceUntil, CalendarDate::dateWithYear(2006, 3, 3, 0, 0, 0)}}), allDay);
  EXPECT_EQ(gmtText(allDayLast.get(kCalendarsRecurrenceUntil)), "2006-03-03 00:00:00 GMT");
}

}  // namespace
}  // namespace pc
