// The shipped phone models and records: both sides of every model agree on
// every record, and damaged records are formatted or rejected, never a crash.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "ExamplePhones.h"
#include "platform/Strings.h"

namespace pc::testing {
namespace {

std::string recordText(const std::optional<Dictionary>& record) {
  if (!record) return "(rejected)";
  return PHCMangling::phc_nicePList(Value(*record)).value_or("(cannot be written)");
}

// Formats every example record on one phone, on both sides.
struct FormattedExamples {
  std::map<std::string, std::optional<Dictionary>> phone;  // by record path
  std::map<std::string, std::string> entity;               // by record path
  int formatted = 0;
};

FormattedExamples formatExamplesOnBothSides(const std::string& name) {
  FormattedExamples result;
  const ExamplePhone example = loadExamplePhone(name);
  const auto phone = DeviceFormatting::phoneSide(example.description, example.entities, example.options);
  if (!phone) {
    ADD_FAILURE() << name << ": no phone";
    return result;
  }
  const auto engine = DeviceFormatting::engineSideFromClientStore(example.options.clientStorePath);
  if (!engine) {
    ADD_FAILURE() << name << ": no engine side from " << example.options.clientStorePath;
    return result;
  }
  for (const ExampleRecord& input : exampleRecords()) {
    const Dictionary before = input.record.deepCopy();
    const FormattingOutcome onPhone = phone->formatRecord(input.record);
    const FormattingOutcome onEngine = engine->formatRecord(input.record);
    EXPECT_EQ(recordText(onPhone.record), recordText(onEngine.record)) << name << " " << input.path;
    EXPECT_EQ(onPhone.record.has_value() ? std::string() : onPhone.rejection,
              onEngine.record.has_value() ? std::string() : onEngine.rejection)
        << name << " " << input.path;
    EXPECT_EQ(input.record, before) << "formatting changed its input " << input.path;
    // Handing over a copy formats it where it stands, to the same answer.
    for (const DeviceFormatting* side : {phone.get(), engine.get()}) {
      const FormattingOutcome handedOver = side->formatRecordTakingOwnership(input.record.deepCopy());
      EXPECT_EQ(recordText(handedOver.record), recordText(onPhone.record))
          << name << " " << input.path << (side == engine.get() ? " engine side" : " phone side");
      EXPECT_EQ(handedOver.rejection, onPhone.rejection) << name << " " << input.path;
    }
    if (onPhone.record) ++result.formatted;
    result.phone[input.path] = onPhone.record;
    result.entity[input.path] = input.record.getString("entityName");
  }
  return result;
}

TEST(ExamplePhonesTest, EveryModelIsCleanAndItsSidesAgreeOnEveryRecord) {
  ASSERT_GE(exampleRecords().size(), 100u);
  for (const std::string& name : examplePhoneNames()) {
    const ExamplePhone phone = loadExamplePhone(name);
    for (const DescriptionProblem& problem : checkDeviceDescription(phone.description, phone.entities, phone.options))
      ADD_FAILURE() << name << ": " << problem.keyPath << ": " << problem.message;
    const FormattedExamples examples = formatExamplesOnBothSides(name);
    // Agreement means nothing if the phone rejected everything.
    EXPECT_GE(examples.formatted, 40) << name;
  }
}

std::vector<Dictionary> subRecords(const Dictionary& record, const char* key) {
  std::vector<Dictionary> found;
  if (auto list = record.getArray(key))
    for (const Value& element : *list)
      if (auto sub = element.asDictionary()) found.push_back(*sub);
  return found;
}

TEST(ExamplePhonesTest, TheBasicPhoneKeepsShortSevenBitTextAndOneNumberPerType) {
  const FormattedExamples examples = formatExamplesOnBothSides("basic-phone");
  int contacts = 0, events = 0;
  for (const auto& [path, record] : examples.phone) {
    if (!record) continue;
    const std::string entity = examples.entity.at(path);
    EXPECT_NE(entity, "Calendars.Task") << path;
    for (const char* key : {"firstName", "lastName", "summary", "location"}) {
      const std::string text = record->getString(key);
      EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x80; }))
          << path << " " << key << ": " << text;
    }
    EXPECT_LE(utf16Length(record->getString("firstName")), 12u) << path;
    EXPECT_LE(utf16Length(record->getString("summary")), 24u) << path;
    if (entity == "Contacts.Contact") {
      ++contacts;
      std::map<std::string, int> perType;
      for (const Dictionary& number : subRecords(*record, "phoneNumbers")) ++perType[number.getString("type")];
      for (const auto& [type, count] : perType) {
        EXPECT_THAT(type, ::testing::AnyOf("mobile", "home", "work")) << path;
        EXPECT_EQ(count, 1) << path << " " << type;
      }
    } else if (entity == "Calendars.Event") {
      ++events;
      EXPECT_FALSE(record->contains("recurrences")) << path;
      EXPECT_FALSE(record->contains("displayAlarms")) << path;
    }
  }
  EXPECT_GE(contacts, 50);
  EXPECT_GE(events, 30);
}

