#include "calcore/CALFloatingDateTime.h"

#include <fmt/format.h>

#include "calcore/CALDateOnly.h"

namespace pc {

CALRef<CALFloatingDateTime> CALFloatingDateTime::dateWithYear(std::int32_t year, std::uint32_t month,
                                                              std::uint32_t day, std::uint32_t hour,
                                                              std::uint32_t minute,
                                                              std::uint32_t second) {
  CALRef<CALFloatingDateTime> date = _make<CALFloatingDateTime>();
  date->setYear(year, month, day, hour, minute, second, nullptr);
  return date;
}

CALRef<CALFloatingDateTime> CALFloatingDateTime::timeOnlyWithHour(std::uint32_t hour,
                                                                  std::uint32_t minute,
                                                                  std::uint32_t second) {
  return dateWithYear(2001, 1, 1, hour, minute, second);
}

CALRef<CALFloatingDateTime> CALFloatingDateTime::date() {
  return CALFloatingDateConversion::calFloatingDateTime(CalendarDate::now(TimeZone::systemTimeZone()));
}

CALDateRef CALFloatingDateTime::dateOnlyFromDate(const CALDate& date) {
  return CALDateOnly::dateOnlyFromDate(date);
}

CALDateRef CALFloatingDateTime::copy() const {
  CALRef<CALFloatingDateTime> date = _make<CALFloatingDateTime>();
  date->_copyStateFrom(*this);
  return date;
}

void CALFloatingDateTime::_setRecord(const CALCDate& local) {
  _cdate = local;
  calcdate_normalize_hms(&_cdate);
  calcdate_normalize_ymd(&_cdate);
  _didSetRecord();
}

void CALFloatingDateTime::setYear(std::int32_t year, std::uint32_t month, std::uint32_t day,
                                  std::uint32_t hour, std::uint32_t minute, std::uint32_t second,
                                  TimeZonePtr) {
  _setRecord(CALCDate{second, minute, hour, day, month, year});
}

void CALFloatingDateTime::roundToDay() { _cdate.hour = _cdate.minute = _cdate.second = 0; }

void CALFloatingDateTime::addSecondsInGMT(std::int64_t seconds) {
  calcdate_add_seconds(&_cdate, seconds);
}

void CALFloatingDateTime::addYears(int years, int months, int days, int hours, int minutes,
                                   std::int64_t seconds) {
  const CALCDate delta{seconds, minutes, hours, days, months, years};
  calcdate_add_deltadate(&_cdate, &delta);
}

void CALFloatingDateTime::takeValueFrom(const CALDate* other) {
  if (!other) return;
  other->getCDateInTimeZone(&_cdate);
  _didSetRecord();
}

double CALFloatingDateTime::timeIntervalSinceNow() const { return timeIntervalSinceDate(*date()); }

std::string CALFloatingDateTime::description() const {
  return fmt::format("{:04}/{:02}/{:02}  {:02}:{:02}:{:02} - {}", _cdate.year, _cdate.month,
                     _cdate.day, _cdate.hour, _cdate.minute, _cdate.second, "FloatingDateTime");
}

void CALFloatingDateTime::_comparisonRecords(const CALDate& other, CALCDate* mine,
                                             CALCDate* theirs) const {
  *mine = _cdate;
  other.getCDateInTimeZone(theirs);
}

TimeZonePtr CALFloatingDateTime::_conversionZone() const { return TimeZone::systemTimeZone(); }

namespace CALFloatingDateConversion {

CALRef<CALFloatingDateTime> calFloatingDateTime(const CalendarDate& date) {
  return CALFloatingDateTime::dateWithYear(date.yearOfCommonEra(), date.monthOfYear(),
                                           date.dayOfMonth(), date.hourOfDay(),
                                           date.minuteOfHour(), date.secondOfMinute());
}

}  // namespace CALFloatingDateConversion

}  // namespace pc
