// phoneconduit import and export with a user's vCard files: the report of
// each file, exit statuses, a bad file beside good ones, and a round trip.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include <nlohmann/json.hpp>

#include "engine/SqliteEngine.h"
#include "support/ProgramRun.h"

namespace pc {
namespace {

namespace fs = std::filesystem;
using testing::ProgramRun;
using testing::runProgram;
using testing::temporaryFile;

class UserFilesProgramTest : public testing::ProgramTest {
 protected:
  void SetUp() override {
    ProgramTest::SetUp();
    folder = fs::path(::testing::TempDir()) /
             ("user-files-" + std::to_string(::getpid()) + "-" +
              ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(folder);
    fs::create_directories(folder);
    store = (folder / "truth.db").string();
  }
  void TearDown() override {
    fs::remove_all(folder);
    ProgramTest::TearDown();
  }
  std::size_t storedCount() const {
    auto engine = SqliteEngine::engineWithPath(store, nullptr, false);
    return engine ? engine->count() : 0;
  }

  fs::path folder;
  std::string store;
};

const std::string kCards =
    "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:alice\r\nN:Martin;Alice;;;\r\nTEL;TYPE=CELL:+33 6 12\r\n"
    "GENDER:F\r\nEND:VCARD\r\n"                                       // lines 1-7
    "BEGIN:VEVENT\r\nSUMMARY:not a card\r\nEND:VEVENT\r\n"            // lines 8-10
    "BEGIN:VCARD\r\nVERSION:4.0\r\nFN:Bruno Lef\xc3\xa8vre\r\nEND:VCARD\r\n";  // lines 11-14

TEST_F(UserFilesProgramTest, EachFileIsReportedAndSkippedEntriesAnswerThree) {
  const std::string cards = temporaryFile("cards.vcf", kCards);
  const ProgramRun first = runProgram("import --store " + store + " " + cards);
  EXPECT_EQ(first.status, 3) << first.output;
  EXPECT_EQ(first.standardError, "");
  for (const std::string& expected :
       {cards + ": 2 added, 0 replaced, 0 unchanged, 1 skipped\n", std::string("  line 8: skipped: not a vCard: BEGIN:VEVENT\n"),
        std::string("  not kept: GENDER (1)\n"), std::string("2 added, 0 replaced, 0 unchanged; 2 records in ")})
    EXPECT_NE(first.standardOutput.find(expected), std::string::npos) << expected << "\n" << first.standardOutput;

  const ProgramRun again = runProgram("import --store " + store + " --report json " + cards);
  EXPECT_EQ(again.status, 3) << again.output;
  nlohmann::ordered_json report;
  ASSERT_NO_THROW(report = nlohmann::ordered_json::parse(again.standardOutput)) << again.standardOutput;
  EXPECT_EQ(report.at("summary"), nlohmann::ordered_json::parse(R"({"added": 0, "replaced": 0, "unchanged": 2})"));
  const auto& file = report.at("files").at(0);
  EXPECT_EQ(file.at("file"), cards);
  EXPECT_EQ(file.at("format"), "vcf");
  EXPECT_EQ(file.at("unchanged"), 2);
  EXPECT_EQ(file.at("skipped"), nlohmann::ordered_json::parse(R"([{"line": 8, "reason": "not a vCard: BEGIN:VEVENT"}])"));
  EXPECT_EQ(file.at("propertiesNotKept"), nlohmann::ordered_json::parse(R"({"GENDER": 1})"));
  EXPECT_EQ(report.at("records").at(0), nlohmann::ordered_json::parse(R"({"identifier": "alice", "outcome": "unchanged"})"));

  // The same UID with other contents replaces the stored record.
  const std::string changed = temporaryFile(
      "changed.vcf", "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:alice\r\nN:Martin;Alice;;;\r\nEND:VCARD\r\n");
  const ProgramRun replaced = runProgram("import --store " + store + " " + changed);
  EXPECT_EQ(replaced.status, 0) << replaced.output;
  EXPECT_NE(replaced.standardOutput.find(": 0 added, 1 replaced, 0 unchanged, 0 skipped"), std::string::npos)
      << replaced.standardOutput;
  EXPECT_EQ(storedCount(), 2u);
}

// A file that does not read is named with its line on standard error; the
// entries of the other files, record files among them, are imported.
TEST_F(UserFilesProgramTest, ABadFileDoesNotLoseTheEntriesOfTheOthers) {
  const std::string bad = temporaryFile("bad.vcf", "hello\r\nthis is not a card\r\n");
  const std::string good = temporaryFile("good.vcf", kCards);
  const std::string record = testing::examplePath("records/contacts/01-latin-alicemartin.plist");
  const ProgramRun run = runProgram("import --store " + store + " " + bad + " " + good + " " + record);
  EXPECT_EQ(run.status, 1) << run.output;
  EXPECT_EQ(run.standardError.rfind("phoneconduit: " + bad + ": line 1: ", 0), 0u) << run.standardError;
  EXPECT_EQ(std::count(run.standardError.begin(), run.standardError.end(), '\n'), 1);
  EXPECT_NE(run.standardOutput.find(bad + ": not imported\n"), std::string::npos) << run.standardOutput;
  EXPECT_EQ(storedCount(), 3u);

  // A bad record file still stops everything before the store is written.
  const std::string broken = temporaryFile("broken.plist", "<plist><dict><key>x</key></plist>");
  const std::string other = temporaryFile(
      "other.vcf", "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:other\r\nN:Other;;;;\r\nEND:VCARD\r\n");
  const ProgramRun stopped = runProgram("import --store " + store + " " + other + " " + broken);
  EXPECT_EQ(stopped.status, 1);
  EXPECT_EQ(stopped.standardOutput, "");
  EXPECT_EQ(storedCount(), 3u);
}

TEST_F(UserFilesProgramTest, ExportedContactsImportBackUnchanged) {
  const std::string contacts = testing::examplePath("records/contacts");
  const std::string event = testing::examplePath("records/calendar/event-02.plist");
  const std::string cards = temporaryFile("cards.vcf", kCards);
  ASSERT_EQ(runProgram("import --store " + store + " " + contacts + "/*.plist " + event + " " + cards).status, 3);
  const std::size_t stored = storedCount();

  const std::string exported = (folder / "all.vcf").string();
  const ProgramRun written = runProgram("export --store " + store + " --format vcf --output " + exported);
  ASSERT_EQ(written.status, 0) << written.output;
  const ProgramRun listed = runProgram("export --store " + store + " --format vcf");
  ASSERT_EQ(listed.status, 0) << listed.output;
  EXPECT_EQ(listed.standardOutput, testing::fileText(exported));
  std::size_t cardCount = 0;
  for (std::size_t at = 0; (at = listed.standardOutput.find("BEGIN:VCARD", at)) != std::string::npos; ++at) ++cardCount;
  EXPECT_EQ(cardCount, stored - 1);
  EXPECT_EQ(listed.standardOutput.find("Calendars.Event"), std::string::npos);

  // A file named otherwise is taken for what its first line says.
  const std::string renamed = (folder / "contacts.txt").string();
  fs::copy_file(exported, renamed);
  const ProgramRun again = runProgram("import --store " + store + " --report json " + renamed);
  ASSERT_EQ(again.status, 0) << again.output;
  const nlohmann::json report = nlohmann::json::parse(again.standardOutput);
  EXPECT_EQ(report.at("summary").at("unchanged"), stored - 1);  // all but the event
  EXPECT_EQ(report.at("summary").at("added"), 0);
  EXPECT_EQ(report.at("summary").at("replaced"), 0);
  EXPECT_EQ(storedCount(), stored);
}

// The example address book (3.0 with grouped labels and a photo, 4.0, 2.1)
// imports whole: its cards all become contacts, their photos and labels kept.
TEST_F(UserFilesProgramTest, TheExampleAddressBookImportsWhole) {
  const std::string book = testing::examplePath("user-files/contacts.vcf");
  const ProgramRun run = runProgram("import --store " + store + " --report json " + book);
  ASSERT_EQ(run.status, 0) << run.output;
  const nlohmann::json report = nlohmann::json::parse(run.standardOutput);
  EXPECT_EQ(report.at("files").at(0).at("added"), 3);
  EXPECT_EQ(report.at("files").at(0).at("skipped"), nlohmann::json::array());
  const ProgramRun exported = runProgram("export --store " + store + " --format json --entity Contacts.Contact");
  ASSERT_EQ(exported.status, 0) << exported.output;
  for (const char* text : {"\"label\": \"summer house\"", "\"countryCode\": \"DE\"", "\"image\": \"iVBOR",
                           "\"birthday\": \"1604-09-15T12:00:00+0000\"", "\"type\": \"home page\"",
                           "\"value\": \"https://nordlicht.example/team/asa\"", "\"lastName\": \"M\u00fcller\""})
    EXPECT_NE(exported.standardOutput.find(text), std::string::npos) << text;
}

TEST_F(UserFilesProgramTest, HelpNamesTheFormatsAndTheExitStatuses) {
  const ProgramRun importHelp = runProgram("import --help");
  EXPECT_EQ(importHelp.status, 0);
  for (const char* text : {".vcf", "3 some entries", "phoneconduit import --store truth.db --report json contacts.vcf"})
    EXPECT_NE(importHelp.standardOutput.find(text), std::string::npos) << text;
  const ProgramRun exportHelp = runProgram("export --help");
  EXPECT_NE(exportHelp.standardOutput.find("phoneconduit export --store truth.db --format vcf --output contacts.vcf"),
            std::string::npos);
  const std::string existing = testing::examplePath("records/calendar/event-02.plist");
  EXPECT_EQ(runProgram("export --store " + existing + " --format vcard").status, 2);
}

}  // namespace
}  // namespace pc
