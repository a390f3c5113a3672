#include "engine/MemoryEngine.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <vector>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"

namespace pc {

namespace {

const std::string& engineLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", "MemoryEngine");
  return domain;
}

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

// True when `value` is an array of strings.
bool isArrayOfStrings(const Value& value) {
  auto array = value.asArray();
  return array && std::all_of(array->begin(), array->end(),
                              [](const Value& element) { return element.isString(); });
}

std::mutex sSharedManagerLock;
std::shared_ptr<SyncEngineManager> sSharedManager;

}  // namespace

// --- SyncEngineManager: the process's engine --------------------------------

std::shared_ptr<SyncEngineManager> SyncEngineManager::sharedManager() {
  std::lock_guard lock(sSharedManagerLock);
  if (!sSharedManager) {
    std::string error;
    const std::string directory = EngineSchema::defaultSchemaDirectory();
    if (auto schema = EngineSchema::schemaWithContentsOfDirectory(directory, &error)) {
      sSharedManager = std::move(schema);
    } else {
      // An empty schema keeps callers working: every entity is then unknown.
      QVT_LOG(kLogError, engineLogDomain(), "cannot load the engine schema from {}: {}", directory,
              error);
      sSharedManager = std::make_shared<EngineSchema>();
    }
  }
  return sSharedManager;
}

void SyncEngineManager::setSharedManager(std::shared_ptr<SyncEngineManager> manager) {
  std::lock_guard lock(sSharedManagerLock);
  sSharedManager = std::move(manager);
}

// --- EngineSchema -------------------------------------------------------------

std::string EngineSchema::defaultSchemaDirectory() {
  if (const char* dataDir = std::getenv("PC_DATA_DIR"); dataDir && *dataDir)
    return (std::filesystem::path(dataDir) / "schema").string();
  return (std::filesystem::path(PC_DATA_DIR) / "schema").string();
}

std::shared_ptr<EngineSchema> EngineSchema::schemaWithContentsOfDirectory(
    const std::string& directory, std::string* error) {
  namespace fs = std::filesystem;
  std::error_code code;
  std::vector<fs::path> files;
  for (fs::directory_iterator it(directory, code), end; !code && it != end; it.increment(code)) {
    if (it->path().extension() == ".plist") files.push_back(it->path());
  }
  if (code) {
    setError(error, directory + ": " + code.message());
    return nullptr;
  }
  std::sort(files.begin(), files.end());

  auto schema = std::make_shared<EngineSchema>();
  for (const auto& file : files) {
    PropertyListError plistError;
    auto contents = PropertyList::fromFile(file.string(), &plistError);
    if (!contents) {
      setError(error, file.string() + ": " + plistError.description());
      return nullptr;
    }
    auto description = contents->asDictionary();
    std::string why;
    if (!description) {
      setError(error, file.string() + ": the schema is not a dictionary");
      return nullptr;
    }
    if (!schema->addDataClassDescription(*description, &why)) {
      setError(error, file.string() + ": " + why);
      return nullptr;
    }
  }
  return schema;
}

