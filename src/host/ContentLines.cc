#include "host/ContentLines.h"

#include <unicode/ucnv.h>

#include <algorithm>
#include <array>

#include "platform/Strings.h"

namespace pc {

namespace {

// Nesting deeper than this is read as the enclosing object's lines; no file
// a phone writes nests more than three deep.
constexpr int kMaximumDepth = 16;
// The longest line the writer makes, without its CRLF.
constexpr std::size_t kLineWidth = 75;

char upperByte(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }


bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return upperByte(x) == upperByte(y); });
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::string_view trimWhitespaceView(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool isNameCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_';
}

bool isBase64Character(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/' || c == '=';
}

// Whether a physical line can only be more base64 data.
bool isBase64Line(std::string_view line) {
  bool any = false;
  for (char c : line) {
    if (isBlank(c)) continue;
    if (!isBase64Character(c)) return false;
    any = true;
  }
  return any;
}

// The position of the colon that ends a line's name and parameters, skipping
// quoted parameter values; npos when there is none.
std::size_t valueColon(std::string_view line) {
  // Most heads hold no quote: the first colon is the one.
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || line.substr(0, colon).find('"') == std::string_view::npos) return colon;
  bool quoted = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') quoted = !quoted;
    else if (line[i] == ':' && !quoted) return i;
  }
  return std::string_view::npos;
}

bool isEncodingName(std::string_view value) {
  static constexpr std::array<std::string_view, 5> kNames{"QUOTED-PRINTABLE", "BASE64", "B", "8BIT",
                                                          "7BIT"};
  return std::any_of(kNames.begin(), kNames.end(),
                     [&](std::string_view name) { return equalsIgnoringCase(value, name); });
}

void addParameter(std::vector<ContentParameter>& parameters, std::string_view text) {
  std::string_view name;
  std::string_view value = text;
  if (std::size_t equals = text.find('='); equals != std::string_view::npos) {
    name = text.substr(0, equals);
    value = text.substr(equals + 1);
  }
  std::string unquoted;
  if (value.find('"') == std::string_view::npos) {
    unquoted.assign(value);
  } else {
    for (char c : value)
      if (c != '"') unquoted += c;
  }
  std::string upperName = upperAscii(trimWhitespaceView(name));
  if (upperName.empty()) upperName = isEncodingName(unquoted) ? "ENCODING" : "TYPE";
  parameters.push_back({std::move(upperName), std::move(unquoted)});
}

// Parses "group.NAME;PARAM=value:value"; nullopt with `why` when it is not a line.
std::optional<ContentLine> parseLine(std::string_view logical, std::size_t lineNumber, std::string& why) {
  const std::size_t colon = valueColon(logical);
  if (colon == std::string_view::npos) {
    why = "no colon after the property name";
    return std::nullopt;
  }
  std::string_view head = logical.substr(0, colon);
  const std::size_t semicolon = std::min(head.find(';'), head.size());
  std::string_view fullName = trimWhitespaceView(head.substr(0, semicolon));
  ContentLine line;
  line.line = lineNumber;
  if (std::size_t dot = fullName.rfind('.'); dot != std::string_view::npos) {
    line.group = std::string(fullName.substr(0, dot));
    fullName = fullName.substr(dot + 1);
  }
  if (fullName.empty() || !std::all_of(fullName.begin(), fullName.end(), isNameCharacter)) {
    why = fullName.empty() ? "no property name" : "bad property name \"" + std::string(fullName) + "\"";
    return std::nullopt;
  }
  line.name = upperAscii(fullName);
  std::string_view rest = semicolon < head.size() ? head.substr(semicolon + 1) : std::string_view();
  while (!rest.empty()) {
    bool quoted = false;
    std::size_t end = 0;
    for (; end < rest.size(); ++end) {
      if (rest[end] == '"') quoted = !quoted;
      else if (rest[end] == ';' && !quoted) break;
    }
    if (std::string_view item = trimWhitespaceView(rest.substr(0, end)); !item.empty())
      addParameter(line.parameters, item);
    rest = end < rest.size() ? rest.substr(end + 1) : std::string_view();
  }
  line.rawValue.assign(logical.substr(colon + 1));
  return line;
}

