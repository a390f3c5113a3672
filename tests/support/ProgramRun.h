#pragma once
// Runs the phoneconduit program built with the tests and captures what it
// prints, for the tests of its commands.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

namespace pc::testing {

struct ProgramRun {
  int status;
  std::string output;  // standard output and standard error
};

inline ProgramRun runProgram(const std::string& arguments) {
  const std::string command = std::string(PC_PROGRAM) + " " + arguments + " 2>&1";
  ProgramRun run{-1, {}};
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  std::array<char, 4096> buffer;
  while (std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe)) run.output.append(buffer.data(), n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

// A path under examples/.
inline std::string examplePath(const std::string& relativePath) {
  return std::string(PC_SOURCE_DIR) + "/examples/" + relativePath;
}

// Skips the tests of a fixture when the program was not built.
class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(PC_PROGRAM).empty()) GTEST_SKIP() << "the program is not built";
  }
};

}  // namespace pc::testing
