// The two-way sync of a store with a phone folder, on every example phone
// with every example record: a second sync writes nothing; a phone edit
// reaches the engine and leaves every other field as it was; an engine edit
// reaches the phone; deletions on either side; conflicts; a first sync with
// a phone that holds entries duplicates nothing; a run stopped at any step
// leaves the store as it was and the next run ends where an uninterrupted
// one would; random edits on both sides lose nothing.

#include "host/StoreSync.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "engine/MemoryEngine.h"
#include "engine/SchemaNames.h"
#include "host/PhoneStore.h"
#include "host/VFormatParsers.h"
#include "platform/Exception.h"
#include "platform/FileIO.h"
#include "platform/PropertyList.h"
#include "platform/TimeZone.h"
#include "util/PHCMangling.h"

namespace pc {
namespace {

namespace fs = std::filesystem;
const std::string kExamples = std::string(PC_SOURCE_DIR) + "/examples/";

Dictionary readDictionary(const std::string& path) {
  std::optional<Value> contents = PropertyList::fromFile(path);
  return contents && contents->isDictionary() ? contents->dictionary() : Dictionary();
}

std::vector<fs::path> exampleRecordPaths() {
  std::vector<fs::path> paths;
  for (const char* folder : {"records/contacts", "records/calendar"})
    for (const auto& entry : fs::directory_iterator(kExamples + folder)) paths.push_back(entry.path());
  std::sort(paths.begin(), paths.end());
  return paths;
}

// A phone folder and a store, with the example records imported.
class StoreSyncFixture {
 public:
  StoreSyncFixture(const std::string& phoneName, const std::string& tag) {
    folder = fs::path(::testing::TempDir()) /
             ("store-sync-" + std::to_string(::getpid()) + "-" + phoneName + "-" + tag);
    fs::remove_all(folder);
    fs::create_directories(folder / "phone");
    const std::string devices = kExamples + "devices/";
    SyncRun& phone = run.phone;
    phone.deviceDescription = readDictionary(devices + phoneName + ".plist");
    phone.entitiesDescription = readDictionary(devices + phoneName + ".entities.plist");
    phone.formatting.variables = readDictionary(devices + phoneName + ".variables.plist");
    const Dictionary clientValues = readDictionary(devices + phoneName + ".client.plist");
    if (!clientValues.empty()) {
      phone.formatting.clientStorePath = (folder / "client.plist").string();
      MemorySyncEngineClient client(phone.formatting.clientIdentifier, "test", Array(),
                                    phone.formatting.clientStorePath);
      for (const auto& [key, value] : clientValues) client.setObject(value, key.stringValue());
    }
    phone.phoneDirectory = (folder / "phone").string();
    phone.anchorDate = CalendarDate::dateWithYear(2026, 11, 1, 0, 0, 0);
    run.clientIdentifier = "phone";
    store = openStore("store.db");
  }
  ~StoreSyncFixture() { fs::remove_all(folder); }

  std::shared_ptr<SqliteEngine> openStore(const std::string& name) {
    std::string error;
    auto engine = SqliteEngine::engineWithPath((folder / name).string(), &error);
    EXPECT_TRUE(engine) << error;
    return engine;
  }
  void importRecords(SqliteEngine& into, const std::vector<fs::path>& paths) {
    for (const fs::path& path : paths) into.addRecord(path.stem().string(), *readRecordFile(path.string()));
  }
  StoreSyncResult sync(SqliteEngine* on = nullptr) {
    StoreSyncResult result = StoreSync::run(on ? *on : *store, run);
    EXPECT_EQ(result.error, "");
    return result;
  }
  PhoneStoreContents phoneContents(const std::string& dataClass) const {
    std::string error;
    PhoneStore store(run.phone.phoneDirectory);
    usePhoneParsers(store, run.phone.deviceDescription);
    auto contents = store.read(dataClass, &error);
    EXPECT_TRUE(contents) << error;
    return contents.value_or(PhoneStoreContents{dataClass, {}});
  }
  void writePhone(const PhoneStoreContents& contents) {
    std::string error;
    PhoneStore store(run.phone.phoneDirectory);
    usePhoneParsers(store, run.phone.deviceDescription);
    EXPECT_NE(store.write(contents, &error),
              PhoneStore::WriteResult::failed)
        << error;
  }
  // The first entry of the data class the phone holds as a whole record
  // (not a single event of an exploded one) with a text `field`.
  PhoneStoreRecord* masterEntryWith(PhoneStoreContents& contents, const std::string& field) {
    for (PhoneStoreRecord& entry : contents.records)
      if (store->recordWithIdentifier(entry.identifier) && entry.fields.get(field).isString())
        return &entry;
    return nullptr;
  }

