#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <regex>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "async/AYLogger.h"
#include "async/Log.h"
#include "platform/Preferences.h"
#include "platform/ThreadDictionary.h"

// A value whose text cannot be produced.
struct Unprintable {};
template <>
struct fmt::formatter<Unprintable> : fmt::formatter<std::string_view> {
  auto format(Unprintable, fmt::format_context&) const -> fmt::format_context::iterator {
    throw std::runtime_error("no text");
  }
};

namespace pc {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

struct Record {
  std::string function;
  unsigned line;
  std::string message;
};

class RecordingLogger : public QVTAYLogger {
 public:
  void dumpLogInFile(const char*, const char* function, unsigned line, const std::string&, int,
                     const std::string& message) override {
    std::lock_guard guard(_lock);
    _records.push_back(Record{function ? function : "", line, message});
  }
  std::optional<URL> urlToFile() const override { return std::nullopt; }
  std::vector<Record> records() const {
    std::lock_guard guard(_lock);
    return _records;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> texts;
    for (const auto& r : records()) texts.push_back(r.message);
    return texts;
  }

 private:
  mutable std::mutex _lock;
  std::vector<Record> _records;
};

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Each test gets a fresh scratch folder, a captured console log and an
// undo list for its registrations, so that the process-wide registry is
// empty between tests.
class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* scratch = std::getenv("PC_TEST_TMPDIR");
    fs::path parent = scratch ? fs::path(scratch) : fs::temp_directory_path();
    fs::create_directories(parent);
    std::string pattern = (parent / "logging-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
    setConsoleLogSink([this](const std::string& text) { console.push_back(text); });
  }
  void TearDown() override {
    for (const auto& [logger, type, mask] : added) QVTAYLogger::removeLogger(logger, type, mask);
    setConsoleLogSink(nullptr);
    fs::remove_all(dir);
  }
  std::shared_ptr<RecordingLogger> add(std::optional<std::string> type, int mask) {
    auto logger = std::make_shared<RecordingLogger>();
    QVTAYLogger::addLogger(logger, type, mask);
    added.emplace_back(logger, type, mask);
    return logger;
  }

  fs::path dir;
  std::vector<std::string> console;
  std::vector<std::tuple<QVTAYLoggerPtr, std::optional<std::string>, int>> added;
};

TEST(LogDomain, SimplifiesFileNamesAndBuildsDottedDomains) {
  const std::pair<const char*, const char*> cases[] = {
      {"/src/formatting/QVTSyncFieldFormatterV2.mm", "FieldFormatterV2"},
      {"FormattingMethods.cc", "FormattingMethods"},
      {"a/QVTSyncQVTSyncX.h", "QVTSyncX"},
      {"dir.v2/plain", "plain"},
      {"archive.tar.gz", "archive.tar"},
  };
  for (const auto& [path, expected] : cases) EXPECT_EQ(phcSimplifyFileName(path), expected) << path;
  EXPECT_EQ(phcFormatLogDomain(".sync.", phcSimplifyFileName("x/QVTSyncFieldFormatterV2.mm")),
            ".sync.FieldFormatterV2");
}

TEST_F(LoggingTest, MatchesAllTypesThenDottedPrefixesThenExactTypes) {
  auto all = add(std::nullopt, kLogInfo);
  auto sync = add(".sync", kLogInfo);
  auto foo = add(".sync.Foo", kLogInfo);
  auto qvt = add(QVTLOG, kLogInfo);
  auto lookup = [](const std::string& type) {
    std::vector<QVTAYLoggerPtr> found;
    if (auto list = QVTAYLogger::loggersForType(type, kLogInfo)) found = *list;
    return found;
  };
  EXPECT_THAT(lookup(".sync.Foo"), ElementsAre(all, sync, foo));
  EXPECT_THAT(lookup(".sync.Bar.Baz"), ElementsAre(all, sync));
  EXPECT_THAT(lookup(".syncing"), ElementsAre(all));
  EXPECT_THAT(lookup("QVT"), ElementsAre(all, qvt));
  EXPECT_THAT(lookup("QVT.sync"), ElementsAre(all));
  EXPECT_EQ(QVTAYLogger::loggersForType("QVT", kLogImportant), nullptr);
}

