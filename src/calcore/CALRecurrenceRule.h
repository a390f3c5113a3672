#pragma once
// CALRecurrenceRule: a repetition rule (frequency, interval, count or until
// date, week start and the BYxxx lists). Given a recurrence start and a time
// range it produces the occurrence dates in that range. The frequency is the
// subclass (CALRecurrenceFrequencies.h).
//
// Expansion works period by period: the frequency walks its periods (days,
// weeks, months or years) from the recurrence start in steps of the interval,
// each period is narrowed to candidate day spans by the BYxxx parts (the rule
// part generators below, each turning one span into smaller spans), the time
// parts put times of day into the days, BYSETPOS picks among the period's
// candidates, and the result is clipped to the requested range. The
// recurrence start is always an occurrence, whether or not the rule produces
// it. Counted rules find their last occurrence year by year, up to 2050.
//
// A rule caches the dates it produced for one recurrence start (so that
// overlapping requests only generate what is missing) and, per recurrence
// start, the last occurrence of a counted rule. The dates are kept sorted, so
// that extending the cached range costs what generating the extension costs.
// Every setter empties both caches.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "calcore/CALDate.h"
#include "calcore/CALTimeRange.h"
#include "calcore/CALWeekDayNumber.h"
#include "platform/Object.h"

namespace pc {

using CALDateList = std::vector<CALDateRef>;
// The text "%@" prints for a list of dates.
std::string descriptionOfDates(const CALDateList& dates);
using CALTimeRangeList = std::vector<CALTimeRange>;
// A BYxxx list of numbers; nullopt when the rule has none.
using CALRulePartList = std::optional<std::vector<int>>;
using CALWeekDayList = std::optional<std::vector<CALWeekDayNumber>>;

// Counted rules are searched for their last occurrence up to this year.
inline constexpr int kCALRecurrenceCountSearchEndYear = 2050;

// Ranks of the rule parts, from the coarsest.
inline constexpr int kCALRulePartByMonth = 6;
inline constexpr int kCALRulePartByWeekno = 5;
inline constexpr int kCALRulePartByDayLevel = 4;  // BYYEARDAY, BYMONTHDAY, BYDAY
inline constexpr int kCALRulePartByHour = 3;
inline constexpr int kCALRulePartByMinute = 2;
inline constexpr int kCALRulePartBySecond = 1;

class CALRecurrenceRule : public Object {
 public:
  // A generator turns one span into spans (or dates) inside it.
  using RangeGenerator = CALTimeRangeList (CALRecurrenceRule::*)(const CALTimeRange&,
                                                                 const CALDate&) const;
  using DateGenerator = CALDateList (CALRecurrenceRule::*)(const CALTimeRange&,
                                                           const CALDate&) const;

  ~CALRecurrenceRule() override;
  // The root description followed by "{CALREC:<class>}".
  std::string description() const override;

  // --- Fields ----------------------------------------------------------------
  // Setters answer the receiver so that they chain.

  const std::optional<CALTimeRange>& range() const { return _range; }
  CALRecurrenceRule& setRange(std::optional<CALTimeRange> range);
  int count() const { return _count; }
  CALRecurrenceRule& setCount(int count);
  int interval() const { return _interval; }
  CALRecurrenceRule& setInterval(int interval);
  bool hasWeekStart() const { return static_cast<unsigned>(_weekStart) != ~0u; }
  // The week start day (0 = Sunday); Monday when unset.
  int weekStart() const { return hasWeekStart() ? _weekStart : 1; }
  // -1 unsets it.
  CALRecurrenceRule& setWeekStart(int day);
  const CALDate* untilDate() const { return _untilDate.get(); }
  // Keeps a copy; null removes the until date.
  CALRecurrenceRule& setUntilDate(const CALDate* date);
  const CALRulePartList& byMonth() const { return _byMonth; }
  CALRecurrenceRule& setByMonth(CALRulePartList list);
  const CALRulePartList& byWeekno() const { return _byWeekno; }
  CALRecurrenceRule& setByWeekno(CALRulePartList list);
  const CALRulePartList& byYearDay() const { return _byYearDay; }
  CALRecurrenceRule& setByYearDay(CALRulePartList list);
  const CALRulePartList& byMonthDay() const { return _byMonthDay; }
  CALRecurrenceRule& setByMonthDay(CALRulePartList list);
  const CALWeekDayList& byDay() const { return _byDay; }
  CALRecurrenceRule& setByDay(CALWeekDayList list);
  const CALRulePartList& byHour() const { return _byHour; }
  CALRecurrenceRule& setByHour(CALRulePartList list);
  const CALRulePartList& byMinute() const { return _byMinute; }
  CALRecurrenceRule& setByMinute(CALRulePartList list);
  const CALRulePartList& bySecond() const { return _bySecond; }
  CALRecurrenceRule& setBySecond(CALRulePartList list);
  const CALRulePartList& bySetpos() const { return _bySetpos; }
  CALRecurrenceRule& setBySetpos(CALRulePartList list);
  // Recurrence start -> last occurrence (null: the count is not reached).
  const std::vector<std::pair<CALDateRef, CALDateRef>>& cachedEndDates() const {
    return _ruleCachedEndDates;
  }

