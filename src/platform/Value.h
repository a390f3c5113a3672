#pragma once
// Values of records, device descriptions and property lists.
//
// A Value is one of a small closed set of kinds: null, boolean, integer
// (64-bit), real, string (UTF-8), byte buffer, address (URL), calendar date,
// array, dictionary, set, or a reference to an Object. Scalars have value
// semantics. Arrays, dictionaries and sets are shared by reference and mutable
// in place, as records are: copying a Value (or an Array, Dictionary, Set
// handle) shares the container; copy() and deepCopy() make new ones.
//
// Numbers follow the platform's coercions: a boolean is the number 0 or 1; the
// integer value of a string reads optional blanks, an optional sign and the
// leading digits (0 when there are none); the boolean value of a string is
// true for "YES", "Y", "TRUE", "T" in any case or a non-zero leading number;
// numbers compare equal by numeric value, and hash alike when equal.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>

#include "platform/CalendarDate.h"
#include "platform/Object.h"

namespace pc {

class Value;
class Array;
class Dictionary;
class Set;

// A byte buffer (value semantics). Copies share the bytes until one of them
// is changed, so that records holding photos copy cheaply when they change
// hands.
class Data {
 public:
  Data() = default;
  explicit Data(std::vector<std::uint8_t> bytes)
      : _bytes(std::make_shared<std::vector<std::uint8_t>>(std::move(bytes))) {}
  Data(const void* bytes, std::size_t length);
  static Data fromString(std::string_view text) { return Data(text.data(), text.size()); }

  const std::vector<std::uint8_t>& bytes() const { return _bytes ? *_bytes : noBytes(); }
  // The bytes of this buffer alone: shared bytes are copied first.
  std::vector<std::uint8_t>& mutableBytes();
  std::size_t length() const { return bytes().size(); }
  bool empty() const { return bytes().empty(); }
  void append(const void* bytes, std::size_t length);
  void append(const Data& other) { append(other.bytes().data(), other.bytes().size()); }
  std::string asString() const { return std::string(bytes().begin(), bytes().end()); }
  // "<0a1b2c3d 4e5f>": the platform's text form, groups of four bytes.
  std::string description() const;

  bool operator==(const Data& other) const { return _bytes == other._bytes || bytes() == other.bytes(); }

 private:
  static const std::vector<std::uint8_t>& noBytes();
  std::shared_ptr<std::vector<std::uint8_t>> _bytes;
};

// An address (URL), kept as its full text; the parts are read on demand.
class URL {
 public:
  URL() = default;
  explicit URL(std::string absoluteString) : _text(std::move(absoluteString)) {}

  const std::string& absoluteString() const { return _text; }
  std::string scheme() const;          // "http", "" when there is none
  std::string host() const;            // "" when there is none
  std::string path() const;            // "" when there is none
  bool empty() const { return _text.empty(); }
  const std::string& description() const { return _text; }

  bool operator==(const URL&) const = default;

 private:
  std::string _text;
};

enum class ValueKind {
  Null, Boolean, Integer, Real, String, Data, URL, Date, Array, Dictionary, Set, Object
};

// The kind's name as messages print it ("null", "boolean", "integer", ...).
const char* valueKindName(ValueKind kind);

namespace detail {
struct ArrayRep;
struct DictionaryRep;
struct SetRep;
}  // namespace detail

class Value {
 public:
  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : _v(b) {}
  Value(int i) : _v(static_cast<std::int64_t>(i)) {}
  Value(long i) : _v(static_cast<std::int64_t>(i)) {}
  Value(long long i) : _v(static_cast<std::int64_t>(i)) {}
  Value(unsigned i) : _v(static_cast<std::int64_t>(i)) {}
  Value(unsigned long i) : _v(static_cast<std::int64_t>(i)) {}
  Value(unsigned long long i) : _v(static_cast<std::int64_t>(i)) {}
  Value(double d) : _v(d) {}
  Value(const char* s) : _v(std::string(s ? s : "")) {}
  Value(std::string s) : _v(std::move(s)) {}
  Value(std::string_view s) : _v(std::string(s)) {}
  Value(pc::Data d) : _v(std::move(d)) {}
  Value(pc::URL u) : _v(std::move(u)) {}
  // A date is held in a shared, immutable box: most values are not dates,
  // and an unboxed date would make every value as large as a date.
  Value(CalendarDate d) : _v(std::make_shared<const CalendarDate>(std::move(d))) {}
  Value(const pc::Array& a);
  Value(const pc::Dictionary& d);
  Value(const pc::Set& s);
  Value(ObjectPtr o) { if (o) _v = std::move(o); }
  template <class T, class = std::enable_if_t<std::is_base_of_v<Object, T>>>
  Value(std::shared_ptr<T> o) : Value(ObjectPtr(std::move(o))) {}

