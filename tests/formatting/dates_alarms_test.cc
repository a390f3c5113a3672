// Dates in the phone's zone (from the client, whatever the system zone), task
// dates, event and task defaults, and the alarm filters.

#include <gmock/gmock.h>

#include "FormattingFixture.h"
#include "engine/SchemaNames.h"
#include "formatting/FormattingKeys.h"
#include "support/LogCapture.h"

namespace pc {
namespace {

using namespace formatting_keys;
using test::dateIn;
using test::textIn;
using ::testing::Contains;
using ::testing::HasSubstr;

TEST(DatesTest, MidnightAndMiddayRounding) {
  auto ny = test::makeFormatter("FormattingMethods", "America/New_York");
  // The day is read in the date's own zone, midnight taken in the phone's.
  EXPECT_EQ(textIn(ny->roundToMidnight(dateIn("Europe/Paris", 2024, 3, 10, 1, 30)), "America/New_York"),
            "2024-03-10 00:00:00");
  // roundCompletionDate reads the day in the phone's zone first: 01:30 in
  // Paris is still the 9th in New York.
  EXPECT_EQ(textIn(ny->roundCompletionDate(dateIn("Europe/Paris", 2024, 3, 10, 1, 30)), "America/New_York"),
            "2024-03-09 00:00:00");
  // São Paulo's clocks changed at midnight in 2018 (4 November had no 00:00).
  auto sp = test::makeFormatter("FormattingMethods", "America/Sao_Paulo");
  const Value rounded = sp->roundToMidnight(dateIn("America/Sao_Paulo", 2018, 11, 4, 15));
  EXPECT_EQ(rounded.date().dateWithTimeZone(sp->phoneTimeZone()).dayOfMonth(), 4);

  EXPECT_EQ(textIn(ny->middayGMT(dateIn("Asia/Tokyo", 2024, 1, 2, 5))), "2024-01-02 12:00:00");
  const Value fallback = ny->setDefaultDueDateIfNotSet(Value());
  ASSERT_TRUE(fallback.isDate());
  EXPECT_EQ(fallback.date().dateWithTimeZone(TimeZone::gmt()).hourOfDay(), 12);
}

TEST(DatesTest, EventAndTaskDefaults) {
  auto methods = test::makeFormatter();
  test::LogCapture log;
  EXPECT_TRUE(methods->standardFormatEvent(Dictionary{{kCalendarsEventSummary, "x"}}).isNull());
  EXPECT_TRUE(log.contains("record with no start date"));

  const CalendarDate start = dateIn("Europe/Paris", 2024, 5, 1, 9);
  Dictionary event{{kCalendarsEventStartDate, start},
                   {kCalendarsEventSummary, " Lunch \r\n"},
                   {kCalendarsEventLocation, "  "},
                   {kCalendarsEventExceptionDates, Array{}}};
  methods->standardFormatEvent(event);
  EXPECT_EQ(event.get(kCalendarsEventEndDate), Value(start));
  EXPECT_EQ(event.getString(kCalendarsEventSummary), "Lunch");
  EXPECT_FALSE(event.contains(kCalendarsEventLocation));
  EXPECT_FALSE(event.contains(kCalendarsEventExceptionDates));

  // The date-only flag goes with the due date.
  Dictionary task{{kCalendarsTaskDueDateIsDateOnly, true}};
  methods->standardFormatTask(task);
  EXPECT_FALSE(task.contains(kCalendarsTaskDueDateIsDateOnly));
  Dictionary due{{kCalendarsTaskDueDate, start}};
  methods->standardFormatTask(due);
  EXPECT_EQ(due.get(kCalendarsTaskDueDateIsDateOnly), Value(false));
}

TEST(DatesTest, CompletedTasksTakeTheirDueDateAsCompletionAndLoseTheirAlarms) {
  auto methods = test::makeFormatter();
  const CalendarDate due = dateIn("Europe/Paris", 2024, 5, 1, 9);
  Dictionary done{{kCalendarsTaskStatus, "completed"}, {kCalendarsTaskDueDate, due},
                  {kCalendarsTaskCompletionDate, dateIn("Europe/Paris", 2024, 5, 3)}};
  methods->setDueDateToCompletionDateIfCompleted(done);
  EXPECT_EQ(done.get(kCalendarsTaskCompletionDate), Value(due));
  Dictionary noDue{{kCalendarsTaskStatus, "completed"},
                   {kCalendarsTaskCompletionDate, dateIn("Europe/Paris", 2024, 5, 3)}};
  methods->setDueDateToCompletionDateIfCompleted(noDue);
  EXPECT_FALSE(noDue.contains(kCalendarsTaskCompletionDate));

  const Dictionary alarm{{kCalendarsAudioAlarmTriggerduration, -60}};
  EXPECT_TRUE(methods->dropAlarmIfTaskCompleted(
      Dictionary{{kEngineRecordEntityNameKey, kCalendarsTask}, {kCalendarsTaskStatus, "completed"}}, alarm).isNull());
  EXPECT_FALSE(methods->dropAlarmIfTaskCompleted(
      Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}, {kCalendarsTaskStatus, "completed"}}, alarm).isNull());
}

