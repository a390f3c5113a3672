#include "transformers/QVTSyncEventTransformer.h"

#include <cmath>

#include "async/Log.h"
#include "conduit/CFPhone.h"
#include "async/ConditionReport.h"
#include "engine/SchemaNames.h"
#include "platform/Registry.h"
#include "transformers/CalendarUtilities.h"

namespace pc {

PC_REGISTER_CLASS(QVTSyncEventTransformer, "QVTSyncDataClassHelper");

namespace {

// Side properties of the record holder.
constexpr const char* kTimeZoneProperty = "sTimeZone";
constexpr const char* kReadBackTimeZoneProperty = "EventTimeZoneWhenReadBack";
constexpr const char* kReadOnlyProperty = "ReadOnly";
constexpr const char* kHomeCalendarProperty = "HomeCalendar";
constexpr const char* kNoModifyProperty = "NoModify";
constexpr const char* kIsAllDayEventProperty = "IsAllDayEvent";

// The class of the transports whose phones take local times labelled as GMT.
constexpr const char* kMotorolaTransportClassName = "MotorolaATSyncTransport";

// A multi-day all-day event spans at least two days.
constexpr double kTwoDays = 172800.0;

std::optional<CalendarDate> dateEntry(const Dictionary& record, const char* key) {
  const Value* value = record.find(key);
  const CalendarDate* date = value ? value->asDate() : nullptr;
  return date ? std::optional(*date) : std::nullopt;
}

std::string entityOf(const Dictionary& record) {
  const Value* value = record.find(kEngineRecordEntityNameKey);
  const std::string* name = value ? value->asString() : nullptr;
  return name ? *name : std::string();
}

bool isFloating(const TimeZonePtr& zone) { return zone && zone->isLocalTimeZoneKind(); }

std::string zoneDescription(const TimeZonePtr& zone) { return zone ? zone->name() : "(null)"; }

QVTSyncManager* syncManagerOf(DataClassManager* manager) {
  return manager ? manager->syncManager() : nullptr;
}

// The phone's own zone, as the host's sync manager knows it.
TimeZonePtr phoneZoneOf(DataClassManager* manager) {
  QVTSyncManager* sync = syncManagerOf(manager);
  CFPhone* phone = sync ? sync->phone() : nullptr;
  return phone ? phone->timeZone() : nullptr;
}

// A date in the platform's default text form (or a date value, as a
// description read from a property list may hold); none for an absent, empty
// or unreadable string (the last is logged).
std::optional<CalendarDate> dateFromSetting(const Value& value, const char* key,
                                            const std::string& domain) {
  if (const CalendarDate* date = value.asDate()) return *date;
  const std::string* text = value.asString();
  if (!text || text->empty()) return std::nullopt;
  std::string error;
  auto date = CalendarDate::dateWithString(*text, kDefaultCalendarFormat, nullptr, &error);
  if (!date) QVT_LOG(kLogWarning, domain, "bad date for {}: {} ({})", key, *text, error);
  return date;
}

}  // namespace

// --- Key-value assignment -----------------------------------------------------------

struct QVTSyncEventTransformerProperties {
  using Transformer = QVTSyncEventTransformer;

  static void registerSetter(const char* key,
                             std::function<void(Transformer&, const Value&)> setter) {
    PropertyTable::registerProperty("QVTSyncEventTransformer", key,
                                    [setter](Object& self, const Value& value) {
                                      if (auto* t = dynamic_cast<Transformer*>(&self))
                                        setter(*t, value);
                                    });
  }

  // A flag takes the truth value of a number or a "YES"-like string; another
  // kind is logged as ignored and leaves the flag alone.
  static void registerFlag(const char* key, bool Transformer::*field) {
    registerSetter(key, [key, field](Transformer& t, const Value& value) {
      if (value.isNumber() || value.isString())
        t.*field = value.boolValue();
      else
        t.setValueForUndefinedKey(value, key);
    });
  }
  static void registerFlagSetter(const char* key, void (Transformer::*setter)(bool)) {
    registerSetter(key, [key, setter](Transformer& t, const Value& value) {
      if (value.isNumber() || value.isString())
        (t.*setter)(value.boolValue());
      else
        t.setValueForUndefinedKey(value, key);
    });
  }
  static void registerValueSetter(const char* key, void (Transformer::*setter)(const Value&)) {
    registerSetter(key, [setter](Transformer& t, const Value& value) { (t.*setter)(value); });
  }
  // A date field given a date, or a string in the default text form.
  static void registerDate(const char* key, std::optional<CalendarDate> Transformer::*field) {
    registerSetter(key, [key, field](Transformer& t, const Value& value) {
      if (value.isDate() || value.isString())
        t.*field = dateFromSetting(value, key, Transformer::logDomain());
      else
        t.setValueForUndefinedKey(value, key);
    });
  }

