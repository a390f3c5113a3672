#pragma once
// CALDate: the calendar core's date value. A date holds one civil record
// (calcdate.h) and says how to read it: CALDateTime is an instant tied to a
// time zone (the record is its GMT wall clock), CALFloatingDateTime is a wall
// clock with no zone, CALDateOnly a floating calendar day. CALDate itself is
// abstract: operations the kinds must supply log a warning and raise
// "NotImplementedInSubClass" when they reach it.
//
// Dates carry their own 16-bit reference count; CALRef holds one reference,
// so that C++ callers never leak. Class-level constructors that every kind
// shares are templates on the kind: CALDate::distantPast<CALDateTime>().

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "calcore/calcdate.h"
#include "platform/CalendarDate.h"
#include "platform/Object.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

class CALDate;
class CALDateTime;
class CALDuration;

// One counted reference to a date (or any object with retain/release).
// Copying retains, destruction releases.
template <class T>
class CALRef {
 public:
  CALRef() = default;
  CALRef(std::nullptr_t) {}
  // Takes one new reference to `object`. What retain answers is held: an
  // object whose count is full answers an equal copy instead of itself.
  explicit CALRef(T* object)
      : _object(object ? const_cast<T*>(static_cast<const T*>(object->retain())) : nullptr) {}
  // Takes over the reference the caller owns (a freshly created object).
  static CALRef adopt(T* object) {
    CALRef ref;
    ref._object = object;
    return ref;
  }
  CALRef(const CALRef& other) : CALRef(other._object) {}
  CALRef(CALRef&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
  template <class U>
    requires std::convertible_to<U*, T*>
  CALRef(const CALRef<U>& other) : CALRef(other.get()) {}
  template <class U>
    requires std::convertible_to<U*, T*>
  CALRef(CALRef<U>&& other) noexcept : _object(other.detach()) {}
  CALRef& operator=(CALRef other) noexcept {
    std::swap(_object, other._object);
    return *this;
  }
  ~CALRef() {
    if (_object) _object->release();
  }

  T* get() const { return _object; }
  T* operator->() const { return _object; }
  T& operator*() const { return *_object; }
  explicit operator bool() const { return _object != nullptr; }
  // Hands the reference over to the caller, who must release it.
  T* detach() { return std::exchange(_object, nullptr); }

  friend bool operator==(const CALRef& a, const CALRef& b) { return a._object == b._object; }

 private:
  T* _object = nullptr;
};

using CALDateRef = CALRef<CALDate>;

// Condition bits of meetComparisonCondition.
inline constexpr unsigned kCALDateEqual = 1;
inline constexpr unsigned kCALDateBefore = 2;
inline constexpr unsigned kCALDateAfter = 4;

// ISO 8601 basic forms.
inline constexpr const char* kCALDateIsoDateFormat = "%Y%m%d";
inline constexpr const char* kCALDateIsoFloatingFormat = "%Y%m%dT%H%M%S";
inline constexpr const char* kCALDateIsoZonedFormat = "%Y%m%dT%H%M%S%z";

class CALDate {
 public:
  CALDate(const CALDate&) = delete;
  CALDate& operator=(const CALDate&) = delete;
  virtual ~CALDate() = default;

  // Reference counting. The count is not atomic: one thread at a time. The
  // count is 16 bits: once it is full, retain answers a new copy of the date
  // (with its own count) rather than wrapping, so that a widely shared date
  // is never freed while still in use.
  const CALDate* retain() const;
  void release() const;
  std::uint16_t retainCount() const { return _refCount; }
  // A new date of the same kind with the same record and zone.
  virtual CALDateRef copy() const = 0;
  virtual std::string className() const = 0;

  // --- Class-level constructors shared by every kind -----------------------

  // Abstract on CALDate; each kind has its own (now, today).
  static CALDateRef date();
  static CALDateRef dateOnlyFromDate(const CALDate& date);

  // The date `seconds` (truncated) after 1970-01-01 / 2001-01-01 00:00:00 GMT.
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithTimeIntervalSince1970(double seconds);
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithTimeIntervalSince2001(double seconds);
  // `seconds` (truncated) after `date`.
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithTimeInterval(double seconds, const CALDate& date);
  // Parses with the platform's calendar format; null when the text does not
  // match. A CALDateTime takes the zone the text names (else GMT), the
  // floating kinds the wall clock.
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithString(std::string_view text,
                                     std::string_view calendarFormat = kDefaultCalendarFormat);
  // 0001-01-02 00:00:00 and 3000-01-01 00:00:00 (GMT for a CALDateTime):
  // inside the range the civil arithmetic is exact in, read in any zone (a
  // day after the first supported day, so that zones west of GMT stay in
  // year 1).
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> distantPast();
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> distantFuture();
  // `date` read as a date of kind Kind (see takeValueFrom).
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithDate(const CALDate& date);
  // The local day of `datePart` at the local time of `timePart`, in `zone`
  // (by default the zone of `datePart`).
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithDatePartFrom(const CALDate& datePart, const CALDate& timePart);
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithDatePartFrom(const CALDate& datePart, const CALDate& timePart,
                                           TimeZonePtr zone);
  // Reads an archive written by encodeWithCoder; null (and logged) when a
  // field is missing or the date is out of range.
  template <std::derived_from<CALDate> Kind>
  static CALRef<Kind> dateWithCoder(const Dictionary& coder);

