#include "transformers/CalendarUtilities.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string_view>
#include <vector>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "engine/SyncEngine.h"

namespace pc {

namespace {

const std::string& logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncCalendarUtilities"));
  return domain;
}

constexpr std::int64_t kSecondsPerDay = 86400;

// Indexed by CalendarDate::dayOfWeek (0 is Sunday).
constexpr std::array<const char*, 7> kWeekDayNames = {"sunday",   "monday", "tuesday", "wednesday",
                                                      "thursday", "friday", "saturday"};

std::optional<int> weekDayIndex(const Value& name) {
  if (!name.isString()) return std::nullopt;
  for (std::size_t i = 0; i < kWeekDayNames.size(); ++i)
    if (name.string() == kWeekDayNames[i]) return static_cast<int>(i);
  return std::nullopt;
}

// The record's entity name where it is stored; empty when it has none.
std::string_view entityName(const Dictionary& record) {
  const Value* name = record.find(kEngineRecordEntityNameKey);
  return name && name->isString() ? std::string_view(name->string()) : std::string_view();
}

std::optional<CalendarDate> dateForKey(const Dictionary& record, const char* key) {
  if (const Value* value = record.find(key))
    if (const CalendarDate* date = value->asDate()) return *date;
  return std::nullopt;
}

// A by-part list, a count, an until date...: null and empty lists are absent.
bool hasPart(const Dictionary& record, const char* key) {
  const Value* value = record.find(key);
  if (!value || value->isNull()) return false;
  if (auto array = value->asArray()) return !array->empty();
  return true;
}

bool sameZone(const TimeZonePtr& a, const TimeZonePtr& b) {
  return a && b && a->isEqualToTimeZone(*b);
}

// The only element of a one-element list.
std::optional<Value> soleElement(const Dictionary& record, const char* key) {
  auto array = record.getArray(key);
  if (!array || array->count() != 1) return std::nullopt;
  return array->at(0);
}

// Re-zones to the source zone (when given and different), then wall-clock
// converts to the target zone (when given and different). nullopt when
// neither step applied, so that the caller leaves the stored value alone.
std::optional<CalendarDate> movedDate(CalendarDate date, const TimeZonePtr& target,
                                      const TimeZonePtr& source) {
  bool moved = false;
  if (source && !sameZone(date.timeZone(), source)) {
    date.setTimeZone(source);
    moved = true;
  }
  if (target && !sameZone(date.timeZone(), target)) {
    date = CalendarExtension::convertInTimeZone(date, target);
    moved = true;
  }
  if (!moved) return std::nullopt;
  return date;
}

// Keeps a recurrence's single day selector on the local day of the start:
// `start` is the start as stored, `startInSource` the same instant in the
// source zone. Rewrites `recurrence` in place; answers whether it did.
bool followStartDay(Dictionary& recurrence, const CalendarDate& start,
                    const CalendarDate& startInSource) {
  const std::string frequency = recurrence.getString(kCalendarsRecurrenceFrequency);
  bool changed = false;
  auto rewrite = [&](const char* key, Value value) {
    QVT_LOG(kLogInfo, logDomain(), "Converting recurrence: {}", recurrence);
    recurrence.set(key, Array{std::move(value)});
    QVT_LOG(kLogInfo, logDomain(), "Converted recurrence: {}", recurrence);
    changed = true;
  };
  if (frequency == "weekly" || frequency == "monthly") {
    if (auto day = soleElement(recurrence, kCalendarsRecurrenceBydaydays)) {
      if (weekDayIndex(*day) == start.dayOfWeek() && startInSource.dayOfWeek() != start.dayOfWeek())
        rewrite(kCalendarsRecurrenceBydaydays, kWeekDayNames[startInSource.dayOfWeek()]);
    }
  }
  if (frequency == "monthly") {
    if (auto monthDay = soleElement(recurrence, kCalendarsRecurrenceBymonthday)) {
      if (monthDay->integerIfNumeric() == start.dayOfMonth() &&
          startInSource.dayOfMonth() != start.dayOfMonth())
        rewrite(kCalendarsRecurrenceBymonthday, startInSource.dayOfMonth());
    }
  }
  if (frequency == "yearly") {
    if (auto month = soleElement(recurrence, kCalendarsRecurrenceBymonth)) {
      if (month->integerIfNumeric() == start.monthOfYear() &&
          startInSource.monthOfYear() != start.monthOfYear())
        rewrite(kCalendarsRecurrenceBymonth, startInSource.monthOfYear());
    }
  }
  return changed;
}

struct ZoneMove {
  TimeZonePtr target;
  TimeZonePtr source;
  bool untilDateIsDateOnly = false;
  // The stored start and the same instant in the source zone, when the
  // recurrences' day selectors must follow the start.
  std::optional<CalendarDate> start;
  std::optional<CalendarDate> startInSource;
};

// Moves the date of each sub-record of a relation (alarms, recurrences).
// Answers the new array when a sub-record changed; its changed records are
// copies, the others the stored records themselves.
std::optional<Array> movedRelation(const Array& relation, const ZoneMove& move, bool followStart) {
  Array result;
  bool anyChanged = false;
  for (const Value& element : relation) {
    auto stored = element.asDictionary();
    if (!stored) {
      result.add(element);
      continue;
    }
    std::optional<Dictionary> changed;
    auto mutableRecord = [&]() -> Dictionary& {
      if (!changed) changed = stored->copy();
      return *changed;
    };

    const char* dateKey = nullptr;
    for (const char* key : {kCalendarsDisplayAlarmTriggerdate, kCalendarsAudioAlarmTriggerdate,
                            kCalendarsRecurrenceUntil}) {
      if (const Value* value = stored->find(key); value && !value->isNull()) {
        dateKey = key;
        break;
      }
    }
    const bool isUntil = dateKey && std::string_view(dateKey) == kCalendarsRecurrenceUntil;
    if (dateKey && !(isUntil && move.untilDateIsDateOnly)) {
      if (auto date = dateForKey(*stored, dateKey))
        if (auto moved = movedDate(*date, move.target, move.source))
          mutableRecord().set(dateKey, *moved);
    }

    if (followStart && move.start && move.startInSource) {
      Dictionary candidate = changed ? *changed : stored->copy();
      if (followStartDay(candidate, *move.start, *move.startInSource)) changed = candidate;
    }

    if (changed) {
      result.add(*changed);
      anyChanged = true;
    } else {
      result.add(element);
    }
  }
  if (!anyChanged) return std::nullopt;
  return result;
}

}  // namespace