  static void registerAll() {
    // Plain fields first, so that a setter of the same name registered
    // after them wins.
    const std::pair<const char*, bool Transformer::*> flags[] = {
        {"hasEvent", &Transformer::_hasEvent},
        {"hasTask", &Transformer::_hasTask},
        {"supportsGMTDates", &Transformer::_supportsGMTDates},
        {"supportsTZ", &Transformer::_supportsTZ},
        {"supportsTZInRecurrentEvents", &Transformer::_supportsTZInRecurrentEvents},
        {"supportsTZInRegularEvents", &Transformer::_supportsTZInRegularEvents},
        {"supportsTZInTodo", &Transformer::_supportsTZInTodo},
        {"setDefaultClass", &Transformer::_setDefaultClass},
        {"setDefaultStatus", &Transformer::_setDefaultStatus},
        {"hasAllDayEvents", &Transformer::_hasAllDayEvents},
        {"hasAllDayFromMidnightTo235900", &Transformer::_hasAllDayFromMidnightTo235900},
        {"hasAllDayMultiDay", &Transformer::_hasAllDayMultiDay},
        {"needsEndDateAtMidnight00", &Transformer::_needsEndDateAtMidnight00},
        {"hasFakeAllDay", &Transformer::_hasFakeAllDay},
        {"allDayInLocalDateTime", &Transformer::_allDayInLocalDateTime},
        {"allDayAlarmAtMidnight", &Transformer::_allDayAlarmAtMidnight},
        {"allDayHaveNoLocation", &Transformer::_allDayHaveNoLocation},
        {"hasVCalRecurrence", &Transformer::_hasVCalRecurrence},
        {"hasSymbianRecurrence", &Transformer::_hasSymbianRecurrence},
        {"handleAllDayRecurrent", &Transformer::_handleAllDayRecurrent},
        {"handleMultiDayRecurrent", &Transformer::_handleMultiDayRecurrent},
        {"hasFullRecurrence", &Transformer::_hasFullRecurrence},
        {"needsToFormatCountToUntilDate", &Transformer::_needsToFormatCountToUntilDate},
        {"needsToFormatUntilDateToCount", &Transformer::_needsToFormatUntilDateToCount},
        {"hasDetachEvents", &Transformer::_hasDetachEvents},
        {"needsToFormatUntilDateToLastOccurrence",
         &Transformer::_needsToFormatUntilDateToLastOccurrence},
        {"hasOneAlarm", &Transformer::_hasOneAlarm},
        {"hasOneAlarmType", &Transformer::_hasOneAlarmType},
        {"alarmTypeIsDisplay", &Transformer::_alarmTypeIsDisplay},
        {"hasOnlyRelativeAlarm", &Transformer::_hasOnlyRelativeAlarm},
        {"hasOnlyAbsoluteAlarms", &Transformer::_hasOnlyAbsoluteAlarms},
        {"doNotSyncAlarmIfAfterStartDateTime", &Transformer::_doNotSyncAlarmIfAfterStartDateTime},
        {"doNotSyncAlarmIfSameDayAsADE", &Transformer::_doNotSyncAlarmIfSameDayAsADE},
        {"syncAlarmOnlyIfSameDayAsADEStartDate",
         &Transformer::_syncAlarmOnlyIfSameDayAsADEStartDate},
        {"doNotSyncAlarmIfSameDayAsDueDate", &Transformer::_doNotSyncAlarmIfSameDayAsDueDate},
        {"doNotSyncAlarmIfCompleted", &Transformer::_doNotSyncAlarmIfCompleted},
        {"doNotSyncAlarmForTask", &Transformer::_doNotSyncAlarmForTask},
        {"doNotSyncAlarmForADE", &Transformer::_doNotSyncAlarmForADE},
        {"setAllDayTimeWithAlarmTime", &Transformer::_setAllDayTimeWithAlarmTime},
        {"tasksNeedsDate", &Transformer::_tasksNeedsDate},
        {"exDatesAreDateOnly", &Transformer::_exDatesAreDateOnly},
        {"untilDateIsDateOnly", &Transformer::_untilDateIsDateOnly},
        {"dueDateIsDateOnly", &Transformer::_dueDateIsDateOnly},
        {"completionDateIsDateOnly", &Transformer::_completionDateIsDateOnly},
        {"setDueDateToCompletionDateIfCompleted",
         &Transformer::_setDueDateToCompletionDateIfCompleted},
        {"statusDeducedFromCompletionDate", &Transformer::_statusDeducedFromCompletionDate},
        {"motorolaLegacyCompatibility", &Transformer::_motorolaLegacyCompatibility},
    };
    for (const auto& [key, field] : flags) registerFlag(key, field);
    registerDate("untilDateValueWhenMissing", &Transformer::_untilDateValueWhenMissing);
    registerDate("dueDateValueWhenMissing", &Transformer::_dueDateValueWhenMissing);
    registerDate("dontSyncEventBeforeDate", &Transformer::_dontSyncEventBeforeDate);

    // The setters.
    registerFlagSetter("onlyEvents", &Transformer::setOnlyEvents);
    registerFlagSetter("onlyTasks", &Transformer::setOnlyTasks);
    registerFlagSetter("hasTimeZone", &Transformer::setHasTimeZone);
    registerFlagSetter("untilDateIsDateOnlyForEvents",
                       &Transformer::setUntilDateIsDateOnlyForEvents);
    registerValueSetter("treatEventsTimeAs", &Transformer::setTreatEventsTimeAs);
    registerValueSetter("defaultUntilDateWhenMissing",
                        &Transformer::setDefaultUntilDateWhenMissing);
    registerValueSetter("defaultDueDateWhenMissing", &Transformer::setDefaultDueDateWhenMissing);
    registerValueSetter("dontSyncEventBeforeDate", &Transformer::setDontSyncEventBeforeDate);
    registerValueSetter("defaultPriority", &Transformer::setDefaultPriority);
    registerValueSetter("maxMinutesNbDeltaForAlarm", &Transformer::setMaxMinutesNbDeltaForAlarm);
    registerValueSetter("allowedAlarmRelativeValues", &Transformer::setAllowedAlarmRelativeValues);
    registerValueSetter("countValueWhenMissing", &Transformer::setCountValueWhenMissing);
  }
};

PC_REGISTRATION(QVTSyncEventTransformerProperties::registerAll());

// --- QVTTimeZoneProperty ---------------------------------------------------------------

std::string QVTTimeZoneProperty::description() const { return zoneDescription(_zone); }

Value QVTTimeZoneProperty::valueWithTimeZone(const TimeZonePtr& zone) {
  if (!zone) return Value();
  return Value(std::make_shared<QVTTimeZoneProperty>(zone));
}

TimeZonePtr QVTTimeZoneProperty::timeZoneFromValue(const Value& value) {
  if (auto property = value.objectAs<QVTTimeZoneProperty>()) return property->timeZone();
  if (const std::string* name = value.asString()) return TimeZone::timeZoneWithName(*name);
  return nullptr;
}

// --- Configuration ------------------------------------------------------------------------

QVTSyncEventTransformer::QVTSyncEventTransformer() = default;
QVTSyncEventTransformer::~QVTSyncEventTransformer() = default;

const std::string& QVTSyncEventTransformer::logDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncEventTransformer"));
  return domain;
}

