#include "FuzzEntries.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "async/AYLogger.h"
#include "calcore/CALEventExploder.h"
#include "calcore/CALTimeRange.h"
#include "commands.h"
#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "explode.h"
#include "host/DeviceFormatting.h"
#include "host/PhoneStore.h"
#include "host/VCalendarCodec.h"
#include "host/VCardCodec.h"
#include "host/ReferenceHost.h"
#include "host/UserFiles.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"
#include "validation.h"

namespace pc::fuzz {

namespace {

std::string_view textOf(const std::uint8_t* data, std::size_t size) {
  return std::string_view(reinterpret_cast<const char*>(data), size);
}

[[noreturn]] void finding(const std::string& what) { throw FuzzFinding(what); }

// NaN equals nothing, itself included, so a value holding one cannot be
// compared with ==.
bool holdsNaN(const Value& value) {
  if (value.isReal()) return std::isnan(value.doubleValue());
  if (const auto array = value.asArray()) {
    for (const Value& element : *array)
      if (holdsNaN(element)) return true;
  } else if (const auto dictionary = value.asDictionary()) {
    for (const auto& [key, element] : *dictionary)
      if (holdsNaN(element)) return true;
  }
  return false;
}

// Whether a value read back is the one written, kind by kind: the same kind
// (an integer 1 is not the real 1.0), reals to the bit (NaN included),
// dates to the instant and the zone, data and texts byte for byte,
// containers element by element in order.
bool sameValue(const Value& a, const Value& b) {
  if (a.kind() != b.kind()) return false;
  switch (a.kind()) {
    case ValueKind::Real: {
      const double x = a.doubleValue(), y = b.doubleValue();
      return (std::isnan(x) && std::isnan(y)) || (x == y && std::signbit(x) == std::signbit(y));
    }
    case ValueKind::Date:
      return a.date() == b.date() && a.date().timeZone()->name() == b.date().timeZone()->name();
    case ValueKind::Array:
    case ValueKind::Set: {
      const std::vector<Value> x = a.isArray() ? a.array().values() : a.set().allObjects().values();
      const std::vector<Value> y = b.isArray() ? b.array().values() : b.set().allObjects().values();
      if (x.size() != y.size()) return false;
      for (std::size_t i = 0; i < x.size(); ++i)
        if (!sameValue(x[i], y[i])) return false;
      return true;
    }
    case ValueKind::Dictionary: {
      const Dictionary x = a.dictionary(), y = b.dictionary();
      if (x.count() != y.count()) return false;
      auto other = y.begin();
      for (const auto& [key, value] : x) {
        if (!sameValue(key, other->first) || !sameValue(value, other->second)) return false;
        ++other;
      }
      return true;
    }
    default:
      return a == b;
  }
}

// Writes what was read and reads it back: the writer must take everything
// the reader gave, and give it back unchanged.
template <class Write, class Read>
void checkWriteThenRead(const Value& read, Write write, Read readBack) {
  std::string error;
  const std::optional<std::string> written = write(read, error);
  if (!written) finding("what was read cannot be written: " + error);
  const std::optional<Value> reread = readBack(*written, error);
  if (!reread) finding("what was written does not read back: " + error + "\n" + *written);
  if (!sameValue(*reread, read)) finding("what was written reads back different:\n" + *written);
}

std::string examplesFolder() { return std::string(PC_SOURCE_DIR) + "/examples/devices/"; }

Dictionary readExample(const std::string& name) {
  const std::string path = examplesFolder() + name;
  PropertyListError error;
  const std::optional<Value> value = PropertyList::fromFile(path, &error);
  if (!value || !value->isDictionary()) finding(path + ": cannot read the example: " + error.description());
  return value->dictionary();
}

// A folder for the client stores of the example phones, removed at exit.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "phoneconduit-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data())) _path = pattern;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!_path.empty()) std::filesystem::remove_all(_path, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

// Every example phone, built once per process on both sides, as format
// builds them from the files of examples/devices.
struct ExamplePhones {
  ScratchFolder scratch;
  std::vector<std::unique_ptr<DeviceFormatting>> sides;
  std::vector<std::string> names;

