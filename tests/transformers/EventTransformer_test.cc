// The event transformer: configuration, time zones, all-day events, the
// formatting hooks, the assembler answers, and round trips through an example
// phone (mangle, entity formatter, the phone's store, unmangle).

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <tuple>

#include "conduit/CFPhone.h"
#include "conduit/SyncClientState.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/DeviceFormatting.h"
#include "formatting/FormattingFixture.h"
#include "formatting/FormattingMethods.h"
#include "host/ReferenceHost.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"
#include "support/LogCapture.h"
#include "transformers/CalendarUtilities.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace pc {
namespace {

// Transports for the legacy-compatibility check, registered by name as a
// host's would be.
class MotorolaATSyncTransport : public Object {
 public:
  std::string className() const override { return "MotorolaATSyncTransport"; }
};
class MotorolaUSBTransport : public MotorolaATSyncTransport {
 public:
  std::string className() const override { return "MotorolaUSBTransport"; }
};
class SerialTransport : public Object {
 public:
  std::string className() const override { return "SerialTransport"; }
};
PC_REGISTER_CLASS(MotorolaATSyncTransport, "");
PC_REGISTER_CLASS(MotorolaUSBTransport, "MotorolaATSyncTransport");
PC_REGISTER_CLASS(SerialTransport, "");

TimeZonePtr zone(const char* name) { return TimeZone::timeZoneWithName(name); }

CalendarDate at(const char* zoneName, int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  return CalendarDate::dateWithYear(y, mo, d, h, mi, s, zone(zoneName));
}

Dictionary event(const CalendarDate& start, const CalendarDate& end) {
  return Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}, {"summary", "Meeting"},
                    {kCalendarsEventStartDate, start}, {kCalendarsEventEndDate, end}};
}

Dictionary allDayEvent(int y, int mo, int d, int days) {
  Dictionary record = event(CalendarExtension::allDayDateWithYear(y, mo, d),
                            CalendarExtension::allDayDateWithYear(y, mo, d + days));
  record.set(kCalendarsEventAllDay, true);
  return record;
}

std::shared_ptr<QVTSyncEventTransformer> transformerWith(const Dictionary& properties) {
  auto transformer = ClassRegistry::createAs<QVTSyncEventTransformer>("QVTSyncEventTransformer");
  transformer->initWithProperties(properties);
  return transformer;
}

// A phone on the reference host for the transformer to mangle for: the
// phone's zone (both as the sync manager's phone knows it and as the
// formatting methods read it from the client), the engine's calendars, and
// the calendar manager that gives them to the transformer.
struct Host {
  explicit Host(const Dictionary& properties, const char* phoneZone) {
    phone = std::make_unique<CFPhone>(Dictionary{
        {"SyncDataClasses", Dictionary{{"Calendars", Dictionary{{"MimeType", "text/x-vcalendar"}}}}}});
    phone->setTimeZone(zone(phoneZone));
    methods = test::makeFormatter("FormattingMethods", zone(phoneZone)->name());
    calendars.setSnapshot(&snapshot);
    sync.setPhone(phone.get());
    sync.setCalendarsList(&calendars);
    devices.setPhone(phone.get());
    manager = std::make_shared<CalendarManager>();
    manager->initWithProperty(Dictionary(), "Calendars", nullptr);
    manager->setSyncManager(&sync);
    manager->setDeviceManager(&devices);
    transformer = transformerWith(properties);
    transformer->setFormattingMethods(methods);
    transformer->setDataClassManager(manager.get());
    manager->setAssemblerDelegate(transformer);
  }

  std::unique_ptr<CFPhone> phone;
  std::shared_ptr<FormattingMethods> methods;
  MemoryTruthSnapshot snapshot;
  ReferenceCalendarsList calendars;
  ReferenceSyncManager sync;
  ReferenceDeviceManager devices;
  std::shared_ptr<CalendarManager> manager;
  std::shared_ptr<QVTSyncEventTransformer> transformer;
};

// --- Configuration ------------------------------------------------------------------------

