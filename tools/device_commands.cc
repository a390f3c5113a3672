// describe-device: builds the phone conduit of a device description on the
// reference host and prints what the phone syncs: its data classes, their MIME
// types and managers, and for each entity the keys the phone keeps next to
// the engine's attributes and relationships. It then archives the phone into
// its client and rebuilds it from there, as the engine side does.

#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <fmt/format.h>

#include "commands.h"
#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/ReferenceHost.h"
#include "platform/Registry.h"
#include "validation.h"

namespace pc::tools {

namespace {

std::string joined(const Array& names) {
  std::string text;
  for (const Value& name : names) text += (text.empty() ? "" : ", ") + name.stringValue();
  return text.empty() ? "(none)" : text;
}

// The class name of a resource (a name, or a dictionary naming its class
// under "Name"), which must be a registered class of kind T.
template <class T>
std::string checkResource(const Field& resource, const char* kind) {
  const Field name = resource.value().isDictionary() ? resource["Name"] : resource;
  if (!name.value().isString()) {
    if (resource.value().isDictionary()) name.expected("a class name");
    resource.expected("a class name or a dictionary with a \"Name\"");
  }
  const std::string className = name.string();
  if (!ClassRegistry::createAs<T>(className)) name.fail(fmt::format("no {} class is named \"{}\"", kind, className));
  return className;
}

// What the program shows of one data class.
struct DataClass {
  std::string mimeType;
};

// Checks what the phone reads of each data class of the description, and
// answers their MIME types: named in format 2, implied by the manager in
// format 1.
std::map<std::string, DataClass> checkDeviceDescription(const Field& description, int version) {
  const Field dataClasses = description[kSyncDataClassesKey];
  dataClasses.required("a dictionary of the data classes the phone syncs");
  if (dataClasses.dictionary().empty()) dataClasses.fail("the phone syncs no data class");
  std::map<std::string, DataClass> checked;
  for (const auto& [key, value] : dataClasses.dictionary()) {
    const std::string name = key.stringValue();
    const Field info = dataClasses[name];
    info.dictionary();
    std::string mimeType;
    if (version >= 2) {
      if (info[kDataClassManagerClassNameKey].present())
        checkResource<DataClassManager>(info[kDataClassManagerClassNameKey], "data-class manager");
      mimeType = info[kMimeTypeKey].required(fmt::format("{} or {}", kVCardMimeType, kVCalendarMimeType)).string();
      if (!info[kDataClassManagerClassNameKey].present()) info[kMimeTypeKey].member({kVCardMimeType, kVCalendarMimeType});
    } else {
      const Field manager = info[kDataClassManagerKey];
      const std::string managerName =
          checkResource<DataClassManager>(manager.required("a data-class manager"), "data-class manager");
      mimeType = managerName == "ContactManager" || (managerName != "CalendarManager" && name == kContacts)
                     ? kVCardMimeType
                     : managerName == "CalendarManager" || name == kCalendars ? kVCalendarMimeType : "";
      if (mimeType.empty()) manager.fail(fmt::format("no MIME type is known for \"{}\"", managerName));
    }
    if (info[kParserKey].present()) checkResource<DeviceParser>(info[kParserKey], "parser");
    if (info[kParserServiceKey].present()) info[kParserServiceKey].string();
    checked[name] = {mimeType};
  }
  const char* formattingKey = version >= 2 ? kFormattingKey : kEntityFormattersKey;
  if (description[formattingKey].present()) {
    const Field formatting = description[formattingKey];
    for (const auto& [entity, entry] : formatting.dictionary()) formatting[entity.stringValue()].dictionary();
  }
  return checked;
}

// The entities file: "Entities", entity name -> the keys the phone syncs,
// each an attribute or relationship the engine knows for that entity.
void checkEntities(const Field& entities) {
  const Field byEntity = entities[kEngineClientEntitiesKey];
  byEntity.required("a dictionary of entity names to the keys the phone syncs");
  if (byEntity.dictionary().empty()) byEntity.fail("no entity");
  const auto engine = SyncEngineManager::sharedManager();
  for (const auto& [key, value] : byEntity.dictionary()) {
    const std::string entity = key.stringValue();
    const Field keys = byEntity[entity];
    if (!engine->dataClassNameForEntityName(entity)) keys.fail(fmt::format("the engine has no entity \"{}\"", entity));
    const Array known = engine->attributeNamesForEntityName(entity);
    const Array relationships = engine->relationshipNamesForEntityName(entity);
    for (std::size_t i = 0; i < keys.array().count(); ++i) {
      const Field name = keys.at(i);
      const std::string text = name.string();
      if (!known.contains(Value(text)) && !relationships.contains(Value(text)))
        name.fail(fmt::format("\"{}\" is neither an attribute nor a relationship of {}", text, entity));
    }
  }
}

struct DescribeOptions {
  std::string devicePath;
  std::string entitiesPath;
  int version = 0;  // 0: from the description's own keys
};

void describe(const DescribeOptions& options) {
  if (options.version != 0 && options.version != 1 && options.version != 2)
    throw CommandLineError(fmt::format("--format-version: {} is not a format version (1 or 2)", options.version));
  const Field descriptionField = readPropertyListInput(options.devicePath);
  const Dictionary description = descriptionField.dictionary();
  const std::int32_t version =
      options.version ? options.version : (description.contains(kFormattingKey) ? 2 : 1);
  const std::map<std::string, DataClass> dataClasses = checkDeviceDescription(descriptionField, version);
  const Field entitiesField = readPropertyListInput(options.entitiesPath);
  checkEntities(entitiesField);
  const Dictionary entities = entitiesField.dictionary();
  const Dictionary entityKeys = entities.getDictionary(kEngineClientEntitiesKey).value();

  auto client = std::make_shared<MemorySyncEngineClient>("phoneconduit.describe", "Described phone",
                                                         entityKeys.keys());
  auto host = std::make_shared<ReferenceConduitManager>(
      std::make_shared<SimulatedPhone>("described-device"), client);
  host->setPhoneConduitDescription(description, version);
  host->setSyncEnginePlist(entities);
  const Dictionary dataClassInfos = descriptionField[kSyncDataClassesKey].dictionary();
  for (const auto& [dataClass, info] : dataClassInfos) {
    const std::string service = info.dictionary().getString(kParserServiceKey);
    if (!service.empty()) host->addParserService(service, "PropertyListParser");
  }

  std::unique_ptr<CFPhone> phone = CFPhone::phoneWithDelegate(host.get());
  if (!phone) throw CommandError(options.devicePath + ": no phone can be built from this description");
  phone->setManager(host.get());

  std::cout << "Device description " << options.devicePath << " (format version " << version
            << ")\n\nData classes:\n";
  for (const Value& dataClass : phone->deviceDataClasses()) {
    const std::string name = dataClass.stringValue();
    const auto manager = phone->managerForDeviceDataClass(name);
    std::cout << "  " << name << ": " << dataClasses.at(name).mimeType << ", manager "
              << (manager ? manager->className() : std::string("(none)")) << "\n";
  }

  std::cout << "\nEntities:\n";
  for (const Value& entity : phone->supportedEntityNames()) {
    const std::string name = entity.stringValue();
    std::cout << "  " << name << "\n"
              << "    synced keys:   " << joined(phone->allKeysForEntity(name).value_or(Array())) << "\n"
              << "    attributes:    " << joined(phone->allAttributesForEntity(name)) << "\n"
              << "    relationships: " << joined(phone->allRelationsForEntity(name)) << "\n";
  }

  phone->archiveInClient();
  std::unique_ptr<CFPhone> rebuilt = CFPhone::phoneWithClient(client);
  if (!rebuilt) throw CommandError("the phone archived in its client could not be rebuilt");
  std::cout << "\nArchived in its client and rebuilt from it: " << rebuilt->supportedEntityNames().count()
            << " entities, format version " << rebuilt->version() << "\n";
  phone->invalidate();
  rebuilt->invalidate();
}

}  // namespace

void addDeviceCommands(CLI::App& app) {
  auto options = std::make_shared<DescribeOptions>();
  CLI::App* command = app.add_subcommand(
      "describe-device", "Build the phone conduit of a device description and show what it syncs");
  command->add_option("DEVICE", options->devicePath, "device description (XML property list)")->required();
  command->add_option("--entities", options->entitiesPath,
                      "the engine's description of the entities the phone syncs (a property list "
                      "with an \"Entities\" dictionary)")
      ->required();
  command->add_option("--format-version", options->version,
                      "format version of the description, 1 or 2 (default: 2 when it has "
                      "\"Formatting\", else 1)");
  command->footer(
      "Example:\n  phoneconduit describe-device examples/devices/contacts-calendar-phone-v2.plist \\\n"
      "      --entities examples/devices/contacts-calendar-phone.entities.plist");
  command->callback([options] { describe(*options); });
}

}  // namespace pc::tools
