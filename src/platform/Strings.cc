#include "platform/Strings.h"

#include <unicode/locid.h>
#include <unicode/uchar.h>
#include <unicode/uniset.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "platform/Exception.h"

namespace pc {

namespace {

// ICU counts in 32-bit signed integers: longer text is refused here, at the
// boundary, rather than measured wrong.
void checkICUSize(std::size_t size, const char* what) {
  if (size > static_cast<std::size_t>(std::numeric_limits<int32_t>::max()))
    raiseException(kInvalidArgumentException,
                   fmt::format("{} of {} bytes or units is longer than the {} this operation takes",
                               what, size, std::numeric_limits<int32_t>::max()));
}

icu::UnicodeString unicode(std::string_view utf8) {
  checkICUSize(utf8.size(), "a text");
  // fromUTF8 reads every ill-formed sequence as U+FFFD.
  icu::UnicodeString converted = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  // Up to 2 GiB of UTF-8 can need more UTF-16 units than ICU can count.
  if (converted.isBogus())
    raiseException(kInvalidArgumentException,
                   fmt::format("a text of {} bytes is too long to convert", utf8.size()));
  return converted;
}

constexpr char kReplacementCharacter[] = "\xEF\xBF\xBD";

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

// Moves a cut point off the middle of a surrogate pair, towards `direction`
// (-1 before the pair, +1 after it).
int32_t pairSafe(const icu::UnicodeString& text, int32_t index, int direction) {
  if (index > 0 && index < text.length() && U16_IS_LEAD(text.charAt(index - 1)) &&
      U16_IS_TRAIL(text.charAt(index)))
    return index + direction;
  return index;
}

int32_t clampedIndex(std::size_t index, const icu::UnicodeString& text) {
  return static_cast<int32_t>(
      std::min<std::size_t>(index, static_cast<std::size_t>(text.length())));
}

}  // namespace

// Counted here rather than by ICU, in 64 bits, so that texts of any size
// measure right; ill-formed sequences count as the U+FFFD they read as.
bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::size_t utf16Length(std::string_view text) {
  std::size_t units = 0;
  for (std::size_t position = 0; position < text.size();)
    units += nextCodePoint(text, position) >= 0x10000 ? 2 : 1;
  return units;
}

std::u16string toUTF16(std::string_view text) {
  const icu::UnicodeString converted = unicode(text);
  return std::u16string(converted.getBuffer(), static_cast<std::size_t>(converted.length()));
}

std::string fromUTF16(std::u16string_view text) {
  checkICUSize(text.size(), "a UTF-16 text");
  // toUTF8String writes U+FFFD for unpaired surrogates.
  return utf8(icu::UnicodeString(false, text.data(), static_cast<int32_t>(text.size())));
}

std::int32_t nextCodePoint(std::string_view text, std::size_t& position) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char lead = byte(position);
  if (lead < 0x80) {
    ++position;
    return lead;
  }
  // The length of the sequence and the range its second byte must be in:
  // those ranges leave out overlong forms, surrogates and code points
  // beyond U+10FFFF.
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;
  std::int32_t code = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, code = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, code = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, code = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    ++position;
    return -1;
  }
  // An ill-formed sequence is its longest start that could begin a
  // well-formed one (what ICU replaces by one U+FFFD), or its lead byte alone.
  for (std::size_t i = 1; i < length; ++i) {
    const bool fits = position + i < text.size() && byte(position + i) >= (i == 1 ? low : 0x80) &&
                      byte(position + i) <= (i == 1 ? high : 0xBF);
    if (!fits) {
      position += i;
      return -1;
    }
    code = (code << 6) | (byte(position + i) & 0x3F);
  }
  position += length;
  return code;
}

bool isValidUTF8(std::string_view text) {
  for (std::size_t position = 0; position < text.size();)
    if (nextCodePoint(text, position) < 0) return false;
  return true;
}

// Cut here, in 64 bits, like utf16Length; a pair that would be split is left out.
std::string utf16Prefix(std::string_view text, std::size_t units) {
  std::string prefix;
  std::size_t taken = 0, position = 0, validFrom = 0;
  while (position < text.size()) {
    const std::size_t at = position;
    const std::int32_t c = nextCodePoint(text, position);
    const std::size_t width = c >= 0x10000 ? 2 : 1;
    if (taken + width > units) {
      position = at;
      break;
    }
    taken += width;
    if (c < 0) {
      prefix.append(text.substr(validFrom, at - validFrom));
      prefix += kReplacementCharacter;
      validFrom = position;
    }
  }
  prefix.append(text.substr(validFrom, position - validFrom));
  return prefix;
}

