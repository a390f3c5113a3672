// The event transformer's alarm and task stages: alarms turned absolute for
// phones that only hold trigger dates and relative again on the way back,
// one alarm kind on the phone with the engine's kind restored, the per-alarm
// filters (tasks, all-day events, limits around the start, allowed offsets),
// and the formatting and unmangling of tasks' due dates, completion dates and
// status.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "formatting/FormattingMethods.h"
#include "transformers/CalendarUtilities.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace pc {

namespace {

using CalendarExtension::allDayDateWithYear;
using CalendarExtension::convertToMiddayInTimeZone;
using CalendarExtension::convertToMidnightInTimeZone;

std::optional<CalendarDate> dateForKey(const Dictionary& record, const char* key) {
  if (const Value* value = record.find(key))
    if (const CalendarDate* date = value->asDate()) return *date;
  return std::nullopt;
}

bool isTask(const Dictionary& record) {
  return record.getString(kEngineRecordEntityNameKey) == kCalendarsTask;
}

// Both dates on the same calendar day, each read in its own zone.
bool sameDay(const CalendarDate& a, const CalendarDate& b) {
  return a.yearOfCommonEra() == b.yearOfCommonEra() && a.monthOfYear() == b.monthOfYear() &&
         a.dayOfMonth() == b.dayOfMonth();
}

// 12:00:00 GMT of the date's day read in its own zone.
CalendarDate middayGMTOfDay(const CalendarDate& date) {
  return allDayDateWithYear(date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth());
}

// The entity of the alarms a relation holds (the same names for events and
// tasks).
const char* alarmEntityOf(const std::string& relation) {
  return relation == kCalendarsEventDisplayAlarms ? kCalendarsDisplayAlarm : kCalendarsAudioAlarm;
}

// An alarm rebuilt with a new trigger: it keeps the original's other fields
// (its owner, its text) and is named as an alarm of the relation holding it,
// so that the formatting hooks find what it belongs to.
Dictionary rebuiltAlarm(const Dictionary& original, const std::string& relation, const char* key,
                        const Value& trigger) {
  Dictionary alarm = original.copy();
  alarm.remove(kCalendarsAudioAlarmTriggerdate);
  alarm.remove(kCalendarsAudioAlarmTriggerduration);
  alarm.set(key, trigger);
  alarm.set(kEngineRecordEntityNameKey, Value(alarmEntityOf(relation)));
  return alarm;
}

// Moves the alarms of one relation in front of those of the other, renamed as
// the other's alarms; the first relation goes.
void moveAlarms(Dictionary& record, const char* from, const char* to) {
  const std::optional<Array> moved = record.getArray(from);
  if (!moved) return;
  Array alarms;
  for (const Value& value : *moved) {
    auto alarm = value.asDictionary();
    if (!alarm) {
      alarms.add(value);
      continue;
    }
    Dictionary renamed = alarm->copy();
    if (renamed.contains(kEngineRecordEntityNameKey))
      renamed.set(kEngineRecordEntityNameKey, Value(alarmEntityOf(to)));
    alarms.add(Value(renamed));
  }
  if (const std::optional<Array> there = record.getArray(to)) alarms.addAll(*there);
  record.remove(from);
  record.set(to, alarms);
}

// The relation's array with its first alarm replaced.
void replaceFirstAlarm(Dictionary& record, const std::string& relation, const Dictionary& alarm) {
  Array alarms = record.getArray(relation).value_or(Array()).copy();
  if (alarms.empty()) alarms.add(alarm);
  else alarms.set(0, alarm);
  record.set(relation, alarms);
}

}  // namespace

// --- Mangling and unmangling ----------------------------------------------------------------

