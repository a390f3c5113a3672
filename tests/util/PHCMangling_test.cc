#include "util/PHCMangling.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "platform/Exception.h"
#include "platform/PropertyList.h"
#include "platform/Registry.h"

namespace pc {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using test::LogCapture;

CalendarDate dateIn(const char* zone, int year, int month, int day, int hour, int minute,
                    int second) {
  return CalendarDate::dateWithYear(year, month, day, hour, minute, second,
                                    TimeZone::timeZoneWithName(zone));
}

void expectSameDate(const Value& actual, const CalendarDate& expected) {
  ASSERT_TRUE(actual.isDate()) << actual.description();
  EXPECT_EQ(actual.date().timeIntervalSinceReferenceDate(),
            expected.timeIntervalSinceReferenceDate());
  EXPECT_EQ(actual.date().timeZone()->name(), expected.timeZone()->name());
}

// A record with every kind of value the format must carry.
struct RichRecord {
  CalendarDate paris = dateIn("Europe/Paris", 2026, 3, 29, 2, 30, 0);  // in a DST gap
  CalendarDate newYork = dateIn("America/New_York", 2026, 11, 1, 1, 30, 59);
  CalendarDate kolkata = dateIn("Asia/Kolkata", 1999, 12, 31, 23, 59, 59);
  CalendarDate fixed = dateIn("GMT+0130", 2030, 6, 15, 12, 0, 0);
  Dictionary record{
      {"entityName", "Calendars.Event"},
      {"summary", "Réunion ✓"},
      {"startDate", paris},
      {"url", URL("https://example.org/a?b=c&d")},
      {"photo", Data::fromString(std::string("\0\x01\xff", 3))},
      {"priority", 3},
      {"allDay", false},
      {"alarms",
       Array{Dictionary{{"triggerdate", newYork}, {"nested", Array{Array{kolkata, 1.5}}}}}},
      {"exceptions", Dictionary{{"fixed", fixed}, {"empty", Dictionary{}}}},
  };
};

TEST(NicePList, RecordSurvivesRoundTripWithSecondsAndZones) {
  RichRecord rich;
  const std::optional<std::string> text = PHCMangling::phc_nicePList(rich.record);
  ASSERT_TRUE(text);
  const std::optional<Dictionary> back = PHCMangling::phc_dictionaryFromNiceString(*text);
  ASSERT_TRUE(back);

  EXPECT_EQ(*back, rich.record);
  // Equality compares instants: check that nested dates kept their zones too.
  const Dictionary alarm = back->getArray("alarms")->at(0).dictionary();
  expectSameDate(alarm.getArray("nested")->at(0).array().at(0), rich.kolkata);
  expectSameDate(back->getDictionary("exceptions")->get("fixed"), rich.fixed);

  // The record file functions read and write the same form.
  std::string error;
  const std::optional<std::string> fileText = recordText(rich.record, &error);
  ASSERT_TRUE(fileText) << error;
  EXPECT_EQ(*fileText, *text);
  const std::optional<Dictionary> read = recordFromText(*fileText, &error);
  ASSERT_TRUE(read) << error;
  EXPECT_EQ(*read, rich.record);
}

TEST(NicePList, DatesAndAddressesBecomeTaggedDictionaries) {
  const CalendarDate date = dateIn("Europe/Paris", 2026, 12, 31, 9, 5, 7);
  EXPECT_EQ(PHCMangling::_phc_manglePlistForEncoding(date),
            Value(Dictionary{{"date", "31/12/2026 09:05:07 Europe/Paris +0100"},
                             {"_GRNType", "CalendarDate"}}));
  EXPECT_EQ(PHCMangling::_phc_manglePlistForEncoding(URL("mailto:a@b.c")),
            Value(Dictionary{{"value", "mailto:a@b.c"}, {"_GRNType", "URL"}}));

  // Sets are rebuilt too, their elements mapped.
  const Value mapped = PHCMangling::_phc_deepMapWithSelector(
      Set{URL("x:y")}, [](const Value& leaf, void*) { return PHCMangling::_phc_manglePlistForEncoding(leaf); },
      nullptr);
  ASSERT_TRUE(mapped.isSet());
  EXPECT_TRUE(mapped.set().contains(Dictionary{{"value", "x:y"}, {"_GRNType", "URL"}}));
}

// Every half hour of a year with daylight-saving changes (at 02:00, at
// midnight, by 30 minutes) reads back as the same instant and zone, the
// repeated hour included; so do offsets with seconds from before standard time.
TEST(NicePList, DateTextIdentifiesTheInstant) {
  std::vector<CalendarDate> dates;
  for (const char* zone : {"Europe/Paris", "America/New_York", "America/Sao_Paulo", "Australia/Lord_Howe"}) {
    const CalendarDate first = dateIn(zone, 2018, 1, 1, 0, 0, 0);
    for (int halfHour = 0; halfHour < 2 * 24 * 365; ++halfHour)
      dates.push_back(first.dateByAddingTimeInterval(halfHour * 1800.0));
  }
  dates.push_back(dateIn("Europe/Paris", 1890, 6, 1, 12, 0, 0));  // +00:09:21
  dates.push_back(dateIn("GMT+013045", 2026, 6, 1, 12, 0, 0));
  for (const CalendarDate& date : dates) {
    const std::string text = date.descriptionWithCalendarFormat(PHCMangling::kNicePListDateFormat);
    std::string problem;
    const std::optional<CalendarDate> back = PHCMangling::phc_dateFromNiceText(text, problem);
    ASSERT_TRUE(back) << text << ": " << problem;
    ASSERT_TRUE(back->isEqualIncludingTimeZone(date)) << text << " read as " << back->description();
  }
  EXPECT_EQ(dateIn("Europe/Paris", 2026, 10, 25, 2, 30, 0)
                .dateByAddingTimeInterval(3600)
                .descriptionWithCalendarFormat(PHCMangling::kNicePListDateFormat),
            "25/10/2026 02:30:00 Europe/Paris +0100");
}

// A date with milliseconds (a property list's <date> keeps them) is written
// with them and reads back as the same instant and zone, up to the last
// second the calendar supports; a whole second keeps the form without them.
TEST(NicePList, DateTextKeepsMilliseconds) {
  const struct {
    CalendarDate date;
    const char* text;
  } cases[] = {
      {dateIn("Europe/London", 2027, 3, 28, 0, 59, 59).dateByAddingTimeInterval(0.999),
       "28/03/2027 00:59:59.999 Europe/London +0000"},
      {dateIn("Europe/London", 2027, 10, 31, 1, 30, 0).dateByAddingTimeInterval(3600.25),
       "31/10/2027 01:30:00.250 Europe/London +0000"},  // the second 01:30
      {dateIn("GMT", 318888, 5, 20, 17, 46, 39).dateByAddingTimeInterval(0.5), "20/05/318888 17:46:39.500 GMT +0000"},
      {dateIn("Europe/London", 318888, 5, 20, 18, 46, 40), "20/05/318888 18:46:40 Europe/London +0100"},
      {dateIn("Asia/Kolkata", 2027, 1, 1, 0, 0, 0).dateByAddingTimeInterval(-0.001),
       "31/12/2026 23:59:59.999 Asia/Kolkata +0530"},
  };
  for (const auto& c : cases) {
    const Value tagged = PHCMangling::_phc_manglePlistForEncoding(Value(c.date));
    const std::string text = tagged.dictionary().getString(PHCMangling::kTaggedDateKey);
    EXPECT_EQ(text, c.text);
    std::string problem;
    const std::optional<CalendarDate> back = PHCMangling::phc_dateFromNiceText(text, problem);
    ASSERT_TRUE(back) << text << ": " << problem;
    EXPECT_TRUE(back->isEqualIncludingTimeZone(c.date)) << text << " read as " << back->description();
  }
  // Without the offset, the zone places the wall clock with its milliseconds.
  std::string problem;
  const std::optional<CalendarDate> plain =
      PHCMangling::phc_dateFromNiceText("01/06/2027 12:00:00.125 Europe/London", problem);
  ASSERT_TRUE(plain) << problem;
  EXPECT_TRUE(plain->isEqualIncludingTimeZone(dateIn("Europe/London", 2027, 6, 1, 12, 0, 0).dateByAddingTimeInterval(0.125)));
}

TEST(NicePList, DateTextWithoutOffsetOrMalformed) {
  std::string problem;
  // The form without offset reads a repeated wall clock as its first reading.
  const std::optional<CalendarDate> early =
      PHCMangling::phc_dateFromNiceText("25/10/2026 02:30:00 Europe/Paris", problem);
  ASSERT_TRUE(early) << problem;
  EXPECT_EQ(early->secondsFromGMT(), 7200);
  EXPECT_EQ(early->hourOfDay(), 2);

  const std::pair<const char*, const char*> bad[] = {
      {"24/11/2026 09:30:00 Europe/Paris +0200", "offset +0200 is not one Europe/Paris has at 24/11/2026 09:30:00"},
      {"29/03/2026 02:30:00 Europe/Paris +0100", "offset +0100 is not one Europe/Paris has"},  // in the gap
      {"24/11/2026 09:30:00", "expected \"day/month/year"},
      {"24/11/2026 09:30:00 Europe/Paris!", "\"Europe/Paris!\" is not a time zone name"},
      {"24/11/2026 09:30:00 Europe/Paris +01000", "\"+01000\" is not an offset"},
      {"24/11/2026 09:30:00 Mars/Olympus +0100", "unknown time zone"},
  };
  for (const auto& [text, expected] : bad) {
    EXPECT_FALSE(PHCMangling::phc_dateFromNiceText(text, problem)) << text;
    EXPECT_THAT(problem, HasSubstr(expected)) << text;
  }
}

// Tags that do not rebuild: logged and left in place by the category, an
// error naming the key path from the record reader.
struct BadTag {
  const char* name;
  const char* taggedDictionary;  // plist XML of the bad value
  const char* problem;           // part of the log text and of the error
};

class BadTagTest : public ::testing::TestWithParam<BadTag> {
 protected:
  static std::string recordWith(const char* tagged) {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>events</key><array><dict><key>start</key>)") +
           tagged + "</dict></array></dict></plist>";
  }
};

