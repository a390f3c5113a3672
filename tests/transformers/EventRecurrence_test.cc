// The event transformer's recurrence stages: which rules the phone keeps,
// exception dates and detached occurrences on the way to the phone and back,
// date-only until dates, and recurrence records formatted for the phone.
// Run under several system zones (see ctest): nothing here may depend on it.

#include <gmock/gmock.h>

#include "EventStagesFixture.h"
#include "support/LogCapture.h"

namespace pc::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

CalendarDate ny(int y, int m, int d, int h = 0, int mi = 0, int s = 0) {
  return dateIn("America/New_York", y, m, d, h, mi, s);
}

Dictionary withRule(Dictionary event, const Dictionary& rule) {
  event.set(kCalendarsEventRecurrences, Array{rule});
  return event;
}

// --- Which rules the phone keeps --------------------------------------------------------------

TEST(EventRecurrenceDecision, FlagsAndEventKinds) {
  // 2024-01-08 is a Monday.
  const Dictionary timed = eventAt(ny(2024, 1, 8, 12));
  const Dictionary lateMonday = eventAt(ny(2024, 1, 8, 23, 30));
  const Dictionary allDay = allDayEvent(2024, 1, 8);
  const Dictionary threeDays = eventAt(ny(2024, 1, 8, 9), 3 * 86400.0);
  struct Case {
    const char* name;
    Dictionary properties;
    Dictionary event;
    bool brisalde;
    bool expected;
    const char* log;
  };
  const Case cases[] = {
      {"full recurrence keeps all-day", {{"hasFullRecurrence", 1}, {"handleAllDayRecurrent", 0}}, allDay, false, true, nullptr},
      {"full recurrence keeps multi-day", {{"hasFullRecurrence", 1}, {"handleMultiDayRecurrent", 0}}, threeDays, false, true, nullptr},
      {"all-day refused", {{"hasVCalRecurrence", 1}, {"handleAllDayRecurrent", 0}}, allDay, false, false,
       "Exploding recurrence rule, because device doesn't support recurrent all-day events"},
      {"all-day by default", {{"hasVCalRecurrence", 1}}, allDay, false, true, nullptr},
      {"multi-day refused", {{"hasVCalRecurrence", 1}, {"handleMultiDayRecurrent", 0}}, threeDays, false, false,
       "Exploding recurrence rule, because device doesn't support recurrent multi-day events"},
      {"Monday 23:30 is Tuesday in Paris", {{"hasVCalRecurrence", 1}}, lateMonday, false, false,
       "event crosses day boundary, exploding!!"},
      {"Monday noon is safe", {{"hasVCalRecurrence", 1}}, timed, false, true, "this one is safe"},
      {"zone not checked in that mode", {{"hasVCalRecurrence", 1}}, lateMonday, true, true, nullptr},
      {"symbian asks the agent parser", {{"hasSymbianRecurrence", 1}}, timed, false, true, "we are on symbian"},
      {"no recurrence kind", Dictionary(), timed, false, false, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TestHost host;
    host.nextZone = TimeZone::timeZoneWithName("Europe/Paris");
    host.brisalde = c.brisalde;
    auto parser = std::make_shared<RuleParser>();
    host.parser = parser;
    auto stages = makeStages(c.properties, &host);
    LogCapture log;
    RecordHolder holder(withRule(c.event, recurrence("weekly")), "E1");
    EXPECT_EQ(stages->deviceSupportRecurrentEvent(holder), c.expected);
    if (c.log) {
      EXPECT_TRUE(log.contains(c.log));
    }
    EXPECT_TRUE(log.contains(fmt::format("do we handle the rule: {}", c.expected ? 1 : 0)));
  }
}

TEST(EventRecurrenceDecision, ParserAnswersAndMissingParsers) {
  TestHost host;
  auto parser = std::make_shared<RuleParser>();
  parser->answer = false;
  host.parser = parser;
  host.store = std::make_shared<TestStore>();
  host.store->records.set("E1", Dictionary{{"RawProperties", Dictionary{{"RRULE", "W1 MO"}}}});
  auto stages = makeStages(Dictionary{{"hasVCalRecurrence", true}}, &host);
  const Dictionary event = withRule(eventAt(ny(2024, 1, 8, 12)), recurrence("weekly"));
  RecordHolder holder(event, "E1");
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(holder));
  EXPECT_EQ(parser->asked, 1);
  ASSERT_TRUE(parser->extraProperties);
  EXPECT_EQ(parser->extraProperties->getString("RRULE"), "W1 MO");

  LogCapture log;
  host.parser = std::make_shared<PlainParser>();
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(holder));
  host.parser = nullptr;
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(holder));
  EXPECT_TRUE(log.contains("condition \"parser\" failed"));
  auto symbian = makeStages(Dictionary{{"hasSymbianRecurrence", true}}, &host);
  EXPECT_FALSE(symbian->deviceSupportRecurrentEvent(holder));
  EXPECT_TRUE(log.contains("condition \"agentParser\" failed"));
  // Without a manager nothing is asked and nothing breaks.
  auto alone = makeStages(Dictionary{{"hasVCalRecurrence", true}});
  EXPECT_FALSE(alone->deviceSupportRecurrentEvent(holder));
}

