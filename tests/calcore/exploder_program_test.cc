// The explode and convert-limit commands of phoneconduit on the shipped
// example events.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ProgramRun.h"

namespace {

using ::pc::testing::ProgramRun;
using ::pc::testing::runProgram;
using ::testing::HasSubstr;
using ::testing::Not;

std::string example(const char* name) { return ::pc::testing::examplePath(std::string("events/") + name); }

using ExploderProgramTest = ::pc::testing::ProgramTest;

TEST_F(ExploderProgramTest, ExplodeListsOccurrencesWithoutExceptionDates) {
  const ProgramRun run = runProgram("explode " + example("weekly-team-meeting.plist") + " --from 20261110 --to 20261120");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "20261110T093000+0100\n20261117T093000+0100\n20261119T093000+0100\n");
  const ProgramRun all = runProgram("explode " + example("weekly-team-meeting.plist") +
                             " --from 20261110 --to 20261120 --ignore-exdates");
  EXPECT_THAT(all.output, HasSubstr("20261112T093000+0100"));
  const ProgramRun events = runProgram("explode " + example("yearly-all-day.plist") + " --from 20280101 --to 20290101 --events");
  EXPECT_EQ(events.status, 0);
  EXPECT_THAT(events.output, HasSubstr("<string>14/07/2028 00:00:00 GMT</string>"));
  EXPECT_THAT(events.output, Not(HasSubstr("recurrences")));
}

TEST_F(ExploderProgramTest, ConvertLimitRewritesTheRecurrence) {
  const ProgramRun run = runProgram("convert-limit --to until " + example("monthly-on-the-31st.plist"));
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, HasSubstr("<string>01/09/2027 03:59:59 GMT</string>"));
  EXPECT_THAT(run.output, Not(HasSubstr("<key>count</key>")));
}

TEST_F(ExploderProgramTest, BadInputIsReportedWithAFailureStatus) {
  for (const std::string& arguments :
       {"explode " + example("missing.plist") + " --from 20260101 --to 20270101",
        "explode " + example("yearly-all-day.plist") + " --from 2026-01-01 --to 20270101",
        "convert-limit --to count " + example("monthly-on-the-31st.plist")}) {
    const ProgramRun run = runProgram(arguments);
    EXPECT_EQ(run.status, 1) << arguments;
    EXPECT_THAT(run.output, HasSubstr("phoneconduit: ")) << arguments;
  }
}

}  // namespace