void QVTSyncEventTransformer::_mangleAlarms(RecordHolder& holder) {
  Dictionary record = holder.mutableDictionary();
  TimeZonePtr phoneZone = phoneTimeZoneForFormatting();
  if (!phoneZone) phoneZone = TimeZone::systemTimeZone();
  std::string relation;
  const std::optional<Dictionary> alarm =
      CalendarUtilities::getFirstAlarmWithRelation(record, &relation);
  const std::optional<CalendarDate> reference =
      CalendarUtilities::referenceDateForAlarmComputationInTimeZone(record, phoneZone);
  if (reference) holder.setProperty(*reference, "DateReferenceForAlarm");
  else QVT_LOG(kLogWarning, logDomain(), "event or todo with no start date nor due date");
  if (!alarm) return;

  if (_hasOnlyAbsoluteAlarms) {
    const Value* duration = alarm->find(kCalendarsAudioAlarmTriggerduration);
    if (dateForKey(*alarm, kCalendarsAudioAlarmTriggerdate)) {
      holder.setBooleanProperty(true, "AlarmIsAbsolute");
    } else if (duration && duration->isNumber()) {
      if (reference) {
        holder.setBooleanProperty(false, "AlarmIsAbsolute");
        const CalendarDate trigger = reference->dateByAddingTimeInterval(duration->doubleValue());
        record.set(relation, Array{rebuiltAlarm(*alarm, relation, kCalendarsAudioAlarmTriggerdate,
                                                Value(trigger))});
      }
    } else {
      QVT_LOG(kLogError, logDomain(), "Strange alarm: {}\nRecord: {}", *alarm, record);
    }
  }

  if (_hasOneAlarmType) {
    const bool display = relation == kCalendarsEventDisplayAlarms;
    holder.setBooleanProperty(display, "IsDisplayAlarm");
    if (!display && _alarmTypeIsDisplay)
      moveAlarms(record, kCalendarsEventAudioAlarms, kCalendarsEventDisplayAlarms);
    else if (display && !_alarmTypeIsDisplay)
      moveAlarms(record, kCalendarsEventDisplayAlarms, kCalendarsEventAudioAlarms);
  }
}

void QVTSyncEventTransformer::_unmangleAlarms(RecordHolder& holder, const TimeZonePtr& eventTimeZone,
                                              const TimeZonePtr& phoneTimeZone) {
  Dictionary record = holder.mutableDictionary();
  std::string relation;
  const std::optional<Dictionary> alarm =
      CalendarUtilities::getFirstAlarmWithRelation(record, &relation);
  if (!alarm) return;

  if (_hasOnlyAbsoluteAlarms) {
    if (std::optional<CalendarDate> trigger = dateForKey(*alarm, kCalendarsAudioAlarmTriggerdate)) {
      if (eventTimeZone) trigger->setTimeZone(eventTimeZone);
      if (!holder.booleanPropertyForKey("AlarmIsAbsolute")) {
        std::optional<CalendarDate> reference =
            CalendarUtilities::referenceDateForAlarmComputationInTimeZone(record, phoneTimeZone);
        if (!reference) {
          QVT_LOG(kLogInfo, logDomain(), "cannot find a reference, using our saved properties");
          const Value saved = holder.propertyForKey("DateReferenceForAlarm");
          if (const CalendarDate* savedDate = saved.asDate()) reference = *savedDate;
        }
        if (reference) {
          const double seconds =
              trigger->timeIntervalSinceReferenceDate() - reference->timeIntervalSinceReferenceDate();
          record.set(relation,
                     Array{rebuiltAlarm(*alarm, relation, kCalendarsAudioAlarmTriggerduration,
                                        Value(static_cast<std::int64_t>(std::trunc(seconds))))});
        }
      } else {
        Dictionary rezoned = alarm->copy();
        rezoned.set(kCalendarsAudioAlarmTriggerdate, *trigger);
        replaceFirstAlarm(record, relation, rezoned);
      }
    } else {
      QVT_LOG(kLogError, logDomain(), "fix the parser, it should not generate relative alarm");
    }
  }

  const Value display = holder.propertyForKey("IsDisplayAlarm");
  if (_hasOneAlarmType && !display.isNull()) {
    if (display.boolValue() && relation == kCalendarsEventAudioAlarms)
      moveAlarms(record, kCalendarsEventAudioAlarms, kCalendarsEventDisplayAlarms);
    else if (!display.boolValue() && relation == kCalendarsEventDisplayAlarms)
      moveAlarms(record, kCalendarsEventDisplayAlarms, kCalendarsEventAudioAlarms);
  }
}

// --- One alarm record ----------------------------------------------------------------------

