#pragma once
// Events and tasks as vCalendar 1.0: the records a phone holds
// ("Calendars.Event" as VEVENT, "Calendars.Task" as VTODO, with their alarms
// and recurrences inlined) written in one VCALENDAR and read back from
// vCalendar 1.0 (and from iCalendar where it costs nothing: VALUE=DATE,
// TZID parameters of known zones).
//
//   SUMMARY, LOCATION, DESCRIPTION, URL   summary, location, description, url
//   CLASS, STATUS, PRIORITY               classification, status, priority
//   DTSTART, DTEND / DUE, COMPLETED       startDate, endDate / dueDate, completionDate
//   AALARM, DALARM                        audioAlarms, displayAlarms: the trigger
//                                         date; the sound or text as the fourth part
//   EXDATE                                exceptionDates
//   RRULE                                 recurrences (VCalendarRule.h)
//   X-IRMC-LUID                           the entry's identifier (UID when none)
//
// Times: phones that keep instants get the UTC form ("20270131T083000Z", the
// date's zone in X-TZID); phones without zones get wall clocks of the phone's
// zone for the dates in that zone, described once for the file by TZ and
// DAYLIGHT lines (one DAYLIGHT per daylight-saving period of the years the
// file's dates fall in), and a reader turns them back into instants of the
// phone's zone with those lines. Dates in other zones keep the UTC form. An all-day event's
// dates, and the due date of a task due on a day, are written as days
// ("20270131") when they are day anchors (12:00 GMT); the 00:00-23:59 form
// some phones want is made by the event transformer and written as it is.
//
// Fields with no property go in X-PC-FIELD lines (VFormatValues.h); unknown
// properties of other programs are counted by name and left out.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/ContentLines.h"
#include "host/VCardCodec.h"
#include "platform/TimeZone.h"

namespace pc {

struct VCalendarOptions {
  // Wall clocks with TZ/DAYLIGHT rather than UTC instants for the dates in
  // the phone's zone.
  bool localTimes = false;
  // The phone's zone: the wall clock written in the local form, and the
  // zone of wall clocks a file does not describe (nullptr: GMT).
  TimeZonePtr phoneZone;
};

class VCalendarCodec {
 public:
  explicit VCalendarCodec(VCalendarOptions options = {}) : _options(std::move(options)) {}

  std::string write(const std::vector<PhoneStoreRecord>& records) const;
  VFormatReadResult read(std::string_view text) const;
  // With instants in UTC a file is its entries' texts between a fixed head
  // and tail; in local times the zone description the entries are written
  // against depends on them all, and there is no entry text (nullopt).
  std::optional<std::string> entryText(const PhoneStoreRecord& record) const;
  std::string textForEntryTexts(const std::vector<std::string>& entries) const;

 private:
  VCalendarOptions _options;
};

// The TZ and DAYLIGHT lines that describe `zone` over the years given.
void writeZoneDescription(ContentWriter& out, const TimeZonePtr& zone, int firstYear, int lastYear);

}  // namespace pc
