#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALRecurrenceFrequencies.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

CALDateRef floating(int year, int month, int day, int hour = 0, int minute = 0) {
  return CALFloatingDateTime::dateWithYear(year, month, day, hour, minute, 0);
}

CALTimeRange range(const CALDateRef& from, const CALDateRef& to) { return CALTimeRange(from.get(), to.get()); }

std::vector<std::string> iso(const CALDateList& dates) {
  std::vector<std::string> texts;
  for (const CALDateRef& date : dates) texts.push_back(date->isoStringRepresentation());
  return texts;
}

std::vector<std::string> expand(CALRecurrenceRule& rule, const CALDateRef& start, const CALDateRef& to) {
  return iso(rule.occurrencesOnTimeRange(range(start, to), *start));
}

using RuleMaker = std::function<std::unique_ptr<CALRecurrenceRule>()>;

std::vector<CALWeekDayNumber> weekdays(std::initializer_list<int> days) {
  std::vector<CALWeekDayNumber> list;
  for (int day : days) list.emplace_back(day, 0);
  return list;
}

template <class Rule>
RuleMaker make(std::function<void(CALRecurrenceRule&)> setParts) {
  return [setParts] {
    std::unique_ptr<CALRecurrenceRule> rule = Rule::rule();
    if (setParts) setParts(*rule);
    return rule;
  };
}

TEST(RecurrenceRuleTest, IntervalsBeyondTheRangeLeaveOnlyTheStart) {
  for (int interval : {0, -3, 2147483647}) {
    auto rule = CALMonthlyRecurrence::rule();
    rule->setInterval(interval);
    const std::vector<std::string> dates = expand(*rule, floating(2006, 3, 1, 10), floating(2006, 6, 1));
    if (interval > 1)
      EXPECT_THAT(dates, ElementsAre("20060301T100000"));
    else  // below 1: every month
      EXPECT_EQ(dates.size(), 3u);
  }
}

TEST(RecurrenceRuleTest, CountNotReachedBefore2050LeavesTheRuleOpen) {
  auto rule = CALYearlyRecurrence::rule();
  rule->setCount(5);
  const CALDateRef start = floating(2049, 6, 1, 9);
  EXPECT_THAT(expand(*rule, start, floating(2052, 1, 1)),
              ElementsAre("20490601T090000", "20500601T090000", "20510601T090000"));
  EXPECT_FALSE(rule->cachedEndDateForRecurrenceStart(*start));
}

TEST(RecurrenceRuleTest, SetposZeroIsLoggedAndSelectsNothing) {
  test::LogCapture log;
  auto rule = CALMonthlyRecurrence::rule();
  rule->setByDay(std::vector<CALWeekDayNumber>{{1, 0}}).setBySetpos(std::vector{0});
  const CALDateRef start = floating(2006, 1, 2, 8);
  EXPECT_THAT(expand(*rule, start, floating(2006, 3, 1)), ElementsAre("20060102T080000"));
  ASSERT_FALSE(log.messages().empty());
  EXPECT_THAT(log.messages().front(), HasSubstr("filterBySetpos problem for 0 (index:5) and "));
}

// The peer comparison draws ordinals up to 4 only.
TEST(RecurrenceRuleTest, AFifthWeekdaySkipsMonthsWithFour) {
  auto fifthMonday = CALMonthlyRecurrence::rule();
  fifthMonday->setByDay(std::vector<CALWeekDayNumber>{{1, 5}});
  EXPECT_THAT(expand(*fifthMonday, floating(2006, 1, 30, 12), floating(2006, 8, 1)),
              ElementsAre("20060130T120000", "20060529T120000", "20060731T120000"));
}

TEST(RecurrenceRuleTest, TheStartIsAnOccurrenceEvenWhenTheRuleWouldSkipIt) {
  auto rule = CALWeeklyRecurrence::rule();
  rule->setByDay(std::vector<CALWeekDayNumber>{{1, 0}});
  const CALDateRef tuesday = floating(2006, 3, 7, 9);
  EXPECT_THAT(expand(*rule, tuesday, floating(2006, 3, 21)),
              ElementsAre("20060307T090000", "20060313T090000", "20060320T090000"));
  EXPECT_FALSE(rule->ruleMatchesDate(*tuesday));
  EXPECT_TRUE(rule->ruleMatchesDate(*floating(2006, 3, 13, 9)));
}

