#include "engine/SqliteEngine.h"

#include <sqlite3.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "platform/Exception.h"
#include "platform/CalendarDate.h"
#include "platform/TimeZone.h"

namespace pc {

namespace {

const std::string& storeLogDomain() {
  static const std::string domain = phcFormatLogDomain(".sync.", "SqliteEngine");
  return domain;
}

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

// Marks the file as one of ours ("PCND"), so that another program's SQLite
// file is refused rather than written into.
constexpr int kApplicationId = 0x50434e44;

// --- the stored form of values ---------------------------------------------------
//
// A compact binary form that holds every kind a record can (dates keep their
// instant, zone and print format; data stays bytes), read back with every
// length checked, so that a damaged row is reported, never trusted:
//   'n' null; 't' / 'f' booleans; 'i' 8-byte integer; 'r' 8-byte real;
//   's' string, 'd' data, 'u' address: length and bytes; 'D' date: instant,
//   zone name (empty: the local zone), offset at the instant, print format;
//   'a' array, 'S' set: count and values; 'h' dictionary: count, then keys
//   and values. Lengths and counts are unsigned LEB128 numbers; the whole
//   starts with kEncodingMark.
constexpr char kEncodingMark = 'P';
constexpr int kMaximumDepth = 256;

void putNumber(std::string& out, std::uint64_t number) {
  do {
    std::uint8_t byte = number & 0x7f;
    number >>= 7;
    if (number) byte |= 0x80;
    out += static_cast<char>(byte);
  } while (number);
}

void putFixed(std::string& out, std::uint64_t bits) {
  for (int i = 0; i < 8; ++i) out += static_cast<char>((bits >> (8 * i)) & 0xff);
}

void putText(std::string& out, std::string_view text) {
  putNumber(out, text.size());
  out.append(text);
}

// False (with `error` naming the key path) for a value no record can hold.
bool putValue(std::string& out, const Value& value, const std::string& path, std::string* error) {
  switch (value.kind()) {
    case ValueKind::Null: out += 'n'; return true;
    case ValueKind::Boolean: out += value.boolValue() ? 't' : 'f'; return true;
    case ValueKind::Integer:
      out += 'i';
      putFixed(out, static_cast<std::uint64_t>(value.integerValue()));
      return true;
    case ValueKind::Real:
      out += 'r';
      putFixed(out, std::bit_cast<std::uint64_t>(value.doubleValue()));
      return true;
    case ValueKind::String: out += 's'; putText(out, value.string()); return true;
    case ValueKind::Data: {
      out += 'd';
      const auto& bytes = value.data().bytes();
      putText(out, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
      return true;
    }
    case ValueKind::URL: out += 'u'; putText(out, value.url().absoluteString()); return true;
    case ValueKind::Date: {
      const CalendarDate& date = value.date();
      out += 'D';
      putFixed(out, std::bit_cast<std::uint64_t>(date.timeIntervalSinceReferenceDate()));
      const TimeZonePtr& zone = date.timeZone();
      const bool local = !zone || zone->isLocalTimeZoneKind();
      putText(out, local ? std::string() : zone->name());
      putFixed(out, static_cast<std::uint64_t>(
                        static_cast<std::int64_t>(local ? 0 : zone->secondsFromGMT(date.date()))));
      putText(out, date.calendarFormat());
      return true;
    }
    case ValueKind::Array:
    case ValueKind::Set: {
      const Array elements = value.isSet() ? value.set().allObjects() : value.array();
      out += value.isSet() ? 'S' : 'a';
      putNumber(out, elements.count());
      for (std::size_t i = 0; i < elements.count(); ++i)
        if (!putValue(out, elements.at(i), path + "/" + std::to_string(i), error)) return false;
      return true;
    }
    case ValueKind::Dictionary: {
      const Dictionary entries = value.dictionary();
      out += 'h';
      putNumber(out, entries.count());
      for (const auto& [key, element] : entries) {
        if (!putValue(out, key, path, error)) return false;
        if (!putValue(out, element, path + "/" + key.stringValue(), error)) return false;
      }
      return true;
    }
    default:
      setError(error, (path.empty() ? std::string("the value") : path.substr(1)) + ": a " +
                          value.kindName() + " cannot be stored");
      return false;
  }
}

class ValueReader {
 public:
  explicit ValueReader(std::string_view bytes) : _bytes(bytes) {}

  std::optional<Value> read(std::string* error) {
    if (_bytes.empty() || _bytes[0] != kEncodingMark) return failed(error, "not a stored value");
    _at = 1;
    std::optional<Value> value = readValue(0);
    if (value && _at != _bytes.size()) return failed(error, "bytes after the value");
    if (!value) return failed(error, _problem);
    return value;
  }

 private:
  std::optional<Value> failed(std::string* error, const std::string& problem) {
    setError(error, fmt::format("damaged value ({} at byte {})", problem, _at));
    return std::nullopt;
  }
  bool number(std::uint64_t& out) {
    out = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (_at >= _bytes.size()) return false;
      const auto byte = static_cast<std::uint8_t>(_bytes[_at++]);
      out |= static_cast<std::uint64_t>(byte & 0x7f) << shift;
      if (!(byte & 0x80)) return true;
    }
    return false;
  }
  bool fixed(std::uint64_t& out) {
    if (_bytes.size() - _at < 8) return false;
    out = 0;
    for (int i = 0; i < 8; ++i)
      out |= static_cast<std::uint64_t>(static_cast<std::uint8_t>(_bytes[_at++])) << (8 * i);
    return true;
  }
  bool text(std::string_view& out) {
    std::uint64_t length = 0;
    if (!number(length) || length > _bytes.size() - _at) return false;
    out = _bytes.substr(_at, length);
    _at += length;
    return true;
  }
  // A count of values that each take at least one byte.
  bool count(std::uint64_t& out) { return number(out) && out <= _bytes.size() - _at; }

  std::optional<Value> readValue(int depth) {
    if (depth > kMaximumDepth) return problem("nested too deeply");
    if (_at >= _bytes.size()) return problem("cut short");
    const char tag = _bytes[_at++];
    std::uint64_t bits = 0;
    std::string_view bytes;
    switch (tag) {
      case 'n': return Value();
      case 't': return Value(true);
      case 'f': return Value(false);
      case 'i':
        if (!fixed(bits)) return problem("cut short");
        return Value(static_cast<std::int64_t>(bits));
      case 'r':
        if (!fixed(bits)) return problem("cut short");
        return Value(std::bit_cast<double>(bits));
      case 's':
        if (!text(bytes)) return problem("cut short");
        return Value(std::string(bytes));
      case 'd':
        if (!text(bytes)) return problem("cut short");
        return Value(Data(bytes.data(), bytes.size()));
      case 'u':
        if (!text(bytes)) return problem("cut short");
        return Value(URL(std::string(bytes)));
      case 'D': {
        std::uint64_t offset = 0;
        std::string_view zoneName, format;
        if (!fixed(bits) || !text(zoneName) || !fixed(offset) || !text(format))
          return problem("cut short");
        TimeZonePtr zone = zoneName.empty() ? TimeZone::localTimeZone()
                                            : TimeZone::timeZoneWithName(zoneName);
        if (!zone)
          zone = TimeZone::timeZoneForSecondsFromGMT(
              static_cast<int>(static_cast<std::int64_t>(offset)));
        if (!zone) return problem("a date's zone is unknown");
        CalendarDate date(Date{std::bit_cast<double>(bits)}, zone);
        date.setCalendarFormat(std::string(format));
        return Value(date);
      }
      case 'a':
      case 'S': {
        std::uint64_t n = 0;
        if (!count(n)) return problem("cut short");
        Array elements;
        Set members;
        for (std::uint64_t i = 0; i < n; ++i) {
          std::optional<Value> element = readValue(depth + 1);
          if (!element) return std::nullopt;
          tag == 'S' ? members.add(std::move(*element)) : elements.add(std::move(*element));
        }
        return tag == 'S' ? Value(members) : Value(elements);
      }
      case 'h': {
        std::uint64_t n = 0;
        if (!count(n)) return problem("cut short");
        Dictionary entries;
        for (std::uint64_t i = 0; i < n; ++i) {
          std::optional<Value> key = readValue(depth + 1);
          if (!key) return std::nullopt;
          std::optional<Value> element = readValue(depth + 1);
          if (!element) return std::nullopt;
          entries.set(std::move(*key), std::move(*element));
        }
        return Value(entries);
      }
      default: return problem(fmt::format("unknown kind {:#04x}", static_cast<unsigned char>(tag)));
    }
  }
  std::optional<Value> problem(std::string what) {
    if (_problem.empty()) _problem = std::move(what);
    return std::nullopt;
  }

  std::string_view _bytes;
  std::size_t _at = 0;
  std::string _problem;
};

std::string encodeValue(const Value& value, const std::string& where) {
  std::string out(1, kEncodingMark);
  std::string error;
  if (!putValue(out, value, "", &error))
    raiseException(kInvalidArgumentException, where + ": cannot store the value: " + error);
  return out;
}

std::optional<Value> decodeValue(std::string_view bytes, std::string* error) {
  return ValueReader(bytes).read(error);
}

std::string encodeRecord(const Dictionary& record, const std::string& where) {
  return encodeValue(record, where);
}

std::optional<Dictionary> decodeRecord(std::string_view bytes, std::string* error) {
  std::optional<Value> value = decodeValue(bytes, error);
  if (!value) return std::nullopt;
  if (!value->isDictionary()) {
    setError(error, fmt::format("a record is a dictionary, not a {}", value->kindName()));
    return std::nullopt;
  }
  return value->dictionary();
}

// The data class an entity belongs to: the engine's answer, else the part of
// the name before its first dot ("Calendars" for "Calendars.Event").
std::string dataClassOfEntity(const std::string& entityName) {
  if (auto dataClass = SyncEngineManager::sharedManager()->dataClassNameForEntityName(entityName))
    return *dataClass;
  return entityName.substr(0, entityName.find('.'));
}

// What version 2 added to version 1 (records and clients only): the change
// counter, the indexes that let a sync find the records of a data class or
// changed since a count without reading them, the deletions, and the sync
// state of the phones.
constexpr const char* kAddedInVersion2 = R"sql(
CREATE TABLE meta(key TEXT PRIMARY KEY, value INTEGER NOT NULL);
CREATE INDEX records_by_entity ON records(entity);
CREATE INDEX records_by_data_class ON records(data_class);
CREATE INDEX records_by_change ON records(changed);
CREATE TABLE deletions(identifier TEXT PRIMARY KEY, entity TEXT NOT NULL,
                       changed INTEGER NOT NULL);
CREATE INDEX deletions_by_change ON deletions(changed);
CREATE TABLE synced_entries(client TEXT NOT NULL, engine_id TEXT NOT NULL, phone_id TEXT NOT NULL,
                            entity TEXT NOT NULL, data_class TEXT NOT NULL,
                            engine_form TEXT NOT NULL, phone_form TEXT NOT NULL,
                            PRIMARY KEY(client, phone_id));
CREATE INDEX synced_entries_by_engine_id ON synced_entries(client, engine_id);
CREATE TABLE anchors(client TEXT NOT NULL, data_class TEXT NOT NULL, anchor TEXT NOT NULL,
                     PRIMARY KEY(client, data_class));
)sql";

// The layout of the current version, with kAddedInVersion2. Records carry
// their entity and data class in columns so that a sync finds those of a data
// class without reading them; `changed` is the change counter's value of
// their last change.
constexpr const char* kCreateSchema = R"sql(
CREATE TABLE records(identifier TEXT PRIMARY KEY, entity TEXT NOT NULL,
                     data_class TEXT NOT NULL, record TEXT NOT NULL, changed INTEGER NOT NULL);
CREATE TABLE clients(client TEXT PRIMARY KEY, display_name TEXT NOT NULL, enabled TEXT NOT NULL);
CREATE TABLE client_values(client TEXT NOT NULL, key TEXT NOT NULL, value TEXT NOT NULL,
                           PRIMARY KEY(client, key));
)sql";

