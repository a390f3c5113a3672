// The phone store in the phone's formats: which parser keeps a data class,
// entries added by hand, and files that are not the phone's.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "host/PhoneStore.h"
#include "host/VFormatParsers.h"
#include "platform/CalendarDate.h"
#include "platform/Registry.h"
#include "platform/TimeZone.h"
#include "support/LogCapture.h"
#include "support/TemporaryFolder.h"

namespace pc {
namespace {

class VFormatStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    folder = test::folderOfThisTest("vformat-store");
    std::filesystem::create_directories(folder);
    usePhoneParsers(store, description());
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  // Contacts by MIME type, calendars by the parser named.
  static Dictionary description() {
    return Dictionary{{"SyncDataClasses",
                       Dictionary{{"Contacts", Dictionary{{"MimeType", "text/x-vcard"}}},
                                  {"Calendars", Dictionary{{"MimeType", "text/x-vcalendar"}, {"Parser", "VCalendarParser"}}},
                                  {"Notes", Dictionary{{"MimeType", "text/plain"}}}}}};
  }
  void put(const std::string& name, const std::string& text) const {
    std::ofstream(folder + "/" + name, std::ios::binary) << text;
  }

  std::string folder;
  PhoneStore store{""};
};

TEST_F(VFormatStoreTest, EachDataClassIsKeptInItsParsersFormat) {
  store = PhoneStore(folder);
  usePhoneParsers(store, description());
  EXPECT_EQ(std::filesystem::path(store.pathForDataClass("Contacts")).filename(), "Contacts.vcf");
  EXPECT_EQ(std::filesystem::path(store.pathForDataClass("Calendars")).filename(), "Calendars.vcs");
  EXPECT_EQ(std::filesystem::path(store.pathForDataClass("Notes")).filename(), "Notes.plist");

  const PhoneStoreContents contacts{"Contacts", {{"c1", "Contacts.Contact", Dictionary{{"firstName", "Zoë"}}}}};
  ASSERT_EQ(store.write(contacts), PhoneStore::WriteResult::written);
  EXPECT_EQ(store.write(contacts), PhoneStore::WriteResult::unchanged);
  const std::optional<PhoneStoreContents> back = store.read("Contacts");
  ASSERT_TRUE(back);
  ASSERT_EQ(back->records.size(), 1u);
  EXPECT_EQ(back->records[0].identifier, "c1");
  EXPECT_EQ(back->records[0].fields, contacts.records[0].fields);
}

// Read entries carry their master in each sub-record's back relation;
// written again as they were read, they give the same bytes as without it,
// also where a relation is one the format cannot write.
TEST_F(VFormatStoreTest, SubRecordsBackRelationsNeverReachTheFile) {
  // A phone that keeps instants: its calendar entries stand alone.
  store = PhoneStore(folder);
  usePhoneParsers(store, Dictionary{{"Formatting", Dictionary()},
                                    {"SyncDataClasses",
                                     Dictionary{{"Contacts", Dictionary{{"MimeType", "text/x-vcard"}}},
                                                {"Calendars", Dictionary{{"MimeType", "text/x-vcalendar"},
                                                                         {"supportsTZ", true},
                                                                         {"supportsGMTDates", true}}}}}});
  auto entries = [](bool withBack) {
    auto sub = [&](Dictionary fields, const char* back, const char* master) {
      if (withBack) fields.set(back, Array{Value(master)});
      return Value(fields);
    };
    const CalendarDate start = CalendarDate::dateWithYear(2027, 1, 31, 8, 30, 0, TimeZone::gmt());
    return std::vector<PhoneStoreContents>{
        {"Contacts",
         {{"c1", "Contacts.Contact",
           Dictionary{{"firstName", "Zoë"},
                      {"phoneNumbers", Array{sub(Dictionary{{"value", "+33 1 2"}, {"type", "mobile"}}, "contact", "c1")}},
                      {"emailAddresses", Array{sub(Dictionary{{"value", "z@example.com"}}, "contact", "c1")}}}},
          {"c2", "Contacts.Contact",
           Dictionary{{"lastName", "Ng"}, {"image", Data::fromString(std::string("\x89PNG\r\n\x1a\n", 8) + "pixels")}}}}},
        {"Calendars",
         {{"e1", "Calendars.Event",
           Dictionary{{"summary", "Review"},
                      {"startDate", Value(start)},
                      {"displayAlarms", Array{sub(Dictionary{{"triggerduration", -600}}, "owner", "e1")}},
                      // A rule the format cannot write.
                      {"recurrences", Array{sub(Dictionary{{"frequency", "fortnightly"}}, "owner", "e1")}},
                      {"attendees", Array{sub(Dictionary{{"emailAddress", "a@example.com"}}, "owner", "e1")}}}},
          {"t1", "Calendars.Task", Dictionary{{"summary", "File taxes"}, {"priority", 1}}}}}};
  };
  const std::vector<PhoneStoreContents> plain = entries(false), pointing = entries(true);
  for (std::size_t i = 0; i < plain.size(); ++i) {
    SCOPED_TRACE(plain[i].dataClass);
    const std::optional<std::string> bytes = store.bytesFor(plain[i]);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(store.bytesFor(pointing[i]), bytes);
    // The file is its entries' texts, one after another.
    std::vector<std::string> texts;
    for (const PhoneStoreRecord& record : pointing[i].records)
      texts.push_back(store.entryText(plain[i].dataClass, record).value_or("(none)"));
    EXPECT_EQ(store.bytesForEntryTexts(plain[i].dataClass, texts), bytes);
    const std::optional<PhoneStoreContents> read = store.contentsFromFileBytes(plain[i].dataClass, *bytes);
    ASSERT_TRUE(read);
    EXPECT_EQ(store.bytesFor(*read), bytes);
  }
}

// A file is cut into its entries' texts only when it is exactly what the
// writer makes of them; an entry reads alone only when it reads cleanly.
TEST_F(VFormatStoreTest, OnlyTheWritersOwnFilesAreReadEntryByEntry) {
  store = PhoneStore(folder);
  usePhoneParsers(store, Dictionary{{"Formatting", Dictionary()},
                                    {"SyncDataClasses",
                                     Dictionary{{"Contacts", Dictionary{{"MimeType", "text/x-vcard"}}},
                                                {"Calendars", Dictionary{{"MimeType", "text/x-vcalendar"},
                                                                         {"supportsTZ", true},
                                                                         {"supportsGMTDates", true}}}}}});
  const std::string a = "BEGIN:VCARD\r\nVERSION:2.1\r\nX-IRMC-LUID:a\r\nN:A;;;;\r\nEND:VCARD\r\n";
  const std::string b = "BEGIN:VCARD\r\nVERSION:2.1\r\nX-IRMC-LUID:b\r\nNOTE:END:VCARD\r\nEND:VCARD\r\n";
  const std::string head = "BEGIN:VCALENDAR\r\nVERSION:1.0\r\n", tail = "END:VCALENDAR\r\n";
  const std::string e = "BEGIN:VEVENT\r\nX-IRMC-LUID:e\r\nSUMMARY:S\r\nEND:VEVENT\r\n";
  const std::string t = "BEGIN:VTODO\r\nX-IRMC-LUID:t\r\nEND:VTODO\r\n";
  const struct {
    const char* dataClass;
    std::string file;
    std::optional<std::vector<std::string>> entries;
  } cases[] = {
      {"Contacts", a + b, std::vector<std::string>{a, b}},
      {"Contacts", "", std::vector<std::string>{}},
      {"Contacts", a + "\r\n" + b, std::nullopt},               // a blank line between
      {"Contacts", a.substr(0, a.size() - 2) + "\n", std::nullopt},  // another line end
      {"Contacts", a + b.substr(0, 20), std::nullopt},           // cut short
      {"Calendars", head + e + t + tail, std::vector<std::string>{e, t}},
      {"Calendars", head + tail, std::vector<std::string>{}},
      {"Calendars", head + "TZ:+01:00\r\n" + e + tail, std::nullopt},  // a zone described
      {"Calendars", head + e + "BEGIN:VCARD\r\nEND:VCARD\r\n" + tail, std::nullopt},
      {"Calendars", e, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.dataClass + (": " + c.file));
    const auto texts = store.entryTextsOfFile(c.dataClass, c.file);
    ASSERT_EQ(texts.has_value(), c.entries.has_value());
    if (!texts) continue;
    EXPECT_EQ(std::vector<std::string>(texts->begin(), texts->end()), *c.entries);
    EXPECT_EQ(store.bytesForEntryTexts(c.dataClass, *c.entries), c.file);
  }
  // An entry read alone is the entry the whole file gives; one without an
  // identifier or with a line that does not read gives none.
  const std::optional<PhoneStoreRecord> alone = store.entryFromText("Contacts", b);
  const std::optional<PhoneStoreContents> whole = store.contentsFromFileBytes("Contacts", a + b);
  ASSERT_TRUE(alone && whole && whole->records.size() == 2);
  EXPECT_EQ(alone->identifier, "b");
  EXPECT_EQ(alone->fields, whole->records[1].fields);
  EXPECT_FALSE(store.entryFromText("Contacts", "BEGIN:VCARD\r\nVERSION:2.1\r\nN:A;;;;\r\nEND:VCARD\r\n"));
  EXPECT_FALSE(store.entryFromText("Contacts", "BEGIN:VCARD\r\nX-IRMC-LUID:c\r\nBDAY:someday\r\nEND:VCARD\r\n"));
  EXPECT_FALSE(store.entryFromText("Contacts", a + b));
  EXPECT_TRUE(store.entryFromText("Calendars", e));
}

TEST_F(VFormatStoreTest, EntriesAddedByHandGetIdentifiersAndBadLinesAreLogged) {
  store = PhoneStore(folder);
  usePhoneParsers(store, description());
  test::LogCapture log;
  put("Contacts.vcf",
      "BEGIN:VCARD\r\nVERSION:2.1\r\nX-IRMC-LUID:new-1\r\nN:One;\r\nEND:VCARD\r\n"
      "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Two;\r\nbroken\r\nEND:VCARD\r\n"
      "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Three;\r\nEND:VCARD\r\n");
  const std::optional<PhoneStoreContents> contents = store.read("Contacts");
  ASSERT_TRUE(contents);
  ASSERT_EQ(contents->records.size(), 3u);
  EXPECT_EQ(contents->records[0].identifier, "new-1");
  EXPECT_EQ(contents->records[1].identifier, "new-2");
  EXPECT_EQ(contents->records[2].identifier, "new-3");
  EXPECT_TRUE(log.contains(store.pathForDataClass("Contacts") + ":9: no colon after the property name"));
}

TEST_F(VFormatStoreTest, AFileCutShortOrNotThePhonesStopsTheReadNamingIt) {
  store = PhoneStore(folder);
  usePhoneParsers(store, description());
  for (const std::string& text : {std::string("BEGIN:VCALENDAR\r\nVERSION:1.0\r\nBEGIN:VEVENT\r\nSUMMARY:a\r\n"),
                                  std::string("<?xml version=\"1.0\"?>\n<plist><dict/></plist>\n")}) {
    put("Calendars.vcs", text);
    std::string error;
    EXPECT_FALSE(store.read("Calendars", &error)) << text;
    EXPECT_EQ(error.rfind(store.pathForDataClass("Calendars") + ": line ", 0), 0u) << error;
  }
  // An empty file is a phone that holds nothing.
  put("Calendars.vcs", "");
  const std::optional<PhoneStoreContents> empty = store.read("Calendars");
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->records.empty());
}

