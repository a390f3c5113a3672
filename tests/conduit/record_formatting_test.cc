// Records formatted as a phone model holds them, on the phone side and on the
// engine side (the record formatter the engine loads for a client), and the
// check of device descriptions.

#include <gtest/gtest.h>

#include <random>

#include "conduit/CFPhone.h"
#include "conduit/QVTSyncFormatter.h"
#include "conduit_test_support.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/DeviceFormatting.h"
#include "formatting/EntityFormatter.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::testing {
namespace {

const std::string kExamples = std::string(PC_SOURCE_DIR) + "/examples/";

Dictionary device(const std::string& format) {
  return loadExample("contacts-calendar-phone-" + format + ".plist");
}

Dictionary entities() { return exampleEntities(); }

DeviceFormattingOptions options() {
  DeviceFormattingOptions o;
  o.variables = Dictionary{{"MaxPhoneNumbers", 3}};
  return o;
}

Dictionary phoneNumber(const char* type, const char* value) {
  return Dictionary{{kEngineRecordEntityNameKey, kContactsPhoneNumber}, {"type", type},
                    {"value", value}};
}

// Records that reach every step: long and accented names, line breaks, more
// numbers of a type than phones hold, sub-records of the wrong shape.
std::vector<Dictionary> sampleRecords() {
  std::vector<Dictionary> records;
  records.push_back(Dictionary{
      {kEngineRecordEntityNameKey, kContactsContact},
      {"firstName", "Marie-Th\xC3\xA9r\xC3\xA8se Alexandrine"},
      {"lastName", "de La Tour d'Auvergne;Lauraguais"},
      {"companyName", "Compagnie G\xC3\xA9n\xC3\xA9rale des Eaux et For\xC3\xAAts"},
      {"notes", "line one \n line two\r\nline three"},
      {"phoneNumbers", Array{phoneNumber("home", "+33 1 23 45 67 89"),
                             phoneNumber("home", "01 99"), phoneNumber("mobile", "06-12"),
                             phoneNumber("home fax", "01 55"), phoneNumber("mobile", "07 00"),
                             phoneNumber("mobile", "07 01"), "an-identifier"}},
      {"emailAddresses", "not a list"}});
  records.push_back(Dictionary{{kEngineRecordEntityNameKey, kContactsContact},
                               {"companyName", "Only a company"}});
  records.push_back(Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent},
                               {"summary", std::string(300, 's')},
                               {"location", "Room 4"},
                               {"startDate", 12345}});
  for (const char* name : {"weekly-team-meeting", "monthly-on-the-31st", "yearly-all-day"}) {
    auto record = readRecordFile(kExamples + "events/" + name + ".plist");
    EXPECT_TRUE(record) << name;
    if (record) records.push_back(*record);
  }
  records.push_back(Dictionary{{kEngineRecordEntityNameKey, "Nobody.Knows"}});
  records.push_back(Dictionary{{"summary", "no entity"}});
  return records;
}

void expectSameRecords(const DeviceFormatting& phone, const DeviceFormatting& engine,
                       const std::vector<Dictionary>& records) {
  for (const Dictionary& record : records) {
    SCOPED_TRACE(record.description());
    const Dictionary before = record.deepCopy();
    FormattingOutcome phoneSide = phone.formatRecord(record);
    FormattingOutcome engineSide = engine.formatRecord(record);
    EXPECT_EQ(record.description(), before.description()) << "the input must be left alone";
    ASSERT_EQ(phoneSide.record.has_value(), engineSide.record.has_value());
    if (phoneSide.record)
      EXPECT_TRUE(*phoneSide.record == *engineSide.record)
          << phoneSide.record->description() << "\n" << engineSide.record->description();
    else EXPECT_EQ(phoneSide.rejection, engineSide.rejection);
  }
}

TEST(RecordFormatting, BothSidesGiveTheSameRecordsInBothFormats) {
  installStandIns();
  for (const char* format : {"v1", "v2"}) {
    SCOPED_TRACE(format);
    auto phone = DeviceFormatting::phoneSide(device(format), entities(), options());
    auto engine = phone->engineSide();
    ASSERT_TRUE(engine);
    EXPECT_EQ(phone->supportedEntityNames(), engine->supportedEntityNames());
    expectSameRecords(*phone, *engine, sampleRecords());
  }
}