  // --- Occurrences -----------------------------------------------------------

  // The occurrences in `range` (end excluded), sorted, through the cache. A
  // range without start begins at the recurrence start. A range without end
  // on a rule without end (no until date, no count reached before 2050) has
  // endless occurrences: it answers the recurrence start alone and leaves
  // the cache as it was.
  CALDateList occurrencesOnTimeRange(const CALTimeRange& range, const CALDate& recurrenceStart);
  // The uncached generator. Nothing is generated past an open end unless
  // the rule bounds itself (until date, or a count reached before 2050); the
  // recurrence start is answered whenever the range holds it.
  CALDateList realOccurrencesOnTimeRange(const CALTimeRange& range, const CALDate& recurrenceStart);
  // The last of the dates occurrencesOnTimeRange() answers, or null when it
  // answers none. The periods are walked back from the end of the range (or
  // of the rule) and the walk stops once no earlier period can hold a later
  // date, so a long rule costs its last periods, not all of them. The date
  // cache is left as it is (a counted rule's end date is cached as for any
  // expansion).
  CALDateRef lastOccurrenceOnTimeRange(const CALTimeRange& range, const CALDate& recurrenceStart);
  // The last occurrence of a counted rule; null when the rule is not counted
  // or its count is not reached before 2050.
  CALDateRef cachedEndDateForRecurrenceStart(const CALDate& recurrenceStart);
  void computeAndCacheEndDateForRecurrenceStart(const CALDate& recurrenceStart);
  // Whether `date` is one of the dates the rule produces, ignoring the
  // interval (the date taken as its own recurrence start). The periods next
  // to the date's are asked too: a yearly rule's week 1 may begin in the
  // December before, its day 0 is the next year's 1 January.
  bool ruleMatchesDate(const CALDate& date) const;
  // The period (day, week, month or year) holding `date`: an occurrence moved
  // within it stays in its period of the interval's grid.
  CALTimeRange acceptableMoveToTimeRangeForDate(const CALDate& date) const;
  // The rule for the same series after its occurrence on `from` moved to
  // `to`: the parts that name `from` (its weekday, with its rank in the
  // month for ordinal days, its day of the month, month, day of the year)
  // name `to` instead. `changes` (optional) tells whether any part changed;
  // parts that are missing follow the start and need no change.
  std::unique_ptr<CALRecurrenceRule> proposedRuleForMovingFrom(const CALDate& from, const CALDate& to,
                                                               bool* changes) const;
  // Same frequency and parts; the BYxxx lists are compared as sets (order
  // and repetition mean nothing to the expansion). With a start date, the
  // parts the start fills in (the weekday of a weekly rule, the day of a
  // monthly one...) are compared as if written out.
  bool isEqualToRule(const CALRecurrenceRule& other, const CALDate* consideringStartDate) const;

  // --- Rule-part generators ------------------------------------------------
  // Each takes one span and the recurrence start; a missing list takes its
  // value from the recurrence start. Spans are wall clocks (floating dates),
  // whole days from 00:00:00 to 23:59:59: compared with the dates of a zone
  // they read that zone's wall clock, which is how a rule repeats (10:00
  // stays 10:00 across a daylight-saving change), and they cost no zone
  // look-up.

