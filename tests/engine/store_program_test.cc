// phoneconduit import and export: a round trip through a store file, and
// input that stops a command before it writes anything.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "engine/SqliteEngine.h"
#include "support/ProgramRun.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

namespace fs = std::filesystem;
using testing::ProgramRun;
using testing::examplePath;
using testing::runProgram;
// Compares objects key by key in their order.
using OrderedJson = nlohmann::ordered_json;

class StoreProgramTest : public testing::FolderProgramTest {
 protected:
  StoreProgramTest() : FolderProgramTest("store-program") {}
  void SetUp() override {
    FolderProgramTest::SetUp();
    store = folder + "/truth.db";
  }
  std::size_t storedCount() const {
    auto engine = SqliteEngine::engineWithPath(store, nullptr, false);
    return engine ? engine->count() : 0;
  }

  std::string store;
  const std::string alice = examplePath("records/contacts/01-latin-alicemartin.plist");
  const std::string event = examplePath("records/calendar/event-02.plist");
};

TEST_F(StoreProgramTest, ExportedRecordFilesImportBackUnchanged) {
  const ProgramRun imported = runProgram("import --store " + store + " " + alice + " " + event);
  ASSERT_EQ(imported.status, 0) << imported.output;
  EXPECT_NE(imported.standardOutput.find("2 added, 0 replaced, 0 unchanged"), std::string::npos)
      << imported.standardOutput;

  const fs::path out = fs::path(folder) / "out";
  const ProgramRun exported = runProgram("export --store " + store + " --output " + out.string());
  ASSERT_EQ(exported.status, 0) << exported.output;
  ASSERT_TRUE(fs::exists(out / "01-latin-alicemartin.plist"));
  EXPECT_EQ(Value(*readRecordFile((out / "01-latin-alicemartin.plist").string())),
            Value(*readRecordFile(alice)));

  const ProgramRun again = runProgram("import --store " + store + " --report json " +
                                      (out / "01-latin-alicemartin.plist").string() + " " +
                                      (out / "event-02.plist").string());
  ASSERT_EQ(again.status, 0) << again.output;
  OrderedJson report;
  ASSERT_NO_THROW(report = OrderedJson::parse(again.standardOutput)) << again.standardOutput;
  EXPECT_EQ(report.at("store"), store);
  EXPECT_EQ(report.at("summary"), OrderedJson::parse(R"({"added": 0, "replaced": 0, "unchanged": 2})"));
  EXPECT_EQ(report.at("records"),
            OrderedJson::parse(R"([{"identifier": "01-latin-alicemartin", "outcome": "unchanged"},
                                   {"identifier": "event-02", "outcome": "unchanged"}])"));

  const ProgramRun json =
      runProgram("export --store " + store + " --format json --entity Contacts.Contact");
  ASSERT_EQ(json.status, 0) << json.output;
  EXPECT_EQ(json.standardOutput.rfind("[\n  {\n    \"identifier\": \"01-latin-alicemartin\",\n    \"record\": {", 0), 0u)
      << json.standardOutput.substr(0, 200);
  EXPECT_NE(json.standardOutput.find("\"birthday\": \"1940-01-01T12:00:00+0000\""), std::string::npos);
  EXPECT_EQ(json.standardOutput.find("event-02"), std::string::npos);
}

