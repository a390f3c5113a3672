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

TEST_F(ExampleDescriptionsTest, EveryExamplePassesCheckDeviceWithItsFiles) {
  const std::vector<fs::path> descriptions = exampleDescriptions();
  ASSERT_GE(descriptions.size(), 5u);
  for (const fs::path& description : descriptions) {
    SCOPED_TRACE(description.filename().string());
    const fs::path folder = description.parent_path();
    const std::string stem = description.stem().string();
    const std::string family = std::regex_replace(stem, std::regex("-v[0-9]+$"), "");
    fs::path entities = folder / (stem + ".entities.plist");
    if (!fs::exists(entities)) entities = folder / (family + ".entities.plist");
    ASSERT_TRUE(fs::exists(entities)) << "no entities file beside the description";

    std::string arguments = "check-device --device " + description.string() + " --entities " + entities.string();
    if (const fs::path variables = folder / (stem + ".variables.plist"); fs::exists(variables))
      arguments += " --variables " + variables.string();
    if (const fs::path client = folder / (stem + ".client.plist"); fs::exists(client))
      arguments += " --client-values " + client.string();
    const ProgramRun run = runProgram(arguments);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_THAT(run.standardOutput, ::testing::HasSubstr(": usable, ")) << run.output;
    EXPECT_EQ(run.standardError, "");
  }
}

}  // namespace
}  // namespace pc::testing
