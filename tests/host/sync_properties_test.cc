// The properties of a synchronisation, on every example phone with every
// example record: the engine-side prediction is what comes back from the
// phone; a second run with nothing changed changes and rewrites nothing;
// every field that does not come back is named with the limit that removed
// it; the store survives corruption without touching the engine's records;
// a change made on the phone is told from a loss the phone model causes.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "calcore/CALTimeRange.h"
#include "conduit/SyncSettings.h"
#include "engine/MemoryEngine.h"
#include "host/DeviceFormatting.h"
#include "host/PhoneStore.h"
#include "host/ReferenceSync.h"
#include "host/VFormatParsers.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

const std::string kExamples = std::string(PC_SOURCE_DIR) + "/examples/";

struct ExamplePhone {
  std::string description;
  std::string entities;
  // Values of "$name" variables the examples do not ship for the phone.
  int maxPhoneNumbers = 0;
};

const std::vector<ExamplePhone> kPhones{
    {"basic-phone", "basic-phone"},
    {"flip-phone", "flip-phone"},
    {"organiser-phone", "organiser-phone"},
    {"photo-phone", "photo-phone"},
    {"full-phone", "full-phone"},
    {"contacts-calendar-phone-v1", "contacts-calendar-phone", 5},
    {"contacts-calendar-phone-v2", "contacts-calendar-phone"},
};

// Deliberate differences between the prediction and the round trip: the
// phone side mangles a record before formatting it (a task's due date in the
// phone's date-only form, alarms turned into those the phone holds or
// dropped, exception dates in the phone's form) and unmangling rebuilds these
// fields from what the phone holds, while the engine side formats the
// engine's record without mangling it.
const std::set<std::string> kMangledOnTheWayOut{"dueDate", "dueDateIsDateOnly", "displayAlarms",
                                                "audioAlarms", "exceptionDates"};

Dictionary readDictionary(const std::string& path) {
  std::optional<Value> contents = PropertyList::fromFile(path);
  return contents && contents->isDictionary() ? contents->dictionary() : Dictionary();
}

std::vector<SyncInput> exampleRecords() {
  std::vector<SyncInput> records;
  for (const char* folder : {"records/contacts", "records/calendar"}) {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(kExamples + folder))
      paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const auto& path : paths) {
      std::string error;
      auto record = readRecordFile(path.string(), &error);
      EXPECT_TRUE(record) << error;
      if (record) records.push_back({path.stem().string(), *record});
    }
  }
  return records;
}

Dictionary withEntity(const Dictionary& record, const std::string& entity) {
  Dictionary named = record.deepCopy();
  named.set("entityName", Value(entity));
  return named;
}

// The date at "recurrences/<i>/until" of each record, read in its own zone,
// names the same day.
bool sameDayNamed(const Dictionary& a, const Dictionary& b, const std::string& field) {
  const std::size_t index = std::stoul(field.substr(field.find('/') + 1));
  auto untilOf = [&](const Dictionary& record) -> std::optional<CalendarDate> {
    auto rules = record.getArray("recurrences");
    if (!rules || index >= rules->count()) return std::nullopt;
    const Value until = rules->at(index).dictionary().get("until");
    return until.isDate() ? std::optional<CalendarDate>(until.date()) : std::nullopt;
  };
  const auto x = untilOf(a);
  const auto y = untilOf(b);
  return x && y && x->yearOfCommonEra() == y->yearOfCommonEra() &&
         x->monthOfYear() == y->monthOfYear() && x->dayOfMonth() == y->dayOfMonth();
}

