#include "calcore/CALDate.h"

#include <limits>
#include <typeinfo>

#include "async/Log.h"
#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALDuration.h"
#include "calcore/CALFloatingDateTime.h"
#include "platform/Exception.h"
#include "platform/ThreadDictionary.h"

namespace pc {

namespace {

constexpr const char* kSecondKey = "secondKey";
constexpr const char* kMinuteKey = "minuteKey";
constexpr const char* kHourKey = "hourKey";
constexpr const char* kDayKey = "dayKey";
constexpr const char* kMonthKey = "monthKey";
constexpr const char* kYearKey = "yearKey";
constexpr const char* kTimeZoneKey = "timeZoneKey";

// Seconds of a record since 2001-01-01 00:00:00 of the same clock.
double secondsSince2001(const CALCDate& record) {
  return static_cast<double>(calcdate_seconds_for_date(&record) - kCALSecondsFrom1To2001);
}

}  // namespace

// --- Reference counting ------------------------------------------------------

const CALDate* CALDate::retain() const {
  if (_refCount == std::numeric_limits<std::uint16_t>::max()) return copy().detach();
  ++_refCount;
  return this;
}

void CALDate::release() const {
  if (--_refCount == 0) delete this;
}

// --- Abstract operations -----------------------------------------------------

void CALDate::_abstract(const char* warning, const char* selector) {
  QVT_LOG(kLogWarning, QVTLOG, "{}", warning);
  raiseException(kNotImplementedInSubClass, fmt::format("{} method called on abstract class", selector));
}

CALDateRef CALDate::date() {
  _abstract("WARNING : + (id) date   called on abstract class CALDate", "date");
}

CALDateRef CALDate::dateOnlyFromDate(const CALDate&) {
  _abstract("WARNING : + (id) dateOnlyFromDate:(CALDate*)date   called on abstract class CALDate",
            "dateOnlyFromDate:");
}

std::int64_t CALDate::offsetFromGMT() const {
  _abstract("WARNING : - (SInt64) offsetFromGMT   called on abstract class CALDate", "offsetFromGMT");
}

std::int64_t CALDate::offsetFromGMTForTimeZone(const TimeZonePtr&) const {
  // This one has always been logged without the "WARNING : " prefix.
  _abstract("- (SInt64) offsetFromGMTForTimeZone:(TimeZone *)timeZone   called on abstract class CALDate",
            "offsetFromGMTForTimeZone:");
}

int CALDate::compare(const CALDate*) const {
  _abstract("WARNING : - (int) compare:(CALDate *)otherDate   called on abstract class CALDate",
            "compare:");
}

bool CALDate::meetComparisonCondition(unsigned, const CALDate*) const {
  _abstract(
      "WARNING : - (BOOL) meetComparisonCondition:(int)condition withDate:(CALDate *)otherDate   "
      "called on abstract class CALDate",
      "meetComparisonCondition:withDate:");
}

bool CALDate::isEqualAsDateOnly(const CALDate*) const {
  _abstract("WARNING : - (BOOL) isEqualAsDateOnly:(CALDate*)otherDate   called on abstract class CALDate",
            "isEqualAsDateOnly:");
}

void CALDate::setYear(std::int32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                      std::uint32_t, TimeZonePtr) {
  _abstract(
      "WARNING : - (void) setYear:(int)year month:(unsigned)month day:(unsigned)day "
      "hour:(unsigned)hour minute:(unsigned)minute second:(unsigned)second "
      "timeZone:(TimeZone *)timeZone   called on abstract class CALDate",
      "setYear:month:day:hour:minute:second:timeZone:");
}

void CALDate::setTimeZone(TimeZonePtr) {
  _abstract("WARNING : - (void) setTimeZone:(TimeZone *)timeZone   called on abstract class CALDate",
            "setTimeZone:");
}

void CALDate::setTimeZone(TimeZonePtr, bool) {
  _abstract(
      "WARNING : - (void) setTimeZone:(TimeZone *)timeZone keepingLocalDate:(BOOL)keepLocalDate   "
      "called on abstract class CALDate",
      "setTimeZone:keepingLocalDate:");
}

void CALDate::roundToDay() {
  _abstract("WARNING : - (void) roundToDay   called on abstract class CALDate", "roundToDay");
}

void CALDate::addSecondsInGMT(std::int64_t) {
  _abstract("WARNING : - (void) addSecondsInGMT:(SInt64) seconds   called on abstract class CALDate",
            "addSecondsInGMT:");
}

void CALDate::addYears(int, int, int, int, int, std::int64_t) {
  _abstract(
      "WARNING : - (void) addYears:(int)year months:(int)month days:(int)day hours:(int)hour "
      "minutes:(int)minute seconds:(long long)second   called on abstract class CALDate",
      "addYears:months:days:hours:minutes:seconds:");
}

void CALDate::takeValueFrom(const CALDate*) {
  _abstract("WARNING : - (void) takeValueFrom:(CALDate *)otherDate   called on abstract class CALDate",
            "takeValueFrom:");
}

void CALDate::years(int*, int*, int*, int*, int*, int*, const CALDate*) const {
  _abstract(
      "WARNING : - (void) years:(int *)yearsPointer months:(int *)monthsPointer days:(int "
      "*)daysPointer hours:(int *)hoursPointer minutes:(int *)minutesPointer seconds:(int "
      "*)secondsPointer sinceDate:(CALDate *)date   called on abstract class CALDate",
      "years:months:days:hours:minutes:seconds:sinceDate:");
}

double CALDate::timeIntervalSinceNow() const {
  _abstract("WARNING : - (double) timeIntervalSinceNow   called on abstract class CALDate",
            "timeIntervalSinceNow");
}

std::string CALDate::description() const {
  QVT_LOG(kLogWarning, QVTLOG, "{}",
          "WARNING : - (String *) description   called on abstract class CALDate");
  return "_____ abstract date class ______";
}

// --- Class-level constructors ------------------------------------------------

CALDateRef CALDate::dateFromIsoString(std::string_view text) {
  if (text.find('T') == std::string_view::npos)
    return dateWithString<CALDateOnly>(text, kCALDateIsoDateFormat);
  if (text.find('+') != std::string_view::npos)
    return dateWithString<CALDateTime>(text, kCALDateIsoZonedFormat);
  return dateWithString<CALFloatingDateTime>(text, kCALDateIsoFloatingFormat);
}

CALDateRef CALDate::CALDateFromCalendarDate(const CalendarDate& date, bool allDay) {
  if (allDay) return CALDateOnlyConversion::calDateOnly(date);
  return CALDateTimeConversion::calDateTime(date);
}

// --- Time zones ----------------------------------------------------------------

void OurOwnMutableDate::setCalDate(const CALDate* date) {
  _calDate = date;
  secondsSinceReferenceDate = date ? secondsSince2001(*date->cdate()) : 0;
}

std::int64_t CALDate::_offsetOfZone(const TimeZone& zone, const char* helperKey) const {
  Dictionary& threadDictionary = currentThreadDictionary();
  std::shared_ptr<OurOwnMutableDate> helper;
  if (const Value* stored = threadDictionary.find(helperKey))
    helper = stored->objectAs<OurOwnMutableDate>();
  if (!helper) {
    helper = std::make_shared<OurOwnMutableDate>();
    threadDictionary.set(helperKey, Value(helper));
  }
  helper->setCalDate(this);
  const std::int64_t offset = zone.secondsFromGMT(*helper);
  helper->setCalDate(nullptr);
  return offset;
}

void CALDate::getCDateInTimeZone(CALCDate* out) const {
  *out = _cdate;
  calcdate_add_seconds(out, offsetFromGMT());
}

// --- Accessors -----------------------------------------------------------------

void CALDate::year(int* year, int* month, int* day, int* dayOfWeek, int* dayOfYear, int* hour,
                   int* minute, int* second) const {
  CALCDate local;
  getCDateInTimeZone(&local);
  if (year) *year = static_cast<int>(local.year);
  if (month) *month = static_cast<int>(local.month);
  if (day) *day = static_cast<int>(local.day);
  if (dayOfWeek) *dayOfWeek = calcdate_weekday(&local);
  if (dayOfYear) *dayOfYear = calcdate_yearday(&local);
  if (hour) *hour = static_cast<int>(local.hour);
  if (minute) *minute = static_cast<int>(local.minute);
  if (second) *second = static_cast<int>(local.second);
}

int CALDate::yearOfCommonEra() const {
  int value;
  year(&value, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  return value;
}

int CALDate::monthOfYear() const {
  int value;
  year(nullptr, &value, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  return value;
}

int CALDate::dayOfMonth() const {
  int value;
  year(nullptr, nullptr, &value, nullptr, nullptr, nullptr, nullptr, nullptr);
  return value;
}

int CALDate::dayOfWeek() const {
  int value;
  year(nullptr, nullptr, nullptr, &value, nullptr, nullptr, nullptr, nullptr);
  return value;
}

int CALDate::dayOfYear() const {
  int value;
  year(nullptr, nullptr, nullptr, nullptr, &value, nullptr, nullptr, nullptr);
  return value;
}

int CALDate::hourOfDay() const {
  int value;
  year(nullptr, nullptr, nullptr, nullptr, nullptr, &value, nullptr, nullptr);
  return value;
}

int CALDate::minuteOfHour() const {
  int value;
  year(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &value, nullptr);
  return value;
}

int CALDate::secondOfMinute() const {
  int value;
  year(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &value);
  return value;
}

int CALDate::dayOfCommonEra() const {
  CALCDate local;
  getCDateInTimeZone(&local);
  return static_cast<int>(calcdate_absoluteday(&local));
}

int CALDate::weekOfYear() const {
  CALCDate local;
  getCDateInTimeZone(&local);
  const std::int64_t day = calcdate_absoluteday(&local);
  // The Thursday of this Monday-based week decides the week's year.
  const std::int64_t daysSinceMonday = (calcdate_weekday(&local) + 6) % 7;
  const std::int64_t thursday = day - daysSinceMonday + 3;
  CALCDate thursdayDate{};
  calcdate_fill_ymd_with_absoluteday(&thursdayDate, static_cast<std::uint32_t>(thursday));
  const std::int64_t firstOfYear = calcdate_absoluteday_for_year(static_cast<std::int32_t>(thursdayDate.year));
  return static_cast<int>((thursday - firstOfYear) / 7 + 1);
}

int CALDate::dayCountInMonth() const {
  CALCDate local;
  getCDateInTimeZone(&local);
  return static_cast<int>(calcdate_daycount_in_month(&local));
}

// --- Comparison ----------------------------------------------------------------

int CALDate::_compareRecords(const CALDate* other) const {
  if (!other) return -1;
  CALCDate mine, theirs;
  _comparisonRecords(*other, &mine, &theirs);
  if (calcdate_is_equal(&mine, &theirs)) return 0;
  return calcdate_is_before(&mine, &theirs) ? -1 : 1;
}

bool CALDate::_meetCondition(unsigned condition, const CALDate* other) const {
  if ((condition & kCALDateEqual) && other == this) return true;
  if (!other) return false;
  switch (_compareRecords(other)) {
    case 0: return condition & kCALDateEqual;
    case -1: return condition & kCALDateBefore;
    default: return condition & kCALDateAfter;
  }
}

void CALDate::_deltaSince(int* years, int* months, int* days, int* hours, int* minutes, int* seconds,
                          const CALDate* other) const {
  if (!other) return;
  const unsigned flags = (years ? kCALCDateYearsUnit : 0) | (months ? kCALCDateMonthsUnit : 0) |
                         (days ? kCALCDateDaysUnit : 0) | (hours ? kCALCDateHoursUnit : 0) |
                         (minutes ? kCALCDateMinutesUnit : 0) | (seconds ? kCALCDateSecondsUnit : 0);
  CALCDate mine, theirs, delta;
  _comparisonRecords(*other, &mine, &theirs);
  calcdate_delta_ymdhms_with_flags(&mine, &theirs, &delta, flags);
  if (years) *years = static_cast<int>(delta.year);
  if (months) *months = static_cast<int>(delta.month);
  if (days) *days = static_cast<int>(delta.day);
  if (hours) *hours = static_cast<int>(delta.hour);
  if (minutes) *minutes = static_cast<int>(delta.minute);
  if (seconds) *seconds = static_cast<int>(delta.second);
}

bool CALDate::_isSameLocalDay(const CALDate* other) const {
  if (!other) return false;
  CALCDate mine, theirs;
  getCDateInTimeZone(&mine);
  other->getCDateInTimeZone(&theirs);
  return mine.year == theirs.year && mine.month == theirs.month && mine.day == theirs.day;
}

bool CALDate::isEqual(const CALDate* other) const {
  if (!other) return false;
  if (other == this) return true;
  if (typeid(*other) != typeid(*this)) {
    QVT_LOG(kLogWarning, QVTLOG, "WARNING : isEqual ran on two dates of different type");
    return false;
  }
  return isEqualToDate(other);
}

std::size_t CALDate::hash() const {
  const auto low = [](std::int64_t field) { return static_cast<std::uint32_t>(field); };
  return (low(_cdate.second) << 8) + (low(_cdate.minute) << 4) + low(_cdate.hour) +
         (low(_cdate.day) << 8) + (low(_cdate.month) << 4) + low(_cdate.year);
}

bool CALDate::isEqualToDateAsLocaltime(const CALDate* other) const {
  if (!other) return false;
  CALCDate mine, theirs;
  getCDateInTimeZone(&mine);
  other->getCDateInTimeZone(&theirs);
  return calcdate_is_equal(&mine, &theirs);
}

bool CALDate::isMidnight() const {
  CALCDate local;
  getCDateInTimeZone(&local);
  return local.hour == 0 && local.minute == 0 && local.second == 0;
}

// --- New values ----------------------------------------------------------------

CALDateRef CALDate::dateByAddingRawInterval(double seconds) const {
  CALDateRef result = copy();
  result->addSecondsInGMT(static_cast<std::int64_t>(seconds));
  return result;
}

CALDateRef CALDate::dateByAddingYears(int years, int months, int days, int hours, int minutes,
                                      std::int64_t seconds) const {
  CALDateRef result = copy();
  result->addYears(years, months, days, hours, minutes, seconds);
  return result;
}

CALDateRef CALDate::dateByAddingDuration(const CALDuration& duration) const {
  return dateByAddingRawInterval(duration.rawInterval());
}

CALDateRef CALDate::dateBySubstractingDuration(const CALDuration& duration) const {
  return dateByAddingRawInterval(-duration.rawInterval());
}

namespace {

// A copy of `date` set to local fields derived from its own: `adjust` edits
// the local record before it is set again in the date's zone.
template <class Adjust>
CALDateRef withLocalFields(const CALDate& date, Adjust adjust) {
  CALCDate local;
  date.getCDateInTimeZone(&local);
  adjust(local);
  CALDateRef result = date.copy();
  result->setYear(static_cast<std::int32_t>(local.year), static_cast<std::uint32_t>(local.month),
                  static_cast<std::uint32_t>(local.day), static_cast<std::uint32_t>(local.hour),
                  static_cast<std::uint32_t>(local.minute), static_cast<std::uint32_t>(local.second),
                  date.timeZone());
  return result;
}

}  // namespace

CALDateRef CALDate::dateRoundedToMinute() const {
  return withLocalFields(*this, [](CALCDate& l) { l.second = 0; });
}

CALDateRef CALDate::dateRoundedToHour() const {
  return withLocalFields(*this, [](CALCDate& l) { l.minute = l.second = 0; });
}

CALDateRef CALDate::dateRoundedToDay() const {
  CALDateRef result = copy();
  result->roundToDay();
  return result;
}

CALDateRef CALDate::dateRoundedToNextDay() const {
  return withLocalFields(*this, [](CALCDate& l) {
    l.hour = l.minute = l.second = 0;
    l.day += 1;
  });
}

CALDateRef CALDate::dateRoundedToPreviousDay() const {
  return withLocalFields(*this, [](CALCDate& l) {
    l.hour = l.minute = l.second = 0;
    l.day -= 1;
  });
}

CALDateRef CALDate::dateRoundedToMonth() const {
  return withLocalFields(*this, [](CALCDate& l) {
    l.day = 1;
    l.hour = l.minute = l.second = 0;
  });
}

CALDateRef CALDate::dateRoundedToYear() const {
  return withLocalFields(*this, [](CALCDate& l) {
    l.month = l.day = 1;
    l.hour = l.minute = l.second = 0;
  });
}

CALDateRef CALDate::dateWithHour(int hour, int minute, int second) const {
  return withLocalFields(*this, [&](CALCDate& l) {
    l.hour = hour;
    l.minute = minute;
    l.second = second;
  });
}

// --- Differences ---------------------------------------------------------------

double CALDate::timeIntervalSinceDate(const CALDate& other) const {
  CALCDate mine, theirs;
  _comparisonRecords(other, &mine, &theirs);
  return static_cast<double>(calcdate_seconds_for_date(&mine) - calcdate_seconds_for_date(&theirs));
}

double CALDate::absoluteTimeInterval() const {
  return static_cast<double>(calcdate_seconds_for_date(&_cdate));
}

double CALDate::timeIntervalSince1970() const {
  return static_cast<double>(calcdate_seconds_for_date(&_cdate) - kCALSecondsFrom1To1970);
}

// --- Printing and conversions ----------------------------------------------------

Date CALDate::platformDate() const {
  if (dynamic_cast<const CALDateTime*>(this)) return Date{secondsSince2001(_cdate)};
  // A wall clock becomes an instant in the zone this kind is read in.
  CALCDate local;
  getCDateInTimeZone(&local);
  const CALRef<CALDateTime> instant = CALDateTime::dateWithYear(
      static_cast<std::int32_t>(local.year), static_cast<std::uint32_t>(local.month),
      static_cast<std::uint32_t>(local.day), static_cast<std::uint32_t>(local.hour),
      static_cast<std::uint32_t>(local.minute), static_cast<std::uint32_t>(local.second),
      _conversionZone());
  return instant->platformDate();
}

CalendarDate CALDate::calendarDate() const {
  CalendarDate result(platformDate(), _conversionZone());
  if (!_calendarFormat.empty()) result.setCalendarFormat(_calendarFormat);
  return result;
}

std::string CALDate::descriptionWithCalendarFormat(std::string_view format) const {
  if (dynamic_cast<const CALDateTime*>(this)) return calendarDate().descriptionWithCalendarFormat(format);
  // A wall clock read as GMT prints as itself: no zone can skip or repeat it.
  return CalendarDate(Date{secondsSince2001(_cdate)}).descriptionWithCalendarFormat(format);
}

std::string CALDate::descriptionWithCalendarFormat(std::string_view format, const Value&) const {
  return descriptionWithCalendarFormat(format);
}

void CALDate::_takeCalendarDate(const CalendarDate& date) {
  setYear(date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth(), date.hourOfDay(),
          date.minuteOfHour(), date.secondOfMinute(), date.timeZone());
}

std::string CALDate::isoStringRepresentation() const {
  const char* format = kCALDateIsoZonedFormat;
  if (dynamic_cast<const CALDateOnly*>(this))
    format = kCALDateIsoDateFormat;
  else if (dynamic_cast<const CALFloatingDateTime*>(this))
    format = kCALDateIsoFloatingFormat;
  return descriptionWithCalendarFormat(format);
}

// --- Archiving -------------------------------------------------------------------

void CALDate::encodeWithCoder(Dictionary& coder) const {
  coder.set(kSecondKey, _cdate.second);
  coder.set(kMinuteKey, _cdate.minute);
  coder.set(kHourKey, _cdate.hour);
  coder.set(kDayKey, _cdate.day);
  coder.set(kMonthKey, _cdate.month);
  coder.set(kYearKey, _cdate.year);
  if (_timeZone) coder.set(kTimeZoneKey, _timeZone->name());
}

CALCDate CALDate::_decodeRecord(const Dictionary& coder, bool* ok) {
  CALCDate record{};
  std::int64_t* fields[] = {&record.second, &record.minute, &record.hour,
                            &record.day,    &record.month,  &record.year};
  const char* keys[] = {kSecondKey, kMinuteKey, kHourKey, kDayKey, kMonthKey, kYearKey};
  for (int i = 0; i < 6; ++i) {
    const Value* value = coder.find(keys[i]);
    if (!value || !value->isNumber()) {
      QVT_LOG(kLogError, QVTLOG, "cannot decode date: no number under {}", keys[i]);
      *ok = false;
      return record;
    }
    *fields[i] = value->integerValue();
  }
  *ok = calcdate_is_hms_normalized(&record) && record.year >= kCALCDateFirstYear &&
        record.year <= kCALCDateLastYear &&
        calcdate_is_ymd_normalized(&record);
  if (!*ok) QVT_LOG(kLogError, QVTLOG, "cannot decode date: fields out of range in {}", coder);
  return record;
}

TimeZonePtr CALDate::_decodeZone(const Dictionary& coder) {
  const std::string name = coder.getString(kTimeZoneKey);
  if (name.empty()) return nullptr;
  TimeZonePtr zone = TimeZone::timeZoneWithName(name);
  if (!zone) QVT_LOG(kLogError, QVTLOG, "cannot decode date: unknown time zone {}, GMT used", name);
  return zone;
}

void CALDate::_copyStateFrom(const CALDate& other) {
  _cdate = other._cdate;
  _timeZone = other._timeZone;
  _calendarFormat = other._calendarFormat;
  _invalidateOffsetCache();
}

}  // namespace pc
