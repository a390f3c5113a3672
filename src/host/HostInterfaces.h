#pragma once
// The host phone-sync agent's objects as the conduit uses them: the conduit
// manager and its delegate, the connected device with its named services, the
// data-class managers and parsers created by class name from a device
// description. The reference host (ReferenceHost.h) implements them.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

class CFPhone;
class SyncEngineClient;

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
  // `properties`: the manager's part of the device description; `manager`
  // is not owned and may be null.
  virtual void initWithProperty(const Dictionary& properties, const std::string& deviceDataClass,
                                SyncConduitManager* manager) = 0;
  virtual void prepareAssemblers() = 0;
  virtual std::string deviceDataClass() const = 0;
  virtual Dictionary properties() const = 0;
};

// A parser, created by class name, that turns records into what the phone
// stores and back.
class DeviceParser : public Object {
 public:
  // `phone` is not owned; `context` holds the parser's (and its manager's)
  // attributes from the device description, when there are any.
  virtual void initWithPhone(CFPhone* phone, const std::optional<Dictionary>& context) = 0;
  virtual Data dataFromRecords(const Array& records) = 0;
  // nullopt when the data cannot be read.
  virtual std::optional<Array> recordsFromData(const Data& data) = 0;
};

using DeviceParserPtr = std::shared_ptr<DeviceParser>;

// The data source a phone is built from on the host.
class SyncConduitManagerDelegateProtocol {
 public:
  virtual ~SyncConduitManagerDelegateProtocol() = default;
  // The device description; fills `version` (when given) with its format
  // version. nullopt when the host has none for this phone.
  virtual std::optional<Dictionary> phoneConduitDescriptionWithVersion(std::int32_t* version) = 0;
  // The engine's description of the client (its "Entities" entry: entity
  // name -> keys the phone syncs).
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
class RecordHolder {
 public:
  explicit RecordHolder(const Dictionary& originalRecord, std::string masterIdentifier = {});

  const Dictionary& originalRecord() const { return _originalRecord; }
  // Shared with the holder: changes made through it are the holder's.
  Dictionary mutableDictionary() const { return _mutableDictionary; }
  void setMutableDictionary(const Dictionary& record) { _mutableDictionary = record; }
  const std::string& masterIdentifier() const { return _masterIdentifier; }
  void setMasterIdentifier(std::string identifier) { _masterIdentifier = std::move(identifier); }

  // Storing null removes the property.
  void setProperty(const Value& value, const std::string& key);
  void setBooleanProperty(bool value, const std::string& key) { setProperty(Value(value), key); }
  // Null when the property is not set.
  Value propertyForKey(const std::string& key) const { return _properties.get(key); }
  bool booleanPropertyForKey(const std::string& key) const { return _properties.getBool(key); }
  const Dictionary& properties() const { return _properties; }

 private:
  Dictionary _originalRecord;
  Dictionary _mutableDictionary;
  std::string _masterIdentifier;
  Dictionary _properties;
};

}  // namespace pc
