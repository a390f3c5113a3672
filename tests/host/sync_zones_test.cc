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
#include "host/ReferenceSync.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"

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
    folder = ::testing::TempDir() + "sync-zones-" + std::to_string(::getpid()) + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::remove_all(folder);
    use("photo-phone");
    // One display alarm per event, kept as a display alarm.
    Dictionary calendars = run.deviceDescription.getDictionary("SyncDataClasses")
                               ->getDictionary("Calendars")
                               .value();
    calendars.set("alarmTypeIsDisplay", Value(true));
    run.anchorDate = CalendarDate::dateWithYear(2027, 3, 1, 0, 0, 0, TimeZone::systemTimeZone());
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  void use(const std::string& phone) {
    run.deviceDescription = readDictionary(kDevices + phone + ".plist");
    run.entitiesDescription = readDictionary(kDevices + phone + ".entities.plist");
    run.formatting.variables = readDictionary(kDevices + phone + ".variables.plist");
    const Dictionary clientValues = readDictionary(kDevices + phone + ".client.plist");
    if (!clientValues.empty()) {
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
    auto contents = PhoneStore(run.phoneDirectory).read(dataClass);
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
// and no zones: the dates come back as the occurrences they stand for, also
// where the phone's zone changes daylight time on other dates than Berlin.
TEST_F(SyncZonesTest, ExceptionDatesComeBackAsTheirOccurrences) {
  use("flip-phone");
  run.keepRecords = true;
  Dictionary event = weeklyBerlinEvent();
  const Array exceptions = array({date(2027, 3, 15, 18, 0, "Europe/Berlin"),
                                  date(2027, 4, 5, 18, 0, "Europe/Berlin")});
  event.set("exceptionDates", Value(exceptions));
  const SyncReport report = sync({{"choir", event}});
  ASSERT_EQ(report.records.size(), 1u);
  const SyncRecordReport& record = report.records[0];
  if (record.outcome == SyncOutcome::exploded) {
    // Where Monday evening in Berlin is Tuesday on the phone, the rule goes
    // as single events, without the two taken out.
    EXPECT_EQ(record.events, 6u);
    for (const PhoneStoreRecord& single : stored("Calendars"))
      for (const Value& exception : exceptions)
        EXPECT_NE(instant(single.fields.get("startDate")), instant(exception));
    return;
  }
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