TEST(RecurrenceRuleTest, MonthlyWalkStopsBeforeAMonthBeginningAtTheLastInstant) {
  // The monthly walk keeps a month only when it begins strictly before the
  // last instant: an until date at 00:00:00 on the 1st leaves that 1st out,
  // where a daily rule keeps it.
  const TimeZonePtr paris = TimeZone::timeZoneWithName("Europe/Paris");
  auto parisDate = [&](int year, int month, int day, int second = 0) {
    return CALDateTime::dateWithYear(year, month, day, 0, 0, second, paris);
  };
  const CALDateRef start = parisDate(2006, 1, 1);
  const CALDateRef to = parisDate(2007, 1, 1);
  auto monthlyUntil = [&](const CALDateRef& until) {
    auto monthly = CALMonthlyRecurrence::rule();
    monthly->setUntilDate(until.get());
    return expand(*monthly, start, to);
  };
  EXPECT_THAT(monthlyUntil(parisDate(2006, 4, 1)),
              ElementsAre("20060101T000000+0100", "20060201T000000+0100", "20060301T000000+0100"));
  EXPECT_EQ(monthlyUntil(parisDate(2006, 4, 1, 1)).size(), 4u);

  // A counted rule ends at its last occurrence, so the third one of a rule
  // on the 1st at midnight is found but never produced.
  auto counted = CALMonthlyRecurrence::rule();
  counted->setCount(3);
  EXPECT_THAT(expand(*counted, start, to), ElementsAre("20060101T000000+0100", "20060201T000000+0100"));
  EXPECT_EQ(counted->cachedEndDateForRecurrenceStart(*start)->isoStringRepresentation(), "20060301T000000+0100");
}

TEST(RecurrenceRuleTest, CountedEndSearchLeavesOutTheLastSecondOfEachYear) {
  // Each year is searched up to 23:59:59 on 31 December, end excluded: an
  // occurrence at that second is not counted, and the rule runs one day on.
  const TimeZonePtr gmt = TimeZone::timeZoneWithName("GMT");
  const CALDateRef start = CALDateTime::dateWithYear(2006, 12, 30, 23, 59, 59, gmt);
  auto rule = CALDailyRecurrence::rule();
  rule->setCount(3);
  EXPECT_THAT(expand(*rule, start, CALDateTime::dateWithYear(2007, 2, 1, 0, 0, 0, gmt)),
              ElementsAre("20061230T235959+0000", "20061231T235959+0000", "20070101T235959+0000",
                          "20070102T235959+0000"));
}

TEST(RecurrenceRuleTest, YearlyByDayWithoutByMonthStaysInTheStartsMonth) {
  struct Case {
    std::vector<CALWeekDayNumber> byDay;
    CALDateRef start;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      // The 20th Monday of January does not exist: only the start remains.
      {{{1, 20}}, floating(2006, 1, 2, 9), {"20060102T090000"}},
      // The last Friday of March, not of the year.
      {{{5, -1}}, floating(2006, 3, 31, 9), {"20060331T090000", "20070330T090000"}},
      // Every Monday of March.
      {{{1, 0}},
       floating(2006, 3, 6, 9),
       {"20060306T090000", "20060313T090000", "20060320T090000", "20060327T090000", "20070305T090000",
        "20070312T090000", "20070319T090000", "20070326T090000"}},
  };
  for (const Case& c : cases) {
    auto rule = CALYearlyRecurrence::rule();
    rule->setByDay(c.byDay);
    EXPECT_THAT(expand(*rule, c.start, floating(2008, 1, 1)), ElementsAreArray(c.expected))
        << c.start->isoStringRepresentation();
  }
  // The start's month is what the rule means when it names none.
  auto withMonth = CALYearlyRecurrence::rule();
  withMonth->setByMonth(std::vector{3}).setByDay(std::vector<CALWeekDayNumber>{{1, 0}});
  auto withoutMonth = CALYearlyRecurrence::rule();
  withoutMonth->setByDay(std::vector<CALWeekDayNumber>{{1, 0}});
  EXPECT_TRUE(withoutMonth->isEqualToRule(*withMonth, floating(2006, 3, 6).get()));
  EXPECT_FALSE(withoutMonth->isEqualToRule(*withMonth, floating(2006, 4, 3).get()));
}

