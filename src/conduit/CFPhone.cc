// Construction, archiving, life and accessors of the phone.

#include "conduit/CFPhone.h"

#include <filesystem>

#include "async/Log.h"
#include "async/ConditionReport.h"
#include "conduit/SyncClientState.h"
#include "engine/SchemaNames.h"

namespace pc {

namespace {

const std::string& phoneLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncPhone"));
  return domain;
}

Value orNull(const std::optional<Dictionary>& dictionary) {
  return dictionary ? Value(*dictionary) : Value();
}

std::optional<Dictionary> deepCopyOf(const std::optional<Dictionary>& dictionary) {
  return dictionary ? std::optional(dictionary->deepCopy()) : std::nullopt;
}

}  // namespace

CFPhone::CFPhone(std::optional<Dictionary> properties) : _devicePlist(deepCopyOf(properties)) {
  QVT_CHECK(_devicePlist);
  _commonSetup();
}

void CFPhone::_commonSetup() {
  _cacheAttributes = Dictionary();
  _cacheRelations = Dictionary();
  _managers.emplace();
  _mimeTypeToHelperClass = std::map<std::string, std::string>{
      {kVCardMimeType, "QVTSyncContactTransformer"}, {kVCalendarMimeType, "QVTSyncEventTransformer"}};
  _mimeTypeToManagerClassName = std::map<std::string, std::string>{
      {kVCardMimeType, "ContactManager"}, {kVCalendarMimeType, "CalendarManager"}};
}

std::unique_ptr<CFPhone> CFPhone::phoneWithDelegate(SyncConduitManagerDelegateProtocol* delegate) {
  QVT_CHECK_NAMED(delegate, "No data source yet");
  std::int32_t version = 0;
  std::optional<Dictionary> description =
      delegate ? delegate->phoneConduitDescriptionWithVersion(&version) : std::nullopt;
  if (!description) {
    QVT_LOG(kLogWarning, phoneLogDomain(), "can't find phone conduit description");
    QVT_LOG(kLogWarning, phoneLogDomain(), "cannot find phoneConduit parameters");
    return nullptr;
  }
  auto phone = std::make_unique<CFPhone>(description);
  phone->_delegate = delegate;
  phone->_version = version;
  phone->_setup();
  return phone;
}

void CFPhone::_setup() {
  const std::optional<Dictionary> engineDescription = _delegate->syncEnginePlist();
  if (!engineDescription)
    QVT_LOG(kLogError, phoneLogDomain(),
            "FIX metaclasses cannot find syncEngine description for client");
  if (auto entities = engineDescription ? engineDescription->getDictionary(kEngineClientEntitiesKey)
                                        : std::nullopt)
    _entities = entities->deepCopy();
  _client = _delegate->syncClient();
  _device = _delegate->device();
  if (_device) _deviceId = _device->deviceUID();
  _pathForSyncPersistence = _delegate->pathForSyncPersistence();
}

std::unique_ptr<CFPhone> CFPhone::phoneWithClient(std::shared_ptr<SyncEngineClient> client) {
  std::optional<Dictionary> description =
      client ? client->objectForKey(kPhoneConduitClientKey).asDictionary() : std::nullopt;
  if (!description) return nullptr;
  auto phone = std::make_unique<CFPhone>(description);
  phone->_client = std::move(client);
  phone->_version = SyncClientState::intForKey(*phone->_client, kPCVersionClientKey, 0);
  if (auto entities = phone->_client->objectForKey(kEntitiesDescClientKey).asDictionary())
    phone->_entities = entities->deepCopy();
  return phone;
}

void CFPhone::archiveInClient() {
  QVT_CHECK(_entities);
  QVT_CHECK(_devicePlist);
  if (!QVT_CHECK(_client)) return;
  _client->setObject(orNull(deepCopyOf(_entities)), kEntitiesDescClientKey);
  _client->setObject(orNull(deepCopyOf(_devicePlist)), kPhoneConduitClientKey);
  SyncClientState::setInt(*_client, _version, kPCVersionClientKey);
}