std::optional<double> QVTSyncEventTransformer::privateGetFromAlarm(const Dictionary& alarm) {
  const std::optional<Dictionary> owner =
      mainRecordFromRelation(alarm.get(kCalendarsAudioAlarmOwner)).asDictionary();
  TimeZonePtr phoneZone = phoneTimeZoneForFormatting();
  std::optional<CalendarDate> reference =
      owner ? CalendarUtilities::referenceDateForAlarmComputationInTimeZone(*owner, phoneZone)
            : std::nullopt;
  if (!reference) {
    QVT_LOG(kLogInfo, logDomain(), "No reference date found for this record");
    return std::nullopt;
  }
  std::optional<CalendarDate> fire =
      CalendarUtilities::getAbsoluteAlarmForReferenceDate(alarm, reference);
  if (!fire) {
    QVT_LOG(kLogWarning, logDomain(), "Bad alarm in : {}", alarm);
    return std::nullopt;
  }
  // Counted in whole days where only the day of the alarm matters.
  const bool task = isTask(*owner);
  if ((_setAllDayTimeWithAlarmTime && !task && CalendarUtilities::isAllDayEvent(*owner)) ||
      (task && !_dueDateIsDateOnly)) {
    reference = convertToMiddayInTimeZone(*reference, reference->timeZone());
    fire = convertToMiddayInTimeZone(*fire, fire->timeZone());
  }
  return reference->timeIntervalSinceReferenceDate() - fire->timeIntervalSinceReferenceDate();
}

bool QVTSyncEventTransformer::privateDropAlarmIfAfterStartDate(const Dictionary& alarm) {
  const std::optional<Dictionary> owner =
      mainRecordFromRelation(alarm.get(kCalendarsAudioAlarmOwner)).asDictionary();
  const std::optional<CalendarDate> reference =
      owner ? CalendarUtilities::referenceDateForAlarmComputationInTimeZone(
                  *owner, phoneTimeZoneForFormatting())
            : std::nullopt;
  if (!reference) return true;
  const std::optional<CalendarDate> fire =
      CalendarUtilities::getAbsoluteAlarmForReferenceDate(alarm, reference);
  if (!fire) {
    QVT_LOG(kLogWarning, logDomain(), "Bad alarm in : {}", alarm);
    return false;
  }
  if (!(*fire > *reference)) return false;
  const bool task = isTask(*owner);
  const bool allDay = !task && CalendarUtilities::isAllDayEvent(*owner);
  if ((allDay && !_doNotSyncAlarmIfSameDayAsADE) || (task && !_doNotSyncAlarmIfSameDayAsDueDate)) {
    if (sameDay(*fire, *reference)) return false;
  }
  QVT_LOG(kLogInfo, logDomain(), "Alarm that is in the futur : {} > {}\nAlarm: {}\nMain Record: {}",
          *fire, *reference, alarm, *owner);
  return true;
}

bool QVTSyncEventTransformer::privateDropAlarmFromRecord(
    const Dictionary& alarm, const Value& ifItDoesNotRespectMaxMinutesNbDelta) {
  const double limit = static_cast<double>(ifItDoesNotRespectMaxMinutesNbDelta.integerValue()) * 60;
  const std::optional<double> value = privateGetFromAlarm(alarm);
  if (!value) return true;
  if (limit == 0) return *value != 0;
  if (limit < 0) return *value < limit;
  return *value > limit;
}

bool QVTSyncEventTransformer::privateAlarmIsSameDayAsADEStartDate(const Dictionary& alarm) {
  const std::optional<Dictionary> owner =
      mainRecordFromRelation(alarm.get(kCalendarsAudioAlarmOwner)).asDictionary();
  const std::optional<CalendarDate> reference =
      owner ? CalendarUtilities::referenceDateForAlarmComputationInTimeZone(
                  *owner, phoneTimeZoneForFormatting())
            : std::nullopt;
  const std::optional<CalendarDate> fire =
      CalendarUtilities::getAbsoluteAlarmForReferenceDate(alarm, reference);
  if (!fire) {
    QVT_LOG(kLogWarning, logDomain(), "Bad alarm in : {}", alarm);
    return false;
  }
  return reference && sameDay(*fire, *reference);
}

