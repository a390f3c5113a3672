#include "host/PhoneStore.h"

#include <filesystem>
#include <set>

#include "async/Log.h"
#include "engine/SchemaNames.h"
#include "host/PhoneStoreFormat.h"
#include "platform/FileIO.h"
#include "util/PHCMangling.h"

namespace pc {

namespace {

constexpr const char* kDataClassKey = "DataClass";
constexpr const char* kRecordsKey = "Records";
constexpr const char* kIdentifierKey = "identifier";
constexpr const char* kFieldsKey = "fields";

const std::string& storeLogDomain() {
  static const std::string domain = ".sync.PhoneStore";
  return domain;
}

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

}  // namespace

void PhoneStore::setFormat(const std::string& dataClass, std::shared_ptr<const PhoneStoreFormat> format) {
  if (format) _formats[dataClass] = std::move(format);
  else _formats.erase(dataClass);
}

std::string PhoneStore::pathForDataClass(const std::string& dataClass) const {
  const auto format = _formats.find(dataClass);
  const std::string extension = format == _formats.end() ? "plist" : format->second->fileExtension();
  return (std::filesystem::path(_directory) / (dataClass + "." + extension)).string();
}

namespace {

// The key by which an inlined sub-record names its master ("contact",
// "owner"), which the phone's formats leave out: it is the entry's own
// identifier.
const char* backRelationKey(const std::string& entity) {
  return entity.rfind("Contacts.", 0) == 0 ? "contact" : "owner";
}

// Calls `operation` on every inlined sub-record of `fields`.
template <class Operation>
void forEachSubRecord(const Dictionary& fields, Operation operation) {
  for (const auto& [key, value] : fields)
    if (std::optional<Array> list = value.asArray())
      for (const Value& item : *list)
        if (std::optional<Dictionary> sub = item.asDictionary()) operation(*sub);
}

}  // namespace

std::optional<PhoneStoreContents> PhoneStore::contentsOf(const std::string& dataClass, std::string_view bytes,
                                                         const std::string& path, std::string* error) const {
  const auto format = _formats.find(dataClass);
  if (format == _formats.end()) return contentsFromBytes(bytes, path, error);
  VFormatReadResult read = format->second->contentsFromText(bytes);
  // A file cut short, or of which nothing reads, is not the phone's: the
  // run stops rather than take its entries for deleted.
  if ((read.cutShort || read.records.empty()) && !read.problems.empty()) {
    const ContentProblem& first = read.cutShort ? read.problems.back() : read.problems.front();
    setError(error, path + ": line " + std::to_string(first.line) + ": " + first.message);
    return std::nullopt;
  }
  for (const ContentProblem& problem : read.problems)
    QVT_LOG(kLogWarning, storeLogDomain(), "{}:{}: {}", path, problem.line, problem.message);
  std::set<std::string> identifiers;
  for (const PhoneStoreRecord& record : read.records) identifiers.insert(record.identifier);
  std::size_t next = 1;
  for (PhoneStoreRecord& record : read.records) {
    if (!record.identifier.empty()) continue;
    while (identifiers.count("new-" + std::to_string(next))) ++next;
    record.identifier = "new-" + std::to_string(next++);
  }
  for (PhoneStoreRecord& record : read.records) {
    const Array master{Value(record.identifier)};
    forEachSubRecord(record.fields, [&](Dictionary sub) { sub.set(backRelationKey(record.entity), master); });
  }
  return PhoneStoreContents{dataClass, std::move(read.records)};
}

std::optional<std::string> PhoneStore::bytesOf(const PhoneStoreContents& contents, std::string* error) const {
  const auto format = _formats.find(contents.dataClass);
  if (format == _formats.end()) return bytesForContents(contents, error);
  // The phone's formats write a sub-record's own fields by name and never
  // its back relation, so the records are written as they stand.
  return format->second->textForContents(contents);
}

std::optional<std::string> PhoneStore::entryText(const std::string& dataClass,
                                                 const PhoneStoreRecord& record) const {
  const auto format = _formats.find(dataClass);
  if (format == _formats.end()) return std::nullopt;
  return format->second->entryText(record);
}

std::string PhoneStore::bytesForEntryTexts(const std::string& dataClass,
                                           const std::vector<std::string>& entries) const {
  const auto format = _formats.find(dataClass);
  return format == _formats.end() ? std::string() : format->second->textForEntryTexts(entries);
}

std::optional<std::vector<std::string_view>> PhoneStore::entryTextsOfFile(
    const std::string& dataClass, std::string_view bytes) const {
  const auto format = _formats.find(dataClass);
  if (format == _formats.end()) return std::nullopt;
  return format->second->entryTextsOfFile(bytes);
}

std::optional<PhoneStoreRecord> PhoneStore::entryFromText(const std::string& dataClass,
                                                          const std::string& text) const {
  const auto format = _formats.find(dataClass);
  if (format == _formats.end()) return std::nullopt;
  VFormatReadResult read = format->second->contentsFromText(format->second->textForEntryTexts({text}));
  if (read.cutShort || !read.problems.empty() || read.records.size() != 1 ||
      read.records[0].identifier.empty())
    return std::nullopt;
  PhoneStoreRecord& record = read.records[0];
  const Array master{Value(record.identifier)};
  forEachSubRecord(record.fields, [&](Dictionary sub) { sub.set(backRelationKey(record.entity), master); });
  return std::move(record);
}

bool PhoneStore::hasDataClass(const std::string& dataClass) const {
  std::error_code ignored;
  return std::filesystem::exists(pathForDataClass(dataClass), ignored);
}

std::optional<PhoneStoreContents> PhoneStore::contentsFromBytes(std::string_view bytes,
                                                                const std::string& fileName,
                                                                std::string* error) {
  std::string problem;
  std::optional<Dictionary> top = recordFromText(bytes, &problem);
  if (!top) {
    setError(error, fileName + ": " + problem);
    return std::nullopt;
  }
  auto fail = [&](const std::string& where, const std::string& what) {
    setError(error, fileName + ": " + where + ": " + what);
    return std::nullopt;
  };
  PhoneStoreContents contents;
  const Value dataClass = top->get(kDataClassKey);
  if (!dataClass.isString()) return fail(kDataClassKey, "missing or not a string");
  contents.dataClass = dataClass.string();
  const Value records = top->get(kRecordsKey);
  if (!records.isArray()) return fail(kRecordsKey, "missing or not a list");
  std::size_t index = 0;
  for (const Value& element : records.array()) {
    const std::string where = std::string(kRecordsKey) + "/" + std::to_string(index++);
    auto record = element.asDictionary();
    if (!record) return fail(where, "not a dictionary");
    PhoneStoreRecord entry;
    const Value identifier = record->get(kIdentifierKey);
    if (!identifier.isString() || identifier.string().empty())
      return fail(where + "/" + kIdentifierKey, "missing or not a text");
    const Value entity = record->get(kEngineRecordEntityNameKey);
    if (!entity.isString() || entity.string().empty())
      return fail(where + "/" + kEngineRecordEntityNameKey, "missing or not a text");
    const Value fields = record->get(kFieldsKey);
    if (!fields.isDictionary()) return fail(where + "/" + kFieldsKey, "missing or not a dictionary");
    entry.identifier = identifier.string();
    entry.entity = entity.string();
    entry.fields = fields.dictionary();
    contents.records.push_back(std::move(entry));
  }
  return contents;
}

std::optional<std::string> PhoneStore::bytesForContents(const PhoneStoreContents& contents,
                                                        std::string* error) {
  Array records;
  for (const PhoneStoreRecord& record : contents.records)
    records.add(Value(Dictionary{{kIdentifierKey, record.identifier},
                                 {kEngineRecordEntityNameKey, record.entity},
                                 {kFieldsKey, Value(record.fields)}}));
  const Dictionary top{{kDataClassKey, contents.dataClass}, {kRecordsKey, Value(records)}};
  return recordText(top, error);
}

std::optional<PhoneStoreContents> PhoneStore::read(const std::string& dataClass,
                                                   std::string* error) const {
  const std::string path = pathForDataClass(dataClass);
  std::error_code code;
  const auto status = std::filesystem::symlink_status(path, code);
  if (status.type() == std::filesystem::file_type::not_found)
    return PhoneStoreContents{dataClass, {}};
  std::optional<std::string> text = readWholeFile(path, error);
  if (!text) return std::nullopt;
  return contentsFromFileBytes(dataClass, *text, error);
}

std::optional<PhoneStoreContents> PhoneStore::contentsFromFileBytes(const std::string& dataClass,
                                                                    std::string_view bytes,
                                                                    std::string* error) const {
  const std::string path = pathForDataClass(dataClass);
  std::optional<PhoneStoreContents> contents = contentsOf(dataClass, bytes, path, error);
  if (contents && contents->dataClass != dataClass) {
    setError(error, path + ": " + kDataClassKey + ": holds \"" + contents->dataClass +
                        "\", not \"" + dataClass + "\"");
    return std::nullopt;
  }
  return contents;
}

std::optional<std::string> PhoneStore::bytesFor(const PhoneStoreContents& contents,
                                                std::string* error) const {
  std::optional<std::string> bytes = bytesOf(contents, error);
  if (!bytes && error) *error = pathForDataClass(contents.dataClass) + ": " + *error;
  return bytes;
}

PhoneStore::WriteResult PhoneStore::write(const PhoneStoreContents& contents, std::string* error) {
  std::optional<std::string> bytes = bytesFor(contents, error);
  if (!bytes) return WriteResult::failed;
  return writeBytes(contents.dataClass, *bytes, error);
}

PhoneStore::WriteResult PhoneStore::writeBytes(const std::string& dataClass, const std::string& bytes,
                                               std::string* error) {
  const std::string path = pathForDataClass(dataClass);
  if (std::optional<std::string> old = readWholeFile(path); old && *old == bytes)
    return WriteResult::unchanged;
  std::error_code code;
  std::filesystem::create_directories(_directory, code);
  if (code) {
    setError(error, _directory + ": cannot create the phone store: " + code.message());
    return WriteResult::failed;
  }
  AtomicWriteOptions options;
  options.interruptAfter = _interruptAfter;
  return writeFileAtomically(path, bytes, error, options) ? WriteResult::written
                                                         : WriteResult::failed;
}

}  // namespace pc
