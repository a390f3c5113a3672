#pragma once
// Property lists in their XML form: dictionaries (string keys), arrays,
// strings, integers, reals, booleans, dates and data. Reading answers a Value
// whose containers are mutable (they always are); a <date> reads as a calendar
// date in GMT. Writing accepts the same kinds; a set writes as an array.

#include <optional>
#include <string>
#include <string_view>

#include "platform/Value.h"

namespace pc {

struct PropertyListError {
  std::string message;  // what went wrong
  int line = 0;         // where: 1-based line and column, 0 when unknown
  int column = 0;
  // "line 3, column 7: <integer> holds \"12x\", not a whole number"
  std::string description() const;
};

class PropertyList {
 public:
  // The deepest nesting read or written (the top value is at depth 0).
  // Deeper input is refused rather than read into a stack overflow, and the
  // writer refuses what the reader would, so that whatever one writes reads.
  static constexpr int kMaxDepth = 512;

  // nullopt on failure, with `error` (optional) saying what and where.
  static std::optional<Value> fromXML(std::string_view xml, PropertyListError* error = nullptr);
  static std::optional<Value> fromFile(const std::string& path, PropertyListError* error = nullptr);

  // nullopt when the value holds a kind a property list cannot (null, an
  // address, an object, a non-string dictionary key); `error` says which and
  // where (the key path, as "Entities/2/Name").
  static std::optional<std::string> toXML(const Value& value, PropertyListError* error = nullptr);
  // Writes atomically (a temporary file renamed over the target).
  static bool writeToFile(const Value& value, const std::string& path,
                          PropertyListError* error = nullptr);
};

}  // namespace pc
