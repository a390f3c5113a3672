#include "host/RecordAssembler.h"

#include <gtest/gtest.h>

#include "engine/MemoryEngine.h"

namespace pc {
namespace {

std::shared_ptr<EngineSchema> schema() {
  static auto loaded =
      EngineSchema::schemaWithContentsOfDirectory(EngineSchema::defaultSchemaDirectory());
  return loaded;
}

// A delegate with the calendar helper's shape: three relations, extra keys,
// and an order of its own (alarms latest first).
class TestDelegate : public GenericAssemblerDelegate {
 public:
  Array masterRelationKeysForMasterEntity(const std::string&) override {
    return Array{"recurrences", "displayAlarms"};
  }
  Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string&) override {
    return Dictionary{{"recurrences", "Calendars.Recurrence"},
                      {"displayAlarms", "Calendars.DisplayAlarm"}};
  }
  Dictionary entityToBackRelationShipForMasterEntity(const std::string&) override {
    return Dictionary{{"Calendars.Recurrence", "owner"}, {"Calendars.DisplayAlarm", "owner"}};
  }
  Array extraKeysForMasterEntity(const std::string&) override { return Array{"calendar"}; }
  void sortRelation(const std::string& relation, Array& identifiers, const Dictionary& records,
                    const std::string& entity) override {
    ++sorted;
    EXPECT_EQ(records.count(), identifiers.count());
    if (relation == "displayAlarms") {
      EXPECT_EQ(entity, "Calendars.DisplayAlarm");
      Array reversed;
      for (std::size_t i = identifiers.count(); i-- > 0;) reversed.add(identifiers.at(i));
      identifiers = reversed;
    }
  }
  void addCustomField(const Value&, const std::string&) override {}
  int sorted = 0;
};

Dictionary alarm(int offset) {
  return Dictionary{{"entityName", "Calendars.DisplayAlarm"}, {"triggerduration", offset}};
}

Dictionary event() {
  return Dictionary{
      {"entityName", "Calendars.Event"},
      {"summary", "Stand-up"},
      {"calendar", Array{"calendar-1"}},
      {"recurrences", Array{Dictionary{{"entityName", "Calendars.Recurrence"},
                                       {"frequency", "weekly"}}}},
      {"displayAlarms", Array{alarm(-600), alarm(-60)}},
      {"mailAlarms", Array{Dictionary{{"entityName", "Calendars.MailAlarm"}}}},
      {"detachedEvents",
       Array{Dictionary{{"entityName", "Calendars.Event"},
                        {"summary", "Stand-up (moved)"},
                        {"displayAlarms", Array{alarm(-300)}}}}},
  };
}

TEST(RecordAssemblerTest, SplitGivesEngineRecordsPointingBackToTheirMaster) {
  RecordAssembler assembler(schema());
  const SplitRecord parts = assembler.split(event(), "e1");

  EXPECT_EQ(parts.master.get("recurrences"), Value(Array{"e1/recurrences/0"}));
  EXPECT_EQ(parts.master.get("displayAlarms"),
            Value(Array{"e1/displayAlarms/0", "e1/displayAlarms/1"}));
  EXPECT_EQ(parts.master.get("calendar"), Value(Array{"calendar-1"}));  // identifiers kept
  std::map<std::string, Dictionary> byIdentifier(parts.subRecords.begin(), parts.subRecords.end());
  ASSERT_EQ(byIdentifier.size(), 6u);
  EXPECT_EQ(byIdentifier["e1/displayAlarms/1"].get("owner"), Value(Array{"e1"}));
  EXPECT_EQ(byIdentifier["e1/mailAlarms/0"].get("owner"), Value(Array{"e1"}));
  // A detached event points to its main event and is split in turn.
  const Dictionary detached = byIdentifier["e1/detachedEvents/0"];
  EXPECT_EQ(detached.get("mainEvent"), Value(Array{"e1"}));
  EXPECT_EQ(detached.get("displayAlarms"), Value(Array{"e1/detachedEvents/0/displayAlarms/0"}));
  EXPECT_EQ(byIdentifier["e1/detachedEvents/0/displayAlarms/0"].get("owner"),
            Value(Array{"e1/detachedEvents/0"}));
}

TEST(RecordAssemblerTest, AssemblyFollowsTheDelegate) {
  MemoryTruthSnapshot truth;
  RecordAssembler assembler(schema());
  TestDelegate delegate;
  assembler.setDelegate(&delegate);
  assembler.addToTruth(event(), "e1", truth);

  const std::optional<Dictionary> assembled = assembler.assembledRecord("e1", truth);
  ASSERT_TRUE(assembled);
  EXPECT_EQ(delegate.sorted, 2);
  // Sub-records inlined in the delegate's order, each keeping its back
  // relation: the formatting hooks find their owner through it.
  auto owned = [](Dictionary sub) {
    sub.set("owner", Value(Array{"e1"}));
    return sub;
  };
  EXPECT_EQ(assembled->get("displayAlarms"), Value(Array{owned(alarm(-60)), owned(alarm(-600))}));
  EXPECT_EQ(assembled->get("recurrences"),
            Value(Array{owned(Dictionary{{"entityName", "Calendars.Recurrence"},
                                         {"frequency", "weekly"}})}));
  // Extra keys travel as they are; relations the delegate does not name stay out.
  EXPECT_EQ(assembled->get("calendar"), Value(Array{"calendar-1"}));
  EXPECT_FALSE(assembled->contains("mailAlarms"));
  EXPECT_FALSE(assembled->contains("detachedEvents"));
  EXPECT_FALSE(assembler.assembledRecord("missing", truth));
}

// Without a delegate the schema answers: relations to entities that point
// back are sub-records, the others (calendar, detached events) extra keys.
TEST(RecordAssemblerTest, SchemaAnswersWithoutADelegate) {
  SchemaAssemblerDelegate rules(schema());
  EXPECT_EQ(rules.masterRelationKeysForMasterEntity("Calendars.Event"),
            (Array{"recurrences", "audioAlarms", "displayAlarms", "mailAlarms", "organizer",
                   "attendees"}));
  EXPECT_EQ(rules.extraKeysForMasterEntity("Calendars.Event"),
            (Array{"calendar", "detachedEvents", "mainEvent"}));
  EXPECT_TRUE(rules.masterRelationKeysForMasterEntity("Calendars.Task").contains("recurrences"));
  EXPECT_EQ(rules.entityToBackRelationShipForMasterEntity("Contacts.Contact")
                .getString("Contacts.PhoneNumber"),
            "contact");

  MemoryTruthSnapshot truth;
  RecordAssembler assembler(schema());
  const Dictionary original = event();
  assembler.addToTruth(original, "e1", truth);
  Dictionary expected = original.deepCopy();
  expected.set("detachedEvents", Value(Array{"e1/detachedEvents/0"}));
  for (const char* relation : {"recurrences", "displayAlarms", "mailAlarms"})
    for (const Value& sub : expected.getArray(relation).value_or(Array()))
      sub.asDictionary()->set("owner", Value(Array{"e1"}));
  EXPECT_EQ(assembler.assembledRecord("e1", truth), expected);
}

TEST(RecordAssemblerTest, BadRelationsAreSkippedNotFatal) {
  MemoryTruthSnapshot truth;
  truth.addRecord("c1", Dictionary{{"entityName", "Contacts.Contact"},
                                   {"phoneNumbers", Array{"gone", "p1"}},
                                   {"emailAddresses", "not a list"}});
  truth.addRecord("p1", Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"value", "1"},
                                   {"contact", Array{"c1"}}});
  RecordAssembler assembler(schema());
  const auto assembled = assembler.assembledRecord("c1", truth);
  ASSERT_TRUE(assembled);
  EXPECT_EQ(assembled->get("phoneNumbers"),
            Value(Array{Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"value", "1"},
                                   {"contact", Array{"c1"}}}}));
  EXPECT_FALSE(assembled->contains("emailAddresses"));

  // A record nested into itself stops at a fixed depth instead of looping.
  Dictionary nested{{"entityName", "Calendars.Event"}};
  for (int i = 0; i < 20; ++i)
    nested = Dictionary{{"entityName", "Calendars.Event"}, {"detachedEvents", Array{nested}}};
  EXPECT_LE(assembler.split(nested, "n").subRecords.size(), 10u);
}

}  // namespace
}  // namespace pc
