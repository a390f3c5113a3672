// A user's contacts file of 10,000 cards read into engine records, as
// import does (entries per second; aim: 50,000 at least), and the same
// records written back as export does. The cards are the example contacts in
// turn, written as vCard 3.0 with their grouped labels: once with their
// photos (a fifth of them hold one of about 100 kB, so decoding base64 is
// most of the work) and once without.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "host/UserFiles.h"
#include "util/PHCMangling.h"

namespace {

using namespace pc;

constexpr std::size_t kEntries = 10000;
constexpr double kAimEntriesPerSecond = 50000;
const std::string kExamples = std::string(PC_DATA_DIR) + "/../examples/records/contacts";

using Records = std::vector<std::pair<std::string, Dictionary>>;

const Records& contacts() {
  static const Records records = [] {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(kExamples)) paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    std::vector<Dictionary> examples;
    for (const std::string& path : paths)
      if (std::optional<Dictionary> record = readRecordFile(path)) examples.push_back(*record);
    std::vector<std::pair<std::string, Dictionary>> out;
    for (std::size_t i = 0; i < kEntries && !examples.empty(); ++i)
      out.emplace_back("contact-" + std::to_string(i + 1), examples[i % examples.size()]);
    return out;
  }();
  return records;
}

const Records& contactsWithoutPhotos() {
  static const Records records = [] {
    Records out = contacts();
    for (auto& [identifier, record] : out) {
      record = record.copy();
      record.remove("image");
    }
    return out;
  }();
  return records;
}

const std::string& contactsFile() {
  static const std::string text = exportVCardText(contacts());
  return text;
}

const std::string& contactsFileWithoutPhotos() {
  static const std::string text = exportVCardText(contactsWithoutPhotos());
  return text;
}

void count(benchmark::State& state, const std::string& file) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.size()));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kEntries));
}

void importFile(benchmark::State& state, const std::string& file) {
  std::size_t records = 0;
  for (auto _ : state) records = importVCardText(file, "contacts.vcf").records.size();
  if (records != kEntries) state.SkipWithError("not every card was imported");
  count(state, file);
}

void BM_ImportContacts(benchmark::State& state) { importFile(state, contactsFile()); }
void BM_ImportContactsWithoutPhotos(benchmark::State& state) { importFile(state, contactsFileWithoutPhotos()); }

void BM_ExportContacts(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(exportVCardText(contacts()));
  count(state, contactsFile());
}

BENCHMARK(BM_ImportContacts)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImportContactsWithoutPhotos)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExportContacts)->Unit(benchmark::kMillisecond);

// Entries per second of the import, in CPU time (the machine is shared),
// beside the aim.
class AimReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred) _seconds[run.benchmark_name()] = run.GetAdjustedCPUTime() / 1000.0;  // ms per run
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    print("BM_ImportContacts", "with their photos", contactsFile());
    print("BM_ImportContactsWithoutPhotos", "without photos", contactsFileWithoutPhotos());
  }

 private:
  void print(const std::string& name, const char* what, const std::string& file) {
    const double seconds = _seconds[name];
    if (seconds <= 0) return;
    const double rate = static_cast<double>(kEntries) / seconds;
    std::printf("Importing %zu contacts %s (%.1f MB of vCard 3.0): %.0f entries/s (aim: %.0f)%s\n", kEntries, what,
                static_cast<double>(file.size()) / 1e6, rate, kAimEntriesPerSecond,
                rate < kAimEntriesPerSecond ? "  (below the aim)" : "");
  }
  std::map<std::string, double> _seconds;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  AimReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
