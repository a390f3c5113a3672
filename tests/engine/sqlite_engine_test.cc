#include "engine/SqliteEngine.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "platform/CalendarDate.h"
#include "platform/Exception.h"
#include "platform/TimeZone.h"
#include "support/TemporaryFolder.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

namespace fs = std::filesystem;

fs::path makeTemporaryFolder() { return test::makeTemporaryFolder("store"); }

std::shared_ptr<SqliteEngine> openStore(const fs::path& path) {
  std::string error;
  auto engine = SqliteEngine::engineWithPath(path.string(), &error);
  EXPECT_TRUE(engine) << error;
  return engine;
}

// Runs SQL on a file directly, as an older program or another one would.
void writeWithSqlite(const fs::path& path, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  char* message = nullptr;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message), SQLITE_OK)
      << (message ? message : "");
  sqlite3_free(message);
  sqlite3_close(db);
}

// The tables and indexes of a file, as "type name" in name order.
std::vector<std::string> schemaObjects(const fs::path& path) {
  std::vector<std::string> objects;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* select = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT type || ' ' || name FROM sqlite_master ORDER BY name",
                               -1, &select, nullptr),
            SQLITE_OK);
  while (sqlite3_step(select) == SQLITE_ROW)
    objects.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(select, 0)));
  sqlite3_finalize(select);
  sqlite3_close(db);
  return objects;
}

Dictionary contact(const std::string& firstName) {
  return Dictionary{{kEngineRecordEntityNameKey, kContactsContact}, {"firstName", firstName}};
}

// A record holding every kind a record file can hold.
Dictionary richEvent() {
  auto zone = TimeZone::timeZoneWithName("Europe/Berlin");
  return Dictionary{
      {kEngineRecordEntityNameKey, kCalendarsEvent},
      {"summary", "Réunion \"équipe\" <&> 🎉"},
      {kCalendarsEventStartDate, CalendarDate::dateWithYear(2026, 3, 29, 1, 30, 0, zone)},
      {kCalendarsEventAllDay, false},
      {"priority", 3},
      {"ratio", 0.25},
      {"url", URL("https://example.org/a?b=c")},
      {"attachment", Data::fromString(std::string("\0\x01\xff", 3))},
      {kCalendarsEventDetachedEvents, Array{"e2", "e3"}},
      {"nested", Dictionary{{"list", Array{1, "two", Dictionary{{"three", 3}}}}}},
      // A date in the zone that follows the system's.
      {"reminder", CalendarDate::dateWithYear(2026, 10, 25, 2, 30, 0, TimeZone::localTimeZone())},
  };
}

// --- the same expectations for the in-memory engine and the store ------------------

struct MemoryKind {
  std::shared_ptr<MemoryTruthSnapshot> snapshot = std::make_shared<MemoryTruthSnapshot>();
  fs::path folder = makeTemporaryFolder();
  std::shared_ptr<SyncEngineClient> client(const Array& supported) {
    return std::make_shared<MemorySyncEngineClient>("client.id", "My Phone", supported,
                                                    (folder / "client.plist").string());
  }
  static bool saved(const SyncEngineClient& client) {
    return dynamic_cast<const MemorySyncEngineClient&>(client).lastSaveSucceeded();
  }
};

struct SqliteKind {
  fs::path folder = makeTemporaryFolder();
  std::shared_ptr<SqliteEngine> snapshot = openStore(folder / "store.db");
  // A client on a store opened anew, as a later run would see it.
  std::shared_ptr<SyncEngineClient> client(const Array& supported) {
    return openStore(folder / "store.db")->clientWithIdentifier("client.id", "My Phone", supported);
  }
  // Every write reaches the file or raises.
  static bool saved(const SyncEngineClient&) { return true; }
};

template <typename Kind>
class EngineKindTest : public ::testing::Test {
 protected:
  Kind kind;
};
using EngineKinds = ::testing::Types<MemoryKind, SqliteKind>;
TYPED_TEST_SUITE(EngineKindTest, EngineKinds);

