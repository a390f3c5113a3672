#include "transformers/CalendarUtilities.h"

#include <gtest/gtest.h>

#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using test::LogCapture;
using namespace CalendarUtilities;
using namespace CalendarExtension;

const TimeZonePtr kNewYork = TimeZone::timeZoneWithName("America/New_York");
const TimeZonePtr kParis = TimeZone::timeZoneWithName("Europe/Paris");
const TimeZonePtr kSaoPaulo = TimeZone::timeZoneWithName("America/Sao_Paulo");
const TimeZonePtr kGMT = TimeZone::gmt();

CalendarDate at(int y, int mo, int d, int h, int mi, const TimeZonePtr& zone, int s = 0) {
  return CalendarDate::dateWithYear(y, mo, d, h, mi, s, zone);
}
Dictionary record(const char* entity, Dictionary fields = {}) {
  fields.set(kEngineRecordEntityNameKey, entity);
  return fields;
}
Value firstOf(const Dictionary& r, const char* relation, const char* key) {
  return r.getArray(relation)->at(0).dictionary().get(key);
}
bool sameDateAndZone(const Value& value, const CalendarDate& date) {
  return value.isDate() && value.date().isEqualIncludingTimeZone(date);
}
const char* kFrequency = kCalendarsRecurrenceFrequency;
const char* kDays = kCalendarsRecurrenceBydaydays;

TEST(Classification, EntitiesFlagsAndSpans) {
  LogCapture log;
  EXPECT_FALSE(_isEvent(Dictionary{}));
  EXPECT_EQ(log.find("condition \"type\" failed")->type, "QVT");

  // The all-day flags count only on their own entity.
  EXPECT_TRUE(isAllDayEventOrTask(record(kCalendarsTask, {{kCalendarsTaskDueDateIsDateOnly, 1}})));
  EXPECT_FALSE(isAllDayEventOrTask(record(kCalendarsTask, {{kCalendarsEventAllDay, true}})));

  const CalendarDate start = at(2026, 3, 7, 10, 0, kNewYork);  // the day crosses a DST change
  auto lasting = [&](double seconds) {
    return record(kCalendarsEvent, {{kCalendarsEventStartDate, start},
                                    {kCalendarsEventEndDate, start.dateByAddingTimeInterval(seconds)}});
  };
  EXPECT_FALSE(isMultiDayEvent(lasting(86400)));
  EXPECT_TRUE(isMultiDayEvent(lasting(86401)));

  const std::pair<Dictionary, bool> yearly[] = {
      {{{kFrequency, "yearly"}, {kCalendarsRecurrenceBymonth, Array{}}}, true},
      {{{kFrequency, "yearly"}, {kCalendarsRecurrenceInterval, 2}}, false},
      {{{kFrequency, "yearly"}, {kCalendarsRecurrenceBysetpos, Array{-1}}}, false},
  };
  for (const auto& [rule, simple] : yearly)
    EXPECT_EQ(qvt_isSimpleYearlyEvent(rule), simple) << rule.description();
}

TEST(Alarms, FirstAlarmAbsoluteDateAndReference) {
  const CalendarDate trigger = at(2026, 5, 1, 9, 0, kParis);
  const Dictionary display{{kCalendarsDisplayAlarmTriggerdate, trigger}};
  const Dictionary audio{{kCalendarsAudioAlarmTriggerduration, -900}};
  std::string relation;
  // Display alarms win even when the audio ones come first.
  const Dictionary both = record(kCalendarsEvent, {{kCalendarsEventAudioAlarms, Array{audio}},
                                                   {kCalendarsEventDisplayAlarms, Array{display}}});
  EXPECT_TRUE(getFirstAlarmWithRelation(both, &relation)->isIdenticalTo(display));
  EXPECT_EQ(relation, kCalendarsEventDisplayAlarms);
  EXPECT_EQ(getFirstAlarmDate(both), trigger);

  const CalendarDate reference = at(2026, 5, 2, 10, 0, kParis);
  EXPECT_EQ(getAbsoluteAlarmForReferenceDate(audio, reference), at(2026, 5, 2, 9, 45, kParis));

  // All-day dates count from midnight of their day in the zone asked for.
  bool allDay = false;
  const Dictionary allDayEvent = record(kCalendarsEvent, {{kCalendarsEventAllDay, true},
                                                         {kCalendarsEventStartDate, allDayDateWithYear(2026, 3, 8)}});
  EXPECT_EQ(referenceDateForAlarmComputationInTimeZone(allDayEvent, kNewYork, &allDay), at(2026, 3, 8, 0, 0, kNewYork));
  EXPECT_TRUE(allDay);
  const Dictionary task =
      record(kCalendarsTask, {{kCalendarsTaskDueDate, reference}, {kCalendarsEventStartDate, trigger}});
  EXPECT_EQ(referenceDateForAlarmComputationInTimeZone(task, kSaoPaulo, &allDay), reference);
  EXPECT_FALSE(allDay);
}