// The keys that adjust others, whatever order the description lists them in.
TEST(EventTransformerConfiguration, AdjustingKeys) {
  struct Case {
    const char* name;
    Dictionary properties;
    bool hasEvent, hasTask, supportsGMTDates, supportsTZ, untilDateIsDateOnly;
  };
  const Case cases[] = {
      {"neither kind set: both", {}, true, true, false, false, true},
      {"only events", {{"onlyEvents", true}}, true, false, false, false, true},
      {"only events off", {{"hasTask", false}, {"onlyEvents", false}}, true, true, false, false, true},
      {"only tasks", {{"onlyTasks", true}}, false, true, false, false, true},
      // Clearing onlyTasks turns events on and leaves hasTask as it was.
      {"only tasks off", {{"hasTask", false}, {"onlyTasks", false}}, true, false, false, false, true},
      {"treat as GMT", {{"treatEventsTimeAs", "GMT"}}, true, true, true, false, true},
      {"treat as local", {{"supportsGMTDates", true}, {"treatEventsTimeAs", "LocalTime"}}, true, true, false,
       false, true},
      {"has time zone", {{"hasTimeZone", "YES"}}, true, true, true, false, true},
      {"until date for events", {{"untilDateIsDateOnlyForEvents", 0}}, true, true, false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto t = transformerWith(c.properties);
    EXPECT_EQ(t->hasEvent(), c.hasEvent);
    EXPECT_EQ(t->hasTask(), c.hasTask);
    EXPECT_EQ(t->supportsGMTDates(), c.supportsGMTDates);
    EXPECT_EQ(t->supportsTZ(), c.supportsTZ);
    EXPECT_EQ(t->untilDateIsDateOnly(), c.untilDateIsDateOnly);
  }
  // Without supportsTZ no kind keeps its zone, whatever the description says.
  auto noZones = transformerWith(Dictionary{{"supportsTZInTodo", true}, {"supportsTZ", false}});
  EXPECT_FALSE(noZones->supportsTZInTodo() || noZones->supportsTZInRegularEvents() ||
               noZones->supportsTZInRecurrentEvents());
  EXPECT_TRUE(transformerWith(Dictionary{{"hasAllDayEvents", false}, {"hasAllDayFromMidnightTo235900", true}})
                  ->hasAllDayEvents());
  auto dates = transformerWith(Dictionary{{"defaultUntilDateWhenMissing", "2030-12-31 23:00:00 +0100"},
                                          {"dontSyncEventBeforeDate", "1899-01-01 00:00:00 +0000"}});
  EXPECT_EQ(dates->untilDateValueWhenMissing(), std::optional(at("GMT", 2030, 12, 31, 22)));
  EXPECT_EQ(dates->dontSyncEventBeforeDate(), std::optional(at("GMT", 1899, 1, 1)));
}

TEST(EventTransformerConfiguration, BadAndUnknownValuesAreLoggedAndSkipped) {
  test::LogCapture log;
  auto t = transformerWith(Dictionary{{"treatEventsTimeAs", "localtime"}, {"foo", 3}, {"hasTask", Array{1}},
                                      {"defaultPriority", "high"},
                                      {"defaultUntilDateWhenMissing", "not a date"},
                                      {"defaultDueDateWhenMissing", ""}});
  const test::LogLine* bad = log.find("bad settings for treatEventsTimeAs: localtime");
  ASSERT_NE(bad, nullptr);
  EXPECT_EQ(bad->level, kLogError);
  EXPECT_FALSE(t->supportsGMTDates());
  EXPECT_TRUE(log.contains("ignored: foo -> 3"));
  EXPECT_TRUE(log.contains("ignored: defaultPriority -> high"));
  EXPECT_TRUE(t->defaultPriority().isNull());
  EXPECT_TRUE(t->hasTask());  // the array was skipped; the adjustment set both
  EXPECT_FALSE(t->untilDateValueWhenMissing());
  EXPECT_FALSE(t->dueDateValueWhenMissing());
}

TEST(EventTransformerConfiguration, MotorolaTransportByClassName) {
  const std::pair<ObjectPtr, bool> cases[] = {{std::make_shared<MotorolaATSyncTransport>(), true},
                                              {std::make_shared<MotorolaUSBTransport>(), true},
                                              {std::make_shared<SerialTransport>(), false},
                                              {nullptr, false}};
  for (const auto& [transport, legacy] : cases) {
    Host host(Dictionary(), "Europe/Paris");
    host.sync.setSyncTransport(transport);
    host.transformer->setDataClassManager(host.manager.get());
    EXPECT_EQ(host.transformer->motorolaLegacyCompatibility(), legacy) << (transport ? transport->className() : "");
  }
  EXPECT_FALSE(transformerWith(Dictionary())->motorolaLegacyCompatibility());
}

TEST(EventTransformerConfiguration, WhichRecordsKeepTheirZone) {
  const Dictionary timed = event(at("Europe/Paris", 2024, 5, 1, 10), at("Europe/Paris", 2024, 5, 1, 11));
  Dictionary recurring = timed.deepCopy();
  recurring.set(kCalendarsEventRecurrences, Array{Dictionary{{kCalendarsRecurrenceFrequency, "weekly"}}});
  const Dictionary task{{kEngineRecordEntityNameKey, kCalendarsTask},
                        {kCalendarsTaskDueDate, at("Europe/Paris", 2024, 5, 1, 10)}};
  const Dictionary allDay = allDayEvent(2024, 5, 1, 1);
  struct Case {
    Dictionary properties;
    bool timed, recurring, task;  // an all-day event never keeps one
  };
  const Case cases[] = {
      {{}, false, false, false},
      {{{"supportsTZ", true}}, true, true, true},
      {{{"supportsTZ", true}, {"supportsTZInRecurrentEvents", false}}, true, false, true},
      {{{"supportsTZ", true}, {"supportsTZInRegularEvents", false}}, false, true, false},
      {{{"supportsTZ", true}, {"supportsTZInTodo", false}}, true, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.properties.description());
    auto t = transformerWith(c.properties);
    EXPECT_EQ(t->supportsTZForRecord(timed), c.timed);
    EXPECT_EQ(t->supportsTZForRecord(recurring), c.recurring);
    EXPECT_EQ(t->supportsTZForRecord(task), c.task);
    EXPECT_FALSE(t->supportsTZForRecord(allDay));
  }
}

// --- Entities and the assembler ------------------------------------------------------------

TEST(EventTransformerAssembler, ManagerAnswersThroughTheTransformer) {
  // A phone with tasks only still lists the sub-entities.
  EXPECT_EQ(transformerWith(Dictionary{{"onlyTasks", true}})->allPossibleEntities(),
            (Array{kCalendarsRecurrence, kCalendarsAudioAlarm, kCalendarsMailAlarm, kCalendarsDisplayAlarm,
                   kCalendarsOrganizer, kCalendarsAttendee, kCalendarsTask}));

  Host host(Dictionary(), "Europe/Paris");
  ReferenceDataClassManager& manager = *host.manager;
  test::LogCapture log;
  EXPECT_EQ(manager.masterRelationKeysForMasterEntity(kCalendarsEvent),
            (Array{"recurrences", "audioAlarms", "displayAlarms"}));
  EXPECT_TRUE(log.lines().empty());

  // Any other master is answered as a task, and reported.
  EXPECT_EQ(manager.relationKeysToSubEntitiesForMasterEntity(kContactsContact),
            manager.relationKeysToSubEntitiesForMasterEntity(kCalendarsTask));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(log.lines()[0].level, kLogError);
  EXPECT_NE(log.lines()[0].message.find("masterEntity == kCalendarsTask"), std::string::npos);

  manager.setAssemblerDelegate(nullptr);
  EXPECT_TRUE(manager.masterRelationKeysForMasterEntity(kCalendarsEvent).empty());
}

// --- Formatting hooks --------------------------------------------------------------------------

TEST(EventTransformerFormatting, EventDefaultsAndSeconds) {
  Host host(Dictionary{{"setDefaultClass", true}, {"setDefaultStatus", true}, {"defaultPriority", 3}},
            "Europe/Paris");
  Dictionary record = event(at("Europe/Paris", 2024, 5, 1, 10, 0, 30), at("Europe/Paris", 2024, 5, 1, 11, 0, 59));
  record.set(kCalendarsEventStatus, "none");
  record.set(kCalendarsEventPriority, 0);
  auto formatted = host.transformer->formatRecord(record);
  ASSERT_TRUE(formatted);
  EXPECT_EQ(formatted->get(kCalendarsEventClassification), Value("public"));
  EXPECT_EQ(formatted->get(kCalendarsEventStatus), Value("needsaction"));
  EXPECT_EQ(formatted->get(kCalendarsEventPriority), Value(3));
  // Seconds are cut, not rounded, and the zone stays.
  for (const auto& [key, hour] : {std::pair{kCalendarsEventStartDate, 10}, std::pair{kCalendarsEventEndDate, 11}})
    EXPECT_TRUE(formatted->get(key).date().isEqualIncludingTimeZone(at("Europe/Paris", 2024, 5, 1, hour)));

  // Values present are kept; records of other entities pass unchanged.
  record.set(kCalendarsEventStatus, "confirmed");
  record.set(kCalendarsEventPriority, 1);
  formatted = host.transformer->formatRecord(record);
  EXPECT_EQ(formatted->get(kCalendarsEventPriority), Value(1));
  EXPECT_EQ(formatted->get(kCalendarsEventStatus), Value("confirmed"));
  const Dictionary calendar{{kEngineRecordEntityNameKey, kCalendarsCalendar}, {"title", "Home"}};
  EXPECT_TRUE(host.transformer->formatRecord(calendar)->isIdenticalTo(calendar));
}

// All-day events converted to timed ones on phones without them (or, for
// longer ones, without multi-day ones: see the round trips), ending at 23:59
// or at midnight; a phone may also refuse their location.
TEST(EventTransformerFormatting, AllDayEventsConverted) {
  struct Case {
    Dictionary properties;
    int month, day, endMonth, endDay, endHour, endMinute;  // the end in the phone zone
  };
  const Case cases[] = {
      {{{"hasAllDayEvents", false}}, 3, 1, 3, 1, 23, 59},
      {{{"hasAllDayEvents", false}, {"needsEndDateAtMidnight00", true}}, 3, 1, 3, 2, 0, 0},
      {{{"hasAllDayEvents", false}}, 2, 29, 2, 29, 23, 59},  // at the turn of a month
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.properties.description() + std::to_string(c.day));
    Host host(c.properties, "America/New_York");
    Dictionary record = allDayEvent(2024, c.month, c.day, 1);
    record.set(kCalendarsEventLocation, "Beach");
    record.set(kCalendarsEventExceptionDates, Array{CalendarExtension::allDayDateWithYear(2024, 3, 1)});
    auto formatted = host.transformer->formatRecord(record);
    ASSERT_TRUE(formatted);
    EXPECT_FALSE(formatted->getBool(kCalendarsEventAllDay));
    EXPECT_EQ(formatted->get(kCalendarsEventStartDate).date(), at("America/New_York", 2024, c.month, c.day));
    EXPECT_EQ(formatted->get(kCalendarsEventEndDate).date(),
              at("America/New_York", 2024, c.endMonth, c.endDay, c.endHour, c.endMinute));
    EXPECT_EQ(formatted->getArray(kCalendarsEventExceptionDates)->first(), Value(at("America/New_York", 2024, 3, 1)));
    EXPECT_EQ(formatted->getString(kCalendarsEventLocation), "Beach");
  }
  Host noLocation(Dictionary{{"allDayHaveNoLocation", true}}, "Europe/Paris");
  Dictionary record = allDayEvent(2024, 3, 1, 1);
  record.set(kCalendarsEventLocation, "Beach");
  EXPECT_FALSE(noLocation.transformer->formatRecord(record)->contains(kCalendarsEventLocation));
}

