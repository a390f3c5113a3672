#include "host/StoreSync.h"

#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "engine/SchemaNames.h"
#include "host/PhoneStore.h"
#include "conduit/SyncSettings.h"
#include "host/VFormatParsers.h"
#include "platform/Exception.h"
#include "platform/FileIO.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"

namespace pc {

namespace fs = std::filesystem;

const char* storeSyncOutcomeName(StoreSyncOutcome outcome) {
  switch (outcome) {
    case StoreSyncOutcome::sent: return "sent";
    case StoreSyncOutcome::reduced: return "reduced";
    case StoreSyncOutcome::exploded: return "exploded";
    case StoreSyncOutcome::rejected: return "rejected";
    case StoreSyncOutcome::addedOnPhone: return "addedOnPhone";
    case StoreSyncOutcome::changedOnPhone: return "changedOnPhone";
    case StoreSyncOutcome::keptOnPhone: return "keptOnPhone";
    case StoreSyncOutcome::deletedOnPhone: return "deletedOnPhone";
    case StoreSyncOutcome::deletedByEngine: return "deletedByEngine";
    case StoreSyncOutcome::conflict: return "conflict";
  }
  return "sent";
}

const char* firstSyncModeName(FirstSyncMode mode) {
  switch (mode) {
    case FirstSyncMode::merge: return "merge";
    case FirstSyncMode::phoneReplacesEngine: return "phone";
    case FirstSyncMode::engineReplacesPhone: return "engine";
  }
  return "merge";
}

namespace {

constexpr const char* kSettingsFileName = "SyncSettings.plist";

std::string fileText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A temporary folder, removed with everything in it when it goes.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "phoneconduit-sync-XXXXXX").string();
    if (mkdtemp(pattern.data())) _path = pattern;
  }
  ~TemporaryFolder() {
    std::error_code code;
    if (!_path.empty()) fs::remove_all(_path, code);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const fs::path& path() const { return _path; }

 private:
  fs::path _path;
};

// What the phone is to hold after this run, as the one-way sync formats the
// engine's records: the entries of each data class, in order, and the
// report of each record.
struct Formatted {
  std::map<std::string, std::vector<PhoneStoreRecord>> entries;  // data class -> entries
  SyncReport report;
  std::string settingsText;  // the sync settings the run left
  std::map<std::string, Dictionary> unmangled;  // phone entries asked for, in the engine's form
};

// Formats the engine's records of the data classes, or only those named in
// `only` when it is given: a record's phone form depends on the record, the
// phone and the window alone, so a subset formats as it would among all.
bool formatAll(const StoreSyncRun& run, const SqliteEngine& store,
               const std::vector<std::string>& dataClasses, Formatted& out, std::string& error,
               std::multimap<std::string, PhoneStoreRecord> unmangle = {},
               const std::set<std::string>* only = nullptr) {
  TemporaryFolder folder;
  if (folder.path().empty()) {
    error = "cannot make a temporary folder";
    return false;
  }
  // The window the phone's folder keeps is the one used.
  const fs::path settings = fs::path(run.phone.phoneDirectory) / kSettingsFileName;
  std::error_code code;
  if (fs::exists(settings, code)) fs::copy_file(settings, folder.path() / kSettingsFileName, code);

  std::vector<SyncInput> inputs;
  if (only) {
    for (const std::string& identifier : *only) {
      std::optional<Dictionary> record = store.recordWithIdentifier(identifier);
      if (!record) {
        error = store.path() + ": records/" + identifier + ": the record does not read";
        return false;
      }
      inputs.push_back({identifier, std::move(*record)});
    }
  } else {
    for (const std::string& dataClass : dataClasses)
      for (const Value& identifier : store.recordIdentifiersForDataClassName(dataClass))
        if (auto record = store.recordWithIdentifier(identifier.string()))
          inputs.push_back({identifier.string(), std::move(*record)});
  }

  SyncRun formatting = run.phone;
  formatting.phoneDirectory = folder.path().string();
  formatting.stageDone = nullptr;
  formatting.keepRecords = false;
  formatting.unmangle = std::move(unmangle);
  SyncResult result = ReferenceSync::run(formatting, std::move(inputs));
  if (!result.error.empty()) {
    error = result.error;
    return false;
  }
  PhoneStore formatted(folder.path().string());
  usePhoneParsers(formatted, formatting.deviceDescription);
  for (const std::string& dataClass : dataClasses) {
    std::optional<PhoneStoreContents> contents = formatted.read(dataClass, &error);
    if (!contents) return false;
    out.entries[dataClass] = std::move(contents->records);
  }
  out.report = std::move(result.report);
  out.unmangled = std::move(result.unmangled);
  out.settingsText = fileText(folder.path() / kSettingsFileName);
  return true;
}

// The keys (top level) in which two forms of an entry differ.
std::vector<std::string> changedKeys(const Dictionary& before, const Dictionary& after) {
  std::vector<std::string> keys;
  for (const std::string& field : ReferenceSync::differingFields(before, after)) {
    const std::string key = field.substr(0, field.find('/'));
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
  }
  return keys;
}

bool sameValue(const Value* a, const Value* b) {
  if (!a || a->isNull()) return !b || b->isNull();
  return b && *a == *b;
}

