#include "calcore/CALTimeRange.h"

#include <fmt/format.h>

#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALFloatingDateTime.h"

namespace pc {

namespace {

constexpr const char* kStartDateKey = "startDate";
constexpr const char* kEndDateKey = "endDate";
constexpr const char* kClassKey = "classKey";

CALDateRef copyOf(const CALDate* date) { return date ? date->copy() : nullptr; }

bool sameBound(const CALDate* a, const CALDate* b) {
  if (!a || !b) return !a && !b;
  return a->isEqualToDate(b);
}

// Bounds as values on the extended line: a missing start is minus infinity,
// a missing end plus infinity.
const CALDateRef& earlierStart(const CALDateRef& a, const CALDateRef& b) {
  if (!a || !b) return a ? b : a;
  return a->isBefore(b.get()) ? a : b;
}
const CALDateRef& laterStart(const CALDateRef& a, const CALDateRef& b) {
  if (!a || !b) return a ? a : b;
  return a->isBefore(b.get()) ? b : a;
}
const CALDateRef& laterEnd(const CALDateRef& a, const CALDateRef& b) {
  if (!a || !b) return a ? b : a;
  return a->isAfter(b.get()) ? a : b;
}
const CALDateRef& earlierEnd(const CALDateRef& a, const CALDateRef& b) {
  if (!a || !b) return a ? a : b;
  return a->isAfter(b.get()) ? b : a;
}

Value encodeDate(const CALDate* date) {
  Dictionary archive;
  date->encodeWithCoder(archive);
  archive.set(kClassKey, date->className());
  return archive;
}

// Decodes the date archived under `key`: true with a null date when there is
// none, false when it cannot be read.
bool decodeDate(const Dictionary& archive, const char* key, CALDateRef* date) {
  const std::optional<Dictionary> coder = archive.getDictionary(key);
  if (!coder) return !archive.contains(key);
  const std::string kind = coder->getString(kClassKey);
  if (kind == "CALDateTime")
    *date = CALDate::dateWithCoder<CALDateTime>(*coder);
  else if (kind == "CALFloatingDateTime")
    *date = CALDate::dateWithCoder<CALFloatingDateTime>(*coder);
  else if (kind == "CALDateOnly")
    *date = CALDate::dateWithCoder<CALDateOnly>(*coder);
  return static_cast<bool>(*date);
}

}  // namespace

CALTimeRange::CALTimeRange(const CALDate* startDate, const CALDate* endDate)
    : _startDate(copyOf(startDate)), _endDate(copyOf(endDate)) {
  _updateDuration();
}

CALTimeRange::CALTimeRange(const CALDate& startDate, const CALDuration& duration)
    : _startDate(startDate.copy()), _endDate(startDate.dateByAddingDuration(duration)), _duration(duration) {}

CALTimeRange::CALTimeRange(CALDateRef startDate, CALDateRef endDate, std::nullptr_t)
    : _startDate(std::move(startDate)), _endDate(std::move(endDate)) {
  _updateDuration();
}

void CALTimeRange::_updateDuration() {
  if (_startDate && _endDate)
    _duration = CALDuration(_endDate->timeIntervalSinceDate(*_startDate));
  else
    _duration.reset();
}

CALTimeRange CALTimeRange::timeRangeForDayEnglobing(const CALDate& date) {
  return CALTimeRange(*date.dateRoundedToDay(), CALDuration::durationWithDays(1));
}

CALTimeRange CALTimeRange::timeRangeUnbounded() {
  return CALTimeRange(CALDate::distantPast<CALDateTime>(), nullptr, nullptr);
}

CALTimeRange CALTimeRange::timeRangeFromTimeRange(const CALTimeRange& range, const CALDuration& shift) {
  const auto moved = [&](const CALDateRef& bound) {
    return bound ? bound->dateByAddingDuration(shift) : nullptr;
  };
  return CALTimeRange(moved(range._startDate), moved(range._endDate), nullptr);
}

CALTimeRange CALTimeRange::timeRangeFromTimeRangeRoundedToFullDays(const CALTimeRange& range) {
  CALDateRef start = range._startDate ? range._startDate->dateRoundedToDay() : nullptr;
  CALDateRef end = range._endDate;
  if (end && !end->isMidnight()) end = end->dateRoundedToNextDay();
  return CALTimeRange(std::move(start), std::move(end), nullptr);
}

bool CALTimeRange::includesDate(const CALDate* date) const {
  return date && _startDate && _startDate->isBeforeOrEqual(date) &&
         (!_endDate || date->isBeforeOrEqual(_endDate.get()));
}

bool CALTimeRange::includesDateExcludingBounds(const CALDate* date) const {
  return date && _startDate && _startDate->isBefore(date) &&
         (!_endDate || date->isBefore(_endDate.get()));
}

bool CALTimeRange::includesDateExcludingEndDate(const CALDate* date) const {
  return date && _startDate && _startDate->isBeforeOrEqual(date) &&
         (!_endDate || date->isBefore(_endDate.get()));
}

bool CALTimeRange::intersectsTimeRange(const CALTimeRange& other) const {
  return includesDate(other.startDate()) || includesDate(other.endDate()) ||
         other.includesDate(startDate()) || other.includesDate(endDate());
}

bool CALTimeRange::intersectsTimeRangeExcludingBounds(const CALTimeRange& other) const {
  return includesDateExcludingBounds(other.startDate()) ||
         includesDateExcludingBounds(other.endDate()) ||
         other.includesDateExcludingBounds(startDate()) ||
         other.includesDateExcludingBounds(endDate()) || isEqualTo(other);
}

bool CALTimeRange::intersectsTimeRangeExcludingUpperBound(const CALTimeRange& other) const {
  return intersectsTimeRangeExcludingBounds(other) || other.includesDate(startDate());
}

bool CALTimeRange::includesOrEqualsTimeRange(const CALTimeRange& other) const {
  // A missing end lies inside only another range without end.
  const bool endInside = other._endDate ? includesDate(other.endDate()) : _startDate && !_endDate;
  return includesDate(other.startDate()) && endInside;
}

bool CALTimeRange::strictlyIncludesTimeRange(const CALTimeRange& other) const {
  const bool endInside =
      other._endDate ? includesDateExcludingBounds(other.endDate()) : _startDate && !_endDate;
  return includesDateExcludingBounds(other.startDate()) && endInside;
}

bool CALTimeRange::isEqualTo(const CALTimeRange& other) const {
  return sameBound(startDate(), other.startDate()) && sameBound(endDate(), other.endDate());
}

int CALTimeRange::compareStartDate(const CALTimeRange& other) const {
  // A missing start is minus infinity: before every start, equal to another.
  if (!_startDate) return other._startDate ? -1 : 0;
  if (!other._startDate) return 1;
  return _startDate->compare(other.startDate());
}

CALTimeRange CALTimeRange::union_(const CALTimeRange& other) const {
  return CALTimeRange(earlierStart(_startDate, other._startDate), laterEnd(_endDate, other._endDate),
                      nullptr);
}

std::optional<CALTimeRange> CALTimeRange::intersection(const CALTimeRange& other) const {
  if (!intersectsTimeRange(other)) return std::nullopt;
  return CALTimeRange(laterStart(_startDate, other._startDate), earlierEnd(_endDate, other._endDate),
                      nullptr);
}

CALTimeRangeSubstractionResult CALTimeRange::minus(const CALTimeRange& other) const {
  if (other.includesOrEqualsTimeRange(*this)) return {};
  if (!intersectsTimeRange(other)) return {*this, std::nullopt};
  if (other.includesDate(startDate())) return {CALTimeRange(other._endDate, _endDate, nullptr), std::nullopt};
  if (other.includesDate(endDate())) return {CALTimeRange(_startDate, other._startDate, nullptr), std::nullopt};
  return {CALTimeRange(_startDate, other._startDate, nullptr),
          CALTimeRange(other._endDate, _endDate, nullptr)};
}

std::vector<CALTimeRange> CALTimeRange::simplifyOverlappingTimeRanges(
    const std::vector<CALTimeRange>& ranges) {
  std::vector<CALTimeRange> result;
  std::optional<CALTimeRange> current;
  for (const CALTimeRange& range : ranges) {
    if (current && current->includesDate(range.startDate())) {
      if (!current->includesDate(range.endDate()))
        current = CALTimeRange(current->_startDate, range._endDate, nullptr);
    } else {
      if (current) result.push_back(*current);
      current = range;
    }
  }
  if (current) result.push_back(*current);
  return result;
}

std::string CALTimeRange::description() const {
  return fmt::format("CALTimeRange [{},{}]", _startDate ? _startDate->description() : "-inf",
                     _endDate ? _endDate->description() : "+inf");
}

Dictionary CALTimeRange::encode() const {
  Dictionary archive;
  if (_startDate) archive.set(kStartDateKey, encodeDate(startDate()));
  if (_endDate) archive.set(kEndDateKey, encodeDate(endDate()));
  return archive;
}

std::optional<CALTimeRange> CALTimeRange::decode(const Dictionary& archive) {
  CALDateRef start, end;
  if (!decodeDate(archive, kStartDateKey, &start) || !decodeDate(archive, kEndDateKey, &end))
    return std::nullopt;
  return CALTimeRange(std::move(start), std::move(end), nullptr);
}

void CALMutableTimeRange::setStartDateNoCopy(CALDateRef startDate) {
  if (startDate != _startDate) _startDate = std::move(startDate);
  _updateDuration();
}

void CALMutableTimeRange::setEndDateNoCopy(CALDateRef endDate) {
  if (endDate != _endDate) _endDate = std::move(endDate);
  _updateDuration();
}

void CALMutableTimeRange::setStartDateNoCopy(CALDateRef startDate, CALDateRef endDate) {
  if (startDate != _startDate) _startDate = std::move(startDate);
  if (endDate != _endDate) _endDate = std::move(endDate);
  _updateDuration();
}

}  // namespace pc
