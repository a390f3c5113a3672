#pragma once
// The platform's calendar date: an instant (platform/Date.h) read in a time
// zone, with the fields of the proleptic Gregorian calendar in that zone.

#include <compare>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Date.h"
#include "platform/TimeZone.h"

namespace pc {

class CalendarDate {
 public:
  // The reference date, in GMT.
  CalendarDate();
  // `instant` read in `zone` (nullptr: GMT).
  explicit CalendarDate(Date instant, TimeZonePtr zone = nullptr);

  static CalendarDate now(TimeZonePtr zone = nullptr);

  // The date whose fields in `zone` (nullptr: GMT) are those given. Fields out
  // of their range carry: month 13 is January of the next year, day 32 the
  // first of the next month, hour -1 the previous day's 23:00. A wall clock
  // skipped by a daylight-saving change reads as the instant after the gap
  // (02:30 on the spring-forward night is 03:30 daylight time); one repeated
  // by the autumn change reads as its first (daylight) occurrence.
  static CalendarDate dateWithYear(int year, int month, int day, int hour, int minute, int second,
                                   TimeZonePtr zone = nullptr);

  // Parses `text` with a calendar format (see descriptionWithCalendarFormat).
  // Fields the format lacks are taken from 2001-01-01 00:00:00; the zone is the
  // one the text names (%Z, else %z as a fixed offset), else `zone`, else GMT;
  // an offset in the text fixes the instant. Numbers have the width printing
  // gives them ("%m" two digits; "%Y" four, or more when no number follows);
  // blanks in the format match any run of blanks; text after the format is
  // ignored. nullopt when the text does not match; `error` (optional) then
  // says what and where.
  static std::optional<CalendarDate> dateWithString(std::string_view text, std::string_view format,
                                                    TimeZonePtr zone = nullptr, std::string* error = nullptr);

  // Instants whose fields the calendar reads: within about 300,000 years
  // of the reference date. Readers of stored dates refuse any other, so that
  // what is written is the date that was read.
  static constexpr double kSupportedSeconds = 1e13;
  bool isWithinSupportedRange() const {
    return _instant.secondsSinceReferenceDate >= -kSupportedSeconds &&
           _instant.secondsSinceReferenceDate <= kSupportedSeconds;
  }

  Date date() const { return _instant; }
  double timeIntervalSinceReferenceDate() const { return _instant.secondsSinceReferenceDate; }
  double timeIntervalSince1970() const { return _instant.timeIntervalSince1970(); }
  // Never null: a date built without a zone answers GMT.
  const TimeZonePtr& timeZone() const { return _zone; }

  // Re-zoning: the same instant read in another zone.
  void setTimeZone(TimeZonePtr zone);
  CalendarDate dateWithTimeZone(TimeZonePtr zone) const;

  // Fields in the date's zone. Years count astronomically before 1 (0 is
  // 1 BC, -1 is 2 BC); dayOfWeek: 0 Sunday .. 6 Saturday; dayOfYear: 1 .. 366.
  int yearOfCommonEra() const;
  int monthOfYear() const;
  int dayOfMonth() const;
  int hourOfDay() const;
  int minuteOfHour() const;
  int secondOfMinute() const;
  int dayOfWeek() const;
  int dayOfYear() const;
  int secondsFromGMT() const;

  // Years, months and days move the wall clock in the date's zone, carrying
  // as dateWithYear does (Jan 31 + 1 month is Mar 3, or Mar 2 in a leap year;
  // 09:00 stays 09:00 across a daylight-saving change); hours, minutes and
  // seconds are then added as elapsed time.
  CalendarDate dateByAddingYears(int years, int months, int days, int hours, int minutes, int seconds) const;
  CalendarDate dateByAddingTimeInterval(double seconds) const;

  // Conversions: %Y year (4 digits at least), %y (2), %m month, %d day,
  // %e day (blank-padded), %j day of year, %H hour, %I hour (12), %p AM/PM,
  // %M minute, %S second, %F milliseconds, %z offset (+hhmm), %Z the zone's
  // name (so that the text parses back to the same zone), %a %A %b %B
  // English day and month names, %c "%a %b %d %H:%M:%S %Z %Y", %x "%Y-%m-%d",
  // %X "%H:%M:%S", %% a percent sign.
  std::string descriptionWithCalendarFormat(std::string_view format) const;
  // With the date's own calendar format, by default "%Y-%m-%d %H:%M:%S %z".
  std::string description() const;
  const std::string& calendarFormat() const;
  // An empty format restores the default.
  void setCalendarFormat(std::string format) { _calendarFormat = std::move(format); }

  // Same instant (the zone does not take part, as with the platform's dates).
  bool operator==(const CalendarDate& other) const { return _instant == other._instant; }
  bool isEqualIncludingTimeZone(const CalendarDate& other) const;
  std::partial_ordering operator<=>(const CalendarDate& other) const { return _instant <=> other._instant; }

 private:
  Date _instant;
  TimeZonePtr _zone;
  std::string _calendarFormat;  // empty: kDefaultCalendarFormat (no allocation per date)
};

inline constexpr const char* kDefaultCalendarFormat = "%Y-%m-%d %H:%M:%S %z";

}  // namespace pc