CFPhone::~CFPhone() { releaseOwnedFields(); }

void CFPhone::invalidate() { releaseOwnedFields(); }

void CFPhone::releaseOwnedFields() {
  _client.reset();
  _devicePlist.reset();
  _managers.reset();
  _entities.reset();
  _cacheAttributes.reset();
  _cacheRelations.reset();
  _timeZone.reset();
  _deviceId.reset();
  _device.reset();
  _pathForSyncPersistence.reset();
  _entityToHelper.reset();
  _mimeTypeToHelperClass.reset();
  _mimeTypeToManagerClassName.reset();
}

SyncConduitManager* CFPhone::manager() const {
  QVT_CHECK(_conduitManager);
  return _conduitManager;
}

void CFPhone::_setSyncClient(std::shared_ptr<SyncEngineClient> client) {
  _client = std::move(client);
}

std::shared_ptr<DeviceSyncService> CFPhone::syncService() const {
  if (!_device) return nullptr;
  return std::dynamic_pointer_cast<DeviceSyncService>(
      _device->serviceWithName(kSynchronisationServiceName));
}

Array CFPhone::deviceDataClasses() const {
  const std::optional<Dictionary> map = descriptionEntry(kSyncDataClassesKey);
  QVT_CHECK(map);
  const std::optional<Array> ret = map ? std::optional(map->keys()) : std::nullopt;
  QVT_CHECK(ret);
  QVT_LOG(kLogInfo, phoneLogDomain(), "we get {}", ret ? Value(*ret) : Value());
  return ret.value_or(Array());
}

std::optional<std::string> CFPhone::pathForSyncResourcesWithFile(
    const std::optional<std::string>& file) const {
  namespace fs = std::filesystem;
  QVT_CHECK(_pathForSyncPersistence);
  if (!file || !_pathForSyncPersistence) return _pathForSyncPersistence;
  // The name always lands inside the folder: a leading separator is dropped,
  // as appending a path component does, and ".." may not climb out.
  const fs::path relative = fs::path(*file).relative_path().lexically_normal();
  if (relative.empty() || relative == ".") return _pathForSyncPersistence;
  if (*relative.begin() == "..") {
    QVT_LOG(kLogError, phoneLogDomain(), "file name \"{}\" leads out of {}", *file,
            *_pathForSyncPersistence);
    return std::nullopt;
  }
  return (fs::path(*_pathForSyncPersistence) / relative).string();
}

void CFPhone::eraseAllPersistentStates() {
  auto persistenceService =
      _device ? std::dynamic_pointer_cast<DevicePersistenceService>(
                    _device->serviceWithName(kPersistenceServiceName))
              : nullptr;
  if (QVT_CHECK(persistenceService)) persistenceService->cleanupDomain(kDeviceSyncDBDomain);
}

TimeZonePtr CFPhone::timeZone() {
  if (!_timeZone) {
    QVT_LOG(kLogWarning, phoneLogDomain(), "timezone not set");
    _timeZone = TimeZone::systemTimeZone();
  }
  return _timeZone;
}

void CFPhone::setTimeZone(TimeZonePtr tz) {
  QVT_CHECK(tz);
  if (tz == _timeZone) return;
  QVT_LOG(kLogInfo, phoneLogDomain(), "setting time zone to {}",
          tz ? tz->description() : std::string("<null>"));
  _timeZone = std::move(tz);
}

std::optional<Dictionary> CFPhone::syncEnginePlist() {
  if (!_entities) return std::nullopt;
  return Dictionary{{kEngineClientEntitiesKey, _entities->deepCopy()}};
}

DeviceParserPtr CFPhone::parserWithName(const std::string& name, const Dictionary& info,
                                        CFPhone& phone) {
  return _delegate ? _delegate->parserWithName(name, info, phone) : nullptr;
}

std::optional<Dictionary> CFPhone::descriptionEntry(const char* key) const {
  return _devicePlist ? _devicePlist->getDictionary(key) : std::nullopt;
}

}  // namespace pc
