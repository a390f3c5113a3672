#include "platform/PropertyList.h"

#include "platform/FileIO.h"
#include "platform/Strings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <pugixml.hpp>
#include <unicode/ucnv.h>
#include <limits>
#include <memory>
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
// A date outside the calendar's years sets `outOfRange` and answers nullopt.
std::optional<CalendarDate> parseISODate(std::string_view text, bool& outOfRange) {
  outOfRange = false;
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
  // Fractions are kept to the millisecond, as the writer writes them.
  int milliseconds = 0;
  if (expect(text, pos, '.')) {
    const std::size_t start = pos;
    int scale = 100;
    bool roundUp = false;
    for (; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
      if (scale > 0) {
        milliseconds += (text[pos] - '0') * scale;
      } else if (pos == start + 3) {
        roundUp = text[pos] >= '5';
      }
      scale /= 10;
    }
    if (pos == start) return std::nullopt;
    milliseconds += roundUp ? 1 : 0;
  }
  if (!expect(text, pos, 'Z') || pos != text.size()) return std::nullopt;
  if (*month < 1 || *month > 12 || *day < 1 || *day > 31 || *hour > 23 || *minute > 59 ||
      *second > 59)
    return std::nullopt;

  const int y = negative ? -*year : *year;
  CalendarDate date = CalendarDate::dateWithYear(y, *month, *day, *hour, *minute, *second);
  if (!date.isWithinSupportedRange()) {
    outOfRange = true;
    return std::nullopt;
  }
  // dateWithYear carries out-of-range days (February 30 becomes March 2): refuse those.
  if (date.monthOfYear() != *month || date.dayOfMonth() != *day) return std::nullopt;
  if (milliseconds > 0) date = date.dateByAddingTimeInterval(milliseconds / 1000.0);
  return date;
}

// The date in GMT to the millisecond; the fraction only when there is one.
std::string formatISODate(const CalendarDate& value) {
  const double seconds = value.timeIntervalSinceReferenceDate();
  const auto millis = static_cast<std::int64_t>(std::llround(seconds * 1000.0));
  const std::int64_t fraction = ((millis % 1000) + 1000) % 1000;
  const CalendarDate date(Date{static_cast<double>(millis - fraction) / 1000.0}, TimeZone::gmt());
  const int year = date.yearOfCommonEra();
  std::string text =
      fmt::format("{}{:04d}-{:02d}-{:02d}T{:02d}:{:02d}:{:02d}", year < 0 ? "-" : "",
                  std::abs(year), date.monthOfYear(), date.dayOfMonth(), date.hourOfDay(),
                  date.minuteOfHour(), date.secondOfMinute());
  if (fraction != 0) {
    std::string digits = fmt::format("{:03d}", fraction);
    while (digits.back() == '0') digits.pop_back();
    text += "." + digits;
  }
  return text + "Z";
}

constexpr char kOutsideCalendar[] = "outside the years the calendar supports";

