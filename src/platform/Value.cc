#include "platform/Value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "platform/Exception.h"

namespace pc {

namespace detail {

struct ArrayRep {
  std::vector<Value> items;
};

// Entries in insertion order. A record holds a dozen keys or so: below
// kIndexFrom entries a key is found by walking the entries, which costs less
// than hashing it and keeps a small dictionary to two allocations; from
// kIndexFrom entries on, an index from key to position is kept as well.
// Hash and equality of the index, over values and over texts, so that a
// text key is found without a Value being made for it. A string value
// hashes as its text does.
struct KeyHash {
  using is_transparent = void;
  std::size_t operator()(const Value& key) const { return key.hash(); }
  std::size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
};

struct KeyEqual {
  using is_transparent = void;
  bool operator()(const Value& a, const Value& b) const { return a == b; }
  bool operator()(std::string_view a, const Value& b) const {
    const std::string* text = b.asString();
    return text && *text == a;
  }
  bool operator()(const Value& a, std::string_view b) const { return (*this)(b, a); }
};

struct DictionaryRep {
  static constexpr std::size_t kIndexFrom = 16;
  std::vector<Dictionary::Entry> entries;
  std::unordered_map<Value, std::size_t, KeyHash, KeyEqual> index;  // empty below kIndexFrom

  std::optional<std::size_t> position(const DictionaryKey& key) const {
    const std::optional<std::string_view> text = key.text();
    if (entries.size() >= kIndexFrom) {
      auto it = text ? index.find(*text) : index.find(*key.value());
      if (it == index.end()) return std::nullopt;
      return it->second;
    }
    if (text) {
      for (std::size_t i = 0; i < entries.size(); ++i) {
        const std::string* entry = entries[i].first.asString();
        if (entry && *entry == *text) return i;
      }
      return std::nullopt;
    }
    for (std::size_t i = 0; i < entries.size(); ++i)
      if (entries[i].first == *key.value()) return i;
    return std::nullopt;
  }
  void reindex() {
    index.clear();
    if (entries.size() < kIndexFrom) return;
    index.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) index.emplace(entries[i].first, i);
  }
  void append(Value key, Value value) {
    entries.emplace_back(std::move(key), std::move(value));
    if (entries.size() > kIndexFrom)
      index.emplace(entries.back().first, entries.size() - 1);
    else if (entries.size() == kIndexFrom)
      reindex();
  }
  // Removes one entry; the index, when it stays, loses the key and moves
  // the later positions down instead of being built again.
  void erase(std::size_t at) {
    if (entries.size() - 1 < kIndexFrom) {
      index.clear();
    } else {
      index.erase(entries[at].first);
      for (auto& [key, position] : index)
        if (position > at) --position;
    }
    entries.erase(entries.begin() + std::ptrdiff_t(at));
  }
};

struct SetRep {
  std::vector<Value> items;
  std::unordered_map<Value, std::size_t, ValueHash> index;
};

}  // namespace detail

namespace {

// ---- number readings of strings -------------------------------------------

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view skipBlanks(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size() && isBlank(s[i])) ++i;
  return s.substr(i);
}

// Optional blanks, optional sign, leading digits; clamps on overflow.
std::int64_t integerFromString(std::string_view s) {
  s = skipBlanks(s);
  bool negative = false;
  if (!s.empty() && (s[0] == '+' || s[0] == '-')) {
    negative = s[0] == '-';
    s.remove_prefix(1);
  }
  std::uint64_t magnitude = 0;
  const std::uint64_t limit = negative ? std::uint64_t(std::numeric_limits<std::int64_t>::max()) + 1
                                       : std::uint64_t(std::numeric_limits<std::int64_t>::max());
  for (char c : s) {
    if (c < '0' || c > '9') break;
    const unsigned digit = unsigned(c - '0');
    if (magnitude > (limit - digit) / 10) {
      magnitude = limit;
      break;
    }
    magnitude = magnitude * 10 + digit;
  }
  if (negative) return magnitude == limit ? std::numeric_limits<std::int64_t>::min() : -std::int64_t(magnitude);
  return std::int64_t(magnitude);
}

