#pragma once
// Pieces the commands share: reading a property-list dictionary, JSON
// documents for reports, and silencing the default error log while a command
// reports what went wrong itself.

#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

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
