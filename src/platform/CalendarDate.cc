#include "platform/CalendarDate.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <iterator>

namespace pc {
namespace {

constexpr int64_t kSecondsPerDay = 86400;
constexpr int64_t kMillisPerDay = kSecondsPerDay * 1000;
// Days from 1970-01-01 to the reference date 2001-01-01.
constexpr int64_t kReferenceDateDays = 11323;
// Instants are read within about 300,000 years of the reference date, which
// keeps every field within an int.
constexpr double kFarSeconds = CalendarDate::kSupportedSeconds;

constexpr std::array<std::string_view, 7> kDayNames{"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                    "Thursday", "Friday", "Saturday"};
constexpr std::array<std::string_view, 12> kMonthNames{"January",   "February", "March",    "April",
                                                       "May",       "June",     "July",     "August",
                                                       "September", "October",  "November", "December"};

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
int64_t floorMod(int64_t a, int64_t b) { return a - floorDiv(a, b) * b; }

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar (any
// year, month 1..12), counting in 400-year eras of 146097 days with the year
// starting in March so that the leap day comes last.
int64_t daysFromCivil(int64_t year, int64_t month, int64_t day) {
  year -= month <= 2;
  const int64_t era = floorDiv(year, 400);
  const int64_t yearOfEra = year - era * 400;
  const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

struct CivilDay {
  int64_t year;
  int month;
  int day;
};

CivilDay civilFromDays(int64_t days) {
  days += 719468;
  const int64_t era = floorDiv(days, 146097);
  const int64_t dayOfEra = days - era * 146097;
  const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int64_t monthIndex = (5 * dayOfYear + 2) / 153;  // 0 = March
  const int day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
  const int month = static_cast<int>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
  return {yearOfEra + era * 400 + (month <= 2), month, day};
}

int daysInMonth(int64_t year, int month) {
  return static_cast<int>(daysFromCivil(year, month + 1, 1) - daysFromCivil(year, month, 1));
}

struct Fields {
  int year, month, day, hour, minute, second, millisecond;
  int dayOfWeek, dayOfYear, offset;
};

// The fields of `instant` in `zone`, rounded to the millisecond so that
// binary fractions (x.9999999) read as the intended second.
Fields fieldsOf(Date instant, const TimeZone& zone) {
  double t = instant.secondsSinceReferenceDate;
  t = std::isnan(t) ? 0 : std::clamp(t, -kFarSeconds, kFarSeconds);
  Fields f{};
  f.offset = zone.secondsFromGMT(Date{t});
  const int64_t wallMillis = std::llround((t + f.offset) * 1000.0);
  const int64_t days = floorDiv(wallMillis, kMillisPerDay) + kReferenceDateDays;
  const int64_t millisOfDay = floorMod(wallMillis, kMillisPerDay);
  const CivilDay civil = civilFromDays(days);
  f.year = static_cast<int>(civil.year);
  f.month = civil.month;
  f.day = civil.day;
  f.hour = static_cast<int>(millisOfDay / 3600000);
  f.minute = static_cast<int>(millisOfDay / 60000 % 60);
  f.second = static_cast<int>(millisOfDay / 1000 % 60);
  f.millisecond = static_cast<int>(millisOfDay % 1000);
  f.dayOfWeek = static_cast<int>(floorMod(days + 4, 7));  // 1970-01-01 was a Thursday
  f.dayOfYear = static_cast<int>(days - daysFromCivil(civil.year, 1, 1) + 1);
  return f;
}

// The wall clock given by fields, as seconds since the reference date counted
// as if it were GMT. Out-of-range fields carry into the larger units.
double wallClockSeconds(int64_t year, int64_t month, int64_t day, int64_t hour, int64_t minute,
                        int64_t second) {
  const int64_t months = year * 12 + (month - 1);
  const int64_t days =
      daysFromCivil(floorDiv(months, 12), floorMod(months, 12) + 1, 1) + (day - 1) - kReferenceDateDays;
  return static_cast<double>(days * kSecondsPerDay + hour * 3600 + minute * 60 + second);
}

Date instantOfWallClock(double wall, const TimeZone& zone) {
  return Date{wall - zone.secondsFromGMTForWallClock(Date{wall})};
}

// %c, %x and %X stand for longer formats; expanding them first lets printing
// and parsing deal with the plain conversions only.
std::string expandedFormat(std::string_view format) {
  std::string out;
  out.reserve(format.size());
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      out += format[i];
      continue;
    }
    const char conversion = format[++i];
    switch (conversion) {
      case 'c': out += "%a %b %d %H:%M:%S %Z %Y"; break;
      case 'x': out += "%Y-%m-%d"; break;
      case 'X': out += "%H:%M:%S"; break;
      default: out += '%'; out += conversion;  // "%%" stays one pair
    }
  }
  return out;
}

bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool isNumericConversion(char c) { return std::string_view("YymdejHIMSF").find(c) != std::string_view::npos; }

bool startsWithIgnoringCase(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
         });
}

// Reads a text against an expanded calendar format, collecting the fields;
// on a mismatch keeps a message saying what was expected and where.
class DateParser {
 public:
  explicit DateParser(std::string_view text) : _text(text) {}

