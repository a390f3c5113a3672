#include "calcore/calcdate.h"


namespace pc {

namespace {

int leapIndex(std::int64_t year) { return calcdate_is_leap_year(year) ? 1 : 0; }

// Carries `lower` into `higher` so that 0 <= lower < base.
void carry(std::int64_t& lower, std::int64_t& higher, std::int64_t base) {
  if (lower < 0) {
    const std::int64_t k = (-lower - 1) / base + 1;
    higher -= k;
    lower += k * base;
  } else if (lower >= base) {
    const std::int64_t k = lower / base;
    higher += k;
    lower -= k * base;
  }
}

std::int64_t secondOfDay(const CALCDate* date) {
  return date->second + 60 * date->minute + 3600 * date->hour;
}

}  // namespace

bool calcdate_is_leap_year(std::int64_t year) {
  // For a multiple of 100, "year / 100 divisible by 4" is "divisible by 16".
  if ((year & 3) != 0) return false;
  if (year % 100 != 0) return true;
  return (year & 15) == 0;
}

std::int32_t calcdate_absoluteday_for_year(std::int32_t year) {
  // Unsigned on purpose: years below 1 are outside the supported range.
  const std::uint32_t n = static_cast<std::uint32_t>(year) - 1;
  return static_cast<std::int32_t>(n * 365 + n / 4 - (n / 100 - (n / 100) / 4));
}

std::int32_t calcdate_absoluteday_for_year_month(std::int16_t year, std::uint8_t month) {
  return calcdate_absoluteday_for_year(year) + calcdate_day_in_year_for_month[leapIndex(year)][month];
}

std::int64_t calcdate_absoluteday(const CALCDate* date) {
  return std::int64_t{calcdate_absoluteday_for_year(static_cast<std::int32_t>(date->year))} +
         calcdate_day_in_year_for_month[leapIndex(date->year)][date->month] + date->day - 1;
}

std::int64_t calcdate_seconds_for_date(const CALCDate* date) {
  if (!date) return 0;
  return secondOfDay(date) + 86400 * calcdate_absoluteday(date);
}

void calcdate_fill_ymd_with_absoluteday(CALCDate* date, std::uint32_t absoluteDay) {
  // Days are counted from 0000-03-01 so that the leap day ends the year; the
  // divisions by the lengths of centuries, years and months are done as
  // multiplications and shifts. Exact for every absolute day up to 1,200,000
  // (years 1 to 3286), the range the date classes use.
  const std::uint32_t n = 4 * (absoluteDay + 306) + 3;
  const std::uint32_t century = n / 146097;
  const std::uint32_t dayOfCentury = n % 146097 / 4;
  const std::uint64_t yearProduct = std::uint64_t{2939745} * (4 * dayOfCentury + 3);
  const auto yearOfCentury = static_cast<std::uint32_t>(yearProduct >> 32);
  const std::uint32_t dayOfYear = static_cast<std::uint32_t>(yearProduct) / 2939745 / 4;  // 0 = 1 March
  const std::uint32_t monthProduct = 2141 * dayOfYear + 197913;
  const std::uint32_t month = monthProduct >> 16;  // 3..14
  const bool nextYear = dayOfYear >= 306;          // January or February
  date->year = std::int64_t{100 * century + yearOfCentury} + nextYear;
  date->month = nextYear ? month - 12 : month;
  date->day = (monthProduct & 0xffff) / 2141 + 1;
}

void calcdate_year_and_yearday_for_absoluteday(CALCDate* /*date*/, std::uint32_t /*absoluteDay*/) {}

void calcdate_month_and_monthday_for_yearday_in_year(unsigned yearday, std::int64_t year,
                                                     std::int64_t* month, std::int64_t* day) {
  const std::uint16_t packed = calcdate_day_month_in_year[leapIndex(year)][yearday];
  *month = packed & 0xff;
  *day = packed >> 8;
}

bool calcdate_is_hms_normalized(const CALCDate* date) {
  return date->second >= 0 && date->second <= 59 && date->minute >= 0 && date->minute <= 59 &&
         date->hour >= 0 && date->hour <= 23;
}

bool calcdate_is_ymd_normalized(const CALCDate* date) {
  return date->month >= 1 && date->month <= 12 && date->day >= 1 &&
         date->day <= calcdate_day_in_month[leapIndex(date->year)][date->month];
}

bool calcdate_normalize_hms(CALCDate* date) {
  if (calcdate_is_hms_normalized(date)) return false;
  // Carrying seconds into minutes, minutes into hours and hours into days,
  // each rounding down, is one floor division of the seconds of the day.
  const std::int64_t seconds = secondOfDay(date);
  std::int64_t days = seconds / 86400;
  std::int64_t rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  date->hour = rest / 3600;
  date->minute = rest / 60 % 60;
  date->second = rest % 60;
  if (days == 0) return false;
  date->day += days;
  return true;
}

int calcdate_normalize_ymd(CALCDate* date) {
  if (date->month < 1 || date->month > 12) {
    std::int64_t m = date->month - 1;
    carry(m, date->year, 12);
    date->month = m + 1;
  }
  int leap = leapIndex(date->year);
  if (date->day >= 1 && date->day <= calcdate_day_in_month[leap][date->month]) return 0;
  // A day a month or two past the end (the common case of stepping by days)
  // walks forward month by month; anything further goes through the
  // absolute day. Both give the same date.
  const std::int64_t dayBefore = date->day;
  const std::int64_t monthBefore = date->month;
  const std::int64_t yearBefore = date->year;
  for (int step = 0; step < 2 && date->day > calcdate_day_in_month[leap][date->month]; ++step) {
    date->day -= calcdate_day_in_month[leap][date->month];
    if (++date->month > 12) {
      date->month = 1;
      leap = leapIndex(++date->year);
    }
    if (date->day <= calcdate_day_in_month[leap][date->month]) return 1;
  }
  date->day = dayBefore;
  date->month = monthBefore;
  date->year = yearBefore;
  leap = leapIndex(date->year);
  const std::int64_t absoluteDay = calcdate_absoluteday_for_year(static_cast<std::int32_t>(date->year)) +
                                   calcdate_day_in_year_for_month[leap][date->month] + date->day - 1;
  calcdate_fill_ymd_with_absoluteday(date, static_cast<std::uint32_t>(absoluteDay));
  return 1;
}

void calcdate_add_deltadate(CALCDate* date, const CALCDate* delta) {
  bool dayChanged = false;
  if (delta->second || delta->minute || delta->hour) {
    date->second += delta->second;
    date->minute += delta->minute;
    date->hour += delta->hour;
    dayChanged = calcdate_normalize_hms(date);
  }
  bool dateChanged = false;
  if (delta->day || delta->year || delta->month) {
    date->day += delta->day;
    date->month += delta->month;
    date->year += delta->year;
    dateChanged = true;
  }
  if (dayChanged || dateChanged) calcdate_normalize_ymd(date);
}

void calcdate_add_seconds(CALCDate* date, std::int64_t seconds) {
  if (seconds == 0) return;
  const CALCDate delta{seconds, 0, 0, 0, 0, 0};
  calcdate_add_deltadate(date, &delta);
}

bool calcdate_is_equal(const CALCDate* a, const CALCDate* b) {
  return a->year == b->year && a->month == b->month && a->day == b->day && a->hour == b->hour &&
         a->minute == b->minute && a->second == b->second;
}

bool calcdate_is_before(const CALCDate* a, const CALCDate* b) {
  if (a->year != b->year) return a->year < b->year;
  if (a->month != b->month) return a->month < b->month;
  if (a->day != b->day) return a->day < b->day;
  if (a->hour != b->hour) return a->hour < b->hour;
  if (a->minute != b->minute) return a->minute < b->minute;
  return a->second < b->second;
}

bool calcdate_is_after(const CALCDate* a, const CALCDate* b) { return calcdate_is_before(b, a); }

std::int64_t calcdate_diff_hms_and_return_day_carry(const CALCDate* a, const CALCDate* b,
                                                    CALCDate* out) {
  *out = CALCDate{};
  if (calcdate_is_equal(a, b)) return 0;
  const bool aIsLater = !calcdate_is_before(a, b);
  const CALCDate* later = aIsLater ? a : b;
  const CALCDate* earlier = aIsLater ? b : a;
  std::int64_t diff = secondOfDay(later) - secondOfDay(earlier);
  std::int64_t dayCarry = 0;
  if (diff < 0) {
    diff += 86400;
    dayCarry = 1;
  }
  out->hour = diff / 3600;
  out->minute = (diff % 3600) / 60;
  out->second = diff % 60;
  if (aIsLater) return dayCarry;
  out->second = -out->second;
  out->minute = -out->minute;
  out->hour = -out->hour;
  return -dayCarry;
}

void calcdate_delta_ymdhms_with_flags(const CALCDate* a, const CALCDate* b, CALCDate* out,
                                      unsigned flags) {
  *out = CALCDate{};
  if (calcdate_is_equal(a, b)) return;
  const bool aIsBefore = calcdate_is_before(a, b);
  const CALCDate* later = aIsBefore ? b : a;
  const CALCDate* earlier = aIsBefore ? a : b;
  const std::int64_t dayCarry = calcdate_diff_hms_and_return_day_carry(later, earlier, out);

  // Leap-ness is that of the earlier date's year throughout, borrowed month
  // included.
  const int leap = leapIndex(earlier->year);
  std::int64_t month = earlier->month;
  std::int64_t year = earlier->year;
  const std::int64_t day = earlier->day + dayCarry;
  if (later->day < day) {
    const std::int64_t borrowed = later->month == 1 ? 12 : later->month - 1;
    out->day = later->day + calcdate_day_in_month[leap][borrowed] - day;
    if (month < 12) {
      ++month;
    } else {
      month = 1;
      ++year;
    }
  } else {
    out->day = later->day - day;
  }
  if (later->month >= month) {
    out->month = later->month - month;
  } else {
    out->month = later->month - month + 12;
    ++year;
  }
  out->year = later->year - year;

  if (!(flags & kCALCDateYearsUnit)) {
    out->month += 12 * out->year;
    out->year = 0;
  }
  if (!(flags & kCALCDateMonthsUnit)) {
    // Months become the days they span, counted from the earlier date's month.
    if (earlier->month + out->month <= 12) {
      out->day += calcdate_day_in_year_for_month[leap][earlier->month + out->month] -
                  calcdate_day_in_year_for_month[leap][earlier->month];
    } else {
      const std::int64_t t = out->month + earlier->month - 1;
      out->day +=
          calcdate_absoluteday_for_year_month(static_cast<std::int16_t>(earlier->year + t / 12),
                                              static_cast<std::uint8_t>(t % 12 + 1)) -
          calcdate_absoluteday_for_year_month(static_cast<std::int16_t>(earlier->year),
                                              static_cast<std::uint8_t>(earlier->month));
    }
    out->month = 0;
  }
  if (!(flags & kCALCDateDaysUnit)) {
    out->hour += 24 * out->day;
    out->day = 0;
  }
  if (!(flags & kCALCDateHoursUnit)) {
    out->minute += 60 * out->hour;
    out->hour = 0;
  }
  if (!(flags & kCALCDateMinutesUnit)) {
    out->second += 60 * out->minute;
    out->minute = 0;
  }
  // Without the seconds unit the seconds are dropped, not carried.
  if (!(flags & kCALCDateSecondsUnit)) out->second = 0;

  if (aIsBefore) {
    out->second = -out->second;
    out->minute = -out->minute;
    out->hour = -out->hour;
    out->day = -out->day;
    out->month = -out->month;
    out->year = -out->year;
  }
}

std::int8_t calcdate_weekday(const CALCDate* date) {
  return static_cast<std::int8_t>(static_cast<std::uint64_t>(calcdate_absoluteday(date) + 1) % 7);
}

std::int8_t calcdate_yearday(const CALCDate* date) {
  return static_cast<std::int8_t>(calcdate_day_in_year_for_month[leapIndex(date->year)][date->month] +
                                  date->day);
}

unsigned calcdate_daycount_in_month(const CALCDate* date) {
  return calcdate_day_in_month[leapIndex(date->year)][date->month];
}

}  // namespace pc