struct HeadFlags {
  bool quotedPrintable = false;
  bool base64 = false;
};

// The encoding a line's parameters name, before the line is parsed: its
// value may go on over the next physical lines.
HeadFlags headFlags(std::string_view logical) {
  const std::size_t colon = valueColon(logical);
  if (colon == std::string_view::npos) return {};
  std::string_view head = logical.substr(0, colon);
  HeadFlags flags;
  std::size_t start = head.find(';');
  while (start != std::string_view::npos) {
    const std::size_t end = head.find(';', start + 1);
    std::string_view item = trimWhitespaceView(head.substr(start + 1, end == std::string_view::npos ? end : end - start - 1));
    if (std::size_t equals = item.find('='); equals != std::string_view::npos) {
      if (!equalsIgnoringCase(trimWhitespaceView(item.substr(0, equals)), "ENCODING")) item = {};
      else item = trimWhitespaceView(item.substr(equals + 1));
    }
    if (equalsIgnoringCase(item, "QUOTED-PRINTABLE")) flags.quotedPrintable = true;
    if (equalsIgnoringCase(item, "BASE64") || equalsIgnoringCase(item, "B")) flags.base64 = true;
    start = end;
  }
  return flags;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// `bytes` in the ICU character set `from`, as UTF-8 (malformed bytes become
// U+FFFD); nullopt when ICU does not know the set.
std::optional<std::string> convertToUTF8(std::string_view bytes, const char* from) {
  if (bytes.empty()) return std::string();
  UErrorCode status = U_ZERO_ERROR;
  std::string out(bytes.size() * 3 + 4, '\0');
  int32_t length = ucnv_convert("UTF-8", from, out.data(), static_cast<int32_t>(out.size()),
                                bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    status = U_ZERO_ERROR;
    out.assign(static_cast<std::size_t>(length) + 1, '\0');
    length = ucnv_convert("UTF-8", from, out.data(), static_cast<int32_t>(out.size()), bytes.data(),
                          static_cast<int32_t>(bytes.size()), &status);
  }
  if (U_FAILURE(status)) return std::nullopt;
  out.resize(static_cast<std::size_t>(length));
  return out;
}

bool needsQuotedPrintable(std::string_view value) {
  return std::any_of(value.begin(), value.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || (byte < 0x20 && c != '\t') || byte == 0x7f;
  });
}

