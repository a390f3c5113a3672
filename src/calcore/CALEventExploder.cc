#include "calcore/CALEventExploder.h"

#include <algorithm>

#include <fmt/format.h>

#include "async/Log.h"
#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALRecurrenceFrequencies.h"
#include "calcore/calcdate.h"
#include "engine/SchemaNames.h"
#include "platform/Exception.h"

namespace pc {

namespace {

const std::string& exploderLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", "CALRecInit");
  return domain;
}

// What "%@" prints for a value that may be missing.
std::string describe(const Value& value) { return value.isNull() ? "(null)" : value.description(); }

// A list of numbers of a recurrence record; nullopt when absent. Elements
// that are not numbers are left out.
CALRulePartList numbersOf(const Dictionary& record, const char* key) {
  const Value value = record.get(key);
  if (value.isNull() || !QVT_CHECK(value.isArray())) return std::nullopt;
  std::vector<int> numbers;
  for (const Value& element : value.array())
    if (std::optional<std::int64_t> number = element.integerIfNumeric(); QVT_CHECK(number))
      numbers.push_back(static_cast<int>(*number));
  return numbers;
}

// The engine date of `key`, or nullptr when absent or not a date.
const CalendarDate* dateOf(const Dictionary& record, const char* key) {
  const Value* value = record.find(key);
  return value ? value->asDate() : nullptr;
}

// The stored form of a last occurrence: an all-day date itself, a timed one
// as 23:59:59 of its day, re-expressed in GMT.
CalendarDate untilValueFor(const CALDate& lastOccurrence, bool allDay) {
  if (allDay) return lastOccurrence.calendarDate();
  return lastOccurrence.dateWithHour(23, 59, 59)->calendarDate().dateWithTimeZone(TimeZone::timeZoneWithName("GMT"));
}

}  // namespace

const std::map<std::string, int>& CALEventExploder::dayTable() {
  static const std::map<std::string, int> table{{"sunday", 0},   {"monday", 1}, {"tuesday", 2},
                                                {"wednesday", 3}, {"thursday", 4}, {"friday", 5},
                                                {"saturday", 6}};
  return table;
}

const std::map<std::string, CALEventExploder::RuleFactory>& CALEventExploder::frequencyTable() {
  static const std::map<std::string, RuleFactory> table{
      {"daily", []() -> std::unique_ptr<CALRecurrenceRule> { return CALDailyRecurrence::rule(); }},
      {"weekly", []() -> std::unique_ptr<CALRecurrenceRule> { return CALWeeklyRecurrence::rule(); }},
      {"monthly", []() -> std::unique_ptr<CALRecurrenceRule> { return CALMonthlyRecurrence::rule(); }},
      {"yearly", []() -> std::unique_ptr<CALRecurrenceRule> { return CALYearlyRecurrence::rule(); }}};
  return table;
}

CALEventExploder::CALEventExploder(const Dictionary& event, const Dictionary& recurrence)
    : _event(event), _recurrence(recurrence) {
  const Value frequency = recurrence.get(kCalendarsRecurrenceFrequency);
  if (frequency.isNull())
    QVT_LOG(kLogWarning, exploderLogDomain(), "no frequency in rule {} {}", event, recurrence);
  const auto found = frequency.isString() ? frequencyTable().find(frequency.string()) : frequencyTable().end();
  if (found == frequencyTable().end()) {
    const std::string message = fmt::format("Invalid frequency: {}", describe(frequency));
    QVT_LOG(kLogError, exploderLogDomain(), "{}", message);
    raiseException(kInvalidArgumentException, message);
  }
  _allDay = event.get(kCalendarsEventAllDay).boolValue();
  _rule = found->second();
  _readRuleParts();
  QVT_LOG(kLogInfo, exploderLogDomain(), "generated rule is\n{}", _rule->description());
}