TEST_F(LoggingTest, LoggerRegisteredTwiceWritesTwice) {
  auto twice = add(std::nullopt, kLogInfo);
  QVTAYLogger::addLogger(twice, ".sync", kLogInfo);
  added.emplace_back(twice, ".sync", kLogInfo);
  QVT_LOG(kLogInfo, ".sync.FieldFormatterV2", "value {}", 7);
  QVT_LOG(kLogInfo, QVTLOG, "elsewhere");
  EXPECT_THAT(twice->messages(), ElementsAre("value 7", "value 7", "elsewhere"));
}

TEST_F(LoggingTest, RemovalNeedsTheSameTypeMaskAndLogger) {
  auto logger = add(QVTLOG, kLogWarning | kLogImportant);
  EXPECT_FALSE(AYHasLogForLevel(kLogError));

  QVTAYLogger::removeLogger(logger, QVTLOG, kLogWarning);
  QVTAYLogger::removeLogger(logger, std::nullopt, kLogWarning | kLogImportant);
  QVTAYLogger::removeLogger(std::make_shared<RecordingLogger>(), QVTLOG, kLogWarning | kLogImportant);
  EXPECT_TRUE(AYHasLogForLevel(kLogWarning) && AYHasLogForLevel(kLogImportant));

  QVTAYLogger::removeLogger(logger, QVTLOG, kLogWarning | kLogImportant);
  added.clear();
  for (int level : {0, 1, 2, 3, 4, 8, 16}) {
    EXPECT_FALSE(AYHasLogForLevel(level)) << level;
    EXPECT_EQ(QVTAYLogger::loggersForType(QVTLOG, level), nullptr) << level;
  }
}

TEST_F(LoggingTest, ArgumentsAreEvaluatedOnlyWhenALoggerMatchesAndOnce) {
  int evaluations = 0;
  auto counted = [&] { return ++evaluations; };
  QVT_LOG(kLogInfo, QVTLOG, "{}", counted());
  auto other = add("Other", kLogInfo);
  QVT_LOG(kLogInfo, QVTLOG, "{}", counted());
  EXPECT_EQ(evaluations, 0);

  auto first = add(QVTLOG, kLogInfo);
  auto second = add(QVTLOG, kLogInfo);
  QVT_LOG(kLogInfo, QVTLOG, "n={}", counted());
  EXPECT_EQ(evaluations, 1);
  EXPECT_THAT(second->messages(), ElementsAre("n=1"));
  EXPECT_TRUE(other->records().empty());
}

TEST_F(LoggingTest, LogInFileFormatsLazilyAndReportsBadFormats) {
  auto logger = add(".sync", kLogWarning);
  QVTAYLogger::logInFile(nullptr, "f", 3, ".sync.X", kLogWarning, "a {}", 1);
  QVTAYLogger::logInFile(nullptr, "f", 4, ".sync.X", 3, "unknown level");
  QVTAYLogger::logInFile(nullptr, "f", 5, "QVT", kLogWarning, "no match");
  QVT_LOG(kLogWarning, ".sync", "{}", Unprintable{});
  EXPECT_THAT(logger->messages(), ElementsAre("a 1", "**** Undisplayable message ****"));
  EXPECT_THAT(console, ElementsAre("initWithFormat: returned nil for format string '{}'!!!!"));
}