// Set up from a description alone, the vCalendar parser takes the times the
// description gives the phone's event transformer: instants for a phone
// that keeps zones and instants, wall clocks of the machine's zone for any
// other. The transformer's properties are the data class's info in the
// second format ("Formatting" present) and its manager's in the first.
TEST(VFormatParserTest, TheDescriptionSaysWhetherTimesAreLocal) {
  const struct {
    const char* label;
    Dictionary calendars;
    bool secondFormat;
    bool local;
  } cases[] = {
      {"zones and instants", Dictionary{{"supportsTZ", true}, {"supportsGMTDates", true}}, true, false},
      {"zones, local times", Dictionary{{"supportsTZ", true}}, true, true},
      {"no zones", Dictionary{{"supportsTZ", false}, {"supportsGMTDates", true}}, true, true},
      {"told GMT", Dictionary{{"supportsTZ", true}, {"treatEventsTimeAs", "GMT"}}, true, false},
      {"GMT, then told local", Dictionary{{"supportsTZ", true}, {"hasTimeZone", true}, {"treatEventsTimeAs", "LocalTime"}},
       true, true},
      {"first format, manager's attributes",
       Dictionary{{"DataClassManager", Dictionary{{"Name", "CalendarManager"}, {"supportsTZ", true}, {"hasTimeZone", true}}}},
       false, false},
      {"first format, attributes not the manager's", Dictionary{{"DataClassManager", "CalendarManager"}, {"supportsTZ", true},
                                                                {"supportsGMTDates", true}},
       false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Dictionary calendars = c.calendars.copy();
    calendars.set("MimeType", "text/x-vcalendar");
    Dictionary description{{"SyncDataClasses", Dictionary{{"Calendars", calendars}}}};
    if (c.secondFormat) description.set("Formatting", Dictionary());
    VCalendarParser parser;
    parser.useTimesOfDescription(calendars, description);
    EXPECT_EQ(parser.options().localTimes, c.local);
    if (c.local) {
      EXPECT_EQ(parser.options().phoneZone->name(), TimeZone::systemTimeZone()->name());
    }
    const Dictionary event{{"summary", "Stand-up"},
                           {"startDate", CalendarDate::dateWithYear(2027, 7, 1, 9, 0, 0, TimeZone::systemTimeZone())}};
    const std::string text = parser.textForContents({"Calendars", {{"1", "Calendars.Event", event}}});
    EXPECT_EQ(text.find("\r\nTZ:") != std::string::npos, c.local) << text;
    // Entries stand alone only where the file describes no zone.
    const std::optional<std::string> entry = parser.entryText({"1", "Calendars.Event", event});
    EXPECT_EQ(entry.has_value(), !c.local);
    if (entry) {
      EXPECT_EQ(parser.textForEntryTexts({*entry}), text);
    }
  }
}

TEST(VFormatParserTest, AsDeviceParsersTheyCarryIdentifierAndEntity) {
  auto parser = ClassRegistry::createAs<DeviceParser>("VCalendarParser");
  ASSERT_TRUE(parser);
  parser->initWithPhone(nullptr, std::nullopt);
  const Array records{Dictionary{{"entityName", "Calendars.Task"}, {"identifier", "t1"}, {"summary", "Buy milk"}},
                      Dictionary{{"entityName", "Calendars.Event"}, {"summary", "No identifier"}}};
  const std::optional<Array> back = parser->recordsFromData(parser->dataFromRecords(records));
  ASSERT_TRUE(back);
  ASSERT_EQ(back->count(), 2u);
  EXPECT_EQ((*back)[0], records[0]);
  // An event always says whether it is all-day.
  EXPECT_EQ((*back)[1].dictionary().getString("summary"), "No identifier");
  EXPECT_FALSE((*back)[1].dictionary().contains("identifier"));
  EXPECT_EQ(parserClassForMimeType("text/x-vcard"), "VCardParser");
  EXPECT_EQ(parserClassForMimeType("text/plain"), "");
}

}  // namespace
}  // namespace pc
