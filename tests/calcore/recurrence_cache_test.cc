// The rule's caches: the dates produced for one recurrence start and the
// end dates of counted rules. Whatever the order and shape of the requests,
// and whatever changes the rule between them, a rule answers what a fresh
// rule answers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "calcore/CALFloatingDateTime.h"
#include "calcore/CALRecurrenceFrequencies.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

CALDateRef floating(int year, int month, int day, int hour = 0) {
  return CALFloatingDateTime::dateWithYear(year, month, day, hour, 0, 0);
}

std::vector<std::string> iso(const CALDateList& dates) {
  std::vector<std::string> texts;
  for (const CALDateRef& date : dates) texts.push_back(date->isoStringRepresentation());
  return texts;
}

CALTimeRange between(const CALDateRef& from, const CALDateRef& to) { return CALTimeRange(from.get(), to.get()); }

using Configure = std::function<void(CALRecurrenceRule&)>;

std::unique_ptr<CALRecurrenceRule> daily(const Configure& configure = {}) {
  std::unique_ptr<CALRecurrenceRule> rule = CALDailyRecurrence::rule();
  if (configure) configure(*rule);
  return rule;
}

TEST(RecurrenceCacheTest, OpenRangesLeaveTheCacheRight) {
  const CALDateRef start = floating(2006, 3, 1, 10);
  const CALTimeRange bounded = between(floating(2006, 3, 1), floating(2006, 3, 6));
  struct Case {
    const char* what;
    Configure configure;
    CALTimeRange open;
    std::vector<std::string> openAnswer;
  };
  const std::vector<Case> cases = {
      {"endless rule, no end: the start alone", {}, CALTimeRange(start.get(), nullptr), {"20060301T100000"}},
      {"no start: from the recurrence start", {}, CALTimeRange(nullptr, floating(2006, 3, 3).get()),
       {"20060301T100000", "20060302T100000"}},
      {"neither bound", {}, CALTimeRange(nullptr, nullptr), {"20060301T100000"}},
      {"count never reached: endless", [](auto& r) { r.setCount(100000); }, CALTimeRange(start.get(), nullptr),
       {"20060301T100000"}},
      {"count reached: every date", [](auto& r) { r.setCount(3); }, CALTimeRange(nullptr, nullptr),
       {"20060301T100000", "20060302T100000", "20060303T100000"}},
      {"until date: every date", [](auto& r) { r.setUntilDate(floating(2006, 3, 2, 10).get()); },
       CALTimeRange(floating(2006, 1, 1).get(), nullptr), {"20060301T100000", "20060302T100000"}},
  };
  for (const Case& c : cases) {
    std::unique_ptr<CALRecurrenceRule> rule = daily(c.configure);
    EXPECT_EQ(iso(rule->occurrencesOnTimeRange(c.open, *start)), c.openAnswer) << c.what;
    EXPECT_EQ(iso(rule->occurrencesOnTimeRange(bounded, *start)),
              iso(daily(c.configure)->occurrencesOnTimeRange(bounded, *start)))
        << c.what;
    EXPECT_EQ(iso(rule->occurrencesOnTimeRange(c.open, *start)), c.openAnswer) << c.what << " (again)";
  }
}

TEST(RecurrenceCacheTest, RequestsInAnyOrderKeepOneSortedCopyOfEachDate) {
  test::LogCapture log;
  const CALDateRef start = floating(2006, 3, 1, 10);
  std::unique_ptr<CALRecurrenceRule> rule = daily();
  // After, before, inside, across both ends, and after again.
  const std::vector<std::pair<int, int>> requests = {{10, 15}, {3, 6}, {4, 5}, {1, 20}, {25, 28}};
  for (const auto& [from, to] : requests) {
    const CALDateList dates = rule->occurrencesOnTimeRange(between(floating(2006, 3, from), floating(2006, 3, to)), *start);
    EXPECT_EQ(dates.size(), static_cast<std::size_t>(to - from)) << from << "-" << to;
  }
  const std::vector<std::string> cached = iso(rule->cachedDates());
  EXPECT_TRUE(std::is_sorted(cached.begin(), cached.end()));
  EXPECT_EQ(std::adjacent_find(cached.begin(), cached.end()), cached.end());
  // The cache covers the union of the requests: 1 to 27 March.
  EXPECT_EQ(cached.size(), 27u);
  EXPECT_THAT(log.messages(), Not(Contains(HasSubstr("adding twice"))));

  // Dates handed in by hand are merged in order, each once, and the
  // duplicate is reported.
  rule->addCachedDates({floating(2006, 3, 2, 10), floating(2006, 2, 1, 10), floating(2006, 3, 30, 10)});
  EXPECT_THAT(log.messages(), Contains("WARNING : adding twice the same date in a recurrence cache"));
  const std::vector<std::string> merged = iso(rule->cachedDates());
  EXPECT_TRUE(std::is_sorted(merged.begin(), merged.end()));
  EXPECT_EQ(merged.size(), 29u);
  EXPECT_EQ(merged.front(), "20060201T100000");
  EXPECT_EQ(merged.back(), "20060330T100000");
}

TEST(RecurrenceCacheTest, EveryChangeOfTheRuleEmptiesItsCaches) {
  const CALDateRef start = floating(2006, 3, 1, 10);  // a Wednesday
  const CALTimeRange fortnight = between(floating(2006, 3, 1), floating(2006, 3, 15));
  const std::vector<std::pair<const char*, Configure>> changes = {
      {"count", [](auto& r) { r.setCount(2); }},
      {"interval", [](auto& r) { r.setInterval(3); }},
      {"until", [](auto& r) { r.setUntilDate(floating(2006, 3, 4, 10).get()); }},
      {"by day", [](auto& r) { r.setByDay(std::vector<CALWeekDayNumber>{{1, 0}}); }},
      {"by month day", [](auto& r) { r.setByMonth(std::vector{3}).setByMonthDay(std::vector{5}); }},
      {"by hour", [](auto& r) { r.setByHour(std::vector{8, 9}); }},
      {"by set position", [](auto& r) { r.setByHour(std::vector{8, 9}).setBySetpos(std::vector{-1}); }},
  };
  for (const auto& [what, change] : changes) {
    std::unique_ptr<CALRecurrenceRule> rule = daily([](auto& r) { r.setCount(10); });
    rule->occurrencesOnTimeRange(fortnight, *start);
    change(*rule);
    std::unique_ptr<CALRecurrenceRule> fresh = daily([](auto& r) { r.setCount(10); });
    change(*fresh);
    EXPECT_EQ(iso(rule->occurrencesOnTimeRange(fortnight, *start)), iso(fresh->occurrencesOnTimeRange(fortnight, *start)))
        << what;
    const CALDateRef end = rule->cachedEndDateForRecurrenceStart(*start);
    const CALDateRef freshEnd = fresh->cachedEndDateForRecurrenceStart(*start);
    EXPECT_EQ(end ? end->isoStringRepresentation() : "none", freshEnd ? freshEnd->isoStringRepresentation() : "none")
        << what;
  }
}

}  // namespace
}  // namespace pc