// Optional blanks, then the longest prefix that reads as a number (0 if none).
std::optional<double> leadingDouble(std::string_view s) {
  s = skipBlanks(s);
  bool negative = false;
  if (!s.empty() && (s[0] == '+' || s[0] == '-')) {
    negative = s[0] == '-';
    s.remove_prefix(1);
  }
  double d = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), d);
  if (ec == std::errc::result_out_of_range) {
    // Too small a magnitude (a negative exponent) is zero, too large infinity.
    const std::string_view number(s.data(), static_cast<std::size_t>(end - s.data()));
    const std::size_t exponent = number.find_first_of("eE");
    const bool underflow = exponent != std::string_view::npos && exponent + 1 < number.size() &&
                           number[exponent + 1] == '-';
    const double magnitude = underflow ? 0.0 : std::numeric_limits<double>::infinity();
    return negative ? -magnitude : magnitude;
  }
  if (ec != std::errc() || end == s.data()) return std::nullopt;
  return negative ? -d : d;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

bool boolFromString(std::string_view s) {
  std::string_view t = skipBlanks(s);
  while (!t.empty() && isBlank(t.back())) t.remove_suffix(1);
  for (const char* word : {"YES", "Y", "TRUE", "T"}) {
    if (equalsIgnoringCase(t, word)) return true;
  }
  // Only a number written with digits counts: "nan" and "inf" are words, not numbers.
  std::string_view digits = t;
  if (!digits.empty() && (digits[0] == '+' || digits[0] == '-')) digits.remove_prefix(1);
  if (!digits.empty() && digits[0] == '.') digits.remove_prefix(1);
  if (digits.empty() || digits[0] < '0' || digits[0] > '9') return false;
  const auto d = leadingDouble(t);
  return d && *d != 0;
}

std::int64_t clampToInteger(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
  if (d <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(d);
}

// The integer a real stands for exactly, if any.
std::optional<std::int64_t> exactInteger(double d) {
  if (!std::isfinite(d) || d != std::trunc(d)) return std::nullopt;
  if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) return std::nullopt;
  return static_cast<std::int64_t>(d);
}

std::size_t combineHash(std::size_t seed, std::size_t h) {
  return seed ^ (h + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

[[noreturn]] void wrongKind(const Value& v, const char* wanted) {
  raiseException(kInvalidArgumentException,
                 fmt::format("a value of kind {} is not {}", v.kindName(), wanted));
}

// ---- description ----------------------------------------------------------

std::string indentation(int level) { return std::string(std::size_t(level) * 4, ' '); }

// Strings inside containers are quoted unless they are a plain word.
std::string quotedIfNeeded(const std::string& s) {
  const bool plain = !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '$' ||
           c == '/' || c == ':' || c == '-' || (static_cast<unsigned char>(c) & 0x80);
  });
  if (plain) return s;
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  return out + "\"";
}

std::string elementDescription(const Value& v, int level) {
  if (const std::string* s = v.asString()) return quotedIfNeeded(*s);
  return v.descriptionWithIndent(level);
}

}  // namespace

const char* valueKindName(ValueKind kind) {
  switch (kind) {
    case ValueKind::Null: return "null";
    case ValueKind::Boolean: return "boolean";
    case ValueKind::Integer: return "integer";
    case ValueKind::Real: return "real";
    case ValueKind::String: return "string";
    case ValueKind::Data: return "data";
    case ValueKind::URL: return "address";
    case ValueKind::Date: return "date";
    case ValueKind::Array: return "array";
    case ValueKind::Dictionary: return "dictionary";
    case ValueKind::Set: return "set";
    case ValueKind::Object: return "object";
  }
  return "unknown";
}

// ---- Data and URL ---------------------------------------------------------

Data::Data(const void* bytes, std::size_t length) { append(bytes, length); }

