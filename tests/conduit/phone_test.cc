#include "conduit/CFPhone.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "conduit/SyncClientState.h"
#include "conduit_test_support.h"
#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "formatting/EntityFormatter.h"
#include "formatting/QVTSyncMapping.h"
#include "host/ReferenceHost.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "transformers/QVTSyncContactTransformer.h"

namespace pc {
namespace {

using testing::exampleEntities;
using testing::exampleV1;
using testing::exampleV2;
using testing::FakeHelper;
using testing::LogCapture;
using testing::LogLine;

// The reason of the invalid-argument exception `call` raises; "" when none.
template <class Call>
std::string invalidArgumentReason(Call call) {
  try {
    call();
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), kInvalidArgumentException);
    return exception.reason();
  }
  return "";
}

// A phone on the reference host, built through its delegate.
class HostedPhoneTest : public ::testing::Test {
 protected:
  void SetUp() override { testing::installStandIns(); }

  std::shared_ptr<MemorySyncEngineClient> makeClient() {
    return std::make_shared<MemorySyncEngineClient>(
        "phone.client", "Test Phone", exampleEntities().getDictionary("Entities")->keys(),
        (folder / "client.plist").string());
  }

  std::unique_ptr<CFPhone> makePhone(const Dictionary& description, std::int32_t version) {
    host = std::make_shared<ReferenceConduitManager>(
        std::make_shared<SimulatedPhone>("device-42", Dictionary{{"MaxPhoneNumbers", 4}}),
        makeClient());
    host->setPhoneConduitDescription(description, version);
    host->setSyncEnginePlist(exampleEntities());
    host->setPathForSyncPersistence(folder.string());
    host->addParserService("com.velmora.vcal-parser", "PropertyListParser");
    auto phone = CFPhone::phoneWithDelegate(host.get());
    if (phone) phone->setManager(host.get());
    return phone;
  }

  std::filesystem::path folder = testing::makeTemporaryFolder();
  std::shared_ptr<ReferenceConduitManager> host;
};

// --- MIME types ---------------------------------------------------------------

TEST(MimeTypeTest, FirstFormatByManagerNameThenDataClassSecondFormatFromInfo) {
  // The "DataClassManager" entry of a first-format description, the data
  // class, the MIME type.
  const std::tuple<Value, std::string, std::optional<std::string>> cases[] = {
      {"ContactManager", "Calendars", kVCardMimeType},
      {Dictionary{{"Name", "CalendarManager"}, {"x", 1}}, "Notes", kVCalendarMimeType},
      {"OtherManager", kCalendars, kVCalendarMimeType},
      {"OtherManager", kContacts, kVCardMimeType},
      {Dictionary{{"Name", "OtherManager"}}, "Notes", std::nullopt}};
  CFPhone first(Dictionary{});
  for (const auto& [manager, dataClass, mimeType] : cases) {
    std::optional<Dictionary> managerProperties;
    EXPECT_EQ(first._mimeTypeFromProperties(Dictionary{{kDataClassManagerKey, manager}},
                                            &managerProperties, dataClass),
              mimeType)
        << dataClass;
    EXPECT_EQ(managerProperties.has_value(), manager.isDictionary()) << dataClass;
  }

  auto host = std::make_shared<ReferenceConduitManager>(nullptr, nullptr);
  host->setPhoneConduitDescription(Dictionary{}, 2);
  auto phone = CFPhone::phoneWithDelegate(host.get());
  ASSERT_TRUE(phone);
  const Dictionary info{{kMimeTypeKey, kVCardMimeType}, {kDataClassManagerKey, "CalendarManager"}};
  std::optional<Dictionary> managerProperties;
  EXPECT_EQ(phone->_mimeTypeFromProperties(info, &managerProperties, kCalendars), kVCardMimeType);
  ASSERT_TRUE(managerProperties);
  EXPECT_TRUE(managerProperties->isIdenticalTo(info));
  EXPECT_FALSE(phone->_mimeTypeFromProperties(Dictionary{}, nullptr, kCalendars));
}

// --- Managers, helpers, parsers, mappings ------------------------------------

