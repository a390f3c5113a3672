#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALDuration.h"
#include "calcore/CALFloatingDateTime.h"
#include "platform/Exception.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

class CALDateTest : public ::testing::Test {
 protected:
  static TimeZonePtr zone(const char* name) { return TimeZone::timeZoneWithName(name); }

  test::LogCapture log;
};

TEST_F(CALDateTest, IsoFormsChooseTheKind) {
  const struct {
    const char* iso;
    const char* kind;
  } forms[] = {{"20060315", "CALDateOnly"},
               {"20060315T101500", "CALFloatingDateTime"},
               {"20060315T101500+0100", "CALDateTime"}};
  for (const auto& form : forms) {
    CALDateRef date = CALDate::dateFromIsoString(form.iso);
    ASSERT_TRUE(date) << form.iso;
    EXPECT_EQ(date->className(), form.kind);
    EXPECT_EQ(date->isoStringRepresentation(), form.iso);
  }
  // A minus offset goes to the floating kind with the zone-less format.
  EXPECT_EQ(CALDate::dateFromIsoString("20060315T101500-0500")->description(),
            "2006/03/15  10:15:00 - FloatingDateTime");

  for (const char* bad : {"2006-03-15", "garbageT+", ""}) EXPECT_FALSE(CALDate::dateFromIsoString(bad));
}

TEST_F(CALDateTest, ZonedAndFloatingCompareByWallClock) {
  auto zoned = CALDateTime::dateWithYear(2006, 3, 15, 9, 0, 0, nullptr);
  zoned->setTimeZone(TimeZone::timeZoneForSecondsFromGMT(3600));
  auto floating = CALFloatingDateTime::dateWithYear(2006, 3, 15, 10, 0, 0);
  EXPECT_EQ(floating->compare(zoned.get()), 0);
  EXPECT_TRUE(zoned->isEqualToDate(floating.get()));
  EXPECT_FALSE(zoned->isEqual(floating.get()));
  EXPECT_THAT(log.messages(), ElementsAre("WARNING : isEqual ran on two dates of different type"));

  // Two zoned dates compare instants, whatever their zones.
  auto sameInstant = CALDateTime::dateWithYear(2006, 3, 15, 4, 0, 0, zone("America/New_York"));
  EXPECT_EQ(zoned->compare(sameInstant.get()), 0);
  EXPECT_TRUE(zoned->isEqual(sameInstant.get()));

  auto later = CALFloatingDateTime::dateWithYear(2006, 3, 15, 10, 0, 1);
  EXPECT_EQ(zoned->compare(later.get()), -1);
  EXPECT_EQ(later->compare(zoned.get()), 1);
  EXPECT_EQ(zoned->compare(nullptr), -1);

  // A date-only equals a floating midnight under compare but not isEqual.
  auto day = CALDateOnly::dateOnlyWithYear(2006, 3, 15);
  auto midnight = CALFloatingDateTime::dateWithYear(2006, 3, 15, 0, 0, 0);
  EXPECT_EQ(day->compare(midnight.get()), 0);
  EXPECT_FALSE(day->isEqual(midnight.get()));
  EXPECT_TRUE(day->isEqualAsDateOnly(zoned.get()));
}

TEST_F(CALDateTest, ZoneChangesKeepTheWallClockOrTheInstant) {
  // Fractions of a second are truncated, not rounded.
  EXPECT_EQ(CALDate::dateWithTimeIntervalSince1970<CALFloatingDateTime>(86400 * 365 + 61.9)->description(),
            "1971/01/01  00:01:01 - FloatingDateTime");
  auto summer = CALDateTime::dateWithYear(2006, 7, 1, 12, 0, 0, nullptr);
  const double instant = summer->timeIntervalSince1970();

  auto keepInstant = summer->copy();
  keepInstant->setTimeZone(zone("Europe/Paris"), false);
  EXPECT_EQ(keepInstant->hourOfDay(), 14);

  auto keepWallClock = summer->copy();
  keepWallClock->setTimeZone(zone("Europe/Paris"), true);
  EXPECT_EQ(keepWallClock->hourOfDay(), 12);
  EXPECT_EQ(keepWallClock->timeIntervalSince1970(), instant - 7200);

  // Across a daylight-saving change the offset follows the instant.
  auto night = CALDateTime::dateWithYear(2006, 3, 26, 0, 30, 0, zone("Europe/Paris"));
  night->addSecondsInGMT(3 * 3600);
  EXPECT_EQ(night->offsetFromGMT(), 7200);
  EXPECT_EQ(night->hourOfDay(), 4);
  night->setTimeZone(zone("America/New_York"), true);
  EXPECT_EQ(night->offsetFromGMT(), -5 * 3600);

  // Floating dates ignore zones altogether.
  auto floating = CALFloatingDateTime::dateWithYear(2006, 7, 1, 12, 0, 0);
  floating->setTimeZone(zone("Europe/Paris"), true);
  EXPECT_EQ(floating->hourOfDay(), 12);
  EXPECT_EQ(summer->offsetFromGMTForTimeZone(zone("America/New_York")), -4 * 3600);
}

