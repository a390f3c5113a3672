#pragma once
// The conduit's per-phone object. It owns the device description of the phone
// model, the description of the engine entities the phone syncs, and the
// objects built on demand for each data class: data-class managers, parsers,
// data-class helpers and entity formatters. A phone is built from a device
// description alone, from the host's conduit-manager delegate, or from a
// sync-engine client in which an earlier phone archived itself. A phone can
// itself be the delegate another phone is built from.
//
// The phone keeps its own deep copies of the description and the entity
// lists, never changes them after construction, and lets them out only as
// deep copies: what callers, clients and the objects it creates do with the
// containers they get never reaches the phone.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "conduit/ConduitProtocols.h"
#include "engine/SyncEngine.h"
#include "platform/HostInterfaces.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

// Keys of the device description.
inline constexpr const char* kSyncDataClassesKey = "SyncDataClasses";
inline constexpr const char* kEntityFormattersKey = "EntityFormatters";
inline constexpr const char* kFormattingKey = "Formatting";
// Keys of a data class's entry in "SyncDataClasses".
inline constexpr const char* kDataClassManagerKey = "DataClassManager";
inline constexpr const char* kParserKey = "Parser";
inline constexpr const char* kParserServiceKey = "ParserService";
inline constexpr const char* kMimeTypeKey = "MimeType";
inline constexpr const char* kDataClassManagerClassNameKey = "DataClassManagerClassName";
inline constexpr const char* kPListVersionKey = "PListVersion";
// MIME types of the data classes.
inline constexpr const char* kVCardMimeType = "text/x-vcard";
inline constexpr const char* kVCalendarMimeType = "text/x-vcalendar";
// Keys under which a phone archives itself in its client.
inline constexpr const char* kPhoneConduitClientKey = "com.velmora.granite.PhoneConduit";
inline constexpr const char* kPCVersionClientKey = "com.velmora.granite.PCVersion";
inline constexpr const char* kEntitiesDescClientKey = "com.velmora.granite.EntitiesDesc";

class CFPhone : public SyncConduitManagerDelegateProtocol {
 public:
  // From a device description alone (a missing one is reported).
  explicit CFPhone(std::optional<Dictionary> properties);
  // From the host's delegate (not owned); nullptr when the delegate has no
  // description for the phone.
  static std::unique_ptr<CFPhone> phoneWithDelegate(SyncConduitManagerDelegateProtocol* delegate);
  // From a client an earlier phone archived itself in; nullptr when the
  // client holds no device description.
  static std::unique_ptr<CFPhone> phoneWithClient(std::shared_ptr<SyncEngineClient> client);

  CFPhone(const CFPhone&) = delete;
  CFPhone& operator=(const CFPhone&) = delete;
  ~CFPhone() override;

  // Stores the description, the entities and the version in the client, so
  // that phoneWithClient can rebuild this phone.
  void archiveInClient();
  // Releases everything the phone owns; the delegate and the conduit manager
  // are left alone, and what was archived in the client stays there.
  void invalidate();

  // --- Accessors -----------------------------------------------------------
  std::int32_t version() const { return _version; }
  SyncConduitManagerDelegateProtocol* delegate() const { return _delegate; }
  // The host's conduit manager (not owned), handed to data-class managers.
  void setManager(SyncConduitManager* manager) { _conduitManager = manager; }
  SyncConduitManager* manager() const;
  std::optional<std::string> deviceUID() const { return _deviceId; }
  std::shared_ptr<SyncEngineClient> syncClient() const { return _client; }
  std::shared_ptr<QVTDeviceObject> device() const { return _device; }
  void _setSyncClient(std::shared_ptr<SyncEngineClient> client);
  std::shared_ptr<DeviceSyncService> syncService() const;
  // The names of the data classes the description syncs.
  Array deviceDataClasses() const;
  // The persistence folder, or `file` inside it. The name is relative to the
  // folder (leading separators are dropped); a name whose ".." would lead out
  // of the folder answers nothing, logged.
  std::optional<std::string> pathForSyncResourcesWithFile(
      const std::optional<std::string>& file) const;
  void eraseAllPersistentStates();
  // The phone's time zone; the system zone, adopted for good, when none was set.
  TimeZonePtr timeZone();
  void setTimeZone(TimeZonePtr tz);

