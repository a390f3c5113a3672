#include "host/VCalendarCodec.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "host/VCalendarRule.h"
#include "host/VFormatValues.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

CalendarDate utc(int y, int mo, int d, int h = 0, int mi = 0) {
  return CalendarDate::dateWithYear(y, mo, d, h, mi, 0, TimeZone::gmt());
}

std::optional<CalendarDate> readUTC(std::string_view text) {
  std::optional<VDateValue> value = parseVDate(text);
  return value ? std::optional(calendarDateFromVDate(*value, nullptr)) : std::nullopt;
}

struct RuleCase {
  const char* label;
  std::string rule;
  Dictionary recurrence;
  std::vector<ContentParameter> parameters = {};
  bool writesBack = true;  // the record is written as this rule
};

class VCalendarRuleTest : public ::testing::TestWithParam<RuleCase> {};

TEST_P(VCalendarRuleTest, ReadsAndWritesTheGrammar) {
  const RuleCase& c = GetParam();
  std::string problem;
  const std::optional<Dictionary> read = recurrenceFromVCalendarRule(c.rule, c.parameters, readUTC, problem);
  ASSERT_TRUE(read) << problem;
  EXPECT_EQ(*read, c.recurrence) << read->description();
  if (!c.writesBack) return;
  const std::optional<VCalendarRuleText> written =
      vcalendarRuleFromRecurrence(c.recurrence, [](const CalendarDate& d) { return utcText(d); });
  ASSERT_TRUE(written);
  EXPECT_EQ(written->rule, c.rule);
  EXPECT_EQ(written->parameters.size(), c.parameters.size());
}

Array days(std::initializer_list<Value> names) { return Array(names); }

