// import, export: the engine's truth kept in a store file. `import` adds or
// replaces records from record files, all of them or none; `export` writes
// the stored records out as record files or JSON.

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_support.h"
#include "commands.h"
#include "engine/SchemaNames.h"
#include "engine/SqliteEngine.h"
#include "platform/CalendarDate.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::tools {

namespace {

struct ImportOptions {
  std::string storePath;
  std::vector<std::string> recordPaths;
  std::string report = "text";
};

struct ExportOptions {
  std::string storePath;
  std::string format = "plist";
  std::string outputDirectory;
  std::string entity;
};

// The store of a command; a CommandError naming the file when it cannot be
// used. `check` reads every stored record first, so that a command that
// writes out finds a damaged store before it writes anything.
std::shared_ptr<SqliteEngine> openStore(const std::string& path, bool create, bool check) {
  std::string error;
  std::shared_ptr<SqliteEngine> store = SqliteEngine::engineWithPath(path, &error, create);
  if (!store) throw CommandError(error);
  if (check) {
    if (std::string problem = store->check(); !problem.empty()) throw CommandError(problem);
  }
  return store;
}

void import(const ImportOptions& options) {
  // Every file is read and checked before the store is touched.
  std::vector<std::pair<std::string, Dictionary>> records;
  std::map<std::string, std::string> seen;
  const auto schema = SyncEngineManager::sharedManager();
  for (const std::string& path : options.recordPaths) {
    std::string error;
    std::optional<Dictionary> record = readRecordFile(path, &error);
    if (!record) throw CommandError(error);
    const Value entity = record->get(kEngineRecordEntityNameKey);
    if (!entity.isString())
      throw CommandError(path + ": " + kEngineRecordEntityNameKey + ": missing, or not a text");
    if (!schema->dataClassNameForEntityName(entity.string()))
      throw CommandError(path + ": " + kEngineRecordEntityNameKey + ": \"" + entity.string() +
                         "\" is not an entity of the engine");
    const std::string identifier = std::filesystem::path(path).stem().string();
    if (auto [it, added] = seen.emplace(identifier, path); !added)
      throw CommandError(path + ": names the same record as " + it->second);
    records.emplace_back(identifier, std::move(*record));
  }

  std::shared_ptr<SqliteEngine> store = openStore(options.storePath, true, false);
  std::size_t added = 0, replaced = 0, unchanged = 0;
  std::vector<std::pair<std::string, const char*>> outcomes;
  {
    SqliteEngine::Transaction transaction(*store);
    for (const auto& [identifier, record] : records) {
      const std::optional<Dictionary> existing = store->recordWithIdentifier(identifier);
      const char* outcome = "added";
      if (existing && Value(*existing) == Value(record)) {
        // An identical record is left alone: its change stamp stays, so a
        // sync does not send it again.
        outcome = "unchanged";
        ++unchanged;
      } else {
        store->addRecord(identifier, record);
        existing ? ++replaced : ++added;
        if (existing) outcome = "replaced";
      }
      outcomes.emplace_back(identifier, outcome);
    }
    transaction.commit();
  }

  if (options.report == "json") {
    Json list = Json::array();
    for (const auto& [identifier, outcome] : outcomes)
      list.push_back(Json{{"identifier", identifier}, {"outcome", outcome}});
    std::cout << jsonDocument(Json{{"store", options.storePath},
                                   {"summary", {{"added", added}, {"replaced", replaced}, {"unchanged", unchanged}}},
                                   {"records", std::move(list)}});
  } else {
    for (const auto& [identifier, outcome] : outcomes) std::cout << identifier << ": " << outcome << "\n";
    std::cout << added << " added, " << replaced << " replaced, " << unchanged << " unchanged; "
              << store->count() << (store->count() == 1 ? " record" : " records") << " in "
              << options.storePath << "\n";
  }
}

std::string base64(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::uint32_t chunk = (bytes[i] << 16) | (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0) |
                                (i + 2 < bytes.size() ? bytes[i + 2] : 0);
    out += kAlphabet[(chunk >> 18) & 63];
    out += kAlphabet[(chunk >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(chunk >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[chunk & 63] : '=';
  }
  return out;
}

// A record value as JSON: dates as ISO 8601 text in their own zone, data as
// base64 text, addresses as their text; numbers that are not finite as null.
Json jsonValue(const Value& value) {
  switch (value.kind()) {
    case ValueKind::Null: return nullptr;
    case ValueKind::Boolean: return value.boolValue();
    case ValueKind::Integer: return value.integerValue();
    case ValueKind::Real: {
      const double number = value.doubleValue();
      if (std::isfinite(number)) return number;
      return nullptr;
    }
    case ValueKind::String: return value.string();
    case ValueKind::Data: return base64(value.data().bytes());
    case ValueKind::URL: return value.url().absoluteString();
    case ValueKind::Date: return value.date().descriptionWithCalendarFormat("%Y-%m-%dT%H:%M:%S%z");
    case ValueKind::Array:
    case ValueKind::Set: {
      Json list = Json::array();
      for (const Value& element : value.isSet() ? value.set().allObjects() : value.array())
        list.push_back(jsonValue(element));
      return list;
    }
    case ValueKind::Dictionary: {
      Json object = Json::object();
      for (const auto& [key, element] : value.dictionary()) object[key.stringValue()] = jsonValue(element);
      return object;
    }
    default: return value.description();
  }
}

// A file name for an identifier: characters a path cannot hold are replaced.
std::string fileNameFor(const std::string& identifier, const std::string& extension) {
  std::string name = identifier;
  for (char& c : name)
    if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 0x20) c = '_';
  if (name.empty() || name == "." || name == "..") name = "_" + name;
  return name + "." + extension;
}

void exportRecords(const ExportOptions& options) {
  std::shared_ptr<SqliteEngine> store = openStore(options.storePath, false, true);
  const Array identifiers = options.entity.empty() ? store->recordIdentifiers()
                                                   : store->recordIdentifiersForEntityName(options.entity);
  std::vector<std::pair<std::string, Dictionary>> records;
  for (const Value& identifier : identifiers)
    if (auto record = store->recordWithIdentifier(identifier.string()))
      records.emplace_back(identifier.string(), std::move(*record));

  if (options.outputDirectory.empty()) {
    if (options.format == "json") {
      Json list = Json::array();
      for (const auto& [identifier, record] : records)
        list.push_back(Json{{"identifier", identifier}, {"record", jsonValue(record)}});
      std::cout << jsonDocument(list);
    } else {
      Dictionary all;
      for (const auto& [identifier, record] : records) all.set(identifier, record);
      std::string error;
      std::optional<std::string> text = recordText(all, &error);
      if (!text) throw CommandError(options.storePath + ": " + error);
      std::cout << *text;
    }
    return;
  }

  // Every text is made before the first file is written.
  std::vector<std::pair<std::filesystem::path, std::string>> files;
  const std::filesystem::path folder(options.outputDirectory);
  for (const auto& [identifier, record] : records) {
    std::string text;
    if (options.format == "json") {
      text = jsonDocument(jsonValue(record));
    } else {
      std::string error;
      std::optional<std::string> plist = recordText(record, &error);
      if (!plist) throw CommandError(options.storePath + ": records/" + identifier + ": " + error);
      text = std::move(*plist);
    }
    files.emplace_back(folder / fileNameFor(identifier, options.format), std::move(text));
  }
  std::error_code code;
  std::filesystem::create_directories(folder, code);
  if (code || !std::filesystem::is_directory(folder, code))
    throw CommandError(options.outputDirectory + ": cannot make the folder" +
                       (code ? ": " + code.message() : std::string()));
  for (const auto& [path, text] : files) {
    const std::string temporary = path.string() + ".part";
    {
      std::ofstream out(temporary, std::ios::binary);
      out << text;
      if (!out.flush()) throw CommandError(temporary + ": cannot write");
    }
    std::filesystem::rename(temporary, path, code);
    if (code) throw CommandError(path.string() + ": cannot write: " + code.message());
  }
  std::cout << files.size() << (files.size() == 1 ? " record" : " records") << " written to "
            << options.outputDirectory << "\n";
}

}  // namespace

void addStoreCommands(CLI::App& app) {
  auto importOptions = std::make_shared<ImportOptions>();
  CLI::App* importCommand = app.add_subcommand(
      "import", "Add or replace records in a store file (created when missing)");
  importCommand->add_option("--store", importOptions->storePath, "the store file")->required();
  importCommand
      ->add_option("RECORDS", importOptions->recordPaths,
                   "record files (nice plist text); each file's name is its record's identifier")
      ->required()
      ->check(CLI::ExistingFile);
  importCommand->add_option("--report", importOptions->report, "text (default) or json, for scripts")
      ->check(CLI::IsMember({"text", "json"}));
  importCommand->footer(
      "Every file is read before the store is written; one that does not read, or names no "
      "entity of the engine, stops the command and nothing is imported. A record already in the "
      "store is replaced, or left alone when it is the same, so that a sync does not send it "
      "again. Exit status: 0 success, 1 bad input, 2 bad command line.\n\n"
      "Example:\n"
      "  phoneconduit import --store truth.db examples/records/contacts/*.plist \\\n"
      "      examples/records/calendar/*.plist\n");
  importCommand->callback([importOptions] { tools::import(*importOptions); });

  auto exportOptions = std::make_shared<ExportOptions>();
  CLI::App* exportCommand =
      app.add_subcommand("export", "Write the records of a store file out, as record files or JSON");
  exportCommand->add_option("--store", exportOptions->storePath, "the store file")
      ->required()
      ->check(CLI::ExistingFile);
  exportCommand->add_option("--format", exportOptions->format,
                            "plist (default: record files that import reads back) or json")
      ->check(CLI::IsMember({"plist", "json"}));
  exportCommand->add_option("--output", exportOptions->outputDirectory,
                            "a folder to write one file per record into (IDENTIFIER.plist or "
                            "IDENTIFIER.json); without it, everything goes to standard output");
  exportCommand->add_option("--entity", exportOptions->entity,
                            "only the records of this entity (Contacts.Contact)");
  exportCommand->footer(
      "On standard output, plist is one dictionary from identifier to record and json an array "
      "of {\"identifier\", \"record\"}; dates are ISO 8601 text in their own zone, data base64. "
      "A damaged store is named with the record at fault before anything is written. Exit "
      "status: 0 success, 1 bad input, 2 bad command line.\n\n"
      "Examples:\n"
      "  phoneconduit export --store truth.db --output /tmp/records\n"
      "  phoneconduit export --store truth.db --format json --entity Contacts.Contact\n");
  exportCommand->callback([exportOptions] { tools::exportRecords(*exportOptions); });
}

}  // namespace pc::tools
