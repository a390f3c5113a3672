#pragma once
// Recurrence records ("Calendars.Recurrence") in the vCalendar 1.0 rule
// grammar, both ways:
//
//   D1 #10                      daily, ten times
//   W2 TU TH #0                 every other week on Tuesday and Thursday, no end
//   W1 MO TU 20271231T000000Z   weekly until an instant
//   MP2 2+ WE #0                every other month on the second Wednesday
//   MP1 1- FR #5                the last Friday of the month
//   MD1 31 #12, MD1 1- #0       on the 31st; on the last day of the month
//   YM1 6 #5, YD1 100 #0        in June; on the 100th day of the year
//
// A rule without its duration runs twice, as the grammar says. The parts of
// a record that the grammar cannot say (a position in the set, a week
// start, days on a yearly rule...) travel as X-<KEY> parameters of the
// RRULE line ("X-BYSETPOS=N-1": a number after an N, since other readers
// take a parameter value that starts with a digit or a sign for no word),
// which this reader restores; a phone that
// cannot store such a rule gets the event exploded before it is written.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/ContentLines.h"
#include "platform/CalendarDate.h"
#include "platform/Value.h"

namespace pc {

struct VCalendarRuleText {
  std::string rule;
  std::vector<ContentParameter> parameters;
};

// `dateText` writes the until date; an empty answer leaves the rule without
// end ("#0") and the until date in the X-UNTIL parameter is lost. nullopt
// when the record has no frequency the grammar knows.
std::optional<VCalendarRuleText> vcalendarRuleFromRecurrence(
    const Dictionary& recurrence, const std::function<std::string(const CalendarDate&)>& dateText);

// `dateValue` reads the until date (nullopt: not a date). nullopt with
// `problem` when the rule does not read.
std::optional<Dictionary> recurrenceFromVCalendarRule(
    std::string_view rule, const std::vector<ContentParameter>& parameters,
    const std::function<std::optional<CalendarDate>(std::string_view)>& dateValue,
    std::string& problem);

}  // namespace pc