  ExamplePhones() {
    // Model, its entities, its "$name" variables.
    struct Example {
      const char* device;
      const char* entities;
      const char* variables;
    };
    const Example phones[] = {
        {"basic-phone", "basic-phone", nullptr},
        {"flip-phone", "flip-phone", "flip-phone"},
        {"organiser-phone", "organiser-phone", nullptr},
        {"photo-phone", "photo-phone", nullptr},
        {"full-phone", "full-phone", "full-phone"},
        // These two read the number of phone numbers from a variable.
        {"contacts-calendar-phone-v1", "contacts-calendar-phone", "flip-phone"},
        {"contacts-calendar-phone-v2", "contacts-calendar-phone", "flip-phone"},
    };
    for (const auto& [device, entities, variables] : phones) {
      const std::string base = examplesFolder() + device;
      DeviceFormattingOptions options;
      if (variables) options.variables = readExample(std::string(variables) + ".variables.plist");
      if (!scratch.path().empty()) options.clientStorePath = scratch.path() + "/" + device + ".client.plist";
      if (std::filesystem::exists(base + ".client.plist")) {
        MemorySyncEngineClient store(options.clientIdentifier, "fuzz", Array(), options.clientStorePath);
        for (const auto& [key, value] : readExample(std::string(device) + ".client.plist"))
          store.setObject(value, key.stringValue());
      }
      auto phone = DeviceFormatting::phoneSide(readExample(std::string(device) + ".plist"),
                                               readExample(std::string(entities) + ".entities.plist"), options);
      if (!phone) finding(std::string(device) + ": no phone built from the example");
      auto engine = phone->engineSide();
      if (!engine) finding(std::string(device) + ": no engine side built from the example");
      names.push_back(device);
      sides.push_back(std::move(phone));
      sides.push_back(std::move(engine));
    }
  }
};

const ExamplePhones& examplePhones() {
  static const ExamplePhones phones;
  static const bool silenced = (silenceLogs(), true);
  (void)silenced;
  return phones;
}

// What check-device is given with a description besides the file itself: the
// entities of the phone with the most, and every variable the examples define.
struct DeviceContext {
  Dictionary entities = readExample("full-phone.entities.plist");
  DeviceFormattingOptions options;

  DeviceContext() {
    for (const char* name : {"full-phone.variables.plist", "flip-phone.variables.plist"})
      for (const auto& [key, value] : readExample(name)) options.variables.set(key, value);
  }
};

const DeviceContext& deviceContext() {
  static const DeviceContext context;
  return context;
}

// The record as format prints it: the entity name back in, first.
Dictionary withEntityName(const Dictionary& record, const std::string& entity) {
  if (record.contains(kEngineRecordEntityNameKey) || entity.empty()) return record;
  Dictionary named{{kEngineRecordEntityNameKey, entity}};
  for (const auto& [key, value] : record) named.set(key, value);
  return named;
}

std::string describe(const FormattingOutcome& outcome) {
  if (!outcome.record) return "rejected: " + outcome.rejection;
  return recordText(*outcome.record).value_or("(cannot be written)");
}

}  // namespace

void silenceLogs() {
  // The engine's record formatter registers the user's logs when it is first
  // made, the standard error among them: they are taken away again each time.
  // A registration is removed by its exact mask: every mask is tried.
  for (int mask = 1; mask <= (kLogError | kLogWarning | kLogImportant | kLogInfo); ++mask)
    QVTAYLogger::removeLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, mask);
  static const bool silenced = [] {
    QVTAYLogger::addLogger(std::make_shared<QVT_AYNoLogger>(), std::nullopt,
                           kLogError | kLogWarning | kLogImportant | kLogInfo);
    setConsoleLogSink([](const std::string&) {});
    return true;
  }();
  (void)silenced;
}

void fuzzXMLPropertyList(const std::uint8_t* data, std::size_t size) {
  PropertyListError error;
  const std::optional<Value> value = PropertyList::fromXML(textOf(data, size), &error);
  if (!value) {
    if (error.message.empty()) finding("a property list that does not read must say why");
    return;
  }
  checkWriteThenRead(
      *value,
      [](const Value& v, std::string& problem) {
        PropertyListError e;
        auto text = PropertyList::toXML(v, &e);
        problem = e.description();
        return text;
      },
      [](const std::string& text, std::string& problem) {
        PropertyListError e;
        auto back = PropertyList::fromXML(text, &e);
        problem = e.description();
        return back;
      });
}

