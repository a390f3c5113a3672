#include "calcore/CALDateOnly.h"

#include <fmt/format.h>

namespace pc {

CALRef<CALDateOnly> CALDateOnly::dateOnlyWithYear(std::int32_t year, std::uint32_t month,
                                                  std::uint32_t day) {
  CALRef<CALDateOnly> date = _make<CALDateOnly>();
  date->setYear(year, month, day, 0, 0, 0, nullptr);
  return date;
}

CALRef<CALDateOnly> CALDateOnly::dateOnlyFromDate(const CALDate& date) {
  CALCDate local;
  date.getCDateInTimeZone(&local);
  return dateOnlyWithYear(static_cast<std::int32_t>(local.year), static_cast<std::uint32_t>(local.month),
                          static_cast<std::uint32_t>(local.day));
}

CALRef<CALDateOnly> CALDateOnly::date() {
  return CALDateOnlyConversion::calDateOnly(CalendarDate::now(TimeZone::systemTimeZone()));
}

CALDateRef CALDateOnly::copy() const {
  CALRef<CALDateOnly> date = _make<CALDateOnly>();
  date->_copyStateFrom(*this);
  return date;
}

std::string CALDateOnly::description() const {
  return fmt::format("{:04}/{:02}/{:02} - {}", _cdate.year, _cdate.month, _cdate.day, "DateOnly");
}

namespace CALDateOnlyConversion {

CALRef<CALDateOnly> calDateOnly(const CalendarDate& date) {
  return CALDateOnly::dateOnlyWithYear(date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth());
}

}  // namespace CALDateOnlyConversion

}  // namespace pc
