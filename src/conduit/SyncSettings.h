#pragma once
// The per-phone sync settings the user chooses: typed reads with defaults on
// the settings dictionary, the anchor date and the window of calendar events
// around it, and the state and first-sync mode of each data class. Reading an
// absent key stores its default in the dictionary.

#include <string>

#include "platform/CalendarDate.h"
#include "platform/Value.h"

namespace pc {

// Keys of the settings dictionary.
inline constexpr const char* kAnchorDateKey = "AnchorDate";
inline constexpr const char* kDontSyncEventsPriorToDateIsEnabledKey =
    "DontSyncEventsPriorToDateIsEnabled";
inline constexpr const char* kDontSyncEventsPriorToDateValueKey = "DontSyncEventsPriorToDateValue";
inline constexpr const char* kDontSyncEventsAfterDateIsEnabledKey =
    "DontSyncEventsAfterDateIsEnabled";
inline constexpr const char* kDontSyncEventsAfterDateValueKey = "DontSyncEventsAfterDateValue";
inline constexpr const char* kCalendarsStateKey = "calendars.state";
inline constexpr const char* kContactsStateKey = "contacts.state";
inline constexpr const char* kCalendarsModeOfFirstSyncKey = "calendarsModeOfFirstSync";
inline constexpr const char* kContactsModeOfFirstSyncKey = "contactsModeOfFirstSync";

namespace SyncSettings {

void qvt_setBool(Dictionary& settings, bool value, const std::string& key);
void qvt_setInt(Dictionary& settings, int value, const std::string& key);
bool qvt_boolForKey(Dictionary& settings, const std::string& key, bool defaultVal);
int qvt_intForKey(Dictionary& settings, const std::string& key, int defaultVal);
Value qvt_valueForKey(Dictionary& settings, const std::string& key, const Value& defaultVal);

// "AnchorDate", or the current anchor date (not stored) when there is none.
// The anchor is a local midnight and the windows move from it by local
// months and weeks, so a stored anchor is answered in the system zone,
// whatever zone the store read it back in (a property list reads dates in
// GMT): every run computes the same window as the first.
CalendarDate qvt_anchorDate(Dictionary& settings);
// The oldest events sent: the anchor date moved back by the past window.
CalendarDate qvt_leftExpansionWindow(Dictionary& settings);
// The latest events sent: the anchor date moved forward by the future window
// plus one week, so that the anchor date's own week is always inside.
CalendarDate qvt_rightExpansionWindow(Dictionary& settings);

// The data class is the engine's "Calendars" or "Contacts"; any other is
// logged and reads answer 0.
void qvt_setDataClass(Dictionary& settings, const std::string& dataClass, int state);
int qvt_dataClassState(Dictionary& settings, const std::string& dataClass);
void qvt_setModeOfFirstSync(Dictionary& settings, int mode, const std::string& dataClass);
int qvt_modeOfFirstSyncForDataClass(Dictionary& settings, const std::string& dataClass);

}  // namespace SyncSettings

namespace QVTSyncServiceExtension {

// Midnight, in the system time zone, of the most recent Sunday (today when
// today is a Sunday).
CalendarDate qvt_currentAnchorDate();
// The same computed from `today` (read in its own time zone).
CalendarDate qvt_anchorDateForDate(const CalendarDate& today);

}  // namespace QVTSyncServiceExtension

}  // namespace pc
