#pragma once
// The four frequencies of CALRecurrenceRule. Each walks its periods from the
// recurrence start and narrows every period to candidate days:
//
//   daily    the day, kept when it satisfies BYMONTH, BYMONTHDAY, BYDAY
//            and BYWEEKNO;
//   weekly   the BYDAY weekdays of the week (the start's weekday by
//            default), kept in the BYMONTH months and BYWEEKNO weeks;
//   monthly  months in BYMONTH; BYDAY days (ordinals count in the month),
//            BYMONTHDAY days (the start's day by default), both narrowing
//            each other when both are given; the walk ends with the month
//            before one that begins exactly at the last instant;
//   yearly   BYYEARDAY days, or BYWEEKNO weeks narrowed by BYMONTHDAY and
//            BYDAY, or BYMONTH months (the start's month by default, with
//            or without BYDAY) with BYDAY (ordinals count in the month) and
//            BYMONTHDAY (the start's day when neither BYDAY nor BYMONTHDAY
//            is given).

#include <memory>

#include "calcore/CALRecurrenceRule.h"

namespace pc {

class CALDailyRecurrence : public CALRecurrenceRule {
 public:
  static std::unique_ptr<CALDailyRecurrence> rule() {
    return std::unique_ptr<CALDailyRecurrence>(new CALDailyRecurrence());
  }
  std::string className() const override { return "CALDailyRecurrence"; }
  int lastSpecifiedRulePartOrder() const override;
  // The day spans, every `interval` days from the start's, that meet `spans`.
  CALTimeRangeList matchingDaysOnTimeRangeArray(const CALTimeRangeList& spans, const CALDate& start) const;

 protected:
  CALDailyRecurrence() = default;
  CALTimeRangeList _matchingPeriods(const CALTimeRangeList& spans, const CALDate& start) const override {
    return matchingDaysOnTimeRangeArray(spans, start);
  }
  CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period, const CALDate& start) const override;
  void _writeOutDefaults(CALRecurrenceRule&, const CALDate&) const override {}
  std::unique_ptr<CALRecurrenceRule> _emptyCopy() const override { return rule(); }
};

class CALWeeklyRecurrence : public CALRecurrenceRule {
 public:
  static std::unique_ptr<CALWeeklyRecurrence> rule() {
    return std::unique_ptr<CALWeeklyRecurrence>(new CALWeeklyRecurrence());
  }
  std::string className() const override { return "CALWeeklyRecurrence"; }
  int lastSpecifiedRulePartOrder() const override;
  // The week spans (from the week start day), every `interval` weeks from
  // the start's week, that meet `spans`.
  CALTimeRangeList matchingWeeksOnTimeRangeArray(const CALTimeRangeList& spans, const CALDate& start) const;

 protected:
  CALWeeklyRecurrence() = default;
  CALTimeRangeList _matchingPeriods(const CALTimeRangeList& spans, const CALDate& start) const override {
    return matchingWeeksOnTimeRangeArray(spans, start);
  }
  CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period, const CALDate& start) const override;
  void _writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const override;
  std::unique_ptr<CALRecurrenceRule> _emptyCopy() const override { return rule(); }
};

class CALMonthlyRecurrence : public CALRecurrenceRule {
 public:
  static std::unique_ptr<CALMonthlyRecurrence> rule() {
    return std::unique_ptr<CALMonthlyRecurrence>(new CALMonthlyRecurrence());
  }
  std::string className() const override { return "CALMonthlyRecurrence"; }
  int lastSpecifiedRulePartOrder() const override;
  // The month spans, every `interval` months from the start's, that meet `spans`.
  CALTimeRangeList matchingMonthsOnTimeRangeArray(const CALTimeRangeList& spans, const CALDate& start) const;

 protected:
  CALMonthlyRecurrence() = default;
  CALTimeRangeList _matchingPeriods(const CALTimeRangeList& spans, const CALDate& start) const override {
    return matchingMonthsOnTimeRangeArray(spans, start);
  }
  CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period, const CALDate& start) const override;
  void _writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const override;
  std::unique_ptr<CALRecurrenceRule> _emptyCopy() const override { return rule(); }
};

class CALYearlyRecurrence : public CALRecurrenceRule {
 public:
  static std::unique_ptr<CALYearlyRecurrence> rule() {
    return std::unique_ptr<CALYearlyRecurrence>(new CALYearlyRecurrence());
  }
  std::string className() const override { return "CALYearlyRecurrence"; }
  int lastSpecifiedRulePartOrder() const override;
  // The occurrences of one year span (before the range filters), BYSETPOS
  // applied to the year's candidates.
  CALDateList occurrencesOnYear(const CALTimeRange& year, const CALDate& start) const {
    return _occurrencesInPeriod(year, start);
  }

 protected:
  CALYearlyRecurrence() = default;
  CALTimeRangeList _matchingPeriods(const CALTimeRangeList& spans, const CALDate& start) const override;
  CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period, const CALDate& start) const override;
  void _writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const override;
  std::unique_ptr<CALRecurrenceRule> _emptyCopy() const override { return rule(); }
};

}  // namespace pc
