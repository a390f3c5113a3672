// format: formats record files as one phone model will hold them, on the
// phone side (what a synchronisation writes to the phone) or on the engine
// side (the engine's record formatter rebuilt from the client the phone
// archived itself in: its prediction of the record as given, before the
// data-class helper's mangling and exploding, which only the phone side does).
// check-device: builds every formatter of a device description and lists
// every problem it finds, each with its key path.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "async/AYLogger.h"
#include "command_support.h"
#include "commands.h"
#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/DeviceFormatting.h"
#include "host/PhoneStore.h"
#include "host/ReferenceSync.h"
#include "host/VFormatParsers.h"
#include "html_report.h"
#include "platform/TimeZone.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::tools {

namespace {

// Exit status of a format run in which some records were rejected.
constexpr int kSomeRecordsRejected = 3;
constexpr int kUnusableDescription = 1;

// The command's result is written once everything that could fail has been
// checked; a status other than success then ends the command with what was
// printed kept.
void emit(const std::string& text) {
  std::cout << text << std::flush;
}

[[noreturn]] void finish(int status) {
  throw CommandStatus(status);
}

// The phone keeps only the keys it syncs, which leaves out the record's
// entity name; the printed record gets it back, first, so that the output is
// a record file again.
Dictionary withEntityName(const Dictionary& record, const std::string& entity) {
  if (record.contains(kEngineRecordEntityNameKey) || entity.empty()) return record;
  Dictionary named{{kEngineRecordEntityNameKey, entity}};
  for (const auto& [key, value] : record) named.set(key, value);
  return named;
}

// A folder of its own for the client store of one run, removed at the end
// unless the user named the store.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "phoneconduit-XXXXXX").string();
    if (mkdtemp(pattern.data())) _path = pattern;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    if (!_path.empty()) std::filesystem::remove_all(_path, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

// What a description needs to be built besides itself.
struct DeviceOptions {
  std::string devicePath;
  std::string entitiesPath;
  std::string variablesPath;
  std::string clientValuesPath;
  std::string clientStorePath;
  int version = 0;
  bool log = false;
  std::string report = "text";
};

struct LoadedDevice {
  Dictionary description;
  Dictionary entities;
  DeviceFormattingOptions options;
};

// `textOrJson`: the command offers --report text or json (format adds its
// own --report, which offers html too).
void addDeviceOptions(CLI::App* command, const std::shared_ptr<DeviceOptions>& options, bool textOrJson) {
  addPhoneModelOptions(command, options->devicePath, options->entitiesPath);
  addVariablesOption(command, options->variablesPath);
  command->add_option("--client-values", options->clientValuesPath,
                      "values the phone keeps in its client before formatting, such as the limits "
                      "a phone reports (a property-list dictionary)")
      ->check(CLI::ExistingFile);
  addFormatVersionOption(command, options->version);
  if (textOrJson) addTextOrJsonReportOption(command, options->report);
  command->add_flag("--log", options->log,
                    "keep the conduit's own error log on standard error while formatting");
}

// Reads the files and prepares the client store: the client values are
// written into it before the phone is built, so the phone finds them there.
LoadedDevice loadDevice(const DeviceOptions& options, const std::string& clientStorePath) {
  PhoneModelFiles model = readPhoneModel(options.devicePath, options.entitiesPath);
  LoadedDevice device{std::move(model.description), std::move(model.entities), {}};
  device.options.version = options.version;
  if (!options.variablesPath.empty()) device.options.variables = readDictionary(options.variablesPath);
  device.options.clientStorePath = clientStorePath;
  if (!options.clientValuesPath.empty()) {
    const Dictionary values = readDictionary(options.clientValuesPath);
    if (clientStorePath.empty()) throw CommandError("no folder for the client store");
    writeClientValues(values, device.options.clientIdentifier, clientStorePath);
  }
  return device;
}

// "key/path: " of the problem that stopped a phone from being built: the
// problem the check finds with the same message, else the first it finds.
std::string whereInDescription(const LoadedDevice& device, const std::string& message) {
  std::vector<DescriptionProblem> problems;
  try {
    problems = checkDeviceDescription(device.description, device.entities, device.options);
  } catch (const Exception&) {
    return std::string();
  }
  const DescriptionProblem* found = problems.empty() ? nullptr : &problems.front();
  for (const DescriptionProblem& problem : problems)
    if (problem.message == message) {
      found = &problem;
      break;
    }
  return found && !found->keyPath.empty() ? found->keyPath + ": " : std::string();
}

// --- format ---------------------------------------------------------------------------

struct FormatOptions : DeviceOptions {
  std::vector<std::string> recordPaths;
  std::vector<std::string> reportValues;
  bool engineSide = false;
  std::string outputFolder;
  std::string anchorDate;
};

struct RecordResult {
  std::string path;
  std::string entity;
  std::optional<Dictionary> record;
  std::string rejection;
  // Every record the phone holds for it, in the store's order: the record,
  // its detached events held as records of their own, or the single events
  // of a recurring event the phone cannot hold (`record` is the first).
  std::vector<Dictionary> events;
  bool exploded = false;
  // The phone holds exactly one record for it, not a single event.
  bool oneRecord = false;
};

// The phone side answers what a synchronisation writes to the phone: the
// records go through the same run (assembled, mangled by their data class's
// helper, exploded when the phone cannot hold their recurrence, formatted)
// into a phone store of the scratch folder, and are read back from it.
std::vector<RecordResult> formatAsSynced(const FormatOptions& options, const LoadedDevice& device,
                                         const std::vector<std::pair<std::string, Dictionary>>& inputs,
                                         const std::string& phoneFolder) {
  SyncRun run{device.description, device.entities, device.options, phoneFolder, std::nullopt, {}, {}, false, {}};
  run.anchorDate = anchorDateOption(options.anchorDate);
  // Each record is named by its file's name, as sync names it (records refer
  // to each other by name: a detached event to its main event); a name met
  // again gets its position.
  std::vector<SyncInput> records;
  std::set<std::string> names;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    std::string identifier = std::filesystem::path(inputs[i].first).stem().string();
    if (!names.insert(identifier).second) identifier += "-" + std::to_string(i + 1);
    names.insert(identifier);
    records.push_back({identifier, inputs[i].second});
  }
  const SyncResult synced = ReferenceSync::run(run, records);
  if (!synced.error.empty())
    throw CommandError(options.devicePath + ": " + whereInDescription(device, synced.error) + synced.error +
                       " (phoneconduit check-device lists every problem)");

  std::map<std::string, std::vector<PhoneStoreRecord>> held;  // by input identifier
  PhoneStore store(phoneFolder);
  usePhoneParsers(store, device.description);
  if (auto dataClasses = device.description.getDictionary(kSyncDataClassesKey)) {
    for (const Value& dataClass : dataClasses->keys()) {
      std::string error;
      std::optional<PhoneStoreContents> contents = store.read(dataClass.stringValue(), &error);
      if (!contents) throw CommandError(error);
      for (PhoneStoreRecord& record : contents->records)
        // "<id>#<start>" single events, "<id>/<relation>/<n>" detached events.
        held[record.identifier.substr(0, record.identifier.find_first_of("#/"))].push_back(
            std::move(record));
    }
  }

  std::vector<RecordResult> results;
  for (std::size_t i = 0; i < inputs.size(); ++i) {
    const std::string& identifier = records[i].identifier;
    RecordResult result{inputs[i].first, inputs[i].second.getString(kEngineRecordEntityNameKey), std::nullopt,
                        std::string(), {}, false};
    for (const SyncRecordReport& entry : synced.report.records)
      if (entry.identifier == identifier) {
        result.exploded = entry.outcome == SyncOutcome::exploded;
        if (entry.outcome == SyncOutcome::rejected) result.rejection = entry.reason;
      }
    for (const PhoneStoreRecord& record : held[identifier]) {
      result.entity = record.entity;
      result.events.push_back(record.fields);
    }
    result.oneRecord = held[identifier].size() == 1 &&
                       held[identifier].front().identifier.find('#') == std::string::npos;
    if (!result.events.empty()) result.record = result.events.front();
    else if (result.rejection.empty() && !result.exploded)
      result.rejection = "the phone holds nothing of this record";
    results.push_back(std::move(result));
  }
  return results;
}

std::string outputName(const std::string& inputPath) {
  return std::filesystem::path(inputPath).filename().string();
}

void writeText(const std::string& path, const std::string& text) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file || std::fwrite(text.data(), 1, text.size(), file) != text.size()) {
    if (file) std::fclose(file);
    throw CommandError(path + ": cannot write the formatted record");
  }
  if (std::fclose(file) != 0) throw CommandError(path + ": cannot write the formatted record");
}

