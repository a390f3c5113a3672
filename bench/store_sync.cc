// The two-way sync of a store of 10,000 contacts and 10,000 events (the
// records bench_sync syncs) with the full-featured example phone: the first
// sync, then a sync after 1% of the records changed on each side. Wall time,
// CPU time and peak memory of each, beside the aims: the first sync in line
// with bench_sync's 0.5 s as far as the store allows, the second under 0.1 s,
// growing with the changes rather than with the store.

#include "SyncBenchRecords.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <string>

#include "host/PhoneStore.h"
#include "host/StoreSync.h"
#include "host/VFormatParsers.h"

namespace {

using namespace pc;
using namespace pc::bench;
namespace fs = std::filesystem;

constexpr int kContacts = 10000;
constexpr int kEvents = 10000;

void fill(SqliteEngine& store) {
  SqliteEngine::Transaction transaction(store);
  for (const SyncInput& input : syncRecords(kContacts, kEvents)) store.addRecord(input.identifier, input.record);
  transaction.commit();
}

void BM_StoreSyncFullPhone(benchmark::State& state) {
  const fs::path folder = fs::temp_directory_path() / ("bench-store-sync-" + std::to_string(::getpid()));
  const std::string base = kExamples + "devices/full-phone";
  StoreSyncRun run;
  run.phone.deviceDescription = readDictionary(base + ".plist");
  run.phone.entitiesDescription = readDictionary(base + ".entities.plist");
  run.phone.formatting.variables = readDictionary(base + ".variables.plist");
  run.phone.anchorDate = CalendarDate::dateWithYear(2026, 3, 1, 0, 0, 0);
  run.phone.phoneDirectory = (folder / "phone").string();
  run.clientIdentifier = "bench";
  // Argument 1: every record formatted again on each sync, as before the
  // incremental sync, for a comparison in the same run.
  run.formatEverything = state.range(0) == 1;

  // Wall time and the process's CPU time.
  using Clock = std::chrono::steady_clock;
  const auto cpuSeconds = processCpuSeconds;
  double cpuMark = 0;
  auto seconds = [&](Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
  };
  double first = 0, incremental = 0, firstCpu = 0, incrementalCpu = 0, peakFirst = 0, peak = 0;
  for (auto _ : state) {
    fs::remove_all(folder);
    fs::create_directories(folder);
    auto store = SqliteEngine::engineWithPath((folder / "store.db").string());
    fill(*store);
    Clock::time_point mark = Clock::now();
    cpuMark = cpuSeconds();
    StoreSyncResult result = StoreSync::run(*store, run);
    first += seconds(mark);
    firstCpu += cpuSeconds() - cpuMark;
    peakFirst = peakMegabytes();
    if (!result.error.empty()) state.SkipWithError(result.error.c_str());

    // 1% of the records changed on each side.
    PhoneStore phone(run.phone.phoneDirectory);
    usePhoneParsers(phone, run.phone.deviceDescription);
    auto contacts = phone.read("Contacts");
    for (std::size_t i = 0; contacts && i < contacts->records.size(); i += 100)
      contacts->records[i].fields.set("firstName", "Edited");
    if (contacts) phone.write(*contacts);
    for (int i = 50; i < kEvents; i += 100) {
      Dictionary event = *store->recordWithIdentifier("event-" + std::to_string(i));
      event.set("summary", "Moved meeting");
      store->addRecord("event-" + std::to_string(i), event);
    }
    mark = Clock::now();
    cpuMark = cpuSeconds();
    result = StoreSync::run(*store, run);
    incremental += seconds(mark);
    incrementalCpu += cpuSeconds() - cpuMark;
    peak = peakMegabytes();
    if (!result.error.empty()) state.SkipWithError(result.error.c_str());
  }
  fs::remove_all(folder);
  const double runs = static_cast<double>(state.iterations());
  state.counters["first_s"] = first / runs;
  state.counters["incremental_s"] = incremental / runs;
  state.counters["first_cpu_s"] = firstCpu / runs;
  state.counters["incremental_cpu_s"] = incrementalCpu / runs;
  state.counters["aim_first_s"] = 0.5;
  state.counters["aim_incremental_s"] = 0.1;
  state.counters["peak_MB_first"] = peakFirst;
  state.counters["peak_MB"] = peak;
}
BENCHMARK(BM_StoreSyncFullPhone)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
