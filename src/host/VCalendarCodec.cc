#include "host/VCalendarCodec.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <unordered_map>

#include "engine/SchemaNames.h"
#include "host/ContentLines.h"
#include "host/VCalendarRule.h"
#include "host/VFormatValues.h"

namespace pc {

namespace {

constexpr double kDay = 86400;

// "needsaction" <-> "NEEDS ACTION"; other statuses and classes are the
// record's words in capitals.
std::string statusText(const std::string& status) {
  if (status == "needsaction") return "NEEDS ACTION";
  if (status == "inprocess") return "IN-PROCESS";
  return upperAscii(status);
}

std::string statusValue(std::string_view text) {
  std::string out;
  for (char c : text) {
    if (c == ' ' || c == '-' || c == '_') continue;
    out += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return out;
}

Date yearStart(int year) { return CalendarDate::dateWithYear(year, 1, 1, 0, 0, 0, TimeZone::gmt()).date(); }

std::string offsetText(int seconds) {
  const char sign = seconds < 0 ? '-' : '+';
  seconds = std::abs(seconds);
  return fmt::format("{}{:02}:{:02}", sign, seconds / 3600, seconds / 60 % 60);
}

// "+01:00", "+0100", "+01", "-5"; nullopt when it is none of them.
std::optional<int> parseOffset(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  if (text.empty()) return std::nullopt;
  int sign = 1;
  if (text.front() == '+' || text.front() == '-') {
    sign = text.front() == '-' ? -1 : 1;
    text.remove_prefix(1);
  }
  std::string digits;
  for (char c : text) {
    if (c == ':') continue;
    if (c < '0' || c > '9') return std::nullopt;
    digits += c;
  }
  int hours = 0, minutes = 0;
  if (digits.size() <= 2 && !digits.empty()) {
    hours = std::stoi(digits);
  } else if (digits.size() == 3 || digits.size() == 4) {
    hours = std::stoi(digits.substr(0, digits.size() - 2));
    minutes = std::stoi(digits.substr(digits.size() - 2));
  } else {
    return std::nullopt;
  }
  if (hours > 23 || minutes > 59) return std::nullopt;
  return sign * (hours * 3600 + minutes * 60);
}

struct DaylightPeriod {
  double start = 0;  // seconds since the reference date, inclusive
  double end = 0;    // exclusive
  int offset = 0;
};

// What a file's TZ and DAYLIGHT lines say of its wall clocks.
struct ZoneDescription {
  std::optional<int> standard;
  std::vector<DaylightPeriod> periods;

  // The offset in force at the wall clock `wall` (read as if it were GMT).
  int offsetAt(double wall) const {
    for (const DaylightPeriod& p : periods)
      if (wall - p.offset >= p.start && wall - p.offset < p.end) return p.offset;
    return *standard;
  }
};

ZoneDescription readZoneDescription(const ContentObject& calendar, std::vector<ContentProblem>& problems) {
  ZoneDescription zone;
  if (const ContentLine* tz = calendar.find("TZ")) {
    zone.standard = parseOffset(tz->rawValue);
    if (!zone.standard) problems.push_back({tz->line, "TZ is not an offset: \"" + tz->rawValue + "\""});
  }
  if (!zone.standard) return zone;
  for (const ContentLine& line : calendar.lines) {
    if (line.name != "DAYLIGHT") continue;
    const std::vector<std::string> parts = splitStructured(line.rawValue);
    if (upperAscii(parts[0]) != "TRUE") continue;
    const std::optional<int> offset = parts.size() > 1 ? parseOffset(parts[1]) : std::nullopt;
    const std::optional<VDateValue> start = parts.size() > 2 ? parseVDate(parts[2]) : std::nullopt;
    const std::optional<VDateValue> end = parts.size() > 3 ? parseVDate(parts[3]) : std::nullopt;
    if (!offset || !start || !end || start->dateOnly || end->dateOnly) {
      problems.push_back({line.line, "DAYLIGHT does not read: \"" + line.rawValue + "\""});
      continue;
    }
    auto instant = [](const VDateValue& v, int offsetIfLocal) {
      const double wall = calendarDateFromVDate({v.year, v.month, v.day, v.hour, v.minute, v.second, false, true},
                                                TimeZone::gmt())
                              .timeIntervalSinceReferenceDate();
      return v.utc ? wall : wall - offsetIfLocal;
    };
    zone.periods.push_back({instant(*start, *zone.standard), instant(*end, *offset), *offset});
  }
  return zone;
}

// --- Writing ----------------------------------------------------------------------

std::vector<DaylightPeriod> daylightPeriods(const TimeZone& zone, int firstYear, int lastYear, int& standard);

// What the TZ and DAYLIGHT lines written for `zone` over the years given
// will tell a reader (offsets to the minute, as they are written).
ZoneDescription describedZone(const TimeZonePtr& zone, int firstYear, int lastYear) {
  ZoneDescription described;
  if (!zone || firstYear > lastYear) return described;
  int standard = 0;
  described.periods = daylightPeriods(*zone, firstYear, lastYear, standard);
  described.standard = parseOffset(offsetText(standard));
  for (DaylightPeriod& p : described.periods) p.offset = parseOffset(offsetText(p.offset)).value_or(p.offset);
  return described;
}

// The years (1 to 9999) of the dates in `zone` that `value` holds, at any depth.
void noteYearsInZone(const Value& value, const std::string& zone, std::vector<int>& years) {
  if (const CalendarDate* date = value.asDate()) {
    if (!date->timeZone() || date->timeZone()->name() != zone) return;
    years.push_back(std::clamp(date->yearOfCommonEra(), 1, 9999));
  } else if (const std::optional<Dictionary> dictionary = value.asDictionary()) {
    for (const auto& [key, item] : *dictionary) noteYearsInZone(item, zone, years);
  } else if (const std::optional<Array> array = value.asArray()) {
    for (const Value& item : *array) noteYearsInZone(item, zone, years);
  }
}

// The most years a file's zone description covers: one DAYLIGHT line a
// year, and a phone's calendar spans a few. Dates outside them keep the
// UTC form.
constexpr int kDescribedYears = 40;

class EntryWriter {
 public:
  EntryWriter(const VCalendarOptions& options, const ZoneDescription& described)
      : _options(options), _described(described) {}

  void write(const PhoneStoreRecord& record);
  const std::string& text() const { return _out.result(); }

 private:
  // A date's text and the parameters it needs; an empty text when it cannot
  // be written. `day`: a day anchor is written as its day.
  std::string dateText(const CalendarDate& date, bool day, std::vector<ContentParameter>* parameters);
  bool dateLine(std::string_view property, const Value& value, bool day);
  // false (nothing written) when the list holds anything but alarms.
  bool alarms(std::string_view property, const Value& list, std::string_view textKey);
  bool isPhoneTime(const CalendarDate& date) const {
    const std::string& phone = _options.phoneZone ? _options.phoneZone->name() : TimeZone::gmt()->name();
    return date.timeZone() && date.timeZone()->name() == phone;
  }

  const VCalendarOptions& _options;
  const ZoneDescription& _described;
  ContentWriter _out;
  std::set<std::string> _written;
};

std::string EntryWriter::dateText(const CalendarDate& date, bool day,
                                  std::vector<ContentParameter>* parameters) {
  if (day && isDayAnchor(date)) return dateOnlyText(date);
  // The phone's own times are its wall clocks; a date in another zone (a
  // floating or all-day date the transformer left in GMT) keeps the UTC form
  // and its zone, so that it reads back as the same date. A wall clock that
  // the file's TZ and DAYLIGHT lines would read as another instant (the hour
  // repeated when the clocks go back, an offset the zone no longer has, a
  // year the lines do not cover) keeps the UTC form too, with the phone's
  // zone named; where no zone can be named (a rule's end) it stays a wall
  // clock.
  if (_options.localTimes && isPhoneTime(date)) {
    const TimeZonePtr zone = _options.phoneZone ? _options.phoneZone : TimeZone::gmt();
    std::string text = wallClockText(date, zone);
    if (text.empty() || !_described.standard) return text;
    const double wall = date.timeIntervalSinceReferenceDate() + zone->secondsFromGMT(date.date());
    if (wall - _described.offsetAt(wall) == date.timeIntervalSinceReferenceDate()) return text;
    if (!parameters) return text;
  }
  if (parameters)
    for (ContentParameter& p : zoneParameters(date)) parameters->push_back(std::move(p));
  return utcText(date);
}

bool EntryWriter::dateLine(std::string_view property, const Value& value, bool day) {
  if (!value.isDate()) return false;
  std::vector<ContentParameter> parameters;
  const std::string text = dateText(value.date(), day, &parameters);
  if (text.empty()) return false;
  _out.line(property, parameters, text);
  return true;
}

bool EntryWriter::alarms(std::string_view property, const Value& list, std::string_view textKey) {
  if (!std::all_of(list.array().begin(), list.array().end(), [](const Value& v) { return v.isDictionary(); }))
    return false;
  for (const Value& item : list.array()) {
    const std::optional<Dictionary> alarm = item.asDictionary();
    if (!alarm) continue;
    std::vector<ContentParameter> parameters;
    std::string runTime;
    if (const Value trigger = alarm->get("triggerdate"); trigger.isDate())
      runTime = dateText(trigger.date(), false, &parameters);
    if (const Value duration = alarm->get("triggerduration"); duration.isNumber())
      parameters.push_back({"X-TRIGGERDURATION", "N" + (duration.isInteger() ? std::to_string(duration.integerValue())
                                                                             : fmt::format("{}", duration.doubleValue()))});
    // Run time, snooze time, repeat count, text: all four, as phones write them.
    std::vector<std::string> parts{runTime, "", "", alarm->getString(std::string(textKey))};
    _out.line(property, parameters, joinComponents(parts));
  }
  return true;
}

void EntryWriter::write(const PhoneStoreRecord& record) {
  const Dictionary& fields = record.fields;
  const bool task = record.entity == kCalendarsTask;
  _written = {kEngineRecordEntityNameKey};
  _out.begin(task ? "VTODO" : "VEVENT");
  if (!record.identifier.empty()) _out.line("X-IRMC-LUID", {}, record.identifier);
  auto text = [&](std::string_view property, std::string_view key, std::string (*form)(const std::string&)) {
    const Value value = fields.get(std::string(key));
    if (!value.isString()) return;
    _out.line(property, {}, form ? form(value.string()) : value.string());
    _written.insert(std::string(key));
  };
  text("SUMMARY", "summary", nullptr);
  text("LOCATION", "location", nullptr);
  text("DESCRIPTION", "description", nullptr);
  text("CLASS", "classification", [](const std::string& s) { return upperAscii(s); });
  text("STATUS", "status", statusText);
  if (const Value priority = fields.get("priority"); priority.isInteger()) {
    _out.line("PRIORITY", {}, std::to_string(priority.integerValue()));
    _written.insert("priority");
  }
  if (const Value url = fields.get("url"); url.isURL()) {
    _out.line("URL", {}, url.url().absoluteString());
    _written.insert("url");
  }

  const bool allDay = !task && fields.get("allDay").isBoolean() && fields.get("allDay").boolValue();
  const bool dueOnDay = task && fields.get("dueDateIsDateOnly").isBoolean() && fields.get("dueDateIsDateOnly").boolValue();
  const Value start = fields.get("startDate");
  const bool startIsDay = allDay && start.isDate() && isDayAnchor(start.date());
  auto date = [&](std::string_view property, std::string_view key, bool day) {
    if (dateLine(property, fields.get(std::string(key)), day)) _written.insert(std::string(key));
  };
  date("DTSTART", "startDate", startIsDay);
  if (task) {
    date("DUE", "dueDate", dueOnDay);
    date("COMPLETED", "completionDate", false);
  } else {
    date("DTEND", "endDate", startIsDay);
    // An all-day event reads back as one from its dates alone.
    if (fields.get("allDay").isBoolean() && allDay == startIsDay) _written.insert("allDay");
  }

  if (const Value list = fields.get("displayAlarms"); list.isArray()) {
    if (alarms("DALARM", list, "description")) _written.insert("displayAlarms");
  }
  if (const Value list = fields.get("audioAlarms"); list.isArray()) {
    if (alarms("AALARM", list, "sound")) _written.insert("audioAlarms");
  }
  if (const Value list = fields.get("exceptionDates"); list.isArray() && !list.array().empty()) {
    // A new line where the zone changes, so that each instant can name its
    // zone and the dates keep their order.
    std::vector<std::pair<std::vector<ContentParameter>, std::vector<std::string>>> lines;
    bool complete = true;
    for (const Value& item : list.array()) {
      std::vector<ContentParameter> parameters;
      const std::string day = item.isDate() ? dateText(item.date(), true, &parameters) : std::string();
      if (day.empty()) {
        complete = false;
        continue;
      }
      const bool sameZone = !lines.empty() && lines.back().first.size() == parameters.size() &&
                            (parameters.empty() || lines.back().first[0].value == parameters[0].value);
      if (sameZone) lines.back().second.push_back(day);
      else lines.push_back({parameters, {day}});
    }
    for (const auto& [parameters, days] : lines) _out.line("EXDATE", parameters, fmt::format("{}", fmt::join(days, ";")));
    if (complete) _written.insert("exceptionDates");
  }
  if (const Value list = fields.get("recurrences"); list.isArray() && !list.array().empty()) {
    bool complete = true;
    for (const Value& item : list.array()) {
      const std::optional<Dictionary> recurrence = item.asDictionary();
      const std::optional<VCalendarRuleText> rule =
          recurrence ? vcalendarRuleFromRecurrence(*recurrence, [&](const CalendarDate& d) {
            return dateText(d, false, nullptr);
          })
                     : std::nullopt;
      if (!rule) {
        complete = false;
        continue;
      }
      _out.line("RRULE", rule->parameters, rule->rule);
    }
    if (complete) _written.insert("recurrences");
  }
  for (const auto& [key, value] : fields) {
    if (!key.isString() || _written.count(key.string())) continue;
    writeExtraField(_out, key.string(), value);
  }
  _out.end(task ? "VTODO" : "VEVENT");
}

// The daylight-saving periods of `zone` that overlap the years given.
std::vector<DaylightPeriod> daylightPeriods(const TimeZone& zone, int firstYear, int lastYear, int& standard) {
  std::vector<DaylightPeriod> periods;
  const double from = CalendarDate::dateWithYear(firstYear - 1, 7, 1, 0, 0, 0, TimeZone::gmt()).timeIntervalSinceReferenceDate();
  const double to = yearStart(lastYear + 1).secondsSinceReferenceDate;
  auto dst = [&](double t) { return zone.isDaylightSavingTime(Date{t}); };
  // The first second at which the state differs from that at `a`.
  auto change = [&](double a, double b) {
    const bool before = dst(a);
    while (b - a > 1) {
      const double middle = std::floor((a + b) / 2);
      if (dst(middle) == before) a = middle;
      else b = middle;
    }
    return b;
  };
  standard = zone.secondsFromGMT(yearStart(firstYear));
  bool state = dst(from);
  bool open = false;
  double openedAt = 0;
  // A period still open at the end of the last year is followed to its end.
  const double limit = to + 370 * kDay;
  for (double t = from; t < to || (open && t < limit); t += kDay) {
    const double next = t + kDay;
    const bool nextState = dst(next);
    if (!nextState) standard = zone.secondsFromGMT(Date{next});
    if (nextState == state) continue;
    const double at = change(t, next);
    if (nextState) {
      openedAt = at;
      open = true;
    } else if (open) {
      periods.push_back({openedAt, at, zone.secondsFromGMT(Date{openedAt})});
      open = false;
    }
    state = nextState;
  }
  if (open) periods.push_back({openedAt, limit, zone.secondsFromGMT(Date{openedAt})});
  const double first = yearStart(firstYear).secondsSinceReferenceDate;
  std::erase_if(periods, [&](const DaylightPeriod& p) { return p.end <= first; });
  return periods;
}

// --- Reading ------------------------------------------------------------------------

class EntryReader {
 public:
  EntryReader(const VCalendarOptions& options, const ZoneDescription& zone, VFormatReadResult& result)
      : _options(options), _zone(zone), _result(result) {}

  PhoneStoreRecord read(const ContentObject& entry);

 private:
  std::optional<CalendarDate> date(const ContentLine& line, std::string_view text, bool* day = nullptr);
  std::string text(const ContentLine& line);
  Dictionary alarm(const ContentLine& line, std::string_view textKey);
  void problem(const ContentLine& line, std::string message) {
    _result.problems.push_back({line.line, line.name + ": " + std::move(message)});
  }

  const VCalendarOptions& _options;
  const ZoneDescription& _zone;
  VFormatReadResult& _result;
  bool _escaped = false;
};

std::string EntryReader::text(const ContentLine& line) {
  std::string why;
  std::string value = decodedText(line, &why);
  if (!why.empty()) problem(line, why);
  return _escaped ? unescapeText(value) : value;
}

std::optional<CalendarDate> EntryReader::date(const ContentLine& line, std::string_view text, bool* day) {
  const std::optional<VDateValue> value = parseVDate(text);
  if (!value) {
    problem(line, "not a date: \"" + std::string(text) + "\"");
    return std::nullopt;
  }
  if (day) *day = value->dateOnly;
  CalendarDate result;
  if (value->dateOnly || value->utc) {
    result = calendarDateFromVDate(*value, zoneOfLine(line, TimeZone::gmt()));
  } else if (TimeZonePtr zone = TimeZone::timeZoneWithName(line.parameter("TZID").value_or(""))) {
    result = calendarDateFromVDate(*value, zone);
  } else if (!_zone.standard) {
    result = calendarDateFromVDate(*value, _options.phoneZone);
  } else {
    const double wall = calendarDateFromVDate(*value, TimeZone::gmt()).timeIntervalSinceReferenceDate();
    const int offset = _zone.offsetAt(wall);
    TimeZonePtr zone = _options.phoneZone ? _options.phoneZone : TimeZone::timeZoneForSecondsFromGMT(*_zone.standard);
    result = CalendarDate(Date{wall - offset}, zone ? zone : TimeZone::gmt());
  }
  if (!isWithinWritableYears(result)) {
    problem(line, "a date out of the years 1 to 9999: \"" + std::string(text) + "\"");
    return std::nullopt;
  }
  return result;
}

Dictionary EntryReader::alarm(const ContentLine& line, std::string_view textKey) {
  Dictionary alarm;
  const std::vector<std::string> parts = splitStructured(text(line));
  if (!parts[0].empty())
    if (std::optional<CalendarDate> trigger = date(line, parts[0])) alarm.set("triggerdate", *trigger);
  if (std::optional<std::string> duration = line.parameter("X-TRIGGERDURATION")) {
    if (duration->size() > 1 && (*duration)[0] == 'N') duration->erase(0, 1);
    std::int64_t seconds = 0;
    const auto [end, error] = std::from_chars(duration->data(), duration->data() + duration->size(), seconds);
    if (error == std::errc() && end == duration->data() + duration->size()) alarm.set("triggerduration", seconds);
    else problem(line, "X-TRIGGERDURATION is not a number");
  }
  if (parts.size() > 3 && !parts[3].empty()) alarm.set(std::string(textKey), parts[3]);
  return alarm;
}

// The properties an entry reader knows, looked up once per line rather than
// compared in turn.
enum class Property { luid, uid, summary, location, description, classification, status, url, priority,
                      date, alarm, exceptionDates, rule, extraField, dropped };

std::optional<Property> propertyNamed(std::string_view name) {
  static const std::unordered_map<std::string_view, Property> kProperties{
      {"X-IRMC-LUID", Property::luid},       {"UID", Property::uid},
      {"SUMMARY", Property::summary},        {"LOCATION", Property::location},
      {"DESCRIPTION", Property::description}, {"CLASS", Property::classification},
      {"STATUS", Property::status},          {"URL", Property::url},
      {"PRIORITY", Property::priority},      {"DTSTART", Property::date},
      {"DTEND", Property::date},             {"DUE", Property::date},
      {"COMPLETED", Property::date},         {"DALARM", Property::alarm},
      {"AALARM", Property::alarm},           {"EXDATE", Property::exceptionDates},
      {"RRULE", Property::rule},             {kExtraFieldProperty, Property::extraField},
      {"CATEGORIES", Property::dropped},     {"VERSION", Property::dropped},
  };
  const auto found = kProperties.find(name);
  if (found == kProperties.end()) return std::nullopt;
  return found->second;
}

PhoneStoreRecord EntryReader::read(const ContentObject& entry) {
  const bool task = entry.name == "VTODO";
  _escaped = !entry.version.empty() && entry.version[0] >= '2';
  PhoneStoreRecord record{std::string(), task ? kCalendarsTask : kCalendarsEvent, Dictionary()};
  Dictionary& fields = record.fields;
  std::string uid;
  std::optional<bool> startIsDay;
  bool dueIsDay = false;
  auto list = [&](std::string_view key) {
    Array items = fields.getArray(std::string(key)).value_or(Array());
    fields.set(std::string(key), items);
    return items;
  };
  for (const ContentLine& line : entry.lines) {
    const std::string& name = line.name;
    auto setText = [&](std::string_view key, std::string value) {
      if (!value.empty()) fields.set(std::string(key), std::move(value));
    };
    const std::optional<Property> property = propertyNamed(name);
    if (!property) {
      ++_result.ignoredProperties[name];
      continue;
    }
    switch (*property) {
      case Property::luid: record.identifier = text(line); break;
      case Property::uid: uid = text(line); break;
      case Property::summary: setText("summary", text(line)); break;
      case Property::location: setText("location", text(line)); break;
      case Property::description: setText("description", text(line)); break;
      case Property::classification: setText("classification", statusValue(text(line))); break;
      case Property::status: setText("status", statusValue(text(line))); break;
      case Property::url:
        setText("url", text(line));
        if (fields.contains("url")) fields.set("url", URL(fields.getString("url")));
        break;
      case Property::priority: {
        const std::string value = text(line);
        int priority = 0;
        const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), priority);
        if (error == std::errc() && end == value.data() + value.size()) fields.set("priority", priority);
        else problem(line, "not a number: \"" + value + "\"");
        break;
      }
      case Property::date: {
        bool day = false;
        std::optional<CalendarDate> value = date(line, text(line), &day);
        if (!value) break;
        const char* key = name == "DTSTART" ? "startDate" : name == "DTEND" ? "endDate" : name == "DUE" ? "dueDate" : "completionDate";
        fields.set(key, *value);
        if (name == "DTSTART") startIsDay = day;
        if (name == "DUE") dueIsDay = day;
        break;
      }
      case Property::alarm: {
        Array alarms = list(name == "DALARM" ? "displayAlarms" : "audioAlarms");
        alarms.add(alarm(line, name == "DALARM" ? "description" : "sound"));
        break;
      }
      case Property::exceptionDates:
        for (const std::string& item : splitStructured(text(line), line.rawValue.find(';') != std::string::npos ? ';' : ','))
          if (!item.empty())
            if (std::optional<CalendarDate> value = date(line, item)) list("exceptionDates").add(*value);
        break;
      case Property::rule: {
        std::string why;
        std::optional<Dictionary> recurrence = recurrenceFromVCalendarRule(
            text(line), line.parameters, [&](std::string_view t) { return date(line, t); }, why);
        if (recurrence) list("recurrences").add(*recurrence);
        else problem(line, why);
        break;
      }
      case Property::extraField: {
        std::string why;
        if (!readExtraField(line, fields, why)) problem(line, why);
        break;
      }
      case Property::dropped:
        // Categories have no field in the records phones hold.
        break;
    }
  }
  if (!task && !fields.contains("allDay")) fields.set("allDay", startIsDay.value_or(false));
  if (task && dueIsDay && !fields.contains("dueDateIsDateOnly")) fields.set("dueDateIsDateOnly", true);
  if (record.identifier.empty()) record.identifier = uid;
  return record;
}

}  // namespace