  // "20060315" -> CALDateOnly, "20060315T101500" -> CALFloatingDateTime,
  // "20060315T101500+0100" -> CALDateTime. An offset written with a minus sign
  // is read as floating. Null when the text does not parse.
  static CALDateRef dateFromIsoString(std::string_view text);
  // From an engine date: a CALDateOnly of its day when `allDay`, else a
  // CALDateTime of its instant and zone.
  static CALDateRef CALDateFromCalendarDate(const CalendarDate& date, bool allDay);

  // --- Accessors -----------------------------------------------------------

  const CALCDate* cdate() const { return &_cdate; }
  // The local wall clock: the record plus offsetFromGMT.
  void getCDateInTimeZone(CALCDate* out) const;
  const TimeZonePtr& timeZone() const { return _timeZone; }
  const std::string& calendarFormat() const { return _calendarFormat; }
  void setCalendarFormat(std::string format) { _calendarFormat = std::move(format); }

  // Fields of the local wall clock; every pointer may be null. The day of the
  // year is the 8-bit value of calcdate_yearday, sign-extended.
  void year(int* year, int* month, int* day, int* dayOfWeek, int* dayOfYear, int* hour,
            int* minute, int* second) const;
  int yearOfCommonEra() const;
  int monthOfYear() const;
  int dayOfMonth() const;
  int dayOfWeek() const;  // 0 = Sunday
  int dayOfYear() const;  // negative after the 127th day
  // The absolute day of the local day (0 = 0001-01-01).
  int dayOfCommonEra() const;
  // The ISO 8601 week number (weeks from Monday; week 1 holds 4 January).
  int weekOfYear() const;
  int hourOfDay() const;
  int minuteOfHour() const;
  int secondOfMinute() const;
  int dayCountInMonth() const;

  virtual std::int64_t offsetFromGMT() const;
  virtual std::int64_t offsetFromGMTForTimeZone(const TimeZonePtr& zone) const;

  // --- Comparison ----------------------------------------------------------

  // -1, 0 or 1; -1 against null.
  virtual int compare(const CALDate* other) const;
  // `condition` is a set of kCALDateEqual / kCALDateBefore / kCALDateAfter.
  virtual bool meetComparisonCondition(unsigned condition, const CALDate* other) const;
  bool isEqualToDate(const CALDate* other) const { return meetComparisonCondition(kCALDateEqual, other); }
  bool isBefore(const CALDate* other) const { return meetComparisonCondition(kCALDateBefore, other); }
  bool isBeforeOrEqual(const CALDate* other) const {
    return meetComparisonCondition(kCALDateBefore | kCALDateEqual, other);
  }
  bool isAfter(const CALDate* other) const { return meetComparisonCondition(kCALDateAfter, other); }
  bool isAfterOrEqual(const CALDate* other) const {
    return meetComparisonCondition(kCALDateAfter | kCALDateEqual, other);
  }
  // Equality for collections: same kind and same date; dates of different
  // kinds are never equal (and the attempt is logged).
  bool isEqual(const CALDate* other) const;
  std::size_t hash() const;
  virtual bool isEqualAsDateOnly(const CALDate* other) const;
  bool isEqualToDateAsLocaltime(const CALDate* other) const;
  bool isMidnight() const;
  bool isDateOnly() const { return isMidnight(); }

  // --- Mutation ------------------------------------------------------------

  // Fields out of range carry (month 13 is January of the next year). A
  // CALDateTime reads them in `zone` (null: GMT); floating kinds ignore it.
  virtual void setYear(std::int32_t year, std::uint32_t month, std::uint32_t day,
                       std::uint32_t hour, std::uint32_t minute, std::uint32_t second,
                       TimeZonePtr zone);
  // Re-zoning: the instant stays, the wall clock moves.
  virtual void setTimeZone(TimeZonePtr zone);
  // keepingLocalDate true: the wall clock stays and the instant moves.
  virtual void setTimeZone(TimeZonePtr zone, bool keepingLocalDate);
  virtual void roundToDay();
  virtual void addSecondsInGMT(std::int64_t seconds);
  // Adds a civil delta; 31 January plus one month is 3 March.
  virtual void addYears(int years, int months, int days, int hours, int minutes,
                        std::int64_t seconds);
  virtual void takeValueFrom(const CALDate* other);