  ValueKind kind() const { return static_cast<ValueKind>(_v.index()); }
  const char* kindName() const { return valueKindName(kind()); }
  bool isNull() const { return kind() == ValueKind::Null; }
  bool isBoolean() const { return kind() == ValueKind::Boolean; }
  bool isInteger() const { return kind() == ValueKind::Integer; }
  bool isReal() const { return kind() == ValueKind::Real; }
  // Boolean, integer or real.
  bool isNumber() const { return isBoolean() || isInteger() || isReal(); }
  bool isString() const { return kind() == ValueKind::String; }
  bool isData() const { return kind() == ValueKind::Data; }
  bool isURL() const { return kind() == ValueKind::URL; }
  bool isDate() const { return kind() == ValueKind::Date; }
  bool isArray() const { return kind() == ValueKind::Array; }
  bool isDictionary() const { return kind() == ValueKind::Dictionary; }
  bool isSet() const { return kind() == ValueKind::Set; }
  bool isObject() const { return kind() == ValueKind::Object; }
  // Array, dictionary or set.
  bool isCollection() const { return isArray() || isDictionary() || isSet(); }
  explicit operator bool() const { return !isNull(); }

  // Numeric coercions. Null answers 0; numbers and strings convert as the
  // platform does; any other kind raises "invalid-argument" naming the kind.
  std::int64_t integerValue() const;
  int intValue() const;
  double doubleValue() const;
  bool boolValue() const;
  // The number when this value has a numeric reading (number or string).
  std::optional<std::int64_t> integerIfNumeric() const;
  std::optional<double> doubleIfNumeric() const;

  // The text of a string; the description of any other value.
  std::string stringValue() const;

  // Typed access. Each raises "invalid-argument" (naming both kinds) when the
  // value is of another kind; the as...() forms answer nullptr instead.
  const std::string& string() const;
  const pc::Data& data() const;
  const pc::URL& url() const;
  const CalendarDate& date() const;
  pc::Array array() const;
  pc::Dictionary dictionary() const;
  pc::Set set() const;
  ObjectPtr object() const;
  const std::string* asString() const { return std::get_if<std::string>(&_v); }
  const pc::Data* asData() const { return std::get_if<pc::Data>(&_v); }
  const pc::URL* asURL() const { return std::get_if<pc::URL>(&_v); }
  const CalendarDate* asDate() const {
    auto p = std::get_if<std::shared_ptr<const CalendarDate>>(&_v);
    return p ? p->get() : nullptr;
  }
  std::optional<pc::Array> asArray() const;
  std::optional<pc::Dictionary> asDictionary() const;
  std::optional<pc::Set> asSet() const;
  template <class T>
  std::shared_ptr<T> objectAs() const {
    auto p = std::get_if<ObjectPtr>(&_v);
    return p ? std::dynamic_pointer_cast<T>(*p) : nullptr;
  }

  // A new container for arrays, dictionaries and sets (elements shared); the
  // value itself otherwise.
  Value copy() const;
  // New containers all the way down.
  Value deepCopy() const;
  // True when both are the same container (or object); for scalars, ==.
  bool isIdenticalTo(const Value& other) const;

