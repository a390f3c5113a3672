#include "host/ReferenceSync.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include <fmt/format.h>

#include "async/Log.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "calcore/CALTimeRange.h"
#include "conduit/CFPhone.h"
#include "conduit/ConduitProtocols.h"
#include "conduit/SyncSettings.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "formatting/EntityFormatter.h"
#include "platform/HostInterfaces.h"
#include "host/PhoneStore.h"
#include "host/VFormatParsers.h"
#include "host/ReferenceHost.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"
#include "transformers/CalendarUtilities.h"

namespace pc {

namespace {

const std::string& syncLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("ReferenceSync"));
  return domain;
}

constexpr const char* kSettingsFileName = "SyncSettings.plist";
constexpr const char* kRecurrencesKey = "recurrences";
constexpr const char* kEntityFormattersKeyV1 = "EntityFormatters";
constexpr const char* kFieldFormattingKey = "FieldFormatting";
constexpr const char* kRecordFormattingKeyV1 = "RecordFormatting";

// "maxLength 40, charsToStrip ..." for a description entry.
std::string entrySummary(const Value& entry) {
  auto dictionary = entry.asDictionary();
  if (!dictionary) return entry.isArray() ? "formatting calls" : entry.description();
  std::string text;
  for (const auto& [key, value] : *dictionary) {
    if (!text.empty()) text += ", ";
    text += key.stringValue();
    // Numbers and short texts are the limits themselves; long character
    // lists are named only.
    if (value.isNumber() || (value.isString() && value.string().size() <= 16))
      text += " " + value.description();
  }
  return text;
}

// What one phone model does: its description, the phone side that formats
// on the way out and the engine side that predicts.
struct Phone {
  const SyncRun& run;
  std::shared_ptr<EngineSchema> schema;
  std::unique_ptr<DeviceFormatting> phoneSide;
  std::unique_ptr<DeviceFormatting> engineSide;
  Dictionary entities;  // entity -> keys the phone syncs

  DataClassHelperPtr helperFor(const std::string& entity) const {
    auto formatter = phoneSide->formatterForEntity(entity);
    return formatter ? formatter->helper() : nullptr;
  }
  bool syncsKey(const std::string& entity, const std::string& key) const {
    auto keys = entities.getArray(entity);
    return keys && keys->contains(key);
  }
  // Empty for an entity the engine does not know; such records are rejected
  // and never name a store file.
  std::string dataClassOf(const std::string& entity) const {
    return schema->dataClassNameForEntityName(entity).value_or(std::string());
  }

  // The part of the descriptions that explains why `key` of a record of
  // `entity` did not come back as it went; empty when none does.
  std::string limitFor(const std::string& entity, const std::string& path) const {
    // "phoneNumbers/2/value": the field of a sub-record; "phoneNumbers/2": a
    // sub-record the phone did not keep.
    const std::size_t slash = path.find('/');
    const std::string key = path.substr(0, slash);
    if (slash != std::string::npos) {
      const std::size_t next = path.find('/', slash + 1);
      auto target = schema->targetEntityForRelationship(entity, key);
      if (next != std::string::npos && target) {
        std::string limit = limitFor(*target, path.substr(next + 1));
        if (!limit.empty()) return limit;
      }
    }
    if (!syncsKey(entity, key))
      return fmt::format("{}/{}: not among the keys the phone syncs", kEngineClientEntitiesKey,
                         entity);
    const Dictionary& description = run.deviceDescription;
    if (auto formatting = description.getDictionary(kFormattingKey)) {
      if (auto entry = formatting->getDictionary(entity); entry && entry->contains(key))
        return fmt::format("{}/{}/{}: {}", kFormattingKey, entity, key,
                           entrySummary(entry->get(key)));
    }
    if (auto formatters = description.getDictionary(kEntityFormattersKeyV1)) {
      if (auto entry = formatters->getDictionary(entity)) {
        if (auto fields = entry->getDictionary(kFieldFormattingKey); fields && fields->contains(key))
          return fmt::format("{}/{}/{}/{}: {}", kEntityFormattersKeyV1, entity, kFieldFormattingKey,
                             key, entrySummary(fields->get(key)));
        if (entry->contains(key))
          return fmt::format("{}/{}/{}: {}", kEntityFormattersKeyV1, entity, key,
                             entrySummary(entry->get(key)));
        // Calls on the whole record (truncations, date conventions).
        if (entry->contains(kRecordFormattingKeyV1) && !schema->targetEntityForRelationship(entity, key))
          return fmt::format("{}/{}/{}: formatting calls", kEntityFormattersKeyV1, entity,
                             kRecordFormattingKeyV1);
      }
    }
    // A relation: the limits of its sub-records' entity.
    if (auto target = schema->targetEntityForRelationship(entity, key)) {
      if (auto formatting = description.getDictionary(kFormattingKey))
        if (auto entry = formatting->getDictionary(*target)) {
          for (const auto& [field, properties] : *entry)
            if (auto p = properties.asDictionary();
                p && (p->contains("relationshipSize") || p->contains("relationshipConstraint")))
              return fmt::format("{}/{}/{}: {}", kFormattingKey, *target, field.stringValue(),
                                 entrySummary(properties));
          return fmt::format("{}/{}: {}", kFormattingKey, *target, entrySummary(Value(*entry)));
        }
      if (auto formatters = description.getDictionary(kEntityFormattersKeyV1))
        if (auto entry = formatters->getDictionary(*target)) {
          for (const char* limit : {"MaxNumber", "MaxNumberPerType", "maxRecord"})
            if (entry->contains(limit))
              return fmt::format("{}/{}/{}: {}", kEntityFormattersKeyV1, *target, limit,
                                 entrySummary(entry->get(limit)));
          return fmt::format("{}/{}", kEntityFormattersKeyV1, *target);
        }
      if (!entities.contains(*target))
        return fmt::format("{}/{}: the phone does not sync these records", kEngineClientEntitiesKey,
                           *target);
    }
    // What the data-class helper does under the data class's flags.
    const std::string dataClass = dataClassOf(entity);
    if (dataClass.empty()) return std::string();
    if (auto classes = description.getDictionary(kSyncDataClassesKey))
      if (auto entry = classes->getDictionary(dataClass))
        return fmt::format("{}/{}: the {} helper's conventions", kSyncDataClassesKey, dataClass,
                           dataClass);
    return std::string();
  }
};

