#pragma once
// Runs the phoneconduit program built with the tests and captures what it
// prints, for the tests of its commands.

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TemporaryFolder.h"

namespace pc::testing {

struct ProgramRun {
  int status;
  std::string output;          // standard output, then standard error
  std::string standardOutput;  // each on its own
  std::string standardError;
};

// The text of a file ("" when it cannot be read).
inline std::string fileText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Runs a shell command line, capturing its outputs.
inline ProgramRun runShell(const std::string& commandLine) {
  const std::string errors = ::testing::TempDir() + "phoneconduit-stderr-" + std::to_string(getpid());
  const std::string command = "{ " + commandLine + "; } 2>" + errors;
  ProgramRun run{-1, {}, {}, {}};
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  std::array<char, 4096> buffer;
  while (std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe)) run.standardOutput.append(buffer.data(), n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.standardError = fileText(errors);
  std::remove(errors.c_str());
  run.output = run.standardOutput + run.standardError;
  return run;
}

// `arguments` are read by the shell.
inline ProgramRun runProgram(const std::string& arguments) {
  return runShell(std::string(PC_PROGRAM) + " " + arguments);
}

// A path under examples/.
inline std::string examplePath(const std::string& relativePath) {
  return std::string(PC_SOURCE_DIR) + "/examples/" + relativePath;
}

// The files temporaryFile wrote since the last ProgramTest ended.
inline std::vector<std::string>& temporaryFiles() {
  static std::vector<std::string> files;
  return files;
}

// Writes `text` to a file of the tests' temporary folder; answers its path.
// A ProgramTest removes the file when it ends.
inline std::string temporaryFile(const std::string& name, const std::string& text) {
  const std::string path = ::testing::TempDir() + "phoneconduit-" + std::to_string(getpid()) + "-" + name;
  std::ofstream(path) << text;
  temporaryFiles().push_back(path);
  return path;
}

// Skips the tests of a fixture when the program was not built.
class ProgramTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(PC_PROGRAM).empty()) GTEST_SKIP() << "the program is not built";
  }
  void TearDown() override {
    for (const std::string& path : temporaryFiles()) std::remove(path.c_str());
    temporaryFiles().clear();
  }
};

// A ProgramTest with a folder of each test's own, "<prefix>-<process>-<test>"
// in the tests' temporary folder: empty when the test starts, removed with
// all it holds when the test ends.
class FolderProgramTest : public ProgramTest {
 protected:
  explicit FolderProgramTest(std::string prefix) : _prefix(std::move(prefix)) {}
  void SetUp() override {
    ProgramTest::SetUp();
    folder = test::folderOfThisTest(_prefix);
    std::filesystem::create_directories(folder);
  }
  void TearDown() override {
    std::filesystem::remove_all(folder);
    ProgramTest::TearDown();
  }

  std::string folder;

 private:
  std::string _prefix;
};

}  // namespace pc::testing
