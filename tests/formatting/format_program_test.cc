// The format and check-device commands of phoneconduit: exit statuses, what
// goes to standard output and to standard error, and both sides of format.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <random>

#include <nlohmann/json.hpp>

#include "ExamplePhones.h"
#include "host/PhoneStore.h"
#include "host/VFormatParsers.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"
#include "support/ProgramRun.h"

namespace pc::testing {
namespace {

using ::testing::HasSubstr;

using FormatProgramTest = ProgramTest;

// Standard output alone.
ProgramRun runForOutput(const std::string& arguments) {
  ProgramRun run = runProgram(arguments);
  run.output = run.standardOutput;
  return run;
}

std::string writeFile(const std::string& folder, const std::string& name, const std::string& text) {
  const std::string path = folder + "/" + name;
  std::ofstream(path) << text;
  return path;
}

std::string contact(const std::string& name) { return examplesFolder() + "records/contacts/" + name; }
std::string calendar(const std::string& name) { return examplesFolder() + "records/calendar/" + name; }

TEST_F(FormatProgramTest, CheckDeviceListsEveryProblemWithItsKeyPath) {
  const std::string folder = scratchFolder("broken-description");
  // Every problem is reported; the messages themselves are the description check's.
  const std::string device = writeFile(folder, "broken.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist>
<plist version="1.0"><dict>
  <key>SyncDataClasses</key><dict><key>Contacts</key>
    <dict><key>MimeType</key><string>text/x-vcard</string><key>Parser</key><string>PropertyListParser</string></dict></dict>
  <key>EntityFormatters</key><dict>
    <key>Contacts.Contact</key><dict><key>FieldFormatting</key><dict><key>firstName</key><string>noSuchMethod:</string></dict></dict>
    <key>Contacts.EmailAddress</key><dict><key>MaxNumber</key><string>$UndefinedLimit</string></dict>
  </dict>
  <key>Formatting</key><dict>
    <key>Contacts.URL</key><dict><key>type</key><dict><key>mappings</key><array><string>not a dictionary</string></array></dict></dict>
  </dict>
</dict></plist>
)");
  const std::string entities = writeFile(folder, "broken.entities.plist", R"(<plist version="1.0"><dict><key>Entities</key><dict>
  <key>Contacts.Contact</key><array><string>firstName</string></array>
  <key>Contacts.EmailAddress</key><array><string>value</string><string>type</string></array>
  <key>Contacts.URL</key><array><string>value</string><string>type</string></array>
</dict></dict></plist>
)");
  const std::string arguments = "check-device --device " + device + " --entities " + entities;
  const ProgramRun run = runProgram(arguments);
  EXPECT_EQ(run.status, 1) << run.output;
  for (const char* expected :
       {"EntityFormatters/Contacts.Contact/FieldFormatting/firstName", "noSuchMethod:",
        "EntityFormatters/Contacts.EmailAddress/MaxNumber", "UndefinedLimit",
        "Formatting/Contacts.URL/type/mappings/0"})
    EXPECT_THAT(run.output, HasSubstr(expected));
  // Each problem once, on standard error, prefixed and naming the file.
  EXPECT_THAT(run.output, HasSubstr("phoneconduit: " + device + ": "));
  EXPECT_EQ(runForOutput(arguments).output, "");

  const ProgramRun json = runForOutput(arguments + " --report json");
  EXPECT_EQ(json.status, 1);
  EXPECT_THAT(json.output, HasSubstr("\"usable\": false"));
  EXPECT_THAT(json.output, HasSubstr("\"keyPath\": \"Formatting/Contacts.URL/type/mappings/0\""));

  const ExamplePhone full{"full-phone", {}, {}, {}};
  const ProgramRun usable = runProgram("check-device " + full.programArguments());
  EXPECT_EQ(usable.status, 0) << usable.output;
  EXPECT_THAT(usable.output, HasSubstr(": usable, "));
}

TEST_F(FormatProgramTest, FormatPrintsRecordsAndCountsRejectedOnes) {
  const ExamplePhone basic{"basic-phone", {}, {}, {}};
  // A contact in Greek letters on the 7-bit phone: formatted, printed as a
  // record file.
  const ProgramRun formatted =
      runForOutput("format " + basic.programArguments() + " " + contact("14-greek-contact.plist"));
  EXPECT_EQ(formatted.status, 0);
  std::string error;
  const std::optional<Dictionary> record = recordFromText(formatted.output, &error);
  ASSERT_TRUE(record) << error << "\n" << formatted.output;
  EXPECT_EQ(record->getString("entityName"), "Contacts.Contact");

  // The basic phone has no tasks: the task is named with its reason, the
  // event still printed, and the exit status says some were rejected.
  const std::string task = calendar("task-01.plist");
  const std::string arguments = "format " + basic.programArguments() + " " + calendar("event-10.plist") + " " + task;
  const ProgramRun mixed = runProgram(arguments);
  EXPECT_EQ(mixed.status, 3) << mixed.output;
  EXPECT_THAT(mixed.output, HasSubstr("phoneconduit: " + task + ": rejected: "));
  EXPECT_THAT(runForOutput(arguments).output, HasSubstr("<string>Calendars.Event</string>"));

  const ProgramRun json = runForOutput(arguments + " --report json");
  EXPECT_EQ(json.status, 3);
  const nlohmann::json report = nlohmann::json::parse(json.output);
  EXPECT_EQ(report.at("formatted"), 1);
  EXPECT_EQ(report.at("rejected"), 1);
  EXPECT_EQ(report.at("records").at(1).at("status"), "rejected");
  EXPECT_FALSE(report.at("records").at(1).at("reason").get<std::string>().empty());

  // The html page holds both records, the rejection's reason, and the
  // formatted record beside its input.
  const std::string page = scratchFolder("html-report") + "/page.html";
  const ProgramRun html = runForOutput(arguments + " --report html " + page);
  EXPECT_EQ(html.status, 3);
  const std::string text = fileText(page);
  EXPECT_THAT(text, HasSubstr("<span class=\"identifier\">" + task + "</span>"));
  EXPECT_THAT(text, HasSubstr("data-outcome=\"rejected\""));
  EXPECT_THAT(text, HasSubstr("data-outcome=\"formatted\""));
  EXPECT_THAT(text, HasSubstr(json.output.empty() ? "" : report.at("records").at(1).at("reason").get<std::string>()));
  EXPECT_THAT(text, HasSubstr("<h3>Engine</h3><table>"));
  EXPECT_THAT(text, HasSubstr("<h3>Phone</h3><table>"));

  // With an output folder, the formatted records are files named after their
  // inputs and nothing is printed.
  const std::string folder = scratchFolder("output-dir");
  const ProgramRun files = runForOutput(arguments + " --output-dir " + folder);
  EXPECT_EQ(files.status, 3);
  EXPECT_EQ(files.output, "");
  const std::optional<Dictionary> written = readRecordFile(folder + "/event-10.plist", &error);
  ASSERT_TRUE(written) << error;
  EXPECT_EQ(written->getString("entityName"), "Calendars.Event");
  EXPECT_FALSE(std::filesystem::exists(folder + "/task-01.plist"));
}

// Texts in a JSON report are data from files: control characters, quotes and
// backslashes are escaped, and bytes that are not UTF-8 become U+FFFD, so the
// report always parses (nlohmann's parser refuses invalid UTF-8). The engine
// side formats in memory: the phone side would write such names into the
// phone's store, which refuses control characters.
TEST_F(FormatProgramTest, JsonReportsEscapeControlCharactersAndInvalidUtf8) {
  const ExamplePhone basic{"basic-phone", {}, {}, {}};
  const std::string folder = scratchFolder("json-escaping");
  struct Case {
    std::string name;      // file name without ".plist"
    std::string reported;  // as the report's "file" ends
  };
  const std::vector<Case> cases = {
      {"tab\tand\x01" "bell\x07", "tab\tand\x01" "bell\x07"},
      {"quote\"back\\slash", "quote\"back\\slash"},
      {"latin1-\xe9t\xe9", "latin1-\uFFFDt\uFFFD"},
      {"cut-\xc3", "cut-\uFFFD"},
      {"greek-\u03b1\u03b2", "greek-\u03b1\u03b2"},
  };
  const std::string contactText = fileText(contact("01-latin-alicemartin.plist"));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reported);
    const std::string path = writeFile(folder, c.name + ".plist", contactText);
    const ProgramRun run = runForOutput("format --engine-side --report json " + basic.programArguments() + " '" + path + "'");
    ASSERT_EQ(run.status, 0) << run.output;
    nlohmann::json report;
    ASSERT_NO_THROW(report = nlohmann::json::parse(run.output)) << run.output;
    const std::string file = report.at("records").at(0).at("file");
    EXPECT_EQ(file.substr(file.rfind('/') + 1), c.reported + ".plist");
    for (const char raw : run.output) EXPECT_FALSE(static_cast<unsigned char>(raw) < 0x20 && raw != '\n');
  }
}

