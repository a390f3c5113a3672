#pragma once
// The values the conduit keeps in a phone's sync-engine client: typed reads
// and writes (an absent key stores its default on read), which data classes
// are enabled, the client's time zone, and the engine's default values of
// attributes that a phone may leave out.

#include <string>

#include "engine/SyncEngine.h"
#include "platform/TimeZone.h"
#include "platform/Value.h"

namespace pc {

// The client key holding the name of the phone's time zone.
inline constexpr const char* kCurrentTimeZoneKey = "CurrentTimeZone";

namespace SyncClientState {

void setBool(SyncEngineClient& client, bool value, const std::string& key);
void setInt(SyncEngineClient& client, int value, const std::string& key);
bool boolForKey(SyncEngineClient& client, const std::string& key, bool defaultVal);
int intForKey(SyncEngineClient& client, const std::string& key, int defaultVal);
Value valueForKey(SyncEngineClient& client, const std::string& key, const Value& defaultVal);

// Enables or disables the client's supported entities of the data class.
void setEnabled(SyncEngineClient& client, bool enabled, const std::string& dataClass);
// True when at least one enabled entity of the client belongs to the data class.
bool isEnabledForDataClass(const SyncEngineClient& client, const std::string& dataClass);

// The zone named by "CurrentTimeZone", the system zone when no name is
// stored, nullptr (reported) when the stored name names no zone.
TimeZonePtr currentTimeZone(SyncEngineClient& client);
void setCurrentTimeZoneName(SyncEngineClient& client, const std::string& name);
// The stored name; stores the system zone's name when there is none.
std::string currentTimeZoneName(SyncEngineClient& client);

// The engine's default value of an attribute of an entity, or null when the
// table has none. Safe to call from any thread.
Value defaultValueForAttribute(const std::string& attribute, const std::string& entityName);

}  // namespace SyncClientState

}  // namespace pc
