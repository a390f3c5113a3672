// import, export: the engine's truth kept in a store file. `import` adds or
// replaces records from record files (all of them or none) and from a user's
// calendar and contact files (.ics, .vcf: each file on its own); `export`
// writes the stored records out as record files, JSON, iCalendar or vCard.

#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "command_support.h"
#include "commands.h"
#include "engine/SchemaNames.h"
#include "engine/SqliteEngine.h"
#include "host/UserFiles.h"
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
  std::string outputDirectory;  // a single file for ics and vcf
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

enum class FileKind { Records, ICalendar, VCard };

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i)
    if (std::toupper(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  return true;
}

// What a file holds: by its extension, else by its first line.
FileKind fileKind(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (extension == ".ics" || extension == ".ical" || extension == ".ifb") return FileKind::ICalendar;
  if (extension == ".vcf" || extension == ".vcard") return FileKind::VCard;
  if (extension == ".plist") return FileKind::Records;
  std::ifstream in(path, std::ios::binary);
  std::string head(512, '\0');
  in.read(head.data(), static_cast<std::streamsize>(head.size()));
  head.resize(static_cast<std::size_t>(in.gcount()));
  std::string_view text(head);
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  if (startsWithIgnoringCase(text, "BEGIN:VCALENDAR")) return FileKind::ICalendar;
  if (startsWithIgnoringCase(text, "BEGIN:VCARD")) return FileKind::VCard;
  return FileKind::Records;
}

// A user's file read into records; a failure when the file cannot be read.
UserFileImport readUserFile(const std::string& path, FileKind kind) {
  std::ifstream in(path, std::ios::binary);
  std::string text;
  if (in) text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (!in && !in.eof()) {
    UserFileImport file;
    file.path = path;
    file.failure = UserFileNote{0, "cannot read the file"};
    return file;
  }
  return kind == FileKind::VCard ? importVCardText(text, path) : importICalendarText(text, path);
}

// "FILE: line 3: why", or "FILE: why" when there is no line.
std::string noteText(const std::string& path, const UserFileNote& note) {
  return path + ": " + (note.line ? "line " + std::to_string(note.line) + ": " : std::string()) + note.message;
}

struct Outcomes {
  std::size_t added = 0, replaced = 0, unchanged = 0;
};

// What one file of the command line gave, in the command line's order.
struct ImportedFile {
  std::string path;
  FileKind kind = FileKind::Records;
  UserFileImport user;  // for .ics and .vcf files
  std::vector<std::pair<std::string, Dictionary>> records;
  Outcomes outcomes;
  std::vector<std::pair<std::string, const char*>> recordOutcomes;
};

Json notesJson(const std::vector<UserFileNote>& notes, const char* what) {
  Json list = Json::array();
  for (const UserFileNote& note : notes) list.push_back(Json{{"line", note.line}, {what, note.message}});
  return list;
}

void import(const ImportOptions& options) {
  // Record files are read and checked before the store is touched, all or
  // none; a user's file is read on its own, and one that does not read
  // leaves the others to be imported.
  std::vector<ImportedFile> files;
  std::map<std::string, std::string> seen;
  const auto schema = SyncEngineManager::sharedManager();
  for (const std::string& path : options.recordPaths) {
    ImportedFile file;
    file.path = path;
    file.kind = fileKind(path);
    if (file.kind != FileKind::Records) {
      file.user = readUserFile(path, file.kind);
      for (UserFileRecord& entry : file.user.records)
        file.records.emplace_back(std::move(entry.identifier), std::move(entry.record));
      file.user.records.clear();
      files.push_back(std::move(file));
      continue;
    }
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
    file.records.emplace_back(identifier, std::move(*record));
    files.push_back(std::move(file));
  }

  std::shared_ptr<SqliteEngine> store = openStore(options.storePath, true, false);
  Outcomes total;
  {
    SqliteEngine::Transaction transaction(*store);
    for (ImportedFile& file : files) {
      for (const auto& [identifier, record] : file.records) {
        const std::optional<Dictionary> existing = store->recordWithIdentifier(identifier);
        const char* outcome = "added";
        if (existing && Value(*existing) == Value(record)) {
          // An identical record is left alone: its change stamp stays, so a
          // sync does not send it again.
          outcome = "unchanged";
          ++file.outcomes.unchanged;
        } else {
          store->addRecord(identifier, record);
          existing ? ++file.outcomes.replaced : ++file.outcomes.added;
          if (existing) outcome = "replaced";
        }
        file.recordOutcomes.emplace_back(identifier, outcome);
      }
      total.added += file.outcomes.added;
      total.replaced += file.outcomes.replaced;
      total.unchanged += file.outcomes.unchanged;
    }
    transaction.commit();
  }

  bool failed = false, skipped = false;
  for (const ImportedFile& file : files) {
    failed = failed || file.user.failure.has_value();
    skipped = skipped || !file.user.skipped.empty();
  }
  if (options.report == "json") {
    Json list = Json::array();
    for (const ImportedFile& file : files)
      for (const auto& [identifier, outcome] : file.recordOutcomes)
        list.push_back(Json{{"identifier", identifier}, {"outcome", outcome}});
    Json document{{"store", options.storePath},
                  {"summary", {{"added", total.added}, {"replaced", total.replaced}, {"unchanged", total.unchanged}}},
                  {"records", std::move(list)}};
    Json userFiles = Json::array();
    for (const ImportedFile& file : files) {
      if (file.kind == FileKind::Records) continue;
      Json entry{{"file", file.path},
                 {"format", file.kind == FileKind::VCard ? "vcf" : "ics"},
                 {"added", file.outcomes.added},
                 {"replaced", file.outcomes.replaced},
                 {"unchanged", file.outcomes.unchanged},
                 {"skipped", notesJson(file.user.skipped, "reason")},
                 {"notes", notesJson(file.user.reported, "note")},
                 {"propertiesNotKept", Json(file.user.propertiesNotKept)}};
      if (file.user.failure)
        entry["failure"] = Json{{"line", file.user.failure->line}, {"message", file.user.failure->message}};
      userFiles.push_back(std::move(entry));
    }
    if (!userFiles.empty()) document["files"] = std::move(userFiles);
    std::cout << jsonDocument(document);
  } else {
    for (const ImportedFile& file : files) {
      if (file.kind == FileKind::Records) {
        for (const auto& [identifier, outcome] : file.recordOutcomes) std::cout << identifier << ": " << outcome << "\n";
        continue;
      }
      if (file.user.failure) {
        std::cout << file.path << ": not imported\n";
        continue;
      }
      std::cout << file.path << ": " << file.outcomes.added << " added, " << file.outcomes.replaced
                << " replaced, " << file.outcomes.unchanged << " unchanged, " << file.user.skipped.size()
                << " skipped\n";
      for (const UserFileNote& note : file.user.skipped)
        std::cout << "  line " << note.line << ": skipped: " << note.message << "\n";
      for (const UserFileNote& note : file.user.reported)
        std::cout << "  line " << note.line << ": " << note.message << "\n";
      if (!file.user.propertiesNotKept.empty()) {
        std::cout << "  not kept:";
        bool first = true;
        for (const auto& [name, count] : file.user.propertiesNotKept) {
          std::cout << (first ? " " : ", ") << name << " (" << count << ")";
          first = false;
        }
        std::cout << "\n";
      }
    }
    std::cout << total.added << " added, " << total.replaced << " replaced, " << total.unchanged << " unchanged; "
              << store->count() << (store->count() == 1 ? " record" : " records") << " in "
              << options.storePath << "\n";
  }
  for (const ImportedFile& file : files)
    if (file.user.failure) std::cerr << "phoneconduit: " << noteText(file.path, *file.user.failure) << "\n";
  if (failed) throw CommandStatus(1);
  if (skipped) throw CommandStatus(3);
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

  if (options.format == "ics" || options.format == "vcf") {
    const std::string text =
        options.format == "vcf" ? exportVCardText(records) : exportICalendarText(records);
    if (options.outputDirectory.empty()) {
      std::cout << text;
      return;
    }
    const std::string temporary = options.outputDirectory + ".part";
    {
      std::ofstream out(temporary, std::ios::binary);
      out << text;
      if (!out.flush()) throw CommandError(options.outputDirectory + ": cannot write");
    }
    std::error_code code;
    std::filesystem::rename(temporary, options.outputDirectory, code);
    if (code) throw CommandError(options.outputDirectory + ": cannot write: " + code.message());
    return;
  }

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
      "import", "Add or replace records in a store file (created when missing), from record files, "
                "iCalendar (.ics) and vCard (.vcf) files");
  importCommand->add_option("--store", importOptions->storePath, "the store file")->required();
  importCommand
      ->add_option("FILES", importOptions->recordPaths,
                   "record files (nice plist text; each file's name is its record's identifier), "
                   ".ics and .vcf files; a file of another name is taken for what its first line says")
      ->required()
      ->check(CLI::ExistingFile);
  importCommand->add_option("--report", importOptions->report, "text (default) or json, for scripts")
      ->check(CLI::IsMember({"text", "json"}));
  importCommand->footer(
      "Record files are read before the store is written; one that does not read, or names no "
      "entity of the engine, stops the command and nothing is imported. An .ics or .vcf file stands "
      "on its own: its entries are imported even when another file does not read, an entry that "
      "cannot become a record is skipped with its line and why, and properties the records have "
      "no place for are counted by name. An entry's identifier comes from its UID, so importing a "
      "file again replaces what it gave before. A record already in the store is replaced, or left "
      "alone when it is the same, so that a sync does not send it again.\n"
      "Exit status: 0 success; 1 bad input (a file that could not be read is named on standard "
      "error, and the other files' entries are imported); 2 bad command line; 3 some entries "
      "skipped (the others imported).\n\n"
      "Examples:\n"
      "  phoneconduit import --store truth.db examples/records/contacts/*.plist \\\n"
      "      examples/records/calendar/*.plist\n"
      "  phoneconduit import --store truth.db --report json contacts.vcf calendar.ics\n");
  importCommand->callback([importOptions] { tools::import(*importOptions); });

  auto exportOptions = std::make_shared<ExportOptions>();
  CLI::App* exportCommand =
      app.add_subcommand(
          "export", "Write the records of a store file out, as record files, JSON, iCalendar or vCard");
  exportCommand->add_option("--store", exportOptions->storePath, "the store file")
      ->required()
      ->check(CLI::ExistingFile);
  exportCommand->add_option("--format", exportOptions->format,
                            "plist (default: record files that import reads back), json, ics (the "
                            "events and tasks as one iCalendar file) or vcf (the contacts as vCard 3.0)")
      ->check(CLI::IsMember({"plist", "json", "ics", "vcf"}));
  exportCommand->add_option("--output", exportOptions->outputDirectory,
                            "plist, json: a folder to write one file per record into (IDENTIFIER.plist "
                            "or IDENTIFIER.json); ics, vcf: the file to write; without it, everything "
                            "goes to standard output");
  exportCommand->add_option("--entity", exportOptions->entity,
                            "only the records of this entity (Contacts.Contact)");
  exportCommand->footer(
      "On standard output, plist is one dictionary from identifier to record and json an array "
      "of {\"identifier\", \"record\"}; dates are ISO 8601 text in their own zone, data base64. "
      "An ics or vcf file keeps each record's identifier as its UID, so that importing it again "
      "gives the same records. A damaged store is named with the record at fault before anything "
      "is written. Exit status: 0 success, 1 bad input, 2 bad command line.\n\n"
      "Examples:\n"
      "  phoneconduit export --store truth.db --output /tmp/records\n"
      "  phoneconduit export --store truth.db --format vcf --output contacts.vcf\n"
      "  phoneconduit export --store truth.db --format json --entity Contacts.Contact\n");
  exportCommand->callback([exportOptions] { tools::exportRecords(*exportOptions); });
}

}  // namespace pc::tools