const std::vector<std::uint8_t>& Data::noBytes() {
  static const std::vector<std::uint8_t> none;
  return none;
}

std::vector<std::uint8_t>& Data::mutableBytes() {
  if (!_bytes)
    _bytes = std::make_shared<std::vector<std::uint8_t>>();
  else if (_bytes.use_count() > 1)
    _bytes = std::make_shared<std::vector<std::uint8_t>>(*_bytes);
  return *_bytes;
}

void Data::append(const void* bytes, std::size_t length) {
  if (length == 0) return;
  const auto* p = static_cast<const std::uint8_t*>(bytes);
  auto& mine = mutableBytes();
  mine.insert(mine.end(), p, p + length);
}

std::string Data::description() const {
  std::string out = "<";
  const auto& all = bytes();
  for (std::size_t i = 0; i < all.size(); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    out += fmt::format("{:02x}", all[i]);
  }
  return out + ">";
}

std::string URL::scheme() const {
  const auto colon = _text.find(':');
  if (colon == std::string::npos || colon == 0) return {};
  const bool valid = std::all_of(_text.begin(), _text.begin() + std::ptrdiff_t(colon), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
  });
  return valid ? _text.substr(0, colon) : std::string();
}

namespace {
// The "//authority" part after the scheme, as [begin, end) offsets.
std::pair<std::size_t, std::size_t> authorityRange(const std::string& text, std::size_t schemeLength) {
  std::size_t start = schemeLength ? schemeLength + 1 : 0;
  if (text.compare(start, 2, "//") != 0) return {std::string::npos, std::string::npos};
  start += 2;
  const std::size_t end = text.find_first_of("/?#", start);
  return {start, end == std::string::npos ? text.size() : end};
}
}  // namespace

std::string URL::host() const {
  auto [begin, end] = authorityRange(_text, scheme().size());
  if (begin == std::string::npos) return {};
  std::string authority = _text.substr(begin, end - begin);
  if (auto at = authority.rfind('@'); at != std::string::npos) authority.erase(0, at + 1);
  if (!authority.empty() && authority[0] == '[') {
    const auto close = authority.find(']');
    return authority.substr(1, close == std::string::npos ? std::string::npos : close - 1);
  }
  if (auto colon = authority.find(':'); colon != std::string::npos) authority.erase(colon);
  return authority;
}

std::string URL::path() const {
  const std::size_t schemeLength = scheme().size();
  auto [begin, end] = authorityRange(_text, schemeLength);
  std::size_t start = begin == std::string::npos ? (schemeLength ? schemeLength + 1 : 0) : end;
  const std::size_t stop = _text.find_first_of("?#", start);
  return _text.substr(start, stop == std::string::npos ? std::string::npos : stop - start);
}

// ---- Value ----------------------------------------------------------------

Value::Value(const pc::Array& a) : _v(a._rep) {}
Value::Value(const pc::Dictionary& d) : _v(d._rep) {}
Value::Value(const pc::Set& s) : _v(s._rep) {}

std::optional<std::int64_t> Value::integerIfNumeric() const {
  switch (kind()) {
    case ValueKind::Null: return 0;
    case ValueKind::Boolean: return std::get<bool>(_v) ? 1 : 0;
    case ValueKind::Integer: return std::get<std::int64_t>(_v);
    case ValueKind::Real: return clampToInteger(std::get<double>(_v));
    case ValueKind::String: return integerFromString(std::get<std::string>(_v));
    default: return std::nullopt;
  }
}

std::optional<double> Value::doubleIfNumeric() const {
  switch (kind()) {
    case ValueKind::Null: return 0.0;
    case ValueKind::Boolean: return std::get<bool>(_v) ? 1.0 : 0.0;
    case ValueKind::Integer: return static_cast<double>(std::get<std::int64_t>(_v));
    case ValueKind::Real: return std::get<double>(_v);
    case ValueKind::String: return leadingDouble(std::get<std::string>(_v)).value_or(0.0);
    default: return std::nullopt;
  }
}