TEST(RecordFormatting, SubRecordsAreAdmittedUnderTheLimits) {
  installStandIns();
  auto phone = DeviceFormatting::phoneSide(device("v2"), entities(), options());
  FormattingOutcome outcome = phone->formatRecord(sampleRecords().front());
  ASSERT_TRUE(outcome.record) << outcome.rejection;
  const Dictionary& contact = *outcome.record;
  EXPECT_EQ(contact.get("lastName"), Value("de La Tour d'AuvergneLau"));
  EXPECT_FALSE(contact.contains("emailAddresses"));
  // One of each type the phone maps; the identifier stays.
  std::vector<std::string> kept;
  for (const Value& number : contact.get("phoneNumbers").array())
    kept.push_back(number.isDictionary() ? number.dictionary().getString("type") + " " +
                                               number.dictionary().getString("value")
                                         : number.stringValue());
  EXPECT_EQ(kept, (std::vector<std::string>{"home +33123456789", "mobile 0612",
                                            "home fax 0155", "an-identifier"}));

  auto v1 = DeviceFormatting::phoneSide(device("v1"), entities(), options());
  outcome = v1->formatRecord(sampleRecords().front());
  ASSERT_TRUE(outcome.record);
  // At most three numbers ("$MaxPhoneNumbers"), two mobiles.
  EXPECT_EQ(outcome.record->get("phoneNumbers").array().count(), 4u);
  EXPECT_EQ(v1->formatterForEntity(kContactsPhoneNumber)->maxRecord(), 3);

  outcome = phone->formatRecord(Dictionary{{kEngineRecordEntityNameKey, "Nobody.Knows"}});
  EXPECT_EQ(outcome.rejection, "the phone has no formatter for Nobody.Knows");
}

TEST(RecordFormatting, EngineSideFromAClientStore) {
  installStandIns();
  const std::string store = (makeTemporaryFolder() / "client.plist").string();
  DeviceFormattingOptions o = options();
  o.clientStorePath = store;
  auto phone = DeviceFormatting::phoneSide(device("v1"), entities(), o);
  auto engine = DeviceFormatting::engineSideFromClientStore(store);
  ASSERT_TRUE(engine);
  expectSameRecords(*phone, *engine, sampleRecords());
  EXPECT_EQ(DeviceFormatting::engineSideFromClientStore(store + ".missing"), nullptr);
}

TEST(EngineRecordFormatter, ClientWithoutAPhoneFormatsNothing) {
  LogCapture log;
  auto client = std::make_shared<MemorySyncEngineClient>("c", "C", Array{});
  auto formatter = loadRecordFormatter("QVTSyncFormatter", client, nullptr);
  ASSERT_TRUE(formatter);
  EXPECT_TRUE(log.contains("heho c C"));
  EXPECT_TRUE(formatter->supportedEntityNames().empty());
  EXPECT_FALSE(formatter->formattedRecordForRecord(
      Dictionary{{kEngineRecordEntityNameKey, kContactsContact}}, "id"));
  EXPECT_TRUE(log.contains("no formatter!!"));
  EXPECT_EQ(loadRecordFormatter("NoSuchFormatter", client, nullptr), nullptr);
}

TEST(EngineRecordFormatter, AnEntityThatCannotBeBuiltIsLeftOut) {
  installStandIns();
  Dictionary description = device("v1").deepCopy();
  description.getDictionary(kEntityFormattersKey)
      ->getDictionary(kContactsPhoneNumber)
      ->set("FormatterClass", "NoSuchClass");
  DeviceFormattingOptions o = options();
  EXPECT_THROW(DeviceFormatting::phoneSide(description, entities(), o), Exception);

  auto client = std::make_shared<MemorySyncEngineClient>("c", "C", Array{});
  client->setObject(description, kPhoneConduitClientKey);
  client->setObject(entities().get(kEngineClientEntitiesKey), kEntitiesDescClientKey);
  LogCapture log;
  QVTSyncFormatter formatter(client, std::make_shared<MemoryTruthSnapshot>());
  EXPECT_TRUE(log.contains("some methods are not in the bundle"));
  EXPECT_EQ(formatter.formatterForEntity(kContactsPhoneNumber), nullptr);
  EXPECT_FALSE(formatter.formattedRecordForRecord(phoneNumber("home", "1"), "p"));
  auto contact = formatter.formattedRecordForRecord(
      Dictionary{{kEngineRecordEntityNameKey, kContactsContact}, {"firstName", "Ann"}}, "c");
  ASSERT_TRUE(contact);
  EXPECT_EQ(contact->get("firstName"), Value("Ann"));
}