  bool parse(std::string_view format) {
    for (size_t i = 0; i < format.size(); ++i) {
      const char c = format[i];
      if (isSpace(c)) {
        // A blank matches any run of blanks, none included.
        while (_pos < _text.size() && isSpace(_text[_pos])) ++_pos;
      } else if (c != '%' || i + 1 == format.size()) {
        if (!literal(format.substr(i, 1))) return false;
      } else {
        const char conversion = format[++i];
        // A year directly followed by another number ("%Y%m%d") has exactly 4 digits.
        const bool numberFollows =
            i + 2 < format.size() && format[i + 1] == '%' && isNumericConversion(format[i + 2]);
        if (!convert(conversion, numberFollows)) return false;
      }
    }
    return checkDay();
  }

  const std::string& error() const { return _error; }

  CalendarDate result(const TimeZonePtr& fallbackZone) const {
    TimeZonePtr zone = _zone;
    if (!zone && _offset) zone = TimeZone::timeZoneForSecondsFromGMT(*_offset);
    if (!zone) zone = fallbackZone ? fallbackZone : TimeZone::gmt();
    const int hour = _hour12 ? *_hour12 % 12 + (_pm ? 12 : 0) : _hour;
    const double wall = _dayOfYear ? wallClockSeconds(_year, 1, *_dayOfYear, hour, _minute, _second)
                                   : wallClockSeconds(_year, _month, _day, hour, _minute, _second);
    // A stated offset fixes the instant even where the zone's clock repeats.
    Date instant = _offset ? Date{wall - *_offset} : instantOfWallClock(wall, *zone);
    instant.secondsSinceReferenceDate += _millisecond / 1000.0;
    return CalendarDate(instant, std::move(zone));
  }

 private:
  bool fail(size_t at, std::string_view what) {
    _error = fmt::format("{} at offset {} in \"{}\"", what, at, _text);
    return false;
  }
  bool fail(size_t at, std::string_view what, char conversion) {
    return fail(at, fmt::format("{} for %{}", what, conversion));
  }

  bool literal(std::string_view expected) {
    if (_text.substr(_pos).starts_with(expected)) {
      _pos += expected.size();
      return true;
    }
    return fail(_pos, fmt::format("expected \"{}\"", expected));
  }

  // Reads minDigits to maxDigits digits into `out`, checking [low, high].
  bool number(char conversion, size_t minDigits, size_t maxDigits, int low, int high, int& out) {
    const size_t start = _pos;
    int value = 0;
    while (_pos < _text.size() && _pos - start < maxDigits && isDigit(_text[_pos]))
      value = value * 10 + (_text[_pos++] - '0');
    const size_t digits = _pos - start;
    if (digits < minDigits) {
      const std::string count = minDigits == maxDigits       ? fmt::format("{}", minDigits)
                                : maxDigits == minDigits + 1 ? fmt::format("{} or {}", minDigits, maxDigits)
                                                             : fmt::format("at least {}", minDigits);
      return fail(start, fmt::format("expected {} digits", count), conversion);
    }
    if (value < low || value > high)
      return fail(start, fmt::format("value {} out of range {}-{}", value, low, high), conversion);
    out = value;
    return true;
  }