  fs::path folder;
  StoreSyncRun run;
  std::shared_ptr<SqliteEngine> store;
};

const std::vector<std::string> kPhones{"basic-phone",     "flip-phone",  "organiser-phone",
                                       "photo-phone",     "full-phone",  "contacts-calendar-phone-v2"};

class StoreSyncPhoneTest : public ::testing::TestWithParam<std::string> {};

// The example phones' entities files are named after the phone, except for
// the two versions of one description.
std::unique_ptr<StoreSyncFixture> fixtureFor(const std::string& phone, const std::string& tag) {
  auto fixture = std::make_unique<StoreSyncFixture>(phone, tag);
  if (fixture->run.phone.entitiesDescription.empty()) {
    const std::string devices = kExamples + "devices/";
    fixture->run.phone.entitiesDescription = readDictionary(devices + "contacts-calendar-phone.entities.plist");
  }
  fixture->importRecords(*fixture->store, exampleRecordPaths());
  return fixture;
}

TEST_P(StoreSyncPhoneTest, SecondSyncWritesNothingAndEditsTravelBothWays) {
  auto f = fixtureFor(GetParam(), "edits");
  const StoreSyncResult first = f->sync();
  ASSERT_FALSE(first.filesWritten.empty());
  const StoreSyncResult second = f->sync();
  EXPECT_TRUE(second.filesWritten.empty());
  EXPECT_FALSE(second.storeChanged);
  for (const StoreSyncRecord& record : second.records)
    EXPECT_EQ(record.outcome, StoreSyncOutcome::rejected) << record.identifier;

  // A phone edit reaches the engine; every other field stays as it was,
  // those the phone cannot hold included.
  PhoneStoreContents contacts = f->phoneContents(kContacts);
  PhoneStoreRecord* entry = f->masterEntryWith(contacts, "lastName");
  ASSERT_TRUE(entry);
  const std::string edited = entry->identifier;
  const Dictionary before = *f->store->recordWithIdentifier(edited);
  entry->fields.set("lastName", "Edited-on-phone");
  f->writePhone(contacts);
  const StoreSyncResult carried = f->sync();
  ASSERT_EQ(carried.summary.changedOnPhone, 1u);
  Dictionary after = *f->store->recordWithIdentifier(edited);
  EXPECT_EQ(after.getString("lastName"), "Edited-on-phone");
  after.set("lastName", before.get("lastName"));
  EXPECT_EQ(Value(after), Value(before)) << ReferenceSync::differingFields(before, after).size();
  EXPECT_TRUE(f->sync().filesWritten.empty());

  // An engine edit reaches the phone, and then nothing more happens.
  Dictionary engineSide = *f->store->recordWithIdentifier(edited);
  engineSide.set("lastName", "Edited-on-engine");
  f->store->addRecord(edited, engineSide);
  const StoreSyncResult sent = f->sync();
  EXPECT_EQ(sent.filesWritten.size(), 1u);
  bool found = false;
  for (const PhoneStoreRecord& held : f->phoneContents(kContacts).records)
    if (held.identifier == edited) {
      found = true;
      EXPECT_EQ(held.fields.getString("lastName"), "Edited-on-engine");
    }
  EXPECT_TRUE(found);
  const StoreSyncResult quiet = f->sync();
  EXPECT_TRUE(quiet.filesWritten.empty());
  EXPECT_FALSE(quiet.storeChanged);
}

TEST_P(StoreSyncPhoneTest, SlowSyncOfAPhoneHoldingWhatAFirstSyncWroteDuplicatesNothing) {
  auto f = fixtureFor(GetParam(), "slow");
  f->sync();
  std::size_t phoneEntries = 0;
  for (const char* dataClass : {kContacts, kCalendars})
    phoneEntries += f->phoneContents(dataClass).records.size();

  auto fresh = f->openStore("fresh.db");
  f->importRecords(*fresh, exampleRecordPaths());
  const StoreSyncResult slow = f->sync(fresh.get());
  EXPECT_EQ(slow.summary.addedOnPhone, 0u);
  EXPECT_EQ(fresh->count(), f->store->count());
  std::size_t after = 0;
  for (const char* dataClass : {kContacts, kCalendars})
    after += f->phoneContents(dataClass).records.size();
  EXPECT_EQ(after, phoneEntries);
  EXPECT_TRUE(f->sync(fresh.get()).filesWritten.empty());
}

INSTANTIATE_TEST_SUITE_P(ExamplePhones, StoreSyncPhoneTest, ::testing::ValuesIn(kPhones),
                         [](const auto& info) {
                           std::string name = info.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

// --- on one phone: deletions, conflicts, first sync, interruptions ---------------------

class StoreSyncTest : public ::testing::Test {
 protected:
  std::unique_ptr<StoreSyncFixture> make(const std::string& tag) {
    auto f = std::make_unique<StoreSyncFixture>("full-phone", tag);
    f->importRecords(*f->store, contacts);
    return f;
  }
  static Dictionary fieldsOf(const PhoneStoreContents& contents, const std::string& identifier) {
    for (const PhoneStoreRecord& entry : contents.records)
      if (entry.identifier == identifier) return entry.fields;
    return Dictionary();
  }
  std::vector<fs::path> contacts = [] {
    std::vector<fs::path> paths;
    for (const fs::path& path : exampleRecordPaths())
      if (path.parent_path().filename() == "contacts" && paths.size() < 12) paths.push_back(path);
    return paths;
  }();
};

TEST_F(StoreSyncTest, DeletionsOnEitherSideReachTheOther) {
  auto f = make("deletions");
  f->sync();
  PhoneStoreContents phone = f->phoneContents(kContacts);
  const std::string deletedOnPhone = phone.records.at(0).identifier;
  const std::string deletedOnEngine = phone.records.at(1).identifier;
  phone.records.erase(phone.records.begin());
  f->writePhone(phone);
  f->store->removeRecord(deletedOnEngine);

  const StoreSyncResult result = f->sync();
  EXPECT_EQ(result.summary.deletedOnPhone, 1u);
  EXPECT_EQ(result.summary.deletedByEngine, 1u);
  EXPECT_FALSE(f->store->recordWithIdentifier(deletedOnPhone));
  EXPECT_EQ(f->phoneContents(kContacts).records.size(), contacts.size() - 2);
  EXPECT_TRUE(f->sync().filesWritten.empty());
}

TEST_F(StoreSyncTest, ConflictsFollowThePolicyAndDifferentFieldsAreBothKept) {
  for (ConflictPolicy policy : {ConflictPolicy::engine, ConflictPolicy::phone}) {
    auto f = make(policy == ConflictPolicy::engine ? "conflict-engine" : "conflict-phone");
    f->run.conflicts = policy;
    f->sync();
    PhoneStoreContents phone = f->phoneContents(kContacts);
    PhoneStoreRecord& entry = phone.records.at(0);
    const std::string id = entry.identifier;
    entry.fields.set("firstName", "PhoneFirst");
    entry.fields.set("lastName", "PhoneLast");
    f->writePhone(phone);
    Dictionary record = *f->store->recordWithIdentifier(id);
    record.set("firstName", "EngineFirst");
    record.set("jobTitle", "EngineJob");
    f->store->addRecord(id, record);

    const StoreSyncResult result = f->sync();
    ASSERT_EQ(result.summary.conflicts, 1u);
    const StoreSyncRecord* conflict = nullptr;
    for (const StoreSyncRecord& r : result.records)
      if (r.outcome == StoreSyncOutcome::conflict) conflict = &r;
    ASSERT_TRUE(conflict);
    ASSERT_EQ(conflict->conflicts.size(), 1u);
    EXPECT_EQ(conflict->conflicts[0].field, "firstName");
    EXPECT_EQ(conflict->conflicts[0].engineValue, "EngineFirst");
    EXPECT_EQ(conflict->conflicts[0].phoneValue, "PhoneFirst");

    const Dictionary merged = *f->store->recordWithIdentifier(id);
    EXPECT_EQ(merged.getString("firstName"),
              policy == ConflictPolicy::engine ? "EngineFirst" : "PhoneFirst");
    EXPECT_EQ(merged.getString("lastName"), "PhoneLast");
    EXPECT_EQ(merged.getString("jobTitle"), "EngineJob");
    EXPECT_EQ(fieldsOf(f->phoneContents(kContacts), id).getString("firstName"),
              merged.getString("firstName"));
    EXPECT_TRUE(f->sync().filesWritten.empty());
  }
}

TEST_F(StoreSyncTest, FirstSyncPairsPhoneEntriesByContent) {
  auto f = make("pairing");
  f->sync();
  // The phone names its entries its own way; a fresh store holds the same
  // records plus one the phone lacks.
  PhoneStoreContents phone = f->phoneContents(kContacts);
  for (std::size_t i = 0; i < phone.records.size(); ++i)
    phone.records[i].identifier = "phone-" + std::to_string(i);
  f->writePhone(phone);
  auto fresh = f->openStore("fresh.db");
  f->importRecords(*fresh, contacts);
  fresh->addRecord("only-engine", Dictionary{{kEngineRecordEntityNameKey, kContactsContact},
                                             {"firstName", "Only"},
                                             {"lastName", "Engine"}});
  const StoreSyncResult result = f->sync(fresh.get());
  EXPECT_EQ(result.summary.addedOnPhone, 0u);
  EXPECT_EQ(fresh->count(), contacts.size() + 1);
  const PhoneStoreContents after = f->phoneContents(kContacts);
  EXPECT_EQ(after.records.size(), contacts.size() + 1);
  EXPECT_EQ(after.records.front().identifier, "phone-0");
  EXPECT_TRUE(f->sync(fresh.get()).filesWritten.empty());
}

// The modes of a first sync with a phone that holds entries already: one
// entry the engine also has (changed on the phone), one the engine lacks,
// and two engine records the phone lacks.
TEST_F(StoreSyncTest, ModesOfFirstSyncMergeOrReplaceEitherSide) {
  struct Case {
    FirstSyncMode mode;
    std::vector<std::string> engine;  // first names the engine ends with
    std::string pairedJobTitle;       // what the paired record's job title ends as
  };
  const std::vector<Case> cases{
      {FirstSyncMode::merge, {"Phone", "c1", "c2", "c3"}, "Phone job"},
      {FirstSyncMode::phoneReplacesEngine, {"Phone", "c1"}, "Phone job"},
      {FirstSyncMode::engineReplacesPhone, {"c1", "c2", "c3"}, "Engine job"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(firstSyncModeName(c.mode));
    auto f = make(std::string("first-sync-") + firstSyncModeName(c.mode));
    f->run.firstSyncMode = c.mode;
    auto fresh = f->openStore("fresh.db");
    for (int i = 1; i <= 3; ++i)
      fresh->addRecord("c" + std::to_string(i),
                       Dictionary{{kEngineRecordEntityNameKey, kContactsContact},
                                  {"firstName", "c" + std::to_string(i)},
                                  {"lastName", "Engine"},
                                  {"jobTitle", "Engine job"}});
    // The phone holds c1 under its own name with another job title, and an
    // entry of its own.
    PhoneStoreContents phone{kContacts, {}};
    phone.records.push_back({"phone-c1", kContactsContact,
                             Dictionary{{"firstName", "c1"}, {"lastName", "Engine"},
                                        {"jobTitle", "Phone job"}}});
    phone.records.push_back({"phone-own", kContactsContact,
                             Dictionary{{"firstName", "Phone"}, {"lastName", "Only"}}});
    f->writePhone(phone);

    const StoreSyncResult result = f->sync(fresh.get());
    std::vector<std::string> engine;
    for (const Value& id : fresh->recordIdentifiers())
      engine.push_back(fresh->recordWithIdentifier(id.string())->getString("firstName"));
    std::sort(engine.begin(), engine.end());
    EXPECT_EQ(engine, c.engine);
    EXPECT_EQ(fresh->recordWithIdentifier("c1")->getString("jobTitle"), c.pairedJobTitle);

    // Both sides agree, c1 keeps the phone's name, nothing is duplicated.
    std::vector<std::string> held;
    for (const PhoneStoreRecord& entry : f->phoneContents(kContacts).records) {
      held.push_back(entry.fields.getString("firstName"));
      if (entry.fields.getString("firstName") == "c1") {
        EXPECT_EQ(entry.identifier, "phone-c1");
        EXPECT_EQ(entry.fields.getString("jobTitle"), c.pairedJobTitle);
      }
    }
    std::sort(held.begin(), held.end());
    EXPECT_EQ(held, c.engine);
    const bool phoneReplaces = c.mode == FirstSyncMode::phoneReplacesEngine;
    const bool engineReplaces = c.mode == FirstSyncMode::engineReplacesPhone;
    EXPECT_EQ(result.summary.deletedOnPhone, phoneReplaces ? 2u : 0u);
    EXPECT_EQ(result.summary.deletedByEngine, engineReplaces ? 1u : 0u);
    EXPECT_EQ(result.summary.addedOnPhone, engineReplaces ? 0u : 1u);

    const StoreSyncResult again = f->sync(fresh.get());
    EXPECT_TRUE(again.filesWritten.empty());
    EXPECT_TRUE(again.records.empty());
  }
}

// Without a mode on the run, the phone folder's sync settings give it; a
// number that is no mode stops the run before anything is written.
TEST_F(StoreSyncTest, ModeOfFirstSyncComesFromTheSyncSettings) {
  for (const auto& [mode, engineCount] : std::vector<std::pair<int, std::size_t>>{{2, 12}, {7, 12}}) {
    auto f = make("settings-mode-" + std::to_string(mode));
    Dictionary settings;
    settings.set("contactsModeOfFirstSync", Value(std::int64_t{mode}));
    ASSERT_TRUE(PropertyList::writeToFile(Value(settings), (f->folder / "phone" / "SyncSettings.plist").string()));
    f->writePhone({kContacts, {{"phone-own", kContactsContact,
                                Dictionary{{"firstName", "Phone"}, {"lastName", "Only"}}}}});
    const StoreSyncResult result = StoreSync::run(*f->store, f->run);
    EXPECT_EQ(f->store->count(), engineCount);
    if (mode == 7) {
      EXPECT_NE(result.error.find("contactsModeOfFirstSync"), std::string::npos) << result.error;
      EXPECT_EQ(f->phoneContents(kContacts).records.size(), 1u);
    } else {
      EXPECT_EQ(result.error, "");
      EXPECT_EQ(result.summary.deletedByEngine, 1u);
      EXPECT_EQ(f->phoneContents(kContacts).records.size(), 12u);
    }
  }
}

TEST_F(StoreSyncTest, UnreadablePhoneFileStopsTheRunBeforeAnythingIsWritten) {
  auto f = make("corrupt");
  f->sync();
  const std::int64_t counter = f->store->changeCounter();
  std::ofstream(fs::path(f->run.phone.phoneDirectory) / "Contacts.vcf") << "BEGIN:VCARD\r\nN:Cut;Short\r\n";
  const StoreSyncResult result = StoreSync::run(*f->store, f->run);
  EXPECT_NE(result.error.find("Contacts.vcf"), std::string::npos) << result.error;
  EXPECT_EQ(f->store->changeCounter(), counter);
}

// A record that no longer reads stops a sync that formats only what changed,
// before anything is written, naming the record: one the engine changed
// since the last sync (checked at the start), and one whose phone entry was
// edited (checked as it is read).
TEST_F(StoreSyncTest, ADamagedRecordStopsAnIncrementalRunBeforeAnythingIsWritten) {
  for (const bool changedOnEngine : {true, false}) {
    SCOPED_TRACE(changedOnEngine);
    auto f = make(changedOnEngine ? "damaged-engine" : "damaged-phone");
    f->sync();
    PhoneStoreContents phone = f->phoneContents(kContacts);
    const std::string damaged = phone.records.at(3).identifier;
    if (changedOnEngine) {
      Dictionary record = *f->store->recordWithIdentifier(damaged);
      record.set("jobTitle", "Changed");
      f->store->addRecord(damaged, record);
    } else {
      phone.records.at(3).fields.set("lastName", "Edited");
      f->writePhone(phone);
    }
    const std::string contactsFile = f->phoneContents(kContacts).records.at(3).fields.getString("lastName");
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((f->folder / "store.db").c_str(), &db), SQLITE_OK);
    const std::string sql = "UPDATE records SET record = 'damaged' WHERE identifier = '" + damaged + "'";
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    const std::int64_t counter = f->store->changeCounter();

    const StoreSyncResult result = StoreSync::run(*f->store, f->run);
    EXPECT_NE(result.error.find("records/" + damaged), std::string::npos) << result.error;
    EXPECT_TRUE(result.filesWritten.empty());
    EXPECT_EQ(f->store->changeCounter(), counter);
    EXPECT_EQ(f->phoneContents(kContacts).records.at(3).fields.getString("lastName"), contactsFile);
  }
}

// Both sides changed, then a run stopped at each step: the store is as it
// was, and the next run ends as an uninterrupted one.
TEST_F(StoreSyncTest, RunStoppedAtAnyStepLeavesTheStoreAndTheNextRunCatchesUp) {
  auto change = [](StoreSyncFixture& f) {
    PhoneStoreContents phone = f.phoneContents(kContacts);
    phone.records.at(0).fields.set("lastName", "FromPhone");
    phone.records.erase(phone.records.begin() + 1);
    phone.records.push_back({"phone-added", kContactsContact,
                             Dictionary{{"firstName", "Added"}, {"lastName", "OnPhone"}}});
    f.writePhone(phone);
    Dictionary record = *f.store->recordWithIdentifier(phone.records.at(2).identifier);
    record.set("jobTitle", "FromEngine");
    f.store->addRecord(phone.records.at(2).identifier, record);
  };
  auto snapshot = [](StoreSyncFixture& f) {
    std::string text;
    for (const Value& id : f.store->recordIdentifiers())
      text += id.string() + *recordText(*f.store->recordWithIdentifier(id.string()));
    for (const char* dataClass : {kContacts})
      for (const PhoneStoreRecord& entry : f.phoneContents(dataClass).records)
        text += entry.identifier + *recordText(entry.fields);
    return text;
  };

  auto reference = make("reference");
  reference->sync();
  change(*reference);
  reference->sync();
  const std::string expected = snapshot(*reference);

  for (const char* stop : {"engine", "state", "phone", "commit"}) {
    SCOPED_TRACE(stop);
    auto f = make(std::string("stop-") + stop);
    f->sync();
    change(*f);
    const std::int64_t counter = f->store->changeCounter();
    const std::size_t entries = f->store->syncedEntries("phone").size();
    f->run.beforeStep = [stop](std::string_view step) {
      if (step == stop) raiseException("test", std::string("stopped at ") + stop);
    };
    EXPECT_NE(StoreSync::run(*f->store, f->run).error, "");
    EXPECT_EQ(f->store->changeCounter(), counter);
    EXPECT_EQ(f->store->syncedEntries("phone").size(), entries);
    f->run.beforeStep = nullptr;
    EXPECT_EQ(f->sync().error, "");
    EXPECT_EQ(snapshot(*f), expected);
    EXPECT_TRUE(f->sync().filesWritten.empty());
  }
}

TEST_F(StoreSyncTest, DryRunReportsAndWritesNothing) {
  auto f = make("dry");
  f->run.dryRun = true;
  const StoreSyncResult result = f->sync();
  EXPECT_GT(result.summary.sent + result.summary.reduced, 0u);
  EXPECT_TRUE(result.filesWritten.empty());
  EXPECT_FALSE(fs::exists(fs::path(f->run.phone.phoneDirectory) / "Contacts.vcf"));
  EXPECT_TRUE(f->store->syncedEntries("phone").empty());
}

// Random edits, additions and deletions on both sides with syncs between:
// after each sync both sides hold the same names and no change is lost.
TEST_F(StoreSyncTest, RandomEditsOnBothSidesAreNeverLost) {
  auto f = make("random");
  f->sync();
  std::mt19937 random(20261124);
  std::map<std::string, std::pair<std::string, std::string>> expected;  // id -> first, last
  for (const Value& id : f->store->recordIdentifiers()) {
    const Dictionary record = *f->store->recordWithIdentifier(id.string());
    expected[id.string()] = {record.getString("firstName"), record.getString("lastName")};
  }
  int serial = 0;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    PhoneStoreContents phone = f->phoneContents(kContacts);
    std::set<std::string> touched;
    auto pick = [&](std::vector<PhoneStoreRecord>& list) -> PhoneStoreRecord* {
      for (int attempt = 0; attempt < 20 && !list.empty(); ++attempt) {
        PhoneStoreRecord& entry = list[random() % list.size()];
        if (touched.insert(entry.identifier).second) return &entry;
      }
      return nullptr;
    };
    for (int op = 0; op < 4; ++op) {
      const std::string name = "N" + std::to_string(++serial);
      switch (random() % 6) {
        case 0:  // phone edit
          if (PhoneStoreRecord* entry = pick(phone.records)) {
            entry->fields.set("firstName", name);
            expected[entry->identifier].first = name;
          }
          break;
        case 1:  // engine edit
          if (PhoneStoreRecord* entry = pick(phone.records)) {
            Dictionary record = *f->store->recordWithIdentifier(entry->identifier);
            record.set("lastName", name);
            f->store->addRecord(entry->identifier, record);
            expected[entry->identifier].second = name;
          }
          break;
        case 2:  // phone deletion
          if (PhoneStoreRecord* entry = pick(phone.records)) {
            expected.erase(entry->identifier);
            const std::string id = entry->identifier;
            std::erase_if(phone.records, [&](const PhoneStoreRecord& r) { return r.identifier == id; });
          }
          break;
        case 3:  // engine deletion
          if (PhoneStoreRecord* entry = pick(phone.records)) {
            expected.erase(entry->identifier);
            f->store->removeRecord(entry->identifier);
          }
          break;
        case 4:  // phone addition
          phone.records.push_back({"p-" + name, kContactsContact,
                                   Dictionary{{"firstName", name}, {"lastName", "Phone"}}});
          touched.insert("p-" + name);
          expected["p-" + name] = {name, "Phone"};
          break;
        case 5:  // engine addition
          f->store->addRecord("e-" + name, Dictionary{{kEngineRecordEntityNameKey, kContactsContact},
                                                     {"firstName", name},
                                                     {"lastName", "Engine"}});
          expected["e-" + name] = {name, "Engine"};
          break;
      }
    }
    f->writePhone(phone);
    f->sync();

    std::map<std::string, std::pair<std::string, std::string>> engine, held;
    for (const Value& id : f->store->recordIdentifiers()) {
      const Dictionary record = *f->store->recordWithIdentifier(id.string());
      engine[id.string()] = {record.getString("firstName"), record.getString("lastName")};
    }
    for (const PhoneStoreRecord& entry : f->phoneContents(kContacts).records)
      held[entry.identifier] = {entry.fields.getString("firstName"), entry.fields.getString("lastName")};
    EXPECT_EQ(engine, expected);
    EXPECT_EQ(held, expected);
    EXPECT_TRUE(f->sync().filesWritten.empty());
  }
}

// Dates edited on the phone, under the machine's zone (the suite runs under
// several): the phone's form is unmangled before it is merged, so a moved
// start lands on the right instant in the event's own zone, and an all-day
// event stays all-day.
class SyncZonesStoreTest : public ::testing::Test {};

TEST_F(SyncZonesStoreTest, PhoneDateEditsReachTheEngineInTheEventsOwnForm) {
  StoreSyncFixture f("photo-phone", "zones");
  const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  auto event = [](const char* summary, CalendarDate start, CalendarDate end, bool allDay) {
    Dictionary record;
    record.set("entityName", Value("Calendars.Event"));
    record.set("summary", Value(summary));
    record.set("startDate", Value(start));
    record.set("endDate", Value(end));
    if (allDay) record.set("allDay", Value(true));
    return record;
  };
  const CalendarDate meetingStart = CalendarDate::dateWithYear(2026, 11, 10, 10, 0, 0, berlin);
  f.store->addRecord("meeting", event("Meeting", meetingStart,
                                      meetingStart.dateByAddingTimeInterval(3600), false));
  const CalendarDate day = CalendarDate::dateWithYear(2026, 11, 12, 0, 0, 0, TimeZone::gmt());
  f.store->addRecord("holiday", event("Holiday", day, day, true));
  f.sync();

  PhoneStoreContents phone = f.phoneContents("Calendars");
  auto moved = [](Dictionary& fields, const char* key, double seconds) {
    fields.set(key, Value(fields.get(key).date().dateByAddingTimeInterval(seconds)));
  };
  for (PhoneStoreRecord& entry : phone.records) {
    const double by = entry.identifier == "meeting" ? 3600 : 86400;
    moved(entry.fields, "startDate", by);
    moved(entry.fields, "endDate", by);
  }
  f.writePhone(phone);
  EXPECT_EQ(f.sync().summary.changedOnPhone, 2u);

  const Dictionary meeting = *f.store->recordWithIdentifier("meeting");
  const CalendarDate start = meeting.get("startDate").date();
  EXPECT_EQ(start.timeIntervalSince1970(), meetingStart.timeIntervalSince1970() + 3600);
  ASSERT_TRUE(start.timeZone());
  EXPECT_EQ(start.timeZone()->name(), "Europe/Berlin");
  EXPECT_FALSE(meeting.get("allDay").isBoolean() && meeting.get("allDay").boolValue());

  const Dictionary holiday = *f.store->recordWithIdentifier("holiday");
  EXPECT_TRUE(holiday.get("allDay").boolValue());
  EXPECT_EQ(holiday.get("startDate").date().timeIntervalSince1970(),
            day.timeIntervalSince1970() + 86400);
  EXPECT_TRUE(f.sync().filesWritten.empty());
}

// Single events of an exploded recurring event: an edited one becomes a
// detached event of the engine's event on the day it stood, a deleted one an
// exception date; the phone then holds the detached event in its place and
// the next sync is quiet. Runs under several machine zones.
TEST_F(SyncZonesStoreTest, EditedAndDeletedOccurrencesBecomeDetachedEventsAndExceptionDates) {
  StoreSyncFixture f("photo-phone", "occurrences");
  const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  const CalendarDate first = CalendarDate::dateWithYear(2026, 11, 2, 18, 0, 0, berlin);
  Dictionary rule;
  rule.set("entityName", Value("Calendars.Recurrence"));
  rule.set("frequency", Value("weekly"));
  rule.set("interval", Value(std::int64_t{1}));
  rule.set("count", Value(std::int64_t{4}));
  Array rules;
  rules.add(Value(rule));
  Dictionary choir;
  choir.set("entityName", Value("Calendars.Event"));
  choir.set("summary", Value("Choir"));
  choir.set("location", Value("Hall"));
  choir.set("startDate", Value(first));
  choir.set("endDate", Value(first.dateByAddingTimeInterval(3600)));
  choir.set("recurrences", Value(rules));
  f.store->addRecord("choir", choir);
  f.sync();

  PhoneStoreContents phone = f.phoneContents("Calendars");
  ASSERT_EQ(phone.records.size(), 4u);
  const double week = 7 * 86400;
  auto occurrence = [&](int n) {
    return "choir#" + first.dateByAddingTimeInterval(n * week)
                          .dateWithTimeZone(TimeZone::gmt())
                          .descriptionWithCalendarFormat("%Y%m%dT%H%M%SZ");
  };
  for (PhoneStoreRecord& entry : phone.records)
    if (entry.identifier == occurrence(1)) {
      entry.fields.set("summary", Value("Choir (concert)"));
      entry.fields.set("startDate",
                       Value(entry.fields.get("startDate").date().dateByAddingTimeInterval(1800)));
    }
  std::erase_if(phone.records, [&](const PhoneStoreRecord& entry) { return entry.identifier == occurrence(2); });
  f.writePhone(phone);
  const StoreSyncResult result = f.sync();
  EXPECT_EQ(result.summary.changedOnPhone, 1u);
  EXPECT_EQ(result.summary.deletedOnPhone, 1u);

  const Dictionary master = *f.store->recordWithIdentifier("choir");
  const Array detached = master.getArray("detachedEvents").value_or(Array());
  ASSERT_EQ(detached.count(), 1u);
  const Dictionary moved = detached.at(0).dictionary();
  EXPECT_EQ(moved.getString("summary"), "Choir (concert)");
  EXPECT_EQ(moved.getString("location"), "Hall");  // kept from the engine's event
  EXPECT_FALSE(moved.contains("recurrences"));
  EXPECT_EQ(moved.get("originalDate").date().timeIntervalSince1970(),
            first.timeIntervalSince1970() + week);
  const CalendarDate movedStart = moved.get("startDate").date();
  EXPECT_EQ(movedStart.timeIntervalSince1970(), first.timeIntervalSince1970() + week + 1800);
  ASSERT_TRUE(movedStart.timeZone());
  EXPECT_EQ(movedStart.timeZone()->name(), "Europe/Berlin");
  const Array exceptions = master.getArray("exceptionDates").value_or(Array());
  ASSERT_EQ(exceptions.count(), 1u);
  EXPECT_EQ(exceptions.at(0).date().timeIntervalSince1970(),
            first.timeIntervalSince1970() + 2 * week);

  // The phone: two untouched occurrences and the detached event.
  std::vector<std::string> summaries;
  for (const PhoneStoreRecord& entry : f.phoneContents("Calendars").records)
    summaries.push_back(entry.fields.getString("summary"));
  std::sort(summaries.begin(), summaries.end());
  EXPECT_EQ(summaries, (std::vector<std::string>{"Choir", "Choir", "Choir (concert)"}));

  const StoreSyncResult again = f.sync();
  EXPECT_TRUE(again.filesWritten.empty());
  EXPECT_FALSE(again.storeChanged);
  EXPECT_TRUE(again.records.empty());
}

// --- only what changed is formatted again -----------------------------------------------

// What a sync left on both sides and said about it, line by line.
std::vector<std::string> outcomeOf(StoreSyncFixture& f, const StoreSyncResult& result) {
  std::vector<std::string> lines;
  for (const StoreSyncRecord& record : result.records)
    lines.push_back(record.identifier + " " + storeSyncOutcomeName(record.outcome) + " " +
                    std::to_string(record.fields.size()) + " " + std::to_string(record.conflicts.size()));
  std::sort(lines.begin(), lines.end());
  lines.push_back("unchanged " + std::to_string(result.summary.unchanged));
  for (const Value& id : f.store->recordIdentifiers())
    lines.push_back(id.string() + *recordText(*f.store->recordWithIdentifier(id.string())));
  for (const SyncedEntry& entry : f.store->syncedEntries("phone"))
    lines.push_back(entry.phoneIdentifier + " " + entry.engineIdentifier + *recordText(entry.engineForm) +
                    *recordText(entry.phoneForm));
  PhoneStore phone(f.run.phone.phoneDirectory);
  usePhoneParsers(phone, f.run.phone.deviceDescription);
  for (const char* dataClass : {kContacts, kCalendars}) {
    std::ifstream in(phone.pathForDataClass(dataClass), std::ios::binary);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
  }
  return lines;
}

// The first line where two outcomes part; empty when they are the same.
std::string firstDifference(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    const std::string left = i < a.size() ? a[i] : "(end)";
    const std::string right = i < b.size() ? b[i] : "(end)";
    if (left != right) return "line " + std::to_string(i) + ":\n  " + left + "\n  " + right;
  }
  return {};
}

// A weekly event of six occurrences, which phones without recurrences get as
// single events.
Dictionary weeklyEvent(const char* summary, CalendarDate first) {
  Dictionary rule{{"entityName", "Calendars.Recurrence"}, {"frequency", "weekly"},
                  {"interval", std::int64_t{1}}, {"count", std::int64_t{6}}};
  return Dictionary{{"entityName", "Calendars.Event"},
                    {"summary", summary},
                    {"startDate", Value(first)},
                    {"endDate", Value(first.dateByAddingTimeInterval(3600))},
                    {"recurrences", Array{Value(rule)}}};
}

class IncrementalStoreSyncTest : public ::testing::TestWithParam<std::string> {};

// Random edits, additions and deletions on both sides, texts cut short on
// the phone (which change nothing the engine holds), entries typed into a
// phone file by hand, and a moved window: a sync that formats
// only what changed ends, after every round, exactly where one that formats
// every record again does (store, sync state, phone files and report), and
// the sync after it is quiet.
TEST_P(IncrementalStoreSyncTest, EndsWhereASyncFormattingEverythingEnds) {
  auto incremental = fixtureFor(GetParam(), "incremental");
  auto everything = fixtureFor(GetParam(), "everything");
  everything->run.formatEverything = true;
  const TimeZonePtr berlin = TimeZone::timeZoneWithName("Europe/Berlin");
  for (StoreSyncFixture* f : {incremental.get(), everything.get()}) {
    f->store->addRecord("choir", weeklyEvent("Choir", CalendarDate::dateWithYear(2026, 11, 2, 18, 0, 0, berlin)));
    f->store->addRecord("late", weeklyEvent("Late", CalendarDate::dateWithYear(2027, 2, 20, 9, 0, 0, berlin)));
  }
  ASSERT_EQ(firstDifference(outcomeOf(*incremental, incremental->sync()),
                            outcomeOf(*everything, everything->sync())),
            "");

  const std::uint32_t seed = 20261124;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    for (StoreSyncFixture* f : {incremental.get(), everything.get()}) {
      std::mt19937 random(seed + round);
      if (round == 3) f->run.phone.anchorDate = CalendarDate::dateWithYear(2027, 1, 15, 0, 0, 0);
      for (const char* dataClass : {kContacts, kCalendars}) {
        PhoneStoreContents phone = f->phoneContents(dataClass);
        if (phone.records.empty()) continue;
        auto pick = [&]() -> PhoneStoreRecord& { return phone.records[random() % phone.records.size()]; };
        const char* text = dataClass == std::string(kContacts) ? "lastName" : "summary";
        std::string byHand;  // an entry typed into the file by hand
        for (int op = 0; op < 3; ++op) {
          const std::string name = "R" + std::to_string(round) + "-" + std::to_string(op);
          switch (random() % 7) {
            case 0:  // phone edit
              pick().fields.set(text, name);
              break;
            case 1:  // phone deletion
              phone.records.erase(phone.records.begin() + random() % phone.records.size());
              break;
            case 2: {  // engine edit
              const std::string id = pick().identifier;
              if (std::optional<Dictionary> record = f->store->recordWithIdentifier(id)) {
                record->set(text, name);
                f->store->addRecord(id, *record);
              }
              break;
            }
            case 3:  // engine deletion
              f->store->removeRecord(pick().identifier);
              break;
            case 4:  // engine addition
              f->store->addRecord("e-" + name, dataClass == std::string(kContacts)
                                                   ? Dictionary{{kEngineRecordEntityNameKey, kContactsContact},
                                                                {"firstName", name}}
                                                   : weeklyEvent(name.c_str(), CalendarDate::dateWithYear(
                                                                                  2026, 12, 1, 8, 0, 0, berlin)));
              break;
            case 5: {  // a text cut short by hand, which leaves the engine's as it is
              PhoneStoreRecord& entry = pick();
              const std::string value = entry.fields.getString(text);
              if (value.size() > 2) entry.fields.set(text, value.substr(0, 2));
              break;
            }
            case 6:  // an entry typed by hand: without an identifier, or with a line that does not read
              byHand = dataClass == std::string(kContacts)
                           ? (round % 2 ? "BEGIN:VCARD\r\nVERSION:2.1\r\nN:" + name + "\r\nEND:VCARD\r\n"
                                        : "BEGIN:VCARD\r\nVERSION:2.1\r\nX-IRMC-LUID:" + name + "\r\nN:" + name +
                                              "\r\nBDAY:someday\r\nEND:VCARD\r\n")
                           : "BEGIN:VEVENT\r\nSUMMARY:" + name + "\r\nDTSTART:20261201T080000Z\r\nEND:VEVENT\r\n";
              break;
          }
        }
        f->writePhone(phone);
        if (!byHand.empty()) {
          PhoneStore store(f->run.phone.phoneDirectory);
          usePhoneParsers(store, f->run.phone.deviceDescription);
          const std::string path = store.pathForDataClass(dataClass);
          std::string file = *readWholeFile(path);
          const std::size_t end = dataClass == std::string(kContacts) ? file.size() : file.rfind("END:VCALENDAR");
          file.insert(end == std::string::npos ? file.size() : end, byHand);
          std::ofstream(path, std::ios::binary | std::ios::trunc) << file;
        }
      }
    }
    const std::vector<std::string> expected = outcomeOf(*everything, everything->sync());
    EXPECT_EQ(firstDifference(outcomeOf(*incremental, incremental->sync()), expected), "");
    const StoreSyncResult quiet = incremental->sync();
    EXPECT_TRUE(quiet.filesWritten.empty());
    EXPECT_FALSE(quiet.storeChanged);
    everything->sync();
  }
}

INSTANTIATE_TEST_SUITE_P(ExamplePhones, IncrementalStoreSyncTest,
                         ::testing::Values("full-phone", "photo-phone", "basic-phone"),
                         [](const auto& info) {
                           std::string name = info.param;
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

}  // namespace
}  // namespace pc
