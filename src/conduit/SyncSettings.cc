#include "conduit/SyncSettings.h"

#include <optional>

#include "async/Log.h"
#include "conduit/StoredDefaults.h"
#include "engine/SchemaNames.h"

namespace pc {

namespace {

const std::string& settingsLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncSettings"));
  return domain;
}

const std::string& serviceExtensionLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncServiceExtension"));
  return domain;
}

detail::DefaultingStore storeOf(Dictionary& settings) {
  return {[settings](const std::string& key) { return settings.get(key); },
          [settings](const Value& value, const std::string& key) mutable {
            settings.set(key, value);
          },
          settingsLogDomain()};
}

// A window: calendar months plus weeks of 7 days.
struct Window {
  int months = 0;
  int weeks = 0;
};

// The window a code names. The codes of 10 and above read the same on both
// sides; the small codes and the disabled window differ between past and
// future.
Window windowForCode(std::optional<int> code, bool past) {
  if (!code) return past ? Window{0, 0} : Window{0, 8};
  switch (*code) {
    case 0: return past ? Window{0, 0} : Window{0, 1};
    case 1: return past ? Window{0, 1} : Window{0, 2};
    case 2: return past ? Window{0, 2} : Window{0, 4};
    case 3: return past ? Window{1, 0} : Window{0, 8};
    case 10: return {0, 1};
    case 20: return {0, 2};
    case 40: return {0, 4};
    case 80: return {0, 8};
    case 100: return {1, 0};
    case 200: return {2, 0};
    case 600: return {6, 0};
    case 1200: return {12, 0};
    default:
      QVT_LOG(kLogError, settingsLogDomain(), "invalid val= {}", *code);
      return {0, 4};
  }
}

// The code of one side, or nullopt when that side's window is off.
std::optional<int> windowCode(Dictionary& settings, const char* enabledKey, const char* valueKey) {
  if (!SyncSettings::qvt_boolForKey(settings, enabledKey, false)) return std::nullopt;
  return SyncSettings::qvt_intForKey(settings, valueKey, 0);
}

// The settings key of a data class's state or first-sync mode; nullptr for a
// data class the settings do not know.
const char* dataClassKey(const std::string& dataClass, const char* calendarsKey,
                         const char* contactsKey) {
  if (dataClass == kCalendars) return calendarsKey;
  if (dataClass == kContacts) return contactsKey;
  return nullptr;
}

const char* stateKey(const std::string& dataClass) {
  const char* key = dataClassKey(dataClass, kCalendarsStateKey, kContactsStateKey);
  if (!key) QVT_LOG(kLogError, QVTLOG, "state of unkown dataclass {}", dataClass);
  return key;
}

}  // namespace

namespace SyncSettings {

void qvt_setBool(Dictionary& settings, bool value, const std::string& key) {
  settings.set(key, value);
}

void qvt_setInt(Dictionary& settings, int value, const std::string& key) {
  settings.set(key, value);
}

bool qvt_boolForKey(Dictionary& settings, const std::string& key, bool defaultVal) {
  return detail::boolForKey(storeOf(settings), key, defaultVal);
}

int qvt_intForKey(Dictionary& settings, const std::string& key, int defaultVal) {
  return detail::intForKey(storeOf(settings), key, defaultVal);
}

Value qvt_valueForKey(Dictionary& settings, const std::string& key, const Value& defaultVal) {
  return detail::valueForKey(storeOf(settings), key, defaultVal);
}

CalendarDate qvt_anchorDate(Dictionary& settings) {
  const Value stored = settings.get(kAnchorDateKey);
  if (const CalendarDate* storedAnchor = stored.asDate()) {
    const CalendarDate anchor = storedAnchor->dateWithTimeZone(TimeZone::systemTimeZone());
    QVT_LOG(kLogInfo, settingsLogDomain(), "anchor date is {}", anchor);
    return anchor;
  }
  QVT_LOG(kLogError, settingsLogDomain(), "anchor date not defined yet");
  return QVTSyncServiceExtension::qvt_currentAnchorDate();
}

CalendarDate qvt_leftExpansionWindow(Dictionary& settings) {
  const Window window = windowForCode(
      windowCode(settings, kDontSyncEventsPriorToDateIsEnabledKey, kDontSyncEventsPriorToDateValueKey),
      true);
  const CalendarDate past =
      qvt_anchorDate(settings).dateByAddingYears(0, -window.months, -7 * window.weeks, 0, 0, 0);
  QVT_LOG(kLogInfo, settingsLogDomain(), "past = {}", past);
  return past;
}

CalendarDate qvt_rightExpansionWindow(Dictionary& settings) {
  const Window window = windowForCode(
      windowCode(settings, kDontSyncEventsAfterDateIsEnabledKey, kDontSyncEventsAfterDateValueKey),
      false);
  const CalendarDate future = qvt_anchorDate(settings).dateByAddingYears(
      0, window.months, 7 * (window.weeks + 1), 0, 0, 0);
  QVT_LOG(kLogInfo, settingsLogDomain(), "future = {}", future);
  return future;
}

void qvt_setDataClass(Dictionary& settings, const std::string& dataClass, int state) {
  if (const char* key = stateKey(dataClass)) qvt_setInt(settings, state, key);
}

int qvt_dataClassState(Dictionary& settings, const std::string& dataClass) {
  const char* key = stateKey(dataClass);
  return key ? qvt_intForKey(settings, key, 0) : 0;
}

void qvt_setModeOfFirstSync(Dictionary& settings, int mode, const std::string& dataClass) {
  const char* key =
      dataClassKey(dataClass, kCalendarsModeOfFirstSyncKey, kContactsModeOfFirstSyncKey);
  if (!key) {
    QVT_LOG(kLogError, QVTLOG, "state of unkown dataclass {}", dataClass);
    return;
  }
  qvt_setInt(settings, mode, key);
}

int qvt_modeOfFirstSyncForDataClass(Dictionary& settings, const std::string& dataClass) {
  const char* key =
      dataClassKey(dataClass, kCalendarsModeOfFirstSyncKey, kContactsModeOfFirstSyncKey);
  if (!key) {
    QVT_LOG(kLogError, QVTLOG, "mode of first sync of unkown dataclass {}", dataClass);
    return 0;
  }
  return qvt_intForKey(settings, key, 0);
}

}  // namespace SyncSettings

namespace QVTSyncServiceExtension {

CalendarDate qvt_currentAnchorDate() {
  return qvt_anchorDateForDate(CalendarDate::now(TimeZone::systemTimeZone()));
}

CalendarDate qvt_anchorDateForDate(const CalendarDate& today) {
  const CalendarDate anchor = CalendarDate::dateWithYear(
      today.yearOfCommonEra(), today.monthOfYear(), today.dayOfMonth() - today.dayOfWeek(), 0, 0,
      0, today.timeZone());
  QVT_LOG(kLogInfo, serviceExtensionLogDomain(), "anchor date is {}", anchor);
  return anchor;
}

}  // namespace QVTSyncServiceExtension

}  // namespace pc
