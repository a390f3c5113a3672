#include "command_support.h"

#include <filesystem>
#include <optional>

#include "async/AYLogger.h"
#include "async/Log.h"
#include "commands.h"
#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "platform/TimeZone.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::tools {

Dictionary readDictionary(const std::string& path) {
  const Value contents = propertyListFile(path).orFail();
  if (!contents.isDictionary()) throw CommandError(path + ": not a dictionary");
  return contents.dictionary();
}

Result<Value> propertyListFile(const std::string& path) {
  PropertyListError error;
  std::optional<Value> contents = PropertyList::fromFile(path, &error);
  if (!contents) return Failure{path, "", error.description()};
  return std::move(*contents);
}

// The mangling helpers' error texts name the file and key path themselves.
Result<Dictionary> recordFile(const std::string& path) {
  std::string error;
  std::optional<Dictionary> record = readRecordFile(path, &error);
  if (!record) return Failure{"", "", error.empty() ? path + ": cannot be read" : error};
  return std::move(*record);
}

Result<std::string> recordFileText(const Dictionary& record) {
  std::string error;
  std::optional<std::string> text = recordText(record, &error);
  if (!text) return Failure{"", "", error};
  return std::move(*text);
}

Result<CalendarDate> dateFromText(const std::string& text, const char* format) {
  std::string error;
  std::optional<CalendarDate> date = CalendarDate::dateWithString(text, format, nullptr, &error);
  if (!date) return Failure{"", "", error.empty() ? "not a date" : error};
  return std::move(*date);
}

std::string jsonDocument(const Json& document) {
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

void addReportOption(CLI::App* command, std::vector<std::string>& values) {
  command->add_option("--report", values,
                      "text (default), json for scripts, or html FILE: a page to open in a browser")
      ->expected(1, 2)
      ->allow_extra_args(false)
      ->type_name("KIND [FILE]");
}

ReportChoice reportChoice(const std::vector<std::string>& values, std::vector<std::string>& positionals,
                          const std::string& positionalName, bool positionalsRequired) {
  ReportChoice choice;
  if (!values.empty()) choice.kind = values.front();
  if (choice.kind == "html") {
    if (values.size() < 2) throw CommandLineError("--report html: the page's FILE is missing");
    choice.htmlPath = values[1];
  } else if (choice.kind == "text" || choice.kind == "json") {
    if (values.size() == 2) {
      if (!std::filesystem::is_regular_file(values[1]))
        throw CommandLineError(positionalName + ": File does not exist: " + values[1]);
      positionals.insert(positionals.begin(), values[1]);
    }
  } else {
    throw CommandLineError("--report: \"" + choice.kind + "\" is not a report (text, json or html FILE)");
  }
  if (positionalsRequired && positionals.empty())
    throw CommandLineError(positionalName + " is required");
  return choice;
}

QuietDefaultLog::QuietDefaultLog(bool keep) : _active(!keep) {
  if (!_active) return;
  // Removing succeeds only when the default registration is the only one
  // for standard error (errors alone, for every domain).
  const auto before = QVTAYLogger::loggersForType(QVTLOG, kLogError);
  QVTAYLogger::removeLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, kLogError);
  const auto after = QVTAYLogger::loggersForType(QVTLOG, kLogError);
  _active = (before ? before->size() : 0) != (after ? after->size() : 0);
}

QuietDefaultLog::~QuietDefaultLog() {
  if (_active) QVTAYLogger::addLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, kLogError);
}

PhoneModelFiles readPhoneModel(const std::string& devicePath, const std::string& entitiesPath) {
  PhoneModelFiles files{readDictionary(devicePath), readDictionary(entitiesPath)};
  if (!files.description.getDictionary(kSyncDataClassesKey))
    throw CommandError(devicePath + ": not a device description (no \"" +
                       std::string(kSyncDataClassesKey) + "\" dictionary)");
  if (!files.entities.getDictionary(kEngineClientEntitiesKey))
    throw CommandError(entitiesPath + ": no \"" + std::string(kEngineClientEntitiesKey) +
                       "\" dictionary");
  return files;
}

std::optional<CalendarDate> anchorDateOption(const std::string& text) {
  if (text.empty()) return std::nullopt;
  std::string problem;
  std::optional<CalendarDate> day =
      CalendarDate::dateWithString(text, "%Y%m%d", TimeZone::systemTimeZone(), &problem);
  if (!day || text.size() != 8)
    throw CommandLineError("--anchor-date: \"" + text + "\": not a day (20261122)");
  return day;
}

void writeClientValues(const Dictionary& values, const std::string& clientIdentifier,
                       const std::string& clientStorePath) {
  MemorySyncEngineClient store(clientIdentifier, "phoneconduit", Array(), clientStorePath);
  for (const auto& [key, value] : values) store.setObject(value, key.stringValue());
  if (!store.lastSaveSucceeded()) throw CommandError(clientStorePath + ": cannot write the client store");
}

void addPhoneModelOptions(CLI::App* command, std::string& devicePath, std::string& entitiesPath) {
  command->add_option("--device", devicePath, "device description (XML property list)")
      ->required()
      ->check(CLI::ExistingFile);
  command->add_option("--entities", entitiesPath,
                      "the engine's description of the entities the phone syncs (a property list "
                      "with an \"Entities\" dictionary)")
      ->required()
      ->check(CLI::ExistingFile);
}

void addVariablesOption(CLI::App* command, std::string& variablesPath) {
  command->add_option("--variables", variablesPath,
                      "values of the device's \"$name\" variables (a property-list dictionary)")
      ->check(CLI::ExistingFile);
}

void addFormatVersionOption(CLI::App* command, int& version) {
  command->add_option("--format-version", version,
                      "format version of the description (default: 2 when it has \"Formatting\", "
                      "else 1)");
}

void addTextOrJsonReportOption(CLI::App* command, std::string& kind) {
  command->add_option("--report", kind, "text (default) or json, for scripts")
      ->check(CLI::IsMember({"text", "json"}));
}

std::string syncFieldsText(const std::vector<SyncField>& fields) {
  std::string text;
  for (const SyncField& field : fields) {
    if (!text.empty()) text += "; ";
    text += field.field;
    if (!field.limit.empty()) text += " (" + field.limit + ")";
  }
  return text;
}

Json syncFieldsJson(const std::vector<SyncField>& fields) {
  Json list = Json::array();
  for (const SyncField& field : fields) {
    Json entry{{"field", field.field}};
    if (!field.limit.empty()) entry["limit"] = field.limit;
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace pc::tools