// From version 1, before kAddedInVersion2: records gain their data class and
// change stamp, and every record counts as changed once (so the first sync
// after the upgrade considers them all).
constexpr const char* kMigrateFrom1 = R"sql(
ALTER TABLE records ADD COLUMN data_class TEXT NOT NULL DEFAULT '';
ALTER TABLE records ADD COLUMN changed INTEGER NOT NULL DEFAULT 1;
UPDATE records SET data_class = CASE WHEN instr(entity, '.') > 0
                                     THEN substr(entity, 1, instr(entity, '.') - 1)
                                     ELSE entity END;
)sql";

}  // namespace

// A prepared statement from the store's cache, reset and unbound when it goes
// out of scope. Failures raise, naming the file.
class SqliteEngine::Statement {
 public:
  Statement(const SqliteEngine& engine, sqlite3_stmt* statement)
      : _engine(engine), _statement(statement) {}
  ~Statement() {
    sqlite3_reset(_statement);
    sqlite3_clear_bindings(_statement);
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int index, std::string_view text) {
    check(sqlite3_bind_text(_statement, index, text.data(), static_cast<int>(text.size()),
                            SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(int index, std::int64_t number) {
    check(sqlite3_bind_int64(_statement, index, number));
    return *this;
  }
  // True while there is a row; false when done.
  bool next() {
    const int rc = sqlite3_step(_statement);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    _engine.fail("cannot read or write the store");
  }
  void run() {
    while (next()) {
    }
  }
  std::string text(int column) const {
    const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(_statement, column));
    return bytes ? std::string(bytes, static_cast<std::size_t>(sqlite3_column_bytes(_statement, column)))
                 : std::string();
  }
  std::int64_t integer(int column) const { return sqlite3_column_int64(_statement, column); }

 private:
  void check(int rc) const {
    if (rc != SQLITE_OK) _engine.fail("cannot prepare a statement");
  }
  const SqliteEngine& _engine;
  sqlite3_stmt* _statement;
};

// --- opening --------------------------------------------------------------------

std::shared_ptr<SqliteEngine> SqliteEngine::engineWithPath(const std::string& path,
                                                           std::string* error, bool create) {
  std::error_code code;
  const bool exists = std::filesystem::exists(path, code);
  if (exists && std::filesystem::is_directory(path, code)) {
    setError(error, path + ": a folder, not a store");
    return nullptr;
  }
  if (!exists && !create) {
    setError(error, path + ": no such store");
    return nullptr;
  }
  sqlite3* db = nullptr;
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX | (create ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    setError(error, path + ": cannot open the store: " + (db ? sqlite3_errmsg(db) : "out of memory"));
    sqlite3_close(db);
    return nullptr;
  }
  std::shared_ptr<SqliteEngine> engine(new SqliteEngine(path, db));
  if (!engine->prepare(error)) return nullptr;
  return engine;
}

SqliteEngine::SqliteEngine(std::string path, sqlite3* db) : _path(std::move(path)), _db(db) {}

SqliteEngine::~SqliteEngine() {
  for (auto& entry : _statements) sqlite3_finalize(entry.second);
  sqlite3_close(_db);
}

// Reads the file's identity and version, then creates, migrates or refuses.
bool SqliteEngine::prepare(std::string* error) {
  sqlite3_busy_timeout(_db, 5000);
  sqlite3_extended_result_codes(_db, 1);
  auto pragmaNumber = [this](const char* sql, std::int64_t* out) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(_db, sql, -1, &statement, nullptr) != SQLITE_OK) return false;
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) *out = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return rc == SQLITE_ROW;
  };
  std::int64_t applicationId = 0, version = 0, tables = 0;
  if (!pragmaNumber("PRAGMA application_id", &applicationId) ||
      !pragmaNumber("PRAGMA user_version", &version) ||
      !pragmaNumber("SELECT count(*) FROM sqlite_master", &tables)) {
    setError(error, _path + ": not a store (" + sqlite3_errmsg(_db) + ")");
    return false;
  }
  const bool fresh = applicationId == 0 && version == 0 && tables == 0;
  if (!fresh && applicationId != kApplicationId) {
    setError(error, _path + ": not a store (an SQLite file of another program)");
    return false;
  }
  if (version > kSchemaVersion) {
    setError(error, fmt::format("{}: written by a newer version of this program (store version {}; "
                                "this one reads versions up to {})",
                                _path, version, kSchemaVersion));
    return false;
  }
  if (!fresh && version < 1) {
    setError(error, _path + ": not a store (no store version)");
    return false;
  }
  // WAL: readers do not block the writer, and a write interrupted at any
  // point leaves the last committed state.
  if (sqlite3_exec(_db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr,
                   nullptr) != SQLITE_OK) {
    setError(error, _path + ": cannot open the store: " + sqlite3_errmsg(_db));
    return false;
  }
  if (fresh) return createSchema(error);
  if (version < kSchemaVersion) return migrateFromVersion(static_cast<int>(version), error);
  return true;
}