void fuzzNicePList(const std::uint8_t* data, std::size_t size) {
  // The library's reader (what the logging and record utilities use), then
  // the program's reader of record files.
  (void)PHCMangling::phc_dictionaryFromNiceString(textOf(data, size));
  std::string error;
  const std::optional<Dictionary> record = recordFromText(textOf(data, size), &error);
  if (!record) return;
  checkWriteThenRead(
      Value(*record),
      [](const Value& v, std::string& problem) { return recordText(v.dictionary(), &problem); },
      [](const std::string& text, std::string& problem) -> std::optional<Value> {
        auto back = recordFromText(text, &problem);
        if (!back) return std::nullopt;
        return Value(*back);
      });
}

void fuzzDeviceDescription(const std::uint8_t* data, std::size_t size) {
  const DeviceContext& context = deviceContext();
  const std::optional<Value> contents = PropertyList::fromXML(textOf(data, size));
  if (!contents || !contents->isDictionary()) return;
  const Dictionary description = contents->dictionary();
  if (!description.getDictionary(kSyncDataClassesKey)) return;
  std::vector<DescriptionProblem> problems;
  try {
    problems = checkDeviceDescription(description, context.entities, context.options);
  } catch (const Exception&) {
    return;  // reported by the program as bad input
  }
  if (!problems.empty()) return;
  try {
    if (auto formatting = DeviceFormatting::phoneSide(description, context.entities, context.options))
      (void)formatting->supportedEntityNames();
  } catch (const Exception&) {
  }
}

void fuzzFormatRecord(const std::uint8_t* data, std::size_t size) {
  const ExamplePhones& phones = examplePhones();
  std::string error;
  const std::optional<Dictionary> record = recordFromText(textOf(data, size), &error);
  if (!record) return;
  const Value entityName = record->get(kEngineRecordEntityNameKey);
  const std::string* entity = entityName.asString();
  if (!entity) return;
  // The sides come in pairs: a phone's, then the engine's for its client.
  for (std::size_t i = 0; i + 1 < phones.sides.size(); i += 2) {
    const FormattingOutcome phone = phones.sides[i]->formatRecord(*record);
    const FormattingOutcome engine = phones.sides[i + 1]->formatRecord(*record);
    if (!phone.record) {
      if (engine.record)
        finding(phones.names[i / 2] + ": the engine side keeps a record the phone side rejects (" +
                phone.rejection + "):\n" + describe(engine));
      continue;
    }
    (void)recordText(withEntityName(*phone.record, *entity), &error);
    if (holdsNaN(Value(*phone.record))) continue;
    // The engine predicts what the phone holds. (Formatting twice is not
    // always formatting once: a text whose characters all go is left empty
    // the first time and takes the field's default the second.)
    if (!engine.record || !(*engine.record == *phone.record))
      finding(phones.names[i / 2] + ": the engine side answers another record than the phone side:\n" +
              describe(phone) + "\nengine side:\n" + describe(engine));
  }
}

void fuzzExplodeRecurrence(const std::uint8_t* data, std::size_t size) {
  const std::string_view input = textOf(data, size);
  const std::size_t endOfLine = input.find('\n');
  if (endOfLine == std::string_view::npos) return;
  std::istringstream options{std::string(input.substr(0, endOfLine))};
  std::string fromText, toText, mode;
  options >> fromText >> toText >> mode;
  try {
    const CALDateRef from = tools::dateOption(fromText, "--from");
    const CALDateRef to = tools::dateOption(toText, "--to");
    if (!from->isBefore(to.get())) return;
    // A range of centuries of daily occurrences is a long answer, not a
    // finding: the range stays within 40 years.
    if (to->timeIntervalSinceDate(*from) > 40.0 * 366 * 86400) return;
    std::string error;
    const std::optional<Dictionary> record = recordFromText(input.substr(endOfLine + 1), &error);
    if (!record) return;
    (void)tools::explodedText(tools::Field("event.plist", *record), from, to, false, mode == "events");
  } catch (const tools::CommandError&) {
  } catch (const tools::CommandLineError&) {
  } catch (const Exception&) {
  }
}

