// Contacts per second through the contacts helper of an example phone: each
// contact mangled, formatted by the phone's entity formatters (the helper is
// their delegate) and unmangled as it comes back, on the basic phone (7-bit
// text, mapped number types, a company folded into the first name) and on
// the full-featured one (photos reduced, URLs given a scheme, e-mail checked),
// with the example contacts' photos and without them. The summary prints the
// basic phone's rate against the full one's (aim: no slower).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/SchemaNames.h"
#include "host/DeviceFormatting.h"
#include "formatting/EntityFormatter.h"
#include "platform/HostInterfaces.h"
#include "platform/PropertyList.h"
#include "transformers/QVTSyncContactTransformer.h"
#include "util/PHCMangling.h"

namespace {

using namespace pc;

const std::string kExamples = std::string(PC_DATA_DIR) + "/../examples/";

Dictionary readDictionary(const std::string& path) {
  auto value = PropertyList::fromFile(path);
  return value && value->isDictionary() ? value->dictionary() : Dictionary();
}

std::unique_ptr<DeviceFormatting> examplePhone(const std::string& name) {
  const std::string base = kExamples + "devices/" + name;
  DeviceFormattingOptions options;
  if (std::filesystem::exists(base + ".variables.plist"))
    options.variables = readDictionary(base + ".variables.plist");
  return DeviceFormatting::phoneSide(readDictionary(base + ".plist"),
                                     readDictionary(base + ".entities.plist"), options);
}

// The example contacts; without photos when `photos` is false.
std::vector<Dictionary> contacts(bool photos) {
  std::vector<std::string> paths;
  for (const auto& entry : std::filesystem::directory_iterator(kExamples + "records/contacts"))
    paths.push_back(entry.path().string());
  std::sort(paths.begin(), paths.end());
  std::vector<Dictionary> loaded;
  for (const std::string& path : paths) {
    std::optional<Dictionary> record = readRecordFile(path);
    if (!record) continue;
    if (!photos) record->remove("image");
    if (!photos || record->contains("image")) loaded.push_back(*record);
  }
  return loaded;
}

// range(0): 0 basic phone, 1 full-featured phone; range(1): with photos.
void BM_ContactsThroughTheTransformer(benchmark::State& state) {
  const bool full = state.range(0) != 0;
  const std::vector<Dictionary> inputs = contacts(state.range(1) != 0);
  auto phone = examplePhone(full ? "full-phone" : "basic-phone");
  auto formatter = phone ? phone->formatterForEntity(kContactsContact) : nullptr;
  auto helper = formatter ? std::dynamic_pointer_cast<QVTSyncContactTransformer>(formatter->helper())
                          : nullptr;
  if (!helper || inputs.empty()) {
    state.SkipWithError("the example phone or contacts are missing");
    return;
  }
  std::size_t next = 0;
  for (auto _ : state) {
    RecordHolder holder(inputs[next]);
    helper->mangleRecordBeforePushingToDevice(holder);
    FormattingOutcome outcome = phone->formatRecord(holder.mutableDictionary());
    if (outcome.record) {
      RecordHolder back(*outcome.record);
      helper->unmangleRecordAfterReadingFromDevice(back);
      benchmark::DoNotOptimize(back.mutableDictionary());
    }
    next = (next + 1) % inputs.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ContactsThroughTheTransformer)
    ->ArgNames({"fullPhone", "photos"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1});

// Prints the basic phone's rate against the full phone's (CPU time).
class AimsReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    // With repetitions, the medians stand for the benchmark.
    for (const Run& run : runs) {
      if (run.error_occurred || run.iterations == 0) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      _time[run.run_name.str()] = run.GetAdjustedCPUTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const char* photos : {"0", "1"}) {
      const std::string suffix = std::string("/photos:") + photos;
      const double basic = _time["BM_ContactsThroughTheTransformer/fullPhone:0" + suffix];
      const double full = _time["BM_ContactsThroughTheTransformer/fullPhone:1" + suffix];
      if (basic <= 0 || full <= 0) continue;
      std::printf("\nContacts %s photos: basic phone %.0f/s, full phone %.0f/s; basic / full "
                  "rate %.2f (aim: at least 1, the basic phone no slower) %s\n",
                  photos[0] == '1' ? "with" : "without", 1e9 / basic, 1e9 / full, full / basic,
                  full / basic >= 1 ? "met" : "MISSED");
    }
  }

 private:
  std::map<std::string, double> _time;
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