TEST(EventTransformerFormatting, OneAlarmPreferringAudio) {
  auto t = transformerWith(Dictionary());
  const Dictionary a1{{"n", 1}}, a2{{"n", 2}}, d1{{"n", 3}}, d2{{"n", 4}};
  Dictionary both{{kCalendarsEventAudioAlarms, Array{a1, a2}}, {kCalendarsEventDisplayAlarms, Array{d1, d2}}};
  t->formatAssembledRecord(both);
  EXPECT_EQ(both.get(kCalendarsEventAudioAlarms), Value(Array{a1}));
  EXPECT_FALSE(both.contains(kCalendarsEventDisplayAlarms));
  Dictionary display{{kCalendarsEventAudioAlarms, Array{}}, {kCalendarsEventDisplayAlarms, Array{d1, d2}}};
  t->formatAssembledRecord(display);
  EXPECT_EQ(display.get(kCalendarsEventDisplayAlarms), Value(Array{d1}));
  Dictionary many{{kCalendarsEventDisplayAlarms, Array{d1, d2}}};
  transformerWith(Dictionary{{"hasOneAlarm", false}})->formatAssembledRecord(many);
  EXPECT_EQ(many.get(kCalendarsEventDisplayAlarms), Value(Array{d1, d2}));
}

// --- Mangling and unmangling -------------------------------------------------------------------