TEST(EventRecurrenceDecision, NoneOrTwoRulesAreExploded) {
  auto stages = makeStages(Dictionary{{"hasFullRecurrence", true}});
  LogCapture log;
  RecordHolder single(eventAt(ny(2024, 1, 8, 12)));
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(single));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_THAT(log.lines()[0].message, HasSubstr("this event is not recurrent\n"));
  EXPECT_EQ(log.lines()[0].level, kLogError);

  Dictionary two = eventAt(ny(2024, 1, 8, 12));
  two.set(kCalendarsEventRecurrences, Array{recurrence("weekly"), recurrence("daily")});
  RecordHolder twice(two);
  EXPECT_FALSE(stages->deviceSupportRecurrentEvent(twice));
  ASSERT_TRUE(log.contains("whaow, two recurrence rules"));
  EXPECT_EQ(log.find("whaow, two recurrence rules")->level, kLogWarning);
}

// --- Exception dates and detached occurrences ----------------------------------------------------

// A daily event at 10:00 New York with one exception date, and two detached
// occurrences in the truth (one of them on the exception date's day).
struct DetachedFixture {
  TestHost host;
  CalendarDate start = ny(2024, 3, 5, 10);
  CalendarDate ownExDate = ny(2024, 3, 7, 10);
  CalendarDate detachedA = ny(2024, 3, 9, 10);
  CalendarDate detachedB = ny(2024, 3, 11, 10);

  DetachedFixture() {
    Dictionary master = withRule(eventAt(start), recurrence("daily"));
    master.set(kCalendarsEventDetachedEvents, Array{"D2", "D1", "D3"});
    host.truth->addRecord("E1", master);
    host.truth->addRecord("D1", Dictionary{{kCalendarsEventOriginalDate, detachedA}});
    host.truth->addRecord("D2", Dictionary{{kCalendarsEventOriginalDate, detachedB}});
    // Detached on the exception date's day too: listed once.
    host.truth->addRecord("D3", Dictionary{{kCalendarsEventOriginalDate, ownExDate}});
  }
  Dictionary event() const {
    Dictionary e = withRule(eventAt(start), recurrence("daily"));
    e.set(kCalendarsEventExceptionDates, Array{ownExDate});
    return e;
  }
};

TEST(EventRecurrenceExDates, DetachedDatesFoldedInAndTakenOutAgain) {
  DetachedFixture f;
  auto stages = makeStages(Dictionary(), &f.host, "America/New_York");
  RecordHolder holder(f.event(), "E1");
  stages->_mangleRecurrenceBeforeTimeZoneMangling(holder, false);
  Dictionary record = holder.mutableDictionary();
  EXPECT_EQ(record.getArray(kCalendarsEventExceptionDates),
            (Array{f.ownExDate, f.detachedA, f.detachedB}));
  EXPECT_EQ(holder.propertyForKey("MangledExDates"), Value(Array{f.ownExDate}));
  EXPECT_EQ(holder.propertyForKey("MangledDetachDates").array().count(), 3u);

  // The phone keeps exception dates as days.
  stages->_mangleRecurrenceAfterTimeZoneMangling(holder);
  const Array days = record.getArray(kCalendarsEventExceptionDates).value();
  ASSERT_EQ(days.count(), 3u);
  EXPECT_EQ(textIn(days[0]), "2024-03-07 12:00:00");
  EXPECT_EQ(textIn(days[2]), "2024-03-11 12:00:00");

  // Back: the days become occurrence starts; only the event's own exception
  // date stays.
  stages->_unmangleRecurrenceBeforeTimeZoneUnMangling(holder);
  EXPECT_EQ(textIn(record.getArray(kCalendarsEventExceptionDates)->at(1), "America/New_York"),
            "2024-03-09 10:00:00");
  stages->_unmangleRecurrenceAfterTimeZoneUnMangling(holder, f.start.timeZone());
  EXPECT_EQ(record.getArray(kCalendarsEventExceptionDates), (Array{f.ownExDate}));
}