TEST_F(HostedPhoneTest, ManagersReceiveTheInfoCopyOrTheirAttributes) {
  auto phone = makePhone(exampleV2(), 2);
  ASSERT_TRUE(phone);
  auto contacts = phone->managerForDeviceDataClass(kContacts);
  ASSERT_TRUE(contacts);
  EXPECT_EQ(contacts->className(), "ContactManager");
  EXPECT_EQ(contacts->properties().get(kPListVersionKey), Value(2));
  EXPECT_EQ(contacts->properties().get(kMimeTypeKey), Value(kVCardMimeType));
  // The description itself is left as it was.
  EXPECT_FALSE(phone->_infoForDeviceDataClass(kContacts)->contains(kPListVersionKey));
  EXPECT_TRUE(std::dynamic_pointer_cast<ReferenceDataClassManager>(contacts)->assemblersPrepared());
  EXPECT_EQ(phone->managerForDeviceDataClass(kContacts), contacts);  // cached

  // First format: the attributes of the "DataClassManager" entry.
  auto calendars = makePhone(exampleV1(), 1)->managerForDeviceDataClass(kCalendars);
  EXPECT_EQ(calendars->className(), "CalendarManager");
  EXPECT_TRUE(calendars->properties().getBool("hasEvent"));
  EXPECT_FALSE(calendars->properties().contains(kPListVersionKey));
}

TEST_F(HostedPhoneTest, ManagerFailuresRaise) {
  Dictionary description = exampleV1();
  description.getDictionary(kSyncDataClassesKey)
      ->set("Notes", Dictionary{{kDataClassManagerKey, "NoSuchManager"}});
  auto phone = makePhone(description, 1);
  LogCapture log;
  EXPECT_EQ(invalidArgumentReason([&] { phone->managerForDeviceDataClass("Notes"); }),
            "bad plist, could not find a manager for the dataclass Notes");
  EXPECT_TRUE(log.contains("cannot load class NoSuchManager from the plist"));
  EXPECT_EQ(invalidArgumentReason([&] { phone->managerForDeviceDataClass("Tasks"); }),
            "bad plist, could not find a manager for the dataclass Tasks");
  EXPECT_TRUE(log.contains("condition \"info\" failed"));
}

TEST_F(HostedPhoneTest, HelpersAreNewEachTimeExceptTheCanonicalOnes) {
  auto phone = makePhone(exampleV1(), 1);
  auto first = phone->dataClassHelperForDataClassName(kContacts);
  auto second = phone->dataClassHelperForDataClassName(kContacts);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first, second);

  auto contactHelper = phone->canonicalHelperForEntity(kContactsContact);
  ASSERT_TRUE(contactHelper);
  EXPECT_EQ(phone->canonicalHelperForEntity(kContactsPhoneNumber), contactHelper);
  auto eventHelper = phone->canonicalHelperForEntity(kCalendarsRecurrence);
  ASSERT_TRUE(eventHelper);
  EXPECT_NE(eventHelper, contactHelper);
  EXPECT_FALSE(phone->canonicalHelperForEntity("Notes.Note"));

  // First format: the manager's attributes; second format: the whole info.
  auto v1Helper = std::dynamic_pointer_cast<QVTSyncContactTransformer>(first);
  ASSERT_TRUE(v1Helper);
  EXPECT_TRUE(v1Helper->removeInvalidEmailAddresses());
  LogCapture log;
  auto v2Helper = std::dynamic_pointer_cast<QVTSyncContactTransformer>(
      makePhone(exampleV2(), 2)->dataClassHelperForDataClassName(kContacts));
  ASSERT_TRUE(v2Helper);
  EXPECT_TRUE(log.contains("ignored: Parser -> VCardParser"));
}

