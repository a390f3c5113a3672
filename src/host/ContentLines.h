#pragma once
// The line syntax that vCard (2.1, 3.0, 4.0) and vCalendar (1.0) files share:
// "group.NAME;PARAM=value;PARAM:value" lines, grouped into BEGIN/END objects.
//
// Reading is tolerant, as phones are not: lines may end in CRLF, LF or CR;
// folded lines are unfolded (a 2.1 fold keeps its blank, a 3.0/4.0 fold
// drops it); a quoted-printable value continues over its soft line breaks;
// base64 data continues over unindented lines up to a blank line; a
// parameter may come without its name (`TEL;CELL` reads as TYPE=CELL,
// `;QUOTED-PRINTABLE` as ENCODING=...); a line without a name or a colon is
// skipped with a problem naming its line number, and the rest is read.
// Values are decoded (quoted-printable, base64) and converted to UTF-8 from
// the CHARSET they name, through ICU; bytes that are not UTF-8 and name no
// character set are read as Windows-1252, which is what such phones send.
//
// Writing produces the 2.1 form: CRLF lines, CHARSET=UTF-8 and
// ENCODING=QUOTED-PRINTABLE for values that are not plain ASCII or hold line
// breaks, soft line breaks that never split an "=XX" escape, folding of long
// plain values before a blank, base64 blocks ended by a blank line.
//
//   ContentReader reader(text);
//   while (auto object = reader.nextObject()) ...   // object->name == "VCARD"
//   ContentWriter out;
//   out.begin("VCARD"); out.text("FN", {}, "Zoë"); out.end("VCARD");

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pc {

// ASCII case mapping, as the formats compare their names, parameters and
// keywords; other bytes are left as they are.
std::string upperAscii(std::string_view text);
std::string lowerAscii(std::string_view text);

// One problem met while reading: the physical line (1-based) and what was wrong.
struct ContentProblem {
  std::size_t line = 0;
  std::string message;
};

struct ContentParameter {
  std::string name;   // upper case; TYPE for a parameter written without a name
  std::string value;  // as written, quotes removed
};

struct ContentLine {
  std::string group;  // "item1" of "item1.TEL", empty when none
  std::string name;   // upper case
  std::vector<ContentParameter> parameters;
  std::string rawValue;  // after unfolding, before any decoding
  std::size_t line = 0;  // the first physical line

  // The first value of a parameter, upper case compared; nullopt when absent.
  std::optional<std::string> parameter(std::string_view name) const;
  // The TYPE values, upper case, each comma-separated item apart.
  std::vector<std::string> types() const;
  bool hasType(std::string_view type) const;
};

// A BEGIN/END object: its lines in order and the objects nested in it.
struct ContentObject {
  std::string name;  // upper case: "VCARD", "VCALENDAR", "VEVENT"...
  std::string version;  // the VERSION line's value, inherited by nested objects
  std::size_t line = 0;
  std::vector<ContentLine> lines;
  std::vector<ContentObject> children;

  const ContentLine* find(std::string_view name) const;
};

class ContentReader {
 public:
  explicit ContentReader(std::string_view text) : _text(text) {}

  // The next top-level object; nullopt at the end of the text. Lines outside
  // any object, a missing END (the object ends at the end of the text) and an
  // END that closes nothing are problems, not failures.
  std::optional<ContentObject> nextObject();
  const std::vector<ContentProblem>& problems() const { return _problems; }
  // Whether the text ended inside an object (cut short).
  bool endedInsideObject() const { return _endedInsideObject; }

 private:
  // The next logical line (unfolded); nullopt at the end of the text.
  std::optional<ContentLine> nextLine();
  std::optional<std::string_view> nextPhysicalLine();
  std::optional<std::string_view> peekPhysicalLine();
  void problem(std::size_t line, std::string message);

  std::string_view _text;
  std::size_t _position = 0;
  std::size_t _lineNumber = 0;  // of the last physical line taken
  std::size_t _peekedAt = std::string_view::npos;  // where the line measured last starts
  std::size_t _peekedLength = 0;
  bool _foldKeepsBlank = true;  // 2.1 and vCalendar 1.0 until a VERSION says otherwise
  bool _endedInsideObject = false;
  std::string _joined;  // a logical line made of several physical ones
  std::vector<ContentProblem> _problems;
};

// A line's value decoded to bytes (quoted-printable, base64, else as it is).
std::string decodedBytes(const ContentLine& line);
// A line's value as UTF-8 text: decoded, then converted from its CHARSET.
// A character set ICU does not know is a problem; the bytes are then read as
// UTF-8 where they are valid, else as Windows-1252.
std::string decodedText(const ContentLine& line, std::string* problem = nullptr);

// Splits a structured value ("a;b\;c") at its unescaped `separator`,
// unescaping "\;", "\,", "\\" and, when `newlines`, "\n" and "\N".
std::vector<std::string> splitStructured(std::string_view value, char separator = ';',
                                         bool newlines = false);
// Undoes the 3.0/4.0 text escapes of a whole value.
std::string unescapeText(std::string_view value);

std::string base64Encode(std::string_view bytes);
// Skips blanks and line breaks; nullopt on any other character out of the alphabet.
std::optional<std::string> base64Decode(std::string_view text);
std::string quotedPrintableEncode(std::string_view bytes);
// Tolerant: an "=" not followed by two hex digits is kept as it is.
std::string quotedPrintableDecode(std::string_view text);

class ContentWriter {
 public:
  void begin(std::string_view object);
  void end(std::string_view object);
  // A line whose value is written as it is (already escaped or structured);
  // quoted-printable with CHARSET=UTF-8 when it is not plain printable ASCII.
  void line(std::string_view name, const std::vector<ContentParameter>& parameters,
            std::string_view value);
  // The same for text that needs no escaping in 2.1 (a whole value).
  void text(std::string_view name, const std::vector<ContentParameter>& parameters,
            std::string_view value) {
    line(name, parameters, value);
  }
  // Binary data as a base64 block.
  void binary(std::string_view name, std::vector<ContentParameter> parameters,
              std::string_view bytes);

  const std::string& result() const { return _out; }
  std::string take() { return std::move(_out); }

 private:
  void head(std::string_view name, const std::vector<ContentParameter>& parameters);
  void folded(std::string_view text);
  std::string _out;
};

// Escapes ";" and "\" of one component of a structured 2.1 value.
std::string escapeComponent(std::string_view component);
// Joins components with ";" after escaping each; trailing empty ones are kept.
std::string joinComponents(const std::vector<std::string>& components);

// Writing the 3.0 form: CRLF lines folded at 75 octets with one leading
// blank (never inside a UTF-8 sequence), UTF-8 text written as it is,
// parameter values quoted when they hold ":", ";" or ",", binary data as
// ENCODING=b base64 on the line itself. Text values are escaped by the
// caller (escapeText), structured ones component by component.
class ContentWriter3 {
 public:
  void begin(std::string_view object);
  void end(std::string_view object);
  // "group.NAME;PARAM=value:value"; no group when `group` is empty.
  void line(std::string_view group, std::string_view name,
            const std::vector<ContentParameter>& parameters, std::string_view value);
  void binary(std::string_view group, std::string_view name, std::vector<ContentParameter> parameters,
              std::string_view bytes);

  const std::string& result() const { return _out; }
  std::string take() { return std::move(_out); }

 private:
  std::string _out;
};

// Escapes a 3.0/4.0 text value: "\\", "\n" for a line break, "\;" and "\,".
std::string escapeText(std::string_view text);

}  // namespace pc
