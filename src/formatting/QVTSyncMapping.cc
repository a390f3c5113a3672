#include "formatting/QVTSyncMapping.h"

#include <fmt/format.h>

#include "async/Log.h"
#include "async/ConditionReport.h"
#include "platform/Exception.h"
#include "platform/Registry.h"

namespace pc {

PC_REGISTER_CLASS(QVTSyncMapping, "");

namespace {

const std::string& mappingLogDomain() {
  static const std::string domain =
      phcFormatLogDomain(".sync.", phcSimplifyFileName("QVTSyncFieldFormatterV2"));
  return domain;
}

// The phone value an entry writes: the first element of a list, the phone's
// empty value (null) for nothing, an empty string or an empty list.
Value writtenValue(const Value& mapped) {
  Value value = mapped;
  if (auto list = mapped.asArray()) value = list->empty() ? Value() : list->first();
  if (const std::string* text = value.asString(); text && text->empty()) value = Value();
  return value;
}

Value keyOrDefault(const Value& value, const Value& defaultValue) {
  return value.isNull() ? defaultValue : value;
}

}  // namespace

void addValueToDictionary(Dictionary& dictionary, const Value& object, const Value& key) {
  if (!QVT_CHECK(!object.isNull())) return;
  const std::string* text = key.asString();
  dictionary.set((key.isNull() || (text && text->empty())) ? Value() : key, object);
}

std::string QVTSyncMapping::description() const {
  return fmt::format("<QVTSyncMapping {} default {}>", ssToTransport, _defaultValue);
}

void QVTSyncMapping::initWithArray(const Array& mappings, const Value& defaultValue) {
  _defaultValue = defaultValue;
  ssToTransport = Dictionary();
  transportToSS = Dictionary();
  std::vector<Dictionary> entries;
  for (const Value& element : mappings) {
    if (auto entry = element.asDictionary()) entries.push_back(*entry);
    else QVT_CHECK_NAMED(false, "mapping entry is a dictionary");
  }

  for (const Dictionary& entry : entries) {
    const Value ssvalue = entry.get("originalValue");
    const Value mappedValue = entry.get("mappedValue");
    if (!QVT_CHECK(!ssvalue.isNull())) continue;
    QVT_CHECK(!mappedValue.isNull());
    if (ssToTransport.contains(ssvalue)) {
      const std::string text =
          "inconsistent mapping description.  A given Tarn Key should only occur once";
      QVT_LOG(kLogError, mappingLogDomain(), "{}", text);
      QVT_LOG(kLogError, mappingLogDomain(), "The key {} appears twice!", ssvalue);
      raiseException(kInvalidArgumentException, text);
    }
    ssToTransport.set(ssvalue, writtenValue(mappedValue));
  }

  // Walked backwards so that, for a phone value several entries share, the
  // first entry's engine value is the one read back.
  for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
    const Value ssvalue = it->get("originalValue");
    if (ssvalue.isNull()) continue;
    const Value mappedValue = it->get("mappedValue");
    if (auto list = mappedValue.asArray()) {
      if (list->empty()) addValueToDictionary(transportToSS, ssvalue, Value());
      for (const Value& m : *list) addValueToDictionary(transportToSS, ssvalue, m);
    } else {
      addValueToDictionary(transportToSS, ssvalue, mappedValue);
    }
  }
}

Value QVTSyncMapping::formatValue(const Value& value, bool* shouldReject) const {
  const Value* t = ssToTransport.find(keyOrDefault(value, _defaultValue));
  if (!t) {
    if (shouldReject) *shouldReject = true;
    return Value();
  }
  const Value* ret = transportToSS.find(*t);
  QVT_CHECK(ret);
  // A copy: the mapping's values belong to the description.
  return ret ? ret->deepCopy() : Value();
}

Value QVTSyncMapping::transportValueFromSSValue(const Value& value) const {
  const Value key = keyOrDefault(value, _defaultValue);
  const Value* t = ssToTransport.find(key);
  if (!t) {
    QVT_LOG(kLogError, mappingLogDomain(), "record should have been filtered before that for {}",
            key);
    return Value();
  }
  return *t;
}

Value QVTSyncMapping::transportValueFromSSValue_IfExists(const Value& value) const {
  const Value* t = ssToTransport.find(keyOrDefault(value, _defaultValue));
  return t ? *t : Value();
}

Value QVTSyncMapping::SSValueFomTransportValue(const Value& value) const {
  const std::string* text = value.asString();
  const Value key = (value.isNull() || (text && text->empty())) ? Value() : value;
  const Value* r = transportToSS.find(key);
  Value answer = r ? r->deepCopy() : Value();
  if (!r) {
    QVT_LOG(kLogWarning, mappingLogDomain(),
            "formatting description is incorrect.  Phone sends {}.  Will insert {} in the "
            "SyncEngine",
            key, _defaultValue);
    answer = _defaultValue.deepCopy();
  }
  if (answer.isNull()) {
    const std::string text =
        fmt::format("we should always provide a non nil attribut in that case. {}", key);
    QVT_CHECK_NAMED(false, text.c_str());
  }
  return answer;
}

Array QVTSyncMapping::allAcceptableValues() const { return ssToTransport.keys(); }

Array QVTSyncMapping::allTransportValues() const {
  Array values;
  for (const Value& key : transportToSS.keys())
    if (!key.isNull()) values.add(key);
  return values;
}

}  // namespace pc
