#pragma once
// The host phone-sync agent's objects as the conduit uses them: the conduit
// manager and its delegate, the connected device with its named services, the
// data-class managers and parsers created by class name from a device
// description. They sit with the platform, below every layer that uses them,
// because the host is outside this system; the reference host
// (host/ReferenceHost.h) implements them.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Object.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

class CFPhone;
class DeviceManager;
class RecordHolder;
class QVTSyncManager;
class SyncEngineClient;
class TruthSnapshot;

// Names of the device services the conduit asks for.
inline constexpr const char* kSynchronisationServiceName = "com.velmora.synchro";
inline constexpr const char* kPersistenceServiceName = "com.velmora.persistence";
// The persistence domain that holds the device's synchronisation state.
inline constexpr const char* kDeviceSyncDBDomain = "DeviceSyncDB";

// A named service of a connected device.
class DeviceService : public Object {
 public:
  virtual std::string serviceName() const = 0;
};

// The synchronisation service: the device's variables, which descriptions
// reference as "$name".
class DeviceSyncService : public DeviceService {
 public:
  // nullopt when the device defines no such variable.
  virtual std::optional<Value> valueForVariable(const std::string& name) const = 0;
};

// The persistence service: per-domain state the host keeps for the device.
class DevicePersistenceService : public DeviceService {
 public:
  // Forgets everything kept in `domain`.
  virtual void cleanupDomain(const std::string& domain) = 0;
};

// The connected device.
class QVTDeviceObject {
 public:
  virtual ~QVTDeviceObject() = default;
  virtual std::string deviceUID() const = 0;
  // nullptr when the device offers no service of that name.
  virtual std::shared_ptr<DeviceService> serviceWithName(const std::string& name) const = 0;
};

// The host's conduit manager, handed to data-class managers.
class SyncConduitManager {
 public:
  virtual ~SyncConduitManager() = default;
  virtual std::shared_ptr<QVTDeviceObject> device() = 0;
  virtual std::shared_ptr<SyncEngineClient> syncClient() = 0;
};

// A data-class manager, created by class name ("ContactManager",
// "CalendarManager" or any registered class) and then initialised.
class DataClassManager : public Object {
 public:
  // `properties`: the manager's part of the device description, which the
  // manager copies if it keeps it; `manager` is not owned and may be null.
  virtual void initWithProperty(const Dictionary& properties, const std::string& deviceDataClass,
                                SyncConduitManager* manager) = 0;
  virtual void prepareAssemblers() = 0;
  virtual std::string deviceDataClass() const = 0;
  // The caller's own copy.
  virtual Dictionary properties() const = 0;

  // What the data-class helpers ask of their manager. The defaults answer as
  // a manager without a connected phone does.
  // The sync manager of the phone this manager serves; not owned, may be null.
  virtual QVTSyncManager* syncManager() { return nullptr; }
  // The device manager with the phone's parsers and stores; not owned, may be null.
  virtual DeviceManager* deviceManager() { return nullptr; }
  // The zone the phone will be set to; null when unknown.
  virtual TimeZonePtr _nextTimeZone() { return nullptr; }
  // Whether alarms go to the phone at all.
  virtual bool shouldSyncAlarm() { return true; }
};

// A parser, created by class name, that turns records into what the phone
// stores and back.
class DeviceParser : public Object {
 public:
  // `phone` is not owned; `context` holds the parser's (and its manager's)
  // attributes from the device description, when there are any (copied if kept).
  virtual void initWithPhone(CFPhone* phone, const std::optional<Dictionary>& context) = 0;
  virtual Data dataFromRecords(const Array& records) = 0;
  // nullopt when the data cannot be read.
  virtual std::optional<Array> recordsFromData(const Data& data) = 0;
};

using DeviceParserPtr = std::shared_ptr<DeviceParser>;