bool EngineSchema::addDataClassDescription(const Dictionary& description, std::string* error) {
  const Value dataClass = description.get("DataClassName");
  if (!dataClass.isString() || dataClass.string().empty()) {
    setError(error, "\"DataClassName\" must be a non-empty string");
    return false;
  }
  auto entityDescriptions = description.getArray(kEngineClientEntitiesKey);
  if (!entityDescriptions) {
    setError(error, "\"Entities\" must be an array");
    return false;
  }

  // Everything is checked before anything is added, so a bad file adds nothing.
  std::vector<std::pair<std::string, Entity>> parsed;
  for (std::size_t index = 0; index < entityDescriptions->count(); ++index) {
    const std::string where = fmt::format("entity {}: ", index);
    auto entityDescription = entityDescriptions->at(index).asDictionary();
    if (!entityDescription) {
      setError(error, where + "not a dictionary");
      return false;
    }
    const Value name = entityDescription->get("Name");
    if (!name.isString() || name.string().empty()) {
      setError(error, where + "\"Name\" must be a non-empty string");
      return false;
    }
    Entity entity{dataClass.string(), Array(), Dictionary()};
    if (const Value attributes = entityDescription->get("Attributes"); !attributes.isNull()) {
      if (!isArrayOfStrings(attributes)) {
        setError(error, where + "\"Attributes\" must be an array of strings");
        return false;
      }
      entity.attributes = attributes.array().copy();
    }
    if (const Value relationships = entityDescription->get("Relationships");
        !relationships.isNull()) {
      auto table = relationships.asDictionary();
      if (!table || !std::all_of(table->begin(), table->end(), [](const Dictionary::Entry& e) {
            return e.first.isString() && e.second.isString();
          })) {
        setError(error, where + "\"Relationships\" must map names to target entity names");
        return false;
      }
      entity.relationships = table->copy();
    }
    parsed.emplace_back(name.string(), std::move(entity));
  }

  Array& entityNames = _dataClasses[dataClass.string()];
  for (auto& [name, entity] : parsed) {
    if (!entityNames.contains(name)) entityNames.add(name);
    _entities[name] = std::move(entity);
  }
  return true;
}

Array EngineSchema::dataClassNames() const {
  Array names;
  for (const auto& entry : _dataClasses) names.add(entry.first);
  return names;
}

Array EngineSchema::entityNamesForDataClassName(const std::string& dataClassName) const {
  auto it = _dataClasses.find(dataClassName);
  return it == _dataClasses.end() ? Array() : it->second.copy();
}

Array EngineSchema::attributeNamesForEntityName(const std::string& entityName) const {
  auto it = _entities.find(entityName);
  return it == _entities.end() ? Array() : it->second.attributes.copy();
}

Array EngineSchema::relationshipNamesForEntityName(const std::string& entityName) const {
  auto it = _entities.find(entityName);
  return it == _entities.end() ? Array() : it->second.relationships.keys();
}

std::optional<std::string> EngineSchema::dataClassNameForEntityName(
    const std::string& entityName) const {
  auto it = _entities.find(entityName);
  if (it == _entities.end()) return std::nullopt;
  return it->second.dataClass;
}

std::optional<std::string> EngineSchema::targetEntityForRelationship(
    const std::string& entityName, const std::string& relationshipName) const {
  auto it = _entities.find(entityName);
  if (it == _entities.end()) return std::nullopt;
  const Value target = it->second.relationships.get(relationshipName);
  if (!target.isString()) return std::nullopt;
  return target.string();
}

// --- MemorySyncEngineClient -----------------------------------------------------

namespace {
// Keys of the client's store file.
constexpr const char* kStoreValuesKey = "Values";
constexpr const char* kStoreEnabledEntitiesKey = "EnabledEntityNames";
}  // namespace

MemorySyncEngineClient::MemorySyncEngineClient(std::string identifier, std::string displayName,
                                               Array supportedEntityNames, std::string storePath)
    : _identifier(std::move(identifier)),
      _displayName(std::move(displayName)),
      _supported(supportedEntityNames.deepCopy()),
      _storePath(std::move(storePath)) {
  load();
}

void MemorySyncEngineClient::load() {
  if (_storePath.empty()) return;
  std::error_code code;
  if (!std::filesystem::exists(_storePath, code)) return;
  PropertyListError error;
  auto contents = PropertyList::fromFile(_storePath, &error);
  auto store = contents ? contents->asDictionary() : std::nullopt;
  if (!store) {
    QVT_LOG(kLogError, engineLogDomain(), "cannot read the client store {}: {}", _storePath,
            contents ? std::string("not a dictionary") : error.description());
    return;
  }
  if (auto values = store->getDictionary(kStoreValuesKey)) _values = *values;
  if (auto enabled = store->getArray(kStoreEnabledEntitiesKey)) {
    for (const Value& name : *enabled)
      if (_supported.contains(name) && !_enabled.contains(name)) _enabled.add(name);
  }
}

