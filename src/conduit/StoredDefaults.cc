#include "conduit/StoredDefaults.h"

#include <optional>

#include "async/Log.h"

namespace pc::detail {

namespace {

// The stored value when it reads as a number; nullopt (logged) otherwise.
std::optional<Value> numericValue(const DefaultingStore& store, const std::string& key,
                                  const Value& stored) {
  if (stored.isNumber() || stored.isString()) return stored;
  QVT_LOG(kLogWarning, store.logDomain, "value for key \"{}\" is not a number: {}", key, stored);
  return std::nullopt;
}

}  // namespace

bool boolForKey(const DefaultingStore& store, const std::string& key, bool defaultVal) {
  const Value stored = store.get(key);
  if (stored.isNull()) {
    store.set(Value(defaultVal), key);
    QVT_LOG(kLogInfo, store.logDomain, "no value for key: {}, default is {}", key,
            Value(defaultVal));
    return defaultVal;
  }
  auto number = numericValue(store, key, stored);
  return number ? number->boolValue() : defaultVal;
}

int intForKey(const DefaultingStore& store, const std::string& key, int defaultVal) {
  const Value stored = store.get(key);
  if (stored.isNull()) {
    store.set(Value(defaultVal), key);
    QVT_LOG(kLogInfo, store.logDomain, "no value for key: \"{}\", will return {}", key,
            Value(defaultVal));
    return defaultVal;
  }
  auto number = numericValue(store, key, stored);
  return number ? number->intValue() : defaultVal;
}

Value valueForKey(const DefaultingStore& store, const std::string& key, const Value& defaultVal) {
  const Value stored = store.get(key);
  if (!stored.isNull()) return stored;
  if (!defaultVal.isNull()) store.set(defaultVal, key);
  return defaultVal;
}

}  // namespace pc::detail