TEST(DescriptionCheck, CollectsEveryProblemWithItsKeyPath) {
  installStandIns();
  for (const char* format : {"v1", "v2"})
    EXPECT_TRUE(checkDeviceDescription(device(format), entities(), options()).empty()) << format;

  Dictionary description = device("v1").deepCopy();
  Dictionary first = *description.getDictionary(kEntityFormattersKey);
  first.getDictionary(kContactsContact)->set("FieldFormatting",
      Dictionary{{"firstName", "noSuchMethod:"}, {"lastName", Array{"maxLength::", "x", 3}}});
  first.getDictionary(kContactsPhoneNumber)->set("MaxNumber", "$Undefined");
  first.getDictionary(kContactsEmailAddress)->set("FormatterClass", "Nope");
  first.getDictionary(kContactsEmailAddress)->set("PreFiltering", Dictionary());
  description.set(kFormattingKey, Dictionary{
      {kContactsPhoneNumber,
       Dictionary{{"type", Dictionary{{"mappings", Array{"HOME", Dictionary{{"originalValue", "home"},
                                                                          {"mappedValue", "H"}}}}}},
                  {"image", Dictionary{{"imageThresholdSize", 10}, {"imageMaxWidth", 5}}}}}});
  std::vector<std::pair<std::string, std::string>> found;
  for (const DescriptionProblem& problem : checkDeviceDescription(description, entities(), options()))
    found.emplace_back(problem.keyPath, problem.message);
  const std::vector<std::pair<std::string, std::string>> expected{
      {"Formatting/Contacts.PhoneNumber/type/mappings/0", "a mapping must be a dictionary, not HOME"},
      {"Formatting/Contacts.PhoneNumber/image/imageThresholdSize",
       "can't have a positive threshold and a non positive dimension.  Fix the client formatting "
       "description"},
      {"EntityFormatters/Contacts.PhoneNumber/MaxNumber", "the ivar Undefined is not defined"},
      {"EntityFormatters/Contacts.PhoneNumber/MaxNumber",
       "MaxNumber should be strictly positive.  Currently, it is 0"},
      {"EntityFormatters/Contacts.EmailAddress/FormatterClass", "cannot find the formatting class Nope"},
      {"EntityFormatters/Contacts.EmailAddress/PreFiltering", "what is it: {}"},
      {"EntityFormatters/Contacts.Contact/FieldFormatting/firstName",
       "cannot find method signature for \"-[FormattingMethods noSuchMethod:]\""},
      {"EntityFormatters/Contacts.Contact/FieldFormatting/lastName",
       "not enough argument for method maxLength::"},
  };
  for (const auto& problem : expected)
    EXPECT_NE(std::find(found.begin(), found.end(), problem), found.end())
        << problem.first << ": " << problem.second;
  EXPECT_EQ(found.size(), expected.size());

  auto problems = checkDeviceDescription(description, Dictionary(), options());
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].message, "no \"Entities\" dictionary in the entities description");
}

// Random changes to records and descriptions: building may refuse a
// description with an exception (which the check then reports), formatting
// never fails and both sides agree.
TEST(RecordFormattingFuzz, RandomMutationsNeverCrashAndBothSidesAgree) {
  installStandIns();
  std::mt19937 random(20261122);
  const std::vector<Value> oddValues{
      Value(), Value(-1), Value(0), Value(3.5), Value(""), Value("$MaxPhoneNumbers"),
      Value("\xF0\x9F\x98\x80\n;"), Value(Data::fromString("xyz")), Value(Array{}),
      Value(Array{"maxLength::", 2}), Value(Dictionary{}), Value(Dictionary{{"a", 1}}),
      Value(true), Value(std::string(500, 'w'))};
  // Copies: containers are shared by reference, and a shared one could end up inside itself.
  auto odd = [&] { return oddValues[random() % oddValues.size()].deepCopy(); };
  // Replaces one value somewhere inside `value` (depth-first, at random).
  std::function<void(Value&, int)> mutate = [&](Value& value, int depth) {
    if (depth > 0 && random() % 3 == 0) {
      value = odd();
      return;
    }
    if (auto dictionary = value.asDictionary(); dictionary && !dictionary->empty()) {
      Array keys = dictionary->keys();
      const Value key = keys[random() % keys.count()];
      Value inner = dictionary->get(key);
      mutate(inner, depth + 1);
      dictionary->set(key, inner);
    } else if (auto array = value.asArray(); array && !array->empty()) {
      const std::size_t index = random() % array->count();
      Value inner = array->at(index);
      mutate(inner, depth + 1);
      array->set(index, inner);
    } else if (depth > 0) {
      value = odd();
    }
  };

  const std::vector<Dictionary> records = sampleRecords();
  int built = 0;
  for (int round = 0; round < 200; ++round) {
    Value description = Value(device(round % 2 ? "v1" : "v2").deepCopy());
    if (round % 3) mutate(description, 0);
    // A description the check passes must build; one that does not build must
    // have problems.
    const std::vector<DescriptionProblem> problems =
        checkDeviceDescription(description.dictionary(), entities(), options());
    std::unique_ptr<DeviceFormatting> phone;
    try {
      phone = DeviceFormatting::phoneSide(description.dictionary(), entities(), options());
    } catch (const Exception& exception) {
      EXPECT_FALSE(problems.empty()) << exception.reason();
      continue;
    }
    ++built;
    auto engine = phone->engineSide();
    ASSERT_TRUE(engine);
    for (int i = 0; i < 10; ++i) {
      Value record = Value(records[random() % records.size()].deepCopy());
      for (int changes = random() % 4; changes > 0; --changes) mutate(record, 0);
      SCOPED_TRACE(record.description());
      FormattingOutcome a = phone->formatRecord(record.dictionary());
      FormattingOutcome b = engine->formatRecord(record.dictionary());
      ASSERT_EQ(a.record.has_value(), b.record.has_value());
      if (a.record) {
        EXPECT_TRUE(*a.record == *b.record) << a.record->description() << "\n"
                                            << b.record->description();
      }
    }
  }
  EXPECT_GT(built, 60);
}

}  // namespace
}  // namespace pc::testing
