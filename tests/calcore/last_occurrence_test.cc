// The last occurrence found by walking periods back from the end
// (lastOccurrenceOnTimeRange, lastDateProducedForRecurrence) against the last
// date of the full expansion, over generated rules: every frequency and
// interval, by-day (plain and ordinal), by-month-day (negative too), by-month,
// by-year-day, by-week-number and by-set-position parts, week start days,
// starts and until dates in zones with daylight-saving changes, on the
// change days and in their gaps and repeated hours, all-day events, until
// dates before the start.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "calcore/CALEventExploder.h"
#include "calcore/CALFloatingDateTime.h"
#include "calcore/CalendarDateExtension.h"
#include "engine/SchemaNames.h"

namespace pc {
namespace {

// "" is the machine's zone, which the runs under several TZ values vary.
const char* const kZones[] = {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland",
                              "America/Sao_Paulo", "GMT", ""};

TimeZonePtr zoneNamed(const char* name) {
  return *name ? TimeZone::timeZoneWithName(name) : TimeZone::systemTimeZone();
}
const char* const kDays[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};
const char* const kFrequencies[] = {"daily", "weekly", "monthly", "yearly"};

// Days on which one of the zones above changes its clocks.
struct Day {
  int year, month, day;
};
const Day kChangeDays[] = {{2018, 2, 18}, {2018, 11, 4}, {2024, 3, 10}, {2024, 3, 31}, {2024, 4, 7},
                           {2024, 9, 29}, {2024, 10, 27}, {2024, 11, 3}, {2025, 3, 30}, {2025, 10, 26}};

class Generator {
 public:
  explicit Generator(unsigned seed) : _random(seed) {}

  int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(_random); }
  bool chance(int percent) { return between(1, 100) <= percent; }

  Array numbers(int size, int low, int high, bool noZero = false) {
    Array list;
    for (int i = 0; i < size; ++i) {
      int value = between(low, high);
      if (noZero && value == 0) value = 1;
      list.add(static_cast<std::int64_t>(value));
    }
    return list;
  }

  // A wall clock on a change day half the time, with hours around the change.
  CalendarDate date(const TimeZonePtr& zone, int fromYear, int toYear) {
    if (chance(50)) {
      const Day& day = kChangeDays[between(0, std::size(kChangeDays) - 1)];
      return CalendarDate::dateWithYear(day.year, day.month, day.day, between(0, 4), between(0, 1) * 30,
                                        between(0, 1) * 59, zone);
    }
    return CalendarDate::dateWithYear(between(fromYear, toYear), between(1, 12), between(1, 28), between(0, 23),
                                      between(0, 3) * 15, 0, zone);
  }

  struct Case {
    Dictionary event, recurrence;
  };

  Case next() {
    const TimeZonePtr zone = zoneNamed(kZones[between(0, std::size(kZones) - 1)]);
    const bool allDay = chance(20);
    const int frequency = between(0, 3);
    const CalendarDate start = date(zone, 2017, 2025);
    Dictionary event{{kEngineRecordEntityNameKey, "Calendars.Event"}};
    event.set(kCalendarsEventStartDate,
              allDay ? CalendarExtension::allDayDateWithYear(start.yearOfCommonEra(), start.monthOfYear(),
                                                             start.dayOfMonth())
                     : start);
    if (allDay) event.set(kCalendarsEventAllDay, true);

    Dictionary rule{{kEngineRecordEntityNameKey, "Calendars.Recurrence"},
                    {kCalendarsRecurrenceFrequency, kFrequencies[frequency]}};
    if (chance(60)) rule.set(kCalendarsRecurrenceInterval, static_cast<std::int64_t>(between(1, 4)));
    if (chance(20)) rule.set(kCalendarsRecurrenceWeekstartday, kDays[between(0, 6)]);
    if (chance(35)) rule.set(kCalendarsRecurrenceBymonth, numbers(between(1, 3), 1, 12));
    if (chance(30)) rule.set(kCalendarsRecurrenceBymonthday, numbers(between(1, 3), -31, 31, true));
    if (frequency == 3 && chance(15)) rule.set(kCalendarsRecurrenceByyearday, numbers(between(1, 3), -366, 366));
    if (frequency != 2 && chance(15)) rule.set(kCalendarsRecurrenceByweeknumber, numbers(between(1, 2), -53, 53, true));
    if (chance(40)) {
      const int size = between(1, 3);
      Array days, ordinals;
      for (int i = 0; i < size; ++i) {
        days.add(kDays[between(0, 6)]);
        ordinals.add(static_cast<std::int64_t>(frequency >= 2 && chance(50) ? between(-5, 5) : 0));
      }
      rule.set(kCalendarsRecurrenceBydaydays, days);
      rule.set(kCalendarsRecurrenceBydayfreq, ordinals);
    }
    if (chance(15)) rule.set(kCalendarsRecurrenceBysetpos, numbers(between(1, 2), -3, 3));
    if (chance(10)) rule.set(kCalendarsRecurrenceCount, static_cast<std::int64_t>(between(1, 20)));

    // Until dates mostly after the start, some on change days, some before
    // the start; in the start's zone, GMT or another zone.
    const TimeZonePtr untilZone =
        chance(50) ? zone : zoneNamed(kZones[between(0, std::size(kZones) - 1)]);
    const int spanYears = frequency == 3 ? 12 : frequency == 2 ? 4 : 2;
    CalendarDate until = chance(70) ? start.dateByAddingYears(0, 0, between(-3, 365 * spanYears), between(-3, 3),
                                                              between(-1, 1) * 30, 0)
                                    : date(untilZone, 2017, 2027);
    if (untilZone != zone) until = until.dateWithTimeZone(untilZone);
    rule.set(kCalendarsRecurrenceUntil, until);
    return {event, rule};
  }