// The page of --report html: each record file beside the record the phone
// holds, with the fields that differ.
HtmlPage htmlPage(const std::vector<std::pair<std::string, Dictionary>>& inputs,
                  const std::vector<RecordResult>& results, const FormatOptions& options) {
  HtmlPage page{options.engineSide ? "Format report (engine side)" : "Format report",
                std::filesystem::path(options.devicePath).stem().string(), reportTimeNow(), {}};
  for (std::size_t i = 0; i < results.size(); ++i) {
    const RecordResult& result = results[i];
    HtmlRecord entry{result.path, result.entity, result.record ? "formatted" : "rejected", result.rejection, {},
                     inputs[i].second, result.record, {}};
    if (result.record)
      for (const std::string& field : ReferenceSync::differingFields(inputs[i].second, *result.record))
        entry.fields.emplace_back(field, std::string());
    page.records.push_back(std::move(entry));
  }
  return page;
}

void format(FormatOptions options) {
  const ReportChoice report = reportChoice(options.reportValues, options.recordPaths, "RECORDS");
  options.report = report.kind;
  // Every record is read before anything is formatted, so that a bad file
  // stops the command before it prints.
  std::vector<std::pair<std::string, Dictionary>> inputs;
  for (const std::string& path : options.recordPaths) {
    Dictionary record = recordFile(path).orFail();
    if (!record.get(kEngineRecordEntityNameKey).asString())
      throw CommandError(path + ": the record has no \"" + std::string(kEngineRecordEntityNameKey) +
                         "\" text");
    inputs.emplace_back(path, std::move(record));
  }
  if (!options.outputFolder.empty() && !std::filesystem::is_directory(options.outputFolder))
    throw CommandError(options.outputFolder + ": not a folder");

  TemporaryFolder scratch;
  const std::string storePath =
      !options.clientStorePath.empty() ? options.clientStorePath
      : scratch.path().empty()         ? std::string()
                                       : scratch.path() + "/client.plist";
  const LoadedDevice device = loadDevice(options, storePath);

  std::vector<RecordResult> results;
  if (!options.engineSide) {
    if (scratch.path().empty()) throw CommandError("no folder for the phone store");
    QuietDefaultLog quiet(options.log);
    try {
      results = formatAsSynced(options, device, inputs, scratch.path() + "/phone");
    } catch (const Exception& e) {
      throw CommandError(options.devicePath + ": " + whereInDescription(device, e.reason()) + e.reason() +
                         " (phoneconduit check-device lists every problem)");
    }
  } else {
    QuietDefaultLog quiet(options.log);
    std::unique_ptr<DeviceFormatting> formatting;
    try {
      formatting = DeviceFormatting::phoneSide(device.description, device.entities, device.options);
      if (formatting && options.engineSide) {
        if (storePath.empty()) throw CommandError("no folder for the client store");
        formatting = DeviceFormatting::engineSideFromClientStore(storePath);
        if (!formatting) throw CommandError(storePath + ": the client store holds no phone");
      }
    } catch (const Exception& e) {
      throw CommandError(options.devicePath + ": " + whereInDescription(device, e.reason()) + e.reason() +
                         " (phoneconduit check-device lists every problem)");
    }
    if (!formatting) throw CommandError(options.devicePath + ": no phone can be built from this description");

    for (const auto& [path, record] : inputs) {
      FormattingOutcome outcome = formatting->formatRecord(record);
      RecordResult result{path, record.getString(kEngineRecordEntityNameKey), std::move(outcome.record),
                          std::move(outcome.rejection), {}, false};
      if (result.record) result.events.push_back(*result.record);
      result.oneRecord = result.record.has_value();
      results.push_back(std::move(result));
    }
  }

  // The texts are made before anything is printed, so that a record that
  // cannot be written stops the command with nothing on standard output.
  // An exploded event gives one text per single event the phone holds (none
  // when no occurrence falls in the window); it is not a rejection.
  std::vector<std::vector<std::string>> texts(results.size());
  int rejected = 0;
  for (std::size_t i = 0; i < results.size(); ++i) {
    if (!results[i].record && !results[i].exploded) {
      ++rejected;
      continue;
    }
    for (const Dictionary& event : results[i].events) {
      Result<std::string> text = recordFileText(withEntityName(event, results[i].entity));
      if (!text) throw CommandError(results[i].path + ": the formatted record " + text.failure().message);
      texts[i].push_back(std::move(text).value());
    }
  }

  // Files named after their inputs; when the phone holds other than one
  // record for an input (an exploded event, detached events), each is
  // "<name>-<n>.plist", counted from 1 in the store's order.
  if (!options.outputFolder.empty()) {
    for (std::size_t i = 0; i < results.size(); ++i) {
      const std::filesystem::path name = outputName(results[i].path);
      for (std::size_t n = 0; n < texts[i].size(); ++n) {
        const std::string file = results[i].oneRecord ? name.string()
                                 : name.stem().string() + "-" + std::to_string(n + 1) +
                                       name.extension().string();
        writeText((std::filesystem::path(options.outputFolder) / file).string(), texts[i][n]);
      }
    }
  }

  for (const RecordResult& result : results)
    if (!result.record && !result.exploded)
      std::cerr << "phoneconduit: " << result.path << ": rejected: "
                << (result.rejection.empty() ? std::string("the phone cannot hold this record")
                                             : result.rejection)
                << "\n";

  if (report.kind == "html") {
    const std::string page = htmlReport(htmlPage(inputs, results, options));
    std::FILE* file = std::fopen(report.htmlPath.c_str(), "wb");
    bool written = file && std::fwrite(page.data(), 1, page.size(), file) == page.size();
    if (file && std::fclose(file) != 0) written = false;
    if (!written) throw CommandError(report.htmlPath + ": cannot write the report");
  }

  if (options.report == "json") {
    Json records = Json::array();
    for (const RecordResult& result : results) {
      Json entry{{"file", result.path},
                 {"entity", result.entity},
                 {"status", result.exploded ? "exploded" : result.record ? "formatted" : "rejected"}};
      if (result.exploded) entry["events"] = result.events.size();
      if (!result.record && !result.exploded) entry["reason"] = result.rejection;
      if (!options.outputFolder.empty() && result.oneRecord)
        entry["output"] = (std::filesystem::path(options.outputFolder) / outputName(result.path)).string();
      records.push_back(std::move(entry));
    }
    emit(jsonDocument(Json{{"device", options.devicePath},
                           {"side", options.engineSide ? "engine" : "phone"},
                           {"formatted", results.size() - rejected},
                           {"rejected", rejected},
                           {"records", std::move(records)}}));
  } else if (options.outputFolder.empty()) {
    // One record file per formatted record, in the order given.
    std::string all;
    for (const std::vector<std::string>& record : texts)
      for (const std::string& text : record) all += text;
    emit(all);
  }
  if (rejected) finish(kSomeRecordsRejected);
}