// The one-line record: header, then continuation lines aligned under it.
TEST_F(LoggingTest, OneLineRecordAlignsContinuationLines) {
  auto logger = QVT_AYStderrLogger::initWithBaseDir(dir.string());
  ASSERT_TRUE(logger->urlToFile());
  const std::string path = logger->urlToFile()->absoluteString().substr(7);
  EXPECT_EQ(fs::path(path).extension(), ".log");
  logger->dumpLogInFile(nullptr, "f", 1, "QVT", kLogWarning, "first\nsecond\nthird");
  logger->dumpLogInFile(nullptr, "f", 1, ".x", 5, "odd");
  logger->dumpLogInFile(nullptr, "f", 1, ".x", 8, "bad \xff");
  logger.reset();

  std::istringstream lines(readFile(path));
  std::vector<std::string> written;
  for (std::string line; std::getline(lines, line);) written.push_back(line);
  ASSERT_EQ(written.size(), 5u);
  const std::string& first = written[0];
  EXPECT_TRUE(std::regex_match(first.substr(0, 13), std::regex(R"(\d\d:\d\d:\d\d\.\d{3} )")));
  EXPECT_EQ(first.substr(13), fmt::format("[test_async:{}] WARNING (QVT): first", getpid()));
  std::string prefix(first.size() - 5, ' ');
  prefix[prefix.size() - 2] = ':';
  EXPECT_EQ(written[1], prefix + "second");
  EXPECT_EQ(written[2], prefix + "third");
  EXPECT_THAT(written[3], HasSubstr("??? (.x): odd"));
  EXPECT_EQ(written[4], "**** Undisplayable message ****");
}

struct FileLoggerTest : LoggingTest {
  void SetUp() override {
    LoggingTest::SetUp();
    logger = QVT_AYFileLogger::initWithBaseDir((dir / "logs").string());
    ASSERT_TRUE(logger->urlToFile());
    path = logger->urlToFile()->absoluteString().substr(7);
    currentThreadDictionary().remove(kStackKey);
  }
  // The file with each time of day replaced by "T".
  std::string written() {
    return std::regex_replace(readFile(path), std::regex(R"(TIME: \d\d:\d\d:\d\d\.\d{3}\n)"),
                              "TIME: T\n");
  }

  // The captures of `entry` in the file, its two groups joined by ":".
  std::vector<std::string> entries(const std::string& entry) {
    const std::string text = written();
    const std::regex pattern(entry);
    std::vector<std::string> found;
    for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it)
      found.push_back(it->size() > 2 ? (*it)[1].str() + ":" + (*it)[2].str() : (*it)[1].str());
    return found;
  }

  QVTAYLoggerPtr logger;
  std::string path;
};

TEST_F(FileLoggerTest, WritesAFirstRecordThenOneRecordPerMessage) {
  EXPECT_THAT(console, ElementsAre("Creating " + (dir / "logs").string()));
  EXPECT_TRUE(std::regex_match(fs::path(path).filename().string(),
                               std::regex(R"(test_async-\d{4}-\d\d-\d\d--\d\d-\d\d-\d\d\.decalog)")));
  logger->dumpLogInFile("f.cc", nullptr, 12, "QVT", kLogError, "hello");
  std::thread([&] { logger->dumpLogInFile(nullptr, nullptr, 1, "T", 0, "élan"); }).join();
  logger->dumpLogInFile(nullptr, nullptr, 2, "T", kLogInfo, "bad \xff");
  logger->dumpLogInFile(nullptr, nullptr, 3, "\xfe", kLogInfo, "bad type");

  EXPECT_TRUE(std::regex_match(
      written(),
      std::regex("TIME: T\nTHREAD: MAIN\nTYPE: LOG\nLEVEL: INFO\nLINE: 199\nLENGTH: 67\n\n"
                 "Logging INFOS: YES / WARNINGS: YES / IMPORTANTS: YES / ERRORS: YES\n\n"
                 "TIME: T\nTHREAD: MAIN\nTYPE: QVT\nLEVEL: ERROR\nLINE: 12\nFILE: f.cc\n"
                 "LENGTH: 6\n\nhello\n\n"
                 "TIME: T\nTHREAD: 0x[0-9a-f]+\nTYPE: T\nLEVEL: \\?\\?\\?\nLINE: 1\n"
                 "LENGTH: 6\n\nélan\n\n"
                 "TIME: T\nTHREAD: MAIN\nTYPE: T\nLEVEL: INFO\nLINE: 2\nLENGTH: 8\n\nbad \uFFFD\n\n"
                 "LENGTH: 31\n\n\\*\\*\\*\\* Undisplayable message \\*\\*\\*\\*\n\n")))
      << written();
  EXPECT_THAT(console, ::testing::Contains(
                           "Log system was unable to convert some string to UTF8 string encoding!"));
}