void CALEventExploder::_readRuleParts() {
  const Dictionary& r = _recurrence;
  if (const Value until = r.get(kCalendarsRecurrenceUntil); !until.isNull() && QVT_CHECK(until.isDate()))
    _rule->setUntilDate(CALDate::CALDateFromCalendarDate(until.date(), _allDay).get());
  if (std::optional<std::int64_t> count = r.get(kCalendarsRecurrenceCount).integerIfNumeric())
    _rule->setCount(static_cast<int>(*count));
  if (std::optional<std::int64_t> interval = r.get(kCalendarsRecurrenceInterval).integerIfNumeric())
    _rule->setInterval(static_cast<int>(*interval));
  if (const auto day = dayTable().find(r.getString(kCalendarsRecurrenceWeekstartday)); day != dayTable().end())
    _rule->setWeekStart(day->second);
  _rule->setByMonth(numbersOf(r, kCalendarsRecurrenceBymonth))
      .setByWeekno(numbersOf(r, kCalendarsRecurrenceByweeknumber))
      .setByYearDay(numbersOf(r, kCalendarsRecurrenceByyearday))
      .setByMonthDay(numbersOf(r, kCalendarsRecurrenceBymonthday))
      .setBySetpos(numbersOf(r, kCalendarsRecurrenceBysetpos));

  const std::optional<Array> ordinals = r.getArray(kCalendarsRecurrenceBydayfreq);
  const std::optional<Array> days = r.getArray(kCalendarsRecurrenceBydaydays);
  if (ordinals && days && ordinals->count() != days->count())
    raiseException(kInternalInconsistencyException, "|bydayfreq| != |bydaydays|");
  if (!days) return;
  std::vector<CALWeekDayNumber> byDay;
  for (std::size_t i = 0; i < days->count(); ++i) {
    const Value& name = days->at(i);
    const auto day = name.isString() ? dayTable().find(name.string()) : dayTable().end();
    if (day == dayTable().end()) {
      QVT_LOG(kLogWarning, exploderLogDomain(), "can't map day of week {}", describe(name));
      return;
    }
    const int ordinal = ordinals ? static_cast<int>(ordinals->at(i).integerIfNumeric().value_or(0)) : 0;
    byDay.emplace_back(day->second, ordinal);
  }
  _rule->setByDay(std::move(byDay));
}

std::unique_ptr<CALEventExploder> CALEventExploder::CALEventExploderWithAssembledEvent(
    const std::optional<Dictionary>& event) {
  if (!event) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "no event?");
    return nullptr;
  }
  const Value recurrences = event->get(kCalendarsEventRecurrences);
  if (recurrences.isNull()) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "no recurrence rule in {}", *event);
    return nullptr;
  }
  const std::optional<Array> list = recurrences.asArray();
  if (!list || list->count() != 1) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "several recurrence rule in {}", *event);
    return nullptr;
  }
  const std::optional<Dictionary> recurrence = list->at(0).asDictionary();
  if (!recurrence || recurrence->empty()) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "gha?");
    return nullptr;
  }
  return CALEventExploderWithEvent(*event, *recurrence);
}

CALDateList CALEventExploder::produceDatesForTimeRange(const CALTimeRange& range, const TruthSnapshot* snapshot,
                                                       const std::string& recordId, bool ignoreExDates) {
  const CalendarDate* startValue = dateOf(_event, kCalendarsEventStartDate);
  CALDateRef start = startValue ? CALDate::CALDateFromCalendarDate(*startValue, _allDay) : nullptr;
  if (!QVT_CHECK(start)) return {};
  CALDateList dates = _rule->occurrencesOnTimeRange(range, *start);
  if (ignoreExDates) return dates;

  CALDateList excluded;
  for (const Value& value : _event.getArray(kCalendarsEventExceptionDates).value_or(Array()))
    if (CALDateRef day = value.isDate() ? CALDate::CALDateFromCalendarDate(value.date(), true) : nullptr;
        QVT_CHECK(day))
      excluded.push_back(day);
  const Array detachedIds = snapshot ? snapshot->targetIdentifiersForRelationshipName(
                                           kCalendarsEventDetachedEvents, recordId)
                                     : Array();
  if (!detachedIds.empty()) {
    for (const auto& [identifier, record] : snapshot->recordsWithIdentifiers(detachedIds)) {
      const std::optional<Dictionary> detached = record.asDictionary();
      const CalendarDate* original = detached ? dateOf(*detached, kCalendarsEventOriginalDate) : nullptr;
      if (!original) {
        QVT_LOG(kLogError, exploderLogDomain(), "corruption in the truth.  detached event with no recurrence id {}",
                record);
        continue;
      }
      // The original date of an all-day event is read in the zone of the
      // event's start: 22:00 GMT on the 13th is the 14th in Paris.
      const TimeZonePtr& zone = _allDay ? startValue->timeZone() : start->timeZone();
      const CalendarDate day = _allDay && zone ? original->dateWithTimeZone(zone) : *original;
      if (CALDateRef excludedDay = CALDate::CALDateFromCalendarDate(day, true); QVT_CHECK(excludedDay))
        excluded.push_back(excludedDay);
    }
  }
  QVT_LOG(kLogInfo, exploderLogDomain(), "exDates = {}\ndetachedIds = {}", descriptionOfDates(excluded), detachedIds);
  QVT_LOG(kLogInfo, exploderLogDomain(), "expansion on {}", range.description());
  if (excluded.empty()) return dates;
  std::erase_if(dates, [&](const CALDateRef& date) {
    const CALDateRef day = CALDateOnly::dateOnlyFromDate(*date);
    return std::any_of(excluded.begin(), excluded.end(),
                       [&](const CALDateRef& e) { return e->isEqual(day.get()); });
  });
  return dates;
}

