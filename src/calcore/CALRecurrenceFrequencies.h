#pragma once
// The four frequencies of CALRecurrenceRule. Each walks its periods from the
// recurrence start and narrows every period to candidate days:
//
//   daily    the day, kept when in BYMONTH (and then BYMONTHDAY) or else in
//            BYWEEKNO (on the BYDAY weekdays, the start's by default), and
//            on a BYDAY weekday;
//   weekly   weeks that touch a BYMONTH month (else a BYWEEKNO week), all
//            their BYDAY weekdays (the start's weekday when no finer part
//            is given, every day with a time part alone);
//   monthly  months in BYMONTH; BYDAY days (ordinals count in the month),
//            BYMONTHDAY days (the start's day when no finer part is given),
//            both narrowing each other when both are given; the walk ends
//            with the month before one that begins exactly at the last
//            instant;
//   yearly   BYYEARDAY days, or BYWEEKNO weeks narrowed by BYMONTHDAY and
//            BYDAY, or BYMONTH months (the start's month by default, with
//            or without BYDAY) with BYDAY (ordinals count in the month) and
//            BYMONTHDAY (the start's day when no finer part is given).
//
// A time part without a day part thus repeats on every day of the period's
// days: FREQ=MONTHLY;BYHOUR=9 is every day of the month at 9:00.

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
  std::int64_t _periodIndex(const CALDate& date) const override;
  CALTimeRange _periodSpan(std::int64_t index) const override;
  CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period, const CALDate& start) const override;
  void _writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const override;
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
  std::int64_t _periodIndex(const CALDate& date) const override;
  CALTimeRange _periodSpan(std::int64_t index) const override;
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
  bool _walkEndsStrictly() const override { return true; }
  std::int64_t _periodIndex(const CALDate& date) const override;
  CALTimeRange _periodSpan(std::int64_t index) const override;
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
  std::int64_t _periodIndex(const CALDate& date) const override;
  CALTimeRange _periodSpan(std::int64_t index) const override;
  CALTimeRangeList _daySpansOfPeriod(const CALTimeRange& period, const CALDate& start) const override;
  void _writeOutDefaults(CALRecurrenceRule& rule, const CALDate& start) const override;
  std::unique_ptr<CALRecurrenceRule> _emptyCopy() const override { return rule(); }
};

}  // namespace pc
