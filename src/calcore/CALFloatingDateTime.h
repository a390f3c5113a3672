#pragma once
// CALFloatingDateTime: a wall-clock reading with no time zone, the same local
// time everywhere. Its offsets are 0 and zone changes do nothing.

#include "calcore/CALDate.h"

namespace pc {

class CALFloatingDateTime : public CALDate {
 public:
  static CALRef<CALFloatingDateTime> dateWithYear(std::int32_t year, std::uint32_t month,
                                                  std::uint32_t day, std::uint32_t hour,
                                                  std::uint32_t minute, std::uint32_t second);
  // The time of day on 2001-01-01, the base day of times without a date.
  static CALRef<CALFloatingDateTime> timeOnlyWithHour(std::uint32_t hour, std::uint32_t minute,
                                                      std::uint32_t second);
  // The system zone's wall clock now.
  static CALRef<CALFloatingDateTime> date();
  // A CALDateOnly of the local day of `date`.
  static CALDateRef dateOnlyFromDate(const CALDate& date);

  CALDateRef copy() const override;
  std::string className() const override { return "CALFloatingDateTime"; }

  std::int64_t offsetFromGMT() const override { return 0; }
  std::int64_t offsetFromGMTForTimeZone(const TimeZonePtr&) const override { return 0; }

  int compare(const CALDate* other) const override { return _compareRecords(other); }
  bool meetComparisonCondition(unsigned condition, const CALDate* other) const override {
    return _meetCondition(condition, other);
  }
  bool isEqualAsDateOnly(const CALDate* other) const override { return _isSameLocalDay(other); }

  // The zone is ignored.
  void setYear(std::int32_t year, std::uint32_t month, std::uint32_t day, std::uint32_t hour,
               std::uint32_t minute, std::uint32_t second, TimeZonePtr zone) override;
  void setTimeZone(TimeZonePtr) override {}
  void setTimeZone(TimeZonePtr, bool) override {}
  void roundToDay() override;
  void addSecondsInGMT(std::int64_t seconds) override;
  void addYears(int years, int months, int days, int hours, int minutes,
                std::int64_t seconds) override;
  // Takes the other date's local wall clock.
  void takeValueFrom(const CALDate* other) override;
  void years(int* years, int* months, int* days, int* hours, int* minutes, int* seconds,
             const CALDate* other) const override {
    _deltaSince(years, months, days, hours, minutes, seconds, other);
  }
  double timeIntervalSinceNow() const override;

  // "2006/03/15  10:00:00 - FloatingDateTime"
  std::string description() const override;

 protected:
  friend class CALDate;
  CALFloatingDateTime() = default;

  void _comparisonRecords(const CALDate& other, CALCDate* mine, CALCDate* theirs) const override;
  TimeZonePtr _conversionZone() const override;
  // Sets the record from a local wall clock, normalising it.
  void _setRecord(const CALCDate& local);
};

// Conversions from the platform's calendar dates: the wall clock in the
// date's zone.
namespace CALFloatingDateConversion {
CALRef<CALFloatingDateTime> calFloatingDateTime(const CalendarDate& date);
}  // namespace CALFloatingDateConversion

}  // namespace pc