void fuzzExplodeUnchecked(const std::uint8_t* data, std::size_t size) {
  const std::string_view input = textOf(data, size);
  const std::size_t endOfLine = input.find('\n');
  if (endOfLine == std::string_view::npos) return;
  std::istringstream options{std::string(input.substr(0, endOfLine))};
  std::string fromText, toText;
  options >> fromText >> toText;
  CALDateRef from, to;
  try {
    from = tools::dateOption(fromText, "--from");
    to = tools::dateOption(toText, "--to");
  } catch (const tools::CommandLineError&) {
    return;
  }
  if (!from->isBefore(to.get()) || to->timeIntervalSinceDate(*from) > 40.0 * 366 * 86400) return;
  const std::optional<Dictionary> record = recordFromText(input.substr(endOfLine + 1));
  if (!record) return;
  const std::optional<Array> recurrences = record->get(kCalendarsEventRecurrences).asArray();
  if (!recurrences || recurrences->count() == 0) return;
  const std::optional<Dictionary> recurrence = recurrences->at(0).asDictionary();
  if (!recurrence) return;
  try {
    CALEventExploder exploder(*record, *recurrence);
    const CALDateList dates = exploder.produceDatesForTimeRange(CALTimeRange(from.get(), to.get()), nullptr,
                                                                std::string(), false);
    (void)exploder.eventsForDates(dates);
  } catch (const Exception&) {
  }
}

// What the phone gives back, both ways it is read: a phone store file as the
// sync reads it back (a store it can read must write and read back to the
// same records), and a parser's data as the simulated phone sends it.
void fuzzPhoneStore(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  std::string error;
  if (const auto contents = PhoneStore::contentsFromBytes(bytes, "fuzz.plist", &error)) {
    // A store the sync can read, it can write and read back to the same records.
    const auto asValue = [](const PhoneStoreContents& c) {
      Array records;
      for (const PhoneStoreRecord& r : c.records) records.add(Array{r.identifier, r.entity, r.fields});
      return Value(Array{c.dataClass, records});
    };
    const auto written = PhoneStore::bytesForContents(*contents, &error);
    if (!written) finding("a store that was read cannot be written: " + error);
    const auto again = PhoneStore::contentsFromBytes(*written, "fuzz.plist", &error);
    if (!again) finding("a store that was written does not read back: " + error + "\n" + *written);
    if (!sameValue(asValue(*again), asValue(*contents)))
      finding("a store that was written reads back different:\n" + *written);
  } else if (error.empty()) {
    finding("a store that cannot be read must say why");
  }

  PropertyListParser parser;
  parser.initWithPhone(nullptr, std::nullopt);
  const std::optional<Array> records = parser.recordsFromData(Data(data, size));
  if (!records) return;
  for (const Value& element : *records)
    if (const auto record = element.asDictionary()) (void)recordText(*record);
}

namespace {

// What a reader makes of a file must write, and read back as the same
// entries; writing those again gives the same text.
template <class Codec>
void checkReadsBack(const Codec& codec, const std::uint8_t* data, std::size_t size) {
  const VFormatReadResult first = codec.read(textOf(data, size));
  for (const PhoneStoreRecord& record : first.records)
    if (holdsNaN(Value(record.fields))) return;
  const std::string written = codec.write(first.records);
  const VFormatReadResult second = codec.read(written);
  if (second.records.size() != first.records.size())
    finding("the entries written do not read back: " + written);
  for (std::size_t i = 0; i < first.records.size(); ++i) {
    const PhoneStoreRecord& a = first.records[i];
    const PhoneStoreRecord& b = second.records[i];
    if (a.identifier != b.identifier || a.entity != b.entity || !(a.fields == b.fields))
      finding("entry " + std::to_string(i) + " reads back as\n" + b.fields.description() + "\nnot\n" +
              a.fields.description() + "\nfrom\n" + written);
  }
  if (!second.problems.empty())
    finding("what was written has a problem on line " + std::to_string(second.problems[0].line) + ": " +
            second.problems[0].message + "\n" + written);
  if (codec.write(second.records) != written) finding("a second write differs:\n" + written);
}

}  // namespace