bool SqliteEngine::createSchema(std::string* error) {
  const std::string sql = fmt::format("BEGIN IMMEDIATE; {} {} "
                                      "INSERT INTO meta(key, value) VALUES('change_counter', 0); "
                                      "PRAGMA application_id={}; PRAGMA user_version={}; COMMIT;",
                                      kCreateSchema, kAddedInVersion2, kApplicationId,
                                      kSchemaVersion);
  char* message = nullptr;
  if (sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    setError(error, _path + ": cannot create the store: " + (message ? message : "unknown error"));
    sqlite3_free(message);
    sqlite3_exec(_db, "ROLLBACK", nullptr, nullptr, nullptr);
    return false;
  }
  return true;
}

bool SqliteEngine::migrateFromVersion(int version, std::string* error) {
  std::string steps;
  if (version == 1)
    steps = fmt::format("{} {} INSERT INTO meta(key, value) VALUES('change_counter', 1);",
                        kMigrateFrom1, kAddedInVersion2);
  const std::string sql = fmt::format("BEGIN IMMEDIATE; {} PRAGMA user_version={}; COMMIT;", steps,
                                      kSchemaVersion);
  char* message = nullptr;
  if (sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    setError(error, fmt::format("{}: cannot upgrade the store from version {}: {}", _path, version,
                                message ? message : "unknown error"));
    sqlite3_free(message);
    sqlite3_exec(_db, "ROLLBACK", nullptr, nullptr, nullptr);
    return false;
  }
  QVT_LOG(kLogInfo, storeLogDomain(), "{}: upgraded from store version {} to {}", _path, version,
          kSchemaVersion);
  // The data classes the upgrade guessed from entity names are set right
  // from the engine's schema.
  try {
    Transaction transaction(*this);
    std::vector<std::string> entities;
    {
      Statement select = statement("SELECT DISTINCT entity FROM records");
      while (select.next()) entities.push_back(select.text(0));
    }
    for (const std::string& entity : entities)
      statement("UPDATE records SET data_class = ?1 WHERE entity = ?2")
          .bind(1, dataClassOfEntity(entity))
          .bind(2, entity)
          .run();
    transaction.commit();
  } catch (const Exception& e) {
    setError(error, e.reason());
    return false;
  }
  return true;
}

