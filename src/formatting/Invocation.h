#pragma once
// A stored call of a registered method: the target object, the method found
// by its selector in the target class's method table, and the arguments,
// some bound in advance (the constants of a device description), the first
// set at call time to the value or record being formatted.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "platform/Object.h"
#include "platform/Registry.h"
#include "platform/Value.h"

namespace pc {

class Invocation : public Object {
 public:
  // nullptr when the target's class (or a superclass) has no such method.
  static std::shared_ptr<Invocation> invocationWithTarget(ObjectPtr target,
                                                          const std::string& selector);

  std::string className() const override { return "Invocation"; }
  std::string description() const override;

  const std::string& selector() const { return _method->selector; }
  // One type code per argument: 'c' boolean, 'i' integer, '@' object.
  const std::string& argumentTypes() const { return _method->argumentTypes; }
  std::size_t argumentCount() const { return _arguments.size(); }
  const ObjectPtr& target() const { return _target; }

  // Arguments count from 0, the receiver not included. Out of range is ignored.
  void setArgument(const Value& value, std::size_t index);
  const Value& argument(std::size_t index) const { return _arguments.at(index); }

  // Calls the method with the arguments as they are now; answers its result.
  Value invoke();
  // Sets the first argument to `value`, then invokes.
  Value invokeWithValue(const Value& value);

 private:
  Invocation(ObjectPtr target, const MethodInfo* method);
  ObjectPtr _target;
  const MethodInfo* _method;
  std::vector<Value> _arguments;
};

using InvocationPtr = std::shared_ptr<Invocation>;

}  // namespace pc