  // --- New values ----------------------------------------------------------

  CALDateRef dateByAddingRawInterval(double seconds) const;
  CALDateRef dateByAddingYears(int years, int months, int days, int hours, int minutes,
                               std::int64_t seconds) const;
  CALDateRef dateByAddingDuration(const CALDuration& duration) const;
  CALDateRef dateBySubstractingDuration(const CALDuration& duration) const;
  CALDateRef dateRoundedToMinute() const;
  CALDateRef dateRoundedToHour() const;
  CALDateRef dateRoundedToDay() const;
  // Midnight starting the next / the previous local day.
  CALDateRef dateRoundedToNextDay() const;
  CALDateRef dateRoundedToPreviousDay() const;
  CALDateRef dateRoundedToMonth() const;
  CALDateRef dateRoundedToYear() const;
  // The same local day at another time.
  CALDateRef dateWithHour(int hour, int minute = 0, int second = 0) const;

  // --- Differences ---------------------------------------------------------

  // The calendar difference this - other in the units whose pointers are not
  // null. Nothing happens for a null other date.
  virtual void years(int* years, int* months, int* days, int* hours, int* minutes, int* seconds,
                     const CALDate* other) const;
  // Seconds from `other` to this date, read as compare() reads them.
  double timeIntervalSinceDate(const CALDate& other) const;
  virtual double timeIntervalSinceNow() const;
  // Seconds since 0001-01-01 00:00:00 of the record.
  double absoluteTimeInterval() const;
  double timeIntervalSince1970() const;

  // --- Printing and conversions -------------------------------------------

  virtual std::string description() const;
  // A CALDateTime prints in its zone; the floating kinds print their own wall
  // clock, whatever the system zone (%z and %Z then print "+0000" and "GMT").
  std::string descriptionWithCalendarFormat(std::string_view format) const;
  // The locale is accepted and ignored: names print in English.
  std::string descriptionWithCalendarFormat(std::string_view format, const Value& locale) const;
  std::string isoStringRepresentation() const;
  // The platform's instant and calendar date; a CALDateTime in its zone, a
  // CALFloatingDateTime read in the system zone, a CALDateOnly in GMT.
  Date platformDate() const;
  CalendarDate calendarDate() const;

  // Keyed archive: "secondKey" ... "yearKey", "timeZoneKey" (the zone's name).
  void encodeWithCoder(Dictionary& coder) const;

 protected:
  CALDate() = default;

  template <class Kind>
  static CALRef<Kind> _make() {
    return CALRef<Kind>::adopt(new Kind());
  }
  // Logs `warning` and raises "NotImplementedInSubClass" naming `selector`.
  [[noreturn]] static void _abstract(const char* warning, const char* selector);

  // The records compare() sets against each other: this date's and the other
  // date's, read as this kind reads them.
  virtual void _comparisonRecords(const CALDate& other, CALCDate* mine, CALCDate* theirs) const = 0;
  // Shared bodies of the comparison and difference operations of the kinds.
  int _compareRecords(const CALDate* other) const;
  bool _meetCondition(unsigned condition, const CALDate* other) const;
  void _deltaSince(int* years, int* months, int* days, int* hours, int* minutes, int* seconds,
                   const CALDate* other) const;
  bool _isSameLocalDay(const CALDate* other) const;
  // The zone the platform conversions read the wall clock in.
  virtual TimeZonePtr _conversionZone() const = 0;
  // Sets the date from a parsed calendar date: the floating kinds take its
  // wall clock, a CALDateTime its instant and zone.
  virtual void _takeCalendarDate(const CalendarDate& date);
  // Called after the record was set from outside (construction, decoding,
  // another date); a CALDateOnly drops the time of day there.
  virtual void _didSetRecord() {}
  // Copies record, zone and format from `other` (no offset cache).
  void _copyStateFrom(const CALDate& other);
  void _invalidateOffsetCache() const { _timeZoneCacheIsValid = false; }
  // The offset of `zone` at this date's instant, through the thread's helper
  // date stored under `helperKey`.
  std::int64_t _offsetOfZone(const TimeZone& zone, const char* helperKey) const;