std::int64_t Value::integerValue() const {
  if (auto i = integerIfNumeric()) return *i;
  wrongKind(*this, "a number");
}

int Value::intValue() const {
  const std::int64_t i = integerValue();
  return static_cast<int>(std::clamp<std::int64_t>(i, std::numeric_limits<int>::min(),
                                                   std::numeric_limits<int>::max()));
}

double Value::doubleValue() const {
  if (auto d = doubleIfNumeric()) return *d;
  wrongKind(*this, "a number");
}

bool Value::boolValue() const {
  switch (kind()) {
    case ValueKind::Null: return false;
    case ValueKind::Boolean: return std::get<bool>(_v);
    case ValueKind::Integer: return std::get<std::int64_t>(_v) != 0;
    case ValueKind::Real: return std::get<double>(_v) != 0;
    case ValueKind::String: return boolFromString(std::get<std::string>(_v));
    default: wrongKind(*this, "a number");
  }
}

std::string Value::stringValue() const {
  if (const std::string* s = asString()) return *s;
  return description();
}

const std::string& Value::string() const {
  if (const std::string* s = asString()) return *s;
  wrongKind(*this, "a string");
}

const pc::Data& Value::data() const {
  if (const pc::Data* d = asData()) return *d;
  wrongKind(*this, "data");
}

const pc::URL& Value::url() const {
  if (const pc::URL* u = asURL()) return *u;
  wrongKind(*this, "an address");
}

const CalendarDate& Value::date() const {
  if (const CalendarDate* d = asDate()) return *d;
  wrongKind(*this, "a date");
}

pc::Array Value::array() const {
  if (auto a = asArray()) return *a;
  wrongKind(*this, "an array");
}

pc::Dictionary Value::dictionary() const {
  if (auto d = asDictionary()) return *d;
  wrongKind(*this, "a dictionary");
}

pc::Set Value::set() const {
  if (auto s = asSet()) return *s;
  wrongKind(*this, "a set");
}

ObjectPtr Value::object() const {
  if (auto p = std::get_if<ObjectPtr>(&_v)) return *p;
  wrongKind(*this, "an object");
}

std::optional<pc::Array> Value::asArray() const {
  if (auto p = std::get_if<std::shared_ptr<detail::ArrayRep>>(&_v)) return pc::Array(*p);
  return std::nullopt;
}

std::optional<pc::Dictionary> Value::asDictionary() const {
  if (auto p = std::get_if<std::shared_ptr<detail::DictionaryRep>>(&_v)) return pc::Dictionary(*p);
  return std::nullopt;
}

std::optional<pc::Set> Value::asSet() const {
  if (auto p = std::get_if<std::shared_ptr<detail::SetRep>>(&_v)) return pc::Set(*p);
  return std::nullopt;
}

Value Value::copy() const {
  switch (kind()) {
    case ValueKind::Array: return pc::Array(std::get<std::shared_ptr<detail::ArrayRep>>(_v)).copy();
    case ValueKind::Dictionary:
      return pc::Dictionary(std::get<std::shared_ptr<detail::DictionaryRep>>(_v)).copy();
    case ValueKind::Set: return pc::Set(std::get<std::shared_ptr<detail::SetRep>>(_v)).copy();
    default: return *this;
  }
}

Value Value::deepCopy() const {
  switch (kind()) {
    case ValueKind::Array: {
      const auto& rep = std::get<std::shared_ptr<detail::ArrayRep>>(_v);
      return pc::Array(rep).deepCopy();
    }
    case ValueKind::Dictionary: {
      const auto& rep = std::get<std::shared_ptr<detail::DictionaryRep>>(_v);
      return pc::Dictionary(rep).deepCopy();
    }
    case ValueKind::Set: return pc::Set(std::get<std::shared_ptr<detail::SetRep>>(_v)).deepCopy();
    default: return *this;
  }
}

