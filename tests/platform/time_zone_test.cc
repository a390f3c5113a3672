#include "platform/TimeZone.h"

#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/CalendarDate.h"

namespace pc {
namespace {

Date at1970(double seconds) { return Date::dateWithTimeIntervalSince1970(seconds); }

// Abbreviations one second before and at the spring change in Paris (2006)
// and the autumn one in New York (2007); the offsets themselves are swept below.
TEST(TimeZoneTest, AbbreviationsFollowTheChanges) {
  const struct {
    const char* zone;
    double since1970;
    const char* abbreviation;
  } cases[] = {{"Europe/Paris", 1143334799, "CET"},       {"Europe/Paris", 1143334800, "CEST"},
               {"America/New_York", 1194155999, "EDT"},  {"America/New_York", 1194156000, "EST"},
               {"Etc/GMT+5", 1151755200, "GMT-0500"}};
  for (const auto& c : cases)
    EXPECT_EQ(TimeZone::timeZoneWithName(c.zone)->abbreviation(at1970(c.since1970)), c.abbreviation)
        << c.zone << " " << c.since1970;
}

// The offsets come from a table built from the database; it must agree with
// the database itself, before, inside and after the table's span.
TEST(TimeZoneTest, OffsetsAgreeWithTheDatabaseOverCenturies) {
  for (const char* name : {"Europe/Paris", "America/New_York", "Australia/Lord_Howe", "Asia/Kolkata"}) {
    const TimeZonePtr zone = TimeZone::timeZoneWithName(name);
    const std::unique_ptr<icu::TimeZone> reference(icu::TimeZone::createTimeZone(name));
    for (double t = -2.5e9; t < 4.5e9; t += 7 * 3600 + 13 * 60 + 7) {
      int32_t raw = 0, dst = 0;
      UErrorCode status = U_ZERO_ERROR;
      reference->getOffset(t * 1000.0, false, raw, dst, status);
      ASSERT_EQ(zone->secondsFromGMT(at1970(t)), (raw + dst) / 1000) << name << " at " << t;
      ASSERT_EQ(zone->isDaylightSavingTime(at1970(t)), dst != 0) << name << " at " << t;
    }
  }
}

struct NameCase {
  const char* name;
  const char* expectedName;
  int offset;
};

class TimeZoneNameTest : public testing::TestWithParam<NameCase> {};

TEST_P(TimeZoneNameTest, ReadsFixedOffsetNames) {
  const TimeZonePtr zone = TimeZone::timeZoneWithName(GetParam().name);
  ASSERT_NE(zone, nullptr);
  EXPECT_EQ(zone->name(), GetParam().expectedName);
  EXPECT_EQ(zone->secondsFromGMT(Date{}), GetParam().offset);
}

INSTANTIATE_TEST_SUITE_P(Forms, TimeZoneNameTest,
                         testing::Values(NameCase{"GMT-05:30", "GMT-0530", -19800}, NameCase{"gmt-0800", "GMT-0800", -28800},
                                         NameCase{"GMT+130", "GMT+0130", 5400}, NameCase{"UTC-0", "GMT", 0},
                                         NameCase{"GMT+010101", "GMT+010101", 3661}));

TEST(TimeZoneTest, UnknownNamesAndAbbreviationsAnswerNothing) {
  for (const char* name : {"", "Mars/Olympus_Mons", "Europe/Paris ", "GMT+25", "GMT+01:60", "UTC+",
                           "GMT+1:", "GMT+01:2", "GMT+1234567", "Etc/Unknown"})
    EXPECT_EQ(TimeZone::timeZoneWithName(name), nullptr) << '"' << name << '"';
  for (const char* abbreviation : {"", "XYZ", "Europe/Paris", "CESTX"})
    EXPECT_EQ(TimeZone::timeZoneWithAbbreviation(abbreviation), nullptr) << abbreviation;
  EXPECT_EQ(TimeZone::timeZoneForSecondsFromGMT(86400), nullptr);
  EXPECT_EQ(TimeZone::timeZoneForSecondsFromGMT(-34200)->name(), "GMT-0930");
  EXPECT_EQ(TimeZone::timeZoneWithAbbreviation("CET")->name(), "Europe/Paris");
  EXPECT_EQ(TimeZone::timeZoneWithAbbreviation("cest")->name(), "Europe/Paris");
  // What abbreviation() answers for zones without a short name reads back.
  EXPECT_EQ(TimeZone::timeZoneWithAbbreviation("GMT-0500")->secondsFromGMT(Date{}), -18000);
}

TEST(TimeZoneTest, RepeatedLookUpsShareOneZone) {
  EXPECT_EQ(TimeZone::timeZoneForSecondsFromGMT(3600), TimeZone::timeZoneWithName("GMT+01:00"));
  EXPECT_TRUE(*TimeZone::timeZoneWithName("GMT+1") == *TimeZone::timeZoneWithName("UTC+01:00"));
  EXPECT_FALSE(*TimeZone::timeZoneWithName("UTC") == *TimeZone::gmt());
}

TEST(TimeZoneTest, ConcurrentLookUpsAndQueriesAgree) {
  std::vector<std::thread> threads;
  std::vector<int> sums(4, 0);
  for (size_t i = 0; i < sums.size(); ++i)
    threads.emplace_back([&sums, i] {
      for (int k = 0; k < 200; ++k)
        for (const char* name : {"Europe/Berlin", "America/Chicago", "GMT+0300"})
          sums[i] += TimeZone::timeZoneWithName(name)->secondsFromGMT(at1970(1151755200 + k * 86400.0));
    });
  for (auto& thread : threads) thread.join();
  for (int sum : sums) EXPECT_EQ(sum, sums[0]);
}

// Restores TZ and the system zone after each test.
class SystemTimeZoneTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = std::getenv("TZ")) _savedTZ = tz;
  }
  void TearDown() override {
    if (_savedTZ)
      setenv("TZ", _savedTZ->c_str(), 1);
    else
      unsetenv("TZ");
    TimeZone::resetSystemTimeZone();
  }
  static std::string systemZoneNameWithTZ(const char* value) {
    setenv("TZ", value, 1);
    TimeZone::resetSystemTimeZone();
    return TimeZone::systemTimeZone()->name();
  }

 private:
  std::optional<std::string> _savedTZ;
};

