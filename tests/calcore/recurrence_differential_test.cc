// Expands a few thousand generated rules with CALRecurrenceRule and with the
// peer engine of libical, and requires the same occurrences.
//
// Both engines expand on wall clocks: libical runs on floating (or all-day)
// times, this engine on dates of the chosen zone whose wall clocks are
// compared. Cases are kept where the two are meant to agree:
// - the recurrence start is one the rule produces (the second occurrence the
//   peer gives from a random candidate), because this engine always counts
//   the start as an occurrence;
// - everything stays before 2050, where counted rules stop searching;
// - no BYYEARDAY 0 (the first day of the next year here) and no times of day
//   inside a daylight-saving gap (start hours 8 to 20, BYHOUR 6 to 22);
// - no BYSETPOS in weekly rules and no negative BYMONTHDAY in daily rules,
//   which the peer ignores, and weekly rules start their weeks on Sunday or
//   Monday only: the peer does not align weeks on other week start days;
// - where this engine's own algorithm reads a rule otherwise than the peer:
//   no yearly BYDAY without BYMONTH (the weekdays are taken in the start's
//   month, ordinals counting in that month, not in the whole year), no daily
//   BYMONTHDAY without BYMONTH (it only narrows the BYMONTH months), no
//   weekly BYMONTH (it chooses whole weeks, not days) and no weekly time part
//   without BYDAY (it repeats on every day of the week).
// One case is adjusted: a monthly rule whose last instant (its until date
// or last counted occurrence) is 00:00:00 on a 1st ends here with the month
// before, as the monthly walk only keeps months that begin strictly before
// that instant; the peer's occurrence on that 1st is dropped from what is
// expected.

#include <libical/ical.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALRecurrenceFrequencies.h"

namespace pc {
namespace {

enum class Frequency { Daily, Weekly, Monthly, Yearly };

struct Fields {
  int year, month, day, hour = 0, minute = 0, second = 0;
};

// One generated rule, written both ways.
struct RuleCase {
  Frequency frequency = Frequency::Daily;
  int interval = 1;
  int count = -1;
  std::optional<Fields> until;
  int weekStart = -1;
  std::vector<int> byMonth, byMonthDay, byYearDay, byWeekno, byHour, byMinute, bySetpos;
  std::vector<CALWeekDayNumber> byDay;
  bool allDay = false;
  std::string zone;  // empty: floating

