#include "util/SyncCategory.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "async/Log.h"
#include "platform/Exception.h"
#include "platform/Strings.h"
#include "util/QVTStringExtensions.h"

namespace pc {

namespace {

// The elements of a collection of keys (see SyncCategory.h).
Array collectionElements(const Value& collection) {
  if (auto array = collection.asArray()) return *array;
  if (auto set = collection.asSet()) return set->allObjects();
  if (auto dictionary = collection.asDictionary()) return dictionary->keys();
  return {};
}

bool collectionContains(const Value& collection, const Value& element) {
  if (auto array = collection.asArray()) return array->contains(element);
  if (auto set = collection.asSet()) return set->contains(element);
  if (auto dictionary = collection.asDictionary()) return dictionary->contains(element);
  return false;
}

Dictionary sliceWhere(const Dictionary& dictionary, const Value& keys, bool inCollection) {
  Dictionary slice;
  for (const auto& [key, value] : dictionary)
    if (collectionContains(keys, key) == inCollection) slice.set(key, value);
  return slice;
}

// Length budgets are summed in 128 bits and kept within ±2^96 at every step:
// no product of an occurrence count (below 2^63) by a 64-bit modifier, nor
// any sum of such, can then overflow, and every budget beyond a text's
// length still keeps the whole text.
using Budget = __int128;
constexpr Budget kBudgetLimit = Budget{1} << 96;

Budget clampedBudget(Budget budget) { return std::clamp(budget, -kBudgetLimit, kBudgetLimit); }

// The growth of the length budget a modifier gives `text`, 0 for a modifier
// that does not apply (or is malformed, which is logged).
Budget lengthModifierFor(std::string_view text, const Value& modifier) {
  const auto description = modifier.asDictionary();
  const Value* string = description ? description->find("stringModifier") : nullptr;
  const Value* length = description ? description->find("lengthModifier") : nullptr;
  if (!string || !string->isString() || !length || !length->isNumber()) {
    QVT_LOG(kLogWarning, QVTLOG, "ignored truncation modifier: {}", modifier);
    return 0;
  }
  const std::size_t occurrences = SyncCategory::occurrenceNb(text, string->string());
  return clampedBudget(Budget{static_cast<std::int64_t>(std::min<std::size_t>(occurrences, INT64_MAX))} *
                       Budget{length->integerValue()});
}

}  // namespace

namespace SyncCategory {

std::optional<std::string> resourceNameAttributes(const Value& resource,
                                                  std::optional<Dictionary>* attributes) {
  // A missing resource is no resource: nothing to name, nothing to report.
  if (resource.isNull()) return std::nullopt;
  std::optional<std::string> name;
  if (const std::string* text = resource.asString()) {
    name = *text;
    if (attributes) attributes->reset();
  } else if (const auto dictionary = resource.asDictionary()) {
    if (const Value* entry = dictionary->find("Name"); entry && entry->isString())
      name = entry->string();
    if (attributes) *attributes = *dictionary;
  } else {
    const std::string kind = resource.isObject() ? resource.object()->className()
                                                 : std::string(resource.kindName());
    const std::string reason = fmt::format("cannot extract name from the object type: {}", kind);
    QVT_LOG(kLogError, QVTLOG, "{}", reason);
    raiseException(kInvalidArgumentException, reason);
  }
  const bool ret = name.has_value();
  QVT_CHECK(ret);
  return name;
}

std::string unQuotedString(std::string_view text) {
  if (text.empty() || text.front() != '"') return std::string(text);
  const std::string_view rest = text.substr(1);
  return std::string(rest.substr(0, rest.rfind('"')));
}

std::size_t occurrenceNb(std::string_view text, std::string_view string) {
  if (string.empty()) return 0;
  std::size_t count = 0;
  for (std::size_t at = text.find(string); at != std::string_view::npos;
       at = text.find(string, at + string.size()))
    ++count;
  return count;
}

std::optional<std::string> qvt_truncationToMaxLength(std::string_view text, long length,
                                                     const std::optional<Array>& modifiers,
                                                     bool* unchanged) {
  Budget budget = length;
  if (modifiers)
    for (const Value& modifier : *modifiers) budget = clampedBudget(budget + lengthModifierFor(text, modifier));
  if (unchanged) *unchanged = false;
  if (budget < 1) return std::nullopt;
  // Valid UTF-8 never has fewer bytes than UTF-16 units, so a text no longer
  // in bytes than the budget fits without counting; a broken sequence would
  // be replaced, so such a text never comes back as it is.
  if (unchanged && isValidUTF8(text) &&
      (Budget{static_cast<std::int64_t>(text.size())} <= budget ||
       Budget{static_cast<std::int64_t>(utf16Length(text))} <= budget)) {
    *unchanged = true;
    return std::string();
  }
  return utf16Prefix(text, static_cast<std::size_t>(std::min<Budget>(budget, SIZE_MAX)));
}

std::optional<URL> qvt_truncationToMaxLength(const URL& address, long length) {
  const std::string& text = address.absoluteString();
  if (text.empty() || length < 1) return std::nullopt;
  if (utf16Length(text) <= static_cast<std::size_t>(length)) return address;
  return URL(utf16Prefix(text, static_cast<std::size_t>(length)));
}

void appendASCIIZ(Data& data, const char* bytes) {
  if (bytes) data.append(bytes, std::strlen(bytes));
}

std::string uniqueId() { return QVTStringExtensions::uuidString(); }

std::string stringWithASCIIZ(const char* bytes) { return bytes ? std::string(bytes) : std::string(); }

void qvt_keepKeysFromCollection(Dictionary& dictionary, const Value& collection) {
  // Only the keys that go are gathered: most records keep all of theirs.
  std::vector<Value> leaving;
  for (const auto& [key, value] : dictionary)
    if (!collectionContains(collection, key)) leaving.push_back(key);
  for (const Value& key : leaving) dictionary.remove(key);
}

void qvt_removeDuplicates(Array& array) {
  std::vector<Value>& values = array.mutableValues();
  std::vector<Value> unique;
  for (Value& value : values)
    if (std::find(unique.begin(), unique.end(), value) == unique.end())
      unique.push_back(std::move(value));
  values = std::move(unique);
}

void setBool(Dictionary& dictionary, bool value, const Value& key) { dictionary.set(key, value); }

void setInt(Dictionary& dictionary, int value, const Value& key) { dictionary.set(key, value); }

Array allUniqueValues(const Dictionary& dictionary) {
  Array values = dictionary.values();
  qvt_removeDuplicates(values);
  return values;
}

Dictionary phc_invertDico(const Dictionary& dictionary) {
  Dictionary inverted;
  for (const auto& [key, value] : dictionary) inverted.set(value, key);
  return inverted;
}

Dictionary phc_slice(const Dictionary& dictionary, const Value& keys) {
  return sliceWhere(dictionary, keys, true);
}

Dictionary phc_complementSlice(const Dictionary& dictionary, const Value& keys) {
  return sliceWhere(dictionary, keys, false);
}

Dictionary phc_remapKeys(const Dictionary& dictionary, const Dictionary& map) {
  Dictionary remapped;
  for (const auto& [key, value] : dictionary)
    if (const Value* newKey = map.find(key)) remapped.set(*newKey, value);
  return remapped;
}

bool isEqualToDictionary(const Dictionary& dictionary, const Dictionary& other,
                         const Value& keys) {
  for (const Value& key : collectionElements(keys)) {
    const Value* mine = dictionary.find(key);
    const Value* theirs = other.find(key);
    if (!mine != !theirs || (mine && *mine != *theirs)) return false;
  }
  return true;
}

Dictionary phc_map(const Dictionary& dictionary, DictionaryMapFunction function, void* context) {
  Dictionary mapped;
  for (const auto& [key, value] : dictionary) {
    Value result = function(key, value, context);
    if (!result.isNull()) mapped.set(key, std::move(result));
  }
  return mapped;
}

Value refreshForKey(Dictionary& dictionary, const Value& key) {
  Value* entry = dictionary.find(key);
  if (!entry) return {};
  if (entry->isCollection()) *entry = entry->deepCopy();
  return *entry;
}

}  // namespace SyncCategory

}  // namespace pc
