#pragma once
// Text operations shared by the formatters and the phone protocols: the
// hexadecimal UTF-8 and UCS-2 forms phones exchange, character-set deletion
// and replacement, conversions, pretty printing, and the comparisons used to
// match names typed on a phone against the host's.
//
// Text is UTF-8; character counts and limits are in UTF-16 units.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Strings.h"
#include "platform/Value.h"
#include "util/StringEncoding.h"

namespace pc {

// Writes each byte as two lower-case hexadecimal digits; `out` holds at least
// 2 * length bytes (no terminator is written). Answers true.
bool bytes_to_hex(const std::uint8_t* bytes, std::size_t length, char* out);
// Reads pairs of hexadecimal digits up to the terminating zero into `out`
// (room for strlen(text) / 2 bytes) and stores the byte count. Answers false
// for a pair that is not two hexadecimal digits, including a lone last digit.
bool hex_to_bytes(const char* text, std::uint8_t* out, std::size_t* out_length);

namespace QVTStringExtensions {

// --- Hexadecimal forms ---

// The UTF-8 bytes as lower-case hexadecimal; nullopt beyond 9999 bytes.
std::optional<std::string> qvt_convertToUTF8Hexa(std::string_view text);
// Decodes hexadecimal UTF-8. nullopt for text longer than 10000 characters,
// hexadecimal that does not parse, or bytes that are not UTF-8.
std::optional<std::string> qvt_stringFromUTF8HexaString(std::string_view hexa);
// UTF-16 big-endian, four lower-case digits per unit, no byte-order mark;
// ill-formed UTF-8 reads as U+FFFD. Empty (logged) when the text is too long
// to convert.
std::string qvt_convertToUCS2Hexa(std::string_view text);
// Decodes hexadecimal UTF-16 big-endian; nullopt when it does not parse (not
// whole units, a non-digit, an unpaired surrogate).
std::optional<std::string> qvt_stringFromUCS2HexaString(std::string_view hexa);

// --- Encodings ---

// A 7-bit ASCII form: transliterated to Latin, accents and ligatures folded,
// '?' for what has no ASCII form.
std::string stringWithLossyASCIIConversion(std::string_view text);
// The ASCII bytes of the text only; every non-ASCII byte is dropped.
std::string stringWithUTF8Conversion(std::string_view text);
// Whether the text converts to `encoding` and reads back identical.
bool qvt_canReallyBeEncodedLosslessInEncoding(std::string_view text, StringEncoding encoding);

// --- Character sets ---

// Removes every character of `set`.
void deleteCharactersFromSet(std::string& text, const CharacterSet& set);
// Replaces every character of `set`, or with oneReplacePerRange every run of
// consecutive ones, by `replacement`. Characters of the set inside the
// replacement are left as they are.
void replaceCharactersFromSet(std::string& text, const CharacterSet& set,
                              std::string_view replacement, bool oneReplacePerRange);
std::string qvt_stringByRemovingCharactersFromSet(std::string_view text, const CharacterSet& set);
std::string qvt_stringByReplacingCharactersFromSet(std::string_view text, const CharacterSet& set,
                                                   std::string_view replacement,
                                                   bool oneReplacePerRange);
std::size_t qvt_countOfCharactersFromSet(std::string_view text, const CharacterSet& set);
// True when any character is outside '0'..'9' (false for the empty text).
bool containsNonDigitChar(std::string_view text);

// --- Conversions ---

// Decimal digits only: any other character (a sign, a blank) answers 0.
// Wraps around on overflow.
unsigned unsignedIntValue(std::string_view text);
// Replaces every byte `from` by `to` in the UTF-8 form (ASCII bytes only make
// sense here).
std::string _stringByReplacingChar(std::string_view text, char from, char to);
std::string stringByConvertingToDottedName(std::string_view text);       // "_" -> "."
std::string stringByConvertingToUnderscoredName(std::string_view text);  // "." -> "_"
// The two-character sequences \r and \n become a carriage return and a line feed.
void interpretCRLF(std::string& text);
// Makes control characters visible: line breaks as \n and \r (followed by a
// real line feed when keepCR), \e \a \b \f \t, other controls as \<decimal>.
std::string prettyPrintKeepCR(std::string_view text, bool keepCR);
std::string prettyPrint(std::string_view text);
// Removes tags; a closing paragraph tag becomes a line feed. An unclosed "<"
// stays.
std::string qvt_stringByRemovingHTMLTags(std::string_view text);

// --- Identifiers and addresses ---

// A new random UUID in its standard text form (upper case).
std::string uuidString();
// The legal URL characters that still need escaping inside a URL component.
std::string qvt_stringWithLegalURLCharactersThatShouldBeEscapedIfYouWantToEmbedThemInAURLSafely();
// Percent-escapes the text's bytes in `encoding`: everything but letters,
// digits and "!$&'()*+,-./:;=?@_~", and also the characters of
// legalURLCharactersToEscape. nullopt when the text has no form in the encoding.
std::optional<std::string> qvt_stringByAddingPercentEscapesUsingEncoding(
    std::string_view text, StringEncoding encoding, std::string_view legalURLCharactersToEscape);

// A name not yet used, by numbering: "Calendar" with "Calendar" and
// "Calendar 3" in use answers "Calendar 4". Non-string elements are ignored.
std::string guessedStringForDefaultString(const std::string& defaultString,
                                          const Array& usedStrings);

// --- Comparisons (answer -1, 0 or 1) ---

// Literal comparison in which runs of ASCII digits compare as numbers.
int qvtNumericalCompare(std::string_view text, std::string_view other);
// Unicode collation ignoring case, diacritics, character width and
// composition; punctuation counts; digit runs compare as numbers. A missing
// `other` answers 0; a collation failure -1.
int caseInsensitiveDiacriticalCompare(std::string_view text,
                                      std::optional<std::string_view> other);
bool isCaseInsensitiveDiacriticalEqualToString(std::string_view text,
                                               std::optional<std::string_view> other);
// Compares trimmed texts; a blank text sorts after a non-blank one, and of
// two blank texts an empty one after a non-empty one.
int trimmedDiacriticalCompare(std::string_view text, std::string_view other);

}  // namespace QVTStringExtensions

}  // namespace pc