TEST(Zones, DateConversions) {
  const CalendarDate evening = at(2026, 1, 1, 23, 30, kNewYork, 15);  // Jan 2 in GMT
  EXPECT_TRUE(convertInTimeZone(evening, kParis).isEqualIncludingTimeZone(at(2026, 1, 1, 23, 30, kParis, 15)));
  EXPECT_EQ(convertToMidnightInTimeZone(evening, kGMT), at(2026, 1, 1, 0, 0, kGMT));
  EXPECT_EQ(convertToMiddayInTimeZone(evening, kParis), at(2026, 1, 1, 12, 0, kParis));
  // Wall clocks skipped by a change of offset read as the instant after it.
  EXPECT_EQ(convertInTimeZone(at(2026, 3, 8, 2, 30, kGMT), kNewYork), at(2026, 3, 8, 7, 30, kGMT));
  EXPECT_EQ(convertToMidnightInTimeZone(at(2018, 11, 4, 12, 0, kGMT), kSaoPaulo), at(2018, 11, 4, 3, 0, kGMT));
  EXPECT_TRUE(allDayDateWithYear(2026, 2, 29).isEqualIncludingTimeZone(at(2026, 3, 1, 12, 0, kGMT)));
}

TEST(Zones, TimedEventMovesEveryDate) {
  const CalendarDate start = at(2026, 6, 1, 10, 0, kParis);
  const Dictionary alarm{{kCalendarsDisplayAlarmTriggerdate, at(2026, 6, 1, 9, 0, kParis)}};
  const Dictionary rule{{kFrequency, "daily"}, {kCalendarsRecurrenceUntil, at(2026, 7, 1, 10, 0, kParis)}};
  const Array exDates{at(2026, 6, 3, 10, 0, kParis)};
  auto event = [&] {
    return record(kCalendarsEvent, {{kCalendarsEventStartDate, start}, {kCalendarsEventDisplayAlarms, Array{alarm}},
                                    {kCalendarsEventRecurrences, Array{rule}},
                                    {kCalendarsEventExceptionDates, exDates}});
  };
  Dictionary moved = event();
  convertDatesInTimeZone(moved, kNewYork, kGMT, false, false, false);
  // Re-zoned to GMT first (10:00 in Paris is 08:00 GMT), then 08:00 read in New York.
  EXPECT_TRUE(sameDateAndZone(moved.get(kCalendarsEventStartDate), at(2026, 6, 1, 8, 0, kNewYork)));
  EXPECT_EQ(firstOf(moved, kCalendarsEventDisplayAlarms, kCalendarsDisplayAlarmTriggerdate),
            at(2026, 6, 1, 7, 0, kNewYork));
  EXPECT_EQ(firstOf(moved, kCalendarsEventRecurrences, kCalendarsRecurrenceUntil), at(2026, 7, 1, 8, 0, kNewYork));
  EXPECT_EQ(moved.get(kCalendarsEventExceptionDates), (Array{at(2026, 6, 3, 8, 0, kNewYork)}));
  // Changed sub-records are copies: records shared with other holders stay.
  EXPECT_EQ(alarm.get(kCalendarsDisplayAlarmTriggerdate), at(2026, 6, 1, 9, 0, kParis));
  EXPECT_EQ(rule.get(kCalendarsRecurrenceUntil), at(2026, 7, 1, 10, 0, kParis));

  // Date-only until and exception dates stay; relations with nothing to move are kept.
  moved = event();
  const Value rules = moved.get(kCalendarsEventRecurrences);
  convertDatesInTimeZone(moved, kParis, nullptr, false, true, true);
  EXPECT_TRUE(moved.get(kCalendarsEventRecurrences).isIdenticalTo(rules));
  EXPECT_TRUE(moved.get(kCalendarsEventExceptionDates).isIdenticalTo(exDates));
}

