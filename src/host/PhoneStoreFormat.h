#pragma once
// The file form of one data class in the phone store, when it is not the
// store's own property list: what the phone's parser writes (vCard,
// vCalendar) and how it reads back, with the lines it skipped and the
// properties it left out.

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/ContentLines.h"
#include "host/PhoneStore.h"

namespace pc {

// What reading a file gave: the entries, the lines it skipped, and the
// properties it left out by name.
struct VFormatReadResult {
  std::vector<PhoneStoreRecord> records;
  std::vector<ContentProblem> problems;
  std::map<std::string, std::size_t> ignoredProperties;
  bool cutShort = false;  // the text ends inside an entry
};

class PhoneStoreFormat {
 public:
  virtual ~PhoneStoreFormat() = default;
  // "vcf": the data class's file is "<data class>.vcf".
  virtual std::string fileExtension() const = 0;
  virtual std::string textForContents(const PhoneStoreContents& contents) const = 0;
  // The text of one entry, when a file is its entries' texts in order
  // between a fixed head and tail (textForEntryTexts); nullopt when an
  // entry's text depends on the others.
  virtual std::optional<std::string> entryText(const PhoneStoreRecord&) const { return std::nullopt; }
  // The entries' texts of a file that is exactly the head, entries' texts
  // and tail this format writes; nullopt for any other file (read it whole).
  virtual std::optional<std::vector<std::string_view>> entryTextsOfFile(std::string_view) const {
    return std::nullopt;
  }
  // The file of the entries' texts, byte for byte what textForContents
  // writes for those entries.
  virtual std::string textForEntryTexts(const std::vector<std::string>& entries) const {
    std::string text;
    for (const std::string& entry : entries) text += entry;
    return text;
  }
  // Entries without an identifier come back with an empty one.
  virtual VFormatReadResult contentsFromText(std::string_view text) const = 0;
};

}  // namespace pc
