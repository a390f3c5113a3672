#include <gtest/gtest.h>

#include <vector>

#include "calcore/CALDateTime.h"
#include "calcore/CALDuration.h"
#include "calcore/CALFloatingDateTime.h"
#include "calcore/CALTimeRange.h"

namespace pc {
namespace {

TEST(CALDuration, PartsTruncateTowardsZero) {
  const CALDuration d = CALDuration::durationWithDays(1, 1, 1, 1);
  EXPECT_EQ(d.description(), "CALDuration 1 1:1:1 (90061.000000)");
  const CALDuration negative(-90061.7);
  EXPECT_EQ(negative.description(), "CALDuration -1 -1:-1:-1 (-90061.700000)");
  EXPECT_TRUE(negative.isNegative());
  EXPECT_EQ(CALDuration::durationWithDurationWithoutDayPart(negative).rawInterval(), -3661);

  // The parts are summed in 32 bits: 32767 days wrap.
  EXPECT_EQ(CALDuration::durationWithDays(32767).rawInterval(),
            static_cast<double>(static_cast<std::int32_t>(32767LL * 86400)));
}

TEST(CALDuration, RoundingToDaysIsAsymmetric) {
  const struct {
    double raw;
    double rounded;
  } cases[] = {{1.5 * 86400, 2 * 86400}, {-1.5 * 86400, -86400}, {2 * 86400, 2 * 86400},
               {1, 86400},               {-1, 0},                {0, 0}};
  for (const auto& c : cases)
    EXPECT_EQ(CALDuration(c.raw).durationRoundedToDay().rawInterval(), c.rounded) << c.raw;
}

class CALTimeRangeTest : public ::testing::Test {
 protected:
  // A range of the test day, bounds given in hours.
  static CALTimeRange range(int fromHour, int toHour) {
    return CALTimeRange::timeRangeWithStartDate(*at(fromHour), *at(toHour));
  }
  static CALDateRef at(int hour, int minute = 0) {
    return CALDateTime::dateWithYear(2006, 3, 15, hour, minute, 0, nullptr);
  }
  static CALTimeRange range(int fromHour, int fromMinute, int toHour, int toMinute) {
    return CALTimeRange::timeRangeWithStartDate(*at(fromHour, fromMinute), *at(toHour, toMinute));
  }
  static void expectRange(const std::optional<CALTimeRange>& actual, const CALTimeRange& expected) {
    ASSERT_TRUE(actual);
    EXPECT_TRUE(actual->isEqualTo(expected)) << actual->description() << " vs " << expected.description();
  }
  static void expectRange(const std::optional<CALTimeRange>& actual, const std::optional<CALTimeRange>& expected) {
    if (expected) return expectRange(actual, *expected);
    EXPECT_FALSE(actual) << actual->description();
  }
};

TEST_F(CALTimeRangeTest, MinusCoversItsFiveCases) {
  const CALTimeRange tenToNoon = range(10, 12);
  const std::optional<CALTimeRange> none;
  const struct {
    CALTimeRange removed;
    std::optional<CALTimeRange> first, second;
  } cases[] = {{range(11, 0, 11, 30), range(10, 11), range(11, 30, 12, 0)}, {range(9, 13), none, none},
               {tenToNoon, none, none},       {range(11, 13), range(10, 11), none},
               {range(9, 11), range(11, 12), none}, {range(13, 14), tenToNoon, none}};
  for (const auto& c : cases) {
    const auto [first, second] = tenToNoon.minus(c.removed);
    expectRange(first, c.first);
    expectRange(second, c.second);
  }
}

TEST_F(CALTimeRangeTest, BoundsCountOnlyForTheInclusiveTests) {
  const CALTimeRange morning = range(10, 11);
  const CALTimeRange noon = range(11, 12);
  EXPECT_TRUE(morning.intersectsTimeRange(noon));
  EXPECT_FALSE(morning.intersectsTimeRangeExcludingBounds(noon));
  EXPECT_FALSE(morning.intersectsTimeRangeExcludingUpperBound(noon));
  EXPECT_TRUE(morning.intersectsTimeRangeExcludingBounds(range(10, 11)));

  EXPECT_TRUE(morning.includesDate(at(11).get()));
  EXPECT_FALSE(morning.includesDateExcludingEndDate(at(11).get()));
  EXPECT_FALSE(morning.includesDateExcludingBounds(at(10).get()));
  EXPECT_TRUE(range(9, 13).strictlyIncludesTimeRange(morning));
  EXPECT_FALSE(morning.strictlyIncludesTimeRange(morning));

  // Bounds of another kind compare by wall clock.
  auto floatingHalfPast = CALFloatingDateTime::dateWithYear(2006, 3, 15, 10, 30, 0);
  EXPECT_TRUE(morning.includesDate(floatingHalfPast.get()));
}

TEST_F(CALTimeRangeTest, UnboundedRanges) {
  const CALTimeRange open = CALTimeRange::timeRangeUnboundedWithStartDate(*at(10));
  EXPECT_TRUE(open.includesDate(CALDateTime::dateWithYear(3000, 1, 1, 0, 0, 0, nullptr).get()));
  EXPECT_FALSE(open.includesDate(at(9).get()));
  EXPECT_FALSE(range(11, 12).includesOrEqualsTimeRange(open));
  EXPECT_TRUE(range(9, 12).union_(open).isInfinite());
  expectRange(open.intersection(range(9, 12)), range(10, 12));
  auto rest = open.minus(range(11, 12));
  expectRange(rest.first, range(10, 11));
  ASSERT_TRUE(rest.second);
  EXPECT_FALSE(rest.second->endDate());
}

// compareStartDate sorts ranges: it must be antisymmetric and transitive,
// with a missing start before every start.
TEST_F(CALTimeRangeTest, StartComparisonIsAStrictWeakOrdering) {
  const std::vector<CALTimeRange> ranges = {CALTimeRange(nullptr, at(9).get()), CALTimeRange(nullptr, nullptr),
                                            range(9, 10), range(9, 11), range(10, 12)};
  const auto rank = [](size_t i) { return i < 2 ? 0 : i < 4 ? 1 : 2; };  // equal starts share a rank
  for (size_t i = 0; i < ranges.size(); ++i)
    for (size_t j = 0; j < ranges.size(); ++j) {
      const int expected = rank(i) < rank(j) ? -1 : rank(i) > rank(j) ? 1 : 0;
      EXPECT_EQ(ranges[i].compareStartDate(ranges[j]), expected) << i << " vs " << j;
    }
}

// The dates' count is 16 bits: sharing one date among more holders than it
// counts must not free it while they use it.
TEST_F(CALTimeRangeTest, ADateSharedByManyRangesStaysAlive) {
  std::vector<CALTimeRange> copies;
  {
    const CALTimeRange original = range(10, 11);
    copies.assign(70000, original);
  }
  copies.erase(copies.begin() + 3, copies.end());
  for (const CALTimeRange& copy : copies) EXPECT_TRUE(copy.isEqualTo(range(10, 11)));
  copies.clear();
  const CALDateRef date = at(10);
  std::vector<CALDateRef> holders(70000, date);
  EXPECT_GE(date->retainCount(), 1u);
  holders.clear();
  EXPECT_EQ(date->retainCount(), 1u);
}

TEST_F(CALTimeRangeTest, UnionIntersectionAndSimplification) {
  expectRange(range(10, 11).union_(range(13, 14)), range(10, 14));
  EXPECT_FALSE(range(10, 11).intersection(range(13, 14)));

  const auto merged = CALTimeRange::simplifyOverlappingTimeRanges(
      {range(1, 3), range(2, 5), range(3, 4), range(6, 7)});
  ASSERT_EQ(merged.size(), 2u);
  expectRange(merged[0], range(1, 5));
  expectRange(merged[1], range(6, 7));
}

TEST_F(CALTimeRangeTest, ConstructionsDeriveTheMissingPart) {
  const CALTimeRange day = CALTimeRange::timeRangeForDayEnglobing(*at(15, 20));
  expectRange(day, CALTimeRange::timeRangeWithStartDate(*at(0), *at(24)));
  expectRange(CALTimeRange::timeRangeFromTimeRangeRoundedToFullDays(range(10, 11)), day);
  expectRange(CALTimeRange::timeRangeFromTimeRangeRoundedToFullDays(day), day);

  // The range keeps its own copies of the dates it was given.
  CALDateRef start = at(10);
  const CALTimeRange copied = CALTimeRange::timeRangeWithStartDate(*start, *at(11));
  start->addSecondsInGMT(-3600);
  EXPECT_TRUE(copied.startDate()->isEqualToDate(at(10).get()));
}

TEST_F(CALTimeRangeTest, ArchiveKeepsKindsAndOpenEnds) {
  const CALTimeRange mixed(CALFloatingDateTime::dateWithYear(2006, 3, 15, 10, 0, 0).get(), nullptr);
  const auto decoded = CALTimeRange::decode(mixed.encode());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->startDate()->className(), "CALFloatingDateTime");
  EXPECT_FALSE(decoded->endDate());

  Dictionary corrupt = range(10, 11).encode();
  corrupt.set("endDate", Dictionary{{"classKey", "CALDateTime"}});
  EXPECT_FALSE(CALTimeRange::decode(corrupt));
}

}  // namespace
}  // namespace pc