// A parser that can tell which recurrence rules the phone stores (vCalendar
// phones). Parsers conform by also deriving from it; callers test with
// dynamic_cast.
class VCalParserExternal {
 public:
  virtual ~VCalParserExternal() = default;
  // Whether the phone stores all-day events as such.
  virtual bool supportsADE() const = 0;
  // Whether the phone stores `rule` (a recurrence record) for `event`;
  // `extraProperties` are the phone's raw properties of the event when known,
  // `originalEvent` the engine's record.
  virtual bool deviceHandleRule(const Dictionary& rule, const Dictionary& event,
                                const std::optional<Dictionary>& extraProperties,
                                const Dictionary& originalEvent) = 0;
};

// The same question for phones whose agent parser decides without the raw
// properties.
class AgentParserExternal {
 public:
  virtual ~AgentParserExternal() = default;
  virtual bool deviceHandleRule(const Dictionary& rule, const Dictionary& event,
                                const Dictionary& originalEvent) = 0;
};

// What the host keeps of the device's records for one data class.
class DeviceStore {
 public:
  virtual ~DeviceStore() = default;
  // The stored record of `key` (an engine identifier); its "RawProperties"
  // entry holds the phone's raw properties. nullopt when none is stored.
  virtual std::optional<Dictionary> getPrivateStorageDeviceRecordForKey(
      const std::string& key) const = 0;
};

// The host's device manager: the phone's parsers and stores by data class.
class DeviceManager {
 public:
  virtual ~DeviceManager() = default;
  // nullptr when the data class has no parser.
  virtual DeviceParserPtr parserForDataClass(const std::string& deviceDataClass) = 0;
  // nullptr when the host keeps no store for the data class.
  virtual std::shared_ptr<DeviceStore> storeForDeviceDataClass(
      const std::string& deviceDataClass) = 0;
};

// The user's calendars as the host knows them.
class CalendarsList {
 public:
  virtual ~CalendarsList() = default;
  // The calendar record (with its read-only flag) that `record` belongs to,
  // filling `identifierPointer` (when given) with its identifier; nullopt for
  // an orphan record.
  virtual std::optional<Dictionary> calendarForRecord(const Dictionary& record,
                                                      std::string* identifierPointer) = 0;
};

// The host's sync manager for one connected phone.
class QVTSyncManager {
 public:
  virtual ~QVTSyncManager() = default;
  // Not owned; null before the phone is built.
  virtual CFPhone* phone() = 0;
  // Not owned; may be null.
  virtual CalendarsList* calendarsList() = 0;
  // The transport to the phone; its class name tells the transport's kind.
  // Not owned; may be null.
  virtual Object* syncTransport() = 0;
  // The host's mode in which the phone's zone is not checked against events.
  virtual bool isInBrisalde() const = 0;
  // The engine's truth for this sync; not owned, may be null.
  virtual const TruthSnapshot* recordSnapShot() const = 0;
};

// What the host asks the calendar data class's helper (the event
// transformer) before it pushes events: the phone's date conventions, and
// whether the phone stores an event's recurrence (false: the host explodes
// the event into single events).
class QVTSyncEventTransformerProtocol {
 public:
  virtual ~QVTSyncEventTransformerProtocol() = default;
  virtual bool supportsGMTDates() const = 0;
  virtual bool hasAllDayMultiDay() const = 0;
  virtual bool hasAllDayEvents() const = 0;
  virtual bool deviceSupportRecurrentEvent(RecordHolder& holder) = 0;
};

