#include "engine/MemoryEngine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "engine/SchemaNames.h"
#include "platform/PropertyList.h"
#include "support/TemporaryFolder.h"

namespace pc {
namespace {

namespace fs = std::filesystem;

fs::path makeTemporaryFolder() { return test::makeTemporaryFolder("engine"); }

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path) << text;
}

TEST(EngineSchemaTest, ShippedSchemaDescribesBothDataClasses) {
  std::string error;
  auto schema = EngineSchema::schemaWithContentsOfDirectory(EngineSchema::defaultSchemaDirectory(),
                                                            &error);
  ASSERT_TRUE(schema) << error;
  EXPECT_EQ(schema->dataClassNames(), (Array{kCalendars, kContacts}));
  EXPECT_TRUE(schema->entityNamesForDataClassName(kCalendars).contains(kCalendarsEvent));
  EXPECT_TRUE(schema->entityNamesForDataClassName(kContacts).contains(kContactsPhoneNumber));
  EXPECT_EQ(schema->dataClassNameForEntityName(kContactsIM), kContacts);

  const Array eventAttributes = schema->attributeNamesForEntityName(kCalendarsEvent);
  for (const char* attribute : {kCalendarsEventStartDate, kCalendarsEventEndDate,
                                kCalendarsEventAllDay, kCalendarsEventExceptionDates})
    EXPECT_TRUE(eventAttributes.contains(attribute)) << attribute;
  const Array eventRelations = schema->relationshipNamesForEntityName(kCalendarsEvent);
  EXPECT_TRUE(eventRelations.contains(kCalendarsEventRecurrences));
  EXPECT_FALSE(eventRelations.contains(kCalendarsEventStartDate));
  EXPECT_EQ(schema->targetEntityForRelationship(kContactsContact, kContactsContactIMs), kContactsIM);
  EXPECT_EQ(schema->targetEntityForRelationship(kCalendarsEvent, kCalendarsEventDetachedEvents),
            kCalendarsEvent);

  EXPECT_TRUE(schema->attributeNamesForEntityName("Calendars.Nothing").empty());
  EXPECT_FALSE(schema->dataClassNameForEntityName("Calendars.Nothing"));
}

TEST(EngineSchemaTest, MalformedDescriptionsAreRefusedWithoutAddingAnything) {
  const Dictionary goodEntity{{"Name", "X.A"}, {"Attributes", Array{"a"}}};
  const std::vector<std::pair<Dictionary, std::string>> cases = {
      {Dictionary{{"Entities", Array{goodEntity}}}, "DataClassName"},
      {Dictionary{{"DataClassName", "X"}}, "Entities"},
      {Dictionary{{"DataClassName", "X"}, {"Entities", Array{goodEntity, "X.B"}}}, "entity 1"},
      {Dictionary{{"DataClassName", "X"}, {"Entities", Array{Dictionary{{"Attributes", Array()}}}}},
       "Name"},
      {Dictionary{{"DataClassName", "X"},
                  {"Entities", Array{Dictionary{{"Name", "X.A"}, {"Attributes", Array{1}}}}}},
       "Attributes"},
      {Dictionary{{"DataClassName", "X"},
                  {"Entities",
                   Array{Dictionary{{"Name", "X.A"}, {"Relationships", Dictionary{{"r", 2}}}}}}},
       "Relationships"},
  };
  for (const auto& [description, mention] : cases) {
    EngineSchema schema;
    std::string error;
    EXPECT_FALSE(schema.addDataClassDescription(description, &error)) << description.description();
    EXPECT_NE(error.find(mention), std::string::npos) << error;
    EXPECT_TRUE(schema.dataClassNames().empty());
    EXPECT_TRUE(schema.attributeNamesForEntityName("X.A").empty());
  }
}

TEST(EngineSchemaTest, FolderWithCorruptFileNamesTheFile) {
  const fs::path folder = makeTemporaryFolder();
  writeFile(folder / "Broken.plist", "<plist><dict><key>DataClassName</key></plist>");
  std::string error;
  EXPECT_FALSE(EngineSchema::schemaWithContentsOfDirectory(folder.string(), &error));
  EXPECT_NE(error.find("Broken.plist"), std::string::npos) << error;
  EXPECT_FALSE(EngineSchema::schemaWithContentsOfDirectory((folder / "missing").string(), &error));
}

class MemoryClientTest : public ::testing::Test {
 protected:
  std::unique_ptr<MemorySyncEngineClient> makeClient() {
    return std::make_unique<MemorySyncEngineClient>(
        "client.id", "My Phone", Array{kContactsContact, kContactsPhoneNumber, kCalendarsEvent},
        storePath.string());
  }
  fs::path storePath = makeTemporaryFolder() / "client.plist";
};

TEST_F(MemoryClientTest, CorruptStoreStartsEmptyAndIsReplaced) {
  writeFile(storePath, "not a property list");
  auto client = makeClient();
  EXPECT_TRUE(client->objectForKey("count").isNull());
  client->setObject(7, "count");
  EXPECT_EQ(makeClient()->objectForKey("count"), Value(7));
}

TEST_F(MemoryClientTest, ValueThatCannotBeStoredStaysInMemory) {
  auto client = makeClient();
  client->setObject(Array{Value(URL("http://example.org"))}, "address");
  EXPECT_FALSE(client->lastSaveSucceeded());
  EXPECT_FALSE(client->objectForKey("address").isNull());
}

}  // namespace
}  // namespace pc
