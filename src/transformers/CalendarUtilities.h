#pragma once
// Small operations on calendar records (events, tasks, alarms, recurrences),
// on arrays of recurrence records and exception dates, on the engine's truth
// snapshot and on calendar dates. The event transformer uses them to classify
// records, find alarms, move every date of a record from one time zone to
// another, normalise recurrences and exception dates, and find the dates of
// detached occurrences.
//
// Two changes of zone are kept apart throughout:
//   - re-zoning (CalendarDate::setTimeZone): the instant stays, the fields change;
//   - wall-clock conversion (convertInTimeZone): the fields stay, the instant changes.
//
// Nothing here raises: a record without entity name or of the wrong entity is
// logged and answered as if the key were absent; values of the wrong kind
// count as absent.

#include <optional>
#include <string>

#include "calcore/CalendarDateExtension.h"
#include "platform/CalendarDate.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

class TruthSnapshot;

namespace CalendarUtilities {

// --- Queries on a record ---

// The calendar's read-only flag; a record that is not a calendar is logged
// (level 1, "QVT") and answered the same way.
bool isCalendarReadOnly(const Dictionary& record);
// Whether the record is an event. A record without entity name is logged as a
// failed condition and answers false; callers treat every non-event as a task.
bool _isEvent(const Dictionary& record);
// Whether the event's recurrence relation holds at least one record.
bool isRecurrent(const Dictionary& record);
// The recurrence identifier of a detached occurrence (null when the record is
// not one): the record is detached when this is not null.
Value isDetached(const Dictionary& record);

// The first display alarm, else the first audio alarm, else nothing.
// `relation` (may be nullptr) receives the key of the relation that held it.
std::optional<Dictionary> getFirstAlarmWithRelation(const Dictionary& record,
                                                    std::string* relation = nullptr);
std::optional<Dictionary> getFirstAlarm(const Dictionary& record);
// The absolute trigger date of the first alarm, if it has one.
std::optional<CalendarDate> getFirstAlarmDate(const Dictionary& record);

bool isAllDayEvent(const Dictionary& record);
bool isAllDayTask(const Dictionary& record);
bool isAllDayEventOrTask(const Dictionary& record);
// Start and end both present and more than one day (86400 s) apart.
bool isMultiDayEvent(const Dictionary& record);

// The date alarms are counted from: an event's start or a task's due date.
// For an all-day one, with a zone given, 00:00:00 of its day in that zone.
// `allDayDate` (may be nullptr) receives whether it was an all-day date.
std::optional<CalendarDate> referenceDateForAlarmComputationInTimeZone(const Dictionary& record,
                                                                       const TimeZonePtr& zone,
                                                                       bool* allDayDate = nullptr);

// --- Queries on an alarm ---

bool isDisplayAlarm(const Dictionary& alarm);
// Whether the alarm has an absolute trigger date.
bool isAbsoluteAlarm(const Dictionary& alarm);
// The absolute trigger date; else the reference date plus the trigger duration
// (seconds, negative before the reference) when both exist; else nothing.
std::optional<CalendarDate> getAbsoluteAlarmForReferenceDate(
    const Dictionary& alarm, const std::optional<CalendarDate>& referenceDate);

// --- Queries on a recurrence record ---

// A plain "every year" rule: yearly, interval absent or 1, and no until,
// count or by-part (empty by-part lists count as absent).
bool qvt_isSimpleYearlyEvent(const Dictionary& recurrence);

// --- Changes to a record ---

// With a date: the record's audio-alarm relation becomes one alarm whose only
// entry is the display-alarm trigger date (both carry the same key). Without a
// date, nothing changes.
void setFirstAlarm(Dictionary& record, const std::optional<CalendarDate>& date);
// Removes the recurrences, detached events and exception dates.
void cleanFromRecurrenceStuff(Dictionary& record);

// Moves the record's dates from `fromTimeZone` to `timeZone`: each date is
// re-zoned to the source zone (when given and different), then wall-clock
// converted to the target zone (when given and different). Timed events move
// their original, start and end dates, the alarms' trigger dates and the
// recurrences' until dates, and a recurrence's single day, month day or month
// selector follows the start's day when the source zone puts it on another
// one; all-day events and tasks move only their alarms; timed tasks their due
// date and alarms; tasks their completion date unless it is date-only.
// Exception dates move too, unless they are date-only or the record is
// all-day. Relations whose records change are replaced by new arrays of
// changed copies; the records shared with other holders are left alone.
void convertDatesInTimeZone(Dictionary& record, const TimeZonePtr& timeZone,
                            const TimeZonePtr& fromTimeZone, bool completionDateIsDateOnly,
                            bool untilDateIsDateOnly, bool exDatesAreDateOnly);

// Fills in what a recurrence leaves implicit from the event's start date: the
// week day of a weekly rule (and the week-start day when given and missing),
// the month day of a monthly rule, the month of a yearly rule, interval 1.
// An until date of an all-day event, or one that is date-only, becomes midday
// GMT of its day (read in the start's zone for a timed event).
void normalizeRecurrenceWithStartDate(Dictionary& recurrence,
                                      const std::optional<CalendarDate>& startDate,
                                      const std::optional<std::string>& weekStartDay, bool isAllDay,
                                      bool untilDateIsDateOnly);
// Normalises every recurrence of an assembled event with its start date and
// all-day flag (no week-start day, until not date-only).
void qvt_normalizeAssembledEvent(Dictionary& event);

// --- Arrays ---

// normalizeRecurrenceWithStartDate on each recurrence record, in order.
void normalizeRecurrencesWithStartDate(Array& recurrences,
                                       const std::optional<CalendarDate>& startDate,
                                       const std::optional<std::string>& weekStartDay,
                                       bool isAllDay, bool untilDateIsDateOnly);
// normalizedExDates (the exception-date list, sorted and without duplicates)
// is declared in calcore/CalendarDateExtension.h, included above.

}  // namespace CalendarUtilities

namespace CalendarExtension {

// --- Truth snapshot ---

// The original dates of the detached occurrences of the master event
// `identifier`, in the snapshot's order, re-zoned to `zone` when given.
// nullopt when the event has no detached occurrences at all; a detached
// record without original date is logged and skipped.
std::optional<Array> datesOfDetachedEventsForIdentifier(const TruthSnapshot& snapshot,
                                                        const std::string& identifier,
                                                        const TimeZonePtr& zone);

// The operations on calendar dates alone (convertToMidnightInTimeZone,
// convertToMiddayInTimeZone, convertInTimeZone, allDayDateWithYear) are
// declared in calcore/CalendarDateExtension.h, included above.

}  // namespace CalendarExtension

}  // namespace pc