bool Value::isIdenticalTo(const Value& other) const {
  if (kind() != other.kind()) return false;
  switch (kind()) {
    case ValueKind::Array:
      return std::get<std::shared_ptr<detail::ArrayRep>>(_v) ==
             std::get<std::shared_ptr<detail::ArrayRep>>(other._v);
    case ValueKind::Dictionary:
      return std::get<std::shared_ptr<detail::DictionaryRep>>(_v) ==
             std::get<std::shared_ptr<detail::DictionaryRep>>(other._v);
    case ValueKind::Set:
      return std::get<std::shared_ptr<detail::SetRep>>(_v) ==
             std::get<std::shared_ptr<detail::SetRep>>(other._v);
    case ValueKind::Object: return std::get<ObjectPtr>(_v) == std::get<ObjectPtr>(other._v);
    default: return *this == other;
  }
}

bool Value::operator==(const Value& other) const {
  if (isNumber() && other.isNumber()) {
    if (!isReal() && !other.isReal()) return integerValue() == other.integerValue();
    if (isReal() && other.isReal()) return std::get<double>(_v) == std::get<double>(other._v);
    const double real = isReal() ? std::get<double>(_v) : std::get<double>(other._v);
    const std::int64_t integer = isReal() ? other.integerValue() : integerValue();
    const auto exact = exactInteger(real);
    return exact && *exact == integer;
  }
  if (kind() != other.kind()) return false;
  switch (kind()) {
    case ValueKind::Null: return true;
    case ValueKind::String: return std::get<std::string>(_v) == std::get<std::string>(other._v);
    case ValueKind::Data: return std::get<pc::Data>(_v) == std::get<pc::Data>(other._v);
    case ValueKind::URL: return std::get<pc::URL>(_v) == std::get<pc::URL>(other._v);
    case ValueKind::Date: return *asDate() == *other.asDate();
    case ValueKind::Array: return array() == other.array();
    case ValueKind::Dictionary: return dictionary() == other.dictionary();
    case ValueKind::Set: return set() == other.set();
    case ValueKind::Object: {
      const ObjectPtr& a = std::get<ObjectPtr>(_v);
      const ObjectPtr& b = std::get<ObjectPtr>(other._v);
      return a == b || a->isEqual(*b);
    }
    default: return false;
  }
}