TYPED_TEST(EngineKindTest, RecordsAndRelationships) {
  auto& snapshot = *this->kind.snapshot;
  snapshot.addRecord("e1", Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent},
                                      {kCalendarsEventDetachedEvents, Array{"e2", "e3"}}});
  snapshot.addRecord("e2", Dictionary{{kEngineRecordEntityNameKey, kCalendarsEvent}});
  snapshot.addRecord("c1", contact("Alice"));

  EXPECT_EQ(snapshot.recordsWithIdentifiers(Array{"e2", "missing", 4, "c1"}).keys(),
            (Array{"e2", "c1"}));
  EXPECT_EQ(snapshot.targetIdentifiersForRelationshipName(kCalendarsEventDetachedEvents, "e1"),
            (Array{"e2", "e3"}));
  EXPECT_TRUE(snapshot.targetIdentifiersForRelationshipName(kCalendarsEventRecurrences, "e1").empty());
  EXPECT_TRUE(snapshot.targetIdentifiersForRelationshipName(kCalendarsEventDetachedEvents, "zz").empty());
  EXPECT_EQ(snapshot.recordIdentifiersForEntityName(kCalendarsEvent), (Array{"e1", "e2"}));
  EXPECT_EQ(snapshot.entityNameOfRecord("c1"), kContactsContact);
  EXPECT_EQ(snapshot.entityNameOfRecord("zz"), "");

  snapshot.addRecord("c1", contact("Bob"));
  EXPECT_EQ(snapshot.recordWithIdentifier("c1")->getString("firstName"), "Bob");
  snapshot.removeRecord("e1");
  snapshot.removeRecord("never there");
  EXPECT_FALSE(snapshot.recordWithIdentifier("e1"));
  EXPECT_EQ(snapshot.count(), 2u);
}

TYPED_TEST(EngineKindTest, RecordsAndTheirDatesComeBackWhole) {
  auto& snapshot = *this->kind.snapshot;
  const Dictionary original = richEvent();
  snapshot.addRecord("e1", original);
  const std::optional<Dictionary> stored = snapshot.recordWithIdentifier("e1");
  ASSERT_TRUE(stored);
  EXPECT_EQ(Value(*stored), Value(original)) << stored->description();
  const CalendarDate start = stored->get(kCalendarsEventStartDate).date();
  EXPECT_EQ(start.timeZone()->name(), "Europe/Berlin");
  EXPECT_EQ(start.hourOfDay(), 1);
  const CalendarDate reminder = stored->get("reminder").date();
  EXPECT_TRUE(reminder.timeZone()->isLocalTimeZoneKind());
  EXPECT_EQ(reminder.timeIntervalSince1970(),
            original.get("reminder").date().timeIntervalSince1970());
}

TYPED_TEST(EngineKindTest, StoredAndReturnedRecordsAreCopies) {
  auto& snapshot = *this->kind.snapshot;
  Dictionary record = richEvent();
  snapshot.addRecord("e1", record);
  record.set("summary", "changed after storing");
  record.getDictionary("nested")->set("list", Array());

  Dictionary read = *snapshot.recordWithIdentifier("e1");
  read.set("summary", "changed after reading");
  read.getArray(kCalendarsEventDetachedEvents)->add("e9");

  EXPECT_EQ(Value(*snapshot.recordWithIdentifier("e1")), Value(richEvent()));
}