  std::string icalText(bool withLimits) const {
    static const char* kFrequencies[] = {"DAILY", "WEEKLY", "MONTHLY", "YEARLY"};
    static const char* kDays[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
    std::string text = fmt::format("FREQ={};INTERVAL={}", kFrequencies[static_cast<int>(frequency)], interval);
    if (withLimits && count > 0) text += fmt::format(";COUNT={}", count);
    if (withLimits && until) {
      text += allDay ? fmt::format(";UNTIL={:04}{:02}{:02}", until->year, until->month, until->day)
                     : fmt::format(";UNTIL={:04}{:02}{:02}T{:02}{:02}{:02}", until->year, until->month,
                                   until->day, until->hour, until->minute, until->second);
    }
    if (weekStart >= 0) text += fmt::format(";WKST={}", kDays[weekStart]);
    auto list = [&](const char* name, const std::vector<int>& values) {
      if (!values.empty()) text += fmt::format(";{}={}", name, fmt::join(values, ","));
    };
    list("BYMONTH", byMonth);
    list("BYWEEKNO", byWeekno);
    list("BYYEARDAY", byYearDay);
    list("BYMONTHDAY", byMonthDay);
    if (!byDay.empty()) {
      std::vector<std::string> days;
      for (const CALWeekDayNumber& d : byDay)
        days.push_back(d.number() ? fmt::format("{}{}", d.number(), kDays[d.day()]) : kDays[d.day()]);
      text += fmt::format(";BYDAY={}", fmt::join(days, ","));
    }
    list("BYHOUR", byHour);
    list("BYMINUTE", byMinute);
    list("BYSETPOS", bySetpos);
    return text;
  }

  CALDateRef date(const Fields& f) const {
    if (allDay) return CALDateOnly::dateOnlyWithYear(f.year, f.month, f.day);
    if (zone.empty()) return CALFloatingDateTime::dateWithYear(f.year, f.month, f.day, f.hour, f.minute, f.second);
    return CALDateTime::dateWithYear(f.year, f.month, f.day, f.hour, f.minute, f.second,
                                     TimeZone::timeZoneWithName(zone));
  }

  std::unique_ptr<CALRecurrenceRule> rule() const {
    std::unique_ptr<CALRecurrenceRule> r;
    switch (frequency) {
      case Frequency::Daily: r = CALDailyRecurrence::rule(); break;
      case Frequency::Weekly: r = CALWeeklyRecurrence::rule(); break;
      case Frequency::Monthly: r = CALMonthlyRecurrence::rule(); break;
      case Frequency::Yearly: r = CALYearlyRecurrence::rule(); break;
    }
    auto part = [](const std::vector<int>& v) { return v.empty() ? CALRulePartList() : CALRulePartList(v); };
    r->setInterval(interval).setCount(count).setWeekStart(weekStart);
    r->setByMonth(part(byMonth)).setByWeekno(part(byWeekno)).setByYearDay(part(byYearDay));
    r->setByMonthDay(part(byMonthDay)).setByHour(part(byHour)).setByMinute(part(byMinute));
    r->setBySetpos(part(bySetpos));
    if (!byDay.empty()) r->setByDay(byDay);
    if (until) r->setUntilDate(date(*until).get());
    return r;
  }
};

class CaseGenerator {
 public:
  explicit CaseGenerator(unsigned seed) : _random(seed) {}

  RuleCase next() {
    RuleCase c;
    c.frequency = static_cast<Frequency>(uniform(0, 3));
    static const char* kZones[] = {"", "GMT", "Europe/Paris", "America/New_York", "Australia/Sydney"};
    c.zone = kZones[uniform(0, 4)];
    c.allDay = chance(15);
    switch (c.frequency) {
      case Frequency::Daily:
        c.interval = uniform(1, 5);
        if (chance(40)) {
          c.byMonth = sortedSample(1, 12, uniform(1, 4));
          if (chance(50)) c.byMonthDay = sortedSample(1, 31, uniform(1, 3));
        }
        if (chance(30)) c.byDay = plainDays();
        if (!c.allDay && chance(20)) c.byHour = sortedSample(6, 22, uniform(1, 3));
        break;
      case Frequency::Weekly:
        c.interval = uniform(1, 4);
        if (chance(70)) {
          c.byDay = plainDays();
          if (!c.allDay && chance(20)) c.byMinute = sortedSample(0, 59, uniform(1, 3));
        }
        break;
      case Frequency::Monthly:
        c.interval = uniform(1, 3);
        switch (uniform(0, 4)) {
          case 0: break;  // the start's day
          case 1: c.byMonthDay = monthDays(); break;
          case 2: c.byDay = ordinalDays(4); break;
          case 3:
            c.byDay = {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}};
            c.bySetpos = {chance(50) ? -1 : uniform(1, 3)};
            break;
          case 4:
            c.byDay = plainDays();
            c.byMonthDay = monthDays();
            break;
        }
        if (chance(20)) c.byMonth = sortedSample(1, 12, uniform(2, 6));
        break;
      case Frequency::Yearly:
        c.interval = uniform(1, 2);
        switch (uniform(0, 6)) {
          case 0: break;  // the start's month and day
          case 1:
            c.byMonth = sortedSample(1, 12, uniform(1, 3));
            c.byMonthDay = monthDays();
            break;
          case 2:
            c.byMonth = sortedSample(1, 12, uniform(1, 3));
            c.byDay = ordinalDays(4);
            break;
          case 3: c.byYearDay = {uniform(1, 365) * (chance(30) ? -1 : 1)}; break;
          case 4:
            c.byWeekno = sortedSample(2, 50, uniform(1, 3));
            c.byDay = plainDays();
            c.weekStart = 1;
            break;
          case 5:
            c.byMonth = {uniform(1, 12)};
            c.byDay = {{uniform(0, 6), 0}};
            c.bySetpos = {chance(50) ? -1 : 1};
            break;
          case 6: c.byMonthDay = monthDays(); break;  // in the start's month
        }
        break;
    }
    if (chance(40) && c.weekStart < 0) c.weekStart = c.frequency == Frequency::Weekly ? 0 : uniform(0, 6);
    return c;
  }

