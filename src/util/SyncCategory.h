#pragma once
// Small operations on records, device-description values and strings used
// throughout the conduit: resources (a class name with its properties),
// quoting, length truncation with modifiers, and dictionary and array helpers.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace pc {

namespace SyncCategory {

// --- Resources ---

// The class name of a resource: a string is its own name and has no
// attributes; a dictionary names its class under "Name" and is, as a whole,
// its attributes. `attributes` (may be nullptr) receives them. A dictionary
// without a string "Name" answers nullopt (logged); any other kind raises
// "invalid-argument".
std::optional<std::string> resourceNameAttributes(const Value& resource,
                                                  std::optional<Dictionary>* attributes);

// --- Strings and bytes ---

// The text between a leading double quote and the last one after it (all of
// the rest without a closing quote); any other text as it is.
std::string unQuotedString(std::string_view text);
// Non-overlapping literal occurrences of `string`; 0 for an empty one.
std::size_t occurrenceNb(std::string_view text, std::string_view string);
// The text cut to a budget of `length` UTF-16 units, grown (or shrunk) by each
// modifier {"stringModifier": text, "lengthModifier": n} by n for every
// occurrence of its text. nullopt when the budget is below 1. With
// `unchanged`, a text that fits as it is is not copied: *unchanged is set
// and the answer is an empty text that stands for it.
std::optional<std::string> qvt_truncationToMaxLength(
    std::string_view text, long length, const std::optional<Array>& modifiers = std::nullopt,
    bool* unchanged = nullptr);
// The address with its text cut to `length`; the address itself when it
// fits; nullopt for an address without text or a length below 1.
std::optional<URL> qvt_truncationToMaxLength(const URL& address, long length);
// Appends the bytes of a zero-terminated string, without the zero.
void appendASCIIZ(Data& data, const char* bytes);
// A new universally unique identifier as text.
std::string uniqueId();
// The text of a zero-terminated string ("" for nullptr).
std::string stringWithASCIIZ(const char* bytes);

// --- Dictionaries and arrays ---
//
// A "collection" of keys is an array, a set or a dictionary (its keys); null
// or any other value holds nothing.

// Removes every key the collection does not hold (all of them for null).
void qvt_keepKeysFromCollection(Dictionary& dictionary, const Value& collection);
// Removes every element equal to an earlier one, keeping the order.
void qvt_removeDuplicates(Array& array);
void setBool(Dictionary& dictionary, bool value, const Value& key);
void setInt(Dictionary& dictionary, int value, const Value& key);
// The distinct values, in the order first seen.
Array allUniqueValues(const Dictionary& dictionary);
// value -> key; of keys sharing a value, the last one wins.
Dictionary phc_invertDico(const Dictionary& dictionary);
// The entries whose key is in the collection, or (complement) is not.
Dictionary phc_slice(const Dictionary& dictionary, const Value& keys);
Dictionary phc_complementSlice(const Dictionary& dictionary, const Value& keys);
// The entries whose key `map` knows, under their new key; others are dropped.
Dictionary phc_remapKeys(const Dictionary& dictionary, const Dictionary& map);
// A new dictionary with the same keys, each holding function(key, value,
// context); an entry whose result is null is left out.
using DictionaryMapFunction = Value (*)(const Value& key, const Value& value, void* context);
Dictionary phc_map(const Dictionary& dictionary, DictionaryMapFunction function,
                   void* context = nullptr);
// Gives the entry under `key` a container of its own: a dictionary, array
// or set stored there, perhaps shared with other records, is replaced by a
// deep copy that can be changed without touching them. Answers the entry
// (null when absent); other kinds are left as they are.
Value refreshForKey(Dictionary& dictionary, const Value& key);
// True when, for every key, both values are absent or both present and equal.
bool isEqualToDictionary(const Dictionary& dictionary, const Dictionary& other,
                         const Value& keys);

}  // namespace SyncCategory

// Copies whose contained containers are new containers as well, to any depth.
namespace DeepCopy {

inline Dictionary deepMutableCopy(const Dictionary& dictionary) { return dictionary.deepCopy(); }
inline Array deepMutableCopy(const Array& array) { return array.deepCopy(); }
inline Set deepMutableCopy(const Set& set) { return set.deepCopy(); }

}  // namespace DeepCopy

}  // namespace pc
