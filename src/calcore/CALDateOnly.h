#pragma once
// CALDateOnly: a calendar day, a floating date at midnight. It converts to
// the platform's dates in GMT.

#include "calcore/CALFloatingDateTime.h"

namespace pc {

class CALDateOnly : public CALFloatingDateTime {
 public:
  static CALRef<CALDateOnly> dateOnlyWithYear(std::int32_t year, std::uint32_t month,
                                              std::uint32_t day);
  // The local day of `date`.
  static CALRef<CALDateOnly> dateOnlyFromDate(const CALDate& date);
  // Today in the system zone.
  static CALRef<CALDateOnly> date();

  CALDateRef copy() const override;
  std::string className() const override { return "CALDateOnly"; }

  // "2006/03/15 - DateOnly"
  std::string description() const override;

 protected:
  friend class CALDate;
  CALDateOnly() = default;

  TimeZonePtr _conversionZone() const override { return TimeZone::gmt(); }
  // A day has no time of day: whatever sets the record keeps only its day.
  void _didSetRecord() override { _cdate.hour = _cdate.minute = _cdate.second = 0; }
};

// Conversions from the platform's calendar dates: the day in the date's zone.
namespace CALDateOnlyConversion {
CALRef<CALDateOnly> calDateOnly(const CalendarDate& date);
}  // namespace CALDateOnlyConversion

}  // namespace pc
