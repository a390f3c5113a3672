#include "calcore/CALRecurrenceRule.h"

#include <algorithm>

#include <fmt/format.h>

#include "async/Log.h"
#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/calcdate.h"
#include "platform/Value.h"

namespace pc {

namespace {

const std::string& ruleLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", phcSimplifyFileName(__FILE__));
  return domain;
}

// 0 = Sunday; absolute day 0 is a Monday.
int weekdayOfDay(std::int64_t day) { return static_cast<int>((day + 1) % 7); }

CALCDate civilDay(std::int64_t day) {
  CALCDate date{0, 0, 0, 1, 1, 1};
  calcdate_fill_ymd_with_absoluteday(&date, static_cast<std::uint32_t>(day));
  return date;
}

int daysInMonth(std::int64_t year, std::int64_t month) {
  return calcdate_day_in_month[calcdate_is_leap_year(year) ? 1 : 0][month];
}

std::int64_t firstDayOfMonth(std::int64_t year, std::int64_t month) {
  return calcdate_absoluteday_for_year(static_cast<std::int32_t>(year)) +
         calcdate_day_in_year_for_month[calcdate_is_leap_year(year) ? 1 : 0][month];
}

bool sameZone(const TimeZonePtr& a, const TimeZonePtr& b) {
  if (!a || !b) return a == b;
  return *a == *b;
}

// Equal dates of the same kind in the same zone: expansions from them agree.
bool sameRecurrenceStart(const CALDate& a, const CALDate& b) {
  return a.isEqual(&b) && sameZone(a.timeZone(), b.timeZone());
}

bool bounded(const CALTimeRange& span) { return span.startDate() && span.endDate(); }

// The rule parts mostly produce their dates in order already: a list that is
// sorted is left as it is, which spares the sort its buffer.
void sortDates(CALDateList& dates) {
  const auto before = [](const CALDateRef& a, const CALDateRef& b) { return a->compare(b.get()) < 0; };
  if (std::is_sorted(dates.begin(), dates.end(), before)) return;
  std::stable_sort(dates.begin(), dates.end(), before);
}

void sortWithoutDuplicates(CALDateList& dates) {
  sortDates(dates);
  dates.erase(std::unique(dates.begin(), dates.end(),
                          [](const CALDateRef& a, const CALDateRef& b) { return a->isEqualToDate(b.get()); }),
              dates.end());
}

void sortByStart(CALTimeRangeList& spans) {
  const auto before = [](const CALTimeRange& a, const CALTimeRange& b) { return a.compareStartDate(b) < 0; };
  if (std::is_sorted(spans.begin(), spans.end(), before)) return;
  std::stable_sort(spans.begin(), spans.end(), before);
}

bool containsDate(const CALDateList& dates, const CALDate& date) {
  return std::any_of(dates.begin(), dates.end(),
                     [&](const CALDateRef& d) { return d->isEqualToDate(&date); });
}

bool sameDate(const CALDate* a, const CALDate* b) {
  if (!a || !b) return a == b;
  return a->isEqual(b);
}

bool dateBefore(const CALDateRef& a, const CALDateRef& b) { return a->compare(b.get()) < 0; }

// A BYxxx list as the expansion reads it: order and repetition do not count.
CALRulePartList asSet(CALRulePartList list) {
  if (list) {
    std::sort(list->begin(), list->end());
    list->erase(std::unique(list->begin(), list->end()), list->end());
  }
  return list;
}

CALWeekDayList asSet(CALWeekDayList list) {
  if (list) {
    std::sort(list->begin(), list->end(), [](const CALWeekDayNumber& a, const CALWeekDayNumber& b) {
      return a.day() != b.day() ? a.day() < b.day() : a.number() < b.number();
    });
    list->erase(std::unique(list->begin(), list->end()), list->end());
  }
  return list;
}

// The first day of week 1 of `year`: the week (from `weekStart`) that has
// four days or more in the year.
std::int64_t firstDayOfWeekOne(std::int64_t year, int weekStart) {
  const std::int64_t january1 = calcdate_absoluteday_for_year(static_cast<std::int32_t>(year));
  const int daysIntoWeek = (weekdayOfDay(january1) - weekStart + 7) % 7;
  return january1 - daysIntoWeek + (7 - daysIntoWeek >= 4 ? 0 : 7);
}

}  // namespace

std::string descriptionOfDates(const CALDateList& dates) {
  Array descriptions;
  for (const CALDateRef& date : dates) descriptions.add(date->description());
  return descriptions.description();
}

CALRecurrenceRule::~CALRecurrenceRule() = default;

std::string CALRecurrenceRule::description() const {
  return Object::description() + fmt::format("{{CALREC:{}}}", className());
}

// --- Fields ---------------------------------------------------------------------