TEST(EventRecurrenceExDates, ConvertedAllDayEventAndOddShapes) {
  // An all-day event turned timed: detached dates move to midnight on the phone.
  DetachedFixture f;
  auto stages = makeStages(Dictionary(), &f.host, "Asia/Tokyo");
  const Array midnights = stages->privateConvertArrayToTimedCalendarDate(
      Array{CalendarDate::dateWithYear(2024, 2, 29, 12, 0, 0), "not a date"});
  ASSERT_EQ(midnights.count(), 1u);
  EXPECT_EQ(textIn(midnights[0], "Asia/Tokyo"), "2024-02-29 00:00:00");
  RecordHolder holder(f.event(), "E1");
  LogCapture log;
  stages->_mangleRecurrenceBeforeTimeZoneMangling(holder, true);
  EXPECT_THAT(log.messages(), Contains(HasSubstr("mangle detach dates")));

  // Exception dates without a start date are logged and left as read.
  Dictionary noStart{{kEngineRecordEntityNameKey, kCalendarsEvent},
                     {kCalendarsEventRecurrences, Array{recurrence("daily")}},
                     {kCalendarsEventExceptionDates, Array{ny(2024, 3, 7), 12}}};
  RecordHolder odd(noStart);
  stages->_unmangleRecurrenceBeforeTimeZoneUnMangling(odd);
  stages->_unmangleRecurrenceAfterTimeZoneUnMangling(odd, nullptr);
  EXPECT_THAT(log.messages(), Contains(HasSubstr("exdate with not start date: ")));
  EXPECT_EQ(odd.mutableDictionary().getArray(kCalendarsEventExceptionDates)->count(), 2u);
  // Values that are not dates are dropped when the list is rebuilt.
  Dictionary wrongKinds = f.event();
  wrongKinds.set(kCalendarsEventExceptionDates, Array{"2024-03-07", f.ownExDate});
  RecordHolder wrong(wrongKinds);
  stages->_unmangleRecurrenceBeforeTimeZoneUnMangling(wrong);
  EXPECT_EQ(wrong.mutableDictionary().getArray(kCalendarsEventExceptionDates), (Array{f.ownExDate}));
}

// --- Until dates kept as days ----------------------------------------------------------------------

TEST(EventRecurrenceUntil, DateOnlyUntilThereAndBack) {
  // The last occurrence starts at 23:30 in New York, 05:30 the next day in Paris.
  const CalendarDate start = ny(2024, 3, 1, 23, 30);
  Dictionary rule = recurrence("daily");
  rule.set(kCalendarsRecurrenceUntil, ny(2024, 3, 20, 23, 30));
  Dictionary event = withRule(eventAt(start), rule);
  event.set(kCalendarsEventRecurrences, Array{rule, recurrence("weekly")});
  auto stages = makeStages(Dictionary(), nullptr, "Europe/Paris");
  LogCapture log;
  RecordHolder holder(event);
  stages->_mangleRecurrenceBeforeTimeZoneMangling(holder, false);
  EXPECT_EQ(textIn(holder.propertyForKey("UntilDateDateOnly")), "2024-03-21 12:00:00");
  EXPECT_THAT(log.messages(), Contains(HasSubstr("Tritouilling untilDate: ")));
  stages->_mangleRecurrenceAfterTimeZoneMangling(holder);
  Dictionary record = holder.mutableDictionary();
  ASSERT_EQ(record.getArray(kCalendarsEventRecurrences)->count(), 1u);
  EXPECT_EQ(textIn(record.getArray(kCalendarsEventRecurrences)->at(0).dictionary().get(
                kCalendarsRecurrenceUntil)),
            "2024-03-21 12:00:00");
  // The engine's rule is not touched.
  EXPECT_EQ(textIn(rule.get(kCalendarsRecurrenceUntil), "America/New_York"), "2024-03-20 23:30:00");

  // Back from the phone: the end of the until's day in the event's zone.
  Dictionary fromPhone = withRule(eventAt(start), recurrence("daily"));
  fromPhone.getArray(kCalendarsEventRecurrences)->at(0).dictionary().set(
      kCalendarsRecurrenceUntil, CalendarDate::dateWithYear(2024, 3, 20, 12, 0, 0));
  RecordHolder back(fromPhone);
  stages->_unmangleRecurrenceAfterTimeZoneUnMangling(back, start.timeZone());
  const Value until =
      back.mutableDictionary().getArray(kCalendarsEventRecurrences)->at(0).dictionary().get(
          kCalendarsRecurrenceUntil);
  EXPECT_EQ(textIn(until, "America/New_York"), "2024-03-20 23:59:59");
  EXPECT_EQ(until.date().timeZone()->name(), "GMT");
}