std::string utf16Substring(std::string_view text, std::size_t location, std::size_t length) {
  const icu::UnicodeString converted = unicode(text);
  const int32_t from = clampedIndex(location, converted);
  // Both bounds are clamped before adding, so the sum cannot overflow.
  const std::size_t to =
      static_cast<std::size_t>(from) + std::min<std::size_t>(length, converted.length());
  const int32_t start = pairSafe(converted, from, +1);
  const int32_t end = pairSafe(converted, clampedIndex(to, converted), -1);
  return end > start ? utf8(converted.tempSubStringBetween(start, end)) : std::string();
}

std::optional<std::size_t> utf16Find(std::string_view text, std::string_view needle,
                                     std::size_t from) {
  const icu::UnicodeString converted = unicode(text);
  if (needle.empty() || from > static_cast<std::size_t>(converted.length())) return std::nullopt;
  const int32_t found = converted.indexOf(unicode(needle), static_cast<int32_t>(from));
  if (found < 0) return std::nullopt;
  return static_cast<std::size_t>(found);
}

std::string lowercaseString(std::string_view text) {
  return utf8(unicode(text).toLower(icu::Locale::getRoot()));
}

std::string uppercaseString(std::string_view text) {
  return utf8(unicode(text).toUpper(icu::Locale::getRoot()));
}

std::string capitalizedString(std::string_view text) {
  // Words are the runs between white space and newlines; each is title-cased
  // as a whole, so "jean-marc" gives "Jean-marc" and "o'neil" gives "O'neil".
  const icu::UnicodeString source = unicode(text);
  const CharacterSet separators = CharacterSet::whitespaceAndNewlineCharacterSet();
  icu::UnicodeString result;
  int32_t i = 0;
  while (i < source.length()) {
    int32_t end = i;
    const bool separator = separators.characterIsMember(static_cast<char32_t>(source.char32At(i)));
    while (end < source.length() &&
           separators.characterIsMember(static_cast<char32_t>(source.char32At(end))) == separator)
      end = source.moveIndex32(end, 1);
    icu::UnicodeString run = source.tempSubStringBetween(i, end);
    if (!separator) run.toTitle(nullptr, icu::Locale::getRoot(), U_TITLECASE_WHOLE_STRING);
    result += run;
    i = end;
  }
  return utf8(result);
}

bool hasPrefix(std::string_view text, std::string_view prefix) { return text.starts_with(prefix); }

bool hasSuffix(std::string_view text, std::string_view suffix) { return text.ends_with(suffix); }

std::string replaceOccurrences(std::string_view text, std::string_view target,
                               std::string_view replacement) {
  if (target.empty()) return std::string(text);
  std::string out;
  std::size_t start = 0;
  for (std::size_t found; (found = text.find(target, start)) != std::string_view::npos;
       start = found + target.size()) {
    out.append(text.substr(start, found - start));
    out.append(replacement);
  }
  out.append(text.substr(start));
  return out;
}

// ---------------------------------------------------------------------------
// CharacterSet

struct CharacterSet::Impl {
  icu::UnicodeSet set;
};

namespace {

icu::UnicodeSet patternSet(const char16_t* pattern) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeSet set(icu::UnicodeString(pattern), status);
  return U_SUCCESS(status) ? set : icu::UnicodeSet();
}

}  // namespace

CharacterSet::CharacterSet() : _impl(std::make_unique<Impl>()) {}
CharacterSet::CharacterSet(const Impl& impl) : _impl(std::make_unique<Impl>(impl)) {}
CharacterSet::CharacterSet(const CharacterSet& other)
    : _impl(std::make_unique<Impl>(other.impl())) {}
CharacterSet& CharacterSet::operator=(const CharacterSet& other) {
  if (this != &other) _impl = std::make_unique<Impl>(other.impl());
  return *this;
}
CharacterSet::CharacterSet(CharacterSet&&) noexcept = default;
CharacterSet& CharacterSet::operator=(CharacterSet&&) noexcept = default;
CharacterSet::~CharacterSet() = default;

const CharacterSet::Impl& CharacterSet::impl() const {
  static const Impl empty;
  return _impl ? *_impl : empty;
}

CharacterSet::Impl& CharacterSet::mutableImpl() {
  if (!_impl) _impl = std::make_unique<Impl>();
  return *_impl;
}

CharacterSet CharacterSet::characterSetWithCharactersInString(std::string_view characters) {
  CharacterSet result;
  result.addCharactersInString(characters);
  return result;
}

CharacterSet CharacterSet::characterSetWithRange(char32_t first, char32_t last) {
  CharacterSet result;
  if (first <= last) result._impl->set.add(static_cast<UChar32>(first), static_cast<UChar32>(last));
  return result;
}