  // Matches one of `names` (whole or its first three letters), case aside.
  bool name(char conversion, std::string_view what, const auto& names, int& index) {
    const std::string_view rest = _text.substr(_pos);
    for (size_t length : {std::string_view::npos, size_t{3}}) {
      for (size_t i = 0; i < names.size(); ++i) {
        const std::string_view candidate = names[i].substr(0, length);
        if (startsWithIgnoringCase(rest, candidate)) {
          _pos += candidate.size();
          index = static_cast<int>(i);
          return true;
        }
      }
    }
    return fail(_pos, fmt::format("expected {}", what), conversion);
  }

  bool year(bool numberFollows) {
    const bool negative = _pos < _text.size() && _text[_pos] == '-';
    if (negative || (_pos < _text.size() && _text[_pos] == '+')) ++_pos;
    if (!number('Y', 4, numberFollows ? 4 : 9, 0, 999999999, _year)) return false;
    if (negative) _year = -_year;
    return true;
  }

  // "+hhmm", "-hhmm" or "+hh:mm".
  bool offset() {
    const size_t start = _pos;
    const auto bad = [&] { return fail(start, "expected +hhmm, -hhmm or +hh:mm", 'z'); };
    if (_pos >= _text.size() || (_text[_pos] != '+' && _text[_pos] != '-')) return bad();
    const int sign = _text[_pos++] == '-' ? -1 : 1;
    int hours = 0, minutes = 0;
    if (!number('z', 2, 2, 0, 23, hours)) return bad();
    if (_pos < _text.size() && _text[_pos] == ':') ++_pos;
    if (!number('z', 2, 2, 0, 59, minutes)) return bad();
    _offset = sign * (hours * 3600 + minutes * 60);
    return true;
  }

  // A zone name ("Europe/Paris", "GMT+0100") or abbreviation ("CET").
  bool zone() {
    const size_t start = _pos;
    while (_pos < _text.size() && (std::isalnum(static_cast<unsigned char>(_text[_pos])) ||
                                   std::string_view("_/+-:").find(_text[_pos]) != std::string_view::npos))
      ++_pos;
    const std::string_view name = _text.substr(start, _pos - start);
    if (name.empty()) return fail(start, "expected a time zone name", 'Z');
    _zone = TimeZone::timeZoneWithName(name);
    if (!_zone) _zone = TimeZone::timeZoneWithAbbreviation(name);
    if (!_zone) return fail(start, fmt::format("unknown time zone \"{}\"", name), 'Z');
    return true;
  }

  bool convert(char conversion, bool numberFollows) {
    int index = 0;
    switch (conversion) {
      case 'Y': return year(numberFollows);
      case 'y':
        if (!number(conversion, 2, 2, 0, 99, _year)) return false;
        _year += _year < 69 ? 2000 : 1900;
        return true;
      case 'm': return number(conversion, 2, 2, 1, 12, _month);
      case 'e':
        while (_pos < _text.size() && _text[_pos] == ' ') ++_pos;
        [[fallthrough]];
      case 'd':
        _dayAt = _pos;
        _dayConversion = conversion;
        return number(conversion, conversion == 'e' ? 1 : 2, 2, 1, 31, _day);
      case 'j':
        _dayAt = _pos;
        _dayConversion = conversion;
        _dayOfYear.emplace();
        return number(conversion, 3, 3, 1, 366, *_dayOfYear);
      case 'H': return number(conversion, 2, 2, 0, 23, _hour);
      case 'I': return number(conversion, 2, 2, 1, 12, _hour12.emplace());
      case 'M': return number(conversion, 2, 2, 0, 59, _minute);
      case 'S': return number(conversion, 2, 2, 0, 59, _second);
      case 'F': return number(conversion, 3, 3, 0, 999, _millisecond);
      case 'p': {
        constexpr std::array<std::string_view, 2> kMeridiems{"AM", "PM"};
        if (!name(conversion, "AM or PM", kMeridiems, index)) return false;
        _pm = index == 1;
        return true;
      }
      case 'a':
      case 'A': return name(conversion, "a day name", kDayNames, index);  // read, not checked
      case 'b':
      case 'B':
        if (!name(conversion, "a month name", kMonthNames, index)) return false;
        _month = index + 1;
        return true;
      case 'z': return offset();
      case 'Z': return zone();
      case '%': return literal("%");
      default: return literal(fmt::format("%{}", conversion));
    }
  }