TEST(EventTransformerMangling, SideProperties) {
  Host host(Dictionary{{"supportsTZ", true}, {"supportsGMTDates", true}}, "Europe/Paris");
  host.snapshot.addRecord("cal-1", Dictionary{{kEngineRecordEntityNameKey, kCalendarsCalendar},
                                              {kCalendarsCalendarReadOnly, true}});
  Dictionary record = event(at("Asia/Tokyo", 2024, 5, 1, 9), at("Asia/Tokyo", 2024, 5, 1, 10));
  record.set(kCalendarsEventCalendar, Array{"cal-1"});
  record.set(kCalendarsEventOriginalDate, at("Asia/Tokyo", 2024, 5, 1, 9));
  record.set(kCalendarsEventMainEvent, Array{"ev-0"});
  RecordHolder holder(record, "ev-1");
  host.transformer->mangleRecordBeforePushingToDevice(holder);
  EXPECT_EQ(QVTTimeZoneProperty::timeZoneFromValue(holder.propertyForKey("sTimeZone"))->name(), "Asia/Tokyo");
  EXPECT_TRUE(holder.propertyForKey("EventTimeZoneWhenReadBack").isNull());
  EXPECT_EQ(holder.propertyForKey("ReadOnly"), Value(true));
  EXPECT_EQ(holder.propertyForKey("HomeCalendar"), Value("cal-1"));
  // Without detached events on the phone, the links to the master go.
  EXPECT_FALSE(holder.mutableDictionary().contains(kCalendarsEventOriginalDate));
  EXPECT_FALSE(holder.mutableDictionary().contains(kCalendarsEventMainEvent));
  // Dates kept with their zone on a phone of instants.
  EXPECT_TRUE(holder.mutableDictionary().get(kCalendarsEventStartDate).date().isEqualIncludingTimeZone(
      at("Asia/Tokyo", 2024, 5, 1, 9)));

  // A task: its completion date travels as a property, and its status goes
  // on a phone that deduces it.
  Host taskHost(Dictionary{{"statusDeducedFromCompletionDate", true}}, "Europe/Paris");
  RecordHolder taskHolder(Dictionary{{kEngineRecordEntityNameKey, kCalendarsTask},
                                     {kCalendarsTaskStartDate, at("Europe/Paris", 2024, 5, 1)},
                                     {kCalendarsTaskStatus, "completed"},
                                     {kCalendarsTaskCompletionDate, at("Europe/Paris", 2024, 5, 2, 8)}});
  test::LogCapture log;
  taskHost.transformer->mangleRecordBeforePushingToDevice(taskHolder);
  EXPECT_EQ(taskHolder.propertyForKey(kCalendarsTaskCompletionDate), Value(at("Europe/Paris", 2024, 5, 2, 8)));
  EXPECT_FALSE(taskHolder.mutableDictionary().contains(kCalendarsTaskStatus));
  EXPECT_TRUE(log.contains("orphan event?"));
}