// The sync settings kept in the phone folder.
struct Settings {
  std::string path;
  Dictionary values;
  std::optional<std::string> savedText;

  bool load(std::string& error) {
    std::error_code code;
    if (!std::filesystem::exists(path, code)) return true;
    PropertyListError problem;
    std::optional<Value> contents = PropertyList::fromFile(path, &problem);
    if (!contents || !contents->isDictionary()) {
      error = path + ": " + (contents ? std::string("not a dictionary") : problem.description());
      return false;
    }
    values = contents->dictionary();
    savedText = PropertyList::toXML(Value(values));
    return true;
  }
  bool save(std::vector<std::string>& written, std::string& error) {
    std::optional<std::string> text = PropertyList::toXML(Value(values));
    if (text && savedText && *text == *savedText) return true;
    std::error_code code;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), code);
    PropertyListError problem;
    if (!PropertyList::writeToFile(Value(values), path, &problem)) {
      error = path + ": " + problem.description();
      return false;
    }
    written.push_back(path);
    return true;
  }
};

// One record the phone is to hold: its store entry, and what its holder
// noted while mangling, which goes to the unmangling of the same record. The
// holder itself is made again on the way back from the engine's record (the
// assembled master, or for a single event of an exploded one, that event),
// so that a large sync does not keep two more copies of every record.
struct Outgoing {
  PhoneStoreRecord stored;
  bool comesBack = false;  // compared on the way back
  Dictionary holderProperties;
  std::optional<Dictionary> original;  // when it is not the assembled master
  std::size_t report = 0;  // index of its master's report
  // The entry's text in the store file, when the file is made of its
  // entries' texts: the entry's fields are then let go at once.
  std::optional<std::string> text;
};

// One occurrence of an exploded event as a single event: an alarm at an
// absolute instant belongs to the first occurrence, so each occurrence gets
// it moved by its distance from the first; alarms relative to the start
// follow the occurrence by themselves.
Dictionary singleEventOf(Dictionary occurrence, const Dictionary& master) {
  const Value first = master.get(kCalendarsEventStartDate);
  const Value start = occurrence.get(kCalendarsEventStartDate);
  if (!first.isDate() || !start.isDate()) return occurrence;
  const double shift =
      start.date().timeIntervalSinceReferenceDate() - first.date().timeIntervalSinceReferenceDate();
  if (shift == 0) return occurrence;
  for (const auto& [key, value] : occurrence) {
    auto alarms = value.asArray();
    if (!alarms) continue;
    for (std::size_t i = 0; i < alarms->count(); ++i) {
      auto alarm = alarms->at(i).asDictionary();
      if (!alarm) continue;
      const Value trigger = alarm->get(kCalendarsDisplayAlarmTriggerdate);
      if (trigger.isDate())
        alarm->set(kCalendarsDisplayAlarmTriggerdate,
                   Value(trigger.date().dateByAddingTimeInterval(shift)));
    }
  }
  return occurrence;
}

// Points each sub-record held in `record` back to `identifier`.
void pointSubRecordsTo(const Dictionary& record, const std::string& identifier) {
  for (const auto& [key, value] : record) {
    auto subRecords = value.asArray();
    if (!subRecords) continue;
    for (const Value& element : *subRecords)
      if (auto sub = element.asDictionary(); sub && sub->contains(kCalendarsDisplayAlarmOwner))
        sub->set(kCalendarsDisplayAlarmOwner, Value(Array{Value(identifier)}));
  }
}

}  // namespace

