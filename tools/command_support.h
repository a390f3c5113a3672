#pragma once
// Pieces the commands share: reading a property-list dictionary, JSON
// documents for reports, and silencing the default error log while a command
// reports what went wrong itself.

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/ReferenceSync.h"
#include "platform/CalendarDate.h"
#include "platform/Value.h"
#include "result.h"

namespace pc::tools {

// The dictionary in the property-list file `path`; a CommandError naming the
// file when it cannot be read or holds something else.
Dictionary readDictionary(const std::string& path);

// The library's reads and writes the commands use, each answering a Result
// whose failure names the file (and the place in it, where the library says).
// The contents of a property-list file (XML).
Result<Value> propertyListFile(const std::string& path);
// The record of a record file (nice plist text), its tagged values rebuilt.
Result<Dictionary> recordFile(const std::string& path);
// A record as record-file text.
Result<std::string> recordFileText(const Dictionary& record);
// `text` read with a calendar format ("%Y%m%d") in the local zone.
Result<CalendarDate> dateFromText(const std::string& text, const char* format);

// JSON objects keep their keys in the order they were set, so reports read
// in the order of their text form.
using Json = nlohmann::ordered_json;

// The document as report text: indented by two, UTF-8 kept as it is, control
// characters escaped, each invalid UTF-8 sequence replaced by U+FFFD (record
// texts come from files and may hold anything); ends with a newline.
std::string jsonDocument(const Json& document);

// The report a command prints: "text" (the default), "json", or "html" with
// the file the page goes to.
struct ReportChoice {
  std::string kind = "text";
  std::string htmlPath;
};

// Adds "--report KIND [FILE]" (text, json or html FILE) to a command whose
// positional arguments are `positionals`: the option takes a second value
// only for html, so a value taken after text or json is given back to the
// positionals after parsing (reportChoice).
void addReportOption(CLI::App* command, std::vector<std::string>& values);
// The choice the values make; a CommandLineError for an unknown kind or an
// html report without its file. `positionals` gets back what the option took
// that was not its own; unless `positionalsRequired` is false it must not be
// empty afterwards (`positionalName` names it in the error).
ReportChoice reportChoice(const std::vector<std::string>& values, std::vector<std::string>& positionals,
                          const std::string& positionalName, bool positionalsRequired = true);

// The options the commands that work with a phone model share, each with
// the same name and help wherever it stands, so that the commands read alike.
// --device and --entities (both required, existing files): the model's
// description and the engine's description of the entities it syncs.
void addPhoneModelOptions(CLI::App* command, std::string& devicePath, std::string& entitiesPath);
// --variables: the values of the description's "$name" variables.
void addVariablesOption(CLI::App* command, std::string& variablesPath);
// --format-version: the description's format version (0: from its contents).
void addFormatVersionOption(CLI::App* command, int& version);
// --report text or json, for a command without an html report.
void addTextOrJsonReportOption(CLI::App* command, std::string& kind);

// A phone model's two descriptions, as --device and --entities name them.
struct PhoneModelFiles {
  Dictionary description;
  Dictionary entities;
};
// Reads both; a CommandError naming the file when one cannot be read or
// lacks its top-level dictionary ("SyncDataClasses", "Entities").
PhoneModelFiles readPhoneModel(const std::string& devicePath, const std::string& entitiesPath);

// The day of --anchor-date ("20261122", in the system's zone); nullopt when
// the option is not given, a CommandLineError when it is not a day.
std::optional<CalendarDate> anchorDateOption(const std::string& text);

// Writes the values (--client-values) into the engine client store at
// `clientStorePath`, where the phone finds them when it is built; a
// CommandError when the store cannot be written.
void writeClientValues(const Dictionary& values, const std::string& clientIdentifier,
                       const std::string& clientStorePath);

// What a phone model did to the fields of a record, as reports show it:
// "name (limit); name" in text, [{"field", "limit"}] in JSON (no "limit"
// where the field went without one).
std::string syncFieldsText(const std::vector<SyncField>& fields);
Json syncFieldsJson(const std::vector<SyncField>& fields);

// While it lives, the default error log on standard error is silenced: the
// command reports what went wrong itself, once, with the file and key path.
// A user whose preferences ask for more logging keeps it all, and so does
// `keep` (--log).
class QuietDefaultLog {
 public:
  explicit QuietDefaultLog(bool keep);
  ~QuietDefaultLog();
  QuietDefaultLog(const QuietDefaultLog&) = delete;
  QuietDefaultLog& operator=(const QuietDefaultLog&) = delete;

 private:
  bool _active;
};

}  // namespace pc::tools
