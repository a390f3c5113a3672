#pragma once
// What the sync benchmarks share: the example phones' descriptions, the
// process's peak memory, and the generated records of a large sync
// (contacts of about twenty fields, events in four zones, a fifth of them
// recurring and some of those with exception dates).

#include <sys/resource.h>

#include <ctime>
#include <string>
#include <vector>

#include "host/ReferenceSync.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"

namespace pc::bench {

inline const std::string kExamples = std::string(PC_DATA_DIR) + "/../examples/";

inline Dictionary readDictionary(const std::string& path) {
  auto value = PropertyList::fromFile(path);
  return value && value->isDictionary() ? value->dictionary() : Dictionary();
}

inline double peakMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// CPU time of the whole process (every thread), in seconds: on a shared
// machine it says what a run costs when others take turns on the cores.
inline double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// "contact-<n>" and "event-<n>" records, contacts first.
inline std::vector<SyncInput> syncRecords(int contacts, int events) {
  static const char* kFirst[] = {"Alice", "Bruno", "Chloé", "Dmitri", "Eleni", "Fatima", "Grace"};
  static const char* kLast[] = {"Martin", "Lefèvre", "Ivanova", "Papadopoulou", "Haddad", "Smith"};
  static const char* kZones[] = {"Europe/Paris", "America/New_York", "Asia/Tokyo", "UTC"};
  std::vector<SyncInput> inputs;
  inputs.reserve(static_cast<std::size_t>(contacts + events));
  for (int i = 0; i < contacts; ++i) {
    const std::string n = std::to_string(i);
    Dictionary contact{
        {"entityName", "Contacts.Contact"},
        {"firstName", kFirst[i % 7]},
        {"lastName", std::string(kLast[i % 6]) + " " + n},
        {"companyName", "Velmora Systems"},
        {"notes", "Met at the conference in Lyon, table " + n + "."},
        {"phoneNumbers",
         Array{Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"value", "+33 1 43 55 " + n}, {"type", "mobile"}},
               Dictionary{{"entityName", "Contacts.PhoneNumber"}, {"value", "+33 6 12 " + n}, {"type", "work"}}}},
        {"emailAddresses",
         Array{Dictionary{{"entityName", "Contacts.EmailAddress"}, {"value", "person" + n + "@mail.example.com"}, {"type", "home"}}}},
        {"streetAddresses",
         Array{Dictionary{{"entityName", "Contacts.StreetAddress"}, {"street", n + " rue de la Paix"},
                          {"city", "Paris"}, {"postalCode", "75002"}, {"country", "France"}, {"type", "work"}}}},
    };
    inputs.push_back({"contact-" + n, contact});
  }
  for (int i = 0; i < events; ++i) {
    const std::string n = std::to_string(i);
    const TimeZonePtr zone = TimeZone::timeZoneWithName(kZones[i % 4]);
    const CalendarDate start = CalendarDate::dateWithYear(2026, 1 + i % 12, 1 + i % 28, 8 + i % 10, 0, 0, zone);
    Dictionary event{
        {"entityName", "Calendars.Event"},
        {"summary", "Meeting " + n},
        {"location", "Room " + std::to_string(i % 40)},
        {"startDate", Value(start)},
        {"endDate", Value(start.dateByAddingYears(0, 0, 0, 1, 0, 0))},
        {"allDay", false},
        {"displayAlarms", Array{Dictionary{{"entityName", "Calendars.DisplayAlarm"}, {"triggerduration", -600}}}},
    };
    if (i % 5 == 0) {
      event.set("recurrences", Value(Array{Dictionary{{"entityName", "Calendars.Recurrence"},
                                                      {"frequency", "weekly"},
                                                      {"interval", 1},
                                                      {"count", 10}}}));
      if (i % 15 == 0)
        event.set("exceptionDates", Value(Array{Value(start.dateByAddingYears(0, 0, 7, 0, 0, 0)),
                                                Value(start.dateByAddingYears(0, 0, 21, 0, 0, 0))}));
    }
    inputs.push_back({"event-" + n, event});
  }
  return inputs;
}

}  // namespace pc::bench
