#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "async/AYLogger.h"
#include "async/Diagnostics.h"
#include "platform/Preferences.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

TEST(Diagnostics, HexDumpLinesKeepTheirColumns) {
  const unsigned char three[] = {0x41, 0x20, 0x7f};
  EXPECT_EQ(qvtHexDump(three, 3), "\n00000000  41 20 7f " + std::string(41, ' ') + "|A..|\n");
  EXPECT_EQ(qvtHexDump(three, 0), "(empty)");
  EXPECT_EQ(hexDump(three, 3), "0x41 0x20 0x7f ");
  EXPECT_EQ(dataDump(Data()), "");
  EXPECT_EQ(fourCharCodeString(0x61622063), "ab c");  // most significant byte first

  std::vector<std::uint8_t> bytes(40);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = std::uint8_t(i * 7 + 30);
  bytes[5] = 0x80;
  bytes[6] = 0xff;
  const std::string full = hexNiceDump(Data(bytes));
  EXPECT_EQ(full.substr(0, 80),
            "\n00000000  1e 25 2c 33 3a 80 ff 4f  56 5d 64 6b 72 79 80 87  |.%,3:..OV]dkry..|\n");
  // Every length: each line has its bar at column 60 and as many characters
  // between the bars as it has bytes.
  for (std::size_t n = 1; n <= bytes.size(); ++n) {
    SCOPED_TRACE(n);
    const std::string dump = QVTPrettyBytes(bytes.data(), n);
    ASSERT_EQ(dump.front(), '\n');
    std::size_t start = 1, lineNumber = 0;
    while (start < dump.size()) {
      const std::size_t end = dump.find('\n', start);
      const std::string line = dump.substr(start, end - start);
      const std::size_t count = std::min<std::size_t>(16, n - lineNumber * 16);
      EXPECT_EQ(line.substr(0, 10), fmt::format("{:08x}  ", lineNumber * 16));
      EXPECT_EQ(line.find('|'), 60u);
      EXPECT_EQ(line.size(), 62 + count);
      start = end + 1;
      ++lineNumber;
    }
    EXPECT_EQ(lineNumber, (n + 15) / 16);
  }
}

[[gnu::noinline]] void raiseFromHere() {
  raiseException(kInvalidArgumentException, "bad value");
  asm volatile("" ::: "memory");
}

[[gnu::noinline]] void raiseAgainElsewhere() {
  try {
    raiseFromHere();
  } catch (const Exception& exception) {
    exception.raise();
  }
  asm volatile("" ::: "memory");
}

// "LogsExceptions" puts the friendly exceptions in place; they carry the
// stack where they were made, and each raise is logged with its stacks.
TEST(Diagnostics, FriendlyExceptionsRecordAndLogTheirStacks) {
  const auto file = std::filesystem::temp_directory_path() /
                    fmt::format("diagnostics-preferences-{}.plist", getpid());
  std::ofstream(file) << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>LogsExceptions</key><true/></dict></plist>
)";
  Preferences::standardPreferences().setPath(file.string());
  QVTRegisterLogs();
  std::filesystem::remove(file);

  test::LogCapture log;
  try {
    raiseFromHere();
    FAIL() << "no exception";
  } catch (const Exception& exception) {
    const auto* friendly = dynamic_cast<const QVTFriendlyException*>(&exception);
    ASSERT_NE(friendly, nullptr);
    EXPECT_EQ(exception.reason(), "bad value");
    EXPECT_THAT(friendly->creationStack(), HasSubstr("raiseFromHere() (in test_async)"));
    EXPECT_THAT(friendly->creationStack(), HasSubstr(": main (in test_async)\n"));
    EXPECT_THAT(friendly->creationStack(), Not(HasSubstr("QVTFriendlyException")));
    EXPECT_THAT(exception.description(), StartsWith("bad value\nWhere it all went wrong:\n    0x"));
    EXPECT_STREQ(exception.what(), exception.description().c_str());
  }
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, kLogWarning);
  EXPECT_EQ(log.lines()[0].type, "QVT");
  const std::string& raise = log.lines()[0].message;
  EXPECT_THAT(raise, ::testing::ContainsRegex(
                         "^\\[0x[0-9a-f]+\\] ##### RAISE invalid-argument: bad value\n"
                         "Where it all went wrong:\n    0x[0-9a-f]+: pc::raiseException"));
  EXPECT_THAT(raise, HasSubstr(": pc::(anonymous namespace)::raiseFromHere() (in test_async)\n"));

  log.clear();
  EXPECT_THROW(raiseAgainElsewhere(), QVTFriendlyException);
  ASSERT_EQ(log.lines().size(), 2u);
  const std::string& reraise = log.lines()[1].message;
  EXPECT_THAT(reraise, HasSubstr("##### RE-RAISE invalid-argument: bad value\nWhere it all went wrong:\n"));
  const auto created = reraise.find("This exception was created here:\n");
  ASSERT_NE(created, std::string::npos);
  EXPECT_THAT(reraise.substr(0, created), Not(HasSubstr("raiseFromHere")));
  EXPECT_THAT(reraise.substr(created), HasSubstr("raiseFromHere"));

  // Names raised too often to be worth a stack are not logged; an
  // accessibility exception does not even capture one.
  log.clear();
  EXPECT_THROW(raiseException(kSyncEngineCancelledException, "stop"), Exception);
  EXPECT_TRUE(log.lines().empty());
  QVTFriendlyException quiet(kAccessibilityException, "no stack");
  EXPECT_EQ(quiet.creationStack(), "");
  EXPECT_EQ(quiet.description(), "no stack");

  Preferences::standardPreferences().setPath((file.parent_path() / "none.plist").string());
  QVTRegisterLogs();
  QVTAYLogger::removeLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, kLogError);
}

#ifndef __SANITIZE_THREAD__
TEST(DiagnosticsDeathTest, DeliberateCrashStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(QVTCrash(), "we are going to crash now\\.\\.\\.");
}
#endif

}  // namespace
}  // namespace pc