// --- Recurrence records formatted for the phone --------------------------------------------------

Dictionary ownedRule(const Dictionary& owner, std::initializer_list<Dictionary::Entry> parts) {
  Dictionary rule = recurrence("daily");
  rule.set(kCalendarsRecurrenceOwner, Array{owner});
  for (const auto& [key, value] : parts) rule.set(key, value);
  return rule;
}

TEST(EventRecurrenceFormat, DefaultLimits) {
  const Dictionary owner = eventAt(dateIn("Europe/Paris", 2006, 3, 1, 10));
  const Value until = "2006-12-31 10:00:00 +0000";
  struct Case {
    const char* name;
    Dictionary properties;
    bool count;
    bool until;
  };
  const Case cases[] = {
      {"count first when both are set", {{"countValueWhenMissing", 7}, {"untilDateValueWhenMissing", until}}, true, false},
      {"until when the count is to become an until", {{"countValueWhenMissing", 7}, {"untilDateValueWhenMissing", until}, {"needsToFormatCountToUntilDate", 1}}, false, true},
      {"count when the until is to become a count", {{"countValueWhenMissing", 7}, {"untilDateValueWhenMissing", until}, {"needsToFormatUntilDateToCount", 1}}, true, false},
      {"until alone", {{"untilDateValueWhenMissing", until}}, false, true},
      {"nothing configured", Dictionary(), false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Dictionary properties = c.properties;
    properties.set("needsToFormatUntilDateToLastOccurrence", false);
    properties.set("untilDateIsDateOnly", false);
    auto stages = makeStages(properties);
    const Dictionary open = ownedRule(owner, {});
    const Dictionary rule = stages->formatRecurrenceSetDefaultUntilDate(
        stages->formatRecurrenceSetDefaultCount(open));
    EXPECT_EQ(rule.contains(kCalendarsRecurrenceCount), c.count);
    EXPECT_EQ(rule.contains(kCalendarsRecurrenceUntil), c.until);
    // A rule with a limit keeps it.
    const Dictionary limited = ownedRule(owner, {{kCalendarsRecurrenceCount, 3}});
    const Dictionary kept = stages->formatRecurrenceSetDefaultUntilDate(
        stages->formatRecurrenceSetDefaultCount(limited));
    EXPECT_EQ(kept.getInteger(kCalendarsRecurrenceCount), 3);
    EXPECT_FALSE(kept.contains(kCalendarsRecurrenceUntil));
  }
}

TEST(EventRecurrenceFormat, ConversionsThroughTheExploder) {
  const Dictionary owner = eventAt(dateIn("Europe/Paris", 2006, 3, 1, 10));
  auto toUntil = makeStages(Dictionary{{"needsToFormatCountToUntilDate", true},
                                       {"needsToFormatUntilDateToLastOccurrence", false}});
  std::optional<Dictionary> rule = toUntil->formatRecurrence(ownedRule(owner, {{kCalendarsRecurrenceCount, 5}}));
  ASSERT_TRUE(rule);
  EXPECT_FALSE(rule->contains(kCalendarsRecurrenceCount));
  // The fifth start (5 March 10:00 Paris), to the end of its day in the start's zone.
  EXPECT_EQ(textIn(rule->get(kCalendarsRecurrenceUntil), "Europe/Paris"), "2006-03-05 23:59:59");

  auto toCount = makeStages(Dictionary{{"needsToFormatUntilDateToCount", true}, {"untilDateIsDateOnly", false}});
  rule = toCount->formatRecurrence(ownedRule(owner, {{kCalendarsRecurrenceUntil, dateIn("Europe/Paris", 2006, 3, 4, 12)}}));
  EXPECT_EQ(rule->getInteger(kCalendarsRecurrenceCount), 4);

  // Default settings: the until becomes the last occurrence's day.
  auto last = makeStages(Dictionary{{"untilDateIsDateOnly", false}});
  rule = last->formatRecurrence(ownedRule(owner, {{kCalendarsRecurrenceUntil, dateIn("Europe/Paris", 2006, 3, 5, 8)}}));
  EXPECT_EQ(textIn(rule->get(kCalendarsRecurrenceUntil), "Europe/Paris"), "2006-03-04 23:59:59");
}

TEST(EventRecurrenceFormat, WrongShapesAreKept) {
  auto stages = makeStages(Dictionary{{"needsToFormatCountToUntilDate", true}, {"needsToFormatUntilDateToCount", true}});
  LogCapture log;
  // No frequency, no owner, an until of the wrong kind: logged, never lost.
  Dictionary noFrequency{{kEngineRecordEntityNameKey, kCalendarsRecurrence}, {kCalendarsRecurrenceCount, 2},
                         {kCalendarsRecurrenceOwner, Array{eventAt(ny(2024, 1, 1, 9))}}};
  EXPECT_TRUE(stages->formatRecurrence(noFrequency));
  Dictionary orphan = recurrence("weekly");
  orphan.set(kCalendarsRecurrenceCount, 3);
  const std::optional<Dictionary> kept = stages->formatRecurrence(orphan);
  ASSERT_TRUE(kept);
  EXPECT_EQ(kept->getInteger(kCalendarsRecurrenceCount), 3);
  Dictionary badUntil = recurrence("daily");
  badUntil.set(kCalendarsRecurrenceUntil, "tomorrow");
  badUntil.set(kCalendarsRecurrenceOwner, Array{eventAt(ny(2024, 1, 1, 9))});
  EXPECT_TRUE(stages->formatRecurrence(badUntil));
}

// --- Simple yearly events moved forward ------------------------------------------------------------

TEST(EventRecurrenceYearly, BirthdaysMovedPastTheLimit) {
  auto stages = makeStages(Dictionary{{"dontSyncEventBeforeDate", "2025-06-01 00:00:00 +0000"}});
  struct Case {
    const char* name;
    CalendarDate start;
    Dictionary rule;
    const char* expectedStart;  // in the start's zone
  };
  Dictionary monthly = recurrence("monthly");
  const Case cases[] = {
      {"before 1970, later in the year", dateIn("Europe/Paris", 1950, 7, 14, 9), recurrence("yearly"), "2025-07-14 09:00:00"},
      {"earlier in the year: one more year", dateIn("Europe/Paris", 1990, 3, 2, 9), recurrence("yearly"), "2026-03-02 09:00:00"},
      {"29 February carries to 1 March", dateIn("Europe/Paris", 1960, 2, 29, 8), recurrence("yearly"), "2026-03-01 08:00:00"},
      {"not a simple yearly rule", dateIn("Europe/Paris", 1990, 3, 2, 9), monthly, "1990-03-02 09:00:00"},
      {"after the limit", dateIn("Europe/Paris", 2040, 3, 2, 9), recurrence("yearly"), "2040-03-02 09:00:00"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Dictionary moved = stages->formatYearlyEvent(withRule(eventAt(c.start, 7200), c.rule));
    EXPECT_EQ(textIn(moved.get(kCalendarsEventStartDate), "Europe/Paris"), c.expectedStart);
    EXPECT_EQ(moved.get(kCalendarsEventEndDate).date().timeIntervalSinceReferenceDate() -
                  moved.get(kCalendarsEventStartDate).date().timeIntervalSinceReferenceDate(),
              7200);
  }
  LogCapture log;
  stages->formatYearlyEvent(Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}});
  EXPECT_THAT(log.messages(), Contains(HasSubstr("event with no start date or end date:")));
}

}  // namespace
}  // namespace pc::test
