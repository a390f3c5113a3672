#include "util/QVTStringExtensions.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <memory>

#include <fmt/format.h>
#include <unicode/coll.h>
#include <unicode/translit.h>
#include <unicode/uscript.h>
#include <unicode/uniset.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>
#include <uuid/uuid.h>

#include "async/Log.h"
#include "platform/Strings.h"

namespace pc {

namespace {

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isASCIIDigit(char c) { return c >= '0' && c <= '9'; }

// Decodes a whole hexadecimal text (an embedded zero does not parse).
std::optional<std::string> bytesFromHex(std::string_view hexa) {
  if (hexa.find('\0') != std::string_view::npos) return std::nullopt;
  const std::string terminated(hexa);
  std::string bytes(hexa.size() / 2, '\0');
  std::size_t length = 0;
  if (!hex_to_bytes(terminated.c_str(), reinterpret_cast<std::uint8_t*>(bytes.data()), &length))
    return std::nullopt;
  return bytes;
}

std::string hexFromBytes(std::string_view bytes) {
  std::string hexa(bytes.size() * 2, '\0');
  bytes_to_hex(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), hexa.data());
  return hexa;
}

// Calls visit(codePoint, byteOffset, byteLength) for each character; an
// ill-formed sequence reads as U+FFFD.
template <class Visit>
void forEachCodePoint(std::string_view text, Visit visit) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const std::size_t length = text.size();
  std::size_t i = 0;
  while (i < length) {
    const std::size_t start = i;
    UChar32 c;
    U8_NEXT_OR_FFFD(bytes, i, length, c);
    visit(c, start, i - start);
  }
}

// One collator per thread: ICU collators are not meant to be shared.
const icu::Collator* diacriticalCollator() {
  thread_local std::unique_ptr<icu::Collator> collator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> c(icu::Collator::createInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) return std::unique_ptr<icu::Collator>();
    // Primary strength ignores case, accents and width; punctuation counts.
    c->setStrength(icu::Collator::PRIMARY);
    c->setAttribute(UCOL_ALTERNATE_HANDLING, UCOL_NON_IGNORABLE, status);
    c->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    c->setAttribute(UCOL_NORMALIZATION_MODE, UCOL_ON, status);
    if (U_FAILURE(status)) return std::unique_ptr<icu::Collator>();
    return c;
  }();
  return collator.get();
}

icu::Transliterator* asciiTransliterator() {
  thread_local std::unique_ptr<icu::Transliterator> transliterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> t(
        icu::Transliterator::createInstance("Any-Latin; Latin-ASCII", UTRANS_FORWARD, status));
    if (U_FAILURE(status)) return std::unique_ptr<icu::Transliterator>();
    return t;
  }();
  return transliterator.get();
}

// The second half of the lossy ASCII conversion alone, for texts the first
// half ("Any-Latin") leaves as they are.
icu::Transliterator* latinToASCIITransliterator() {
  thread_local std::unique_ptr<icu::Transliterator> transliterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> t(
        icu::Transliterator::createInstance("Latin-ASCII", UTRANS_FORWARD, status));
    if (U_FAILURE(status)) return std::unique_ptr<icu::Transliterator>();
    return t;
  }();
  return transliterator.get();
}

// Whether no ASCII character can be rewritten by "Latin-ASCII" (none is in
// its source set): then its rules match only runs of other characters, and
// ASCII characters are only ever their context.
bool latinToASCIIRewritesNoASCII() {
  thread_local const bool none = [] {
    icu::Transliterator* transliterator = latinToASCIITransliterator();
    if (!transliterator) return false;
    icu::UnicodeSet source;
    transliterator->getSourceSet(source);
    return !source.containsSome(0, 0x7F);
  }();
  return none;
}