  // The day must exist in its month (or year, for %j).
  bool checkDay() {
    const int days = _dayOfYear
                         ? static_cast<int>(daysFromCivil(_year + 1, 1, 1) - daysFromCivil(_year, 1, 1))
                         : daysInMonth(_year, _month);
    const int day = _dayOfYear ? *_dayOfYear : _day;
    if (day <= days) return true;
    return fail(_dayAt, fmt::format("value {} out of range 1-{}", day, days), _dayConversion);
  }

  std::string_view _text;
  size_t _pos = 0;
  std::string _error;

  // Fields the format lacks are those of 2001-01-01 00:00:00.
  int _year = 2001, _month = 1, _day = 1, _hour = 0, _minute = 0, _second = 0, _millisecond = 0;
  std::optional<int> _hour12;
  bool _pm = false;
  std::optional<int> _dayOfYear;
  size_t _dayAt = 0;
  char _dayConversion = 'd';
  std::optional<int> _offset;
  TimeZonePtr _zone;
};

}  // namespace

CalendarDate::CalendarDate() : CalendarDate(Date{}) {}

CalendarDate::CalendarDate(Date instant, TimeZonePtr zone)
    : _instant(instant), _zone(zone ? std::move(zone) : TimeZone::gmt()) {}

CalendarDate CalendarDate::now(TimeZonePtr zone) { return CalendarDate(Date::now(), std::move(zone)); }

CalendarDate CalendarDate::dateWithYear(int year, int month, int day, int hour, int minute, int second,
                                        TimeZonePtr zone) {
  if (!zone) zone = TimeZone::gmt();
  const Date instant = instantOfWallClock(wallClockSeconds(year, month, day, hour, minute, second), *zone);
  return CalendarDate(instant, std::move(zone));
}

std::optional<CalendarDate> CalendarDate::dateWithString(std::string_view text, std::string_view format,
                                                         TimeZonePtr zone, std::string* error) {
  DateParser parser(text);
  if (!parser.parse(expandedFormat(format))) {
    if (error) *error = parser.error();
    return std::nullopt;
  }
  return parser.result(zone);
}

void CalendarDate::setTimeZone(TimeZonePtr zone) { _zone = zone ? std::move(zone) : TimeZone::gmt(); }

CalendarDate CalendarDate::dateWithTimeZone(TimeZonePtr zone) const {
  CalendarDate copy = *this;
  copy.setTimeZone(std::move(zone));
  return copy;
}

int CalendarDate::yearOfCommonEra() const { return fieldsOf(_instant, *_zone).year; }
int CalendarDate::monthOfYear() const { return fieldsOf(_instant, *_zone).month; }
int CalendarDate::dayOfMonth() const { return fieldsOf(_instant, *_zone).day; }
int CalendarDate::hourOfDay() const { return fieldsOf(_instant, *_zone).hour; }
int CalendarDate::minuteOfHour() const { return fieldsOf(_instant, *_zone).minute; }
int CalendarDate::secondOfMinute() const { return fieldsOf(_instant, *_zone).second; }
int CalendarDate::dayOfWeek() const { return fieldsOf(_instant, *_zone).dayOfWeek; }
int CalendarDate::dayOfYear() const { return fieldsOf(_instant, *_zone).dayOfYear; }
int CalendarDate::secondsFromGMT() const { return _zone->secondsFromGMT(_instant); }