// "$name" variables come from the connected device; the engine side, which
// has no device, must find the same values in the client.
TEST_F(FormatProgramTest, VariablesReachBothSides) {
  const std::string folder = scratchFolder("variables");
  const std::string variables = writeFile(folder, "variables.plist",
                                          "<plist version=\"1.0\"><dict><key>MaxPhoneNumbers</key>"
                                          "<integer>3</integer></dict></plist>");
  const std::string device = "--device " + examplesFolder() + "devices/contacts-calendar-phone-v1.plist --entities " +
                             examplesFolder() + "devices/contacts-calendar-phone.entities.plist ";
  const std::string record = " " + contact("05-latin-jrgenmller.plist");

  const ProgramRun phone = runForOutput("format " + device + "--variables " + variables + record);
  EXPECT_EQ(phone.status, 0);
  EXPECT_THAT(phone.output, HasSubstr("<string>+493090182052</string>"));
  // The engine side formats the record as given; the phone side as the
  // helper sorted it: the same three numbers.
  const ProgramRun engine = runForOutput("format --engine-side " + device + "--variables " + variables + record);
  EXPECT_EQ(engine.status, 0);
  for (const char* number : {"+493090182052", "+493090182066"})
    EXPECT_THAT(engine.output, HasSubstr(number));

  const ProgramRun missing = runProgram("format " + device + record);
  EXPECT_EQ(missing.status, 1);
  EXPECT_THAT(missing.output, HasSubstr("EntityFormatters/Contacts.PhoneNumber/MaxNumber: MaxNumber should be "
                                        "strictly positive.  Currently, it is 0"));
}

