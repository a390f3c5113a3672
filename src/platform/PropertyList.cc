#include "platform/PropertyList.h"

#include "platform/FileIO.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <pugixml.hpp>
#include <vector>

namespace pc {

std::string PropertyListError::description() const {
  if (line <= 0) return message;
  return fmt::format("line {}, column {}: {}", line, column, message);
}

namespace {

constexpr int kMaxDepth = PropertyList::kMaxDepth;

constexpr char kHeader[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist>\n"
    "<plist version=\"1.0\">\n";
constexpr char kFooter[] = "</plist>\n";

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kBase64LineLength = 76;

bool isXMLSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isXMLSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXMLSpace(text.back())) text.remove_suffix(1);
  return text;
}

std::string base64Encode(const std::vector<std::uint8_t>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = std::uint32_t(bytes[i]) << 16;
    if (n > 1) group |= std::uint32_t(bytes[i + 1]) << 8;
    if (n > 2) group |= bytes[i + 2];
    for (std::size_t k = 0; k < 4; ++k)
      out += k <= n ? kBase64Alphabet[(group >> (18 - 6 * k)) & 0x3F] : '=';
  }
  return out;
}

// Strict about the alphabet and the padding, tolerant of white space anywhere
// and of missing trailing padding.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
  std::array<int, 256> values;
  values.fill(-1);
  for (int i = 0; i < 64; ++i) values[static_cast<unsigned char>(kBase64Alphabet[i])] = i;

  std::vector<std::uint8_t> out;
  std::uint32_t group = 0;
  int symbols = 0;  // symbols in the current group of four
  int padding = 0;
  for (char c : text) {
    if (isXMLSpace(c)) continue;
    if (c == '=') {
      // Padding completes a group that already holds two or three symbols.
      if (symbols + padding < 2) return std::nullopt;
      if (symbols + ++padding > 4) return std::nullopt;
      continue;
    }
    const int v = values[static_cast<unsigned char>(c)];
    if (v < 0 || padding > 0) return std::nullopt;
    group = (group << 6) | std::uint32_t(v);
    if (++symbols == 4) {
      out.push_back(std::uint8_t(group >> 16));
      out.push_back(std::uint8_t(group >> 8));
      out.push_back(std::uint8_t(group));
      group = 0;
      symbols = 0;
    }
  }
  if (symbols == 1) return std::nullopt;
  if (symbols >= 2) {
    group <<= 6 * (4 - symbols);
    out.push_back(std::uint8_t(group >> 16));
    if (symbols == 3) out.push_back(std::uint8_t(group >> 8));
  }
  return out;
}