const char* syncOutcomeName(SyncOutcome outcome) {
  switch (outcome) {
    case SyncOutcome::sent: return "sent";
    case SyncOutcome::reduced: return "reduced";
    case SyncOutcome::exploded: return "exploded";
    case SyncOutcome::rejected: return "rejected";
    case SyncOutcome::changedOnPhone: return "changedOnPhone";
  }
  return "sent";
}

namespace {

bool sameIgnoringEntityNames(const Value& a, const Value& b);

void collectDifferences(const Dictionary& a, const Dictionary& b, const std::string& prefix,
                        std::vector<std::string>& fields);

// The differences between two lists of sub-records. A phone may keep fewer
// of them and in another order (one number per type, its own sort), so each
// sub-record is first matched with its counterpart by content: an equal one,
// then one of the same type and value, then one of the same value; those
// left are paired in order, and their fields compared. A sub-record without
// counterpart is named by its position ("phoneNumbers/3"); fields of a
// matched one by the first list's position.
void compareSubRecords(const Array& left, const Array& right, const std::string& where,
                       std::vector<std::string>& fields) {
  auto allRecords = [](const Array& list) {
    return std::all_of(list.begin(), list.end(), [](const Value& v) { return v.isDictionary(); });
  };
  if (!allRecords(left) || !allRecords(right)) {
    for (std::size_t i = 0; i < std::max(left.count(), right.count()); ++i) {
      if (i >= left.count() || i >= right.count() ||
          !sameIgnoringEntityNames(left.at(i), right.at(i)))
        fields.push_back(where + std::to_string(i));
    }
    return;
  }
  constexpr std::size_t kNone = static_cast<std::size_t>(-1);
  std::vector<std::size_t> counterpart(left.count(), kNone);
  std::vector<bool> taken(right.count(), false);
  auto sameKey = [](const Dictionary& l, const Dictionary& r, const char* key) {
    const Value* x = l.find(key);
    const Value* y = r.find(key);
    return x && y && *x == *y;
  };
  const std::function<bool(const Dictionary&, const Dictionary&)> passes[] = {
      [](const Dictionary& l, const Dictionary& r) {
        return sameIgnoringEntityNames(Value(l), Value(r));
      },
      [&](const Dictionary& l, const Dictionary& r) {
        return sameKey(l, r, "type") && sameKey(l, r, "value");
      },
      [&](const Dictionary& l, const Dictionary& r) { return sameKey(l, r, "value"); },
      [](const Dictionary&, const Dictionary&) { return true; },
  };
  for (const auto& matches : passes)
    for (std::size_t i = 0; i < left.count(); ++i) {
      if (counterpart[i] != kNone) continue;
      const Dictionary l = left.at(i).dictionary();
      for (std::size_t j = 0; j < right.count(); ++j)
        if (!taken[j] && matches(l, right.at(j).dictionary())) {
          counterpart[i] = j;
          taken[j] = true;
          break;
        }
    }
  for (std::size_t i = 0; i < left.count(); ++i) {
    const std::string path = where + std::to_string(i);
    if (counterpart[i] == kNone) fields.push_back(path);
    else collectDifferences(left.at(i).dictionary(), right.at(counterpart[i]).dictionary(),
                            path + "/", fields);
  }
  for (std::size_t j = 0; j < right.count(); ++j)
    if (!taken[j]) fields.push_back(where + std::to_string(j));
}

void collectDifferences(const Dictionary& a, const Dictionary& b, const std::string& prefix,
                        std::vector<std::string>& fields) {
  auto differ = [&](const std::string& key, const Value* x, const Value* y) {
    // An empty list holds as much as no list at all.
    auto isEmptyList = [](const Value* v) { return v && v->isArray() && v->array().empty(); };
    if ((!x && (!y || isEmptyList(y))) || (!y && isEmptyList(x))) return;
    if (!x || !y) {
      fields.push_back(prefix + key);
      return;
    }
    auto left = x->asArray();
    auto right = y->asArray();
    if (!left || !right) {
      if (!sameIgnoringEntityNames(*x, *y)) fields.push_back(prefix + key);
      return;
    }
    if (sameIgnoringEntityNames(*x, *y)) return;
    compareSubRecords(*left, *right, prefix + key + "/", fields);
  };
  for (const auto& [key, value] : a) {
    const std::string name = key.stringValue();
    if (name == kEngineRecordEntityNameKey) continue;
    differ(name, &value, b.find(key));
  }
  for (const auto& [key, value] : b) {
    if (a.contains(key)) continue;
    const std::string name = key.stringValue();
    if (name == kEngineRecordEntityNameKey) continue;
    differ(name, nullptr, &value);
  }
}

// Equal values, where dictionaries may differ by their entity names (the
// phone keeps only the keys it syncs).
bool sameIgnoringEntityNames(const Value& a, const Value& b) {
  auto x = a.asDictionary();
  auto y = b.asDictionary();
  if (x && y) {
    std::vector<std::string> fields;
    collectDifferences(*x, *y, "", fields);
    return fields.empty();
  }
  auto l = a.asArray();
  auto r = b.asArray();
  if (l && r) {
    if (l->count() != r->count()) return false;
    for (std::size_t i = 0; i < l->count(); ++i)
      if (!sameIgnoringEntityNames(l->at(i), r->at(i))) return false;
    return true;
  }
  return a == b;
}

}  // namespace

