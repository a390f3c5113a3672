#include "platform/Object.h"

#include <fmt/format.h>

#include "platform/Exception.h"
#include "platform/Registry.h"
#include "platform/Value.h"

namespace pc {

std::string Object::description() const {
  return fmt::format("<{}: {}>", className(), static_cast<const void*>(this));
}

void Object::setValueForKey(const Value& value, const std::string& key) {
  if (const PropertyTable::Setter* setter = PropertyTable::lookup(className(), key)) {
    (*setter)(*this, value);
    return;
  }
  setValueForUndefinedKey(value, key);
}

void Object::setValueForUndefinedKey(const Value& value, const std::string& key) {
  raiseException(kUndefinedKeyException,
                 fmt::format("{} has no property for the key \"{}\" (value {})", className(), key,
                             value.description()));
}

}  // namespace pc