// "Latin-ASCII" over each run of non-ASCII characters of `text`, where it
// stands, with the whole text as context: the same answer as over the whole
// text when no ASCII character is rewritten, without the rules being tried
// at every ASCII character (most of a text). A run starts one character
// early, so that a combining mark composes with the ASCII letter before it
// as it does in the whole text.
void convertNonASCIIRuns(icu::Transliterator& transliterator, icu::UnicodeString& text) {
  int32_t at = 0;
  while (at < text.length()) {
    if (text.charAt(at) < 0x80) {
      ++at;
      continue;
    }
    int32_t end = at;
    while (end < text.length() && text.charAt(end) >= 0x80) ++end;
    UTransPosition run{0, text.length(), at > 0 ? at - 1 : at, end};
    transliterator.finishTransliteration(text, run);
    at = run.limit;  // the character after the run is ASCII, or there is none
  }
}

// Whether every character of `text` is of the Latin, Common or Inherited
// script. "Any-Latin" cuts a text into runs of one script (Common and
// Inherited characters join the run beside them) and converts only the runs
// of another script than Latin, so it leaves such a text unchanged; most
// accented names and addresses are such texts.
bool onlyLatinScript(const icu::UnicodeString& text) {
  for (int32_t i = 0; i < text.length(); i = text.moveIndex32(i, 1)) {
    UErrorCode status = U_ZERO_ERROR;
    const UScriptCode script = uscript_getScript(text.char32At(i), &status);
    if (U_FAILURE(status) ||
        (script != USCRIPT_LATIN && script != USCRIPT_COMMON && script != USCRIPT_INHERITED))
      return false;
  }
  return true;
}

int sign(int value) { return (value > 0) - (value < 0); }

// The number a text of digits only stands for, when it is positive and fits
// in an int; nullopt otherwise.
std::optional<std::int64_t> positiveNumber(std::string_view text) {
  if (text.empty() || !std::all_of(text.begin(), text.end(), isASCIIDigit)) return std::nullopt;
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number <= 0 || number > std::numeric_limits<int>::max())
    return std::nullopt;
  return number;
}

}  // namespace

bool bytes_to_hex(const std::uint8_t* bytes, std::size_t length, char* out) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (std::size_t i = 0; i < length; ++i) {
    out[2 * i] = kDigits[bytes[i] >> 4];
    out[2 * i + 1] = kDigits[bytes[i] & 0x0F];
  }
  return true;
}

bool hex_to_bytes(const char* text, std::uint8_t* out, std::size_t* out_length) {
  std::size_t count = 0;
  for (const char* p = text; *p; p += 2) {
    const int high = hexDigitValue(p[0]);
    const int low = hexDigitValue(p[1]);  // the terminator for a lone last digit
    if (high < 0 || low < 0) return false;
    out[count++] = static_cast<std::uint8_t>(high << 4 | low);
  }
  *out_length = count;
  return true;
}

