#include "calcore/CALRecurrenceFrequencies.h"

#include <algorithm>

#include "calcore/calcdate.h"

namespace pc {

namespace {

// The rank of the frequency's own period when no part is finer than it.
int cappedRank(int rank, int periodRank) { return rank == 0 || rank >= periodRank ? periodRank : rank; }

}  // namespace

// --- Daily ----------------------------------------------------------------------------

int CALDailyRecurrence::lastSpecifiedRulePartOrder() const {
  return cappedRank(_finestRulePartOrder(), kCALRulePartByDayLevel);
}

CALTimeRangeList CALDailyRecurrence::matchingDaysOnTimeRangeArray(const CALTimeRangeList& spans,
                                                                  const CALDate& start) const {
  return _walkPeriods(spans, start);
}

std::int64_t CALDailyRecurrence::_periodIndex(const CALDate& date) const { return _localDay(date); }

CALTimeRange CALDailyRecurrence::_periodSpan(std::int64_t day) const { return _daysSpan(day, day); }

CALTimeRangeList CALDailyRecurrence::_daySpansOfPeriod(const CALTimeRange& period,
                                                       const CALDate& start) const {
  // BYMONTHDAY only narrows the BYMONTH months, and BYWEEKNO only counts
  // without BYMONTH; its weeks always take the BYDAY weekdays (the start's
  // by default).
  CALTimeRangeList spans{period};
  if (byMonth()) {
    spans = applyRulePart(&CALRecurrenceRule::generateByMonthOnTimeRange, spans, start);
    if (byMonthDay()) spans = applyRulePart(&CALRecurrenceRule::generateByMonthDayOnTimeRange, spans, start);
  } else if (byWeekno()) {
    // A day near a year's end may lie in a week numbered by the year before
    // or after (week 1 may begin in December): the weeks come from the days
    // around it.
    const std::int64_t day = _localDay(*period.startDate());
    CALTimeRangeList weeks;
    for (const CALTimeRange& week : generateByWeeknoOnTimeRange(_daysSpan(day - 6, day + 6), start))
      if (std::optional<CALTimeRange> part = period.intersection(week)) weeks.push_back(std::move(*part));
    return applyRulePart(&CALRecurrenceRule::generatePeriodicByDayOnTimeRange, weeks, start);
  }
  if (byDay()) spans = applyRulePart(&CALRecurrenceRule::generatePeriodicByDayOnTimeRange, spans, start);
  return spans;
}

void CALDailyRecurrence::_writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const {
  if (!rule.byMonth() && rule.byWeekno() && !rule.byDay())
    rule.setByDay(std::vector<CALWeekDayNumber>{CALWeekDayNumber(start.dayOfWeek(), 0)});
}

// --- Weekly ---------------------------------------------------------------------------

int CALWeeklyRecurrence::lastSpecifiedRulePartOrder() const {
  return cappedRank(_finestRulePartOrder(), kCALRulePartByWeekno);
}

CALTimeRangeList CALWeeklyRecurrence::matchingWeeksOnTimeRangeArray(const CALTimeRangeList& spans,
                                                                    const CALDate& start) const {
  return _walkPeriods(spans, start);
}

// Weeks are numbered by their first day, which is (weekStart + 6) mod 7
// modulo 7 in absolute days (day 0 is a Monday).
std::int64_t CALWeeklyRecurrence::_periodIndex(const CALDate& date) const {
  return (_localDay(date) + numberOfDaysUntilPreviousOccurrenceOfDay(weekStart(), date)) / 7;
}

CALTimeRange CALWeeklyRecurrence::_periodSpan(std::int64_t week) const {
  const std::int64_t first = week * 7 + (weekStart() + 6) % 7;
  return _daysSpan(first, first + 6);
}

CALTimeRangeList CALWeeklyRecurrence::_daySpansOfPeriod(const CALTimeRange& week,
                                                        const CALDate& start) const {
  // BYMONTH (else BYWEEKNO) chooses whole weeks: a week that touches a
  // listed month keeps all its days.
  if (byMonth() || byWeekno()) {
    const CALTimeRangeList chosen = byMonth() ? generateByMonthOnTimeRange(week, start)
                                              : generateByWeeknoOnTimeRange(week, start);
    if (std::none_of(chosen.begin(), chosen.end(),
                     [&](const CALTimeRange& span) { return span.intersectsTimeRange(week); }))
      return {};
  }
  // The start's weekday fills in only when no finer part is given: a time
  // part alone repeats on every day of the week.
  if (byDay() || _noDayOrTimePart()) return generatePeriodicByDayOnTimeRange(week, start);
  return {week};
}

void CALWeeklyRecurrence::_writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const {
  if (!rule.byDay() && _noDayOrTimePart())
    rule.setByDay(std::vector<CALWeekDayNumber>{CALWeekDayNumber(start.dayOfWeek(), 0)});
}

// --- Monthly --------------------------------------------------------------------------

int CALMonthlyRecurrence::lastSpecifiedRulePartOrder() const {
  return cappedRank(_finestRulePartOrder(), kCALRulePartByMonth);
}

CALTimeRangeList CALMonthlyRecurrence::matchingMonthsOnTimeRangeArray(const CALTimeRangeList& spans,
                                                                      const CALDate& start) const {
  // Unlike days and weeks, a month that begins exactly at the last instant
  // is not walked: an until date (or last counted occurrence) at 00:00:00
  // on the 1st ends the rule with the month before.
  return _walkPeriods(spans, start);
}

std::int64_t CALMonthlyRecurrence::_periodIndex(const CALDate& date) const {
  const CALCDate local = _localFields(date);
  return local.year * 12 + local.month - 1;
}

CALTimeRange CALMonthlyRecurrence::_periodSpan(std::int64_t month) const {
  CALCDate first{0, 0, 0, 1, month % 12 + 1, month / 12};
  const std::int64_t firstDay = calcdate_absoluteday(&first);
  return _daysSpan(firstDay, firstDay + calcdate_daycount_in_month(&first) - 1);
}

CALTimeRangeList CALMonthlyRecurrence::_daySpansOfPeriod(const CALTimeRange& period,
                                                         const CALDate& start) const {
  CALTimeRangeList spans{period};
  if (byMonth()) spans = applyRulePart(&CALRecurrenceRule::generateByMonthOnTimeRange, spans, start);
  if (byDay()) spans = applyRulePart(&CALRecurrenceRule::generateByDayOnTimeRange, spans, start);
  if (byMonthDay() || _noDayOrTimePart())
    spans = applyRulePart(&CALRecurrenceRule::generateByMonthDayOnTimeRange, spans, start);
  return spans;
}

void CALMonthlyRecurrence::_writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const {
  if (!rule.byMonthDay() && _noDayOrTimePart()) rule.setByMonthDay(std::vector<int>{start.dayOfMonth()});
}

// --- Yearly ---------------------------------------------------------------------------

int CALYearlyRecurrence::lastSpecifiedRulePartOrder() const {
  return cappedRank(_finestRulePartOrder(), kCALRulePartByMonth + 1);
}

CALTimeRangeList CALYearlyRecurrence::_matchingPeriods(const CALTimeRangeList& spans,
                                                       const CALDate& start) const {
  return _walkPeriods(spans, start);
}

std::int64_t CALYearlyRecurrence::_periodIndex(const CALDate& date) const { return _localFields(date).year; }

CALTimeRange CALYearlyRecurrence::_periodSpan(std::int64_t year) const {
  return _daysSpan(calcdate_absoluteday_for_year(static_cast<std::int32_t>(year)),
                   calcdate_absoluteday_for_year(static_cast<std::int32_t>(year + 1)) - 1);
}

CALTimeRangeList CALYearlyRecurrence::_daySpansOfPeriod(const CALTimeRange& year,
                                                        const CALDate& start) const {
  // Days of the year and weeks are not narrowed by BYMONTH, nor cut to the
  // year: day 0 is 1 January of the next year, week 1 may begin in December.
  if (byYearDay()) return generateByYearDayOnTimeRange(year, start);
  CALTimeRangeList spans;
  if (byWeekno()) {
    spans = generateByWeeknoOnTimeRange(year, start);
    if (byMonthDay()) spans = applyRulePart(&CALRecurrenceRule::generateByMonthDayOnTimeRange, spans, start);
    if (byDay() || _noDayOrTimePart())
      spans = applyRulePart(&CALRecurrenceRule::generatePeriodicByDayOnTimeRange, spans, start);
    return spans;
  }
  // Without BYMONTH the start's month holds the days, BYDAY's included:
  // ordinal weekdays count in that month, not in the whole year.
  spans = generateByMonthOnTimeRange(year, start);
  if (byDay()) spans = applyRulePart(&CALRecurrenceRule::generateByDayOnTimeRange, spans, start);
  if (byMonthDay() || _noDayOrTimePart())
    spans = applyRulePart(&CALRecurrenceRule::generateByMonthDayOnTimeRange, spans, start);
  return spans;
}

void CALYearlyRecurrence::_writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const {
  if (rule.byYearDay()) return;
  if (rule.byWeekno()) {
    // Numbered weeks fall on the start's weekday when nothing finer is given.
    if (!rule.byDay() && _noDayOrTimePart())
      rule.setByDay(std::vector<CALWeekDayNumber>{CALWeekDayNumber(start.dayOfWeek(), 0)});
    return;
  }
  if (!rule.byMonth()) rule.setByMonth(std::vector<int>{start.monthOfYear()});
  if (!rule.byMonthDay() && _noDayOrTimePart()) rule.setByMonthDay(std::vector<int>{start.dayOfMonth()});
}

}  // namespace pc