CalendarDate CalendarDate::dateByAddingYears(int years, int months, int days, int hours, int minutes,
                                             int seconds) const {
  CalendarDate result = *this;
  // Years, months and days move the wall clock (09:00 stays 09:00 across a
  // daylight-saving change); hours, minutes and seconds are elapsed time.
  if (years != 0 || months != 0 || days != 0) {
    const Fields f = fieldsOf(_instant, *_zone);
    const double wall = wallClockSeconds(int64_t{f.year} + years, int64_t{f.month} + months,
                                         int64_t{f.day} + days, f.hour, f.minute, f.second);
    result._instant = instantOfWallClock(wall, *_zone);
    result._instant.secondsSinceReferenceDate += f.millisecond / 1000.0;
  }
  result._instant.secondsSinceReferenceDate += hours * 3600.0 + minutes * 60.0 + seconds;
  return result;
}

CalendarDate CalendarDate::dateByAddingTimeInterval(double seconds) const {
  CalendarDate result = *this;
  result._instant.secondsSinceReferenceDate += seconds;
  return result;
}

std::string CalendarDate::descriptionWithCalendarFormat(std::string_view format) const {
  const Fields f = fieldsOf(_instant, *_zone);
  const std::string expanded = expandedFormat(format);
  std::string out;
  auto sink = std::back_inserter(out);
  for (size_t i = 0; i < expanded.size(); ++i) {
    if (expanded[i] != '%' || i + 1 == expanded.size()) {
      out += expanded[i];
      continue;
    }
    const char conversion = expanded[++i];
    switch (conversion) {
      case 'Y':  // at least 4 digits; years before 1 (0 is 1 BC) get a minus sign
        if (f.year < 0)
          fmt::format_to(sink, "-{:04}", -f.year);
        else
          fmt::format_to(sink, "{:04}", f.year);
        break;
      case 'y': fmt::format_to(sink, "{:02}", floorMod(f.year, 100)); break;
      case 'm': fmt::format_to(sink, "{:02}", f.month); break;
      case 'd': fmt::format_to(sink, "{:02}", f.day); break;
      case 'e': fmt::format_to(sink, "{:2}", f.day); break;
      case 'j': fmt::format_to(sink, "{:03}", f.dayOfYear); break;
      case 'H': fmt::format_to(sink, "{:02}", f.hour); break;
      case 'I': fmt::format_to(sink, "{:02}", f.hour % 12 == 0 ? 12 : f.hour % 12); break;
      case 'p': out += f.hour < 12 ? "AM" : "PM"; break;
      case 'M': fmt::format_to(sink, "{:02}", f.minute); break;
      case 'S': fmt::format_to(sink, "{:02}", f.second); break;
      case 'F': fmt::format_to(sink, "{:03}", f.millisecond); break;
      case 'z': {
        const int magnitude = std::abs(f.offset);
        fmt::format_to(sink, "{}{:02}{:02}", f.offset < 0 ? '-' : '+', magnitude / 3600, magnitude / 60 % 60);
        break;
      }
      case 'Z': out += _zone->name(); break;
      case 'a': out += kDayNames[f.dayOfWeek].substr(0, 3); break;
      case 'A': out += kDayNames[f.dayOfWeek]; break;
      case 'b': out += kMonthNames[f.month - 1].substr(0, 3); break;
      case 'B': out += kMonthNames[f.month - 1]; break;
      case '%': out += '%'; break;
      default: out += '%'; out += conversion;
    }
  }
  return out;
}

std::string CalendarDate::description() const { return descriptionWithCalendarFormat(calendarFormat()); }

const std::string& CalendarDate::calendarFormat() const {
  static const std::string kDefault = kDefaultCalendarFormat;
  return _calendarFormat.empty() ? kDefault : _calendarFormat;
}

bool CalendarDate::isEqualIncludingTimeZone(const CalendarDate& other) const {
  return _instant == other._instant && _zone->isEqualToTimeZone(*other._zone);
}

}  // namespace pc
