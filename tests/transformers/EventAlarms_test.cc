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

CalendarDate paris(int y, int m, int d, int h = 0, int mi = 0) { return dateIn("Europe/Paris", y, m, d, h, mi); }
Dictionary relative(std::int64_t seconds) { return Dictionary{{kCalendarsAudioAlarmTriggerduration, seconds}}; }
Dictionary absolute(const CalendarDate& date) { return Dictionary{{kCalendarsAudioAlarmTriggerdate, date}}; }

TEST(EventAlarmsRoundTrip, OffsetAndKindSurvive) {
  const std::string display = kCalendarsEventDisplayAlarms, audio = kCalendarsEventAudioAlarms;
  const struct {
    const char* zone;  // the event's and the phone's
    CalendarDate start;
    std::string relation;
    Dictionary alarm, properties;
    std::string onPhone;
    const char* phoneTime;  // the trigger on the phone, in the zone
  } cases[] = {
      {"Europe/Paris", paris(2024, 5, 6, 10), display, relative(-900), Dictionary(), audio, "2024-05-06 09:45:00"},
      {"Europe/Paris", paris(2024, 5, 6, 10), audio, absolute(paris(2024, 5, 6, 9, 30)), Dictionary(), audio,
       "2024-05-06 09:30:00"},
      // 02:30 on the spring night reads as 03:30.
      {"America/New_York", dateIn("America/New_York", 2024, 3, 10, 2, 30), display, relative(-900), Dictionary(),
       audio, "2024-03-10 03:15:00"},
      {"Europe/Paris", paris(1965, 6, 1, 10), audio, relative(-86400), Dictionary(), audio, "1965-05-31 10:00:00"},
      {"America/Sao_Paulo", dateIn("America/Sao_Paulo", 2040, 2, 29, 8), audio, relative(-3600),
       Dictionary{{"alarmTypeIsDisplay", true}}, display, "2040-02-29 07:00:00"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.phoneTime);
    auto stages = makeStages(c.properties, nullptr, c.zone);
    Dictionary event = eventAt(c.start);
    event.set(c.relation, Array{c.alarm});
    RecordHolder holder(event);
    stages->_mangleAlarms(holder);
    Dictionary record = holder.mutableDictionary();
    EXPECT_EQ(holder.propertyForKey("IsDisplayAlarm"), Value(c.relation == display));
    EXPECT_EQ(record.contains(c.relation), c.relation == c.onPhone);
    ASSERT_EQ(record.getArray(c.onPhone).value_or(Array()).count(), 1u);
    EXPECT_EQ(textIn(record.getArray(c.onPhone)->at(0).dictionary().get(kCalendarsAudioAlarmTriggerdate), c.zone),
              c.phoneTime);

    const TimeZonePtr zone = TimeZone::timeZoneWithName(c.zone);
    stages->_unmangleAlarms(holder, zone, zone);
    ASSERT_EQ(record.getArray(c.relation).value_or(Array()).count(), 1u);
    const Dictionary back = record.getArray(c.relation)->at(0).dictionary();
    for (const char* key : {kCalendarsAudioAlarmTriggerduration, kCalendarsAudioAlarmTriggerdate})
      EXPECT_EQ(back.get(key), c.alarm.get(key));
  }
}

// A trigger of the wrong kind is logged and the alarm left alone.
TEST(EventAlarmsRoundTrip, WrongShapes) {
  auto stages = makeStages(Dictionary());
  LogCapture log;
  Dictionary event = eventAt(paris(2024, 5, 6, 10));
  event.set(kCalendarsEventAudioAlarms, Array{Dictionary{{kCalendarsAudioAlarmTriggerduration, "soon"}}});
  RecordHolder odd(event);
  stages->_mangleAlarms(odd);
  stages->_unmangleAlarms(odd, nullptr, nullptr);
  EXPECT_THAT(log.messages(), Contains(HasSubstr("Strange alarm: ")));
  EXPECT_TRUE(log.contains("fix the parser, it should not generate relative alarm"));
  EXPECT_EQ(odd.mutableDictionary().getArray(kCalendarsEventAudioAlarms)->count(), 1u);
}

