#include "conduit/SyncClientState.h"

#include <mutex>

#include "async/Log.h"
#include "async/ConditionReport.h"
#include "conduit/StoredDefaults.h"
#include "engine/SchemaNames.h"

namespace pc {

namespace {

const std::string& clientStateLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncClientState"));
  return domain;
}

detail::DefaultingStore storeOf(SyncEngineClient& client) {
  return {[&client](const std::string& key) { return client.objectForKey(key); },
          [&client](const Value& value, const std::string& key) { client.setObject(value, key); },
          clientStateLogDomain()};
}

// The client's entities (supported or enabled, as `names` gives) that belong
// to the data class in the engine's schema.
Array entityNamesOfDataClass(const Array& names, const std::string& dataClass) {
  const Array ofDataClass =
      SyncEngineManager::sharedManager()->entityNamesForDataClassName(dataClass);
  Array result;
  for (const Value& name : names)
    if (ofDataClass.contains(name)) result.add(name);
  return result;
}

Dictionary buildDefaultValues() {
  return Dictionary{
      {kCalendarsTask, Dictionary{{kCalendarsTaskClassification, "public"},
                                  {kCalendarsTaskStatus, "none"},
                                  {kCalendarsTaskPriority, 0},
                                  {kCalendarsTaskDueDateIsDateOnly, false}}},
      {kCalendarsEvent, Dictionary{{kCalendarsEventClassification, "public"},
                                   {kCalendarsEventStatus, "none"},
                                   {kCalendarsEventPriority, 0},
                                   {kCalendarsEventAllDay, false}}},
      {kContactsIM, Dictionary{{kContactsIMService, ""}, {kContactsIMType, kContactsURLIMTypeOther}}},
      {kContactsDate, Dictionary{{kContactsDateType, "anniversary"}}},
      {kContactsRelatedName, Dictionary{{kContactsRelatedNameType, kContactsRelatedNameTypeOther}}},
      {kContactsURL, Dictionary{{kContactsURLType, kContactsURLTypeHomePage}}},
      {kContactsStreetAddress,
       Dictionary{{kContactsStreetAddressType, kContactsStreetAddressTypeOther}}},
      {kContactsEmailAddress, Dictionary{{kContactsEmailAddressType, kContactsEmailAddressTypeOther}}},
      {kContactsPhoneNumber, Dictionary{{kContactsPhoneNumberType, kContactsPhoneNumberTypeOther}}},
  };
}

// The process-wide table of default values, built on first use; built and
// read under this lock because any thread may ask.
std::mutex sDefaultValuesLock;
std::optional<Dictionary> sDefaultValues;

}  // namespace

namespace SyncClientState {

void setBool(SyncEngineClient& client, bool value, const std::string& key) {
  client.setObject(value, key);
}

void setInt(SyncEngineClient& client, int value, const std::string& key) {
  client.setObject(value, key);
}

bool boolForKey(SyncEngineClient& client, const std::string& key, bool defaultVal) {
  return detail::boolForKey(storeOf(client), key, defaultVal);
}

int intForKey(SyncEngineClient& client, const std::string& key, int defaultVal) {
  return detail::intForKey(storeOf(client), key, defaultVal);
}

Value valueForKey(SyncEngineClient& client, const std::string& key, const Value& defaultVal) {
  return detail::valueForKey(storeOf(client), key, defaultVal);
}

void setEnabled(SyncEngineClient& client, bool enabled, const std::string& dataClass) {
  const Array entityNames = entityNamesOfDataClass(client.supportedEntityNames(), dataClass);
  QVT_LOG(kLogInfo, phcFormatLogDomain(".sync.", "SYNC"), "[{} setEnable:{} forClass:{}",
          client.displayName(), enabled ? "YES" : "NO", dataClass);
  client.setEnabled(enabled, entityNames);
}

bool isEnabledForDataClass(const SyncEngineClient& client, const std::string& dataClass) {
  return !entityNamesOfDataClass(client.enabledEntityNames(), dataClass).empty();
}

TimeZonePtr currentTimeZone(SyncEngineClient& client) {
  const Value name = client.objectForKey(kCurrentTimeZoneKey);
  if (name.isNull()) return TimeZone::systemTimeZone();
  TimeZonePtr tz = name.isString() ? TimeZone::timeZoneWithName(name.string()) : nullptr;
  QVT_CHECK(tz);
  return tz;
}

void setCurrentTimeZoneName(SyncEngineClient& client, const std::string& name) {
  client.setObject(name, kCurrentTimeZoneKey);
}

std::string currentTimeZoneName(SyncEngineClient& client) {
  const Value name = client.objectForKey(kCurrentTimeZoneKey);
  if (!name.isNull()) return name.stringValue();
  const std::string systemName = TimeZone::systemTimeZone()->name();
  setCurrentTimeZoneName(client, systemName);
  return systemName;
}

Value defaultValueForAttribute(const std::string& attribute, const std::string& entityName) {
  Value value;
  {
    std::lock_guard lock(sDefaultValuesLock);
    if (!sDefaultValues) sDefaultValues = buildDefaultValues();
    QVT_CHECK(sDefaultValues);
    QVT_CHECK_NAMED(!attribute.empty(), "attribute");
    QVT_CHECK_NAMED(!entityName.empty(), "entityName");
    if (auto attributes = sDefaultValues->getDictionary(entityName))
      value = attributes->get(attribute);
  }
  if (value.isNull())
    QVT_LOG(kLogWarning, clientStateLogDomain(),
            "hum, request on a property where we did not set the default values: {} {}",
            attribute, entityName);
  else
    QVT_LOG(kLogInfo, clientStateLogDomain(), "got {} for {} in {}", value, attribute, entityName);
  return value;
}

}  // namespace SyncClientState

}  // namespace pc
