#pragma once
// The data-class helper of the calendar data class: it transforms event and
// task records between the engine's form and what one phone model can hold,
// driven by some fifty capability flags that the device description sets by
// name (time zones or not, all-day events or not, which recurrences, which
// alarms, how due dates are kept).
//
// Towards the phone it mangles each record held by a RecordHolder (alarms,
// detached occurrences, completion date, recurrence, time zone, in that
// order) and, as the entity formatters' delegate, formats events, tasks,
// alarms and recurrences; back from the phone it unmangles (recurrence, time
// zone, all-day or task, alarms). What mangling learns about a record (its
// zone, the zone its dates were written in, its first alarm's kind) travels
// as side properties of the holder to the unmangling of the same record.
//
// It also answers the host's record assembler for events and tasks, and
// tells the host which recurring events must be exploded into single events.
//
// The implementation is split by stage: QVTSyncEventTransformer.cc
// (configuration, time zones, all-day events, assembler answers),
// QVTSyncEventTransformerRecurrence.cc, QVTSyncEventTransformerAlarms.cc
// (alarms and tasks).

#include <optional>
#include <string>

#include "platform/HostInterfaces.h"
#include "platform/CalendarDate.h"
#include "transformers/QVTSyncDataClassHelper.h"

namespace pc {

// A time zone kept as a record holder's side property ("sTimeZone",
// "EventTimeZoneWhenReadBack"): the zone object itself, so that the
// floating kind survives the trip (a name would read back as a fixed zone).
class QVTTimeZoneProperty : public Object {
 public:
  explicit QVTTimeZoneProperty(TimeZonePtr zone = nullptr) : _zone(std::move(zone)) {}
  std::string className() const override { return "QVTTimeZoneProperty"; }
  std::string description() const override;
  const TimeZonePtr& timeZone() const { return _zone; }

  // Null for no zone.
  static Value valueWithTimeZone(const TimeZonePtr& zone);
  // The zone of a value made by valueWithTimeZone, or of a zone name;
  // null otherwise.
  static TimeZonePtr timeZoneFromValue(const Value& value);