void QVTSyncEventTransformer::initWithProperties(const Dictionary& properties) {
  QVTSyncDataClassHelper::initWithProperties(Dictionary());

  _hasOneAlarm = true;
  _hasOneAlarmType = true;
  _hasAllDayEvents = true;
  _hasAllDayMultiDay = true;
  _exDatesAreDateOnly = true;
  _hasOnlyAbsoluteAlarms = true;
  _untilDateIsDateOnly = true;
  _dueDateIsDateOnly = true;
  _handleAllDayRecurrent = true;
  _handleMultiDayRecurrent = true;
  _needsToFormatUntilDateToLastOccurrence = true;
  _supportsTZInRecurrentEvents = true;
  _supportsTZInRegularEvents = true;
  _supportsTZInTodo = true;
  _alarmTypeIsDisplay = false;

  if (!properties.empty()) {
    QVT_LOG(kLogInfo, logDomain(), "called setValues {}", properties);
    for (const auto& [key, value] : properties) setValueForKey(value, key.stringValue());
  }

  if (_hasAllDayFromMidnightTo235900) _hasAllDayEvents = true;
  if (!_hasTask && !_hasEvent) {
    _hasTask = true;
    _hasEvent = true;
  }
  if (!_supportsTZ) {
    _supportsTZInRecurrentEvents = false;
    _supportsTZInRegularEvents = false;
    _supportsTZInTodo = false;
  }
}

