#pragma once
// Checks of what the program reads. The library is tolerant: it logs what it
// cannot use and goes on. The program is not: before a command hands a file
// to the library, it checks every value the command uses and stops at the
// first that is wrong, naming the file and the key path of the value
// ("event.plist: recurrences/0/count: -4 is not a whole number from 1 to
// 2147483647").

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "calcore/CALDate.h"
#include "platform/Value.h"

namespace pc::tools {

// A value read from a file, with the key path that leads to it.
class Field {
 public:
  Field(std::string file, Value value);

  const Value& value() const { return _value; }
  bool present() const { return !_value.isNull(); }
  const std::string& path() const { return _path; }
  // "file: path", or the file alone for the whole contents.
  std::string where() const;
  // Stops the command with "file: path: problem" (CommandError).
  [[noreturn]] void fail(std::string_view problem) const;
  // Stops it saying the value is missing or is not `what` ("a string").
  [[noreturn]] void expected(std::string_view what) const;

  // The entry `key` of a dictionary or element `index` of an array; absent
  // (null) when there is none. The receiver must be a dictionary or array.
  Field operator[](std::string_view key) const;
  Field at(std::size_t index) const;

  // Each answers the value when it is of the kind asked for, else stops the
  // command saying what was expected. `required` stops it for an absent one.
  const Field& required(std::string_view expected) const;
  Dictionary dictionary() const;
  Array array() const;
  std::string string() const;
  // One of `names`.
  std::string member(std::initializer_list<std::string_view> names) const;
  // true or false (a boolean, or the integers 0 and 1).
  bool boolean() const;
  // A whole number in [low, high] (an integer, or a real without fraction).
  std::int64_t integer(std::int64_t low, std::int64_t high) const;
  // A calendar date in the years the calendar works in.
  CalendarDate date() const;

 private:
  Field(std::shared_ptr<const std::string> file, std::string path, Value value);

  std::shared_ptr<const std::string> _file;
  std::string _path;
  Value _value;
};

// The record of a record file (nice plist text), its tagged values rebuilt.
Field readRecordInput(const std::string& path);
// The dictionary at the top of a property-list file.
Field readPropertyListInput(const std::string& path);

// "year 5000 is outside the supported years 1 to 3285", or empty when the
// date's year (in its zone and in GMT) is one the calendar works in.
std::string unsupportedYear(const CalendarDate& date);

// A date given on the command line in one of the ISO forms: "20060315" (a
// day), "20060315T101500" (floating) or "20060315T101500+0100" (with its
// offset). Stops the command (CommandLineError) naming `option` otherwise.
CALDateRef dateOption(const std::string& text, std::string_view option);

}  // namespace pc::tools