  int uniform(int low, int high) { return std::uniform_int_distribution<int>(low, high)(_random); }
  bool chance(int percent) { return uniform(1, 100) <= percent; }

 private:
  std::vector<int> sortedSample(int low, int high, int n) {
    std::vector<int> values;
    while (static_cast<int>(values.size()) < n) {
      const int v = uniform(low, high);
      if (std::find(values.begin(), values.end(), v) == values.end()) values.push_back(v);
    }
    std::sort(values.begin(), values.end());
    return values;
  }
  std::vector<int> monthDays() {
    std::vector<int> days = sortedSample(1, 31, uniform(1, 3));
    for (int& d : days)
      if (chance(30)) d = -d;
    std::sort(days.begin(), days.end());
    days.erase(std::unique(days.begin(), days.end()), days.end());
    return days;
  }
  std::vector<CALWeekDayNumber> plainDays() {
    std::vector<CALWeekDayNumber> days;
    for (int d : sortedSample(0, 6, uniform(1, 3))) days.emplace_back(d, 0);
    return days;
  }
  std::vector<CALWeekDayNumber> ordinalDays(int maxOrdinal) {
    const int ordinal = chance(30) ? -uniform(1, maxOrdinal) : uniform(1, maxOrdinal);
    return {CALWeekDayNumber(uniform(0, 6), ordinal)};
  }