TEST_F(FormatProgramTest, BadInputStopsBeforeAnythingIsPrinted) {
  const std::string folder = scratchFolder("bad-input");
  const ExamplePhone basic{"basic-phone", {}, {}, {}};
  const std::string good = contact("01-latin-alicemartin.plist");
  const std::string notPlist = writeFile(folder, "not-a-plist.plist", "<plist><dict><key>a</key>");
  const std::string noEntity = writeFile(folder, "no-entity.plist",
                                         "<plist version=\"1.0\"><dict><key>summary</key><string>x</string></dict></plist>");
  for (const std::string& bad : {notPlist, noEntity}) {
    const std::string arguments = "format " + basic.programArguments() + " " + good + " " + bad;
    EXPECT_EQ(runForOutput(arguments).output, "") << bad;
    const ProgramRun run = runProgram(arguments);
    EXPECT_EQ(run.status, 1) << run.output;
    EXPECT_THAT(run.output, HasSubstr("phoneconduit: " + bad));
  }
  const ProgramRun notDevice = runProgram("format --device " + good + " --entities " + good + " " + good);
  EXPECT_EQ(notDevice.status, 1);
  EXPECT_THAT(notDevice.output, HasSubstr("not a device description"));
  // A command line without records or without entities is not bad input.
  EXPECT_EQ(runProgram("format " + basic.programArguments()).status, 2);
  EXPECT_EQ(runProgram("check-device --device " + basic.devicePath()).status, 2);
  for (const char* command : {"format --help", "check-device --help"})
    EXPECT_THAT(runForOutput(command).output, HasSubstr("Example:")) << command;
}

