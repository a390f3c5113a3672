// Reading iCalendar files into engine records, through libical's parser.
//
//   SUMMARY, LOCATION, DESCRIPTION, URL    summary, location, description, url
//   CLASS, STATUS, PRIORITY, CATEGORIES    classification, status, priority, categories
//   DTSTART, DTEND / DURATION              startDate, endDate, allDay (VALUE=DATE)
//   DUE, COMPLETED (VTODO)                 dueDate, dueDateIsDateOnly, completionDate
//   VALARM                                 displayAlarms, audioAlarms (EMAIL: display)
//   RRULE                                  recurrences, or detached events when the
//                                          engine's recurrence record cannot hold it
//   EXDATE                                 exceptionDates, in the start's zone
//   RDATE                                  detached events
//   RECURRENCE-ID entries                  detachedEvents of their master
//
// Dates: VALUE=DATE is the day anchored at 12:00 GMT (an all-day event's end
// stays exclusive, as DTEND has it); UTC is GMT; a TZID is the zone it names
// (ICalendarZones.h); a floating time is in the local-time-zone kind.

#include <libical/ical.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/ICalendarRules.h"
#include "host/ICalendarZones.h"
#include "host/UserFiles.h"
#include "platform/CalendarDate.h"

namespace pc {
namespace {

// The last year libical writes a date of.
constexpr int kLastWritableYear = 3000;

constexpr int kDay = 86400;

struct ComponentDeleter {
  void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};
using ComponentPtr = std::unique_ptr<icalcomponent, ComponentDeleter>;

std::string lower(std::string text) {
  std::string out;
  for (char c : text) {
    if (c == '-' || c == ' ' || c == '_') continue;
    out += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return out;
}

// "BEGIN:VJOURNAL" and the like; X- components have no name of their own in
// libical.
std::string componentName(icalcomponent* c) {
  const char* name = icalcomponent_kind_to_string(icalcomponent_isa(c));
  return std::string("BEGIN:") + (name ? name : "X-UNKNOWN");
}

std::string propertyName(icalproperty* p) {
  const char* name = icalproperty_get_property_name(p);
  return name ? name : "X-UNKNOWN";
}

std::string parameterText(icalproperty* p, icalparameter_kind kind) {
  icalparameter* parameter = icalproperty_get_first_parameter(p, kind);
  if (!parameter) return {};
  const char* text = kind == ICAL_TZID_PARAMETER ? icalparameter_get_tzid(parameter)
                                                 : icalparameter_as_ical_string(parameter);
  return text ? text : "";
}

// The 1-based line of every BEGIN:VEVENT / BEGIN:VTODO, in the order of the
// file: libical keeps no line numbers, and the parser gives the entries in
// this same order.
std::vector<std::size_t> entryLines(std::string_view text) {
  std::vector<std::size_t> lines;
  std::size_t line = 1;
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string_view content = text.substr(at, end - at);
    if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
    if (content.size() >= 11 && content.size() <= 12 && strncasecmp(content.data(), "BEGIN:", 6) == 0) {
      const std::string_view kind = content.substr(6);
      if ((kind.size() == 6 && strncasecmp(kind.data(), "VEVENT", 6) == 0) ||
          (kind.size() == 5 && strncasecmp(kind.data(), "VTODO", 5) == 0))
        lines.push_back(line);
    }
    ++line;
    at = end + 1;
  }
  return lines;
}

// libical's parser fed line by line from the text, which is not copied.
struct LineSource {
  std::string_view text;
  std::size_t at = 0;
};

char* nextLine(char* buffer, std::size_t size, void* data) {
  auto* source = static_cast<LineSource*>(data);
  if (source->at >= source->text.size() || size < 2) return nullptr;
  std::size_t end = source->text.find('\n', source->at);
  end = end == std::string_view::npos ? source->text.size() : end + 1;
  const std::size_t length = std::min(end - source->at, size - 1);
  std::memcpy(buffer, source->text.data() + source->at, length);
  buffer[length] = '\0';
  source->at += length;
  return buffer;
}

ComponentPtr parse(std::string_view text) {
  icalparser* parser = icalparser_new();
  LineSource source{text};
  icalparser_set_gen_data(parser, &source);
  ComponentPtr root(icalparser_parse(parser, nextLine));
  icalparser_free(parser);
  return root;
}

struct ParsedEntry {
  icalcomponent* component = nullptr;
  std::size_t line = 0;
  bool task = false;
  std::string uid;
  std::optional<std::string> recurrenceKey;  // RECURRENCE-ID as UTC text
};

class Importer {
 public:
  Importer(UserFileImport& file, icalcomponent* calendar) : _file(file), _zones(calendar) {}