  bool operator==(const Value& other) const;
  bool operator!=(const Value& other) const { return !(*this == other); }
  std::size_t hash() const;

  // The text "%@" prints: a string is itself, a number its decimal form (a
  // boolean 1 or 0), null "<null>", a date its default text form, containers
  // the platform's old-style property-list layout.
  std::string description() const;
  // The same, indented for nesting inside a container at `level`.
  std::string descriptionWithIndent(int level) const;

 private:
  friend class Array;
  friend class Dictionary;
  friend class Set;
  using Storage = std::variant<std::monostate, bool, std::int64_t, double, std::string, pc::Data,
                               pc::URL, std::shared_ptr<const CalendarDate>,
                               std::shared_ptr<detail::ArrayRep>,
                               std::shared_ptr<detail::DictionaryRep>,
                               std::shared_ptr<detail::SetRep>, ObjectPtr>;
  Storage _v;
};

struct ValueHash {
  std::size_t operator()(const Value& v) const { return v.hash(); }
};

// An ordered array, shared by reference.
class Array {
 public:
  using iterator = std::vector<Value>::iterator;
  using const_iterator = std::vector<Value>::const_iterator;

  Array();
  Array(std::initializer_list<Value> values);
  explicit Array(std::vector<Value> values);

  std::size_t count() const;
  bool empty() const { return count() == 0; }
  // Raises "range" when out of bounds.
  const Value& at(std::size_t index) const;
  Value& at(std::size_t index);
  const Value& operator[](std::size_t index) const { return at(index); }
  Value& operator[](std::size_t index) { return at(index); }
  // Null when empty.
  Value first() const;
  Value last() const;

  void add(Value value);
  void addAll(const Array& other);
  void insert(Value value, std::size_t index);
  void set(std::size_t index, Value value);
  void removeAt(std::size_t index);
  void removeRange(std::size_t index, std::size_t length);
  void removeLast();
  // Removes every element equal to value.
  void remove(const Value& value);
  void removeAll();

  bool contains(const Value& value) const;
  std::optional<std::size_t> indexOf(const Value& value) const;

  iterator begin();
  iterator end();
  const_iterator begin() const;
  const_iterator end() const;
  const std::vector<Value>& values() const;
  std::vector<Value>& mutableValues();

  Array copy() const;
  Array deepCopy() const;
  bool isIdenticalTo(const Array& other) const { return _rep == other._rep; }
  bool operator==(const Array& other) const;
  std::string description() const { return Value(*this).description(); }

 private:
  friend class Value;
  explicit Array(std::shared_ptr<detail::ArrayRep> rep) : _rep(std::move(rep)) {}
  std::shared_ptr<detail::ArrayRep> _rep;
};

// The key of a dictionary look-up: a value, or a text that is looked up as
// the string value of that text without a Value being made for it (record
// keys are mostly literals). Refers to its argument, so it lives only as
// long as the call it is passed to.
class DictionaryKey {
 public:
  DictionaryKey(const Value& key) : _value(&key) {}
  DictionaryKey(const char* key) : _text(key ? key : "") {}
  DictionaryKey(const std::string& key) : _text(key) {}
  DictionaryKey(std::string_view key) : _text(key) {}

  // The text of a string key; nullopt for a key of another kind.
  std::optional<std::string_view> text() const {
    if (!_value) return _text;
    if (const std::string* s = _value->asString()) return std::string_view(*s);
    return std::nullopt;
  }
  // The key as a value (a new string for a text).
  Value toValue() const { return _value ? *_value : Value(_text); }
  // The key's value; nullptr for a text.
  const Value* value() const { return _value; }