bool QVTSyncEventTransformer::privateAdaptToAllowedAlarmRelativeValues(Dictionary& alarm) {
  const std::optional<Array> allowed = _allowedAlarmRelativeValues.asArray();
  if (!allowed || allowed->empty()) return true;
  const std::optional<double> value = privateGetFromAlarm(alarm);
  if (!value) return false;
  const auto seconds = static_cast<std::int64_t>(std::trunc(*value));
  const std::int64_t minutes = seconds / 60;
  if (allowed->contains(Value(minutes)) && static_cast<double>(minutes * 60) == *value) return true;

  // The walk stops at the first value farther than the best so far: it finds
  // the nearest value when the description lists them in ascending order.
  std::optional<std::int64_t> best;
  std::int64_t bestDistance = 0;
  for (const Value& entry : *allowed) {
    const std::int64_t candidate = entry.integerValue();
    if ((minutes < 0 && candidate > 0) || (minutes > 0 && candidate < 0)) continue;
    const std::int64_t distance = std::llabs(minutes - candidate);
    if (!best) {
      best = candidate;
      bestDistance = distance;
    } else if (distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    } else if (distance > bestDistance) {
      break;
    }
  }
  if (!best) {
    QVT_LOG(kLogInfo, logDomain(), "Can't map alarm value to a device allowed one");
    return false;
  }
  const std::int64_t duration = -60 * *best;
  alarm.remove(kCalendarsAudioAlarmTriggerdate);
  alarm.set(kCalendarsAudioAlarmTriggerduration, duration);
  QVT_LOG(kLogInfo, logDomain(), "New alarm duration: {}", duration);
  return true;
}

void QVTSyncEventTransformer::privateSetAlarmToMidnight(Dictionary& alarm) {
  if (const std::optional<CalendarDate> trigger = dateForKey(alarm, kCalendarsAudioAlarmTriggerdate)) {
    alarm.set(kCalendarsAudioAlarmTriggerdate,
              convertToMidnightInTimeZone(*trigger, trigger->timeZone()));
    return;
  }
  const Value* duration = alarm.find(kCalendarsAudioAlarmTriggerduration);
  if (!duration || !duration->isNumber()) {
    QVT_LOG(kLogWarning, logDomain(), "That's a really strange alarm: {}", alarm);
    return;
  }
  const Value owner = mainRecordFromRelation(alarm.get(kCalendarsAudioAlarmOwner));
  const std::optional<Dictionary> ownerRecord = owner.asDictionary();
  const std::optional<CalendarDate> reference =
      ownerRecord ? CalendarUtilities::referenceDateForAlarmComputationInTimeZone(
                        *ownerRecord, phoneTimeZoneForFormatting())
                  : std::nullopt;
  if (!reference) {
    QVT_LOG(kLogWarning, logDomain(), "Can't set alarm time. Owner have no reference date: {}", owner);
    return;
  }
  const CalendarDate trigger = reference->dateByAddingTimeInterval(duration->doubleValue());
  const CalendarDate midnight = convertToMidnightInTimeZone(trigger, trigger.timeZone());
  alarm.set(kCalendarsAudioAlarmTriggerduration,
            static_cast<std::int64_t>(std::trunc(midnight.timeIntervalSinceReferenceDate() -
                                                 reference->timeIntervalSinceReferenceDate())));
}