  // One entry as a record, or nullopt with the entry skipped.
  std::optional<Dictionary> read(const ParsedEntry& entry, Dictionary* master);
  std::optional<CalendarDate> readDate(icalproperty* p, struct icaltimetype t, std::size_t line, bool* isDay) {
    return date(p, t, line, isDay);
  }

 private:
  void report(std::size_t line, std::string message) { _file.reported.push_back({line, std::move(message)}); }
  void notKept(const std::string& name) { ++_file.propertiesNotKept[name]; }

  std::optional<CalendarDate> date(icalproperty* p, struct icaltimetype t, std::size_t line, bool* isDay = nullptr);
  void readAlarm(icalcomponent* alarm, Dictionary& record, bool task, std::size_t line);
  void readRule(icalproperty* p, const ParsedEntry& entry, Dictionary& record, Array& extraStarts);

  UserFileImport& _file;
  ICalendarZones _zones;
  int _firstYear = 0;
  int _lastYear = 0;
};

std::optional<CalendarDate> Importer::date(icalproperty* p, struct icaltimetype t, std::size_t line, bool* isDay) {
  if (icaltime_is_null_time(t) || !icaltime_is_valid_time(t)) return std::nullopt;
  // The parser takes "29996183" as the 61st month of 2999; the date read is
  // where that lands. libical writes no year past 3000, so such a date could
  // not be exported.
  if (!t.is_date) t = icaltime_normalize(t);
  else if (t.month < 1 || t.month > 12 || t.day < 1 || t.day > icaltime_days_in_month(t.month, t.year)) return std::nullopt;
  if (t.year < 1 || t.year > kLastWritableYear) return std::nullopt;
  if (isDay) *isDay = t.is_date != 0;
  if (t.is_date) return CalendarDate::dateWithYear(t.year, t.month, t.day, 12, 0, 0, TimeZone::gmt());
  if (icaltime_is_utc(t))
    return CalendarDate::dateWithYear(t.year, t.month, t.day, t.hour, t.minute, t.second, TimeZone::gmt());
  const std::string tzid = p ? parameterText(p, ICAL_TZID_PARAMETER) : std::string();
  if (tzid.empty())
    return CalendarDate::dateWithYear(t.year, t.month, t.day, t.hour, t.minute, t.second, TimeZone::localTimeZone());
  const CalendarDate asGMT = CalendarDate::dateWithYear(t.year, t.month, t.day, t.hour, t.minute, t.second, TimeZone::gmt());
  const ICalendarZone& zone = _zones.zoneForTZID(tzid, static_cast<long long>(asGMT.timeIntervalSince1970()),
                                                 _firstYear ? _firstYear : t.year, _lastYear ? _lastYear : t.year + 1);
  if (!zone.zone) {
    report(line, "zone \"" + tzid + "\" is unknown: its times are read as floating");
    return CalendarDate::dateWithYear(t.year, t.month, t.day, t.hour, t.minute, t.second, TimeZone::localTimeZone());
  }
  if (zone.fixedOffset)
    report(line, "zone \"" + tzid + "\" matches no known zone: kept as the fixed offset " + zone.zone->name());
  return CalendarDate::dateWithYear(t.year, t.month, t.day, t.hour, t.minute, t.second, zone.zone);
}

void Importer::readAlarm(icalcomponent* alarm, Dictionary& record, bool task, std::size_t line) {
  Dictionary fields;
  std::string relation = "displayAlarms";
  std::string entity = "Calendars.DisplayAlarm";
  bool triggered = false;
  std::string action;
  for (icalproperty* p = icalcomponent_get_first_property(alarm, ICAL_ANY_PROPERTY); p;
       p = icalcomponent_get_next_property(alarm, ICAL_ANY_PROPERTY)) {
    switch (icalproperty_isa(p)) {
      case ICAL_ACTION_PROPERTY: {
        const icalproperty_action value = icalproperty_get_action(p);
        if (value == ICAL_ACTION_AUDIO) {
          relation = "audioAlarms";
          entity = "Calendars.AudioAlarm";
          action = "AUDIO";
        } else if (value == ICAL_ACTION_EMAIL) {
          action = "EMAIL";
          report(line, "an EMAIL alarm is kept as a display alarm");
        } else if (value == ICAL_ACTION_DISPLAY) {
          action = "DISPLAY";
        } else {
          action = "OTHER";
        }
        break;
      }
      case ICAL_TRIGGER_PROPERTY: {
        const struct icaltriggertype trigger = icalproperty_get_trigger(p);
        if (!icaltime_is_null_time(trigger.time)) {
          if (std::optional<CalendarDate> at = date(p, trigger.time, line)) {
            fields.set("triggerdate", *at);
            triggered = true;
          }
          break;
        }
        long long seconds = icaldurationtype_as_int(trigger.duration);
        icalparameter* related = icalproperty_get_first_parameter(p, ICAL_RELATED_PARAMETER);
        const bool fromEnd = related && icalparameter_get_related(related) == ICAL_RELATED_END;
        // The engine counts from the start of an event and the due date of a
        // task; a trigger on the other end is moved by the entry's length.
        const char* other = task ? (fromEnd ? nullptr : "startDate") : (fromEnd ? "endDate" : nullptr);
        if (other) {
          const char* reference = task ? "dueDate" : "startDate";
          const Value from = record.get(other);
          const Value to = record.get(reference);
          if (!from.isDate() || !to.isDate()) {
            report(line, std::string("an alarm relative to ") + (fromEnd ? "the end" : "the start") +
                             " of an entry without one is left out");
            return;
          }
          seconds += static_cast<long long>(from.date().timeIntervalSince1970() - to.date().timeIntervalSince1970());
        }
        fields.set("triggerduration", seconds);
        triggered = true;
        break;
      }
      case ICAL_DESCRIPTION_PROPERTY:
        if (const char* text = icalproperty_get_description(p); text && *text) fields.set("description", text);
        break;
      case ICAL_ATTACH_PROPERTY: {
        icalattach* attach = icalproperty_get_attach(p);
        if (attach && icalattach_get_is_url(attach))
          if (const char* url = icalattach_get_url(attach); url && *url) {
            fields.set("sound", url);
            break;
          }
        notKept("VALARM." + propertyName(p));
        break;
      }
      default:
        notKept("VALARM." + propertyName(p));
    }
  }
  if (action == "OTHER" || action.empty()) {
    report(line, "an alarm without a DISPLAY, AUDIO or EMAIL action is left out");
    return;
  }
  if (!triggered) {
    report(line, "an alarm without a trigger is left out");
    return;
  }
  Dictionary alarmRecord{{"entityName", entity}};
  alarmRecord.addEntriesFrom(fields);
  Array alarms = record.getArray(relation).value_or(Array());
  alarms.add(alarmRecord);
  record.set(relation, alarms);
}

void Importer::readRule(icalproperty* p, const ParsedEntry& entry, Dictionary& record, Array& extraStarts) {
  const struct icalrecurrencetype rule = icalproperty_get_rrule(p);
  const Value start = record.get("startDate");
  if (!start.isDate()) {
    report(entry.line, "a rule on an entry without start is left out");
    return;
  }
  const bool allDay = record.getBool("allDay");
  std::string why;
  if (record.contains("recurrences")) why = "a second RRULE";
  std::optional<Dictionary> recurrence;
  if (why.empty()) recurrence = recurrenceFromICalendarRule(rule, start.date(), allDay, why);
  if (recurrence) {
    record.set("recurrences", Array{*recurrence});
    return;
  }
  // Kept as detached events on the dates libical's expansion gives.
  bool cut = false;
  const std::vector<CalendarDate> dates = icalendarRuleOccurrences(rule, start.date(), allDay, cut);
  for (const CalendarDate& d : dates)
    if (!(d == start.date())) extraStarts.add(d);
  struct icalrecurrencetype copy = rule;
  const std::string text = icalrecurrencetype_as_string(&copy);
  report(entry.line, "RRULE:" + text + " cannot be held as a recurrence (" + why + "): kept as " +
                         std::to_string(dates.size()) + " occurrences" +
                         (cut ? ", cut at " + dates.back().descriptionWithCalendarFormat("%Y-%m-%d") : std::string()));
}

std::optional<Dictionary> Importer::read(const ParsedEntry& entry, Dictionary* master) {
  icalcomponent* c = entry.component;
  const bool task = entry.task;
  Dictionary record{{"entityName", task ? "Calendars.Task" : "Calendars.Event"}};

  // First the dates, whose zones the rest needs; the years they span tell a
  // custom zone's match which years to compare.
  icalproperty* startProperty = icalcomponent_get_first_property(c, ICAL_DTSTART_PROPERTY);
  _firstYear = 0;
  _lastYear = 0;
  if (startProperty) {
    const struct icaltimetype t = icalproperty_get_dtstart(startProperty);
    _firstYear = t.year;
    _lastYear = t.year + 1;
    if (icalproperty* rrule = icalcomponent_get_first_property(c, ICAL_RRULE_PROPERTY)) {
      const struct icalrecurrencetype r = icalproperty_get_rrule(rrule);
      _lastYear = icaltime_is_null_time(r.until) ? t.year + 4 : std::max(t.year, r.until.year);
    }
  }
  bool startIsDay = false;
  std::optional<CalendarDate> start;
  if (startProperty) start = date(startProperty, icalproperty_get_dtstart(startProperty), entry.line, &startIsDay);
  if (!start && !task) {
    _file.skipped.push_back({entry.line, startProperty ? "DTSTART is not a date" : "an event without DTSTART"});
    return std::nullopt;
  }
  if (start) record.set("startDate", *start);
  if (!task) record.set("allDay", startIsDay);

  std::optional<struct icaldurationtype> duration;
  Array exceptionDates;
  Array extraStarts;  // RDATEs and the dates of a rule kept as occurrences
  std::vector<icalproperty*> rules;
  std::vector<icalcomponent*> alarms;
  Array categories;
  for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_ANY_PROPERTY); p;
       p = icalcomponent_get_next_property(c, ICAL_ANY_PROPERTY)) {
    const icalproperty_kind kind = icalproperty_isa(p);
    auto setText = [&](const char* key, const char* text) {
      if (text && *text) record.set(key, std::string(text));
    };
    switch (kind) {
      case ICAL_UID_PROPERTY:
      case ICAL_DTSTART_PROPERTY:
      case ICAL_RECURRENCEID_PROPERTY:
      case ICAL_DTSTAMP_PROPERTY:  // the time the file was written, made again on export
        break;
      case ICAL_SUMMARY_PROPERTY: setText("summary", icalproperty_get_summary(p)); break;
      case ICAL_LOCATION_PROPERTY: setText("location", icalproperty_get_location(p)); break;
      case ICAL_DESCRIPTION_PROPERTY: setText("description", icalproperty_get_description(p)); break;
      case ICAL_URL_PROPERTY:
        if (const char* url = icalproperty_get_url(p); url && *url) record.set("url", URL(url));
        break;
      case ICAL_CATEGORIES_PROPERTY:
        if (const char* text = icalproperty_get_categories(p); text && *text) categories.add(std::string(text));
        break;
      case ICAL_CLASS_PROPERTY:
      case ICAL_STATUS_PROPERTY: {
        const char* text = icalproperty_get_value_as_string(p);
        if (text && *text) record.set(kind == ICAL_CLASS_PROPERTY ? "classification" : "status", lower(text));
        break;
      }
      case ICAL_PRIORITY_PROPERTY: record.set("priority", icalproperty_get_priority(p)); break;
      case ICAL_DTEND_PROPERTY:
      case ICAL_DUE_PROPERTY:
      case ICAL_COMPLETED_PROPERTY: {
        const struct icaltimetype t = kind == ICAL_DTEND_PROPERTY ? icalproperty_get_dtend(p)
                                      : kind == ICAL_DUE_PROPERTY ? icalproperty_get_due(p)
                                                                  : icalproperty_get_completed(p);
        bool isDay = false;
        std::optional<CalendarDate> value = date(p, t, entry.line, &isDay);
        if (!value) {
          report(entry.line, propertyName(p) + " is not a date: left out");
          break;
        }
        if (kind == ICAL_DTEND_PROPERTY && task) {
          notKept(propertyName(p));
          break;
        }
        record.set(kind == ICAL_DTEND_PROPERTY ? "endDate" : kind == ICAL_DUE_PROPERTY ? "dueDate" : "completionDate",
                   *value);
        if (kind == ICAL_DUE_PROPERTY) record.set("dueDateIsDateOnly", isDay);
        break;
      }
      case ICAL_DURATION_PROPERTY: duration = icalproperty_get_duration(p); break;
      case ICAL_RRULE_PROPERTY: rules.push_back(p); break;
      case ICAL_EXDATE_PROPERTY:
        if (std::optional<CalendarDate> value = date(p, icalproperty_get_exdate(p), entry.line)) {
          // Exceptions exclude a day of the start's zone, so they are kept in it.
          if (start && !startIsDay) value = value->dateWithTimeZone(start->timeZone());
          exceptionDates.add(*value);
        }
        break;
      case ICAL_RDATE_PROPERTY: {
        const struct icaldatetimeperiodtype value = icalproperty_get_rdate(p);
        const struct icaltimetype t = icaltime_is_null_time(value.time) ? value.period.start : value.time;
        if (std::optional<CalendarDate> d = date(p, t, entry.line)) extraStarts.add(*d);
        break;
      }
      case ICAL_XLICERROR_PROPERTY: {
        const char* text = icalproperty_get_xlicerror(p);
        report(entry.line, std::string("a line libical could not read is left out: ") + (text ? text : ""));
        break;
      }
      default: notKept(propertyName(p));
    }
  }
  if (!categories.empty()) record.set("categories", categories);

