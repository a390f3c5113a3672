#pragma once
// CALDateTime: an instant tied to a time zone. The record is the instant's
// GMT wall clock; the zone (null: GMT) says how it reads locally.

#include "calcore/CALDate.h"

namespace pc {

class CALDateTime : public CALDate {
 public:
  static CALRef<CALDateTime> dateWithYear(std::int32_t year, std::uint32_t month, std::uint32_t day,
                                          std::uint32_t hour, std::uint32_t minute,
                                          std::uint32_t second, TimeZonePtr zone);
  // The time of day on 2001-01-01, the base day of times without a date.
  static CALRef<CALDateTime> timeOnlyWithHour(std::uint32_t hour, std::uint32_t minute,
                                              std::uint32_t second, TimeZonePtr zone);
  // Now, in the system zone.
  static CALRef<CALDateTime> date();
  // A CALDateOnly of the local day of `date`.
  static CALDateRef dateOnlyFromDate(const CALDate& date);

  CALDateRef copy() const override;
  std::string className() const override { return "CALDateTime"; }

  // Seconds the zone is ahead of GMT at this instant; cached until the zone or
  // the instant changes.
  std::int64_t offsetFromGMT() const override;
  std::int64_t offsetFromGMTForTimeZone(const TimeZonePtr& zone) const override;

  int compare(const CALDate* other) const override { return _compareRecords(other); }
  bool meetComparisonCondition(unsigned condition, const CALDate* other) const override {
    return _meetCondition(condition, other);
  }
  bool isEqualAsDateOnly(const CALDate* other) const override { return _isSameLocalDay(other); }

  // A wall clock skipped by a daylight-saving change reads as the instant
  // after the gap (02:30 becomes 03:30 daylight time); a repeated one as its
  // first occurrence.
  void setYear(std::int32_t year, std::uint32_t month, std::uint32_t day, std::uint32_t hour,
               std::uint32_t minute, std::uint32_t second, TimeZonePtr zone) override;
  void setTimeZone(TimeZonePtr zone) override { setTimeZone(std::move(zone), false); }
  void setTimeZone(TimeZonePtr zone, bool keepingLocalDate) override;
  // Local midnight of the same local day.
  void roundToDay() override;
  void addSecondsInGMT(std::int64_t seconds) override;
  // The delta applies to the GMT wall clock.
  void addYears(int years, int months, int days, int hours, int minutes,
                std::int64_t seconds) override;
  // Takes the other date's raw record and zone.
  void takeValueFrom(const CALDate* other) override;
  void years(int* years, int* months, int* days, int* hours, int* minutes, int* seconds,
             const CALDate* other) const override {
    _deltaSince(years, months, days, hours, minutes, seconds, other);
  }
  double timeIntervalSinceNow() const override;

  // "2006/03/15  10:00:00 (3600) - DateTime |TZ <zone>"
  std::string description() const override;

 protected:
  friend class CALDate;
  CALDateTime() = default;

  void _comparisonRecords(const CALDate& other, CALCDate* mine, CALCDate* theirs) const override;
  TimeZonePtr _conversionZone() const override;
  void _takeCalendarDate(const CalendarDate& date) override;
};

// Conversions from the platform's dates.
namespace CALDateTimeConversion {
// Null, with a warning, for the platform's reference date itself, which
// stands for a date that was never set.
CALRef<CALDateTime> calDateTime(const Date& date);
// The same instant in the calendar date's zone.
CALRef<CALDateTime> calDateTime(const CalendarDate& date);
}  // namespace CALDateTimeConversion

// A CALDateOnly for a calendar date at local midnight, else a CALDateTime.
namespace Kestrel11Compatibility {
CALDateRef calDate(const CalendarDate& date);
}  // namespace Kestrel11Compatibility

}  // namespace pc
