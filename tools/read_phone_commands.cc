// read-phone: a phone's own files (contacts as .vcf, calendars as .vcs) read
// as that phone model sends them, and printed as the engine records they
// become: the phone's values mapped back to the engine's by the
// description's value mappings, then unmangled by the data class's helper.
// The lines skipped and the properties left out are listed with the file
// and line.

#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_support.h"
#include "commands.h"
#include "conduit/CFPhone.h"
#include "conduit/ConduitProtocols.h"
#include "engine/SchemaNames.h"
#include "formatting/EntityFormatter.h"
#include "formatting/QVTSyncMapping.h"
#include "host/DeviceFormatting.h"
#include "host/VFormatParsers.h"
#include "platform/Exception.h"

namespace pc::tools {

namespace {

struct ReadPhoneOptions {
  std::string devicePath;
  std::string entitiesPath;
  std::string variablesPath;
  std::vector<std::string> files;
  std::string report = "text";
};

struct Problem {
  std::string file;
  std::size_t line = 0;
  std::string message;
};

struct PhoneRecord {
  std::string identifier;
  std::string entity;
  Dictionary record;
};

bool isCalendarFile(const std::string& path, const std::string& text) {
  for (const char* extension : {".vcs", ".ics", ".VCS", ".ICS"})
    if (path.size() > 4 && path.compare(path.size() - 4, 4, extension) == 0) return true;
  for (const char* extension : {".vcf", ".VCF"})
    if (path.size() > 4 && path.compare(path.size() - 4, 4, extension) == 0) return false;
  return text.find("BEGIN:VCARD") == std::string::npos;
}

// The engine's values for what the phone sent, where the description maps them.
void mapBack(CFPhone& phone, Dictionary& record, const std::string& entity) {
  for (auto& [key, value] : record) {
    if (!key.isString()) continue;
    if (std::optional<Array> list = value.asArray()) {
      if (list->empty() || !list->first().isDictionary()) continue;
      const std::optional<std::string> target = phone.targetEntityForRelationKey(key.string(), entity);
      if (!target) continue;
      for (Value& item : *list)
        if (std::optional<Dictionary> sub = item.asDictionary()) mapBack(phone, *sub, *target);
      continue;
    }
    auto mapping = std::dynamic_pointer_cast<QVTSyncMapping>(phone.mapperForAttribute(key.string(), entity));
    if (mapping && mapping->allTransportValues().contains(value)) value = mapping->SSValueFomTransportValue(value);
  }
}

// "2027-06-15T09:00:00+02:00[Europe/Berlin]".
nlohmann::ordered_json jsonValue(const Value& value) {
  switch (value.kind()) {
    case ValueKind::Null: return nullptr;
    case ValueKind::Boolean: return value.boolValue();
    case ValueKind::Integer: return value.integerValue();
    case ValueKind::Real: return value.doubleValue();
    case ValueKind::String: return value.string();
    case ValueKind::URL: return value.url().absoluteString();
    case ValueKind::Date: {
      const CalendarDate& date = value.date();
      std::string text = date.descriptionWithCalendarFormat("%Y-%m-%dT%H:%M:%S%z");
      if (text.size() > 5) text.insert(text.size() - 2, ":");
      return text + "[" + (date.timeZone() ? date.timeZone()->name() : std::string("GMT")) + "]";
    }
    case ValueKind::Array: {
      nlohmann::ordered_json list = nlohmann::ordered_json::array();
      for (const Value& item : value.array()) list.push_back(jsonValue(item));
      return list;
    }
    case ValueKind::Dictionary: {
      nlohmann::ordered_json object = nlohmann::ordered_json::object();
      for (const auto& [key, item] : value.dictionary()) object[key.stringValue()] = jsonValue(item);
      return object;
    }
    default: return value.description();
  }
}

void readPhone(const ReadPhoneOptions& options) {
  const auto [description, entities] = readPhoneModel(options.devicePath, options.entitiesPath);
  DeviceFormattingOptions formatting;
  if (!options.variablesPath.empty()) formatting.variables = readDictionary(options.variablesPath);
  std::unique_ptr<DeviceFormatting> phoneSide;
  try {
    phoneSide = DeviceFormatting::phoneSide(description, entities, formatting);
  } catch (const Exception& exception) {
    throw CommandError(options.devicePath + ": " + exception.reason());
  }
  CFPhone& phone = *phoneSide->phone();

  std::vector<PhoneRecord> records;
  std::vector<Problem> problems;
  for (const std::string& path : options.files) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw CommandError(path + ": cannot read: " + std::strerror(errno));
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::unique_ptr<PhoneStoreFormat> format;
    if (isCalendarFile(path, text)) {
      auto parser = std::make_unique<VCalendarParser>();
      parser->initWithPhone(&phone, std::nullopt);
      format = std::move(parser);
    } else {
      auto parser = std::make_unique<VCardParser>();
      parser->initWithPhone(&phone, std::nullopt);
      format = std::move(parser);
    }
    const VFormatReadResult read = format->contentsFromText(text);
    if (read.records.empty() && !read.problems.empty())
      throw CommandError(path + ": line " + std::to_string(read.problems.front().line) + ": " +
                         read.problems.front().message);
    for (const ContentProblem& problem : read.problems) problems.push_back({path, problem.line, problem.message});
    for (const auto& [name, count] : read.ignoredProperties)
      problems.push_back({path, 0, name + ": left out (" + std::to_string(count) + (count == 1 ? " line)" : " lines)")});
    for (const PhoneStoreRecord& entry : read.records) {
      Dictionary record = entry.fields.deepCopy();
      mapBack(phone, record, entry.entity);
      record.set(kEngineRecordEntityNameKey, entry.entity);
      RecordHolder holder(record, entry.identifier);
      holder.setMutableDictionary(record);
      auto formatter = phoneSide->formatterForEntity(entry.entity);
      if (auto transformer = dynamic_cast<QVTSyncRecordTransformer*>(formatter ? formatter->helper().get() : nullptr)) {
        try {
          transformer->unmangleRecordAfterReadingFromDevice(holder);
        } catch (const Exception& exception) {
          problems.push_back({path, 0, entry.identifier + ": " + exception.reason()});
        }
      }
      records.push_back({entry.identifier, entry.entity, holder.mutableDictionary()});
    }
  }