TEST_P(BadTagTest, IsReportedAndKept) {
  static const int registered = [] {
    ClassRegistry::registerClass("NiceTestPlainClass", "", nullptr);
    return 0;
  }();
  (void)registered;
  const std::string text = recordWith(GetParam().taggedDictionary);
  {
    LogCapture log;
    const std::optional<Dictionary> record = PHCMangling::phc_dictionaryFromNiceString(text);
    ASSERT_TRUE(record);
    const Value kept = record->getArray("events")->at(0).dictionary().get("start");
    EXPECT_TRUE(kept.isDictionary() && kept.dictionary().contains("_GRNType"));
    EXPECT_THAT(log.messages(), ElementsAre(HasSubstr(GetParam().problem)));
  }
  std::string error;
  EXPECT_FALSE(recordFromText(text, &error));
  EXPECT_THAT(error, HasSubstr("events/0/start: "));
  EXPECT_THAT(error, HasSubstr(GetParam().problem));
}

INSTANTIATE_TEST_SUITE_P(
    NicePList, BadTagTest,
    ::testing::Values(
        BadTag{"UnparsableDate",
               "<dict><key>date</key><string>31/02/x</string><key>_GRNType</key>"
               "<string>CalendarDate</string></dict>",
               "cannot read date \"31/02/x\""},
        BadTag{"DateNotText",
               "<dict><key>date</key><integer>3</integer><key>_GRNType</key>"
               "<string>CalendarDate</string></dict>",
               "tagged date without a \"date\" text"},
        BadTag{"UnknownType", "<dict><key>_GRNType</key><string>Nothing</string></dict>",
               "unknown _GRNType \"Nothing\""},
        BadTag{"TypeWithoutUnmangling",
               "<dict><key>_GRNType</key><string>NiceTestPlainClass</string></dict>",
               "should be redefined for type NiceTestPlainClass"},
        BadTag{"TypeNotText", "<dict><key>_GRNType</key><true/></dict>",
               "_GRNType is not a type name"}),
    [](const auto& info) { return info.param.name; });