  // The end of an event: DTEND, else DTSTART plus DURATION, else one day for
  // a day and no length for a time.
  if (!task && !record.contains("endDate")) {
    long long length = duration ? icaldurationtype_as_int(*duration) : (startIsDay ? kDay : 0);
    if (length < 0) {
      report(entry.line, "a negative DURATION is read as none");
      length = 0;
    }
    record.set("endDate", start->dateByAddingTimeInterval(static_cast<double>(length)));
  } else if (task && duration && !record.contains("dueDate") && start) {
    record.set("dueDate", start->dateByAddingTimeInterval(static_cast<double>(icaldurationtype_as_int(*duration))));
    record.set("dueDateIsDateOnly", startIsDay);
  } else if (duration) {
    notKept("DURATION");
  }
  if (!task && record.get("endDate").date() < *start) {
    report(entry.line, "DTEND before DTSTART: the end is set to the start");
    record.set("endDate", *start);
  }

  for (icalcomponent* alarm = icalcomponent_get_first_component(c, ICAL_ANY_COMPONENT); alarm;
       alarm = icalcomponent_get_next_component(c, ICAL_ANY_COMPONENT)) {
    if (icalcomponent_isa(alarm) == ICAL_VALARM_COMPONENT) readAlarm(alarm, record, task, entry.line);
    else notKept(componentName(alarm));
  }