TYPED_TEST(EngineKindTest, ClientValuesAndEnabledEntitiesSurviveARestart) {
  const Array supported{kContactsContact, kContactsPhoneNumber, kCalendarsEvent};
  {
    auto client = this->kind.client(supported);
    client->setObject(Dictionary{{"SyncDataClasses", Dictionary()}}, "description");
    client->setObject(3, "count");
    client->setObject("gone", "removed");
    client->setObject(Value(), "removed");
    client->setEnabled(true, Array{kContactsContact, "Contacts.Unsupported", kCalendarsEvent});
    client->setEnabled(false, Array{kCalendarsEvent});
    Value read = client->objectForKey("description");
    read.dictionary().set("changed", true);
    EXPECT_TRUE(TypeParam::saved(*client));
  }
  auto client = this->kind.client(supported);
  EXPECT_EQ(client->objectForKey("description"),
            Value(Dictionary{{"SyncDataClasses", Dictionary()}}));
  EXPECT_EQ(client->objectForKey("count"), Value(3));
  EXPECT_TRUE(client->objectForKey("removed").isNull());
  EXPECT_TRUE(client->objectForKey("never set").isNull());
  EXPECT_EQ(client->enabledEntityNames(), Array{kContactsContact});
  EXPECT_EQ(client->supportedEntityNames(), supported);
}

// --- what only the store does ----------------------------------------------------------

class SqliteEngineTest : public ::testing::Test {
 protected:
  fs::path folder = makeTemporaryFolder();
  fs::path path = folder / "store.db";
};

TEST_F(SqliteEngineTest, RecordsOfAllDataClassesAndTheStateSurviveAReopen) {
  {
    auto store = openStore(path);
    store->addRecord("c1", contact("Alice"));
    store->addRecord("e1", richEvent());
    store->setSyncedEntry("phone", {"c1", "p1", kContactsContact, contact("Alice"),
                                    Dictionary{{"firstName", "Alice"}}});
    store->setAnchor("phone", kContacts, Dictionary{{"change", 2}, {"phone", "abc"}});
  }
  auto store = openStore(path);
  EXPECT_EQ(store->schemaVersion(), SqliteEngine::kSchemaVersion);
  EXPECT_EQ(store->recordIdentifiers(), (Array{"c1", "e1"}));
  EXPECT_EQ(store->recordIdentifiersForDataClassName(kCalendars), Array{"e1"});
  EXPECT_EQ(store->recordIdentifiersForDataClassName(kContacts), Array{"c1"});
  EXPECT_EQ(store->syncedEntryForPhoneIdentifier("phone", "p1")->engineIdentifier, "c1");
  EXPECT_EQ(store->anchor("phone", kContacts), Value(Dictionary{{"change", 2}, {"phone", "abc"}}));
  EXPECT_TRUE(store->anchor("phone", kCalendars).isNull());
  EXPECT_TRUE(store->anchor("other phone", kContacts).isNull());
  EXPECT_EQ(store->check(), "");
}

TEST_F(SqliteEngineTest, ChangesSinceACounterValue) {
  auto store = openStore(path);
  EXPECT_EQ(store->changeCounter(), 0);
  store->addRecord("a", contact("A"));
  store->addRecord("b", contact("B"));
  const std::int64_t synced = store->changeCounter();
  store->addRecord("a", contact("A2"));
  store->removeRecord("b");
  store->removeRecord("b");  // absent: no change
  store->addRecord("c", contact("C"));
  store->removeRecord("c");
  store->addRecord("c", contact("C again"));

  const std::vector<StoreChange> expected = {
      {"a", kContactsContact, false, 3},
      {"b", kContactsContact, true, 4},
      {"c", kContactsContact, false, 7},
  };
  EXPECT_EQ(store->changesSince(synced), expected);
  EXPECT_EQ(store->changesSince(store->changeCounter()), std::vector<StoreChange>());
  EXPECT_EQ(store->changesSince(0).size(), 3u);
}