  // Month spans of the listed months, in every year the span touches.
  CALTimeRangeList generateByMonthOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Week spans of the listed week numbers (see week()); none without BYWEEKNO.
  CALTimeRangeList generateByWeeknoOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Day spans of the listed days of the year; 0 is 1 January of the next year.
  CALTimeRangeList generateByYearDayOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Day spans of the listed days of each month the span touches; negative
  // values count from the month's end, values beyond its length yield nothing.
  CALTimeRangeList generateByMonthDayOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Periodic and positional days together, sorted.
  CALTimeRangeList generateByDayOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // The n-th (or n-th from the end) weekday of the span.
  CALTimeRangeList generatePositionalByDayOnTimeRange(const CALTimeRange& span,
                                                      const CALDate& start) const;
  // Every listed weekday (entries without ordinal) in the span.
  CALTimeRangeList generatePeriodicByDayOnTimeRange(const CALTimeRange& span,
                                                    const CALDate& start) const;
  // Hour spans of the listed hours on each day of the span.
  CALTimeRangeList generateByHourOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Minute spans of the listed minutes in each hour the span touches.
  CALTimeRangeList generateByMinuteOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Dates at the listed seconds in each minute the span touches.
  CALDateList generateBySecondOnTimeRange(const CALTimeRange& span, const CALDate& start) const;
  // Each day of the span at the recurrence start's time of day.
  CALDateList generateSimpleTimeRuleOnTimeRange(const CALTimeRange& span, const CALDate& start) const;

  // Week `week` of `year`: weeks begin on the rule's week start day and week
  // 1 is the first one with at least four days in the year; negative numbers
  // count from the year's last week. Nothing for 0 or a number beyond the
  // year's own count of weeks (52 or 53), from either end.
  std::optional<CALTimeRange> week(int week, int year) const;
  // 52 or 53, for the rule's week start day.
  int numberOfWeeksInYear(int year) const;
  // Days from `date` forward to the next `day` (0 to 6).
  static int numberOfDaysUntilNextOccurrenceOfDay(int day, const CALDate& date);
  // Days from `date` back to the previous `day`, as a negative count (-6 to 0).
  static int numberOfDaysUntilPreviousOccurrenceOfDay(int day, const CALDate& date);
  // Appends the day spans of weekday `day` that lie in `span`.
  void addPeriodicDay(int day, CALTimeRangeList& array, const CALTimeRange& span) const;

  // --- Pipeline helpers ------------------------------------------------------

  // The generator applied to every span; each result is cut to its span, so
  // that a part applied to finer spans narrows them.
  CALTimeRangeList applyRulePart(RangeGenerator generator, const CALTimeRangeList& array,
                                 const CALDate& start) const;
  CALDateList applyRulePart(DateGenerator generator, const CALTimeRangeList& array,
                            const CALDate& start) const;
  // The times of day of the day spans: the recurrence start's time, or the
  // BYHOUR, BYMINUTE and BYSECOND expansion (a missing one taking the
  // recurrence start's value).
  CALDateList generateTimeRulePartOnArray(const CALTimeRangeList& array, const CALDate& start) const;
  // The rank of the finest part present, capped by the frequency.
  virtual int lastSpecifiedRulePartOrder() const;
  // The BYSETPOS picks of one period's sorted candidates (all without BYSETPOS).
  CALDateList filterBySetpos(const CALDateList& dates) const;
  static CALDateList filterOccurrences(const CALDateList& dates, const CALTimeRange& range,
                                       bool excludingEndDate);
  // Puts the recurrence start in front when the range holds it (end excluded).
  static void addRecStartDateIfNeeded(CALDateList& dates, const CALTimeRange& range,
                                      const CALDate& start);
  // The last instant to generate up to: the until date, the last occurrence
  // of a counted rule or the range's end, whichever comes first.
  CALDateRef realEndDateOnTimeRange(const CALTimeRange& range, const CALDate& start);

  // --- Simple cache ------------------------------------------------------------

  void invalidateCache();
  // Merges the dates into the sorted cache; dates already cached are logged
  // and kept once.
  void addCachedDates(CALDateList dates);
  // Replaces the cached dates (sorted here, without duplicates).
  void setCachedDates(CALDateList dates);
  void setCachedStartDate(const CALDate* start);
  void setCachedTimeRange(std::optional<CALTimeRange> range) { _cachedTimeRange = std::move(range); }
  const CALDateList& cachedDates() const { return _cachedDates; }
  bool isTimeRangeCached(const CALTimeRange& range, const CALDate& start) const;
  // The cached dates in the range (end excluded), sorted.
  CALDateList cachedDatesOnTimeRange(const CALTimeRange& range) const;
  // Extends the cache to the range, generating only the part not yet covered.
  void addDatesOnTimeRange(const CALTimeRange& range, const CALDate& start);

 protected:
  CALRecurrenceRule() = default;

