// sync: one synchronisation of record files with a simulated phone whose
// store is a folder. The records go out (assembled, mangled, formatted,
// exploded where the phone cannot hold a recurrence), are written into the
// folder, read back and rebuilt; each record is reported with what the phone
// model did to it. Run again, it tells the entries changed on the phone from
// the losses the phone model causes.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "async/AYLogger.h"
#include "command_support.h"
#include "html_report.h"
#include "commands.h"
#include "store_sync.h"
#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/ReferenceSync.h"
#include "platform/TimeZone.h"
#include "platform/CalendarDate.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::tools {

namespace {

constexpr int kSomeRecordsRejected = 3;

// Progress on standard error, once a run has taken more than a second and
// only when standard error is a terminal.
class Progress {
 public:
  Progress() : _terminal(::isatty(STDERR_FILENO) == 1), _start(std::chrono::steady_clock::now()) {}
  ~Progress() {
    if (_shown) std::cerr << "\r\033[K" << std::flush;
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  void operator()(std::size_t done, std::size_t total) {
    if (!_terminal || done % 64 != 0) return;
    if (std::chrono::steady_clock::now() - _start < std::chrono::seconds(1)) return;
    std::cerr << "\rphoneconduit: sync: " << done << " of " << total << " records" << std::flush;
    _shown = true;
  }

 private:
  bool _terminal;
  bool _shown = false;
  std::chrono::steady_clock::time_point _start;
};

struct SyncOptions {
  std::string devicePath;
  std::string entitiesPath;
  std::string variablesPath;
  std::string clientValuesPath;
  std::string phoneDirectory;
  std::string anchorDate;
  std::vector<std::string> recordPaths;
  int version = 0;
  bool log = false;
  std::vector<std::string> report;
  StoreSyncOptions store;
};

std::string textReport(const SyncReport& report) {
  std::ostringstream out;
  for (const SyncRecordReport& record : report.records) {
    out << record.identifier << ": ";
    switch (record.outcome) {
      case SyncOutcome::sent: out << "sent as is"; break;
      case SyncOutcome::reduced: out << "reduced: " << syncFieldsText(record.fields); break;
      case SyncOutcome::exploded: out << "exploded into " << record.events << " events"; break;
      case SyncOutcome::rejected: out << "rejected: " << record.reason; break;
      case SyncOutcome::changedOnPhone:
        out << "changed on the phone: " << syncFieldsText(record.fields);
        break;
    }
    out << "\n";
  }
  const SyncSummary& s = report.summary;
  out << s.sent << " sent as is, " << s.reduced << " reduced, " << s.exploded << " exploded, "
      << s.rejected << " rejected, " << s.changedOnPhone << " changed on the phone; "
      << report.filesWritten.size() << (report.filesWritten.size() == 1 ? " file" : " files")
      << " written\n";
  return out.str();
}

Json jsonReport(const SyncReport& report) {
  const SyncSummary& s = report.summary;
  Json records = Json::array();
  for (const SyncRecordReport& record : report.records) {
    Json entry{{"identifier", record.identifier},
               {"entity", record.entity},
               {"outcome", syncOutcomeName(record.outcome)},
               {"fields", syncFieldsJson(record.fields)}};
    if (record.outcome == SyncOutcome::exploded) entry["events"] = record.events;
    if (record.outcome == SyncOutcome::rejected) entry["reason"] = record.reason;
    records.push_back(std::move(entry));
  }
  return Json{{"summary",
               {{"sent", s.sent},
                {"reduced", s.reduced},
                {"exploded", s.exploded},
                {"rejected", s.rejected},
                {"changedOnPhone", s.changedOnPhone}}},
              {"records", std::move(records)},
              {"written", report.filesWritten}};
}

// The page of --report html: each record with its engine form (the
// assembled record) beside its phone form (as it came back from the phone,
// else as the engine predicts it).
HtmlPage htmlPage(const SyncReport& report, const std::string& devicePath) {
  HtmlPage page{"Sync report", std::filesystem::path(devicePath).stem().string(), reportTimeNow(), {}};
  for (const SyncRecordReport& record : report.records) {
    HtmlRecord entry{record.identifier, record.entity, syncOutcomeName(record.outcome), {}, {}, record.assembled,
                     record.roundTrip ? record.roundTrip : record.prediction, {}};
    if (record.outcome == SyncOutcome::rejected) entry.detail = record.reason;
    if (record.outcome == SyncOutcome::exploded)
      entry.detail = "exploded into " + std::to_string(record.events) + " events";
    for (const SyncField& field : record.fields) entry.fields.emplace_back(field.field, field.limit);
    for (const SyncInput& single : record.singleEvents)
      entry.children.push_back({single.identifier, record.entity, "single event", {}, {}, std::nullopt,
                                single.record, {}});
    page.records.push_back(std::move(entry));
  }
  return page;
}

void writeFile(const std::string& path, const std::string& text) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  bool written = file && std::fwrite(text.data(), 1, text.size(), file) == text.size();
  if (file && std::fclose(file) != 0) written = false;
  if (!written) throw CommandError(path + ": cannot write the report");
}

void sync(SyncOptions options) {
  const ReportChoice report = reportChoice(options.report, options.recordPaths, "RECORDS",
                                           /*positionalsRequired=*/options.store.storePath.empty());
  SyncRun run;
  run.keepRecords = report.kind == "html";
  PhoneModelFiles model = readPhoneModel(options.devicePath, options.entitiesPath);
  run.deviceDescription = std::move(model.description);
  run.entitiesDescription = std::move(model.entities);
  run.anchorDate = anchorDateOption(options.anchorDate);
  std::error_code code;
  if (std::filesystem::exists(options.phoneDirectory, code) &&
      !std::filesystem::is_directory(options.phoneDirectory, code))
    throw CommandError(options.phoneDirectory + ": not a folder");
  run.phoneDirectory = options.phoneDirectory;
  run.formatting.version = options.version;
  if (!options.variablesPath.empty()) run.formatting.variables = readDictionary(options.variablesPath);
  if (!options.clientValuesPath.empty()) {
    // The values the phone reports live in the engine's client for this
    // phone, kept in the phone folder next to the store.
    const Dictionary values = readDictionary(options.clientValuesPath);
    std::filesystem::create_directories(options.phoneDirectory, code);
    run.formatting.clientStorePath =
        (std::filesystem::path(options.phoneDirectory) / "Client.plist").string();
    writeClientValues(values, run.formatting.clientIdentifier, run.formatting.clientStorePath);
  }

  if (!options.store.storePath.empty()) {
    if (!options.recordPaths.empty())
      throw CommandLineError("--store: the records are the store's; add record files with import");
    StoreSyncOptions storeOptions = options.store;
    storeOptions.log = options.log;
    if (report.kind == "html") throw CommandLineError("--report html: not available with --store");
    storeOptions.report = report.kind;
    syncWithStore(run, storeOptions);
    return;
  }
  if (options.recordPaths.empty())
    throw CommandLineError("RECORDS: record files, or a store with --store, are required");

  // Every record is read before the phone is touched.
  std::vector<SyncInput> inputs;
  std::map<std::string, std::string> seen;
  for (const std::string& path : options.recordPaths) {
    Dictionary record = recordFile(path).orFail();
    if (!record.get(kEngineRecordEntityNameKey).asString())
      throw CommandError(path + ": the record has no \"" + std::string(kEngineRecordEntityNameKey) +
                         "\" text");
    const std::string identifier = std::filesystem::path(path).stem().string();
    if (auto [it, added] = seen.emplace(identifier, path); !added)
      throw CommandError(path + ": names the same record as " + it->second);
    inputs.push_back({identifier, std::move(record)});
  }

  SyncResult result;
  {
    QuietDefaultLog quiet(options.log);
    Progress progress;
    run.progress = [&progress](std::size_t done, std::size_t total) { progress(done, total); };
    result = ReferenceSync::run(run, std::move(inputs));
  }
  if (!result.error.empty()) throw CommandError(result.error);

  for (const SyncRecordReport& record : result.report.records)
    if (record.outcome == SyncOutcome::rejected)
      std::cerr << "phoneconduit: " << record.identifier << ": rejected: " << record.reason << "\n";
  if (report.kind == "html") writeFile(report.htmlPath, htmlReport(htmlPage(result.report, options.devicePath)));
  std::cout << (report.kind == "json" ? jsonDocument(jsonReport(result.report)) : textReport(result.report))
            << std::flush;
  if (result.report.summary.rejected) throw CommandStatus(kSomeRecordsRejected);
}

}  // namespace