std::string shownValue(const Value* value) {
  if (!value || value->isNull()) return "(none)";
  if (value->isString()) return value->string();
  std::string text = value->description();
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// The engine's value after the phone changed a field from `base` (what the
// phone last held) to `phone`, keeping what the phone could not hold.
Value mergedValue(const Value* engine, const Value* phone, const Value* base) {
  if (!phone || phone->isNull()) return Value();
  if (!engine || engine->isNull()) return phone->deepCopy();
  // A truncated form of the engine's text: the phone cut it, nobody changed it.
  if (engine->isString() && phone->isString() && !phone->string().empty() &&
      engine->string().size() > phone->string().size() &&
      engine->string().compare(0, phone->string().size(), phone->string()) == 0)
    return *engine;
  auto engineList = engine->asArray();
  auto phoneList = phone->asArray();
  if (engineList && phoneList) {
    // Sub-records: each one the phone holds keeps the fields only the engine
    // has; those beyond what the phone held stay after them.
    const std::size_t held = base && base->isArray() ? base->array().count() : phoneList->count();
    Array merged;
    for (std::size_t i = 0; i < phoneList->count(); ++i) {
      auto phoneElement = phoneList->at(i).asDictionary();
      auto engineElement = i < engineList->count() ? engineList->at(i).asDictionary() : std::nullopt;
      if (!phoneElement || !engineElement) {
        merged.add(phoneList->at(i).deepCopy());
        continue;
      }
      Dictionary element = engineElement->deepCopy();
      std::optional<Dictionary> baseElement;
      if (base && base->isArray() && i < base->array().count())
        baseElement = base->array().at(i).asDictionary();
      if (baseElement)
        for (const auto& [key, value] : *baseElement)
          if (!phoneElement->contains(key)) element.remove(key);
      for (const auto& [key, value] : *phoneElement) {
        const Value* engineValue = engineElement->find(key);
        const Value* baseValue = baseElement ? baseElement->find(key) : nullptr;
        if (baseElement && sameValue(baseValue, &value)) continue;
        element.set(key, mergedValue(engineValue, &value, baseValue));
      }
      merged.add(element);
    }
    for (std::size_t i = held; i < engineList->count(); ++i) merged.add(engineList->at(i).deepCopy());
    return merged;
  }
  return phone->deepCopy();
}

std::string digits(const std::string& text) {
  std::string out;
  for (char c : text)
    if (std::isdigit(static_cast<unsigned char>(c))) out += c;
  return out;
}

// What pairs a phone entry with an engine record on a first sync: names and
// numbers for contacts, summary and start for events and tasks.
std::string contentKey(const std::string& entity, const Dictionary& fields) {
  std::string key = entity;
  if (entity == kContactsContact) {
    for (const char* name : {"firstName", "lastName", "companyName"})
      key += "\x1f" + fields.getString(name);
    std::vector<std::string> numbers;
    if (auto list = fields.getArray(kContactsContactPhoneNumbers))
      for (const Value& number : *list)
        if (auto entry = number.asDictionary()) numbers.push_back(digits(entry->getString("value")));
    std::sort(numbers.begin(), numbers.end());
    for (const std::string& number : numbers) key += "\x1e" + number;
    return key;
  }
  key += "\x1f" + fields.getString("summary");
  const Value start = fields.get(kCalendarsEventStartDate);
  if (start.isDate())
    key += "\x1f" + start.date().dateWithTimeZone(TimeZone::gmt()).descriptionWithCalendarFormat(
                        "%Y%m%dT%H%M%S");
  return key;
}

// A stamp of what shapes the phone's entries besides the records: the
// phone's descriptions and formatting variables. The last sync's anchors keep
// it; a run for a phone of another stamp formats every record again.
std::string formattingStamp(const SyncRun& phone) {
  const Dictionary shape{{"device", phone.deviceDescription},
                         {"entities", phone.entitiesDescription},
                         {"variables", phone.formatting.variables},
                         {"version", phone.formatting.version}};
  return fmt::format("{:016x}", std::hash<std::string>{}(Value(shape).description()));
}

// A digest of a phone file's bytes, which the anchors keep.
std::string fileDigest(std::string_view bytes) {
  return fmt::format("{:016x}-{}", std::hash<std::string_view>{}(bytes), bytes.size());
}

// The engine record behind a phone entry's identifier: the record itself, or
// for a single event of an exploded event ("id#start") or a detached event
// ("id/detachedEvents/0"), its master.
std::string masterOf(const std::string& phoneIdentifier, const std::set<std::string>& records) {
  if (records.count(phoneIdentifier)) return phoneIdentifier;
  for (char separator : {'#', '/'}) {
    const std::size_t at = phoneIdentifier.find(separator);
    if (at != std::string::npos && records.count(phoneIdentifier.substr(0, at)))
      return phoneIdentifier.substr(0, at);
  }
  return std::string();
}


// A single event of an exploded recurring event ("id#20270301T170000Z"): its
// master's identifier and the occurrence's start.
struct Occurrence {
  std::string master;
  CalendarDate start;
};
std::optional<Occurrence> occurrenceOf(const std::string& phoneIdentifier,
                                       const std::set<std::string>& records) {
  const std::size_t hash = phoneIdentifier.rfind('#');
  if (hash == std::string::npos || !records.count(phoneIdentifier.substr(0, hash))) return std::nullopt;
  auto start = CalendarDate::dateWithString(phoneIdentifier.substr(hash + 1), "%Y%m%dT%H%M%SZ",
                                            TimeZone::gmt());
  if (!start) return std::nullopt;
  return Occurrence{phoneIdentifier.substr(0, hash), *start};
}

// A date of the phone's in the zone of the engine's `like` (the phone may
// hold dates on its own wall clock).
Value inZoneOf(const Value& value, const Value& like) {
  if (!value.isDate() || !like.isDate() || !like.date().timeZone()) return value.deepCopy();
  return Value(value.date().dateWithTimeZone(like.date().timeZone()));
}

// The occurrence of `master` starting at `start` as a detached event: the
// master's fields without its recurrence, moved to the occurrence, with the
// fields the phone changed from `base` to `phone` taken from the phone.
Dictionary detachedEventOf(const Dictionary& master, const CalendarDate& start,
                           const Dictionary& base, const Dictionary& phone) {
  Dictionary event = master.deepCopy();
  for (const char* key : {kCalendarsEventRecurrences, kCalendarsEventDetachedEvents,
                          kCalendarsEventExceptionDates})
    event.remove(key);
  const Value masterStart = master.get(kCalendarsEventStartDate);
  const Value masterEnd = master.get(kCalendarsEventEndDate);
  const Value occurrenceStart = inZoneOf(Value(start), masterStart);
  if (masterStart.isDate()) {
    event.set(kCalendarsEventStartDate, occurrenceStart);
    if (masterEnd.isDate())
      event.set(kCalendarsEventEndDate,
                Value(occurrenceStart.date().dateByAddingTimeInterval(
                    masterEnd.date().timeIntervalSinceReferenceDate() -
                    masterStart.date().timeIntervalSinceReferenceDate())));
  }
  for (const std::string& key : changedKeys(base, phone)) {
    const Value* value = phone.find(key);
    if (!value || value->isNull()) {
      event.remove(key);
      continue;
    }
    const Value* engineValue = event.find(key);
    Value merged = mergedValue(engineValue, value, base.find(key));
    if (merged.isDate() && masterStart.isDate()) merged = inZoneOf(merged, masterStart);
    event.set(key, merged);
  }
  event.set(kCalendarsEventOriginalDate, Value(start));
  return event;
}
}  // namespace

