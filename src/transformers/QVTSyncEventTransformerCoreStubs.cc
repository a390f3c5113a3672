// TEMPORARY: the smallest configuration half of the event transformer that
// lets the recurrence, alarm and task stages build and be tested on their
// own. Replaced by QVTSyncEventTransformer.cc when that lands.

#include <fmt/format.h>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "platform/Registry.h"
#include "transformers/QVTSyncEventTransformer.h"

namespace pc {

PC_REGISTER_CLASS(QVTSyncEventTransformer, "QVTSyncDataClassHelper");

struct QVTSyncEventTransformerProperties {
  using Flag = bool QVTSyncEventTransformer::*;
  static void flag(const char* key, Flag field) {
    PropertyTable::registerProperty("QVTSyncEventTransformer", key,
                                    [field](Object& self, const Value& value) {
                                      auto& t = dynamic_cast<QVTSyncEventTransformer&>(self);
                                      t.*field = value.boolValue();
                                    });
  }
  template <class F>
  static void setter(const char* key, F f) {
    PropertyTable::registerProperty("QVTSyncEventTransformer", key,
                                    [f](Object& self, const Value& value) {
                                      f(dynamic_cast<QVTSyncEventTransformer&>(self), value);
                                    });
  }
  static void registerAll() {
    using T = QVTSyncEventTransformer;
    flag("hasEvent", &T::_hasEvent);
    flag("hasTask", &T::_hasTask);
    flag("supportsTZ", &T::_supportsTZ);
    flag("setDefaultClass", &T::_setDefaultClass);
    flag("setDefaultStatus", &T::_setDefaultStatus);
    flag("allDayAlarmAtMidnight", &T::_allDayAlarmAtMidnight);
    flag("hasVCalRecurrence", &T::_hasVCalRecurrence);
    flag("hasSymbianRecurrence", &T::_hasSymbianRecurrence);
    flag("handleAllDayRecurrent", &T::_handleAllDayRecurrent);
    flag("handleMultiDayRecurrent", &T::_handleMultiDayRecurrent);
    flag("hasFullRecurrence", &T::_hasFullRecurrence);
    flag("needsToFormatCountToUntilDate", &T::_needsToFormatCountToUntilDate);
    flag("needsToFormatUntilDateToCount", &T::_needsToFormatUntilDateToCount);
    flag("hasDetachEvents", &T::_hasDetachEvents);
    flag("needsToFormatUntilDateToLastOccurrence", &T::_needsToFormatUntilDateToLastOccurrence);
    flag("hasOneAlarm", &T::_hasOneAlarm);
    flag("hasOneAlarmType", &T::_hasOneAlarmType);
    flag("alarmTypeIsDisplay", &T::_alarmTypeIsDisplay);
    flag("hasOnlyAbsoluteAlarms", &T::_hasOnlyAbsoluteAlarms);
    flag("doNotSyncAlarmIfAfterStartDateTime", &T::_doNotSyncAlarmIfAfterStartDateTime);
    flag("doNotSyncAlarmIfSameDayAsADE", &T::_doNotSyncAlarmIfSameDayAsADE);
    flag("syncAlarmOnlyIfSameDayAsADEStartDate", &T::_syncAlarmOnlyIfSameDayAsADEStartDate);
    flag("doNotSyncAlarmIfSameDayAsDueDate", &T::_doNotSyncAlarmIfSameDayAsDueDate);
    flag("doNotSyncAlarmIfCompleted", &T::_doNotSyncAlarmIfCompleted);
    flag("doNotSyncAlarmForTask", &T::_doNotSyncAlarmForTask);
    flag("doNotSyncAlarmForADE", &T::_doNotSyncAlarmForADE);
    flag("setAllDayTimeWithAlarmTime", &T::_setAllDayTimeWithAlarmTime);
    flag("exDatesAreDateOnly", &T::_exDatesAreDateOnly);
    flag("untilDateIsDateOnly", &T::_untilDateIsDateOnly);
    flag("dueDateIsDateOnly", &T::_dueDateIsDateOnly);
    flag("completionDateIsDateOnly", &T::_completionDateIsDateOnly);
    flag("setDueDateToCompletionDateIfCompleted", &T::_setDueDateToCompletionDateIfCompleted);
    flag("statusDeducedFromCompletionDate", &T::_statusDeducedFromCompletionDate);
    setter("defaultPriority", [](T& t, const Value& v) { t.setDefaultPriority(v); });
    setter("maxMinutesNbDeltaForAlarm", [](T& t, const Value& v) { t.setMaxMinutesNbDeltaForAlarm(v); });
    setter("allowedAlarmRelativeValues", [](T& t, const Value& v) { t.setAllowedAlarmRelativeValues(v); });
    setter("countValueWhenMissing", [](T& t, const Value& v) { t.setCountValueWhenMissing(v); });
    setter("untilDateValueWhenMissing", [](T& t, const Value& v) { t.setDefaultUntilDateWhenMissing(v); });
    setter("dueDateValueWhenMissing", [](T& t, const Value& v) { t.setDefaultDueDateWhenMissing(v); });
    setter("dontSyncEventBeforeDate", [](T& t, const Value& v) { t.setDontSyncEventBeforeDate(v); });
  }
};

PC_REGISTRATION({ QVTSyncEventTransformerProperties::registerAll(); });

namespace {
std::optional<CalendarDate> parseDate(const Value& string) {
  if (!string.isString() || string.string().empty()) return std::nullopt;
  return CalendarDate::dateWithString(string.string(), kDefaultCalendarFormat);
}
}  // namespace

QVTSyncEventTransformer::QVTSyncEventTransformer() = default;
QVTSyncEventTransformer::~QVTSyncEventTransformer() = default;

const std::string& QVTSyncEventTransformer::logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncEventTransformer"));
  return domain;
}

