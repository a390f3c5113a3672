// The civil arithmetic checked day by day against an independent proleptic
// Gregorian computation (the header-only date library).
#include <date/date.h>
#include <gtest/gtest.h>

#include "calcore/calcdate.h"

namespace pc {
namespace {

// 0001-01-01 as days since 1970-01-01 in the reference library.
const int kReferenceDayZero =
    date::sys_days{date::year{1} / date::January / 1}.time_since_epoch().count();
constexpr std::uint32_t kLastDay = 1'200'000;  // 3286-07-..., the documented exact range

date::year_month_day referenceDate(std::uint32_t absoluteDay) {
  return date::year_month_day{date::sys_days{date::days{kReferenceDayZero + int(absoluteDay)}}};
}

TEST(CalcDateReference, EveryDayAgreesBothWays) {
  for (std::uint32_t day = 0; day <= kLastDay; ++day) {
    const auto reference = referenceDate(day);
    CALCDate d{};
    calcdate_fill_ymd_with_absoluteday(&d, day);
    const CALCDate expected{0, 0, 0, unsigned(reference.day()), unsigned(reference.month()),
                            int(reference.year())};
    ASSERT_TRUE(calcdate_is_equal(&d, &expected))
        << "absolute day " << day << ": " << d.year << "-" << d.month << "-" << d.day;
    ASSERT_EQ(calcdate_absoluteday(&d), day);
    ASSERT_EQ(calcdate_weekday(&d),
              int(date::weekday{date::sys_days{reference}}.c_encoding()));
    ASSERT_TRUE(calcdate_is_ymd_normalized(&d));

    const auto firstOfYear = date::sys_days{reference.year() / date::January / 1};
    const int yearday = (date::sys_days{reference} - firstOfYear).count() + 1;
    // Deliberate difference: the day of the year is delivered in 8 signed bits.
    ASSERT_EQ(calcdate_yearday(&d), static_cast<std::int8_t>(yearday)) << "absolute day " << day;
    std::int64_t month = 0, monthDay = 0;
    calcdate_month_and_monthday_for_yearday_in_year(yearday, d.year, &month, &monthDay);
    ASSERT_EQ(month, d.month);
    ASSERT_EQ(monthDay, d.day);
  }
}

TEST(CalcDateReference, AddingDaysAgreesAcrossTheRange) {
  // Day deltas of several sizes, both signs, from dates spread over the range;
  // day deltas never meet the deliberate month overflow.
  const std::int64_t deltas[] = {1, -1, 30, 45, 62, -59, 366, -1461, 36524, -146097};
  for (std::uint32_t day = 200'000; day <= 1'000'000; day += 997) {
    for (const std::int64_t delta : deltas) {
      CALCDate d{};
      calcdate_fill_ymd_with_absoluteday(&d, day);
      const CALCDate step{0, 0, 0, delta, 0, 0};
      calcdate_add_deltadate(&d, &step);
      const auto reference = referenceDate(static_cast<std::uint32_t>(day + delta));
      ASSERT_EQ(d.year, int(reference.year()));
      ASSERT_EQ(d.month, unsigned(reference.month()));
      ASSERT_EQ(d.day, unsigned(reference.day())) << day << " + " << delta;
    }
  }
}

TEST(CalcDateReference, MonthAdditionDiffersOnlyWhereTheDayOverflows) {
  // Deliberate difference: where the target month is too short, the reference
  // answers an invalid date, while this system runs the surplus days on into
  // the next month (31 January + 1 month is 3 March). Elsewhere both agree.
  for (int year = 1; year <= 3000; year += 7) {
    for (unsigned month = 1; month <= 12; ++month) {
      for (unsigned dayOfMonth : {1u, 15u, 28u, 29u, 30u, 31u}) {
        const date::year_month_day start{date::year{year}, date::month{month},
                                         date::day{dayOfMonth}};
        if (!start.ok()) continue;
        const auto target = start + date::months{13};
        CALCDate d{0, 0, 0, dayOfMonth, month, year};
        const CALCDate step{0, 0, 0, 0, 13, 0};
        calcdate_add_deltadate(&d, &step);
        const date::sys_days expected =
            target.ok() ? date::sys_days{target}
                        : date::sys_days{target.year() / target.month() / date::last} +
                              date::days{unsigned(target.day()) -
                                         unsigned((target.year() / target.month() / date::last).day())};
        ASSERT_EQ(calcdate_absoluteday(&d), (expected.time_since_epoch().count() - kReferenceDayZero))
            << year << "-" << month << "-" << dayOfMonth;
      }
    }
  }
}

}  // namespace
}  // namespace pc
