#include "host/ReferenceHost.h"

#include <gtest/gtest.h>

#include "platform/Registry.h"

namespace pc {
namespace {

TEST(ReferenceHostTest, ManagersAndParserAreCreatedByName) {
  for (const char* name : {"ContactManager", "CalendarManager"}) {
    auto manager = ClassRegistry::createAs<DataClassManager>(name);
    ASSERT_TRUE(manager) << name;
    EXPECT_EQ(manager->className(), name);
    manager->initWithProperty(Dictionary{{"Name", name}}, "Contacts", nullptr);
    EXPECT_EQ(manager->deviceDataClass(), "Contacts");
    EXPECT_EQ(manager->properties().getString("Name"), name);
  }
  EXPECT_FALSE(ClassRegistry::createAs<DataClassManager>("ReferenceDataClassManager"));
  EXPECT_TRUE(ClassRegistry::createAs<DeviceParser>("PropertyListParser"));
}

TEST(ReferenceHostTest, PhoneSendsBackWhatItWasSentThroughTheParser) {
  SimulatedPhone phone("uid-1");
  PropertyListParser parser;
  parser.initWithPhone(nullptr, std::nullopt);
  const Array records{Dictionary{{"entityName", "Contacts.Contact"}, {"firstName", "Ann"}},
                      Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"value", "+33 1"}}};
  phone.receiveData("Contacts", parser.dataFromRecords(records));

  EXPECT_EQ(parser.recordsFromData(phone.sendData("Contacts")), records);
  EXPECT_TRUE(phone.sendData("Calendars").empty());
  EXPECT_FALSE(parser.recordsFromData(Data::fromString("garbage")));
  EXPECT_FALSE(parser.recordsFromData(Data::fromString(
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><string>x</string></plist>")));
}

// What the holder copies is checked with the other owners in ownership_test.cc.
TEST(ReferenceHostTest, RecordHolderCarriesProperties) {
  RecordHolder holder(Dictionary{{"summary", "Lunch"}}, "master-1");
  holder.setBooleanProperty(true, "converted");
  holder.setProperty("Europe/Paris", "zone");
  EXPECT_TRUE(holder.booleanPropertyForKey("converted"));
  EXPECT_EQ(holder.propertyForKey("zone"), Value("Europe/Paris"));
  holder.setProperty(Value(), "zone");
  EXPECT_TRUE(holder.propertyForKey("zone").isNull());
  EXPECT_FALSE(holder.booleanPropertyForKey("never set"));
}

}  // namespace
}  // namespace pc
