// The explode and convert-limit commands of phoneconduit on the shipped
// example events and on faulty variants of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/ProgramRun.h"

namespace {

using ::pc::testing::ProgramRun;
using ::pc::testing::runProgram;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

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
  EXPECT_THAT(events.output, HasSubstr("<string>14/07/2028 00:00:00 GMT +0000</string>"));
  EXPECT_THAT(events.output, Not(HasSubstr("recurrences")));
}

TEST_F(ExploderProgramTest, ConvertLimitRewritesTheRecurrence) {
  const ProgramRun run = runProgram("convert-limit --to until " + example("monthly-on-the-31st.plist"));
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, HasSubstr("<string>01/09/2027 03:59:59 GMT +0000</string>"));
  EXPECT_THAT(run.output, Not(HasSubstr("<key>count</key>")));
}

// A faulty variant of the weekly example: `replace` is replaced by `with`.
struct BadEvent {
  const char* name;
  const char* replace;
  const char* with;
  const char* error;  // what follows "phoneconduit: <file>: "
};

class BadEventTest : public ExploderProgramTest, public ::testing::WithParamInterface<BadEvent> {};

// Both commands refuse the file with one line naming the file and the key
// path, status 1, and nothing on standard output.
TEST_P(BadEventTest, IsRefusedByEveryCommand) {
  std::string text = ::pc::testing::fileText(example("weekly-team-meeting.plist"));
  const std::size_t at = text.find(GetParam().replace);
  ASSERT_NE(at, std::string::npos);
  text.replace(at, std::string(GetParam().replace).size(), GetParam().with);
  const std::string path = ::pc::testing::temporaryFile(std::string(GetParam().name) + ".plist", text);
  for (const std::string command : {"explode --from 20261101 --to 20261201 ", "convert-limit --to count "}) {
    const ProgramRun run = runProgram(command + path);
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_EQ(run.standardOutput, "") << command;
    EXPECT_EQ(run.standardError, "phoneconduit: " + path + ": " + GetParam().error + "\n") << command;
  }
}

const char kFrequency[] = "<key>frequency</key>\n\t\t\t<string>weekly</string>";
const char kRecurrences[] = "<key>recurrences</key>";
const char kStart[] = "03/11/2026 09:30:00 Europe/Paris +0100";

INSTANTIATE_TEST_SUITE_P(
    Explode, BadEventTest,
    ::testing::Values(
        BadEvent{"NegativeCount", kFrequency, "<key>frequency</key><string>daily</string><key>count</key><integer>-4</integer>",
                 "recurrences/0/count: -4 is not a whole number from 1 to 2147483647"},
        BadEvent{"CountInWords", kFrequency, "<key>frequency</key><string>daily</string><key>count</key><string>three</string>",
                 "recurrences/0/count: \"three\" is not a whole number from 1 to 2147483647"},
        BadEvent{"FractionalCount", kFrequency, "<key>frequency</key><string>daily</string><key>count</key><real>2.7</real>",
                 "recurrences/0/count: 2.7 is not a whole number from 1 to 2147483647"},
        BadEvent{"HugeCount", kFrequency,
                 "<key>frequency</key><string>daily</string><key>count</key><integer>9223372036854775807</integer>",
                 "recurrences/0/count: 9223372036854775807 is not a whole number from 1 to 2147483647"},
        BadEvent{"ZeroInterval", kFrequency, "<key>frequency</key><string>daily</string><key>interval</key><integer>0</integer>",
                 "recurrences/0/interval: 0 is not a whole number from 1 to 2147483647"},
        BadEvent{"UnknownFrequency", kFrequency, "<key>frequency</key><string>hourly</string>",
                 "recurrences/0/frequency: \"hourly\" is not one of daily, weekly, monthly or yearly"},
        BadEvent{"EmptyRecurrence", kRecurrences, "<key>recurrences</key><array><dict/></array><key>unused</key>",
                 "recurrences/0/frequency: missing: expected one of daily, weekly, monthly or yearly"},
        BadEvent{"TwoRecurrences", kRecurrences, "<key>recurrences</key><array><dict/><dict/></array><key>unused</key>",
                 "recurrences: 2 recurrence records; the command works on an event with exactly one"},
        BadEvent{"UnknownDay", "<string>thursday</string>", "<string>thursdy</string>",
                 "recurrences/0/bydaydays/1: \"thursdy\" is not one of sunday, monday, tuesday, wednesday, "
                 "thursday, friday or saturday"},
        BadEvent{"UntilBeforeStart", "31/12/2026 23:59:59", "31/12/2025 23:59:59",
                 "recurrences/0/until: the until date is before the event's start date"},
        BadEvent{"YearOutOfRange", kStart, "03/11/5000 09:30:00 Europe/Paris +0100",
                 "startDate: year 5000 is outside the supported years 1 to 3285"},
        BadEvent{"StartNotADate", "<key>startDate</key>", "<key>startDate</key><string>tomorrow</string><key>unused</key>",
                 "startDate: \"tomorrow\" is not a calendar date"},
        BadEvent{"DateWithTrailingText", "24/12/2026 09:30:00 Europe/Paris +0100", "24/12/2026 09:30:00 Europe/Paris +0100 x",
                 "exceptionDates/1: cannot read date \"24/12/2026 09:30:00 Europe/Paris +0100 x\": expected "
                 "\"day/month/year hours:minutes:seconds zone offset\""}),
    [](const auto& info) { return info.param.name; });

TEST_F(ExploderProgramTest, BadOptionsAreCommandLineErrors) {
  const std::string event = example("weekly-team-meeting.plist");
  const std::pair<std::string, std::string> cases[] = {
      {"--from 20261120 --to 20261110", "--to: 20261110 is not after --from 20261120"},
      {"--from 20261120junk --to 20261210", "--from: \"20261120junk\": not a date"},
      {"--from 50001120 --to 50001210", "--from: \"50001120\": year 5000 is outside the supported years 1 to 3285"},
  };
  for (const auto& [options, error] : cases) {
    const ProgramRun run = runProgram("explode " + event + " " + options);
    EXPECT_EQ(run.status, 2) << options;
    EXPECT_EQ(run.standardOutput, "") << options;
    EXPECT_THAT(run.standardError, StartsWith("phoneconduit: " + error)) << options;
  }
  // A zoned date west of GMT keeps its offset.
  const ProgramRun west = runProgram("explode " + event + " --from 20261103T033000-0500 --to 20261104");
  EXPECT_EQ(west.status, 0) << west.output;
  EXPECT_EQ(west.standardOutput, "20261103T093000+0100\n");
}

TEST_F(ExploderProgramTest, ConvertLimitNeedsAnEndingItCanConvert) {
  const std::string event = example("monthly-on-the-31st.plist");
  const ProgramRun noUntil = runProgram("convert-limit --to count " + event);
  EXPECT_EQ(noUntil.status, 1);
  EXPECT_EQ(noUntil.standardError, "phoneconduit: " + event + ": recurrences/0: no \"until\" to convert from\n");

  std::string text = ::pc::testing::fileText(event);
  const std::size_t at = text.find("<integer>12</integer>");
  ASSERT_NE(at, std::string::npos);
  text.replace(at, 21, "<integer>2000000000</integer>");
  const std::string path = ::pc::testing::temporaryFile("unreachable-count.plist", text);
  const ProgramRun unreachable = runProgram("convert-limit --to until " + path);
  EXPECT_EQ(unreachable.status, 1);
  EXPECT_EQ(unreachable.standardError,
            "phoneconduit: " + path + ": recurrences/0/count: the recurrence does not reach 2000000000 occurrences before 2050\n");
}

}  // namespace