// Each helper logs from its own frame; the barrier keeps the calls out of
// tail position so that every call has the helper's frame above it.
[[gnu::noinline]] void logFrom(QVTAYLogger& logger, const char* function) {
  logger.dumpLogInFile(nullptr, function, 1, "T", kLogInfo, function);
  asm volatile("" ::: "memory");
}
[[gnu::noinline]] void inner(QVTAYLogger& logger) {
  logFrom(logger, "inner");
  logFrom(logger, "inner");
  asm volatile("" ::: "memory");
}
[[gnu::noinline]] void outer(QVTAYLogger& logger) {
  logFrom(logger, "outer");
  inner(logger);
  logFrom(logger, "outer");
  asm volatile("" ::: "memory");
}

TEST_F(FileLoggerTest, DepthCountsNestedLoggingFunctions) {
  outer(*logger);
  logger->dumpLogInFile(nullptr, "shallow", 1, "T", kLogInfo, "shallow");
  EXPECT_THAT(entries("FUNCTION: (\\w+)\nDEPTH: (\\d+)\n"),
              ElementsAre("outer:1", "inner:2", "inner:2", "outer:1", "shallow:1"));
}

// Every way of logging from one function is recorded at that function's depth.
[[gnu::noinline]] void logAndCheck(bool condition) {
  QVT_LOG(kLogInfo, QVTLOG, "before");
  QVT_CHECK(condition);
  QVTAYLogger::logInFile(nullptr, __PRETTY_FUNCTION__, __LINE__, QVTLOG, kLogInfo, "direct");
  QVT_LOG(kLogInfo, QVTLOG, "after");
  asm volatile("" ::: "memory");
}

TEST_F(FileLoggerTest, FailedCheckHasTheDepthOfItsFunctionsOtherLogs) {
  QVTAYLogger::addLogger(logger, std::nullopt, kLogError | kLogInfo);
  logAndCheck(false);
  QVTAYLogger::removeLogger(logger, std::nullopt, kLogError | kLogInfo);
  EXPECT_THAT(entries("DEPTH: (\\d+)\n"), ElementsAre("1", "1", "1", "1")) << written();
}

TEST_F(LoggingTest, OccupiedLogDirectoryFallsBackToNumberedSiblings) {
  const fs::path base = dir / "logs";
  std::ofstream(base) << "x";
  std::ofstream(dir / "logs-1") << "x";
  auto logger = QVT_AYFileLogger::initWithBaseDir(base.string());
  ASSERT_TRUE(logger->urlToFile());
  EXPECT_EQ(fs::path(logger->urlToFile()->absoluteString().substr(7)).parent_path(), dir / "logs-2");

  auto none = QVT_AYStderrLogger::initWithBaseDir((base / "sub").string());
  EXPECT_EQ(none->className(), "QVT_AYNoLogger");
  EXPECT_THAT(console.back(), HasSubstr("**************** Unable to get log directory " +
                                        (base / "sub").string()));
}

struct RegisterLogsTest : LoggingTest {
  void usePreferences(const std::string& entries) {
    const fs::path file = dir / "preferences.plist";
    std::ofstream(file) << R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>)" << entries << "</dict></plist>\n";
    Preferences::standardPreferences().setPath(file.string());
  }
  void TearDown() override {
    usePreferences("");
    QVTRegisterLogs();
    QVTAYLogger::removeLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, kLogError);
    setExceptionSubstitutionHook(nullptr);
    LoggingTest::TearDown();
  }
};