 private:
  std::mt19937 _random;
};

std::string text(const CALDateRef& date) {
  if (!date) return "none";
  return date->description() + " " + (date->timeZone() ? date->timeZone()->name() : "floating");
}

std::string caseText(const Generator::Case& c) {
  return fmt::format("event {}\nrecurrence {}", c.event, c.recurrence);
}

TEST(LastOccurrenceTest, AgreesWithTheFullExpansionOfUntilDates) {
  Generator generator(2024);
  int withDates = 0;
  for (int i = 0; i < 2500; ++i) {
    const Generator::Case c = generator.next();
    const CALDateList all = CALEventExploder::datesProducedForRecurrence(c.recurrence, c.event);
    const CALDateRef expected = all.empty() ? nullptr : all.back();
    const CALDateRef last = CALEventExploder::lastDateProducedForRecurrence(c.recurrence, c.event);
    ASSERT_EQ(text(last), text(expected)) << caseText(c);
    if (expected) ++withDates;

    // The conversion stores the same day; a rule without dates is left alone.
    const Dictionary converted = CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate(c.recurrence.copy(), c.event);
    if (!expected) {
      EXPECT_EQ(converted, c.recurrence) << caseText(c);
    }
  }
  // The generated rules are not all empty.
  EXPECT_GT(withDates, 2000);
}

// Ranges cut anywhere through the rule, on rules ended by an until date, a
// count or nothing, with timed, floating and date-only starts.
TEST(LastOccurrenceTest, AgreesWithTheExpansionOfAnyRange) {
  Generator generator(7);
  for (int i = 0; i < 1500; ++i) {
    Generator::Case c = generator.next();
    if (generator.chance(30)) c.recurrence.remove(kCalendarsRecurrenceUntil);
    const bool allDay = c.event.get(kCalendarsEventAllDay).boolValue();
    const CALDateRef timed = CALDate::CALDateFromCalendarDate(c.event.get(kCalendarsEventStartDate).date(), allDay);
    const CALDateRef start =
        !allDay && generator.chance(20) ? CALDate::dateWithDate<CALFloatingDateTime>(*timed) : timed;

    const int fromDays = generator.between(-40, 700), length = generator.between(0, 900);
    const CALDateRef from = timed->dateByAddingYears(0, 0, fromDays, generator.between(-12, 12), 0, 0);
    const CALTimeRange range(generator.chance(10) ? nullptr : from.get(),
                             from->dateByAddingYears(0, 0, length, 0, 0, 0).get());

    CALEventExploder full(c.event, c.recurrence), backwards(c.event, c.recurrence);
    const CALDateList all = full.rule().occurrencesOnTimeRange(range, *start);
    ASSERT_EQ(text(backwards.rule().lastOccurrenceOnTimeRange(range, *start)),
              text(all.empty() ? nullptr : all.back()))
        << caseText(c) << "\nrange " << range.description() << "\nstart " << text(start);
  }
}

// A year's days may lie in the next year (day 366 of a common year is the
// next 1 January, a last week ends in January): the walk back must not stop
// at the first year that has a date.
TEST(LastOccurrenceTest, FindsDaysThatSpillFromTheYearBefore) {
  struct Row {
    const char* part;
    std::vector<int> values;
    CalendarDate until;
  };
  const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  const Row rows[] = {
      {kCalendarsRecurrenceByyearday, {-366, 366}, CalendarDate::dateWithYear(2023, 1, 5, 12, 0, 0, berlin)},
      {kCalendarsRecurrenceByyearday, {-366, 366}, CalendarDate::dateWithYear(2023, 1, 1, 9, 0, 0, berlin)},
      {kCalendarsRecurrenceByyearday, {0, -365}, CalendarDate::dateWithYear(2023, 1, 2, 0, 0, 0, berlin)},
      {kCalendarsRecurrenceByweeknumber, {1, -1}, CalendarDate::dateWithYear(2027, 1, 2, 12, 0, 0, berlin)},
      {kCalendarsRecurrenceByweeknumber, {53}, CalendarDate::dateWithYear(2027, 1, 3, 12, 0, 0, berlin)},
  };
  for (const Row& row : rows) {
    Array values;
    for (int value : row.values) values.add(static_cast<std::int64_t>(value));
    const Dictionary event{{kCalendarsEventStartDate, CalendarDate::dateWithYear(2019, 6, 1, 9, 0, 0, berlin)}};
    const Dictionary recurrence{{kCalendarsRecurrenceFrequency, "yearly"},
                                {kCalendarsRecurrenceBydaydays, Array{"friday", "saturday", "sunday"}},
                                {row.part, values},
                                {kCalendarsRecurrenceUntil, row.until}};
    const CALDateList all = CALEventExploder::datesProducedForRecurrence(recurrence, event);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(text(CALEventExploder::lastDateProducedForRecurrence(recurrence, event)), text(all.back()))
        << fmt::format("{}", recurrence);
  }
}

}  // namespace
}  // namespace pc