// Records of the wrong shape are logged and go on; nothing throws.
TEST(EventTransformerMangling, WrongShapesAreLogged) {
  Host host(Dictionary{{"hasFakeAllDay", true}, {"hasAllDayEvents", false}}, "America/New_York");
  const std::pair<Dictionary, const char*> cases[] = {
      {Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}}, "What, event or todo with no start date:\n"},
      {Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}, {kCalendarsEventStartDate, "tomorrow"}},
       "Startdate with no timezone: tomorrow"},
      {Dictionary{{kEngineRecordEntityNameKey, "Calendars.Journal"},
                  {kCalendarsEventStartDate, at("America/New_York", 2024, 1, 1)}},
       "strange not event nor todo: "},
      {Dictionary{{kCalendarsEventStartDate, 12}}, "strange not event nor todo: "},
  };
  for (const auto& [record, logged] : cases) {
    SCOPED_TRACE(logged);
    test::LogCapture log;
    RecordHolder holder(record);
    EXPECT_NO_THROW(host.transformer->mangleRecordBeforePushingToDevice(holder));
    EXPECT_NO_THROW(host.transformer->unmangleRecordAfterReadingFromDevice(holder));
    EXPECT_NO_THROW(host.transformer->formatRecord(holder.mutableDictionary()));
    bool found = false;
    for (const std::string& message : log.messages()) found = found || message.rfind(logged, 0) == 0;
    EXPECT_TRUE(found);
  }
  // An all-day event read back from a faking phone without its end.
  test::LogCapture log;
  RecordHolder holder(Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent},
                                 {kCalendarsEventStartDate, at("America/New_York", 2024, 1, 1)},
                                 {kCalendarsEventEndDate, Array{}}});
  host.transformer->unmangleRecordAfterReadingFromDevice(holder);
  EXPECT_TRUE(log.contains("bad event"));
  EXPECT_FALSE(holder.mutableDictionary().getBool(kCalendarsEventAllDay));
}

// A relative alarm sent as an absolute one comes back relative even when the
// phone's copy lost the start: the reference saved while mangling is used
// (under AddressSanitizer this caught a read of a destroyed temporary).
TEST(EventTransformerMangling, AlarmOffsetFromTheSavedReference) {
  Host host(Dictionary(), "Europe/Paris");
  Dictionary record = event(at("Europe/Paris", 2024, 5, 1, 10), at("Europe/Paris", 2024, 5, 1, 11));
  record.set(kCalendarsEventDisplayAlarms, Array{Dictionary{{kEngineRecordEntityNameKey, kCalendarsDisplayAlarm},
                                                            {kCalendarsAudioAlarmTriggerduration, -900}}});
  RecordHolder holder(record, "ev-1");
  host.transformer->mangleRecordBeforePushingToDevice(holder);
  Dictionary fromPhone = holder.mutableDictionary().deepCopy();
  fromPhone.remove(kCalendarsEventStartDate);
  holder.setMutableDictionary(fromPhone);
  test::LogCapture log;
  host.transformer->unmangleRecordAfterReadingFromDevice(holder);
  EXPECT_TRUE(log.contains("cannot find a reference, using our saved properties"));
  auto alarms = holder.mutableDictionary().getArray(kCalendarsEventDisplayAlarms);
  ASSERT_TRUE(alarms && !alarms->empty());
  EXPECT_EQ(alarms->first().dictionary().get(kCalendarsAudioAlarmTriggerduration), Value(-900));
}

// Read back from a phone that writes all-day events from 00:00 to 23:59.
TEST(EventTransformerMangling, FakeAllDayReadBack) {
  const std::tuple<CalendarDate, CalendarDate, bool> cases[] = {
      {at("Europe/Paris", 2024, 1, 31), at("Europe/Paris", 2024, 1, 31, 23, 59), true},
      {at("GMT", 2024, 1, 31), at("GMT", 2024, 1, 31, 23, 59, 42), true},  // any second of 23:59
      {at("GMT", 2024, 1, 31, 0, 1), at("GMT", 2024, 1, 31, 23, 59), false},
      {at("GMT", 2024, 1, 31), at("GMT", 2024, 1, 31, 23, 58), false},
  };
  auto faked = transformerWith(Dictionary{{"hasFakeAllDay", true}, {"hasAllDayMultiDay", false}});
  for (const auto& [start, end, recognised] : cases) {
    SCOPED_TRACE(start.description() + " - " + end.description());
    RecordHolder holder(event(start, end));
    faked->unmangleRecordAfterReadingFromDevice(holder);
    const Dictionary back = holder.mutableDictionary();
    EXPECT_EQ(back.getBool(kCalendarsEventAllDay), recognised);
    if (!recognised) continue;
    EXPECT_EQ(back.get(kCalendarsEventStartDate), Value(CalendarExtension::allDayDateWithYear(2024, 1, 31)));
    EXPECT_EQ(back.get(kCalendarsEventEndDate), Value(CalendarExtension::allDayDateWithYear(2024, 2, 1)));
  }
  // The hint of the holder wins: a known all-day copy is left alone.
  RecordHolder hinted(event(at("GMT", 2024, 1, 31), at("GMT", 2024, 1, 31, 23, 59)));
  hinted.setBooleanProperty(true, "IsAllDayEvent");
  faked->unmangleRecordAfterReadingFromDevice(hinted);
  EXPECT_FALSE(hinted.mutableDictionary().getBool(kCalendarsEventAllDay));
}

// --- Round trips through a phone ---------------------------------------------------------------

