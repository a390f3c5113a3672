#include "host/PhoneStore.h"

#include <filesystem>

#include "engine/SchemaNames.h"
#include "platform/FileIO.h"
#include "util/PHCMangling.h"

namespace pc {

namespace {

constexpr const char* kDataClassKey = "DataClass";
constexpr const char* kRecordsKey = "Records";
constexpr const char* kIdentifierKey = "identifier";
constexpr const char* kFieldsKey = "fields";

void setError(std::string* error, std::string text) {
  if (error) *error = std::move(text);
}

}  // namespace

std::string PhoneStore::pathForDataClass(const std::string& dataClass) const {
  return (std::filesystem::path(_directory) / (dataClass + ".plist")).string();
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
  std::optional<PhoneStoreContents> contents = contentsFromBytes(*text, path, error);
  if (contents && contents->dataClass != dataClass) {
    setError(error, path + ": " + kDataClassKey + ": holds \"" + contents->dataClass +
                        "\", not \"" + dataClass + "\"");
    return std::nullopt;
  }
  return contents;
}

PhoneStore::WriteResult PhoneStore::write(const PhoneStoreContents& contents, std::string* error) {
  const std::string path = pathForDataClass(contents.dataClass);
  std::optional<std::string> bytes = bytesForContents(contents, error);
  if (!bytes) {
    if (error) *error = path + ": " + *error;
    return WriteResult::failed;
  }
  if (std::optional<std::string> old = readWholeFile(path); old && *old == *bytes)
    return WriteResult::unchanged;
  std::error_code code;
  std::filesystem::create_directories(_directory, code);
  if (code) {
    setError(error, _directory + ": cannot create the phone store: " + code.message());
    return WriteResult::failed;
  }
  AtomicWriteOptions options;
  options.interruptAfter = _interruptAfter;
  return writeFileAtomically(path, *bytes, error, options) ? WriteResult::written
                                                         : WriteResult::failed;
}

}  // namespace pc
