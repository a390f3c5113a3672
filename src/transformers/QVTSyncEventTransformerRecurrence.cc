// The event transformer's recurrence stages: whether the phone stores an
// event's rule or the host must explode it, exception dates and detached
// occurrences folded into what the phone keeps and taken out again, date-only
// until dates, and the formatting of recurrence records (default limits,
// count <-> until conversions through the event exploder).

#include <cmath>
#include <optional>
#include <set>
#include <string>

#include "async/Log.h"
#include "async/ConditionReport.h"
#include "engine/SchemaNames.h"
#include "engine/SyncEngine.h"
#include "formatting/FormattingMethods.h"
#include "transformers/CalendarUtilities.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace pc {

namespace {

using CalendarExtension::allDayDateWithYear;
using CalendarUtilities::normalizedExDates;

std::optional<CalendarDate> dateForKey(const Dictionary& record, const char* key) {
  if (const Value* value = record.find(key))
    if (const CalendarDate* date = value->asDate()) return *date;
  return std::nullopt;
}

// A count or until date is present when it holds something other than null.
bool hasLimit(const Dictionary& recurrence, const char* key) {
  const Value* value = recurrence.find(key);
  return value && !value->isNull();
}

// The year, month and day of `day` (read in its own zone) at the hour,
// minute and second of `time` (read in its own zone), in `time`'s zone.
CalendarDate dayAtTimeOf(const CalendarDate& day, const CalendarDate& time) {
  return CalendarDate::dateWithYear(day.yearOfCommonEra(), day.monthOfYear(), day.dayOfMonth(),
                                    time.hourOfDay(), time.minuteOfHour(), time.secondOfMinute(),
                                    time.timeZone());
}

// 23:59:59 of the date's day in its own zone, read in GMT (the same instant).
CalendarDate endOfDayInGMT(const CalendarDate& date) {
  CalendarDate last = CalendarDate::dateWithYear(date.yearOfCommonEra(), date.monthOfYear(),
                                                 date.dayOfMonth(), 23, 59, 59, date.timeZone());
  last.setTimeZone(TimeZone::gmt());
  return last;
}

// The dates of a property holding an array (empty when absent).
std::vector<CalendarDate> datesOfProperty(const RecordHolder& holder, const char* key) {
  std::vector<CalendarDate> dates;
  if (auto array = holder.propertyForKey(key).asArray())
    for (const Value& value : *array)
      if (const CalendarDate* date = value.asDate()) dates.push_back(*date);
  return dates;
}

bool containsDate(const std::vector<CalendarDate>& dates, const CalendarDate& date) {
  for (const CalendarDate& d : dates)
    if (d == date) return true;
  return false;
}

}  // namespace

// --- Does the phone store the rule? -----------------------------------------------------

bool QVTSyncEventTransformer::deviceSupportRecurrentEvent(RecordHolder& holder) {
  const Dictionary record = holder.mutableDictionary();
  const std::optional<Array> recurrences = record.getArray(kCalendarsEventRecurrences);
  if (!recurrences || recurrences->empty()) {
    QVT_LOG(kLogError, logDomain(), "this event is not recurrent\n{}", record);
    return false;
  }
  if (recurrences->count() >= 2) {
    QVT_LOG(kLogWarning, logDomain(), "whaow, two recurrence rules");
    return false;
  }
  // An assembled event holds the rule itself; otherwise it is looked up.
  std::optional<Dictionary> rule = recurrences->at(0).asDictionary();
  if (!rule) rule = mainRecordFromRelation(Value(*recurrences)).asDictionary();
  if (!QVT_CHECK_NAMED(rule, "rule")) return false;
  const bool handled =
      deviceHandleRule(*rule, record, holder.masterIdentifier(), holder.originalRecord());
  QVT_LOG(kLogInfo, logDomain(), "do we handle the rule: {}", handled ? 1 : 0);
  return handled;
}