void QVTSyncEventTransformer::setDataClassManager(DataClassManager* manager) {
  QVTSyncDataClassHelper::setDataClassManager(manager);
  _calendarManager = manager;
  bool motorola = false;
  if (QVTSyncManager* sync = syncManagerOf(manager)) {
    const Object* transport = sync->syncTransport();
    motorola = transport && ClassRegistry::hasClass(kMotorolaTransportClassName) &&
               ClassRegistry::isSubclassOf(transport->className(), kMotorolaTransportClassName);
  }
  _setMotorolaLegacyCompatibility(motorola);
}

void QVTSyncEventTransformer::setOnlyEvents(bool onlyEvents) {
  _hasEvent = true;
  _hasTask = !onlyEvents;
}

void QVTSyncEventTransformer::setOnlyTasks(bool onlyTasks) {
  _hasEvent = !onlyTasks;
  if (onlyTasks) _hasTask = true;
}

void QVTSyncEventTransformer::setTreatEventsTimeAs(const Value& value) {
  const std::string* text = value.asString();
  if (text && *text == "GMT") {
    _supportsGMTDates = true;
  } else if (text && *text == "LocalTime") {
    _supportsGMTDates = false;
  } else {
    QVT_LOG(kLogError, logDomain(), "bad settings for treatEventsTimeAs: {}", value);
  }
}

void QVTSyncEventTransformer::setDefaultUntilDateWhenMissing(const Value& string) {
  _untilDateValueWhenMissing = dateFromSetting(string, "defaultUntilDateWhenMissing", logDomain());
}

void QVTSyncEventTransformer::setDefaultDueDateWhenMissing(const Value& string) {
  _dueDateValueWhenMissing = dateFromSetting(string, "defaultDueDateWhenMissing", logDomain());
}

void QVTSyncEventTransformer::setDontSyncEventBeforeDate(const Value& string) {
  _dontSyncEventBeforeDate = dateFromSetting(string, "dontSyncEventBeforeDate", logDomain());
}

void QVTSyncEventTransformer::setDefaultPriority(const Value& number) {
  if (number.isNumber())
    _defaultPriority = number;
  else
    setValueForUndefinedKey(number, "defaultPriority");
}

void QVTSyncEventTransformer::setMaxMinutesNbDeltaForAlarm(const Value& number) {
  if (number.isNumber())
    _maxMinutesNbDeltaForAlarm = number;
  else
    setValueForUndefinedKey(number, "maxMinutesNbDeltaForAlarm");
}

void QVTSyncEventTransformer::setAllowedAlarmRelativeValues(const Value& array) {
  if (array.isArray())
    _allowedAlarmRelativeValues = array.deepCopy();
  else
    setValueForUndefinedKey(array, "allowedAlarmRelativeValues");
}

void QVTSyncEventTransformer::setCountValueWhenMissing(const Value& number) {
  if (number.isNumber())
    _countValueWhenMissing = number;
  else
    setValueForUndefinedKey(number, "countValueWhenMissing");
}

bool QVTSyncEventTransformer::supportsTZForRecord(const Dictionary& record) const {
  if (!_supportsTZ || CalendarUtilities::isAllDayEvent(record)) return false;
  if (CalendarUtilities::isRecurrent(record)) {
    if (!_supportsTZInRecurrentEvents) return false;
  } else if (!_supportsTZInRegularEvents) {
    return false;
  }
  return _supportsTZInTodo || entityOf(record) != kCalendarsTask;
}

// --- Mangling ---------------------------------------------------------------------------------

namespace {

// Whether the time-zone stage leaves the dates as they are: the record keeps
// its zone on a phone of instants, and is not an all-day event the phone
// wants in local time.
bool datesKeepTheirZone(const QVTSyncEventTransformer& transformer, const Dictionary& record) {
  return transformer.supportsTZForRecord(record) && transformer.supportsGMTDates() &&
         !(transformer.allDayInLocalDateTime() && CalendarUtilities::isAllDayEvent(record));
}

// The event's own zone: for an all-day event that of its first alarm's
// trigger date, else that of the engine's start date (logged when missing).
TimeZonePtr eventTimeZoneOf(const Dictionary& original, const Dictionary& record, bool allDay,
                            const std::string& domain) {
  if (allDay) {
    if (auto alarm = CalendarUtilities::getFirstAlarm(record))
      if (auto trigger = dateEntry(*alarm, kCalendarsAudioAlarmTriggerdate))
        return trigger->timeZone();
  }
  const Value* start = original.find(kCalendarsEventStartDate);
  if (!start) {
    QVT_LOG(kLogWarning, domain, "What, event or todo with no start date:\n{}", original);
    return nullptr;
  }
  const CalendarDate* date = start->asDate();
  if (!date || !date->timeZone()) {
    QVT_LOG(kLogError, domain, "Startdate with no timezone: {}", *start);
    return nullptr;
  }
  return date->timeZone();
}

}  // namespace

