#pragma once
// The phone models shipped in examples/devices and the records of
// examples/records, loaded for the tests that format them.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "engine/MemoryEngine.h"
#include "host/DeviceFormatting.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::testing {

inline std::string examplesFolder() { return std::string(PC_SOURCE_DIR) + "/examples/"; }

// The new phone models: each has an entities file next to it, and some a
// file of "$name" variables and one of values kept in the phone's client.
inline const std::vector<std::string>& examplePhoneNames() {
  static const std::vector<std::string> names{"basic-phone", "flip-phone", "organiser-phone",
                                              "photo-phone", "full-phone"};
  return names;
}

inline Dictionary readPlistDictionary(const std::string& path) {
  PropertyListError error;
  std::optional<Value> value = PropertyList::fromFile(path, &error);
  if (!value || !value->isDictionary()) {
    ADD_FAILURE() << path << ": " << error.description();
    return Dictionary();
  }
  return value->dictionary();
}

struct ExamplePhone {
  std::string name;
  Dictionary description;
  Dictionary entities;
  DeviceFormattingOptions options;

  std::string devicePath() const { return examplesFolder() + "devices/" + name + ".plist"; }
  // The program's options for this phone, after --device.
  std::string programArguments() const {
    const std::string base = examplesFolder() + "devices/" + name;
    std::string arguments = "--device " + base + ".plist --entities " + base + ".entities.plist";
    if (std::filesystem::exists(base + ".variables.plist")) arguments += " --variables " + base + ".variables.plist";
    if (std::filesystem::exists(base + ".client.plist")) arguments += " --client-values " + base + ".client.plist";
    return arguments;
  }
};

// A folder for this test's files, emptied first. Its name carries the process
// id: ctest runs the tests of this program in parallel processes.
inline std::string scratchFolder(const std::string& name) {
  const char* root = std::getenv("PC_TEST_TMPDIR");
  std::filesystem::path folder =
      std::filesystem::path(root ? root : "/tmp") / ("examples-" + name + "-" + std::to_string(getpid()));
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  return folder.string();
}

// Loads a phone model; its client values go into a client store of its own.
inline ExamplePhone loadExamplePhone(const std::string& name) {
  const std::string base = examplesFolder() + "devices/" + name;
  ExamplePhone phone{name, readPlistDictionary(base + ".plist"), readPlistDictionary(base + ".entities.plist"), {}};
  if (std::filesystem::exists(base + ".variables.plist"))
    phone.options.variables = readPlistDictionary(base + ".variables.plist");
  phone.options.clientStorePath = scratchFolder("client-" + name) + "/client.plist";
  if (std::filesystem::exists(base + ".client.plist")) {
    MemorySyncEngineClient store(phone.options.clientIdentifier, "test", Array(), phone.options.clientStorePath);
    for (const auto& [key, value] : readPlistDictionary(base + ".client.plist")) store.setObject(value, key.stringValue());
  }
  return phone;
}

struct ExampleRecord {
  std::string path;
  Dictionary record;
};

// Every record of examples/records, in file-name order.
inline const std::vector<ExampleRecord>& exampleRecords() {
  static const std::vector<ExampleRecord> records = [] {
    std::vector<std::string> paths;
    for (const char* folder : {"records/contacts", "records/calendar"})
      for (const auto& entry : std::filesystem::directory_iterator(examplesFolder() + folder))
        if (entry.path().extension() == ".plist") paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    std::vector<ExampleRecord> loaded;
    for (const std::string& path : paths) {
      std::string error;
      std::optional<Dictionary> record = readRecordFile(path, &error);
      if (!record) {
        ADD_FAILURE() << error;
        continue;
      }
      loaded.push_back({path, *record});
    }
    return loaded;
  }();
  return records;
}

}  // namespace pc::testing