std::optional<Dictionary> QVTSyncEventTransformer::formatDisplayAndAudioAlarm(Dictionary alarm) {
  if (_calendarManager && !_calendarManager->shouldSyncAlarm()) return std::nullopt;
  const std::optional<Dictionary> owner =
      mainRecordFromRelation(alarm.get(kCalendarsAudioAlarmOwner)).asDictionary();
  const bool task = owner && isTask(*owner);
  const bool allDay = owner && !task && CalendarUtilities::isAllDayEvent(*owner);
  const Value status = owner ? owner->get(kCalendarsTaskStatus) : Value();

  if (_doNotSyncAlarmForTask && task) {
    QVT_LOG(kLogInfo, logDomain(), "Dropping Task's Alarm");
    return std::nullopt;
  }
  if (_doNotSyncAlarmForADE && allDay) {
    QVT_LOG(kLogInfo, logDomain(), "Dropping all-day event's Alarm");
    return std::nullopt;
  }
  if (_doNotSyncAlarmIfAfterStartDateTime && privateDropAlarmIfAfterStartDate(alarm)) {
    QVT_LOG(kLogInfo, logDomain(), "Dropping Alarm that is after Start Date/Time: {}", alarm);
    return std::nullopt;
  }
  const std::int64_t maxMinutes = _maxMinutesNbDeltaForAlarm.integerValue();
  if (maxMinutes != 0 && privateDropAlarmFromRecord(alarm, _maxMinutesNbDeltaForAlarm)) {
    if (maxMinutes >= 0)
      // clang-format off
      QVT_LOG(kLogInfo, logDomain(), "Dropping Alarm that is older than {} days before (which is the maximum value for this device)", maxMinutes);
      // clang-format on
    else
      // clang-format off
      QVT_LOG(kLogInfo, logDomain(), "Dropping Alarm that is more recent than {} days after (which is the maximum value for this device)", maxMinutes);
      // clang-format on
    return std::nullopt;
  }
  if (!privateAdaptToAllowedAlarmRelativeValues(alarm)) {
    QVT_LOG(kLogInfo, logDomain(), "Dropping Alarm");
    return std::nullopt;
  }
  if (_doNotSyncAlarmIfCompleted && task && status == Value("completed")) {
    QVT_LOG(kLogInfo, logDomain(), "Dropping Alarm because task is completed");
    return std::nullopt;
  }
  if (allDay && _allDayAlarmAtMidnight) {
    QVT_LOG(kLogInfo, logDomain(), "Setting all day event alarm at midnight: {}", alarm);
    privateSetAlarmToMidnight(alarm);
  }
  if (_syncAlarmOnlyIfSameDayAsADEStartDate && allDay && !privateAlarmIsSameDayAsADEStartDate(alarm)) {
    QVT_LOG(kLogInfo, logDomain(),
            "Dropping Alarm that is not the same day as the all-day event start date: {}", alarm);
    return std::nullopt;
  }
  if (!_dueDateIsDateOnly)
    if (const auto& methods = formattingMethods()) methods->fixAlarmTimeIfDateOnlyDueDate(alarm);
  if (alarm.contains(kCalendarsAudioAlarmTriggerduration)) {
    const bool hasReference =
        owner && CalendarUtilities::referenceDateForAlarmComputationInTimeZone(
                     *owner, phoneTimeZoneForFormatting());
    if (!hasReference) {
      QVT_LOG(kLogWarning, logDomain(),
              "corrupted data set, event or task {}\nwith no start date for relative alarm:{}",
              owner ? Value(*owner) : Value(), alarm);
      return std::nullopt;
    }
  }
  return alarm;
}

// --- Tasks ------------------------------------------------------------------------------------

std::optional<Dictionary> QVTSyncEventTransformer::formatTaskRecord(Dictionary record) {
  if (_setDefaultClass && !record.contains(kCalendarsTaskClassification))
    record.set(kCalendarsTaskClassification, "public");
  if (_setDefaultStatus) {
    const Value* status = record.find(kCalendarsTaskStatus);
    if (!status || status->isNull() || *status == Value("none"))
      record.set(kCalendarsTaskStatus, "needsaction");
  }
  if (!_defaultPriority.isNull() && record.get(kCalendarsTaskPriority).integerValue() == 0)
    record.set(kCalendarsTaskPriority, _defaultPriority);
  record = formatTaskCompletionDate(record);
  if (_statusDeducedFromCompletionDate) record = formatStatusFromCompletionDate(record);
  record = formatDueDateWhenMissing(record);
  const auto& methods = (!_dueDateIsDateOnly || _setDueDateToCompletionDateIfCompleted)
                            ? formattingMethods()
                            : nullptr;
  if (!_dueDateIsDateOnly && methods) methods->setTimedDueDate(record);
  if (_setDueDateToCompletionDateIfCompleted && methods)
    methods->setDueDateToCompletionDateIfCompleted(record);
  return formatTaskDueDate(record);
}

Dictionary QVTSyncEventTransformer::formatTaskCompletionDate(Dictionary record) {
  if (!_completionDateIsDateOnly) return record;
  if (const std::optional<CalendarDate> done = dateForKey(record, kCalendarsTaskCompletionDate))
    record.set(kCalendarsTaskCompletionDate, middayGMTOfDay(*done));
  return record;
}

Dictionary QVTSyncEventTransformer::formatStatusFromCompletionDate(Dictionary record) {
  record.set(kCalendarsTaskStatus,
             dateForKey(record, kCalendarsTaskCompletionDate) ? "completed" : "needsaction");
  return record;
}