void QVTSyncEventTransformer::mangleRecordBeforePushingToDevice(RecordHolder& holder) {
  const Dictionary original = holder.originalRecord();
  Dictionary record = holder.mutableDictionary();
  const TimeZonePtr phoneZone = phoneZoneOf(_calendarManager);
  const bool allDay = CalendarUtilities::isAllDayEvent(record);
  const bool originalAllDay = CalendarUtilities::isAllDayEvent(original);

  QVT_LOG(kLogInfo, logDomain(), "Mangling: {}", record);

  const std::string entity = entityOf(record);
  const bool isEvent = entity == kCalendarsEvent;
  if (!isEvent && entity != kCalendarsTask)
    QVT_LOG(kLogError, "QVT", "strange not event nor todo: {}", record);

  const TimeZonePtr eventZone = eventTimeZoneOf(original, record, allDay, logDomain());
  if (eventZone)
    holder.setProperty(QVTTimeZoneProperty::valueWithTimeZone(eventZone), kTimeZoneProperty);
  QVT_LOG(kLogInfo, logDomain(), "Event TimeZone = {}\nphone time zone = {}",
          zoneDescription(eventZone), zoneDescription(phoneZone));

  QVTSyncManager* sync = syncManagerOf(_calendarManager);
  CalendarsList* calendars = sync ? sync->calendarsList() : nullptr;
  std::string calendarIdentifier;
  std::optional<Dictionary> calendar =
      calendars ? calendars->calendarForRecord(original, &calendarIdentifier) : std::nullopt;
  if (calendar) {
    holder.setBooleanProperty(CalendarUtilities::isCalendarReadOnly(*calendar), kReadOnlyProperty);
    holder.setProperty(Value(calendarIdentifier), kHomeCalendarProperty);
  } else {
    QVT_LOG(kLogWarning, logDomain(), "orphan event?");
  }

  DeviceParserPtr parser;
  if (isEvent && _calendarManager) {
    if (DeviceManager* devices = _calendarManager->deviceManager())
      parser = devices->parserForDataClass(_calendarManager->deviceDataClass());
  }

  bool convertAllDayToDateTime = false;
  auto* vcalParser = dynamic_cast<VCalParserExternal*>(parser.get());
  if (allDay && vcalParser) {
    holder.setBooleanProperty(!vcalParser->supportsADE(), kNoModifyProperty);
  } else if (!allDay && originalAllDay) {
    convertAllDayToDateTime = true;
    holder.setBooleanProperty(true, kNoModifyProperty);
  }

  _mangleAlarms(holder);

  if (!_hasDetachEvents) {
    record.remove(kCalendarsEventOriginalDate);
    record.remove(kCalendarsEventMainEvent);
  }

  _mangleCompletionDate(holder);
  _mangleRecurrenceBeforeTimeZoneMangling(holder, convertAllDayToDateTime);

  // The stages above may have given the holder another record.
  record = holder.mutableDictionary();
  const bool writtenInPhoneZone = !isFloating(eventZone) && !datesKeepTheirZone(*this, record);
  _mangleTimeZone(record, eventZone);
  if (writtenInPhoneZone)
    holder.setProperty(QVTTimeZoneProperty::valueWithTimeZone(phoneTimeZoneForFormatting()),
                       kReadBackTimeZoneProperty);

  _mangleRecurrenceAfterTimeZoneMangling(holder);

  QVT_LOG(kLogInfo, logDomain(), "Mangled: {}", holder.mutableDictionary());
}

void QVTSyncEventTransformer::_mangleCompletionDate(RecordHolder& holder) {
  Dictionary record = holder.mutableDictionary();
  if (const Value* completion = record.find(kCalendarsTaskCompletionDate))
    holder.setProperty(*completion, kCalendarsTaskCompletionDate);
  if (_statusDeducedFromCompletionDate) record.remove(kCalendarsTaskStatus);
}

