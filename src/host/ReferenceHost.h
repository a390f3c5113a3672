#pragma once
// The reference host: a simulated phone that keeps what it was sent and sends
// it back, its synchronisation and persistence services, the "ContactManager"
// and "CalendarManager" data-class managers, a property-list parser
// ("PropertyListParser"), and a conduit manager that serves all of it to a
// phone conduit as its delegate.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/HostInterfaces.h"

namespace pc {

// Answers "$name" variables from a dictionary.
class SimulatedSyncService : public DeviceSyncService {
 public:
  explicit SimulatedSyncService(const Dictionary& variables = Dictionary())
      : _variables(variables.deepCopy()) {}

  std::string className() const override { return "SimulatedSyncService"; }
  std::string serviceName() const override { return kSynchronisationServiceName; }
  std::optional<Value> valueForVariable(const std::string& name) const override;
  void setVariable(const Value& value, const std::string& name) {
    _variables.set(name, value.deepCopy());
  }

 private:
  Dictionary _variables;
};

// Keeps one dictionary per domain.
class SimulatedPersistenceService : public DevicePersistenceService {
 public:
  std::string className() const override { return "SimulatedPersistenceService"; }
  std::string serviceName() const override { return kPersistenceServiceName; }
  void cleanupDomain(const std::string& domain) override;

  // The domain's state, created empty on first use; shared, so that the
  // caller edits the device's state in place.
  Dictionary domain(const std::string& name);
  bool hasDomain(const std::string& name) const { return _domains.count(name) != 0; }

 private:
  std::map<std::string, Dictionary> _domains;
};

// A phone: an identifier, the two services, and per data class the data it
// was last sent.
class SimulatedPhone : public QVTDeviceObject {
 public:
  explicit SimulatedPhone(std::string deviceUID, Dictionary variables = Dictionary());

  std::string deviceUID() const override { return _deviceUID; }
  std::shared_ptr<DeviceService> serviceWithName(const std::string& name) const override;

  const std::shared_ptr<SimulatedSyncService>& syncService() const { return _syncService; }
  const std::shared_ptr<SimulatedPersistenceService>& persistenceService() const {
    return _persistenceService;
  }

  void receiveData(const std::string& dataClass, const Data& data) { _stored[dataClass] = data; }
  // What the phone holds for the data class; empty when it was sent nothing.
  Data sendData(const std::string& dataClass) const;

 private:
  std::string _deviceUID;
  std::shared_ptr<SimulatedSyncService> _syncService;
  std::shared_ptr<SimulatedPersistenceService> _persistenceService;
  std::map<std::string, Data> _stored;
};

// The user's calendars, answered from the engine's calendar records: a
// record belongs to the calendar its "calendar" relation points to (an
// identifier, or a list whose first element is one).
class ReferenceCalendarsList : public CalendarsList {
 public:
  // `snapshot` is not owned and may be null (every record is then an orphan).
  explicit ReferenceCalendarsList(const TruthSnapshot* snapshot = nullptr) : _snapshot(snapshot) {}
  void setSnapshot(const TruthSnapshot* snapshot) { _snapshot = snapshot; }
  std::optional<Dictionary> calendarForRecord(const Dictionary& record,
                                              std::string* identifierPointer) override;

 private:
  const TruthSnapshot* _snapshot = nullptr;
};

// The host's sync manager for one phone: everything it answers is set by its
// owner, and nothing it points to is owned.
class ReferenceSyncManager : public QVTSyncManager {
 public:
  CFPhone* phone() override { return _phone; }
  CalendarsList* calendarsList() override { return _calendarsList; }
  Object* syncTransport() override { return _transport.get(); }
  bool isInBrisalde() const override { return _inBrisalde; }
  const TruthSnapshot* recordSnapShot() const override { return _snapshot; }

  void setPhone(CFPhone* phone) { _phone = phone; }
  void setCalendarsList(CalendarsList* list) { _calendarsList = list; }
  // The transport is kept alive by the manager (it is the host's object).
  void setSyncTransport(ObjectPtr transport) { _transport = std::move(transport); }
  void setInBrisalde(bool value) { _inBrisalde = value; }
  void setRecordSnapShot(const TruthSnapshot* snapshot) { _snapshot = snapshot; }

 private:
  CFPhone* _phone = nullptr;
  CalendarsList* _calendarsList = nullptr;
  ObjectPtr _transport;
  bool _inBrisalde = false;
  const TruthSnapshot* _snapshot = nullptr;
};

// What the host keeps of the phone's records, in memory: engine identifier ->
// the device's record (with its "RawProperties").
class ReferenceDeviceStore : public DeviceStore {
 public:
  std::optional<Dictionary> getPrivateStorageDeviceRecordForKey(
      const std::string& key) const override;
  // Stores a deep copy; a null record forgets the key.
  void setPrivateStorageDeviceRecord(const std::optional<Dictionary>& record,
                                     const std::string& key);

 private:
  std::map<std::string, Dictionary> _records;
};

// The phone's parsers (asked of the phone) and one
// in-memory store per data class, made on first request.
class ReferenceDeviceManager : public DeviceManager {
 public:
  // `phone` is not owned and may be null (no parsers then).
  explicit ReferenceDeviceManager(CFPhone* phone = nullptr) : _phone(phone) {}
  void setPhone(CFPhone* phone) { _phone = phone; }
  DeviceParserPtr parserForDataClass(const std::string& deviceDataClass) override;
  std::shared_ptr<DeviceStore> storeForDeviceDataClass(const std::string& deviceDataClass) override;
  // The same store, typed, to fill it.
  std::shared_ptr<ReferenceDeviceStore> referenceStoreForDeviceDataClass(
      const std::string& deviceDataClass);

