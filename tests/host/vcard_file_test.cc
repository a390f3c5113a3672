// A user's vCard files read into engine contact records and written back.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "host/ContentLines.h"
#include "host/UserFiles.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

// The one record of `text`; an empty dictionary (and a failed expectation)
// when there is not exactly one.
Dictionary readOne(const std::string& text, UserFileImport* whole = nullptr) {
  UserFileImport file = importVCardText(text, "test.vcf");
  EXPECT_FALSE(file.failure) << file.failure->message;
  EXPECT_EQ(file.records.size(), 1u);
  if (whole) *whole = file;
  return file.records.empty() ? Dictionary() : file.records.front().record;
}

std::string card(const std::string& version, const std::string& lines) {
  return "BEGIN:VCARD\r\nVERSION:" + version + "\r\n" + lines + "END:VCARD\r\n";
}

Dictionary sub(const Dictionary& record, const char* relation, std::size_t index) {
  const std::optional<Array> list = record.getArray(relation);
  if (!list || index >= list->count()) return Dictionary();
  return list->at(index).asDictionary().value_or(Dictionary());
}

std::string day(const Value& value) {
  return value.isDate() ? value.date().descriptionWithCalendarFormat("%Y-%m-%d %H:%M:%S %Z") : "not a date";
}

// The author's card of RFC 6350 section 8, as published.
const char* const kAuthorCard =
    "BEGIN:VCARD\r\n"
    "VERSION:4.0\r\n"
    "FN:Simon Perreault\r\n"
    "N:Perreault;Simon;;;ing. jr,M.Sc.\r\n"
    "BDAY:--0203\r\n"
    "ANNIVERSARY:20090808T1430-0500\r\n"
    "GENDER:M\r\n"
    "LANG;PREF=1:fr\r\n"
    "LANG;PREF=2:en\r\n"
    "ORG;TYPE=work:Viagenie\r\n"
    "ADR;TYPE=work:;Suite D2-630;2875 Laurier;\r\n"
    " Quebec;QC;G1V 2M2;Canada\r\n"
    "TEL;VALUE=uri;TYPE=\"work,voice\";PREF=1:tel:+1-418-656-9254;ext=102\r\n"
    "TEL;VALUE=uri;TYPE=\"work,cell,voice,video,text\":tel:+1-418-262-6501\r\n"
    "EMAIL;TYPE=work:simon.perreault@viagenie.ca\r\n"
    "GEO;TYPE=work:geo:46.772673,-71.282945\r\n"
    "KEY;TYPE=work;VALUE=uri:\r\n"
    " http://www.viagenie.ca/simon.perreault/simon.asc\r\n"
    "TZ:-0500\r\n"
    "URL;TYPE=home:http://nomis80.org\r\n"
    "END:VCARD\r\n";

