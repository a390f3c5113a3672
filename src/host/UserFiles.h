#pragma once
// A user's own calendar and contact files (.ics, .vcf) read into engine
// records and written back from them.
//
// Reading never throws on what the file says: an entry that cannot become a
// record is skipped with its line and reason, a property the engine has no
// place for is counted by name, and what was kept only in part (a rule
// exploded, a zone kept as a fixed offset) is reported. Only a file that
// does not parse at all comes back with `failure` set and no records.
//
//   UserFileImport file = importICalendarText(text, "work.ics");
//   for (const UserFileRecord& entry : file.records) store.addRecord(entry.identifier, entry.record);

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Value.h"

namespace pc {

// A line of a user's file (1-based) and what was said about it.
struct UserFileNote {
  std::size_t line = 0;
  std::string message;
};

// One engine record made from an entry of the file. The identifier is stable
// across imports of the same entry (made from its UID), so that importing a
// file again replaces what it gave before.
struct UserFileRecord {
  std::string identifier;
  Dictionary record;  // with its entity name and its sub-records inlined
  std::size_t line = 0;
};

struct UserFileImport {
  std::string path;
  std::vector<UserFileRecord> records;
  std::vector<UserFileNote> skipped;   // entries not imported, and why
  std::vector<UserFileNote> reported;  // imported, but not all of it as written
  std::map<std::string, std::size_t> propertiesNotKept;
  std::optional<UserFileNote> failure;  // set when nothing of the file could be read
};

// iCalendar (RFC 5545): VEVENT and VTODO with their alarms, rules and zones.
UserFileImport importICalendarText(std::string_view text, const std::string& path);
// The events and tasks among `records` as one VCALENDAR, with the VTIMEZONEs
// they use. Records of other entities are left out.
std::string exportICalendarText(const std::vector<std::pair<std::string, Dictionary>>& records);

// vCard 2.1, 3.0 and 4.0, any number of cards in one file.
UserFileImport importVCardText(std::string_view text, const std::string& path);
// The contacts among `records` as vCard 3.0. Records of other entities are left out.
std::string exportVCardText(const std::vector<std::pair<std::string, Dictionary>>& records);

}  // namespace pc
