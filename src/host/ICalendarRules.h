#pragma once
// iCalendar recurrence rules (libical's icalrecurrencetype) and the engine's
// recurrence records ("Calendars.Recurrence"), both ways.
//
// A rule goes into a record only when the calendar core expands the record
// to the same occurrences as the rule gives; otherwise `why` says what the
// record cannot hold, and the reader keeps the occurrences instead
// (icalendarRuleOccurrences).

#include <libical/ical.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/CalendarDate.h"
#include "platform/Value.h"

namespace pc {

// How far a rule that is kept as its occurrences is expanded, at most how
// many occurrences it gives, and for a rule repeating within a day, at most
// how many steps of its frequency are looked through.
inline constexpr int kExplodedYears = 10;
inline constexpr std::size_t kExplodedOccurrences = 1000;
inline constexpr long kExplodedSteps = 100000;

std::optional<Dictionary> recurrenceFromICalendarRule(const struct icalrecurrencetype& rule, const CalendarDate& start,
                                                      bool allDay, std::string& why);

// The starts of the occurrences of `rule` from `start` (the start first),
// as libical expands it; `cut` is set when the rule went on beyond the limits.
std::vector<CalendarDate> icalendarRuleOccurrences(const struct icalrecurrencetype& rule, const CalendarDate& start,
                                                   bool allDay, bool& cut);

// The wall clock of `date` in its own zone (its GMT day for an all-day
// date; UTC for a GMT date), as libical's time; `zone` the libical zone to
// tie it to (nullptr: floating or UTC as the date is).
struct icaltimetype icalTimeFromCalendarDate(const CalendarDate& date, bool day);

// The RRULE value for an engine recurrence record of an event starting at
// `start`; "" when the record has no frequency the rule can say.
std::string icalendarRuleText(const Dictionary& recurrence, bool allDay);

}  // namespace pc