// What a phone keeps of a record: dates are written out and read back by the
// host's property-list parser through the simulated phone (to the second, in
// GMT); a phone of instants keeps a date's zone for the records that keep
// theirs, a wall-clock phone keeps only the wall clock.
Dictionary throughPhone(const Dictionary& record, bool keepsZones) {
  Dictionary sent = record.deepCopy();
  Dictionary zones;
  for (const auto& [key, value] : record) {
    const CalendarDate* date = value.asDate();
    if (!date) continue;
    if (keepsZones)
      zones.set(key, date->timeZone()->name());
    else
      sent.set(key, CalendarExtension::convertInTimeZone(*date, TimeZone::gmt()));
  }
  SimulatedPhone phone("phone-1");
  PropertyListParser parser;
  parser.initWithPhone(nullptr, std::nullopt);
  phone.receiveData("Calendars", parser.dataFromRecords(Array{sent}));
  auto back = parser.recordsFromData(phone.sendData("Calendars"));
  EXPECT_TRUE(back && back->count() == 1);
  if (!back || back->empty()) return Dictionary();
  Dictionary read = back->first().dictionary();
  for (const auto& [key, name] : zones)
    read.set(key, read.get(key).date().dateWithTimeZone(zone(name.string().c_str())));
  return read;
}

Dictionary readExample(const std::string& file) {
  PropertyListError error;
  auto value = PropertyList::fromFile(std::string(PC_SOURCE_DIR) + "/examples/devices/" + file, &error);
  EXPECT_TRUE(value && value->isDictionary()) << file << ": " << error.description();
  return value && value->isDictionary() ? value->dictionary() : Dictionary();
}

struct RoundTrip {
  Dictionary formatted;  // as the entity formatter left it
  Dictionary back;       // after unmangling
};