bool QVTSyncEventTransformer::deviceHandleRule(const Dictionary& rule, const Dictionary& event,
                                               const std::string& masterId,
                                               const Dictionary& originalEvent) {
  if (_hasFullRecurrence) return true;
  if (CalendarUtilities::isAllDayEvent(event) && !_handleAllDayRecurrent) {
    QVT_LOG(kLogInfo, logDomain(),
            "Exploding recurrence rule, because device doesn't support recurrent all-day events");
    return false;
  }
  if (CalendarUtilities::isMultiDayEvent(event) && !_handleMultiDayRecurrent) {
    QVT_LOG(kLogInfo, logDomain(),
            "Exploding recurrence rule, because device doesn't support recurrent multi-day events");
    return false;
  }

  QVTSyncManager* syncManager = _calendarManager ? _calendarManager->syncManager() : nullptr;
  if (!(syncManager && syncManager->isInBrisalde())) {
    const std::optional<CalendarDate> start = dateForKey(event, kCalendarsEventStartDate);
    const TimeZonePtr nextZone = _calendarManager ? _calendarManager->_nextTimeZone() : nullptr;
    // A weekly rule written in the phone's zone would fall on other days
    // when the start moves to another day there.
    if (start && nextZone && !start->timeZone()->isEqualToTimeZone(*nextZone)) {
      QVT_LOG(kLogInfo, logDomain(), "timezone mismatch on event");
      const CalendarDate onPhone = start->dateWithTimeZone(nextZone);
      if (onPhone.dayOfWeek() != start->dayOfWeek()) {
        QVT_LOG(kLogInfo, logDomain(), "event crosses day boundary, exploding!!");
        return false;
      }
      QVT_LOG(kLogInfo, logDomain(), "this one is safe");
    }
  }

  DeviceManager* deviceManager = _calendarManager ? _calendarManager->deviceManager() : nullptr;
  const std::string dataClass = _calendarManager ? _calendarManager->deviceDataClass() : "";
  if (_hasVCalRecurrence) {
    const DeviceParserPtr parser =
        deviceManager ? deviceManager->parserForDataClass(dataClass) : nullptr;
    if (!QVT_CHECK(parser)) return false;
    auto* vcal = dynamic_cast<VCalParserExternal*>(parser.get());
    if (!vcal) return false;
    std::optional<Dictionary> extraProperties;
    if (const auto store = deviceManager->storeForDeviceDataClass(dataClass))
      if (const auto stored = store->getPrivateStorageDeviceRecordForKey(masterId))
        extraProperties = stored->getDictionary("RawProperties");
    return vcal->deviceHandleRule(rule, event, extraProperties, originalEvent);
  }
  if (_hasSymbianRecurrence) {
    QVT_LOG(kLogInfo, logDomain(), "we are on symbian");
    const DeviceParserPtr parser =
        deviceManager ? deviceManager->parserForDataClass(dataClass) : nullptr;
    auto* agentParser = dynamic_cast<AgentParserExternal*>(parser.get());
    if (!QVT_CHECK(agentParser)) return false;
    return agentParser->deviceHandleRule(rule, event, originalEvent);
  }
  return false;
}

// --- Mangling ------------------------------------------------------------------------------

Array QVTSyncEventTransformer::privateConvertArrayToTimedCalendarDate(const Array& dates) {
  TimeZonePtr phoneZone = phoneTimeZoneForFormatting();
  if (!phoneZone) phoneZone = TimeZone::systemTimeZone();
  Array converted;
  for (const Value& value : dates)
    if (const CalendarDate* date = value.asDate())
      converted.add(CalendarExtension::convertToMidnightInTimeZone(*date, phoneZone));
  return converted;
}

