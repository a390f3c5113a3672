#pragma once
// An in-memory sync engine: a schema read from property-list files, clients
// whose value store persists to a property-list file, and a truth snapshot of
// records with identifiers and relationships. The command-line program and the
// end-to-end tests run on it.

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "engine/SyncEngine.h"
#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

// The schema of one or more data classes. Each schema file is a dictionary:
//   "DataClassName" -> "Calendars"
//   "Entities" -> array of { "Name" -> entity name,
//                            "Attributes" -> array of attribute names,
//                            "Relationships" -> { relationship name -> target entity } }
class EngineSchema : public SyncEngineManager {
 public:
  EngineSchema() = default;

  // Every "*.plist" file of `directory`, in file-name order. nullptr when the
  // folder cannot be read or a file is malformed; `error` then says which file
  // and what is wrong.
  static std::shared_ptr<EngineSchema> schemaWithContentsOfDirectory(const std::string& directory,
                                                                     std::string* error = nullptr);
  // The folder the shared schema is read from: $PC_DATA_DIR/schema when that
  // variable is set, else the data folder the program was built with.
  static std::string defaultSchemaDirectory();

  // Adds the data class described by one schema file's dictionary; false
  // (with `error`) when it is malformed, in which case nothing is added.
  bool addDataClassDescription(const Dictionary& description, std::string* error = nullptr);

  Array dataClassNames() const override;
  Array entityNamesForDataClassName(const std::string& dataClassName) const override;
  Array attributeNamesForEntityName(const std::string& entityName) const override;
  Array relationshipNamesForEntityName(const std::string& entityName) const override;
  std::optional<std::string> dataClassNameForEntityName(
      const std::string& entityName) const override;
  // The entity a relationship of `entityName` points at.
  std::optional<std::string> targetEntityForRelationship(const std::string& entityName,
                                                         const std::string& relationshipName) const;

 private:
  struct Entity {
    std::string dataClass;
    Array attributes;
    Dictionary relationships;  // name -> target entity
  };
  std::map<std::string, Array> _dataClasses;  // data class -> entity names, in file order
  std::map<std::string, Entity> _entities;
};

// A client whose values and enabled entities live in memory and, when a store
// path is given, in a property-list file rewritten after every change. A new
// client on the same path finds everything the previous one stored.
class MemorySyncEngineClient : public SyncEngineClient {
 public:
  // Reads the store when the file exists; a store that cannot be read is
  // logged and the client starts empty (the file is replaced on first write).
  MemorySyncEngineClient(std::string identifier, std::string displayName,
                         Array supportedEntityNames, std::string storePath = {});

  std::string clientIdentifier() const override { return _identifier; }
  std::string displayName() const override { return _displayName; }
  Value objectForKey(const std::string& key) const override;
  void setObject(const Value& value, const std::string& key) override;
  Array supportedEntityNames() const override { return _supported.deepCopy(); }
  Array enabledEntityNames() const override { return _enabled.deepCopy(); }
  void setEnabled(bool enabled, const Array& entityNames) override;

  const std::string& storePath() const { return _storePath; }
  // False when the last write of the store failed (the values stay in memory).
  bool lastSaveSucceeded() const { return _lastSaveSucceeded; }

 private:
  void load();
  void save();

  std::string _identifier;
  std::string _displayName;
  Array _supported;
  Array _enabled;
  Dictionary _values;
  std::string _storePath;
  bool _lastSaveSucceeded = true;
};

// Records by identifier. A record's relationships are arrays of target
// identifiers under the relationship name, as the engine's records hold them.
class MemoryTruthSnapshot : public TruthSnapshot {
 public:
  // Stores (or replaces) a deep copy of the record.
  void addRecord(const std::string& identifier, const Dictionary& record);
  // Stores the record itself: the caller hands it over and keeps no handle
  // to it or to any container inside it.
  void adoptRecord(const std::string& identifier, Dictionary record);
  void removeRecord(const std::string& identifier);
  // A deep copy of the record, which the caller may change freely.
  std::optional<Dictionary> recordWithIdentifier(const std::string& identifier) const;
  // The record's "entityName" without copying the record; empty when the
  // record is absent or names none.
  std::string entityNameOfRecord(const std::string& identifier) const;
  // Identifiers of the records of one entity, in identifier order.
  Array recordIdentifiersForEntityName(const std::string& entityName) const;
  std::size_t count() const { return _records.size(); }

  Dictionary recordsWithIdentifiers(const Array& identifiers) const override;
  Array targetIdentifiersForRelationshipName(const std::string& relationshipName,
                                             const std::string& sourceIdentifier) const override;

 private:
  std::map<std::string, Dictionary> _records;
};

// A record-formatting plug-in that the engine creates by class name for one
// client (the client names its formatter class; the phone conduit's is
// "QVTSyncFormatter").
class EngineRecordFormattingPlugIn : public Object, public EngineRecordFormatting {
 public:
  virtual void initWithClient(std::shared_ptr<SyncEngineClient> client,
                              std::shared_ptr<const TruthSnapshot> snapshot) = 0;
};

// A new plug-in of the registered class `className`, made for the client and
// the snapshot; nullptr (logged) when no such plug-in class is registered.
std::shared_ptr<EngineRecordFormatting> loadRecordFormatter(
    const std::string& className, std::shared_ptr<SyncEngineClient> client,
    std::shared_ptr<const TruthSnapshot> snapshot);

}  // namespace pc