CALRecurrenceRule& CALRecurrenceRule::setRange(std::optional<CALTimeRange> range) {
  _range = std::move(range);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setCount(int count) {
  _count = count;
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setInterval(int interval) {
  _interval = interval;
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setWeekStart(int day) {
  _weekStart = day;
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setUntilDate(const CALDate* date) {
  _untilDate = date ? date->copy() : nullptr;
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByMonth(CALRulePartList list) {
  _byMonth = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByWeekno(CALRulePartList list) {
  _byWeekno = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByYearDay(CALRulePartList list) {
  _byYearDay = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByMonthDay(CALRulePartList list) {
  _byMonthDay = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByDay(CALWeekDayList list) {
  _byDay = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByHour(CALRulePartList list) {
  _byHour = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setByMinute(CALRulePartList list) {
  _byMinute = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setBySecond(CALRulePartList list) {
  _bySecond = std::move(list);
  _partsChanged();
  return *this;
}
CALRecurrenceRule& CALRecurrenceRule::setBySetpos(CALRulePartList list) {
  _bySetpos = std::move(list);
  _partsChanged();
  return *this;
}

// --- Day arithmetic ---------------------------------------------------------------

CALCDate CALRecurrenceRule::_localFields(const CALDate& date) {
  CALCDate local;
  date.getCDateInTimeZone(&local);
  return local;
}

std::int64_t CALRecurrenceRule::_localDay(const CALDate& date) {
  const CALCDate local = _localFields(date);
  return calcdate_absoluteday(&local);
}

CALDateRef CALRecurrenceRule::_dateOnDay(std::int64_t day, int hour, int minute, int second) {
  const CALCDate d = civilDay(day);
  return CALFloatingDateTime::dateWithYear(static_cast<std::int32_t>(d.year), static_cast<std::uint32_t>(d.month),
                                           static_cast<std::uint32_t>(d.day), hour, minute, second);
}

CALDateRef CALRecurrenceRule::_occurrenceOnDay(const CALDate& start, std::int64_t day, int hour,
                                               int minute, int second) {
  const CALCDate d = civilDay(day);
  const auto year = static_cast<std::int32_t>(d.year);
  const auto month = static_cast<std::uint32_t>(d.month), dayOfMonth = static_cast<std::uint32_t>(d.day);
  if (dynamic_cast<const CALDateOnly*>(&start)) return CALDateOnly::dateOnlyWithYear(year, month, dayOfMonth);
  if (dynamic_cast<const CALFloatingDateTime*>(&start))
    return CALFloatingDateTime::dateWithYear(year, month, dayOfMonth, hour, minute, second);
  return CALDateTime::dateWithYear(year, month, dayOfMonth, hour, minute, second, start.timeZone());
}

CALTimeRange CALRecurrenceRule::_span(CALDateRef start, CALDateRef end) {
  // Fresh dates: the range may hold them without copies.
  CALMutableTimeRange span(nullptr, nullptr);
  span.setStartDateNoCopy(std::move(start), std::move(end));
  return span;
}

CALTimeRange CALRecurrenceRule::_daysSpan(std::int64_t firstDay, std::int64_t lastDay) {
  return _span(_dateOnDay(firstDay, 0, 0, 0), _dateOnDay(lastDay, 23, 59, 59));
}

// --- Occurrences ------------------------------------------------------------------

CALTimeRange CALRecurrenceRule::_requestFor(const CALTimeRange& range, const CALDate& start) const {
  if (!dynamic_cast<const CALFloatingDateTime*>(&start)) return _requestFrom(range, start);
  auto floating = [](const CALDate* d) -> CALDateRef {
    return d ? CALDate::dateWithDate<CALFloatingDateTime>(*d) : nullptr;
  };
  return _requestFrom(CALTimeRange(floating(range.startDate()).get(), floating(range.endDate()).get()), start);
}

CALDateList CALRecurrenceRule::occurrencesOnTimeRange(const CALTimeRange& range,
                                                      const CALDate& recurrenceStart) {
  const CALTimeRange request = _requestFor(range, recurrenceStart);
  // Endless occurrences cannot be listed, nor the range marked as cached.
  if (!request.endDate() && !_hasOwnEnd(recurrenceStart))
    return realOccurrencesOnTimeRange(request, recurrenceStart);
  if (!isTimeRangeCached(request, recurrenceStart)) addDatesOnTimeRange(request, recurrenceStart);
  return cachedDatesOnTimeRange(request);
}

CALTimeRange CALRecurrenceRule::_requestFrom(const CALTimeRange& range, const CALDate& start) const {
  // Nothing occurs before the recurrence start.
  if (range.startDate()) return range;
  return CALTimeRange(&start, range.endDate());
}

bool CALRecurrenceRule::_hasOwnEnd(const CALDate& start) {
  return _untilDate || (_count >= 1 && cachedEndDateForRecurrenceStart(start));
}

namespace {

// A timed start reads a range in its own zone; a day start reads it as it is.
CALTimeRange inStartZone(const CALTimeRange& range, const CALDate& start) {
  if (!dynamic_cast<const CALDateTime*>(&start)) return range;
  auto moved = [&](const CALDate* date) -> CALDateRef {
    if (!date) return nullptr;
    CALDateRef copy = date->copy();
    copy->setTimeZone(start.timeZone());
    return copy;
  };
  return CALTimeRange(moved(range.startDate()).get(), moved(range.endDate()).get());
}

}  // namespace

CALDateList CALRecurrenceRule::realOccurrencesOnTimeRange(const CALTimeRange& requested,
                                                          const CALDate& start) {
  const CALTimeRange range = inStartZone(requested, start);
  CALDateList dates;
  // Generation begins at the later of the range's start and the recurrence
  // start, and ends with the rule or the range, whichever ends first; an
  // open range on an endless rule generates nothing but the start.
  const CALDate* generationStart =
      range.startDate() && range.startDate()->isAfter(&start) ? range.startDate() : &start;
  const CALTimeRange requestedPart(generationStart, range.endDate());
  const CALDateRef end = realEndDateOnTimeRange(range, start);
  const bool excludingEnd = end && range.endDate() && end->isEqualToDate(range.endDate());
  if (end && generationStart->isBeforeOrEqual(end.get())) {
    const CALTimeRange window(generationStart, end.get());
    for (const CALTimeRange& period : _matchingPeriods({window}, start)) {
      CALDateList found = _occurrencesInPeriod(period, start);
      dates.insert(dates.end(), found.begin(), found.end());
    }
    // Days of the year past its end (BYYEARDAY 0) may meet the next year's.
    sortWithoutDuplicates(dates);
    dates = filterOccurrences(dates, window, excludingEnd);
  }
  addRecStartDateIfNeeded(dates, requestedPart, start);
  return dates;
}

CALDateRef CALRecurrenceRule::lastOccurrenceOnTimeRange(const CALTimeRange& range,
                                                     const CALDate& recurrenceStart) {
  const CALTimeRange request = _requestFor(range, recurrenceStart);
  if (!request.endDate() && !_hasOwnEnd(recurrenceStart)) {
    const CALDateList dates = realOccurrencesOnTimeRange(request, recurrenceStart);
    return dates.empty() ? nullptr : dates.back();
  }
  // The full expansion answers the sorted real occurrences that lie in the
  // request (end excluded). The real occurrences end with the rule or before
  // the request's end, so the last one is the answer unless it lies before
  // the request; the listed occurrences settle any other case.
  CALDateRef last = _lastRealOccurrence(request, recurrenceStart);
  if (!last || last->isBefore(request.startDate())) return nullptr;
  if (!request.endDate() || last->isBefore(request.endDate())) return last;
  CALDateList dates = realOccurrencesOnTimeRange(request, recurrenceStart);
  sortDates(dates);
  for (auto date = dates.rbegin(); date != dates.rend(); ++date)
    if (request.includesDateExcludingEndDate(date->get())) return *date;
  return nullptr;
}

CALDateRef CALRecurrenceRule::_lastRealOccurrence(const CALTimeRange& requested, const CALDate& start) {
  // The same bounds as realOccurrencesOnTimeRange().
  const CALTimeRange range = inStartZone(requested, start);
  const CALDate* generationStart =
      range.startDate() && range.startDate()->isAfter(&start) ? range.startDate() : &start;
  const CALDateRef end = realEndDateOnTimeRange(range, start);
  const bool excludingEnd = end && range.endDate() && end->isEqualToDate(range.endDate());
  if (end && generationStart->isBeforeOrEqual(end.get()))
    if (CALDateRef last = _lastOccurrenceInWindow(CALTimeRange(generationStart, end.get()), start, excludingEnd))
      return last;
  // Every generated date comes at or after the start: the start is the last
  // only when nothing was generated.
  if (CALTimeRange(generationStart, range.endDate()).includesDateExcludingEndDate(&start)) return start.copy();
  return nullptr;
}

CALDateRef CALRecurrenceRule::_lastOccurrenceInWindow(const CALTimeRange& window, const CALDate& start,
                                                      bool excludingEnd) const {
  std::int64_t first = 0, last = 0;
  if (!_walkBounds({window}, start, &first, &last)) return nullptr;
  // A period's dates may spill a few days past its end (a yearly rule's
  // last week, or its day 0, the next 1 January); a week is the most.
  constexpr std::int64_t kSpillDays = 8;
  const std::int64_t step = std::max(1, _interval);
  CALDateRef best;
  std::int64_t bestDay = 0;
  for (std::int64_t index = first + (last - first) / step * step; index >= first; index -= step) {
    const CALTimeRange period = _periodSpan(index);
    if (best && _localDay(*period.endDate()) + kSpillDays < bestDay) break;
    if (!window.intersectsTimeRange(period)) continue;
    const CALDateList dates = _occurrencesInPeriod(period, start);
    // Sorted: the latest date inside the window is the last one the filter keeps.
    for (auto date = dates.rbegin(); date != dates.rend(); ++date) {
      if (!(excludingEnd ? window.includesDateExcludingEndDate(date->get()) : window.includesDate(date->get())))
        continue;
      if (!best || best->isBefore(date->get())) {
        best = *date;
        bestDay = _localDay(*best);
      }
      break;
    }
  }
  return best;
}

CALDateList CALRecurrenceRule::_occurrencesInPeriod(const CALTimeRange& period,
                                                    const CALDate& start) const {
  CALDateList dates = generateTimeRulePartOnArray(_daySpansOfPeriod(period, start), start);
  sortWithoutDuplicates(dates);
  return filterBySetpos(dates);
}

bool CALRecurrenceRule::_walkBounds(const CALTimeRangeList& spans, const CALDate& start, std::int64_t* first,
                                    std::int64_t* last) const {
  const CALDate* earliest = nullptr;
  const CALDate* latest = nullptr;
  for (const CALTimeRange& span : spans) {
    if (!bounded(span)) return false;
    if (!earliest || span.startDate()->isBefore(earliest)) earliest = span.startDate();
    if (!latest || span.endDate()->isAfter(latest)) latest = span.endDate();
  }
  if (!earliest) return false;
  const std::int64_t step = std::max(1, _interval);
  const std::int64_t origin = _periodIndex(start);
  const std::int64_t from = _periodIndex(*earliest);
  *last = _periodIndex(*latest);
  if (_walkEndsStrictly() && !_periodSpan(*last).startDate()->isBefore(latest)) --*last;
  // The last period of the interval's grid before the spans.
  *first = from > origin ? origin + (from - origin) / step * step : origin;
  return *first <= *last;
}

CALTimeRangeList CALRecurrenceRule::_walkPeriods(const CALTimeRangeList& spans, const CALDate& start) const {
  CALTimeRangeList periods;
  std::int64_t first = 0, last = 0;
  if (!_walkBounds(spans, start, &first, &last)) return periods;
  const std::int64_t step = std::max(1, _interval);
  for (std::int64_t index = first; index <= last; index += step) {
    CALTimeRange period = _periodSpan(index);
    if (std::any_of(spans.begin(), spans.end(),
                    [&](const CALTimeRange& span) { return span.intersectsTimeRange(period); }))
      periods.push_back(std::move(period));
  }
  return periods;
}

bool CALRecurrenceRule::ruleMatchesDate(const CALDate& date) const {
  // A period's days may spill into the next or previous period (weeks and
  // days of the year at a year's end).
  const std::int64_t period = _periodIndex(date);
  for (std::int64_t index : {period, period - 1, period + 1})
    if (containsDate(_occurrencesInPeriod(_periodSpan(index), date), date)) return true;
  return false;
}

CALTimeRange CALRecurrenceRule::acceptableMoveToTimeRangeForDate(const CALDate& date) const {
  return _periodSpan(_periodIndex(date));
}

std::unique_ptr<CALRecurrenceRule> CALRecurrenceRule::proposedRuleForMovingFrom(const CALDate& from,
                                                                                const CALDate& to,
                                                                                bool* changes) const {
  std::unique_ptr<CALRecurrenceRule> proposed = _copyOfParts();
  const CALCDate a = _localFields(from), b = _localFields(to);
  const int aLength = static_cast<int>(calcdate_daycount_in_month(&a));
  const int bLength = static_cast<int>(calcdate_daycount_in_month(&b));
  // A value naming `from` becomes the same value for `to`, counted from the
  // same end.
  auto replace = [](CALRulePartList& list, int fromValue, int fromValueFromEnd, int toValue, int toValueFromEnd) {
    if (!list) return;
    for (int& value : *list) {
      if (value == fromValue) value = toValue;
      else if (value == fromValueFromEnd) value = toValueFromEnd;
    }
  };
  replace(proposed->_byMonthDay, static_cast<int>(a.day), static_cast<int>(a.day) - aLength - 1,
          static_cast<int>(b.day), static_cast<int>(b.day) - bLength - 1);
  replace(proposed->_byMonth, static_cast<int>(a.month), 0, static_cast<int>(b.month), 0);
  auto yearDay = [](const CALCDate& d) {
    return static_cast<int>(calcdate_absoluteday(&d) - calcdate_absoluteday_for_year(static_cast<std::int32_t>(d.year)) + 1);
  };
  auto yearLength = [](const CALCDate& d) { return calcdate_is_leap_year(d.year) ? 366 : 365; };
  replace(proposed->_byYearDay, yearDay(a), yearDay(a) - yearLength(a) - 1, yearDay(b), yearDay(b) - yearLength(b) - 1);
  if (proposed->_byDay) {
    // Ordinal days keep counting from the same end of the month.
    const int aRank = static_cast<int>((a.day - 1) / 7 + 1), aRankFromEnd = -static_cast<int>((aLength - a.day) / 7 + 1);
    const int bRank = static_cast<int>((b.day - 1) / 7 + 1), bRankFromEnd = -static_cast<int>((bLength - b.day) / 7 + 1);
    for (CALWeekDayNumber& entry : *proposed->_byDay) {
      if (entry.day() != from.dayOfWeek()) continue;
      if (entry.number() == 0 || entry.number() == aRank || entry.number() == aRankFromEnd) {
        entry.setDay(to.dayOfWeek());
        if (entry.number() != 0) entry.setNumber(entry.number() > 0 ? bRank : bRankFromEnd);
      }
    }
  }
  if (changes) *changes = !proposed->_hasSameParts(*this);
  return proposed;
}

std::unique_ptr<CALRecurrenceRule> CALRecurrenceRule::_copyOfParts() const {
  std::unique_ptr<CALRecurrenceRule> copy = _emptyCopy();
  copy->setCount(_count).setInterval(_interval).setWeekStart(_weekStart).setUntilDate(_untilDate.get());
  copy->setByMonth(_byMonth).setByWeekno(_byWeekno).setByYearDay(_byYearDay).setByMonthDay(_byMonthDay);
  copy->setByDay(_byDay).setByHour(_byHour).setByMinute(_byMinute).setBySecond(_bySecond);
  copy->setBySetpos(_bySetpos).setRange(_range);
  return copy;
}

bool CALRecurrenceRule::_hasSameParts(const CALRecurrenceRule& o) const {
  return className() == o.className() && _count == o._count && _interval == o._interval &&
         weekStart() == o.weekStart() && sameDate(_untilDate.get(), o._untilDate.get()) &&
         asSet(_byMonth) == asSet(o._byMonth) && asSet(_byWeekno) == asSet(o._byWeekno) &&
         asSet(_byYearDay) == asSet(o._byYearDay) && asSet(_byMonthDay) == asSet(o._byMonthDay) &&
         asSet(_byDay) == asSet(o._byDay) && asSet(_byHour) == asSet(o._byHour) &&
         asSet(_byMinute) == asSet(o._byMinute) && asSet(_bySecond) == asSet(o._bySecond) &&
         asSet(_bySetpos) == asSet(o._bySetpos);
}

void CALRecurrenceRule::_partsChanged() {
  invalidateCache();
  _ruleCachedEndDates.clear();
}

bool CALRecurrenceRule::isEqualToRule(const CALRecurrenceRule& other,
                                      const CALDate* consideringStartDate) const {
  if (!consideringStartDate) return _hasSameParts(other);
  std::unique_ptr<CALRecurrenceRule> mine = _copyOfParts(), theirs = other._copyOfParts();
  _writeOutDefaults(*mine, *consideringStartDate);
  other._writeOutDefaults(*theirs, *consideringStartDate);
  return mine->_hasSameParts(*theirs);
}

// --- Counted rules ------------------------------------------------------------------

CALDateRef CALRecurrenceRule::_lookUpEndDate(const CALDate& start, bool* found) const {
  for (const auto& [recurrenceStart, endDate] : _ruleCachedEndDates) {
    if (sameRecurrenceStart(*recurrenceStart, start)) {
      *found = true;
      return endDate;
    }
  }
  *found = false;
  return nullptr;
}

CALDateRef CALRecurrenceRule::cachedEndDateForRecurrenceStart(const CALDate& start) {
  bool found = false;
  CALDateRef endDate = _lookUpEndDate(start, &found);
  if (found) return endDate;
  // Stored first: the expansion the search runs asks again and must see no end.
  _ruleCachedEndDates.emplace_back(start.copy(), nullptr);
  computeAndCacheEndDateForRecurrenceStart(start);
  return _lookUpEndDate(start, &found);
}

void CALRecurrenceRule::computeAndCacheEndDateForRecurrenceStart(const CALDate& start) {
  CALDateRef lastOccurrence;
  std::int64_t remaining = _count;
  for (std::int64_t year = _localFields(start).year;
       remaining > 0 && !lastOccurrence && year < kCALRecurrenceCountSearchEndYear; ++year) {
    // The year up to one second before the next one. The expansion excludes
    // a range's end, so an occurrence at 23:59:59 on 31 December is not
    // counted in any year: the rule then ends one occurrence later.
    const CALDateRef nextYear =
        CALDateTime::dateWithYear(static_cast<std::int32_t>(year + 1), 1, 1, 0, 0, 0, start.timeZone());
    const CALTimeRange yearRange(
        CALDateTime::dateWithYear(static_cast<std::int32_t>(year), 1, 1, 0, 0, 0, start.timeZone()).get(),
        nextYear->dateByAddingRawInterval(-1).get());
    const CALDateList dates = realOccurrencesOnTimeRange(yearRange, start);
    if (static_cast<std::int64_t>(dates.size()) >= remaining)
      lastOccurrence = dates[static_cast<std::size_t>(remaining - 1)];
    else
      remaining -= static_cast<std::int64_t>(dates.size());
  }
  for (auto& entry : _ruleCachedEndDates) {
    if (sameRecurrenceStart(*entry.first, start)) {
      entry.second = lastOccurrence;
      return;
    }
  }
  _ruleCachedEndDates.emplace_back(start.copy(), lastOccurrence);
}

CALDateRef CALRecurrenceRule::realEndDateOnTimeRange(const CALTimeRange& range, const CALDate& start) {
  const CALDate* rangeEnd = range.endDate();
  auto earlier = [rangeEnd](const CALDate* date) -> CALDateRef {
    const CALDate* chosen = date && (!rangeEnd || date->isBeforeOrEqual(rangeEnd)) ? date : rangeEnd;
    return chosen ? chosen->copy() : nullptr;
  };
  if (_untilDate) return earlier(_untilDate.get());
  if (_count < 1) return earlier(nullptr);
  return earlier(cachedEndDateForRecurrenceStart(start).get());
}

// --- Rule-part generators --------------------------------------------------------------

CALTimeRangeList CALRecurrenceRule::generateByMonthOnTimeRange(const CALTimeRange& span,
                                                               const CALDate& start) const {
  CALTimeRangeList spans;
  if (!bounded(span)) return spans;
  const std::vector<int> months = _byMonth.value_or(std::vector<int>{start.monthOfYear()});
  for (std::int64_t year = _localFields(*span.startDate()).year;
       year <= _localFields(*span.endDate()).year; ++year) {
    for (int month : months) {
      if (month < 1 || month > 12) continue;
      const std::int64_t first = firstDayOfMonth(year, month);
      spans.push_back(_daysSpan(first, first + daysInMonth(year, month) - 1));
    }
  }
  return spans;
}

int CALRecurrenceRule::numberOfWeeksInYear(int year) const {
  return static_cast<int>((firstDayOfWeekOne(year + 1, weekStart()) - firstDayOfWeekOne(year, weekStart())) / 7);
}

std::optional<CALTimeRange> CALRecurrenceRule::week(int week, int year) const {
  const int weekCount = numberOfWeeksInYear(year);
  if (week == 0 || week > weekCount || week < -weekCount) return std::nullopt;
  const std::int64_t first = firstDayOfWeekOne(year, weekStart()) + 7 * (week > 0 ? week - 1 : weekCount + week);
  return _daysSpan(first, first + 6);
}

CALTimeRangeList CALRecurrenceRule::generateByWeeknoOnTimeRange(const CALTimeRange& span,
                                                                const CALDate& /*start*/) const {
  CALTimeRangeList spans;
  if (!_byWeekno || !bounded(span)) return spans;
  for (int year = static_cast<int>(_localFields(*span.startDate()).year);
       year <= _localFields(*span.endDate()).year; ++year) {
    for (int number : *_byWeekno)
      if (std::optional<CALTimeRange> numbered = week(number, year)) spans.push_back(std::move(*numbered));
  }
  return spans;
}

CALTimeRangeList CALRecurrenceRule::generateByYearDayOnTimeRange(const CALTimeRange& span,
                                                                 const CALDate& start) const {
  CALTimeRangeList spans;
  if (!bounded(span)) return spans;
  const CALCDate local = _localFields(start);
  const int startYearDay = static_cast<int>(
      calcdate_absoluteday(&local) - calcdate_absoluteday_for_year(static_cast<std::int32_t>(local.year)) + 1);
  const std::vector<int> days = _byYearDay.value_or(std::vector<int>{startYearDay});
  for (std::int64_t year = _localFields(*span.startDate()).year;
       year <= _localFields(*span.endDate()).year; ++year) {
    for (int value : days) {
      if (value < -366 || value > 366) continue;
      // 0 and below count back from 1 January of the next year: 0 is that day.
      const std::int64_t day =
          value >= 1 ? calcdate_absoluteday_for_year(static_cast<std::int32_t>(year)) + value - 1
                     : calcdate_absoluteday_for_year(static_cast<std::int32_t>(year + 1)) + value;
      spans.push_back(_daysSpan(day, day));
    }
  }
  return spans;
}

CALTimeRangeList CALRecurrenceRule::generateByMonthDayOnTimeRange(const CALTimeRange& span,
                                                                  const CALDate& start) const {
  CALTimeRangeList spans;
  if (!bounded(span)) return spans;
  const std::vector<int> days = _byMonthDay.value_or(std::vector<int>{start.dayOfMonth()});
  const CALCDate from = _localFields(*span.startDate()), to = _localFields(*span.endDate());
  for (std::int64_t month = from.year * 12 + from.month - 1; month <= to.year * 12 + to.month - 1; ++month) {
    const std::int64_t year = month / 12, monthOfYear = month % 12 + 1;
    const std::int64_t first = firstDayOfMonth(year, monthOfYear);
    const int length = daysInMonth(year, monthOfYear);
    for (int value : days) {
      if (value == 0 || value > length || value < -length) continue;
      const std::int64_t day = value > 0 ? first + value - 1 : first + length + value;
      spans.push_back(_daysSpan(day, day));
    }
  }
  return spans;
}

int CALRecurrenceRule::numberOfDaysUntilNextOccurrenceOfDay(int day, const CALDate& date) {
  return (day - date.dayOfWeek() + 7) % 7;
}

int CALRecurrenceRule::numberOfDaysUntilPreviousOccurrenceOfDay(int day, const CALDate& date) {
  return -((date.dayOfWeek() - day + 7) % 7);
}

void CALRecurrenceRule::addPeriodicDay(int day, CALTimeRangeList& array, const CALTimeRange& span) const {
  if (!bounded(span)) return;
  const std::int64_t first = _localDay(*span.startDate()), last = _localDay(*span.endDate());
  for (std::int64_t d = first + (day - weekdayOfDay(first) + 7) % 7; d <= last; d += 7)
    array.push_back(_daysSpan(d, d));
}

CALTimeRangeList CALRecurrenceRule::generatePeriodicByDayOnTimeRange(const CALTimeRange& span,
                                                                     const CALDate& start) const {
  CALTimeRangeList spans;
  const std::vector<CALWeekDayNumber> days =
      _byDay.value_or(std::vector<CALWeekDayNumber>{CALWeekDayNumber(start.dayOfWeek(), 0)});
  for (const CALWeekDayNumber& entry : days)
    if (entry.number() == 0) addPeriodicDay(entry.day(), spans, span);
  sortByStart(spans);
  return spans;
}

CALTimeRangeList CALRecurrenceRule::generatePositionalByDayOnTimeRange(const CALTimeRange& span,
                                                                       const CALDate& /*start*/) const {
  CALTimeRangeList spans;
  if (!_byDay || !bounded(span)) return spans;
  for (const CALWeekDayNumber& entry : *_byDay) {
    const int n = entry.number();
    if (n == 0) continue;
    const std::int64_t day =
        n > 0 ? _localDay(*span.startDate()) +
                    numberOfDaysUntilNextOccurrenceOfDay(entry.day(), *span.startDate()) + 7 * n - 7
              : _localDay(*span.endDate()) +
                    numberOfDaysUntilPreviousOccurrenceOfDay(entry.day(), *span.endDate()) + 7 * n + 7;
    spans.push_back(_daysSpan(day, day));
  }
  return spans;
}

CALTimeRangeList CALRecurrenceRule::generateByDayOnTimeRange(const CALTimeRange& span,
                                                             const CALDate& start) const {
  CALTimeRangeList spans = generatePeriodicByDayOnTimeRange(span, start);
  CALTimeRangeList positional = generatePositionalByDayOnTimeRange(span, start);
  spans.insert(spans.end(), positional.begin(), positional.end());
  sortByStart(spans);
  return spans;
}

CALTimeRangeList CALRecurrenceRule::generateByHourOnTimeRange(const CALTimeRange& span,
                                                              const CALDate& start) const {
  CALTimeRangeList spans;
  if (!bounded(span)) return spans;
  const std::vector<int> hours = _byHour.value_or(std::vector<int>{start.hourOfDay()});
  for (int hour : hours) {
    if (hour < 0 || hour > 23) continue;
    for (std::int64_t day = _localDay(*span.startDate()); day <= _localDay(*span.endDate()); ++day)
      spans.push_back(_span(_dateOnDay(day, hour, 0, 0), _dateOnDay(day, hour, 59, 59)));
  }
  sortByStart(spans);
  return spans;
}

CALTimeRangeList CALRecurrenceRule::generateByMinuteOnTimeRange(const CALTimeRange& span,
                                                                const CALDate& start) const {
  CALTimeRangeList spans;
  if (!bounded(span)) return spans;
  const std::vector<int> minutes = _byMinute.value_or(std::vector<int>{start.minuteOfHour()});
  // Every hour the span touches, counted from absolute day 0.
  auto hourIndex = [](const CALDate& date) { return _localDay(date) * 24 + date.hourOfDay(); };
  for (std::int64_t hour = hourIndex(*span.startDate()); hour <= hourIndex(*span.endDate()); ++hour) {
    for (int minute : minutes) {
      if (minute < 0 || minute > 59) continue;
      spans.push_back(_span(_dateOnDay(hour / 24, hour % 24, minute, 0),
                            _dateOnDay(hour / 24, hour % 24, minute, 59)));
    }
  }
  sortByStart(spans);
  return spans;
}

CALDateList CALRecurrenceRule::generateBySecondOnTimeRange(const CALTimeRange& span,
                                                           const CALDate& start) const {
  CALDateList dates;
  if (!bounded(span)) return dates;
  const std::vector<int> seconds = _bySecond.value_or(std::vector<int>{start.secondOfMinute()});
  // Every minute the span touches, counted from absolute day 0.
  auto minuteIndex = [](const CALDate& date) {
    return (_localDay(date) * 24 + date.hourOfDay()) * 60 + date.minuteOfHour();
  };
  for (std::int64_t minute = minuteIndex(*span.startDate()); minute <= minuteIndex(*span.endDate());
       ++minute) {
    for (int second : seconds) {
      if (second < 0 || second > 59) continue;
      dates.push_back(_occurrenceOnDay(start, minute / 1440, minute / 60 % 24, minute % 60, second));
    }
  }
  sortDates(dates);
  return dates;
}

CALDateList CALRecurrenceRule::generateSimpleTimeRuleOnTimeRange(const CALTimeRange& span,
                                                                 const CALDate& start) const {
  CALDateList dates;
  if (!bounded(span)) return dates;
  const CALCDate time = _localFields(start);
  for (std::int64_t day = _localDay(*span.startDate()); day <= _localDay(*span.endDate()); ++day)
    dates.push_back(_occurrenceOnDay(start, day, static_cast<int>(time.hour), static_cast<int>(time.minute),
                                     static_cast<int>(time.second)));
  return dates;
}

// --- Pipeline -------------------------------------------------------------------------

CALTimeRangeList CALRecurrenceRule::applyRulePart(RangeGenerator generator, const CALTimeRangeList& array,
                                                  const CALDate& start) const {
  CALTimeRangeList result;
  result.reserve(array.size());  // most spans keep at least one part
  for (const CALTimeRange& span : array)
    for (const CALTimeRange& generated : (this->*generator)(span, start))
      if (std::optional<CALTimeRange> part = span.intersection(generated)) result.push_back(std::move(*part));
  return result;
}

CALDateList CALRecurrenceRule::applyRulePart(DateGenerator generator, const CALTimeRangeList& array,
                                             const CALDate& start) const {
  CALDateList result;
  result.reserve(array.size());
  for (const CALTimeRange& span : array)
    for (CALDateRef& date : (this->*generator)(span, start))
      if (span.includesDate(date.get())) result.push_back(std::move(date));
  return result;
}

CALDateList CALRecurrenceRule::generateTimeRulePartOnArray(const CALTimeRangeList& array,
                                                           const CALDate& start) const {
  if (lastSpecifiedRulePartOrder() >= kCALRulePartByDayLevel)
    return applyRulePart(&CALRecurrenceRule::generateSimpleTimeRuleOnTimeRange, array, start);
  // A missing hour or minute is the recurrence start's: BYMINUTE=0,30 on a
  // start at 10:15 gives 10:00 and 10:30.
  const CALTimeRangeList hours = applyRulePart(&CALRecurrenceRule::generateByHourOnTimeRange, array, start);
  const CALTimeRangeList minutes = applyRulePart(&CALRecurrenceRule::generateByMinuteOnTimeRange, hours, start);
  return applyRulePart(&CALRecurrenceRule::generateBySecondOnTimeRange, minutes, start);
}

int CALRecurrenceRule::_finestRulePartOrder() const {
  if (_bySecond) return kCALRulePartBySecond;
  if (_byMinute) return kCALRulePartByMinute;
  if (_byHour) return kCALRulePartByHour;
  if (_byYearDay || _byMonthDay || _byDay) return kCALRulePartByDayLevel;
  if (_byWeekno) return kCALRulePartByWeekno;
  if (_byMonth) return kCALRulePartByMonth;
  return 0;
}

int CALRecurrenceRule::lastSpecifiedRulePartOrder() const { return _finestRulePartOrder(); }

CALDateList CALRecurrenceRule::filterBySetpos(const CALDateList& dates) const {
  if (!_bySetpos) return dates;
  CALDateList picked;
  const auto count = static_cast<std::int64_t>(dates.size());
  for (int position : *_bySetpos) {
    const std::int64_t index = position >= 1 ? position - 1 : count + position;
    if (index >= 0 && index < count)
      picked.push_back(dates[static_cast<std::size_t>(index)]);
    else
      QVT_LOG(kLogError, ruleLogDomain(), "filterBySetpos problem for {} (index:{}) and {}", position,
              index, descriptionOfDates(dates));
  }
  sortDates(picked);
  return picked;
}

CALDateList CALRecurrenceRule::filterOccurrences(const CALDateList& dates, const CALTimeRange& range,
                                                 bool excludingEndDate) {
  CALDateList kept;
  for (const CALDateRef& date : dates)
    if (excludingEndDate ? range.includesDateExcludingEndDate(date.get()) : range.includesDate(date.get()))
      kept.push_back(date);
  return kept;
}

void CALRecurrenceRule::addRecStartDateIfNeeded(CALDateList& dates, const CALTimeRange& range,
                                                const CALDate& start) {
  if (range.includesDateExcludingEndDate(&start) && !containsDate(dates, start))
    dates.insert(dates.begin(), start.copy());
}

// --- Simple cache -----------------------------------------------------------------------

void CALRecurrenceRule::invalidateCache() {
  _cachedDates.clear();
  _cachedTimeRange.reset();
  _cachedStartDate = nullptr;
}

void CALRecurrenceRule::addCachedDates(CALDateList added) {
  if (!std::is_sorted(added.begin(), added.end(), dateBefore)) sortDates(added);
  if (added.empty()) return;
  // An extension lies after (or before) what is cached: no date to compare.
  if (_cachedDates.empty() || dateBefore(_cachedDates.back(), added.front())) {
    _cachedDates.insert(_cachedDates.end(), std::make_move_iterator(added.begin()),
                        std::make_move_iterator(added.end()));
    return;
  }
  if (dateBefore(added.back(), _cachedDates.front())) {
    _cachedDates.insert(_cachedDates.begin(), std::make_move_iterator(added.begin()),
                        std::make_move_iterator(added.end()));
    return;
  }
  CALDateList merged;
  merged.reserve(_cachedDates.size() + added.size());
  bool twice = false;
  auto cached = _cachedDates.begin(), fresh = added.begin();
  while (cached != _cachedDates.end() || fresh != added.end()) {
    if (fresh == added.end() || (cached != _cachedDates.end() && dateBefore(*cached, *fresh))) {
      merged.push_back(std::move(*cached++));
    } else if (cached == _cachedDates.end() || dateBefore(*fresh, *cached)) {
      merged.push_back(std::move(*fresh++));
    } else {
      twice = true;
      merged.push_back(std::move(*cached++));
      ++fresh;
    }
  }
  if (twice) QVT_LOG(kLogWarning, ruleLogDomain(), "WARNING : adding twice the same date in a recurrence cache");
  _cachedDates = std::move(merged);
}

void CALRecurrenceRule::setCachedDates(CALDateList dates) {
  sortWithoutDuplicates(dates);
  _cachedDates = std::move(dates);
}

void CALRecurrenceRule::setCachedStartDate(const CALDate* start) {
  _cachedStartDate = start ? start->copy() : nullptr;
}

bool CALRecurrenceRule::isTimeRangeCached(const CALTimeRange& range, const CALDate& start) const {
  return _cachedStartDate && _cachedTimeRange && sameRecurrenceStart(*_cachedStartDate, start) &&
         _cachedTimeRange->includesOrEqualsTimeRange(range);
}

CALDateList CALRecurrenceRule::cachedDatesOnTimeRange(const CALTimeRange& range) const {
  // The cache is sorted: the range's dates are one run of it.
  const CALDate* from = range.startDate();
  const CALDate* to = range.endDate();
  if (!from) return {};
  auto first = std::partition_point(_cachedDates.begin(), _cachedDates.end(),
                                    [&](const CALDateRef& date) { return date->isBefore(from); });
  auto last = to ? std::partition_point(first, _cachedDates.end(),
                                        [&](const CALDateRef& date) { return date->isBefore(to); })
                 : _cachedDates.end();
  return CALDateList(first, last);
}

void CALRecurrenceRule::addDatesOnTimeRange(const CALTimeRange& range, const CALDate& start) {
  if (_cachedStartDate && _cachedTimeRange && sameRecurrenceStart(*_cachedStartDate, start)) {
    const CALTimeRange covered = _cachedTimeRange->union_(range);
    const CALTimeRangeSubstractionResult missing = covered.minus(*_cachedTimeRange);
    for (const std::optional<CALTimeRange>& piece : {missing.first, missing.second})
      if (piece) addCachedDates(realOccurrencesOnTimeRange(*piece, start));
    _cachedTimeRange = covered;
    return;
  }
  invalidateCache();
  setCachedStartDate(&start);
  _cachedTimeRange = range;
  setCachedDates(realOccurrencesOnTimeRange(range, start));
}

}  // namespace pc
