// Every input kept in tests/fuzz_regressions/<target>/ fed again to the entry
// of that target, on every build: the inputs that made a fuzz target crash,
// hang or break a property before their fix, and one ordinary input per
// target ("example-*") so that every entry keeps running.

#include <gtest/gtest.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzEntries.h"

namespace pc::fuzz {
namespace {

std::vector<std::filesystem::path> inputsOf(const std::string& target) {
  const std::filesystem::path folder = std::filesystem::path(PC_SOURCE_DIR) / "tests/fuzz_regressions" / target;
  std::vector<std::filesystem::path> inputs;
  if (std::filesystem::is_directory(folder))
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      if (entry.is_regular_file()) inputs.push_back(entry.path());
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

class FuzzRegressionsTest : public ::testing::TestWithParam<NamedFuzzEntry> {
 protected:
  static void SetUpTestSuite() { silenceLogs(); }
};

TEST_P(FuzzRegressionsTest, EveryKeptInputRunsClean) {
  const NamedFuzzEntry& target = GetParam();
  const std::vector<std::filesystem::path> inputs = inputsOf(target.name);
  EXPECT_FALSE(inputs.empty()) << "no inputs in tests/fuzz_regressions/" << target.name;
  for (const std::filesystem::path& input : inputs) {
    SCOPED_TRACE(input.filename().string());
    std::ifstream file(input, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    try {
      target.entry(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    } catch (const std::exception& e) {
      ADD_FAILURE() << "escaped: " << e.what();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzRegressionsTest, ::testing::ValuesIn(fuzzEntries()),
                         [](const ::testing::TestParamInfo<NamedFuzzEntry>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace pc::fuzz
