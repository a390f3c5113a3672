#pragma once
// The sync engine as the conduit sees it: its schema (SyncEngineManager), the
// per-phone client with its value store (SyncEngineClient), the truth it keeps
// (TruthSnapshot) and the plug-in interface of engine-side record formatting
// (EngineRecordFormatting). Records are dictionaries whose entity name is held
// under kEngineRecordEntityNameKey; relationships hold arrays of identifiers.
//
// Containers cross these interfaces as copies: a store keeps its own deep copy
// of what it is given and answers deep copies of what it keeps, so editing a
// value after storing it, or one that was read back, never changes the store.

#include <memory>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace pc {

// The engine's schema: which entities a data class has, and the attribute and
// relationship names of each entity. An unknown name answers an empty array.
class SyncEngineManager {
 public:
  virtual ~SyncEngineManager() = default;

  virtual Array dataClassNames() const = 0;
  virtual Array entityNamesForDataClassName(const std::string& dataClassName) const = 0;
  virtual Array attributeNamesForEntityName(const std::string& entityName) const = 0;
  virtual Array relationshipNamesForEntityName(const std::string& entityName) const = 0;
  // The data class an entity belongs to; nullopt for an unknown entity.
  virtual std::optional<std::string> dataClassNameForEntityName(
      const std::string& entityName) const = 0;

  // The process's engine. Unless one was installed, the in-memory engine
  // with the schema shipped in the data folder (see MemoryEngine.h).
  static std::shared_ptr<SyncEngineManager> sharedManager();
  // Installs `manager` for the process; nullptr goes back to the default.
  static void setSharedManager(std::shared_ptr<SyncEngineManager> manager);
};

// One client of the engine (one phone): a persistent key-value store, the
// entities it supports and those currently enabled for synchronisation.
class SyncEngineClient {
 public:
  virtual ~SyncEngineClient() = default;

  virtual std::string clientIdentifier() const = 0;
  virtual std::string displayName() const = 0;

  // Null when the key holds nothing; a container is the caller's own copy.
  virtual Value objectForKey(const std::string& key) const = 0;
  // Stores a deep copy of `value`; storing null removes the key.
  virtual void setObject(const Value& value, const std::string& key) = 0;

  virtual Array supportedEntityNames() const = 0;
  virtual Array enabledEntityNames() const = 0;
  // Enables or disables the given entities (only supported ones take part).
  virtual void setEnabled(bool enabled, const Array& entityNames) = 0;
};

// The records of the engine's truth at one moment.
class TruthSnapshot {
 public:
  virtual ~TruthSnapshot() = default;

  // Identifier -> record for every identifier that names a record; unknown
  // identifiers are left out. The records are the caller's own copies.
  virtual Dictionary recordsWithIdentifiers(const Array& identifiers) const = 0;
  // The identifiers the relationship of the source record points at; empty
  // when the record or the relationship is unknown.
  virtual Array targetIdentifiersForRelationshipName(const std::string& relationshipName,
                                                     const std::string& sourceIdentifier) const = 0;
};

// The plug-in through which the engine formats records as a client would hold
// them after a round trip to its device.
class EngineRecordFormatting {
 public:
  virtual ~EngineRecordFormatting() = default;

  // The formatted copy of `record`, or nullopt when the client would reject it.
  virtual std::optional<Dictionary> formattedRecordForRecord(const Dictionary& record,
                                                            const std::string& identifier) = 0;
  virtual Array supportedEntityNames() const = 0;
};

}  // namespace pc
