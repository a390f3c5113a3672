#include "platform/Preferences.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/PropertyList.h"

namespace pc {
namespace {

// Sets an environment variable for the scope of a test, restoring it after.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const char* value)
      : _name(name),
        _old(std::getenv(name) ? std::optional<std::string>(std::getenv(name)) : std::nullopt) {
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedEnvironment() { _old ? ::setenv(_name, _old->c_str(), 1) : ::unsetenv(_name); }

 private:
  const char* _name;
  std::optional<std::string> _old;
};

class PreferencesTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(_dir); }
  void TearDown() override { std::filesystem::remove_all(_dir); }

  std::string write(const std::string& name, const std::string& contents) {
    std::ofstream((_dir / name).string()) << contents;
    return (_dir / name).string();
  }

  // One folder per process: ctest runs tests (and the same tests in a second
  // zone) in parallel processes.
  const std::filesystem::path _dir = std::filesystem::path(::testing::TempDir()) /
                                     ("pc_preferences_test." + std::to_string(::getpid()));
};

TEST_F(PreferencesTest, DefaultPathFollowsTheEnvironment) {
  ScopedEnvironment home("HOME", "/home/tester");
  ScopedEnvironment explicitFile("PHONECONDUIT_PREFERENCES", "~/prefs.plist");
  EXPECT_EQ(Preferences::defaultPath(), "/home/tester/prefs.plist");
  ::unsetenv("PHONECONDUIT_PREFERENCES");
  for (const auto& [config, path] : std::vector<std::pair<const char*, std::string>>{
           {"/etc/xdg-tester", "/etc/xdg-tester/phoneconduit/preferences.plist"},
           {"relative/dir", "/home/tester/.config/phoneconduit/preferences.plist"}}) {
    ScopedEnvironment configHome("XDG_CONFIG_HOME", config);
    EXPECT_EQ(Preferences::defaultPath(), path);
  }
}

TEST_F(PreferencesTest, TypedReadsUseTheValueCoercions) {
  const std::string path = write("p.plist", R"(<plist><dict>
      <key>LogWarnings</key><string>YES</string>
      <key>LogInFile</key><integer>0</integer>
      <key>Level</key><string> 12 apples</string>
      <key>LogAdditions</key><array><string>QVT</string></array>
      <key>Nested</key><dict><key>a</key><true/></dict>
    </dict></plist>)");
  const Preferences preferences(path);
  EXPECT_TRUE(preferences.boolForKey("LogWarnings"));
  EXPECT_FALSE(preferences.boolForKey("LogInFile", true));
  EXPECT_TRUE(preferences.boolForKey("LogAdditions", true));  // not a number: the fallback
  EXPECT_EQ(preferences.integerForKey("Level"), 12);
  EXPECT_EQ(preferences.stringForKey("Nested"), std::nullopt);
  EXPECT_EQ(preferences.arrayForKey("Nested"), std::nullopt);
}

TEST_F(PreferencesTest, ACorruptFileIsReportedOnceAndReadAsEmpty) {
  const std::string path = write("bad.plist", "<plist><dict><key>a</key></dict></plist>");
  ::testing::internal::CaptureStderr();
  Preferences preferences(path);
  EXPECT_TRUE(preferences.objectForKey("a").isNull());
  const std::string report = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(report.find(path), std::string::npos) << report;
  EXPECT_NE(report.find("line 1, column 14"), std::string::npos) << report;
  EXPECT_EQ(report.find('\n'), report.size() - 1) << report;  // one line

  ::testing::internal::CaptureStderr();
  preferences.setPath((_dir / "absent.plist").string());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");  // a missing file is no error
}

TEST_F(PreferencesTest, SavesWhatWasSetAndIsolatesStoredContainers) {
  const std::string path = (_dir / "sub" / "dir" / "p.plist").string();
  Preferences preferences(path);
  Array domains{"QVT"};
  preferences.setObject(domains, "LogAdditions");
  preferences.setObject(true, "LogInFile");
  preferences.setObject("gone", "Temporary");
  preferences.setObject(Value(), "Temporary");
  domains.add("changed after storing");
  preferences.arrayForKey("LogAdditions")->add("changed after reading");
  ASSERT_TRUE(preferences.save());

  preferences.setObject(false, "LogInFile");
  preferences.reload();
  EXPECT_TRUE(preferences.boolForKey("LogInFile"));
  EXPECT_EQ(preferences.arrayForKey("LogAdditions"), (Array{"QVT"}));
  EXPECT_EQ(PropertyList::fromFile(path)->dictionary().keys(),
            (Array{"LogAdditions", "LogInFile"}));
}

TEST(Paths, TildeExpandsToTheHomeDirectory) {
  ScopedEnvironment home("HOME", "/home/tester/");
  EXPECT_EQ(homeDirectory(), "/home/tester");
  EXPECT_EQ(expandTildeInPath("~/Library/Logs"), "/home/tester/Library/Logs");
  EXPECT_EQ(expandTildeInPath("/abs/~/x"), "/abs/~/x");
  EXPECT_EQ(expandTildeInPath("~no-such-user-here/x"), "~no-such-user-here/x");
}

}  // namespace
}  // namespace pc