StoreSyncResult StoreSync::run(SqliteEngine& store, const StoreSyncRun& run) {
  StoreSyncResult result;
  auto step = [&run](std::string_view name) {
    if (run.beforeStep) run.beforeStep(name);
  };
  const std::string& client = run.clientIdentifier;

  // --- Read everything first -------------------------------------------------------------
  auto schema = SyncEngineManager::sharedManager();
  std::vector<std::string> dataClasses;
  if (auto entities = run.phone.entitiesDescription.getDictionary(kEngineClientEntitiesKey))
    for (const auto& [entity, keys] : *entities)
      if (auto dataClass = schema->dataClassNameForEntityName(entity.stringValue()))
        if (std::find(dataClasses.begin(), dataClasses.end(), *dataClass) == dataClasses.end())
          dataClasses.push_back(*dataClass);

  // The change counter the last sync ended at, when it left anchors for
  // every data class and formatted for a phone of the same stamp: the
  // phone then holds, as the state says, the formatted form of every record
  // that did not change since, and only the others are formatted again.
  const std::string stamp = formattingStamp(run.phone);
  std::optional<std::int64_t> since;
  std::int64_t oldest = std::numeric_limits<std::int64_t>::max();
  bool anchorsCurrent = !run.formatEverything && !dataClasses.empty();
  std::map<std::string, Dictionary> anchors;  // data class -> the last sync's anchor
  for (const std::string& dataClass : dataClasses) {
    std::optional<Dictionary> anchor;
    try {
      anchor = store.anchor(client, dataClass).asDictionary();
    } catch (const Exception& exception) {
      result.error = exception.reason();
      return result;
    }
    if (anchor) anchors[dataClass] = *anchor;
    const Value change = anchor ? anchor->get("change") : Value();
    const bool current = anchor && change.isInteger() && anchor->getString("format") == stamp;
    if (!current) anchorsCurrent = false;
    else oldest = std::min(oldest, change.integerValue());
  }
  if (anchorsCurrent) since = oldest;

  // The whole store is checked before a sync that formats every record; one
  // that formats what changed checks what changed, and the rest as it reads.
  if (std::string problem = since ? store.checkChangedSince(*since) : store.check(); !problem.empty()) {
    result.error = problem;
    return result;
  }

  PhoneStore phone(run.phone.phoneDirectory);
  usePhoneParsers(phone, run.phone.deviceDescription);
  std::map<std::string, PhoneStoreContents> onPhone;
  // A file that holds, byte for byte, what the last sync left there is not
  // parsed: its entries are the state's phone forms, in the order the
  // anchor keeps (taken once the state is read).
  std::map<std::string, std::string> unparsed;  // data class -> the file's bytes
  // A file that changed since, of which the anchor keeps each entry's
  // digest: only the entries whose text is not one the last sync wrote are
  // parsed (once the state is read).
  std::map<std::string, std::string> changedFiles;  // data class -> the file's bytes
  for (const std::string& dataClass : dataClasses) {
    const std::string path = phone.pathForDataClass(dataClass);
    std::error_code code;
    if (since && anchors[dataClass].contains("file") && fs::exists(path, code)) {
      std::optional<std::string> bytes = readWholeFile(path, &result.error);
      if (!bytes) return result;
      if (anchors[dataClass].getString("file") == fileDigest(*bytes)) {
        unparsed[dataClass] = std::move(*bytes);
        continue;
      }
      if (anchors[dataClass].contains("entries")) {
        changedFiles[dataClass] = std::move(*bytes);
        continue;
      }
      std::optional<PhoneStoreContents> contents =
          phone.contentsFromFileBytes(dataClass, *bytes, &result.error);
      if (!contents) return result;
      onPhone[dataClass] = std::move(*contents);
      continue;
    }
    std::optional<PhoneStoreContents> contents = phone.read(dataClass, &result.error);
    if (!contents) return result;
    onPhone[dataClass] = std::move(*contents);
  }

  try {
    SqliteEngine::Transaction transaction(store);
    const std::int64_t counterBefore = store.changeCounter();

    std::map<std::string, SyncedEntry> state;  // phone identifier -> entry
    std::set<std::string> classesWithState;
    // After a sync that left anchors, the state's forms are read only where
    // they are needed: entries the phone changed or deleted, entries whose
    // text the phone's file does not hold as the last sync wrote it, and
    // state entries that change. The others stand in every comparison under
    // an empty dictionary of their own (the same handle is the same form).
    const bool lazyForms = since.has_value();
    for (SyncedEntry& entry : lazyForms ? store.syncedEntriesWithoutForms(client) : store.syncedEntries(client)) {
      if (auto dataClass = schema->dataClassNameForEntityName(entry.entityName))
        classesWithState.insert(*dataClass);
      std::string id = entry.phoneIdentifier;
      state.emplace(std::move(id), std::move(entry));
    }
    // Entries of the phone's files that are, byte for byte, what the last
    // sync wrote for their state: their text in the file as it is (kept for
    // the writing), and their phone form the state's own.
    std::map<std::string, std::map<std::string, std::string_view>> oldTexts;  // data class -> phone id -> text
    std::set<std::string> asInState;  // phone ids
    auto parseWhole = [&](const std::string& dataClass, const std::string& bytes) {
      std::string error;
      std::optional<PhoneStoreContents> parsed = phone.contentsFromFileBytes(dataClass, bytes, &error);
      if (!parsed) raiseException(kSqliteStoreException, error);
      return std::move(*parsed);
    };
    std::map<std::string, SyncedEntry> readEntries;  // phone id -> the state's entry with its forms, once read
    auto readEntry = [&](const SyncedEntry& entry) -> const SyncedEntry& {
      if (!lazyForms) return entry;
      auto read = readEntries.find(entry.phoneIdentifier);
      if (read == readEntries.end()) {
        std::optional<SyncedEntry> full = store.syncedEntryForPhoneIdentifier(client, entry.phoneIdentifier);
        read = readEntries.emplace(entry.phoneIdentifier, full ? std::move(*full) : entry).first;
      }
      return read->second;
    };
    // Every entry's forms at once, for a file written whole.
    bool allRead = !lazyForms;
    auto readAllEntries = [&] {
      if (allRead) return;
      for (SyncedEntry& entry : store.syncedEntries(client)) {
        std::string id = entry.phoneIdentifier;
        readEntries.try_emplace(std::move(id), std::move(entry));
      }
      allRead = true;
    };
    auto engineFormOfState = [&](const SyncedEntry& entry) -> const Dictionary& {
      return readEntry(entry).engineForm;
    };
    auto phoneFormOfState = [&](const SyncedEntry& entry) -> const Dictionary& {
      return readEntry(entry).phoneForm;
    };
    // A phone form as it is: the state's own, read, where `form` stands for it.
    auto realForm = [&](const Dictionary& form, const std::string& phoneId) -> const Dictionary& {
      if (!lazyForms) return form;
      auto known = state.find(phoneId);
      return known != state.end() && form.isIdenticalTo(known->second.phoneForm) ? phoneFormOfState(known->second)
                                                                                 : form;
    };
    for (auto& [dataClass, bytes] : unparsed) {
      PhoneStoreContents contents{dataClass, {}};
      const std::optional<Array> order = anchors[dataClass].getArray("order");
      bool whole = order.has_value();
      for (std::size_t i = 0; whole && i < order->count(); ++i) {
        auto known = state.find(order->at(i).stringValue());
        if (known == state.end()) whole = false;
        else contents.records.push_back({known->first, known->second.entityName, known->second.phoneForm});
      }
      if (!whole) {
        contents = parseWhole(dataClass, bytes);
      } else {
        for (std::size_t i = 0; i < order->count(); ++i) asInState.insert(order->at(i).stringValue());
        if (auto texts = phone.entryTextsOfFile(dataClass, bytes); texts && texts->size() == order->count())
          for (std::size_t i = 0; i < texts->size(); ++i) oldTexts[dataClass][order->at(i).stringValue()] = (*texts)[i];
      }
      onPhone[dataClass] = std::move(contents);
    }
    for (auto& [dataClass, bytes] : changedFiles) {
      PhoneStoreContents contents{dataClass, {}};
      const std::optional<Array> order = anchors[dataClass].getArray("order");
      const std::optional<Array> digests = anchors[dataClass].getArray("entries");
      const std::optional<std::vector<std::string_view>> texts = phone.entryTextsOfFile(dataClass, bytes);
      bool byEntry = order && digests && texts && order->count() == digests->count();
      std::map<std::string, std::string> written;  // digest -> phone id
      for (std::size_t i = 0; byEntry && i < order->count(); ++i)
        written[digests->at(i).stringValue()] = order->at(i).stringValue();
      std::map<std::string, std::string_view> same;  // phone id -> text
      for (std::size_t i = 0; byEntry && i < texts->size(); ++i) {
        const std::string_view text = (*texts)[i];
        if (auto digest = written.find(fileDigest(text)); digest != written.end())
          if (auto known = state.find(digest->second); known != state.end()) {
            contents.records.push_back({known->first, known->second.entityName, known->second.phoneForm});
            same[known->first] = text;
            continue;
          }
        // An entry the phone changed or added: read alone, as within its
        // file; one that does not read cleanly has the whole file read, so
        // that its problems are told as for any file.
        std::optional<PhoneStoreRecord> entry = phone.entryFromText(dataClass, std::string(text));
        if (entry) contents.records.push_back(std::move(*entry));
        else byEntry = false;
      }
      if (!byEntry) {
        contents = parseWhole(dataClass, bytes);
      } else {
        for (const auto& [phoneId, text] : same) asInState.insert(phoneId);
        oldTexts[dataClass] = std::move(same);
      }
      onPhone[dataClass] = std::move(contents);
    }

    std::set<std::string> records;
    for (const std::string& dataClass : dataClasses)
      for (const Value& identifier : store.recordIdentifiersForDataClassName(dataClass))
        records.insert(identifier.string());

    // An engine record the run knows of; one that does not read stops the run
    // (the store's reader logs it and answers none, as for a missing one).
    auto recordOf = [&](const std::string& identifier) {
      std::optional<Dictionary> record = store.recordWithIdentifier(identifier);
      if (!record && records.count(identifier))
        raiseException(kSqliteStoreException,
                       store.path() + ": records/" + identifier + ": the record does not read");
      return record;
    };

    // Phone identifier -> engine identifier of the master entries; a phone
    // entry paired by content keeps the phone's identifier.
    std::map<std::string, std::string> engineIdOf;
    std::map<std::string, std::string> phoneIdOf;  // engine -> phone
    std::map<std::string, Dictionary> baseOf;      // phone id -> last phone form, paired entries
    for (const auto& [phoneId, entry] : state)
      if (entry.phoneIdentifier == entry.engineIdentifier ||
          masterOf(phoneId, {entry.engineIdentifier}).empty()) {
        engineIdOf[phoneId] = entry.engineIdentifier;
        phoneIdOf[entry.engineIdentifier] = phoneId;
      }

    // The mode of each data class's first sync.
    std::map<std::string, FirstSyncMode> firstSyncModes;
    {
      const fs::path settingsPath = fs::path(run.phone.phoneDirectory) / kSettingsFileName;
      Dictionary settings;
      std::error_code code;
      if (!run.firstSyncMode && fs::exists(settingsPath, code)) {
        std::optional<Value> contents = PropertyList::fromFile(settingsPath.string());
        if (!contents || !contents->isDictionary())
          raiseException(kSqliteStoreException, settingsPath.string() + ": not a settings dictionary");
        settings = contents->dictionary();
      }
      for (const std::string& dataClass : dataClasses) {
        if (classesWithState.count(dataClass)) continue;
        if (run.firstSyncMode) {
          firstSyncModes[dataClass] = *run.firstSyncMode;
          continue;
        }
        const int mode = SyncSettings::qvt_modeOfFirstSyncForDataClass(settings, dataClass);
        if (mode < 0 || mode > 2)
          raiseException(kSqliteStoreException,
                         fmt::format("{}: {}ModeOfFirstSync: {} is no mode (0 merge, 1 the phone "
                                     "replaces the engine, 2 the engine replaces the phone)",
                                     settingsPath.string(), dataClass == "Calendars" ? "calendars"
                                                                                     : "contacts",
                                     mode));
        firstSyncModes[dataClass] = static_cast<FirstSyncMode>(mode);
      }
    }
    // Phone entries the engine's records replace: left out of the engine and
    // deleted from the phone.
    std::set<std::string> replacedOnPhone;

    // First sync of a data class with entries on the phone: pair them with
    // engine records by content.
    bool needsPairing = false;
    for (const std::string& dataClass : dataClasses)
      if (!classesWithState.count(dataClass) && !onPhone[dataClass].records.empty())
        needsPairing = true;
    if (needsPairing) {
      Formatted before;
      if (!formatAll(run, store, dataClasses, before, result.error)) return result;
      for (const std::string& dataClass : dataClasses) {
        if (classesWithState.count(dataClass)) continue;
        std::multimap<std::string, const PhoneStoreRecord*> byContent;
        std::map<std::string, const PhoneStoreRecord*> byId;
        for (const PhoneStoreRecord& entry : before.entries[dataClass]) {
          if (masterOf(entry.identifier, records) != entry.identifier) continue;
          byContent.emplace(contentKey(entry.entity, entry.fields), &entry);
          byId[entry.identifier] = &entry;
        }
        std::set<std::string> taken;
        for (const PhoneStoreRecord& entry : onPhone[dataClass].records) {
          const PhoneStoreRecord* match = nullptr;
          if (auto it = byId.find(entry.identifier); it != byId.end()) match = it->second;
          if (!match) {
            auto [from, to] = byContent.equal_range(contentKey(entry.entity, entry.fields));
            for (auto it = from; it != to && !match; ++it)
              if (!taken.count(it->second->identifier)) match = it->second;
          }
          const bool engineReplaces = firstSyncModes[dataClass] == FirstSyncMode::engineReplacesPhone;
          if (!match || taken.count(match->identifier)) {
            if (engineReplaces) replacedOnPhone.insert(entry.identifier);
            continue;
          }
          taken.insert(match->identifier);
          engineIdOf[entry.identifier] = match->identifier;
          phoneIdOf[match->identifier] = entry.identifier;
          // The engine's side replacing the phone's, the phone's form of a
          // paired entry counts as unchanged, and the engine's form goes out.
          baseOf[entry.identifier] = engineReplaces ? entry.fields : match->fields;
        }
      }
    }

    // --- The phone's changes, into the engine --------------------------------------------
    std::set<std::string> keptOnPhone;     // phone ids whose phone version stays
    std::set<std::string> deletedOnPhone;  // engine ids
    std::set<std::string> touchedByPhone;  // engine ids the phone's changes reached
    auto report = [&result](StoreSyncRecord record) { result.records.push_back(std::move(record)); };
    // The phone's entries that differ from what the last sync left there.
    std::set<std::string> editedOnPhone;  // phone ids
    for (const std::string& dataClass : dataClasses)
      for (const PhoneStoreRecord& entry : onPhone[dataClass].records) {
        if (asInState.count(entry.identifier)) continue;
        auto known = state.find(entry.identifier);
        const Dictionary* base = known != state.end() ? &phoneFormOfState(known->second) : nullptr;
        if (!base)
          if (auto paired = baseOf.find(entry.identifier); paired != baseOf.end()) base = &paired->second;
        if (base && !ReferenceSync::differingFields(*base, realForm(entry.fields, entry.identifier)).empty())
          editedOnPhone.insert(entry.identifier);
      }

    // The phone's changed entries and their last phone forms, in the
    // engine's form: the phone's dates, zones, all-day form, alarms and
    // recurrence ends are compared and merged as the engine holds them.
    std::map<std::string, Dictionary> unmangledForms;  // "phone:" / "base:" + phone id
    {
      std::multimap<std::string, PhoneStoreRecord> unmangle;
      for (const std::string& dataClass : dataClasses)
        for (const PhoneStoreRecord& entry : onPhone[dataClass].records) {
          auto mapped = engineIdOf.find(entry.identifier);
          if (mapped == engineIdOf.end() || !records.count(mapped->second)) continue;
          if (!editedOnPhone.count(entry.identifier)) continue;
          auto known = state.find(entry.identifier);
          const Dictionary& base =
              known != state.end() ? phoneFormOfState(known->second) : baseOf[entry.identifier];
          unmangle.emplace(mapped->second, PhoneStoreRecord{"phone:" + entry.identifier, entry.entity,
                                                            realForm(entry.fields, entry.identifier)});
          unmangle.emplace(mapped->second,
                           PhoneStoreRecord{"base:" + entry.identifier, entry.entity, base});
        }
      if (!unmangle.empty()) {
        std::set<std::string> engineIds;
        for (const auto& [engineId, entry] : unmangle) engineIds.insert(engineId);
        Formatted current;
        if (!formatAll(run, store, dataClasses, current, result.error, std::move(unmangle),
                       &engineIds))
          return result;
        unmangledForms = std::move(current.unmangled);
      }
    }

    step("engine");
    std::map<std::string, Dictionary> masterEdits;  // recurring events the phone's occurrences change
    for (const std::string& dataClass : dataClasses) {
      std::set<std::string> present;
      for (const PhoneStoreRecord& entry : onPhone[dataClass].records) {
        present.insert(entry.identifier);
        auto known = state.find(entry.identifier);
        auto mapped = engineIdOf.find(entry.identifier);
        const bool isMaster = mapped != engineIdOf.end();
        if (replacedOnPhone.count(entry.identifier)) continue;
        if (!isMaster) {
          if (known != state.end() || !masterOf(entry.identifier, records).empty()) {
            const bool edited = known != state.end() && editedOnPhone.count(entry.identifier);
            // An edited single event of an exploded event becomes a detached
            // event of the engine's event, on the day it stood.
            if (edited)
              if (auto occurrence = occurrenceOf(entry.identifier, records)) {
                auto master = masterEdits.find(occurrence->master);
                if (master == masterEdits.end()) {
                  std::optional<Dictionary> record = recordOf(occurrence->master);
                  if (!record) continue;
                  master = masterEdits.emplace(occurrence->master, std::move(*record)).first;
                }
                Array detached =
                    master->second.getArray(kCalendarsEventDetachedEvents).value_or(Array());
                detached.add(detachedEventOf(master->second, occurrence->start,
                                             phoneFormOfState(known->second),
                                             realForm(entry.fields, entry.identifier)));
                master->second.set(kCalendarsEventDetachedEvents, detached);
                report({entry.identifier, entry.entity, StoreSyncOutcome::changedOnPhone,
                        {{kCalendarsEventDetachedEvents, std::string()}}, {}, 0,
                        "a detached event of " + occurrence->master});
                continue;
              }
            // A detached event: its changes stay on the phone.
            if (edited) {
              keptOnPhone.insert(entry.identifier);
              report({entry.identifier, entry.entity, StoreSyncOutcome::keptOnPhone, {}, {}, 0,
                      "a single event of a recurring event"});
            }
            continue;
          }
          // Added on the phone: a new engine record under the phone's name
          // when that is free.
          std::string identifier = entry.identifier;
          for (int n = 2; records.count(identifier) || store.recordWithIdentifier(identifier); ++n)
            identifier = fmt::format("{}-{}", entry.identifier, n);
          Dictionary record = entry.fields.deepCopy();
          record.set(kEngineRecordEntityNameKey, entry.entity);
          store.addRecord(identifier, record);
          records.insert(identifier);
          engineIdOf[entry.identifier] = identifier;
          phoneIdOf[identifier] = entry.identifier;
          touchedByPhone.insert(identifier);
          report({identifier, entry.entity, StoreSyncOutcome::addedOnPhone, {}, {}, 0, {}});
          continue;
        }
        const std::string& engineId = mapped->second;
        if (!editedOnPhone.count(entry.identifier)) continue;
        const Dictionary& base =
            known != state.end() ? phoneFormOfState(known->second) : baseOf[entry.identifier];
        auto phoneForm = unmangledForms.find("phone:" + entry.identifier);
        auto baseForm = unmangledForms.find("base:" + entry.identifier);
        const bool unmangledBoth = phoneForm != unmangledForms.end() && baseForm != unmangledForms.end();
        const Dictionary& phoneFields = unmangledBoth ? phoneForm->second : realForm(entry.fields, entry.identifier);
        const Dictionary& baseFields = unmangledBoth ? baseForm->second : base;
        const std::vector<std::string> keys = changedKeys(baseFields, phoneFields);
        if (keys.empty()) continue;
        std::optional<Dictionary> current = recordOf(engineId);
        const Dictionary engineBase =
            known != state.end() ? engineFormOfState(known->second) : current.value_or(Dictionary());
        StoreSyncRecord changed{engineId, entry.entity, StoreSyncOutcome::changedOnPhone, {}, {}, 0, {}};
        if (!current) {
          // Deleted on the engine, changed on the phone.
          if (run.conflicts == ConflictPolicy::engine) {
            changed.outcome = StoreSyncOutcome::conflict;
            changed.conflicts.push_back({"(record)", "(deleted)", "changed"});
            report(std::move(changed));
            continue;
          }
          current = engineBase.deepCopy();
        }
        Dictionary merged = current->deepCopy();
        for (const std::string& key : keys) {
          const Value* phoneValue = phoneFields.find(key);
          const Value* engineValue = current->find(key);
          const bool engineChanged = !sameValue(engineBase.find(key), engineValue);
          Value value = mergedValue(engineValue, phoneValue, baseFields.find(key));
          if (engineChanged && !sameValue(&value, engineValue)) {
            changed.conflicts.push_back({key, shownValue(engineValue), shownValue(phoneValue)});
            if (run.conflicts == ConflictPolicy::engine) continue;
          }
          changed.fields.push_back({key, std::string()});
          if (value.isNull()) merged.remove(key);
          else merged.set(key, value);
        }
        if (!changed.conflicts.empty()) changed.outcome = StoreSyncOutcome::conflict;
        if (Value(merged) != Value(*current)) {
          store.addRecord(engineId, merged);
          records.insert(engineId);
          touchedByPhone.insert(engineId);
        }
        report(std::move(changed));
      }
      // Deleted on the phone.
      for (const auto& [phoneId, entry] : state) {
        if (present.count(phoneId)) continue;
        if (schema->dataClassNameForEntityName(entry.entityName) != dataClass) continue;
        // A single event of an exploded event: an exception date of the
        // engine's event, in the zone of its start.
        if (auto occurrence = occurrenceOf(phoneId, records); occurrence && !engineIdOf.count(phoneId)) {
          auto master = masterEdits.find(occurrence->master);
          if (master == masterEdits.end()) {
            std::optional<Dictionary> record = recordOf(occurrence->master);
            if (!record) continue;
            master = masterEdits.emplace(occurrence->master, std::move(*record)).first;
          }
          Array dates = master->second.getArray(kCalendarsEventExceptionDates).value_or(Array());
          dates.add(inZoneOf(Value(occurrence->start), master->second.get(kCalendarsEventStartDate)));
          master->second.set(kCalendarsEventExceptionDates, dates);
          report({phoneId, entry.entityName, StoreSyncOutcome::deletedOnPhone,
                  {{kCalendarsEventExceptionDates, std::string()}}, {}, 0,
                  "an exception date of " + occurrence->master});
          continue;
        }
        if (!engineIdOf.count(phoneId)) continue;
        if (schema->dataClassNameForEntityName(entry.entityName) != dataClass) continue;
        std::optional<Dictionary> current = recordOf(entry.engineIdentifier);
        if (!current) continue;  // gone on both sides
        if (Value(*current) != Value(engineFormOfState(entry)) && run.conflicts == ConflictPolicy::engine) {
          // Changed on the engine since: the engine's record goes back.
          StoreSyncRecord conflict{entry.engineIdentifier, entry.entityName,
                                   StoreSyncOutcome::conflict, {}, {}, 0, {}};
          conflict.conflicts.push_back({"(record)", "changed", "(deleted)"});
          report(std::move(conflict));
          phoneIdOf.erase(entry.engineIdentifier);
          continue;
        }
        store.removeRecord(entry.engineIdentifier);
        records.erase(entry.engineIdentifier);
        deletedOnPhone.insert(entry.engineIdentifier);
        report({entry.engineIdentifier, entry.entityName, StoreSyncOutcome::deletedOnPhone, {}, {}, 0, {}});
      }
    }
    // The phone's entries replacing the engine's records: those of the
    // data class no phone entry stands for go.
    for (const auto& [dataClass, mode] : firstSyncModes) {
      if (mode != FirstSyncMode::phoneReplacesEngine) continue;
      for (const Value& identifier : store.recordIdentifiersForDataClassName(dataClass)) {
        const std::string engineId = identifier.string();
        if (phoneIdOf.count(engineId) || !records.count(engineId)) continue;
        const std::string entity = store.entityNameOfRecord(engineId);
        store.removeRecord(engineId);
        records.erase(engineId);
        deletedOnPhone.insert(engineId);
        report({engineId, entity, StoreSyncOutcome::deletedOnPhone, {}, {}, 0,
                "the phone's entries replace the engine's records"});
      }
    }

    // Recurring events that gained detached events or exception dates.
    for (const auto& [identifier, record] : masterEdits) {
      if (!records.count(identifier)) continue;  // deleted on the phone as a whole
      store.addRecord(identifier, record);
      touchedByPhone.insert(identifier);
    }

    // --- The engine's records, out to the phone -------------------------------------------
    // After a sync that left anchors, only the records it cannot vouch for
    // are formatted: those changed since (on either side, this run's merges
    // included), those the phone holds no entry of, and those whose entries
    // the phone changed or lost. The others are what the state says.
    std::optional<std::set<std::string>> subset;
    if (since) {
      subset.emplace();
      for (const StoreChange& change : store.changesSince(*since))
        if (!change.deleted && records.count(change.identifier)) subset->insert(change.identifier);
      std::set<std::string> present;
      for (const std::string& dataClass : dataClasses)
        for (const PhoneStoreRecord& entry : onPhone[dataClass].records) present.insert(entry.identifier);
      std::set<std::string> held;
      for (const auto& [phoneId, entry] : state) {
        if (!records.count(entry.engineIdentifier)) continue;
        if (!present.count(phoneId) || editedOnPhone.count(phoneId))
          subset->insert(entry.engineIdentifier);
        else
          held.insert(entry.engineIdentifier);
      }
      for (const std::string& identifier : records)
        if (!held.count(identifier)) subset->insert(identifier);
    }
    const fs::path settingsPath = fs::path(run.phone.phoneDirectory) / kSettingsFileName;
    Formatted after;
    if (!formatAll(run, store, dataClasses, after, result.error, {}, subset ? &*subset : nullptr))
      return result;
    if (subset && after.settingsText != fileText(settingsPath)) {
      // The window moved: every exploded event may fall otherwise.
      subset.reset();
      after = Formatted();
      if (!formatAll(run, store, dataClasses, after, result.error)) return result;
    }
    // The entries of the records not formatted again, as the state holds them.
    if (subset)
      for (const auto& [phoneId, entry] : state) {
        if (subset->count(entry.engineIdentifier) || !records.count(entry.engineIdentifier)) continue;
        const std::optional<std::string> dataClass =
            schema->dataClassNameForEntityName(entry.entityName);
        if (!dataClass) continue;
        const std::string formattedId = engineIdOf.count(phoneId) ? entry.engineIdentifier : phoneId;
        after.entries[*dataClass].push_back({formattedId, entry.entityName, entry.phoneForm});
      }
    // The engine's form of a record as the new state keeps it: the state's own
    // for a record not formatted again, which has not changed since.
    auto engineFormOf = [&](const std::string& master, const std::string& phoneId) {
      if (subset && !subset->count(master))
        if (auto known = state.find(phoneId); known != state.end()) return known->second.engineForm;
      return recordOf(master).value_or(Dictionary());
    };

    std::map<std::string, const SyncRecordReport*> formattedReport;
    for (const SyncRecordReport& entry : after.report.records)
      formattedReport[entry.identifier] = &entry;

    std::vector<std::pair<std::string, PhoneStoreContents>> newContents;
    std::vector<SyncedEntry> newState;
    // Data classes whose file holds an entry other than its state's phone
    // form (or one the state does not know): the next run parses them.
    std::set<std::string> inexact;
    std::set<std::string> sentEngineIds;  // engine records whose phone form changed
    for (const std::string& dataClass : dataClasses) {
      std::map<std::string, const PhoneStoreRecord*> wanted;  // phone id -> entry
      std::vector<std::string> wantedOrder;
      for (const PhoneStoreRecord& entry : after.entries[dataClass]) {
        const std::string master = masterOf(entry.identifier, records);
        std::string phoneId = entry.identifier;
        if (master == entry.identifier)
          if (auto it = phoneIdOf.find(master); it != phoneIdOf.end()) phoneId = it->second;
        wanted[phoneId] = &entry;
        wantedOrder.push_back(phoneId);
      }
      PhoneStoreContents contents{dataClass, {}};
      std::set<std::string> placed;
      auto place = [&](const std::string& phoneId, const PhoneStoreRecord& entry,
                       const Dictionary& phoneForm) {
        PhoneStoreRecord record{phoneId, entry.entity, phoneForm};
        contents.records.push_back(std::move(record));
        placed.insert(phoneId);
        const std::string master = masterOf(entry.identifier, records);
        if (!master.empty())
          newState.push_back({master, phoneId, entry.entity, engineFormOf(master, phoneId),
                              entry.fields});
      };
      for (const PhoneStoreRecord& held : onPhone[dataClass].records) {
        auto it = wanted.find(held.identifier);
        if (it != wanted.end()) {
          if (keptOnPhone.count(held.identifier)) {
            inexact.insert(dataClass);
            contents.records.push_back(held);
            placed.insert(held.identifier);
            const std::string master = masterOf(it->second->identifier, records);
            newState.push_back({master, held.identifier, held.entity,
                                engineFormOf(master, held.identifier), it->second->fields});
            continue;
          }
          if (!it->second->fields.isIdenticalTo(held.fields) &&
              Value(realForm(it->second->fields, held.identifier)) != Value(realForm(held.fields, held.identifier)))
            sentEngineIds.insert(masterOf(it->second->identifier, records));
          place(held.identifier, *it->second, it->second->fields);
          continue;
        }
        auto known = state.find(held.identifier);
        if (known != state.end()) {
          // Sent by an earlier run and no longer wanted: its engine record
          // is gone, or it left the window.
          if (engineIdOf.count(held.identifier) &&
              !deletedOnPhone.count(known->second.engineIdentifier))
            report({known->second.engineIdentifier, held.entity, StoreSyncOutcome::deletedByEngine,
                    {}, {}, 0, {}});
          continue;
        }
        if (replacedOnPhone.count(held.identifier)) {
          report({held.identifier, held.entity, StoreSyncOutcome::deletedByEngine, {}, {}, 0,
                  "the engine's records replace the phone's entries"});
          continue;
        }
        // Unknown to the engine and not carried into it: it stays.
        inexact.insert(dataClass);
        contents.records.push_back(held);
        placed.insert(held.identifier);
      }
      for (const std::string& phoneId : wantedOrder) {
        if (placed.count(phoneId)) continue;
        sentEngineIds.insert(masterOf(wanted[phoneId]->identifier, records));
        place(phoneId, *wanted[phoneId], wanted[phoneId]->fields);
      }
      newContents.emplace_back(dataClass, std::move(contents));
    }

    // What each engine record sent this run became on the phone.
    for (const SyncRecordReport& entry : after.report.records) {
      const std::string master = masterOf(entry.identifier, records);
      const bool rejected = entry.outcome == SyncOutcome::rejected;
      if (!rejected && (!sentEngineIds.count(master.empty() ? entry.identifier : master) ||
                        touchedByPhone.count(entry.identifier)))
        continue;
      StoreSyncRecord record{entry.identifier, entry.entity, StoreSyncOutcome::sent, entry.fields, {},
                             entry.events, entry.reason};
      switch (entry.outcome) {
        case SyncOutcome::sent: record.outcome = StoreSyncOutcome::sent; break;
        case SyncOutcome::reduced: record.outcome = StoreSyncOutcome::reduced; break;
        case SyncOutcome::exploded: record.outcome = StoreSyncOutcome::exploded; break;
        case SyncOutcome::rejected: record.outcome = StoreSyncOutcome::rejected; break;
        case SyncOutcome::changedOnPhone: record.outcome = StoreSyncOutcome::keptOnPhone; break;
      }
      report(std::move(record));
    }

    {
      std::set<std::string> named;
      for (const StoreSyncRecord& record : result.records) named.insert(record.identifier);
      for (const std::string& identifier : records)
        if (!named.count(identifier)) ++result.summary.unchanged;
    }

    // --- The state, the phone, then the commit ----------------------------------------------
    step("state");
    bool stateChanged = false;
    {
      std::map<std::string, const SyncedEntry*> fresh;
      for (const SyncedEntry& entry : newState) fresh[entry.phoneIdentifier] = &entry;
      for (const auto& [phoneId, entry] : state)
        if (!fresh.count(phoneId)) {
          store.removeSyncedEntry(client, phoneId);
          stateChanged = true;
        }
      for (const SyncedEntry& entry : newState) {
        // An entry whose engine form is the state's, unread, keeps it.
        auto old = state.find(entry.phoneIdentifier);
        const bool engineUnread = old != state.end() && entry.engineForm.isIdenticalTo(old->second.engineForm);
        const bool phoneUnread = old != state.end() && entry.phoneForm.isIdenticalTo(old->second.phoneForm);
        if (old != state.end()) {
          SyncedEntry before = old->second;
          if (!engineUnread) before.engineForm = engineFormOfState(old->second);
          if (!phoneUnread) before.phoneForm = phoneFormOfState(old->second);
          if (before == entry) continue;
        }
        SyncedEntry written = entry;
        if (engineUnread) written.engineForm = engineFormOfState(old->second);
        if (phoneUnread) written.phoneForm = phoneFormOfState(old->second);
        store.setSyncedEntry(client, written);
        stateChanged = true;
      }
    }
    // The phone's files as they are to be: their digests go in the anchors.
    std::map<std::string, std::string> newBytes;  // data class -> bytes; none: no file
    std::map<std::string, Array> entryDigests;        // data class -> digest of each entry's text
    for (const auto& [dataClass, contents] : newContents) {
      if (contents.records.empty() && !phone.hasDataClass(dataClass)) continue;
      // Where the file is its entries' texts, an entry the phone holds as
      // the state says keeps its text; the others are written.
      std::vector<std::string> texts;
      bool byEntry = !contents.records.empty();
      const std::map<std::string, std::string_view>& old = oldTexts[dataClass];
      for (std::size_t i = 0; byEntry && i < contents.records.size(); ++i) {
        const PhoneStoreRecord& record = contents.records[i];
        auto text = old.find(record.identifier);
        auto known = state.find(record.identifier);
        if (text != old.end() && known != state.end() && record.fields.isIdenticalTo(known->second.phoneForm)) {
          texts.emplace_back(text->second);
          continue;
        }
        std::optional<std::string> written =
            phone.entryText(dataClass, {record.identifier, record.entity, realForm(record.fields, record.identifier)});
        if (written) texts.push_back(std::move(*written));
        else byEntry = false;
      }
      if (byEntry) {
        Array digests;
        for (const std::string& text : texts) digests.add(Value(fileDigest(text)));
        entryDigests[dataClass] = std::move(digests);
        newBytes[dataClass] = phone.bytesForEntryTexts(dataClass, texts);
        continue;
      }
      readAllEntries();
      PhoneStoreContents resolved{dataClass, {}};
      for (const PhoneStoreRecord& record : contents.records)
        resolved.records.push_back({record.identifier, record.entity, realForm(record.fields, record.identifier)});
      std::string error;
      std::optional<std::string> bytes = phone.bytesFor(resolved, &error);
      if (!bytes) raiseException(kSqliteStoreException, error);
      newBytes[dataClass] = std::move(*bytes);
    }
    // The anchors: the change counter the state is good for, the phone's
    // stamp, and for a file that holds exactly the state's phone forms, its
    // digest and the order of its entries. A run that changed nothing
    // leaves the counter as it was.
    const bool moved = stateChanged || store.changeCounter() != counterBefore;
    bool anchorsWritten = false;
    for (const std::string& dataClass : dataClasses) {
      auto stored = anchors.find(dataClass);
      if (!moved && stored == anchors.end()) continue;
      const Value storedChange = stored != anchors.end() ? stored->second.get("change") : Value();
      Dictionary anchor{{"change", moved || !since || !storedChange.isInteger() ? Value(store.changeCounter())
                                                                               : storedChange},
                        {"format", stamp}};
      auto bytes = newBytes.find(dataClass);
      if (bytes != newBytes.end() && !inexact.count(dataClass)) {
        Array order;
        for (const auto& [contentsClass, contents] : newContents)
          if (contentsClass == dataClass)
            for (const PhoneStoreRecord& entry : contents.records) order.add(Value(entry.identifier));
        anchor.set("file", fileDigest(bytes->second));
        anchor.set("order", order);
        if (auto digests = entryDigests.find(dataClass); digests != entryDigests.end())
          anchor.set("entries", digests->second);
      }
      if (stored != anchors.end() && Value(stored->second) == Value(anchor)) continue;
      store.setAnchor(client, dataClass, anchor);
      anchorsWritten = true;
    }
    result.storeChanged = moved || anchorsWritten;

    if (!run.dryRun) {
      step("phone");
      for (const auto& [dataClass, bytes] : newBytes) {
        std::string error;
        switch (phone.writeBytes(dataClass, bytes, &error)) {
          case PhoneStore::WriteResult::written:
            result.filesWritten.push_back(phone.pathForDataClass(dataClass));
            break;
          case PhoneStore::WriteResult::unchanged: break;
          case PhoneStore::WriteResult::failed: raiseException(kSqliteStoreException, error);
        }
      }
      const fs::path& settings = settingsPath;
      if (!after.settingsText.empty() && fileText(settings) != after.settingsText) {
        const std::string temporary = settings.string() + ".part";
        {
          std::ofstream out(temporary, std::ios::binary);
          out << after.settingsText;
          if (!out.flush()) raiseException(kSqliteStoreException, temporary + ": cannot write");
        }
        std::error_code code;
        fs::rename(temporary, settings, code);
        if (code) raiseException(kSqliteStoreException, settings.string() + ": " + code.message());
        result.filesWritten.push_back(settings.string());
      }
      step("commit");
      transaction.commit();
    }
  } catch (const Exception& exception) {
    result.error = exception.reason();
    result.records.clear();
    result.filesWritten.clear();
    return result;
  } catch (const std::exception& exception) {
    result.error = exception.what();
    result.records.clear();
    result.filesWritten.clear();
    return result;
  }

  StoreSyncSummary& s = result.summary;
  for (const StoreSyncRecord& record : result.records) {
    switch (record.outcome) {
      case StoreSyncOutcome::sent: ++s.sent; break;
      case StoreSyncOutcome::reduced: ++s.reduced; break;
      case StoreSyncOutcome::exploded: ++s.exploded; break;
      case StoreSyncOutcome::rejected: ++s.rejected; break;
      case StoreSyncOutcome::addedOnPhone: ++s.addedOnPhone; break;
      case StoreSyncOutcome::changedOnPhone: ++s.changedOnPhone; break;
      case StoreSyncOutcome::keptOnPhone: ++s.keptOnPhone; break;
      case StoreSyncOutcome::deletedOnPhone: ++s.deletedOnPhone; break;
      case StoreSyncOutcome::deletedByEngine: ++s.deletedByEngine; break;
      case StoreSyncOutcome::conflict: ++s.conflicts; break;
    }
  }
  return result;
}

}  // namespace pc
