#include "platform/CalendarDate.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace pc {
namespace {

TimeZonePtr zone(const char* name) { return TimeZone::timeZoneWithName(name); }

std::string ymdhms(const CalendarDate& date) {
  return date.descriptionWithCalendarFormat("%Y-%m-%d %H:%M:%S");
}

TEST(CalendarDateTest, ReadsFieldsInItsZone) {
  const CalendarDate paris(Date::dateWithTimeIntervalSince1970(1151755200), zone("Europe/Paris"));
  EXPECT_EQ(ymdhms(paris), "2006-07-01 14:00:00");
  EXPECT_EQ(paris.dayOfYear(), 182);
  // Re-zoning keeps the instant and moves the fields.
  const CalendarDate tokyo = paris.dateWithTimeZone(zone("Asia/Tokyo"));
  EXPECT_EQ(tokyo, paris);
  EXPECT_EQ(tokyo.hourOfDay(), 21);
  EXPECT_FALSE(tokyo.isEqualIncludingTimeZone(paris));
}

TEST(CalendarDateTest, UsesTheProlepticGregorianCalendar) {
  // No Julian switch in 1582: the 10th of October exists and was a Sunday.
  const CalendarDate reform = CalendarDate::dateWithYear(1582, 10, 10, 0, 0, 0);
  EXPECT_EQ(ymdhms(reform), "1582-10-10 00:00:00");
  EXPECT_EQ(reform.dayOfWeek(), 0);
  // 0000-03-01 is 719468 days before 1970-01-01; year 0 is a leap year.
  EXPECT_EQ(CalendarDate::dateWithYear(0, 3, 1, 0, 0, 0).timeIntervalSince1970(), -719468.0 * 86400);
  const CalendarDate ides = CalendarDate::dateWithYear(-44, 3, 15, 12, 0, 0);
  EXPECT_EQ(ymdhms(ides), "-0044-03-15 12:00:00");
  EXPECT_EQ(CalendarDate::dateWithString(ymdhms(ides), "%Y-%m-%d %H:%M:%S"), ides);
}

TEST(CalendarDateTest, OutOfRangeFieldsCarry) {
  const TimeZonePtr paris = zone("Europe/Paris");
  EXPECT_EQ(ymdhms(CalendarDate::dateWithYear(2006, -11, 1, 0, 0, 0, paris)), "2005-01-01 00:00:00");
  EXPECT_EQ(ymdhms(CalendarDate::dateWithYear(2004, 3, 0, 0, 0, 0, paris)), "2004-02-29 00:00:00");
  EXPECT_EQ(ymdhms(CalendarDate::dateWithYear(1900, 2, 29, 0, 0, 0, paris)), "1900-03-01 00:00:00");
  EXPECT_EQ(ymdhms(CalendarDate::dateWithYear(2006, 1, 1, 0, 0, -1, paris)), "2005-12-31 23:59:59");
}

TEST(CalendarDateTest, AddsCalendarUnits) {
  const auto jan31 = [](int year) {
    return CalendarDate::dateWithYear(year, 1, 31, 10, 0, 0, zone("Europe/Paris"));
  };
  EXPECT_EQ(ymdhms(jan31(2004).dateByAddingYears(0, 1, 0, 0, 0, 0)), "2004-03-02 10:00:00");

  // A day across either change keeps 09:00; 24 hours do not.
  const CalendarDate paris = CalendarDate::dateWithYear(2006, 3, 25, 9, 0, 0, zone("Europe/Paris"));
  EXPECT_EQ(ymdhms(paris.dateByAddingYears(0, 0, 1, 0, 0, 0)), "2006-03-26 09:00:00");
  EXPECT_EQ(paris.dateByAddingYears(0, 0, 1, 0, 0, 0).timeIntervalSinceReferenceDate() -
                paris.timeIntervalSinceReferenceDate(),
            23 * 3600);
  EXPECT_EQ(ymdhms(paris.dateByAddingYears(0, 0, 0, 24, 0, 0)), "2006-03-26 10:00:00");

  // The second 02:30 of the autumn night stays itself when no day is added.
  const CalendarDate second =
      CalendarDate::dateWithYear(2006, 10, 29, 2, 30, 0, zone("Europe/Paris")).dateByAddingTimeInterval(3600);
  EXPECT_EQ(second.dateByAddingYears(0, 0, 0, 0, 0, 0), second);
  EXPECT_EQ(second.dateByAddingTimeInterval(0.25)
                .dateByAddingYears(0, 0, 1, 0, 0, 0)
                .descriptionWithCalendarFormat("%d %H:%M:%S.%F"),
            "30 02:30:00.250");
}

TEST(CalendarDateTest, PrintsEveryConversion) {
  const CalendarDate date = CalendarDate::dateWithYear(2006, 1, 15, 21, 5, 3, zone("Europe/Paris"));
  EXPECT_EQ(date.descriptionWithCalendarFormat("%a %A %b %B|%e|%j|%I %p|%y|%F|%Z|%%|%Q"),
            "Sun Sunday Jan January|15|015|09 PM|06|000|Europe/Paris|%|%Q");
  EXPECT_EQ(date.descriptionWithCalendarFormat("%c"), "Sun Jan 15 21:05:03 Europe/Paris 2006");
  EXPECT_EQ(date.description(), "2006-01-15 21:05:03 +0100");
  CalendarDate formatted = date.dateByAddingYears(0, 0, -7, 0, 0, 0).dateWithTimeZone(zone("GMT-05:30"));
  formatted.setCalendarFormat("%e %H:%M %z");
  EXPECT_EQ(formatted.description(), " 8 14:35 -0530");
}

class RoundTripTest : public testing::TestWithParam<std::tuple<const char*, const char*>> {};

// Printing then parsing gives the same instant, and the same zone whenever the
// format names it.
TEST_P(RoundTripTest, ParsesWhatItPrints) {
  const auto [zoneName, format] = GetParam();
  for (double since1970 : {1137326400.0, 1151755200.0, 1143334800.0, -1e9, 4.2e9}) {
    const CalendarDate date(Date::dateWithTimeIntervalSince1970(since1970), zone(zoneName));
    const std::string text = date.descriptionWithCalendarFormat(format);
    std::string error;
    const auto parsed = CalendarDate::dateWithString(text, format, nullptr, &error);
    ASSERT_TRUE(parsed) << error;
    EXPECT_EQ(*parsed, date) << text;
    EXPECT_EQ(parsed->secondsFromGMT(), date.secondsFromGMT()) << text;
    if (std::string_view(format).find_first_of("cZ") != std::string_view::npos) {
      EXPECT_TRUE(parsed->isEqualIncludingTimeZone(date)) << text;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ZonesAndFormats, RoundTripTest,
                         testing::Combine(testing::Values("Europe/Paris", "America/New_York", "Asia/Kolkata",
                                                          "Australia/Adelaide", "GMT-0930", "UTC"),
                                          testing::Values(kDefaultCalendarFormat, "%Y%m%dT%H%M%S%z",
                                                          "%Y-%m-%d %H:%M:%S %Z", "%c",
                                                          "%A %e %B %Y %I:%M:%S %p %Z", "%j/%Y %X %z")));

TEST(CalendarDateTest, ParsesWithDefaultsAndZones) {
  const TimeZonePtr paris = zone("Europe/Paris");
  EXPECT_EQ(CalendarDate::dateWithString("10:30", "%H:%M", paris)->description(),
            "2001-01-01 10:30:00 +0100");
  // The zone the text names wins over the one given.
  EXPECT_EQ(
      CalendarDate::dateWithString("2006-07-01 12:00 +05:30", "%Y-%m-%d %H:%M %z", paris)->description(),
      "2006-07-01 12:00:00 +0530");
  EXPECT_EQ(CalendarDate::dateWithString("2006-07-01 12:00 CEST", "%Y-%m-%d %H:%M %Z")->timeZone()->name(),
            "Europe/Paris");
  // With both, the offset settles the repeated hour and the name the zone.
  const auto second =
      CalendarDate::dateWithString("2006-10-29 02:30 +0100 Europe/Paris", "%Y-%m-%d %H:%M %z %Z");
  EXPECT_EQ(second->description(), "2006-10-29 02:30:00 +0100");
  EXPECT_EQ(second->timeZone(), paris);
  // Text beyond the format is left alone: a minus offset reads as a floating time.
  EXPECT_EQ(ymdhms(*CalendarDate::dateWithString("20060115T100000-0500", "%Y%m%dT%H%M%S")),
            "2006-01-15 10:00:00");
  EXPECT_EQ(ymdhms(*CalendarDate::dateWithString("12 pm 68 mar 1", "%I %p %y %b %e")), "2068-03-01 12:00:00");
  EXPECT_EQ(CalendarDate::dateWithString("05.125", "%S.%F")->timeIntervalSinceReferenceDate(), 5.125);
}

class ParseErrorTest : public testing::TestWithParam<std::tuple<const char*, const char*, const char*>> {};

TEST_P(ParseErrorTest, SaysWhatAndWhere) {
  const auto [text, format, message] = GetParam();
  std::string error;
  EXPECT_EQ(CalendarDate::dateWithString(text, format, nullptr, &error), std::nullopt);
  EXPECT_EQ(error, message);
}

INSTANTIATE_TEST_SUITE_P(
    Mismatches, ParseErrorTest,
    testing::Values(
        std::make_tuple("2006-1x-15", "%Y-%m-%d", "expected 2 digits for %m at offset 5 in \"2006-1x-15\""),
        std::make_tuple("2006-02-29", "%x",
                        "value 29 out of range 1-28 for %d at offset 8 in \"2006-02-29\""),
        std::make_tuple("", "%Y", "expected at least 4 digits for %Y at offset 0 in \"\""),
        std::make_tuple("10:00 +01", "%H:%M %z",
                        "expected +hhmm, -hhmm or +hh:mm for %z at offset 6 in \"10:00 +01\""),
        std::make_tuple("10:00 Mars/Base", "%H:%M %Z",
                        "unknown time zone \"Mars/Base\" for %Z at offset 6 in \"10:00 Mars/Base\""),
        std::make_tuple("10 XM", "%I %p", "expected AM or PM for %p at offset 3 in \"10 XM\"")));

}  // namespace
}  // namespace pc
