// sync --store: a two-way synchronisation of the engine's store with a phone
// folder, reported record by record.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>

#include "command_support.h"
#include "commands.h"
#include "engine/SqliteEngine.h"
#include "host/StoreSync.h"
#include "store_sync.h"

namespace pc::tools {

namespace {

constexpr int kSomeRecordsRejected = 3;

std::string textReport(const StoreSyncResult& result, bool dryRun) {
  std::ostringstream out;
  for (const StoreSyncRecord& record : result.records) {
    out << record.identifier << ": ";
    switch (record.outcome) {
      case StoreSyncOutcome::sent: out << "sent as is"; break;
      case StoreSyncOutcome::reduced: out << "reduced: " << syncFieldsText(record.fields); break;
      case StoreSyncOutcome::exploded: out << "exploded into " << record.events << " events"; break;
      case StoreSyncOutcome::rejected: out << "rejected: " << record.reason; break;
      case StoreSyncOutcome::addedOnPhone: out << "added on the phone"; break;
      case StoreSyncOutcome::changedOnPhone:
        out << "changed on the phone (carried into the engine): " << syncFieldsText(record.fields);
        break;
      case StoreSyncOutcome::keptOnPhone:
        out << "changed on the phone (kept there: " << record.reason << ")";
        break;
      case StoreSyncOutcome::deletedOnPhone: out << "deleted on the phone"; break;
      case StoreSyncOutcome::deletedByEngine: out << "deleted on the phone by the engine"; break;
      case StoreSyncOutcome::conflict: {
        bool first = true;
        for (const SyncConflict& conflict : record.conflicts) {
          out << (first ? "" : "; ") << "conflict (" << conflict.field << ": "
              << conflict.engineValue << " / " << conflict.phoneValue << ")";
          first = false;
        }
        if (!record.fields.empty()) out << "; changed on the phone: " << syncFieldsText(record.fields);
        break;
      }
    }
    out << "\n";
  }
  const StoreSyncSummary& s = result.summary;
  out << s.sent << " sent as is, " << s.reduced << " reduced, " << s.exploded << " exploded, "
      << s.rejected << " rejected, " << s.addedOnPhone << " added on the phone, "
      << s.changedOnPhone << " changed on the phone, " << s.deletedOnPhone
      << " deleted on the phone, " << s.deletedByEngine << " deleted on the phone by the engine, "
      << s.conflicts << (s.conflicts == 1 ? " conflict, " : " conflicts, ") << s.unchanged
      << " unchanged; " << result.filesWritten.size()
      << (result.filesWritten.size() == 1 ? " file" : " files") << " written"
      << (dryRun ? " (dry run: nothing was written)" : "") << "\n";
  return out.str();
}

Json jsonReport(const StoreSyncResult& result, bool dryRun) {
  const StoreSyncSummary& s = result.summary;
  Json records = Json::array();
  for (const StoreSyncRecord& record : result.records) {
    Json entry{{"identifier", record.identifier},
               {"entity", record.entity},
               {"outcome", storeSyncOutcomeName(record.outcome)},
               {"fields", syncFieldsJson(record.fields)}};
    if (!record.conflicts.empty()) {
      Json conflicts = Json::array();
      for (const SyncConflict& conflict : record.conflicts)
        conflicts.push_back(
            Json{{"field", conflict.field}, {"engine", conflict.engineValue}, {"phone", conflict.phoneValue}});
      entry["conflicts"] = std::move(conflicts);
    }
    if (record.outcome == StoreSyncOutcome::exploded) entry["events"] = record.events;
    if (!record.reason.empty()) entry["reason"] = record.reason;
    records.push_back(std::move(entry));
  }
  return Json{{"summary",
               {{"sent", s.sent},
                {"reduced", s.reduced},
                {"exploded", s.exploded},
                {"rejected", s.rejected},
                {"addedOnPhone", s.addedOnPhone},
                {"changedOnPhone", s.changedOnPhone},
                {"keptOnPhone", s.keptOnPhone},
                {"deletedOnPhone", s.deletedOnPhone},
                {"deletedByEngine", s.deletedByEngine},
                {"conflicts", s.conflicts},
                {"unchanged", s.unchanged}}},
              {"dryRun", dryRun},
              {"records", std::move(records)},
              {"written", result.filesWritten}};
}

}  // namespace

void syncWithStore(const SyncRun& phoneRun, const StoreSyncOptions& options) {
  std::string error;
  std::shared_ptr<SqliteEngine> store = SqliteEngine::engineWithPath(options.storePath, &error, false);
  if (!store) throw CommandError(error);

  StoreSyncRun run;
  run.phone = phoneRun;
  // A phone is known by its folder.
  std::error_code code;
  run.clientIdentifier = std::filesystem::weakly_canonical(phoneRun.phoneDirectory, code).string();
  if (code) run.clientIdentifier = phoneRun.phoneDirectory;
  run.conflicts = options.conflicts == "phone" ? ConflictPolicy::phone : ConflictPolicy::engine;
  run.dryRun = options.dryRun;
  if (options.firstSync == "merge") run.firstSyncMode = FirstSyncMode::merge;
  else if (options.firstSync == "phone") run.firstSyncMode = FirstSyncMode::phoneReplacesEngine;
  else if (options.firstSync == "engine") run.firstSyncMode = FirstSyncMode::engineReplacesPhone;
  // The tests of interrupted runs end the process at a named step, as a
  // crash or a kill would, with nothing cleaned up.
  if (const char* stop = std::getenv("PHONECONDUIT_STOP_AT"); stop && *stop) {
    const std::string step = stop;
    run.beforeStep = [step](std::string_view name) {
      if (name == step) std::_Exit(137);
    };
  }

  StoreSyncResult result;
  {
    QuietDefaultLog quiet(options.log);
    result = StoreSync::run(*store, run);
  }
  if (!result.error.empty()) throw CommandError(result.error);
  for (const StoreSyncRecord& record : result.records)
    if (record.outcome == StoreSyncOutcome::rejected)
      std::cerr << "phoneconduit: " << record.identifier << ": rejected: " << record.reason << "\n";
  std::cout << (options.report == "json" ? jsonDocument(jsonReport(result, options.dryRun))
                                         : textReport(result, options.dryRun))
            << std::flush;
  if (result.summary.rejected) throw CommandStatus(kSomeRecordsRejected);
}

}  // namespace pc::tools
