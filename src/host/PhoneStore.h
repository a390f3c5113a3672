#pragma once
// The simulated phone's persistent store: what the phone holds of each data
// class, one property-list file per data class in the store's folder
// ("Contacts.plist", "Calendars.plist"), in the record files' text form so
// that dates keep their zone and a user can edit an entry by hand.
//
// A file is a dictionary: "DataClass" -> its name, "Records" -> a list of
// { "identifier" -> the phone's record identifier, "entityName" -> the
// engine entity, "fields" -> the record as the phone holds it }.
//
// Writes are atomic: the text goes to a temporary file in the same folder,
// is flushed to the disk and renamed over the old file, so a write that is
// interrupted leaves the old file whole and no temporary file. A rewritten
// file keeps its permission bits; a new one follows the umask. A file that
// does not read gives an error that names it and says why; nothing else is
// touched. (platform/FileIO does the file work, for every store.)
//
//   PhoneStore store("phone");
//   std::string error;
//   auto contents = store.read("Contacts", &error);   // nullopt: error
//   store.write(*contents, &error);

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Value.h"

namespace pc {

class PhoneStoreFormat;

struct PhoneStoreRecord {
  std::string identifier;
  std::string entity;
  Dictionary fields;
};

struct PhoneStoreContents {
  std::string dataClass;
  std::vector<PhoneStoreRecord> records;
};

class PhoneStore {
 public:
  enum class WriteResult { unchanged, written, failed };

  explicit PhoneStore(std::string directory) : _directory(std::move(directory)) {}

  const std::string& directory() const { return _directory; }
  // Keeps the data class in `format` (its parser's: "<data class>.vcf" of
  // vCards...) rather than in the store's property list. Lines the format
  // skips when reading are logged with the file and line; an entry without
  // an identifier (added on the phone by hand) is given "new-<n>".
  void setFormat(const std::string& dataClass, std::shared_ptr<const PhoneStoreFormat> format);
  std::string pathForDataClass(const std::string& dataClass) const;
  bool hasDataClass(const std::string& dataClass) const;

  // The contents of one store file's bytes; nullopt with `error` saying what
  // is wrong and where ("<fileName>: Records/2/identifier: ...").
  static std::optional<PhoneStoreContents> contentsFromBytes(std::string_view bytes,
                                                             const std::string& fileName,
                                                             std::string* error = nullptr);
  // The bytes of a store file; nullopt with `error` when a record holds a
  // value a property list cannot.
  static std::optional<std::string> bytesForContents(const PhoneStoreContents& contents,
                                                     std::string* error = nullptr);

  // What the phone holds of the data class: empty when it holds nothing yet;
  // nullopt with `error` (naming the file) when the file cannot be read or is
  // corrupt or truncated.
  std::optional<PhoneStoreContents> read(const std::string& dataClass,
                                         std::string* error = nullptr) const;
  // Replaces the data class's file atomically. A file that already holds
  // these bytes is left alone (unchanged). The folder is created when missing.
  WriteResult write(const PhoneStoreContents& contents, std::string* error = nullptr);
  // The two halves of `write`, for a caller that keeps a digest of what it
  // wrote: the file's bytes for the contents (nullopt with `error` when a
  // record cannot be written), and the writing of them.
  std::optional<std::string> bytesFor(const PhoneStoreContents& contents,
                                      std::string* error = nullptr) const;
  WriteResult writeBytes(const std::string& dataClass, const std::string& bytes,
                         std::string* error = nullptr);
  // The text of one entry of the data class's file, when the file is its
  // entries' texts in order (bytesForEntryTexts); nullopt when it is not
  // (the store's property list, entries written against the whole file).
  std::optional<std::string> entryText(const std::string& dataClass,
                                       const PhoneStoreRecord& record) const;
  // The file's bytes for the entries' texts: what `bytesFor` gives for the
  // entries themselves.
  std::string bytesForEntryTexts(const std::string& dataClass,
                                 const std::vector<std::string>& entries) const;
  // The entries' texts of a file of the data class written as
  // bytesForEntryTexts writes, in file order; nullopt for any other file.
  std::optional<std::vector<std::string_view>> entryTextsOfFile(const std::string& dataClass,
                                                                std::string_view bytes) const;
  // The one entry an entry's text holds, as `read` gives it within its file;
  // nullopt unless it reads as exactly one entry, with its identifier and
  // without a line skipped (nothing is logged).
  std::optional<PhoneStoreRecord> entryFromText(const std::string& dataClass,
                                                const std::string& text) const;
  // What `read` gives for a file of these bytes.
  std::optional<PhoneStoreContents> contentsFromFileBytes(const std::string& dataClass,
                                                          std::string_view bytes,
                                                          std::string* error = nullptr) const;

  // Makes the next writes stop after `bytes` bytes of the temporary file, as
  // a full disk would, and fail; nullopt writes normally again.
  void interruptWritesAfter(std::optional<std::size_t> bytes) { _interruptAfter = bytes; }

 private:
  std::optional<PhoneStoreContents> contentsOf(const std::string& dataClass, std::string_view bytes,
                                               const std::string& path, std::string* error) const;
  std::optional<std::string> bytesOf(const PhoneStoreContents& contents, std::string* error) const;

  std::string _directory;
  std::map<std::string, std::shared_ptr<const PhoneStoreFormat>> _formats;
  std::optional<std::size_t> _interruptAfter;
};

}  // namespace pc