void writeZoneDescription(ContentWriter& out, const TimeZonePtr& zone, int firstYear, int lastYear) {
  const TimeZonePtr described = zone ? zone : TimeZone::gmt();
  int standard = 0;
  const std::vector<DaylightPeriod> periods =
      firstYear <= lastYear ? daylightPeriods(*described, firstYear, lastYear, standard)
                            : std::vector<DaylightPeriod>();
  if (firstYear > lastYear) standard = described->secondsFromGMT(Date::now());
  out.line("TZ", {}, offsetText(standard));
  if (periods.empty()) out.line("DAYLIGHT", {}, "FALSE");
  for (const DaylightPeriod& p : periods) {
    const CalendarDate start(Date{p.start}, TimeZone::gmt());
    const CalendarDate end(Date{p.end}, TimeZone::gmt());
    out.line("DAYLIGHT", {},
             fmt::format("TRUE;{};{};{};{};{}", offsetText(p.offset), utcText(start), utcText(end),
                         described->abbreviation(Date{p.start - kDay}), described->abbreviation(Date{p.start})));
  }
}

std::string VCalendarCodec::write(const std::vector<PhoneStoreRecord>& records) const {
  // The zone is described over the years of the dates in it, which the
  // writer then checks its wall clocks against.
  int firstYear = 9999, lastYear = 0;
  const TimeZonePtr zone = _options.phoneZone ? _options.phoneZone : TimeZone::gmt();
  if (_options.localTimes) {
    std::vector<int> years;
    for (const PhoneStoreRecord& record : records) noteYearsInZone(Value(record.fields), zone->name(), years);
    std::sort(years.begin(), years.end());
    if (!years.empty()) {
      // The years around the middle date, within those of the dates.
      const int middle = years[years.size() / 2];
      firstYear = std::max(years.front(), middle - kDescribedYears / 2);
      lastYear = std::min(years.back(), firstYear + kDescribedYears - 1);
      firstYear = std::max(years.front(), std::min(firstYear, lastYear - kDescribedYears + 1));
    }
  }
  const ZoneDescription described = _options.localTimes ? describedZone(zone, firstYear, lastYear) : ZoneDescription();
  EntryWriter entries(_options, described);
  for (const PhoneStoreRecord& record : records) entries.write(record);
  ContentWriter out;
  out.begin("VCALENDAR");
  out.line("VERSION", {}, "1.0");
  if (_options.localTimes) writeZoneDescription(out, _options.phoneZone, firstYear, lastYear);
  std::string text = out.take();
  text += entries.text();
  text += "END:VCALENDAR\r\n";
  return text;
}