namespace QVTStringExtensions {

std::optional<std::string> qvt_convertToUTF8Hexa(std::string_view text) {
  if (text.size() > 9999) return std::nullopt;
  return hexFromBytes(text);
}

std::optional<std::string> qvt_stringFromUTF8HexaString(std::string_view hexa) {
  const std::size_t length = utf16Length(hexa);
  if (length > 10000) return std::nullopt;
  if (length == 10000) QVT_LOG(kLogError, QVTLOG, "string should be small here");
  std::optional<std::string> bytes = bytesFromHex(hexa);
  if (!bytes || !isValidUTF8(*bytes)) return std::nullopt;
  return bytes;
}

std::string qvt_convertToUCS2Hexa(std::string_view text) {
  // Lossy: an ill-formed UTF-8 sequence becomes U+FFFD. What remains to fail
  // is a text beyond what one conversion can hold.
  std::u16string units;
  UErrorCode status = U_ZERO_ERROR;
  if (text.size() <= static_cast<std::size_t>(std::numeric_limits<int32_t>::max() / 2)) {
    const auto length = static_cast<int32_t>(text.size());
    units.resize(text.size());  // UTF-16 never needs more units than UTF-8 has bytes
    int32_t written = 0;
    u_strFromUTF8WithSub(units.data(), length, &written, text.data(), length, 0xFFFD, nullptr, &status);
    units.resize(static_cast<std::size_t>(std::max(written, 0)));
  } else {
    status = U_BUFFER_OVERFLOW_ERROR;
  }
  if (U_FAILURE(status)) {
    QVT_LOG(kLogError, QVTLOG, "this is not possible under lossy conversion");
    return {};
  }
  std::string bigEndian;
  bigEndian.reserve(units.size() * 2);
  for (char16_t unit : units) {
    bigEndian += static_cast<char>(unit >> 8);
    bigEndian += static_cast<char>(unit & 0xFF);
  }
  return hexFromBytes(bigEndian);
}

std::optional<std::string> qvt_stringFromUCS2HexaString(std::string_view hexa) {
  const std::optional<std::string> bytes = bytesFromHex(hexa);
  if (!bytes || bytes->size() % 2 != 0) return std::nullopt;
  return decodeString(*bytes, StringEncoding::UTF16BigEndian);
}

std::string stringWithLossyASCIIConversion(std::string_view text) {
  // ASCII is left alone by the transliteration (it maps only other
  // characters), and most record texts are ASCII: those skip the
  // conversions, which cost a hundred times the copy.
  if (isASCII(text)) return std::string(text);
  // toUTF16 refuses, with a clear error, text longer than ICU can count.
  const std::u16string units = toUTF16(text);
  icu::UnicodeString unicode(false, units.data(), static_cast<int32_t>(units.size()));
  icu::Transliterator* latinOnly = onlyLatinScript(unicode) ? latinToASCIITransliterator() : nullptr;
  if (latinOnly && latinToASCIIRewritesNoASCII()) {
    convertNonASCIIRuns(*latinOnly, unicode);
  } else if (icu::Transliterator* transliterator = latinOnly ? latinOnly : asciiTransliterator()) {
    transliterator->transliterate(unicode);
  }
  std::string latin;
  unicode.toUTF8String(latin);
  std::string ascii;
  forEachCodePoint(latin, [&](UChar32 c, std::size_t, std::size_t) {
    ascii += c < 0x80 ? static_cast<char>(c) : '?';
  });
  return ascii;
}

std::string stringWithUTF8Conversion(std::string_view text) {
  std::string ascii;
  std::copy_if(text.begin(), text.end(), std::back_inserter(ascii),
               [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  return ascii;
}

bool qvt_canReallyBeEncodedLosslessInEncoding(std::string_view text, StringEncoding encoding) {
  const std::optional<std::string> bytes = encodeString(text, encoding);
  if (!bytes) return false;
  const std::optional<std::string> readBack = decodeString(*bytes, encoding);
  return readBack && *readBack == text;
}

void deleteCharactersFromSet(std::string& text, const CharacterSet& set) {
  replaceCharactersFromSet(text, set, "", true);
}

void replaceCharactersFromSet(std::string& text, const CharacterSet& set,
                              std::string_view replacement, bool oneReplacePerRange) {
  // One pass from the start: the same result as searching again from the
  // start after each replacement, without looping forever when the
  // replacement holds characters of the set.
  std::string result;
  bool inRun = false;
  forEachCodePoint(text, [&](UChar32 c, std::size_t start, std::size_t length) {
    if (!set.characterIsMember(static_cast<char32_t>(c))) {
      result.append(text, start, length);
      inRun = false;
      return;
    }
    if (!(oneReplacePerRange && inRun)) result += replacement;
    inRun = true;
  });
  text = std::move(result);
}

std::string qvt_stringByRemovingCharactersFromSet(std::string_view text, const CharacterSet& set) {
  std::string copy(text);
  deleteCharactersFromSet(copy, set);
  return copy;
}

std::string qvt_stringByReplacingCharactersFromSet(std::string_view text, const CharacterSet& set,
                                                   std::string_view replacement,
                                                   bool oneReplacePerRange) {
  std::string copy(text);
  replaceCharactersFromSet(copy, set, replacement, oneReplacePerRange);
  return copy;
}

std::size_t qvt_countOfCharactersFromSet(std::string_view text, const CharacterSet& set) {
  std::size_t count = 0;
  forEachCodePoint(text, [&](UChar32 c, std::size_t, std::size_t) {
    if (set.characterIsMember(static_cast<char32_t>(c))) ++count;
  });
  return count;
}

bool containsNonDigitChar(std::string_view text) {
  return !std::all_of(text.begin(), text.end(), isASCIIDigit);
}

unsigned unsignedIntValue(std::string_view text) {
  unsigned value = 0;
  for (char c : text) {
    if (!isASCIIDigit(c)) return 0;
    value = value * 10 + static_cast<unsigned>(c - '0');
  }
  return value;
}

std::string _stringByReplacingChar(std::string_view text, char from, char to) {
  std::string result(text);
  std::replace(result.begin(), result.end(), from, to);
  return result;
}

std::string stringByConvertingToDottedName(std::string_view text) {
  return _stringByReplacingChar(text, '_', '.');
}

std::string stringByConvertingToUnderscoredName(std::string_view text) {
  return _stringByReplacingChar(text, '.', '_');
}

void interpretCRLF(std::string& text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == 'r' || text[i + 1] == 'n')) {
      result += text[++i] == 'r' ? '\r' : '\n';
    } else {
      result += text[i];
    }
  }
  text = std::move(result);
}

