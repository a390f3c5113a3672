#pragma once
// A two-way synchronisation between the engine's truth in a store file and a
// simulated phone whose store is a folder, from the state the last sync left
// in the store (what each phone entry was, on both sides, when it was last
// written).
//
//  - Entries changed on the phone since then are carried into the engine's
//    record: only the fields the phone changed are written, so what the phone
//    cannot hold (fields it does not sync, sub-records beyond its limits, the
//    full photo, the untruncated text) stays as it is.
//  - Entries added on the phone become engine records; entries deleted on
//    the phone delete their engine record.
//  - A field changed on both sides is a conflict, settled by the policy and
//    always reported with both values.
//  - Then every engine record is formatted for the phone as a one-way sync
//    would (ReferenceSync), and the phone is given what changed.
//  - The first sync of a data class with a phone that holds entries already
//    pairs them with engine records by content (names and numbers for
//    contacts, summary and start for events), so nothing is duplicated.
//
// Everything is read and checked before anything is written. The store's
// writes go in one transaction that is committed only after the phone's
// files are written, so a failure at any point leaves the store as it was;
// a run after an interrupted one finds the phone ahead of the store and
// ends in the state an uninterrupted run would have left.
//
//   StoreSyncRun run{formatting, "phone-1"};
//   StoreSyncResult result = StoreSync::run(*store, run);

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/SqliteEngine.h"
#include "host/ReferenceSync.h"

namespace pc {

enum class ConflictPolicy { engine, phone };

// What the first sync of a data class does with a phone that holds entries
// already, as the sync settings' "calendarsModeOfFirstSync" and
// "contactsModeOfFirstSync" number it.
enum class FirstSyncMode {
  merge = 0,                // entries paired by content; the rest added on both sides
  phoneReplacesEngine = 1,  // engine records the phone does not hold are deleted
  engineReplacesPhone = 2,  // phone entries the engine does not hold are deleted
};
// "merge", "phone" or "engine" (the side that replaces the other).
const char* firstSyncModeName(FirstSyncMode mode);

struct StoreSyncRun {
  // The phone: its descriptions, formatting options, folder and window.
  SyncRun phone;
  // The engine client the phone's state is kept under.
  std::string clientIdentifier;
  ConflictPolicy conflicts = ConflictPolicy::engine;
  // The mode of a data class's first sync; without one, the phone folder's
  // sync settings say (merge when they do not).
  std::optional<FirstSyncMode> firstSyncMode;
  // Everything is worked out and reported; nothing is written.
  bool dryRun = false;
  // Formats every engine record again, as a first sync does, rather than
  // only those that changed since the last sync. For checks.
  bool formatEverything = false;
  // Called before each write step ("engine", "state", "phone", "commit"); a
  // hook that throws stops the run there, as a crash would. For tests.
  std::function<void(std::string_view step)> beforeStep;
};

enum class StoreSyncOutcome {
  sent,             // written to the phone as it is
  reduced,          // written to the phone, some fields reduced
  exploded,         // written as single events
  rejected,         // the phone cannot hold it
  addedOnPhone,     // a new engine record
  changedOnPhone,   // carried into the engine
  keptOnPhone,      // changed on the phone where it cannot be carried back
  deletedOnPhone,   // the engine record is deleted
  deletedByEngine,  // the phone's entry is deleted
  conflict,         // changed on both sides
};
const char* storeSyncOutcomeName(StoreSyncOutcome outcome);

struct SyncConflict {
  std::string field;
  std::string engineValue;
  std::string phoneValue;
};

struct StoreSyncRecord {
  std::string identifier;  // the engine's, or the phone's for a phone entry
  std::string entity;
  StoreSyncOutcome outcome = StoreSyncOutcome::sent;
  std::vector<SyncField> fields;
  std::vector<SyncConflict> conflicts;
  std::size_t events = 0;
  std::string reason;
};

struct StoreSyncSummary {
  std::size_t sent = 0, reduced = 0, exploded = 0, rejected = 0;
  std::size_t addedOnPhone = 0, changedOnPhone = 0, keptOnPhone = 0, deletedOnPhone = 0,
              deletedByEngine = 0, conflicts = 0;
  std::size_t unchanged = 0;  // records neither side changed
};

struct StoreSyncResult {
  std::string error;  // empty on success; nothing was written otherwise
  StoreSyncSummary summary;
  std::vector<StoreSyncRecord> records;
  std::vector<std::string> filesWritten;  // phone files this run rewrote
  bool storeChanged = false;              // the store's records or state changed
};

class StoreSync {
 public:
  static StoreSyncResult run(SqliteEngine& store, const StoreSyncRun& run);
};

}  // namespace pc