// Stored texts may hold anything a record file or a phone gave: exported
// JSON escapes control characters and replaces invalid UTF-8 with U+FFFD, so
// a strict parser reads it, in keys and values, on standard output and in
// the files of --output.
TEST_F(StoreProgramTest, ExportedJsonParsesWhateverTheTextsHold) {
  const struct {
    std::string stored;
    std::string exported;
  } cases[] = {
      {"tab\tand\x01" "bell\x07\x1f", "tab\tand\x01" "bell\x07\x1f"},
      {"line\r\nbreak", "line\r\nbreak"},
      {"quote\"back\\slash", "quote\"back\\slash"},
      {"latin1-\xe9t\xe9", "latin1-\uFFFDt\uFFFD"},
      {"cut-\xc3", "cut-\uFFFD"},
      {"overlong-\xc0\xaf", "overlong-\uFFFD\uFFFD"},
      {"greek-\u03b1\u03b2", "greek-\u03b1\u03b2"},
  };
  {
    auto engine = SqliteEngine::engineWithPath(store, nullptr, true);
    ASSERT_TRUE(engine);
    for (std::size_t i = 0; i < std::size(cases); ++i)
      engine->addRecord("text-" + std::to_string(i),
                        Dictionary{{"entityName", "Contacts.Contact"},
                                   {"notes", cases[i].stored},
                                   {cases[i].stored, Array{cases[i].stored}}});
  }
  const fs::path out = fs::path(folder) / "out";
  const ProgramRun listed = runProgram("export --store " + store + " --format json");
  ASSERT_EQ(listed.status, 0) << listed.output;
  ASSERT_EQ(runProgram("export --store " + store + " --format json --output " + out.string()).status, 0);
  nlohmann::json all;
  ASSERT_NO_THROW(all = nlohmann::json::parse(listed.standardOutput)) << listed.standardOutput;
  ASSERT_EQ(all.size(), std::size(cases));
  for (const char raw : listed.standardOutput) EXPECT_FALSE(static_cast<unsigned char>(raw) < 0x20 && raw != '\n');
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.exported);
    const std::string identifier = "text-" + std::to_string(i);
    const auto entry = std::find_if(all.begin(), all.end(), [&](const nlohmann::json& e) {
      return e.at("identifier") == identifier;
    });
    ASSERT_NE(entry, all.end());
    const nlohmann::json expected = {
        {"entityName", "Contacts.Contact"}, {"notes", c.exported}, {c.exported, {c.exported}}};
    EXPECT_EQ(entry->at("record"), expected);
    nlohmann::json file;
    ASSERT_NO_THROW(file = nlohmann::json::parse(testing::fileText((out / (identifier + ".json")).string())));
    EXPECT_EQ(file, expected);
  }
}

TEST_F(StoreProgramTest, BadInputStopsTheCommandBeforeTheStoreIsWritten) {
  ASSERT_EQ(runProgram("import --store " + store + " " + event).status, 0);
  const std::string broken =
      testing::temporaryFile("broken.plist", "<plist><dict><key>x</key></plist>");
  const std::string unknown = testing::temporaryFile(
      "unknown.plist", "<plist><dict><key>entityName</key><string>Contacts.Nothing</string></dict></plist>");
  const std::string noEntity =
      testing::temporaryFile("noentity.plist", "<plist><dict><key>a</key><string>b</string></dict></plist>");
  const std::string notStore = testing::temporaryFile("notstore.db", "BEGIN:VCARD\n");
  const struct {
    std::string arguments;
    std::string mention;
  } cases[] = {
      {"import --store " + store + " " + alice + " " + broken, broken + ": line 1"},
      {"import --store " + store + " " + alice + " " + unknown, "\"Contacts.Nothing\" is not an entity"},
      {"import --store " + store + " " + alice + " " + noEntity, noEntity + ": entityName"},
      {"import --store " + store + " " + alice + " " + alice, "names the same record"},
      {"import --store " + notStore + " " + alice, notStore + ": not a store"},
      {"export --store " + notStore, notStore + ": not a store"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const ProgramRun run = runProgram(c.arguments);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.standardOutput, "");
    EXPECT_EQ(run.standardError.rfind("phoneconduit: ", 0), 0u) << run.standardError;
    EXPECT_NE(run.standardError.find(c.mention), std::string::npos) << run.standardError;
    EXPECT_EQ(std::count(run.standardError.begin(), run.standardError.end(), '\n'), 1);
  }
  EXPECT_EQ(storedCount(), 1u);
  EXPECT_EQ(testing::fileText(notStore), "BEGIN:VCARD\n");
}

TEST_F(StoreProgramTest, HelpShowsAnExample) {
  for (const char* command : {"import", "export"}) {
    const ProgramRun run = runProgram(std::string(command) + " --help");
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.standardOutput.find(std::string("phoneconduit ") + command + " --store"),
              std::string::npos)
        << run.standardOutput;
  }
  EXPECT_EQ(runProgram("import " + alice).status, 2);
}

}  // namespace
}  // namespace pc