TEST(RecurrenceRuleTest, EachFrequencyAppliesOnlyTheDayPartsOfItsOwnSteps) {
  struct Case {
    const char* what;
    RuleMaker rule;
    CALDateRef start, to;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"daily BYMONTHDAY without BYMONTH is every day",
       make<CALDailyRecurrence>([](auto& r) { r.setByMonthDay(std::vector{15}); }), floating(2006, 3, 14, 9),
       floating(2006, 3, 17), {"20060314T090000", "20060315T090000", "20060316T090000"}},
      {"daily BYMONTHDAY narrows BYMONTH",
       make<CALDailyRecurrence>([](auto& r) { r.setByMonth(std::vector{3, 4}).setByMonthDay(std::vector{15}); }),
       floating(2006, 3, 15, 9), floating(2006, 6, 1), {"20060315T090000", "20060415T090000"}},
      {"daily BYWEEKNO takes the start's weekday", make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{10}); }),
       floating(2006, 3, 6, 9), floating(2007, 12, 1), {"20060306T090000", "20070305T090000"}},
      {"weekly BYMONTH keeps whole weeks",
       make<CALWeeklyRecurrence>([](auto& r) { r.setByMonth(std::vector{3}).setByDay(weekdays({1, 0})); }),
       floating(2006, 3, 27, 9), floating(2006, 4, 30), {"20060327T090000", "20060402T090000"}},
      {"weekly BYHOUR without BYDAY is every day", make<CALWeeklyRecurrence>([](auto& r) { r.setByHour(std::vector{9}); }),
       floating(2006, 3, 8, 9), floating(2006, 3, 11), {"20060308T090000", "20060309T090000", "20060310T090000"}},
      {"monthly BYHOUR without a day part is every day",
       make<CALMonthlyRecurrence>([](auto& r) { r.setByHour(std::vector{9}); }), floating(2006, 3, 30, 9),
       floating(2006, 4, 2), {"20060330T090000", "20060331T090000", "20060401T090000"}},
      {"yearly BYYEARDAY ignores BYMONTH",
       make<CALYearlyRecurrence>([](auto& r) { r.setByYearDay(std::vector{100}).setByMonth(std::vector{1}); }),
       floating(2006, 4, 10, 9), floating(2008, 1, 1), {"20060410T090000", "20070410T090000"}},
  };
  for (const Case& c : cases) EXPECT_THAT(expand(*c.rule(), c.start, c.to), ElementsAreArray(c.expected)) << c.what;
}

TEST(RecurrenceRuleTest, YearDayZeroIsTheFirstDayOfTheNextYear) {
  auto rule = CALYearlyRecurrence::rule();
  rule->setByYearDay(std::vector{0, 1, -1});
  EXPECT_THAT(expand(*rule, floating(2006, 12, 31, 7), floating(2008, 1, 2)),
              ElementsAre("20061231T070000", "20070101T070000", "20071231T070000", "20080101T070000"));
}

TEST(RecurrenceRuleTest, WeekNumbersCountOnlyTheWeeksOfTheirOwnYear) {
  // 2015, 2020 and 2026 have 53 weeks (from Monday); the years between 52.
  // Week 53 then exists only in those years, and week -53 is their week 1.
  struct Case {
    const char* what;
    RuleMaker rule;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"yearly 53 MO", make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{53}).setByDay(weekdays({1})); }),
       {"20151228T090000", "20201228T090000", "20261228T090000"}},
      {"yearly -53 MO",
       make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{-53}).setByDay(weekdays({1})); }),
       {"20151228T090000", "20191230T090000", "20251229T090000"}},
      {"daily 53", make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{53}); }),
       {"20151228T090000", "20201228T090000", "20261228T090000"}},
      {"weekly 53 MO", make<CALWeeklyRecurrence>([](auto& r) { r.setByWeekno(std::vector{53}).setByDay(weekdays({1})); }),
       {"20151228T090000", "20201228T090000", "20261228T090000"}},
      {"weekly 53 MO, weeks from Sunday",
       make<CALWeeklyRecurrence>(
           [](auto& r) { r.setByWeekno(std::vector{53}).setByDay(weekdays({1})).setWeekStart(0); }),
       {"20151228T090000", "20201228T090000", "20251229T090000"}},
  };
  for (const Case& c : cases)
    EXPECT_THAT(expand(*c.rule(), floating(2015, 12, 28, 9), floating(2031, 1, 1)), ElementsAreArray(c.expected))
        << c.what;
  // A day belongs to the week its number names, even when that week is
  // numbered by the next year.
  EXPECT_THAT(expand(*make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{1}); })(),
                     floating(2014, 12, 29, 9), floating(2021, 1, 1)),
              ElementsAre("20141229T090000", "20160104T090000", "20170102T090000", "20180101T090000",
                          "20181231T090000", "20191230T090000"));

  auto rule = CALYearlyRecurrence::rule();
  EXPECT_FALSE(rule->week(0, 2016));
  EXPECT_EQ(rule->week(-52, 2016)->description(), rule->week(1, 2016)->description());
}