void QVTSyncEventTransformer::_mangleTimeZone(Dictionary& record,
                                              const TimeZonePtr& eventTimeZone) {
  const TimeZonePtr phoneZone = phoneTimeZoneForFormatting();
  auto convert = [&](const TimeZonePtr& to, const TimeZonePtr& from) {
    CalendarUtilities::convertDatesInTimeZone(record, to, from, _completionDateIsDateOnly,
                                              _untilDateIsDateOnly, _exDatesAreDateOnly);
  };

  if (isFloating(eventTimeZone)) {
    QVT_LOG(kLogInfo, logDomain(), "This is a Floating event. TZ: <{}>",
            zoneDescription(eventTimeZone));
    convert(phoneZone, nullptr);
    return;
  }
  if (datesKeepTheirZone(*this, record)) return;

  // The phone keeps wall-clock times: the dates become readings of the
  // phone's zone (same instants), and on a legacy phone those readings are
  // labelled GMT.
  convert(nullptr, phoneZone);
  if (_motorolaLegacyCompatibility) convert(TimeZone::gmt(), nullptr);
}

// --- Unmangling ------------------------------------------------------------------------------

void QVTSyncEventTransformer::unmangleRecordAfterReadingFromDevice(RecordHolder& holder) {
  QVT_LOG(kLogInfo, logDomain(), "Unmangling: {}", holder.mutableDictionary());

  const TimeZonePtr propertyZone =
      QVTTimeZoneProperty::timeZoneFromValue(holder.propertyForKey(kTimeZoneProperty));
  const TimeZonePtr eventZone = CalendarUtilities::isAllDayEvent(holder.mutableDictionary())
                                    ? TimeZone::timeZoneWithName("GMT")
                                    : propertyZone;
  const TimeZonePtr phoneZone = phoneZoneOf(_calendarManager);

  _unmangleRecurrenceBeforeTimeZoneUnMangling(holder, eventZone);
  _unmangleTimeZone(holder, eventZone, phoneZone);
  _unmangleRecurrenceAfterTimeZoneUnMangling(holder, eventZone);

  const std::string entity = entityOf(holder.mutableDictionary());
  if (entity == kCalendarsEvent) {
    _unmangleAllDay(holder, phoneZone);
  } else {
    if (entity != kCalendarsTask)
      QVT_LOG(kLogError, "QVT", "strange not event nor todo: {}", holder.mutableDictionary());
    _unmangleTask(holder);
  }

  _unmangleAlarms(holder, propertyZone, phoneZone);

  QVT_LOG(kLogInfo, logDomain(), "Unmangled: {}", holder.mutableDictionary());
}

void QVTSyncEventTransformer::_unmangleTimeZone(RecordHolder& holder,
                                                const TimeZonePtr& eventTimeZone,
                                                const TimeZonePtr& phoneTimeZone) {
  Dictionary record = holder.mutableDictionary();
  auto convert = [&](const TimeZonePtr& to, const TimeZonePtr& from) {
    CalendarUtilities::convertDatesInTimeZone(record, to, from, _completionDateIsDateOnly,
                                              _untilDateIsDateOnly, _exDatesAreDateOnly);
  };

  const bool floating = isFloating(eventTimeZone);
  if (floating)
    QVT_LOG(kLogInfo, logDomain(), "We know this is a Floating event. TZ: <{}>",
            zoneDescription(eventTimeZone));

  TimeZonePtr readBackZone =
      QVTTimeZoneProperty::timeZoneFromValue(holder.propertyForKey(kReadBackTimeZoneProperty));
  if (!readBackZone) readBackZone = phoneTimeZone;

  if (datesKeepTheirZone(*this, record)) {
    convert(floating ? eventTimeZone : nullptr, readBackZone);
    return;
  }
  if (floating) {
    convert(TimeZone::localTimeZone(), nullptr);
    return;
  }
  // The phone's wall-clock times become instants of the zone they were
  // written in; the event then regains its own zone.
  convert(readBackZone, nullptr);
  if (eventTimeZone) convert(nullptr, eventTimeZone);
}