Dictionary QVTSyncEventTransformer::formatDueDateWhenMissing(Dictionary record) {
  if (!_dueDateValueWhenMissing || dateForKey(record, kCalendarsTaskDueDate)) return record;
  record.set(kCalendarsTaskDueDate, *_dueDateValueWhenMissing);
  record.set(kCalendarsTaskDueDateIsDateOnly, false);
  return record;
}

Dictionary QVTSyncEventTransformer::formatTaskDueDate(Dictionary record) {
  const std::optional<CalendarDate> due = dateForKey(record, kCalendarsTaskDueDate);
  if (!due) {
    record.remove(kCalendarsTaskDueDateIsDateOnly);
    return record;
  }
  const Value* flag = record.find(kCalendarsTaskDueDateIsDateOnly);
  const bool dateOnly = flag && flag->boolValue();
  if (_dueDateIsDateOnly) {
    record.set(kCalendarsTaskDueDate, middayGMTOfDay(*due));
    record.set(kCalendarsTaskDueDateIsDateOnly, true);
  } else if (dateOnly) {
    // The phone gets a timed due date at midday of the day on its own clock.
    TimeZonePtr phoneZone = phoneTimeZoneForFormatting();
    record.set(kCalendarsTaskDueDate, convertToMiddayInTimeZone(*due, phoneZone));
    record.set(kCalendarsTaskDueDateIsDateOnly, false);
  } else if (!flag || flag->isNull()) {
    record.set(kCalendarsTaskDueDateIsDateOnly, false);
  }
  return record;
}

void QVTSyncEventTransformer::_unmangleTask(RecordHolder& holder) {
  Dictionary record = holder.mutableDictionary();
  const Value saved = holder.propertyForKey(kCalendarsTaskDueDate);
  const std::optional<CalendarDate> due = dateForKey(record, kCalendarsTaskDueDate);
  if (const CalendarDate* savedDue = saved.asDate(); savedDue && due) {
    const bool same = _dueDateIsDateOnly ? middayGMTOfDay(*due) == middayGMTOfDay(*savedDue)
                                         : *due == *savedDue;
    if (same) {
      record.set(kCalendarsTaskDueDate, *savedDue);
      const Value savedFlag = holder.propertyForKey(kCalendarsTaskDueDateIsDateOnly);
      if (savedFlag.isNull()) record.remove(kCalendarsTaskDueDateIsDateOnly);
      else record.set(kCalendarsTaskDueDateIsDateOnly, savedFlag);
    } else {
      record.set(kCalendarsTaskDueDateIsDateOnly, _dueDateIsDateOnly);
    }
  }
  if (dateForKey(record, kCalendarsTaskDueDate))
    record.set(kCalendarsTaskDueDateIsDateOnly, _dueDateIsDateOnly);

  const Value kept = holder.propertyForKey(kCalendarsTaskCompletionDate);
  const Value* status = record.find(kCalendarsTaskStatus);
  if (status && *status == Value("completed") && !dateForKey(record, kCalendarsTaskCompletionDate)) {
    // What the phone does not say, mangling or the due date does.
    std::optional<CalendarDate> done;
    if (const CalendarDate* date = kept.asDate()) done = *date;
    else if (const auto taskDue = dateForKey(record, kCalendarsTaskDueDate)) done = *taskDue;
    else if (const CalendarDate* date = saved.asDate()) done = *date;
    if (done) record.set(kCalendarsTaskCompletionDate, *done);
    else
      QVT_LOG(kLogInfo, logDomain(),
              "Received a completed task without completion date nor due date !");
  } else if (!status || status->isNull()) {
    record = formatStatusFromCompletionDate(record);
  }

  if (const CalendarDate* keptDate = kept.asDate();
      keptDate && _completionDateIsDateOnly && dateForKey(record, kCalendarsTaskCompletionDate))
    record.set(kCalendarsTaskCompletionDate, middayGMTOfDay(*keptDate));
  if (_statusDeducedFromCompletionDate) record = formatStatusFromCompletionDate(record);

  if (!dateForKey(record, kCalendarsTaskDueDate)) {
    if (const std::optional<CalendarDate> alarmDate = CalendarUtilities::getFirstAlarmDate(record)) {
      record.set(kCalendarsTaskDueDate, _dueDateValueWhenMissing.value_or(*alarmDate));
      record.set(kCalendarsTaskDueDateIsDateOnly, _dueDateIsDateOnly);
    }
  }
}

}  // namespace pc