TEST_F(SqliteEngineTest, SyncedEntriesAreKeyedByBothIdentifiers) {
  auto store = openStore(path);
  const Dictionary phoneForm{{"firstName", "Alice"}};
  store->setSyncedEntry("phone", {"c1", "p1", kContactsContact, contact("Alice"), phoneForm});
  store->setSyncedEntry("phone", {"e1", "p2", kCalendarsEvent, richEvent(), Dictionary()});
  store->setSyncedEntry("other", {"c1", "p1", kContactsContact, contact("Other"), phoneForm});

  // One engine record behind two phone entries (the single events of an
  // exploded event); a phone identifier maps to one engine record only.
  store->setSyncedEntry("phone", {"c1", "p9", kContactsContact, contact("Alice"), phoneForm});
  EXPECT_EQ(store->syncedEntryForEngineIdentifier("phone", "c1")->phoneIdentifier, "p1");
  store->setSyncedEntry("phone", {"c2", "p1", kContactsContact, contact("Carol"), phoneForm});
  EXPECT_EQ(store->syncedEntryForEngineIdentifier("phone", "c1")->phoneIdentifier, "p9");
  EXPECT_EQ(store->syncedEntryForPhoneIdentifier("phone", "p1")->engineIdentifier, "c2");

  const std::optional<SyncedEntry> event = store->syncedEntryForEngineIdentifier("phone", "e1");
  ASSERT_TRUE(event);
  EXPECT_EQ(Value(event->engineForm), Value(richEvent()));
  EXPECT_EQ(store->syncedEntries("phone", kContacts).size(), 2u);
  EXPECT_EQ(store->syncedEntries("phone").size(), 3u);
  EXPECT_EQ(store->syncedEntries("other").front().engineForm.getString("firstName"), "Other");

  store->setAnchor("phone", kContacts, "anchor");
  store->setAnchor("phone", kCalendars, "anchor");
  store->resetSyncState("phone", kContacts);
  EXPECT_EQ(store->syncedEntries("phone").size(), 1u);
  EXPECT_TRUE(store->anchor("phone", kContacts).isNull());
  EXPECT_FALSE(store->anchor("phone", kCalendars).isNull());
  store->removeSyncedEntry("phone", "p2");
  EXPECT_TRUE(store->syncedEntries("phone").empty());
  EXPECT_EQ(store->syncedEntries("other").size(), 1u);
}

TEST_F(SqliteEngineTest, TransactionWithoutCommitLeavesTheStoreAsItWas) {
  auto store = openStore(path);
  store->addRecord("kept", contact("Kept"));
  const std::int64_t counter = store->changeCounter();
  auto writeEverything = [&] {
    store->addRecord("kept", contact("Changed"));
    store->addRecord("new", contact("New"));
    store->setSyncedEntry("phone", {"new", "p1", kContactsContact, contact("New"), Dictionary()});
    store->setAnchor("phone", kContacts, 5);
  };
  {
    SqliteEngine::Transaction transaction(*store);
    writeEverything();
  }
  try {
    SqliteEngine::Transaction transaction(*store);
    writeEverything();
    throw std::runtime_error("interrupted");
  } catch (const std::runtime_error&) {
  }
  {
    // An inner transaction undone on its own leaves the outer one's writes.
    SqliteEngine::Transaction outer(*store);
    store->addRecord("outer", contact("Outer"));
    {
      SqliteEngine::Transaction inner(*store);
      store->addRecord("inner", contact("Inner"));
    }
    outer.commit();
  }
  auto reopened = openStore(path);
  EXPECT_EQ(reopened->recordIdentifiers(), (Array{"kept", "outer"}));
  EXPECT_EQ(reopened->recordWithIdentifier("kept")->getString("firstName"), "Kept");
  EXPECT_TRUE(reopened->syncedEntries("phone").empty());
  EXPECT_TRUE(reopened->anchor("phone", kContacts).isNull());
  EXPECT_EQ(reopened->changeCounter(), counter + 1);
}