TEST_F(SystemTimeZoneTest, ReadsTheTZVariable) {
  EXPECT_EQ(systemZoneNameWithTZ("America/New_York"), "America/New_York");
  EXPECT_EQ(systemZoneNameWithTZ(":/usr/share/zoneinfo/Asia/Tokyo"), "Asia/Tokyo");
  EXPECT_EQ(systemZoneNameWithTZ(""), "UTC");
  // Kept until reset, whatever the variable says meanwhile.
  setenv("TZ", "Europe/Paris", 1);
  EXPECT_EQ(TimeZone::systemTimeZone()->name(), "UTC");
}

TEST_F(SystemTimeZoneTest, LocalKindFollowsTheSystemZone) {
  const TimeZonePtr local = TimeZone::localTimeZone();
  const Date winter = at1970(1137326400);
  EXPECT_TRUE(local->isLocalTimeZoneKind());

  TimeZone::setSystemTimeZone(TimeZone::timeZoneWithName("Europe/Paris"));
  EXPECT_EQ(local->abbreviation(winter), "CET");

  TimeZone::setSystemTimeZone(TimeZone::timeZoneWithName("America/New_York"));
  EXPECT_EQ(local->name(), "America/New_York");
  EXPECT_EQ(local->secondsFromGMT(winter), -18000);
  EXPECT_EQ(local->description().rfind("Local Time Zone (America/New_York (E", 0), 0u);

  // Recognised by kind, not by name.
  EXPECT_FALSE(*local == *TimeZone::systemTimeZone());
  EXPECT_TRUE(*local == *TimeZone::localTimeZone());
  TimeZone::setSystemTimeZone(local);  // ignored: it would answer through itself
  EXPECT_EQ(TimeZone::systemTimeZone()->name(), "America/New_York");
}

}  // namespace
}  // namespace pc
