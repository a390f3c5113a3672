// phoneconduit sync --store: the report of a phone edit carried into the
// store, a second run that writes nothing, bad input, and a process killed
// half-way whose next run catches up.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>

#include <nlohmann/json.hpp>
#include <stdlib.h>

#include "engine/SqliteEngine.h"
#include "host/PhoneStore.h"
#include "host/VFormatParsers.h"
#include "platform/PropertyList.h"
#include "support/ProgramRun.h"

namespace pc {
namespace {

namespace fs = std::filesystem;
using testing::ProgramRun;
using testing::examplePath;
using testing::runProgram;

class StoreSyncProgramTest : public testing::FolderProgramTest {
 protected:
  StoreSyncProgramTest() : FolderProgramTest("store-sync-program") {}
  void SetUp() override {
    FolderProgramTest::SetUp();
    store = folder + "/truth.db";
    phone = folder + "/phone";
    const ProgramRun imported =
        runProgram("import --store " + store + " " +
                   examplePath("records/contacts/01-latin-alicemartin.plist") + " " +
                   examplePath("records/contacts/02-latin-brunolefvre.plist") + " " +
                   examplePath("records/calendar/event-02.plist"));
    ASSERT_EQ(imported.status, 0) << imported.output;
  }
  std::string sync(const std::string& extra = "") const {
    return "sync --store " + store + " --device " + examplePath("devices/full-phone.plist") +
           " --entities " + examplePath("devices/full-phone.entities.plist") + " --variables " +
           examplePath("devices/full-phone.variables.plist") + " --phone " + phone +
           " --anchor-date 20261101" + extra;
  }
  // The phone's store as the full phone keeps it (vCards, vCalendars).
  PhoneStore phoneStore() const {
    PhoneStore store(phone);
    usePhoneParsers(store, PropertyList::fromFile(examplePath("devices/full-phone.plist"))->dictionary());
    return store;
  }
  void editOnPhone(const std::string& identifier, const std::string& key, const std::string& value) {
    PhoneStore contents = phoneStore();
    auto contacts = contents.read("Contacts");
    ASSERT_TRUE(contacts);
    for (PhoneStoreRecord& entry : contacts->records)
      if (entry.identifier == identifier) entry.fields.set(key, value);
    ASSERT_NE(contents.write(*contacts), PhoneStore::WriteResult::failed);
  }