  std::mt19937 _random;
};

std::string text(const Fields& f, bool allDay) {
  return allDay ? fmt::format("{:04}{:02}{:02}", f.year, f.month, f.day)
                : fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}", f.year, f.month, f.day, f.hour, f.minute, f.second);
}

Fields fieldsOf(const icaltimetype& t) { return {t.year, t.month, t.day, t.hour, t.minute, t.second}; }

icaltimetype icalTime(const Fields& f, bool allDay) { return icaltime_from_string(text(f, allDay).c_str()); }

// The peer's occurrences from `start` before `end`.
std::vector<std::string> peerOccurrences(const RuleCase& c, const Fields& start, const Fields& end) {
  std::vector<std::string> dates;
  icalrecurrencetype recurrence = icalrecurrencetype_from_string(c.icalText(true).c_str());
  icalrecur_iterator* iterator = icalrecur_iterator_new(recurrence, icalTime(start, c.allDay));
  const icaltimetype limit = icalTime(end, c.allDay);
  for (icaltimetype t = icalrecur_iterator_next(iterator);
       !icaltime_is_null_time(t) && icaltime_compare(t, limit) < 0 && dates.size() < 5000;
       t = icalrecur_iterator_next(iterator))
    dates.push_back(text(fieldsOf(t), c.allDay));
  icalrecur_iterator_free(iterator);
  return dates;
}

// A start the rule produces: the peer's second occurrence from `candidate`.
std::optional<Fields> matchingStart(const RuleCase& c, const Fields& candidate) {
  icalrecurrencetype recurrence = icalrecurrencetype_from_string(c.icalText(false).c_str());
  icalrecur_iterator* iterator = icalrecur_iterator_new(recurrence, icalTime(candidate, c.allDay));
  std::optional<Fields> start;
  if (iterator) {
    icalrecur_iterator_next(iterator);
    const icaltimetype second = icalrecur_iterator_next(iterator);
    if (!icaltime_is_null_time(second) && second.year < 2045) start = fieldsOf(second);
    icalrecur_iterator_free(iterator);
  }
  return start;
}

// Drops the peer's last occurrence when it is a monthly rule's last instant
// at 00:00:00 on a 1st (see above); the start itself always stays.
void dropOccurrenceOpeningTheLastMonth(const RuleCase& c, std::vector<std::string>& expected) {
  if (c.frequency != Frequency::Monthly || expected.size() < 2) return;
  const std::string& last = expected.back();
  const bool isTheEnd = (c.until && last == text(*c.until, c.allDay)) ||
                        (c.count > 0 && expected.size() == static_cast<std::size_t>(c.count));
  if (isTheEnd && last.substr(6) == (c.allDay ? "01" : "01T000000")) expected.pop_back();
}

std::vector<std::string> ourOccurrences(const RuleCase& c, const Fields& start, const Fields& end) {
  const CALDateRef first = c.date(start);
  std::vector<std::string> dates;
  for (const CALDateRef& date : c.rule()->occurrencesOnTimeRange(CALTimeRange(first.get(), c.date(end).get()), *first)) {
    CALCDate local;
    date->getCDateInTimeZone(&local);
    dates.push_back(text({static_cast<int>(local.year), static_cast<int>(local.month), static_cast<int>(local.day),
                          static_cast<int>(local.hour), static_cast<int>(local.minute),
                          static_cast<int>(local.second)},
                         c.allDay));
  }
  return dates;
}

TEST(RecurrenceDifferentialTest, SameOccurrencesAsThePeerEngine) {
  CaseGenerator generator(20061101);
  int compared = 0;
  std::vector<std::string> failures;
  for (int i = 0; i < 2200; ++i) {
    RuleCase c = generator.next();
    const Fields candidate{generator.uniform(2001, 2035), generator.uniform(1, 12), generator.uniform(1, 28),
                           c.allDay ? 0 : generator.uniform(8, 20), c.allDay ? 0 : 15 * generator.uniform(0, 3), 0};
    const std::optional<Fields> start = matchingStart(c, candidate);
    if (!start) continue;
    // Windows sized so that every frequency yields a few dozen dates.
    static const int kWindowMonths[] = {2, 8, 24, 96};
    const int months = kWindowMonths[static_cast<int>(c.frequency)] * c.interval;
    Fields end{start->year + (start->month - 1 + months) / 12, (start->month - 1 + months) % 12 + 1, 1};
    if (end.year >= 2050) end = {2050, 1, 1};
    if (generator.chance(30)) c.count = generator.uniform(1, 40);
    else if (generator.chance(40)) {
      Fields until = *start;
      until.year += generator.uniform(0, 3);
      until.month = generator.uniform(1, 12);
      until.hour = generator.uniform(0, 23);
      until.day = std::min(until.day, 28);
      if (until.year * 100 + until.month > start->year * 100 + start->month) c.until = until;
    }
    std::vector<std::string> expected = peerOccurrences(c, *start, end);
    dropOccurrenceOpeningTheLastMonth(c, expected);
    const std::vector<std::string> actual = ourOccurrences(c, *start, end);
    ++compared;
    if (expected != actual && failures.size() < 10)
      failures.push_back(fmt::format("{} from {} ({}{}): expected {} dates [{}], got {} [{}]", c.icalText(true),
                                     text(*start, c.allDay), c.zone.empty() ? "floating" : c.zone,
                                     c.allDay ? ", all day" : "", expected.size(), fmt::join(expected, " "),
                                     actual.size(), fmt::join(actual, " ")));
  }
  EXPECT_GT(compared, 1800);
  EXPECT_TRUE(failures.empty()) << fmt::format("{}", fmt::join(failures, "\n\n"));
}

}  // namespace
}  // namespace pc