TEST_F(RegisterLogsTest, WithoutPreferencesOnlyErrorsGoToStandardError) {
  usePreferences("");
  QVTRegisterLogs();
  QVTRegisterLogs();  // a second call replaces, never doubles
  auto errors = QVTAYLogger::loggersForType(QVTLOG, kLogError);
  ASSERT_NE(errors, nullptr);
  EXPECT_THAT(*errors, ElementsAre(QVTAYLogger::stderrStreamLogger()));
  for (int level : {kLogWarning, kLogImportant, kLogInfo}) EXPECT_FALSE(AYHasLogForLevel(level));
}

TEST_F(RegisterLogsTest, PreferencesAddLevelsTypesTheFileAndTheExceptionHook) {
  setenv("HOME", dir.c_str(), 1);
  auto important = add(std::nullopt, kLogImportant);
  bool substituted = false;
  setExceptionSubstitutionHook([&] { substituted = true; });
  usePreferences(R"(<key>LogWarnings</key><true/><key>LogInFile</key><true/>
    <key>LogsExceptions</key><true/>
    <key>LogAdditions</key><array><string>.sync</string><integer>3</integer></array>)");
  QVTRegisterLogs();

  const auto stderrLogger = QVTAYLogger::stderrStreamLogger();
  const auto fileLogger = QVTAYLogger::fileStreamLogger();
  EXPECT_THAT(*QVTAYLogger::loggersForType(QVTLOG, kLogWarning), ElementsAre(stderrLogger, fileLogger));
  EXPECT_THAT(*QVTAYLogger::loggersForType(".sync.FieldFormatterV2", kLogInfo),
              ElementsAre(fileLogger, stderrLogger));
  EXPECT_THAT(*QVTAYLogger::loggersForType(QVTLOG, kLogInfo), ElementsAre(fileLogger));
  EXPECT_EQ(QVTAYLogger::urlToFileStreamLogger(), fileLogger->urlToFile());
  EXPECT_THAT(fileLogger->urlToFile()->absoluteString(),
              ::testing::StartsWith("file://" + (dir / "Library/Logs/test_async/").string()));

  auto records = important->records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].function + ":" + std::to_string(records[0].line) + " " + records[0].message,
            "QVTRegisterLogs:67 Additional INFO log for .sync");
  EXPECT_EQ(records[1].line, 87u);
  EXPECT_TRUE(substituted);
  EXPECT_THAT(console, ::testing::Contains(HasSubstr("LogAdditions: ignored 3")));
}

// Registration changes while other threads log: every record arrives whole,
// and the caches the changes replace are freed (under AddressSanitizer and
// ThreadSanitizer a reader still using a freed cache is reported).
TEST_F(LoggingTest, LoggingWhileRegistrationsChange) {
  auto steady = add(QVTLOG, kLogInfo);
  std::atomic<bool> churning{true};
  std::atomic<int> logged{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 200 || (churning && i < 200000); ++i) {
        QVT_LOG(kLogInfo, QVTLOG, "message {}", i);
        ++logged;
      }
    });
  auto churn = std::make_shared<RecordingLogger>();
  for (int i = 0; i < 2000; ++i) {
    QVTAYLogger::addLogger(churn, i % 2 ? std::optional<std::string>(QVTLOG) : std::nullopt, kLogInfo);
    QVTAYLogger::removeLogger(churn, i % 2 ? std::optional<std::string>(QVTLOG) : std::nullopt, kLogInfo);
  }
  churning = false;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(steady->records().size(), std::size_t(logged.load()));
}

TEST_F(LoggingTest, RegistrationChurnKeepsMemoryFlat) {
  auto logger = std::make_shared<RecordingLogger>();
  auto churn = [&](int pairs) {
    for (int i = 0; i < pairs; ++i) {
      QVTAYLogger::addLogger(logger, QVTLOG, kLogError | kLogInfo);
      QVTAYLogger::removeLogger(logger, QVTLOG, kLogError | kLogInfo);
    }
  };
  churn(1000);
  const std::size_t before = mallinfo2().uordblks;
  churn(200000);
  const std::size_t after = mallinfo2().uordblks;
  // Keeping each replaced cache would take well over 100 MB here.
  EXPECT_LT(after, before + 1024 * 1024) << before << " -> " << after;
}

}  // namespace
}  // namespace pc