std::size_t Value::hash() const {
  switch (kind()) {
    case ValueKind::Null: return 0;
    case ValueKind::Boolean:
    case ValueKind::Integer: return std::hash<std::int64_t>()(integerValue());
    case ValueKind::Real: {
      const double d = std::get<double>(_v);
      if (auto exact = exactInteger(d)) return std::hash<std::int64_t>()(*exact);
      return std::hash<double>()(d);
    }
    case ValueKind::String: return std::hash<std::string>()(std::get<std::string>(_v));
    case ValueKind::Data: {
      const auto& bytes = std::get<pc::Data>(_v).bytes();
      return std::hash<std::string_view>()(
          std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }
    case ValueKind::URL: return std::hash<std::string>()(std::get<pc::URL>(_v).absoluteString());
    case ValueKind::Date:
      return std::hash<double>()(asDate()->timeIntervalSinceReferenceDate());
    case ValueKind::Array: {
      std::size_t h = std::hash<std::size_t>()(array().count());
      for (const Value& v : array()) h = combineHash(h, v.hash());
      return h;
    }
    case ValueKind::Dictionary: {
      // Order-independent: equal dictionaries may hold their keys in other orders.
      std::size_t h = std::hash<std::size_t>()(dictionary().count());
      for (const auto& [key, value] : dictionary()) h += combineHash(key.hash(), value.hash());
      return h;
    }
    case ValueKind::Set: {
      std::size_t h = std::hash<std::size_t>()(set().count());
      for (const Value& v : set()) h += v.hash();
      return h;
    }
    case ValueKind::Object: return std::get<ObjectPtr>(_v)->hash();
  }
  return 0;
}

std::string Value::description() const { return descriptionWithIndent(0); }

namespace {

// The containers being described on this thread, outermost first: one that
// holds itself prints a mark where it recurs instead of recursing for ever.
thread_local std::vector<const void*> describing;

}  // namespace

std::string Value::descriptionWithIndent(int level) const {
  const void* identity = nullptr;
  if (const auto* rep = std::get_if<std::shared_ptr<detail::ArrayRep>>(&_v)) identity = rep->get();
  if (const auto* rep = std::get_if<std::shared_ptr<detail::DictionaryRep>>(&_v)) identity = rep->get();
  if (const auto* rep = std::get_if<std::shared_ptr<detail::SetRep>>(&_v)) identity = rep->get();
  if (identity) {
    if (std::find(describing.begin(), describing.end(), identity) != describing.end())
      return "<the container itself>";
    describing.push_back(identity);
  }
  struct Leave {
    const void* identity;
    ~Leave() {
      if (identity) describing.pop_back();
    }
  } leave{identity};
  switch (kind()) {
    case ValueKind::Null: return "<null>";
    case ValueKind::Boolean: return std::get<bool>(_v) ? "1" : "0";
    case ValueKind::Integer: return std::to_string(std::get<std::int64_t>(_v));
    case ValueKind::Real: return fmt::format("{}", std::get<double>(_v));
    case ValueKind::String: return std::get<std::string>(_v);
    case ValueKind::Data: return std::get<pc::Data>(_v).description();
    case ValueKind::URL: return std::get<pc::URL>(_v).absoluteString();
    case ValueKind::Date: return asDate()->description();
    case ValueKind::Array:
    case ValueKind::Set: {
      const std::vector<Value>& items =
          isArray() ? array().values() : std::get<std::shared_ptr<detail::SetRep>>(_v)->items;
      const char* open = isArray() ? "(" : "{(";
      const char* close = isArray() ? ")" : ")}";
      if (items.empty()) return std::string(open) + close;
      std::string out = std::string(open) + "\n";
      for (std::size_t i = 0; i < items.size(); ++i) {
        out += indentation(level + 1) + elementDescription(items[i], level + 1);
        out += i + 1 < items.size() ? ",\n" : "\n";
      }
      return out + indentation(level) + close;
    }
    case ValueKind::Dictionary: {
      const Dictionary d = dictionary();
      if (d.empty()) return "{}";
      std::string out = "{\n";
      for (const auto& [key, value] : d) {
        out += indentation(level + 1) + elementDescription(key, level + 1) + " = " +
               elementDescription(value, level + 1) + ";\n";
      }
      return out + indentation(level) + "}";
    }
    case ValueKind::Object: return std::get<ObjectPtr>(_v)->description();
  }
  return {};
}

// ---- Array ----------------------------------------------------------------

Array::Array() : _rep(std::make_shared<detail::ArrayRep>()) {}
Array::Array(std::initializer_list<Value> values) : Array() { _rep->items.assign(values); }
Array::Array(std::vector<Value> values) : Array() { _rep->items = std::move(values); }

std::size_t Array::count() const { return _rep->items.size(); }

const Value& Array::at(std::size_t index) const {
  if (index >= _rep->items.size()) {
    raiseException(kRangeException,
                   fmt::format("index {} beyond bounds [0 .. {})", index, _rep->items.size()));
  }
  return _rep->items[index];
}

Value& Array::at(std::size_t index) {
  return const_cast<Value&>(static_cast<const Array&>(*this).at(index));
}

Value Array::first() const { return empty() ? Value() : _rep->items.front(); }
Value Array::last() const { return empty() ? Value() : _rep->items.back(); }

void Array::add(Value value) { _rep->items.push_back(std::move(value)); }

void Array::addAll(const Array& other) {
  if (isIdenticalTo(other)) {
    std::vector<Value> copy = other._rep->items;
    _rep->items.insert(_rep->items.end(), copy.begin(), copy.end());
    return;
  }
  _rep->items.insert(_rep->items.end(), other.begin(), other.end());
}

void Array::insert(Value value, std::size_t index) {
  if (index > count()) {
    raiseException(kRangeException, fmt::format("insertion index {} beyond count {}", index, count()));
  }
  _rep->items.insert(_rep->items.begin() + std::ptrdiff_t(index), std::move(value));
}

void Array::set(std::size_t index, Value value) { at(index) = std::move(value); }

void Array::removeAt(std::size_t index) {
  at(index);  // range check
  _rep->items.erase(_rep->items.begin() + std::ptrdiff_t(index));
}

void Array::removeRange(std::size_t index, std::size_t length) {
  if (index > count() || length > count() - index) {
    raiseException(kRangeException,
                   fmt::format("range {{{}, {}}} beyond count {}", index, length, count()));
  }
  auto first = _rep->items.begin() + std::ptrdiff_t(index);
  _rep->items.erase(first, first + std::ptrdiff_t(length));
}

void Array::removeLast() {
  if (!empty()) _rep->items.pop_back();
}

void Array::remove(const Value& value) { std::erase(_rep->items, value); }
void Array::removeAll() { _rep->items.clear(); }

bool Array::contains(const Value& value) const { return indexOf(value).has_value(); }

std::optional<std::size_t> Array::indexOf(const Value& value) const {
  auto it = std::find(_rep->items.begin(), _rep->items.end(), value);
  if (it == _rep->items.end()) return std::nullopt;
  return std::size_t(it - _rep->items.begin());
}

Array::iterator Array::begin() { return _rep->items.begin(); }
Array::iterator Array::end() { return _rep->items.end(); }
Array::const_iterator Array::begin() const { return _rep->items.begin(); }
Array::const_iterator Array::end() const { return _rep->items.end(); }
const std::vector<Value>& Array::values() const { return _rep->items; }
std::vector<Value>& Array::mutableValues() { return _rep->items; }

Array Array::copy() const { return Array(_rep->items); }

Array Array::deepCopy() const {
  Array result;
  result._rep->items.reserve(count());
  for (const Value& v : _rep->items) result._rep->items.push_back(v.deepCopy());
  return result;
}

bool Array::operator==(const Array& other) const {
  return _rep == other._rep || _rep->items == other._rep->items;
}

// ---- Dictionary -----------------------------------------------------------

Dictionary::Dictionary() : _rep(std::make_shared<detail::DictionaryRep>()) {}

Dictionary::Dictionary(std::initializer_list<Entry> entries) : Dictionary() {
  _rep->entries.reserve(entries.size());
  for (const auto& [key, value] : entries) set(key, value);
}

std::size_t Dictionary::count() const { return _rep->entries.size(); }

const Value* Dictionary::find(DictionaryKey key) const {
  const std::optional<std::size_t> at = _rep->position(key);
  return at ? &_rep->entries[*at].second : nullptr;
}

Value* Dictionary::find(DictionaryKey key) {
  return const_cast<Value*>(static_cast<const Dictionary&>(*this).find(key));
}

Value Dictionary::get(DictionaryKey key) const {
  const Value* v = find(key);
  return v ? *v : Value();
}

std::string Dictionary::getString(DictionaryKey key, std::string fallback) const {
  const Value* v = find(key);
  return v && v->isString() ? v->string() : fallback;
}

std::int64_t Dictionary::getInteger(DictionaryKey key, std::int64_t fallback) const {
  const Value* v = find(key);
  if (!v || v->isNull()) return fallback;
  return v->integerIfNumeric().value_or(fallback);
}

bool Dictionary::getBool(DictionaryKey key, bool fallback) const {
  const Value* v = find(key);
  if (!v || !(v->isNumber() || v->isString())) return fallback;
  return v->boolValue();
}

std::optional<Dictionary> Dictionary::getDictionary(DictionaryKey key) const {
  const Value* v = find(key);
  return v ? v->asDictionary() : std::nullopt;
}

std::optional<Array> Dictionary::getArray(DictionaryKey key) const {
  const Value* v = find(key);
  return v ? v->asArray() : std::nullopt;
}

void Dictionary::set(DictionaryKey key, Value value) {
  if (Value* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  _rep->append(key.toValue(), std::move(value));
}

void Dictionary::remove(DictionaryKey key) {
  if (const std::optional<std::size_t> at = _rep->position(key)) _rep->erase(*at);
}

void Dictionary::removeAll() {
  _rep->entries.clear();
  _rep->index.clear();
}

void Dictionary::addEntriesFrom(const Dictionary& other) {
  const std::vector<Entry> entries = other._rep->entries;  // safe when other is this
  for (const auto& [key, value] : entries) set(key, value);
}

Array Dictionary::keys() const {
  Array result;
  result.mutableValues().reserve(count());
  for (const auto& entry : _rep->entries) result.add(entry.first);
  return result;
}

Array Dictionary::values() const {
  Array result;
  result.mutableValues().reserve(count());
  for (const auto& entry : _rep->entries) result.add(entry.second);
  return result;
}

Array Dictionary::keysForValue(const Value& value) const {
  Array result;
  for (const auto& entry : _rep->entries) {
    if (entry.second == value) result.add(entry.first);
  }
  return result;
}

Dictionary::iterator Dictionary::begin() { return _rep->entries.begin(); }
Dictionary::iterator Dictionary::end() { return _rep->entries.end(); }
Dictionary::const_iterator Dictionary::begin() const { return _rep->entries.begin(); }
Dictionary::const_iterator Dictionary::end() const { return _rep->entries.end(); }

Dictionary Dictionary::copy() const {
  Dictionary result;
  *result._rep = *_rep;
  return result;
}

Dictionary Dictionary::deepCopy() const {
  Dictionary result;
  result._rep->entries.reserve(count());
  for (const auto& [key, value] : _rep->entries) result._rep->entries.emplace_back(key, value.deepCopy());
  result._rep->index = _rep->index;
  return result;
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (_rep == other._rep) return true;
  if (count() != other.count()) return false;
  for (const auto& [key, value] : _rep->entries) {
    const Value* theirs = other.find(key);
    if (!theirs || !(*theirs == value)) return false;
  }
  return true;
}

// ---- Set ------------------------------------------------------------------

Set::Set() : _rep(std::make_shared<detail::SetRep>()) {}
Set::Set(std::initializer_list<Value> values) : Set() {
  for (const Value& v : values) add(v);
}

std::size_t Set::count() const { return _rep->items.size(); }
bool Set::contains(const Value& value) const { return _rep->index.contains(value); }

void Set::add(Value value) {
  if (contains(value)) return;
  _rep->index.emplace(value, _rep->items.size());
  _rep->items.push_back(std::move(value));
}

void Set::remove(const Value& value) {
  auto it = _rep->index.find(value);
  if (it == _rep->index.end()) return;
  const std::size_t position = it->second;
  _rep->index.erase(it);
  _rep->items.erase(_rep->items.begin() + std::ptrdiff_t(position));
  for (std::size_t i = position; i < _rep->items.size(); ++i) _rep->index[_rep->items[i]] = i;
}

void Set::removeAll() {
  _rep->items.clear();
  _rep->index.clear();
}

Array Set::allObjects() const { return Array(_rep->items); }
Set::const_iterator Set::begin() const { return _rep->items.begin(); }
Set::const_iterator Set::end() const { return _rep->items.end(); }

Set Set::copy() const {
  Set result;
  *result._rep = *_rep;
  return result;
}

Set Set::deepCopy() const {
  Set result;
  for (const Value& v : _rep->items) result.add(v.deepCopy());
  return result;
}

bool Set::operator==(const Set& other) const {
  if (_rep == other._rep) return true;
  if (count() != other.count()) return false;
  return std::all_of(begin(), end(), [&](const Value& v) { return other.contains(v); });
}

}  // namespace pc