TEST(ExamplePhonesTest, ThePhotoPhoneShrinksLargePhotosAndNormalisesMappedValues) {
  const FormattedExamples examples = formatExamplesOnBothSides("photo-phone");
  int photos = 0;
  for (const auto& [path, record] : examples.phone) {
    if (!record) continue;
    const Value image = record->get("image");
    if (image.isData()) {
      ++photos;
      EXPECT_LE(image.data().length(), 8192u) << path;
    }
    // Two types share one phone value: the first entry's engine value wins.
    for (const Dictionary& number : subRecords(*record, "phoneNumbers"))
      EXPECT_NE(number.getString("type"), "work fax") << path;
    // Confidential events come back as private.
    EXPECT_NE(record->getString("classification"), "confidential") << path;
  }
  EXPECT_GE(photos, 5);
}

// --- Random damage ----------------------------------------------------------------------

// Replaces one value somewhere inside `value` by something of another shape,
// removes it, or adds a stray element.
void damage(Value& value, std::mt19937& random, int depth = 0) {
  const auto pick = [&](std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random); };
  const Value replacements[] = {
      Value("garbage"), Value(42), Value(-1), Value(0), Value(true), Value(3.5), Value(Array()),
      Value(Dictionary()), Value(Array{Value("a"), Value(7)}), Value("31/02/2026 25:61:00 Nowhere/City"),
      Value(std::string(5000, 'x') + "é漢字🎉"), Value(Data::fromString("not an image")),
      Value(URL("not a url")), Value(Dictionary{{"entityName", "Calendars.Nonsense"}}),
      Value(Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"type", 12}, {"value", Array()}})};
  const auto replacement = [&] { return replacements[pick(std::size(replacements))]; };
  if (auto dictionary = value.asDictionary(); dictionary && !dictionary->empty() && depth < 6) {
    const Value key = dictionary->keys().at(pick(dictionary->count()));
    Value* child = dictionary->find(key);
    switch (pick(4)) {
      case 0: dictionary->remove(key); return;
      case 1: *child = replacement(); return;
      case 2: dictionary->set("strayKey" + std::to_string(pick(3)), replacement()); return;
      default: damage(*child, random, depth + 1); return;
    }
  }
  if (auto array = value.asArray(); array && !array->empty() && depth < 6) {
    const std::size_t index = pick(array->count());
    switch (pick(4)) {
      case 0: array->removeAt(index); return;
      case 1: array->set(index, replacement()); return;
      case 2: array->add(replacement()); return;
      default: damage(array->at(index), random, depth + 1); return;
    }
  }
  value = replacement();
}

TEST(ExamplePhonesTest, DamagedRecordsAreFormattedOrRejectedOnEveryPhone) {
  std::mt19937 random(20261122);
  const std::vector<ExampleRecord>& records = exampleRecords();
  ASSERT_FALSE(records.empty());
  for (const std::string& name : examplePhoneNames()) {
    const ExamplePhone example = loadExamplePhone(name);
    const auto phone = DeviceFormatting::phoneSide(example.description, example.entities, example.options);
    ASSERT_TRUE(phone) << name;
    const auto engine = phone->engineSide();
    ASSERT_TRUE(engine) << name;
    for (int round = 0; round < 120; ++round) {
      Value damaged = Value(records[random() % records.size()].record.deepCopy());
      for (int hits = 1 + random() % 3; hits > 0; --hits) damage(damaged, random);
      if (!damaged.isDictionary()) continue;
      SCOPED_TRACE(name + " round " + std::to_string(round) + "\n" + damaged.description().substr(0, 2000));
      const FormattingOutcome onPhone = phone->formatRecord(damaged.dictionary());
      const FormattingOutcome onEngine = engine->formatRecord(damaged.dictionary());
      EXPECT_EQ(onPhone.record.has_value(), onEngine.record.has_value());
      EXPECT_TRUE(onPhone.record || !onPhone.rejection.empty()) << "a rejection without a reason";
    }
  }
}

}  // namespace
}  // namespace pc::testing