TEST_F(CALDateTest, FieldsOfTheLocalDay) {
  auto newYear = CALDateTime::dateWithYear(2005, 12, 31, 23, 0, 0, nullptr);
  newYear->setTimeZone(zone("Europe/Paris"));
  int fields[5];
  newYear->year(&fields[0], &fields[1], &fields[2], &fields[3], &fields[4], nullptr, nullptr, nullptr);
  EXPECT_THAT(fields, ElementsAre(2006, 1, 1, 0, 1));  // year, month, day, weekday, day of the year
  EXPECT_EQ(newYear->weekOfYear(), 52);  // 1 January 2006 belongs to the last week of 2005

  // After the 127th day the day of the year comes out negative.
  auto july = CALFloatingDateTime::dateWithYear(2006, 7, 19, 0, 0, 0);
  EXPECT_EQ(july->dayOfYear(), 200 - 256);
  EXPECT_EQ(CALDateOnly::dateOnlyWithYear(2008, 12, 29)->weekOfYear(), 1);
  EXPECT_EQ(CALDateOnly::dateOnlyWithYear(2004, 2, 30)->dayOfMonth(), 1);  // fields carry
}

TEST_F(CALDateTest, NewValuesLeaveTheReceiverAlone) {
  auto date = CALDateTime::dateWithYear(2005, 1, 31, 10, 20, 30, nullptr);
  EXPECT_EQ(date->dateByAddingYears(0, 1, 0, 0, 0, 0)->description(),
            "2005/03/03  10:20:30 (0) - DateTime |TZ (null)");
  EXPECT_EQ(date->dateRoundedToPreviousDay()->description(),
            "2005/01/30  00:00:00 (0) - DateTime |TZ (null)");
  EXPECT_EQ(date->description(), "2005/01/31  10:20:30 (0) - DateTime |TZ (null)");
}

TEST_F(CALDateTest, ArchivesRoundTripAndRejectCorruptOnes) {
  auto zoned = CALDateTime::dateWithYear(2006, 3, 15, 10, 0, 0, zone("Europe/Paris"));
  EXPECT_THAT(zoned->description(), StartsWith("2006/03/15  10:00:00 (3600) - DateTime |TZ "));
  Dictionary archive;
  zoned->encodeWithCoder(archive);
  EXPECT_EQ(archive.getInteger("hourKey"), 9);  // the GMT record
  auto decoded = CALDate::dateWithCoder<CALDateTime>(archive);
  ASSERT_TRUE(decoded);
  EXPECT_TRUE(decoded->isEqual(zoned.get()));
  EXPECT_EQ(decoded->hourOfDay(), 10);

  Dictionary badMonth = archive.copy();
  badMonth.set("monthKey", 13);
  EXPECT_FALSE(CALDate::dateWithCoder<CALDateTime>(badMonth));
  Dictionary wrongKind = archive.copy();
  wrongKind.set("yearKey", "soon");
  EXPECT_FALSE(CALDate::dateWithCoder<CALDateOnly>(wrongKind));
  Dictionary unknownZone = archive.copy();
  unknownZone.set("timeZoneKey", "Nowhere/Atlantis");
  auto gmt = CALDate::dateWithCoder<CALDateTime>(unknownZone);
  ASSERT_TRUE(gmt);
  EXPECT_EQ(gmt->offsetFromGMT(), 0);
  EXPECT_EQ(log.messages().size(), 3u);
}

TEST_F(CALDateTest, ConversionsWithThePlatformDates) {
  const CalendarDate noon = CalendarDate::dateWithYear(2006, 3, 15, 12, 0, 0, zone("Europe/Paris"));
  CALDateRef allDay = CALDate::CALDateFromCalendarDate(noon, true);
  EXPECT_EQ(allDay->description(), "2006/03/15 - DateOnly");
  // A date-only converts at midnight GMT.
  EXPECT_EQ(allDay->calendarDate().timeIntervalSince1970(), 1142380800);

  CALDateRef timed = CALDate::CALDateFromCalendarDate(noon, false);
  EXPECT_EQ(timed->calendarDate(), noon);
  EXPECT_EQ(timed->descriptionWithCalendarFormat("%H:%M %z"), "12:00 +0100");

  EXPECT_EQ(Kestrel11Compatibility::calDate(noon)->className(), "CALDateTime");
  EXPECT_EQ(Kestrel11Compatibility::calDate(noon.dateByAddingYears(0, 0, 0, -12, 0, 0))->className(),
            "CALDateOnly");

  EXPECT_FALSE(CALDateTimeConversion::calDateTime(Date{0}));
  EXPECT_EQ(log.messages().size(), 1u);
}

