#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "support/ProgramRun.h"

namespace pc {
namespace {

namespace fs = std::filesystem;
using testing::runProgram;

class HexdumpProgram : public testing::ProgramTest {
 protected:
  fs::path write(const std::string& name, const std::string& bytes) {
    const char* scratch = std::getenv("PC_TEST_TMPDIR");
    const fs::path dir = fs::path(scratch ? scratch : fs::temp_directory_path().string()) /
                         ("hexdump-" + std::to_string(getpid()));
    fs::create_directories(dir);
    const fs::path path = dir / name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
};

TEST_F(HexdumpProgram, PrintsTheDumpOrSaysWhatIsWrong) {
  auto run = runProgram("hexdump " + write("three", std::string("A \x7f", 3)).string());
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "00000000  41 20 7f " + std::string(41, ' ') + "|A..|\n");

  const fs::path missing = write("x", "").parent_path() / "missing";
  run = runProgram("hexdump " + missing.string());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "phoneconduit: " + missing.string() +
                            ": cannot be read (No such file or directory)\n");
  run = runProgram("hexdump " + missing.parent_path().string());
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.output, "phoneconduit: " + missing.parent_path().string() + ": is a directory\n");

  run = runProgram("hexdump --help");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.output.find("phoneconduit hexdump received.vcs"), std::string::npos);
  fs::remove_all(missing.parent_path());
}

}  // namespace
}  // namespace pc
