// Every device description shipped under examples/devices passes check-device
// with the files that come with it: its engine entities (<name>.entities.plist,
// or that of its family without the "-v1"/"-v2" suffix), and when present its
// variables (<name>.variables.plist) and client values (<name>.client.plist).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/ProgramRun.h"

namespace pc::testing {
namespace {

namespace fs = std::filesystem;

using ExampleDescriptionsTest = ProgramTest;

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The device descriptions themselves, not the files that accompany them.
std::vector<fs::path> exampleDescriptions() {
  std::vector<fs::path> descriptions;
  for (const auto& entry : fs::directory_iterator(examplePath("devices"))) {
    const std::string name = entry.path().filename().string();
    if (!endsWith(name, ".plist") || endsWith(name, ".entities.plist") ||
        endsWith(name, ".variables.plist") || endsWith(name, ".client.plist"))
      continue;
    descriptions.push_back(entry.path());
  }
  std::sort(descriptions.begin(), descriptions.end());
  return descriptions;
}

// A description with the files that come with it, as arguments:
// " --device D --entities E" and, when present, " --variables V" and
// " --client-values C".
struct DeviceFiles {
  fs::path entities;
  std::string arguments;
};

DeviceFiles deviceFiles(const fs::path& description) {
  const fs::path folder = description.parent_path();
  const std::string stem = description.stem().string();
  const std::string family = std::regex_replace(stem, std::regex("-v[0-9]+$"), "");
  fs::path entities = folder / (stem + ".entities.plist");
  if (!fs::exists(entities)) entities = folder / (family + ".entities.plist");
  EXPECT_TRUE(fs::exists(entities)) << "no entities file beside the description";
  std::string arguments = " --device " + description.string() + " --entities " + entities.string();
  if (const fs::path variables = folder / (stem + ".variables.plist"); fs::exists(variables))
    arguments += " --variables " + variables.string();
  if (const fs::path client = folder / (stem + ".client.plist"); fs::exists(client))
    arguments += " --client-values " + client.string();
  return {entities, arguments};
}

TEST_F(ExampleDescriptionsTest, EveryExamplePassesCheckDeviceWithItsFiles) {
  const std::vector<fs::path> descriptions = exampleDescriptions();
  ASSERT_GE(descriptions.size(), 5u);
  for (const fs::path& description : descriptions) {
    SCOPED_TRACE(description.filename().string());
    const ProgramRun run = runProgram("check-device" + deviceFiles(description).arguments);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_THAT(run.standardOutput, ::testing::HasSubstr(": usable, ")) << run.output;
    EXPECT_EQ(run.standardError, "");
  }
}

// A phone that syncs event alarms at all keeps an event's one display alarm:
// a phone of one alarm type holds it in the relation its description names
// (the audio one unless "alarmTypeIsDisplay"), which its entities must sync.
TEST_F(ExampleDescriptionsTest, EveryPhoneThatSyncsAlarmsKeepsAnEventsAlarm) {
  const std::string event = examplePath("records/calendar/event-10.plist");
  ASSERT_THAT(fileText(event), ::testing::HasSubstr("<key>displayAlarms</key>"));
  int phonesWithAlarms = 0;
  for (const fs::path& description : exampleDescriptions()) {
    SCOPED_TRACE(description.filename().string());
    const DeviceFiles files = deviceFiles(description);
    if (fileText(files.entities.string()).find("Alarms</string>") == std::string::npos) continue;
    ++phonesWithAlarms;
    const ProgramRun run = runProgram("format" + files.arguments + " " + event);
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_THAT(run.standardOutput, ::testing::HasSubstr("<key>triggerdate</key>")) << run.output;
  }
  EXPECT_GE(phonesWithAlarms, 2);
}

}  // namespace
}  // namespace pc::testing