TEST_F(SqliteEngineTest, FailureAtAnyStepUndoesTheWholeTransaction) {
  for (const char* failing : {"record", "delete", "entry", "anchor", "commit"}) {
    SCOPED_TRACE(failing);
    fs::remove(path);
    auto store = openStore(path);
    store->addRecord("a", contact("A"));
    store->setFailureHook([failing](std::string_view step) {
      if (step == failing) raiseException(kSqliteStoreException, "injected");
    });
    EXPECT_THROW(
        {
          SqliteEngine::Transaction transaction(*store);
          store->addRecord("b", contact("B"));
          store->removeRecord("a");
          store->setSyncedEntry("phone", {"b", "p", kContactsContact, contact("B"), Dictionary()});
          store->setAnchor("phone", kContacts, 1);
          transaction.commit();
        },
        Exception);
    store->setFailureHook(nullptr);
    EXPECT_EQ(store->recordIdentifiers(), Array{"a"});
    EXPECT_TRUE(store->syncedEntries("phone").empty());
    EXPECT_TRUE(store->anchor("phone", kContacts).isNull());
    EXPECT_EQ(store->changeCounter(), 1);
  }
}

TEST_F(SqliteEngineTest, RecordWithoutEntityIsRefused) {
  auto store = openStore(path);
  EXPECT_THROW(store->addRecord("x", Dictionary{{"firstName", "A"}}), Exception);
  EXPECT_EQ(store->count(), 0u);
}

