#pragma once
// Civil date arithmetic on broken-down proleptic Gregorian dates.
//
// A CALCDate is a wall-clock reading with no time zone; the same record also
// serves as a delta (each field a signed count of its unit). The functions
// below never allocate and take no locks: they are plain arithmetic and table
// look-ups, called in the tight loops of recurrence expansion.
//
// Numbering: absolute day 0 is 0001-01-01 (a Monday); weekday 0 is Sunday;
// the day of the year is 1-based.

#include <array>
#include <cstdint>

namespace pc {

// The years in which the conversion from absolute days is exact; records of
// other years are outside the supported range.
inline constexpr std::int64_t kCALCDateFirstYear = 1;
inline constexpr std::int64_t kCALCDateLastYear = 3285;

struct CALCDate {
  std::int64_t second;
  std::int64_t minute;
  std::int64_t hour;
  std::int64_t day;
  std::int64_t month;
  std::int64_t year;
};

// Unit flags of calcdate_delta_ymdhms_with_flags: the units the difference is
// expressed in.
inline constexpr unsigned kCALCDateSecondsUnit = 0x01;
inline constexpr unsigned kCALCDateMinutesUnit = 0x02;
inline constexpr unsigned kCALCDateHoursUnit = 0x04;
inline constexpr unsigned kCALCDateDaysUnit = 0x08;
inline constexpr unsigned kCALCDateMonthsUnit = 0x10;
inline constexpr unsigned kCALCDateYearsUnit = 0x20;
inline constexpr unsigned kCALCDateAllUnits = 0x3f;

// Month lengths by [leap][month]; index 0 holds 0.
inline constexpr std::uint8_t calcdate_day_in_month[2][13] = {
    {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
    {0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31},
};

// Days of the year before the first of [month], by [leap][month]; index 13 is
// the year's length.
inline constexpr std::uint16_t calcdate_day_in_year_for_month[2][14] = {
    {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366},
};

namespace detail {
using DayMonthTable = std::array<std::array<std::uint16_t, 367>, 2>;

constexpr DayMonthTable makeDayMonthTable() {
  DayMonthTable table{};
  for (int leap = 0; leap < 2; ++leap) {
    unsigned yearday = 1;
    for (unsigned month = 1; month <= 12; ++month)
      for (unsigned day = 1; day <= calcdate_day_in_month[leap][month]; ++day)
        table[leap][yearday++] = static_cast<std::uint16_t>(month | (day << 8));
  }
  return table;
}
}  // namespace detail

// By [leap][1-based day of year]: the month in the low byte, the day of the
// month in the high byte; 0 where there is no such day.
inline constexpr detail::DayMonthTable calcdate_day_month_in_year = detail::makeDayMonthTable();

// Common-year month lengths by month; index 0 holds 0.
inline constexpr std::uint16_t CALDaysInMonth[13] = {0,  31, 28, 31, 30, 31, 30,
                                                    31, 31, 30, 31, 30, 31};

bool calcdate_is_leap_year(std::int64_t year);

// Absolute day of 1 January of `year`; meaningful for years >= 1 only.
std::int32_t calcdate_absoluteday_for_year(std::int32_t year);
std::int32_t calcdate_absoluteday_for_year_month(std::int16_t year, std::uint8_t month);
// Uses the fields as they stand, without normalising them first.
std::int64_t calcdate_absoluteday(const CALCDate* date);
// Seconds since 0001-01-01 00:00:00 of the same wall clock; 0 for nullptr.
std::int64_t calcdate_seconds_for_date(const CALCDate* date);

// Overwrites year, month and day with the civil date of `absoluteDay`; the time
// of day is left alone. Exact for absolute days 0 to 1,200,000 (years 1 to
// 3286): one intermediate is held in single precision.
void calcdate_fill_ymd_with_absoluteday(CALCDate* date, std::uint32_t absoluteDay);
// Kept for interface compatibility: does nothing and writes no output.
void calcdate_year_and_yearday_for_absoluteday(CALCDate* date, std::uint32_t absoluteDay);
// Table look-up without range check: day of year 0 yields month 0, day 0.
void calcdate_month_and_monthday_for_yearday_in_year(unsigned yearday, std::int64_t year,
                                                     std::int64_t* month, std::int64_t* day);

bool calcdate_is_hms_normalized(const CALCDate* date);
bool calcdate_is_ymd_normalized(const CALCDate* date);
// Carries seconds into minutes, minutes into hours and hours into days;
// answers whether the day changed.
bool calcdate_normalize_hms(CALCDate* date);
// Settles the month first (carrying into the year), then the day (through the
// absolute day), so that 31 January plus one month is 3 March. Answers 0 when
// the day needed no repair.
int calcdate_normalize_ymd(CALCDate* date);

void calcdate_add_deltadate(CALCDate* date, const CALCDate* delta);
void calcdate_add_seconds(CALCDate* date, std::int64_t seconds);

// Comparisons do not normalise: callers compare normalised records.
bool calcdate_is_equal(const CALCDate* a, const CALCDate* b);
bool calcdate_is_before(const CALCDate* a, const CALCDate* b);
bool calcdate_is_after(const CALCDate* a, const CALCDate* b);

// Difference a - b of the times of day only, into out's hour, minute and
// second; answers the day borrowed (1, or -1 when a is before b).
std::int64_t calcdate_diff_hms_and_return_day_carry(const CALCDate* a, const CALCDate* b,
                                                    CALCDate* out);
// Calendar difference a - b expressed in the units selected by `flags`.
void calcdate_delta_ymdhms_with_flags(const CALCDate* a, const CALCDate* b, CALCDate* out,
                                      unsigned flags);

// 0 = Sunday .. 6 = Saturday.
std::int8_t calcdate_weekday(const CALCDate* date);
// The 1-based day of the year narrowed to 8 bits: day 200 comes out as -56.
std::int8_t calcdate_yearday(const CALCDate* date);
unsigned calcdate_daycount_in_month(const CALCDate* date);

}  // namespace pc