TEST(RecurrenceRuleTest, EveryDateARuleProducesMatchesIt) {
  // Weeks and days of the year reach across the year's end: the matching
  // must look at the neighbouring period too.
  struct Case {
    const char* what;
    RuleMaker rule;
    CALDateRef start;
  };
  const std::vector<Case> cases = {
      {"yearly week 1 MO",
       make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{1}).setByDay(weekdays({1})); }),
       floating(2014, 12, 29, 9)},
      {"yearly week 53 FR,SA,SU",
       make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{53}).setByDay(weekdays({5, 6, 0})); }),
       floating(2016, 1, 1, 9)},
      {"yearly last week SU",
       make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{-1}).setByDay(weekdays({0})); }),
       floating(2016, 1, 3, 9)},
      {"yearly days 0, 1, -1, 366",
       make<CALYearlyRecurrence>([](auto& r) { r.setByYearDay(std::vector{0, 1, -1, 366}); }),
       floating(2015, 12, 31, 9)},
      {"daily week 1", make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{1}); }),
       floating(2014, 12, 29, 9)},
      {"weekly TU,TH with BYHOUR",
       make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({2, 4})).setByHour(std::vector{9, 18}); }),
       floating(2015, 12, 29, 9)},
  };
  for (const Case& c : cases) {
    std::unique_ptr<CALRecurrenceRule> rule = c.rule();
    const CALDateList dates = rule->occurrencesOnTimeRange(range(c.start, floating(2030, 1, 1)), *c.start);
    ASSERT_GT(dates.size(), 5u) << c.what;
    for (const CALDateRef& date : dates)
      EXPECT_TRUE(rule->ruleMatchesDate(*date)) << c.what << " " << date->isoStringRepresentation();
  }

  struct Mismatch {
    RuleMaker rule;
    CALDateRef date;
  };
  const std::vector<Mismatch> mismatches = {
      // Week 53 of 2018 does not exist; 31 December is week 1 of 2019.
      {make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{53}).setByDay(weekdays({1})); }),
       floating(2018, 12, 31, 9)},
      {make<CALYearlyRecurrence>([](auto& r) { r.setByWeekno(std::vector{1}).setByDay(weekdays({1})); }),
       floating(2026, 1, 5, 9)},
      {make<CALYearlyRecurrence>([](auto& r) { r.setByYearDay(std::vector{0}); }), floating(2026, 12, 31, 9)},
  };
  for (const Mismatch& m : mismatches)
    EXPECT_FALSE(m.rule()->ruleMatchesDate(*m.date)) << m.date->isoStringRepresentation();
}