// Values without a property-list form are not encoded; text that is not a
// record is refused; a missing record file is named.
TEST(NicePList, WhatCannotBeEncodedOrReadIsRefused) {
  LogCapture log;
  EXPECT_FALSE(PHCMangling::phc_nicePList(Dictionary{{"missing", Value()}}));
  EXPECT_FALSE(PHCMangling::phc_dictionaryFromNiceString("<plist><dict><key>a</key>"));
  EXPECT_FALSE(PHCMangling::phc_dictionaryFromNiceString(
      "<plist version=\"1.0\"><array><integer>1</integer></array></plist>"));
  EXPECT_THAT(log.messages(), ElementsAre(HasSubstr("cannot encode ("), HasSubstr("cannot parse data: "),
                                          HasSubstr("cannot parse data: ")));

  const std::string path = ::testing::TempDir() + "/no_such_record_file.plist";
  std::string error;
  EXPECT_FALSE(readRecordFile(path, &error));
  EXPECT_THAT(error, HasSubstr(path));
}

// A container that holds itself has no text form: it is refused with the
// key path where it recurs, and neither the mapping nor the log recurses.
TEST(NicePList, AContainerHoldingItselfCannotBeEncoded) {
  Dictionary record{{"name", "Ann"}};
  Array list{1};
  list.add(record);
  record.set("list", list);
  Set set{2};
  Dictionary inSet{{"set", Value(set)}};

  LogCapture log;
  EXPECT_FALSE(PHCMangling::phc_nicePList(record));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_THAT(log.lines()[0].message,
              HasSubstr("cannot encode (a container holds itself (at \"list/1\"))\n"));
  EXPECT_THAT(log.lines()[0].message, HasSubstr("<the container itself>"));

  std::string error;
  EXPECT_FALSE(recordText(record, &error));
  EXPECT_EQ(error, "a container holds itself (at \"list/1\")");
  EXPECT_TRUE(PHCMangling::_phc_deepMapWithSelector(record, [](const Value& v, void*) { return v; },
                                                    nullptr)
                  .isNull());
  record.remove("list");  // breaks the cycle so the test frees it
}