  std::string store;
  std::string phone;
};

TEST_F(StoreSyncProgramTest, PhoneEditIsCarriedIntoTheStoreAndReported) {
  const ProgramRun first = runProgram(sync());
  ASSERT_EQ(first.status, 0) << first.output;
  EXPECT_NE(first.standardOutput.find("01-latin-alicemartin: sent as is"), std::string::npos)
      << first.standardOutput;

  editOnPhone("01-latin-alicemartin", "firstName", "Alicia");
  const ProgramRun carried = runProgram(sync(" --report json"));
  ASSERT_EQ(carried.status, 0) << carried.output;
  nlohmann::ordered_json report;
  ASSERT_NO_THROW(report = nlohmann::ordered_json::parse(carried.standardOutput)) << carried.standardOutput;
  EXPECT_EQ(report.at("summary").at("changedOnPhone"), 1);
  EXPECT_EQ(report.at("dryRun"), false);
  const nlohmann::ordered_json& records = report.at("records");
  const auto alice = std::find_if(records.begin(), records.end(), [](const nlohmann::ordered_json& record) {
    return record.at("identifier") == "01-latin-alicemartin";
  });
  ASSERT_NE(alice, records.end()) << carried.standardOutput;
  // Keys keep their order: identifier, entity, outcome, fields.
  EXPECT_EQ(*alice, nlohmann::ordered_json::parse(R"({"identifier": "01-latin-alicemartin",
      "entity": "Contacts.Contact", "outcome": "changedOnPhone", "fields": [{"field": "firstName"}]})"));
  const ProgramRun exported = runProgram("export --store " + store + " --format json");
  EXPECT_NE(exported.standardOutput.find("\"firstName\": \"Alicia\""), std::string::npos);
  // A field the phone does not hold is still there.
  EXPECT_NE(exported.standardOutput.find("\"department\": \"R&D\""), std::string::npos);

  const ProgramRun quiet = runProgram(sync());
  ASSERT_EQ(quiet.status, 0) << quiet.output;
  EXPECT_NE(quiet.standardOutput.find("; 0 files written"), std::string::npos) << quiet.standardOutput;

  editOnPhone("01-latin-alicemartin", "firstName", "Ally");
  const ProgramRun dry = runProgram(sync(" --dry-run"));
  EXPECT_NE(dry.standardOutput.find("changed on the phone (carried into the engine): firstName"),
            std::string::npos)
      << dry.standardOutput;
  EXPECT_NE(dry.standardOutput.find("dry run"), std::string::npos);
  EXPECT_EQ(runProgram("export --store " + store + " --format json").standardOutput.find("\"Ally\""),
            std::string::npos);
}

TEST_F(StoreSyncProgramTest, BadInputIsNamedAndNothingIsWritten) {
  ASSERT_EQ(runProgram(sync()).status, 0);
  const std::string contacts = (fs::path(phone) / "Contacts.vcf").string();
  const std::string before = testing::fileText(contacts);
  std::ofstream(fs::path(phone) / "Calendars.vcs") << "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nSUMMARY:cut\r\n";
  const ProgramRun broken = runProgram(sync());
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(broken.standardOutput, "");
  EXPECT_NE(broken.standardError.find("Calendars.vcs"), std::string::npos) << broken.standardError;
  EXPECT_EQ(testing::fileText(contacts), before);

  std::ofstream(store, std::ios::trunc) << "not a store";
  const ProgramRun corrupt = runProgram(sync());
  EXPECT_EQ(corrupt.status, 1);
  EXPECT_NE(corrupt.standardError.find(store + ": not a store"), std::string::npos)
      << corrupt.standardError;
  EXPECT_EQ(runProgram(sync(" " + examplePath("records/calendar/event-02.plist"))).status, 2);
}

// --first-sync chooses what a first sync does with entries the phone holds
// already; a mode it does not know is a bad command line.
TEST_F(StoreSyncProgramTest, FirstSyncModeIsChosenOnTheCommandLine) {
  PhoneStore contents = phoneStore();
  PhoneStoreContents own{"Contacts", {{"phone-own", "Contacts.Contact",
                                       Dictionary{{"firstName", "Phone"}, {"lastName", "Only"}}}}};
  ASSERT_NE(contents.write(own), PhoneStore::WriteResult::failed);

  const ProgramRun bad = runProgram(sync(" --first-sync both"));
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.standardOutput, "");

  const ProgramRun replaced = runProgram(sync(" --first-sync engine"));
  ASSERT_EQ(replaced.status, 0) << replaced.output;
  EXPECT_NE(replaced.standardOutput.find("phone-own: deleted on the phone by the engine"),
            std::string::npos)
      << replaced.standardOutput;
  auto held = contents.read("Contacts");
  ASSERT_TRUE(held);
  EXPECT_EQ(held->records.size(), 2u);
  for (const PhoneStoreRecord& entry : held->records) EXPECT_NE(entry.identifier, "phone-own");
}

// The process is killed after the phone's files are written and before the
// store's transaction commits; the next run ends with the same store and
// phone as an uninterrupted run, with nothing duplicated.
TEST_F(StoreSyncProgramTest, KilledRunIsCaughtUpByTheNextOne) {
  ASSERT_EQ(runProgram(sync()).status, 0);
  editOnPhone("02-latin-brunolefvre", "lastName", "Killed-run");
  for (const char* step : {"phone", "commit"}) {
    ::setenv("PHONECONDUIT_STOP_AT", step, 1);
    const ProgramRun killed = runProgram(sync());
    ::unsetenv("PHONECONDUIT_STOP_AT");
    EXPECT_EQ(killed.status, 137) << killed.output;
    EXPECT_EQ(killed.standardOutput, "");
  }
  const ProgramRun next = runProgram(sync());
  ASSERT_EQ(next.status, 0) << next.output;
  auto engine = SqliteEngine::engineWithPath(store, nullptr, false);
  ASSERT_TRUE(engine);
  EXPECT_EQ(engine->count(), 3u);
  EXPECT_EQ(engine->recordWithIdentifier("02-latin-brunolefvre")->getString("lastName"), "Killed-run");
  EXPECT_EQ(phoneStore().read("Contacts")->records.size(), 2u);
  EXPECT_NE(runProgram(sync()).standardOutput.find("; 0 files written"), std::string::npos);
}

}  // namespace
}  // namespace pc