Array CALEventExploder::eventsForDates(const CALDateList& dates) const {
  const CalendarDate* start = dateOf(_event, kCalendarsEventStartDate);
  if (!start)
    raiseException(kInternalInconsistencyException,
                   fmt::format("event {} does not have a start date and an end date", _event));
  const CalendarDate* end = dateOf(_event, kCalendarsEventEndDate);
  const double length = end ? end->timeIntervalSinceReferenceDate() - start->timeIntervalSinceReferenceDate() : 0;

  Dictionary model = _event.copy();
  for (const char* key : {kCalendarsEventRecurrences, kCalendarsEventDetachedEvents, kCalendarsEventExceptionDates})
    model.remove(key);
  Array events;
  for (const CALDateRef& date : dates) {
    Dictionary occurrence = model.deepCopy();
    occurrence.set(kCalendarsEventStartDate, date->calendarDate());
    occurrence.set(kCalendarsEventEndDate, date->dateByAddingRawInterval(length)->calendarDate());
    events.add(occurrence);
  }
  return events;
}

std::optional<CALTimeRange> CALEventExploder::_boundedRecurrenceRange(const Dictionary& recurrence,
                                                                     const Dictionary& event, bool allDay) {
  const CalendarDate* startValue = dateOf(event, kCalendarsEventStartDate);
  const CalendarDate* untilValue = dateOf(recurrence, kCalendarsRecurrenceUntil);
  const CALDateRef start = CALDate::CALDateFromCalendarDate(*startValue, allDay);
  const CALDateRef until = CALDate::CALDateFromCalendarDate(*untilValue, allDay);
  if (!QVT_CHECK(start && until)) return std::nullopt;
  // The start is an occurrence even when the until date comes before it.
  const CALDate& last = until->isBefore(start.get()) ? *start : *until;
  return CALTimeRange(start->dateByAddingYears(0, 0, -1, 0, 0, 0).get(),
                      last.dateByAddingYears(0, 0, 1, 0, 0, 0).get());
}

CALDateList CALEventExploder::datesProducedForRecurrence(const Dictionary& recurrence, const Dictionary& event) {
  if (!dateOf(event, kCalendarsEventStartDate)) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "Event without Start Date: {}", event);
    return {};
  }
  if (!dateOf(recurrence, kCalendarsRecurrenceUntil)) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "Recurrence without Count nor Until date: {}", recurrence);
    return {};
  }
  CALEventExploder exploder(event, recurrence);
  const std::optional<CALTimeRange> range = _boundedRecurrenceRange(recurrence, event, exploder.allDay());
  if (!range) return {};
  return exploder.produceDatesForTimeRange(*range, nullptr, std::string(), true);
}

CALDateRef CALEventExploder::lastDateProducedForRecurrence(const Dictionary& recurrence, const Dictionary& event) {
  const CalendarDate* startValue = dateOf(event, kCalendarsEventStartDate);
  if (!startValue) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "Event without Start Date: {}", event);
    return nullptr;
  }
  if (!dateOf(recurrence, kCalendarsRecurrenceUntil)) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "Recurrence without Count nor Until date: {}", recurrence);
    return nullptr;
  }
  CALEventExploder exploder(event, recurrence);
  const std::optional<CALTimeRange> range = _boundedRecurrenceRange(recurrence, event, exploder.allDay());
  const CALDateRef start = CALDate::CALDateFromCalendarDate(*startValue, exploder.allDay());
  if (!range || !QVT_CHECK(start)) return nullptr;
  return exploder._rule->lastOccurrenceOnTimeRange(*range, *start);
}

