// The two-way sync of a store of 10,000 contacts and 10,000 events with the
// full-featured example phone: the first sync, then a sync after 1% of the
// records changed on each side. Wall time and peak memory of each. Aim: the
// first under 2 s and 300 MB, the second under 0.2 s, growing with the
// changes rather than with the store.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "host/PhoneStore.h"
#include "host/StoreSync.h"
#include "host/VFormatParsers.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"

namespace {

using namespace pc;
namespace fs = std::filesystem;

const std::string kExamples = std::string(PC_DATA_DIR) + "/../examples/";
constexpr int kContacts = 10000;
constexpr int kEvents = 10000;

Dictionary readDictionary(const std::string& path) {
  auto value = PropertyList::fromFile(path);
  return value && value->isDictionary() ? value->dictionary() : Dictionary();
}

double peakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void fill(SqliteEngine& store) {
  SqliteEngine::Transaction transaction(store);
  for (int i = 0; i < kContacts; ++i) {
    const std::string n = std::to_string(i);
    store.addRecord("contact-" + n,
                    Dictionary{{"entityName", "Contacts.Contact"},
                               {"firstName", "Person"},
                               {"lastName", "Number " + n},
                               {"companyName", "Velmora Systems"},
                               {"notes", "Met at the conference in Lyon, table " + n + "."},
                               {"phoneNumbers", Array{Dictionary{{"entityName", "Contacts.PhoneNumber"},
                                                                 {"value", "+33 1 43 55 " + n},
                                                                 {"type", "mobile"}}}}});
  }
  const TimeZonePtr zone = TimeZone::timeZoneWithName("Europe/Paris");
  for (int i = 0; i < kEvents; ++i) {
    const std::string n = std::to_string(i);
    const CalendarDate start = CalendarDate::dateWithYear(2026, 1 + i % 12, 1 + i % 28, 8 + i % 10, 0, 0, zone);
    store.addRecord("event-" + n, Dictionary{{"entityName", "Calendars.Event"},
                                             {"summary", "Meeting " + n},
                                             {"startDate", Value(start)},
                                             {"endDate", Value(start.dateByAddingYears(0, 0, 0, 1, 0, 0))},
                                             {"allDay", false}});
  }
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

  using Clock = std::chrono::steady_clock;
  auto seconds = [](Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
  };
  double first = 0, incremental = 0, peakFirst = 0, peak = 0;
  for (auto _ : state) {
    fs::remove_all(folder);
    fs::create_directories(folder);
    auto store = SqliteEngine::engineWithPath((folder / "store.db").string());
    fill(*store);
    Clock::time_point mark = Clock::now();
    StoreSyncResult result = StoreSync::run(*store, run);
    first += seconds(mark);
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
    result = StoreSync::run(*store, run);
    incremental += seconds(mark);
    peak = peakMegabytes();
    if (!result.error.empty()) state.SkipWithError(result.error.c_str());
  }
  fs::remove_all(folder);
  const double runs = static_cast<double>(state.iterations());
  state.counters["first_s"] = first / runs;
  state.counters["incremental_s"] = incremental / runs;
  state.counters["peak_MB_first"] = peakFirst;
  state.counters["peak_MB"] = peak;
}
BENCHMARK(BM_StoreSyncFullPhone)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
