#include "calcore/calcdate.h"

#include <gtest/gtest.h>

namespace pc {
namespace {

CALCDate ymd(std::int64_t y, std::int64_t m, std::int64_t d, std::int64_t h = 0,
             std::int64_t mi = 0, std::int64_t s = 0) {
  return CALCDate{s, mi, h, d, m, y};
}

void expectDate(const CALCDate& actual, const CALCDate& expected) {
  EXPECT_TRUE(calcdate_is_equal(&actual, &expected))
      << actual.year << "-" << actual.month << "-" << actual.day << " " << actual.hour << ":"
      << actual.minute << ":" << actual.second;
}

// Day numbering, week days, leap years and the narrowed day of the year are
// checked day by day against the reference library; here, the seconds count.
TEST(CalcDateNumbering, SecondsSinceTheFirstDayOfTheEra) {
  const CALCDate epoch1970 = ymd(1970, 1, 1);
  EXPECT_EQ(calcdate_seconds_for_date(&epoch1970), 62135596800);
  EXPECT_EQ(calcdate_seconds_for_date(nullptr), 0);
}

TEST(CalcDateNormalize, TimeOfDayCarriesBothWays) {
  CALCDate d = ymd(2005, 12, 31, 23, 59, 60);
  EXPECT_TRUE(calcdate_normalize_hms(&d));
  calcdate_normalize_ymd(&d);
  expectDate(d, ymd(2006, 1, 1));

  d = ymd(2004, 3, 1, 0, 0, -1);
  EXPECT_TRUE(calcdate_normalize_hms(&d));
  EXPECT_EQ(calcdate_normalize_ymd(&d), 1);
  expectDate(d, ymd(2004, 2, 29, 23, 59, 59));

  d = ymd(2004, 3, 1, 10, 125, 0);
  EXPECT_FALSE(calcdate_normalize_hms(&d));
  expectDate(d, ymd(2004, 3, 1, 12, 5, 0));
}

TEST(CalcDateNormalize, SettlesMonthThenDay) {
  const std::pair<CALCDate, CALCDate> cases[] = {{ymd(2005, -12, 15), ymd(2003, 12, 15)},
                                                 {ymd(2005, 3, -1), ymd(2005, 2, 27)},
                                                 {ymd(2005, 12, 400), ymd(2007, 1, 4)}};
  for (auto [d, expected] : cases) {
    calcdate_normalize_ymd(&d);
    expectDate(d, expected);
    EXPECT_TRUE(calcdate_is_ymd_normalized(&d));
  }
}

struct AddCase {
  CALCDate start;
  CALCDate delta;
  CALCDate expected;
};

TEST(CalcDateAdd, DeltasCarryTimeIntoDays) {
  const AddCase cases[] = {
      {ymd(2005, 12, 31, 23), CALCDate{0, 0, 2, 0, 0, 0}, ymd(2006, 1, 1, 1)},
      // A zero delta leaves even an unnormalised date alone.
      {ymd(2005, 2, 31, 25, 61, 61), CALCDate{}, ymd(2005, 2, 31, 25, 61, 61)},
  };
  for (const AddCase& c : cases) {
    CALCDate d = c.start;
    calcdate_add_deltadate(&d, &c.delta);
    expectDate(d, c.expected);
  }

  CALCDate d = ymd(2005, 1, 1);
  calcdate_add_seconds(&d, -86400LL * 365 - 1);
  expectDate(d, ymd(2004, 1, 1, 23, 59, 59));
}

TEST(CalcDateDiff, TimeOfDayDifferenceBorrowsADay) {
  const CALCDate a = ymd(2005, 3, 10, 9, 0, 0);
  const CALCDate b = ymd(2005, 1, 15, 10, 30, 15);
  CALCDate out;
  EXPECT_EQ(calcdate_diff_hms_and_return_day_carry(&a, &b, &out), 1);
  expectDate(out, CALCDate{45, 29, 22, 0, 0, 0});
  EXPECT_EQ(calcdate_diff_hms_and_return_day_carry(&b, &a, &out), -1);
  expectDate(out, CALCDate{-45, -29, -22, 0, 0, 0});
}

struct DeltaCase {
  const char* name;
  CALCDate later;
  CALCDate earlier;
  unsigned flags;
  CALCDate expected;
};

class CalcDateDelta : public ::testing::TestWithParam<DeltaCase> {};

TEST_P(CalcDateDelta, BreaksTheDifferenceIntoTheRequestedUnits) {
  const DeltaCase& c = GetParam();
  CALCDate out;
  calcdate_delta_ymdhms_with_flags(&c.later, &c.earlier, &out, c.flags);
  expectDate(out, c.expected);
  // Swapping the operands negates every field.
  calcdate_delta_ymdhms_with_flags(&c.earlier, &c.later, &out, c.flags);
  const CALCDate& e = c.expected;
  expectDate(out, CALCDate{-e.second, -e.minute, -e.hour, -e.day, -e.month, -e.year});
}

INSTANTIATE_TEST_SUITE_P(
    Cases, CalcDateDelta,
    ::testing::Values(
        DeltaCase{"AllUnits", ymd(2005, 3, 10, 9), ymd(2005, 1, 15, 10), kCALCDateAllUnits,
                  CALCDate{0, 0, 23, 22, 1, 0}},
        DeltaCase{"DaysOnly", ymd(2005, 3, 10, 9), ymd(2005, 1, 15, 10), kCALCDateDaysUnit,
                  CALCDate{0, 0, 0, 53, 0, 0}},
        DeltaCase{"SecondsDroppedWithoutTheirFlag", ymd(2005, 1, 1, 0, 1, 30),
                  ymd(2005, 1, 1), kCALCDateMinutesUnit, CALCDate{0, 1, 0, 0, 0, 0}},
        DeltaCase{"MinutesIntoSeconds", ymd(2005, 1, 1, 1, 1, 30), ymd(2005, 1, 1),
                  kCALCDateSecondsUnit, CALCDate{3690, 0, 0, 0, 0, 0}},
        // The earlier day plus the time carry passes the borrowed month's length:
        // the day difference stays negative.
        DeltaCase{"NegativeDayLeftAsIs", ymd(2005, 3, 1, 9), ymd(2005, 1, 31, 10),
                  kCALCDateAllUnits, CALCDate{0, 0, 23, -3, 1, 0}},
        DeltaCase{"YearsKeptWithoutThem", ymd(2007, 5, 1), ymd(2005, 3, 1),
                  kCALCDateMonthsUnit, CALCDate{0, 0, 0, 0, 26, 0}},
        // Years kept, months turned into days measured from the earlier year.
        DeltaCase{"YearsAndDays", ymd(2007, 5, 1), ymd(2005, 3, 1),
                  kCALCDateYearsUnit | kCALCDateDaysUnit, CALCDate{0, 0, 0, 61, 0, 2}},
        DeltaCase{"MonthBorrowAcrossYearEnd", ymd(2006, 1, 10), ymd(2005, 12, 20),
                  kCALCDateAllUnits, CALCDate{0, 0, 0, 21, 0, 0}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace pc
