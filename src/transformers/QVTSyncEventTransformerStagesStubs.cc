// TEMPORARY: empty recurrence, alarm and task stages of the event
// transformer, so that the rest of the class builds and runs on its own.
// Removed once the real stages are merged.
#include "transformers/QVTSyncEventTransformer.h"

namespace pc {

bool QVTSyncEventTransformer::deviceSupportRecurrentEvent(RecordHolder&) { return true; }
bool QVTSyncEventTransformer::deviceHandleRule(const Dictionary&, const Dictionary&,
                                               const std::string&, const Dictionary&) {
  return true;
}
Dictionary QVTSyncEventTransformer::formatYearlyEvent(Dictionary record) { return record; }
std::optional<Dictionary> QVTSyncEventTransformer::formatTaskRecord(Dictionary record) {
  return record;
}
Dictionary QVTSyncEventTransformer::formatTaskCompletionDate(Dictionary record) { return record; }
Dictionary QVTSyncEventTransformer::formatStatusFromCompletionDate(Dictionary record) {
  return record;
}
Dictionary QVTSyncEventTransformer::formatDueDateWhenMissing(Dictionary record) { return record; }
Dictionary QVTSyncEventTransformer::formatTaskDueDate(Dictionary record) { return record; }
std::optional<Dictionary> QVTSyncEventTransformer::formatDisplayAndAudioAlarm(Dictionary alarm) {
  return alarm;
}
std::optional<Dictionary> QVTSyncEventTransformer::formatRecurrence(Dictionary recurrence) {
  return recurrence;
}
Dictionary QVTSyncEventTransformer::formatRecurrenceSetDefaultCount(Dictionary r) { return r; }
Dictionary QVTSyncEventTransformer::formatRecurrenceSetDefaultUntilDate(Dictionary r) { return r; }
Dictionary QVTSyncEventTransformer::formatRecurrenceWithUntilDate(Dictionary r) { return r; }
Dictionary QVTSyncEventTransformer::formatRecurrenceWithCount(Dictionary r) { return r; }
Dictionary QVTSyncEventTransformer::formatRecurrenceUntilDate(Dictionary r) { return r; }
Dictionary QVTSyncEventTransformer::formatRecurrenceWithUntilDateToLastOccurrence(Dictionary r) {
  return r;
}

void QVTSyncEventTransformer::_mangleRecurrenceBeforeTimeZoneMangling(RecordHolder&, bool) {}
void QVTSyncEventTransformer::_mangleRecurrenceAfterTimeZoneMangling(RecordHolder&) {}
void QVTSyncEventTransformer::_unmangleRecurrenceBeforeTimeZoneUnMangling(RecordHolder&) {}
void QVTSyncEventTransformer::_unmangleRecurrenceAfterTimeZoneUnMangling(RecordHolder&,
                                                                         const TimeZonePtr&) {}
Array QVTSyncEventTransformer::privateConvertArrayToTimedCalendarDate(const Array& dates) {
  return dates;
}

void QVTSyncEventTransformer::_mangleAlarms(RecordHolder&) {}
void QVTSyncEventTransformer::_unmangleAlarms(RecordHolder&, const TimeZonePtr&,
                                              const TimeZonePtr&) {}
void QVTSyncEventTransformer::_unmangleTask(RecordHolder&) {}
void QVTSyncEventTransformer::privateSetAlarmToMidnight(Dictionary&) {}
bool QVTSyncEventTransformer::privateAdaptToAllowedAlarmRelativeValues(Dictionary&) { return true; }
bool QVTSyncEventTransformer::privateDropAlarmIfAfterStartDate(const Dictionary&) { return false; }
bool QVTSyncEventTransformer::privateDropAlarmFromRecord(const Dictionary&, const Value&) {
  return false;
}
bool QVTSyncEventTransformer::privateAlarmIsSameDayAsADEStartDate(const Dictionary&) {
  return false;
}
std::optional<double> QVTSyncEventTransformer::privateGetFromAlarm(const Dictionary&) {
  return std::nullopt;
}

}  // namespace pc