TEST_F(HostedPhoneTest, HelperFailuresAnswerNothing) {
  Dictionary description = exampleV1();
  description.getDictionary(kSyncDataClassesKey)
      ->set("Notes", Dictionary{{kDataClassManagerKey, "NoteManager"}});
  auto phone = makePhone(description, 1);
  LogCapture log;
  EXPECT_FALSE(phone->dataClassHelperForDataClassName("Tasks"));
  EXPECT_TRUE(log.contains("can find transformer for dataclass \"Tasks\""));
  EXPECT_FALSE(phone->dataClassHelperForDataClassName("Notes"));
  EXPECT_TRUE(log.contains("could not find a mime type"));
  EXPECT_TRUE(log.contains("no class for <null>"));
  // The other data classes still get their helpers.
  EXPECT_TRUE(phone->canonicalHelperForEntity(kContactsContact));
  EXPECT_TRUE(log.contains("is it normal?"));
}

TEST_F(HostedPhoneTest, ParsersByClassOrByService) {
  Dictionary description = exampleV1();
  description.getDictionary(kSyncDataClassesKey)
      ->set(kContacts,
            Dictionary{{kDataClassManagerKey,
                        Dictionary{{"Name", "ContactManager"}, {"shared", "manager"}}},
                       {kParserKey, Dictionary{{"Name", "PropertyListParser"},
                                               {"shared", "parser"},
                                               {"own", 1}}}});
  auto phone = makePhone(description, 1);
  auto parser = std::dynamic_pointer_cast<PropertyListParser>(
      phone->parserForDeviceDataClass(kContacts));
  ASSERT_TRUE(parser);
  EXPECT_EQ(parser->phone(), phone.get());
  ASSERT_TRUE(parser->context());
  EXPECT_EQ(*parser->context(), (Dictionary{{"Name", "ContactManager"},
                                            {"shared", "manager"},
                                            {"own", 1}}));
  EXPECT_NE(phone->parserForDeviceDataClass(kContacts), parser);

  auto v2Phone = makePhone(exampleV2(), 2);
  auto serviceParser = std::dynamic_pointer_cast<PropertyListParser>(
      v2Phone->parserForDeviceDataClass(kCalendars));
  ASSERT_TRUE(serviceParser);
  EXPECT_EQ(serviceParser->context()->getString(kMimeTypeKey), kVCalendarMimeType);

  description.getDictionary(kSyncDataClassesKey)
      ->set(kCalendars, Dictionary{{kParserKey, "NoSuchParser"}});
  auto badPhone = makePhone(description, 1);
  LogCapture log;
  EXPECT_FALSE(badPhone->parserForDeviceDataClass(kCalendars));
  EXPECT_TRUE(log.contains("Could not find the parser \"NoSuchParser\".  Fix the metaclasses"));
  EXPECT_TRUE(log.contains("no parser for Calendars"));
}

TEST_F(HostedPhoneTest, EntityFormattersAndMappingsAreMadeByName) {
  auto phone = makePhone(exampleV2(), 2);
  auto helper = phone->canonicalHelperForEntity(kContactsContact);
  auto formatters = phone->entityFormattersForEntities(
      Array{kContactsContact, kContactsPhoneNumber, kContactsContact}, helper);
  ASSERT_EQ(formatters.size(), 2u);
  auto formatter = std::dynamic_pointer_cast<EntityFormatter>(formatters[kContactsPhoneNumber]);
  ASSERT_TRUE(formatter);
  EXPECT_EQ(formatter->helper(), helper);
  EXPECT_EQ(formatter->typeKey(), std::optional<std::string>("type"));

  auto mapping = std::dynamic_pointer_cast<QVTSyncMapping>(
      phone->mapperForAttribute(kContactsPhoneNumberType, kContactsPhoneNumber));
  ASSERT_TRUE(mapping);
  EXPECT_EQ(mapping->transportValueFromSSValue("mobile"), Value("CELL"));
  EXPECT_EQ(mapping->SSValueFomTransportValue("MOBILE"), Value("mobile"));
  EXPECT_FALSE(phone->mapperForAttribute(kContactsPhoneNumberValue, kContactsPhoneNumber));
  EXPECT_FALSE(phone->mapperForAttribute(kContactsPhoneNumberType, kContactsEmailAddress));
  EXPECT_FALSE(makePhone(exampleV1(), 1)->mapperForAttribute(kContactsPhoneNumberType,
                                                             kContactsPhoneNumber));
}