// --- check-device ---------------------------------------------------------------------

void checkDevice(const DeviceOptions& options) {
  TemporaryFolder scratch;
  const LoadedDevice device =
      loadDevice(options, scratch.path().empty() ? std::string() : scratch.path() + "/client.plist");

  std::vector<DescriptionProblem> problems;
  Array entities;
  {
    QuietDefaultLog quiet(options.log);
    problems = checkDeviceDescription(device.description, device.entities, device.options);
    if (problems.empty()) {
      try {
        if (auto formatting = DeviceFormatting::phoneSide(device.description, device.entities, device.options))
          entities = formatting->supportedEntityNames();
        else
          problems.push_back({"", "no phone can be built from this description"});
      } catch (const Exception& e) {
        problems.push_back({"", e.reason()});
      }
    }
  }

  if (options.report == "json") {
    Json problemList = Json::array();
    for (const DescriptionProblem& problem : problems)
      problemList.push_back({{"keyPath", problem.keyPath}, {"message", problem.message}});
    Json entityNames = Json::array();
    for (const Value& entity : entities) entityNames.push_back(entity.stringValue());
    emit(jsonDocument(Json{{"device", options.devicePath},
                           {"usable", problems.empty()},
                           {"problems", std::move(problemList)},
                           {"entities", std::move(entityNames)}}));
    if (!problems.empty()) finish(kUnusableDescription);
    return;
  }

  for (const DescriptionProblem& problem : problems)
    std::cerr << "phoneconduit: " << options.devicePath << ": "
              << (problem.keyPath.empty() ? std::string() : problem.keyPath + ": ") << problem.message
              << "\n";
  if (!problems.empty()) finish(kUnusableDescription);

  std::string summary = options.devicePath + ": usable, " + std::to_string(entities.count()) + " entities:";
  for (const Value& entity : entities) summary += " " + entity.stringValue();
  emit(summary + "\n");
}

}  // namespace

