// The describe-device command of phoneconduit on the shipped device
// descriptions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ProgramRun.h"

namespace {

using ::pc::testing::examplePath;
using ::pc::testing::ProgramRun;
using ::pc::testing::runProgram;
using ::testing::HasSubstr;

using DescribeDeviceProgramTest = ::pc::testing::ProgramTest;

const std::string kEntities = " --entities " + examplePath("devices/contacts-calendar-phone.entities.plist");

TEST_F(DescribeDeviceProgramTest, BuildsBothFormatsAndRebuildsThemFromTheClient) {
  for (const char* format : {"v1", "v2"}) {
    const ProgramRun run = runProgram("describe-device " +
                                      examplePath(std::string("devices/contacts-calendar-phone-") + format + ".plist") +
                                      kEntities);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_THAT(run.output, HasSubstr("Contacts: text/x-vcard, manager ContactManager"));
    EXPECT_THAT(run.output, HasSubstr("Calendars: text/x-vcalendar, manager CalendarManager"));
    EXPECT_THAT(run.output, HasSubstr("relationships: phoneNumbers, emailAddresses, streetAddresses, urls"));
    EXPECT_THAT(run.output, HasSubstr(std::string("rebuilt from it: 9 entities, format version ") + format[1]));
  }
}

TEST_F(DescribeDeviceProgramTest, RefusesFilesThatAreNotDeviceDescriptions) {
  const ProgramRun event = runProgram("describe-device " + examplePath("events/yearly-all-day.plist") + kEntities);
  EXPECT_EQ(event.status, 1);
  EXPECT_THAT(event.output, HasSubstr("not a device description (no \"SyncDataClasses\" dictionary)"));

  const ProgramRun entities = runProgram("describe-device " + examplePath("devices/contacts-calendar-phone-v1.plist") +
                                         " --entities " + examplePath("devices/contacts-calendar-phone-v1.plist"));
  EXPECT_EQ(entities.status, 1);
  EXPECT_THAT(entities.output, HasSubstr("no \"Entities\" dictionary"));

  const ProgramRun missing = runProgram("describe-device /nonexistent.plist" + kEntities);
  EXPECT_NE(missing.status, 0);
}

}  // namespace
