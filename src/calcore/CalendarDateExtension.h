#pragma once
// The operations of the calendar record utilities that need nothing but
// calendar dates: moving a date to midnight or midday of its day, wall-clock
// conversion between zones, all-day dates, and the normalisation of a list of
// exception dates. They live with the calendar core so that the formatting
// methods reach them without depending on the transformers above them;
// transformers/CalendarUtilities.h includes this header.

#include "platform/CalendarDate.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

namespace CalendarUtilities {

// A new array of the dates sorted ascending, each instant once (the first of
// equal dates is kept; each removal is logged). Elements that are not dates
// are dropped, logged. The input is not changed.
Array normalizedExDates(const Array& exDates);

}  // namespace CalendarUtilities

namespace CalendarExtension {

// --- Calendar dates ---

// The date's year, month and day (read in its own zone) at 00:00:00 in `zone`
// (nullptr: GMT).
CalendarDate convertToMidnightInTimeZone(const CalendarDate& date, const TimeZonePtr& zone);
// The same at 12:00:00.
CalendarDate convertToMiddayInTimeZone(const CalendarDate& date, const TimeZonePtr& zone);
// Wall-clock conversion: the same year, month, day, hour, minute and second in
// `zone` (nullptr: GMT); the instant changes.
CalendarDate convertInTimeZone(const CalendarDate& date, const TimeZonePtr& zone);
// 12:00:00 GMT of the given day: all-day dates sit at midday GMT so that no
// zone offset can move them to another day.
CalendarDate allDayDateWithYear(int year, int month, int day);

}  // namespace CalendarExtension

}  // namespace pc