std::string SqliteEngine::storedFormOfValue(const Value& value) {
  return encodeValue(value, "value");
}

std::optional<Value> SqliteEngine::valueFromStoredForm(std::string_view bytes, std::string* error) {
  return decodeValue(bytes, error);
}

int SqliteEngine::schemaVersion() const {
  std::lock_guard lock(_lock);
  Statement select = statement("PRAGMA user_version");
  return select.next() ? static_cast<int>(select.integer(0)) : 0;
}

std::string SqliteEngine::check() const { return checkFrom(std::nullopt); }

std::string SqliteEngine::checkChangedSince(std::int64_t counter) const { return checkFrom(counter); }

std::string SqliteEngine::checkFrom(std::optional<std::int64_t> changedAfter) const {
  std::lock_guard lock(_lock);
  try {
    if (!changedAfter) {
      Statement integrity = statement("PRAGMA quick_check");
      while (integrity.next()) {
        if (const std::string result = integrity.text(0); result != "ok")
          return _path + ": the store is damaged: " + result;
      }
    }
    std::string problem;
    Statement records = statement(changedAfter ? "SELECT identifier, entity, record FROM records WHERE changed > ?1"
                                               : "SELECT identifier, entity, record FROM records");
    if (changedAfter) records.bind(1, *changedAfter);
    while (records.next()) {
      const std::string where = _path + ": records/" + records.text(0);
      std::optional<Dictionary> record = decodeRecord(records.text(2), &problem);
      if (!record) return where + ": " + problem;
      if (record->getString(kEngineRecordEntityNameKey) != records.text(1))
        return where + ": the record's \"" + kEngineRecordEntityNameKey + "\" is not " +
               records.text(1);
    }
    Statement values = statement("SELECT client, key, value FROM client_values");
    while (values.next())
      if (!decodeValue(values.text(2), &problem))
        return _path + ": clients/" + values.text(0) + "/" + values.text(1) + ": " + problem;
    if (!changedAfter) {
      Statement entries =
          statement("SELECT client, engine_id, engine_form, phone_form FROM synced_entries");
      while (entries.next())
        for (int column : {2, 3})
          if (!decodeRecord(entries.text(column), &problem))
            return _path + ": phones/" + entries.text(0) + "/" + entries.text(1) + ": " + problem;
    }
    Statement anchors = statement("SELECT client, data_class, anchor FROM anchors");
    while (anchors.next())
      if (!decodeValue(anchors.text(2), &problem))
        return _path + ": phones/" + anchors.text(0) + "/anchors/" + anchors.text(1) + ": " +
               problem;
  } catch (const Exception& e) {
    return e.reason();
  }
  return {};
}