class SyncPropertiesTest : public ::testing::TestWithParam<ExamplePhone> {
 protected:
  void SetUp() override {
    folder = ::testing::TempDir() + "sync-" + std::to_string(::getpid()) + "-" +
             GetParam().description;
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder + "/phone");
    const std::string devices = kExamples + "devices/";
    run.deviceDescription = readDictionary(devices + GetParam().description + ".plist");
    run.entitiesDescription = readDictionary(devices + GetParam().entities + ".entities.plist");
    run.formatting.variables = readDictionary(devices + GetParam().entities + ".variables.plist");
    if (GetParam().maxPhoneNumbers)
      run.formatting.variables.set("MaxPhoneNumbers", Value(GetParam().maxPhoneNumbers));
    const Dictionary clientValues = readDictionary(devices + GetParam().entities + ".client.plist");
    if (!clientValues.empty()) {
      run.formatting.clientStorePath = folder + "/client.plist";
      MemorySyncEngineClient client(run.formatting.clientIdentifier, "test", Array(),
                                    run.formatting.clientStorePath);
      for (const auto& [key, value] : clientValues) client.setObject(value, key.stringValue());
    }
    run.phoneDirectory = folder + "/phone";
    run.anchorDate = CalendarDate::dateWithYear(2026, 11, 1, 0, 0, 0, TimeZone::systemTimeZone());
    run.keepRecords = true;
    records = exampleRecords();
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  SyncReport sync() {
    SyncResult result = ReferenceSync::run(run, records);
    EXPECT_EQ(result.error, "");
    return result.report;
  }

  std::string folder;
  SyncRun run;
  std::vector<SyncInput> records;
};

TEST_P(SyncPropertiesTest, PredictionEqualsRoundTripAndNothingIsSilentlyLost) {
  const SyncReport report = sync();
  ASSERT_FALSE(report.records.empty());
  std::size_t compared = 0;
  for (const SyncRecordReport& record : report.records) {
    SCOPED_TRACE(record.identifier);
    switch (record.outcome) {
      case SyncOutcome::rejected:
        EXPECT_FALSE(record.reason.empty());
        continue;
      case SyncOutcome::exploded:
        // The prediction is the recurring event; the phone holds its single
        // events, each predicted on its own when it is compared on a later run.
        EXPECT_GT(record.events + 1, 0u);
        continue;
      case SyncOutcome::changedOnPhone: ADD_FAILURE() << "nothing was changed on the phone"; continue;
      case SyncOutcome::sent:
      case SyncOutcome::reduced: break;
    }
    ASSERT_TRUE(record.roundTrip && record.prediction && record.assembled);
    ++compared;
    // Where they differ on purpose, the round trip holds the engine's own
    // value: unmangling restores what the phone cannot hold (alarms,
    // exception dates, date-only forms) while the prediction shows the
    // phone's reduced form.
    for (const std::string& field :
         ReferenceSync::changedFields(*record.prediction, *record.roundTrip, *record.assembled)) {
      const std::string key = field.substr(0, field.find('/'));
      if (kMangledOnTheWayOut.count(key)) continue;
      // A timed event moved to the phone's zone comes back at the same
      // instant in that zone, with its rule's day selectors rewritten for it.
      if (key == "recurrences" && (field.find("/byday") != std::string::npos ||
                                   field.find("/bymonthday") != std::string::npos))
        continue;
      // An all-day event's until date comes back anchored at 12:00 GMT of
      // the day it names, where the prediction shows the phone's form of
      // that same day.
      if (field.rfind("recurrences/", 0) == 0 && field.size() > 6 &&
          field.substr(field.size() - 6) == "/until" && record.roundTrip->getBool("allDay") &&
          sameDayNamed(*record.prediction, *record.roundTrip, field))
        continue;
      ADD_FAILURE() << field << " differs between the prediction and the round trip";
    }

    // Every field that did not come back as it went is reported with the
    // part of the description that removed it.
    const auto lost = ReferenceSync::differingFields(*record.assembled, *record.roundTrip);
    EXPECT_EQ(record.outcome == SyncOutcome::sent, lost.empty());
    ASSERT_EQ(record.fields.size(), lost.size());
    for (std::size_t i = 0; i < lost.size(); ++i) {
      EXPECT_EQ(record.fields[i].field, lost[i]);
      EXPECT_FALSE(record.fields[i].limit.empty()) << lost[i];
    }
    // The way back gives engine records again: the master and its sub-records.
    ASSERT_TRUE(record.engineRecords);
    EXPECT_EQ(record.engineRecords->master.getString("entityName"), record.entity);
  }
  EXPECT_GT(compared, 0u);
  const SyncSummary& s = report.summary;
  EXPECT_EQ(s.sent + s.reduced + s.exploded + s.rejected + s.changedOnPhone, report.records.size());
}