TEST_F(SqliteEngineTest, FilesThatAreNotUsableStoresAreRefusedNamingTheFile) {
  struct Case {
    const char* name;
    std::function<void(const fs::path&)> make;
    const char* mention;
  };
  const std::vector<Case> cases = {
      {"text", [](const fs::path& p) { std::ofstream(p) << "BEGIN:VCARD\nEND:VCARD\n"; },
       "not a store"},
      {"foreign", [](const fs::path& p) { writeWithSqlite(p, "CREATE TABLE t(x)"); },
       "another program"},
      {"newer",
       [](const fs::path& p) {
         auto store = SqliteEngine::engineWithPath(p.string());
         store.reset();
         writeWithSqlite(p, "PRAGMA user_version = 99");
       },
       "newer version"},
      {"folder", [](const fs::path& p) { fs::create_directories(p); }, "folder"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path file = folder / c.name;
    c.make(file);
    std::string error;
    EXPECT_FALSE(SqliteEngine::engineWithPath(file.string(), &error));
    EXPECT_NE(error.find(file.string()), std::string::npos) << error;
    EXPECT_NE(error.find(c.mention), std::string::npos) << error;
  }
  std::string error;
  EXPECT_FALSE(SqliteEngine::engineWithPath((folder / "missing").string(), &error, false));
  EXPECT_FALSE(fs::exists(folder / "missing"));
}

TEST_F(SqliteEngineTest, DamagedContentsAreFoundByCheckWithTheirPlace) {
  openStore(path)->addRecord("c1", contact("Alice"));
  // A row cut short, as a bad copy would leave it.
  writeWithSqlite(path, "UPDATE records SET record = substr(record, 1, 20) WHERE identifier = 'c1'");
  auto store = openStore(path);
  const std::string problem = store->check();
  EXPECT_NE(problem.find(path.string() + ": records/c1"), std::string::npos) << problem;
  EXPECT_FALSE(store->recordWithIdentifier("c1"));

  // Garbage over the pages (the header kept) is found too, never crashes.
  {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(4096);
    file << std::string(8192, '\x5a');
  }
  fs::remove(path.string() + "-wal");
  std::string error;
  auto damaged = SqliteEngine::engineWithPath(path.string(), &error);
  if (damaged) EXPECT_NE(damaged->check(), "");
  else EXPECT_NE(error.find(path.string()), std::string::npos) << error;
}

// A blob literal of a value's stored form.
std::string storedLiteral(const Value& value) {
  std::string literal = "X'";
  for (unsigned char c : SqliteEngine::storedFormOfValue(value)) literal += fmt::format("{:02x}", c);
  return literal + "'";
}

TEST(StoredFormTest, DamagedFormsAreRefusedNeverTrusted) {
  const Value original = Value(Array{richEvent(), Set{1, "x"}, Value(), 1.5e300, -7});
  const std::string stored = SqliteEngine::storedFormOfValue(original);
  EXPECT_EQ(SqliteEngine::valueFromStoredForm(stored), original);
  // Every form cut short is refused.
  for (std::size_t length = 0; length < stored.size(); ++length)
    EXPECT_FALSE(SqliteEngine::valueFromStoredForm(stored.substr(0, length))) << length;
  // Every byte changed either reads as some value or is refused.
  for (std::size_t at = 0; at < stored.size(); ++at)
    for (unsigned char flip : {0x01, 0x80, 0xff}) {
      std::string damaged = stored;
      damaged[at] = static_cast<char>(damaged[at] ^ flip);
      std::string error;
      if (!SqliteEngine::valueFromStoredForm(damaged, &error)) {
        EXPECT_NE(error.find("damaged value"), std::string::npos) << error;
      }
    }
  std::string error;
  EXPECT_FALSE(SqliteEngine::valueFromStoredForm(stored + "x", &error));
}

TEST_F(SqliteEngineTest, VersionOneStoreIsUpgradedKeepingItsRecordsAndClients) {
  writeWithSqlite(path, fmt::format(R"sql(
    CREATE TABLE records(identifier TEXT PRIMARY KEY, entity TEXT NOT NULL, record TEXT NOT NULL);
    CREATE TABLE clients(client TEXT PRIMARY KEY, display_name TEXT NOT NULL, enabled TEXT NOT NULL);
    CREATE TABLE client_values(client TEXT NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL,
                               PRIMARY KEY(client, key));
    INSERT INTO records VALUES('c1', 'Contacts.Contact', {});
    INSERT INTO clients VALUES('phone', 'My Phone', {});
    INSERT INTO client_values VALUES('phone', 'count', {});
    PRAGMA application_id = {};
    PRAGMA user_version = 1;)sql",
                                    storedLiteral(contact("Alice")),
                                    storedLiteral(Array{kContactsContact}), storedLiteral(4),
                                    0x50434e44));
  auto store = openStore(path);
  ASSERT_TRUE(store);
  EXPECT_EQ(store->schemaVersion(), SqliteEngine::kSchemaVersion);
  EXPECT_EQ(store->recordWithIdentifier("c1")->getString("firstName"), "Alice");
  EXPECT_EQ(store->recordIdentifiersForDataClassName(kContacts), Array{"c1"});
  // Every record counts as changed, so that the next sync looks at them all.
  EXPECT_EQ(store->changesSince(0).size(), 1u);
  auto client = store->clientWithIdentifier("phone", "My Phone", Array{kContactsContact});
  EXPECT_EQ(client->objectForKey("count"), Value(4));
  EXPECT_EQ(client->enabledEntityNames(), Array{kContactsContact});
  store->addRecord("c2", contact("Bob"));
  EXPECT_EQ(store->changesSince(1).size(), 1u);
  EXPECT_EQ(store->check(), "");
  // The upgraded file has every table and index a new one has.
  const fs::path fresh = path.parent_path() / "fresh.store";
  ASSERT_TRUE(openStore(fresh));
  EXPECT_EQ(schemaObjects(path), schemaObjects(fresh));
}

TEST_F(SqliteEngineTest, WritersOnSeveralThreadsLoseNothing) {
  auto store = openStore(path);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&store, t] {
      for (int i = 0; i < 25; ++i) {
        SqliteEngine::Transaction transaction(*store);
        store->addRecord(fmt::format("t{}-{}", t, i), contact("x"));
        transaction.commit();
        store->recordIdentifiersForDataClassName(kContacts);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(store->count(), 100u);
  EXPECT_EQ(store->changeCounter(), 100);
}

}  // namespace
}  // namespace pc