void addSyncCommands(CLI::App& app) {
  auto options = std::make_shared<SyncOptions>();
  CLI::App* command = app.add_subcommand(
      "sync", "Synchronise record files with a simulated phone kept in a folder, and report "
              "what the phone model did to each record");
  addPhoneModelOptions(command, options->devicePath, options->entitiesPath);
  command->add_option("--phone", options->phoneDirectory,
                      "the phone's folder: one store file per data class, created when missing")
      ->required();
  command->add_option("RECORDS", options->recordPaths,
                      "record files (nice plist text); each file's name is its record's identifier")
      ->check(CLI::ExistingFile);
  command->add_option("--store", options->store.storePath,
                      "a store file (see import): a two-way sync of its records with the phone, "
                      "from the state of the last sync")
      ->check(CLI::ExistingFile);
  command->add_option("--conflicts", options->store.conflicts,
                      "with --store: which side a field changed on both sides follows, engine "
                      "(default) or phone")
      ->check(CLI::IsMember({"engine", "phone"}));
  command->add_option("--first-sync", options->store.firstSync,
                      "with --store: what the first sync of a data class does with entries the "
                      "phone holds already: merge them (pairs by content), or replace one side "
                      "with the other: phone (its entries replace the store's records) or engine "
                      "(the store's records replace the phone's entries); default: the phone "
                      "folder's sync settings, else merge")
      ->check(CLI::IsMember({"merge", "phone", "engine"}));
  command->add_flag("--dry-run", options->store.dryRun,
                    "with --store: report what a sync would do, and write nothing");
  addVariablesOption(command, options->variablesPath);
  command->add_option("--client-values", options->clientValuesPath,
                      "values the phone keeps in its client, such as the limits a phone reports "
                      "(a property-list dictionary)")
      ->check(CLI::ExistingFile);
  command->add_option("--anchor-date", options->anchorDate,
                      "the day the window of exploded events is counted from (20261122); kept "
                      "in the phone's folder for later runs (default: the last Sunday)");
  addFormatVersionOption(command, options->version);
  addReportOption(command, options->report);
  command->add_flag("--log", options->log, "keep the conduit's own error log on standard error");
  command->footer(
      "Each record is reported as sent as is, reduced (each field, with the part of the "
      "description that removed it), exploded into N events, rejected (why), or changed on the "
      "phone (the phone's version is kept), then a summary line. A second run with nothing "
      "changed rewrites nothing. Exit status: 0 success, 1 bad input (a corrupt store file is "
      "named), 2 bad command line, 3 some records rejected. With --report html FILE the same "
      "report is also written as one page to open in a browser: each record's engine and phone "
      "forms side by side, a filter by outcome and a search box.\n\n"
      "Example:\n"
      "  phoneconduit sync --device examples/devices/full-phone.plist \\\n"
      "      --entities examples/devices/full-phone.entities.plist \\\n"
      "      --variables examples/devices/full-phone.variables.plist \\\n"
      "      --phone /tmp/phone examples/records/contacts/*.plist\n"
      "  phoneconduit sync --device examples/devices/flip-phone.plist \\\n"
      "      --entities examples/devices/flip-phone.entities.plist \\\n"
      "      --variables examples/devices/flip-phone.variables.plist \\\n"
      "      --phone /tmp/flip --report html /tmp/flip.html examples/records/calendar/*.plist\n\n"
      "With --store, entries added, changed or deleted on the phone are carried into the store "
      "(what the phone cannot hold stays), the store's changes reach the phone, and each is "
      "reported: added on the phone, changed on the phone (carried into the engine), deleted on "
      "the phone, deleted on the phone by the engine, conflict (field: engine value / phone "
      "value). A sync happens whole or not at all.\n"
      "  phoneconduit sync --store truth.db --device examples/devices/full-phone.plist \\\n"
      "      --entities examples/devices/full-phone.entities.plist --phone /tmp/phone\n"
      "A first sync with a phone that holds entries already, the store's records replacing "
      "them:\n"
      "  phoneconduit sync --store truth.db --device examples/devices/full-phone.plist \\\n"
      "      --entities examples/devices/full-phone.entities.plist --phone /tmp/phone \\\n"
      "      --first-sync engine\n");
  command->callback([options] { tools::sync(*options); });
}

}  // namespace pc::tools