TEST(Zones, AllDayRecordsAndTasksMoveOnlyWhatTheyOwn) {
  const CalendarDate allDay = allDayDateWithYear(2026, 6, 1);
  const Dictionary alarm{{kCalendarsAudioAlarmTriggerdate, allDay}};
  Dictionary event = record(kCalendarsEvent, {{kCalendarsEventAllDay, true}, {kCalendarsEventStartDate, allDay},
                                              {kCalendarsEventAudioAlarms, Array{alarm}},
                                              {kCalendarsEventExceptionDates, Array{allDay}}});
  convertDatesInTimeZone(event, kNewYork, nullptr, false, false, false);
  EXPECT_TRUE(sameDateAndZone(event.get(kCalendarsEventStartDate), allDay));
  EXPECT_TRUE(sameDateAndZone(event.getArray(kCalendarsEventExceptionDates)->at(0), allDay));
  EXPECT_EQ(firstOf(event, kCalendarsEventAudioAlarms, kCalendarsAudioAlarmTriggerdate),
            at(2026, 6, 1, 12, 0, kNewYork));

  // The completion date has its own date-only flag, apart from the due date's.
  const CalendarDate due = at(2026, 6, 2, 17, 0, kGMT), done = at(2026, 6, 2, 16, 0, kGMT);
  auto task = [&](bool dueIsDateOnly, bool doneIsDateOnly) {
    Dictionary t = record(kCalendarsTask, {{kCalendarsTaskDueDate, due}, {kCalendarsTaskCompletionDate, done},
                                           {kCalendarsTaskDueDateIsDateOnly, dueIsDateOnly}});
    convertDatesInTimeZone(t, kSaoPaulo, nullptr, doneIsDateOnly, false, false);
    return t;
  };
  EXPECT_EQ(task(false, true).get(kCalendarsTaskDueDate), at(2026, 6, 2, 17, 0, kSaoPaulo));
  EXPECT_EQ(task(false, true).get(kCalendarsTaskCompletionDate), done);
  EXPECT_EQ(task(true, false).get(kCalendarsTaskDueDate), due);
  EXPECT_EQ(task(true, false).get(kCalendarsTaskCompletionDate), at(2026, 6, 2, 16, 0, kSaoPaulo));
}

TEST(Zones, DaySelectorsFollowTheStartIntoTheSourceZone) {
  // Monday 23:30 in New York is Tuesday 05:30 in Paris; Dec 31 is Jan 1 there.
  auto moved = [](const CalendarDate& start, const Dictionary& rule) {
    Dictionary event = record(kCalendarsEvent, {{kCalendarsEventStartDate, start},
                                                {kCalendarsEventRecurrences, Array{rule.copy()}}});
    convertDatesInTimeZone(event, kGMT, kParis, false, false, false);
    return event.getArray(kCalendarsEventRecurrences)->at(0).dictionary();
  };
  const CalendarDate monday = at(2026, 6, 1, 23, 30, kNewYork), newYearsEve = at(2025, 12, 31, 23, 30, kNewYork);
  const Dictionary weekly{{kFrequency, "weekly"}, {kDays, Array{"monday"}}};
  EXPECT_EQ(moved(monday, weekly).get(kDays), Array{"tuesday"});
  EXPECT_EQ(moved(newYearsEve, {{kFrequency, "monthly"}, {kCalendarsRecurrenceBymonthday, Array{31}}})
                .get(kCalendarsRecurrenceBymonthday),
            Array{1});
  const Dictionary yearly = moved(newYearsEve, {{kFrequency, "yearly"}, {kCalendarsRecurrenceBymonth, Array{12}},
                                                {kDays, Array{"wednesday"}}});
  EXPECT_EQ(yearly.get(kCalendarsRecurrenceBymonth), Array{1});
  EXPECT_EQ(yearly.get(kDays), Array{"wednesday"});

  // Left alone: two days, a day other than the start's, a start on the same day in the source zone.
  LogCapture log;
  for (const Array& days : {Array{"monday", "friday"}, Array{"friday"}})
    EXPECT_EQ(moved(monday, {{kFrequency, "weekly"}, {kDays, days}}).get(kDays), days);
  EXPECT_EQ(moved(at(2026, 6, 1, 10, 0, kNewYork), weekly).get(kDays), Array{"monday"});
  EXPECT_TRUE(log.lines().empty());
}

