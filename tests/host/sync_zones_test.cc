// The sync path under the machine's zone: what the phone holds of a
// recurring event, an all-day event or a reordered contact, and what is
// reported when it comes back. The suites here run under several zones.

#include <gtest/gtest.h>

#include <filesystem>

#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "calcore/CALTimeRange.h"
#include "engine/MemoryEngine.h"
#include "host/PhoneStore.h"
#include "host/VFormatParsers.h"
#include "host/ReferenceSync.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"
#include "support/TemporaryFolder.h"

namespace pc {
namespace {

const std::string kDevices = std::string(PC_SOURCE_DIR) + "/examples/devices/";

Dictionary readDictionary(const std::string& path) {
  std::optional<Value> contents = PropertyList::fromFile(path);
  return contents && contents->isDictionary() ? contents->dictionary() : Dictionary();
}

Value date(int year, int month, int day, int hour, int minute, const char* zone) {
  return Value(CalendarDate::dateWithYear(year, month, day, hour, minute, 0,
                                          TimeZone::timeZoneWithName(zone)));
}

Dictionary dictionary(std::initializer_list<std::pair<const char*, Value>> entries) {
  Dictionary d;
  for (const auto& [key, value] : entries) d.set(key, value);
  return d;
}

Array array(std::initializer_list<Value> values) {
  Array a;
  for (const Value& v : values) a.add(v);
  return a;
}

// Mondays 18:00 Berlin, 1 March to 19 April 2027 (eight occurrences across
// the daylight-time change of 28 March), with an alarm 15 minutes before.
Dictionary weeklyBerlinEvent() {
  return dictionary({
      {"entityName", Value("Calendars.Event")},
      {"summary", Value("Choir")},
      {"startDate", date(2027, 3, 1, 18, 0, "Europe/Berlin")},
      {"endDate", date(2027, 3, 1, 19, 0, "Europe/Berlin")},
      {"recurrences",
       Value(array({Value(dictionary({{"entityName", Value("Calendars.Recurrence")},
                                      {"frequency", Value("weekly")},
                                      {"interval", Value(std::int64_t{1})},
                                      {"until", date(2027, 4, 19, 23, 59, "Europe/Berlin")}}))}))},
      {"displayAlarms",
       Value(array({Value(dictionary({{"entityName", Value("Calendars.DisplayAlarm")},
                                      {"triggerduration", Value(std::int64_t{-900})}}))}))},
  });
}

class SyncZonesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = test::folderOfThisTest("sync-zones");
    // One display alarm per event, kept as a display alarm.
    use("photo-phone");
    run.anchorDate = CalendarDate::dateWithYear(2027, 3, 1, 0, 0, 0, TimeZone::systemTimeZone());
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  void use(const std::string& phone) {
    run.deviceDescription = readDictionary(kDevices + phone + ".plist");
    run.entitiesDescription = readDictionary(kDevices + phone + ".entities.plist");
    run.formatting.variables = readDictionary(kDevices + phone + ".variables.plist");
    const Dictionary clientValues = readDictionary(kDevices + phone + ".client.plist");
    if (!clientValues.empty()) {
      std::filesystem::create_directories(folder);
      run.formatting.clientStorePath = folder + "/" + phone + ".client.plist";
      MemorySyncEngineClient client(run.formatting.clientIdentifier, "test", Array(),
                                    run.formatting.clientStorePath);
      for (const auto& [key, value] : clientValues) client.setObject(value, key.stringValue());
    }
    run.phoneDirectory = folder + "/" + phone;
  }
  SyncReport sync(const std::vector<SyncInput>& records) {
    SyncResult result = ReferenceSync::run(run, records);
    EXPECT_EQ(result.error, "");
    return result.report;
  }
  std::vector<PhoneStoreRecord> stored(const std::string& dataClass) {
    PhoneStore store(run.phoneDirectory);
    usePhoneParsers(store, run.deviceDescription);
    auto contents = store.read(dataClass);
    return contents ? contents->records : std::vector<PhoneStoreRecord>{};
  }

