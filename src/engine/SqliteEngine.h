#pragma once
// The engine's truth kept in one SQLite file (WAL mode): the records of every
// data class, the clients with their value stores, the sync state of each
// phone (phone identifiers mapped to engine identifiers, the last synced form
// of each entry on both sides, the anchors) and a change counter that stamps
// every record change and deletion, so that a sync can ask what changed since
// the last one.
//
// Values are stored in a compact binary form that keeps every kind a record
// holds (dates with their zone, addresses, data), so that records come back
// as they went in. The file carries a
// schema version: an older file is migrated when it is opened, a newer one is
// refused. Writes that belong together go inside a Transaction: either all of
// them reach the file or none does.

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/SyncEngine.h"
#include "platform/Value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace pc {

// The name of the exception a failed write raises (a full disk, a file that
// went bad, an injected failure); the reason names the file.
inline constexpr const char* kSqliteStoreException = "store";

class SqliteSyncEngineClient;

// One entry of a phone as the last sync left it.
struct SyncedEntry {
  std::string engineIdentifier;
  std::string phoneIdentifier;
  std::string entityName;
  Dictionary engineForm;  // the engine's record as it was sent or merged
  Dictionary phoneForm;   // the phone's entry as it was written or read

  bool operator==(const SyncedEntry&) const = default;
};

// A record change after a given value of the change counter.
struct StoreChange {
  std::string identifier;
  std::string entityName;
  bool deleted = false;
  std::int64_t counter = 0;

  bool operator==(const StoreChange&) const = default;
};

class SqliteEngine : public TruthSnapshot, public std::enable_shared_from_this<SqliteEngine> {
 public:
  // The layout this program writes. Version 1 held records and clients only.
  static constexpr int kSchemaVersion = 2;

  // Opens the store at `path`, creating it when there is no file and
  // `create` is set. nullptr when the file is missing (and not to be
  // created), is not a store, is damaged, or was written by a newer version;
  // `error` then says so, naming the file.
  static std::shared_ptr<SqliteEngine> engineWithPath(const std::string& path,
                                                      std::string* error = nullptr,
                                                      bool create = true);
  ~SqliteEngine() override;
  SqliteEngine(const SqliteEngine&) = delete;
  SqliteEngine& operator=(const SqliteEngine&) = delete;

  const std::string& path() const { return _path; }
  int schemaVersion() const;

  // The stored form of a value, as the file holds it; raises for a value no
  // record can hold (an object). For tools and tests that write a file
  // directly.
  static std::string storedFormOfValue(const Value& value);
  // The value of a stored form; nullopt (with `error`) when it is damaged.
  static std::optional<Value> valueFromStoredForm(std::string_view bytes,
                                                  std::string* error = nullptr);

  // Reads every stored record and value and checks the file's structure.
  // Empty when all is well, else the first problem, as "file: records/ID:
  // what is wrong".
  std::string check() const;
  // The same for what an incremental sync reads at its start: the records
  // changed after `counter`, the clients' values and the anchors. (Other
  // records are checked as they are read; a damaged page fails its read.)
  std::string checkChangedSince(std::int64_t counter) const;

  // --- records --------------------------------------------------------------
  // Stores (or replaces) the record; it must name its entity. Each change
  // takes the next value of the change counter. Raises on a failed write.
  void addRecord(const std::string& identifier, const Dictionary& record);
  // Removes the record and remembers the deletion; nothing when absent.
  void removeRecord(const std::string& identifier);
  // The caller's own copy; nullopt when absent or unreadable (logged).
  std::optional<Dictionary> recordWithIdentifier(const std::string& identifier) const;
  std::string entityNameOfRecord(const std::string& identifier) const;
  // Identifiers in identifier order.
  Array recordIdentifiersForEntityName(const std::string& entityName) const;
  Array recordIdentifiersForDataClassName(const std::string& dataClassName) const;
  Array recordIdentifiers() const;
  std::size_t count() const;

  Dictionary recordsWithIdentifiers(const Array& identifiers) const override;
  Array targetIdentifiersForRelationshipName(const std::string& relationshipName,
                                             const std::string& sourceIdentifier) const override;

  // --- change counter ------------------------------------------------------
  std::int64_t changeCounter() const;
  // The last change of each record changed or deleted after `counter`, in
  // counter order.
  std::vector<StoreChange> changesSince(std::int64_t counter) const;

  // --- clients --------------------------------------------------------------
  // The client of that identifier, created when new; its values and enabled
  // entities live in this file. The supported entities are those given.
  std::shared_ptr<SqliteSyncEngineClient> clientWithIdentifier(const std::string& identifier,
                                                               const std::string& displayName,
                                                               const Array& supportedEntityNames);
  Array clientIdentifiers() const;

