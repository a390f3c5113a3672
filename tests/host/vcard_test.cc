#include "host/VCardCodec.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "util/PHCMangling.h"

namespace pc {
namespace {

// A record as the phone store holds it: no entity names inside.
Value withoutEntityNames(const Value& value) {
  if (std::optional<Dictionary> d = value.asDictionary()) {
    Dictionary out;
    for (const auto& [key, item] : *d)
      if (!(key.isString() && key.string() == "entityName")) out.set(key, withoutEntityNames(item));
    return out;
  }
  if (std::optional<Array> a = value.asArray()) {
    Array out;
    for (const Value& item : *a) out.add(withoutEntityNames(item));
    return out;
  }
  return value;
}

PhoneStoreRecord readOne(std::string_view text, const VCardOptions& options = {},
                         VFormatReadResult* whole = nullptr) {
  VFormatReadResult result = VCardCodec(options).read(text);
  if (whole) *whole = result;
  EXPECT_EQ(result.records.size(), 1u);
  return result.records.empty() ? PhoneStoreRecord{} : result.records.front();
}

TEST(VCardTest, EveryExampleContactReadsBackAsWritten) {
  std::vector<PhoneStoreRecord> records;
  for (const auto& entry : std::filesystem::directory_iterator(PC_SOURCE_DIR "/examples/records/contacts")) {
    std::string error;
    std::optional<Dictionary> record = readRecordFile(entry.path().string(), &error);
    ASSERT_TRUE(record) << error;
    records.push_back({entry.path().stem().string(), "Contacts.Contact",
                       *withoutEntityNames(*record).asDictionary()});
  }
  ASSERT_GT(records.size(), 40u);
  const std::string text = VCardCodec().write(records);
  const VFormatReadResult back = VCardCodec().read(text);
  EXPECT_TRUE(back.problems.empty()) << back.problems.front().line << ": " << back.problems.front().message;
  EXPECT_TRUE(back.ignoredProperties.empty());
  ASSERT_EQ(back.records.size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(back.records[i].identifier, records[i].identifier);
    EXPECT_TRUE(back.records[i].fields == records[i].fields)
        << records[i].identifier << "\n" << back.records[i].fields.description();
  }
  // A second write of what was read is the same file.
  EXPECT_EQ(VCardCodec().write(back.records), text);
}

// The same contact as different phones and programs send it.
struct PhoneCard {
  const char* label;
  std::string text;
  std::size_t ignored;  // properties left out
};

class VCardPhoneStyleTest : public ::testing::TestWithParam<PhoneCard> {};

TEST_P(VCardPhoneStyleTest, ReadsIntoThePlainRecord) {
  VFormatReadResult result;
  const PhoneStoreRecord record = readOne(GetParam().text, {}, &result);
  EXPECT_TRUE(result.problems.empty()) << result.problems.front().message;
  std::size_t ignored = 0;
  for (const auto& [name, count] : result.ignoredProperties) ignored += count;
  EXPECT_EQ(ignored, GetParam().ignored);
  EXPECT_EQ(record.identifier, "42");
  const Dictionary expected{
      {"lastName", "Müller"},
      {"firstName", "Jörg"},
      {"companyName", "Ölwerk; Süd"},
      {"notes", "Zweite Zeile:\nhier"},
      {"phoneNumbers", Array{Dictionary{{"value", "+49 30 1234"}, {"type", "mobile"}},
                             Dictionary{{"value", "+49 30 5678"}, {"type", "work fax"}}}},
      {"emailAddresses", Array{Dictionary{{"value", "joerg@example.de"}, {"type", "work"}}}},
      {"image", Data::fromString("Hello, phone")},
  };
  EXPECT_TRUE(record.fields == expected) << record.fields.description();
}

INSTANTIATE_TEST_SUITE_P(
    Phones, VCardPhoneStyleTest,
    ::testing::Values(
        PhoneCard{"PlainUTF8",
                  "BEGIN:VCARD\r\nVERSION:2.1\r\nX-IRMC-LUID:42\r\nN:Müller;Jörg\r\nORG:Ölwerk\\; Süd\r\n"
                  "NOTE;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:Zweite Zeile:=0Ahier\r\n"
                  "TEL;CELL:+49 30 1234\r\nTEL;WORK;FAX:+49 30 5678\r\nEMAIL;INTERNET;WORK:joerg@example.de\r\n"
                  "PHOTO;ENCODING=BASE64;TYPE=JPEG:\r\n    SGVsbG8sIHBob25l\r\n\r\nEND:VCARD\r\n",
                  0},
        PhoneCard{"SonyEricssonLatin1",
                  "BEGIN:VCARD\nVERSION:2.1\nN;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:M=FCller;J=F6rg\n"
                  "FN;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:J=F6rg M=FCller\n"
                  "ORG;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:=D6lwerk\\; S=FCd\n"
                  "NOTE;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:Zweite Zeile:=0A=\nhier\n"
                  "TEL;CELL;PREF:+49 30 1234\nTEL;FAX;WORK:+49 30 5678\nEMAIL;WORK;INTERNET:joerg@example.de\n"
                  "X-IRMC-LUID:42\nX-SONYERICSSON-DST:0\nPHOTO;TYPE=JPEG;ENCODING=BASE64:SGVsbG8s\nIHBob25l\n"
                  "END:VCARD\n",
                  1},
        PhoneCard{"SymbianEpoc",
                  "BEGIN:VCARD\r\nVERSION:2.1\r\nREV:20270131T101010Z\r\nUID:ignored-when-luid\r\n"
                  "N;ENCODING=QUOTED-PRINTABLE;CHARSET=UTF-8:M=C3=BCller;J=C3=B6rg;;;\r\n"
                  "ORG;CHARSET=UTF-8:Ölwerk\\; Süd\r\nX-EPOCSECONDNAME:Jö\r\n"
                  "NOTE;ENCODING=QUOTED-PRINTABLE;CHARSET=UTF-8:Zweite Zeile:=0A=\r\nhier\r\n"
                  "TEL;CELL:+49 30 1234\r\nTEL;WORK;FAX:+49 30 5678\r\nEMAIL;INTERNET;WORK:joerg@example.de\r\n"
                  "PHOTO;ENCODING=BASE64:\r\n SGVsbG8s\r\n IHBob25l\r\n\r\nX-IRMC-LUID:42\r\nEND:VCARD\r\n",
                  2},
        PhoneCard{"MotorolaWindows1252",
                  "BEGIN:VCARD\r\nVERSION:2.1\r\nN:M\xfcller;J\xf6rg\r\nORG:\xd6lwerk\\; S\xfc" "d\r\n"
                  "NOTE;ENCODING=QUOTED-PRINTABLE:Zweite Zeile:=0A=\r\nhier\r\n"
                  "TEL;TYPE=CELL:+49 30 1234\r\nTEL;TYPE=WORK;TYPE=FAX:+49 30 5678\r\n"
                  "EMAIL;TYPE=INTERNET;TYPE=WORK:joerg@example.de\r\nX-IRMC-LUID:42\r\n"
                  "PHOTO;ENCODING=BASE64;TYPE=JPEG:SGVsbG8sIHBob25l\r\nEND:VCARD\r\n",
                  0},
        PhoneCard{"WindowsMobile30",
                  "BEGIN:VCARD\r\nVERSION:3.0\r\nPRODID:-//Example//Phone//EN\r\nN:Müller;Jörg;;;\r\nFN:Jörg Müller\r\n"
                  "ORG:Ölwerk\\; Süd\r\nNOTE:Zweite Zeile:\\nhier\r\nitem1.TEL;TYPE=cell:+49 30 1234\r\n"
                  "item1.X-ABLABEL:mobile\r\nTEL;TYPE=work,fax:+49 30 5678\r\n"
                  "EMAIL;TYPE=INTERNET,WORK:joerg@example.de\r\nX-IRMC-LUID:42\r\n"
                  "PHOTO;ENCODING=b;TYPE=JPEG:SGVsbG8s\r\n IHBob25l\r\nEND:VCARD\r\n",
                  2},
        PhoneCard{"VCard40",
                  "BEGIN:VCARD\r\nVERSION:4.0\r\nN:Müller;Jörg;;;\r\nORG:Ölwerk\\; Süd\r\nNOTE:Zweite Zeile:\\nhier\r\n"
                  "TEL;VALUE=uri;TYPE=\"cell\":tel:+49 30 1234\r\nTEL;TYPE=\"work,fax\":+49 30 5678\r\n"
                  "EMAIL;TYPE=work:joerg@example.de\r\nUID:42\r\n"
                  "PHOTO:data:image/jpeg;base64,SGVsbG8sIHBob25l\r\nEND:VCARD\r\n",
                  0}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(VCardTest, TypesReadAsThePhoneNamesThem) {
  VCardOptions options;
  options.typeNames["phoneNumbers"] = {"CELL", "HOME", "FAX", ""};
  const Array numbers{Dictionary{{"value", "1"}, {"type", "CELL"}}, Dictionary{{"value", "2"}, {"type", ""}},
                      Dictionary{{"value", "3"}, {"type", "FAX"}}, Dictionary{{"value", "4"}, {"type", "pager"}}};
  const PhoneStoreRecord record{"1", "Contacts.Contact", Dictionary{{"phoneNumbers", numbers}}};
  const std::string text = VCardCodec(options).write({record});
  EXPECT_NE(text.find("TEL;CELL:1\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("TEL:2\r\n"), std::string::npos) << text;
  EXPECT_EQ(readOne(text, options).fields.get("phoneNumbers"), Value(numbers));
  // Without the phone's names, the engine's.
  const Array engine = readOne(text).fields.getArray("phoneNumbers").value();
  EXPECT_EQ(engine[0].dictionary().getString("type"), "mobile");
  EXPECT_EQ(engine[1].dictionary().getString("type"), "other");
}

TEST(VCardTest, ABrokenLineLosesNeitherItsEntryNorTheNext) {
  const std::string text =
      "BEGIN:VCARD\r\nVERSION:2.1\r\nN:One;\r\nTEL;CELL 555\r\nBDAY:not a day\r\nNOTE:kept\r\nEND:VCARD\r\n"
      "BEGIN:VCARD\r\nVERSION:2.1\r\nN:Two;\r\nEND:VCARD\r\n";
  const VFormatReadResult result = VCardCodec().read(text);
  ASSERT_EQ(result.records.size(), 2u);
  EXPECT_EQ(result.records[0].fields.getString("notes"), "kept");
  EXPECT_EQ(result.records[1].fields.getString("lastName"), "Two");
  ASSERT_EQ(result.problems.size(), 2u);
  EXPECT_EQ(result.problems[0].line, 4u);
  EXPECT_EQ(result.problems[1].line, 5u);
}

TEST(VCardTest, WritesWhatPhonesExpect) {
  const PhoneStoreRecord record{
      "7", "Contacts.Contact",
      Dictionary{{"firstName", "Zoë"}, {"lastName", "Brontë"}, {"title", "Dr"},
                 {"birthday", CalendarDate::dateWithYear(1989, 8, 8, 12, 0, 0, TimeZone::gmt())},
                 {"streetAddresses", Array{Dictionary{{"street", "1 Rue"}, {"city", "Paris"}, {"type", "home"}}}}}};
  const std::string text = VCardCodec().write({record});
  for (const char* line : {"VERSION:2.1\r\n", "X-IRMC-LUID:7\r\n",
                           "N;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:Bront=C3=AB;Zo=C3=AB;;Dr;\r\n",
                           "FN;CHARSET=UTF-8;ENCODING=QUOTED-PRINTABLE:Dr Zo=C3=AB Bront=C3=AB\r\n",
                           "BDAY:1989-08-08\r\n", "ADR;HOME:;;1 Rue;Paris;;;\r\n"})
    EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
}

}  // namespace
}  // namespace pc