Dictionary CALEventExploder::convertRuleFromUntilDateToCount(Dictionary recurrence, const Dictionary& event) {
  if (!recurrence.contains(kCalendarsRecurrenceUntil)) return recurrence;
  if (!event.contains(kCalendarsEventStartDate)) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "start date for event {} !", event);
    return recurrence;
  }
  recurrence.set(kCalendarsRecurrenceCount,
                 static_cast<std::int64_t>(datesProducedCountForRecurrence(recurrence, event)));
  recurrence.remove(kCalendarsRecurrenceUntil);
  return recurrence;
}

Dictionary CALEventExploder::convertRuleFromUntilDateToLastOcurrenceDate(Dictionary recurrence,
                                                                         const Dictionary& event) {
  if (!recurrence.contains(kCalendarsRecurrenceUntil)) return recurrence;
  if (!event.contains(kCalendarsEventStartDate)) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "start date for event {} !", event);
    return recurrence;
  }
  // Only the last date is needed: it is found from the until date backwards.
  if (const CALDateRef last = lastDateProducedForRecurrence(recurrence, event))
    recurrence.set(kCalendarsRecurrenceUntil, untilValueFor(*last, event.get(kCalendarsEventAllDay).boolValue()));
  return recurrence;
}

Dictionary CALEventExploder::convertRuleFromCountToUntilDate(Dictionary recurrence, const Dictionary& event) {
  const CalendarDate* startValue = dateOf(event, kCalendarsEventStartDate);
  if (!startValue) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "event with no start date: {}", event);
    return recurrence;
  }
  const Value countValue = recurrence.get(kCalendarsRecurrenceCount);
  if (countValue.isNull()) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "no count");
    return recurrence;
  }
  const std::int64_t count = countValue.integerIfNumeric().value_or(0);
  if (count < 1) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "count negative: {}", countValue);
    return recurrence;
  }
  static const std::map<std::string, double> periodDays{
      {"daily", 1}, {"weekly", 7}, {"monthly", 31}, {"yearly", 366}};
  const Value frequency = recurrence.get(kCalendarsRecurrenceFrequency);
  const auto period = periodDays.find(frequency.stringValue());
  if (!frequency.isString() || period == periodDays.end()) {
    QVT_LOG(kLogWarning, exploderLogDomain(), "incorrect recur type: {}", describe(frequency));
    return recurrence;
  }
  double span = period->second * static_cast<double>(count) * 86400;
  if (const Value interval = recurrence.get(kCalendarsRecurrenceInterval); !interval.isNull())
    span *= static_cast<double>(interval.integerIfNumeric().value_or(1));

  CALEventExploder exploder(event, recurrence);
  const CALDateRef start = CALDate::CALDateFromCalendarDate(*startValue, exploder.allDay());
  if (!QVT_CHECK(start)) return recurrence;
  // Estimates that grow past the supported years stop at their end.
  const CALDateRef farthest = CALDateTime::dateWithYear(static_cast<std::int32_t>(kCALCDateLastYear + 1), 1, 1, 0,
                                                        0, 0, TimeZone::timeZoneWithName("GMT"));
  CALDateRef lastOccurrence;
  for (int attempt = 0; attempt < 10 && !lastOccurrence; ++attempt) {
    const double toFarthest = farthest->timeIntervalSinceDate(*start);
    CALDateRef end = start->dateByAddingRawInterval(std::min(span, toFarthest));
    const CALDateList dates =
        exploder.produceDatesForTimeRange(CALTimeRange(start.get(), end.get()), nullptr, std::string(), true);
    if (static_cast<std::int64_t>(dates.size()) >= count) {
      lastOccurrence = dates[static_cast<std::size_t>(count - 1)];
      break;
    }
    // The range already ran to the last supported year: a longer one would
    // give the same dates, and each try expands the rule over millennia.
    if (span >= toFarthest) break;
    if (!dates.empty()) {
      QVT_LOG(kLogInfo, exploderLogDomain(), "not enought result {} over {}", dates.size(), count);
      span *= 2.0 * static_cast<double>(count) / static_cast<double>(dates.size());
    } else {
      QVT_LOG(kLogInfo, exploderLogDomain(), "no result!");
      span *= 10;
    }
    QVT_LOG(kLogInfo, exploderLogDomain(), "one more try");
  }
  if (lastOccurrence) {
    recurrence.set(kCalendarsRecurrenceUntil, untilValueFor(*lastOccurrence, exploder.allDay()));
    recurrence.remove(kCalendarsRecurrenceCount);
  }
  return recurrence;
}

}  // namespace pc