void fuzzVCard(const std::uint8_t* data, std::size_t size) { checkReadsBack(VCardCodec(), data, size); }

void fuzzVCalendar(const std::uint8_t* data, std::size_t size) {
  checkReadsBack(VCalendarCodec(), data, size);
  // As a phone without zones keeps it: wall clocks of a zone with daylight
  // saving time, described by TZ and DAYLIGHT.
  static const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  checkReadsBack(VCalendarCodec(VCalendarOptions{true, berlin}), data, size);
}

void fuzzVCardFile(const std::uint8_t* data, std::size_t size) {
  const UserFileImport first = importVCardText(textOf(data, size), "input.vcf");
  if (first.failure && !first.records.empty()) finding("a failed file gave records");
  std::vector<std::pair<std::string, Dictionary>> records;
  for (const UserFileRecord& entry : first.records) {
    if (entry.identifier.empty()) finding("a record without an identifier, line " + std::to_string(entry.line));
    if (entry.record.getString(kEngineRecordEntityNameKey) != kContactsContact)
      finding("a record that is not a contact: " + entry.record.description());
    records.emplace_back(entry.identifier, entry.record);
  }
  const std::string written = exportVCardText(records);
  const UserFileImport second = importVCardText(written, "export.vcf");
  if (records.empty()) {
    if (!written.empty()) finding("no records, yet text was written: " + written);
    return;
  }
  if (second.failure) finding("what was written does not read: " + second.failure->message + "\n" + written);
  if (second.records.size() != records.size() || !second.skipped.empty())
    finding("the records written do not all read back:\n" + written);
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (second.records[i].identifier != records[i].first)
      finding("identifier " + std::to_string(i) + " reads back as \"" + second.records[i].identifier +
              "\", not \"" + records[i].first + "\", from\n" + written);
    if (!(second.records[i].record == records[i].second))
      finding("record " + std::to_string(i) + " reads back as\n" + second.records[i].record.description() +
              "\nnot\n" + records[i].second.description() + "\nfrom\n" + written);
  }
  if (exportVCardText(records) != written) finding("a second write differs");
}

void fuzzICalendar(const std::uint8_t* data, std::size_t size) {
  const UserFileImport first = importICalendarText(textOf(data, size), "fuzz.ics");
  if (first.failure) {
    if (!first.records.empty()) throw FuzzFinding("a failed file gave records");
    return;
  }
  std::vector<std::pair<std::string, Dictionary>> records;
  for (const UserFileRecord& r : first.records) records.emplace_back(r.identifier, r.record);
  const std::string written = exportICalendarText(records);
  const UserFileImport second = importICalendarText(written, "again.ics");
  if (second.failure) throw FuzzFinding("the export does not read: " + second.failure->message + "\n" + written);
  if (!second.skipped.empty()) throw FuzzFinding("the export reads with skipped entries: " + second.skipped[0].message);
  std::vector<std::string> before;
  std::vector<std::string> after;
  for (const UserFileRecord& r : first.records) before.push_back(r.identifier);
  for (const UserFileRecord& r : second.records) after.push_back(r.identifier);
  if (before != after) throw FuzzFinding("the export reads back as other entries:\n" + written);
}

const std::vector<NamedFuzzEntry>& fuzzEntries() {
  static const std::vector<NamedFuzzEntry> entries{
      {"xml_plist", fuzzXMLPropertyList},   {"nice_plist", fuzzNicePList},
      {"device", fuzzDeviceDescription},    {"format", fuzzFormatRecord},
      {"explode", fuzzExplodeRecurrence},   {"phone_store", fuzzPhoneStore},
      {"exploder", fuzzExplodeUnchecked},   {"vcard", fuzzVCard},
      {"vcalendar", fuzzVCalendar},         {"vcf_import", fuzzVCardFile},
      {"ics", fuzzICalendar},
  };
  return entries;
}

}  // namespace pc::fuzz