void QVTSyncEventTransformer::_mangleRecurrenceBeforeTimeZoneMangling(RecordHolder& holder,
                                                                      bool convertAllDayToDateTime) {
  Dictionary record = holder.mutableDictionary();
  const std::optional<Array> recurrences = record.getArray(kCalendarsEventRecurrences);
  if (!recurrences || recurrences->empty()) return;
  TimeZonePtr phoneZone = phoneTimeZoneForFormatting();
  if (!phoneZone) phoneZone = TimeZone::systemTimeZone();

  // The until date as the day of the last occurrence's start on the phone.
  const std::optional<Dictionary> first = recurrences->at(0).asDictionary();
  const std::optional<CalendarDate> start = dateForKey(record, kCalendarsEventStartDate);
  if (_untilDateIsDateOnly && first && start) {
    if (const std::optional<CalendarDate> until = dateForKey(*first, kCalendarsRecurrenceUntil)) {
      const CalendarDate lastStart = dayAtTimeOf(until->dateWithTimeZone(start->timeZone()), *start);
      const CalendarDate onPhone = lastStart.dateWithTimeZone(phoneZone);
      const CalendarDate dateOnly = allDayDateWithYear(
          onPhone.yearOfCommonEra(), onPhone.monthOfYear(), onPhone.dayOfMonth());
      holder.setProperty(dateOnly, "UntilDateDateOnly");
      QVT_LOG(kLogInfo, logDomain(), "Tritouilling untilDate: {}\ntmpUntilDate:{}\nfinal:{}",
              *until, lastStart, dateOnly);
    }
  }

  // Detached occurrences are hidden from a phone that receives them as
  // separate events: their original dates join the exception dates.
  std::optional<Array> detached;
  QVTSyncManager* syncManager = _calendarManager ? _calendarManager->syncManager() : nullptr;
  if (const TruthSnapshot* snapshot = syncManager ? syncManager->recordSnapShot() : nullptr)
    detached = CalendarExtension::datesOfDetachedEventsForIdentifier(
        *snapshot, holder.masterIdentifier(), nullptr);
  if (detached && convertAllDayToDateTime) {
    detached = privateConvertArrayToTimedCalendarDate(*detached);
    QVT_LOG(kLogInfo, logDomain(), "mangle detach dates {}", *detached);
  }
  const std::optional<Array> exDates = record.getArray(kCalendarsEventExceptionDates);
  if (detached && !detached->empty()) holder.setProperty(*detached, "MangledDetachDates");
  if (exDates && !exDates->empty()) holder.setProperty(*exDates, "MangledExDates");
  if (detached && !detached->empty()) {
    Array all = exDates ? exDates->copy() : Array();
    all.addAll(*detached);
    record.set(kCalendarsEventExceptionDates, normalizedExDates(all));
  }
}

void QVTSyncEventTransformer::_mangleRecurrenceAfterTimeZoneMangling(RecordHolder& holder) {
  Dictionary record = holder.mutableDictionary();
  const std::optional<Array> recurrences = record.getArray(kCalendarsEventRecurrences);
  if (!recurrences || recurrences->empty()) return;

  const Value untilDateOnly = holder.propertyForKey("UntilDateDateOnly");
  if (untilDateOnly.isDate()) {
    if (const std::optional<Dictionary> first = recurrences->at(0).asDictionary()) {
      Dictionary rule = first->copy();
      rule.set(kCalendarsRecurrenceUntil, untilDateOnly);
      record.set(kCalendarsEventRecurrences, Array{rule});
    }
  }

  const std::optional<Array> exDates = record.getArray(kCalendarsEventExceptionDates);
  if (!exDates || exDates->empty()) return;
  QVT_LOG(kLogInfo, logDomain(), "record has some exdates");
  if (!_exDatesAreDateOnly || CalendarUtilities::isAllDayEvent(record)) return;
  const std::optional<CalendarDate> start = dateForKey(record, kCalendarsEventStartDate);
  TimeZonePtr zone = start ? start->timeZone() : phoneTimeZoneForFormatting();
  if (!zone) zone = TimeZone::systemTimeZone();
  Array days;
  for (const Value& value : *exDates) {
    const CalendarDate* date = value.asDate();
    if (!date) continue;
    const CalendarDate there = date->dateWithTimeZone(zone);
    days.add(allDayDateWithYear(there.yearOfCommonEra(), there.monthOfYear(), there.dayOfMonth()));
  }
  record.set(kCalendarsEventExceptionDates, normalizedExDates(days));
}