// --- Entities and the engine's schema ------------------------------------------

class PhoneEntitiesTest : public HostedPhoneTest {
 protected:
  void SetUp() override {
    HostedPhoneTest::SetUp();
    Dictionary entities = exampleEntities();
    entities.getDictionary("Entities")
        ->set(kCalendarsEvent,
              Array{kCalendarsEventStartDate, kCalendarsEventRecurrences, "noSuchAttribute"});
    makePhone(exampleV1(), 1);
    host->setSyncEnginePlist(entities);
    phone = CFPhone::phoneWithDelegate(host.get());
  }
  std::unique_ptr<CFPhone> phone;
};

TEST_F(PhoneEntitiesTest, KeysAreThoseOfBothSchemaAndPhoneAndBadNamesRaise) {
  LogCapture log;
  EXPECT_EQ(phone->allAttributesForEntity(kCalendarsEvent), Array{kCalendarsEventStartDate});
  EXPECT_EQ(phone->allAttributesForEntity(kCalendarsEvent), Array{kCalendarsEventStartDate});
  // The second answer comes from the cache.
  EXPECT_EQ(std::count_if(log.lines().begin(), log.lines().end(),
                          [](const LogLine& line) { return line.message.starts_with("computed"); }),
            1);
  EXPECT_EQ(phone->allRelationsForEntity(kCalendarsEvent), Array{kCalendarsEventRecurrences});
  // An entity the engine knows and the phone does not sync.
  EXPECT_TRUE(phone->allAttributesForEntity(kCalendarsAttendee).empty());

  EXPECT_EQ(invalidArgumentReason([&] { phone->allAttributesForEntity(""); }),
            "entity is not a correct entity name");
  EXPECT_EQ(invalidArgumentReason([&] { phone->allRelationsForEntity("Calendars.Nothing"); }),
            "entity unknown to sync services");
  const LogLine* line = log.find("entity unknown to sync services");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->level, kLogError);
  EXPECT_EQ(line->type, ".sync.PhoneSync");
}

TEST(RelationTargetTest, TargetOfEachRelationAndUnknownOnesLogged) {
  CFPhone phone(Dictionary{});
  const std::pair<const char*, const char*> cases[] = {
      {kCalendarsEventRecurrences, kCalendarsRecurrence},
      {kCalendarsEventDetachedEvents, kCalendarsEvent},
      {kContactsContactPhoneNumbers, kContactsPhoneNumber},
      {kContactsContactIMs, kContactsIM}};
  for (const auto& [relation, target] : cases)
    EXPECT_EQ(phone.targetEntityForRelationKey(relation, "any"), target);
  LogCapture log;
  EXPECT_FALSE(phone.targetEntityForRelationKey(kContactsContactRelatedNames, kContactsContact));
  EXPECT_TRUE(log.contains("this case in not handle Contacts.Contact -> relatedNames"));
}

// --- Construction roads, archiving, life ----------------------------------------

