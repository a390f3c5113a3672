// Wall clock to instant, checked against the C library's reading of the zone
// database (TZ + localtime_r), which shares no code with the ICU tables the
// platform uses. Every half hour around each change of 1990-2030, and a
// sample in between, in zones whose changes fall at 02:00, at midnight, by 30
// minutes or by a whole day.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "engine/SchemaNames.h"
#include "platform/CalendarDate.h"

namespace pc {
namespace {

constexpr std::int64_t kStep = 1800;
constexpr std::int64_t k1990 = 631152000;  // 1990-01-01 00:00:00 GMT, since 1970
constexpr std::int64_t k2031 = 1924992000;  // 2031-01-01 00:00:00 GMT

// Sets TZ for the C library for the life of the object.
class ScopedTZ {
 public:
  explicit ScopedTZ(const char* value) {
    if (const char* old = std::getenv("TZ")) _saved = old;
    setenv("TZ", value, 1);
    tzset();
  }
  ~ScopedTZ() {
    if (_saved)
      setenv("TZ", _saved->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> _saved;
};

constexpr std::int64_t kDay = 86400;

// The C library's offset at an instant, in the zone TZ names.
std::int64_t offsetAt(std::int64_t t) {
  const time_t instant = t;
  struct tm local {};
  localtime_r(&instant, &local);
  return local.tm_gmtoff;
}

// Instants a day apart at which the offset differs from the day before: each
// change lies in the day before one of them.
std::vector<std::int64_t> changeDays(std::int64_t from, std::int64_t to) {
  std::vector<std::int64_t> days;
  for (std::int64_t t = from, previous = offsetAt(from); t < to; t += kDay)
    if (const std::int64_t offset = offsetAt(t); offset != std::exchange(previous, offset)) days.push_back(t);
  return days;
}

// The instant each half-hour wall clock of [from, to) stands for, by the C
// library: the first instant that reads so, and for a reading that never
// occurs, the reading taken with the offset in force just before the gap.
std::map<std::int64_t, std::int64_t> expectedInstants(std::int64_t from, std::int64_t to) {
  std::map<std::int64_t, std::int64_t> instants;
  const auto keep = [&](std::int64_t wall, std::int64_t instant) {
    if (wall >= from && wall < to) instants.try_emplace(wall, instant);
  };
  std::optional<std::int64_t> previousWall;
  std::int64_t previousOffset = 0;
  for (std::int64_t t = from - kDay; t < to + kDay; t += kStep) {
    const std::int64_t offset = offsetAt(t);
    const std::int64_t wall = t + offset;
    keep(wall, t);
    if (previousWall)
      for (std::int64_t skipped = *previousWall + kStep; skipped < wall; skipped += kStep)
        keep(skipped, skipped - previousOffset);
    previousWall = wall;
    previousOffset = offset;
  }
  return instants;
}

// Every half hour of the days around each change, and a wall clock every few
// days (at a drifting hour) in between, with the instant each stands for.
std::vector<std::pair<std::int64_t, std::int64_t>> sweepCases(const char* zoneName) {
  const ScopedTZ tz(zoneName);
  std::vector<std::pair<std::int64_t, std::int64_t>> cases;
  std::int64_t coveredUntil = k1990;
  for (const std::int64_t day : changeDays(k1990 - kDay, k2031 + kDay)) {
    const std::int64_t windowStart = std::max(day - 3 * kDay, coveredUntil);
    for (std::int64_t wall = coveredUntil; wall < windowStart; wall += 5 * kDay + 3 * 3600 + kStep)
      cases.emplace_back(wall, wall - offsetAt(wall - offsetAt(wall)));
    for (const auto& entry : expectedInstants(windowStart, day + 2 * kDay)) cases.push_back(entry);
    coveredUntil = day + 2 * kDay;
  }
  for (std::int64_t wall = coveredUntil; wall < k2031; wall += 5 * kDay + 3 * 3600 + kStep)
    cases.emplace_back(wall, wall - offsetAt(wall - offsetAt(wall)));
  return cases;
}

struct tm gmtFields(std::int64_t seconds) {
  const time_t t = seconds;
  struct tm fields {};
  gmtime_r(&t, &fields);
  return fields;
}

TEST(WallClockTest, EveryHalfHourAroundChangesAgreesWithTheCLibrary) {
  for (const char* name : {"America/New_York", "America/Sao_Paulo", "Europe/Paris", "Australia/Lord_Howe",
                           "America/Havana", "America/Santiago", "Pacific/Auckland", "Pacific/Apia",
                           "America/Caracas", "Europe/Moscow", "Asia/Tehran", "Australia/Adelaide"}) {
    const TimeZonePtr zone = TimeZone::timeZoneWithName(name);
    ASSERT_TRUE(zone) << name;
    int failures = 0;
    for (const auto& [wall, expected] : sweepCases(name)) {
      const struct tm f = gmtFields(wall);
      const int year = f.tm_year + 1900, month = f.tm_mon + 1;
      const auto zoned = CALDateTime::dateWithYear(year, month, f.tm_mday, f.tm_hour, f.tm_min, 0, zone);
      const auto platform = CalendarDate::dateWithYear(year, month, f.tm_mday, f.tm_hour, f.tm_min, 0, zone);
      if (zoned->timeIntervalSince1970() != expected || platform.timeIntervalSince1970() != expected) {
        ADD_FAILURE() << name << " " << year << "-" << month << "-" << f.tm_mday << " " << f.tm_hour << ":"
                      << f.tm_min << ": expected " << expected << ", date gives "
                      << zoned->timeIntervalSince1970() << ", platform gives " << platform.timeIntervalSince1970();
        if (++failures == 5) break;
      }
    }
  }
}

// Rounding reads the local fields and sets them again: it must stay on the
// same local day and never move a date later, also on nights that skip
// midnight or repeat an hour.
TEST(WallClockTest, RoundingNeverMovesLaterNorLeavesTheDay) {
  for (const char* name : {"America/Sao_Paulo", "Europe/Paris", "America/New_York", "Australia/Lord_Howe"}) {
    const TimeZonePtr zone = TimeZone::timeZoneWithName(name);
    std::vector<std::int64_t> days;
    {
      const ScopedTZ tz(name);
      days = changeDays(1136073600, 1546300800);  // 2006 to 2018
    }
    for (const std::int64_t day : days)
      for (std::int64_t t = day - kDay - 6 * 3600; t < day + 6 * 3600; t += kStep + 17) {
        auto date = CALDateTime::dateWithYear(1970, 1, 1, 0, 0, 0, zone);
        date->addSecondsInGMT(t - static_cast<std::int64_t>(date->timeIntervalSince1970()));
        for (const CALDateRef& rounded : {date->dateRoundedToHour(), date->dateRoundedToDay()}) {
          ASSERT_TRUE(rounded->isBeforeOrEqual(date.get())) << name << " " << date->description();
          ASSERT_EQ(rounded->dayOfMonth(), date->dayOfMonth()) << name << " " << date->description();
        }
      }
  }
}

TEST(WallClockTest, SkippedAndRepeatedReadingsOnEveryPath) {
  const TimeZonePtr newYork = TimeZone::timeZoneWithName("America/New_York");
  const TimeZonePtr paris = TimeZone::timeZoneWithName("Europe/Paris");
  const auto hourAndOffset = [](const CALDate& date) {
    return date.descriptionWithCalendarFormat("%Y-%m-%d %H:%M %z");
  };
  // Re-zoning with the wall clock kept.
  auto moved = CALDateTime::dateWithYear(2006, 4, 2, 2, 30, 0, nullptr);
  moved->setTimeZone(newYork, true);
  EXPECT_EQ(hourAndOffset(*moved), "2006-04-02 03:30 -0400");
  // Parsing a zone name.
  EXPECT_EQ(hourAndOffset(*CALDate::dateWithString<CALDateTime>("2006-10-29 02:30 Europe/Paris",
                                                                "%Y-%m-%d %H:%M %Z")),
            "2006-10-29 02:30 +0200");
  // Rounding the second 02:45:30 of the autumn night to the hour.
  auto second = CALDateTime::dateWithYear(2006, 10, 29, 2, 45, 30, paris);
  second->addSecondsInGMT(3600);
  EXPECT_EQ(hourAndOffset(*second), "2006-10-29 02:45 +0100");
  EXPECT_EQ(hourAndOffset(*second->dateRoundedToHour()), "2006-10-29 02:00 +0200");
  // Midnight skipped in Sao Paulo: the day starts at 01:00.
  auto saoPaulo = CALDateTime::dateWithYear(2018, 11, 4, 15, 0, 0, TimeZone::timeZoneWithName("America/Sao_Paulo"));
  EXPECT_EQ(hourAndOffset(*saoPaulo->dateRoundedToDay()), "2018-11-04 01:00 -0200");
}

TEST(WallClockTest, DailyEventAtMidnightKeepsTheDaySkippingMidnight) {
  const TimeZonePtr saoPaulo = TimeZone::timeZoneWithName("America/Sao_Paulo");
  const CalendarDate start = CalendarDate::dateWithYear(2018, 11, 2, 0, 0, 0, saoPaulo);
  const Dictionary event{{kEngineRecordEntityNameKey, "Calendars.Event"},
                         {kCalendarsEventStartDate, start},
                         {kCalendarsEventEndDate, start.dateByAddingYears(0, 0, 0, 1, 0, 0)}};
  const Dictionary daily{{kEngineRecordEntityNameKey, "Calendars.Recurrence"},
                         {kCalendarsRecurrenceFrequency, "daily"}};
  CALEventExploder exploder(event, daily);
  const CALTimeRange window(CALDateTime::dateWithYear(2018, 11, 2, 0, 0, 0, saoPaulo).get(),
                            CALDateTime::dateWithYear(2018, 11, 7, 0, 0, 0, saoPaulo).get());
  std::vector<std::string> days;
  for (const CALDateRef& date : exploder.produceDatesForTimeRange(window, nullptr, "e1"))
    days.push_back(date->descriptionWithCalendarFormat("%d %H:%M"));
  EXPECT_EQ(days, (std::vector<std::string>{"02 00:00", "03 00:00", "04 01:00", "05 00:00", "06 00:00"}));
}

}  // namespace
}  // namespace pc