bool isAscii(std::string_view value) {
  return std::all_of(value.begin(), value.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

std::string upperAscii(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = upperByte(c);
  return result;
}

std::string lowerAscii(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return result;
}

// --- ContentLine, ContentObject ----------------------------------------------

std::optional<std::string> ContentLine::parameter(std::string_view name) const {
  for (const ContentParameter& p : parameters)
    if (equalsIgnoringCase(p.name, name)) return p.value;
  return std::nullopt;
}

std::vector<std::string> ContentLine::types() const {
  std::vector<std::string> result;
  for (const ContentParameter& p : parameters) {
    if (p.name != "TYPE") continue;
    for (const std::string& item : splitStructured(p.value, ','))
      if (!item.empty()) result.push_back(upperAscii(trimWhitespaceView(item)));
  }
  return result;
}

bool ContentLine::hasType(std::string_view type) const {
  const std::vector<std::string> all = types();
  return std::any_of(all.begin(), all.end(), [&](const std::string& t) { return equalsIgnoringCase(t, type); });
}

const ContentLine* ContentObject::find(std::string_view lineName) const {
  for (const ContentLine& l : lines)
    if (l.name == lineName) return &l;
  return nullptr;
}

// --- Reading -------------------------------------------------------------------

std::optional<std::string_view> ContentReader::peekPhysicalLine() {
  if (_position >= _text.size()) return std::nullopt;
  if (_peekedAt != _position) {
    // One pass over the bytes (find_first_of tests each byte against the set).
    const char* begin = _text.data() + _position;
    const char* const last = _text.data() + _text.size();
    const char* end = begin;
    while (end != last && *end != '\n' && *end != '\r') ++end;
    _peekedAt = _position;
    _peekedLength = static_cast<std::size_t>(end - begin);
  }
  return _text.substr(_position, _peekedLength);
}

std::optional<std::string_view> ContentReader::nextPhysicalLine() {
  std::optional<std::string_view> line = peekPhysicalLine();
  if (!line) return std::nullopt;
  _position += line->size();
  if (_position < _text.size() && _text[_position] == '\r') ++_position;
  if (_position < _text.size() && _text[_position] == '\n') ++_position;
  ++_lineNumber;
  return line;
}

void ContentReader::problem(std::size_t line, std::string message) {
  _problems.push_back({line, std::move(message)});
}

std::optional<ContentLine> ContentReader::nextLine() {
  while (std::optional<std::string_view> raw = nextPhysicalLine()) {
    const std::size_t first = _lineNumber;
    if (trimWhitespaceView(*raw).empty()) continue;
    if (isBlank(raw->front())) {
      problem(first, "a continuation line without a property");
      continue;
    }
    // A line that does not go on is parsed where it lies in the text; one
    // that does is joined in `_joined` first.
    std::string_view logical = *raw;
    bool joined = false;
    auto append = [&](std::string_view more) {
      if (!joined) {
        _joined.assign(logical);
        joined = true;
      }
      _joined += more;
      logical = _joined;
    };
    HeadFlags flags = headFlags(logical);
    while (std::optional<std::string_view> next = peekPhysicalLine()) {
      if (flags.quotedPrintable && !logical.empty() && logical.back() == '=') {
        logical.remove_suffix(1);
        if (joined) _joined.pop_back();
        append(*nextPhysicalLine());
      } else if (!next->empty() && isBlank(next->front())) {
        nextPhysicalLine();
        append(_foldKeepsBlank ? *next : next->substr(1));
        if (!flags.quotedPrintable && !flags.base64) flags = headFlags(logical);
      } else if (flags.base64 && isBase64Line(*next)) {
        append(*nextPhysicalLine());
      } else {
        break;
      }
    }
    std::string why;
    std::optional<ContentLine> line = parseLine(logical, first, why);
    if (!line) {
      problem(first, why);
      continue;
    }
    if (line->name == "VERSION") {
      const std::string_view version = trimWhitespaceView(line->rawValue);
      _foldKeepsBlank = version == "2.1" || version == "1.0";
    }
    return line;
  }
  return std::nullopt;
}

std::optional<ContentObject> ContentReader::nextObject() {
  while (std::optional<ContentLine> line = nextLine()) {
    if (line->name != "BEGIN") {
      problem(line->line, line->name + " outside any object");
      continue;
    }
    _foldKeepsBlank = true;
    // The objects open from the outermost in; each END closes the innermost.
    std::vector<ContentObject> open;
    open.push_back({upperAscii(trimWhitespaceView(line->rawValue)), "", line->line, {}, {}});
    // Room for the lines of a usual entry, grown once rather than step by step.
    open.back().lines.reserve(16);
    auto closeInnermost = [&]() -> std::optional<ContentObject> {
      ContentObject done = std::move(open.back());
      open.pop_back();
      if (open.empty()) return done;
      open.back().children.push_back(std::move(done));
      return std::nullopt;
    };
    while (!open.empty()) {
      std::optional<ContentLine> inner = nextLine();
      if (!inner) {
        problem(_lineNumber, "missing END:" + open.back().name);
        _endedInsideObject = true;
        std::optional<ContentObject> top;
        while (!open.empty()) top = closeInnermost();
        return top;
      }
      if (inner->name == "BEGIN") {
        if (static_cast<int>(open.size()) >= kMaximumDepth) {
          problem(inner->line, "objects nested too deep");
          continue;
        }
        open.push_back({upperAscii(trimWhitespaceView(inner->rawValue)), open.back().version, inner->line, {}, {}});
        open.back().lines.reserve(16);
        continue;
      }
      if (inner->name == "END") {
        const std::string name = upperAscii(trimWhitespaceView(inner->rawValue));
        if (name != open.back().name)
          problem(inner->line, "END:" + name + " closes " + open.back().name);
        if (std::optional<ContentObject> top = closeInnermost()) return top;
        continue;
      }
      if (inner->name == "VERSION") open.back().version = std::string(trimWhitespaceView(inner->rawValue));
      open.back().lines.push_back(std::move(*inner));
    }
  }
  return std::nullopt;
}

// --- Values ----------------------------------------------------------------------

std::string decodedBytes(const ContentLine& line) {
  const std::optional<std::string> encoding = line.parameter("ENCODING");
  if (!encoding) return line.rawValue;
  if (equalsIgnoringCase(*encoding, "QUOTED-PRINTABLE")) return quotedPrintableDecode(line.rawValue);
  if (equalsIgnoringCase(*encoding, "BASE64") || equalsIgnoringCase(*encoding, "B"))
    return base64Decode(line.rawValue).value_or(std::string());
  return line.rawValue;
}

std::string decodedText(const ContentLine& line, std::string* problem) {
  if (line.parameters.empty() && isAscii(line.rawValue)) return line.rawValue;
  std::string bytes = decodedBytes(line);
  if (const std::optional<std::string> charset = line.parameter("CHARSET");
      charset && !equalsIgnoringCase(*charset, "UTF-8") && !equalsIgnoringCase(*charset, "UTF8")) {
    if (isAscii(bytes)) return bytes;
    if (std::optional<std::string> text = convertToUTF8(bytes, charset->c_str())) return *text;
    if (problem) *problem = "unknown character set \"" + *charset + "\"";
  }
  if (isValidUTF8(bytes)) return bytes;
  return convertToUTF8(bytes, "windows-1252").value_or(std::string());
}

namespace {

// Reads text escapes (\; \, \\ \: and, when newlines, \n): each character
// goes to onChar with whether it was escaped, so that a caller splitting on a
// separator splits only on one that was not.
template <class OnChar>
void unescapeEach(std::string_view value, bool newlines, OnChar onChar) {
  for (std::size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (c == '\\' && i + 1 < value.size()) {
      const char next = value[i + 1];
      if (next == ';' || next == ',' || next == '\\' || next == ':') {
        onChar(next, true);
        ++i;
        continue;
      }
      if (newlines && (next == 'n' || next == 'N')) {
        onChar('\n', true);
        ++i;
        continue;
      }
    }
    onChar(c, false);
  }
}

}  // namespace

std::vector<std::string> splitStructured(std::string_view value, char separator, bool newlines) {
  std::vector<std::string> parts(1);
  unescapeEach(value, newlines, [&](char c, bool escaped) {
    if (!escaped && c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  });
  return parts;
}

std::string unescapeText(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  unescapeEach(value, true, [&](char c, bool) { out += c; });
  return out;
}

std::string base64Encode(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const unsigned n = static_cast<unsigned char>(bytes[i]) << 16 |
                       static_cast<unsigned char>(bytes[i + 1]) << 8 |
                       static_cast<unsigned char>(bytes[i + 2]);
    for (int shift : {18, 12, 6, 0}) out += kAlphabet[(n >> shift) & 63];
  }
  if (i < bytes.size()) {
    unsigned n = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) n |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::optional<std::string> base64Decode(std::string_view text) {
  // Each byte's six bits, or what it means when it carries none: photos run
  // to hundreds of kilobytes, so this is one table look-up per byte.
  static constexpr signed char kSkip = -1, kEnd = -2, kBad = -3;
  static constexpr auto kTable = [] {
    std::array<signed char, 256> table{};
    table.fill(kBad);
    for (int i = 0; i < 26; ++i) {
      table['A' + i] = static_cast<signed char>(i);
      table['a' + i] = static_cast<signed char>(26 + i);
    }
    for (int i = 0; i < 10; ++i) table['0' + i] = static_cast<signed char>(52 + i);
    table['+'] = 62;
    table['/'] = 63;
    table['='] = kEnd;
    for (char blank : {' ', '\t', '\r', '\n'}) table[static_cast<unsigned char>(blank)] = kSkip;
    return table;
  }();
  std::string out;
  out.resize(text.size() / 4 * 3 + 3);
  std::size_t length = 0;
  unsigned buffer = 0;
  int bits = 0;
  for (char c : text) {
    const signed char v = kTable[static_cast<unsigned char>(c)];
    if (v >= 0) {
      buffer = (buffer << 6) | static_cast<unsigned>(v);
      bits += 6;
      if (bits >= 8) {
        bits -= 8;
        out[length++] = static_cast<char>((buffer >> bits) & 0xff);
      }
    } else if (v == kEnd) {
      break;
    } else if (v == kBad) {
      return std::nullopt;
    }
  }
  out.resize(length);
  return out;
}

std::string quotedPrintableEncode(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() * 3);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    const bool last = i + 1 == bytes.size();
    const bool plain = (byte >= 0x21 && byte <= 0x7e && byte != '=') || (byte == ' ' && !last);
    if (plain) {
      out += static_cast<char>(byte);
    } else {
      out += '=';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    }
  }
  return out;
}

std::string quotedPrintableDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '=' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else if (text[i] == '=' && i + 1 < text.size() && (text[i + 1] == '\r' || text[i + 1] == '\n')) {
      // A soft line break left inside the value (a line read whole).
      ++i;
      if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

// --- Writing ---------------------------------------------------------------------

std::string escapeComponent(std::string_view component) {
  std::string out;
  out.reserve(component.size());
  for (char c : component) {
    if (c == ';' || c == '\\') out += '\\';
    out += c;
  }
  return out;
}

std::string joinComponents(const std::vector<std::string>& components) {
  std::string out;
  for (std::size_t i = 0; i < components.size(); ++i) {
    if (i) out += ';';
    out += escapeComponent(components[i]);
  }
  return out;
}

void ContentWriter::begin(std::string_view object) {
  _out += "BEGIN:";
  _out += object;
  _out += "\r\n";
}

void ContentWriter::end(std::string_view object) {
  _out += "END:";
  _out += object;
  _out += "\r\n";
}

void ContentWriter::head(std::string_view name, const std::vector<ContentParameter>& parameters) {
  _out += name;
  for (const ContentParameter& p : parameters) {
    _out += ';';
    if (!p.name.empty()) {
      _out += p.name;
      _out += '=';
    }
    _out += p.value;
  }
  _out += ':';
}

void ContentWriter::line(std::string_view name, const std::vector<ContentParameter>& parameters,
                         std::string_view value) {
  const std::size_t start = _out.size();
  if (!needsQuotedPrintable(value)) {
    head(name, parameters);
    _out += value;
    folded(std::string_view(_out).substr(start));
    _out += "\r\n";
    return;
  }
  std::vector<ContentParameter> all = parameters;
  if (!isAscii(value)) all.push_back({"CHARSET", "UTF-8"});
  all.push_back({"ENCODING", "QUOTED-PRINTABLE"});
  head(name, all);
  // Soft line breaks go between escapes, never inside one; the "=" of the
  // break needs one column.
  std::size_t column = _out.size() - start;
  const std::string encoded = quotedPrintableEncode(value);
  // A blank that would start a line is escaped, so that a reader that
  // unfolds before decoding does not take it for a fold.
  for (std::size_t i = 0; i < encoded.size();) {
    const std::size_t unit = encoded[i] == '=' ? 3 : 1;
    const bool blank = encoded[i] == ' ';
    if (column + (blank ? 3 : unit) > kLineWidth) {
      _out += "=\r\n";
      column = 0;
    }
    if (blank && column == 0) {
      _out += "=20";
      column += 3;
    } else {
      _out.append(encoded, i, unit);
      column += unit;
    }
    i += unit;
  }
  _out += "\r\n";
}

// Folds the last line written (which starts at `text`) before blanks, so
// that a 2.1 reader, which keeps the blank, reads the same value.
void ContentWriter::folded(std::string_view text) {
  if (text.size() <= kLineWidth) return;
  const std::size_t start = _out.size() - text.size();
  std::string line(text);
  std::string result;
  std::size_t column = 0;
  std::size_t from = 0;
  while (line.size() - from + column > kLineWidth) {
    // The last blank that keeps this piece within the width.
    const std::size_t limit = from + (kLineWidth - column);
    const std::size_t blank = line.find_last_of(' ', limit);
    if (blank == std::string::npos || blank <= from) break;
    result.append(line, from, blank - from);
    result += "\r\n";
    from = blank;
    column = 0;
  }
  result.append(line, from, std::string::npos);
  _out.replace(start, std::string::npos, result);
}

void ContentWriter::binary(std::string_view name, std::vector<ContentParameter> parameters,
                           std::string_view bytes) {
  parameters.insert(parameters.begin(), {"ENCODING", "BASE64"});
  head(name, parameters);
  _out += "\r\n";
  const std::string encoded = base64Encode(bytes);
  for (std::size_t i = 0; i < encoded.size(); i += 72) {
    _out += "    ";
    _out.append(encoded, i, 72);
    _out += "\r\n";
  }
  _out += "\r\n";
}

// --- Writing the 3.0 form ------------------------------------------------------

namespace {

constexpr std::size_t kFoldWidth = 75;

// Appends `line` folded at kFoldWidth octets; a fold never splits a UTF-8
// sequence, and each continuation starts with one blank.
void appendFolded(std::string& out, std::string_view line) {
  std::size_t width = kFoldWidth;
  while (line.size() > width) {
    std::size_t cut = width;
    while (cut > 1 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) --cut;
    out.append(line.substr(0, cut));
    out += "\r\n ";
    line.remove_prefix(cut);
    width = kFoldWidth - 1;
  }
  out.append(line);
  out += "\r\n";
}

void appendHead(std::string& out, std::string_view group, std::string_view name,
                const std::vector<ContentParameter>& parameters) {
  if (!group.empty()) {
    out += group;
    out += '.';
  }
  out += name;
  for (const ContentParameter& p : parameters) {
    out += ';';
    if (!p.name.empty()) {
      out += p.name;
      out += '=';
    }
    // A quoted value cannot hold a quote or a line break: those are left out.
    std::string value;
    for (char c : p.value)
      if (c != '"' && c != '\r' && c != '\n') value += c;
    const bool quote = value.find_first_of(":;,") != std::string::npos && p.name != "TYPE";
    if (quote) out += '"';
    out += value;
    if (quote) out += '"';
  }
  out += ':';
}

}  // namespace

void ContentWriter3::begin(std::string_view object) {
  _out += "BEGIN:";
  _out += object;
  _out += "\r\n";
}

void ContentWriter3::end(std::string_view object) {
  _out += "END:";
  _out += object;
  _out += "\r\n";
}

void ContentWriter3::line(std::string_view group, std::string_view name,
                          const std::vector<ContentParameter>& parameters, std::string_view value) {
  std::string text;
  appendHead(text, group, name, parameters);
  text += value;
  appendFolded(_out, text);
}

void ContentWriter3::binary(std::string_view group, std::string_view name,
                            std::vector<ContentParameter> parameters, std::string_view bytes) {
  parameters.insert(parameters.begin(), {"ENCODING", "b"});
  line(group, name, parameters, base64Encode(bytes));
}

std::string escapeText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' || c == ';' || c == ',') {
      out += '\\';
      out += c;
    } else if (c == '\r' || c == '\n') {
      if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace pc