 private:
  CFPhone* _phone = nullptr;
  std::map<std::string, std::shared_ptr<ReferenceDeviceStore>> _stores;
};

// The common behaviour of the reference data-class managers: they keep their
// properties, data class and conduit manager, and prepare their assemblers once.
//
// A manager also answers its record assembler: which relations and extra
// keys make up a master record, and how sub-records are sorted. It asks its
// data-class helper, set as its assembler delegate and kept weakly (the phone
// owns its helpers); without one it answers that a master has no
// sub-records and no extra keys, and sorts nothing.
class ReferenceDataClassManager : public DataClassManager, public GenericAssemblerDelegate {
 public:
  // Keeps `helper` when it answers the assembler; answers whether it does.
  // Null forgets the delegate.
  bool setAssemblerDelegate(const std::shared_ptr<Object>& helper);
  std::shared_ptr<GenericAssemblerDelegate> assemblerDelegate() const;

  Array masterRelationKeysForMasterEntity(const std::string& masterEntity) override;
  Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string& masterEntity) override;
  Dictionary entityToBackRelationShipForMasterEntity(const std::string& masterEntity) override;
  Array extraKeysForMasterEntity(const std::string& masterEntity) override;
  void sortRelation(const std::string& relation, Array& identifiers, const Dictionary& records,
                    const std::string& entity) override;
  void addCustomField(const Value& field, const std::string& key) override;

  // The phone-side objects the helpers ask for; not owned, may be null.
  void setSyncManager(QVTSyncManager* manager) { _syncManager = manager; }
  void setDeviceManager(DeviceManager* manager) { _deviceManager = manager; }
  QVTSyncManager* syncManager() override { return _syncManager; }
  DeviceManager* deviceManager() override { return _deviceManager; }

  void initWithProperty(const Dictionary& properties, const std::string& deviceDataClass,
                        SyncConduitManager* manager) override;
  void prepareAssemblers() override { _assemblersPrepared = true; }
  std::string deviceDataClass() const override { return _deviceDataClass; }
  Dictionary properties() const override { return _properties.deepCopy(); }

  SyncConduitManager* conduitManager() const { return _conduitManager; }
  bool assemblersPrepared() const { return _assemblersPrepared; }

 private:
  Dictionary _properties;
  std::string _deviceDataClass;
  SyncConduitManager* _conduitManager = nullptr;
  bool _assemblersPrepared = false;
  std::weak_ptr<GenericAssemblerDelegate> _assemblerDelegate;
  QVTSyncManager* _syncManager = nullptr;
  DeviceManager* _deviceManager = nullptr;
};

// The contacts data class.
class ContactManager : public ReferenceDataClassManager {
 public:
  std::string className() const override { return "ContactManager"; }
};

// The calendar data class: the zone the phone will be set to is the phone's
// own, and alarms always go to the phone.
class CalendarManager : public ReferenceDataClassManager {
 public:
  std::string className() const override { return "CalendarManager"; }
  TimeZonePtr _nextTimeZone() override;
  bool shouldSyncAlarm() override { return true; }
};

// Writes records as an XML property list (an array of record dictionaries).
class PropertyListParser : public DeviceParser {
 public:
  std::string className() const override { return "PropertyListParser"; }
  void initWithPhone(CFPhone* phone, const std::optional<Dictionary>& context) override;
  Data dataFromRecords(const Array& records) override;
  std::optional<Array> recordsFromData(const Data& data) override;

  CFPhone* phone() const { return _phone; }
  // The caller's own copy.
  std::optional<Dictionary> context() const {
    return _context ? std::optional(_context->deepCopy()) : std::nullopt;
  }

 private:
  CFPhone* _phone = nullptr;
  std::optional<Dictionary> _context;
};

// The host's conduit manager for one connected phone, acting as the phone
// conduit's delegate. Everything it answers is set by its owner.
class ReferenceConduitManager : public SyncConduitManager,
                                public SyncConduitManagerDelegateProtocol {
 public:
  ReferenceConduitManager(std::shared_ptr<SimulatedPhone> device,
                          std::shared_ptr<SyncEngineClient> client);

  // The device description and its format version.
  void setPhoneConduitDescription(const std::optional<Dictionary>& description,
                                  std::int32_t version);
  void setSyncEnginePlist(const std::optional<Dictionary>& plist);
  void setPathForSyncPersistence(std::optional<std::string> path) { _path = std::move(path); }
  // Makes `parserClassName` the parser supplied for the service `name`.
  void addParserService(const std::string& name, const std::string& parserClassName);

  std::optional<Dictionary> phoneConduitDescriptionWithVersion(std::int32_t* version) override;
  std::optional<Dictionary> syncEnginePlist() override;
  std::shared_ptr<SyncEngineClient> syncClient() override { return _client; }
  std::shared_ptr<QVTDeviceObject> device() override { return _device; }
  std::optional<std::string> pathForSyncPersistence() override { return _path; }
  DeviceParserPtr parserWithName(const std::string& name, const Dictionary& info,
                                 CFPhone& phone) override;

  const std::shared_ptr<SimulatedPhone>& simulatedPhone() const { return _device; }

 private:
  std::shared_ptr<SimulatedPhone> _device;
  std::shared_ptr<SyncEngineClient> _client;
  std::optional<Dictionary> _description;
  std::int32_t _version = 0;
  std::optional<Dictionary> _syncEnginePlist;
  std::optional<std::string> _path;
  std::map<std::string, std::string> _parserServices;  // service name -> parser class
};

}  // namespace pc