  // --- sync state of a phone -------------------------------------------------
  // The entries of a client, those of one data class when one is named, in
  // phone identifier order. An engine record may stand behind several phone
  // entries (the single events of an exploded event).
  std::vector<SyncedEntry> syncedEntries(const std::string& client,
                                         const std::string& dataClassName = {}) const;
  // The same without decoding the forms (each left an empty dictionary of
  // its own), for a caller that reads few of them (syncedEntryForPhoneIdentifier).
  std::vector<SyncedEntry> syncedEntriesWithoutForms(const std::string& client) const;
  // The first entry (by phone identifier) of the engine record.
  std::optional<SyncedEntry> syncedEntryForEngineIdentifier(const std::string& client,
                                                            const std::string& identifier) const;
  std::optional<SyncedEntry> syncedEntryForPhoneIdentifier(const std::string& client,
                                                           const std::string& identifier) const;
  // Stores the entry, replacing the one of the same phone identifier.
  void setSyncedEntry(const std::string& client, const SyncedEntry& entry);
  void removeSyncedEntry(const std::string& client, const std::string& phoneIdentifier);
  // Forgets the entries and anchors of a client for one data class (all when
  // none is named), as a slow sync starts over.
  void resetSyncState(const std::string& client, const std::string& dataClassName = {});
  // The anchor the last sync of the data class left; null when none.
  Value anchor(const std::string& client, const std::string& dataClassName) const;
  void setAnchor(const std::string& client, const std::string& dataClassName, const Value& anchor);

  // --- transactions ----------------------------------------------------------
  // Everything written while it lives reaches the file when it is committed,
  // and nothing does when it ends without (an exception, a return). Nests:
  // an inner one that ends without commit undoes only its own writes. The
  // store is locked for other threads while one is open.
  class Transaction {
   public:
    explicit Transaction(SqliteEngine& engine);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

   private:
    SqliteEngine& _engine;
    std::unique_lock<std::recursive_mutex> _lock;
    int _depth;
    bool _done = false;
  };

  // Called with the name of each write step before it runs ("record",
  // "delete", "entry", "anchor", "value", "commit"); a hook that throws makes
  // the step fail as a failed write would. For tests of interrupted runs.
  void setFailureHook(std::function<void(std::string_view step)> hook);

 private:
  friend class SqliteSyncEngineClient;
  class Statement;

  SqliteEngine(std::string path, sqlite3* db);
  bool prepare(std::string* error);
  bool createSchema(std::string* error);
  bool migrateFromVersion(int version, std::string* error);

  void step(std::string_view name);
  void execute(const char* sql);
  Statement statement(const char* sql) const;
  std::string checkFrom(std::optional<std::int64_t> changedAfter) const;
  // The first column of every row, as text, with `arguments` bound to ?1, ?2...
  Array textColumn(const char* selectSql, std::initializer_list<std::string_view> arguments = {}) const;
  [[noreturn]] void fail(std::string_view what) const;
  std::int64_t nextChange();

  // A value kept under a (client, key) pair: null when there is no row,
  // nullopt (with `error`) when the stored form is damaged.
  std::optional<Value> keyedValue(const char* selectSql, const std::string& client,
                                  const std::string& key, std::string* error) const;
  struct KeyedValueTable {
    const char* insertSql;  // binds client, key, stored form
    const char* deleteSql;  // binds client, key
    const char* step;       // the write step the failure hook sees
  };
  // Stores the value under (client, key), or removes the row when it is null.
  void setKeyedValue(const KeyedValueTable& table, const std::string& client,
                     const std::string& key, const Value& value, const std::string& where);
  // The entry `selectSql` (kEntryColumns, binding client and identifier) finds first.
  std::optional<SyncedEntry> syncedEntry(const char* selectSql, const std::string& client,
                                         const std::string& identifier) const;

  Value clientValue(const std::string& client, const std::string& key) const;
  void setClientValue(const std::string& client, const std::string& key, const Value& value);
  Array enabledEntities(const std::string& client) const;
  void setEnabledEntities(const std::string& client, const Array& names);

  std::string _path;
  sqlite3* _db;
  mutable std::recursive_mutex _lock;
  mutable std::unordered_map<std::string, sqlite3_stmt*> _statements;
  int _transactionDepth = 0;
  std::function<void(std::string_view)> _failureHook;
};

// A client whose values and enabled entities live in a store file. Clients of
// the same identifier share them, also across runs.
class SqliteSyncEngineClient : public SyncEngineClient {
 public:
  SqliteSyncEngineClient(std::shared_ptr<SqliteEngine> engine, std::string identifier,
                         std::string displayName, Array supportedEntityNames);

  std::string clientIdentifier() const override { return _identifier; }
  std::string displayName() const override { return _displayName; }
  Value objectForKey(const std::string& key) const override;
  void setObject(const Value& value, const std::string& key) override;
  Array supportedEntityNames() const override { return _supported.deepCopy(); }
  Array enabledEntityNames() const override;
  void setEnabled(bool enabled, const Array& entityNames) override;

 private:
  std::shared_ptr<SqliteEngine> _engine;
  std::string _identifier;
  std::string _displayName;
  Array _supported;
};

}  // namespace pc