  if (options.report == "json") {
    nlohmann::ordered_json out{{"records", nlohmann::ordered_json::array()}, {"problems", nlohmann::ordered_json::array()}};
    for (const PhoneRecord& r : records)
      out["records"].push_back({{"identifier", r.identifier}, {"entity", r.entity}, {"record", jsonValue(r.record)}});
    for (const Problem& p : problems) out["problems"].push_back({{"file", p.file}, {"line", p.line}, {"message", p.message}});
    std::cout << out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    return;
  }
  for (const PhoneRecord& r : records)
    std::cout << (r.identifier.empty() ? "(no identifier)" : r.identifier) << " (" << r.entity << "):\n"
              << r.record.description() << "\n";
  for (const Problem& p : problems)
    std::cout << p.file << (p.line ? ":" + std::to_string(p.line) : std::string()) << ": " << p.message << "\n";
  std::cout << records.size() << (records.size() == 1 ? " record, " : " records, ") << problems.size()
            << (problems.size() == 1 ? " problem\n" : " problems\n");
}

}  // namespace

void addReadPhoneCommands(CLI::App& app) {
  auto options = std::make_shared<ReadPhoneOptions>();
  CLI::App* command = app.add_subcommand(
      "read-phone", "Read a phone's contacts (.vcf) and calendar (.vcs) files as that phone model "
                    "sends them, and print the engine records they become");
  addPhoneModelOptions(command, options->devicePath, options->entitiesPath);
  addVariablesOption(command, options->variablesPath);
  command->add_option("FILE", options->files, "vCard (.vcf) or vCalendar (.vcs) files")->required();
  addTextOrJsonReportOption(command, options->report);
  command->footer(
      "Each entry is printed as the engine record it becomes (the phone's values mapped back, "
      "then unmangled), followed by the lines skipped and the properties left out, with their "
      "file and line. --report json prints {\"records\": [{\"identifier\", \"entity\", \"record\"}], "
      "\"problems\": [{\"file\", \"line\", \"message\"}]}, dates as \"2027-06-15T09:00:00+02:00"
      "[Europe/Berlin]\". Exit status: 0 success, 1 a file that cannot be read at all (named), "
      "2 bad command line.\n\n"
      "Example:\n"
      "  phoneconduit read-phone --device examples/devices/full-phone.plist \\\n"
      "      --entities examples/devices/full-phone.entities.plist \\\n"
      "      --variables examples/devices/full-phone.variables.plist \\\n"
      "      examples/phone-exports/Contacts.vcf examples/phone-exports/Calendars.vcs\n");
  command->callback([options] { tools::readPhone(*options); });
}

}  // namespace pc::tools