void QVTSyncEventTransformer::initWithProperties(const Dictionary& properties) {
  QVTSyncDataClassHelper::initWithProperties(properties);
  if (!_hasEvent && !_hasTask) _hasEvent = _hasTask = true;
}

void QVTSyncEventTransformer::setDataClassManager(DataClassManager* manager) {
  QVTSyncDataClassHelper::setDataClassManager(manager);
  _calendarManager = manager;
}

void QVTSyncEventTransformer::setDefaultUntilDateWhenMissing(const Value& s) { _untilDateValueWhenMissing = parseDate(s); }
void QVTSyncEventTransformer::setDefaultDueDateWhenMissing(const Value& s) { _dueDateValueWhenMissing = parseDate(s); }
void QVTSyncEventTransformer::setDontSyncEventBeforeDate(const Value& s) { _dontSyncEventBeforeDate = parseDate(s); }
void QVTSyncEventTransformer::setDefaultPriority(const Value& n) { _defaultPriority = n.copy(); }
void QVTSyncEventTransformer::setMaxMinutesNbDeltaForAlarm(const Value& n) { _maxMinutesNbDeltaForAlarm = n.copy(); }
void QVTSyncEventTransformer::setAllowedAlarmRelativeValues(const Value& a) { _allowedAlarmRelativeValues = a.deepCopy(); }
void QVTSyncEventTransformer::setCountValueWhenMissing(const Value& n) { _countValueWhenMissing = n.copy(); }

void QVTSyncEventTransformer::mangleRecordBeforePushingToDevice(RecordHolder&) {}
void QVTSyncEventTransformer::unmangleRecordAfterReadingFromDevice(RecordHolder&) {}

std::optional<Dictionary> QVTSyncEventTransformer::formatRecord(const Dictionary& record) {
  const std::string entity = record.getString(kEngineRecordEntityNameKey);
  if (entity == kCalendarsTask) return formatTaskRecord(record);
  if (entity == kCalendarsDisplayAlarm || entity == kCalendarsAudioAlarm)
    return formatDisplayAndAudioAlarm(record);
  if (entity == kCalendarsRecurrence) return formatRecurrence(record);
  return record;
}

void QVTSyncEventTransformer::formatAssembledRecord(Dictionary&) {}
Array QVTSyncEventTransformer::allPossibleEntities() { return Array(); }
Array QVTSyncEventTransformer::masterRelationKeysForMasterEntity(const std::string&) { return Array(); }
Dictionary QVTSyncEventTransformer::relationKeysToSubEntitiesForMasterEntity(const std::string&) { return Dictionary(); }
Dictionary QVTSyncEventTransformer::entityToBackRelationShipForMasterEntity(const std::string&) { return Dictionary(); }
Array QVTSyncEventTransformer::extraKeysForMasterEntity(const std::string&) { return Array(); }

}  // namespace pc
