// Recurrence expansion of the calendar core against the peer engine of
// libical. Both expand the same rules from the same start over ten years;
// the summary prints the occurrences per second of each and the ratio. Also:
// the search for the last occurrence of a counted rule, a range request
// answered from the rule's cache against the same request generated afresh,
// a cached range extended year by year against generating each year alone,
// the conversion of a long count into an until date, and the last occurrence
// before an until date found backwards against the full expansion.
#include <benchmark/benchmark.h>
#include <libical/ical.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "calcore/CALFloatingDateTime.h"
#include "calcore/CALRecurrenceFrequencies.h"
#include "engine/SchemaNames.h"

namespace {

using namespace pc;

struct BenchRule {
  const char* ical;
  std::function<std::unique_ptr<CALRecurrenceRule>()> make;
};

std::vector<CALWeekDayNumber> days(std::initializer_list<std::pair<int, int>> entries) {
  std::vector<CALWeekDayNumber> list;
  for (auto [day, number] : entries) list.emplace_back(day, number);
  return list;
}

const std::vector<BenchRule>& rules() {
  static const std::vector<BenchRule> list{
      {"FREQ=DAILY", [] { return std::unique_ptr<CALRecurrenceRule>(CALDailyRecurrence::rule()); }},
      {"FREQ=DAILY;INTERVAL=3;BYHOUR=9,14",
       [] {
         std::unique_ptr<CALRecurrenceRule> r = CALDailyRecurrence::rule();
         r->setInterval(3).setByHour(std::vector{9, 14});
         return r;
       }},
      {"FREQ=WEEKLY;BYDAY=MO,WE,FR",
       [] {
         std::unique_ptr<CALRecurrenceRule> r = CALWeeklyRecurrence::rule();
         r->setByDay(days({{1, 0}, {3, 0}, {5, 0}}));
         return r;
       }},
      {"FREQ=MONTHLY;BYMONTHDAY=31",
       [] {
         std::unique_ptr<CALRecurrenceRule> r = CALMonthlyRecurrence::rule();
         r->setByMonthDay(std::vector{31});
         return r;
       }},
      {"FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1",
       [] {
         std::unique_ptr<CALRecurrenceRule> r = CALMonthlyRecurrence::rule();
         r->setByDay(days({{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}})).setBySetpos(std::vector{-1});
         return r;
       }},
      {"FREQ=MONTHLY;BYDAY=2TU",
       [] {
         std::unique_ptr<CALRecurrenceRule> r = CALMonthlyRecurrence::rule();
         r->setByDay(days({{2, 2}}));
         return r;
       }},
      {"FREQ=YEARLY;BYMONTH=11;BYDAY=4TH",
       [] {
         std::unique_ptr<CALRecurrenceRule> r = CALYearlyRecurrence::rule();
         r->setByMonth(std::vector{11}).setByDay(days({{4, 4}}));
         return r;
       }},
  };
  return list;
}

// The starts each rule produces, so that both engines agree on every date.
const char* const kStarts[] = {"20060102T090000", "20060102T090000", "20060102T090000", "20060131T090000",
                               "20060131T090000", "20060110T090000", "20061123T090000"};

CALDateRef start(std::size_t rule) { return CALDate::dateFromIsoString(kStarts[rule]); }

CALTimeRange tenYearsFrom(const CALDate& first) {
  return CALTimeRange(&first, CALFloatingDateTime::dateWithYear(2016, 1, 1, 0, 0, 0).get());
}

std::size_t coreExpansion(std::size_t rule) {
  const CALDateRef first = start(rule);
  return rules()[rule].make()->realOccurrencesOnTimeRange(tenYearsFrom(*first), *first).size();
}

std::size_t peerExpansion(std::size_t rule) {
  static const icaltimetype end = icaltime_from_string("20160101T000000");
  std::size_t occurrences = 0;
  icalrecur_iterator* iterator =
      icalrecur_iterator_new(icalrecurrencetype_from_string(rules()[rule].ical), icaltime_from_string(kStarts[rule]));
  for (icaltimetype t = icalrecur_iterator_next(iterator); !icaltime_is_null_time(t) && icaltime_compare(t, end) < 0;
       t = icalrecur_iterator_next(iterator))
    ++occurrences;
  icalrecur_iterator_free(iterator);
  return occurrences;
}

void BM_Core_Expand(benchmark::State& state) {
  std::size_t occurrences = 0;
  for (auto _ : state)
    for (std::size_t i = 0; i < rules().size(); ++i) occurrences += coreExpansion(i);
  state.SetItemsProcessed(static_cast<std::int64_t>(occurrences));
}

void BM_Peer_Expand(benchmark::State& state) {
  std::size_t occurrences = 0;
  for (auto _ : state)
    for (std::size_t i = 0; i < rules().size(); ++i) occurrences += peerExpansion(i);
  state.SetItemsProcessed(static_cast<std::int64_t>(occurrences));
}

// The last of 500 occurrences of a weekly rule, searched year by year.
void BM_Core_CountedEndDate(benchmark::State& state) {
  const CALDateRef first = CALDateTime::dateWithYear(2006, 1, 2, 9, 0, 0, TimeZone::timeZoneWithName("Europe/Paris"));
  for (auto _ : state) {
    std::unique_ptr<CALWeeklyRecurrence> rule = CALWeeklyRecurrence::rule();
    rule->setCount(500).setByDay(days({{1, 0}, {4, 0}}));
    benchmark::DoNotOptimize(rule->cachedEndDateForRecurrenceStart(*first));
  }
}

// One month of a rule whose year is already cached, against generating it.
CALTimeRange march2010() {
  return CALTimeRange(CALFloatingDateTime::dateWithYear(2010, 3, 1, 0, 0, 0).get(),
                      CALFloatingDateTime::dateWithYear(2010, 4, 1, 0, 0, 0).get());
}

void BM_Core_CachedRange(benchmark::State& state) {
  const CALDateRef first = start(2);
  std::unique_ptr<CALRecurrenceRule> rule = rules()[2].make();
  rule->occurrencesOnTimeRange(CALTimeRange(CALFloatingDateTime::dateWithYear(2010, 1, 1, 0, 0, 0).get(),
                                            CALFloatingDateTime::dateWithYear(2011, 1, 1, 0, 0, 0).get()),
                               *first);
  const CALTimeRange month = march2010();
  for (auto _ : state) benchmark::DoNotOptimize(rule->occurrencesOnTimeRange(month, *first));
}

void BM_Core_UncachedRange(benchmark::State& state) {
  const CALDateRef first = start(2);
  std::unique_ptr<CALRecurrenceRule> rule = rules()[2].make();
  const CALTimeRange month = march2010();
  for (auto _ : state) benchmark::DoNotOptimize(rule->realOccurrencesOnTimeRange(month, *first));
}

// A daily rule whose first century is cached, asked for the year after its
// cached range on each iteration: the cost should be that of generating the
// new year (BM_Core_GenerateYear), whatever the size of the cache.
constexpr int kCachedYears = 100;
constexpr int kExtensions = 200;

CALTimeRange dailyYearsFrom(const CALDate& first, int fromYear, int toYear) {
  return CALTimeRange(fromYear ? CALFloatingDateTime::dateWithYear(fromYear, 1, 1, 0, 0, 0).get() : &first,
                      CALFloatingDateTime::dateWithYear(toYear, 1, 1, 0, 0, 0).get());
}

void BM_Core_ExtendCachedYear(benchmark::State& state) {
  const CALDateRef first = start(0);
  std::unique_ptr<CALRecurrenceRule> rule = rules()[0].make();
  rule->occurrencesOnTimeRange(dailyYearsFrom(*first, 0, 2006 + kCachedYears), *first);
  int year = 2006 + kCachedYears;
  for (auto _ : state) {
    ++year;
    benchmark::DoNotOptimize(rule->occurrencesOnTimeRange(dailyYearsFrom(*first, year - 1, year), *first));
  }
}

void BM_Core_GenerateYear(benchmark::State& state) {
  const CALDateRef first = start(0);
  std::unique_ptr<CALRecurrenceRule> rule = rules()[0].make();
  int year = 2006 + kCachedYears;
  for (auto _ : state) {
    ++year;
    benchmark::DoNotOptimize(rule->realOccurrencesOnTimeRange(dailyYearsFrom(*first, year - 1, year), *first));
  }
}

// A daily event counted to 50000 occurrences rewritten with an until date.
void BM_Exploder_LongCountToUntilDate(benchmark::State& state) {
  const Dictionary event{{kCalendarsEventStartDate,
                          CalendarDate::dateWithYear(2006, 1, 2, 9, 0, 0, TimeZone::timeZoneWithName("Europe/Paris"))}};
  for (auto _ : state) {
    Dictionary recurrence{{kCalendarsRecurrenceFrequency, "daily"}, {kCalendarsRecurrenceCount, 50000}};
    benchmark::DoNotOptimize(CALEventExploder::convertRuleFromCountToUntilDate(recurrence, event));
  }
}

// The last occurrence of each bench rule bounded by an until date three
// years after its start, found from the until date backwards (argument 0) or
// as the last of all the dates (argument 1, the expansion it replaces).
void BM_Exploder_UntilDateToLastOccurrence(benchmark::State& state) {
  const TimeZonePtr paris = TimeZone::timeZoneWithName("Europe/Paris");
  const CalendarDate start = CalendarDate::dateWithYear(2026, 1, 5, 9, 0, 0, paris);
  const Dictionary event{{kCalendarsEventStartDate, start}};
  std::vector<Dictionary> recurrences;
  for (const char* frequency : {"daily", "weekly", "monthly", "yearly"})
    recurrences.push_back(Dictionary{{kCalendarsRecurrenceFrequency, frequency},
                                     {kCalendarsRecurrenceUntil, start.dateByAddingYears(3, 0, 0, 0, 0, 0)}});
  recurrences.push_back(Dictionary{{kCalendarsRecurrenceFrequency, "monthly"},
                                   {kCalendarsRecurrenceBymonthday, Array{31}},
                                   {kCalendarsRecurrenceUntil, start.dateByAddingYears(3, 0, 0, 0, 0, 0)}});
  const bool full = state.range(0) != 0;
  for (auto _ : state) {
    for (const Dictionary& recurrence : recurrences) {
      if (full) {
        const CALDateList dates = CALEventExploder::datesProducedForRecurrence(recurrence, event);
        benchmark::DoNotOptimize(dates.empty() ? nullptr : dates.back());
      } else {
        benchmark::DoNotOptimize(CALEventExploder::lastDateProducedForRecurrence(recurrence, event));
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(recurrences.size()));
}

BENCHMARK(BM_Core_Expand)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Peer_Expand)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Core_CountedEndDate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Core_CachedRange)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Core_UncachedRange)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Core_ExtendCachedYear)->Unit(benchmark::kMicrosecond)->Iterations(kExtensions);
BENCHMARK(BM_Core_GenerateYear)->Unit(benchmark::kMicrosecond)->Iterations(kExtensions);
BENCHMARK(BM_Exploder_LongCountToUntilDate)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Exploder_UntilDateToLastOccurrence)->ArgName("fullExpansion")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