  if (master || entry.recurrenceKey) {
    // An override of one occurrence: its rules belong to the master.
    if (!rules.empty() || !exceptionDates.empty() || !extraStarts.empty())
      report(entry.line, "RRULE, RDATE and EXDATE of a changed occurrence are left out");
    return record;
  }
  if (task) {
    if (!rules.empty() || !exceptionDates.empty() || !extraStarts.empty())
      report(entry.line, "RRULE, RDATE and EXDATE of a task are left out: tasks do not repeat in the engine");
    return record;
  }
  for (icalproperty* rule : rules) readRule(rule, entry, record, extraStarts);
  const bool recurring = record.contains("recurrences");
  auto excluded = [&](const CalendarDate& d) {
    for (const Value& e : exceptionDates)
      if (e.date() == d) return true;
    return false;
  };
  std::vector<CalendarDate> extras;
  for (const Value& d : extraStarts)
    if (!excluded(d.date())) extras.push_back(startIsDay ? d.date() : d.date().dateWithTimeZone(start->timeZone()));
  std::sort(extras.begin(), extras.end());
  extras.erase(std::unique(extras.begin(), extras.end()), extras.end());
  const double length = record.get("endDate").date().timeIntervalSinceReferenceDate() -
                        start->timeIntervalSinceReferenceDate();
  if (recurring) {
    if (!exceptionDates.empty()) record.set("exceptionDates", exceptionDates);
  } else if (!exceptionDates.empty() && excluded(*start)) {
    // Without a rule the record cannot exclude its own start: the entry
    // starts at its first occurrence left.
    if (extras.empty()) {
      _file.skipped.push_back({entry.line, "every occurrence is an exception date"});
      return std::nullopt;
    }
    start = extras.front();
    extras.erase(extras.begin());
    record.set("startDate", *start);
    record.set("endDate", start->dateByAddingTimeInterval(length));
    report(entry.line, "the start is an exception date: the entry starts at its next occurrence");
  }
  if (!extras.empty()) {
    // Extra dates become detached copies of the event at those dates.
    Array detached = record.getArray("detachedEvents").value_or(Array());
    for (const CalendarDate& at : extras) {
      Dictionary copy = record.deepCopy();
      for (const char* key : {"recurrences", "exceptionDates", "detachedEvents"}) copy.remove(key);
      copy.set("startDate", at);
      copy.set("endDate", at.dateByAddingTimeInterval(length));
      copy.set("originalDate", at);
      detached.add(copy);
    }
    record.set("detachedEvents", detached);
    if (icalcomponent_get_first_property(c, ICAL_RDATE_PROPERTY))
      report(entry.line, "RDATE kept as detached events");
  }
  return record;
}

}  // namespace

