// describe-device: builds the phone conduit of a device description on the
// reference host and prints what the phone syncs: its data classes, their MIME
// types and managers, and for each entity the keys the phone keeps next to
// the engine's attributes and relationships. It then archives the phone into
// its client and rebuilds it from there, as the engine side does.

#include <iostream>
#include <memory>
#include <string>

#include "commands.h"
#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/ReferenceHost.h"
#include "platform/PropertyList.h"

namespace pc::tools {

namespace {

Dictionary readDictionary(const std::string& path) {
  PropertyListError error;
  const std::optional<Value> contents = PropertyList::fromFile(path, &error);
  if (!contents) throw CommandError(path + ": " + error.description());
  if (!contents->isDictionary()) throw CommandError(path + ": not a dictionary");
  return contents->dictionary();
}

std::string joined(const Array& names) {
  std::string text;
  for (const Value& name : names) text += (text.empty() ? "" : ", ") + name.stringValue();
  return text.empty() ? "(none)" : text;
}

struct DescribeOptions {
  std::string devicePath;
  std::string entitiesPath;
  int version = 0;  // 0: from the description's own keys
};

void describe(const DescribeOptions& options) {
  const Dictionary description = readDictionary(options.devicePath);
  const std::optional<Dictionary> dataClasses = description.getDictionary(kSyncDataClassesKey);
  if (!dataClasses) {
    throw CommandError(options.devicePath + ": not a device description (no \"" +
                       kSyncDataClassesKey + "\" dictionary)");
  }
  const Dictionary entities = readDictionary(options.entitiesPath);
  const std::optional<Dictionary> entityKeys = entities.getDictionary(kEngineClientEntitiesKey);
  if (!entityKeys) {
    throw CommandError(options.entitiesPath + ": no \"" + kEngineClientEntitiesKey +
                       "\" dictionary");
  }
  const std::int32_t version =
      options.version ? options.version : (description.contains(kFormattingKey) ? 2 : 1);

  auto client = std::make_shared<MemorySyncEngineClient>("phoneconduit.describe", "Described phone",
                                                         entityKeys->keys());
  auto host = std::make_shared<ReferenceConduitManager>(
      std::make_shared<SimulatedPhone>("described-device"), client);
  host->setPhoneConduitDescription(description, version);
  host->setSyncEnginePlist(entities);
  for (const auto& [dataClass, info] : *dataClasses) {
    if (auto infoDictionary = info.asDictionary()) {
      const std::string service = infoDictionary->getString(kParserServiceKey);
      if (!service.empty()) host->addParserService(service, "PropertyListParser");
    }
  }

  std::unique_ptr<CFPhone> phone = CFPhone::phoneWithDelegate(host.get());
  if (!phone) throw CommandError(options.devicePath + ": no phone can be built from this description");
  phone->setManager(host.get());

  std::cout << "Device description " << options.devicePath << " (format version " << version
            << ")\n\nData classes:\n";
  for (const Value& dataClass : phone->deviceDataClasses()) {
    const std::string name = dataClass.stringValue();
    const std::optional<Dictionary> info = phone->_infoForDeviceDataClass(name);
    const std::optional<std::string> mimeType =
        info ? phone->_mimeTypeFromProperties(*info, nullptr, name) : std::nullopt;
    const auto manager = phone->managerForDeviceDataClass(name);
    std::cout << "  " << name << ": " << mimeType.value_or("(no MIME type)") << ", manager "
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
  command->add_option("DEVICE", options->devicePath, "device description (XML property list)")
      ->required()
      ->check(CLI::ExistingFile);
  command->add_option("--entities", options->entitiesPath,
                      "the engine's description of the entities the phone syncs (a property list "
                      "with an \"Entities\" dictionary)")
      ->required()
      ->check(CLI::ExistingFile);
  command->add_option("--format-version", options->version,
                      "format version of the description (default: 2 when it has \"Formatting\", "
                      "else 1)");
  command->callback([options] { describe(*options); });
}

}  // namespace pc::tools
