#pragma once
// Typed reads with defaults over a key-value store (a settings dictionary or
// a sync-engine client's values). Reading an absent key stores the default,
// so the store ends up holding every default that was used.

#include <functional>
#include <string>

#include "platform/Value.h"

namespace pc::detail {

struct DefaultingStore {
  std::function<Value(const std::string& key)> get;
  std::function<void(const Value& value, const std::string& key)> set;
  // Where the "no value for key" messages go.
  std::string logDomain;
};

// A stored value of a kind that has no number reading (an array, a date...)
// is logged and answered with the default, which is not stored over it.
bool boolForKey(const DefaultingStore& store, const std::string& key, bool defaultVal);
int intForKey(const DefaultingStore& store, const std::string& key, int defaultVal);
// Any kind of value; stores the default silently.
Value valueForKey(const DefaultingStore& store, const std::string& key, const Value& defaultVal);

}  // namespace pc::detail