TEST_F(FormatProgramTest, DamagedRecordFilesNeverCrashTheProgram) {
  // Bytes flipped, cut or doubled anywhere in real record files: each run
  // ends with one of the program's own exit statuses.
  const std::string folder = scratchFolder("damaged-files");
  const ExamplePhone full{"full-phone", {}, {}, {}};
  std::mt19937 random(7);
  const std::vector<ExampleRecord>& records = exampleRecords();
  ASSERT_FALSE(records.empty());
  for (int round = 0; round < 12; ++round) {
    std::ifstream in(records[random() % records.size()].path);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (int hits = 0; hits < 4 && !text.empty(); ++hits) {
      const std::size_t at = random() % text.size();
      switch (random() % 3) {
        case 0: text[at] = static_cast<char>(random() % 256); break;
        case 1: text.erase(at, random() % 40); break;
        default: text.insert(at, text.substr(at, random() % 200)); break;
      }
    }
    const std::string path = writeFile(folder, "damaged-" + std::to_string(round) + ".plist", text);
    const ProgramRun run = runProgram("format " + full.programArguments() + " " + path);
    EXPECT_THAT(run.status, ::testing::AnyOf(0, 1, 3)) << path << "\n" << run.output;
  }
}

// format shows each record as sync writes it to the phone: every example
// record on every example phone, the single events of an exploded event
// included, with the same window.
Dictionary readExampleDictionary(const std::string& path) {
  const std::optional<Value> value = PropertyList::fromFile(path);
  return value && value->isDictionary() ? value->dictionary() : Dictionary();
}

TEST_F(FormatProgramTest, FormatGivesThePhoneFormSyncWrites) {
  std::string records;
  for (const ExampleRecord& example : exampleRecords()) records += " " + example.path;
  for (const std::string& name : examplePhoneNames()) {
    SCOPED_TRACE(name);
    const ExamplePhone phone{name, {}, {}, {}};
    const std::string folder = scratchFolder("agree-" + name);
    const std::string arguments = phone.programArguments() + " --anchor-date 20260104";
    const ProgramRun synced = runProgram("sync " + arguments + " --phone " + folder + "/phone" + records);
    ASSERT_NE(synced.status, 1) << synced.output.substr(0, 2000);
    const ProgramRun formatted = runProgram("format " + arguments + " --output-dir " + folder + records);
    ASSERT_NE(formatted.status, 1) << formatted.output.substr(0, 2000);

    // The records the phone holds for each record file: the record itself,
    // its detached events, or the single events it was exploded into.
    std::vector<std::pair<std::string, PhoneStoreRecord>> held;
    std::map<std::string, std::size_t> heldFor, seen;
    bool exploded = false;
    for (const char* dataClass : {"Contacts", "Calendars"}) {
      std::string error;
      PhoneStore phoneStore(folder + "/phone");
      usePhoneParsers(phoneStore, readExampleDictionary(phone.devicePath()));
      const std::optional<PhoneStoreContents> store = phoneStore.read(dataClass, &error);
      ASSERT_TRUE(store) << error;
      for (const PhoneStoreRecord& record : store->records) {
        const std::string stem = record.identifier.substr(0, record.identifier.find_first_of("#/"));
        exploded = exploded || record.identifier.find('#') != std::string::npos;
        held.emplace_back(stem, record);
        ++heldFor[stem];
      }
    }
    if (name == "organiser-phone") {
      EXPECT_TRUE(exploded);
    }
    std::size_t compared = 0;
    for (const auto& [stem, record] : held) {
      const PhoneStoreRecord& heldRecord = record;
      {
        std::string error;
        const bool one = heldFor[stem] == 1 && heldRecord.identifier.find('#') == std::string::npos;
        const std::string file = one ? stem + ".plist" : stem + "-" + std::to_string(++seen[stem]) + ".plist";
        std::optional<Dictionary> shown = readRecordFile(folder + "/" + file, &error);
        ASSERT_TRUE(shown) << heldRecord.identifier << ": " << error;
        Dictionary expected = heldRecord.fields.deepCopy();
        expected.remove("entityName");
        shown->remove("entityName");
        EXPECT_EQ(PHCMangling::phc_nicePList(Value(*shown)), PHCMangling::phc_nicePList(Value(expected)))
            << heldRecord.identifier;
        ++compared;
      }
    }
    EXPECT_GE(compared, 40u);
  }
}

}  // namespace
}  // namespace pc::testing
