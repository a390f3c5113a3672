#pragma once
// Shared by the conduit tests: a temporary folder, the log capture, the
// example descriptions, and stand-ins for the data-class helpers the phone
// creates by name.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "conduit/ConduitProtocols.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace pc::testing {

inline std::filesystem::path makeTemporaryFolder() { return test::makeTemporaryFolder("conduit"); }

using test::LogCapture;
using test::LogLine;

// A device description or entity description shipped in examples/devices.
inline Dictionary loadExample(const std::string& name) {
  auto contents = PropertyList::fromFile(std::string(PC_SOURCE_DIR) + "/examples/devices/" + name);
  EXPECT_TRUE(contents) << name;
  return contents ? contents->dictionary() : Dictionary();
}

inline Dictionary exampleV1() { return loadExample("contacts-calendar-phone-v1.plist"); }
inline Dictionary exampleV2() { return loadExample("contacts-calendar-phone-v2.plist"); }
inline Dictionary exampleEntities() { return loadExample("contacts-calendar-phone.entities.plist"); }

// A data-class helper that keeps its properties and claims fixed entities.
class FakeHelper : public Object, public QVTSyncRecordTransformer, public EntityFormatterDelegate {
 public:
  FakeHelper(std::string name, Array entities) : _name(std::move(name)), _entities(entities) {}
  std::string className() const override { return _name; }
  void initWithProperties(const Dictionary& properties) override { this->properties = properties; }
  void setDataClassManager(DataClassManager*) override {}
  void mangleRecordBeforePushingToDevice(RecordHolder&) override {}
  void unmangleRecordAfterReadingFromDevice(RecordHolder&) override {}
  void setFormattingMethods(std::shared_ptr<FormattingMethods>) override {}
  void willBeUsedByEntityFormatter(EntityFormatter&) override {}
  std::optional<Dictionary> formatRecord(const Dictionary& record) override { return record; }
  void formatAssembledRecord(Dictionary&) override {}
  Array allPossibleEntities() override { return _entities; }

  Dictionary properties;

 private:
  std::string _name;
  Array _entities;
};

// Registers the stand-in helpers under the names the phone uses for the
// contact and event transformers, which this build does not provide.
inline void installStandIns() {
  static const bool installed = [] {
    auto install = [](const std::string& name, Array entities) {
      if (ClassRegistry::hasClass(name)) return;
      ClassRegistry::registerClass(name, "", [name, entities] {
        return std::make_shared<FakeHelper>(name, entities);
      });
    };
    install("QVTSyncContactTransformer",
            Array{"Contacts.Contact", "Contacts.Group", "Contacts.PhoneNumber",
                  "Contacts.EmailAddress", "Contacts.StreetAddress", "Contacts.Date",
                  "Contacts.RelatedName", "Contacts.URL", "Contacts.IM", "Contacts.CustomField"});
    install("QVTSyncEventTransformer",
            Array{"Calendars.Recurrence", "Calendars.AudioAlarm", "Calendars.MailAlarm",
                  "Calendars.DisplayAlarm", "Calendars.Organizer", "Calendars.Attendee",
                  "Calendars.Event", "Calendars.Task"});
    return true;
  }();
  (void)installed;
}

}  // namespace pc::testing
