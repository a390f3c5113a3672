// A user's iCalendar file of 10,000 events (zones, all-day events, rules,
// exceptions, alarms) read into engine records: entries per second (aim:
// 50,000 at least; libical's parser alone beside it), and the peak memory of reading files of
// 5,000, 10,000 and 20,000 events, which should grow with the file (about
// the same memory per entry at each size), not with its square.

#include <benchmark/benchmark.h>
#include <libical/ical.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/UserFiles.h"

namespace {

using namespace pc;

constexpr std::size_t kEntries = 10000;
constexpr double kAimEntriesPerSecond = 50000;

std::string two(int n) { return (n < 10 ? "0" : "") + std::to_string(n); }

// `entries` events in the shapes people's calendars hold.
std::string calendarFile(std::size_t entries) {
  static const char* const zones[] = {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland"};
  static const char* const rules[] = {"", "RRULE:FREQ=WEEKLY;BYDAY=MO,WE\r\n", "RRULE:FREQ=MONTHLY;BYDAY=-1FR;COUNT=12\r\n",
                                      "", "RRULE:FREQ=DAILY;INTERVAL=2;UNTIL=20271231T000000Z\r\n"};
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//bench//EN\r\n";
  text.reserve(entries * 400);
  for (std::size_t i = 0; i < entries; ++i) {
    const std::string uid = "event-" + std::to_string(i);
    const int month = 1 + static_cast<int>(i % 12);
    const int day = 1 + static_cast<int>(i % 28);
    const std::string date = "2026" + two(month) + two(day);
    text += "BEGIN:VEVENT\r\nUID:" + uid + "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:Meeting " + std::to_string(i) +
            "\r\nLOCATION:Room " + std::to_string(i % 40) + "\r\nCLASS:PUBLIC\r\n";
    if (i % 10 == 3) {
      text += "DTSTART;VALUE=DATE:" + date + "\r\n";
    } else {
      const std::string zone = zones[i % 4];
      text += "DTSTART;TZID=" + zone + ":" + date + "T" + two(8 + static_cast<int>(i % 10)) + "0000\r\n" +
              "DTEND;TZID=" + zone + ":" + date + "T" + two(9 + static_cast<int>(i % 10)) + "0000\r\n";
      text += rules[i % 5];
      if (i % 5 == 1) text += "EXDATE;TZID=" + zone + ":" + date + "T" + two(8 + static_cast<int>(i % 10)) + "0000\r\n";
    }
    if (i % 3 == 0) text += "BEGIN:VALARM\r\nACTION:DISPLAY\r\nDESCRIPTION:Soon\r\nTRIGGER:-PT15M\r\nEND:VALARM\r\n";
    text += "END:VEVENT\r\n";
  }
  return text + "END:VCALENDAR\r\n";
}

void BM_ImportEvents(benchmark::State& state) {
  const std::string text = calendarFile(kEntries);
  std::size_t records = 0;
  for (auto _ : state) {
    UserFileImport file = importICalendarText(text, "bench.ics");
    records = file.records.size();
    // The records go on to the store; freeing them is not the reading's.
    state.PauseTiming();
    file = UserFileImport();
    state.ResumeTiming();
  }
  state.counters["records"] = static_cast<double>(records);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kEntries));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_ImportEvents)->Unit(benchmark::kMillisecond);

// libical's parser alone on the same file: the floor under the import.
void BM_LibicalParseOnly(benchmark::State& state) {
  const std::string text = calendarFile(kEntries);
  for (auto _ : state) {
    icalcomponent* calendar = icalparser_parse_string(text.c_str());
    benchmark::DoNotOptimize(calendar);
    icalcomponent_free(calendar);
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kEntries));
}
BENCHMARK(BM_LibicalParseOnly)->Unit(benchmark::kMillisecond);

// A line of /proc/self/status ("VmHWM", "VmRSS") in kB.
double statusKilobytes(const char* field) {
  FILE* status = std::fopen("/proc/self/status", "r");
  if (!status) return 0;
  char line[256];
  double value = 0;
  const std::size_t length = std::strlen(field);
  while (std::fgets(line, sizeof line, status))
    if (std::strncmp(line, field, length) == 0 && line[length] == ':') value = std::atof(line + length + 1);
  std::fclose(status);
  return value;
}

// The peak memory, in MB, that making a file of `entries` events and reading
// it adds, measured in a child process whose peak is reset first.
double peakMegabytesReading(std::size_t entries) {
  int pipe_[2];
  if (pipe(pipe_) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(pipe_[0]);
    if (FILE* reset = std::fopen("/proc/self/clear_refs", "w")) {
      std::fputs("5", reset);  // the peak starts again from the current size
      std::fclose(reset);
    }
    const double before = statusKilobytes("VmRSS");
    const std::string text = calendarFile(entries);
    const UserFileImport file = importICalendarText(text, "bench.ics");
    const double megabytes = (statusKilobytes("VmHWM") - before) / 1024.0;
    benchmark::DoNotOptimize(file.records.size());
    [[maybe_unused]] const ssize_t written = write(pipe_[1], &megabytes, sizeof megabytes);
    _exit(0);
  }
  close(pipe_[1]);
  double megabytes = -1;
  if (read(pipe_[0], &megabytes, sizeof megabytes) != sizeof megabytes) megabytes = -1;
  close(pipe_[0]);
  waitpid(child, nullptr, 0);
  return megabytes;
}

class AimReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred && run.counters.count("items_per_second"))
        _rate[run.benchmark_name()] = run.counters.at("items_per_second");
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const double rate = _rate["BM_ImportEvents"];
    std::printf("\nImporting %zu events: %.0f entries/s (aim: at least %.0f)%s; libical's parser alone: %.0f/s\n",
                kEntries, rate, kAimEntriesPerSecond, rate < kAimEntriesPerSecond ? "  BELOW THE AIM" : "",
                _rate["BM_LibicalParseOnly"]);
    std::printf("Peak memory of reading a file (should grow with the file):\n");
    for (const auto& [entries, megabytes] : memory)
      std::printf("  %6zu events: %7.1f MB  (%.2f kB per event)\n", entries, megabytes,
                  megabytes * 1024.0 / static_cast<double>(entries));
    if (!memory.empty() && memory.back().second / memory.back().first > 1.5 * memory.front().second / memory.front().first)
      std::printf("  memory per event grows with the file: FASTER THAN LINEAR\n");
  }

  // Measured before the benchmarks run, while this process is still small.
  std::vector<std::pair<std::size_t, double>> memory;

 private:
  std::map<std::string, double> _rate;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  AimReporter reporter;
  for (std::size_t entries : {5000u, 10000u, 20000u})
    reporter.memory.emplace_back(entries, peakMegabytesReading(entries));
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
