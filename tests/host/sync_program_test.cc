// phoneconduit sync: exit statuses, the JSON report, and the second run
// after an entry was edited on the phone.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include <nlohmann/json.hpp>

#include "support/ProgramRun.h"

namespace pc {
namespace {

using testing::ProgramRun;
using testing::examplePath;
using testing::runProgram;

class SyncProgramTest : public testing::FolderProgramTest {
 protected:
  SyncProgramTest() : FolderProgramTest("sync-program") {}
  void SetUp() override {
    FolderProgramTest::SetUp();
    phone = folder + "/phone";
  }
  std::string device(const std::string& name) const {
    std::string arguments = "sync --device " + examplePath("devices/" + name + ".plist") +
                            " --entities " + examplePath("devices/" + name + ".entities.plist") +
                            " --phone " + phone + " --anchor-date 20261101";
    if (std::filesystem::exists(examplePath("devices/" + name + ".variables.plist")))
      arguments += " --variables " + examplePath("devices/" + name + ".variables.plist");
    return arguments;
  }
  // "name": number in the summary of a JSON report; -1 when absent.
  static long count(const std::string& json, const std::string& name) {
    std::smatch match;
    if (!std::regex_search(json, match, std::regex("\"" + name + "\": ([0-9]+)"))) return -1;
    return std::stol(match[1]);
  }

  std::string phone;
};

TEST_F(SyncProgramTest, ReportsEachRecordAndASecondRunRewritesNothing) {
  const std::string records = " " + examplePath("records/contacts/01-latin-alicemartin.plist") +
                              " " + examplePath("records/contacts/04-latin-zoannebront.plist") +
                              " " + examplePath("records/calendar/event-02.plist");
  const ProgramRun first = runProgram(device("full-phone") + " --report json" + records);
  ASSERT_EQ(first.status, 0) << first.output;
  // The report says what happened: the conduit's own log stays quiet, also
  // once the engine side has been loaded during the run.
  EXPECT_EQ(first.standardError, "");
  const std::string& json = first.standardOutput;
  const nlohmann::json report = nlohmann::json::parse(json);
  ASSERT_TRUE(report.at("summary").is_object()) << json;
  for (const char* name : {"sent", "reduced", "exploded", "rejected", "changedOnPhone"})
    EXPECT_GE(count(json, name), 0) << name;
  EXPECT_EQ(count(json, "sent") + count(json, "reduced"), 4);  // the detached event is a record too
  EXPECT_EQ(report.at("records").at(0),
            nlohmann::json::parse(R"({"identifier": "01-latin-alicemartin", "entity": "Contacts.Contact",
                                      "outcome": "sent", "fields": []})"))
      << json;
  EXPECT_NE(json.find("\"limit\": \"Formatting/Contacts.EmailAddress"), std::string::npos) << json;
  EXPECT_TRUE(std::filesystem::exists(phone + "/Contacts.vcf"));
  EXPECT_TRUE(std::filesystem::exists(phone + "/Calendars.vcs"));

  const ProgramRun second = runProgram(device("full-phone") + records);
  ASSERT_EQ(second.status, 0) << second.output;
  EXPECT_NE(second.standardOutput.find("01-latin-alicemartin: sent as is\n"), std::string::npos);
  EXPECT_NE(second.standardOutput.find(" 0 changed on the phone; 0 files written\n"),
            std::string::npos)
      << second.standardOutput;

  // An entry edited on the phone, as a user would.
  std::string text = testing::fileText(phone + "/Contacts.vcf");
  for (auto [from, to] : {std::pair<std::string, std::string>{"N:Martin;Alice;", "N:Martin;Alicia;"},
                          {"FN:Alice Martin", "FN:Alicia Martin"}}) {
    const std::size_t at = text.find(from);
    ASSERT_NE(at, std::string::npos) << text;
    text.replace(at, from.size(), to);
  }
  std::ofstream(phone + "/Contacts.vcf", std::ios::trunc) << text;
  const ProgramRun third = runProgram(device("full-phone") + records);
  ASSERT_EQ(third.status, 0) << third.output;
  EXPECT_NE(third.standardOutput.find("01-latin-alicemartin: changed on the phone: firstName\n"),
            std::string::npos)
      << third.standardOutput;
  EXPECT_NE(third.standardOutput.find(" 1 changed on the phone; 0 files written\n"),
            std::string::npos);
}

TEST_F(SyncProgramTest, ExitStatuses) {
  // 3: a task on a phone without tasks is rejected, named on standard error.
  const ProgramRun rejected =
      runProgram(device("basic-phone") + " --report json " + examplePath("records/calendar/task-01.plist"));
  EXPECT_EQ(rejected.status, 3) << rejected.output;
  EXPECT_EQ(count(rejected.standardOutput, "rejected"), 1);
  EXPECT_NE(rejected.standardError.find("phoneconduit: task-01: rejected: "), std::string::npos);

  // 3 too: an entity the engine does not know never names a store file.
  const std::string stranger = testing::temporaryFile(
      "stranger.plist",
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>entityName</key>"
      "<string>../../escaped</string><key>summary</key><string>x</string></dict></plist>\n");
  const ProgramRun unknown = runProgram(device("full-phone") + " " + stranger);
  EXPECT_EQ(unknown.status, 3) << unknown.output;
  EXPECT_NE(unknown.standardError.find("stranger: rejected: the engine has no entity"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(phone + "/../../escaped.plist"));
  std::filesystem::remove_all(phone);

  // 1: a corrupt store file, named; nothing on standard output.
  std::filesystem::create_directories(phone);
  std::ofstream(phone + "/Contacts.vcf") << "<plist><dict><key>Records";
  const std::string contact = " " + examplePath("records/contacts/01-latin-alicemartin.plist");
  const ProgramRun corrupt = runProgram(device("full-phone") + contact);
  EXPECT_EQ(corrupt.status, 1);
  EXPECT_EQ(corrupt.standardOutput, "");
  EXPECT_NE(corrupt.standardError.find("phoneconduit: " + phone + "/Contacts.vcf: line 1"), std::string::npos)
      << corrupt.standardError;

  // 1: a record file that does not read; 2: a bad command line.
  const ProgramRun badRecord = runProgram(device("full-phone") + " " + examplePath("devices/full-phone.variables.plist"));
  EXPECT_EQ(badRecord.status, 1) << badRecord.output;
  EXPECT_EQ(runProgram("sync --device " + examplePath("devices/full-phone.plist") + contact).status, 2);
  const ProgramRun badDate = runProgram(device("full-phone") + " --anchor-date 2026-11-01" + contact);
  EXPECT_EQ(badDate.status, 2);
  EXPECT_EQ(badDate.standardOutput, "");

  const ProgramRun help = runProgram("sync --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.standardOutput.find("Example:"), std::string::npos);
}

}  // namespace
}  // namespace pc