INSTANTIATE_TEST_SUITE_P(
    Rules, VCalendarRuleTest,
    ::testing::Values(
        RuleCase{"DailyTenTimes", "D1 #10", {{"frequency", "daily"}, {"interval", 1}, {"count", 10}}},
        RuleCase{"WeeklyUntil", "W1 MO TU 20271231T000000Z",
                 {{"frequency", "weekly"}, {"interval", 1}, {"bydaydays", days({"monday", "tuesday"})},
                  {"bydayfreq", days({0, 0})}, {"until", utc(2027, 12, 31)}}},
        RuleCase{"EveryOtherWeekForever", "W2 TU TH #0",
                 {{"frequency", "weekly"}, {"interval", 2}, {"bydaydays", days({"tuesday", "thursday"})},
                  {"bydayfreq", days({0, 0})}}},
        RuleCase{"MonthDay", "MD1 31 #12",
                 {{"frequency", "monthly"}, {"interval", 1}, {"bymonthday", days({31})}, {"count", 12}}},
        RuleCase{"LastDayOfMonth", "MD1 1- #0", {{"frequency", "monthly"}, {"interval", 1}, {"bymonthday", days({-1})}}},
        RuleCase{"FirstMonday", "MP1 1+ MO #0",
                 {{"frequency", "monthly"}, {"interval", 1}, {"bydaydays", days({"monday"})}, {"bydayfreq", days({1})}}},
        RuleCase{"SecondWednesdayEveryOtherMonth", "MP2 2+ WE #0",
                 {{"frequency", "monthly"}, {"interval", 2}, {"bydaydays", days({"wednesday"})},
                  {"bydayfreq", days({2})}}},
        RuleCase{"LastFridayAndFirstMonday", "MP1 1- FR 1+ MO #4",
                 {{"frequency", "monthly"}, {"interval", 1}, {"bydaydays", days({"friday", "monday"})},
                  {"bydayfreq", days({-1, 1})}, {"count", 4}}},
        RuleCase{"June", "YM1 6 #5", {{"frequency", "yearly"}, {"interval", 1}, {"bymonth", days({6})}, {"count", 5}}},
        RuleCase{"YearDay", "YD1 100 #0", {{"frequency", "yearly"}, {"interval", 1}, {"byyearday", days({100})}}},
        RuleCase{"BeyondTheGrammar", "MD1 #6",
                 {{"frequency", "monthly"}, {"interval", 1}, {"count", 6},
                  {"bydaydays", days({"monday", "friday"})}, {"bydayfreq", days({0, 0})}, {"bysetpos", days({-1})}},
                 {{"X-BYDAYDAYS", "monday,friday"}, {"X-BYDAYFREQ", "N0,N0"}, {"X-BYSETPOS", "N-1"}}},
        RuleCase{"UntilInItsZone", "D1 20270101T080000Z",
                 {{"frequency", "daily"}, {"interval", 1},
                  {"until", CalendarDate(utc(2027, 1, 1, 8).date(), TimeZone::timeZoneWithName("Asia/Kolkata"))}},
                 {{"X-UNTIL-TZID", "Asia/Kolkata"}}},
        RuleCase{"NoDurationRunsTwice", "D2", {{"frequency", "daily"}, {"interval", 2}, {"count", 2}}, {}, false},
        RuleCase{"YearDayWithoutDays", "YD1 #0", {{"frequency", "yearly"}, {"interval", 1}}, {}, false},
        RuleCase{"MarkedDaysAndLastDay", "W1 MO$ WE$ #3  ",
                 {{"frequency", "weekly"}, {"interval", 1}, {"bydaydays", days({"monday", "wednesday"})},
                  {"bydayfreq", days({0, 0})}, {"count", 3}},
                 {}, false},
        RuleCase{"LD", "MD1 LD #0", {{"frequency", "monthly"}, {"interval", 1}, {"bymonthday", days({-1})}}, {}, false}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(VCalendarRuleTest, RulesThatDoNotReadSayWhy) {
  for (std::string rule : {"FREQ=DAILY;COUNT=2", "W1 XX #2", "MP1 MO #1", "D0 #1", "MD1 32 #1", "YM1 13 #1",
                           "D1 #2 #3", "MP1 6+ MO #1", "", "W1 MO 2027", "D1 #-1"}) {
    std::string problem;
    EXPECT_FALSE(recurrenceFromVCalendarRule(rule, {}, readUTC, problem)) << rule;
    EXPECT_FALSE(problem.empty()) << rule;
  }
}

// The calendar examples as the phone store holds them.
std::vector<PhoneStoreRecord> exampleEntries() {
  std::vector<PhoneStoreRecord> records;
  for (const auto& entry : std::filesystem::directory_iterator(PC_SOURCE_DIR "/examples/records/calendar")) {
    std::optional<Dictionary> record = readRecordFile(entry.path().string());
    if (!record) continue;
    const std::string entity = record->getString("entityName");
    record->remove("entityName");
    for (const char* relation : {"recurrences", "displayAlarms", "audioAlarms"})
      if (std::optional<Array> list = record->getArray(relation))
        for (Value& item : *list)
          if (std::optional<Dictionary> sub = item.asDictionary()) sub->remove("entityName");
    // The phone holds detached events by identifier, not whole.
    if (std::optional<Array> detached = record->getArray("detachedEvents"))
      if (!detached->empty() && detached->first().isDictionary()) record->remove("detachedEvents");
    // An event read from a phone always says whether it is all-day.
    if (entity == "Calendars.Event" && !record->contains("allDay")) record->set("allDay", false);
    records.push_back({entry.path().stem().string(), entity, *record});
  }
  return records;
}

void expectSameEntries(const std::vector<PhoneStoreRecord>& records, const VFormatReadResult& back,
                       const std::string& text) {
  EXPECT_TRUE(back.problems.empty()) << back.problems.front().line << ": " << back.problems.front().message;
  EXPECT_TRUE(back.ignoredProperties.empty()) << back.ignoredProperties.begin()->first;
  ASSERT_EQ(back.records.size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(back.records[i].identifier, records[i].identifier);
    EXPECT_EQ(back.records[i].entity, records[i].entity);
    EXPECT_TRUE(back.records[i].fields == records[i].fields)
        << records[i].identifier << "\nwritten:\n" << records[i].fields.description() << "\nread:\n"
        << back.records[i].fields.description() << "\n" << text.substr(0, 3000);
  }
}

TEST(VCalendarTest, EveryExampleEntryReadsBackInUTC) {
  const std::vector<PhoneStoreRecord> records = exampleEntries();
  ASSERT_GT(records.size(), 20u);
  const std::string text = VCalendarCodec().write(records);
  expectSameEntries(records, VCalendarCodec().read(text), text);
}

// `value` with each date moved to `zone` (the instant kept), at any depth.
Value inZone(const Value& value, const TimeZonePtr& zone) {
  if (const CalendarDate* date = value.asDate()) {
    // Day anchors stay in GMT, as the transformer leaves them.
    if (isDayAnchor(*date)) return value;
    return Value(date->dateWithTimeZone(zone));
  }
  if (std::optional<Dictionary> d = value.asDictionary()) {
    Dictionary out;
    for (const auto& [key, item] : *d) out.set(key, inZone(item, zone));
    return out;
  }
  if (std::optional<Array> a = value.asArray()) {
    Array out;
    for (const Value& item : *a) out.add(inZone(item, zone));
    return out;
  }
  return value;
}

// The zones of the dates `value` holds by key path ("startDate Europe/Berlin;"),
// whatever the order of the keys.
std::string zonesOf(const Value& value, const std::string& path = "") {
  if (const CalendarDate* date = value.asDate()) return path + " " + date->timeZone()->name() + ";";
  std::set<std::string> zones;
  if (std::optional<Dictionary> d = value.asDictionary())
    for (const auto& [key, item] : *d) zones.insert(zonesOf(item, path + "/" + key.stringValue()));
  if (std::optional<Array> a = value.asArray())
    for (std::size_t i = 0; i < a->count(); ++i) zones.insert(zonesOf(a->at(i), path + "/" + std::to_string(i)));
  std::string all;
  for (const std::string& zone : zones) all += zone;
  return all;
}

const char* const kPhoneZones[] = {"Europe/Berlin", "America/New_York", "Asia/Kolkata", "Pacific/Auckland",
                                   "America/Sao_Paulo"};

// A phone without zones keeps wall clocks of its own zone: the file says
// which with TZ and DAYLIGHT, and reads back to the same instants, in the
// phone's zone.
TEST(VCalendarTest, EveryExampleEntryReadsBackFromWallClocksInEachZone) {
  for (const char* name : kPhoneZones) {
    SCOPED_TRACE(name);
    const TimeZonePtr zone = TimeZone::timeZoneWithName(name);
    std::vector<PhoneStoreRecord> records = exampleEntries();
    for (PhoneStoreRecord& record : records) record.fields = *inZone(Value(record.fields), zone).asDictionary();
    VCalendarOptions options{true, zone};
    const std::string text = VCalendarCodec(options).write(records);
    EXPECT_EQ(text.find("Z\r\n"), std::string::npos) << "an instant in the local form";
    const VFormatReadResult back = VCalendarCodec(options).read(text);
    expectSameEntries(records, back, text);
    for (std::size_t i = 0; i < std::min(records.size(), back.records.size()); ++i)
      EXPECT_EQ(zonesOf(Value(back.records[i].fields)), zonesOf(Value(records[i].fields))) << records[i].identifier;
    // A reader that does not know the phone's zone gets the instants from TZ and DAYLIGHT.
    const VFormatReadResult alone = VCalendarCodec().read(text);
    ASSERT_EQ(alone.records.size(), records.size());
    for (std::size_t i = 0; i < records.size(); ++i)
      EXPECT_EQ(alone.records[i].fields.get("startDate"), records[i].fields.get("startDate")) << records[i].identifier;
  }
}

// Dates the transformer leaves in another zone than the phone's (floating
// and all-day ones in GMT, a zone it did not move) keep their zone in a
// file of wall clocks, so that reading them back moves nothing.
TEST(VCalendarTest, LocalFormKeepsTheZoneOfDatesOutsideThePhonesZone) {
  const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  const CalendarDate local = CalendarDate::dateWithYear(2027, 3, 1, 9, 30, 0, berlin);
  const CalendarDate gmt = CalendarDate::dateWithYear(2027, 3, 1, 23, 59, 0, TimeZone::gmt());
  const CalendarDate tokyo = CalendarDate::dateWithYear(2027, 3, 2, 8, 0, 0, TimeZone::timeZoneWithName("Asia/Tokyo"));
  const std::vector<PhoneStoreRecord> records{
      {"1", "Calendars.Event",
       Dictionary{{"summary", "Mixed"}, {"startDate", local}, {"endDate", gmt}, {"allDay", false},
                  {"exceptionDates", Array{tokyo, local.dateByAddingYears(0, 0, 7, 0, 0, 0)}},
                  {"displayAlarms", Array{Dictionary{{"triggerdate", gmt}}}}}}};
  VCalendarOptions options{true, berlin};
  const std::string text = VCalendarCodec(options).write(records);
  EXPECT_NE(text.find("DTSTART:20270301T093000\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("DTEND:20270301T235900Z\r\n"), std::string::npos) << text;
  EXPECT_NE(text.find("EXDATE;X-TZID=Asia/Tokyo:20270301T230000Z\r\n"), std::string::npos) << text;
  const VFormatReadResult back = VCalendarCodec(options).read(text);
  expectSameEntries(records, back, text);
  ASSERT_EQ(back.records.size(), 1u);
  EXPECT_EQ(zonesOf(Value(back.records[0].fields)), zonesOf(Value(records[0].fields)));
}

// Dates centuries apart: the zone is described over the years around the
// middle date (a few DAYLIGHT lines, written at once), and the dates
// outside them still read back as their instants.
TEST(VCalendarTest, DatesCenturiesApartReadBackWithAShortZoneDescription) {
  const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  std::vector<PhoneStoreRecord> records;
  for (int year : {1, 1890, 2026, 2027, 2027, 2028, 2100, 9999})
    for (int month : {1, 7})
      records.push_back({std::to_string(records.size() + 1), "Calendars.Event",
                         Dictionary{{"startDate", CalendarDate::dateWithYear(year, month, 15, 9, 30, 0, berlin)},
                                    {"allDay", false}}});
  VCalendarOptions options{true, berlin};
  const std::string text = VCalendarCodec(options).write(records);
  std::size_t daylight = 0;
  for (std::size_t at = text.find("DAYLIGHT:"); at != std::string::npos; at = text.find("DAYLIGHT:", at + 1)) ++daylight;
  EXPECT_LE(daylight, 41u);
  EXPECT_NE(text.find("DTSTART:20270715T093000\r\n"), std::string::npos);
  expectSameEntries(records, VCalendarCodec(options).read(text), text);
}

// Wall clocks either side of every change of the clocks in a year, every
// quarter of an hour: each reads back as its instant. The hour repeated
// when the clocks go back names its instant in UTC (with the phone's zone),
// as a wall clock alone would read as its first occurrence.
TEST(VCalendarTest, WallClocksAcrossTheChangesOfTheClocksReadBackAsTheirInstants) {
  for (const char* name : kPhoneZones) {
    SCOPED_TRACE(name);
    const TimeZonePtr zone = TimeZone::timeZoneWithName(name);
    std::vector<PhoneStoreRecord> records;
    const double yearStart = CalendarDate::dateWithYear(2018, 1, 1, 0, 0, 0, TimeZone::gmt()).timeIntervalSinceReferenceDate();
    for (double t = yearStart; t < yearStart + 2 * 366 * 86400.0; t += 3600) {
      if (zone->secondsFromGMT(Date{t}) == zone->secondsFromGMT(Date{t + 3600})) continue;
      for (double at = t - 3 * 3600; at <= t + 4 * 3600; at += 900) {
        const CalendarDate date(Date{at}, zone);
        records.push_back({std::to_string(records.size() + 1), "Calendars.Event",
                           Dictionary{{"startDate", date}, {"allDay", false}}});
      }
    }
    // Sao Paulo's last change was in 2019, Kolkata has none.
    if (std::string(name) != "Asia/Kolkata") {
      EXPECT_GT(records.size(), 50u);
    }
    VCalendarOptions options{true, zone};
    const std::string text = VCalendarCodec(options).write(records);
    const VFormatReadResult back = VCalendarCodec(options).read(text);
    expectSameEntries(records, back, text);
    std::size_t utcForms = 0;
    for (std::size_t i = 0; i < std::min(records.size(), back.records.size()); ++i)
      EXPECT_EQ(back.records[i].fields.get("startDate").date().timeZone()->name(), name);
    for (std::size_t at = text.find("DTSTART"); at != std::string::npos; at = text.find("DTSTART", at + 1))
      if (text.compare(text.find("\r\n", at) - 1, 1, "Z") == 0) ++utcForms;
    // Only the repeated hour (four quarters per change back) is written in UTC.
    EXPECT_LE(utcForms, records.size() / 7) << text.substr(0, 2000);
  }
}

TEST(VCalendarTest, ZoneDescriptionOfBothHemispheres) {
  ContentWriter berlin, auckland, kolkata;
  writeZoneDescription(berlin, TimeZone::timeZoneWithName("Europe/Berlin"), 2027, 2027);
  EXPECT_EQ(berlin.result(), "TZ:+01:00\r\nDAYLIGHT:TRUE;+02:00;20270328T010000Z;20271031T010000Z;CET;CEST\r\n");
  writeZoneDescription(auckland, TimeZone::timeZoneWithName("Pacific/Auckland"), 2027, 2027);
  EXPECT_EQ(auckland.result(),
            "TZ:+12:00\r\nDAYLIGHT:TRUE;+13:00;20260926T140000Z;20270403T140000Z;NZST;NZDT\r\n"
            "DAYLIGHT:TRUE;+13:00;20270925T140000Z;20280401T140000Z;NZST;NZDT\r\n");
  writeZoneDescription(kolkata, TimeZone::timeZoneWithName("Asia/Kolkata"), 2027, 2028);
  EXPECT_EQ(kolkata.result(), "TZ:+05:30\r\nDAYLIGHT:FALSE\r\n");
}

// Files in the styles phones write them.
struct PhoneCalendar {
  const char* label;
  std::string text;
  std::string summary;
  CalendarDate start;
  Value allDay;
  std::size_t ignored;
};

class VCalendarPhoneStyleTest : public ::testing::TestWithParam<PhoneCalendar> {};

TEST_P(VCalendarPhoneStyleTest, ReadsTheEntryAtItsInstant) {
  const PhoneCalendar& c = GetParam();
  const VFormatReadResult result = VCalendarCodec().read(c.text);
  EXPECT_TRUE(result.problems.empty()) << result.problems.front().message;
  std::size_t ignored = 0;
  for (const auto& [name, count] : result.ignoredProperties) ignored += count;
  EXPECT_EQ(ignored, c.ignored);
  ASSERT_FALSE(result.records.empty());
  const Dictionary& fields = result.records[0].fields;
  EXPECT_EQ(result.records[0].identifier, "12");
  EXPECT_EQ(fields.getString("summary"), c.summary);
  EXPECT_EQ(fields.get("startDate"), Value(c.start)) << fields.get("startDate").description();
  EXPECT_EQ(fields.get("allDay"), c.allDay);
}

INSTANTIATE_TEST_SUITE_P(
    Phones, VCalendarPhoneStyleTest,
    ::testing::Values(
        PhoneCalendar{"SymbianLocalSummer",
                      "BEGIN:VCALENDAR\r\nVERSION:1.0\r\nTZ:+01\r\n"
                      "DAYLIGHT:TRUE;+02;20270328T010000Z;20271031T010000Z;;\r\nBEGIN:VEVENT\r\nUID:12\r\n"
                      "SUMMARY:Planning\r\nDTSTART:20270615T090000\r\nDTEND:20270615T100000\r\n"
                      "X-EPOCAGENDAENTRYTYPE:APPOINTMENT\r\nCLASS:PUBLIC\r\nSEQUENCE:0\r\nX-METHOD:NONE\r\n"
                      "AALARM:20270615T084500;;;\r\nRRULE:MP2 2+ WE #0\r\nLAST-MODIFIED:20270101T000000Z\r\n"
                      "PRIORITY:0\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
                      "Planning", utc(2027, 6, 15, 7), false, 4},
        PhoneCalendar{"SymbianLocalWinter",
                      "BEGIN:VCALENDAR\r\nVERSION:1.0\r\nTZ:+01\r\n"
                      "DAYLIGHT:TRUE;+02;20270328T010000Z;20271031T010000Z;;\r\nBEGIN:VEVENT\r\nUID:12\r\n"
                      "SUMMARY:Planning\r\nDTSTART:20271215T090000\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
                      "Planning", utc(2027, 12, 15, 8), false, 0},
        PhoneCalendar{"AucklandLocalAcrossTheYear",
                      "BEGIN:VCALENDAR\r\nVERSION:1.0\r\nTZ:+12:00\r\n"
                      "DAYLIGHT:TRUE;+13:00;20260926T140000Z;20270403T140000Z;NZST;NZDT\r\n"
                      "BEGIN:VEVENT\r\nX-IRMC-LUID:12\r\nSUMMARY:Picnic\r\nDTSTART:20270101T120000\r\n"
                      "END:VEVENT\r\nEND:VCALENDAR\r\n",
                      "Picnic", utc(2026, 12, 31, 23), false, 0},
        PhoneCalendar{"SonyEricssonUTCTask",
                      "BEGIN:VCALENDAR\nVERSION:1.0\nPRODID:-//Phone//EN\nBEGIN:VTODO\nX-IRMC-LUID:12\n"
                      "SUMMARY;CHARSET=ISO-8859-1;ENCODING=QUOTED-PRINTABLE:R=E9sum=E9\nDTSTART:20270301T083000Z\n"
                      "DUE:20270302T083000Z\nSTATUS:NEEDS ACTION\nDALARM:20270302T080000Z\nX-SONYERICSSON-ID:9\n"
                      "END:VTODO\nEND:VCALENDAR\n",
                      "Résumé", utc(2027, 3, 1, 8, 30), Value(), 1},
        PhoneCalendar{"WindowsMobileAllDay",
                      "BEGIN:VCALENDAR\r\nVERSION:1.0\r\nBEGIN:VEVENT\r\nX-IRMC-LUID:12\r\n"
                      "SUMMARY;CHARSET=Windows-1252;ENCODING=QUOTED-PRINTABLE:Caf=E9 =80 day\r\n"
                      "DTSTART:20270704\r\nDTEND:20270705\r\nEXDATE:20270711T090000Z;20270718T090000Z\r\n"
                      "CATEGORIES:Holiday\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
                      "Café € day", utc(2027, 7, 4, 12), true, 0}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(VCalendarTest, AlarmsExceptionsAndRulesOfAPhoneFile) {
  const VFormatReadResult result = VCalendarCodec().read(
      "BEGIN:VCALENDAR\r\nVERSION:1.0\r\nBEGIN:VEVENT\r\nX-IRMC-LUID:1\r\nDTSTART:20270106T090000Z\r\n"
      "DALARM:20270106T084500Z;PT5M;2;Stand-up\r\nAALARM:20270106T085500Z;;;beep.wav\r\n"
      "EXDATE:20270113T090000Z,20270120T090000Z\r\nRRULE:W1 WE #10\r\nRRULE:not a rule\r\n"
      "STATUS:TENTATIVE\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  ASSERT_EQ(result.records.size(), 1u);
  const Dictionary& fields = result.records[0].fields;
  EXPECT_EQ(fields.get("displayAlarms"),
            Value(Array{Dictionary{{"triggerdate", utc(2027, 1, 6, 8, 45)}, {"description", "Stand-up"}}}));
  EXPECT_EQ(fields.get("audioAlarms"),
            Value(Array{Dictionary{{"triggerdate", utc(2027, 1, 6, 8, 55)}, {"sound", "beep.wav"}}}));
  EXPECT_EQ(fields.get("exceptionDates"), Value(Array{utc(2027, 1, 13, 9), utc(2027, 1, 20, 9)}));
  EXPECT_EQ(fields.getArray("recurrences")->count(), 1u);
  EXPECT_EQ(fields.getString("status"), "tentative");
  ASSERT_EQ(result.problems.size(), 1u);
  EXPECT_EQ(result.problems[0].line, 10u);
}

}  // namespace
}  // namespace pc
