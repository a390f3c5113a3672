#pragma once
// The zones of an iCalendar file: what a TZID names, turned into one of the
// platform's zones.
//
//   1. an IANA identifier ("Europe/Berlin"), or a fixed offset ("GMT+0100");
//   2. a Windows zone name ("W. Europe Standard Time"), through ICU's table;
//   3. the file's own VTIMEZONE, matched to the IANA zone whose offsets and
//      changes of offset are the same over the years asked for;
//   4. else a fixed-offset zone at the VTIMEZONE's offset at the event's
//      start, flagged so that the reader reports it.

#include <map>
#include <string>

#include "platform/TimeZone.h"

struct icalcomponent_impl;

namespace pc {

struct ICalendarZone {
  TimeZonePtr zone;         // nullptr: the TZID names nothing known
  bool fixedOffset = false;  // a custom zone kept as its offset
  bool matched = false;      // a custom zone matched to an IANA zone
};

class ICalendarZones {
 public:
  // `calendar` (not owned) holds the file's VTIMEZONEs; it may be nullptr.
  explicit ICalendarZones(icalcomponent_impl* calendar) : _calendar(calendar) {}

  // The zone of `tzid` for an event starting at `startUTC` (seconds since
  // 1970) whose dates run over the years firstYear..lastYear.
  const ICalendarZone& zoneForTZID(const std::string& tzid, long long startUTC, int firstYear, int lastYear);

 private:
  icalcomponent_impl* _calendar;
  std::map<std::string, ICalendarZone> _cache;
};

// The IANA zone for a Windows zone name, "" when ICU knows none.
std::string ianaZoneForWindowsName(const std::string& name);

}  // namespace pc