TEST(Recurrences, NormalisationFillsWhatTheStartImplies) {
  const CalendarDate wednesday = at(2026, 6, 17, 23, 0, kNewYork);  // Thursday in GMT
  auto normalized = [&](const Dictionary& rule) {
    Array rules{rule.copy()};
    normalizeRecurrencesWithStartDate(rules, wednesday, std::nullopt, false, false);
    return rules[0].dictionary();
  };
  EXPECT_EQ(normalized({{kFrequency, "weekly"}}), (Dictionary{{kFrequency, "weekly"}, {kDays, Array{"wednesday"}},
                                                             {kCalendarsRecurrenceBydayfreq, Array{0}},
                                                             {kCalendarsRecurrenceInterval, 1}}));
  EXPECT_EQ(normalized({{kFrequency, "monthly"}, {kCalendarsRecurrenceInterval, 3}}),
            (Dictionary{{kFrequency, "monthly"},
                        {kCalendarsRecurrenceInterval, 3},
                        {kCalendarsRecurrenceBymonthday, Array{17}}}));
  EXPECT_FALSE(normalized({{kFrequency, "monthly"}, {kDays, Array{"friday"}}})
                   .contains(kCalendarsRecurrenceBymonthday));
  EXPECT_EQ(normalized({{kFrequency, "yearly"}}).get(kCalendarsRecurrenceBymonth), Array{6});
}

TEST(Recurrences, UntilDatesOfDayLongRulesSitAtMiddayGMT) {
  const CalendarDate start = at(2026, 5, 1, 20, 0, kNewYork);
  const CalendarDate until = at(2026, 5, 10, 2, 0, kGMT);  // May 9 in New York
  auto untilAfter = [&](bool allDay, bool dateOnly) {
    Dictionary rule{{kFrequency, "daily"}, {kCalendarsRecurrenceUntil, until}};
    normalizeRecurrenceWithStartDate(rule, start, std::nullopt, allDay, dateOnly);
    return rule.get(kCalendarsRecurrenceUntil);
  };
  EXPECT_TRUE(sameDateAndZone(untilAfter(true, false), allDayDateWithYear(2026, 5, 10)));
  EXPECT_TRUE(sameDateAndZone(untilAfter(false, true), allDayDateWithYear(2026, 5, 9)));
  EXPECT_TRUE(sameDateAndZone(untilAfter(false, false), until));

  Dictionary event = record(kCalendarsEvent, {{kCalendarsEventStartDate, start}, {kCalendarsEventAllDay, true},
                                              {kCalendarsEventRecurrences,
                                               Array{"junk", Dictionary{{kCalendarsRecurrenceUntil, until}}}}});
  LogCapture log;
  qvt_normalizeAssembledEvent(event);
  EXPECT_EQ(event.getArray(kCalendarsEventRecurrences)->at(1).dictionary().get(kCalendarsRecurrenceUntil),
            allDayDateWithYear(2026, 5, 10));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(ExceptionDates, SortedWithoutDuplicates) {
  const CalendarDate nine = at(2026, 4, 2, 9, 0, kParis), ten = at(2026, 4, 2, 10, 0, kParis);
  const Array input{ten, nine, ten.dateWithTimeZone(kNewYork), "junk"};
  LogCapture log;
  const Array normalized = normalizedExDates(input);
  EXPECT_EQ(normalized, (Array{nine, ten}));
  EXPECT_TRUE(sameDateAndZone(normalized[1], ten));  // the first of equal dates stays
  EXPECT_EQ(log.messages().at(1), "Removing duplicate exdate: " + ten.dateWithTimeZone(kNewYork).description());
}

TEST(DetachedDates, ReadFromTheTruth) {
  MemoryTruthSnapshot truth;
  const CalendarDate first = at(2026, 6, 8, 10, 0, kParis), second = at(2026, 6, 1, 10, 0, kParis);
  truth.addRecord("master", record(kCalendarsEvent, {{kCalendarsEventDetachedEvents, Array{"b", "a", "c"}}}));
  truth.addRecord("lonely", record(kCalendarsEvent));
  truth.addRecord("a", record(kCalendarsEvent, {{kCalendarsEventOriginalDate, first}}));
  truth.addRecord("b", record(kCalendarsEvent, {{kCalendarsEventOriginalDate, second}}));
  truth.addRecord("c", record(kCalendarsEvent, {{"summary", "corrupt"}}));
  LogCapture log;
  const auto dates = datesOfDetachedEventsForIdentifier(truth, "master", kNewYork);
  ASSERT_TRUE(dates);
  EXPECT_EQ(*dates, (Array{second, first}));
  EXPECT_EQ((*dates)[0].date().timeZone()->name(), "America/New_York");
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.lines()[0].message.starts_with(
      "Corruption found in the truth.  The following event is detached but does not have a recurrence"));
  EXPECT_EQ(datesOfDetachedEventsForIdentifier(truth, "lonely", nullptr), std::nullopt);
}

}  // namespace
}  // namespace pc