UserFileImport importICalendarText(std::string_view text, const std::string& path) {
  UserFileImport file;
  file.path = path;
  icalerror_set_errors_are_fatal(0);
  if (text.find('\0') != std::string_view::npos) {
    file.failure = UserFileNote{1, "not an iCalendar file: it holds a NUL byte"};
    return file;
  }
  ComponentPtr root = parse(text);
  std::vector<icalcomponent*> calendars;
  if (root && icalcomponent_isa(root.get()) == ICAL_VCALENDAR_COMPONENT) calendars.push_back(root.get());
  if (root && icalcomponent_isa(root.get()) == ICAL_XROOT_COMPONENT)
    for (icalcomponent* c = icalcomponent_get_first_component(root.get(), ICAL_VCALENDAR_COMPONENT); c;
         c = icalcomponent_get_next_component(root.get(), ICAL_VCALENDAR_COMPONENT))
      calendars.push_back(c);
  if (calendars.empty()) {
    file.failure = UserFileNote{1, "not an iCalendar file: no BEGIN:VCALENDAR ... END:VCALENDAR"};
    return file;
  }
  const std::vector<std::size_t> lines = entryLines(text);
  std::size_t index = 0;

  std::vector<ParsedEntry> entries;
  entries.reserve(lines.size());
  file.records.reserve(lines.size());
  std::vector<icalcomponent*> owners;  // the calendar of each entry, for its zones
  for (icalcomponent* calendar : calendars) {
    for (icalproperty* p = icalcomponent_get_first_property(calendar, ICAL_ANY_PROPERTY); p;
         p = icalcomponent_get_next_property(calendar, ICAL_ANY_PROPERTY)) {
      const icalproperty_kind kind = icalproperty_isa(p);
      if (kind != ICAL_VERSION_PROPERTY && kind != ICAL_PRODID_PROPERTY && kind != ICAL_CALSCALE_PROPERTY &&
          kind != ICAL_METHOD_PROPERTY)
        ++file.propertiesNotKept[propertyName(p)];
    }
    for (icalcomponent* c = icalcomponent_get_first_component(calendar, ICAL_ANY_COMPONENT); c;
         c = icalcomponent_get_next_component(calendar, ICAL_ANY_COMPONENT)) {
      const icalcomponent_kind kind = icalcomponent_isa(c);
      if (kind == ICAL_VTIMEZONE_COMPONENT) continue;
      if (kind != ICAL_VEVENT_COMPONENT && kind != ICAL_VTODO_COMPONENT) {
        ++file.propertiesNotKept[componentName(c)];
        continue;
      }
      ParsedEntry entry;
      entry.component = c;
      entry.task = kind == ICAL_VTODO_COMPONENT;
      entry.line = index < lines.size() ? lines[index] : 0;
      ++index;
      if (icalproperty* uid = icalcomponent_get_first_property(c, ICAL_UID_PROPERTY))
        if (const char* value = icalproperty_get_uid(uid))
          // Control characters cannot be written back in a UID: they are left out.
          for (const char* c = value; *c; ++c)
            if (static_cast<unsigned char>(*c) >= 0x20 && *c != 0x7f) entry.uid += *c;
      if (icalproperty* rid = icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY)) {
        const struct icaltimetype t = icalproperty_get_recurrenceid(rid);
        entry.recurrenceKey = icaltime_is_null_time(t) ? std::string("?") : std::string(icaltime_as_ical_string(t));
        if (icalparameter* range = icalproperty_get_first_parameter(rid, ICAL_RANGE_PARAMETER);
            range && icalparameter_get_range(range) == ICAL_RANGE_THISANDFUTURE)
          file.reported.push_back({entry.line, "RANGE=THISANDFUTURE is not kept: only this occurrence is changed"});
      }
      if (entry.uid.empty()) {
        // A stable identifier from what the entry says about itself.
        const char* textForm = icalcomponent_as_ical_string(c);
        std::uint64_t hash = 1469598103934665603ull;
        for (const char* s = textForm; s && *s; ++s) hash = (hash ^ static_cast<unsigned char>(*s)) * 1099511628211ull;
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "ics-%016llx", static_cast<unsigned long long>(hash));
        entry.uid = buffer;
        file.reported.push_back({entry.line, "no UID: the identifier " + entry.uid + " is made from the entry"});
      }
      entries.push_back(entry);
      owners.push_back(calendar);
    }
  }

  // Masters first, then the overrides into their masters.
  std::map<std::string, std::size_t> masterIndex;  // UID -> index in file.records
  std::map<icalcomponent*, std::unique_ptr<Importer>> importers;
  auto importerFor = [&](std::size_t i) -> Importer& {
    std::unique_ptr<Importer>& importer = importers[owners[i]];
    if (!importer) importer = std::make_unique<Importer>(file, owners[i]);
    return *importer;
  };
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const ParsedEntry& entry = entries[i];
    if (entry.recurrenceKey) continue;
    std::optional<Dictionary> record = importerFor(i).read(entry, nullptr);
    if (!record) continue;
    if (auto found = masterIndex.find(entry.uid); found != masterIndex.end()) {
      UserFileRecord& earlier = file.records[found->second];
      file.skipped.push_back({earlier.line, "replaced by the entry of the same UID on line " + std::to_string(entry.line)});
      earlier = UserFileRecord{entry.uid, *record, entry.line};
      continue;
    }
    masterIndex[entry.uid] = file.records.size();
    file.records.push_back(UserFileRecord{entry.uid, *record, entry.line});
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const ParsedEntry& entry = entries[i];
    if (!entry.recurrenceKey) continue;
    auto found = masterIndex.find(entry.uid);
    Dictionary* master = found == masterIndex.end() ? nullptr : &file.records[found->second].record;
    std::optional<Dictionary> record = importerFor(i).read(entry, master);
    if (!record) continue;
    icalproperty* rid = icalcomponent_get_first_property(entry.component, ICAL_RECURRENCEID_PROPERTY);
    bool ridIsDay = false;
    std::optional<CalendarDate> original =
        importerFor(i).readDate(rid, icalproperty_get_recurrenceid(rid), entry.line, &ridIsDay);
    if (!original) {
      file.skipped.push_back({entry.line, "RECURRENCE-ID is not a date"});
      continue;
    }
    if (!master || master->getString("entityName") != record->getString("entityName") ||
        record->getString("entityName") != "Calendars.Event") {
      // Without its master in the file the occurrence stands alone.
      file.reported.push_back({entry.line, "a changed occurrence without its recurring entry in the file is kept on its own"});
      const std::string identifier = entry.uid + "/" + *entry.recurrenceKey;
      if (auto found = masterIndex.find(identifier); found != masterIndex.end()) {
        UserFileRecord& earlier = file.records[found->second];
        file.skipped.push_back({earlier.line, "replaced by the entry of the same UID and RECURRENCE-ID on line " +
                                                  std::to_string(entry.line)});
        earlier = UserFileRecord{identifier, *record, entry.line};
        continue;
      }
      masterIndex[identifier] = file.records.size();
      file.records.push_back(UserFileRecord{identifier, *record, entry.line});
      continue;
    }
    const Value masterStart = master->get("startDate");
    if (masterStart.isDate() && !master->getBool("allDay") && !ridIsDay)
      original = original->dateWithTimeZone(masterStart.date().timeZone());
    record->set("originalDate", *original);
    Array detached = master->getArray("detachedEvents").value_or(Array());
    // An override replaces an occurrence an RDATE or an exploded rule made.
    for (std::size_t k = 0; k < detached.count(); ++k)
      if (const Value d = detached[k].dictionary().get("originalDate"); d.isDate() && d.date() == *original) {
        detached.removeAt(k);
        break;
      }
    detached.add(*record);
    master->set("detachedEvents", detached);
  }
  return file;
}

}  // namespace pc
