// The describe-device command of phoneconduit on the shipped device
// descriptions and on faulty variants of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ProgramRun.h"

namespace {

using ::pc::testing::examplePath;
using ::pc::testing::ProgramRun;
using ::pc::testing::runProgram;
using ::testing::HasSubstr;
using ::testing::StartsWith;

using DescribeDeviceProgramTest = ::pc::testing::ProgramTest;

const std::string kEntitiesPath = examplePath("devices/contacts-calendar-phone.entities.plist");
const std::string kEntities = " --entities " + kEntitiesPath;

std::string device(const char* format) {
  return examplePath(std::string("devices/contacts-calendar-phone-") + format + ".plist");
}

TEST_F(DescribeDeviceProgramTest, BuildsBothFormatsAndRebuildsThemFromTheClient) {
  for (const char* format : {"v1", "v2"}) {
    const ProgramRun run = runProgram("describe-device " + device(format) + kEntities);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.standardError, "");
    EXPECT_THAT(run.output, HasSubstr("Contacts: text/x-vcard, manager ContactManager"));
    EXPECT_THAT(run.output, HasSubstr("Calendars: text/x-vcalendar, manager CalendarManager"));
    EXPECT_THAT(run.output, HasSubstr("relationships: phoneNumbers, emailAddresses, streetAddresses, urls"));
    EXPECT_THAT(run.output, HasSubstr(std::string("rebuilt from it: 9 entities, format version ") + format[1]));
  }
}

// A faulty variant of an example file: `replace` is replaced by `with`.
struct BadFile {
  const char* name;
  bool entitiesFile;  // else the device description
  const char* format;
  const char* replace;
  const char* with;
  const char* error;  // what follows "phoneconduit: <file>: "
};

class BadDeviceTest : public DescribeDeviceProgramTest, public ::testing::WithParamInterface<BadFile> {};

TEST_P(BadDeviceTest, IsRefusedWithTheKeyPath) {
  const BadFile& bad = GetParam();
  std::string text = ::pc::testing::fileText(bad.entitiesFile ? kEntitiesPath : device(bad.format));
  const std::size_t at = text.find(bad.replace);
  ASSERT_NE(at, std::string::npos);
  text.replace(at, std::string(bad.replace).size(), bad.with);
  const std::string path = ::pc::testing::temporaryFile(std::string(bad.name) + ".plist", text);
  const ProgramRun run = runProgram("describe-device " +
                                    (bad.entitiesFile ? device(bad.format) + " --entities " + path : path + kEntities));
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.standardOutput, "");
  EXPECT_EQ(run.standardError, "phoneconduit: " + path + ": " + bad.error + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    DescribeDevice, BadDeviceTest,
    ::testing::Values(
        BadFile{"EntityKeysAsText", true, "v1", "<key>Contacts.PhoneNumber</key>",
                "<key>Contacts.PhoneNumber</key><string>value</string><key>Unused</key>",
                "Entities/Contacts.PhoneNumber: \"value\" is not an array"},
        BadFile{"UnknownEntity", true, "v1", "<key>Contacts.PhoneNumber</key>", "<key>Contacts.Pager</key>",
                "Entities/Contacts.Pager: the engine has no entity \"Contacts.Pager\""},
        BadFile{"UnknownKey", true, "v1", "<string>firstName</string>", "<string>frstName</string>",
                "Entities/Contacts.Contact/0: \"frstName\" is neither an attribute nor a relationship of "
                "Contacts.Contact"},
        BadFile{"NoEntities", true, "v1", "<key>Entities</key>", "<key>Entity</key>",
                "Entities: missing: expected a dictionary of entity names to the keys the phone syncs"},
        BadFile{"UnknownManager", false, "v1", "<string>ContactManager</string>", "<string>NoSuchManager</string>",
                "SyncDataClasses/Contacts/DataClassManager/Name: no data-class manager class is named \"NoSuchManager\""},
        BadFile{"ManagerAsNumber", false, "v1", "<key>DataClassManager</key>",
                "<key>DataClassManager</key><integer>3</integer><key>Unused</key>",
                "SyncDataClasses/Contacts/DataClassManager: 3 is not a class name or a dictionary with a \"Name\""},
        BadFile{"UnknownMimeType", false, "v2", "<string>text/x-vcard</string>", "<string>text/plain</string>",
                "SyncDataClasses/Contacts/MimeType: \"text/plain\" is not one of text/x-vcard or text/x-vcalendar"},
        BadFile{"UnknownParser", false, "v2", "<string>VCardParser</string>", "<string>NoParser</string>",
                "SyncDataClasses/Contacts/Parser: no parser class is named \"NoParser\""},
        BadFile{"NoDataClasses", false, "v1", "<key>SyncDataClasses</key>", "<key>DataClasses</key>",
                "SyncDataClasses: missing: expected a dictionary of the data classes the phone syncs"}),
    [](const auto& info) { return info.param.name; });

TEST_F(DescribeDeviceProgramTest, FormatVersionMustBeOneTheDescriptionHas) {
  for (const char* version : {"-5", "3", "two"}) {
    const ProgramRun run = runProgram("describe-device " + device("v1") + kEntities + " --format-version " + version);
    EXPECT_EQ(run.status, 2) << version;
    EXPECT_THAT(run.standardError, HasSubstr("--format-version")) << version;
  }
  // A first-format description read as the second lacks the MIME types.
  const ProgramRun run = runProgram("describe-device " + device("v1") + kEntities + " --format-version 2");
  EXPECT_EQ(run.status, 1);
  EXPECT_THAT(run.standardError, HasSubstr("SyncDataClasses/Contacts/MimeType: missing"));
}

}  // namespace
