// Records formatted per second by the path of `phoneconduit format`, on the
// full-featured example phone, for contacts and for events and tasks; and
// the time to build one phone from its description and the memory it holds
// (its conduit, formatters, field formatters and helpers). The summary
// prints each rate beside its aim.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/MemoryEngine.h"
#include "host/DeviceFormatting.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace {

using namespace pc;

const std::string kExamples = std::string(PC_DATA_DIR) + "/../examples/";

Dictionary readDictionary(const std::string& path) {
  auto value = PropertyList::fromFile(path);
  return value && value->isDictionary() ? value->dictionary() : Dictionary();
}

struct Phone {
  Dictionary description;
  Dictionary entities;
  DeviceFormattingOptions options;
};

Phone fullPhone() {
  const std::string base = kExamples + "devices/full-phone";
  Phone phone{readDictionary(base + ".plist"), readDictionary(base + ".entities.plist"), {}};
  phone.options.variables = readDictionary(base + ".variables.plist");
  return phone;
}

std::vector<Dictionary> records(const std::string& folder) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(kExamples + "records/" + folder))
    paths.push_back(entry.path().string());
  std::sort(paths.begin(), paths.end());
  std::vector<Dictionary> loaded;
  for (const std::string& path : paths)
    if (auto record = readRecordFile(path)) loaded.push_back(*record);
  return loaded;
}

void formatAll(benchmark::State& state, const std::vector<Dictionary>& inputs, bool engineSide) {
  const Phone example = fullPhone();
  auto phone = DeviceFormatting::phoneSide(example.description, example.entities, example.options);
  if (!phone) {
    state.SkipWithError("the full-featured phone does not build");
    return;
  }
  if (engineSide) phone = phone->engineSide();
  if (inputs.empty() || !phone) {
    state.SkipWithError("no records or no engine side");
    return;
  }
  std::size_t next = 0;
  for (auto _ : state) {
    FormattingOutcome outcome = phone->formatRecord(inputs[next]);
    benchmark::DoNotOptimize(outcome);
    next = (next + 1) % inputs.size();
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_FormatContacts(benchmark::State& state) {
  static const std::vector<Dictionary> contacts = records("contacts");
  formatAll(state, contacts, state.range(0) != 0);
}
BENCHMARK(BM_FormatContacts)->ArgName("engineSide")->Arg(0)->Arg(1);

// Contacts without their photos: the formatting itself, without the photo
// reduction that dominates the contacts that carry a large photo.
void BM_FormatContactsWithoutPhotos(benchmark::State& state) {
  static const std::vector<Dictionary> contacts = [] {
    std::vector<Dictionary> withoutPhotos;
    for (const Dictionary& contact : records("contacts")) {
      Dictionary copy = contact.deepCopy();
      copy.remove("image");
      withoutPhotos.push_back(copy);
    }
    return withoutPhotos;
  }();
  formatAll(state, contacts, false);
}
BENCHMARK(BM_FormatContactsWithoutPhotos);

void BM_FormatEventsAndTasks(benchmark::State& state) {
  static const std::vector<Dictionary> events = records("calendar");
  formatAll(state, events, state.range(0) != 0);
}
BENCHMARK(BM_FormatEventsAndTasks)->ArgName("engineSide")->Arg(0)->Arg(1);

// Heap held per built phone: phones are built and kept, and the growth of
// the heap in use is divided by their number.
void BM_MemoryPerBuiltPhone(benchmark::State& state) {
  const Phone example = fullPhone();
  const auto count = static_cast<std::size_t>(state.range(0));
  double bytesPerPhone = 0, secondsPerPhone = 0;
  for (auto _ : state) {
    std::vector<std::unique_ptr<DeviceFormatting>> phones;
    phones.reserve(count);
    const std::size_t before = mallinfo2().uordblks;
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < count; ++i)
      phones.push_back(DeviceFormatting::phoneSide(example.description, example.entities, example.options));
    const auto end = std::chrono::steady_clock::now();
    const std::size_t after = mallinfo2().uordblks;
    bytesPerPhone = static_cast<double>(after - before) / static_cast<double>(count);
    secondsPerPhone = std::chrono::duration<double>(end - start).count() / static_cast<double>(count);
  }
  state.counters["bytes_per_phone"] = bytesPerPhone;
  state.counters["ms_per_phone"] = secondsPerPhone * 1000.0;
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * count));
}
BENCHMARK(BM_MemoryPerBuiltPhone)->Arg(20)->Iterations(1)->Unit(benchmark::kMillisecond);

// Prints the formatting rates (CPU time) beside their aims.
class AimsReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    // With repetitions, the medians stand for the benchmark.
    for (const Run& run : runs) {
      if (run.error_occurred || run.iterations == 0) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      const double seconds = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      if (seconds > 0) _rate[run.run_name.str()] = 1.0 / seconds;
      if (auto it = run.counters.find("ms_per_phone"); it != run.counters.end())
        _phone = {it->second.value, run.counters.at("bytes_per_phone").value};
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nFormatting on the full phone, records per CPU second:\n");
    aim("contacts", "BM_FormatContacts/engineSide:0", 150000);
    aim("contacts, engine side", "BM_FormatContacts/engineSide:1", 150000);
    aim("events and tasks", "BM_FormatEventsAndTasks/engineSide:0", 300000);
    aim("events and tasks, engine side", "BM_FormatEventsAndTasks/engineSide:1", 300000);
    if (_phone.first > 0)
      std::printf("Building one phone: %.2f ms, %.0f bytes held\n", _phone.first, _phone.second);
  }

 private:
  void aim(const char* what, const std::string& name, double atLeast) {
    auto it = _rate.find(name);
    if (it == _rate.end()) return;
    std::printf("  %-30s %9.0f/s  (aim: at least %.0f/s) %s\n", what, it->second, atLeast,
                it->second >= atLeast ? "met" : "MISSED");
  }
  std::map<std::string, double> _rate;
  std::pair<double, double> _phone{0, 0};
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  AimsReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