TEST(VCardFileTest, TheAuthorCardOfTheStandardReadsAsPublished) {
  UserFileImport file;
  const Dictionary record = readOne(kAuthorCard, &file);
  EXPECT_EQ(record.getString("entityName"), "Contacts.Contact");
  EXPECT_EQ(record.getString("lastName"), "Perreault");
  EXPECT_EQ(record.getString("firstName"), "Simon");
  EXPECT_EQ(record.getString("suffix"), "ing. jr,M.Sc.");
  EXPECT_EQ(record.getString("companyName"), "Viagenie");
  EXPECT_EQ(day(record.get("birthday")), "1604-02-03 12:00:00 GMT");  // no year given
  EXPECT_EQ(sub(record, "dates", 0).getString("type"), "anniversary");
  EXPECT_EQ(day(sub(record, "dates", 0).get("value")), "2009-08-08 12:00:00 GMT");

  const Dictionary address = sub(record, "streetAddresses", 0);
  EXPECT_EQ(address.getString("street"), "Suite D2-630\n2875 Laurier");
  EXPECT_EQ(address.getString("city"), "Quebec");
  EXPECT_EQ(address.getString("state"), "QC");
  EXPECT_EQ(address.getString("postalCode"), "G1V 2M2");
  EXPECT_EQ(address.getString("country"), "Canada");
  EXPECT_EQ(address.getString("type"), "work");

  EXPECT_EQ(sub(record, "phoneNumbers", 0).getString("value"), "+1-418-656-9254;ext=102");
  EXPECT_EQ(sub(record, "phoneNumbers", 0).getString("type"), "work");
  EXPECT_EQ(sub(record, "phoneNumbers", 1).getString("value"), "+1-418-262-6501");
  EXPECT_EQ(sub(record, "phoneNumbers", 1).getString("type"), "mobile");
  EXPECT_EQ(sub(record, "emailAddresses", 0).getString("value"), "simon.perreault@viagenie.ca");
  EXPECT_EQ(sub(record, "emailAddresses", 0).getString("type"), "work");
  EXPECT_EQ(sub(record, "urls", 0).get("value"), Value(URL("http://nomis80.org")));
  EXPECT_EQ(sub(record, "urls", 0).getString("type"), "home");
  for (const char* relation : {"phoneNumbers", "emailAddresses", "streetAddresses", "urls", "dates"})
    EXPECT_TRUE(sub(record, relation, 0).contains("entityName")) << relation;

  const std::map<std::string, std::size_t> notKept{{"GENDER", 1}, {"GEO", 1}, {"KEY", 1}, {"LANG", 2}, {"TZ", 1}};
  EXPECT_EQ(file.propertiesNotKept, notKept);
  EXPECT_TRUE(file.skipped.empty());
}