std::string prettyPrintKeepCR(std::string_view text, bool keepCR) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    switch (c) {
      case '\r':
        if (!keepCR) {
          result += "\\r";
        } else if (i + 1 < text.size() && text[i + 1] == '\n') {
          result += "\\r\\n\n";  // a CR LF pair stays on one line
          ++i;
        } else {
          result += "\\r\n";
        }
        break;
      case '\n': result += keepCR ? "\\n\n" : "\\n"; break;
      case '\033': result += "\\e"; break;
      case '\a': result += "\\a"; break;
      case '\b': result += "\\b"; break;
      case '\f': result += "\\f"; break;
      case '\t': result += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 32) {
          result += fmt::format("\\{}", static_cast<int>(c));
        } else {
          result += c;
        }
    }
  }
  return result;
}

std::string prettyPrint(std::string_view text) { return prettyPrintKeepCR(text, true); }

std::string qvt_stringByRemovingHTMLTags(std::string_view text) {
  if (text.find('<') == std::string_view::npos) return std::string(text);
  std::string result;
  std::size_t position = 0;
  for (std::size_t open = text.find('<'); open != std::string_view::npos;
       open = text.find('<', position)) {
    result.append(text, position, open - position);
    const std::string_view rest = text.substr(open + 1, 3);
    if (rest.size() == 3 && rest[0] == '/' && (rest[1] == 'p' || rest[1] == 'P') && rest[2] == '>') {
      result += '\n';
      position = open + 4;
      continue;
    }
    const std::size_t close = text.find('>', open);
    if (close == std::string_view::npos) {
      position = open;  // an unclosed "<" and what follows stay
      break;
    }
    position = close + 1;
  }
  result.append(text, position);
  return result;
}

std::string uuidString() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

std::string qvt_stringWithLegalURLCharactersThatShouldBeEscapedIfYouWantToEmbedThemInAURLSafely() {
  return "!$&'()*+,./:;=?@~";
}

std::optional<std::string> qvt_stringByAddingPercentEscapesUsingEncoding(
    std::string_view text, StringEncoding encoding, std::string_view legalURLCharactersToEscape) {
  static constexpr std::string_view kUnescaped = "!$&'()*+,-./:;=?@_~";
  const std::optional<std::string> bytes = encodeString(text, encoding);
  if (!bytes) return std::nullopt;
  std::string escaped;
  for (char c : *bytes) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain = byte < 0x80 && (std::isalnum(byte) || kUnescaped.find(c) != std::string_view::npos) &&
                       legalURLCharactersToEscape.find(c) == std::string_view::npos;
    escaped += plain ? std::string(1, c) : fmt::format("%{:02X}", byte);
  }
  return escaped;
}

