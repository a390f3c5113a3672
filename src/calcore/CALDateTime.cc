#include "calcore/CALDateTime.h"

#include <fmt/format.h>

#include <cmath>

#include "async/Log.h"
#include "calcore/CALDateOnly.h"

namespace pc {

namespace {

// Per-thread helper dates through which zones are asked their offsets: one
// for the date's own zone, one for any other zone.
constexpr const char* kOwnZoneHelperKey = "staticMutableDate1";
constexpr const char* kOtherZoneHelperKey = "staticMutableDate2";

bool sameZone(const TimeZonePtr& a, const TimeZonePtr& b) {
  if (!a || !b) return a == b;
  return *a == *b;
}

}  // namespace

CALRef<CALDateTime> CALDateTime::dateWithYear(std::int32_t year, std::uint32_t month,
                                              std::uint32_t day, std::uint32_t hour,
                                              std::uint32_t minute, std::uint32_t second,
                                              TimeZonePtr zone) {
  CALRef<CALDateTime> date = _make<CALDateTime>();
  date->setYear(year, month, day, hour, minute, second, std::move(zone));
  return date;
}

CALRef<CALDateTime> CALDateTime::timeOnlyWithHour(std::uint32_t hour, std::uint32_t minute,
                                                  std::uint32_t second, TimeZonePtr zone) {
  return dateWithYear(2001, 1, 1, hour, minute, second, std::move(zone));
}

CALRef<CALDateTime> CALDateTime::date() {
  CALRef<CALDateTime> now = dateWithTimeIntervalSince2001<CALDateTime>(Date::now().secondsSinceReferenceDate);
  now->setTimeZone(TimeZone::systemTimeZone());
  return now;
}

CALDateRef CALDateTime::copy() const {
  CALRef<CALDateTime> date = _make<CALDateTime>();
  date->_copyStateFrom(*this);
  return date;
}

std::int64_t CALDateTime::offsetFromGMT() const {
  if (!_timeZone) return 0;
  if (!_timeZoneCacheIsValid) {
    _cachedTimeZoneDiff = _offsetOfZone(*_timeZone, kOwnZoneHelperKey);
    _timeZoneCacheIsValid = true;
  }
  return _cachedTimeZoneDiff;
}

std::int64_t CALDateTime::offsetFromGMTForTimeZone(const TimeZonePtr& zone) const {
  if (!zone) return 0;
  if (sameZone(zone, _timeZone)) return offsetFromGMT();
  return _offsetOfZone(*zone, kOtherZoneHelperKey);
}

void CALDateTime::setYear(std::int32_t year, std::uint32_t month, std::uint32_t day,
                          std::uint32_t hour, std::uint32_t minute, std::uint32_t second,
                          TimeZonePtr zone) {
  CALCDate local{second, minute, hour, day, month, year};
  calcdate_normalize_hms(&local);
  calcdate_normalize_ymd(&local);
  _timeZone = std::move(zone);
  // The zone turns the wall clock into an instant by the platform's one rule:
  // a skipped reading is the instant after the gap, a repeated one its first.
  std::int64_t offset = 0;
  if (_timeZone) {
    const Date wall{static_cast<double>(calcdate_seconds_for_date(&local) - kCALSecondsFrom1To2001)};
    offset = _timeZone->secondsFromGMTForWallClock(wall);
  }
  _cdate = local;
  calcdate_add_seconds(&_cdate, -offset);
  _invalidateOffsetCache();
}

void CALDateTime::setTimeZone(TimeZonePtr zone, bool keepingLocalDate) {
  if (zone == _timeZone) return;
  if (keepingLocalDate) {
    CALCDate local;
    getCDateInTimeZone(&local);
    setYear(static_cast<std::int32_t>(local.year), static_cast<std::uint32_t>(local.month),
            static_cast<std::uint32_t>(local.day), static_cast<std::uint32_t>(local.hour),
            static_cast<std::uint32_t>(local.minute), static_cast<std::uint32_t>(local.second),
            std::move(zone));
  } else if (!sameZone(zone, _timeZone)) {
    _timeZone = std::move(zone);
    _invalidateOffsetCache();
  }
}

void CALDateTime::roundToDay() {
  CALCDate local;
  getCDateInTimeZone(&local);
  setYear(static_cast<std::int32_t>(local.year), static_cast<std::uint32_t>(local.month),
          static_cast<std::uint32_t>(local.day), 0, 0, 0, _timeZone);
}

void CALDateTime::addSecondsInGMT(std::int64_t seconds) {
  calcdate_add_seconds(&_cdate, seconds);
  _invalidateOffsetCache();
}

void CALDateTime::addYears(int years, int months, int days, int hours, int minutes,
                           std::int64_t seconds) {
  const CALCDate delta{seconds, minutes, hours, days, months, years};
  calcdate_add_deltadate(&_cdate, &delta);
  _invalidateOffsetCache();
}

CALDateRef CALDateTime::dateOnlyFromDate(const CALDate& date) {
  return CALDateOnly::dateOnlyFromDate(date);
}

void CALDateTime::takeValueFrom(const CALDate* other) {
  if (!other) return;
  _cdate = *other->cdate();
  _timeZone = other->timeZone();
  _invalidateOffsetCache();
}

double CALDateTime::timeIntervalSinceNow() const {
  return timeIntervalSince1970() - Date::now().timeIntervalSince1970();
}

std::string CALDateTime::description() const {
  CALCDate l;
  getCDateInTimeZone(&l);
  return fmt::format("{:04}/{:02}/{:02}  {:02}:{:02}:{:02} ({}) - {} |TZ {}", l.year, l.month, l.day,
                     l.hour, l.minute, l.second, offsetFromGMT(), "DateTime",
                     _timeZone ? _timeZone->description() : std::string("(null)"));
}

void CALDateTime::_comparisonRecords(const CALDate& other, CALCDate* mine, CALCDate* theirs) const {
  *theirs = *other.cdate();
  if (dynamic_cast<const CALDateTime*>(&other))
    *mine = _cdate;
  else
    getCDateInTimeZone(mine);  // against a wall clock, compare wall clocks
}

void CALDateTime::_takeCalendarDate(const CalendarDate& date) {
  _cdate = CALCDate{0, 0, 0, 1, 1, 2001};
  // Whole seconds, rounding down, so that a fraction never moves the date later.
  calcdate_add_seconds(&_cdate, static_cast<std::int64_t>(std::floor(date.timeIntervalSinceReferenceDate())));
  _timeZone = date.timeZone();
  _invalidateOffsetCache();
}

TimeZonePtr CALDateTime::_conversionZone() const { return _timeZone ? _timeZone : TimeZone::gmt(); }

namespace CALDateTimeConversion {

CALRef<CALDateTime> calDateTime(const Date& date) { return calDateTime(CalendarDate(date)); }

CALRef<CALDateTime> calDateTime(const CalendarDate& date) {
  if (date.timeIntervalSinceReferenceDate() == 0) {
    QVT_LOG(kLogWarning, QVTLOG, "WARNING : the reference date is not converted to a CALDateTime");
    return nullptr;
  }
  CALRef<CALDateTime> result =
      CALDate::dateWithTimeIntervalSince2001<CALDateTime>(date.timeIntervalSinceReferenceDate());
  result->setTimeZone(date.timeZone());
  return result;
}

}  // namespace CALDateTimeConversion

namespace Kestrel11Compatibility {

CALDateRef calDate(const CalendarDate& date) {
  if (date.hourOfDay() == 0 && date.minuteOfHour() == 0 && date.secondOfMinute() == 0)
    return CALDateOnlyConversion::calDateOnly(date);
  return CALDateTimeConversion::calDateTime(date);
}

}  // namespace Kestrel11Compatibility

}  // namespace pc