std::optional<std::string> VCalendarCodec::entryText(const PhoneStoreRecord& record) const {
  if (_options.localTimes) return std::nullopt;
  const ZoneDescription none;
  EntryWriter entry(_options, none);
  entry.write(record);
  return entry.text();
}

std::string VCalendarCodec::textForEntryTexts(const std::vector<std::string>& entries) const {
  std::size_t size = 0;
  for (const std::string& entry : entries) size += entry.size();
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:1.0\r\n";
  text.reserve(size + text.size() + 16);
  for (const std::string& entry : entries) text += entry;
  text += "END:VCALENDAR\r\n";
  return text;
}

VFormatReadResult VCalendarCodec::read(std::string_view text) const {
  VFormatReadResult result;
  ContentReader reader(text);
  const ZoneDescription none;
  while (std::optional<ContentObject> object = reader.nextObject()) {
    if (object->name == "VEVENT" || object->name == "VTODO") {
      result.records.push_back(EntryReader(_options, none, result).read(*object));
      continue;
    }
    if (object->name != "VCALENDAR") {
      result.problems.push_back({object->line, "not a vCalendar: BEGIN:" + object->name});
      continue;
    }
    const ZoneDescription zone = readZoneDescription(*object, result.problems);
    for (const ContentObject& child : object->children) {
      if (child.name == "VEVENT" || child.name == "VTODO") {
        result.records.push_back(EntryReader(_options, zone, result).read(child));
      } else {
        ++result.ignoredProperties["BEGIN:" + child.name];
      }
    }
    for (const ContentLine& line : object->lines)
      if (line.name != "VERSION" && line.name != "TZ" && line.name != "DAYLIGHT" && line.name != "PRODID")
        ++result.ignoredProperties[line.name];
  }
  result.problems.insert(result.problems.end(), reader.problems().begin(), reader.problems().end());
  result.cutShort = reader.endedInsideObject();
  std::stable_sort(result.problems.begin(), result.problems.end(),
                   [](const ContentProblem& a, const ContentProblem& b) { return a.line < b.line; });
  return result;
}

}  // namespace pc