// Whatever the machine's zone: each single event of an exploded event starts
// at an occurrence of the engine's own expansion of the event, and its alarm
// rings as far before it as the engine's alarm rings before the event.
TEST_P(SyncPropertiesTest, ExplodedEventsFallOnTheEnginesOccurrences) {
  const SyncReport report = sync();
  PhoneStore store(run.phoneDirectory);
  usePhoneParsers(store, run.deviceDescription);
  const auto calendars = store.read("Calendars");
  Dictionary settings;
  settings.set(kAnchorDateKey, Value(*run.anchorDate));
  const CALDateRef from =
      CALDate::CALDateFromCalendarDate(SyncSettings::qvt_leftExpansionWindow(settings), false);
  const CALDateRef to =
      CALDate::CALDateFromCalendarDate(SyncSettings::qvt_rightExpansionWindow(settings), false);
  const CALTimeRange window(from.get(), to.get());
  for (const SyncRecordReport& record : report.records) {
    if (record.outcome != SyncOutcome::exploded) continue;
    SCOPED_TRACE(record.identifier);
    ASSERT_TRUE(record.assembled && calendars);
    const Dictionary& engine = *record.assembled;
    const bool allDay = engine.getBool("allDay");
    auto exploder = CALEventExploder::CALEventExploderWithAssembledEvent(engine);
    ASSERT_TRUE(exploder);
    // Occurrences as instants, or as days for an all-day event (the phone
    // keeps those as midnight on its own clock, the engine at 12:00 GMT).
    auto key = [&](const CalendarDate& date) {
      if (!allDay) return date.timeIntervalSinceReferenceDate();
      return double(date.yearOfCommonEra() * 10000 + date.monthOfYear() * 100 + date.dayOfMonth());
    };
    std::set<double> occurrences;
    for (const CALDateRef& date : exploder->produceDatesForTimeRange(window, nullptr, std::string()))
      occurrences.insert(key(date->calendarDate()));
    const double first = engine.get("startDate").date().timeIntervalSinceReferenceDate();
    // The engine's first alarm, as seconds before the start.
    std::optional<double> lead;
    for (const char* relation : {"displayAlarms", "audioAlarms"})
      if (auto alarms = engine.getArray(relation); alarms && !alarms->empty() && !lead) {
        const Dictionary alarm = alarms->at(0).dictionary();
        if (alarm.get("triggerduration").isNumber())
          lead = -alarm.get("triggerduration").doubleValue();
        else if (alarm.get("triggerdate").isDate())
          lead = first - alarm.get("triggerdate").date().timeIntervalSinceReferenceDate();
      }

    std::size_t singles = 0;
    for (const PhoneStoreRecord& single : calendars->records) {
      if (single.identifier.rfind(record.identifier + "#", 0) != 0) continue;
      ++singles;
      const Value start = single.fields.get("startDate");
      ASSERT_TRUE(start.isDate()) << single.identifier;
      EXPECT_TRUE(occurrences.count(key(start.date()))) << single.identifier << " starts "
                                                        << start.description();
      if (allDay || !lead) continue;
      for (const char* relation : {"displayAlarms", "audioAlarms"}) {
        auto alarms = single.fields.getArray(relation);
        if (!alarms || alarms->empty()) continue;
        const Dictionary alarm = alarms->at(0).dictionary();
        if (alarm.get("triggerdate").isDate()) {
          EXPECT_EQ(start.date().timeIntervalSinceReferenceDate() -
                        alarm.get("triggerdate").date().timeIntervalSinceReferenceDate(),
                    *lead)
              << single.identifier;
        } else if (alarm.get("triggerduration").isNumber()) {
          EXPECT_EQ(-alarm.get("triggerduration").doubleValue(), *lead) << single.identifier;
        }
      }
    }
    EXPECT_EQ(singles, record.events);
    EXPECT_LE(singles, occurrences.size());
  }
}

