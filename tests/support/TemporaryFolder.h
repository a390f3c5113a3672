#pragma once
// Fresh folders for tests that write files.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace pc::test {

// A new, empty folder "<prefix>-XXXXXX" under PC_TEST_TMPDIR (the build's
// temporary folder, which CTest sets), else under the system's.
inline std::filesystem::path makeTemporaryFolder(const std::string& prefix) {
  const char* base = std::getenv("PC_TEST_TMPDIR");
  const std::filesystem::path root =
      base && *base ? std::filesystem::path(base) : std::filesystem::temp_directory_path();
  std::filesystem::create_directories(root);
  std::string pattern = (root / (prefix + "-XXXXXX")).string();
  EXPECT_NE(mkdtemp(pattern.data()), nullptr) << pattern;
  return pattern;
}

// "<gtest's temporary folder><prefix>-<process>-<test name>": a folder for
// the running test alone, so that tests run in parallel never share one.
// Whatever an earlier run left there is removed; the folder is not created.
inline std::string folderOfThisTest(const std::string& prefix) {
  const std::string folder = ::testing::TempDir() + prefix + "-" + std::to_string(::getpid()) + "-" +
                             ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::filesystem::remove_all(folder);
  return folder;
}

}  // namespace pc::test