  // The period spans, stepped by the interval from the recurrence start's
  // period, that intersect any of `spans`.
  virtual CALTimeRangeList _matchingPeriods(const CALTimeRangeList& spans,
                                            const CALDate& start) const = 0;
  // A period index of a date (days, weeks, months or years; any origin),
  // and the span of the period of an index.
  virtual std::int64_t _periodIndex(const CALDate& date) const = 0;
  virtual CALTimeRange _periodSpan(std::int64_t index) const = 0;
  // The candidate day spans of one period.
  virtual CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period,
                                             const CALDate& start) const = 0;
  // The walk shared by the frequencies: periods from the start's, every
  // `interval` periods, while they begin before or at the spans' last
  // instant; when _walkEndsStrictly(), a period that begins exactly at that
  // instant is left out too.
  CALTimeRangeList _walkPeriods(const CALTimeRangeList& spans, const CALDate& start) const;
  virtual bool _walkEndsStrictly() const { return false; }
  // The first and last period indexes of that walk over `spans` (the first
  // on the interval's grid); false when the spans are unbounded or empty.
  bool _walkBounds(const CALTimeRangeList& spans, const CALDate& start, std::int64_t* first,
                   std::int64_t* last) const;
  // The candidates of one period, sorted, without duplicates, through BYSETPOS.
  CALDateList _occurrencesInPeriod(const CALTimeRange& period, const CALDate& start) const;
  // Day arithmetic on local wall clocks, so that days stay whole across
  // daylight-saving changes. Days are absolute day numbers (calcdate.h).
  static std::int64_t _localDay(const CALDate& date);
  static CALCDate _localFields(const CALDate& date);
  // The wall clock of `day` at the given time (a floating date).
  static CALDateRef _dateOnDay(std::int64_t day, int hour, int minute, int second);
  // An occurrence: the same wall clock as a date of the recurrence start's
  // kind (and zone).
  static CALDateRef _occurrenceOnDay(const CALDate& start, std::int64_t day, int hour, int minute,
                                     int second);
  // A range holding two dates nobody else holds, without copying them.
  static CALTimeRange _span(CALDateRef start, CALDateRef end);
  // From `firstDay` 00:00:00 to `lastDay` 23:59:59.
  static CALTimeRange _daysSpan(std::int64_t firstDay, std::int64_t lastDay);
  // The rank of the finest part present (0 when none), before the cap.
  int _finestRulePartOrder() const;
  // No part finer than the week (no day of the year, month or week, no
  // time part): then the start's day fills in for the missing day parts.
  bool _noDayOrTimePart() const { return lastSpecifiedRulePartOrder() > kCALRulePartByDayLevel; }
  // The parts a start fills in for this frequency, written out into `rule`,
  // a copy of this rule's parts.
  virtual void _writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const = 0;
  virtual std::unique_ptr<CALRecurrenceRule> _emptyCopy() const = 0;
  // A rule of the same frequency with the same parts.
  std::unique_ptr<CALRecurrenceRule> _copyOfParts() const;

 private:
  bool _hasSameParts(const CALRecurrenceRule& other) const;
  // Empties the date cache and the end-date cache: the parts changed.
  void _partsChanged();
  // The request as the cache keeps it: without start, from the recurrence start.
  CALTimeRange _requestFrom(const CALTimeRange& range, const CALDate& start) const;
  // The range as occurrencesOnTimeRange() reads it: in floating dates for a
  // floating start, then through _requestFrom().
  CALTimeRange _requestFor(const CALTimeRange& range, const CALDate& start) const;
  // The last date realOccurrencesOnTimeRange() answers, or null.
  CALDateRef _lastRealOccurrence(const CALTimeRange& range, const CALDate& start);
  // The latest occurrence in `window` (its end excluded or not) of the
  // periods the walk keeps, or null.
  CALDateRef _lastOccurrenceInWindow(const CALTimeRange& window, const CALDate& start,
                                     bool excludingEnd) const;
  // Whether the rule ends by itself (until date, or count reached).
  bool _hasOwnEnd(const CALDate& start);
  CALDateRef _lookUpEndDate(const CALDate& start, bool* found) const;

  std::optional<CALTimeRange> _range;
  std::vector<std::pair<CALDateRef, CALDateRef>> _ruleCachedEndDates;
  CALDateList _cachedDates;
  std::optional<CALTimeRange> _cachedTimeRange;
  CALDateRef _cachedStartDate;
  std::int32_t _count = -1;
  std::int32_t _interval = 1;
  std::int32_t _weekStart = -1;
  CALDateRef _untilDate;
  CALRulePartList _byMonth, _byWeekno, _byYearDay, _byMonthDay;
  CALWeekDayList _byDay;
  CALRulePartList _byHour, _byMinute, _bySecond;
  CALRulePartList _bySetpos;
};

}  // namespace pc
