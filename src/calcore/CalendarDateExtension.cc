#include "calcore/CalendarDateExtension.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "async/Log.h"

namespace pc {

namespace {

// The domain of the calendar record utilities, whose operations these are.
const std::string& logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncCalendarUtilities"));
  return domain;
}

}  // namespace

namespace CalendarUtilities {

Array normalizedExDates(const Array& exDates) {
  std::vector<CalendarDate> dates;
  dates.reserve(exDates.count());
  for (const Value& value : exDates) {
    const CalendarDate* date = value.asDate();
    if (!QVT_CHECK(date)) continue;
    dates.push_back(*date);
  }
  std::stable_sort(dates.begin(), dates.end(),
                   [](const CalendarDate& a, const CalendarDate& b) { return a < b; });
  Array result;
  for (std::size_t i = 0; i < dates.size(); ++i) {
    result.add(dates[i]);
    while (i + 1 < dates.size() && dates[i + 1] == dates[i]) {
      QVT_LOG(kLogInfo, logDomain(), "Removing duplicate exdate: {}", dates[i + 1]);
      ++i;
    }
  }
  return result;
}

}  // namespace CalendarUtilities

namespace CalendarExtension {

CalendarDate convertToMidnightInTimeZone(const CalendarDate& date, const TimeZonePtr& zone) {
  return CalendarDate::dateWithYear(date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth(),
                                    0, 0, 0, zone);
}

CalendarDate convertToMiddayInTimeZone(const CalendarDate& date, const TimeZonePtr& zone) {
  return CalendarDate::dateWithYear(date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth(),
                                    12, 0, 0, zone);
}

CalendarDate convertInTimeZone(const CalendarDate& date, const TimeZonePtr& zone) {
  const CalendarDate converted = CalendarDate::dateWithYear(
      date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth(), date.hourOfDay(),
      date.minuteOfHour(), date.secondOfMinute(), zone);
  // The fields carry whole seconds; the fraction of a second travels as is.
  const double seconds = date.timeIntervalSinceReferenceDate();
  const double fraction = seconds - std::floor(seconds);
  return fraction == 0 ? converted : converted.dateByAddingTimeInterval(fraction);
}

CalendarDate allDayDateWithYear(int year, int month, int day) {
  return CalendarDate::dateWithYear(year, month, day, 12, 0, 0, TimeZone::gmt());
}

}  // namespace CalendarExtension

}  // namespace pc