// --- plumbing ---------------------------------------------------------------------

SqliteEngine::Statement SqliteEngine::statement(const char* sql) const {
  auto it = _statements.find(sql);
  if (it == _statements.end()) {
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v3(_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr) != SQLITE_OK)
      fail("cannot read or write the store");
    it = _statements.emplace(sql, prepared).first;
  }
  return Statement(*this, it->second);
}

Array SqliteEngine::textColumn(const char* selectSql,
                               std::initializer_list<std::string_view> arguments) const {
  std::lock_guard lock(_lock);
  Statement select = statement(selectSql);
  int index = 0;
  for (std::string_view argument : arguments) select.bind(++index, argument);
  Array texts;
  while (select.next()) texts.add(select.text(0));
  return texts;
}

void SqliteEngine::execute(const char* sql) {
  if (sqlite3_exec(_db, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    fail("cannot read or write the store");
}

void SqliteEngine::fail(std::string_view what) const {
  raiseException(kSqliteStoreException,
                 fmt::format("{}: {}: {}", _path, what, sqlite3_errmsg(_db)));
}

void SqliteEngine::step(std::string_view name) {
  if (_failureHook) _failureHook(name);
}

void SqliteEngine::setFailureHook(std::function<void(std::string_view step)> hook) {
  std::lock_guard lock(_lock);
  _failureHook = std::move(hook);
}

std::int64_t SqliteEngine::nextChange() {
  statement("UPDATE meta SET value = value + 1 WHERE key = 'change_counter'").run();
  return changeCounter();
}

// --- transactions ----------------------------------------------------------------

SqliteEngine::Transaction::Transaction(SqliteEngine& engine)
    : _engine(engine), _lock(engine._lock), _depth(engine._transactionDepth) {
  // The outermost one takes the write lock at once, so that two writers
  // never meet half-way.
  const std::string sql =
      _depth == 0 ? std::string("BEGIN IMMEDIATE") : fmt::format("SAVEPOINT s{}", _depth);
  _engine.execute(sql.c_str());
  ++_engine._transactionDepth;
}

SqliteEngine::Transaction::~Transaction() {
  if (_done) return;
  const std::string sql = _depth == 0 ? std::string("ROLLBACK")
                                      : fmt::format("ROLLBACK TO s{0}; RELEASE s{0}", _depth);
  if (sqlite3_exec(_engine._db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    QVT_LOG(kLogError, storeLogDomain(), "{}: cannot undo a transaction: {}", _engine._path,
            sqlite3_errmsg(_engine._db));
  --_engine._transactionDepth;
}

void SqliteEngine::Transaction::commit() {
  if (_done) return;
  if (_depth == 0) _engine.step("commit");
  const std::string sql = _depth == 0 ? std::string("COMMIT") : fmt::format("RELEASE s{}", _depth);
  _engine.execute(sql.c_str());
  _done = true;
  --_engine._transactionDepth;
}

// --- records ---------------------------------------------------------------------

void SqliteEngine::addRecord(const std::string& identifier, const Dictionary& record) {
  const std::string entity = record.getString(kEngineRecordEntityNameKey);
  if (entity.empty())
    raiseException(kInvalidArgumentException, fmt::format("{}: records/{}: the record has no \"{}\"",
                                                          _path, identifier,
                                                          kEngineRecordEntityNameKey));
  const std::string text = encodeRecord(record, _path + ": records/" + identifier);
  Transaction transaction(*this);
  step("record");
  const std::int64_t change = nextChange();
  statement("INSERT OR REPLACE INTO records(identifier, entity, data_class, record, changed) "
            "VALUES(?1, ?2, ?3, ?4, ?5)")
      .bind(1, identifier)
      .bind(2, entity)
      .bind(3, dataClassOfEntity(entity))
      .bind(4, text)
      .bind(5, change)
      .run();
  statement("DELETE FROM deletions WHERE identifier = ?1").bind(1, identifier).run();
  transaction.commit();
}

void SqliteEngine::removeRecord(const std::string& identifier) {
  Transaction transaction(*this);
  const std::string entity = entityNameOfRecord(identifier);
  {
    Statement exists = statement("SELECT 1 FROM records WHERE identifier = ?1");
    if (!exists.bind(1, identifier).next()) return;
  }
  step("delete");
  const std::int64_t change = nextChange();
  statement("DELETE FROM records WHERE identifier = ?1").bind(1, identifier).run();
  statement("INSERT OR REPLACE INTO deletions(identifier, entity, changed) VALUES(?1, ?2, ?3)")
      .bind(1, identifier)
      .bind(2, entity)
      .bind(3, change)
      .run();
  transaction.commit();
}

std::optional<Dictionary> SqliteEngine::recordWithIdentifier(const std::string& identifier) const {
  std::lock_guard lock(_lock);
  Statement select = statement("SELECT record FROM records WHERE identifier = ?1");
  if (!select.bind(1, identifier).next()) return std::nullopt;
  std::string error;
  std::optional<Dictionary> record = decodeRecord(select.text(0), &error);
  if (!record)
    QVT_LOG(kLogError, storeLogDomain(), "{}: records/{}: {}", _path, identifier, error);
  return record;
}

std::string SqliteEngine::entityNameOfRecord(const std::string& identifier) const {
  std::lock_guard lock(_lock);
  Statement select = statement("SELECT entity FROM records WHERE identifier = ?1");
  return select.bind(1, identifier).next() ? select.text(0) : std::string();
}

Array SqliteEngine::recordIdentifiersForEntityName(const std::string& entityName) const {
  return textColumn("SELECT identifier FROM records WHERE entity = ?1 ORDER BY identifier",
                    {entityName});
}

Array SqliteEngine::recordIdentifiersForDataClassName(const std::string& dataClassName) const {
  return textColumn("SELECT identifier FROM records WHERE data_class = ?1 ORDER BY identifier",
                    {dataClassName});
}

Array SqliteEngine::recordIdentifiers() const {
  return textColumn("SELECT identifier FROM records ORDER BY identifier");
}

std::size_t SqliteEngine::count() const {
  std::lock_guard lock(_lock);
  Statement select = statement("SELECT count(*) FROM records");
  return select.next() ? static_cast<std::size_t>(select.integer(0)) : 0;
}

Dictionary SqliteEngine::recordsWithIdentifiers(const Array& identifiers) const {
  Dictionary records;
  for (const Value& identifier : identifiers) {
    if (!identifier.isString()) continue;
    if (auto record = recordWithIdentifier(identifier.string())) records.set(identifier, *record);
  }
  return records;
}

Array SqliteEngine::targetIdentifiersForRelationshipName(const std::string& relationshipName,
                                                         const std::string& sourceIdentifier) const {
  std::optional<Dictionary> record = recordWithIdentifier(sourceIdentifier);
  if (!record) return Array();
  auto targets = record->getArray(relationshipName);
  return targets ? *targets : Array();
}

// --- change counter -----------------------------------------------------------------

std::int64_t SqliteEngine::changeCounter() const {
  std::lock_guard lock(_lock);
  Statement select = statement("SELECT value FROM meta WHERE key = 'change_counter'");
  return select.next() ? select.integer(0) : 0;
}

std::vector<StoreChange> SqliteEngine::changesSince(std::int64_t counter) const {
  std::lock_guard lock(_lock);
  std::vector<StoreChange> changes;
  Statement select = statement(
      "SELECT identifier, entity, 0, changed FROM records WHERE changed > ?1 "
      "UNION ALL SELECT identifier, entity, 1, changed FROM deletions WHERE changed > ?1 "
      "ORDER BY 4");
  select.bind(1, counter);
  while (select.next())
    changes.push_back({select.text(0), select.text(1), select.integer(2) != 0, select.integer(3)});
  return changes;
}

// --- clients ----------------------------------------------------------------------

std::shared_ptr<SqliteSyncEngineClient> SqliteEngine::clientWithIdentifier(
    const std::string& identifier, const std::string& displayName, const Array& supportedEntityNames) {
  {
    Transaction transaction(*this);
    statement("INSERT INTO clients(client, display_name, enabled) VALUES(?1, ?2, ?3) "
              "ON CONFLICT(client) DO UPDATE SET display_name = excluded.display_name")
        .bind(1, identifier)
        .bind(2, displayName)
        .bind(3, encodeValue(Array(), _path))
        .run();
    transaction.commit();
  }
  return std::make_shared<SqliteSyncEngineClient>(shared_from_this(), identifier, displayName,
                                                  supportedEntityNames);
}

Array SqliteEngine::clientIdentifiers() const {
  return textColumn("SELECT client FROM clients ORDER BY client");
}

// --- values kept per client and key ------------------------------------------------
//
// Client values and anchors are both one stored value under a (client, key)
// pair; they differ in their table and in how a damaged value is answered.

std::optional<Value> SqliteEngine::keyedValue(const char* selectSql, const std::string& client,
                                              const std::string& key, std::string* error) const {
  std::lock_guard lock(_lock);
  Statement select = statement(selectSql);
  if (!select.bind(1, client).bind(2, key).next()) return Value();
  return decodeValue(select.text(0), error);
}

void SqliteEngine::setKeyedValue(const KeyedValueTable& table, const std::string& client,
                                 const std::string& key, const Value& value,
                                 const std::string& where) {
  const std::string text = value.isNull() ? std::string() : encodeValue(value, where);
  Transaction transaction(*this);
  step(table.step);
  if (value.isNull())
    statement(table.deleteSql).bind(1, client).bind(2, key).run();
  else
    statement(table.insertSql).bind(1, client).bind(2, key).bind(3, text).run();
  transaction.commit();
}

namespace {
constexpr const char* kSelectClientValue =
    "SELECT value FROM client_values WHERE client = ?1 AND key = ?2";
constexpr const char* kDeleteClientValue = "DELETE FROM client_values WHERE client = ?1 AND key = ?2";
constexpr const char* kInsertClientValue =
    "INSERT OR REPLACE INTO client_values(client, key, value) VALUES(?1, ?2, ?3)";
constexpr const char* kSelectAnchor = "SELECT anchor FROM anchors WHERE client = ?1 AND data_class = ?2";
constexpr const char* kDeleteAnchor = "DELETE FROM anchors WHERE client = ?1 AND data_class = ?2";
constexpr const char* kInsertAnchor =
    "INSERT OR REPLACE INTO anchors(client, data_class, anchor) VALUES(?1, ?2, ?3)";
}  // namespace

Value SqliteEngine::clientValue(const std::string& client, const std::string& key) const {
  std::string error;
  if (std::optional<Value> value = keyedValue(kSelectClientValue, client, key, &error)) return *value;
  QVT_LOG(kLogError, storeLogDomain(), "{}: clients/{}/{}: {}", _path, client, key, error);
  return Value();
}

void SqliteEngine::setClientValue(const std::string& client, const std::string& key,
                                  const Value& value) {
  setKeyedValue({kInsertClientValue, kDeleteClientValue, "value"}, client, key, value,
                _path + ": clients/" + client + "/" + key);
}

Array SqliteEngine::enabledEntities(const std::string& client) const {
  std::lock_guard lock(_lock);
  Statement select = statement("SELECT enabled FROM clients WHERE client = ?1");
  if (!select.bind(1, client).next()) return Array();
  std::string error;
  std::optional<Value> value = decodeValue(select.text(0), &error);
  if (!value || !value->isArray()) {
    QVT_LOG(kLogError, storeLogDomain(), "{}: clients/{}/enabled: {}", _path, client,
            value ? std::string("not a list") : error);
    return Array();
  }
  return value->array();
}

void SqliteEngine::setEnabledEntities(const std::string& client, const Array& value) {
  const std::string text = encodeValue(value, _path + ": clients/" + client + "/enabled");
  Transaction transaction(*this);
  step("value");
  statement("UPDATE clients SET enabled = ?2 WHERE client = ?1").bind(1, client).bind(2, text).run();
  transaction.commit();
}

// --- sync state -----------------------------------------------------------------------

namespace {
constexpr const char* kEntryColumns = "engine_id, phone_id, entity, engine_form, phone_form";
}  // namespace

namespace {
// The entry of a row of kEntryColumns; raises, naming the file and the entry,
// when either form is damaged.
template <class Row>
SyncedEntry entryFromRow(const std::string& path, const std::string& client, const Row& row,
                         bool forms = true) {
  std::string error;
  auto engineForm = forms ? decodeRecord(row.text(3), &error) : std::optional<Dictionary>(Dictionary());
  auto phoneForm = !engineForm ? std::nullopt
                   : forms     ? decodeRecord(row.text(4), &error)
                               : std::optional<Dictionary>(Dictionary());
  if (!engineForm || !phoneForm)
    raiseException(kSqliteStoreException,
                   fmt::format("{}: phones/{}/{}: {}", path, client, row.text(0), error));
  return SyncedEntry{row.text(0), row.text(1), row.text(2), std::move(*engineForm),
                     std::move(*phoneForm)};
}
}  // namespace

std::vector<SyncedEntry> SqliteEngine::syncedEntries(const std::string& client,
                                                     const std::string& dataClassName) const {
  std::lock_guard lock(_lock);
  static const std::string all = fmt::format(
      "SELECT {} FROM synced_entries WHERE client = ?1 ORDER BY phone_id", kEntryColumns);
  static const std::string ofClass = fmt::format(
      "SELECT {} FROM synced_entries WHERE client = ?1 AND data_class = ?2 ORDER BY phone_id",
      kEntryColumns);
  Statement select = statement(dataClassName.empty() ? all.c_str() : ofClass.c_str());
  select.bind(1, client);
  if (!dataClassName.empty()) select.bind(2, dataClassName);
  std::vector<SyncedEntry> entries;
  while (select.next()) entries.push_back(entryFromRow(_path, client, select));
  return entries;
}

std::vector<SyncedEntry> SqliteEngine::syncedEntriesWithoutForms(const std::string& client) const {
  std::lock_guard lock(_lock);
  static const char* const all =
      "SELECT engine_id, phone_id, entity, NULL, NULL FROM synced_entries WHERE client = ?1 "
      "ORDER BY phone_id";
  Statement select = statement(all);
  select.bind(1, client);
  std::vector<SyncedEntry> entries;
  while (select.next()) entries.push_back(entryFromRow(_path, client, select, false));
  return entries;
}

std::optional<SyncedEntry> SqliteEngine::syncedEntry(const char* selectSql, const std::string& client,
                                                     const std::string& identifier) const {
  std::lock_guard lock(_lock);
  Statement select = statement(selectSql);
  if (!select.bind(1, client).bind(2, identifier).next()) return std::nullopt;
  return entryFromRow(_path, client, select);
}

std::optional<SyncedEntry> SqliteEngine::syncedEntryForEngineIdentifier(
    const std::string& client, const std::string& identifier) const {
  static const std::string sql = fmt::format(
      "SELECT {} FROM synced_entries WHERE client = ?1 AND engine_id = ?2 ORDER BY phone_id LIMIT 1",
      kEntryColumns);
  return syncedEntry(sql.c_str(), client, identifier);
}

std::optional<SyncedEntry> SqliteEngine::syncedEntryForPhoneIdentifier(
    const std::string& client, const std::string& identifier) const {
  static const std::string sql = fmt::format(
      "SELECT {} FROM synced_entries WHERE client = ?1 AND phone_id = ?2", kEntryColumns);
  return syncedEntry(sql.c_str(), client, identifier);
}

void SqliteEngine::setSyncedEntry(const std::string& client, const SyncedEntry& entry) {
  const std::string where = _path + ": phones/" + client + "/" + entry.engineIdentifier;
  const std::string engineText = encodeRecord(entry.engineForm, where);
  const std::string phoneText = encodeRecord(entry.phoneForm, where);
  Transaction transaction(*this);
  step("entry");
  statement("INSERT OR REPLACE INTO synced_entries(client, engine_id, phone_id, entity, data_class, "
            "engine_form, phone_form) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)")
      .bind(1, client)
      .bind(2, entry.engineIdentifier)
      .bind(3, entry.phoneIdentifier)
      .bind(4, entry.entityName)
      .bind(5, dataClassOfEntity(entry.entityName))
      .bind(6, engineText)
      .bind(7, phoneText)
      .run();
  transaction.commit();
}

void SqliteEngine::removeSyncedEntry(const std::string& client, const std::string& phoneIdentifier) {
  Transaction transaction(*this);
  step("entry");
  statement("DELETE FROM synced_entries WHERE client = ?1 AND phone_id = ?2")
      .bind(1, client)
      .bind(2, phoneIdentifier)
      .run();
  transaction.commit();
}

void SqliteEngine::resetSyncState(const std::string& client, const std::string& dataClassName) {
  Transaction transaction(*this);
  step("entry");
  const bool allClasses = dataClassName.empty();
  for (const char* sql : {allClasses ? "DELETE FROM synced_entries WHERE client = ?1"
                                     : "DELETE FROM synced_entries WHERE client = ?1 AND data_class = ?2",
                          allClasses ? "DELETE FROM anchors WHERE client = ?1" : kDeleteAnchor}) {
    Statement remove = statement(sql);
    remove.bind(1, client);
    if (!allClasses) remove.bind(2, dataClassName);
    remove.run();
  }
  transaction.commit();
}

Value SqliteEngine::anchor(const std::string& client, const std::string& dataClassName) const {
  std::string error;
  std::optional<Value> value = keyedValue(kSelectAnchor, client, dataClassName, &error);
  if (!value)
    raiseException(kSqliteStoreException,
                   fmt::format("{}: phones/{}/anchors/{}: {}", _path, client, dataClassName, error));
  return *value;
}

void SqliteEngine::setAnchor(const std::string& client, const std::string& dataClassName,
                             const Value& anchor) {
  setKeyedValue({kInsertAnchor, kDeleteAnchor, "anchor"}, client, dataClassName, anchor,
                _path + ": phones/" + client + "/anchors/" + dataClassName);
}

// --- SqliteSyncEngineClient ---------------------------------------------------------

SqliteSyncEngineClient::SqliteSyncEngineClient(std::shared_ptr<SqliteEngine> engine,
                                               std::string identifier, std::string displayName,
                                               Array supportedEntityNames)
    : _engine(std::move(engine)),
      _identifier(std::move(identifier)),
      _displayName(std::move(displayName)),
      _supported(supportedEntityNames.deepCopy()) {}

Value SqliteSyncEngineClient::objectForKey(const std::string& key) const {
  return _engine->clientValue(_identifier, key);
}

void SqliteSyncEngineClient::setObject(const Value& value, const std::string& key) {
  _engine->setClientValue(_identifier, key, value);
}

Array SqliteSyncEngineClient::enabledEntityNames() const {
  Array enabled;
  for (const Value& name : _engine->enabledEntities(_identifier))
    if (_supported.contains(name) && !enabled.contains(name)) enabled.add(name);
  return enabled;
}

void SqliteSyncEngineClient::setEnabled(bool enabled, const Array& entityNames) {
  Array stored = _engine->enabledEntities(_identifier);
  for (const Value& name : entityNames) {
    if (!_supported.contains(name)) continue;
    if (enabled && !stored.contains(name)) stored.add(name.deepCopy());
    if (!enabled) stored.remove(name);
  }
  _engine->setEnabledEntities(_identifier, stored);
}

}  // namespace pc