void QVTSyncEventTransformer::_unmangleAllDay(RecordHolder& holder, const TimeZonePtr& phoneZone) {
  if (_hasAllDayEvents && _hasAllDayMultiDay) return;
  if (!_hasFakeAllDay || !holder.propertyForKey(kIsAllDayEventProperty).isNull()) return;

  Dictionary record = holder.mutableDictionary();
  std::optional<CalendarDate> start = dateEntry(record, kCalendarsEventStartDate);
  std::optional<CalendarDate> end = dateEntry(record, kCalendarsEventEndDate);
  if (!start || !end) QVT_LOG(kLogError, "QVT", "bad event");
  // The phone wrote 00:00 and 23:59 on its own clock; the dates were re-zoned
  // since, so they are read on the phone's clock again (same instants).
  if (phoneZone) {
    if (start) start = start->dateWithTimeZone(phoneZone);
    if (end) end = end->dateWithTimeZone(phoneZone);
  }

  const bool startsAtMidnight = start && start->hourOfDay() == 0 && start->minuteOfHour() == 0 &&
                                start->secondOfMinute() == 0;
  const bool endsAt2359 = end && end->hourOfDay() == 23 && end->minuteOfHour() == 59;
  if (!startsAtMidnight || !endsAt2359) return;
  QVT_LOG(kLogInfo, logDomain(), "It looks like we match an all day event...");

  record.set(kCalendarsEventAllDay, true);
  if (start)
    record.set(kCalendarsEventStartDate,
               CalendarExtension::allDayDateWithYear(start->yearOfCommonEra(), start->monthOfYear(),
                                                     start->dayOfMonth()));
  else
    QVT_LOG(kLogError, logDomain(), "event with no start date");
  if (end)
    record.set(kCalendarsEventEndDate,
               CalendarExtension::allDayDateWithYear(end->yearOfCommonEra(), end->monthOfYear(),
                                                     end->dayOfMonth() + 1));
  else
    QVT_LOG(kLogError, logDomain(), "event with no end date");
}

// --- Formatting hooks ---------------------------------------------------------------------------

std::optional<Dictionary> QVTSyncEventTransformer::formatRecord(const Dictionary& record) {
  const std::string entity = entityOf(record);
  if (entity == kCalendarsEvent) return formatEventRecord(record);
  if (entity == kCalendarsTask) return formatTaskRecord(record);
  if (entity == kCalendarsDisplayAlarm || entity == kCalendarsAudioAlarm)
    return formatDisplayAndAudioAlarm(record);
  if (entity == kCalendarsRecurrence) return formatRecurrence(record);
  return record;
}

std::optional<Dictionary> QVTSyncEventTransformer::formatEventRecord(Dictionary record) {
  if (_setDefaultClass && !record.contains(kCalendarsEventClassification))
    record.set(kCalendarsEventClassification, "public");
  if (_setDefaultStatus) {
    const Value* status = record.find(kCalendarsEventStatus);
    if (!status || status->stringValue() == "none")
      record.set(kCalendarsEventStatus, "needsaction");
  }
  if (!_defaultPriority.isNull()) {
    const Value* priority = record.find(kCalendarsEventPriority);
    if (!priority || priority->integerIfNumeric().value_or(-1) == 0)
      record.set(kCalendarsEventPriority, _defaultPriority);
  }
  record = formatYearlyEvent(record);
  record = formatAllDayEventRecord(record);
  return formatTimedEventRecord(record);
}

Dictionary QVTSyncEventTransformer::formatAllDayEventRecord(Dictionary record) {
  if (!CalendarUtilities::isAllDayEvent(record)) return record;
  privateConvertToTimedEvent(record);
  if (_allDayHaveNoLocation) record.remove(kCalendarsEventLocation);
  return record;
}

bool QVTSyncEventTransformer::privateConvertToTimedEvent(Dictionary& record) {
  if (_hasAllDayEvents && _hasAllDayMultiDay) return false;
  if (!CalendarUtilities::isAllDayEvent(record)) return false;

  const std::optional<CalendarDate> start = dateEntry(record, kCalendarsEventStartDate);
  const std::optional<CalendarDate> end = dateEntry(record, kCalendarsEventEndDate);
  const bool multiDay =
      start && end &&
      end->timeIntervalSinceReferenceDate() - start->timeIntervalSinceReferenceDate() >= kTwoDays;
  if (_hasAllDayEvents && !multiDay) return false;

  const TimeZonePtr zone = phoneTimeZoneForFormatting();
  record.set(kCalendarsEventAllDay, false);
  if (start)
    record.set(kCalendarsEventStartDate,
               CalendarExtension::convertToMidnightInTimeZone(*start, zone));
  if (end) {
    if (_needsEndDateAtMidnight00)
      record.set(kCalendarsEventEndDate,
                 CalendarExtension::convertToMidnightInTimeZone(*end, zone));
    else
      record.set(kCalendarsEventEndDate,
                 CalendarDate::dateWithYear(end->yearOfCommonEra(), end->monthOfYear(),
                                            end->dayOfMonth() - 1, 23, 59, 0, zone));
  }
  if (auto exDates = record.getArray(kCalendarsEventExceptionDates)) {
    Array converted;
    for (const Value& exDate : *exDates) {
      const CalendarDate* date = exDate.asDate();
      converted.add(date ? Value(CalendarExtension::convertToMidnightInTimeZone(*date, zone))
                         : exDate);
    }
    record.set(kCalendarsEventExceptionDates, converted);
  }
  return true;
}

