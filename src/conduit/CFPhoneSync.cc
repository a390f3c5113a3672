// The phone's description look-ups and its factories of data-class managers,
// parsers, data-class helpers, entity formatters and value mappings.

#include <utility>

#include "async/Log.h"
#include "conduit/CFPhone.h"
#include "async/ConditionReport.h"
#include "conduit/SyncClientState.h"
#include "engine/SchemaNames.h"
#include "platform/Exception.h"
#include "platform/Registry.h"
#include "util/SyncCategory.h"

namespace pc {

namespace {

const std::string& phoneSyncLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncPhoneSync"));
  return domain;
}

// Logs the text at level 1 and raises it as an invalid-argument exception.
[[noreturn]] void logAndRaise(const std::string& text) {
  QVT_LOG(kLogError, phoneSyncLogDomain(), "{}", text);
  raiseException(kInvalidArgumentException, text);
}

// A new object of a registered class; nullptr (logged) when no class of that
// name implements T.
template <class T>
std::shared_ptr<T> createByName(const std::string& className) {
  auto object = ClassRegistry::createAs<T>(className);
  if (!object) QVT_LOG(kLogError, phoneSyncLogDomain(), "cannot load class {}", className);
  return object;
}

// A new data-class helper configured with `properties`; nullptr when no
// registered class of that name is a helper.
DataClassHelperPtr createHelper(const std::string& className, const Dictionary& properties) {
  const ObjectPtr object = ClassRegistry::create(className);
  auto transformer = std::dynamic_pointer_cast<QVTSyncRecordTransformer>(object);
  auto helper = std::dynamic_pointer_cast<EntityFormatterDelegate>(object);
  if (!transformer || !helper) return nullptr;
  transformer->initWithProperties(properties);
  return helper;
}

std::string describe(const DataClassHelperPtr& helper) {
  const auto* object = dynamic_cast<const Object*>(helper.get());
  return object ? object->description() : std::string("<null>");
}

// The entry when it is a string.
std::optional<std::string> stringEntry(const Dictionary& dictionary, const char* key) {
  const Value* value = dictionary.find(key);
  const std::string* text = value ? value->asString() : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

Value orNull(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }
Value orNull(const std::optional<Dictionary>& dictionary) {
  return dictionary ? Value(*dictionary) : Value();
}

std::optional<Dictionary> deepCopyOf(const std::optional<Dictionary>& dictionary) {
  return dictionary ? std::optional(dictionary->deepCopy()) : std::nullopt;
}

// Where each relationship of the engine's schema leads.
constexpr std::pair<const char*, const char*> kRelationTargets[] = {
    {kCalendarsEventRecurrences, kCalendarsRecurrence},
    {kCalendarsEventAudioAlarms, kCalendarsAudioAlarm},
    {kCalendarsEventDisplayAlarms, kCalendarsDisplayAlarm},
    {kCalendarsEventDetachedEvents, kCalendarsEvent},
    {kContactsContactPhoneNumbers, kContactsPhoneNumber},
    {kContactsContactEmailAddresses, kContactsEmailAddress},
    {kContactsContactStreetAddresses, kContactsStreetAddress},
    {kContactsContactDates, kContactsDate},
    {kContactsContactURLs, kContactsURL},
    {kContactsContactIMs, kContactsIM},
};

}  // namespace

// --- Description look-ups ------------------------------------------------------
// Every look-up answers a deep copy: the description stays as it was loaded
// whatever the caller does with the answer.

std::optional<Dictionary> CFPhone::phoneConduitDescriptionWithVersion(
    std::int32_t* version) const {
  if (version) *version = _version;
  return deepCopyOf(_devicePlist);
}

std::optional<Dictionary> CFPhone::phoneConduitDescriptionWithVersion(std::int32_t* version) {
  return std::as_const(*this).phoneConduitDescriptionWithVersion(version);
}

std::optional<Dictionary> CFPhone::entityFormattingInfoWithVersion(std::int32_t& version) const {
  version = _version;
  return deepCopyOf(descriptionEntry(_version < 2 ? kEntityFormattersKey : kFormattingKey));
}

std::optional<Dictionary> CFPhone::formattingDescriptionForEntity(
    const std::string& entityName) const {
  auto formatters = descriptionEntry(kEntityFormattersKey);
  return deepCopyOf(formatters ? formatters->getDictionary(entityName) : std::nullopt);
}

std::optional<Dictionary> CFPhone::formattingDescriptionV2ForEntity(
    const std::string& entityName) const {
  auto formatting = descriptionEntry(kFormattingKey);
  return deepCopyOf(formatting ? formatting->getDictionary(entityName) : std::nullopt);
}

std::optional<Dictionary> CFPhone::entitiesDescription() const {
  QVT_CHECK(_entities);
  return deepCopyOf(_entities);
}

Array CFPhone::supportedEntityNames() const { return _entities ? _entities->keys() : Array(); }

std::optional<Array> CFPhone::allKeysForEntity(const std::string& entityName) const {
  if (!_entities) {
    QVT_LOG(kLogError, phoneSyncLogDomain(), "badly initialized");
    return std::nullopt;
  }
  auto keys = _entities->getArray(entityName);
  return keys ? std::optional(keys->deepCopy()) : std::nullopt;
}

Array CFPhone::allAttributesForEntity(const std::string& entityName) {
  QVT_CHECK(_cacheAttributes);
  return namesForEntity(entityName, _cacheAttributes, [&entityName] {
    return SyncEngineManager::sharedManager()->attributeNamesForEntityName(entityName);
  });
}

Array CFPhone::allRelationsForEntity(const std::string& entityName) {
  QVT_CHECK(_cacheRelations);
  return namesForEntity(entityName, _cacheRelations, [&entityName] {
    return SyncEngineManager::sharedManager()->relationshipNamesForEntityName(entityName);
  });
}

Array CFPhone::namesForEntity(const std::string& entityName, std::optional<Dictionary>& cache,
                              const std::function<Array()>& engineNames) {
  if (entityName.empty()) logAndRaise("entity is not a correct entity name");
  // The cache keeps the computed array; callers get their own copy of it.
  if (cache) {
    if (auto cached = cache->getArray(entityName)) return cached->deepCopy();
  }
  const Array names = engineNames();
  if (names.empty()) logAndRaise("entity unknown to sync services");

  const std::optional<Array> keys = _entities ? _entities->getArray(entityName) : std::nullopt;
  if (!_entities) QVT_LOG(kLogError, phoneSyncLogDomain(), "badly initialized");
  Array result;
  for (const Value& name : names)
    if (keys && keys->contains(name)) result.add(name);
  QVT_LOG(kLogInfo, phoneSyncLogDomain(), "computed {} for {}", result, entityName);
  if (cache) cache->set(entityName, result);
  return result.deepCopy();
}

std::optional<std::string> CFPhone::targetEntityForRelationKey(
    const std::string& relationKey, const std::string& sourceEntity) const {
  for (const auto& [relation, target] : kRelationTargets)
    if (relationKey == relation) return target;
  QVT_LOG(kLogError, phoneSyncLogDomain(), "this case in not handle {} -> {}", sourceEntity,
          relationKey);
  return std::nullopt;
}

// --- Resources and MIME types ------------------------------------------------------

// A deep copy: the factories below hand it (or parts of it) to the objects
// they create, which may keep and change what they get.
std::optional<Dictionary> CFPhone::_infoForDeviceDataClass(
    const std::string& dataClassName) const {
  auto map = descriptionEntry(kSyncDataClassesKey);
  std::optional<Dictionary> info = map ? map->getDictionary(dataClassName) : std::nullopt;
  QVT_CHECK(info);
  return deepCopyOf(info);
}

std::optional<std::string> CFPhone::_classFromName(const std::string& name) {
  if (!ClassRegistry::hasClass(name)) return std::nullopt;
  return name;
}

std::optional<std::string> CFPhone::_mimeTypeFromProperties(
    const Dictionary& info, std::optional<Dictionary>* managerProperties,
    const std::string& dataClassName) const {
  if (_version >= 2) {
    if (managerProperties) *managerProperties = info;
    return stringEntry(info, kMimeTypeKey);
  }
  const std::optional<std::string> managerName =
      SyncCategory::resourceNameAttributes(info.get(kDataClassManagerKey), managerProperties);
  if (managerName == "ContactManager") return kVCardMimeType;
  if (managerName == "CalendarManager" || dataClassName == kCalendars) return kVCalendarMimeType;
  if (dataClassName == kContacts) return kVCardMimeType;
  QVT_LOG(kLogError, phoneSyncLogDomain(), "could not find a mime type");
  return std::nullopt;
}

// --- Factories ---------------------------------------------------------------------

std::map<std::string, EntityFormattingPtr> CFPhone::entityFormattersForEntities(
    const Array& entityNames, const DataClassHelperPtr& helper) {
  std::map<std::string, EntityFormattingPtr> formatters;
  for (const Value& name : entityNames) {
    auto formatter = createByName<EntityFormatting>("EntityFormatter");
    if (!formatter) break;
    formatter->initWithPhone(*this, name.stringValue());
    formatter->setHelper(helper);
    formatters[name.stringValue()] = std::move(formatter);
  }
  return formatters;
}

DataClassHelperPtr CFPhone::dataClassHelperForDataClassName(const std::string& dataClassName) {
  const std::optional<Dictionary> info = _infoForDeviceDataClass(dataClassName);
  if (!info) {
    QVT_LOG(kLogError, phoneSyncLogDomain(), "can find transformer for dataclass \"{}\"",
            dataClassName);
    return nullptr;
  }
  std::optional<Dictionary> managerProperties;
  const std::optional<std::string> mimeType =
      _mimeTypeFromProperties(*info, &managerProperties, dataClassName);
  DataClassHelperPtr helper;
  if (QVT_CHECK(_mimeTypeToHelperClass) && mimeType) {
    if (auto it = _mimeTypeToHelperClass->find(*mimeType); it != _mimeTypeToHelperClass->end())
      helper = createHelper(it->second, managerProperties.value_or(Dictionary()));
  }
  if (!helper) QVT_LOG(kLogError, phoneSyncLogDomain(), "no class for {}", orNull(mimeType));
  return helper;
}

DataClassHelperPtr CFPhone::canonicalHelperForEntity(const std::string& entityName) {
  if (!_entityToHelper) {
    _entityToHelper.emplace();
    const std::optional<Dictionary> dataClasses = descriptionEntry(kSyncDataClassesKey);
    for (const Value& dataClassName : dataClasses ? dataClasses->keys() : Array()) {
      if (DataClassHelperPtr helper = dataClassHelperForDataClassName(dataClassName.stringValue())) {
        for (const Value& entity : helper->allPossibleEntities())
          (*_entityToHelper)[entity.stringValue()] = helper;
      } else {
        QVT_LOG(kLogError, phoneSyncLogDomain(), "is it normal?");
      }
    }
  }
  DataClassHelperPtr helper;
  if (auto it = _entityToHelper->find(entityName); it != _entityToHelper->end())
    helper = it->second;
  QVT_LOG(kLogInfo, phoneSyncLogDomain(), "did compute {} for entity {}", describe(helper),
          entityName);
  return helper;
}

std::shared_ptr<DataClassManager> CFPhone::managerForDeviceDataClass(
    const std::string& dataClassName) {
  if (_managers) {
    if (auto it = _managers->find(dataClassName); it != _managers->end()) return it->second;
  }
  const std::optional<Dictionary> info = _infoForDeviceDataClass(dataClassName);
  Dictionary properties = info.value_or(Dictionary());  // the phone's own copy

  std::shared_ptr<DataClassManager> manager;
  if (_version > 1) {
    properties.set(kPListVersionKey, 2);
    std::optional<std::string> className = stringEntry(properties, kDataClassManagerClassNameKey);
    if (!className) {
      const std::optional<std::string> mimeType =
          _mimeTypeFromProperties(properties, nullptr, dataClassName);
      QVT_CHECK_NAMED(mimeType, "phoneconduit v2 should have a manager name");
      if (mimeType && _mimeTypeToManagerClassName) {
        if (auto it = _mimeTypeToManagerClassName->find(*mimeType);
            it != _mimeTypeToManagerClassName->end())
          className = it->second;
      }
      QVT_CHECK_NAMED(className, "could not find the class name");
    }
    if (className) {
      manager = ClassRegistry::createAs<DataClassManager>(*className);
      if (manager) manager->initWithProperty(properties, dataClassName, _conduitManager);
    }
  } else {
    std::optional<Dictionary> attributes;
    if (auto managerName = SyncCategory::resourceNameAttributes(properties.get(kDataClassManagerKey), &attributes)) {
      manager = ClassRegistry::createAs<DataClassManager>(*managerName);
      if (manager)
        manager->initWithProperty(attributes.value_or(Dictionary()), dataClassName, _conduitManager);
      else
        QVT_LOG(kLogError, phoneSyncLogDomain(), "cannot load class {} from the plist",
                *managerName);
    }
  }
  if (!manager)
    logAndRaise(
        fmt::format("bad plist, could not find a manager for the dataclass {}", dataClassName));

  manager->prepareAssemblers();
  if (QVT_CHECK(_managers)) (*_managers)[dataClassName] = manager;
  return manager;
}

DeviceParserPtr CFPhone::parserForDeviceDataClass(const std::string& dataClassName) {
  const std::optional<Dictionary> info = _infoForDeviceDataClass(dataClassName);
  DeviceParserPtr parser;
  if (info && info->contains(kParserKey)) {
    std::optional<Dictionary> managerAttributes;
    if (info->contains(kDataClassManagerKey))
      SyncCategory::resourceNameAttributes(info->get(kDataClassManagerKey), &managerAttributes);
    const Value parserResource = info->get(kParserKey);
    QVT_LOG(kLogInfo, phoneSyncLogDomain(), "Found a parserName {}", parserResource);
    std::optional<Dictionary> parserAttributes;
    const std::optional<std::string> parserName =
        SyncCategory::resourceNameAttributes(parserResource, &parserAttributes);

    // The manager's attributes win over the parser's of the same key.
    std::optional<Dictionary> context = parserAttributes ? parserAttributes : managerAttributes;
    if (parserAttributes && managerAttributes) {
      context = parserAttributes->copy();
      context->addEntriesFrom(*managerAttributes);
    }

    const std::optional<std::string> parserClass =
        parserName ? _classFromName(*parserName) : std::nullopt;
    parser = parserClass ? ClassRegistry::createAs<DeviceParser>(*parserClass) : nullptr;
    if (parser) {
      QVT_LOG(kLogInfo, phoneSyncLogDomain(), "found parser {}.  will init with\n{}", *parserClass,
              orNull(context));
      parser->initWithPhone(this, context);
    } else {
      QVT_LOG(kLogError, phoneSyncLogDomain(),
              "Could not find the parser \"{}\".  Fix the metaclasses", orNull(parserName));
    }
  } else if (info && info->contains(kParserServiceKey)) {
    if (_delegate)
      parser = _delegate->parserWithName(info->getString(kParserServiceKey), *info, *this);
    QVT_LOG(kLogInfo, phoneSyncLogDomain(), "got parser from service: {}",
            parser ? parser->description() : std::string("<null>"));
  }
  if (!parser) {
    QVT_LOG(kLogInfo, phoneSyncLogDomain(), "no parser for {}", dataClassName);
    QVT_LOG(kLogInfo, phoneSyncLogDomain(), "info are\n{}", orNull(info));
  }
  return parser;
}

ValueMappingPtr CFPhone::mapperForAttribute(const std::string& attribute,
                                            const std::string& entityName) {
  const std::optional<Dictionary> formatting = descriptionEntry(kFormattingKey);
  const std::optional<Dictionary> entity =
      formatting ? formatting->getDictionary(entityName) : std::nullopt;
  const std::optional<Dictionary> field = entity ? entity->getDictionary(attribute) : std::nullopt;
  const std::optional<Array> mappings = field ? field->getArray("mappings") : std::nullopt;
  if (!mappings) return nullptr;
  auto mapping = createByName<ValueMapping>("QVTSyncMapping");
  if (mapping)
    mapping->initWithArray(mappings->deepCopy(),
                           SyncClientState::defaultValueForAttribute(attribute, entityName));
  return mapping;
}

}  // namespace pc
