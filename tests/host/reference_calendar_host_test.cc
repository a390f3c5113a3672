// The reference host's calendar side: the calendars list answered from the
// engine's records, the device stores, and the calendar manager's answers.

#include <gtest/gtest.h>

#include "conduit/CFPhone.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/ReferenceHost.h"

namespace pc {
namespace {

TEST(ReferenceCalendarHostTest, CalendarOfARecord) {
  MemoryTruthSnapshot snapshot;
  snapshot.addRecord("cal-1", Dictionary{{kEngineRecordEntityNameKey, kCalendarsCalendar},
                                         {kCalendarsCalendarReadOnly, true}});
  ReferenceCalendarsList calendars(&snapshot);
  struct Case {
    const char* name;
    Value relation;
    bool found;
  };
  const Case cases[] = {{"identifier", "cal-1", true},
                        {"list of identifiers", Array{"cal-1", "cal-2"}, true},
                        {"unknown calendar", Array{"cal-2"}, false},
                        {"empty list", Array{}, false},
                        {"wrong type", 7, false},
                        {"none", Value(), false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Dictionary record{{kEngineRecordEntityNameKey, kCalendarsEvent}};
    if (!c.relation.isNull()) record.set(kCalendarsEventCalendar, c.relation);
    std::string identifier = "untouched";
    auto calendar = calendars.calendarForRecord(record, &identifier);
    EXPECT_EQ(calendar.has_value(), c.found);
    EXPECT_EQ(identifier, c.found ? "cal-1" : "untouched");
    if (calendar) {
      EXPECT_TRUE(calendar->getBool(kCalendarsCalendarReadOnly));
    }
  }
  EXPECT_FALSE(ReferenceCalendarsList().calendarForRecord(
      Dictionary{{kCalendarsEventCalendar, "cal-1"}}, nullptr));
}

TEST(ReferenceCalendarHostTest, DeviceStoresAndManagerAnswers) {
  ReferenceDeviceManager devices;
  EXPECT_FALSE(devices.parserForDataClass("Calendars"));
  auto store = devices.referenceStoreForDeviceDataClass("Calendars");
  EXPECT_EQ(devices.storeForDeviceDataClass("Calendars"), store);
  Dictionary stored{{"RawProperties", Dictionary{{"RRULE", "W1 MO #0"}}}};
  store->setPrivateStorageDeviceRecord(stored, "ev-1");
  stored.set("RawProperties", "changed");  // the store kept its own copy
  EXPECT_EQ(store->getPrivateStorageDeviceRecordForKey("ev-1")->getDictionary("RawProperties"),
            (Dictionary{{"RRULE", "W1 MO #0"}}));
  store->setPrivateStorageDeviceRecord(std::nullopt, "ev-1");
  EXPECT_FALSE(store->getPrivateStorageDeviceRecordForKey("ev-1"));

  CalendarManager manager;
  EXPECT_FALSE(manager._nextTimeZone());
  EXPECT_TRUE(manager.shouldSyncAlarm());
  CFPhone phone(Dictionary{{"SyncDataClasses", Dictionary()}});
  phone.setTimeZone(TimeZone::timeZoneWithName("Asia/Kolkata"));
  ReferenceSyncManager sync;
  sync.setPhone(&phone);
  manager.setSyncManager(&sync);
  manager.setDeviceManager(&devices);
  EXPECT_EQ(manager._nextTimeZone()->name(), "Asia/Kolkata");
  EXPECT_EQ(manager.deviceManager(), &devices);
  // Without a helper as its assembler delegate, a master has no sub-records.
  EXPECT_TRUE(manager.relationKeysToSubEntitiesForMasterEntity(kCalendarsEvent).empty());
}

}  // namespace
}  // namespace pc
