#pragma once
// A two-way table between the engine's values of one attribute and the
// values a phone model accepts for it, built from a "mappings" array of the
// device description. Each entry pairs an "originalValue" (the engine's) with
// a "mappedValue" (the phone's: a string, or a list whose first element is
// written to the phone and all of which are read back). The phone's empty
// value is kept as the null value.

#include <memory>
#include <string>

#include "conduit/ConduitProtocols.h"
#include "platform/Value.h"

namespace pc {

class QVTSyncMapping : public ValueMapping {
 public:
  std::string className() const override { return "QVTSyncMapping"; }
  std::string description() const override;

  // Raises invalid-argument (after a level-1 log line) when an
  // "originalValue" occurs twice. Entries that are not dictionaries are
  // reported and skipped.
  void initWithArray(const Array& mappings, const Value& defaultValue) override;

  // The engine value the phone will send back for `value` (null: the
  // default value); null with `shouldReject` set when the phone cannot hold it.
  Value formatValue(const Value& value, bool* shouldReject) const;
  // The phone's value; null for the phone's empty value or an unmapped value
  // (the latter logged).
  Value transportValueFromSSValue(const Value& value) const;
  // The phone's value, or null without a word.
  Value transportValueFromSSValue_IfExists(const Value& value) const;
  // The engine value for what the phone sent; the default when unmapped.
  Value SSValueFomTransportValue(const Value& value) const;
  Array allAcceptableValues() const;
  // The phone values, the empty one left out.
  Array allTransportValues() const;

  const Value& defaultValue() const { return _defaultValue; }

 private:
  Dictionary ssToTransport;
  Dictionary transportToSS;
  Value _defaultValue;
};

using QVTSyncMappingPtr = std::shared_ptr<QVTSyncMapping>;

// dictionary[key] = object, where a null key or an empty string key is stored
// under the null value. A null object is reported and nothing is stored.
void addValueToDictionary(Dictionary& dictionary, const Value& object, const Value& key);

}  // namespace pc
