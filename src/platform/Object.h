#pragma once
// The root of the project's run-time objects: anything a record can hold by
// reference (the opaque kind of Value), anything created by class name from a
// device description, and anything configured by key-value assignment.

#include <cstddef>
#include <memory>
#include <string>

namespace pc {

class Value;

class Object : public std::enable_shared_from_this<Object> {
 public:
  Object() = default;
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
  virtual ~Object() = default;

  // The name this object's class is registered under (see Registry.h); the
  // key of its method and property tables.
  virtual std::string className() const = 0;

  // The text that "%@" prints.
  virtual std::string description() const;

  // Identity unless a class defines value equality; hash() must agree.
  virtual bool isEqual(const Object& other) const { return this == &other; }
  virtual std::size_t hash() const { return reinterpret_cast<std::size_t>(this); }

  // Key-value assignment: runs the setter registered for `key` in this class's
  // property table (or a superclass's), else setValueForUndefinedKey.
  void setValueForKey(const Value& value, const std::string& key);

  // Called for keys no setter is registered for. The default raises an
  // "undefined-key" exception; configurable classes log and skip instead.
  virtual void setValueForUndefinedKey(const Value& value, const std::string& key);
};

using ObjectPtr = std::shared_ptr<Object>;

}  // namespace pc