// --- Unmangling -----------------------------------------------------------------------------

void QVTSyncEventTransformer::_unmangleRecurrenceBeforeTimeZoneUnMangling(
    RecordHolder& holder, const TimeZonePtr& eventTimeZone) {
  Dictionary record = holder.mutableDictionary();
  const std::optional<Array> exDates = record.getArray(kCalendarsEventExceptionDates);
  if (!exDates || exDates->empty()) return;
  QVT_LOG(kLogInfo, logDomain(), "record has some exdates");
  const std::optional<CalendarDate> start = dateForKey(record, kCalendarsEventStartDate);
  if (!start) {
    QVT_LOG(kLogError, logDomain(), "exdate with not start date: {}", record);
    return;
  }
  // The phone's date-only exception dates become the starts they stand for:
  // the occurrence on that day of the phone's calendar, at the start's time
  // in the event's own zone (where the rule repeats), which is not the
  // start's time on the phone's clock when the two zones change daylight
  // time on different dates.
  const bool ownZone = eventTimeZone && !CalendarUtilities::isAllDayEvent(record) &&
                       !eventTimeZone->isEqualToTimeZone(*start->timeZone());
  const CalendarDate first = ownZone ? start->dateWithTimeZone(eventTimeZone) : *start;
  auto occurrenceOn = [&](const CalendarDate& day) {
    if (!ownZone) return dayAtTimeOf(day, *start);
    for (int shift : {0, -1, 1}) {
      const CalendarDate there = dayAtTimeOf(day, first).dateByAddingYears(0, 0, shift, 0, 0, 0);
      const CalendarDate onPhone = there.dateWithTimeZone(start->timeZone());
      if (onPhone.yearOfCommonEra() == day.yearOfCommonEra() &&
          onPhone.monthOfYear() == day.monthOfYear() && onPhone.dayOfMonth() == day.dayOfMonth())
        return onPhone;
    }
    return dayAtTimeOf(day, *start);
  };
  Array starts;
  for (const Value& value : *exDates) {
    if (const CalendarDate* date = value.asDate()) starts.add(occurrenceOn(*date));
    else starts.add(value);  // dropped, logged, by the normalisation
  }
  record.set(kCalendarsEventExceptionDates, normalizedExDates(starts));
}

