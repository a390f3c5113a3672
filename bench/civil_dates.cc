// Civil date conversions of the calendar core against the same conversions in
// an independent calendar library. Each pair of benchmarks walks the same
// days; the summary at the end prints how many times slower (> 1) or faster
// (< 1) the calendar core is.
#include <benchmark/benchmark.h>
#include <date/date.h>

#include <cstdio>
#include <map>
#include <string>

#include "calcore/calcdate.h"

namespace {

using pc::CALCDate;

// 1900-01-01 to about 2173: the span recurrences are expanded in.
constexpr std::uint32_t kFirstDay = 693595;
constexpr std::uint32_t kDayCount = 1 << 16;
const int kReferenceOffset =
    date::sys_days{date::year{1} / date::January / 1}.time_since_epoch().count();

void BM_Core_DayToDate(benchmark::State& state) {
  CALCDate d{};
  std::uint32_t i = 0;
  for (auto _ : state) {
    pc::calcdate_fill_ymd_with_absoluteday(&d, kFirstDay + (i++ & (kDayCount - 1)));
    benchmark::DoNotOptimize(d);
  }
}

void BM_Reference_DayToDate(benchmark::State& state) {
  std::uint32_t i = 0;
  for (auto _ : state) {
    const date::year_month_day ymd{date::sys_days{
        date::days{kReferenceOffset + int(kFirstDay + (i++ & (kDayCount - 1)))}}};
    benchmark::DoNotOptimize(ymd);
  }
}

void BM_Core_DateToDay(benchmark::State& state) {
  CALCDate d{0, 0, 0, 1, 1, 1900};
  for (auto _ : state) {
    d.day = 1 + (d.day % 28);
    d.month = 1 + (d.month % 12);
    d.year = 1900 + ((d.year + 1) & 255);
    benchmark::DoNotOptimize(pc::calcdate_absoluteday(&d));
  }
}

void BM_Reference_DateToDay(benchmark::State& state) {
  unsigned day = 1, month = 1;
  int year = 1900;
  for (auto _ : state) {
    day = 1 + (day % 28);
    month = 1 + (month % 12);
    year = 1900 + ((year + 1) & 255);
    const date::sys_days days{date::year{year} / date::month{month} / date::day{day}};
    benchmark::DoNotOptimize(days);
  }
}

// Normalising a date whose day ran past its month (a repeated day step).
void BM_Core_Normalize(benchmark::State& state) {
  std::int64_t overflow = 0;
  for (auto _ : state) {
    CALCDate d{0, 0, 0, 28 + (overflow++ & 63), 1 + (overflow & 7), 2005};
    pc::calcdate_normalize_ymd(&d);
    benchmark::DoNotOptimize(d);
  }
}

void BM_Reference_Normalize(benchmark::State& state) {
  std::int64_t overflow = 0;
  for (auto _ : state) {
    const auto first = date::year{2005} / date::month{unsigned(1 + ((overflow + 1) & 7))} / 1;
    const date::year_month_day ymd{date::sys_days{first} + date::days{27 + (overflow++ & 63)}};
    benchmark::DoNotOptimize(ymd);
  }
}

// Adding a delta of days, hours and seconds to a date and time.
void BM_Core_AddDelta(benchmark::State& state) {
  CALCDate d{0, 0, 0, 1, 1, 2000};
  const CALCDate delta{17, 0, 5, 3, 0, 0};
  for (auto _ : state) {
    pc::calcdate_add_deltadate(&d, &delta);
    if (d.year > 2100) d.year = 2000;
    benchmark::DoNotOptimize(d);
  }
}

void BM_Reference_AddDelta(benchmark::State& state) {
  using namespace std::chrono;
  date::sys_seconds t = date::sys_days{date::year{2000} / 1 / 1};
  const date::sys_seconds wrap = date::sys_days{date::year{2100} / 1 / 1};
  for (auto _ : state) {
    t += date::days{3} + hours{5} + seconds{17};
    if (t > wrap) t -= date::years{100};
    const auto day = date::floor<date::days>(t);
    const date::year_month_day ymd{day};
    const date::hh_mm_ss time{t - day};
    benchmark::DoNotOptimize(ymd);
    benchmark::DoNotOptimize(time);
  }
}

BENCHMARK(BM_Core_DayToDate);
BENCHMARK(BM_Reference_DayToDate);
BENCHMARK(BM_Core_DateToDay);
BENCHMARK(BM_Reference_DateToDay);
BENCHMARK(BM_Core_Normalize);
BENCHMARK(BM_Reference_Normalize);
BENCHMARK(BM_Core_AddDelta);
BENCHMARK(BM_Reference_AddDelta);

// Collects the CPU time per iteration (the machine is shared: wall time is noisy) of each run and prints the ratios.
// Each operation may take at most this many times the reference's time.
constexpr double kTargetRatio = 1.2;

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred) _nanoseconds[run.benchmark_name()] = run.GetAdjustedCPUTime();
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nCalendar core / reference library (CPU time per operation, target %.1f at most):\n",
                kTargetRatio);
    for (const char* operation : {"DayToDate", "DateToDay", "Normalize", "AddDelta"}) {
      const double core = _nanoseconds[std::string("BM_Core_") + operation];
      const double reference = _nanoseconds[std::string("BM_Reference_") + operation];
      if (core > 0 && reference > 0)
        std::printf("  %-10s %8.2f ns / %8.2f ns = %5.2f%s\n", operation, core, reference, core / reference,
                    core / reference > kTargetRatio ? "  (above the target)" : "");
    }
  }

 private:
  std::map<std::string, double> _nanoseconds;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