TEST(EventAlarmsFormat, FiltersAndOffsets) {
  const Dictionary timed = eventAt(paris(2024, 1, 8, 10));
  const Dictionary allDay = allDayEvent(2024, 1, 8);  // alarms count from 00:00 Paris
  const Dictionary task{{kEngineRecordEntityNameKey, kCalendarsTask},
                        {kCalendarsTaskDueDate, paris(2024, 1, 8, 18)}, {kCalendarsTaskStatus, "completed"}};
  const Dictionary noStart{{kEngineRecordEntityNameKey, kCalendarsEvent}};
  const Array ascending{0, 5, 15, 30};
  const struct {
    Dictionary properties, owner, alarm;
    std::optional<std::int64_t> duration;  // nullopt: dropped
    const char* log;
  } cases[] = {
      {{{"maxMinutesNbDeltaForAlarm", 60}}, timed, relative(-3660), std::nullopt,
       "Dropping Alarm that is older than 60 days before (which is the maximum value for this device)"},
      {{{"maxMinutesNbDeltaForAlarm", 60}}, timed, relative(-3600), -3600, nullptr},
      {{{"maxMinutesNbDeltaForAlarm", -60}}, timed, relative(3660), std::nullopt,
       "Dropping Alarm that is more recent than -60 days after (which is the maximum value for this device)"},
      {{{"maxMinutesNbDeltaForAlarm", -60}}, timed, relative(3600), 3600, nullptr},
      {{{"allowedAlarmRelativeValues", ascending}}, timed, relative(-720), -900, "New alarm duration: -900"},
      {{{"allowedAlarmRelativeValues", Array{5, 30, 15}}}, timed, relative(-720), -300, nullptr},
      {{{"allowedAlarmRelativeValues", ascending}}, timed, relative(-1800), -1800, nullptr},
      {{{"allowedAlarmRelativeValues", Array{5, 15}}}, timed, relative(600), std::nullopt,
       "Can't map alarm value to a device allowed one"},
      {{{"allowedAlarmRelativeValues", ascending}}, timed, Dictionary(), std::nullopt, "Bad alarm in : "},
      {{{"doNotSyncAlarmIfAfterStartDateTime", 1}}, timed, relative(60), std::nullopt,
       "Dropping Alarm that is after Start Date/Time: "},
      {{{"doNotSyncAlarmIfAfterStartDateTime", 1}}, allDay, relative(9 * 3600), 9 * 3600, nullptr},
      {{{"doNotSyncAlarmIfAfterStartDateTime", 1}, {"doNotSyncAlarmIfSameDayAsADE", 1}}, allDay, relative(9 * 3600),
       std::nullopt, "Alarm that is in the futur : "},
      {{{"doNotSyncAlarmForTask", 1}}, task, relative(-60), std::nullopt, "Dropping Task's Alarm"},
      {{{"doNotSyncAlarmForADE", 1}}, allDay, relative(-60), std::nullopt, "Dropping all-day event's Alarm"},
      {{{"doNotSyncAlarmIfCompleted", 1}}, task, relative(-60), std::nullopt, "Dropping Alarm because task is completed"},
      {{{"allDayAlarmAtMidnight", 1}}, allDay, relative(-3600), -86400, "Setting all day event alarm at midnight: "},
      {{{"syncAlarmOnlyIfSameDayAsADEStartDate", 1}}, allDay, relative(-3600), std::nullopt,
       "Dropping Alarm that is not the same day as the all-day event start date: "},
      {{{"syncAlarmOnlyIfSameDayAsADEStartDate", 1}}, allDay, relative(3600), 3600, nullptr},
      {Dictionary(), noStart, relative(-60), std::nullopt, "corrupted data set, event or task "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.properties.description() + c.alarm.description());
    LogCapture log;
    Dictionary alarm = c.alarm.deepCopy();
    alarm.set(kCalendarsAudioAlarmOwner, Array{c.owner});
    const std::optional<Dictionary> result = makeStages(c.properties)->formatDisplayAndAudioAlarm(alarm);
    EXPECT_EQ(result.has_value(), c.duration.has_value());
    if (result && c.duration) {
      EXPECT_EQ(result->getInteger(kCalendarsAudioAlarmTriggerduration), *c.duration);
    }
    if (c.log) {
      EXPECT_THAT(log.messages(), Contains(HasSubstr(c.log)));
    }
  }
  // An absolute alarm moves to midnight of its own day; the host may refuse alarms.
  Dictionary early = absolute(paris(2024, 2, 28, 19));
  early.set(kCalendarsAudioAlarmOwner, Array{allDayEvent(2024, 2, 29)});
  auto midnight = makeStages(Dictionary{{"allDayAlarmAtMidnight", true}});
  EXPECT_EQ(textIn(midnight->formatDisplayAndAudioAlarm(early)->get(kCalendarsAudioAlarmTriggerdate), "Europe/Paris"),
            "2024-02-28 00:00:00");
  TestHost host;
  host.syncAlarms = false;
  EXPECT_FALSE(makeStages(Dictionary(), &host)->formatDisplayAndAudioAlarm(early));
}

Dictionary taskWith(std::initializer_list<Dictionary::Entry> entries) {
  Dictionary task{{kEngineRecordEntityNameKey, kCalendarsTask}};
  for (const auto& [key, value] : entries) task.set(key, value);
  return task;
}