void QVTSyncEventTransformer::_unmangleRecurrenceAfterTimeZoneUnMangling(
    RecordHolder& holder, const TimeZonePtr& eventTimeZone) {
  Dictionary record = holder.mutableDictionary();
  const std::optional<Array> recurrences = record.getArray(kCalendarsEventRecurrences);
  if (!recurrences || recurrences->empty()) return;
  const std::optional<CalendarDate> start = dateForKey(record, kCalendarsEventStartDate);

  if (_untilDateIsDateOnly && !CalendarUtilities::isAllDayEvent(record)) {
    const std::optional<Dictionary> first = recurrences->at(0).asDictionary();
    const std::optional<CalendarDate> until =
        first ? dateForKey(*first, kCalendarsRecurrenceUntil) : std::nullopt;
    if (until && start) {
      Dictionary rule = first->copy();
      CalendarDate intermediate = dayAtTimeOf(*until, *start);
      if (eventTimeZone) intermediate.setTimeZone(eventTimeZone);
      const CalendarDate final = endOfDayInGMT(intermediate);
      QVT_LOG(kLogInfo, logDomain(), "Tritouilling untilDate: {}\ntmpUntilDate:{}\nfinal:{}",
              *until, intermediate, final);
      rule.set(kCalendarsRecurrenceUntil, final);
      record.set(kCalendarsEventRecurrences, Array{rule});
    }
  }

  // An all-day event's until date names a day, which the phone wrote on its
  // own clock: it is anchored at 12:00 GMT of that day again, where no zone
  // moves it to another day.
  if (CalendarUtilities::isAllDayEvent(record)) {
    Array anchored;
    bool changed = false;
    for (const Value& value : *recurrences) {
      const std::optional<Dictionary> rule = value.asDictionary();
      const std::optional<CalendarDate> until =
          rule ? dateForKey(*rule, kCalendarsRecurrenceUntil) : std::nullopt;
      const std::optional<CalendarDate> midday =
          until ? std::optional<CalendarDate>(allDayDateWithYear(
                      until->yearOfCommonEra(), until->monthOfYear(), until->dayOfMonth()))
                : std::nullopt;
      if (!midday || *midday == *until) {
        anchored.add(value);
        continue;
      }
      Dictionary copy = rule->copy();
      copy.set(kCalendarsRecurrenceUntil, *midday);
      anchored.add(Value(copy));
      changed = true;
    }
    if (changed) record.set(kCalendarsEventRecurrences, anchored);
  }

  QVT_LOG(kLogInfo, logDomain(), "there is a tracker, find the detached dates");
  const std::vector<CalendarDate> detached = datesOfProperty(holder, "MangledDetachDates");
  const std::vector<CalendarDate> kept = datesOfProperty(holder, "MangledExDates");
  if (!start) {
    QVT_LOG(kLogError, logDomain(), "exdate with not start date: {}", record);
    return;
  }
  // Dates added by mangling only to hide detached occurrences go away;
  // the event's own exception dates stay.
  Array exDates;
  if (const std::optional<Array> read = record.getArray(kCalendarsEventExceptionDates)) {
    for (const Value& value : *read) {
      const CalendarDate* date = value.asDate();
      if (date && containsDate(detached, *date) && !containsDate(kept, *date)) continue;
      exDates.add(value);
    }
  }
  record.set(kCalendarsEventExceptionDates, normalizedExDates(exDates));
}

// --- Formatting ---------------------------------------------------------------------------------

Dictionary QVTSyncEventTransformer::formatYearlyEvent(Dictionary record) {
  const std::optional<CalendarDate> start = dateForKey(record, kCalendarsEventStartDate);
  const std::optional<CalendarDate> end = dateForKey(record, kCalendarsEventEndDate);
  if (!start || !end) {
    QVT_LOG(kLogError, QVTLOG, "event with no start date or end date:{}", record);
    return record;
  }
  if (!_dontSyncEventBeforeDate || !(*_dontSyncEventBeforeDate > *start)) return record;
  const int years = _dontSyncEventBeforeDate->yearOfCommonEra() - start->yearOfCommonEra();
  if (years < 0) QVT_LOG(kLogError, QVTLOG, "ha");
  const std::optional<Array> recurrences = record.getArray(kCalendarsEventRecurrences);
  if (!recurrences || recurrences->count() != 1) return record;
  const std::optional<Dictionary> rule = mainRecordFromRelation(Value(*recurrences)).asDictionary();
  if (!rule || !CalendarUtilities::qvt_isSimpleYearlyEvent(*rule)) return record;
  CalendarDate newStart = start->dateByAddingYears(years, 0, 0, 0, 0, 0);
  CalendarDate newEnd = end->dateByAddingYears(years, 0, 0, 0, 0, 0);
  if (newStart < *_dontSyncEventBeforeDate) {
    newStart = newStart.dateByAddingYears(1, 0, 0, 0, 0, 0);
    newEnd = newEnd.dateByAddingYears(1, 0, 0, 0, 0, 0);
  }
  record.set(kCalendarsEventStartDate, newStart);
  record.set(kCalendarsEventEndDate, newEnd);
  return record;
}

std::optional<Dictionary> QVTSyncEventTransformer::formatRecurrence(Dictionary recurrence) {
  const std::optional<Dictionary> event =
      mainRecordFromRelation(recurrence.get(kCalendarsRecurrenceOwner)).asDictionary();
  const std::optional<CalendarDate> start =
      event ? dateForKey(*event, kCalendarsEventStartDate) : std::nullopt;
  CalendarUtilities::normalizeRecurrenceWithStartDate(
      recurrence, start, std::nullopt, event && CalendarUtilities::isAllDayEvent(*event),
      _untilDateIsDateOnly);
  recurrence = formatRecurrenceSetDefaultCount(recurrence);
  recurrence = formatRecurrenceSetDefaultUntilDate(recurrence);
  recurrence = formatRecurrenceWithUntilDate(recurrence);
  recurrence = formatRecurrenceWithCount(recurrence);
  recurrence = formatRecurrenceUntilDate(recurrence);
  return formatRecurrenceWithUntilDateToLastOccurrence(recurrence);
}

