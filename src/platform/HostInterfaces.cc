#include "platform/HostInterfaces.h"

namespace pc {

RecordHolder::RecordHolder(const Dictionary& originalRecord, std::string masterIdentifier)
    : _originalRecord(originalRecord.deepCopy()),
      _mutableDictionary(originalRecord.deepCopy()),
      _masterIdentifier(std::move(masterIdentifier)) {}

void RecordHolder::setProperty(const Value& value, const std::string& key) {
  if (value.isNull())
    _properties.remove(key);
  else
    _properties.set(key, value.deepCopy());
}

}  // namespace pc
