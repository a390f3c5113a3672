#include "platform/FileIO.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace pc {
namespace {

namespace fs = std::filesystem;

class FileIOTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = ::testing::TempDir() + "file-io-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    fs::remove_all(folder);
    fs::create_directories(folder);
    path = folder + "/Store.plist";
  }
  void TearDown() override { fs::remove_all(folder); }

  static mode_t modeOf(const std::string& file) {
    struct stat status {};
    EXPECT_EQ(::stat(file.c_str(), &status), 0) << file;
    return status.st_mode & 07777;
  }
  // The names in the folder: a temporary file left behind shows here.
  std::vector<std::string> entries() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string folder, path;
};

TEST_F(FileIOTest, NewFilesFollowTheUmaskAndRewrittenFilesKeepTheirMode) {
  for (const mode_t mask : {mode_t(077), mode_t(022), mode_t(027)}) {
    fs::remove(path);
    const mode_t saved = ::umask(mask);
    std::string error;
    const bool written = writeFileAtomically(path, "one", &error);
    ::umask(saved);
    ASSERT_TRUE(written) << error;
    EXPECT_EQ(modeOf(path), 0666 & ~mask) << std::oct << mask;
  }
  // A user's choice survives every later write, whatever the umask.
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  const mode_t saved = ::umask(0);
  EXPECT_TRUE(writeFileAtomically(path, "two"));
  ::umask(saved);
  EXPECT_EQ(modeOf(path), 0600u);
  EXPECT_EQ(*readWholeFile(path), "two");
  EXPECT_EQ(entries(), std::vector<std::string>{"Store.plist"});
}

TEST_F(FileIOTest, FailuresNameTheFileAndTheReasonAndLeaveNoTemporaryFile) {
  ASSERT_TRUE(writeFileAtomically(path, "old contents"));
  struct Case {
    const char* what;
    std::string target;
    AtomicWriteOptions options;
    std::string reason;
  };
  fs::create_directories(folder + "/Taken.plist/inside");
  const std::vector<Case> cases{
      {"interrupted", path, {.interruptAfter = 3}, "No space left on device"},
      {"no folder", folder + "/missing/Store.plist", {}, "No such file or directory"},
      {"a directory in the way", folder + "/Taken.plist", {}, "Is a directory"},
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_FALSE(writeFileAtomically(c.target, "new contents", &error, c.options)) << c.what;
    EXPECT_EQ(error.rfind(c.target + ": ", 0), 0u) << c.what << ": " << error;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.what << ": " << error;
  }
  EXPECT_EQ(*readWholeFile(path), "old contents");
  EXPECT_EQ(entries(), (std::vector<std::string>{"Store.plist", "Taken.plist"}));
}

TEST_F(FileIOTest, FileSizeLimitIsAnErrorNotTheEndOfTheProcess) {
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct rlimit small = saved;
  small.rlim_cur = 64;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string error;
  const bool written = writeFileAtomically(path, std::string(4096, 'x'), &error);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_FALSE(written);
  EXPECT_NE(error.find("File too large"), std::string::npos) << error;
  EXPECT_TRUE(entries().empty());
}

TEST_F(FileIOTest, ReadingRefusesWhatIsNotARegularFileWithTheReason) {
  const struct {
    std::string target;
    std::string reason;
  } cases[] = {{folder, "Is a directory"},
               {folder + "/none", "No such file or directory"},
               {"/dev/null", "not a regular file"}};
  for (const auto& c : cases) {
    std::string error;
    EXPECT_FALSE(readWholeFile(c.target, &error));
    EXPECT_EQ(error.rfind(c.target + ": ", 0), 0u) << error;
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
  }
  std::ofstream(path, std::ios::binary) << std::string("a\0b", 3);
  EXPECT_EQ(*readWholeFile(path), std::string("a\0b", 3));
}

}  // namespace
}  // namespace pc