TEST(RecurrenceRuleTest, EqualityReadsTheListsAsSets) {
  struct Case {
    RuleMaker a, b;
    CALDateRef start;  // null: compared as written
    bool equal;
  };
  const CALDateRef monday = floating(2006, 3, 6, 9);
  const CALDateRef tuesday = floating(2006, 3, 7, 9);
  const std::vector<Case> cases = {
      {make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({1, 3})); }),
       make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({3, 1, 3})); }), nullptr, true},
      {make<CALMonthlyRecurrence>([](auto& r) { r.setByMonthDay(std::vector{1, 15}); }),
       make<CALMonthlyRecurrence>([](auto& r) { r.setByMonthDay(std::vector{15, 1}); }), nullptr, true},
      {make<CALYearlyRecurrence>([](auto& r) { r.setByMonth(std::vector{3, 1}).setBySetpos(std::vector{-1, 1}); }),
       make<CALYearlyRecurrence>([](auto& r) { r.setByMonth(std::vector{1, 3}).setBySetpos(std::vector{1, -1}); }),
       monday, true},
      {make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({1, 3})); }),
       make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({1})); }), nullptr, false},
      // Numbered weeks without BYDAY fall on the start's weekday.
      {make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{10}); }),
       make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{10}).setByDay(weekdays({1})); }), monday,
       true},
      {make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{10}); }),
       make<CALDailyRecurrence>([](auto& r) { r.setByWeekno(std::vector{10}).setByDay(weekdays({1})); }), tuesday,
       false},
      // A plain weekly rule repeats on the start's weekday.
      {make<CALWeeklyRecurrence>({}), make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({1})); }), monday, true},
      {make<CALWeeklyRecurrence>({}), make<CALWeeklyRecurrence>([](auto& r) { r.setByDay(weekdays({1})); }), nullptr, false},
      // A weekly time part without BYDAY is every day, not the start's weekday.
      {make<CALWeeklyRecurrence>([](auto& r) { r.setByHour(std::vector{9}); }),
       make<CALWeeklyRecurrence>([](auto& r) { r.setByHour(std::vector{9}).setByDay(weekdays({3})); }),
       floating(2006, 3, 8, 9), false},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    EXPECT_EQ(c.a()->isEqualToRule(*c.b(), c.start.get()), c.equal) << "case " << i;
    EXPECT_EQ(c.b()->isEqualToRule(*c.a(), c.start.get()), c.equal) << "case " << i;
  }
}

TEST(RecurrenceRuleTest, AllDayRulesReadZonedRangesAsDays) {
  auto rule = CALYearlyRecurrence::rule();
  const CALDateRef birthday = CALDateOnly::dateOnlyWithYear(2004, 2, 29);
  const TimeZonePtr tokyo = TimeZone::timeZoneWithName("Asia/Tokyo");
  const CALDateList dates = rule->occurrencesOnTimeRange(
      CALTimeRange(CALDateTime::dateWithYear(2005, 1, 1, 0, 0, 0, tokyo).get(),
                   CALDateTime::dateWithYear(2013, 1, 1, 0, 0, 0, tokyo).get()),
      *birthday);
  EXPECT_THAT(iso(dates), ElementsAre("20080229", "20120229"));
}

TEST(RecurrenceRuleTest, AnotherStartReplacesTheCache) {
  auto rule = CALDailyRecurrence::rule();
  expand(*rule, floating(2006, 3, 1, 10), floating(2006, 3, 10));
  const CALDateRef later = floating(2006, 4, 1, 10);
  expand(*rule, later, floating(2006, 4, 3));
  EXPECT_THAT(iso(rule->cachedDates()), ElementsAre("20060401T100000", "20060402T100000"));
}

TEST(RecurrenceRuleTest, MovingAnOccurrenceRenamesThePartsThatNameIt) {
  // Every second Tuesday and the 1st: moved from Tuesday 10 January to
  // Wednesday 18 January, the second Tuesday becomes the third Wednesday.
  auto rule = CALMonthlyRecurrence::rule();
  rule->setByDay(std::vector<CALWeekDayNumber>{{2, 2}, {5, -1}}).setByMonthDay(std::vector{1, -1});
  bool changes = false;
  auto moved = rule->proposedRuleForMovingFrom(*floating(2006, 1, 10, 9), *floating(2006, 1, 18, 9), &changes);
  EXPECT_TRUE(changes);
  EXPECT_THAT(*moved->byDay(), ElementsAre(CALWeekDayNumber(3, 3), CALWeekDayNumber(5, -1)));
  EXPECT_THAT(*moved->byMonthDay(), ElementsAre(1, -1));
  // The last day of the month stays the last day.
  auto lastDay = rule->proposedRuleForMovingFrom(*floating(2006, 1, 31), *floating(2006, 1, 30), &changes);
  EXPECT_THAT(*lastDay->byMonthDay(), ElementsAre(1, -2));

  // A plain weekly rule follows its start: nothing to change.
  auto weekly = CALWeeklyRecurrence::rule();
  weekly->proposedRuleForMovingFrom(*floating(2006, 1, 10), *floating(2006, 1, 11), &changes);
  EXPECT_FALSE(changes);
  EXPECT_EQ(weekly->acceptableMoveToTimeRangeForDate(*floating(2006, 1, 11, 15)).description(),
            CALTimeRange(floating(2006, 1, 9).get(), floating(2006, 1, 15, 23, 59)->dateWithHour(23, 59, 59).get())
                .description());
}

}  // namespace
}  // namespace pc