 private:
  const Value* _value = nullptr;
  std::string_view _text;
};

// A dictionary shared by reference. Keys are values (strings in records);
// iteration follows insertion order, so it is deterministic.
class Dictionary {
 public:
  using Entry = std::pair<Value, Value>;
  using iterator = std::vector<Entry>::iterator;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dictionary();
  Dictionary(std::initializer_list<Entry> entries);

  std::size_t count() const;
  bool empty() const { return count() == 0; }
  // nullptr when absent.
  const Value* find(DictionaryKey key) const;
  Value* find(DictionaryKey key);
  // Null when absent.
  Value get(DictionaryKey key) const;
  bool contains(DictionaryKey key) const { return find(key) != nullptr; }
  // Typed reads with a fallback for absent keys or other kinds.
  std::string getString(DictionaryKey key, std::string fallback = {}) const;
  std::int64_t getInteger(DictionaryKey key, std::int64_t fallback = 0) const;
  bool getBool(DictionaryKey key, bool fallback = false) const;
  std::optional<Dictionary> getDictionary(DictionaryKey key) const;
  std::optional<Array> getArray(DictionaryKey key) const;

  // Replaces the value of an existing key in place (keeping its position) or
  // appends a new entry. Storing null stores the null value; use remove().
  void set(DictionaryKey key, Value value);
  void remove(DictionaryKey key);
  void removeAll();
  void addEntriesFrom(const Dictionary& other);

  Array keys() const;
  Array values() const;
  // Keys whose value equals `value`.
  Array keysForValue(const Value& value) const;

  iterator begin();
  iterator end();
  const_iterator begin() const;
  const_iterator end() const;

  Dictionary copy() const;
  Dictionary deepCopy() const;
  bool isIdenticalTo(const Dictionary& other) const { return _rep == other._rep; }
  // False only for a handle that was moved from: it has no entries to walk.
  bool hasStorage() const { return _rep != nullptr; }
  // Same keys with equal values, whatever the order.
  bool operator==(const Dictionary& other) const;
  std::string description() const { return Value(*this).description(); }

 private:
  friend class Value;
  explicit Dictionary(std::shared_ptr<detail::DictionaryRep> rep) : _rep(std::move(rep)) {}
  std::shared_ptr<detail::DictionaryRep> _rep;
};

// A set of distinct values, shared by reference, enumerated in insertion order.
class Set {
 public:
  using const_iterator = std::vector<Value>::const_iterator;

  Set();
  Set(std::initializer_list<Value> values);

  std::size_t count() const;
  bool empty() const { return count() == 0; }
  bool contains(const Value& value) const;
  void add(Value value);
  void remove(const Value& value);
  void removeAll();
  Array allObjects() const;

  const_iterator begin() const;
  const_iterator end() const;

  Set copy() const;
  Set deepCopy() const;
  bool isIdenticalTo(const Set& other) const { return _rep == other._rep; }
  bool operator==(const Set& other) const;
  std::string description() const { return Value(*this).description(); }

 private:
  friend class Value;
  explicit Set(std::shared_ptr<detail::SetRep> rep) : _rep(std::move(rep)) {}
  std::shared_ptr<detail::SetRep> _rep;
};

}  // namespace pc

template <>
struct std::hash<pc::Value> {
  std::size_t operator()(const pc::Value& v) const { return v.hash(); }
};

// fmt prints a Value, Array, Dictionary, Set, Data, URL or CalendarDate as its
// description, the way "%@" does.
template <class T>
  requires(std::is_same_v<T, pc::Value> || std::is_same_v<T, pc::Array> ||
           std::is_same_v<T, pc::Dictionary> || std::is_same_v<T, pc::Set> ||
           std::is_same_v<T, pc::Data> || std::is_same_v<T, pc::URL> ||
           std::is_same_v<T, pc::CalendarDate>)
struct fmt::formatter<T> : fmt::formatter<std::string_view> {
  auto format(const T& v, fmt::format_context& ctx) const {
    return fmt::formatter<std::string_view>::format(std::string(v.description()), ctx);
  }
};
