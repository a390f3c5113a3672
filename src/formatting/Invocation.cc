#include "formatting/Invocation.h"

#include <fmt/format.h>

namespace pc {

Invocation::Invocation(ObjectPtr target, const MethodInfo* method)
    : _target(std::move(target)), _method(method), _arguments(method->argumentCount()) {}

std::shared_ptr<Invocation> Invocation::invocationWithTarget(ObjectPtr target,
                                                             const std::string& selector) {
  if (!target) return nullptr;
  const MethodInfo* method = MethodTable::lookup(target->className(), selector);
  if (!method) return nullptr;
  return std::shared_ptr<Invocation>(new Invocation(std::move(target), method));
}

std::string Invocation::description() const {
  return fmt::format("<Invocation -[{} {}]>", _target->className(), _method->selector);
}

void Invocation::setArgument(const Value& value, std::size_t index) {
  if (index < _arguments.size()) _arguments[index] = value;
}

Value Invocation::invoke() { return _method->call(*_target, _arguments); }

Value Invocation::invokeWithValue(const Value& value) {
  if (!_arguments.empty()) _arguments[0] = value;
  return invoke();
}

}  // namespace pc