// Prints occurrences per second of both engines (CPU time: the machine is
// shared) and the cache's gain.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      _seconds[run.benchmark_name()] = run.GetAdjustedCPUTime();
      if (auto items = run.counters.find("items_per_second"); items != run.counters.end())
        _perSecond[run.benchmark_name()] = items->second;
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const double core = _perSecond["BM_Core_Expand"], peer = _perSecond["BM_Peer_Expand"];
    if (core > 0 && peer > 0)
      std::printf("\nOccurrences per second: calendar core %.0f, libical %.0f; core / libical = %.3f (aim: at least 3)\n", core,
                  peer, core / peer);
    const double cached = _seconds["BM_Core_CachedRange"], uncached = _seconds["BM_Core_UncachedRange"];
    if (cached > 0 && uncached > 0)
      std::printf("One month from the cache: %.1f us, generated: %.1f us (%.1f times faster)\n", cached, uncached,
                  uncached / cached);
    const double extended = _seconds["BM_Core_ExtendCachedYear/iterations:200"];
    const double generated = _seconds["BM_Core_GenerateYear/iterations:200"];
    if (extended > 0 && generated > 0)
      std::printf("One more year of a cached century: %.1f us, the year generated alone: %.1f us (ratio %.2f)\n",
                  extended, generated, extended / generated);
    const double backwards = _seconds["BM_Exploder_UntilDateToLastOccurrence/fullExpansion:0"];
    const double expanded = _seconds["BM_Exploder_UntilDateToLastOccurrence/fullExpansion:1"];
    if (backwards > 0 && expanded > 0)
      std::printf("Last occurrence before an until date: %.1f us backwards, %.1f us from all the dates (%.1f times faster)\n",
                  backwards, expanded, expanded / backwards);
  }

 private:
  std::map<std::string, double> _perSecond, _seconds;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // The ratio compares like with like only if both engines give as many dates.
  for (std::size_t i = 0; i < rules().size(); ++i)
    if (coreExpansion(i) != peerExpansion(i))
      std::printf("warning: %s gives %zu dates here, %zu in libical\n", rules()[i].ical, coreExpansion(i),
                  peerExpansion(i));
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