TEST(DatesTest, DateOnlyDueDatesBecomeTimed) {
  for (const char* zone : {"America/New_York", "America/Sao_Paulo"}) {
    SCOPED_TRACE(zone);
    auto methods = test::makeFormatter("FormattingMethods", zone);
    const CalendarDate dueDay = CalendarDate::dateWithYear(2024, 3, 12, 12, 0, 0, TimeZone::gmt());
    // An alarm at 15:00 on the due day moves the due date to it.
    Dictionary task{{kEngineRecordEntityNameKey, kCalendarsTask},
                    {kCalendarsTaskDueDate, dueDay},
                    {kCalendarsTaskDueDateIsDateOnly, true},
                    {kCalendarsTaskAudioAlarms, Array{Dictionary{{kCalendarsAudioAlarmTriggerduration, 15 * 3600}}}}};
    test::LogCapture log;
    methods->setTimedDueDate(task);
    EXPECT_EQ(task.get(kCalendarsTaskDueDateIsDateOnly), Value(false));
    EXPECT_EQ(textIn(task.get(kCalendarsTaskDueDate), zone), "2024-03-12 15:00:00");
    EXPECT_THAT(log.messages(), Contains(HasSubstr("set to Alarm date")));

    // An alarm in the morning leaves the due date at noon.
    Dictionary morning{{kCalendarsTaskDueDate, dueDay},
                       {kCalendarsTaskDueDateIsDateOnly, true},
                       {kCalendarsTaskDisplayAlarms, Array{Dictionary{{kCalendarsAudioAlarmTriggerduration, 9 * 3600}}}}};
    methods->setTimedDueDate(morning);
    EXPECT_EQ(textIn(morning.get(kCalendarsTaskDueDate), zone), "2024-03-12 12:00:00");

    Dictionary noTrigger{{kCalendarsTaskDueDate, dueDay}, {kCalendarsTaskAudioAlarms, Array{Dictionary{}}}};
    methods->setTimedDueDate(noTrigger);
    EXPECT_THAT(log.messages(), Contains(HasSubstr("No alarm duration in : ")));
  }
}

TEST(DatesTest, AlarmOfADateOnlyTaskCountsFromNoon) {
  auto snapshot = std::make_shared<MemoryTruthSnapshot>();
  const CalendarDate dueDay = CalendarDate::dateWithYear(2024, 3, 12, 12, 0, 0, TimeZone::gmt());
  snapshot->addRecord("task-1", Dictionary{{kEngineRecordEntityNameKey, kCalendarsTask},
                                           {kCalendarsTaskDueDate, dueDay},
                                           {kCalendarsTaskDueDateIsDateOnly, true}});
  auto methods = test::makeFormatter("FormattingMethods", "America/New_York");
  methods->_setSnapShot(snapshot);
  struct Case {
    int offset, want;
  };
  // 15 minutes before midnight is 12h15 before noon; 9:00 is 3h before; an
  // alarm after noon the same day fires at noon.
  for (const Case c : {Case{-900, -44100}, Case{9 * 3600, -3 * 3600}, Case{13 * 3600, 0}}) {
    Dictionary alarm{{kCalendarsAudioAlarmOwner, Array{"task-1"}}, {kCalendarsAudioAlarmTriggerduration, c.offset}};
    methods->fixAlarmTimeIfDateOnlyDueDate(alarm);
    EXPECT_EQ(alarm.get(kCalendarsAudioAlarmTriggerduration), Value(c.want)) << c.offset;
  }
  test::LogCapture log;
  Dictionary orphan{{kCalendarsAudioAlarmOwner, Array{"a", "b"}}, {kCalendarsAudioAlarmTriggerduration, -60}};
  methods->fixAlarmTimeIfDateOnlyDueDate(orphan);
  EXPECT_EQ(orphan.get(kCalendarsAudioAlarmTriggerduration), Value(-60));
  EXPECT_TRUE(log.contains("strange relation"));
}

TEST(AlarmsTest, OnlyTheFirstAlarmStrictlyBeforeTheEventSurvives) {
  auto methods = test::makeFormatter();
  const CalendarDate start = dateIn("Europe/Paris", 2024, 5, 1, 9);
  Dictionary event{{kEngineRecordEntityNameKey, kCalendarsEvent}, {kCalendarsEventStartDate, start}};
  auto relative = [](int seconds) { return Dictionary{{kCalendarsAudioAlarmTriggerduration, seconds}}; };
  auto absolute = [&](int seconds) {
    return Dictionary{{kCalendarsAudioAlarmTriggerdate, start.dateByAddingTimeInterval(seconds)}};
  };
  auto kept = [&](const Dictionary& record, const Dictionary& alarm) {
    return !methods->genericAlarmFilterWithNoAlarmOnEventOrAfter(record, alarm).isNull();
  };
  EXPECT_FALSE(kept(event, relative(0)));
  EXPECT_TRUE(kept(event, relative(-1)));
  EXPECT_FALSE(kept(event, absolute(0)));
  EXPECT_TRUE(kept(event, absolute(-1)));

  EXPECT_TRUE(kept(Dictionary{{kEngineRecordEntityNameKey, kCalendarsTask}, {kCalendarsTaskDueDate, start}},
                   absolute(-600)));

  test::LogCapture log;
  Dictionary noDue{{kEngineRecordEntityNameKey, kCalendarsTask}};
  EXPECT_FALSE(kept(noDue, absolute(-600)));
  EXPECT_TRUE(log.contains("relative alarm and no due date"));
  EXPECT_FALSE(kept(Dictionary{{kEngineRecordEntityNameKey, kContactsContact}}, absolute(-600)));
  EXPECT_TRUE(log.contains("condition \"NO == YES\" failed"));

  // A record that already holds an alarm takes no other.
  Dictionary holding = event.copy();
  holding.set(kCalendarsEventDisplayAlarms, Array{relative(-60)});
  EXPECT_FALSE(kept(holding, relative(-60)));
}

}  // namespace
}  // namespace pc
