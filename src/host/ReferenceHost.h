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

#include "host/HostInterfaces.h"

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

// The common behaviour of the reference data-class managers: they keep their
// properties, data class and conduit manager, and prepare their assemblers once.
class ReferenceDataClassManager : public DataClassManager {
 public:
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
};

// Answers the record assembler's questions about contacts through the
// contacts helper it is given (the phone's, kept weakly: the phone owns it).
// Without a helper the answers are empty and nothing is sorted.
class ContactManager : public ReferenceDataClassManager, public GenericAssemblerDelegate {
 public:
  std::string className() const override { return "ContactManager"; }

  // Keeps `helper` when it answers the assembler; answers whether it does.
  bool setAssemblerDelegate(const std::shared_ptr<Object>& helper);
  std::shared_ptr<GenericAssemblerDelegate> assemblerDelegate() const;

  Array masterRelationKeysForMasterEntity(const std::string& masterEntity) override;
  Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string& masterEntity) override;
  Dictionary entityToBackRelationShipForMasterEntity(const std::string& masterEntity) override;
  Array extraKeysForMasterEntity(const std::string& masterEntity) override;
  void sortRelation(const std::string& relation, Array& identifiers, const Dictionary& records,
                    const std::string& entity) override;
  void addCustomField(const Value& field, const std::string& key) override;

 private:
  std::weak_ptr<GenericAssemblerDelegate> _assemblerDelegate;
};

class CalendarManager : public ReferenceDataClassManager {
 public:
  std::string className() const override { return "CalendarManager"; }
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