// Reads `count` decimal digits at `pos` (advancing it).
std::optional<int> readDigits(std::string_view text, std::size_t& pos, std::size_t count) {
  if (pos + count > text.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = 0; i < count; ++i, ++pos) {
    const char c = text[pos];
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

bool expect(std::string_view text, std::size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

// "2006-03-15T09:00:00Z", optionally with fractional seconds
// ("...T09:00:00.250Z") and a year of more than four digits or a minus sign.
std::optional<CalendarDate> parseISODate(std::string_view text) {
  std::size_t pos = 0;
  const bool negative = expect(text, pos, '-');
  std::size_t yearDigits = 0;
  while (pos + yearDigits < text.size() && text[pos + yearDigits] >= '0' &&
         text[pos + yearDigits] <= '9')
    ++yearDigits;
  if (yearDigits < 4 || yearDigits > 6) return std::nullopt;
  auto year = readDigits(text, pos, yearDigits);
  std::optional<int> month, day, hour, minute, second;
  if (!(expect(text, pos, '-') && (month = readDigits(text, pos, 2)) && expect(text, pos, '-') &&
        (day = readDigits(text, pos, 2)) && expect(text, pos, 'T') &&
        (hour = readDigits(text, pos, 2)) && expect(text, pos, ':') &&
        (minute = readDigits(text, pos, 2)) && expect(text, pos, ':') &&
        (second = readDigits(text, pos, 2))))
    return std::nullopt;
  double fraction = 0;
  if (expect(text, pos, '.')) {
    double scale = 0.1;
    const std::size_t start = pos;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos, scale /= 10)
      fraction += (text[pos] - '0') * scale;
    if (pos == start) return std::nullopt;
  }
  if (!expect(text, pos, 'Z') || pos != text.size()) return std::nullopt;
  if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 ||
      *second > 59)
    return std::nullopt;

  const int y = negative ? -*year : *year;
  CalendarDate date = CalendarDate::dateWithYear(y, *month, *day, *hour, *minute, *second);
  // dateWithYear carries out-of-range days (February 30 becomes March 2): refuse those.
  if (date.monthOfYear() != *month || date.dayOfMonth() != *day) return std::nullopt;
  if (fraction > 0) date = date.dateByAddingTimeInterval(fraction);
  return date;
}

std::string formatISODate(const CalendarDate& value) {
  const CalendarDate date = value.dateWithTimeZone(TimeZone::gmt());
  const int year = date.yearOfCommonEra();
  return fmt::format("{}{:04d}-{:02d}-{:02d}T{:02d}:{:02d}:{:02d}Z", year < 0 ? "-" : "",
                     std::abs(year), date.monthOfYear(), date.dayOfMonth(), date.hourOfDay(),
                     date.minuteOfHour(), date.secondOfMinute());
}

std::string formatReal(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
  return fmt::format("{}", value);  // the shortest text that reads back exactly
}

// from_chars refuses a leading '+', which property lists allow.
std::string_view withoutPlus(std::string_view text) {
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  return text;
}

class Reader {
 public:
  Reader(std::string_view xml, PropertyListError* error) : _xml(xml), _error(error) {}

  std::optional<Value> read() {
    pugi::xml_document document;
    const pugi::xml_parse_result result = document.load_buffer(
        _xml.data(), _xml.size(), pugi::parse_default | pugi::parse_ws_pcdata_single,
        pugi::encoding_utf8);
    if (result.status == pugi::status_no_document_element)
      return fail(-1, "no <plist> root element");
    if (!result)
      return fail(result.offset, fmt::format("XML is not well formed: {}", result.description()));

    const pugi::xml_node root = document.document_element();
    if (std::string_view(root.name()) != "plist") return fail(root, "no <plist> root element");
    pugi::xml_node value;
    for (pugi::xml_node child : root.children()) {
      if (!checkNotText(child, root)) return std::nullopt;
      if (child.type() != pugi::node_element) continue;
      if (value) return fail(child, "<plist> holds more than one value");
      value = child;
    }
    if (!value) return fail(root, "<plist> holds no value");
    return readValue(value, 0);
  }

 private:
  std::optional<Value> readValue(pugi::xml_node node, int depth) {
    if (depth > kMaxDepth)
      return fail(node, fmt::format("values nested more than {} deep", kMaxDepth));
    const std::string_view name = node.name();
    if (name == "dict") return readDictionary(node, depth);
    if (name == "array") return readArray(node, depth);
    if (name == "true") return Value(true);
    if (name == "false") return Value(false);
    if (name == "key") return fail(node, "<key> outside a <dict>");

    auto text = textOf(node);
    if (!text) return std::nullopt;
    if (name == "string") return Value(std::move(*text));
    if (name == "integer") return readInteger(node, *text);
    if (name == "real") return readReal(node, *text);
    if (name == "date") {
      if (auto date = parseISODate(trimmed(*text))) return Value(std::move(*date));
      return fail(node, fmt::format("<date> holds \"{}\", not a date like 2006-03-15T09:00:00Z",
                                    trimmed(*text)));
    }
    if (name == "data") {
      if (auto bytes = base64Decode(*text)) return Value(Data(std::move(*bytes)));
      return fail(node, "<data> holds text that is not base64");
    }
    return fail(node, fmt::format("unknown element <{}>", name));
  }

  std::optional<Value> readDictionary(pugi::xml_node node, int depth) {
    Dictionary dictionary;
    pugi::xml_node key;
    for (pugi::xml_node child : node.children()) {
      if (!checkNotText(child, node)) return std::nullopt;
      if (child.type() != pugi::node_element) continue;
      if (!key) {
        if (std::string_view(child.name()) != "key")
          return fail(child, fmt::format("<dict> expects a <key>, not <{}>", child.name()));
        key = child;
        continue;
      }
      if (std::string_view(child.name()) == "key") break;  // the pending key has no value
      auto keyText = textOf(key);
      auto value = keyText ? readValue(child, depth + 1) : std::nullopt;
      if (!value) return std::nullopt;
      dictionary.set(Value(std::move(*keyText)), std::move(*value));
      key = {};
    }
    if (key) return fail(key, fmt::format("<dict> key \"{}\" has no value", key.child_value()));
    return Value(dictionary);
  }

  std::optional<Value> readArray(pugi::xml_node node, int depth) {
    Array array;
    for (pugi::xml_node child : node.children()) {
      if (!checkNotText(child, node)) return std::nullopt;
      if (child.type() != pugi::node_element) continue;
      auto value = readValue(child, depth + 1);
      if (!value) return std::nullopt;
      array.add(std::move(*value));
    }
    return Value(array);
  }

  std::optional<Value> readInteger(pugi::xml_node node, std::string_view text) {
    const std::string_view digits = withoutPlus(trimmed(text));
    std::int64_t value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (ec == std::errc::result_out_of_range)
      return fail(node, fmt::format("<integer> holds \"{}\", out of the 64-bit range", text));
    if (ec != std::errc() || end != digits.data() + digits.size())
      return fail(node, fmt::format("<integer> holds \"{}\", not a whole number", text));
    return Value(value);
  }

  std::optional<Value> readReal(pugi::xml_node node, std::string_view text) {
    const std::string_view digits = withoutPlus(trimmed(text));
    double value = 0;
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    // Out-of-range texts read as infinity or zero, as strtod answers them.
    if (ec == std::errc::result_out_of_range)
      return Value(std::strtod(std::string(digits).c_str(), nullptr));
    if (ec != std::errc() || end != digits.data() + digits.size())
      return fail(node, fmt::format("<real> holds \"{}\", not a number", text));
    return Value(value);
  }

  // The character data of a leaf element; nested elements are an error.
  std::optional<std::string> textOf(pugi::xml_node node) {
    std::string text;
    for (pugi::xml_node child : node.children()) {
      if (child.type() == pugi::node_element)
        return fail(child, fmt::format("<{}> inside <{}>", child.name(), node.name()));
      if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
        text += child.value();
    }
    return text;
  }

  // Containers hold elements only (white space between them is dropped by the parser).
  bool checkNotText(pugi::xml_node child, pugi::xml_node parent) {
    if (child.type() != pugi::node_pcdata && child.type() != pugi::node_cdata) return true;
    if (trimmed(child.value()).empty()) return true;
    fail(child, fmt::format("text \"{}\" inside <{}>", trimmed(child.value()), parent.name()));
    return false;
  }

  std::nullopt_t fail(pugi::xml_node node, std::string message) {
    // An element's offset is that of its name; point at the '<' before it.
    std::ptrdiff_t offset = node.offset_debug();
    if (node.type() == pugi::node_element && offset > 0) --offset;
    return fail(offset, std::move(message));
  }

  std::nullopt_t fail(std::ptrdiff_t offset, std::string message) {
    if (!_error) return std::nullopt;
    *_error = PropertyListError{std::move(message)};
    if (offset < 0) return std::nullopt;
    const std::string_view before = _xml.substr(0, std::min<std::size_t>(offset, _xml.size()));
    const std::size_t lineStart = before.rfind('\n') + 1;  // npos + 1 == 0
    _error->line = 1 + static_cast<int>(std::count(before.begin(), before.end(), '\n'));
    // Columns count characters, not the continuation bytes of UTF-8 sequences.
    _error->column =
        1 + static_cast<int>(std::count_if(before.begin() + lineStart, before.end(), [](char c) {
          return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        }));
    return std::nullopt;
  }

  std::string_view _xml;
  PropertyListError* _error;
};

class Writer {
 public:
  explicit Writer(PropertyListError* error) : _error(error) {}

  std::optional<std::string> write(const Value& value) {
    _out = kHeader;
    if (!writeValue(value, 0)) return std::nullopt;
    _out += kFooter;
    return std::move(_out);
  }

 private:
  bool writeValue(const Value& value, int depth) {
    if (depth > kMaxDepth) return fail(fmt::format("values nested more than {} deep", kMaxDepth));
    switch (value.kind()) {
      case ValueKind::Boolean:
        line(depth, value.boolValue() ? "<true/>" : "<false/>");
        return true;
      case ValueKind::Integer:
        line(depth, fmt::format("<integer>{}</integer>", value.integerValue()));
        return true;
      case ValueKind::Real:
        line(depth, fmt::format("<real>{}</real>", formatReal(value.doubleValue())));
        return true;
      case ValueKind::String:
        line(depth, fmt::format("<string>{}</string>", escaped(value.string())));
        return true;
      case ValueKind::Date:
        line(depth, fmt::format("<date>{}</date>", formatISODate(value.date())));
        return true;
      case ValueKind::Data:
        writeData(value.data(), depth);
        return true;
      case ValueKind::Array:
        return writeContainer(value, "array", value.array().values(), depth);
      case ValueKind::Set:
        return writeContainer(value, "array", value.set().allObjects().values(), depth);
      case ValueKind::Dictionary:
        return writeDictionary(value, depth);
      case ValueKind::Null:
      case ValueKind::URL:
      case ValueKind::Object:
        break;
    }
    return fail(fmt::format("a property list cannot hold a value of kind {}", value.kindName()));
  }

  bool writeContainer(const Value& container, const char* tag, const std::vector<Value>& elements,
                      int depth) {
    if (elements.empty()) {
      line(depth, fmt::format("<{}/>", tag));
      return true;
    }
    if (!enter(container)) return false;
    line(depth, fmt::format("<{}>", tag));
    for (std::size_t i = 0; i < elements.size(); ++i) {
      _path.push_back(std::to_string(i));
      if (!writeValue(elements[i], depth + 1)) return false;
      _path.pop_back();
    }
    line(depth, fmt::format("</{}>", tag));
    _ancestors.pop_back();
    return true;
  }

  bool writeDictionary(const Value& value, int depth) {
    const Dictionary dictionary = value.dictionary();
    if (dictionary.empty()) {
      line(depth, "<dict/>");
      return true;
    }
    if (!enter(value)) return false;
    line(depth, "<dict>");
    for (const auto& [key, element] : dictionary) {
      if (!key.isString())
        return fail(
            fmt::format("a property list cannot hold a dictionary key of kind {}", key.kindName()));
      _path.push_back(key.string());
      line(depth + 1, fmt::format("<key>{}</key>", escaped(key.string())));
      if (!writeValue(element, depth + 1)) return false;
      _path.pop_back();
    }
    line(depth, "</dict>");
    _ancestors.pop_back();
    return true;
  }

  void writeData(const Data& data, int depth) {
    const std::string encoded = base64Encode(data.bytes());
    if (encoded.empty()) {
      line(depth, "<data></data>");
      return;
    }
    line(depth, "<data>");
    for (std::size_t i = 0; i < encoded.size(); i += kBase64LineLength)
      line(depth, std::string_view(encoded).substr(i, kBase64LineLength));
    line(depth, "</data>");
  }

  // Containers are shared by reference, so one can hold itself; writing it would never end.
  bool enter(const Value& container) {
    for (const Value& ancestor : _ancestors)
      if (ancestor.isIdenticalTo(container)) return fail("a container holds itself");
    _ancestors.push_back(container);
    return true;
  }

  void line(int depth, std::string_view text) {
    _out.append(static_cast<std::size_t>(depth), '\t');
    _out += text;
    _out += '\n';
  }

  static std::string escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
      switch (c) {
        case '&':
          out += "&amp;";
          break;
        case '<':
          out += "&lt;";
          break;
        case '>':
          out += "&gt;";
          break;
        // A raw carriage return would be read back as a line feed.
        case '\r':
          out += "&#13;";
          break;
        default:
          out += c;
      }
    }
    return out;
  }

  bool fail(std::string message) {
    if (!_error) return false;
    std::string where = "the top level";
    if (!_path.empty()) {
      where = "\"" + _path.front();
      for (std::size_t i = 1; i < _path.size(); ++i) where += "/" + _path[i];
      where += "\"";
    }
    *_error = PropertyListError{fmt::format("{} (at {})", message, where)};
    return false;
  }

  PropertyListError* _error;
  std::string _out;
  std::vector<std::string> _path;
  std::vector<Value> _ancestors;
};

void setError(PropertyListError* error, std::string message) {
  if (error) *error = PropertyListError{std::move(message)};
}

}  // namespace

std::optional<Value> PropertyList::fromXML(std::string_view xml, PropertyListError* error) {
  return Reader(xml, error).read();
}

std::optional<Value> PropertyList::fromFile(const std::string& path, PropertyListError* error) {
  std::string problem;
  const std::optional<std::string> contents = readWholeFile(path, &problem);
  if (!contents) {
    setError(error, std::move(problem));
    return std::nullopt;
  }
  return fromXML(*contents, error);
}

std::optional<std::string> PropertyList::toXML(const Value& value, PropertyListError* error) {
  return Writer(error).write(value);
}

bool PropertyList::writeToFile(const Value& value, const std::string& path,
                               PropertyListError* error) {
  const auto xml = toXML(value, error);
  if (!xml) return false;
  std::string problem;
  if (writeFileAtomically(path, *xml, &problem)) return true;
  setError(error, std::move(problem));
  return false;
}

}  // namespace pc