namespace CalendarUtilities {

// --- Queries on a record ---

bool isCalendarReadOnly(const Dictionary& record) {
  if (entityName(record) != kCalendarsCalendar)
    QVT_LOG(kLogError, QVTLOG, "record is not a calendar");
  return record.getBool(kCalendarsCalendarReadOnly);
}

bool _isEvent(const Dictionary& record) {
  const Value type = record.get(kEngineRecordEntityNameKey);
  if (!QVT_CHECK(type)) return false;
  return type.isString() && type.string() == kCalendarsEvent;
}

bool isRecurrent(const Dictionary& record) {
  auto recurrences = record.getArray(kCalendarsEventRecurrences);
  return recurrences && !recurrences->empty();
}

Value isDetached(const Dictionary& record) { return record.get(kCalendarsEventOriginalDate); }

std::optional<Dictionary> getFirstAlarmWithRelation(const Dictionary& record,
                                                    std::string* relation) {
  for (const char* key : {kCalendarsEventDisplayAlarms, kCalendarsEventAudioAlarms}) {
    auto alarms = record.getArray(key);
    if (!alarms || alarms->empty()) continue;
    if (relation) *relation = key;
    return alarms->first().asDictionary();
  }
  return std::nullopt;
}

std::optional<Dictionary> getFirstAlarm(const Dictionary& record) {
  return getFirstAlarmWithRelation(record, nullptr);
}

std::optional<CalendarDate> getFirstAlarmDate(const Dictionary& record) {
  auto alarm = getFirstAlarm(record);
  if (!alarm) return std::nullopt;
  return dateForKey(*alarm, kCalendarsAudioAlarmTriggerdate);
}

bool isAllDayEvent(const Dictionary& record) {
  return entityName(record) == kCalendarsEvent && record.getBool(kCalendarsEventAllDay);
}

bool isAllDayTask(const Dictionary& record) {
  return entityName(record) == kCalendarsTask && record.getBool(kCalendarsTaskDueDateIsDateOnly);
}

bool isAllDayEventOrTask(const Dictionary& record) {
  return isAllDayEvent(record) || isAllDayTask(record);
}

bool isMultiDayEvent(const Dictionary& record) {
  auto start = dateForKey(record, kCalendarsEventStartDate);
  auto end = dateForKey(record, kCalendarsEventEndDate);
  if (!start || !end) return false;
  return end->timeIntervalSinceReferenceDate() - start->timeIntervalSinceReferenceDate() >
         static_cast<double>(kSecondsPerDay);
}

std::optional<CalendarDate> referenceDateForAlarmComputationInTimeZone(const Dictionary& record,
                                                                       const TimeZonePtr& zone,
                                                                       bool* allDayDate) {
  std::optional<CalendarDate> date;
  bool allDay = false;
  if (entityName(record) == kCalendarsEvent) {
    date = dateForKey(record, kCalendarsEventStartDate);
    allDay = date && record.getBool(kCalendarsEventAllDay);
  } else {
    date = dateForKey(record, kCalendarsTaskDueDate);
    allDay = date && record.getBool(kCalendarsTaskDueDateIsDateOnly);
  }
  if (allDay && zone) date = CalendarExtension::convertToMidnightInTimeZone(*date, zone);
  if (allDayDate) *allDayDate = allDay;
  return date;
}

// --- Queries on an alarm ---

bool isDisplayAlarm(const Dictionary& alarm) { return entityName(alarm) == kCalendarsDisplayAlarm; }

bool isAbsoluteAlarm(const Dictionary& alarm) {
  return hasPart(alarm, kCalendarsMailAlarmTriggerdate);
}

std::optional<CalendarDate> getAbsoluteAlarmForReferenceDate(
    const Dictionary& alarm, const std::optional<CalendarDate>& referenceDate) {
  if (auto trigger = dateForKey(alarm, kCalendarsAudioAlarmTriggerdate)) return trigger;
  if (!referenceDate) return std::nullopt;
  const Value* duration = alarm.find(kCalendarsAudioAlarmTriggerduration);
  if (!duration) return std::nullopt;
  auto seconds = duration->integerIfNumeric();
  if (!seconds) return std::nullopt;
  return referenceDate->dateByAddingTimeInterval(static_cast<double>(*seconds));
}

// --- Queries on a recurrence record ---

bool qvt_isSimpleYearlyEvent(const Dictionary& recurrence) {
  if (recurrence.getString(kCalendarsRecurrenceFrequency) != "yearly") return false;
  if (const Value* interval = recurrence.find(kCalendarsRecurrenceInterval);
      interval && !interval->isNull() && interval->integerIfNumeric() != 1)
    return false;
  for (const char* key :
       {kCalendarsRecurrenceUntil, kCalendarsRecurrenceCount, kCalendarsRecurrenceBymonth,
        kCalendarsRecurrenceByweeknumber, kCalendarsRecurrenceByyearday,
        kCalendarsRecurrenceBymonthday, kCalendarsRecurrenceBydayfreq,
        kCalendarsRecurrenceBydaydays, kCalendarsRecurrenceBysetpos})
    if (hasPart(recurrence, key)) return false;
  return true;
}

// --- Changes to a record ---

void setFirstAlarm(Dictionary& record, const std::optional<CalendarDate>& date) {
  if (!date) return;
  // The audio relation receives an alarm keyed by the display-alarm
  // attribute: both attributes carry the same key, and phones read it there.
  Dictionary alarm{{kCalendarsDisplayAlarmTriggerdate, *date}};
  record.set(kCalendarsEventAudioAlarms, Array{alarm});
}

void cleanFromRecurrenceStuff(Dictionary& record) {
  record.remove(kCalendarsEventRecurrences);
  record.remove(kCalendarsEventDetachedEvents);
  record.remove(kCalendarsEventExceptionDates);
}

void convertDatesInTimeZone(Dictionary& record, const TimeZonePtr& timeZone,
                            const TimeZonePtr& fromTimeZone, bool completionDateIsDateOnly,
                            bool untilDateIsDateOnly, bool exDatesAreDateOnly) {
  ZoneMove move{timeZone, fromTimeZone, untilDateIsDateOnly, std::nullopt, std::nullopt};

  const bool isEvent = _isEvent(record);
  std::vector<const char*> keys;
  if (isEvent) {
    if (isAllDayEvent(record)) {
      keys = {kCalendarsEventDisplayAlarms, kCalendarsEventAudioAlarms};
    } else {
      keys = {kCalendarsEventOriginalDate,  kCalendarsEventStartDate,   kCalendarsEventEndDate,
              kCalendarsEventDisplayAlarms, kCalendarsEventAudioAlarms, kCalendarsEventRecurrences};
      move.start = dateForKey(record, kCalendarsEventStartDate);
      if (move.start && fromTimeZone && !sameZone(move.start->timeZone(), fromTimeZone))
        move.startInSource = move.start->dateWithTimeZone(fromTimeZone);
    }
  } else {
    if (isAllDayTask(record))
      keys = {kCalendarsTaskDisplayAlarms, kCalendarsTaskAudioAlarms};
    else
      keys = {kCalendarsTaskDueDate, kCalendarsTaskDisplayAlarms, kCalendarsTaskAudioAlarms};
    if (!completionDateIsDateOnly) keys.push_back(kCalendarsTaskCompletionDate);
  }

  for (const char* key : keys) {
    const Value value = record.get(key);
    if (const CalendarDate* date = value.asDate()) {
      if (auto moved = movedDate(*date, timeZone, fromTimeZone)) record.set(key, *moved);
    } else if (auto relation = value.asArray()) {
      const bool followStart = isEvent && std::string_view(key) == kCalendarsEventRecurrences;
      if (auto moved = movedRelation(*relation, move, followStart)) record.set(key, *moved);
    }
  }

  if (isAllDayEventOrTask(record) || exDatesAreDateOnly) return;
  auto exDates = record.getArray(kCalendarsEventExceptionDates);
  if (!exDates) return;
  Array converted;
  for (std::size_t i = 0; i < exDates->count(); ++i) {
    const CalendarDate* stored = exDates->at(i).asDate();
    if (!stored) {
      converted.add(exDates->at(i));
      continue;
    }
    CalendarDate date = *stored;
    // The stored dates take the source zone in place (their instants do not
    // change); the new list holds their wall-clock conversions.
    if (fromTimeZone && !sameZone(date.timeZone(), fromTimeZone)) {
      date.setTimeZone(fromTimeZone);
      exDates->set(i, date);
    }
    if (timeZone && !sameZone(date.timeZone(), timeZone))
      date = CalendarExtension::convertInTimeZone(date, timeZone);
    converted.add(date);
  }
  record.set(kCalendarsEventExceptionDates, converted);
}

void normalizeRecurrenceWithStartDate(Dictionary& recurrence,
                                      const std::optional<CalendarDate>& startDate,
                                      const std::optional<std::string>& weekStartDay, bool isAllDay,
                                      bool untilDateIsDateOnly) {
  if (const Value* frequencyValue = recurrence.find(kCalendarsRecurrenceFrequency);
      frequencyValue && !frequencyValue->isNull()) {
    const std::string frequency = frequencyValue->stringValue();
    if (frequency == "weekly") {
      if (!hasPart(recurrence, kCalendarsRecurrenceBydaydays)) {
        if (startDate) {
          recurrence.set(kCalendarsRecurrenceBydaydays,
                         Array{kWeekDayNames[startDate->dayOfWeek()]});
          recurrence.set(kCalendarsRecurrenceBydayfreq, Array{0});
        }
      } else if (!hasPart(recurrence, kCalendarsRecurrenceWeekstartday) && weekStartDay) {
        recurrence.set(kCalendarsRecurrenceWeekstartday, *weekStartDay);
      }
    } else if (frequency == "monthly") {
      if (!hasPart(recurrence, kCalendarsRecurrenceBydaydays) &&
          !hasPart(recurrence, kCalendarsRecurrenceBymonthday) && startDate)
        recurrence.set(kCalendarsRecurrenceBymonthday, Array{startDate->dayOfMonth()});
    } else if (frequency == "yearly") {
      if (!hasPart(recurrence, kCalendarsRecurrenceBymonth) && startDate)
        recurrence.set(kCalendarsRecurrenceBymonth, Array{startDate->monthOfYear()});
    }
    if (!hasPart(recurrence, kCalendarsRecurrenceInterval))
      recurrence.set(kCalendarsRecurrenceInterval, 1);
  }

  if (!isAllDay && !untilDateIsDateOnly) return;
  auto until = dateForKey(recurrence, kCalendarsRecurrenceUntil);
  if (!until) return;
  // A timed event's until date names the day it falls on in the start's zone.
  if (!isAllDay && startDate) until->setTimeZone(startDate->timeZone());
  recurrence.set(kCalendarsRecurrenceUntil,
                 CalendarExtension::convertToMiddayInTimeZone(*until, TimeZone::gmt()));
}

void qvt_normalizeAssembledEvent(Dictionary& event) {
  auto recurrences = event.getArray(kCalendarsEventRecurrences);
  if (!recurrences) return;
  // Named rather than a temporary: GCC 12 at -O2 with ThreadSanitizer takes
  // the destruction of a temporary empty optional for a use of its string.
  static const std::optional<std::string> noWeekStartDay;
  normalizeRecurrencesWithStartDate(*recurrences, dateForKey(event, kCalendarsEventStartDate),
                                    noWeekStartDay, event.getBool(kCalendarsEventAllDay), false);
}

// --- Arrays ---

void normalizeRecurrencesWithStartDate(Array& recurrences,
                                       const std::optional<CalendarDate>& startDate,
                                       const std::optional<std::string>& weekStartDay,
                                       bool isAllDay, bool untilDateIsDateOnly) {
  for (Value& element : recurrences) {
    auto recurrence = element.asDictionary();
    if (!QVT_CHECK(recurrence)) continue;
    normalizeRecurrenceWithStartDate(*recurrence, startDate, weekStartDay, isAllDay,
                                     untilDateIsDateOnly);
  }
}

}  // namespace CalendarUtilities

namespace CalendarExtension {

std::optional<Array> datesOfDetachedEventsForIdentifier(const TruthSnapshot& snapshot,
                                                        const std::string& identifier,
                                                        const TimeZonePtr& zone) {
  const Array targets =
      snapshot.targetIdentifiersForRelationshipName(kCalendarsEventDetachedEvents, identifier);
  if (targets.empty()) return std::nullopt;
  Array dates;
  for (const auto& [targetIdentifier, value] : snapshot.recordsWithIdentifiers(targets)) {
    auto record = value.asDictionary();
    if (!record) continue;
    auto original = dateForKey(*record, kCalendarsEventOriginalDate);
    if (!original) {
      // clang-format off
      QVT_LOG(kLogError, logDomain(), "Corruption found in the truth.  The following event is detached but does not have a recurrence id:\n{}", *record);
      // clang-format on
      continue;
    }
    if (zone) original->setTimeZone(zone);
    dates.add(*original);
  }
  return dates;
}

}  // namespace CalendarExtension

}  // namespace pc
