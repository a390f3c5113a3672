#pragma once
// An event transformer whose stages the tests call one by one, configured
// by key as a device description does, with a phone's formatting methods
// (the phone's zone from the client) and a host calendar manager whose
// answers the tests set.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "formatting/FormattingFixture.h"
#include "platform/HostInterfaces.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace pc::test {

// The protected stages made callable.
class EventStages : public QVTSyncEventTransformer {
 public:
  using QVTSyncEventTransformer::_mangleAlarms;
  using QVTSyncEventTransformer::_mangleRecurrenceAfterTimeZoneMangling;
  using QVTSyncEventTransformer::_mangleRecurrenceBeforeTimeZoneMangling;
  using QVTSyncEventTransformer::_unmangleAlarms;
  using QVTSyncEventTransformer::_unmangleRecurrenceAfterTimeZoneUnMangling;
  using QVTSyncEventTransformer::_unmangleRecurrenceBeforeTimeZoneUnMangling;
  using QVTSyncEventTransformer::_unmangleTask;
  using QVTSyncEventTransformer::privateConvertArrayToTimedCalendarDate;
};

// A parser that tells which rules the phone stores (vCalendar and agent
// phones alike) and remembers the phone's raw properties it was given.
class RuleParser : public DeviceParser, public VCalParserExternal, public AgentParserExternal {
 public:
  std::string className() const override { return "RuleParser"; }
  void initWithPhone(CFPhone*, const std::optional<Dictionary>&) override {}
  Data dataFromRecords(const Array&) override { return Data(); }
  std::optional<Array> recordsFromData(const Data&) override { return std::nullopt; }
  bool supportsADE() const override { return true; }
  bool deviceHandleRule(const Dictionary&, const Dictionary&, const std::optional<Dictionary>& extra,
                        const Dictionary&) override {
    extraProperties = extra;
    return answer;
  }
  bool deviceHandleRule(const Dictionary&, const Dictionary&, const Dictionary&) override { return answer; }
  bool answer = true;
  std::optional<Dictionary> extraProperties;
};

// The calendar manager, sync manager, device manager and device store of one
// phone, answering what the tests set.
class TestHost : public DataClassManager, public QVTSyncManager, public DeviceManager, public DeviceStore {
 public:
  std::string className() const override { return "TestCalendarManager"; }
  void initWithProperty(const Dictionary&, const std::string&, SyncConduitManager*) override {}
  void prepareAssemblers() override {}
  std::string deviceDataClass() const override { return "calendars"; }
  Dictionary properties() const override { return Dictionary(); }
  QVTSyncManager* syncManager() override { return this; }
  DeviceManager* deviceManager() override { return this; }
  TimeZonePtr _nextTimeZone() override { return nextZone; }
  bool shouldSyncAlarm() override { return syncAlarms; }
  CFPhone* phone() override { return nullptr; }
  CalendarsList* calendarsList() override { return nullptr; }
  Object* syncTransport() override { return nullptr; }
  bool isInBrisalde() const override { return brisalde; }
  const TruthSnapshot* recordSnapShot() const override { return truth.get(); }
  DeviceParserPtr parserForDataClass(const std::string&) override { return parser; }
  std::shared_ptr<DeviceStore> storeForDeviceDataClass(const std::string&) override {
    return std::shared_ptr<DeviceStore>(std::shared_ptr<void>(), this);
  }
  std::optional<Dictionary> getPrivateStorageDeviceRecordForKey(const std::string& key) const override {
    return stored.getDictionary(key);
  }

  TimeZonePtr nextZone;
  bool syncAlarms = true;
  bool brisalde = false;
  std::shared_ptr<MemoryTruthSnapshot> truth = std::make_shared<MemoryTruthSnapshot>();
  DeviceParserPtr parser = std::make_shared<RuleParser>();
  Dictionary stored;
};

// A transformer configured from `properties` for a phone in `phoneZone`.
inline std::shared_ptr<EventStages> makeStages(const Dictionary& properties, TestHost* host = nullptr,
                                               const std::string& phoneZone = "Europe/Paris") {
  auto stages = std::make_shared<EventStages>();
  stages->initWithProperties(properties);
  auto methods = makeFormatter("FormattingMethods", phoneZone);
  if (host) {
    methods->_setSnapShot(host->truth);
    stages->setDataClassManager(host);
  }
  stages->setFormattingMethods(methods);
  return stages;
}

inline Dictionary eventAt(const CalendarDate& start, double seconds = 3600) {
  return Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}, {kCalendarsEventStartDate, start},
                    {kCalendarsEventEndDate, start.dateByAddingTimeInterval(seconds)}};
}

// An all-day event of `days` days from the given day (12:00:00 GMT anchors).
inline Dictionary allDayEvent(int year, int month, int day, int days = 1) {
  const CalendarDate start = CalendarDate::dateWithYear(year, month, day, 12, 0, 0);
  Dictionary event = eventAt(start, 86400.0 * days);
  event.set(kCalendarsEventAllDay, true);
  return event;
}

inline Dictionary recurrence(const char* frequency) {
  return Dictionary{{kEngineRecordEntityNameKey, kCalendarsRecurrence}, {kCalendarsRecurrenceFrequency, frequency}};
}

}  // namespace pc::test
