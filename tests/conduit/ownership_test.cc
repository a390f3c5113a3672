// Containers change hands as deep copies. For every component that keeps
// containers, the test changes, at every depth, whatever it gave the component
// and whatever the component answered; the component must then answer exactly
// as before (and a client's file must still agree with its memory).

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "conduit/CFPhone.h"
#include "conduit_test_support.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/ReferenceHost.h"

namespace pc {
namespace {

using testing::exampleEntities;
using testing::exampleV2;
using testing::FakeHelper;

// Changes every container reachable from `value`.
void mutateEveryContainer(const Value& value) {
  if (auto dictionary = value.asDictionary()) {
    for (const auto& entry : *dictionary) mutateEveryContainer(entry.second);
    dictionary->set("changed by a caller", true);
  } else if (auto array = value.asArray()) {
    for (const Value& element : *array) mutateEveryContainer(element);
    array->add("changed by a caller");
  } else if (auto set = value.asSet()) {
    for (const Value& element : *set) mutateEveryContainer(element);
    set->add("changed by a caller");
  }
}

// An event with containers three levels deep: the recurrence a transformer
// converts in place, its day list, the exception dates.
Dictionary eventRecord() {
  return Dictionary{
      {kEngineRecordEntityNameKey, kCalendarsEvent},
      {"summary", "Standup"},
      {kCalendarsEventRecurrences,
       Array{Dictionary{{kCalendarsRecurrenceFrequency, "weekly"},
                        {kCalendarsRecurrenceCount, 5},
                        {kCalendarsRecurrenceBydaydays, Array{"MO", "WE"}}}}},
      {kCalendarsEventDetachedEvents, Array{"e2"}},
  };
}

// One component: what it answers through its getters, what it was given,
// and what it hands out to be edited in place (changed, but not compared).
struct Owner {
  std::function<Value()> answers;
  Array given;
  std::function<Value()> workingCopies = [] { return Value(); };
};

Owner recordHolder() {
  const Dictionary record = eventRecord();
  const Value property = Array{Dictionary{{"zone", "Europe/Paris"}}};
  auto holder = std::make_shared<RecordHolder>(record, "master-1");
  holder->setProperty(property, "moved");
  return {[holder] {
            return Array{holder->originalRecord(), holder->properties(),
                         holder->propertyForKey("moved")};
          },
          Array{record, property},
          [holder] { return holder->mutableDictionary(); }};
}

Owner engineClient(const std::filesystem::path& folder) {
  const std::string path = (folder / "client.plist").string();
  const Array supported{kCalendarsEvent, kContactsContact};
  const Dictionary value = eventRecord();
  auto client = std::make_shared<MemorySyncEngineClient>("id", "Phone", supported, path);
  client->setObject(value, "stored");
  client->setEnabled(true, supported);
  return {[client, path, supported] {
            // What a restarted client reads from the file must agree with memory.
            MemorySyncEngineClient restarted("id", "Phone", supported, path);
            return Array{client->objectForKey("stored"), restarted.objectForKey("stored"),
                         client->supportedEntityNames(), client->enabledEntityNames()};
          },
          Array{value, supported}};
}

Owner truthSnapshot() {
  const Dictionary record = eventRecord();
  auto snapshot = std::make_shared<MemoryTruthSnapshot>();
  snapshot->addRecord("e1", record);
  return {[snapshot] {
            return Array{*snapshot->recordWithIdentifier("e1"),
                         snapshot->recordsWithIdentifiers(Array{"e1"}),
                         snapshot->targetIdentifiersForRelationshipName(
                             kCalendarsEventDetachedEvents, "e1")};
          },
          Array{record}};
}

Owner referenceHost() {
  const Dictionary description = exampleV2();
  const Dictionary engine = exampleEntities();
  const Dictionary variables{{"Limits", Array{Dictionary{{"MaxPhoneNumbers", 4}}}}};
  const Dictionary properties{{"Name", "ContactManager"}, {"Options", Dictionary{{"a", Array{1}}}}};
  auto host = std::make_shared<ReferenceConduitManager>(
      std::make_shared<SimulatedPhone>("device", variables), nullptr);
  host->setPhoneConduitDescription(description, 2);
  host->setSyncEnginePlist(engine);
  auto manager = std::make_shared<ContactManager>();
  manager->initWithProperty(properties, kContacts, nullptr);
  auto parser = std::make_shared<PropertyListParser>();
  parser->initWithPhone(nullptr, properties);
  return {[host, manager, parser] {
            return Array{*host->phoneConduitDescriptionWithVersion(nullptr),
                         *host->syncEnginePlist(),
                         *host->simulatedPhone()->syncService()->valueForVariable("Limits"),
                         manager->properties(), *parser->context()};
          },
          Array{description, engine, variables, properties}};
}

// What a phone answers about its description and entities.
Array phoneAnswers(CFPhone& phone) {
  std::int32_t version = 0;
  return Array{*phone.phoneConduitDescriptionWithVersion(nullptr),
               *phone.entityFormattingInfoWithVersion(version),
               *phone.formattingDescriptionV2ForEntity(kContactsPhoneNumber),
               *phone.entitiesDescription(),
               *phone.allKeysForEntity(kContactsContact),
               phone.allAttributesForEntity(kContactsContact),
               phone.allRelationsForEntity(kContactsContact),
               *phone._infoForDeviceDataClass(kContacts),
               *phone.syncEnginePlist()};
}

// A phone on the reference host, the client it archived itself in, a phone
// rebuilt from that client and one built with the first phone as delegate;
// plus the manager, helper and parser the phone created.
Owner phones(const std::filesystem::path& folder) {
  const Dictionary description = exampleV2();
  const Dictionary engine = exampleEntities();
  auto client = std::make_shared<MemorySyncEngineClient>(
      "id", "Phone", engine.getDictionary(kEngineClientEntitiesKey)->keys(),
      (folder / "phone-client.plist").string());
  auto host = std::make_shared<ReferenceConduitManager>(std::make_shared<SimulatedPhone>("device"),
                                                        client);
  host->setPhoneConduitDescription(description, 2);
  host->setSyncEnginePlist(engine);
  host->addParserService("com.velmora.vcal-parser", "PropertyListParser");
  std::shared_ptr<CFPhone> phone = CFPhone::phoneWithDelegate(host.get());
  phone->setManager(host.get());
  phone->archiveInClient();
  std::shared_ptr<CFPhone> rebuilt = CFPhone::phoneWithClient(client);
  std::shared_ptr<CFPhone> twin = CFPhone::phoneWithDelegate(phone.get());

  auto manager = phone->managerForDeviceDataClass(kContacts);
  auto helper = phone->dataClassHelperForDataClassName(kContacts);
  auto parser = std::dynamic_pointer_cast<PropertyListParser>(
      phone->parserForDeviceDataClass(kCalendars));
  return {[=] {
            return Array{phoneAnswers(*phone), phoneAnswers(*rebuilt), phoneAnswers(*twin),
                         client->objectForKey(kPhoneConduitClientKey),
                         client->objectForKey(kEntitiesDescClientKey), manager->properties(),
                         *parser->context()};
          },
          Array{description, engine},
          [=] {
            // The stand-in helper keeps what the phone gave it as it is, so
            // changing it reaches the phone unless the phone gave it a copy.
            // The contact transformer keeps no container it is given.
            auto fake = std::dynamic_pointer_cast<FakeHelper>(helper);
            return fake ? Value(fake->properties) : Value(Dictionary());
          }};
}

TEST(OwnershipTest, ComponentsAreUnchangedByWhatCallersDoWithTheirContainers) {
  testing::installStandIns();
  const std::filesystem::path folder = testing::makeTemporaryFolder();
  const std::vector<std::pair<std::string, std::function<Owner()>>> owners = {
      {"record holder", recordHolder},
      {"engine client", [&] { return engineClient(folder); }},
      {"truth snapshot", truthSnapshot},
      {"reference host", referenceHost},
      {"phones", [&] { return phones(folder); }},
  };
  for (const auto& [name, make] : owners) {
    SCOPED_TRACE(name);
    const Owner owner = make();
    const Value before = owner.answers().deepCopy();
    mutateEveryContainer(owner.given);
    mutateEveryContainer(owner.answers());
    mutateEveryContainer(owner.workingCopies());
    EXPECT_EQ(owner.answers(), before);
  }
}

}  // namespace
}  // namespace pc
