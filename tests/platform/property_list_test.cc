#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <string>

#include <unistd.h>

#include "platform/PropertyList.h"

namespace pc {
namespace {

Value parse(std::string_view xml) {
  PropertyListError error;
  auto value = PropertyList::fromXML(xml, &error);
  EXPECT_TRUE(value) << error.description();
  return value.value_or(Value());
}

std::string plist(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n" +
         std::string(body) + "\n</plist>\n";
}

TEST(PropertyList, RoundTripKeepsEveryKindNestedAndTheKeyOrder) {
  std::vector<std::uint8_t> allBytes(256);
  for (int i = 0; i < 256; ++i) allBytes[i] = static_cast<std::uint8_t>(i);
  const Dictionary contact{
      {"name", "Zoë Ŝmith & <Sons>\r\n日本 😀"},
      {"big", std::numeric_limits<std::int64_t>::max()},
      {"small", std::numeric_limits<std::int64_t>::min()},
      {"tenth", 0.1},
      {"infinite", -std::numeric_limits<double>::infinity()},
      {"yes", true},
      {"birthday", CalendarDate::dateWithYear(1899, 12, 31, 23, 59, 58)},
      {"until", CalendarDate::dateWithYear(2250, 7, 1, 9, 30, 15)},
      {"photo", Data(allBytes)},
      {"phones", Array{Dictionary{{"type", "mobile"}, {"value", "+33 6"}}, Array{}, Dictionary{}}},
      {"tags", Set{"a", "b"}},
  };
  PropertyListError error;
  const auto xml = PropertyList::toXML(contact, &error);
  ASSERT_TRUE(xml) << error.description();
  const Value back = parse(*xml);

  ASSERT_TRUE(back.isDictionary()) << *xml;
  EXPECT_EQ(back.dictionary().keys(), contact.keys());
  Dictionary expected = contact.copy();
  expected.set("tags", Array{"a", "b"});  // a set writes as an array
  EXPECT_EQ(back.dictionary(), expected) << *xml;
  const Dictionary read = back.dictionary();
  // Numbers compare by value, so check that each kept its kind.
  EXPECT_TRUE(read.get("big").isInteger() && read.get("tenth").isReal() &&
              read.get("yes").isBoolean());
}

TEST(PropertyList, WritesTheStandardLayout) {
  const Dictionary value{{"a", Array{2.5}}, {"d", Data::fromString("hi")}};
  EXPECT_EQ(*PropertyList::toXML(value),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist>\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>a</key>\n"
            "\t<array>\n"
            "\t\t<real>2.5</real>\n"
            "\t</array>\n"
            "\t<key>d</key>\n"
            "\t<data>\n"
            "\taGk=\n"
            "\t</data>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(PropertyList, ReadsTheLenientForms) {
  const Array read = parse(plist(R"(<!-- a comment --><array>
      <integer> +42 </integer><real>+infinity</real><real>-infinity</real><real>3</real>
      <date>2006-03-15T09:00:00.5Z</date>
      <data>
        AAEC
        /w==
      </data>
      <string><![CDATA[<raw>]]> &amp; more</string><string>   </string><string/>
    </array>)"))
                         .array();
  const double infinity = std::numeric_limits<double>::infinity();
  const CalendarDate date(Date::dateWithTimeIntervalSince1970(1142413200.5));
  EXPECT_EQ(read, (Array{42, infinity, -infinity, 3.0, date,
                         Data(std::vector<std::uint8_t>{0, 1, 2, 255}), "<raw> & more", "   ", ""}))
      << read.description();
  EXPECT_TRUE(std::isnan(parse(plist("<real>nan</real>")).doubleValue()));
}

struct BadInput {
  const char* xml;
  int line;
  int column;
  const char* message;
};

class PropertyListBadInput : public ::testing::TestWithParam<BadInput> {};

TEST_P(PropertyListBadInput, SaysWhatAndWhere) {
  const BadInput& bad = GetParam();
  PropertyListError error;
  EXPECT_FALSE(PropertyList::fromXML(bad.xml, &error));
  EXPECT_EQ(error.line, bad.line) << error.description();
  EXPECT_EQ(error.column, bad.column) << error.description();
  EXPECT_NE(error.message.find(bad.message), std::string::npos) << error.description();
}

INSTANTIATE_TEST_SUITE_P(
    Platform, PropertyListBadInput,
    ::testing::Values(
        BadInput{"<plist>\n<dict>\n<key>a</key><string>x</dict></plist>", 3, 24, "not well formed"},
        BadInput{"<plist>\n  <array><foo/></array></plist>", 2, 10, "unknown element <foo>"},
        BadInput{
            "<plist><dict>\n<key>a</key><true/>\n<key>b</key>\n<key>c</key><true/></dict></plist>",
            3, 1, "key \"b\" has no value"},
        BadInput{"<plist>\n\t<integer>12x</integer></plist>", 2, 2,
                 "<integer> holds \"12x\", not a whole number"},
        BadInput{"<plist><integer>99999999999999999999</integer></plist>", 1, 8, "64-bit"},
        BadInput{"<plist><data>A===</data></plist>", 1, 8, "not base64"},  // bad padding
        BadInput{"<plist><date>2006-02-30T09:00:00Z</date></plist>", 1, 8, "not a date"},
        BadInput{"", 0, 0, "no <plist> root"},
        // Columns count characters, not bytes.
        BadInput{"<plist><array><string>é</string><é/></array></plist>", 1, 33,
                 "unknown element <é>"}));

// A date the reader takes is written back as that date, fractions to the
// millisecond on both sides; dates the calendar cannot read fields of are
// refused by the reader and the writer, with the key path.
TEST(PropertyList, DatesSurviveAWriteAndARead) {
  for (const char* text : {"2020-01-01T00:00:00.5Z", "2020-01-01T00:00:00.25Z", "1601-06-30T23:59:59.999Z",
                           "-4712-01-01T12:00:00Z", "2020-01-01T00:00:00Z"}) {
    const Value read = parse(plist(std::string("<date>") + text + "</date>"));
    const auto written = PropertyList::toXML(read);
    ASSERT_TRUE(written);
    EXPECT_NE(written->find(std::string("<date>") + text + "</date>"), std::string::npos) << *written;
    EXPECT_EQ(parse(*written), read) << text;
  }
  // Beyond the millisecond, the nearest one.
  EXPECT_EQ(parse(plist("<date>2020-01-01T00:00:00.0004Z</date>")),
            parse(plist("<date>2020-01-01T00:00:00Z</date>")));
  EXPECT_EQ(parse(plist("<date>2020-01-01T00:00:00.1235Z</date>")),
            parse(plist("<date>2020-01-01T00:00:00.124Z</date>")));

  for (const char* text : {"318889-01-01T00:00:00Z", "-318889-01-01T00:00:00Z"}) {
    PropertyListError error;
    EXPECT_FALSE(PropertyList::fromXML(
        plist(std::string("<dict><key>events</key><array><date>") + text + "</date></array></dict>"), &error));
    EXPECT_NE(error.message.find("outside the years the calendar supports (at \"events/0\")"),
              std::string::npos)
        << error.description();
  }
  PropertyListError error;
  EXPECT_FALSE(PropertyList::toXML(Dictionary{{"due", CalendarDate(Date{1.3e13})}}, &error));
  EXPECT_EQ(error.message, "a date outside the years the calendar supports (at \"due\")");
}

// What XML 1.0 cannot hold is refused by the writer with the key path and by
// the reader with the place, never read back cut short.
TEST(PropertyList, CharactersXMLCannotHoldAreRefusedNotTruncated) {
  const struct {
    Value value;
    const char* message;
  } unwritable[] = {
      {Dictionary{{"notes", std::string("A\0BC", 4)}}, "character U+0000 at byte 1 (at \"notes\")"},
      {Dictionary{{"n", Array{"ok", "bell\a"}}}, "character U+0007 at byte 4 (at \"n/1\")"},
      {Dictionary{{std::string("k\x1b"), 1}}, "character U+001B at byte 1 (at \"k\x1b\")"},
      {Dictionary{{"bytes", "a\xff"}}, "byte 0xFF at byte 1 is not UTF-8 (at \"bytes\")"},
      {Dictionary{{"half", "\xed\xa0\x80"}}, "byte 0xED at byte 0 is not UTF-8"},
      {Dictionary{{"nonchar", "\xef\xbf\xbf"}}, "character U+FFFF"},
  };
  for (const auto& c : unwritable) {
    PropertyListError error;
    EXPECT_FALSE(PropertyList::toXML(c.value, &error)) << c.message;
    EXPECT_NE(error.message.find(c.message), std::string::npos) << error.message;
  }
  // Tab, line feed and carriage return are characters XML holds.
  const Value fine = Dictionary{{"t", "a\tb\nc\rd"}};
  EXPECT_EQ(parse(*PropertyList::toXML(fine)), fine);

  const struct {
    std::string xml;
    const char* message;
  } unreadable[] = {
      {plist("<string>a&#0;b</string>"), "&#0; is not a character"},
      {plist("<string>a&#x0;b</string>"), "&#x0; is not a character"},
      {plist("<string>&#xD800;</string>"), "&#xD800; is not a character"},
      {plist("<string>&#1114112;</string>"), "&#1114112; is not a character"},
      {plist(std::string("<string>a\x01") + "b</string>"), "character U+0001 cannot be"},
      {plist(std::string("<string>a\0b</string>", 20)), "character U+0000 cannot be"},
      {plist("<string>\xed\xa0\x80</string>"), "byte 0xED is not UTF-8"},
  };
  for (const auto& c : unreadable) {
    PropertyListError error;
    EXPECT_FALSE(PropertyList::fromXML(c.xml, &error)) << c.message;
    EXPECT_NE(error.message.find(c.message), std::string::npos) << error.description();
    EXPECT_EQ(error.line, 3) << error.description();
  }
  EXPECT_EQ(parse(plist("<string>&#9;&#x1F600;</string>")), Value("\t\xF0\x9F\x98\x80"));
}

TEST(PropertyList, HonoursTheDeclaredEncoding) {
  const std::string body = "<plist version=\"1.0\"><string>Lef\xE8vre</string></plist>";
  EXPECT_EQ(parse("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + body), Value("Lefèvre"));
  EXPECT_EQ(parse("<?xml version='1.0' encoding='windows-1252'?>" + body), Value("Lefèvre"));

  const auto utf16 = [](std::string_view ascii, bool bigEndian, bool mark) {
    std::string out = mark ? (bigEndian ? "\xFE\xFF" : "\xFF\xFE") : "";
    for (char c : ascii) out += bigEndian ? std::string{'\0', c} : std::string{c, '\0'};
    return out;
  };
  const std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-16\"?>\n<plist version=\"1.0\"><string>Ann</string></plist>";
  for (const bool bigEndian : {true, false})
    for (const bool mark : {true, false}) EXPECT_EQ(parse(utf16(xml, bigEndian, mark)), Value("Ann"));

  const struct {
    std::string xml;
    const char* message;
  } refused[] = {
      {"<?xml version=\"1.0\" encoding=\"x-no-such\"?>" + body, "unknown encoding \"x-no-such\""},
      {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>" + body, "byte 0xE8 is not UTF-8"},
      {body, "byte 0xE8 is not UTF-8"},
      {"<?xml version=\"1.0\" encoding=\"UTF-16\"?>" + body, "declares UTF-16"},
      {"<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><plist><string>\x81</string></plist>",
       "is not Shift_JIS text"},
  };
  for (const auto& c : refused) {
    PropertyListError error;
    EXPECT_FALSE(PropertyList::fromXML(c.xml, &error)) << c.message;
    EXPECT_NE(error.description().find(c.message), std::string::npos) << error.description();
  }
}

TEST(PropertyList, RefusesDeepNestingWithoutOverflowingTheStack) {
  std::string xml = "<plist>";
  for (int i = 0; i < 100000; ++i) xml += "<array>";
  for (int i = 0; i < 100000; ++i) xml += "</array>";
  xml += "</plist>";
  PropertyListError error;
  EXPECT_FALSE(PropertyList::fromXML(xml, &error));
  EXPECT_NE(error.message.find("nested"), std::string::npos) << error.description();
}

TEST(PropertyList, RefusesKindsItCannotHoldNamingTheKeyPath) {
  const struct {
    Value value;
    const char* message;
  } cases[] = {
      {Dictionary{{"Entities", Array{1, 2, Dictionary{{"Name", Value()}}}}},
       "kind null (at \"Entities/2/Name\")"},
      {Dictionary{{"a", Dictionary{{7, "x"}}}}, "dictionary key of kind integer (at \"a\")"},
  };
  for (const auto& c : cases) {
    PropertyListError error;
    EXPECT_FALSE(PropertyList::toXML(c.value, &error));
    EXPECT_NE(error.message.find(c.message), std::string::npos) << error.message;
  }
}

TEST(PropertyList, RefusesAContainerThatHoldsItself) {
  Array loop{1};
  loop.add(Dictionary{{"back", loop}});
  PropertyListError error;
  EXPECT_FALSE(PropertyList::toXML(loop, &error));
  EXPECT_NE(error.message.find("holds itself (at \"1/back\")"), std::string::npos) << error.message;
  loop.removeAll();  // break the cycle so the containers are freed
}

TEST(PropertyList, WritesFilesAtomicallyAndReadsThemBack) {
  const auto dir = std::filesystem::path(::testing::TempDir()) / ("pc_property_list_test." + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "store.plist").string();
  const Dictionary value{{"k", Array{"v", 3}}};
  PropertyListError error;
  ASSERT_TRUE(PropertyList::writeToFile(value, path, &error)) << error.description();
  EXPECT_FALSE(PropertyList::writeToFile(Value(), path, &error));
  EXPECT_EQ(*PropertyList::fromFile(path), Value(value));  // the failed write left it alone
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 1);  // no temporary left
  EXPECT_FALSE(PropertyList::fromFile((dir / "absent.plist").string(), &error));
  EXPECT_NE(error.message.find("absent.plist"), std::string::npos);
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace pc