std::vector<std::string> ReferenceSync::differingFields(const Dictionary& a, const Dictionary& b) {
  std::vector<std::string> fields;
  collectDifferences(a, b, "", fields);
  return fields;
}

std::vector<std::string> ReferenceSync::changedFields(const Dictionary& prediction,
                                                      const Dictionary& back,
                                                      const Dictionary& engineRecord) {
  std::vector<std::string> changed;
  for (const std::string& field : differingFields(prediction, back)) {
    const std::string key = field.substr(0, field.find('/'));
    const Value* restored = back.find(key);
    const Value* engine = engineRecord.find(key);
    if ((!restored && !engine) ||
        (restored && engine && sameIgnoringEntityNames(*restored, *engine)))
      continue;
    if (changed.empty() || changed.back() != field) changed.push_back(field);
  }
  return changed;
}

SyncResult ReferenceSync::run(const SyncRun& run, const std::vector<SyncInput>& inputs) {
  return runWith(run, inputs, nullptr);
}

SyncResult ReferenceSync::run(const SyncRun& run, std::vector<SyncInput>&& inputs) {
  return runWith(run, inputs, &inputs);
}

SyncResult ReferenceSync::runWith(const SyncRun& run, const std::vector<SyncInput>& inputs,
                                  std::vector<SyncInput>* owned) {
  SyncResult result;
  SyncReport& report = result.report;

  // --- The phone, from its description -------------------------------------------------
  Phone phone{run, nullptr, nullptr, nullptr, Dictionary()};
  std::string problem;
  phone.schema = EngineSchema::schemaWithContentsOfDirectory(EngineSchema::defaultSchemaDirectory(),
                                                             &problem);
  if (!phone.schema) {
    result.error = problem;
    return result;
  }
  try {
    phone.phoneSide =
        DeviceFormatting::phoneSide(run.deviceDescription, run.entitiesDescription, run.formatting);
  } catch (const Exception& exception) {
    result.error = exception.reason();
    return result;
  }
  if (!phone.phoneSide) {
    result.error = "no phone can be built from this description";
    return result;
  }
  phone.entities = run.entitiesDescription.getDictionary(kEngineClientEntitiesKey).value_or(Dictionary());

  // --- The engine's truth --------------------------------------------------------------
  auto truth = std::make_shared<MemoryTruthSnapshot>();

  // The host's side of the phone: its sync manager, calendars and device
  // manager, handed to the data-class managers, which the helpers ask; each
  // helper gets its manager, and each manager its helper as the delegate of
  // its record assembler.
  CFPhone* conduit = phone.phoneSide->phone();
  ReferenceCalendarsList calendars(truth.get());
  ReferenceSyncManager syncManager;
  syncManager.setPhone(conduit);
  syncManager.setCalendarsList(&calendars);
  syncManager.setRecordSnapShot(truth.get());
  ReferenceDeviceManager deviceManager(conduit);
  std::map<std::string, GenericAssemblerDelegate*> assemblerDelegates;  // entity -> delegate
  for (const Value& entityValue : phone.phoneSide->supportedEntityNames()) {
    const std::string entity = entityValue.stringValue();
    DataClassHelperPtr helper = phone.helperFor(entity);
    const std::string dataClass = phone.dataClassOf(entity);
    if (!helper || !conduit || dataClass.empty()) continue;
    std::shared_ptr<DataClassManager> manager;
    try {
      manager = conduit->managerForDeviceDataClass(dataClass);
    } catch (const Exception& exception) {
      QVT_LOG(kLogWarning, syncLogDomain(), "no manager for {}: {}", dataClass, exception.reason());
    }
    if (!manager) continue;
    if (auto transformer = dynamic_cast<QVTSyncRecordTransformer*>(helper.get()))
      transformer->setDataClassManager(manager.get());
    if (auto reference = dynamic_cast<ReferenceDataClassManager*>(manager.get())) {
      reference->setSyncManager(&syncManager);
      reference->setDeviceManager(&deviceManager);
      if (reference->setAssemblerDelegate(std::dynamic_pointer_cast<Object>(helper)))
        assemblerDelegates[entity] = reference;
    }
  }

  RecordAssembler assembler(phone.schema);
  auto delegateFor = [&](const std::string& entity) -> GenericAssemblerDelegate* {
    if (auto found = assemblerDelegates.find(entity); found != assemblerDelegates.end())
      return found->second;
    return dynamic_cast<GenericAssemblerDelegate*>(phone.helperFor(entity).get());
  };
  std::vector<std::string> masters;
  std::set<std::string> masterEntities;
  for (const SyncInput& input : inputs)
    masterEntities.insert(input.record.getString(kEngineRecordEntityNameKey));
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const SyncInput& input = inputs[i];
    const std::string entity = input.record.getString(kEngineRecordEntityNameKey);
    assembler.setDelegate(delegateFor(entity));
    SplitRecord parts = assembler.split(input.record, input.identifier);
    // The parts share values with the input: a record handed over is let
    // go here and its parts kept as they are; the caller's own are copied.
    if (owned) (*owned)[i].record = Dictionary();
    auto keep = [&](const std::string& identifier, Dictionary& record) {
      if (owned) truth->adoptRecord(identifier, std::move(record));
      else truth->addRecord(identifier, record);
    };
    masters.push_back(input.identifier);
    keep(input.identifier, parts.master);
    for (auto& [identifier, record] : parts.subRecords) {
      // A detached event is a master record of its own.
      if (masterEntities.count(record.getString(kEngineRecordEntityNameKey)))
        masters.push_back(identifier);
      keep(identifier, record);
    }
  }
  if (owned) owned->clear();
  for (const Value& entity : phone.phoneSide->supportedEntityNames())
    if (auto formatter = phone.phoneSide->formatterForEntity(entity.stringValue()))
      formatter->_setSnapShot(truth);
  phone.engineSide = phone.phoneSide->engineSide(truth);
  if (run.stageDone) run.stageDone("truth");
  if (!phone.engineSide) {
    result.error = "the engine cannot rebuild the phone from its client";
    return result;
  }

  // --- The sync window and what the phone holds already ---------------------------------
  Settings settings{(std::filesystem::path(run.phoneDirectory) / kSettingsFileName).string(), {}, {}};
  if (!settings.load(result.error)) return result;
  if (run.anchorDate) settings.values.set(kAnchorDateKey, Value(*run.anchorDate));
  else if (!settings.values.contains(kAnchorDateKey))
    settings.values.set(kAnchorDateKey, Value(QVTSyncServiceExtension::qvt_currentAnchorDate()));
  const CalendarDate windowStart = SyncSettings::qvt_leftExpansionWindow(settings.values);
  const CalendarDate windowEnd = SyncSettings::qvt_rightExpansionWindow(settings.values);

  PhoneStore store(run.phoneDirectory);
  usePhoneParsers(store, phone.phoneSide->phone());
  std::vector<std::string> dataClasses;  // in the order records first name them
  std::map<std::string, PhoneStoreContents> previous;
  auto noteDataClass = [&](const std::string& dataClass) -> bool {
    if (previous.count(dataClass)) return true;
    std::optional<PhoneStoreContents> contents = store.read(dataClass, &result.error);
    if (!contents) return false;
    previous[dataClass] = std::move(*contents);
    dataClasses.push_back(dataClass);
    return true;
  };
  for (const std::string& identifier : masters) {
    const std::string entity = truth->entityNameOfRecord(identifier);
    const std::string dataClass = phone.dataClassOf(entity);
    if (!dataClass.empty() && !noteDataClass(dataClass)) return result;
  }
  std::map<std::string, const PhoneStoreRecord*> onPhone;
  for (const auto& [dataClass, contents] : previous)
    for (const PhoneStoreRecord& record : contents.records) onPhone[record.identifier] = &record;

  // --- Way out -------------------------------------------------------------------------
  std::map<std::string, std::vector<Outgoing>> outgoing;  // data class -> records
  // Keeps an entry for the store: as its text where the file is made of
  // entries' texts, so that a large sync does not hold every formatted record.
  auto send = [&](const std::string& dataClass, Outgoing record) {
    if ((record.text = store.entryText(dataClass, record.stored))) record.stored.fields = Dictionary();
    outgoing[dataClass].push_back(std::move(record));
  };
  std::set<std::string> sentIdentifiers;
  // Unmangles `fields` in place, which must be the caller's own.
  auto unmangled = [&](Dictionary fields, const std::string& entity, RecordHolder& holder) {
    fields.set(kEngineRecordEntityNameKey, Value(entity));
    holder.setMutableDictionary(fields);
    auto helper = phone.helperFor(entity);
    if (auto transformer = dynamic_cast<QVTSyncRecordTransformer*>(helper.get())) {
      try {
        transformer->unmangleRecordAfterReadingFromDevice(holder);
      } catch (const Exception& exception) {
        QVT_LOG(kLogError, syncLogDomain(), "exception {}", exception.description());
      }
    }
    return holder.mutableDictionary();
  };
  // A record the phone holds already: unchanged when its phone form is the
  // prediction; else the phone's version stays and its changes are listed.
  auto changedOnPhone = [&](const std::string& phoneIdentifier, const Dictionary& engineRecord,
                            const Dictionary& holderProperties,
                            const std::optional<Dictionary>& prediction,
                            const Dictionary& phoneRecord, std::vector<SyncField>& changes,
                            const std::string& prefix) {
    auto found = onPhone.find(phoneIdentifier);
    if (found == onPhone.end()) return false;
    // What the phone holds is what this run would send: nothing changed there.
    if (differingFields(found->second->fields, phoneRecord).empty()) return false;
    RecordHolder holder(engineRecord, phoneIdentifier);
    for (const auto& [key, value] : holderProperties) holder.setProperty(value, key.stringValue());
    Dictionary phoneForm =
        unmangled(found->second->fields.deepCopy(), found->second->entity, holder);
    // A phone of instants answers a timed event in its own zone, where the
    // start may fall on another day and the rule names that day: it is
    // compared in the event's zone, as the prediction was formatted.
    const Value engineStart = engineRecord.get(kCalendarsEventStartDate);
    if (found->second->entity == kCalendarsEvent && engineStart.isDate() &&
        !CalendarUtilities::isAllDayEvent(phoneForm))
      CalendarUtilities::convertDatesInTimeZone(phoneForm, nullptr, engineStart.date().timeZone(),
                                                false, false, false);
    std::vector<std::string> fields =
        changedFields(prediction ? *prediction : Dictionary(), phoneForm, engineRecord);
    if (fields.empty()) fields = differingFields(phoneRecord, found->second->fields);
    for (const std::string& field : fields) changes.push_back({prefix + field, std::string()});
    return !fields.empty();
  };

  const std::size_t total = masters.size();
  for (std::size_t done = 0; done < total; ++done) {
    if (run.progress) run.progress(done, total);
    const std::string& identifier = masters[done];
    const std::string entity = truth->entityNameOfRecord(identifier);
    assembler.setDelegate(delegateFor(entity));
    const Dictionary assembled = *assembler.assembledRecord(identifier, *truth);
    const std::string dataClass = phone.dataClassOf(entity);

    SyncRecordReport entry;
    entry.identifier = identifier;
    entry.entity = entity;
    if (dataClass.empty()) {
      entry.outcome = SyncOutcome::rejected;
      entry.reason = "the engine has no entity \"" + entity + "\"";
      report.records.push_back(std::move(entry));
      continue;
    }
    if (run.keepRecords) entry.assembled = assembled;
    const std::size_t reportIndex = report.records.size();

    auto helper = phone.helperFor(entity);
    auto holder = std::make_shared<RecordHolder>(assembled, identifier);
    if (auto transformer = dynamic_cast<QVTSyncRecordTransformer*>(helper.get())) {
      try {
        transformer->mangleRecordBeforePushingToDevice(*holder);
      } catch (const Exception& exception) {
        QVT_LOG(kLogError, syncLogDomain(), "exception {}", exception.description());
      }
    }
    const Dictionary mangled = holder->mutableDictionary();

    // Recurring events the phone cannot hold go as single events.
    bool explode = false;
    auto recurrences = mangled.getArray(kRecurrencesKey);
    if (recurrences && !recurrences->empty()) {
      if (auto protocol = dynamic_cast<QVTSyncEventTransformerProtocol*>(helper.get()))
        explode = !protocol->deviceSupportRecurrentEvent(*holder);
      else
        explode = !phone.syncsKey(entity, kRecurrencesKey);
    }

    if (explode) {
      // The engine's event is exploded, not its mangled form: mangling puts
      // the start on the phone's wall clock, the until date at 12:00 GMT and
      // the alarms at absolute instants, all of which would move the
      // occurrences the rule produces. Each occurrence is then mangled and
      // formatted as a single event, so that it falls on its real instant
      // with alarms relative to itself.
      Array events;
      try {
        const CALDateRef start = CALDate::CALDateFromCalendarDate(windowStart, false);
        const CALDateRef end = CALDate::CALDateFromCalendarDate(windowEnd, false);
        const CALTimeRange window(start.get(), end.get());
        auto exploder = CALEventExploder::CALEventExploderWithAssembledEvent(assembled);
        if (!exploder)
          raiseException(kInvalidArgumentException, "the event holds more than one recurrence");
        events = exploder->eventsForDates(
            exploder->produceDatesForTimeRange(window, truth.get(), identifier));
      } catch (const Exception& exception) {
        entry.outcome = SyncOutcome::rejected;
        const std::string reason = exception.reason();
        entry.reason = "the recurrence cannot be exploded: " + reason.substr(0, reason.find('\n'));
        report.records.push_back(std::move(entry));
        continue;
      }
      entry.outcome = SyncOutcome::exploded;
      std::vector<SyncField> changes;
      for (std::size_t i = 0; i < events.count(); ++i) {
        const Dictionary engineEvent = singleEventOf(events.at(i).dictionary(), assembled);
        // Named by its start, so that the same single event keeps its name
        // when the window moves.
        const Value start = engineEvent.get("startDate");
        const std::string occurrence =
            identifier + "#" +
            (start.isDate() ? start.date().dateWithTimeZone(TimeZone::gmt()).descriptionWithCalendarFormat(
                                  "%Y%m%dT%H%M%SZ")
                            : std::to_string(i + 1));
        // The occurrence stands in the truth while it is formatted, and its
        // sub-records point back to it: the formatting hooks reckon an
        // alarm from its owner's start, which is this occurrence's.
        pointSubRecordsTo(engineEvent, occurrence);
        truth->addRecord(occurrence, engineEvent);
        struct Leave {
          MemoryTruthSnapshot& truth;
          const std::string& identifier;
          ~Leave() { truth.removeRecord(identifier); }
        } leave{*truth, occurrence};
        RecordHolder single(engineEvent, occurrence);
        if (auto transformer = dynamic_cast<QVTSyncRecordTransformer*>(helper.get())) {
          try {
            transformer->mangleRecordBeforePushingToDevice(single);
          } catch (const Exception& exception) {
            QVT_LOG(kLogError, syncLogDomain(), "exception {}", exception.description());
          }
        }
        // The holder's record is its own deep copy, and nothing reads it
        // after formatting: it is formatted where it stands.
        FormattingOutcome formatted = phone.phoneSide->formatRecordTakingOwnership(single.mutableDictionary());
        if (!formatted.record) continue;
        if (run.keepRecords) entry.singleEvents.push_back({occurrence, *formatted.record});
        // The prediction is needed only to judge a single event the phone
        // holds already.
        std::optional<Dictionary> prediction;
        if (onPhone.count(occurrence))
          prediction = phone.engineSide->formatRecord(engineEvent).record;
        if (changedOnPhone(occurrence, engineEvent, single.properties(), prediction,
                           *formatted.record, changes, occurrence + ": "))
          send(dataClass, Outgoing{*onPhone[occurrence], false, {}, std::nullopt, reportIndex, {}});
        else
          send(dataClass, Outgoing{{occurrence, entity, *formatted.record}, false,
                                         single.properties(), std::nullopt, reportIndex, {}});
        sentIdentifiers.insert(occurrence);
        ++entry.events;
      }
      if (!changes.empty()) {
        entry.outcome = SyncOutcome::changedOnPhone;
        entry.fields = std::move(changes);
      }
      report.records.push_back(std::move(entry));
      continue;
    }

    // The mangled record is the holder's own deep copy, read no more: it is
    // formatted where it stands.
    FormattingOutcome formatted = phone.phoneSide->formatRecordTakingOwnership(mangled);
    if (!formatted.record) {
      entry.outcome = SyncOutcome::rejected;
      entry.reason = formatted.rejection.empty() ? "the phone cannot hold this record"
                                                 : formatted.rejection;
      report.records.push_back(std::move(entry));
      continue;
    }
    // The prediction is needed only to judge what the phone holds already.
    std::optional<Dictionary> prediction;
    if (run.keepRecords || onPhone.count(identifier))
      prediction = phone.engineSide->formatRecord(assembled).record;
    std::vector<SyncField> changes;
    if (changedOnPhone(identifier, assembled, holder->properties(), prediction, *formatted.record,
                       changes, "")) {
      entry.outcome = SyncOutcome::changedOnPhone;
      entry.fields = std::move(changes);
      send(dataClass, Outgoing{*onPhone[identifier], false, {}, std::nullopt, reportIndex, {}});
    } else {
      send(dataClass, Outgoing{{identifier, entity, *formatted.record}, true,
                                     holder->properties(), std::nullopt, reportIndex, {}});
    }
    if (run.keepRecords) entry.prediction = std::move(prediction);
    sentIdentifiers.insert(identifier);
    report.records.push_back(std::move(entry));
  }
  if (run.progress) run.progress(total, total);

  // Records made on the phone, unknown to the engine, stay on the phone. The
  // single events of an exploded event that fell out of the window go.
  const std::set<std::string> masterSet(masters.begin(), masters.end());
  for (const auto& [dataClass, contents] : previous)
    for (const PhoneStoreRecord& record : contents.records) {
      if (sentIdentifiers.count(record.identifier)) continue;
      const std::size_t hash = record.identifier.rfind('#');
      if (hash != std::string::npos && masterSet.count(record.identifier.substr(0, hash))) continue;
      SyncRecordReport entry;
      entry.identifier = record.identifier;
      entry.entity = record.entity;
      entry.outcome = SyncOutcome::changedOnPhone;
      entry.fields.push_back({"added on the phone", std::string()});
      send(dataClass, Outgoing{record, false, {}, std::nullopt, report.records.size(), {}});
      report.records.push_back(std::move(entry));
    }

  // What the phone held is in `outgoing` now, where it stays.
  onPhone.clear();
  previous.clear();

  // Phone entries the caller wants in the engine's form: unmangled with what
  // the mangling of their engine record noted, as on the way back.
  if (!run.unmangle.empty())
    for (const auto& [dataClass, records] : outgoing)
      for (const Outgoing& record : records) {
        if (record.original) continue;  // a single event of an exploded one
        auto [from, to] = run.unmangle.equal_range(record.stored.identifier);
        if (from == to) continue;
        assembler.setDelegate(delegateFor(record.stored.entity));
        const Dictionary assembled = *assembler.assembledRecord(record.stored.identifier, *truth);
        for (auto it = from; it != to; ++it) {
          RecordHolder holder(assembled, record.stored.identifier);
          for (const auto& [key, value] : record.holderProperties)
            holder.setProperty(value, key.stringValue());
          result.unmangled[it->second.identifier] =
              unmangled(it->second.fields.deepCopy(), it->second.entity, holder);
        }
      }

  // --- Into the store ------------------------------------------------------------------
  if (!settings.save(report.filesWritten, result.error)) return result;
  for (const std::string& dataClass : dataClasses) {
    std::vector<Outgoing>& records = outgoing[dataClass];
    const bool asTexts = !records.empty() && records.front().text;
    std::optional<std::string> bytes;
    std::string error;
    if (asTexts) {
      std::vector<std::string> texts;
      texts.reserve(records.size());
      for (Outgoing& record : records) {
        texts.push_back(std::move(*record.text));
        record.text.reset();
      }
      bytes = store.bytesForEntryTexts(dataClass, texts);
    } else {
      PhoneStoreContents contents{dataClass, {}};
      for (const Outgoing& record : records) contents.records.push_back(record.stored);
      bytes = store.bytesFor(contents, &error);
    }
    const PhoneStore::WriteResult written =
        bytes ? store.writeBytes(dataClass, *bytes, &error) : PhoneStore::WriteResult::failed;
    bytes.reset();
    switch (written) {
      case PhoneStore::WriteResult::written:
        report.filesWritten.push_back(store.pathForDataClass(dataClass));
        break;
      case PhoneStore::WriteResult::unchanged: break;
      case PhoneStore::WriteResult::failed: result.error = error; return result;
    }
    // What comes back is read from the store.
    for (Outgoing& record : outgoing[dataClass]) record.stored.fields = Dictionary();
  }

  if (run.stageDone) run.stageDone("out");

  // --- Way back ------------------------------------------------------------------------
  for (const std::string& dataClass : dataClasses) {
    std::optional<PhoneStoreContents> contents = store.read(dataClass, &result.error);
    if (!contents) return result;
    std::map<std::string, const Outgoing*> sent;
    for (const Outgoing& record : outgoing[dataClass]) sent[record.stored.identifier] = &record;
    for (const PhoneStoreRecord& stored : contents->records) {
      auto found = sent.find(stored.identifier);
      if (found == sent.end() || !found->second->comesBack) continue;
      const Outgoing& record = *found->second;
      SyncRecordReport& entry = report.records[record.report];
      assembler.setDelegate(delegateFor(stored.entity));
      const Dictionary assembled =
          record.original ? *record.original
                          : *assembler.assembledRecord(stored.identifier, *truth);
      RecordHolder holder(assembled, stored.identifier);
      for (const auto& [key, value] : record.holderProperties)
        holder.setProperty(value, key.stringValue());
      // The store's contents were read for this loop alone: the fields are
      // unmangled where they are.
      const Dictionary back = unmangled(stored.fields, stored.entity, holder);
      for (const std::string& field : differingFields(assembled, back))
        entry.fields.push_back({field, phone.limitFor(entry.entity, field)});
      entry.outcome = entry.fields.empty() ? SyncOutcome::sent : SyncOutcome::reduced;
      // The engine's records the phone's form splits into are only shown,
      // never written: they are made when the caller keeps the records.
      if (run.keepRecords) {
        entry.roundTrip = back;
        entry.engineRecords = assembler.split(back, stored.identifier);
      }
    }
  }

  if (run.stageDone) run.stageDone("back");
  for (const SyncRecordReport& entry : report.records) {
    switch (entry.outcome) {
      case SyncOutcome::sent: ++report.summary.sent; break;
      case SyncOutcome::reduced: ++report.summary.reduced; break;
      case SyncOutcome::exploded: ++report.summary.exploded; break;
      case SyncOutcome::rejected: ++report.summary.rejected; break;
      case SyncOutcome::changedOnPhone: ++report.summary.changedOnPhone; break;
    }
  }
  return result;
}

}  // namespace pc
