// What every command of phoneconduit shares: help with an example, one error
// line on standard error, and the exit statuses 0 success, 1 bad input, 2 bad
// command line.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ProgramRun.h"

namespace {

using ::pc::testing::ProgramRun;
using ::pc::testing::runProgram;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using CommandLineProgramTest = ::pc::testing::ProgramTest;

// Each command with its arguments but its input file, which comes last.
const char* const kCommands[] = {
    "explode --from 20260101 --to 20270101",
    "convert-limit --to count",
    "describe-device --entities /nonexistent/entities.plist",
};

int lines(const std::string& text) { return static_cast<int>(std::count(text.begin(), text.end(), '\n')); }

TEST_F(CommandLineProgramTest, EveryCommandHasHelpWithAnExample) {
  EXPECT_THAT(runProgram("--help").standardOutput, HasSubstr("Example:\n  phoneconduit explode"));
  for (const std::string command : {"explode", "convert-limit", "describe-device"}) {
    const ProgramRun run = runProgram(command + " --help");
    EXPECT_EQ(run.status, 0) << command;
    EXPECT_THAT(run.standardOutput, HasSubstr("Example:\n  phoneconduit " + command)) << command;
  }
}

TEST_F(CommandLineProgramTest, AMissingInputFileIsBadInputForEveryCommand) {
  for (const std::string command : kCommands) {
    const ProgramRun run = runProgram(command + " /nonexistent/input.plist");
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_EQ(run.standardOutput, "") << command;
    EXPECT_THAT(run.standardError, StartsWith("phoneconduit: /nonexistent/input.plist: ")) << command;
    EXPECT_EQ(lines(run.standardError), 1) << run.standardError;
  }
}

TEST_F(CommandLineProgramTest, AWrongCommandLineExitsWithTwo) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "phoneconduit: no command given; the commands are describe-device, explode, convert-limit"},
      {"frobnicate", "phoneconduit: The following argument was not expected: frobnicate"},
      {"explode --from 20260101 --to 20270101", "phoneconduit: EVENT is required"},
      {"convert-limit --to sometime x.plist", "phoneconduit: --to: sometime not in {count,until,last}"},
      {"describe-device x.plist", "phoneconduit: --entities is required"},
      {"explode x.plist --from 20260101 --to 20270101 --bogus", "phoneconduit: The following argument was not expected: --bogus"},
  };
  for (const auto& [arguments, error] : cases) {
    const ProgramRun run = runProgram(arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_EQ(run.standardOutput, "") << arguments;
    EXPECT_THAT(run.standardError, StartsWith(error)) << arguments;
    EXPECT_EQ(lines(run.standardError), 1) << run.standardError;
  }
}

}  // namespace
