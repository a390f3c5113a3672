#include "validation.h"

#include <cctype>
#include <cmath>

#include <fmt/format.h>

#include "calcore/CALDateOnly.h"
#include "calcore/CALDateTime.h"
#include "calcore/CALFloatingDateTime.h"
#include "calcore/calcdate.h"
#include "command_support.h"
#include "commands.h"
#include "platform/PropertyList.h"
#include "util/PHCMangling.h"

namespace pc::tools {

namespace {

// How a complaint shows a value: scalars as they are, containers by kind.
std::string shown(const Value& value) {
  if (const std::string* text = value.asString()) return fmt::format("\"{}\"", *text);
  if (value.isBoolean()) return value.boolValue() ? "true" : "false";
  if (value.isInteger() || value.isReal()) return value.description();
  return fmt::format("a {}", value.kindName());
}

std::string joined(std::initializer_list<std::string_view> names) {
  std::string text;
  std::size_t i = 0;
  for (std::string_view name : names) {
    if (i > 0) text += i + 1 == names.size() ? " or " : ", ";
    text += name;
    ++i;
  }
  return text;
}

}  // namespace

Field::Field(std::string file, Value value)
    : Field(std::make_shared<const std::string>(std::move(file)), std::string(), std::move(value)) {}

Field::Field(std::shared_ptr<const std::string> file, std::string path, Value value)
    : _file(std::move(file)), _path(std::move(path)), _value(std::move(value)) {}

std::string Field::where() const { return _path.empty() ? *_file : fmt::format("{}: {}", *_file, _path); }

void Field::fail(std::string_view problem) const { throw CommandError(fmt::format("{}: {}", where(), problem)); }

void Field::expected(std::string_view what) const {
  if (!present()) fail(fmt::format("missing: expected {}", what));
  fail(fmt::format("{} is not {}", shown(_value), what));
}

Field Field::operator[](std::string_view key) const {
  const std::optional<Dictionary> dictionary = _value.asDictionary();
  const Value* entry = dictionary ? dictionary->find(Value(std::string(key))) : nullptr;
  return Field(_file, _path.empty() ? std::string(key) : fmt::format("{}/{}", _path, key),
               entry ? *entry : Value());
}

Field Field::at(std::size_t index) const {
  const std::optional<Array> array = _value.asArray();
  return Field(_file, _path.empty() ? fmt::format("{}", index) : fmt::format("{}/{}", _path, index),
               array && index < array->count() ? array->at(index) : Value());
}

const Field& Field::required(std::string_view what) const {
  if (!present()) expected(what);
  return *this;
}

Dictionary Field::dictionary() const {
  if (!_value.isDictionary()) expected("a dictionary");
  return _value.dictionary();
}

Array Field::array() const {
  if (!_value.isArray()) expected("an array");
  return _value.array();
}

std::string Field::string() const {
  if (!_value.isString()) expected("a string");
  return _value.string();
}

std::string Field::member(std::initializer_list<std::string_view> names) const {
  if (const std::string* text = _value.asString())
    for (std::string_view name : names)
      if (*text == name) return *text;
  expected(fmt::format("one of {}", joined(names)));
}

bool Field::boolean() const {
  if (_value.isBoolean()) return _value.boolValue();
  if (_value.isInteger() && (_value.integerValue() == 0 || _value.integerValue() == 1))
    return _value.integerValue() == 1;
  expected("true or false");
}

std::int64_t Field::integer(std::int64_t low, std::int64_t high) const {
  const std::string what = fmt::format("a whole number from {} to {}", low, high);
  if (_value.isInteger()) {
    const std::int64_t number = _value.integerValue();
    if (number >= low && number <= high) return number;
  } else if (_value.isReal()) {
    // Beyond ±2^62 a real is no count, and its conversion could overflow.
    const double number = _value.doubleValue();
    if (std::fabs(number) < 0x1p62 && std::nearbyint(number) == number &&
        static_cast<std::int64_t>(number) >= low && static_cast<std::int64_t>(number) <= high)
      return static_cast<std::int64_t>(number);
  }
  expected(what);
}

CalendarDate Field::date() const {
  const CalendarDate* date = _value.asDate();
  if (!date) expected("a calendar date");
  if (const std::string problem = unsupportedYear(*date); !problem.empty()) fail(problem);
  return *date;
}

Field readRecordInput(const std::string& path) {
  return Field(path, recordFile(path).orFail());
}

Field readPropertyListInput(const std::string& path) {
  Field field(path, propertyListFile(path).orFail());
  field.dictionary();
  return field;
}

std::string unsupportedYear(const CalendarDate& date) {
  for (const int year : {date.yearOfCommonEra(), date.dateWithTimeZone(TimeZone::gmt()).yearOfCommonEra()})
    if (year < kCALCDateFirstYear || year > kCALCDateLastYear)
      return fmt::format("year {} is outside the supported years {} to {}", date.yearOfCommonEra(),
                         kCALCDateFirstYear, kCALCDateLastYear);
  return {};
}

CALDateRef dateOption(const std::string& text, std::string_view option) {
  const auto fail = [&](std::string_view problem) -> CALDateRef {
    throw CommandLineError(fmt::format("{}: \"{}\": {}", option, text, problem));
  };
  // The forms by their shape: 8 digits, then "T" and 6 digits, then a sign
  // and 4 digits.
  std::string shape;
  for (char c : text) shape += std::isdigit(static_cast<unsigned char>(c)) ? '9' : c == '-' ? '+' : c;
  const char* format = shape == "99999999"                      ? kCALDateIsoDateFormat
                       : shape == "99999999T999999"             ? kCALDateIsoFloatingFormat
                       : shape == "99999999T999999+9999"        ? kCALDateIsoZonedFormat
                                                                : nullptr;
  if (!format) return fail("not a date (20060315, 20060315T101500 or 20060315T101500+0100)");
  const Result<CalendarDate> parsed = dateFromText(text, format);
  if (!parsed) return fail(fmt::format("not a date: {}", parsed.failure().message));
  if (const std::string problem = unsupportedYear(parsed.value()); !problem.empty()) return fail(problem);
  if (format == kCALDateIsoDateFormat) return CALDate::dateWithString<CALDateOnly>(text, format);
  if (format == kCALDateIsoFloatingFormat) return CALDate::dateWithString<CALFloatingDateTime>(text, format);
  return CALDate::dateWithString<CALDateTime>(text, format);
}

}  // namespace pc::tools