// The predefined sets are parsed from their patterns once; callers get copies.
CharacterSet CharacterSet::decimalDigitCharacterSet() {
  static const Impl predefined{patternSet(u"[:Nd:]")};
  return CharacterSet(predefined);
}

CharacterSet CharacterSet::whitespaceCharacterSet() {
  static const Impl predefined{patternSet(u"[[:Zs:]\\u0009]")};
  return CharacterSet(predefined);
}

CharacterSet CharacterSet::whitespaceAndNewlineCharacterSet() {
  static const Impl predefined{patternSet(u"[[:Zs:]\\u0009-\\u000D\\u0085\\u2028\\u2029]")};
  return CharacterSet(predefined);
}

CharacterSet CharacterSet::newlineCharacterSet() {
  static const Impl predefined{patternSet(u"[\\u000A-\\u000D\\u0085\\u2028\\u2029]")};
  return CharacterSet(predefined);
}

// Letters include the combining marks that belong to them.
CharacterSet CharacterSet::letterCharacterSet() {
  static const Impl predefined{patternSet(u"[[:L:][:M:]]")};
  return CharacterSet(predefined);
}

CharacterSet CharacterSet::alphanumericCharacterSet() {
  static const Impl predefined{patternSet(u"[[:L:][:M:][:N:]]")};
  return CharacterSet(predefined);
}

// Controls include the invisible format characters (Cf).
CharacterSet CharacterSet::controlCharacterSet() {
  static const Impl predefined{patternSet(u"[[:Cc:][:Cf:]]")};
  return CharacterSet(predefined);
}

CharacterSet CharacterSet::punctuationCharacterSet() {
  static const Impl predefined{patternSet(u"[:P:]")};
  return CharacterSet(predefined);
}

bool CharacterSet::characterIsMember(char32_t c) const {
  return impl().set.contains(static_cast<UChar32>(c));
}

bool CharacterSet::isEmpty() const { return impl().set.isEmpty(); }

CharacterSet CharacterSet::invertedSet() const {
  CharacterSet result(*this);
  result._impl->set.complement();
  return result;
}

CharacterSet CharacterSet::unionWith(const CharacterSet& other) const {
  CharacterSet result(*this);
  result.formUnion(other);
  return result;
}

CharacterSet CharacterSet::intersectionWith(const CharacterSet& other) const {
  CharacterSet result(*this);
  result._impl->set.retainAll(other.impl().set);
  return result;
}

void CharacterSet::formUnion(const CharacterSet& other) {
  mutableImpl().set.addAll(other.impl().set);
}

void CharacterSet::addCharactersInString(std::string_view characters) {
  mutableImpl().set.addAll(unicode(characters));
}

void CharacterSet::removeCharactersInString(std::string_view characters) {
  mutableImpl().set.removeAll(unicode(characters));
}

bool CharacterSet::operator==(const CharacterSet& other) const {
  return impl().set == other.impl().set;
}

// ---------------------------------------------------------------------------

std::string trimCharacters(std::string_view text, const CharacterSet& set) {
  // Valid UTF-8 is trimmed where it stands, one code point at a time from
  // each end, without converting the whole text.
  if (isValidUTF8(text)) {
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t next = start;
      if (!set.characterIsMember(static_cast<char32_t>(nextCodePoint(text, next)))) break;
      start = next;
    }
    std::size_t end = text.size();
    while (end > start) {
      std::size_t lead = end - 1;
      while (lead > start && (static_cast<unsigned char>(text[lead]) & 0xC0) == 0x80) --lead;
      std::size_t next = lead;
      if (!set.characterIsMember(static_cast<char32_t>(nextCodePoint(text, next)))) break;
      end = lead;
    }
    return std::string(text.substr(start, end - start));
  }
  // A broken sequence reads as U+FFFD, as everywhere else text is converted.
  const icu::UnicodeString source = unicode(text);
  int32_t start = 0;
  int32_t end = source.length();
  while (start < end && set.characterIsMember(static_cast<char32_t>(source.char32At(start))))
    start = source.moveIndex32(start, 1);
  while (end > start &&
         set.characterIsMember(static_cast<char32_t>(source.char32At(source.moveIndex32(end, -1)))))
    end = source.moveIndex32(end, -1);
  return utf8(source.tempSubStringBetween(start, end));
}

std::string trimWhitespace(std::string_view text) {
  return trimCharacters(text, CharacterSet::whitespaceAndNewlineCharacterSet());
}

bool containsCharacterFromSet(std::string_view text, const CharacterSet& set) {
  const icu::UnicodeString source = unicode(text);
  for (int32_t i = 0; i < source.length(); i = source.moveIndex32(i, 1))
    if (set.characterIsMember(static_cast<char32_t>(source.char32At(i)))) return true;
  return false;
}

}  // namespace pc
