#include "host/VFormatValues.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cstdlib>

#include "host/ContentLines.h"

namespace pc {

namespace {

// Reads exactly `width` digits at `pos`, advancing it.
std::optional<int> digits(std::string_view text, std::size_t& pos, std::size_t width) {
  if (pos + width > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    const char c = text[pos + i];
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  pos += width;
  return value;
}

bool skip(std::string_view text, std::size_t& pos, char c) {
  if (pos < text.size() && text[pos] == c) {
    ++pos;
    return true;
  }
  return false;
}

int daysInMonth(int year, int month) {
  static constexpr std::array<int, 12> kDays{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[static_cast<std::size_t>(month - 1)];
}

constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kWeekdays{{
    {"sunday", "SU"}, {"monday", "MO"}, {"tuesday", "TU"}, {"wednesday", "WE"},
    {"thursday", "TH"}, {"friday", "FR"}, {"saturday", "SA"},
}};

}  // namespace

std::optional<VDateValue> parseVDate(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  VDateValue v;
  std::size_t pos = 0;
  const auto year = digits(text, pos, 4);
  const bool extended = skip(text, pos, '-');
  const auto month = digits(text, pos, 2);
  if (extended && !skip(text, pos, '-')) return std::nullopt;
  const auto day = digits(text, pos, 2);
  if (!year || !month || !day || *year < 1 || *month < 1 || *month > 12 || *day < 1 ||
      *day > daysInMonth(*year, *month))
    return std::nullopt;
  v.year = *year;
  v.month = *month;
  v.day = *day;
  if (pos == text.size()) {
    v.dateOnly = true;
    return v;
  }
  if (!skip(text, pos, 'T') && !skip(text, pos, 't')) return std::nullopt;
  const auto hour = digits(text, pos, 2);
  skip(text, pos, ':');
  const auto minute = digits(text, pos, 2);
  skip(text, pos, ':');
  const auto second = digits(text, pos, 2);
  if (!hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 60) return std::nullopt;
  v.hour = *hour;
  v.minute = *minute;
  v.second = std::min(*second, 59);
  if (skip(text, pos, 'Z') || skip(text, pos, 'z')) v.utc = true;
  return pos == text.size() ? std::optional(v) : std::nullopt;
}

CalendarDate calendarDateFromVDate(const VDateValue& value, const TimeZonePtr& zone) {
  if (value.dateOnly)
    return CalendarDate::dateWithYear(value.year, value.month, value.day, 12, 0, 0, TimeZone::gmt());
  if (value.utc) {
    CalendarDate date = CalendarDate::dateWithYear(value.year, value.month, value.day, value.hour,
                                                   value.minute, value.second, TimeZone::gmt());
    if (zone) date.setTimeZone(zone);
    return date;
  }
  return CalendarDate::dateWithYear(value.year, value.month, value.day, value.hour, value.minute,
                                    value.second, zone ? zone : TimeZone::gmt());
}

bool isWithinWritableYears(const CalendarDate& date) {
  static const double first = CalendarDate::dateWithYear(1, 1, 1, 0, 0, 0, TimeZone::gmt()).timeIntervalSinceReferenceDate();
  static const double end = CalendarDate::dateWithYear(10000, 1, 1, 0, 0, 0, TimeZone::gmt()).timeIntervalSinceReferenceDate();
  const double t = date.timeIntervalSinceReferenceDate();
  return t >= first && t < end;
}

std::optional<CalendarDate> readVDate(std::string_view text, const TimeZonePtr& zone, std::string& problem) {
  const std::optional<VDateValue> value = parseVDate(text);
  if (!value) {
    problem = "not a date: \"" + std::string(text) + "\"";
    return std::nullopt;
  }
  CalendarDate date = calendarDateFromVDate(*value, zone);
  if (!isWithinWritableYears(date)) {
    problem = "a date out of the years 1 to 9999: \"" + std::string(text) + "\"";
    return std::nullopt;
  }
  return date;
}

std::string photoTypeOfBytes(std::string_view bytes) {
  if (bytes.starts_with("\xff\xd8")) return "JPEG";
  if (bytes.starts_with("\x89PNG")) return "PNG";
  if (bytes.starts_with("GIF8")) return "GIF";
  if (bytes.starts_with("BM")) return "BMP";
  return std::string();
}

bool isPlainParameter(std::string_view value) {
  return !value.empty() && value.find_first_of(";:\"=,\r\n") == std::string_view::npos &&
         value.front() != ' ' && value.back() != ' ' && value.front() != '\t' && value.back() != '\t';
}

bool isDayAnchor(const CalendarDate& date) {
  return date.timeZone() && date.timeZone()->name() == "GMT" && date.hourOfDay() == 12 &&
         date.minuteOfHour() == 0 && date.secondOfMinute() == 0;
}

std::string dateOnlyText(const CalendarDate& date) {
  return fmt::format("{:04}{:02}{:02}", date.yearOfCommonEra(), date.monthOfYear(), date.dayOfMonth());
}

std::string utcText(const CalendarDate& date) {
  const CalendarDate gmt = date.dateWithTimeZone(TimeZone::gmt());
  if (gmt.yearOfCommonEra() < 1 || gmt.yearOfCommonEra() > 9999) return std::string();
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z", gmt.yearOfCommonEra(), gmt.monthOfYear(),
                     gmt.dayOfMonth(), gmt.hourOfDay(), gmt.minuteOfHour(), gmt.secondOfMinute());
}

std::string wallClockText(const CalendarDate& date, const TimeZonePtr& zone) {
  const CalendarDate local = zone ? date.dateWithTimeZone(zone) : date;
  if (local.yearOfCommonEra() < 1 || local.yearOfCommonEra() > 9999) return std::string();
  return fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}", local.yearOfCommonEra(), local.monthOfYear(),
                     local.dayOfMonth(), local.hourOfDay(), local.minuteOfHour(), local.secondOfMinute());
}