 private:
  TimeZonePtr _zone;
};

class QVTSyncEventTransformer : public QVTSyncDataClassHelper,
                                public QVTSyncEventTransformerProtocol,
                                public GenericAssemblerDelegate {
 public:
  QVTSyncEventTransformer();
  ~QVTSyncEventTransformer() override;

  std::string className() const override { return "QVTSyncEventTransformer"; }

  // --- Configuration ------------------------------------------------------------
  // Defaults, then each entry assigned by key, then the adjustments (both
  // kinds when neither is set; no per-kind zones without supportsTZ).
  void initWithProperties(const Dictionary& properties) override;
  // Also notes whether the phone's transport is a Motorola AT transport.
  void setDataClassManager(DataClassManager* manager) override;
  DataClassManager* calendarManager() const { return _calendarManager; }

  void setOnlyEvents(bool onlyEvents);
  void setOnlyTasks(bool onlyTasks);
  // "GMT" or "LocalTime"; anything else is logged and ignored.
  void setTreatEventsTimeAs(const Value& value);
  void setHasTimeZone(bool value) { _supportsGMTDates = value; }
  void setUntilDateIsDateOnlyForEvents(bool value) { _untilDateIsDateOnly = value; }
  // Dates in the platform's default text form; empty or absent leaves none.
  void setDefaultUntilDateWhenMissing(const Value& string);
  void setDefaultDueDateWhenMissing(const Value& string);
  void setDontSyncEventBeforeDate(const Value& string);
  void setDefaultPriority(const Value& number);
  void setMaxMinutesNbDeltaForAlarm(const Value& number);
  void setAllowedAlarmRelativeValues(const Value& array);
  void setCountValueWhenMissing(const Value& number);
  void _setMotorolaLegacyCompatibility(bool value) { _motorolaLegacyCompatibility = value; }

  // --- The protocol the host asks ----------------------------------------------
  bool supportsGMTDates() const override { return _supportsGMTDates; }
  bool hasAllDayMultiDay() const override { return _hasAllDayMultiDay; }
  bool hasAllDayEvents() const override { return _hasAllDayEvents; }
  // Whether the phone will store the event's recurrence; false means the
  // host explodes the event into single events.
  bool deviceSupportRecurrentEvent(RecordHolder& holder) override;
  bool deviceHandleRule(const Dictionary& rule, const Dictionary& event,
                        const std::string& masterId, const Dictionary& originalEvent);

  // Whether the record keeps its own zone on the phone.
  bool supportsTZForRecord(const Dictionary& record) const;

  // --- Record transformer ---------------------------------------------------------
  void mangleRecordBeforePushingToDevice(RecordHolder& holder) override;
  void unmangleRecordAfterReadingFromDevice(RecordHolder& holder) override;

  // --- Entity-formatter delegate ----------------------------------------------------
  // Dispatches on the entity: event, task, display and audio alarm, recurrence.
  std::optional<Dictionary> formatRecord(const Dictionary& record) override;
  // With hasOneAlarm: one alarm, audio preferred.
  void formatAssembledRecord(Dictionary& record) override;
  Array allPossibleEntities() override;

  // --- Record assembler delegate ------------------------------------------------------
  Array masterRelationKeysForMasterEntity(const std::string& masterEntity) override;
  Dictionary relationKeysToSubEntitiesForMasterEntity(const std::string& masterEntity) override;
  Dictionary entityToBackRelationShipForMasterEntity(const std::string& masterEntity) override;
  std::string backRelationOfEntity(const std::string& entity, const std::string& masterEntity) override;
  Array extraKeysForMasterEntity(const std::string& masterEntity) override;
  void sortRelation(const std::string&, Array&, const Dictionary&, const std::string&) override {}
  void addCustomField(const Value&, const std::string&) override {}

  // --- Formatting steps (each takes the record and answers it, or nullopt to drop it) ---
  std::optional<Dictionary> formatEventRecord(Dictionary record);
  Dictionary formatYearlyEvent(Dictionary record);
  Dictionary formatAllDayEventRecord(Dictionary record);
  Dictionary formatTimedEventRecord(Dictionary record);
  std::optional<Dictionary> formatTaskRecord(Dictionary record);
  Dictionary formatTaskCompletionDate(Dictionary record);
  Dictionary formatStatusFromCompletionDate(Dictionary record);
  Dictionary formatDueDateWhenMissing(Dictionary record);
  Dictionary formatTaskDueDate(Dictionary record);
  std::optional<Dictionary> formatDisplayAndAudioAlarm(Dictionary alarm);
  std::optional<Dictionary> formatRecurrence(Dictionary recurrence);
  Dictionary formatRecurrenceSetDefaultCount(Dictionary recurrence);
  Dictionary formatRecurrenceSetDefaultUntilDate(Dictionary recurrence);
  Dictionary formatRecurrenceWithUntilDate(Dictionary recurrence);
  Dictionary formatRecurrenceWithCount(Dictionary recurrence);
  Dictionary formatRecurrenceUntilDate(Dictionary recurrence);
  Dictionary formatRecurrenceWithUntilDateToLastOccurrence(Dictionary recurrence);

  // --- Capability flags (device-description key = name) ----------------------------------
  bool hasEvent() const { return _hasEvent; }
  bool hasTask() const { return _hasTask; }
  bool supportsTZ() const { return _supportsTZ; }
  bool supportsTZInRecurrentEvents() const { return _supportsTZInRecurrentEvents; }
  bool supportsTZInRegularEvents() const { return _supportsTZInRegularEvents; }
  bool supportsTZInTodo() const { return _supportsTZInTodo; }
  bool setDefaultClass() const { return _setDefaultClass; }
  bool setDefaultStatus() const { return _setDefaultStatus; }
  const Value& defaultPriority() const { return _defaultPriority; }
  bool hasAllDayFromMidnightTo235900() const { return _hasAllDayFromMidnightTo235900; }
  bool needsEndDateAtMidnight00() const { return _needsEndDateAtMidnight00; }
  bool hasFakeAllDay() const { return _hasFakeAllDay; }
  bool allDayInLocalDateTime() const { return _allDayInLocalDateTime; }
  bool allDayAlarmAtMidnight() const { return _allDayAlarmAtMidnight; }
  bool allDayHaveNoLocation() const { return _allDayHaveNoLocation; }
  bool hasVCalRecurrence() const { return _hasVCalRecurrence; }
  bool hasSymbianRecurrence() const { return _hasSymbianRecurrence; }
  bool handleAllDayRecurrent() const { return _handleAllDayRecurrent; }
  bool handleMultiDayRecurrent() const { return _handleMultiDayRecurrent; }
  bool hasFullRecurrence() const { return _hasFullRecurrence; }
  bool needsToFormatCountToUntilDate() const { return _needsToFormatCountToUntilDate; }
  bool needsToFormatUntilDateToCount() const { return _needsToFormatUntilDateToCount; }
  bool hasDetachEvents() const { return _hasDetachEvents; }
  bool needsToFormatUntilDateToLastOccurrence() const {
    return _needsToFormatUntilDateToLastOccurrence;
  }
  const std::optional<CalendarDate>& untilDateValueWhenMissing() const {
    return _untilDateValueWhenMissing;
  }
  const Value& countValueWhenMissing() const { return _countValueWhenMissing; }
  bool hasOneAlarm() const { return _hasOneAlarm; }
  bool hasOneAlarmType() const { return _hasOneAlarmType; }
  bool alarmTypeIsDisplay() const { return _alarmTypeIsDisplay; }
  bool hasOnlyRelativeAlarm() const { return _hasOnlyRelativeAlarm; }
  bool hasOnlyAbsoluteAlarms() const { return _hasOnlyAbsoluteAlarms; }
  bool doNotSyncAlarmIfAfterStartDateTime() const { return _doNotSyncAlarmIfAfterStartDateTime; }
  bool doNotSyncAlarmIfSameDayAsADE() const { return _doNotSyncAlarmIfSameDayAsADE; }
  bool syncAlarmOnlyIfSameDayAsADEStartDate() const {
    return _syncAlarmOnlyIfSameDayAsADEStartDate;
  }
  bool doNotSyncAlarmIfSameDayAsDueDate() const { return _doNotSyncAlarmIfSameDayAsDueDate; }
  bool doNotSyncAlarmIfCompleted() const { return _doNotSyncAlarmIfCompleted; }
  bool doNotSyncAlarmForTask() const { return _doNotSyncAlarmForTask; }
  bool doNotSyncAlarmForADE() const { return _doNotSyncAlarmForADE; }
  bool setAllDayTimeWithAlarmTime() const { return _setAllDayTimeWithAlarmTime; }
  const Value& maxMinutesNbDeltaForAlarm() const { return _maxMinutesNbDeltaForAlarm; }
  const Value& allowedAlarmRelativeValues() const { return _allowedAlarmRelativeValues; }
  bool tasksNeedsDate() const { return _tasksNeedsDate; }
  bool exDatesAreDateOnly() const { return _exDatesAreDateOnly; }
  bool untilDateIsDateOnly() const { return _untilDateIsDateOnly; }
  bool dueDateIsDateOnly() const { return _dueDateIsDateOnly; }
  bool completionDateIsDateOnly() const { return _completionDateIsDateOnly; }
  bool setDueDateToCompletionDateIfCompleted() const {
    return _setDueDateToCompletionDateIfCompleted;
  }
  bool statusDeducedFromCompletionDate() const { return _statusDeducedFromCompletionDate; }
  const std::optional<CalendarDate>& dueDateValueWhenMissing() const {
    return _dueDateValueWhenMissing;
  }
  const std::optional<CalendarDate>& dontSyncEventBeforeDate() const {
    return _dontSyncEventBeforeDate;
  }
  bool motorolaLegacyCompatibility() const { return _motorolaLegacyCompatibility; }

 protected:
  // ".sync.QVTSyncEventTransformer".
  static const std::string& logDomain();

  // --- Mangling and unmangling stages, in their order ------------------------------
  // Time zones and all-day events (QVTSyncEventTransformer.cc).
  void _mangleTimeZone(Dictionary& record, const TimeZonePtr& eventTimeZone);
  void _unmangleTimeZone(RecordHolder& holder, const TimeZonePtr& eventTimeZone,
                         const TimeZonePtr& phoneTimeZone);
  void _unmangleAllDay(RecordHolder& holder, const TimeZonePtr& phoneZone);
  void _mangleCompletionDate(RecordHolder& holder);
  // Converts an all-day record to a timed one when the phone needs it;
  // answers whether it did.
  bool privateConvertToTimedEvent(Dictionary& record);

  // Recurrences (QVTSyncEventTransformerRecurrence.cc).
  void _mangleRecurrenceBeforeTimeZoneMangling(RecordHolder& holder, bool convertAllDayToDateTime);
  void _mangleRecurrenceAfterTimeZoneMangling(RecordHolder& holder);
  void _unmangleRecurrenceBeforeTimeZoneUnMangling(RecordHolder& holder,
                                                   const TimeZonePtr& eventTimeZone = nullptr);
  void _unmangleRecurrenceAfterTimeZoneUnMangling(RecordHolder& holder,
                                                  const TimeZonePtr& eventTimeZone);
  Array privateConvertArrayToTimedCalendarDate(const Array& dates);

  // Alarms and tasks (QVTSyncEventTransformerAlarms.cc).
  void _mangleAlarms(RecordHolder& holder);
  void _unmangleAlarms(RecordHolder& holder, const TimeZonePtr& eventTimeZone,
                       const TimeZonePtr& phoneTimeZone);
  void _unmangleTask(RecordHolder& holder);
  void privateSetAlarmToMidnight(Dictionary& alarm);
  bool privateAdaptToAllowedAlarmRelativeValues(Dictionary& alarm);
  // Answers whether to drop the alarm.
  bool privateDropAlarmIfAfterStartDate(const Dictionary& alarm);
  bool privateDropAlarmFromRecord(const Dictionary& alarm, const Value& ifItDoesNotRespectMaxMinutesNbDelta);
  bool privateAlarmIsSameDayAsADEStartDate(const Dictionary& alarm);
  // Seconds from the alarm to its owner's reference date; nullopt when it
  // cannot be computed.
  std::optional<double> privateGetFromAlarm(const Dictionary& alarm);

 private:
  DataClassManager* _calendarManager = nullptr;
  bool _hasEvent = false;
  bool _hasTask = false;
  bool _supportsGMTDates = false;
  bool _supportsTZ = false;
  bool _supportsTZInRecurrentEvents = true;
  bool _supportsTZInRegularEvents = true;
  bool _supportsTZInTodo = true;
  bool _setDefaultClass = false;
  bool _setDefaultStatus = false;
  Value _defaultPriority;
  bool _hasAllDayEvents = true;
  bool _hasAllDayFromMidnightTo235900 = false;
  bool _hasAllDayMultiDay = true;
  bool _needsEndDateAtMidnight00 = false;
  bool _hasFakeAllDay = false;
  bool _allDayInLocalDateTime = false;
  bool _allDayAlarmAtMidnight = false;
  bool _allDayHaveNoLocation = false;
  bool _hasVCalRecurrence = false;
  bool _hasSymbianRecurrence = false;
  bool _handleAllDayRecurrent = true;
  bool _handleMultiDayRecurrent = true;
  bool _hasFullRecurrence = false;
  bool _needsToFormatCountToUntilDate = false;
  bool _needsToFormatUntilDateToCount = false;
  bool _hasDetachEvents = false;
  bool _needsToFormatUntilDateToLastOccurrence = true;
  std::optional<CalendarDate> _untilDateValueWhenMissing;
  Value _countValueWhenMissing;
  bool _hasOneAlarm = true;
  bool _hasOneAlarmType = true;
  bool _alarmTypeIsDisplay = false;
  bool _hasOnlyRelativeAlarm = false;
  bool _hasOnlyAbsoluteAlarms = true;
  bool _doNotSyncAlarmIfAfterStartDateTime = false;
  bool _doNotSyncAlarmIfSameDayAsADE = false;
  bool _syncAlarmOnlyIfSameDayAsADEStartDate = false;
  bool _doNotSyncAlarmIfSameDayAsDueDate = false;
  bool _doNotSyncAlarmIfCompleted = false;
  bool _doNotSyncAlarmForTask = false;
  bool _doNotSyncAlarmForADE = false;
  bool _setAllDayTimeWithAlarmTime = false;
  Value _maxMinutesNbDeltaForAlarm;
  Value _allowedAlarmRelativeValues;
  bool _tasksNeedsDate = false;
  bool _exDatesAreDateOnly = true;
  bool _untilDateIsDateOnly = true;
  bool _dueDateIsDateOnly = true;
  bool _completionDateIsDateOnly = false;
  bool _setDueDateToCompletionDateIfCompleted = false;
  bool _statusDeducedFromCompletionDate = false;
  std::optional<CalendarDate> _dueDateValueWhenMissing;
  std::optional<CalendarDate> _dontSyncEventBeforeDate;
  bool _motorolaLegacyCompatibility = false;

  // The flags' setters for key-value assignment, filled by the .cc files.
  friend struct QVTSyncEventTransformerProperties;
};

}  // namespace pc