// An example phone whose client names `phoneZone` as the phone's zone, and a
// host around a transformer configured as that phone's.
struct ExamplePhone {
  ExamplePhone(const std::string& name, const char* phoneZone, const Dictionary& extraProperties = Dictionary()) {
    Dictionary description = readExample(name + ".plist");
    Dictionary properties = description.getDictionary("SyncDataClasses")->getDictionary("Calendars")->deepCopy();
    properties.addEntriesFrom(extraProperties);
    for (const char* key : {"MimeType", "Parser", "DataClassManager"}) properties.remove(key);
    const std::string folder =
        std::filesystem::temp_directory_path() / ("evtransformer-" + name + "-" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    DeviceFormattingOptions options;
    options.clientStorePath = folder + "/client.plist";
    std::filesystem::remove(options.clientStorePath);
    {
      MemorySyncEngineClient store(options.clientIdentifier, "test", Array(), options.clientStorePath);
      SyncClientState::setCurrentTimeZoneName(store, zone(phoneZone)->name());
    }
    if (std::filesystem::exists(std::string(PC_SOURCE_DIR) + "/examples/devices/" + name + ".variables.plist"))
      options.variables = readExample(name + ".variables.plist");
    formatting = DeviceFormatting::phoneSide(description, readExample(name + ".entities.plist"), options);
    host = std::make_unique<Host>(properties, phoneZone);
    std::filesystem::remove_all(folder);
  }

  // Mangled, formatted for the phone, through its store, and unmangled.
  RoundTrip send(const Dictionary& record) {
    QVTSyncEventTransformer& transformer = *host->transformer;
    RecordHolder holder(record, "ev-1");
    transformer.mangleRecordBeforePushingToDevice(holder);
    FormattingOutcome outcome = formatting->formatRecord(holder.mutableDictionary());
    EXPECT_TRUE(outcome.record) << outcome.rejection;
    if (!outcome.record) return {};
    const bool keepsZones = transformer.supportsTZForRecord(*outcome.record) && transformer.supportsGMTDates();
    Dictionary read = throughPhone(*outcome.record, keepsZones);
    read.set(kEngineRecordEntityNameKey, record.get(kEngineRecordEntityNameKey));
    holder.setMutableDictionary(read);
    transformer.unmangleRecordAfterReadingFromDevice(holder);
    return {*outcome.record, holder.mutableDictionary()};
  }

  std::unique_ptr<DeviceFormatting> formatting;
  std::unique_ptr<Host> host;
};

// Timed events keep their instant whatever the phone does with zones (kept,
// or written in the phone's wall clock); the zone comes back as the phone
// reads it, or as the event's own for a wall-clock phone.
TEST(EventTransformerRoundTrip, TimedEventsKeepInstantAndZone) {
  struct Phone {
    const char* device;
    Dictionary extra;
    bool datesKeepZone;
  };
  const Phone phones[] = {
      {"full-phone", {}, true},
      {"basic-phone", {}, false},  // one-day phone without zones
      {"full-phone", {{"treatEventsTimeAs", "LocalTime"}}, false},
  };
  const std::pair<CalendarDate, CalendarDate> events[] = {
      {at("Asia/Tokyo", 2024, 5, 1, 9, 15), at("Asia/Tokyo", 2024, 5, 1, 10)},
      // 02:30 on the spring-forward night does not exist: it reads as 03:30.
      {at("America/New_York", 2024, 3, 10, 2, 30), at("America/New_York", 2024, 3, 10, 4)},
      {at("America/Sao_Paulo", 2018, 2, 17, 23, 30), at("America/Sao_Paulo", 2018, 2, 18, 1)},
      {at("Europe/Paris", 1965, 7, 14, 20), at("Europe/Paris", 1965, 7, 14, 23)},
      {at("Australia/Sydney", 2040, 1, 1, 0, 30), at("Australia/Sydney", 2040, 1, 1, 2)},
      {at("America/Los_Angeles", 2028, 2, 29, 23), at("America/Los_Angeles", 2028, 3, 1, 1)},
  };
  for (const Phone& p : phones) {
    for (const char* phoneZone : {"America/New_York", "America/Sao_Paulo"}) {
      ExamplePhone phone(p.device, phoneZone, p.extra);
      for (const auto& [start, end] : events) {
        SCOPED_TRACE(std::string(p.device) + p.extra.description() + " in " + phoneZone + ": " + start.description());
        const RoundTrip trip = phone.send(event(start, end));
        const CalendarDate sentStart = trip.formatted.get(kCalendarsEventStartDate).date();
        EXPECT_EQ(sentStart, start);
        EXPECT_EQ(sentStart.timeZone()->name(), p.datesKeepZone ? start.timeZone()->name() : zone(phoneZone)->name());
        // A phone of instants answers the zone it reads its dates in (its
        // own); a wall-clock phone's dates regain the event's zone.
        const TimeZonePtr backZone = p.datesKeepZone ? zone(phoneZone) : start.timeZone();
        const CalendarDate backStart = trip.back.get(kCalendarsEventStartDate).date();
        const CalendarDate backEnd = trip.back.get(kCalendarsEventEndDate).date();
        EXPECT_TRUE(backStart.isEqualIncludingTimeZone(start.dateWithTimeZone(backZone))) << backStart.description();
        EXPECT_TRUE(backEnd.isEqualIncludingTimeZone(end.dateWithTimeZone(backZone))) << backEnd.description();
      }
    }
  }
}

TEST(EventTransformerRoundTrip, LegacyPhoneGetsLocalTimeAsGMT) {
  ExamplePhone phone("basic-phone", "Europe/Paris");
  phone.host->sync.setSyncTransport(std::make_shared<MotorolaATSyncTransport>());
  phone.host->transformer->setDataClassManager(phone.host->manager.get());
  const CalendarDate start = at("Asia/Tokyo", 2024, 7, 1, 17);  // 10:00 in Paris
  const RoundTrip trip = phone.send(event(start, start.dateByAddingTimeInterval(3600)));
  const CalendarDate sent = trip.formatted.get(kCalendarsEventStartDate).date();
  EXPECT_EQ(sent.timeZone()->name(), "GMT");
  EXPECT_EQ(sent.hourOfDay(), 10);
  EXPECT_TRUE(trip.back.get(kCalendarsEventStartDate).date().isEqualIncludingTimeZone(start));
}

// A floating event goes as the phone's wall clock and comes back floating,
// at the same wall clock.
TEST(EventTransformerRoundTrip, FloatingEvents) {
  for (const char* phoneZone : {"America/New_York", "Asia/Kolkata"}) {
    SCOPED_TRACE(phoneZone);
    ExamplePhone phone("full-phone", phoneZone);
    test::LogCapture log;
    const CalendarDate start = CalendarDate::dateWithYear(2024, 3, 10, 9, 45, 0, TimeZone::localTimeZone());
    const RoundTrip trip = phone.send(event(start, start.dateByAddingTimeInterval(1800)));
    const CalendarDate sent = trip.formatted.get(kCalendarsEventStartDate).date();
    const CalendarDate back = trip.back.get(kCalendarsEventStartDate).date();
    EXPECT_EQ(sent.timeZone()->name(), zone(phoneZone)->name());
    EXPECT_TRUE(back.timeZone()->isLocalTimeZoneKind());
    for (const CalendarDate& date : {sent, back}) {
      EXPECT_EQ(date.hourOfDay(), 9);
      EXPECT_EQ(date.minuteOfHour(), 45);
    }
    EXPECT_TRUE(log.contains("This is a Floating event. TZ: <" + start.timeZone()->name() + ">"));
  }
}

// All-day events: kept as they are on the full phone; on the one-day phone
// a one-day event stays all-day, and a longer one, across the spring change,
// goes as a timed event from midnight to 23:59 on the phone's clock and is
// recognised as the all-day event again when it comes back.
TEST(EventTransformerRoundTrip, AllDayEvents) {
  for (const char* phoneZone : {"America/New_York", "America/Sao_Paulo"}) {
    SCOPED_TRACE(phoneZone);
    ExamplePhone full("full-phone", phoneZone);
    ExamplePhone oneDay("basic-phone", phoneZone, Dictionary{{"hasFakeAllDay", true}});
    const std::pair<ExamplePhone*, Dictionary> kept[] = {{&full, allDayEvent(2024, 2, 29, 1)},
                                                         {&oneDay, allDayEvent(1969, 12, 31, 1)}};
    for (const auto& [phone, record] : kept) {
      const RoundTrip trip = phone->send(record);
      EXPECT_TRUE(trip.formatted.getBool(kCalendarsEventAllDay));
      EXPECT_TRUE(trip.back.getBool(kCalendarsEventAllDay));
      EXPECT_EQ(trip.back.get(kCalendarsEventStartDate), record.get(kCalendarsEventStartDate));
      EXPECT_EQ(trip.back.get(kCalendarsEventEndDate), record.get(kCalendarsEventEndDate));
    }

    const RoundTrip trip = oneDay.send(allDayEvent(2024, 3, 9, 3));  // 9 to 11 March
    EXPECT_FALSE(trip.formatted.getBool(kCalendarsEventAllDay));
    const CalendarDate sentStart = trip.formatted.get(kCalendarsEventStartDate).date();
    const CalendarDate sentEnd = trip.formatted.get(kCalendarsEventEndDate).date();
    EXPECT_EQ(sentStart, at(phoneZone, 2024, 3, 9));
    EXPECT_EQ(sentEnd, at(phoneZone, 2024, 3, 11, 23, 59));
    EXPECT_TRUE(trip.back.getBool(kCalendarsEventAllDay));
    EXPECT_EQ(trip.back.get(kCalendarsEventStartDate), Value(CalendarExtension::allDayDateWithYear(2024, 3, 9)));
    EXPECT_EQ(trip.back.get(kCalendarsEventEndDate), Value(CalendarExtension::allDayDateWithYear(2024, 3, 12)));
  }
}

}  // namespace
}  // namespace pc