  // --- Description look-ups (the SyncToolExtension operations) ---------------
  // The device description; writes the format version through `version`
  // when one is given (the call a delegate answers, so a phone can describe
  // another).
  std::optional<Dictionary> phoneConduitDescriptionWithVersion(std::int32_t* version) const;
  // "EntityFormatters" below version 2, "Formatting" from version 2 on.
  std::optional<Dictionary> entityFormattingInfoWithVersion(std::int32_t& version) const;
  std::optional<Dictionary> formattingDescriptionForEntity(const std::string& entityName) const;
  std::optional<Dictionary> formattingDescriptionV2ForEntity(const std::string& entityName) const;
  // Entity name -> the keys of that entity the phone syncs.
  std::optional<Dictionary> entitiesDescription() const;
  Array supportedEntityNames() const;
  std::optional<Array> allKeysForEntity(const std::string& entityName) const;
  // The engine's attribute (relationship) names of the entity that the phone
  // syncs; cached. Raise invalid-argument for an empty or unknown entity.
  Array allAttributesForEntity(const std::string& entityName);
  Array allRelationsForEntity(const std::string& entityName);
  std::optional<std::string> targetEntityForRelationKey(const std::string& relationKey,
                                                        const std::string& sourceEntity) const;

  // --- Factories ---------------------------------------------------------------
  // A new entity formatter per name, each given `helper`; nothing is cached.
  std::map<std::string, EntityFormattingPtr> entityFormattersForEntities(
      const Array& entityNames, const DataClassHelperPtr& helper);
  // A new helper on every call; nullptr when the data class has none.
  DataClassHelperPtr dataClassHelperForDataClassName(const std::string& dataClassName);
  // The helper responsible for the entity (cached); nullptr for an unknown entity.
  DataClassHelperPtr canonicalHelperForEntity(const std::string& entityName);
  // Cached; raises invalid-argument when the description names no usable manager.
  std::shared_ptr<DataClassManager> managerForDeviceDataClass(const std::string& dataClassName);
  DeviceParserPtr parserForDeviceDataClass(const std::string& dataClassName);
  ValueMappingPtr mapperForAttribute(const std::string& attribute, const std::string& entityName);

  // --- As the delegate another phone is built from -----------------------------
  // The description and version, the entities (as the "Entities" entry of an
  // engine description), the client, the device and the persistence folder of
  // this phone; parsers by service name come from this phone's own delegate.
  std::optional<Dictionary> phoneConduitDescriptionWithVersion(std::int32_t* version) override;
  std::optional<Dictionary> syncEnginePlist() override;
  std::shared_ptr<SyncEngineClient> syncClient() override { return _client; }
  std::shared_ptr<QVTDeviceObject> device() override { return _device; }
  std::optional<std::string> pathForSyncPersistence() override { return _pathForSyncPersistence; }
  DeviceParserPtr parserWithName(const std::string& name, const Dictionary& info,
                                 CFPhone& phone) override;

  std::optional<Dictionary> _infoForDeviceDataClass(const std::string& dataClassName) const;
  // The name when a class of that name is registered.
  static std::optional<std::string> _classFromName(const std::string& name);
  // The MIME type of a data class; `managerProperties` (optional) receives the
  // properties of its manager.
  std::optional<std::string> _mimeTypeFromProperties(const Dictionary& info,
                                                     std::optional<Dictionary>* managerProperties,
                                                     const std::string& dataClassName) const;

 private:
  void _commonSetup();
  void _setup();
  void releaseOwnedFields();
  // allAttributesForEntity and allRelationsForEntity, on their own cache.
  Array namesForEntity(const std::string& entityName, std::optional<Dictionary>& cache,
                       const std::function<Array()>& engineNames);
  // The description's entry itself, for reads inside the phone (not copied).
  std::optional<Dictionary> descriptionEntry(const char* key) const;

  // Fields keep the underscore names that failed-condition reports print
  // ("_devicePlist", "_entities", ...).
  std::int32_t _version = 0;
  SyncConduitManagerDelegateProtocol* _delegate = nullptr;
  std::optional<Dictionary> _devicePlist;
  std::optional<std::map<std::string, std::shared_ptr<DataClassManager>>> _managers;
  std::optional<Dictionary> _entities;
  std::optional<Dictionary> _cacheAttributes;
  std::optional<Dictionary> _cacheRelations;
  TimeZonePtr _timeZone;
  std::shared_ptr<SyncEngineClient> _client;
  std::optional<std::string> _deviceId;
  std::shared_ptr<QVTDeviceObject> _device;
  std::optional<std::string> _pathForSyncPersistence;
  SyncConduitManager* _conduitManager = nullptr;
  std::optional<std::map<std::string, DataClassHelperPtr>> _entityToHelper;
  std::optional<std::map<std::string, std::string>> _mimeTypeToHelperClass;
  std::optional<std::map<std::string, std::string>> _mimeTypeToManagerClassName;
};

}  // namespace pc
