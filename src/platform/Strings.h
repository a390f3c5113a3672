#pragma once
// Text is UTF-8 std::string. Lengths, indexes and cuts that phones see count
// UTF-16 code units, and a cut never splits a surrogate pair. Character sets
// are sets of code points (ICU UnicodeSet underneath).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace pc {

// Invalid UTF-8 sequences are read as U+FFFD throughout.
std::size_t utf16Length(std::string_view utf8);
std::u16string toUTF16(std::string_view utf8);
std::string fromUTF16(std::u16string_view utf16);
bool isValidUTF8(std::string_view text);
// Whether every byte is below 0x80 (the empty text is ASCII).
bool isASCII(std::string_view text);
// The code point of the UTF-8 sequence at `position`, which moves past it;
// -1 for an ill-formed sequence (overlong, a surrogate, beyond U+10FFFF,
// cut short), past which `position` moves by one byte. Sizes are 64-bit.
std::int32_t nextCodePoint(std::string_view text, std::size_t& position);

// The first `units` UTF-16 units of `text` (all of it when shorter). When the
// cut would fall inside a surrogate pair, the pair is left out.
std::string utf16Prefix(std::string_view text, std::size_t units);
// `length` UTF-16 units from `location`, clamped to the text; a surrogate
// pair cut at either end is left out.
std::string utf16Substring(std::string_view text, std::size_t location, std::size_t length);
// The UTF-16 index of the first occurrence of `needle` at or after `from`.
std::optional<std::size_t> utf16Find(std::string_view text, std::string_view needle,
                                     std::size_t from = 0);

std::string lowercaseString(std::string_view text);
std::string uppercaseString(std::string_view text);
// Upper-cases the first letter of each word, lower-cases the rest.
std::string capitalizedString(std::string_view text);
bool hasPrefix(std::string_view text, std::string_view prefix);
bool hasSuffix(std::string_view text, std::string_view suffix);
// Replaces every literal occurrence of `target`.
std::string replaceOccurrences(std::string_view text, std::string_view target,
                               std::string_view replacement);

class CharacterSet {
 public:
  // The empty set.
  CharacterSet();
  CharacterSet(const CharacterSet&);
  CharacterSet& operator=(const CharacterSet&);
  CharacterSet(CharacterSet&&) noexcept;
  CharacterSet& operator=(CharacterSet&&) noexcept;
  ~CharacterSet();

  // The code points of `characters`.
  static CharacterSet characterSetWithCharactersInString(std::string_view characters);
  // A closed range of code points.
  static CharacterSet characterSetWithRange(char32_t first, char32_t last);
  // Unicode decimal digits (general category Nd).
  static CharacterSet decimalDigitCharacterSet();
  // Space separators and tab.
  static CharacterSet whitespaceCharacterSet();
  // White space plus line and paragraph separators and the newline controls.
  static CharacterSet whitespaceAndNewlineCharacterSet();
  static CharacterSet newlineCharacterSet();
  static CharacterSet letterCharacterSet();
  static CharacterSet alphanumericCharacterSet();
  static CharacterSet controlCharacterSet();
  static CharacterSet punctuationCharacterSet();

  bool characterIsMember(char32_t c) const;
  bool isEmpty() const;
  CharacterSet invertedSet() const;
  CharacterSet unionWith(const CharacterSet& other) const;
  CharacterSet intersectionWith(const CharacterSet& other) const;
  void formUnion(const CharacterSet& other);
  void addCharactersInString(std::string_view characters);
  void removeCharactersInString(std::string_view characters);

  bool operator==(const CharacterSet& other) const;

 private:
  struct Impl;
  explicit CharacterSet(const Impl& impl);
  // The set; a moved-from object reads as empty and becomes usable again on change.
  const Impl& impl() const;
  Impl& mutableImpl();
  std::unique_ptr<Impl> _impl;
};

// Removes the characters of `set` at both ends.
std::string trimCharacters(std::string_view text, const CharacterSet& set);
std::string trimWhitespace(std::string_view text);
// Whether any character of `text` is in `set`.
bool containsCharacterFromSet(std::string_view text, const CharacterSet& set);

}  // namespace pc