void addFormatCommands(CLI::App& app) {
  auto formatOptions = std::make_shared<FormatOptions>();
  CLI::App* format = app.add_subcommand(
      "format", "Format record files as a phone model will hold them and print the results");
  addDeviceOptions(format, std::shared_ptr<DeviceOptions>(formatOptions, formatOptions.get()), false);
  addReportOption(format, formatOptions->reportValues);
  format->add_option("RECORDS", formatOptions->recordPaths, "record files (nice plist text)")
      ->check(CLI::ExistingFile);
  format->add_flag("--engine-side", formatOptions->engineSide,
                   "answer through the engine's record formatter rebuilt from the client store "
                   "instead of the phone conduit");
  format->add_option("--anchor-date", formatOptions->anchorDate,
                     "the day the window of exploded events is counted from (20261122), as "
                     "sync takes it (default: the last Sunday)");
  format->add_option("--client-store", formatOptions->clientStorePath,
                     "keep the client store (where the phone archives itself) in this file");
  format->add_option("--output-dir", formatOptions->outputFolder,
                     "write each formatted record to this folder under its input file's name "
                     "instead of printing it");
  format->footer(
      "The phone side shows what sync writes to the phone: a recurring event the phone "
      "cannot hold prints its single events within the window (see --anchor-date), and "
      "detached events print as records of their own. Rejected records are named on "
      "standard error with the reason. Exit status: 0 all formatted, 1 bad input, 3 some "
      "records rejected. --report html FILE also writes one page to open in a browser: each "
      "record file beside the phone's form, the fields that differ marked.\n\n"
      "Example:\n"
      "  phoneconduit format --device examples/devices/basic-phone.plist \\\n"
      "      --entities examples/devices/basic-phone.entities.plist \\\n"
      "      examples/records/contacts/01-latin-alicemartin.plist\n"
      "  phoneconduit format --device examples/devices/basic-phone.plist \\\n"
      "      --entities examples/devices/basic-phone.entities.plist \\\n"
      "      --report html /tmp/basic.html examples/records/contacts/*.plist\n");
  format->callback([formatOptions] { tools::format(*formatOptions); });

  auto checkOptions = std::make_shared<DeviceOptions>();
  CLI::App* check = app.add_subcommand(
      "check-device", "Build every formatter of a device description and list every problem found");
  addDeviceOptions(check, checkOptions, true);
  check->footer(
      "Each problem is printed on standard error with its key path in the description. Exit "
      "status: 0 usable, 1 unusable or bad input.\n\n"
      "Example:\n"
      "  phoneconduit check-device --device examples/devices/flip-phone.plist \\\n"
      "      --entities examples/devices/flip-phone.entities.plist \\\n"
      "      --variables examples/devices/flip-phone.variables.plist \\\n"
      "      --client-values examples/devices/flip-phone.client.plist\n");
  check->callback([checkOptions] { checkDevice(*checkOptions); });
}

}  // namespace pc::tools