// A floating date is the same wall clock whatever the system zone, even one
// that skips it.
TEST_F(CALDateTest, FloatingDatesIgnoreTheSystemZone) {
  const TimeZonePtr saved = TimeZone::systemTimeZone();
  for (const char* system : {"America/New_York", "America/Sao_Paulo", "Europe/Paris"}) {
    TimeZone::setSystemTimeZone(zone(system));
    for (const auto& [date, iso] :
         {std::pair{CALFloatingDateTime::dateWithYear(2006, 4, 2, 2, 30, 0), "20060402T023000"},
          std::pair{CALFloatingDateTime::dateWithYear(2018, 11, 4, 0, 30, 0), "20181104T003000"},
          std::pair{CALFloatingDateTime::dateWithYear(2006, 3, 26, 2, 30, 0), "20060326T023000"}}) {
      EXPECT_EQ(date->isoStringRepresentation(), iso) << system;
      EXPECT_TRUE(CALDate::dateFromIsoString(iso)->isEqual(date.get())) << system << " " << iso;
      EXPECT_EQ(date->descriptionWithCalendarFormat("%Y%m%dT%H%M%S", Value()), iso) << system;
    }
  }
  TimeZone::setSystemTimeZone(saved);
}

TEST_F(CALDateTest, DateOnlyValuesHaveNoTimeOfDay) {
  const auto timed = CALFloatingDateTime::dateWithYear(2006, 3, 15, 10, 15, 0);
  const auto day = CALDateOnly::dateOnlyWithYear(2006, 3, 15);
  const auto zoned = CALDateTime::dateWithYear(2006, 3, 15, 23, 30, 0, zone("America/New_York"));
  for (const CALDateRef& made : {CALDateRef(CALDate::dateWithDate<CALDateOnly>(*timed)),
                                 CALDateRef(CALDate::dateWithString<CALDateOnly>("20060315T101500", "%Y%m%dT%H%M%S")),
                                 CALFloatingDateTime::dateOnlyFromDate(*timed),
                                 CALDateTime::dateOnlyFromDate(*zoned)}) {
    ASSERT_TRUE(made);
    EXPECT_EQ(made->className(), "CALDateOnly");
    EXPECT_TRUE(made->isMidnight());
    EXPECT_TRUE(made->isEqual(day.get())) << made->description();
    EXPECT_EQ(made->isoStringRepresentation(), "20060315");
  }
  Dictionary archive;
  timed->encodeWithCoder(archive);
  EXPECT_TRUE(CALDate::dateWithCoder<CALDateOnly>(archive)->isEqual(day.get()));
}

// The first date of the range read in any zone stays inside the supported years.
TEST_F(CALDateTest, DistantPastStaysInRangeInEveryZone) {
  const auto future = CALDate::distantFuture<CALDateTime>();
  const double span = future->timeIntervalSinceDate(*CALDate::distantPast<CALDateTime>());
  for (const char* name : {"Pacific/Honolulu", "America/New_York", "Pacific/Kiritimati", "Etc/GMT+12"}) {
    auto past = CALDate::distantPast<CALDateTime>();
    past->setTimeZone(zone(name));
    EXPECT_EQ(past->yearOfCommonEra(), 1) << name;
    EXPECT_EQ(future->timeIntervalSinceDate(*past), span) << name;
    auto floating = CALDate::dateWithDate<CALFloatingDateTime>(*past);
    EXPECT_GT(floating->timeIntervalSinceDate(*CALDate::distantPast<CALFloatingDateTime>()), -86400) << name;
    EXPECT_LT(floating->timeIntervalSinceDate(*CALDate::distantFuture<CALFloatingDateTime>()), 0) << name;
  }
}

// A kind that supplies none of the operations reaches the abstract ones.
class BareDate : public CALDate {
 public:
  BareDate() = default;
  CALDateRef copy() const override { return nullptr; }
  std::string className() const override { return "BareDate"; }

 protected:
  void _comparisonRecords(const CALDate&, CALCDate*, CALCDate*) const override {}
  TimeZonePtr _conversionZone() const override { return nullptr; }
};

TEST_F(CALDateTest, AbstractOperationsWarnAndRaise) {
  BareDate bare;
  try {
    bare.offsetFromGMT();
    ADD_FAILURE() << "offsetFromGMT did not raise";
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), kNotImplementedInSubClass);
    EXPECT_EQ(e.reason(), "offsetFromGMT method called on abstract class");
  }
  EXPECT_THAT(log.messages(), ElementsAre("WARNING : - (SInt64) offsetFromGMT   called on abstract class CALDate"));
}

}  // namespace
}  // namespace pc