// A phone that keeps zones gets instants in UTC; one without zones gets the
// wall clocks of its own zone, with the TZ line that says which.
TEST_P(SyncPropertiesTest, CalendarFileIsInThePhonesTimeForm) {
  const SyncReport report = sync();
  std::ifstream file(run.phoneDirectory + "/Calendars.vcs", std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  ASSERT_NE(text.find("BEGIN:VEVENT"), std::string::npos);
  const bool keepsZones = GetParam().description == "full-phone" || GetParam().description == "organiser-phone";
  EXPECT_EQ(text.find("\r\nTZ:") != std::string::npos, !keepsZones) << text.substr(0, 600);
  if (!keepsZones) {
    // Timed starts are wall clocks: a digit, not "Z", ends the value.
    const std::size_t start = text.find("\r\nDTSTART:");
    ASSERT_NE(start, std::string::npos);
    const std::size_t end = text.find("\r\n", start + 2);
    EXPECT_NE(text[end - 1], 'Z') << text.substr(start, end - start);
  }
  EXPECT_EQ(report.summary.changedOnPhone, 0u);
}

TEST_P(SyncPropertiesTest, FormattingIsIdempotentAndASecondRunChangesNothing) {
  const SyncReport first = sync();
  EXPECT_FALSE(first.filesWritten.empty());

  auto engine = DeviceFormatting::phoneSide(run.deviceDescription, run.entitiesDescription,
                                            run.formatting)
                    ->engineSide();
  for (const SyncRecordReport& record : first.records) {
    if (!record.prediction) continue;
    SCOPED_TRACE(record.identifier);
    const FormattingOutcome again = engine->formatRecord(withEntity(*record.prediction, record.entity));
    ASSERT_TRUE(again.record) << again.rejection;
    for (const std::string& field : ReferenceSync::differingFields(*record.prediction, *again.record)) {
      // On purpose: junk removal comes before the default, so a text it
      // empties is dropped, and the next pass finds the field absent and
      // gives it "defaultValWhenEmpty".
      const Value byDefault = run.deviceDescription.getDictionary("Formatting")
                                  .value_or(Dictionary())
                                  .getDictionary(record.entity)
                                  .value_or(Dictionary())
                                  .getDictionary(field)
                                  .value_or(Dictionary())
                                  .get("defaultValWhenEmpty");
      if (!record.prediction->contains(field) && !byDefault.isNull() &&
          again.record->get(field) == byDefault)
        continue;
      ADD_FAILURE() << field << " changed when formatted again";
    }
  }

  const SyncReport second = sync();
  EXPECT_EQ(second.filesWritten, std::vector<std::string>{});
  EXPECT_EQ(second.summary.changedOnPhone, 0u);
  ASSERT_EQ(second.records.size(), first.records.size());
  for (std::size_t i = 0; i < first.records.size(); ++i) {
    EXPECT_EQ(second.records[i].identifier, first.records[i].identifier);
    EXPECT_EQ(second.records[i].outcome, first.records[i].outcome) << first.records[i].identifier;
    EXPECT_EQ(second.records[i].events, first.records[i].events);
  }
}

TEST_P(SyncPropertiesTest, AChangeOnThePhoneIsToldFromALoss) {
  sync();
  PhoneStore store(run.phoneDirectory);
  usePhoneParsers(store, run.deviceDescription);
  auto contacts = store.read("Contacts");
  ASSERT_TRUE(contacts);
  ASSERT_FALSE(contacts->records.empty());
  PhoneStoreRecord& edited = contacts->records.front();
  edited.fields.set("lastName", Value("Edited on the phone"));
  ASSERT_EQ(store.write(*contacts), PhoneStore::WriteResult::written);
  const std::string before = [&] {
    std::ifstream in(store.pathForDataClass("Contacts"));
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }();

  const SyncReport report = sync();
  EXPECT_EQ(report.summary.changedOnPhone, 1u);
  for (const SyncRecordReport& record : report.records) {
    if (record.identifier != edited.identifier) {
      EXPECT_NE(record.outcome, SyncOutcome::changedOnPhone) << record.identifier;
      continue;
    }
    EXPECT_EQ(record.outcome, SyncOutcome::changedOnPhone);
    ASSERT_EQ(record.fields.size(), 1u);
    EXPECT_EQ(record.fields[0].field, "lastName");
  }
  // The phone's version is kept.
  EXPECT_EQ(store.read("Contacts")->records.front().fields.getString("lastName"),
            "Edited on the phone");
  std::ifstream in(store.pathForDataClass("Contacts"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), before);
}

TEST_P(SyncPropertiesTest, ACorruptStoreFileStopsTheRunNamingIt) {
  sync();
  PhoneStore store(run.phoneDirectory);
  usePhoneParsers(store, run.deviceDescription);
  const std::string calendars = store.pathForDataClass("Calendars");
  const std::string contacts = store.pathForDataClass("Contacts");
  std::string text;
  {
    std::ifstream in(calendars);
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  std::ofstream(calendars, std::ios::trunc) << text.substr(0, text.size() / 2);
  const auto contactsTime = std::filesystem::last_write_time(contacts);
  std::vector<Dictionary> inputs;
  for (const SyncInput& input : records) inputs.push_back(input.record.deepCopy());

  const SyncResult result = ReferenceSync::run(run, records);
  EXPECT_EQ(result.error.rfind(calendars + ": ", 0), 0u) << result.error;
  EXPECT_TRUE(result.report.filesWritten.empty());
  EXPECT_EQ(std::filesystem::last_write_time(contacts), contactsTime);
  for (std::size_t i = 0; i < records.size(); ++i) EXPECT_EQ(records[i].record, inputs[i]);
}

INSTANTIATE_TEST_SUITE_P(ExamplePhones, SyncPropertiesTest, ::testing::ValuesIn(kPhones),
                         [](const auto& info) {
                           std::string name = info.param.description;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
}  // namespace pc

namespace pc {
namespace {

// The single events of an exploded event follow the window: those that fall
// out of it leave the phone instead of passing for entries made there.
TEST(SyncWindowTest, ExplodedEventsFollowTheWindow) {
  const std::string devices = kExamples + "devices/";
  SyncRun run;
  run.deviceDescription = readDictionary(devices + "basic-phone.plist");
  run.entitiesDescription = readDictionary(devices + "basic-phone.entities.plist");
  run.phoneDirectory = ::testing::TempDir() + "sync-window-" + std::to_string(::getpid());
  std::filesystem::remove_all(run.phoneDirectory);
  std::string error;
  const std::vector<SyncInput> records{
      {"weekly", *readRecordFile(kExamples + "events/weekly-team-meeting.plist", &error)}};

  std::vector<std::size_t> events;
  for (int month : {11, 12}) {
    run.anchorDate = CalendarDate::dateWithYear(2026, month, 1, 0, 0, 0, TimeZone::systemTimeZone());
    const SyncResult result = ReferenceSync::run(run, records);
    ASSERT_EQ(result.error, "");
    ASSERT_EQ(result.report.records.size(), 1u);
    EXPECT_EQ(result.report.records[0].outcome, SyncOutcome::exploded);
    events.push_back(result.report.records[0].events);
    PhoneStore store(run.phoneDirectory);
    usePhoneParsers(store, run.deviceDescription);
    const auto stored = store.read("Calendars");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->records.size(), events.back());
  }
  EXPECT_GT(events[0], 0u);
  std::filesystem::remove_all(run.phoneDirectory);
}

}  // namespace
}  // namespace pc