void MemorySyncEngineClient::save() {
  if (_storePath.empty()) return;
  const Dictionary store{{kStoreValuesKey, _values}, {kStoreEnabledEntitiesKey, _enabled}};
  PropertyListError error;
  _lastSaveSucceeded = PropertyList::writeToFile(store, _storePath, &error);
  if (!_lastSaveSucceeded)
    QVT_LOG(kLogError, engineLogDomain(), "cannot write the client store {}: {}", _storePath,
            error.description());
}

// The store hands out and takes in deep copies, so that what the caller does
// with a value afterwards reaches neither the memory nor the file.
Value MemorySyncEngineClient::objectForKey(const std::string& key) const {
  return _values.get(key).deepCopy();
}

void MemorySyncEngineClient::setObject(const Value& value, const std::string& key) {
  if (value.isNull())
    _values.remove(key);
  else
    _values.set(key, value.deepCopy());
  save();
}

void MemorySyncEngineClient::setEnabled(bool enabled, const Array& entityNames) {
  for (const Value& name : entityNames) {
    if (!_supported.contains(name)) continue;
    if (enabled && !_enabled.contains(name)) _enabled.add(name.deepCopy());
    if (!enabled) _enabled.remove(name);
  }
  save();
}

// --- MemoryTruthSnapshot --------------------------------------------------------

void MemoryTruthSnapshot::addRecord(const std::string& identifier, const Dictionary& record) {
  _records.insert_or_assign(identifier, record.deepCopy());
}

void MemoryTruthSnapshot::adoptRecord(const std::string& identifier, Dictionary record) {
  _records.insert_or_assign(identifier, std::move(record));
}

void MemoryTruthSnapshot::removeRecord(const std::string& identifier) {
  _records.erase(identifier);
}

std::optional<Dictionary> MemoryTruthSnapshot::recordWithIdentifier(
    const std::string& identifier) const {
  auto it = _records.find(identifier);
  if (it == _records.end()) return std::nullopt;
  return it->second.deepCopy();
}

std::string MemoryTruthSnapshot::entityNameOfRecord(const std::string& identifier) const {
  auto it = _records.find(identifier);
  return it == _records.end() ? std::string() : it->second.getString(kEngineRecordEntityNameKey);
}

Array MemoryTruthSnapshot::recordIdentifiersForEntityName(const std::string& entityName) const {
  Array identifiers;
  for (const auto& [identifier, record] : _records)
    if (record.getString(kEngineRecordEntityNameKey) == entityName) identifiers.add(identifier);
  return identifiers;
}

Dictionary MemoryTruthSnapshot::recordsWithIdentifiers(const Array& identifiers) const {
  Dictionary records;
  for (const Value& identifier : identifiers) {
    if (!identifier.isString()) continue;
    if (auto it = _records.find(identifier.string()); it != _records.end())
      records.set(identifier, it->second.deepCopy());
  }
  return records;
}

Array MemoryTruthSnapshot::targetIdentifiersForRelationshipName(
    const std::string& relationshipName, const std::string& sourceIdentifier) const {
  auto it = _records.find(sourceIdentifier);
  if (it == _records.end()) return Array();
  auto targets = it->second.getArray(relationshipName);
  return targets ? targets->deepCopy() : Array();
}

std::shared_ptr<EngineRecordFormatting> loadRecordFormatter(
    const std::string& className, std::shared_ptr<SyncEngineClient> client,
    std::shared_ptr<const TruthSnapshot> snapshot) {
  auto plugIn = ClassRegistry::createAs<EngineRecordFormattingPlugIn>(className);
  if (!plugIn) {
    QVT_LOG(kLogError, QVTLOG, "cannot load record formatter class {}", className);
    return nullptr;
  }
  plugIn->initWithClient(std::move(client), std::move(snapshot));
  return plugIn;
}

}  // namespace pc
