// phoneconduit read-phone: a phone's own files read into engine records, with
// what was skipped, as text and as JSON.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/ProgramRun.h"

namespace pc {
namespace {

using testing::ProgramRun;
using testing::examplePath;
using testing::runProgram;

class ReadPhoneProgramTest : public testing::ProgramTest {
 protected:
  static std::string command(const std::string& files) {
    return "read-phone --device " + examplePath("devices/full-phone.plist") + " --entities " +
           examplePath("devices/full-phone.entities.plist") + " --variables " +
           examplePath("devices/full-phone.variables.plist") + " " + files;
  }
};

TEST_F(ReadPhoneProgramTest, AnExportBecomesEngineRecordsWithWhatWasSkipped) {
  const ProgramRun run = runProgram(command("--report json " + examplePath("phone-exports/Contacts.vcf") + " " +
                                            examplePath("phone-exports/Calendars.vcs")));
  ASSERT_EQ(run.status, 0) << run.output;
  const nlohmann::json report = nlohmann::json::parse(run.standardOutput);
  ASSERT_EQ(report["records"].size(), 4u) << run.standardOutput;
  const nlohmann::json& joerg = report["records"][0];
  EXPECT_EQ(joerg["identifier"], "000012");
  EXPECT_EQ(joerg["entity"], "Contacts.Contact");
  EXPECT_EQ(joerg["record"]["lastName"], "Müller");
  EXPECT_EQ(joerg["record"]["phoneNumbers"][0]["type"], "mobile");
  const nlohmann::json& planning = report["records"][2];
  EXPECT_EQ(planning["entity"], "Calendars.Event");
  // 09:00 in summer time of the file's TZ and DAYLIGHT is 07:00 GMT.
  EXPECT_EQ(planning["record"]["startDate"], "2027-06-15T08:00:00+01:00[GMT+0100]");
  EXPECT_EQ(planning["record"]["recurrences"][0]["bydayfreq"][0], 2);
  bool damagedLine = false, leftOut = false;
  for (const nlohmann::json& problem : report["problems"]) {
    if (problem["line"] == 20 && problem["file"].get<std::string>().find("Contacts.vcf") != std::string::npos)
      damagedLine = true;
    if (problem["message"].get<std::string>().rfind("X-EPOCAGENDAENTRYTYPE: left out", 0) == 0) leftOut = true;
  }
  EXPECT_TRUE(damagedLine) << run.standardOutput;
  EXPECT_TRUE(leftOut) << run.standardOutput;

  const ProgramRun text = runProgram(command(examplePath("phone-exports/Contacts.vcf")));
  ASSERT_EQ(text.status, 0) << text.output;
  EXPECT_NE(text.standardOutput.find("2 records, "), std::string::npos) << text.standardOutput;
}

TEST_F(ReadPhoneProgramTest, AFileThatCannotBeReadIsNamed) {
  const ProgramRun missing = runProgram(command("/nonexistent/Contacts.vcf"));
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.standardOutput, "");
  EXPECT_NE(missing.standardError.find("phoneconduit: /nonexistent/Contacts.vcf: cannot read"), std::string::npos)
      << missing.standardError;
  const std::string garbage = testing::temporaryFile("garbage.vcf", "no vCard here\n");
  const ProgramRun unreadable = runProgram(command(garbage));
  EXPECT_EQ(unreadable.status, 1);
  EXPECT_NE(unreadable.standardError.find(garbage + ": line 1"), std::string::npos) << unreadable.standardError;
  EXPECT_EQ(runProgram("read-phone " + examplePath("phone-exports/Contacts.vcf")).status, 2);
}

}  // namespace
}  // namespace pc