// A phone on the host, a phone with that phone as its description source, and
// one rebuilt from the client the first archived itself in.
TEST_F(HostedPhoneTest, EveryConstructionRoadGivesTheSameDescription) {
  auto phone = makePhone(exampleV2(), 2);
  ASSERT_TRUE(phone);
  phone->archiveInClient();
  auto twin = CFPhone::phoneWithDelegate(phone.get());
  auto rebuilt = CFPhone::phoneWithClient(makeClient());  // a new client on the same store
  for (CFPhone* built : {phone.get(), twin.get(), rebuilt.get()}) {
    ASSERT_TRUE(built);
    EXPECT_EQ(built->phoneConduitDescriptionWithVersion(nullptr), exampleV2());
    EXPECT_EQ(built->version(), 2);
    EXPECT_EQ(built->entitiesDescription(), exampleEntities().getDictionary("Entities"));
  }
  // The delegate roads reach the host's device, folder and parser services.
  for (CFPhone* built : {phone.get(), twin.get()}) {
    EXPECT_EQ(built->deviceUID(), "device-42");
    EXPECT_EQ(built->pathForSyncResourcesWithFile(std::nullopt), folder.string());
    EXPECT_TRUE(built->parserForDeviceDataClass(kCalendars));
  }
  EXPECT_EQ(twin->delegate(), phone.get());
  EXPECT_EQ(twin->syncClient(), phone->syncClient());
  EXPECT_EQ(phone->supportedEntityNames(), exampleEntities().getDictionary("Entities")->keys());
  EXPECT_EQ(phone->deviceDataClasses(), (Array{kContacts, kCalendars}));
  EXPECT_EQ(phone->syncService()->valueForVariable("MaxPhoneNumbers"), Value(4));
  LogCapture log;
  EXPECT_FALSE(rebuilt->delegate());
  EXPECT_FALSE(rebuilt->pathForSyncResourcesWithFile("x"));
  EXPECT_TRUE(log.contains("condition \"_pathForSyncPersistence\" failed"));

  auto persistence = host->simulatedPhone()->persistenceService();
  persistence->domain(kDeviceSyncDBDomain).set("anchor", 1);
  phone->eraseAllPersistentStates();
  EXPECT_FALSE(persistence->hasDomain(kDeviceSyncDBDomain));
}

TEST_F(HostedPhoneTest, ResourcePathsStayInsideThePersistenceFolder) {
  auto phone = makePhone(exampleV2(), 2);
  const std::string inside = (folder / "state.db").string();
  const std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>> cases = {
      {"", folder.string()},       {"/", folder.string()},
      {"state.db", inside},        {"/state.db", inside},
      {"sub/../state.db", inside}, {"//etc/passwd", (folder / "etc/passwd").string()},
      {"../state.db", std::nullopt}, {"/sub/../../state.db", std::nullopt},
  };
  for (const auto& [file, expected] : cases) {
    LogCapture log;
    EXPECT_EQ(phone->pathForSyncResourcesWithFile(file), expected) << file.value_or("(none)");
    EXPECT_EQ(log.contains("file name \"" + file.value_or("") + "\" leads out of " + folder.string()),
              !expected);
  }
}

TEST_F(HostedPhoneTest, NothingToBuildFromBuildsNothing) {
  makePhone(Dictionary{}, 1);
  host->setPhoneConduitDescription(std::nullopt, 1);
  LogCapture log;
  EXPECT_FALSE(CFPhone::phoneWithDelegate(host.get()));
  EXPECT_TRUE(log.contains("can't find phone conduit description"));
  EXPECT_TRUE(log.contains("cannot find phoneConduit parameters"));
  EXPECT_FALSE(CFPhone::phoneWithDelegate(nullptr));

  // A client that never archived a phone.
  auto client = std::make_shared<MemorySyncEngineClient>("id", "name", Array{});
  EXPECT_FALSE(CFPhone::phoneWithClient(client));
  client->setObject("not a description", kPhoneConduitClientKey);
  EXPECT_FALSE(CFPhone::phoneWithClient(client));
  EXPECT_FALSE(CFPhone::phoneWithClient(nullptr));
}

TEST_F(HostedPhoneTest, InvalidateReleasesWhatThePhoneOwns) {
  auto phone = makePhone(exampleV1(), 1);
  phone->archiveInClient();
  phone->managerForDeviceDataClass(kContacts);
  phone->invalidate();

  EXPECT_FALSE(phone->phoneConduitDescriptionWithVersion(nullptr));
  EXPECT_FALSE(phone->syncClient());
  EXPECT_TRUE(host->syncClient()->objectForKey(kPhoneConduitClientKey).isDictionary());
  LogCapture log;
  EXPECT_EQ(invalidArgumentReason([&] { phone->managerForDeviceDataClass(kContacts); }),
            "bad plist, could not find a manager for the dataclass Contacts");
  // An invalidated phone cannot describe another one.
  EXPECT_FALSE(CFPhone::phoneWithDelegate(phone.get()));
  EXPECT_TRUE(log.contains("can't find phone conduit description"));
  phone->invalidate();  // a second release is harmless
}

}  // namespace
}  // namespace pc
