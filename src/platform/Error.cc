#include "platform/Error.h"

#include <functional>

#include <fmt/format.h>

namespace pc {

std::string Error::localizedDescription() const {
  if (const Value* text = _userInfo.find(kErrorDescriptionKey); text && text->isString())
    return text->string();
  return fmt::format("The operation couldn't be completed. ({} error {}.)", _domain, _code);
}

std::string Error::description() const {
  return fmt::format("Error Domain={} Code={} \"{}\"", _domain, _code, localizedDescription());
}

bool Error::isEqual(const Object& other) const {
  const auto* error = dynamic_cast<const Error*>(&other);
  return error && error->_domain == _domain && error->_code == _code;
}

std::size_t Error::hash() const { return std::hash<std::string>()(_domain) ^ std::size_t(_code); }

}  // namespace pc
