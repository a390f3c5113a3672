// The occurrences of every imported recurring event, as the calendar core
// expands the engine's records, against libical's expansion of the file's
// RRULE, EXDATE and RDATE over ten years; and the recurrence examples of
// RFC 5545 (section 3.8.5.3) by their published dates.
//
// Deliberate differences, left out of the comparison and shown by name:
// - "ExceptionOnAnotherTime": the engine removes every occurrence on the day
//   of an exception date, whatever its time; libical only the one at that
//   exact time. An EXDATE that names no occurrence but falls on an
//   occurrence's day therefore removes it in the engine.
// - "RepeatedWallClock": a wall clock that the autumn change repeats is its
//   first (daylight) reading in the engine, as RFC 5545 reads it; libical's
//   expansion takes the second.
// - "StartOutsideTheRule": DTSTART is always the first occurrence in the
//   engine, as RFC 5545 has it, even when the rule would not give it;
//   libical's expansion gives only what the rule gives.
// - "CutRules": a rule the engine's records cannot hold is kept as at most
//   1000 occurrences within ten years, as the import reports.
// libical's expansion also reads the zone of an RDATE as UTC, so the
// comparison gives its extra dates in UTC.

#include <gtest/gtest.h>
#include <libical/ical.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "calcore/CALDateTime.h"
#include "calcore/CALEventExploder.h"
#include "calcore/CALTimeRange.h"
#include "host/UserFiles.h"
#include "platform/CalendarDate.h"
#include "platform/Date.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

constexpr int kYears = 10;

std::string key(const CalendarDate& date, bool allDay) {
  return allDay ? date.dateWithTimeZone(TimeZone::gmt()).descriptionWithCalendarFormat("%Y%m%d")
                : date.dateWithTimeZone(TimeZone::gmt()).descriptionWithCalendarFormat("%Y%m%dT%H%M%SZ");
}

std::string dayInZone(const CalendarDate& date, const TimeZonePtr& zone) {
  return date.dateWithTimeZone(zone).descriptionWithCalendarFormat("%Y%m%d");
}

// The engine's side: the rule as the calendar core expands it, less the
// days of exception dates and of detached events, plus the detached events.
std::set<std::string> engineOccurrences(const Dictionary& master) {
  const bool allDay = master.getBool("allDay");
  const CalendarDate start = master.get("startDate").date();
  const CalendarDate end = start.dateByAddingYears(kYears, 0, 0, 0, 0, 0);
  std::set<std::string> out;
  std::set<std::string> excludedDays;
  const TimeZonePtr zone = allDay ? TimeZone::gmt() : start.timeZone();
  const Array detached = master.getArray("detachedEvents").value_or(Array());
  for (const Value& d : detached) excludedDays.insert(dayInZone(d.dictionary().get("originalDate").date(), zone));
  if (std::optional<Array> rules = master.getArray("recurrences")) {
    CALEventExploder exploder(master, rules->at(0).dictionary());
    // An all-day event's range runs from the midnight of its first day.
    const CalendarDate from = allDay ? start.dateByAddingTimeInterval(-12 * 3600) : start;
    const CalendarDate to = allDay ? end.dateByAddingTimeInterval(-12 * 3600) : end;
    const CALTimeRange range(CALDateTimeConversion::calDateTime(from).get(), CALDateTimeConversion::calDateTime(to).get());
    for (const CALDateRef& date : exploder.produceDatesForTimeRange(range, nullptr, "master")) {
      const CalendarDate at = allDay ? CalendarDate::dateWithYear(date->calendarDate().dateWithTimeZone(TimeZone::gmt()).yearOfCommonEra(),
                                                                  date->calendarDate().dateWithTimeZone(TimeZone::gmt()).monthOfYear(),
                                                                  date->calendarDate().dateWithTimeZone(TimeZone::gmt()).dayOfMonth(), 12, 0, 0,
                                                                  TimeZone::gmt())
                                     : date->calendarDate();
      if (!excludedDays.count(dayInZone(at, zone))) out.insert(key(at, allDay));
    }
  } else {
    out.insert(key(start, allDay));
  }
  for (const Value& d : detached) {
    const CalendarDate at = d.dictionary().get("startDate").date();
    if (at < end) out.insert(key(at, allDay));
  }
  return out;
}