// The delegate the host's record assembler asks how master records (events,
// tasks, contacts) and their sub-records (alarms, recurrences, phone
// numbers, ...) make one assembled record. The data-class helpers implement
// it for their data class.
class GenericAssemblerDelegate {
 public:
  virtual ~GenericAssemblerDelegate() = default;
  // The relations of the master entity that hold sub-records, in order.
  virtual Array masterRelationKeysForMasterEntity(const std::string& masterEntity) = 0;
  // Relation name -> the entity of its sub-records.
  virtual Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string& masterEntity) = 0;
  // Sub-entity -> the relation by which its records point back to the master.
  virtual Dictionary entityToBackRelationShipForMasterEntity(const std::string& masterEntity) = 0;
  // The relation by which records of `entity` point back to a master of
  // `masterEntity`, "" when there is none: one entry of the dictionary
  // above, which a delegate with fixed rules answers without building it.
  virtual std::string backRelationOfEntity(const std::string& entity, const std::string& masterEntity) {
    return entityToBackRelationShipForMasterEntity(masterEntity).getString(entity);
  }
  // Keys of the master that travel with the assembled record (a set, held
  // as an array without duplicates).
  virtual Array extraKeysForMasterEntity(const std::string& masterEntity) = 0;
  // Puts `identifiers` (the sub-records of `relation`, looked up in
  // `records`: identifier -> record) in the order the phone wants.
  virtual void sortRelation(const std::string& relation, Array& identifiers,
                            const Dictionary& records, const std::string& entity) = 0;
  virtual void addCustomField(const Value& field, const std::string& key) = 0;
};

// The data source a phone is built from on the host.
class SyncConduitManagerDelegateProtocol {
 public:
  virtual ~SyncConduitManagerDelegateProtocol() = default;
  // The device description, as the caller's own copy; fills `version` (when
  // given) with its format version. nullopt when the host has none for this phone.
  virtual std::optional<Dictionary> phoneConduitDescriptionWithVersion(std::int32_t* version) = 0;
  // The engine's description of the client (its "Entities" entry: entity
  // name -> keys the phone syncs), as the caller's own copy.
  virtual std::optional<Dictionary> syncEnginePlist() = 0;
  virtual std::shared_ptr<SyncEngineClient> syncClient() = 0;
  virtual std::shared_ptr<QVTDeviceObject> device() = 0;
  virtual std::optional<std::string> pathForSyncPersistence() = 0;
  // A parser the host supplies by service name; nullptr when it has none.
  virtual DeviceParserPtr parserWithName(const std::string& name, const Dictionary& info,
                                         CFPhone& phone) = 0;
};

// One record on its way to or from the phone: the engine's record, the copy
// being transformed in place, the identifier of its master record, and side
// properties that travel from mangling to the unmangling of the same record.
//
// The holder keeps its own deep copies: of the engine's record when it is
// made, and of every property value it is given; it answers deep copies of
// them, so the original stays the engine's record whatever is done to the
// record being transformed or to an answer. The record being transformed is
// the one container shared on purpose: it is edited in place.
class RecordHolder {
 public:
  explicit RecordHolder(const Dictionary& originalRecord, std::string masterIdentifier = {});

  // The engine's record, as the caller's own copy.
  Dictionary originalRecord() const { return _originalRecord.deepCopy(); }
  // Shared with the holder: changes made through it are the holder's. It
  // starts as a deep copy of the engine's record.
  Dictionary mutableDictionary() const { return _mutableDictionary; }
  // Makes `record` the record being transformed (shared, as above).
  void setMutableDictionary(const Dictionary& record) { _mutableDictionary = record; }
  const std::string& masterIdentifier() const { return _masterIdentifier; }
  void setMasterIdentifier(std::string identifier) { _masterIdentifier = std::move(identifier); }

  // Stores a deep copy of `value`; storing null removes the property.
  void setProperty(const Value& value, const std::string& key);
  void setBooleanProperty(bool value, const std::string& key) { setProperty(Value(value), key); }
  // Null when the property is not set; a container is the caller's own copy.
  Value propertyForKey(const std::string& key) const { return _properties.get(key).deepCopy(); }
  bool booleanPropertyForKey(const std::string& key) const { return _properties.getBool(key); }
  Dictionary properties() const { return _properties.deepCopy(); }

 private:
  Dictionary _originalRecord;
  Dictionary _mutableDictionary;
  std::string _masterIdentifier;
  Dictionary _properties;
};

}  // namespace pc
