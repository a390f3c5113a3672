// The event transformer's alarm and task stages: alarms made absolute for
// the phone and relative again, the alarm kind restored, the per-alarm
// filters and offsets, and tasks' due dates, completion dates and status.

#include <gmock/gmock.h>

#include "EventStagesFixture.h"
#include "support/LogCapture.h"

namespace pc::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

CalendarDate paris(int y, int m, int d, int h = 0, int mi = 0) {
  return dateIn("Europe/Paris", y, m, d, h, mi);
}

Dictionary relative(std::int64_t seconds) {
  return Dictionary{{kCalendarsAudioAlarmTriggerduration, seconds}};
}
Dictionary absolute(const CalendarDate& date) {
  return Dictionary{{kCalendarsAudioAlarmTriggerdate, date}};
}

// --- Mangled for the phone and back ----------------------------------------------------------

TEST(EventAlarmsRoundTrip, OffsetAndKindSurvive) {
  struct Case {
    const char* name;
    const char* zone;  // the event's and the phone's
    CalendarDate start;
    const char* relation;
    Dictionary alarm;
    Dictionary properties;
    const char* onPhone;   // the relation the phone gets
    const char* phoneTime;  // the alarm's trigger on the phone, in the zone
  };
  const CalendarDate spring = dateIn("America/New_York", 2024, 3, 10, 2, 30);  // reads 03:30
  const Case cases[] = {
      {"display, 15 minutes before 10:00", "Europe/Paris", paris(2024, 5, 6, 10), kCalendarsEventDisplayAlarms,
       relative(-900), Dictionary(), kCalendarsEventAudioAlarms, "2024-05-06 09:45:00"},
      {"absolute audio", "Europe/Paris", paris(2024, 5, 6, 10), kCalendarsEventAudioAlarms,
       absolute(paris(2024, 5, 6, 9, 30)), Dictionary(), kCalendarsEventAudioAlarms, "2024-05-06 09:30:00"},
      {"02:30 on the spring night", "America/New_York", spring, kCalendarsEventDisplayAlarms,
       relative(-900), Dictionary(), kCalendarsEventAudioAlarms, "2024-03-10 03:15:00"},
      {"a day before, 1965", "Europe/Paris", paris(1965, 6, 1, 10), kCalendarsEventAudioAlarms,
       relative(-86400), Dictionary(), kCalendarsEventAudioAlarms, "1965-05-31 10:00:00"},
      {"29 February 2040", "America/Sao_Paulo", dateIn("America/Sao_Paulo", 2040, 2, 29, 8),
       kCalendarsEventAudioAlarms, relative(-3600), Dictionary(), kCalendarsEventAudioAlarms, "2040-02-29 07:00:00"},
      {"display-only phone", "Europe/Paris", paris(2024, 5, 6, 10), kCalendarsEventAudioAlarms,
       relative(-600), Dictionary{{"alarmTypeIsDisplay", true}}, kCalendarsEventDisplayAlarms, "2024-05-06 09:50:00"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto stages = makeStages(c.properties, nullptr, c.zone);
    Dictionary event = eventAt(c.start);
    event.set(c.relation, Array{c.alarm});
    RecordHolder holder(event);
    stages->_mangleAlarms(holder);
    const Dictionary sent = holder.mutableDictionary();
    EXPECT_EQ(holder.propertyForKey("IsDisplayAlarm"), Value(c.relation == std::string(kCalendarsEventDisplayAlarms)));
    ASSERT_EQ(sent.getArray(c.onPhone).value_or(Array()).count(), 1u);
    if (std::string(c.onPhone) != c.relation) {
      EXPECT_FALSE(sent.contains(c.relation));
    }
    const Dictionary phoneAlarm = sent.getArray(c.onPhone)->at(0).dictionary();
    EXPECT_EQ(textIn(phoneAlarm.get(kCalendarsAudioAlarmTriggerdate), c.zone), c.phoneTime);

    const TimeZonePtr zone = TimeZone::timeZoneWithName(c.zone);
    stages->_unmangleAlarms(holder, zone, zone);
    const Dictionary back = holder.mutableDictionary();
    ASSERT_EQ(back.getArray(c.relation).value_or(Array()).count(), 1u);
    const Dictionary restored = back.getArray(c.relation)->at(0).dictionary();
    if (c.alarm.contains(kCalendarsAudioAlarmTriggerduration))
      EXPECT_EQ(restored.get(kCalendarsAudioAlarmTriggerduration), c.alarm.get(kCalendarsAudioAlarmTriggerduration));
    else
      EXPECT_EQ(restored.get(kCalendarsAudioAlarmTriggerdate), c.alarm.get(kCalendarsAudioAlarmTriggerdate));
  }
}

TEST(EventAlarmsRoundTrip, WithoutReferenceOrTrigger) {
  auto stages = makeStages(Dictionary());
  LogCapture log;
  // A phone that moved the event away: the saved reference is used.
  Dictionary event = eventAt(paris(2024, 5, 6, 10));
  event.set(kCalendarsEventAudioAlarms, Array{relative(-900)});
  RecordHolder holder(event);
  stages->_mangleAlarms(holder);
  holder.mutableDictionary().remove(kCalendarsEventStartDate);
  stages->_unmangleAlarms(holder, nullptr, TimeZone::timeZoneWithName("Europe/Paris"));
  EXPECT_TRUE(log.contains("cannot find a reference, using our saved properties"));
  EXPECT_EQ(holder.mutableDictionary().getArray(kCalendarsEventAudioAlarms)->at(0).dictionary().getInteger(
                kCalendarsAudioAlarmTriggerduration), -900);

  // Alarms of the wrong shape are logged and left alone.
  Dictionary strange = eventAt(paris(2024, 5, 6, 10));
  strange.set(kCalendarsEventAudioAlarms, Array{Dictionary{{kCalendarsAudioAlarmTriggerduration, "soon"}}});
  RecordHolder odd(strange);
  stages->_mangleAlarms(odd);
  EXPECT_THAT(log.messages(), Contains(HasSubstr("Strange alarm: ")));
  EXPECT_EQ(log.find(log.messages().back())->level, kLogError);
  stages->_unmangleAlarms(odd, nullptr, nullptr);
  EXPECT_TRUE(log.contains("fix the parser, it should not generate relative alarm"));
  EXPECT_EQ(odd.mutableDictionary().getArray(kCalendarsEventAudioAlarms)->count(), 1u);

  // No dates at all: logged, nothing set.
  RecordHolder bare(Dictionary{{kEngineRecordEntityNameKey, kCalendarsTask}});
  stages->_mangleAlarms(bare);
  EXPECT_TRUE(log.contains("event or todo with no start date nor due date"));
  EXPECT_TRUE(bare.propertyForKey("DateReferenceForAlarm").isNull());
}

// --- One alarm formatted for the phone ----------------------------------------------------------

Dictionary alarmOf(const Dictionary& owner, Dictionary alarm) {
  alarm.set(kEngineRecordEntityNameKey, kCalendarsAudioAlarm);
  alarm.set(kCalendarsAudioAlarmOwner, Array{owner});
  return alarm;
}

TEST(EventAlarmsFormat, FiltersAndOffsets) {
  const Dictionary timed = eventAt(paris(2024, 1, 8, 10));
  const Dictionary allDay = allDayEvent(2024, 1, 8);  // reference: 00:00 Paris
  Dictionary task{{kEngineRecordEntityNameKey, kCalendarsTask},
                  {kCalendarsTaskDueDate, paris(2024, 1, 8, 18)},
                  {kCalendarsTaskStatus, "completed"}};
  Dictionary noStart{{kEngineRecordEntityNameKey, kCalendarsEvent}};
  struct Case {
    const char* name;
    Dictionary properties;
    Dictionary owner;
    Dictionary alarm;
    std::optional<std::int64_t> duration;  // nullopt: dropped
    const char* log;
  };
  const Array ascending{0, 5, 15, 30};
  const Case cases[] = {
      {"61 minutes before, limit 60", {{"maxMinutesNbDeltaForAlarm", 60}}, timed, relative(-3660), std::nullopt,
       "Dropping Alarm that is older than 60 days before (which is the maximum value for this device)"},
      {"60 minutes before, limit 60", {{"maxMinutesNbDeltaForAlarm", 60}}, timed, relative(-3600), -3600, nullptr},
      {"61 minutes after, limit -60", {{"maxMinutesNbDeltaForAlarm", -60}}, timed, relative(3660), std::nullopt,
       "Dropping Alarm that is more recent than -60 days after (which is the maximum value for this device)"},
      {"60 minutes after, limit -60", {{"maxMinutesNbDeltaForAlarm", -60}}, timed, relative(3600), 3600, nullptr},
      {"12 minutes, ascending values", {{"allowedAlarmRelativeValues", ascending}}, timed, relative(-720), -900,
       "New alarm duration: -900"},
      {"12 minutes, unordered values", {{"allowedAlarmRelativeValues", Array{5, 30, 15}}}, timed, relative(-720), -300, nullptr},
      {"an allowed value is kept", {{"allowedAlarmRelativeValues", ascending}}, timed, relative(-1800), -1800, nullptr},
      {"after the start, only values before", {{"allowedAlarmRelativeValues", Array{5, 15}}}, timed, relative(600),
       std::nullopt, "Can't map alarm value to a device allowed one"},
      {"after a timed start", {{"doNotSyncAlarmIfAfterStartDateTime", 1}}, timed, relative(60), std::nullopt,
       "Dropping Alarm that is after Start Date/Time: "},
      {"after an all-day start, same day", {{"doNotSyncAlarmIfAfterStartDateTime", 1}}, allDay, relative(9 * 3600), 9 * 3600, nullptr},
      {"same day refused", {{"doNotSyncAlarmIfAfterStartDateTime", 1}, {"doNotSyncAlarmIfSameDayAsADE", 1}}, allDay,
       relative(9 * 3600), std::nullopt, "Alarm that is in the futur : "},
      {"tasks' alarms refused", {{"doNotSyncAlarmForTask", 1}}, task, relative(-60), std::nullopt, "Dropping Task's Alarm"},
      {"all-day alarms refused", {{"doNotSyncAlarmForADE", 1}}, allDay, relative(-60), std::nullopt, "Dropping all-day event's Alarm"},
      {"completed task", {{"doNotSyncAlarmIfCompleted", 1}}, task, relative(-60), std::nullopt,
       "Dropping Alarm because task is completed"},
      {"all-day alarm moved to midnight", {{"allDayAlarmAtMidnight", 1}}, allDay, relative(-3600), -86400,
       "Setting all day event alarm at midnight: "},
      {"not on the all-day event's day", {{"syncAlarmOnlyIfSameDayAsADEStartDate", 1}}, allDay, relative(-3600),
       std::nullopt, "Dropping Alarm that is not the same day as the all-day event start date: "},
      {"on the all-day event's day", {{"syncAlarmOnlyIfSameDayAsADEStartDate", 1}}, allDay, relative(3600), 3600, nullptr},
      {"relative alarm without start", Dictionary(), noStart, relative(-60), std::nullopt,
       "corrupted data set, event or task "},
      {"alarm without trigger", {{"allowedAlarmRelativeValues", ascending}}, timed, Dictionary(), std::nullopt,
       "Bad alarm in : "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto stages = makeStages(c.properties);
    LogCapture log;
    const std::optional<Dictionary> result = stages->formatDisplayAndAudioAlarm(alarmOf(c.owner, c.alarm));
    EXPECT_EQ(result.has_value(), c.duration.has_value());
    if (result && c.duration) {
      EXPECT_EQ(result->getInteger(kCalendarsAudioAlarmTriggerduration), *c.duration);
    }
    if (c.log) {
      EXPECT_THAT(log.messages(), Contains(HasSubstr(c.log)));
    }
  }
}

TEST(EventAlarmsFormat, AbsoluteAlarmsAndTheHost) {
  // An absolute alarm of an all-day event goes to midnight of its own day.
  auto midnight = makeStages(Dictionary{{"allDayAlarmAtMidnight", true}});
  const std::optional<Dictionary> moved =
      midnight->formatDisplayAndAudioAlarm(alarmOf(allDayEvent(2024, 2, 29), absolute(paris(2024, 2, 28, 19))));
  ASSERT_TRUE(moved);
  EXPECT_EQ(textIn(moved->get(kCalendarsAudioAlarmTriggerdate), "Europe/Paris"), "2024-02-28 00:00:00");

  TestHost host;
  host.syncAlarms = false;
  auto silent = makeStages(Dictionary(), &host);
  LogCapture log;
  EXPECT_FALSE(silent->formatDisplayAndAudioAlarm(alarmOf(eventAt(paris(2024, 1, 8, 10)), relative(-60))));
  EXPECT_TRUE(log.lines().empty());
}

// --- Tasks ----------------------------------------------------------------------------------------

Dictionary taskWith(std::initializer_list<Dictionary::Entry> entries) {
  Dictionary task{{kEngineRecordEntityNameKey, kCalendarsTask}};
  for (const auto& [key, value] : entries) task.set(key, value);
  return task;
}

TEST(EventTasksFormat, DueDatesCompletionAndStatus) {
  const CalendarDate evening = dateIn("America/New_York", 2024, 5, 1, 21, 30);  // 2 May in Paris
  const CalendarDate dayOnly = CalendarDate::dateWithYear(2024, 5, 1, 12, 0, 0);
  struct Case {
    const char* name;
    Dictionary properties;
    Dictionary task;
    const char* due;  // in GMT, "" for none
    Value dueDateOnly;
    const char* status;
  };
  const Case cases[] = {
      {"timed due kept as its day", Dictionary(), taskWith({{kCalendarsTaskDueDate, evening}}), "2024-05-01 12:00:00", true, ""},
      {"date-only due timed on the phone", {{"dueDateIsDateOnly", 0}},
       taskWith({{kCalendarsTaskDueDate, dayOnly}, {kCalendarsTaskDueDateIsDateOnly, true}}), "2024-05-01 10:00:00", false, ""},
      {"timed due on a timed phone", {{"dueDateIsDateOnly", 0}}, taskWith({{kCalendarsTaskDueDate, evening}}),
       "2024-05-02 01:30:00", false, ""},
      {"no due date", Dictionary(), taskWith({{kCalendarsTaskDueDateIsDateOnly, true}}), "", Value(), ""},
      {"missing due date given", {{"dueDateValueWhenMissing", "2030-01-01 15:00:00 +0000"}}, taskWith({}),
       "2030-01-01 12:00:00", true, ""},
      {"status from completion", {{"statusDeducedFromCompletionDate", 1}},
       taskWith({{kCalendarsTaskCompletionDate, evening}, {kCalendarsTaskStatus, "needsaction"}}), "", Value(), "completed"},
      {"status without completion", {{"statusDeducedFromCompletionDate", 1}},
       taskWith({{kCalendarsTaskStatus, "completed"}}), "", Value(), "needsaction"},
      {"defaults", {{"setDefaultStatus", 1}, {"setDefaultClass", 1}, {"defaultPriority", 5}},
       taskWith({{kCalendarsTaskStatus, "none"}, {kCalendarsTaskPriority, 0}}), "", Value(), "needsaction"},
      {"completed: due date is the completion", {{"setDueDateToCompletionDateIfCompleted", 1}, {"dueDateIsDateOnly", 0}},
       taskWith({{kCalendarsTaskDueDate, evening}, {kCalendarsTaskStatus, "completed"},
                 {kCalendarsTaskCompletionDate, paris(2024, 5, 9, 8)}}), "2024-05-02 01:30:00", false, "completed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto stages = makeStages(c.properties);
    const std::optional<Dictionary> task = stages->formatTaskRecord(c.task.deepCopy());
    ASSERT_TRUE(task);
    EXPECT_EQ(*c.due ? textIn(task->get(kCalendarsTaskDueDate)) : "", c.due);
    EXPECT_EQ(task->get(kCalendarsTaskDueDateIsDateOnly), c.dueDateOnly);
    if (*c.status) {
      EXPECT_EQ(task->getString(kCalendarsTaskStatus), c.status);
    }
  }
  auto defaults = makeStages(Dictionary{{"setDefaultClass", 1}, {"defaultPriority", 5}});
  const Dictionary given = *defaults->formatTaskRecord(taskWith({}));
  EXPECT_EQ(given.getString(kCalendarsTaskClassification), "public");
  EXPECT_EQ(given.getInteger(kCalendarsTaskPriority), 5);

  // A completion date kept as a day.
  auto days = makeStages(Dictionary{{"completionDateIsDateOnly", true}});
  const Dictionary done = *days->formatTaskRecord(taskWith({{kCalendarsTaskCompletionDate, evening}}));
  EXPECT_EQ(textIn(done.get(kCalendarsTaskCompletionDate)), "2024-05-01 12:00:00");
  // Dates of the wrong kind count as absent.
  const Dictionary wrong = *days->formatTaskRecord(taskWith({{kCalendarsTaskDueDate, "tomorrow"}}));
  EXPECT_FALSE(wrong.contains(kCalendarsTaskDueDateIsDateOnly));
}

TEST(EventTasksUnmangle, SavedDatesComeBack) {
  auto stages = makeStages(Dictionary{{"completionDateIsDateOnly", true}});
  const CalendarDate savedDue = dateIn("America/New_York", 2024, 5, 1, 21, 30);
  const CalendarDate onPhone = CalendarDate::dateWithYear(2024, 5, 1, 12, 0, 0);
  const CalendarDate completed = dateIn("America/New_York", 2024, 4, 30, 22, 0);

  // Same day: the engine's due date is put back; the flag follows the phone.
  RecordHolder same(taskWith({{kCalendarsTaskDueDate, onPhone}, {kCalendarsTaskStatus, "completed"}}));
  same.setProperty(savedDue, kCalendarsTaskDueDate);
  same.setProperty(completed, kCalendarsTaskCompletionDate);
  stages->_unmangleTask(same);
  Dictionary task = same.mutableDictionary();
  EXPECT_EQ(task.get(kCalendarsTaskDueDate), Value(savedDue));
  EXPECT_EQ(task.get(kCalendarsTaskDueDateIsDateOnly), Value(true));
  // The kept completion date, as a day.
  EXPECT_EQ(textIn(task.get(kCalendarsTaskCompletionDate)), "2024-04-30 12:00:00");

  // Moved on the phone: the phone's date stays.
  RecordHolder moved(taskWith({{kCalendarsTaskDueDate, onPhone.dateByAddingYears(0, 0, 2, 0, 0, 0)}}));
  moved.setProperty(savedDue, kCalendarsTaskDueDate);
  stages->_unmangleTask(moved);
  EXPECT_EQ(textIn(moved.mutableDictionary().get(kCalendarsTaskDueDate)), "2024-05-03 12:00:00");
  EXPECT_EQ(moved.mutableDictionary().getString(kCalendarsTaskStatus), "needsaction");

  // Completed with nothing to take a completion date from.
  LogCapture log;
  RecordHolder empty(taskWith({{kCalendarsTaskStatus, "completed"}}));
  stages->_unmangleTask(empty);
  EXPECT_TRUE(log.contains("Received a completed task without completion date nor due date !"));

  // No due date, but an alarm: the alarm's date.
  const CalendarDate alarmDate = paris(2024, 6, 1, 9);
  RecordHolder alarmed(taskWith({{kCalendarsTaskDisplayAlarms, Array{absolute(alarmDate)}}}));
  stages->_unmangleTask(alarmed);
  EXPECT_EQ(alarmed.mutableDictionary().get(kCalendarsTaskDueDate), Value(alarmDate));
  EXPECT_EQ(alarmed.mutableDictionary().get(kCalendarsTaskDueDateIsDateOnly), Value(true));
}

}  // namespace
}  // namespace pc::test
