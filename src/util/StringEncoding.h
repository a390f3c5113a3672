#pragma once
// Conversion of UTF-8 text to and from the byte encodings phones use. Both
// directions are strict: a character without a form in the encoding, or
// bytes that do not read, answer nullopt rather than a substitute.

#include <optional>
#include <string>
#include <string_view>

namespace pc {

enum class StringEncoding {
  ASCII,
  ISOLatin1,
  UTF8,
  UTF16BigEndian,  // also the UCS-2 form phones use
  WindowsCP1252,
  GSM0338,  // the default alphabet of text messages, one septet per byte
};

// The text's bytes in `encoding`.
std::optional<std::string> encodeString(std::string_view text, StringEncoding encoding);
// The UTF-8 text that `bytes` in `encoding` stand for.
std::optional<std::string> decodeString(std::string_view bytes, StringEncoding encoding);

}  // namespace pc