void collect(icalcomponent*, struct icaltime_span* span, void* data) {
  auto* out = static_cast<std::pair<std::set<std::string>*, bool>*>(data);
  const CalendarDate at(Date::dateWithTimeIntervalSince1970(static_cast<double>(span->start)), TimeZone::gmt());
  out->first->insert(key(out->second ? at.dateByAddingTimeInterval(12 * 3600) : at, out->second));
}

// libical's side: the original entry expanded over the same ten years.
std::set<std::string> libicalOccurrences(const std::string& text, const std::string& uid, bool allDay) {
  std::set<std::string> out;
  icalcomponent* root = icalparser_parse_string(text.c_str());
  for (icalcomponent* c = icalcomponent_get_first_component(root, ICAL_VEVENT_COMPONENT); c;
       c = icalcomponent_get_next_component(root, ICAL_VEVENT_COMPONENT)) {
    if (uid != icalcomponent_get_uid(c) || icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY)) continue;
    struct icaltimetype start = icalcomponent_get_dtstart(c);
    const time_t from = icaltime_as_timet_with_zone(start, start.zone ? start.zone : icaltimezone_get_utc_timezone());
    struct icaltimetype end = start;
    end.year += kYears;
    const time_t to = icaltime_as_timet_with_zone(end, end.zone ? end.zone : icaltimezone_get_utc_timezone());
    std::pair<std::set<std::string>*, bool> data{&out, allDay};
    icalcomponent_foreach_recurrence(c, icaltime_from_timet_with_zone(from - 1, 0, icaltimezone_get_utc_timezone()),
                                     icaltime_from_timet_with_zone(to - 1, 0, icaltimezone_get_utc_timezone()), collect,
                                     &data);
  }
  icalcomponent_free(root);
  return out;
}

struct RuleExample {
  const char* name;
  std::string start;   // DTSTART line's value with its parameters
  std::string lines;   // RRULE, EXDATE, RDATE
  std::vector<std::string> first;  // the published first occurrences (UTC), when given
};