TEST(EventTasksFormat, DueDatesCompletionAndStatus) {
  const CalendarDate evening = dateIn("America/New_York", 2024, 5, 1, 21, 30);  // 2 May in GMT
  const CalendarDate day = CalendarDate::dateWithYear(2024, 5, 1, 12, 0, 0);
  const struct {
    Dictionary properties, task;
    const char* due;  // in GMT, "" for none
    Value dueDateOnly;
    const char* status;
  } cases[] = {
      {Dictionary(), taskWith({{kCalendarsTaskDueDate, evening}}), "2024-05-01 12:00:00", true, ""},
      {{{"dueDateIsDateOnly", 0}}, taskWith({{kCalendarsTaskDueDate, day}, {kCalendarsTaskDueDateIsDateOnly, true}}),
       "2024-05-01 10:00:00", false, ""},
      {{{"dueDateIsDateOnly", 0}}, taskWith({{kCalendarsTaskDueDate, evening}}), "2024-05-02 01:30:00", false, ""},
      {Dictionary(), taskWith({{kCalendarsTaskDueDateIsDateOnly, true}, {kCalendarsTaskDueDate, "x"}}), "", Value(), ""},
      {{{"dueDateValueWhenMissing", "2030-01-01 15:00:00 +0000"}}, taskWith({}), "2030-01-01 12:00:00", true, ""},
      {{{"statusDeducedFromCompletionDate", 1}}, taskWith({{kCalendarsTaskCompletionDate, evening}}), "", Value(),
       "completed"},
      {{{"statusDeducedFromCompletionDate", 1}}, taskWith({{kCalendarsTaskStatus, "completed"}}), "", Value(),
       "needsaction"},
      {{{"setDefaultStatus", 1}}, taskWith({{kCalendarsTaskStatus, "none"}}), "", Value(), "needsaction"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.properties.description() + c.task.description());
    const std::optional<Dictionary> task = makeStages(c.properties)->formatTaskRecord(c.task.deepCopy());
    ASSERT_TRUE(task);
    EXPECT_EQ(*c.due ? textIn(task->get(kCalendarsTaskDueDate)) : "", c.due);
    EXPECT_EQ(task->get(kCalendarsTaskDueDateIsDateOnly), c.dueDateOnly);
    EXPECT_EQ(task->getString(kCalendarsTaskStatus), c.status);
  }
  const Dictionary done = *makeStages(Dictionary{{"completionDateIsDateOnly", 1}})->formatTaskRecord(
      taskWith({{kCalendarsTaskCompletionDate, evening}}));
  EXPECT_EQ(textIn(done.get(kCalendarsTaskCompletionDate)), "2024-05-01 12:00:00");
}

TEST(EventTasksUnmangle, SavedDatesComeBack) {
  auto stages = makeStages(Dictionary{{"completionDateIsDateOnly", true}});
  const CalendarDate savedDue = dateIn("America/New_York", 2024, 5, 1, 21, 30);
  const CalendarDate onPhone = CalendarDate::dateWithYear(2024, 5, 1, 12, 0, 0);

  // Same day: the engine's due date is back; the kept completion date, as a day.
  RecordHolder same(taskWith({{kCalendarsTaskDueDate, onPhone}, {kCalendarsTaskStatus, "completed"}}));
  same.setProperty(savedDue, kCalendarsTaskDueDate);
  same.setProperty(dateIn("America/New_York", 2024, 4, 30, 22), kCalendarsTaskCompletionDate);
  stages->_unmangleTask(same);
  const Dictionary task = same.mutableDictionary();
  EXPECT_EQ(task.get(kCalendarsTaskDueDate), Value(savedDue));
  EXPECT_EQ(task.get(kCalendarsTaskDueDateIsDateOnly), Value(true));
  EXPECT_EQ(textIn(task.get(kCalendarsTaskCompletionDate)), "2024-04-30 12:00:00");

  // Moved on the phone: the phone's date stays; no status means not done.
  RecordHolder moved(taskWith({{kCalendarsTaskDueDate, onPhone.dateByAddingYears(0, 0, 2, 0, 0, 0)}}));
  moved.setProperty(savedDue, kCalendarsTaskDueDate);
  stages->_unmangleTask(moved);
  EXPECT_EQ(textIn(moved.mutableDictionary().get(kCalendarsTaskDueDate)), "2024-05-03 12:00:00");
  EXPECT_EQ(moved.mutableDictionary().getString(kCalendarsTaskStatus), "needsaction");

  // No due date but an alarm: the alarm's date.
  const CalendarDate alarmDate = paris(2024, 6, 1, 9);
  RecordHolder alarmed(taskWith({{kCalendarsTaskDisplayAlarms, Array{absolute(alarmDate)}}}));
  stages->_unmangleTask(alarmed);
  EXPECT_EQ(alarmed.mutableDictionary().get(kCalendarsTaskDueDate), Value(alarmDate));

  LogCapture log;
  RecordHolder empty(taskWith({{kCalendarsTaskStatus, "completed"}}));
  stages->_unmangleTask(empty);
  EXPECT_TRUE(log.contains("Received a completed task without completion date nor due date !"));
}

}  // namespace
}  // namespace pc::test