// The reader and the writer agree on depth: what one reads, the other writes
// so that it reads again, and what would not read again is refused on both
// sides with the key path.
TEST(NicePList, ReaderAndWriterAgreeOnDepth) {
  const auto nested = [](int arrays, const std::string& leaf) {
    std::string xml = "<plist version=\"1.0\"><dict><key>k</key>";
    for (int i = 0; i < arrays; ++i) xml += "<array>";
    xml += leaf;
    for (int i = 0; i < arrays; ++i) xml += "</array>";
    return xml + "</dict></plist>";
  };
  const std::string date = "<date>2020-01-01T00:00:00Z</date>";
  const int deepest = PropertyList::kMaxDepth;  // the dictionary is at depth 0
  struct Case {
    int arrays;
    std::string leaf;
    bool reads;
  };
  const Case cases[] = {
      {deepest - 1, "<string>x</string>", true},  // the leaf at the deepest level
      {deepest, "<string>x</string>", false},
      {deepest - 2, date, true},  // written back as a tagged dictionary one level deeper
      {deepest - 1, date, false},
  };
  for (const Case& c : cases) {
    std::string error;
    const std::optional<Dictionary> record = recordFromText(nested(c.arrays, c.leaf), &error);
    ASSERT_EQ(record.has_value(), c.reads) << c.arrays << c.leaf << error;
    if (!record) {
      EXPECT_THAT(error, HasSubstr("nested more than 512 deep")) << error;
      continue;
    }
    const std::optional<std::string> text = recordText(*record, &error);
    ASSERT_TRUE(text) << error;
    const std::optional<Dictionary> again = recordFromText(*text, &error);
    ASSERT_TRUE(again) << error;
    EXPECT_EQ(*again, *record);
  }

  // Built in memory, too deep a value is refused by the writer with its path.
  Value deep = "x";
  for (int i = 0; i <= deepest; ++i) deep = Array{deep};
  std::string error;
  EXPECT_FALSE(recordText(Dictionary{{"k", deep}}, &error));
  EXPECT_THAT(error, HasSubstr("values nested more than 512 deep (at \"k/0/0/"));
}

// A tagged date the calendar cannot read fields of is refused on reading
// (with the key path) and on writing, so no other date is written in its place.
TEST(NicePList, DatesOutsideTheCalendarAreRefusedBothWays) {
  std::string error;
  EXPECT_FALSE(recordFromText(
      "<plist version=\"1.0\"><dict><key>due</key><dict><key>date</key>"
      "<string>01/01/400000 00:00:00 UTC +0000</string><key>_GRNType</key><string>CalendarDate</string>"
      "</dict></dict></plist>",
      &error));
  EXPECT_THAT(error, HasSubstr("due: "));
  EXPECT_THAT(error, HasSubstr("outside the years the calendar supports"));

  EXPECT_FALSE(recordText(Dictionary{{"due", CalendarDate(Date{-2e13})}}, &error));
  EXPECT_EQ(error, "a date outside the years the calendar supports (at \"due\")");
}

TEST(NicePList, ATaggedValueAtTheTopIsNamedByItsKind) {
  LogCapture log;
  EXPECT_FALSE(PHCMangling::phc_dictionaryFromNiceString(
      "<plist version=\"1.0\"><dict><key>date</key><string>01/02/2020 10:00:00 UTC</string>"
      "<key>_GRNType</key><string>CalendarDate</string></dict></plist>"));
  EXPECT_THAT(log.messages(), ElementsAre("cannot parse data: a date is not a dictionary"));
}

}  // namespace
}  // namespace pc