std::string guessedStringForDefaultString(const std::string& defaultString,
                                          const Array& usedStrings) {
  std::string_view base = defaultString;
  if (const std::size_t blank = base.rfind(' '); blank != std::string_view::npos && blank > 0 &&
                                                 positiveNumber(base.substr(blank + 1))) {
    base = base.substr(0, blank);
  }
  std::int64_t highest = 0;
  for (const Value& used : usedStrings) {
    const std::string* text = used.asString();
    if (!text) continue;
    if (*text == base) {
      highest = std::max<std::int64_t>(highest, 1);
    } else if (text->size() > base.size() + 1 && hasPrefix(*text, base) &&
               (*text)[base.size()] == ' ') {
      if (auto number = positiveNumber(std::string_view(*text).substr(base.size() + 1)))
        highest = std::max(highest, *number);
    }
  }
  return highest > 0 ? fmt::format("{} {}", base, highest + 1) : defaultString;
}

int qvtNumericalCompare(std::string_view text, std::string_view other) {
  // Digit runs compare by value: without leading zeros, a longer run is
  // larger, and runs of equal length compare digit by digit.
  const auto digitRun = [](std::string_view s, std::size_t& i) {
    const std::size_t start = i;
    while (i < s.size() && isASCIIDigit(s[i])) ++i;
    std::string_view run = s.substr(start, i - start);
    const std::size_t significant = run.find_first_not_of('0');
    return significant == std::string_view::npos ? std::string_view() : run.substr(significant);
  };
  std::size_t i = 0, j = 0;
  while (i < text.size() && j < other.size()) {
    if (isASCIIDigit(text[i]) && isASCIIDigit(other[j])) {
      const std::string_view a = digitRun(text, i);
      const std::string_view b = digitRun(other, j);
      if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
      if (const int order = a.compare(b)) return sign(order);
      continue;
    }
    const auto a = static_cast<unsigned char>(text[i++]);
    const auto b = static_cast<unsigned char>(other[j++]);
    if (a != b) return a < b ? -1 : 1;
  }
  if (i < text.size()) return 1;
  if (j < other.size()) return -1;
  return 0;
}

int caseInsensitiveDiacriticalCompare(std::string_view text,
                                      std::optional<std::string_view> other) {
  if (!other) return 0;
  const icu::Collator* collator = diacriticalCollator();
  if (!collator) return -1;
  // Beyond what ICU can count the collation cannot be made: it fails as any other would.
  constexpr auto kLongest = static_cast<std::size_t>(std::numeric_limits<int32_t>::max());
  if (text.size() > kLongest || other->size() > kLongest) return -1;
  UErrorCode status = U_ZERO_ERROR;
  const UCollationResult order = collator->compareUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())),
      icu::StringPiece(other->data(), static_cast<int32_t>(other->size())), status);
  if (U_FAILURE(status)) return -1;
  return static_cast<int>(order);
}

bool isCaseInsensitiveDiacriticalEqualToString(std::string_view text,
                                               std::optional<std::string_view> other) {
  return other && caseInsensitiveDiacriticalCompare(text, other) == 0;
}

int trimmedDiacriticalCompare(std::string_view text, std::string_view other) {
  const std::string trimmed = trimWhitespace(text);
  const std::string otherTrimmed = trimWhitespace(other);
  if (!trimmed.empty() && !otherTrimmed.empty())
    return caseInsensitiveDiacriticalCompare(trimmed, std::string_view(otherTrimmed));
  if (!trimmed.empty()) return -1;
  if (!otherTrimmed.empty()) return 1;
  if (text.empty() != other.empty()) return text.empty() ? 1 : -1;
  return caseInsensitiveDiacriticalCompare(text, other);
}

}  // namespace QVTStringExtensions

}  // namespace pc