// RFC 5545 section 3.8.5.3, in America/New_York, with the dates it lists.
const std::vector<RuleExample>& rfcExamples() {
  static const std::vector<RuleExample> examples = {
      {"DailyTen", ";TZID=America/New_York:19970902T090000", "RRULE:FREQ=DAILY;COUNT=10\r\n",
       {"19970902T130000Z", "19970903T130000Z"}},
      {"DailyUntil", ";TZID=America/New_York:19970902T090000", "RRULE:FREQ=DAILY;UNTIL=19971224T000000Z\r\n", {}},
      {"EveryOtherDay", ";TZID=America/New_York:19970902T090000", "RRULE:FREQ=DAILY;INTERVAL=2\r\n", {}},
      {"EveryTenDays", ";TZID=America/New_York:19970902T090000", "RRULE:FREQ=DAILY;INTERVAL=10;COUNT=5\r\n",
       {"19970902T130000Z", "19970912T130000Z", "19970922T130000Z", "19971002T130000Z", "19971012T130000Z"}},
      {"JanuaryYearly", ";TZID=America/New_York:19980101T090000",
       "RRULE:FREQ=YEARLY;UNTIL=20000131T140000Z;BYMONTH=1;BYDAY=SU,MO,TU,WE,TH,FR,SA\r\n", {}},
      {"JanuaryDaily", ";TZID=America/New_York:19980101T090000",
       "RRULE:FREQ=DAILY;UNTIL=20000131T140000Z;BYMONTH=1\r\n", {}},
      {"WeeklyTen", ";TZID=America/New_York:19970902T090000", "RRULE:FREQ=WEEKLY;COUNT=10\r\n", {}},
      {"EveryOtherWeek", ";TZID=America/New_York:19970902T090000", "RRULE:FREQ=WEEKLY;INTERVAL=2;WKST=SU\r\n", {}},
      {"TuesdayThursday", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=WEEKLY;UNTIL=19971007T000000Z;WKST=SU;BYDAY=TU,TH\r\n", {}},
      {"MonWedFri", ";TZID=America/New_York:19970901T090000",
       "RRULE:FREQ=WEEKLY;INTERVAL=2;UNTIL=19971224T000000Z;WKST=SU;BYDAY=MO,WE,FR\r\n", {}},
      {"TueThuEight", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=8;WKST=SU;BYDAY=TU,TH\r\n", {}},
      {"FirstFriday", ";TZID=America/New_York:19970905T090000", "RRULE:FREQ=MONTHLY;COUNT=10;BYDAY=1FR\r\n",
       {"19970905T130000Z", "19971003T130000Z", "19971107T140000Z", "19971205T140000Z", "19980102T140000Z",
        "19980206T140000Z", "19980306T140000Z", "19980403T140000Z", "19980501T130000Z", "19980605T130000Z"}},
      {"FirstAndLastSunday", ";TZID=America/New_York:19970907T090000",
       "RRULE:FREQ=MONTHLY;INTERVAL=2;COUNT=10;BYDAY=1SU,-1SU\r\n", {"19970907T130000Z", "19970928T130000Z"}},
      {"SecondToLastMonday", ";TZID=America/New_York:19970922T090000", "RRULE:FREQ=MONTHLY;COUNT=6;BYDAY=-2MO\r\n",
       {"19970922T130000Z", "19971020T130000Z", "19971117T140000Z"}},
      {"ThirdToLastDay", ";TZID=America/New_York:19970928T090000", "RRULE:FREQ=MONTHLY;BYMONTHDAY=-3\r\n",
       {"19970928T130000Z", "19971029T140000Z", "19971128T140000Z"}},
      {"SecondAndFifteenth", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=MONTHLY;COUNT=10;BYMONTHDAY=2,15\r\n", {}},
      {"FirstAndLastDay", ";TZID=America/New_York:19970930T090000",
       "RRULE:FREQ=MONTHLY;COUNT=10;BYMONTHDAY=1,-1\r\n", {"19970930T130000Z", "19971001T130000Z"}},
      {"EighteenMonths", ";TZID=America/New_York:19970910T090000",
       "RRULE:FREQ=MONTHLY;INTERVAL=18;COUNT=10;BYMONTHDAY=10,11,12,13,14,15\r\n", {}},
      {"TuesdaysEveryOtherMonth", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=MONTHLY;INTERVAL=2;BYDAY=TU\r\n", {}},
      {"JuneJuly", ";TZID=America/New_York:19970610T090000", "RRULE:FREQ=YEARLY;COUNT=10;BYMONTH=6,7\r\n", {}},
      {"JanFebMar", ";TZID=America/New_York:19970310T090000",
       "RRULE:FREQ=YEARLY;INTERVAL=2;COUNT=10;BYMONTH=1,2,3\r\n", {}},
      {"YearDays", ";TZID=America/New_York:19970101T090000",
       "RRULE:FREQ=YEARLY;INTERVAL=3;COUNT=10;BYYEARDAY=1,100,200\r\n",
       {"19970101T140000Z", "19970410T130000Z", "19970719T130000Z", "20000101T140000Z"}},
      {"TwentiethMonday", ";TZID=America/New_York:19970519T090000", "RRULE:FREQ=YEARLY;BYDAY=20MO\r\n",
       {"19970519T130000Z", "19980518T130000Z", "19990517T130000Z"}},
      {"WeekTwentyMonday", ";TZID=America/New_York:19970512T090000", "RRULE:FREQ=YEARLY;BYWEEKNO=20;BYDAY=MO\r\n",
       {"19970512T130000Z", "19980511T130000Z", "19990517T130000Z"}},
      {"MarchThursdays", ";TZID=America/New_York:19970313T090000", "RRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=TH\r\n", {}},
      {"SummerThursdays", ";TZID=America/New_York:19970605T090000",
       "RRULE:FREQ=YEARLY;BYDAY=TH;BYMONTH=6,7,8\r\n", {}},
      {"FridayThirteenth", ";TZID=America/New_York:19970902T090000",
       "EXDATE;TZID=America/New_York:19970902T090000\r\nRRULE:FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13\r\n",
       {"19980213T140000Z", "19980313T140000Z", "19981113T140000Z", "19990813T130000Z", "20001013T130000Z"}},
      {"SaturdayAfterFirstSunday", ";TZID=America/New_York:19970913T090000",
       "RRULE:FREQ=MONTHLY;BYDAY=SA;BYMONTHDAY=7,8,9,10,11,12,13\r\n",
       {"19970913T130000Z", "19971011T130000Z", "19971108T140000Z"}},
      {"ElectionDay", ";TZID=America/New_York:19961105T090000",
       "RRULE:FREQ=YEARLY;INTERVAL=4;BYMONTH=11;BYDAY=TU;BYMONTHDAY=2,3,4,5,6,7,8\r\n",
       {"19961105T140000Z", "20001107T140000Z", "20041102T140000Z"}},
      {"ThirdWeekdayInstance", ";TZID=America/New_York:19970904T090000",
       "RRULE:FREQ=MONTHLY;COUNT=3;BYDAY=TU,WE,TH;BYSETPOS=3\r\n",
       {"19970904T130000Z", "19971007T130000Z", "19971106T140000Z"}},
      {"SecondToLastWeekday", ";TZID=America/New_York:19970929T090000",
       "RRULE:FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-2\r\n",
       {"19970929T130000Z", "19971030T140000Z", "19971127T140000Z", "19971230T140000Z"}},
      {"EveryThreeHours", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=HOURLY;INTERVAL=3;UNTIL=19970902T170000Z\r\n",
       {"19970902T130000Z", "19970902T160000Z"}},
      {"EveryFifteenMinutes", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=MINUTELY;INTERVAL=15;COUNT=6\r\n", {"19970902T130000Z", "19970902T131500Z"}},
      {"EveryTwentyMinutesDaily", ";TZID=America/New_York:19970902T090000",
       "RRULE:FREQ=DAILY;BYHOUR=9,10,11,12,13,14,15,16;BYMINUTE=0,20,40\r\n", {}},
      {"WeekStartMonday", ";TZID=America/New_York:19970805T090000",
       "RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=4;BYDAY=TU,SU;WKST=MO\r\n",
       {"19970805T130000Z", "19970810T130000Z", "19970819T130000Z", "19970824T130000Z"}},
      {"WeekStartSunday", ";TZID=America/New_York:19970805T090000",
       "RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=4;BYDAY=TU,SU;WKST=SU\r\n",
       {"19970805T130000Z", "19970817T130000Z", "19970819T130000Z", "19970831T130000Z"}},
      {"InvalidDatesSkipped", ";TZID=America/New_York:20070115T090000",
       "RRULE:FREQ=MONTHLY;BYMONTHDAY=15,30;COUNT=5\r\n",
       {"20070115T140000Z", "20070130T140000Z", "20070215T140000Z", "20070315T130000Z", "20070330T130000Z"}},
  };
  return examples;
}

// Events of our own: other zones, all-day, UTC, floating, exceptions and
// extra dates.
const std::vector<RuleExample>& ownExamples() {
  static const std::vector<RuleExample> examples = {
      {"AllDayYearly", ";VALUE=DATE:20261224", "RRULE:FREQ=YEARLY\r\nEXDATE;VALUE=DATE:20281224\r\n", {}},
      {"AllDayWeekdays", ";VALUE=DATE:20260105", "RRULE:FREQ=WEEKLY;BYDAY=MO,WE,FR;UNTIL=20260601\r\n", {}},
      {"UTCMonthlyLastDay", ":20260131T233000Z", "RRULE:FREQ=MONTHLY;BYMONTHDAY=-1;COUNT=30\r\n", {}},
      {"KolkataEvening", ";TZID=Asia/Kolkata:20260301T233000",
       "RRULE:FREQ=DAILY;INTERVAL=3;COUNT=40\r\nEXDATE;TZID=Asia/Kolkata:20260307T233000\r\n", {}},
      {"AucklandAcrossDaylight", ";TZID=Pacific/Auckland:20260301T080000", "RRULE:FREQ=WEEKLY;COUNT=40\r\n", {}},
      {"SaoPauloExtraDates", ";TZID=America/Sao_Paulo:20261101T000000",
       "RRULE:FREQ=MONTHLY;BYDAY=1SU;COUNT=12\r\nRDATE:20261225T130000Z\r\n", {}},
      {"BerlinLastWorkday", ";TZID=Europe/Berlin:20260731T170000",
       "RRULE:FREQ=YEARLY;BYMONTH=1,7;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1\r\n", {}},
      {"OnlyExtraDates", ";TZID=Europe/Berlin:20260130T170000",
       "RDATE:20260210T160000Z,20260310T160000Z\r\n", {}},
  };
  return examples;
}

std::string fileOf(const std::vector<RuleExample>& examples) {
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\n";
  for (const RuleExample& e : examples)
    text += std::string("BEGIN:VEVENT\r\nUID:") + e.name + "\r\nDTSTAMP:20260101T000000Z\r\nDTSTART" + e.start +
            "\r\nSUMMARY:" + e.name + "\r\n" + e.lines + "END:VEVENT\r\n";
  return text + "END:VCALENDAR\r\n";
}

void compareWithLibical(const std::vector<RuleExample>& examples) {
  const std::string text = fileOf(examples);
  const UserFileImport file = importICalendarText(text, "rules.ics");
  ASSERT_FALSE(file.failure);
  ASSERT_EQ(file.records.size(), examples.size());
  for (std::size_t i = 0; i < examples.size(); ++i) {
    const RuleExample& example = examples[i];
    const Dictionary& record = file.records[i].record;
    const bool allDay = record.getBool("allDay");
    const std::set<std::string> engine = engineOccurrences(record);
    std::set<std::string> libical = libicalOccurrences(text, example.name, allDay);
    // A rule kept as its occurrences stops where the import says it cut it.
    for (const UserFileNote& note : file.reported)
      if (note.line == file.records[i].line && note.message.find("cut at") != std::string::npos && !engine.empty())
        libical.erase(libical.upper_bound(*engine.rbegin()), libical.end());
    std::vector<std::string> onlyEngine;
    std::vector<std::string> onlyLibical;
    std::set_difference(engine.begin(), engine.end(), libical.begin(), libical.end(), std::back_inserter(onlyEngine));
    std::set_difference(libical.begin(), libical.end(), engine.begin(), engine.end(), std::back_inserter(onlyLibical));
    EXPECT_TRUE(onlyEngine.empty() && onlyLibical.empty())
        << example.name << ": " << onlyEngine.size() << " only in the engine (first "
        << (onlyEngine.empty() ? "" : onlyEngine[0]) << "), " << onlyLibical.size() << " only in libical (first "
        << (onlyLibical.empty() ? "" : onlyLibical[0]) << ")\n"
        << record.description();
    EXPECT_FALSE(engine.empty()) << example.name;
    // The published dates come first, in order.
    std::vector<std::string> first(engine.begin(), engine.end());
    first.resize(std::min(first.size(), example.first.size()));
    EXPECT_EQ(first, example.first) << example.name;
  }
}

TEST(ICalendarDifferentialTest, PublishedRuleExamples) { compareWithLibical(rfcExamples()); }

TEST(ICalendarDifferentialTest, EventsOfOurOwn) { compareWithLibical(ownExamples()); }

// The engine removes every occurrence on an exception's day, libical only
// the one at its time: the single difference the comparison leaves out.
TEST(ICalendarDifferentialTest, ExceptionOnAnotherTime) {
  const std::vector<RuleExample> examples = {
      {"ExceptionOnAnotherTime", ";TZID=Europe/Berlin:20260302T090000",
       "RRULE:FREQ=DAILY;COUNT=5\r\nEXDATE;TZID=Europe/Berlin:20260303T150000\r\n", {}}};
  const UserFileImport file = importICalendarText(fileOf(examples), "x.ics");
  ASSERT_EQ(file.records.size(), 1u);
  EXPECT_EQ(engineOccurrences(file.records[0].record).size(), 4u);
  EXPECT_EQ(libicalOccurrences(fileOf(examples), "ExceptionOnAnotherTime", false).size(), 5u);
}

// The example records written as iCalendar and read back: the same entries,
// starting at the same instants, occurring on the same dates.
TEST(ICalendarDifferentialTest, ExampleRecordsWrittenAndReadBackOccurAlike) {
  std::vector<std::pair<std::string, Dictionary>> records;
  for (const auto& entry : std::filesystem::directory_iterator(PC_SOURCE_DIR "/examples/records/calendar"))
    if (std::optional<Dictionary> record = readRecordFile(entry.path().string()))
      records.emplace_back(entry.path().stem().string(), *record);
  std::sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  ASSERT_GT(records.size(), 30u);
  const UserFileImport file = importICalendarText(exportICalendarText(records), "examples.ics");
  ASSERT_FALSE(file.failure);
  EXPECT_TRUE(file.skipped.empty()) << file.skipped[0].message;
  ASSERT_EQ(file.records.size(), records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Dictionary& before = records[i].second;
    const Dictionary& after = file.records[i].record;
    SCOPED_TRACE(records[i].first);
    EXPECT_EQ(file.records[i].identifier, records[i].first);
    for (const char* key : {"entityName", "summary", "location", "startDate", "dueDate", "completionDate", "priority"})
      EXPECT_EQ(after.get(key), before.get(key)) << key;
    if (before.getString("entityName") != "Calendars.Event") continue;
    EXPECT_EQ(after.getBool("allDay"), before.getBool("allDay"));
    EXPECT_EQ(after.getArray("displayAlarms").value_or(Array()).count(),
              before.getArray("displayAlarms").value_or(Array()).count());
    // A rule read back as its occurrences was one the core expands otherwise
    // than the file means it: its dates are libical's.
    if (before.contains("recurrences") && !after.contains("recurrences")) continue;
    EXPECT_EQ(engineOccurrences(after), engineOccurrences(before));
  }
}

TEST(ICalendarDifferentialTest, RepeatedWallClock) {
  const std::vector<RuleExample> examples = {
      {"RepeatedWallClock", ";TZID=Pacific/Auckland:20260329T023000", "RRULE:FREQ=WEEKLY;COUNT=2\r\n", {}}};
  const UserFileImport file = importICalendarText(fileOf(examples), "x.ics");
  ASSERT_EQ(file.records.size(), 1u);
  // 2026-04-05 02:30 happens twice in Auckland: 13:30 GMT (daylight), then 14:30.
  EXPECT_TRUE(engineOccurrences(file.records[0].record).count("20260404T133000Z"));
  EXPECT_TRUE(libicalOccurrences(fileOf(examples), "RepeatedWallClock", false).count("20260404T143000Z"));
}

TEST(ICalendarDifferentialTest, StartOutsideTheRule) {
  const std::vector<RuleExample> examples = {
      {"StartOutsideTheRule", ";TZID=Europe/Berlin:20260130T170000",
       "RRULE:FREQ=YEARLY;BYMONTH=7;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-1;COUNT=2\r\n", {}}};
  const UserFileImport file = importICalendarText(fileOf(examples), "x.ics");
  ASSERT_EQ(file.records.size(), 1u);
  const std::set<std::string> engine = engineOccurrences(file.records[0].record);
  EXPECT_EQ(engine, (std::set<std::string>{"20260130T160000Z", "20260731T150000Z"}));
  EXPECT_FALSE(libicalOccurrences(fileOf(examples), "StartOutsideTheRule", false).count("20260130T160000Z"));
}

TEST(ICalendarDifferentialTest, CutRules) {
  const std::vector<RuleExample> examples = {
      {"CutRules", ":20260301T080000Z", "RRULE:FREQ=HOURLY\r\n", {}}};
  const UserFileImport file = importICalendarText(fileOf(examples), "x.ics");
  ASSERT_EQ(file.records.size(), 1u);
  EXPECT_EQ(engineOccurrences(file.records[0].record).size(), 1000u);
  ASSERT_EQ(file.reported.size(), 1u);
  EXPECT_NE(file.reported[0].message.find("cut at 2026-04-11"), std::string::npos) << file.reported[0].message;
}

// Rules that repeat within a day but whose dates come seldom or never: libical
// steps through every minute looking for the next one, so the search is
// bounded; what a bounded search finds is what libical finds.
TEST(ICalendarDifferentialTest, RulesThatSeldomOrNeverMatch) {
  compareWithLibical({{"SparseCounted", ":20260301T090000Z", "RRULE:FREQ=MINUTELY;BYHOUR=9;BYMINUTE=0;COUNT=3\r\n", {}},
                      {"SparseUntil", ":20260301T083000Z",
                       "RRULE:FREQ=SECONDLY;BYMINUTE=30;BYSECOND=0;UNTIL=20260301T120000Z\r\n", {}}});
  const std::vector<RuleExample> never = {
      {"NeverMinutely", ":20260301T080000Z", "RRULE:FREQ=MINUTELY;BYMONTH=2;BYMONTHDAY=30\r\n", {}},
      {"NeverCounted", ":20260301T080000Z", "RRULE:FREQ=HOURLY;COUNT=5;BYMONTH=2;BYMONTHDAY=30\r\n", {}},
      {"NeverDaily", ";VALUE=DATE:20260301", "RRULE:FREQ=DAILY;BYMONTH=4;BYMONTHDAY=31\r\n", {}}};
  const UserFileImport file = importICalendarText(fileOf(never), "x.ics");
  ASSERT_EQ(file.records.size(), never.size());
  for (const UserFileRecord& record : file.records)
    EXPECT_EQ(engineOccurrences(record.record).size(), 1u) << record.record.description();
}

}  // namespace
}  // namespace pc