Dictionary QVTSyncEventTransformer::formatRecurrenceSetDefaultCount(Dictionary recurrence) {
  if (_countValueWhenMissing.isNull()) return recurrence;
  if (hasLimit(recurrence, kCalendarsRecurrenceCount) || hasLimit(recurrence, kCalendarsRecurrenceUntil))
    return recurrence;
  if (_needsToFormatCountToUntilDate && _untilDateValueWhenMissing) return recurrence;
  recurrence.set(kCalendarsRecurrenceCount, _countValueWhenMissing);
  return recurrence;
}

Dictionary QVTSyncEventTransformer::formatRecurrenceSetDefaultUntilDate(Dictionary recurrence) {
  if (!_untilDateValueWhenMissing) return recurrence;
  if (hasLimit(recurrence, kCalendarsRecurrenceCount) || hasLimit(recurrence, kCalendarsRecurrenceUntil))
    return recurrence;
  if (_needsToFormatUntilDateToCount && !_countValueWhenMissing.isNull()) return recurrence;
  recurrence.set(kCalendarsRecurrenceUntil, *_untilDateValueWhenMissing);
  return recurrence;
}

namespace {

// The converted recurrence, or the recurrence as it was when the conversion
// answers nothing (it logs why): a rule is never lost here.
Dictionary converted(const Value& result, Dictionary recurrence) {
  if (auto rule = result.asDictionary()) return *rule;
  return recurrence;
}

}  // namespace

Dictionary QVTSyncEventTransformer::formatRecurrenceWithUntilDate(Dictionary recurrence) {
  if (!_needsToFormatUntilDateToCount) return recurrence;
  const auto& methods = formattingMethods();
  if (!methods) return recurrence;
  return converted(methods->convertRecurrenceLimitToCount(recurrence), recurrence);
}

Dictionary QVTSyncEventTransformer::formatRecurrenceWithCount(Dictionary recurrence) {
  if (!_needsToFormatCountToUntilDate) return recurrence;
  const auto& methods = formattingMethods();
  if (!methods) return recurrence;
  return converted(methods->convertRecurrenceLimitToDate(recurrence), recurrence);
}

Dictionary QVTSyncEventTransformer::formatRecurrenceUntilDate(Dictionary recurrence) {
  if (!_untilDateIsDateOnly) return recurrence;
  const std::optional<CalendarDate> until = dateForKey(recurrence, kCalendarsRecurrenceUntil);
  if (!until) return recurrence;
  const std::optional<Dictionary> event =
      mainRecordFromRelation(recurrence.get(kCalendarsRecurrenceOwner)).asDictionary();
  if (!event || CalendarUtilities::isAllDayEvent(*event)) return recurrence;
  const std::optional<CalendarDate> start = dateForKey(*event, kCalendarsEventStartDate);
  if (!start) return recurrence;
  recurrence.set(kCalendarsRecurrenceUntil, endOfDayInGMT(until->dateWithTimeZone(start->timeZone())));
  return recurrence;
}

Dictionary QVTSyncEventTransformer::formatRecurrenceWithUntilDateToLastOccurrence(
    Dictionary recurrence) {
  if (!_needsToFormatUntilDateToLastOccurrence || !hasLimit(recurrence, kCalendarsRecurrenceUntil))
    return recurrence;
  const auto& methods = formattingMethods();
  if (!methods) return recurrence;
  return converted(methods->convertRecurrenceLimitToLastOcurrenceDate(recurrence), recurrence);
}

}  // namespace pc