// Cards in the forms address-book programs write.
TEST(VCardFileTest, CardsOfOtherProgramsReadIntoTheirFields) {
  const std::string photo = std::string("\xff\xd8\xff\xe0", 4) + std::string(150, 'x') + "\x01\x02";
  const std::string encoded = base64Encode(photo);
  std::string folded;
  for (std::size_t i = 0; i < encoded.size(); i += 60) folded += "\r\n " + encoded.substr(i, 60);
  const struct {
    const char* name;
    std::string text;
    const char* relation;  // a sub-record to check, or nullptr for the contact
    std::size_t index;
    const char* key;
    Value expected;
  } cases[] = {
      {"grouped label naming a type", card("3.0", "N:A;B;;;\r\nitem1.TEL;type=VOICE:555\r\nitem1.X-ABLabel:_$!<Mobile>!$_\r\n"),
       "phoneNumbers", 0, "type", "mobile"},
      {"grouped label of the user's own", card("3.0", "N:A;B;;;\r\nitem2.TEL:555\r\nitem2.X-ABLabel:Cottage\r\n"),
       "phoneNumbers", 0, "label", "Cottage"},
      {"label of another group is not taken", card("3.0", "N:A;B;;;\r\nitem1.TEL:555\r\nitem2.X-ABLabel:Cottage\r\n"),
       "phoneNumbers", 0, "label", Value()},
      {"grouped web page", card("3.0", "N:A;;;;\r\nitem3.URL:https://a.example\r\nitem3.X-ABLabel:_$!<HomePage>!$_\r\n"),
       "urls", 0, "type", "home page"},
      {"grouped country code", card("3.0", "N:A;;;;\r\nitem4.ADR;type=HOME:;;Hauptstr. 1;Berlin;;10115;Germany\r\nitem4.X-ABADR:de\r\n"),
       "streetAddresses", 0, "countryCode", "DE"},
      {"grouped date", card("3.0", "N:A;;;;\r\nitem5.X-ABDATE:2010-05-01\r\nitem5.X-ABLabel:_$!<Anniversary>!$_\r\n"),
       "dates", 0, "type", "anniversary"},
      {"grouped related name", card("3.0", "N:A;;;;\r\nitem6.X-ABRELATEDNAMES:Jane\r\nitem6.X-ABLabel:_$!<Spouse>!$_\r\n"),
       "relatedNames", 0, "type", "spouse"},
      {"preferred number first", card("3.0", "N:A;;;;\r\nTEL;TYPE=HOME:1\r\nTEL;TYPE=WORK,PREF:2\r\n"),
       "phoneNumbers", 0, "value", "2"},
      {"PREF=1 before PREF=2", card("4.0", "N:A;;;;\r\nEMAIL;PREF=2:b@x.example\r\nEMAIL;PREF=1:a@x.example\r\n"),
       "emailAddresses", 0, "value", "a@x.example"},
      {"fax at work", card("3.0", "N:A;;;;\r\nTEL;TYPE=WORK;TYPE=FAX:1\r\n"), "phoneNumbers", 0, "type", "work fax"},
      {"plain fax", card("3.0", "N:A;;;;\r\nTEL;TYPE=FAX:1\r\n"), "phoneNumbers", 0, "type", "home fax"},
      {"number as a tel: address", card("4.0", "N:A;;;;\r\nTEL;VALUE=uri:tel:+33-1-23\r\n"), "phoneNumbers", 0, "value", "+33-1-23"},
      {"2.1 mobile with its charset",
       card("2.1", "N;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:M=FCller;J=F6rg\r\nTEL;CELL;PREF:0170\r\n"),
       nullptr, 0, "lastName", "M\xc3\xbcller"},
      {"2.1 value keeps its backslash", card("2.1", "N:A;;;;\r\nNOTE:C:\\temp\r\n"), nullptr, 0, "notes", "C:\\temp"},
      {"3.0 escapes undone", card("3.0", "N:A;;;;\r\nNOTE:one\\ntwo\\, three\\; four\\\\\r\n"), nullptr, 0, "notes",
       "one\ntwo, three; four\\"},
      {"organisation and department", card("3.0", "N:A;;;;\r\nORG:Acme\\, Inc.;R&D\r\n"), nullptr, 0, "department", "R&D"},
      {"nickname", card("4.0", "N:A;;;;\r\nNICKNAME:Al,Bert\r\n"), nullptr, 0, "nickname", "Al,Bert"},
      {"categories", card("3.0", "N:A;;;;\r\nCATEGORIES:Friends,Work\\, Old\r\n"), nullptr, 0, "categories",
       Array{"Friends", "Work, Old"}},
      {"name from FN alone", card("4.0", "FN:Cher\r\n"), nullptr, 0, "lastName", "Cher"},
      {"FN of an organisation is no name", card("3.0", "FN:Acme\r\nORG:Acme\r\n"), nullptr, 0, "lastName", Value()},
      {"birthday", card("3.0", "N:A;;;;\r\nBDAY:1985-04-12\r\n"), nullptr, 0, "birthday", Value()},
      {"folded base64 photo", card("3.0", "N:A;;;;\r\nPHOTO;ENCODING=b;TYPE=JPEG:" + folded + "\r\n"), nullptr, 0,
       "image", Data::fromString(photo)},
      {"photo as a data: address", card("4.0", "N:A;;;;\r\nPHOTO:data:image/jpeg;base64," + encoded + "\r\n"),
       nullptr, 0, "image", Data::fromString(photo)},
      {"2.1 base64 photo", card("2.1", "N:A;;;;\r\nPHOTO;JPEG;ENCODING=BASE64:" + encoded + "\r\n\r\n"), nullptr, 0,
       "image", Data::fromString(photo)},
      {"instant messaging address", card("4.0", "N:A;;;;\r\nIMPP;TYPE=work:xmpp:a@jabber.example\r\n"), "ims", 0,
       "service", "xmpp"},
      {"messaging property of its own", card("3.0", "N:A;;;;\r\nX-JABBER;TYPE=HOME:a@jabber.example\r\n"), "ims", 0,
       "service", "jabber"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Dictionary record = readOne(c.text);
    const Dictionary holder = c.relation ? sub(record, c.relation, c.index) : record;
    if (std::string(c.key) == "birthday")
      EXPECT_EQ(day(holder.get(c.key)), "1985-04-12 12:00:00 GMT");
    else
      EXPECT_EQ(holder.get(c.key), c.expected) << holder.get(c.key).description();
  }
}

TEST(VCardFileTest, BirthdaysWithoutAYearAndDaysThatAreNone) {
  const struct {
    const char* value;
    const char* expected;  // nullptr: no birthday, reported
  } cases[] = {
      {"--0412", "1604-04-12"}, {"--04-12", "1604-04-12"}, {"--0229", "1604-02-29"},
      {"19850412", "1985-04-12"}, {"1985-04-12T10:00:00Z", "1985-04-12"},
      {"--0230", nullptr}, {"1985-13-01", nullptr}, {"circa 1800", nullptr}, {"1985", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    UserFileImport file;
    const Dictionary record = readOne(card("4.0", "N:A;;;;\r\nBDAY:" + std::string(c.value) + "\r\n"), &file);
    if (c.expected) {
      EXPECT_EQ(day(record.get("birthday")), std::string(c.expected) + " 12:00:00 GMT");
      EXPECT_TRUE(file.reported.empty());
    } else {
      EXPECT_FALSE(record.contains("birthday"));
      ASSERT_EQ(file.reported.size(), 1u);
      EXPECT_EQ(file.reported[0].line, 4u);
      EXPECT_EQ(file.propertiesNotKept["BDAY"], 1u);
    }
  }
}

TEST(VCardFileTest, IdentifiersComeFromTheUidOrFromTheCardItself) {
  const std::string withUid = card("3.0", "UID:urn:uuid:1234\r\nN:A;;;;\r\n");
  const std::string plain = card("3.0", "N:A;;;;\r\n");
  const std::string other = card("3.0", "N:B;;;;\r\n");
  EXPECT_EQ(importVCardText(withUid, "a.vcf").records.at(0).identifier, "urn:uuid:1234");
  const std::string first = importVCardText(plain, "a.vcf").records.at(0).identifier;
  EXPECT_EQ(first.rfind("vcard-", 0), 0u);
  EXPECT_EQ(importVCardText(plain, "b.vcf").records.at(0).identifier, first);
  EXPECT_NE(importVCardText(other, "a.vcf").records.at(0).identifier, first);

  // A second card with the same UID is skipped, naming the first.
  const UserFileImport twice = importVCardText(withUid + withUid, "a.vcf");
  ASSERT_EQ(twice.records.size(), 1u);
  ASSERT_EQ(twice.skipped.size(), 1u);
  EXPECT_EQ(twice.skipped[0].line, 6u);
  EXPECT_NE(twice.skipped[0].message.find("line 1"), std::string::npos) << twice.skipped[0].message;
}

TEST(VCardFileTest, ABadCardIsSkippedWithItsLineAndTheOthersKept) {
  const std::string text = card("3.0", "N:Good;One;;;\r\n") +                   // lines 1-4
                           "BEGIN:VEVENT\r\nSUMMARY:x\r\nEND:VEVENT\r\n" +          // 5-7
                           card("5.0", "N:Future;;;;\r\n") +                       // 8-11
                           card("3.0", "X-UNKNOWN:1\r\n") +                        // 12-15
                           card("3.0", "N:Good;Two;;;\r\nthis line has no colon\r\n") +  // 16-20
                           "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Unended;;;;\r\n" +      // 21-23
                           card("4.0", "N:Good;Three;;;\r\n");                     // 24-27
  const UserFileImport file = importVCardText(text, "mixed.vcf");
  ASSERT_FALSE(file.failure);
  std::vector<std::string> names;
  for (const UserFileRecord& entry : file.records) names.push_back(entry.record.getString("lastName") + "@" + std::to_string(entry.line));
  EXPECT_EQ(names, (std::vector<std::string>{"Good@1", "Good@16", "Unended@21", "Good@24"}));
  ASSERT_EQ(file.skipped.size(), 3u);
  EXPECT_EQ(file.skipped[0].line, 5u);
  EXPECT_NE(file.skipped[0].message.find("VEVENT"), std::string::npos);
  EXPECT_EQ(file.skipped[1].line, 8u);
  EXPECT_NE(file.skipped[1].message.find("5.0"), std::string::npos);
  EXPECT_EQ(file.skipped[2].line, 12u);
  EXPECT_EQ(file.propertiesNotKept.at("X-UNKNOWN"), 1u);
  const auto noted = [&](std::size_t line) {
    return std::any_of(file.reported.begin(), file.reported.end(), [&](const UserFileNote& n) { return n.line == line; });
  };
  EXPECT_TRUE(noted(19u));  // the line without a colon
}

TEST(VCardFileTest, AFileWithNoCardFails) {
  for (const std::string& text : {std::string(), std::string("hello\r\nworld\r\n"),
                                 std::string("BEGIN:VCALENDAR\r\nEND:VCALENDAR\r\n"), std::string("\0\xff\xfe", 3)}) {
    const UserFileImport file = importVCardText(text, "x.vcf");
    ASSERT_TRUE(file.failure) << text;
    EXPECT_GE(file.failure->line, 1u);
    EXPECT_TRUE(file.records.empty());
  }
}

// Every example contact, and cards of every form above, come back the same
// through export and import, identifiers included.
TEST(VCardFileTest, ExportedCardsImportBackToTheSameRecords) {
  std::vector<std::pair<std::string, Dictionary>> records;
  for (const auto& entry : std::filesystem::directory_iterator(PC_SOURCE_DIR "/examples/records/contacts")) {
    std::string error;
    std::optional<Dictionary> record = readRecordFile(entry.path().string(), &error);
    ASSERT_TRUE(record) << error;
    records.emplace_back(entry.path().stem().string(), *record);
  }
  for (const UserFileRecord& entry : importVCardText(kAuthorCard, "author.vcf").records)
    records.emplace_back(entry.identifier, entry.record);
  Dictionary awkward{{"entityName", "Contacts.Contact"},
                     {"lastName", "O'Neil; \"Jr\", \\ the \xce\xb1\xce\xb2\xce\xb3 one with a name long enough to be folded more than once"},
                     {"notes", "two\nlines\r\nand a, comma"},
                     {"nickname", "Al, Bert"},
                     {"categories", Array{"a,b", "c;d"}},
                     {"phoneNumbers", Array{Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"value", "1"},
                                                       {"type", "car"}, {"label", "Old: \"x\""}}}},
                     {"ims", Array{Dictionary{{"entityName", "Contacts.IM"}, {"value", "skype:a;b"},
                                              {"service", "Skype"}, {"type", "home"}}}},
                     {"dates", Array{Dictionary{{"entityName", "Contacts.Date"}, {"value", Value()}, {"type", "other"}}}}};
  awkward.set("notes", "two\nlines\nand a, comma");
  awkward.remove("dates");
  records.emplace_back("awkward/ identifier;with,marks", awkward);

  const std::string text = exportVCardText(records);
  const UserFileImport back = importVCardText(text, "export.vcf");
  ASSERT_FALSE(back.failure);
  EXPECT_TRUE(back.skipped.empty());
  EXPECT_TRUE(back.reported.empty()) << back.reported.front().message;
  EXPECT_TRUE(back.propertiesNotKept.empty()) << back.propertiesNotKept.begin()->first;
  ASSERT_EQ(back.records.size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(records[i].first);
    EXPECT_EQ(back.records[i].identifier, records[i].first);
    EXPECT_EQ(Value(back.records[i].record), Value(records[i].second))
        << back.records[i].record.description() << "\n" << records[i].second.description();
  }

  // The text itself: CRLF lines of at most 75 octets, folds between whole
  // characters, and only contacts.
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find("\r\n", start);
    ASSERT_NE(end, std::string::npos);
    EXPECT_LE(end - start, 75u);
    if (end + 3 < text.size() && text[end + 2] == ' ') {
      EXPECT_NE(static_cast<unsigned char>(text[end + 3]) & 0xC0, 0x80) << text.substr(start, end - start);
    }
    start = end + 2;
  }
  EXPECT_EQ(exportVCardText({{"event", Dictionary{{"entityName", "Calendars.Event"}}}}), "");
}

}  // namespace
}  // namespace pc
