// Writing events and tasks as one iCalendar file, built with libical's
// components so that escaping and line folding are libical's.
//
// Dates are written as the importer reads them back: an all-day date as
// VALUE=DATE, a GMT date in UTC, a date of the local-time-zone kind as a
// floating time, any other with the TZID of its zone and a VTIMEZONE for
// that zone (libical's description of the IANA zone, or one fixed offset).

#include <libical/ical.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/ICalendarRules.h"
#include "host/UserFiles.h"
#include "platform/CalendarDate.h"
#include "platform/Date.h"

namespace pc {
namespace {

// 1901-01-01 and 2037-01-01 (seconds since 1970): libical's zone data
// describes the years between.
constexpr double kFirstYearOfZoneData = -2177452800.0;
constexpr double kLastYearOfZoneData = 2114380800.0;

std::string upperStatus(const std::string& value) {
  if (value == "needsaction") return "NEEDS-ACTION";
  if (value == "inprocess") return "IN-PROCESS";
  std::string out;
  for (char c : value) out += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return out;
}

class Exporter {
 public:
  explicit Exporter(icalcomponent* calendar) : _calendar(calendar) {}

  void write(const std::string& identifier, const Dictionary& record);
  void writeZones();

 private:
  // A date property; `day` writes VALUE=DATE.
  icalproperty* dateProperty(icalproperty_kind kind, const CalendarDate& date, bool day);
  void writeFields(icalcomponent* entry, const Dictionary& record);
  void writeAlarms(icalcomponent* entry, const Dictionary& record, bool task);
  icalcomponent* entry(const std::string& identifier, const Dictionary& record, const Value* originalDate,
                       bool masterAllDay, const TimeZonePtr& masterZone);