// Characters XML 1.0 can hold, raw or as a reference.
bool isXMLCharacter(std::int32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// What keeps `text` out of a property list, or "" when nothing does.
std::string unwritableCharacter(std::string_view text) {
  for (std::size_t position = 0; position < text.size();) {
    const std::size_t at = position;
    const std::int32_t c = nextCodePoint(text, position);
    if (c < 0)
      return fmt::format("byte 0x{:02X} at byte {} is not UTF-8",
                         static_cast<unsigned char>(text[at]), at);
    if (!isXMLCharacter(c)) return fmt::format("character U+{:04X} at byte {}", c, at);
  }
  return {};
}

// The text as UTF-8, converted from the encoding its byte-order mark or its
// XML declaration gives (UTF-8 when neither does). nullopt with `problem`
// for an unknown encoding or bytes that are not in it.
std::optional<std::string> asUTF8(std::string_view bytes, std::string& problem) {
  const auto starts = [&](std::string_view prefix) { return bytes.substr(0, prefix.size()) == prefix; };
  std::string encoding;
  std::size_t skip = 0;
  if (starts("\xEF\xBB\xBF")) {
    skip = 3;
    encoding = "UTF-8";
  } else if (starts("\xFE\xFF")) {
    skip = 2;
    encoding = "UTF-16BE";
  } else if (starts("\xFF\xFE")) {
    skip = 2;
    encoding = "UTF-16LE";
  } else if (starts(std::string_view("\0<", 2))) {
    encoding = "UTF-16BE";
  } else if (starts(std::string_view("<\0", 2))) {
    encoding = "UTF-16LE";
  } else if (starts("<?xml")) {
    // encoding="name" or encoding='name' inside the declaration.
    const std::string_view declaration = bytes.substr(0, bytes.find("?>"));
    const std::size_t key = declaration.find("encoding");
    if (key != std::string_view::npos) {
      std::size_t at = declaration.find_first_of("\"'", key);
      const std::size_t end =
          at == std::string_view::npos ? at : declaration.find(declaration[at], at + 1);
      if (end != std::string_view::npos) encoding = std::string(declaration.substr(at + 1, end - at - 1));
    }
  }
  std::string lower = encoding;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  bytes.remove_prefix(skip);
  if (lower.empty() || lower == "utf-8" || lower == "utf8" || lower == "us-ascii" || lower == "ascii")
    return std::string(bytes);
  if ((lower == "utf-16" || lower == "utf16") && skip == 0) {
    problem = fmt::format("declares {} but holds one-byte characters", encoding);
    return std::nullopt;
  }
  if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max() / 4)) {
    problem = "too large to convert from " + encoding;
    return std::nullopt;
  }
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UConverter, void (*)(UConverter*)> from(ucnv_open(encoding.c_str(), &status), ucnv_close);
  if (U_FAILURE(status) || status == U_AMBIGUOUS_ALIAS_WARNING) {
    if (U_FAILURE(status)) {
      problem = fmt::format("unknown encoding \"{}\"", encoding);
      return std::nullopt;
    }
    status = U_ZERO_ERROR;
  }
  // Bytes that are not in the encoding are an error, not a replacement character.
  ucnv_setToUCallBack(from.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  std::unique_ptr<UConverter, void (*)(UConverter*)> to(ucnv_open("UTF-8", &status), ucnv_close);
  if (U_FAILURE(status)) {
    problem = fmt::format("cannot convert from \"{}\"", encoding);
    return std::nullopt;
  }
  std::string out(bytes.size() * 3 + 16, '\0');
  char* target = out.data();
  const char* source = bytes.data();
  ucnv_convertEx(to.get(), from.get(), &target, out.data() + out.size(), &source,
                 bytes.data() + bytes.size(), nullptr, nullptr, nullptr, nullptr, true, true,
                 &status);
  if (U_FAILURE(status)) {
    problem = fmt::format("byte {} is not {} text", source - bytes.data() + skip, encoding);
    return std::nullopt;
  }
  out.resize(static_cast<std::size_t>(target - out.data()));
  return out;
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
    std::string problem;
    std::optional<std::string> converted = asUTF8(_xml, problem);
    if (!converted) return fail(-1, problem);
    _converted = std::move(*converted);
    _xml = _converted;
    if (!checkCharacters()) return std::nullopt;

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
      bool outOfRange = false;
      auto date = parseISODate(trimmed(*text), outOfRange);
      if (!date && !outOfRange)
        return fail(node, fmt::format("<date> holds \"{}\", not a date like 2006-03-15T09:00:00Z",
                                      trimmed(*text)));
      if (outOfRange || !date->isWithinSupportedRange())
        return fail(node, fmt::format("<date> holds \"{}\", {} (at {})", trimmed(*text),
                                      kOutsideCalendar, pathText()));
      return Value(std::move(*date));
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
      if (!keyText) return std::nullopt;
      _path.push_back(*keyText);
      auto value = readValue(child, depth + 1);
      _path.pop_back();
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
      _path.push_back(std::to_string(array.count()));
      auto value = readValue(child, depth + 1);
      _path.pop_back();
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

  // XML 1.0 holds no NUL, no other control character but tab, line feed and
  // carriage return, no lone surrogate: neither raw nor as a character
  // reference ("&#0;" would otherwise cut a text short), and only UTF-8.
  bool checkCharacters() {
    for (std::size_t position = 0; position < _xml.size();) {
      const std::size_t at = position;
      const std::int32_t c = nextCodePoint(_xml, position);
      if (c < 0) {
        fail(static_cast<std::ptrdiff_t>(at),
             fmt::format("byte 0x{:02X} is not UTF-8 (declare the file's encoding)",
                         static_cast<unsigned char>(_xml[at])));
        return false;
      }
      if (!isXMLCharacter(c)) {
        fail(static_cast<std::ptrdiff_t>(at),
             fmt::format("character U+{:04X} cannot be in a property list", c));
        return false;
      }
      if (c == '&' && position < _xml.size() && _xml[position] == '#') {
        const bool hex = position + 1 < _xml.size() && _xml[position + 1] == 'x';
        const std::size_t digits = position + (hex ? 2 : 1);
        const std::size_t end = _xml.find(';', digits);
        std::uint32_t code = 0;
        const auto [last, ec] =
            std::from_chars(_xml.data() + digits, _xml.data() + std::min(end, _xml.size()), code, hex ? 16 : 10);
        // A reference whose digits overflow names no character either (the
        // parser would otherwise turn it into bytes that are not UTF-8).
        const bool complete = end != std::string_view::npos && last == _xml.data() + end;
        if (complete && (ec == std::errc::result_out_of_range ||
                         (ec == std::errc() &&
                          !isXMLCharacter(static_cast<std::int32_t>(std::min<std::uint32_t>(code, 0x7FFFFFFF)))))) {
          fail(static_cast<std::ptrdiff_t>(at),
               fmt::format("{} is not a character a property list can hold",
                           _xml.substr(at, end + 1 - at)));
          return false;
        }
      }
    }
    return true;
  }

  std::string pathText() const {
    if (_path.empty()) return "the top level";
    std::string text = "\"" + _path.front();
    for (std::size_t i = 1; i < _path.size(); ++i) text += "/" + _path[i];
    return text + "\"";
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
  std::string _converted;  // the text as UTF-8, which _xml views
  PropertyListError* _error;
  std::vector<std::string> _path;  // keys and indexes down to the value being read
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
        if (!writable(value.string())) return false;
        line(depth, fmt::format("<string>{}</string>", escaped(value.string())));
        return true;
      case ValueKind::Date:
        if (!value.date().isWithinSupportedRange())
          return fail(fmt::format("a date {}", kOutsideCalendar));
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
      if (!writable(key.string())) return false;
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

  // Text with a character XML cannot hold would not read back: refused.
  bool writable(std::string_view text) {
    const std::string problem = unwritableCharacter(text);
    if (problem.empty()) return true;
    return fail(fmt::format("a property list cannot hold the text's {}", problem));
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