std::vector<ContentParameter> zoneParameters(const CalendarDate& date) {
  if (!date.timeZone() || date.timeZone()->name() == "GMT") return {};
  return {{"X-TZID", date.timeZone()->name()}};
}

TimeZonePtr zoneOfLine(const ContentLine& line, const TimeZonePtr& fallback) {
  if (std::optional<std::string> name = line.parameter("X-TZID"))
    if (TimeZonePtr zone = TimeZone::timeZoneWithName(*name)) return zone;
  return fallback;
}

bool writeExtraField(ContentWriter& out, std::string_view key, const Value& value) {
  std::vector<ContentParameter> parameters{{"KEY", std::string(key)}};
  auto kind = [&](const char* name) { parameters.push_back({"VALUE", name}); };
  switch (value.kind()) {
    case ValueKind::String: out.line(kExtraFieldProperty, parameters, value.string()); return true;
    case ValueKind::Boolean: kind("BOOLEAN"); out.line(kExtraFieldProperty, parameters, value.boolValue() ? "TRUE" : "FALSE"); return true;
    case ValueKind::Integer: kind("INTEGER"); out.line(kExtraFieldProperty, parameters, std::to_string(value.integerValue())); return true;
    case ValueKind::Real: kind("REAL"); out.line(kExtraFieldProperty, parameters, fmt::format("{}", value.doubleValue())); return true;
    case ValueKind::URL: kind("URL"); out.line(kExtraFieldProperty, parameters, value.url().absoluteString()); return true;
    case ValueKind::Data: kind("BINARY"); out.binary(kExtraFieldProperty, parameters, value.data().asString()); return true;
    case ValueKind::Date: {
      const std::string text = utcText(value.date());
      if (text.empty()) return false;
      kind("DATE-TIME");
      for (ContentParameter& p : zoneParameters(value.date())) parameters.push_back(std::move(p));
      out.line(kExtraFieldProperty, parameters, text);
      return true;
    }
    case ValueKind::Array: {
      std::vector<std::string> items;
      for (const Value& item : value.array()) {
        if (!item.isString()) return false;
        items.push_back(item.string());
      }
      kind("LIST");
      out.line(kExtraFieldProperty, parameters, joinComponents(items));
      return true;
    }
    default: return false;
  }
}

bool readExtraField(const ContentLine& line, Dictionary& record, std::string& problem) {
  const std::optional<std::string> key = line.parameter("KEY");
  if (!key || !isPlainParameter(*key) || *key == "entityName") {
    problem = std::string(kExtraFieldProperty) + " without a usable KEY";
    return false;
  }
  const std::string kind = upperAscii(line.parameter("VALUE").value_or("TEXT"));
  const std::string text = decodedText(line, &problem);
  if (kind == "TEXT") {
    record.set(*key, text);
  } else if (kind == "BOOLEAN") {
    if (upperAscii(text) != "TRUE" && upperAscii(text) != "FALSE") {
      problem = "not a boolean: \"" + text + "\"";
      return false;
    }
    record.set(*key, upperAscii(text) == "TRUE");
  } else if (kind == "INTEGER") {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
      problem = "not an integer: \"" + text + "\"";
      return false;
    }
    record.set(*key, number);
  } else if (kind == "REAL") {
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size()) {
      problem = "not a number: \"" + text + "\"";
      return false;
    }
    record.set(*key, number);
  } else if (kind == "URL") {
    record.set(*key, URL(text));
  } else if (kind == "BINARY") {
    record.set(*key, Data::fromString(decodedBytes(line)));
  } else if (kind == "DATE-TIME") {
    const std::optional<CalendarDate> date = readVDate(text, zoneOfLine(line, nullptr), problem);
    if (!date) return false;
    record.set(*key, *date);
  } else if (kind == "LIST") {
    Array items;
    if (!text.empty())
      for (std::string& item : splitStructured(text)) items.add(std::move(item));
    record.set(*key, items);
  } else {
    problem = "unknown VALUE \"" + kind + "\"";
    return false;
  }
  return true;
}

std::optional<std::string> weekdayAbbreviation(std::string_view recordName) {
  for (const auto& [name, abbreviation] : kWeekdays)
    if (name == recordName) return std::string(abbreviation);
  return std::nullopt;
}

std::optional<std::string> weekdayRecordName(std::string_view abbreviation) {
  const std::string wanted = upperAscii(abbreviation);
  for (const auto& [name, abbr] : kWeekdays)
    if (abbr == wanted) return std::string(name);
  return std::nullopt;
}

}  // namespace pc