  icalcomponent* _calendar;
  // Each zone a date names, with the earliest such date (seconds since 1970).
  std::map<std::string, double> _zones;
};

icalproperty* Exporter::dateProperty(icalproperty_kind kind, const CalendarDate& date, bool day) {
  const struct icaltimetype t = icalTimeFromCalendarDate(date, day);
  icalproperty* p = nullptr;
  switch (kind) {
    case ICAL_DTSTART_PROPERTY: p = icalproperty_new_dtstart(t); break;
    case ICAL_DTEND_PROPERTY: p = icalproperty_new_dtend(t); break;
    case ICAL_DUE_PROPERTY: p = icalproperty_new_due(t); break;
    case ICAL_EXDATE_PROPERTY: p = icalproperty_new_exdate(t); break;
    case ICAL_RECURRENCEID_PROPERTY: p = icalproperty_new_recurrenceid(t); break;
    default: p = icalproperty_new_completed(t); break;
  }
  if (day) {
    icalproperty_add_parameter(p, icalparameter_new_value(ICAL_VALUE_DATE));
    return p;
  }
  const TimeZonePtr& zone = date.timeZone();
  if (zone && !zone->isLocalTimeZoneKind() && !icaltime_is_utc(t)) {
    icalproperty_add_parameter(p, icalparameter_new_tzid(zone->name().c_str()));
    const double seconds = date.date().timeIntervalSince1970();
    auto [it, added] = _zones.emplace(zone->name(), seconds);
    if (!added && seconds < it->second) it->second = seconds;
  }
  return p;
}

void Exporter::writeFields(icalcomponent* entry, const Dictionary& record) {
  auto text = [&](const char* key, icalproperty* (*make)(const char*)) {
    const std::string value = record.getString(key);
    if (!value.empty()) icalcomponent_add_property(entry, make(value.c_str()));
  };
  text("summary", icalproperty_new_summary);
  text("location", icalproperty_new_location);
  text("description", icalproperty_new_description);
  if (const Value url = record.get("url"); url.isURL() || url.isString()) {
    const std::string value = url.isURL() ? url.url().absoluteString() : url.string();
    if (!value.empty()) icalcomponent_add_property(entry, icalproperty_new_url(value.c_str()));
  }
  for (const char* key : {"classification", "status"}) {
    const std::string value = record.getString(key);
    if (value.empty()) continue;
    const std::string line = std::string(key[0] == 'c' ? "CLASS:" : "STATUS:") + upperStatus(value);
    if (icalproperty* p = icalproperty_new_from_string(line.c_str())) {
      if (icalproperty_isa(p) == ICAL_XLICERROR_PROPERTY) icalproperty_free(p);
      else icalcomponent_add_property(entry, p);
    }
  }
  if (const Value priority = record.get("priority"); priority.isNumber())
    icalcomponent_add_property(entry, icalproperty_new_priority(priority.intValue()));
  if (std::optional<Array> categories = record.getArray("categories"))
    for (const Value& c : *categories)
      if (c.isString() && !c.string().empty())
        icalcomponent_add_property(entry, icalproperty_new_categories(c.string().c_str()));
}

void Exporter::writeAlarms(icalcomponent* entry, const Dictionary& record, bool task) {
  for (const char* relation : {"displayAlarms", "audioAlarms"}) {
    const bool audio = relation[0] == 'a';
    for (const Value& item : record.getArray(relation).value_or(Array())) {
      if (!item.isDictionary()) continue;
      const Dictionary alarm = item.dictionary();
      struct icaltriggertype trigger;
      trigger.time = icaltime_null_time();
      trigger.duration = icaldurationtype_null_duration();
      bool relative = false;
      if (const Value at = alarm.get("triggerdate"); at.isDate()) {
        trigger.time = icalTimeFromCalendarDate(at.date().dateWithTimeZone(TimeZone::gmt()), false);
      } else if (const Value seconds = alarm.get("triggerduration"); seconds.isNumber()) {
        trigger.duration = icaldurationtype_from_int(static_cast<int>(seconds.integerValue()));
        relative = true;
      } else {
        continue;
      }
      icalcomponent* valarm = icalcomponent_new_valarm();
      icalcomponent_add_property(valarm, icalproperty_new_action(audio ? ICAL_ACTION_AUDIO : ICAL_ACTION_DISPLAY));
      icalproperty* p = icalproperty_new_trigger(trigger);
      if (!relative) icalproperty_add_parameter(p, icalparameter_new_value(ICAL_VALUE_DATETIME));
      // A task's alarm counts from its due date: the end of a VTODO.
      if (relative && task) icalproperty_add_parameter(p, icalparameter_new_related(ICAL_RELATED_END));
      icalcomponent_add_property(valarm, p);
      if (const std::string text = alarm.getString("description"); !text.empty())
        icalcomponent_add_property(valarm, icalproperty_new_description(text.c_str()));
      if (const std::string sound = alarm.getString("sound"); audio && !sound.empty()) {
        icalattach* attach = icalattach_new_from_url(sound.c_str());
        icalcomponent_add_property(valarm, icalproperty_new_attach(attach));
        icalattach_unref(attach);
      }
      icalcomponent_add_component(entry, valarm);
    }
  }
}

icalcomponent* Exporter::entry(const std::string& identifier, const Dictionary& record, const Value* originalDate,
                               bool masterAllDay, const TimeZonePtr& masterZone) {
  const bool task = record.getString("entityName") == "Calendars.Task";
  icalcomponent* c = task ? icalcomponent_new_vtodo() : icalcomponent_new_vevent();
  icalcomponent_add_property(c, icalproperty_new_uid(identifier.c_str()));
  icalcomponent_add_property(c, icalproperty_new_dtstamp(icaltime_current_time_with_zone(icaltimezone_get_utc_timezone())));
  const bool allDay = !task && record.getBool("allDay");
  if (originalDate && originalDate->isDate()) {
    CalendarDate original = originalDate->date();
    if (!masterAllDay && masterZone) original = original.dateWithTimeZone(masterZone);
    icalcomponent_add_property(c, dateProperty(ICAL_RECURRENCEID_PROPERTY, original, masterAllDay));
  }
  const Value start = record.get("startDate");
  if (start.isDate()) icalcomponent_add_property(c, dateProperty(ICAL_DTSTART_PROPERTY, start.date(), allDay));
  if (!task) {
    if (const Value end = record.get("endDate"); end.isDate())
      icalcomponent_add_property(c, dateProperty(ICAL_DTEND_PROPERTY, end.date(), allDay));
  } else {
    if (const Value due = record.get("dueDate"); due.isDate())
      icalcomponent_add_property(c, dateProperty(ICAL_DUE_PROPERTY, due.date(), record.getBool("dueDateIsDateOnly")));
    if (const Value done = record.get("completionDate"); done.isDate())
      icalcomponent_add_property(c, dateProperty(ICAL_COMPLETED_PROPERTY, done.date().dateWithTimeZone(TimeZone::gmt()), false));
  }
  writeFields(c, record);
  if (!originalDate && start.isDate()) {
    for (const Value& item : record.getArray("recurrences").value_or(Array())) {
      if (!item.isDictionary()) continue;
      const std::string text = icalendarRuleText(item.dictionary(), allDay);
      if (text.empty()) continue;
      icalcomponent_add_property(c, icalproperty_new_rrule(icalrecurrencetype_from_string(text.c_str())));
    }
    for (const Value& item : record.getArray("exceptionDates").value_or(Array())) {
      if (!item.isDate()) continue;
      const CalendarDate d = allDay ? item.date() : item.date().dateWithTimeZone(start.date().timeZone());
      icalcomponent_add_property(c, dateProperty(ICAL_EXDATE_PROPERTY, d, allDay));
    }
  }
  writeAlarms(c, record, task);
  return c;
}

void Exporter::write(const std::string& identifier, const Dictionary& record) {
  const std::string entity = record.getString("entityName");
  if (entity != "Calendars.Event" && entity != "Calendars.Task") return;
  icalcomponent_add_component(_calendar, entry(identifier, record, nullptr, false, nullptr));
  if (entity != "Calendars.Event") return;
  const bool allDay = record.getBool("allDay");
  const Value start = record.get("startDate");
  const TimeZonePtr zone = start.isDate() ? start.date().timeZone() : nullptr;
  for (const Value& item : record.getArray("detachedEvents").value_or(Array())) {
    if (!item.isDictionary()) continue;
    const Dictionary detached = item.dictionary();
    const Value original = detached.get("originalDate");
    if (!original.isDate()) continue;
    icalcomponent_add_component(_calendar, entry(identifier, detached, &original, allDay, zone));
  }
}

void Exporter::writeZones() {
  // Each VTIMEZONE goes before the entries, as readers expect them.
  icalcomponent* first = icalcomponent_get_first_component(_calendar, ICAL_ANY_COMPONENT);
  std::vector<icalcomponent*> entries;
  for (icalcomponent* c = first; c; c = icalcomponent_get_next_component(_calendar, ICAL_ANY_COMPONENT))
    entries.push_back(c);
  for (icalcomponent* c : entries) icalcomponent_remove_component(_calendar, c);
  for (const auto& [name, earliest] : _zones) {
    icalcomponent* zone = nullptr;
    if (icaltimezone* builtin = icaltimezone_get_builtin_timezone(name.c_str()))
      if (icalcomponent* described = icaltimezone_get_component(builtin)) {
        zone = icalcomponent_new_clone(described);
        // The zone's history from a year before its first date on: what a
        // reader needs, without the century of changes before it. Dates past
        // the years libical's zone data describes keep the whole history, as
        // cutting it there leaves no observance to read the date with.
        if (earliest > kFirstYearOfZoneData && earliest < kLastYearOfZoneData) {
          struct icaltimetype from =
              icaltime_from_timet_with_zone(static_cast<time_t>(earliest), 0, icaltimezone_get_utc_timezone());
          from.year -= 1;
          from.month = 1;
          from.day = 1;
          from.hour = from.minute = from.second = 0;
          icaltimezone_truncate_vtimezone(zone, from, icaltime_null_time(), 0);
        }
      }
    if (!zone) {
      // A fixed offset: one STANDARD observance.
      const TimeZonePtr fixed = TimeZone::timeZoneWithName(name);
      const int offset = fixed ? fixed->secondsFromGMT(Date{0}) : 0;
      zone = icalcomponent_new_vtimezone();
      icalcomponent* standard = icalcomponent_new_xstandard();
      struct icaltimetype since = icaltime_null_time();
      since.year = 1970;
      since.month = 1;
      since.day = 1;
      icalcomponent_add_property(standard, icalproperty_new_dtstart(since));
      icalcomponent_add_property(standard, icalproperty_new_tzoffsetfrom(offset));
      icalcomponent_add_property(standard, icalproperty_new_tzoffsetto(offset));
      icalcomponent_add_component(zone, standard);
    }
    icalproperty* tzid = icalcomponent_get_first_property(zone, ICAL_TZID_PROPERTY);
    if (tzid) icalproperty_set_tzid(tzid, name.c_str());
    else icalcomponent_add_property(zone, icalproperty_new_tzid(name.c_str()));
    icalcomponent_add_component(_calendar, zone);
  }
  for (icalcomponent* c : entries) icalcomponent_add_component(_calendar, c);
}

}  // namespace

std::string exportICalendarText(const std::vector<std::pair<std::string, Dictionary>>& records) {
  icalerror_set_errors_are_fatal(0);
  icalcomponent* calendar = icalcomponent_new_vcalendar();
  icalcomponent_add_property(calendar, icalproperty_new_version("2.0"));
  icalcomponent_add_property(calendar, icalproperty_new_prodid("-//PhoneConduit//PhoneConduit//EN"));
  Exporter exporter(calendar);
  for (const auto& [identifier, record] : records) exporter.write(identifier, record);
  exporter.writeZones();
  char* text = icalcomponent_as_ical_string_r(calendar);
  std::string out = text ? text : "";
  icalmemory_free_buffer(text);
  icalcomponent_free(calendar);
  return out;
}

}  // namespace pc
