#pragma once
// Shared by the conduit tests: a temporary folder, the log capture, and
// stand-ins for the classes the phone creates by name when the real ones are
// not part of the build.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "conduit/ConduitProtocols.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"
#include "support/LogCapture.h"

namespace pc::testing {

inline std::filesystem::path makeTemporaryFolder() {
  const char* base = std::getenv("PC_TEST_TMPDIR");
  std::filesystem::path root =
      base && *base ? std::filesystem::path(base) : std::filesystem::temp_directory_path();
  std::filesystem::create_directories(root);
  std::string pattern = (root / "conduit-XXXXXX").string();
  EXPECT_NE(mkdtemp(pattern.data()), nullptr);
  return pattern;
}

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

class FakeEntityFormatter : public EntityFormatting {
 public:
  std::string className() const override { return "EntityFormatter"; }
  void initWithPhone(CFPhone& phone, const std::string& entityName) override {
    this->phone = &phone;
    this->entityName = entityName;
  }
  void setHelper(DataClassHelperPtr helper) override { this->helper = std::move(helper); }

  CFPhone* phone = nullptr;
  std::string entityName;
  DataClassHelperPtr helper;
};

class FakeMapping : public ValueMapping {
 public:
  std::string className() const override { return "QVTSyncMapping"; }
  void initWithArray(const Array& mappings, const Value& defaultValue) override {
    this->mappings = mappings;
    this->defaultValue = defaultValue;
  }

  Array mappings;
  Value defaultValue;
};

// Registers the stand-ins under the names the phone uses, for the classes the
// build does not provide. Answers true when all of them are stand-ins, so
// that tests looking inside them can skip otherwise.
inline bool installStandIns() {
  static const bool allStandIns = [] {
    bool all = true;
    auto install = [&all](const std::string& name, ClassRegistry::Factory factory) {
      if (ClassRegistry::hasClass(name)) {
        all = false;
        return;
      }
      ClassRegistry::registerClass(name, "", std::move(factory));
    };
    install("QVTSyncContactTransformer", [] {
      return std::make_shared<FakeHelper>(
          "QVTSyncContactTransformer",
          Array{"Contacts.Contact", "Contacts.Group", "Contacts.PhoneNumber",
                "Contacts.EmailAddress", "Contacts.StreetAddress", "Contacts.Date",
                "Contacts.RelatedName", "Contacts.URL", "Contacts.IM", "Contacts.CustomField"});
    });
    install("QVTSyncEventTransformer", [] {
      return std::make_shared<FakeHelper>(
          "QVTSyncEventTransformer",
          Array{"Calendars.Recurrence", "Calendars.AudioAlarm", "Calendars.MailAlarm",
                "Calendars.DisplayAlarm", "Calendars.Organizer", "Calendars.Attendee",
                "Calendars.Event", "Calendars.Task"});
    });
    install("EntityFormatter", [] { return std::make_shared<FakeEntityFormatter>(); });
    install("QVTSyncMapping", [] { return std::make_shared<FakeMapping>(); });
    return all;
  }();
  return allStandIns;
}

}  // namespace pc::testing
