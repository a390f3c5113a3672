#pragma once
// Localised string tables. A table ("Synchro") is a gettext catalogue per
// language, compiled by msgfmt into <dir>/<language>/LC_MESSAGES/<table>.mo.
// The language follows the user's environment: the LANGUAGE list first, then
// LC_ALL, LC_MESSAGES and LANG; a key no catalogue translates is its own text
// (English).

#include <string>
#include <vector>

namespace pc {

// The text of `key` in `table`, in the first language of the user's
// preferences that has a catalogue for the table; `key` itself otherwise.
std::string localizedString(const std::string& table, const std::string& key);

// The languages to try, best first ("fr_FR", "fr", ...), read from the
// environment now. Empty when the user asks for the untranslated texts ("C",
// "POSIX") or names nothing.
std::vector<std::string> preferredLanguages();

// Where catalogues are looked for, in order: $PHONECONDUIT_LOCALEDIR when set,
// the build tree's catalogues, then the installed ones.
std::vector<std::string> localizedStringDirectories();

// Forgets the catalogues read so far, so that the next look-up reads the
// environment again (a program that changes its language, the tests).
void resetLocalizedStrings();

}  // namespace pc