  std::string folder;
  SyncRun run;
};

double instant(const Value& value) {
  return value.isDate() ? value.date().timeIntervalSinceReferenceDate() : -1;
}

TEST_F(SyncZonesTest, ExplodedOccurrencesFallOnTheirInstantsWithTheirOwnAlarms) {
  const SyncReport report = sync({{"choir", weeklyBerlinEvent()}});
  ASSERT_EQ(report.records.size(), 1u);
  EXPECT_EQ(report.records[0].outcome, SyncOutcome::exploded);
  EXPECT_EQ(report.records[0].events, 8u);

  const std::vector<PhoneStoreRecord> events = stored("Calendars");
  ASSERT_EQ(events.size(), 8u);
  // 17:00 GMT until 22 March, 16:00 GMT from 29 March.
  for (std::size_t week = 0; week < 8; ++week) {
    SCOPED_TRACE(week);
    const CalendarDate expected = CalendarDate::dateWithYear(
        2027, 3, 1, week < 4 ? 17 : 16, 0, 0, TimeZone::gmt()).dateByAddingYears(0, 0, 7 * int(week), 0, 0, 0);
    const PhoneStoreRecord& event = events[week];
    EXPECT_EQ(instant(event.fields.get("startDate")), expected.timeIntervalSinceReferenceDate())
        << event.fields.get("startDate").description();
    EXPECT_EQ(instant(event.fields.get("endDate")), expected.timeIntervalSinceReferenceDate() + 3600);
    // The single alarm, whatever form the phone gives it, rings 15 minutes
    // before this occurrence.
    auto alarms = event.fields.getArray("displayAlarms");
    ASSERT_TRUE(alarms && alarms->count() == 1) << event.fields.description();
    const Dictionary alarm = alarms->at(0).dictionary();
    if (alarm.contains("triggerdate"))
      EXPECT_EQ(instant(alarm.get("triggerdate")), expected.timeIntervalSinceReferenceDate() - 900);
    else
      EXPECT_EQ(alarm.get("triggerduration"), Value(std::int64_t{-900}));
  }
}

// The weekly Berlin event with two occurrences taken out (15 March 18:00 CET
// and 5 April 18:00 CEST), on a phone that keeps date-only exception dates
// and no zones, and one occurrence moved: the dates come back as the
// occurrences they stand for, also where the phone's zone changes daylight
// time on other dates than Berlin, and the moved one's date is dropped.
TEST_F(SyncZonesTest, ExceptionDatesComeBackAsTheirOccurrences) {
  use("flip-phone");
  run.keepRecords = true;
  Dictionary event = weeklyBerlinEvent();
  const Array exceptions = array({date(2027, 3, 15, 18, 0, "Europe/Berlin"),
                                  date(2027, 4, 5, 18, 0, "Europe/Berlin")});
  event.set("exceptionDates", Value(exceptions));
  // The 22 March occurrence moved to 20:00: the phone hides it from the rule
  // with one more exception date, which must not come back.
  event.set("detachedEvents",
            Value(array({Value(dictionary({{"entityName", Value("Calendars.Event")},
                                           {"summary", Value("Choir (moved)")},
                                           {"originalDate", date(2027, 3, 22, 18, 0, "Europe/Berlin")},
                                           {"startDate", date(2027, 3, 22, 20, 0, "Europe/Berlin")},
                                           {"endDate", date(2027, 3, 22, 21, 0, "Europe/Berlin")}}))})));
  const SyncReport report = sync({{"choir", event}});
  ASSERT_FALSE(report.records.empty());
  const SyncRecordReport& record = report.records[0];
  ASSERT_EQ(record.identifier, "choir");
  if (record.outcome == SyncOutcome::exploded) {
    // Where Monday evening in Berlin is Tuesday on the phone, the rule goes
    // as single events, without the two taken out and the moved one.
    EXPECT_EQ(record.events, 5u);
    for (const PhoneStoreRecord& single : stored("Calendars"))
      for (const Value& exception : exceptions)
        EXPECT_NE(instant(single.fields.get("startDate")), instant(exception));
    return;
  }
  // On the phone: the two taken out and the moved one.
  const std::vector<PhoneStoreRecord> onPhone = stored("Calendars");
  ASSERT_FALSE(onPhone.empty());
  auto hidden = onPhone[0].fields.getArray("exceptionDates");
  EXPECT_TRUE(hidden && hidden->count() == 3) << onPhone[0].fields.description();
  for (const SyncField& field : record.fields)
    EXPECT_EQ(field.field.find("exceptionDates"), std::string::npos) << field.field;
  ASSERT_TRUE(record.roundTrip);
  auto back = record.roundTrip->getArray("exceptionDates");
  ASSERT_TRUE(back && back->count() == 2) << record.roundTrip->description();
  for (std::size_t i = 0; i < 2; ++i)
    EXPECT_EQ(instant(back->at(i)), instant(exceptions.at(i))) << back->at(i).description();
}

// A daily all-day event 1 to 5 March 2027: its dates are anchored at 12:00
// GMT, so no zone moves its until date or its occurrences to another day.
Dictionary dailyAllDayEvent() {
  return dictionary({
      {"entityName", Value("Calendars.Event")},
      {"summary", Value("Fair")},
      {"allDay", Value(true)},
      {"startDate", date(2027, 3, 1, 12, 0, "GMT")},
      {"endDate", date(2027, 3, 2, 12, 0, "GMT")},
      {"recurrences",
       Value(array({Value(dictionary({{"entityName", Value("Calendars.Recurrence")},
                                      {"frequency", Value("daily")},
                                      {"interval", Value(std::int64_t{1})},
                                      {"until", date(2027, 3, 5, 12, 0, "GMT")}}))}))},
  });
}

TEST_F(SyncZonesTest, AllDayUntilDateStaysOnItsDay) {
  const SyncReport exploded = sync({{"fair", dailyAllDayEvent()}});
  ASSERT_EQ(exploded.records.size(), 1u);
  EXPECT_EQ(exploded.records[0].outcome, SyncOutcome::exploded);
  const std::vector<PhoneStoreRecord> days = stored("Calendars");
  ASSERT_EQ(days.size(), 5u);
  // The phone's all-day form: the day, in its own zone.
  for (std::size_t day = 0; day < days.size(); ++day) {
    const Value start = days[day].fields.get("startDate");
    ASSERT_TRUE(start.isDate());
    EXPECT_EQ(start.date().dayOfMonth(), 1 + int(day)) << start.description();
  }

  use("full-phone");
  run.keepRecords = true;
  const SyncReport kept = sync({{"fair", dailyAllDayEvent()}});
  ASSERT_EQ(kept.records.size(), 1u);
  for (const SyncField& field : kept.records[0].fields)
    EXPECT_EQ(field.field.find("recurrences"), std::string::npos) << field.field;
  ASSERT_TRUE(kept.records[0].roundTrip);
  auto recurrences = kept.records[0].roundTrip->getArray("recurrences");
  ASSERT_TRUE(recurrences && recurrences->count() == 1);
  EXPECT_EQ(instant(recurrences->at(0).dictionary().get("until")),
            instant(date(2027, 3, 5, 12, 0, "GMT")))
      << recurrences->at(0).dictionary().description();
}

// A phone that keeps one number per type keeps the first mobile and the home
// number, which moves from the end of the list to the second place: the
// report blames the numbers left out on the per-type limit, never a cut of
// the home number's value.
TEST_F(SyncZonesTest, SubRecordsAreMatchedByContentBeforeTheirFields) {
  use("basic-phone");
  Array numbers;
  for (int i = 0; i < 12; ++i)
    numbers.add(Value(dictionary({{"entityName", Value("Contacts.PhoneNumber")},
                                  {"type", Value("mobile")},
                                  {"value", Value("+4917" + std::to_string(10000000 + i))}})));
  numbers.add(Value(dictionary({{"entityName", Value("Contacts.PhoneNumber")},
                                {"type", Value("home")},
                                {"value", Value("+4930123456789")}})));
  const Dictionary contact = dictionary({{"entityName", Value("Contacts.Contact")},
                                         {"firstName", Value("Ada")},
                                         {"phoneNumbers", Value(numbers)}});
  const SyncReport report = sync({{"ada", contact}});
  ASSERT_EQ(report.records.size(), 1u);
  const SyncRecordReport& record = report.records[0];
  EXPECT_EQ(record.outcome, SyncOutcome::reduced);
  ASSERT_EQ(record.fields.size(), 11u);
  for (std::size_t i = 0; i < record.fields.size(); ++i) {
    EXPECT_EQ(record.fields[i].field, "phoneNumbers/" + std::to_string(i + 1));
    EXPECT_NE(record.fields[i].limit.find("perSubType"), std::string::npos) << record.fields[i].limit;
  }
}

// Only the summary is edited on the phone between two runs, of the weekly
// event held with its rule and alarm, and of one single event of the
// exploded form: the report names the summary and nothing else.
TEST_F(SyncZonesTest, APhoneEditOfTheSummaryReportsOnlyTheSummary) {
  // The photo phone as set up, then the full phone.
  for (const char* phone : {"photo-phone", "full-phone"}) {
    SCOPED_TRACE(phone);
    if (phone != std::string("photo-phone")) use(phone);
    sync({{"choir", weeklyBerlinEvent()}});
    PhoneStore store(run.phoneDirectory);
    usePhoneParsers(store, run.deviceDescription);
    auto contents = store.read("Calendars");
    ASSERT_TRUE(contents && !contents->records.empty());
    // The third single event when exploded: neither the first nor the last,
    // and on the far side of no daylight-time change.
    PhoneStoreRecord& edited = contents->records[std::min<std::size_t>(2, contents->records.size() - 1)];
    edited.fields.set("summary", Value("Choir, room 4"));
    ASSERT_EQ(store.write(*contents), PhoneStore::WriteResult::written);

    const SyncReport report = sync({{"choir", weeklyBerlinEvent()}});
    EXPECT_EQ(report.summary.changedOnPhone, 1u);
    std::size_t changed = 0;
    for (const SyncRecordReport& record : report.records) {
      if (record.outcome != SyncOutcome::changedOnPhone) continue;
      ++changed;
      std::vector<std::string> fields;
      // A single event's fields are named after it: "<occurrence>: summary".
      for (const SyncField& field : record.fields)
        fields.push_back(field.field.substr(field.field.find(": ") == std::string::npos
                                                ? 0
                                                : field.field.find(": ") + 2));
      EXPECT_EQ(fields, std::vector<std::string>{"summary"}) << record.identifier;
    }
    EXPECT_EQ(changed, 1u);
    std::filesystem::remove_all(run.phoneDirectory);
  }
}

// The description's alarm and recurrence entries, each with the record it
// acts on, through a whole run on the full phone.
struct DescriptionCase {
  const char* name;
  const char* flag;
  bool value;
  Dictionary record;
  // Checks the phone's form of the record.
  void (*check)(const Dictionary& onPhone);
};

Dictionary withRule(Dictionary event, std::initializer_list<std::pair<const char*, Value>> rule) {
  Dictionary recurrence = dictionary(rule);
  recurrence.set("entityName", Value("Calendars.Recurrence"));
  recurrence.set("frequency", Value("weekly"));
  recurrence.set("interval", Value(std::int64_t{1}));
  event.set("recurrences", Value(array({Value(recurrence)})));
  return event;
}

Dictionary firstRule(const Dictionary& onPhone) {
  auto rules = onPhone.getArray("recurrences");
  return rules && rules->count() == 1 ? rules->at(0).dictionary() : Dictionary();
}

bool hasAlarm(const Dictionary& onPhone) {
  for (const char* key : {"displayAlarms", "audioAlarms"})
    if (auto alarms = onPhone.getArray(key); alarms && !alarms->empty()) return true;
  return false;
}

TEST_F(SyncZonesTest, DescriptionEntriesActOnTheWholeRun) {
  Dictionary allDay = dailyAllDayEvent();
  allDay.remove("recurrences");
  allDay.set("displayAlarms", weeklyBerlinEvent().get("displayAlarms"));
  const Dictionary task = dictionary({
      {"entityName", Value("Calendars.Task")},
      {"summary", Value("Tax return")},
      {"dueDate", date(2027, 3, 10, 9, 0, "Europe/Berlin")},
      {"displayAlarms", weeklyBerlinEvent().get("displayAlarms")},
  });
  const DescriptionCase cases[] = {
      {"task alarm kept off", "doNotSyncAlarmForTask", true, task,
       [](const Dictionary& p) { EXPECT_FALSE(hasAlarm(p)) << p.description(); }},
      {"task alarm sent", "doNotSyncAlarmForTask", false, task,
       [](const Dictionary& p) { EXPECT_TRUE(hasAlarm(p)) << p.description(); }},
      {"all-day alarm kept off", "doNotSyncAlarmForADE", true, allDay,
       [](const Dictionary& p) { EXPECT_FALSE(hasAlarm(p)) << p.description(); }},
      {"all-day alarm sent", "doNotSyncAlarmForADE", false, allDay,
       [](const Dictionary& p) { EXPECT_TRUE(hasAlarm(p)) << p.description(); }},
      // Five Mondays from 1 March: the last on 29 March 18:00 CEST.
      {"count to until date", "needsToFormatCountToUntilDate", true,
       withRule(weeklyBerlinEvent(), {{"count", Value(std::int64_t{5})}}),
       [](const Dictionary& p) {
         const Dictionary rule = firstRule(p);
         EXPECT_FALSE(rule.contains("count") && !rule.get("count").isNull()) << p.description();
         const double until = instant(rule.get("until"));
         EXPECT_GE(until, instant(date(2027, 3, 29, 18, 0, "Europe/Berlin"))) << p.description();
         EXPECT_LT(until, instant(date(2027, 4, 5, 18, 0, "Europe/Berlin"))) << p.description();
       }},
      {"until on a Friday to the last Monday", "needsToFormatUntilDateToLastOccurrence", true,
       withRule(weeklyBerlinEvent(), {{"until", date(2027, 4, 2, 23, 59, "Europe/Berlin")}}),
       [](const Dictionary& p) {
         const Value until = firstRule(p).get("until");
         ASSERT_TRUE(until.isDate()) << p.description();
         EXPECT_GE(instant(until), instant(date(2027, 3, 29, 18, 0, "Europe/Berlin")));
         EXPECT_LT(instant(until), instant(date(2027, 3, 30, 0, 0, "Europe/Berlin")))
             << until.description();
       }},
      // The rule's week days in the week's order (the phone keeps rules anyway).
      {"week days sorted", "hasFullRecurrence", true,
       withRule(weeklyBerlinEvent(),
                {{"until", date(2027, 4, 19, 23, 59, "Europe/Berlin")},
                 {"bydaydays", Value(array({Value("friday"), Value("monday")}))},
                 {"bydayfreq", Value(array({Value(std::int64_t{0}), Value(std::int64_t{0})}))}}),
       [](const Dictionary& p) {
         EXPECT_EQ(firstRule(p).get("bydaydays"), Value(array({Value("monday"), Value("friday")})))
             << p.description();
       }},
  };
  for (const DescriptionCase& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(folder);
    use("full-phone");
    Dictionary calendars = run.deviceDescription.getDictionary("SyncDataClasses")
                               ->getDictionary("Calendars")
                               .value();
    calendars.set(c.flag, Value(c.value));
    run.keepRecords = true;
    const SyncReport report = sync({{"record", c.record}});
    ASSERT_EQ(report.records.size(), 1u);
    EXPECT_NE(report.records[0].outcome, SyncOutcome::rejected) << report.records[0].reason;
    const std::vector<PhoneStoreRecord> held = stored("Calendars");
    ASSERT_EQ(held.size(), 1u);
    c.check(held[0].fields);
    // Where the alarm goes to the phone, the engine-side prediction keeps it
    // (relative) too.
    if (std::string(c.name).find("alarm sent") != std::string::npos) {
      ASSERT_TRUE(report.records[0].prediction);
      EXPECT_TRUE(hasAlarm(*report.records[0].prediction)) << report.records[0].prediction->description();
    }
  }
}

struct ListCase {
  const char* name;
  Array engine, phone;
  std::vector<std::string> fields;
};

Value number(const char* type, const char* value) {
  return Value(dictionary({{"type", Value(type)}, {"value", Value(value)}}));
}

TEST(SubRecordMatchingTest, DifferencesAreNamedAfterMatchingByContent) {
  const ListCase cases[] = {
      {"reordered", array({number("home", "1"), number("work", "2")}),
       array({number("work", "2"), number("home", "1")}), {}},
      {"one left out", array({number("home", "1"), number("work", "2"), number("cell", "3")}),
       array({number("cell", "3"), number("home", "1")}), {"phoneNumbers/1"}},
      {"type changed", array({number("home", "1"), number("work", "2")}),
       array({number("work", "2"), number("cell", "1")}), {"phoneNumbers/0/type"}},
      {"value cut", array({number("home", "123456"), number("work", "2")}),
       array({number("work", "2"), number("home", "123")}), {"phoneNumbers/0/value"}},
      {"added on the phone", array({number("home", "1")}),
       array({number("home", "1"), number("work", "2")}), {"phoneNumbers/1"}},
  };
  for (const ListCase& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(ReferenceSync::differingFields(dictionary({{"phoneNumbers", Value(c.engine)}}),
                                             dictionary({{"phoneNumbers", Value(c.phone)}})),
              c.fields);
  }
}

}  // namespace
}  // namespace pc