namespace pc {
namespace {

// A phone that writes all-day events from 00:00 to 23:59 on its own clock:
// what it holds is recognised as all-day again whatever its zone, also
// across a daylight-time change (27 to 29 March 2027 in Berlin).
TEST(EventTransformerMangling, FakeAllDayIsRecognisedOnThePhonesClock) {
  const Dictionary properties{{"hasFakeAllDay", true}, {"hasAllDayEvents", false},
                              {"supportsTZ", false}};
  for (const char* phoneZone :
       {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland", "GMT"}) {
    SCOPED_TRACE(phoneZone);
    Host host(properties, phoneZone);
    // The phone's entry as the store gives it, on the phone's clock; the
    // holder remembers the all-day event went out in GMT.
    const Dictionary onPhone =
        event(at(phoneZone, 2027, 3, 27), at(phoneZone, 2027, 3, 29, 23, 59));
    RecordHolder back(onPhone, "ade-1");
    back.setProperty(QVTTimeZoneProperty::valueWithTimeZone(zone("GMT")), "sTimeZone");
    host.transformer->unmangleRecordAfterReadingFromDevice(back);
    const Dictionary record = back.mutableDictionary();
    EXPECT_TRUE(record.getBool(kCalendarsEventAllDay)) << onPhone.description() << record.description();
    EXPECT_EQ(record.get(kCalendarsEventStartDate), Value(CalendarExtension::allDayDateWithYear(2027, 3, 27)));
    EXPECT_EQ(record.get(kCalendarsEventEndDate), Value(CalendarExtension::allDayDateWithYear(2027, 3, 30)));
  }
}

}  // namespace
}  // namespace pc

namespace pc {
namespace {

// Date-only exception dates of a Berlin weekly event read back on a phone
// without zones: each stands for the occurrence on its day, also where the
// phone's zone changes daylight time on other dates than Berlin (15 March is
// after New York's change and before Berlin's).
TEST(EventTransformerRoundTrip, ExceptionDatesComeBackAsTheirOccurrences) {
  const Dictionary properties{{"supportsTZ", false}, {"hasFullRecurrence", true},
                              {"exDatesAreDateOnly", true}};
  for (const char* phoneZone :
       {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland"}) {
    SCOPED_TRACE(phoneZone);
    Host host(properties, phoneZone);
    Dictionary record = event(at("Europe/Berlin", 2027, 3, 1, 18), at("Europe/Berlin", 2027, 3, 1, 19));
    record.set(kCalendarsEventRecurrences,
               Array{Dictionary{{kEngineRecordEntityNameKey, kCalendarsRecurrence},
                                {kCalendarsRecurrenceFrequency, "weekly"},
                                {kCalendarsRecurrenceUntil, at("Europe/Berlin", 2027, 4, 19, 23, 59)}}});
    const Array exceptions{at("Europe/Berlin", 2027, 3, 15, 18), at("Europe/Berlin", 2027, 4, 5, 18)};
    record.set(kCalendarsEventExceptionDates, exceptions);
    RecordHolder holder(record, "weekly-1");
    host.transformer->mangleRecordBeforePushingToDevice(holder);
    holder.setMutableDictionary(holder.mutableDictionary().deepCopy());
    host.transformer->unmangleRecordAfterReadingFromDevice(holder);
    const auto back = holder.mutableDictionary().getArray(kCalendarsEventExceptionDates);
    ASSERT_TRUE(back && back->count() == 2) << holder.mutableDictionary().description();
    for (std::size_t i = 0; i < 2; ++i)
      EXPECT_EQ(back->at(i).date().timeIntervalSinceReferenceDate(),
                exceptions.at(i).date().timeIntervalSinceReferenceDate())
          << back->at(i).description();
  }
}

}  // namespace
}  // namespace pc
