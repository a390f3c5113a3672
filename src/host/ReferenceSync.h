#pragma once
// One synchronisation between the engine's truth and a simulated phone whose
// store lives in a folder, on the reference host.
//
// Way out: the in-memory engine holds the records; each master record is
// assembled with its sub-records, mangled by its data class's helper,
// formatted by the phone's entity formatters (a recurring event the phone
// cannot hold is exploded into single events within the sync window) and
// written to the phone store, one file per data class. Way back: the store
// is read again and each record unmangled into engine records.
//
// Each record is reported: sent as it is, reduced (each field that did not
// come back as it went, with the part of the description that removed it),
// exploded into N events, rejected (why), or changed on the phone. A record
// the phone already holds is compared with the engine-side formatter's
// prediction: when they agree the record is unchanged on the phone; when
// they do not, the phone's version is kept and its changed fields listed.
//
//   SyncRun run{description, entities, {}, "phone-dir"};
//   SyncResult result = ReferenceSync::run(run, records);
//   if (!result.error.empty()) ...;             // nothing was written
//   for (const SyncRecordReport& r : result.report.records) ...

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/DeviceFormatting.h"
#include "host/PhoneStore.h"
#include "host/RecordAssembler.h"
#include "platform/CalendarDate.h"
#include "platform/Value.h"

namespace pc {

struct SyncRun {
  Dictionary deviceDescription;
  Dictionary entitiesDescription;  // with its "Entities" dictionary
  DeviceFormattingOptions formatting;
  std::string phoneDirectory;
  // The anchor of the sync window; kept in the phone folder's settings, so
  // that later runs use the same window. Without one: the stored anchor,
  // else the current one.
  std::optional<CalendarDate> anchorDate;
  // Called with (records done, records in all) as the run goes on.
  std::function<void(std::size_t, std::size_t)> progress;
  // Called when a stage ends: "truth" (the engine holds the records), "out"
  // (the phone store is written), "back" (the store is read and rebuilt).
  std::function<void(const char* stage)> stageDone;
  // Keep each record's assembled form, prediction, round trip and engine
  // records in the report (for checks); without it they are let go as soon
  // as the record is reported.
  bool keepRecords = false;
  // Phone entries to unmangle against the engine record they were made
  // from (engine identifier -> entries): each is unmangled with the holder
  // properties the mangling of that record left, and the result is kept in
  // SyncResult::unmangled under the entry's identifier.
  std::multimap<std::string, PhoneStoreRecord> unmangle;
};

// A record of the engine: its identifier and its assembled form (a record
// file's contents).
struct SyncInput {
  std::string identifier;
  Dictionary record;
};

enum class SyncOutcome { sent, reduced, exploded, rejected, changedOnPhone };
const char* syncOutcomeName(SyncOutcome outcome);

struct SyncField {
  std::string field;
  // The part of the device or entities description that removed or changed
  // the field ("Formatting/Contacts.Contact/notes: maxLength 40"); empty for
  // a change made on the phone.
  std::string limit;
};

struct SyncRecordReport {
  std::string identifier;
  std::string entity;
  SyncOutcome outcome = SyncOutcome::sent;
  std::vector<SyncField> fields;
  std::size_t events = 0;  // exploded into
  std::string reason;      // rejected
  // The engine's assembled record, the engine-side prediction and the record
  // back from the phone (unmangled, assembled), when there are such; and the
  // engine records the way back split it into.
  std::optional<Dictionary> assembled;
  std::optional<Dictionary> prediction;
  std::optional<Dictionary> roundTrip;
  std::optional<SplitRecord> engineRecords;
  // An exploded event's single events as the phone gets them (identifier
  // and formatted record), when the caller keeps the records.
  std::vector<SyncInput> singleEvents;
};

struct SyncSummary {
  std::size_t sent = 0;
  std::size_t reduced = 0;
  std::size_t exploded = 0;
  std::size_t rejected = 0;
  std::size_t changedOnPhone = 0;
};

struct SyncReport {
  SyncSummary summary;
  std::vector<SyncRecordReport> records;
  std::vector<std::string> filesWritten;  // store files this run rewrote
};

struct SyncResult {
  // Empty on success; otherwise what stopped the run before anything was
  // written (an unusable description, a store file that does not read).
  std::string error;
  SyncReport report;
  // The phone entries of SyncRun::unmangle, in the engine's form.
  std::map<std::string, Dictionary> unmangled;
};

class ReferenceSync {
 public:
  static SyncResult run(const SyncRun& run, const std::vector<SyncInput>& records);
  // The same with the records handed over: each is let go as soon as the
  // engine's truth holds it, so a large sync does not keep two copies.
  static SyncResult run(const SyncRun& run, std::vector<SyncInput>&& records);

  // Keys that differ between two records (entity names aside); a relation's
  // sub-records count as one field.
  static std::vector<std::string> differingFields(const Dictionary& a, const Dictionary& b);
  // The fields in which a record back from the phone differs from the
  // prediction, leaving out those it holds as the engine's record does:
  // unmangling restores from the engine's record what the phone cannot hold
  // (alarms, exception dates, date-only forms), which the prediction shows
  // reduced. A change made on the phone differs from both.
  static std::vector<std::string> changedFields(const Dictionary& prediction,
                                                const Dictionary& back,
                                                const Dictionary& engineRecord);

 private:
  // `owned`: the records may be emptied as they go into the truth.
  static SyncResult runWith(const SyncRun& run, const std::vector<SyncInput>& records,
                            std::vector<SyncInput>* owned);
};

}  // namespace pc
