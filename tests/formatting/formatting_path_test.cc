// The formatting of whole records: sub-records formatted with their owner and
// filtered against the record being built, records that format alike
// whatever was formatted before them, and description mistakes reported.

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>

#include "engine/SchemaNames.h"
#include "host/DeviceFormatting.h"
#include "formatting/ExamplePhones.h"
#include "formatting/FormattingMethods.h"
#include "util/PHCMangling.h"

namespace pc::testing {
namespace {

std::unique_ptr<DeviceFormatting> phoneFor(const ExamplePhone& example) {
  auto phone = DeviceFormatting::phoneSide(example.description, example.entities, example.options);
  EXPECT_TRUE(phone) << example.name;
  return phone;
}

Dictionary exampleRecord(const std::string& relativePath) {
  std::string error;
  std::optional<Dictionary> record =
      readRecordFile(examplesFolder() + "records/" + relativePath, &error);
  EXPECT_TRUE(record) << error;
  return record.value_or(Dictionary());
}

std::size_t countOf(const Dictionary& record, const char* key) {
  auto list = record.getArray(key);
  return list ? list->count() : 0;
}

Dictionary alarmAt(std::int64_t secondsBefore) {
  return Dictionary{{kEngineRecordEntityNameKey, kCalendarsDisplayAlarm},
                    {kCalendarsAudioAlarmTriggerduration, Value(-secondsBefore)}};
}

// Sub-records reach the hooks with their owner, on both sides: a relative
// alarm needs its event's start, a counted rule its event to become an until.
TEST(FormattingPathTest, SubRecordsAreFormattedWithTheirOwner) {
  struct Case {
    const char* phone;
    const char* record;
    std::function<void(const Dictionary&)> check;
  };
  const Case cases[] = {
      {"full-phone", "calendar/event-02.plist",
       [](const Dictionary& out) {
         ASSERT_EQ(countOf(out, kCalendarsEventDisplayAlarms), 1u);
         EXPECT_EQ(out.getArray(kCalendarsEventDisplayAlarms)->first().dictionary().get(
                       kCalendarsAudioAlarmTriggerduration),
                   Value(-900));
       }},
      {"organiser-phone", "calendar/event-01.plist",
       [](const Dictionary& out) {
         ASSERT_EQ(countOf(out, kCalendarsEventRecurrences), 1u);
         const Dictionary rule = out.getArray(kCalendarsEventRecurrences)->first().dictionary();
         EXPECT_FALSE(rule.contains(kCalendarsRecurrenceCount)) << Value(rule).description();
         EXPECT_TRUE(rule.get(kCalendarsRecurrenceUntil).isDate()) << Value(rule).description();
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.phone) + " " + c.record);
    const auto phone = phoneFor(loadExamplePhone(c.phone));
    ASSERT_TRUE(phone);
    const auto engine = phone->engineSide();
    ASSERT_TRUE(engine);
    const Dictionary input = exampleRecord(c.record);
    for (const DeviceFormatting* side : {phone.get(), engine.get()}) {
      const FormattingOutcome outcome = side->formatRecord(input);
      ASSERT_TRUE(outcome.record) << outcome.rejection;
      c.check(*outcome.record);
      // The owner view used while formatting never reaches the phone.
      for (const char* relation : {kCalendarsEventDisplayAlarms, kCalendarsEventRecurrences}) {
        if (auto subs = outcome.record->getArray(relation)) {
          for (const Value& sub : *subs)
            EXPECT_FALSE(sub.dictionary().get(kCalendarsRecurrenceOwner).isArray()) << sub.description();
        }
      }
    }
  }
}

// Alarm filters judge the record as the phone will hold it: what is admitted
// so far, the entity, the formatted status.
TEST(FormattingPathTest, AlarmFiltersSeeTheRecordBeingBuilt) {
  // The organiser phone keeps one alarm through genericAlarmFilter:alarm:.
  {
    const auto phone = phoneFor(loadExamplePhone("organiser-phone"));
    ASSERT_TRUE(phone);
    Dictionary event = exampleRecord("calendar/event-10.plist");
    const Dictionary first = event.getArray(kCalendarsEventDisplayAlarms)->first().dictionary();
    event.set(kCalendarsEventDisplayAlarms, Array{Value(first), Value(alarmAt(600)), Value(alarmAt(300))});
    const FormattingOutcome outcome = phone->formatRecord(event);
    ASSERT_TRUE(outcome.record) << outcome.rejection;
    ASSERT_EQ(countOf(*outcome.record, kCalendarsEventDisplayAlarms), 1u);
    EXPECT_EQ(outcome.record->getArray(kCalendarsEventDisplayAlarms)->first().dictionary().get(
                  kCalendarsDisplayAlarmTriggerdate),
              first.get(kCalendarsDisplayAlarmTriggerdate));
  }
  // The full phone drops the alarms of completed tasks only.
  const auto phone = phoneFor(loadExamplePhone("full-phone"));
  ASSERT_TRUE(phone);
  int completed = 0, open = 0;
  for (const ExampleRecord& example : exampleRecords()) {
    if (example.record.getString(kEngineRecordEntityNameKey) != kCalendarsTask ||
        countOf(example.record, kCalendarsTaskDisplayAlarms) == 0)
      continue;
    const FormattingOutcome outcome = phone->formatRecord(example.record);
    if (!outcome.record) continue;
    const bool done = example.record.get(kCalendarsTaskStatus) == Value("completed");
    (done ? completed : open)++;
    if (done) EXPECT_EQ(countOf(*outcome.record, kCalendarsTaskDisplayAlarms), 0u) << example.path;
    else EXPECT_GT(countOf(*outcome.record, kCalendarsTaskDisplayAlarms), 0u) << example.path;
  }
  EXPECT_GT(completed, 0);
  EXPECT_GT(open, 0);
}

// A record formats the same whatever was formatted before it, and the
// engine's record is left as it was.
TEST(FormattingPathTest, FormattingChangesNothingItDoesNotOwn) {
  // Constants handed out by the methods are copies.
  FormattingMethods methods;
  const Value constant(Array{Value("a"), Value("b")});
  for (const Value& answer :
       {methods.setIfNotSet(Value(), constant), methods.setFieldToValue(Value("x"), constant),
        methods.setStringIfNotSet(Value(""), constant)}) {
    answer.array().removeLast();
    EXPECT_EQ(constant.array().count(), 2u);
  }

  // A contact's list cut for the phone is the record's own.
  const Dictionary contact{
      {kEngineRecordEntityNameKey, kContactsContact},
      {kContactsContactEmailAddresses, Array{Value(Dictionary{{"value", "a@x.org"}}),
                                             Value(Dictionary{{"value", "b@x.org"}}),
                                             Value(Dictionary{{"value", "c@x.org"}})}}};
  const Array engineList = contact.getArray(kContactsContactEmailAddresses)->copy();
  Dictionary working = contact.copy();
  methods.formatContactNokiaSeries40(Value(working), Value(1), false);
  EXPECT_EQ(countOf(working, kContactsContactEmailAddresses), 1u);
  EXPECT_EQ(countOf(contact, kContactsContactEmailAddresses), 3u);

  // Every example record formats alike first and after all the others, on
  // every phone and on both sides, and its input stays as it was.
  for (const std::string& name : examplePhoneNames()) {
    const auto phone = phoneFor(loadExamplePhone(name));
    ASSERT_TRUE(phone);
    const auto engine = phone->engineSide();
    for (const DeviceFormatting* side : {phone.get(), engine.get()}) {
      std::vector<std::optional<Dictionary>> firstPass;
      for (const ExampleRecord& example : exampleRecords())
        firstPass.push_back(side->formatRecord(example.record).record);
      const auto& records = exampleRecords();
      for (std::size_t i = records.size(); i-- > 0;) {
        const Dictionary before = records[i].record.deepCopy();
        EXPECT_EQ(side->formatRecord(records[i].record).record, firstPass[i])
            << name << " " << records[i].path;
        EXPECT_EQ(records[i].record, before) << name << " " << records[i].path;
      }
    }
  }
}

// Misspelt, wrongly typed or impossible entries are listed with their key
// path instead of passing silently.
TEST(FormattingPathTest, DescriptionMistakesAreListedWithTheirKeyPath) {
  struct Case {
    const char* what;
    std::function<void(Dictionary&)> damage;
    const char* keyPath;
  };
  auto entry = [](Dictionary& description, const char* format, const char* entity) {
    return description.getDictionary(format)->getDictionary(entity).value();
  };
  const Case cases[] = {
      {"misspelt maxLength",
       [&](Dictionary& d) {
         entry(d, "Formatting", "Contacts.Contact").getDictionary("notes")->set("maxLenght", 20);
       },
       "Formatting/Contacts.Contact/notes/maxLenght"},
      {"misspelt charsToKeep",
       [&](Dictionary& d) {
         entry(d, "Formatting", "Contacts.Contact").getDictionary("notes")->set("charsToKeeep", "0123");
       },
       "Formatting/Contacts.Contact/notes/charsToKeeep"},
      {"misspelt MaxNumber",
       [&](Dictionary& d) { entry(d, "EntityFormatters", "Calendars.DisplayAlarm").set("MaxNumbr", 1); },
       "EntityFormatters/Calendars.DisplayAlarm/MaxNumbr"},
      {"misspelt FieldFormatting",
       [&](Dictionary& d) {
         entry(d, "EntityFormatters", "Calendars.Event").set("FieldFormating", Dictionary());
       },
       "EntityFormatters/Calendars.Event/FieldFormating"},
      {"entity entry that is a string",
       [](Dictionary& d) { d.getDictionary("EntityFormatters")->set("Calendars.Task", "formatTask"); },
       "EntityFormatters/Calendars.Task"},
      {"field entry that is a string",
       [](Dictionary& d) { d.getDictionary("Formatting")->set("Contacts.URL", "short"); },
       "Formatting/Contacts.URL"},
      {"negative image width",
       [&](Dictionary& d) {
         Dictionary image = entry(d, "Formatting", "Contacts.Contact").getDictionary("image").value();
         image.set("imageThresholdSize", 100);
         image.set("imageMaxWidth", -50);
       },
       "Formatting/Contacts.Contact/image/imageThresholdSize"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ExamplePhone phone = loadExamplePhone("full-phone");
    phone.description = phone.description.deepCopy();
    c.damage(phone.description);
    bool found = false;
    for (const DescriptionProblem& problem :
         checkDeviceDescription(phone.description, phone.entities, phone.options))
      found = found || problem.keyPath == c.keyPath;
    EXPECT_TRUE(found) << c.keyPath;
  }

  // The command lists it and says the description is not usable.
  ExamplePhone phone = loadExamplePhone("full-phone");
  Dictionary damaged = phone.description.deepCopy();
  cases[2].damage(damaged);
  const std::string folder = scratchFolder("misspelt");
  const std::string device = folder + "/device.plist";
  ASSERT_TRUE(PropertyList::writeToFile(Value(damaged), device));
  const std::string base = examplesFolder() + "devices/full-phone";
  const std::string command = std::string(PC_PROGRAM) + " check-device --device " + device +
                              " --entities " + base + ".entities.plist --variables " + base +
                              ".variables.plist 2>" + folder + "/err";
  EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), 1);
  std::ifstream err(folder + "/err");
  const std::string text((std::istreambuf_iterator<char>(err)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("EntityFormatters/Calendars.DisplayAlarm/MaxNumbr"), std::string::npos) << text;
}

}  // namespace
}  // namespace pc::testing