Dictionary QVTSyncEventTransformer::formatTimedEventRecord(Dictionary record) {
  if (CalendarUtilities::isAllDayEvent(record)) return record;
  for (const char* key : {kCalendarsEventStartDate, kCalendarsEventEndDate}) {
    const std::optional<CalendarDate> date = dateEntry(record, key);
    if (!date) continue;
    // Whole seconds read in the date's zone, plus any fraction of a second.
    const double t = date->timeIntervalSinceReferenceDate();
    const double extra = date->secondOfMinute() + (t - std::floor(t));
    if (extra != 0) record.set(key, date->dateByAddingTimeInterval(-extra));
  }
  return record;
}

void QVTSyncEventTransformer::formatAssembledRecord(Dictionary& record) {
  if (!_hasOneAlarm) return;
  bool keptAudio = false;
  if (auto audio = record.getArray(kCalendarsEventAudioAlarms); audio && !audio->empty()) {
    record.set(kCalendarsEventAudioAlarms, Array{audio->first()});
    keptAudio = true;
  }
  if (keptAudio) {
    record.remove(kCalendarsEventDisplayAlarms);
  } else if (auto display = record.getArray(kCalendarsEventDisplayAlarms);
             display && display->count() > 1) {
    record.set(kCalendarsEventDisplayAlarms, Array{display->first()});
  }
}

// --- Entities and the record assembler ----------------------------------------------------------

Array QVTSyncEventTransformer::allPossibleEntities() {
  Array entities{kCalendarsRecurrence,   kCalendarsAudioAlarm, kCalendarsMailAlarm,
                 kCalendarsDisplayAlarm, kCalendarsOrganizer,  kCalendarsAttendee};
  if (_hasEvent) entities.add(kCalendarsEvent);
  if (_hasTask) entities.add(kCalendarsTask);
  return entities;
}

namespace {
// Events answer with their own relations; any other master is answered as a
// task, reported when it is not one.
bool isEventMaster(const std::string& masterEntity) {
  if (masterEntity == kCalendarsEvent) return true;
  QVT_CHECK(masterEntity == kCalendarsTask);
  return false;
}
}  // namespace

Array QVTSyncEventTransformer::masterRelationKeysForMasterEntity(const std::string& masterEntity) {
  if (isEventMaster(masterEntity))
    return Array{kCalendarsEventRecurrences, kCalendarsEventAudioAlarms,
                 kCalendarsEventDisplayAlarms};
  return Array{kCalendarsTaskRecurrences, kCalendarsTaskAudioAlarms, kCalendarsTaskDisplayAlarms};
}

Dictionary QVTSyncEventTransformer::relationKeysToSubEntitiesForMasterEntity(
    const std::string& masterEntity) {
  if (isEventMaster(masterEntity))
    return Dictionary{{kCalendarsEventRecurrences, kCalendarsRecurrence},
                      {kCalendarsEventAudioAlarms, kCalendarsAudioAlarm},
                      {kCalendarsEventDisplayAlarms, kCalendarsDisplayAlarm}};
  return Dictionary{{kCalendarsTaskRecurrences, kCalendarsRecurrence},
                    {kCalendarsTaskAudioAlarms, kCalendarsAudioAlarm},
                    {kCalendarsTaskDisplayAlarms, kCalendarsDisplayAlarm}};
}

namespace {

// Sub-entity -> the relation by which its records point back to their event or task.
constexpr std::pair<const char*, const char*> kBackRelations[] = {
    {kCalendarsRecurrence, kCalendarsRecurrenceOwner},
    {kCalendarsAudioAlarm, kCalendarsAudioAlarmOwner},
    {kCalendarsDisplayAlarm, kCalendarsDisplayAlarmOwner},
};

}  // namespace

Dictionary QVTSyncEventTransformer::entityToBackRelationShipForMasterEntity(const std::string&) {
  Dictionary back;
  for (const auto& [entity, relation] : kBackRelations) back.set(entity, relation);
  return back;
}

std::string QVTSyncEventTransformer::backRelationOfEntity(const std::string& entity,
                                                          const std::string&) {
  for (const auto& [sub, relation] : kBackRelations)
    if (entity == sub) return relation;
  return std::string();
}

Array QVTSyncEventTransformer::extraKeysForMasterEntity(const std::string& masterEntity) {
  if (isEventMaster(masterEntity))
    return Array{kCalendarsEventCalendar, kCalendarsEventMainEvent, kCalendarsEventDetachedEvents,
                 kCalendarsEventOriginalDate};
  return Array{kCalendarsTaskStartDate, kCalendarsTaskCalendar};
}

}  // namespace pc