  CALCDate _cdate{0, 0, 0, 1, 1, 2001};
  TimeZonePtr _timeZone;
  mutable bool _timeZoneCacheIsValid = false;
  mutable std::int64_t _cachedTimeZoneDiff = 0;
  std::string _calendarFormat;

 private:
  template <class Kind>
  static CALRef<Kind> _withRecord(const CALCDate& record, TimeZonePtr zone);
  static CALCDate _decodeRecord(const Dictionary& coder, bool* ok);
  static TimeZonePtr _decodeZone(const Dictionary& coder);

  mutable std::uint16_t _refCount = 1;
};

// The platform date a zone is asked its offset at, pointed at a CALDate
// instead of allocating a platform date for each question.
class OurOwnMutableDate : public Object, public Date {
 public:
  std::string className() const override { return "OurOwnMutableDate"; }
  // Points at `date` (not owned); null detaches.
  void setCalDate(const CALDate* date);
  // Seconds of the held date since 2001-01-01 00:00:00 GMT.
  double timeIntervalSinceReferenceDate() const { return secondsSinceReferenceDate; }

 private:
  const CALDate* _calDate = nullptr;
};

// Seconds from 0001-01-01 to 1970-01-01 and to 2001-01-01.
inline constexpr std::int64_t kCALSecondsFrom1To1970 = 62135596800;
inline constexpr std::int64_t kCALSecondsFrom1To2001 = 63113904000;

// --- Template definitions ---------------------------------------------------

template <class Kind>
CALRef<Kind> CALDate::_withRecord(const CALCDate& r, TimeZonePtr zone) {
  CALRef<Kind> date = _make<Kind>();
  date->setYear(static_cast<std::int32_t>(r.year), static_cast<std::uint32_t>(r.month),
                static_cast<std::uint32_t>(r.day), static_cast<std::uint32_t>(r.hour),
                static_cast<std::uint32_t>(r.minute), static_cast<std::uint32_t>(r.second),
                std::move(zone));
  return date;
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithTimeIntervalSince1970(double seconds) {
  CALCDate record{0, 0, 0, 1, 1, 1970};
  calcdate_add_seconds(&record, static_cast<std::int64_t>(seconds));
  return _withRecord<Kind>(record, nullptr);
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithTimeIntervalSince2001(double seconds) {
  CALCDate record{0, 0, 0, 1, 1, 2001};
  calcdate_add_seconds(&record, static_cast<std::int64_t>(seconds));
  return _withRecord<Kind>(record, nullptr);
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithTimeInterval(double seconds, const CALDate& date) {
  CALRef<Kind> result = _make<Kind>();
  result->takeValueFrom(&date);
  result->addSecondsInGMT(static_cast<std::int64_t>(seconds));
  return result;
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithString(std::string_view text, std::string_view calendarFormat) {
  const std::optional<CalendarDate> parsed = CalendarDate::dateWithString(text, calendarFormat);
  if (!parsed || parsed->yearOfCommonEra() < kCALCDateFirstYear ||
      parsed->yearOfCommonEra() > kCALCDateLastYear)
    return nullptr;
  CALRef<Kind> date = _make<Kind>();
  static_cast<CALDate&>(*date)._takeCalendarDate(*parsed);
  return date;
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::distantPast() {
  return _withRecord<Kind>(CALCDate{0, 0, 0, 2, 1, 1}, nullptr);
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::distantFuture() {
  return _withRecord<Kind>(CALCDate{0, 0, 0, 1, 1, 3000}, nullptr);
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithDate(const CALDate& date) {
  CALRef<Kind> result = _make<Kind>();
  result->takeValueFrom(&date);
  return result;
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithDatePartFrom(const CALDate& datePart, const CALDate& timePart) {
  return dateWithDatePartFrom<Kind>(datePart, timePart, datePart.timeZone());
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithDatePartFrom(const CALDate& datePart, const CALDate& timePart,
                                           TimeZonePtr zone) {
  CALCDate day, time;
  datePart.getCDateInTimeZone(&day);
  timePart.getCDateInTimeZone(&time);
  return _withRecord<Kind>(CALCDate{time.second, time.minute, time.hour, day.day, day.month, day.year},
                           std::move(zone));
}

template <std::derived_from<CALDate> Kind>
CALRef<Kind> CALDate::dateWithCoder(const Dictionary& coder) {
  bool ok = false;
  const CALCDate record = _decodeRecord(coder, &ok);
  if (!ok) return nullptr;
  // The archive holds the raw record (GMT for a CALDateTime): no re-reading.
  CALRef<Kind> date = _make<Kind>();
  CALDate& base = *date;
  base._cdate = record;
  base._timeZone = _decodeZone(coder);
  base._didSetRecord();
  return date;
}

}  // namespace pc
