// Catalogues are read here from the .mo files msgfmt writes rather than
// through the C library's dgettext: dgettext translates only after the
// process has called setlocale with a locale installed on the machine,
// ignores LANGUAGE under the C locale, and keeps answering from its cache
// when LANGUAGE changes. A plug-in may not change the locale of the process
// that loads it, so the table picks the language itself.

#include "platform/LocalizedStrings.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <unordered_map>

namespace pc {

namespace {

using Catalogue = std::unordered_map<std::string, std::string>;

std::uint32_t readWord(const std::string& bytes, std::size_t offset, bool swap) {
  std::uint32_t word;
  std::memcpy(&word, bytes.data() + offset, 4);
  return swap ? __builtin_bswap32(word) : word;
}

// The translations of a compiled catalogue; nullopt when the file is missing
// or is not a well-formed catalogue (every offset is checked against its size).
std::optional<Catalogue> readCatalogue(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (bytes.size() < 20) return std::nullopt;
  bool swap;
  if (readWord(bytes, 0, false) == 0x950412deu) swap = false;
  else if (readWord(bytes, 0, true) == 0x950412deu) swap = true;
  else return std::nullopt;
  const std::uint64_t count = readWord(bytes, 8, swap);
  const std::uint64_t originals = readWord(bytes, 12, swap);
  const std::uint64_t translations = readWord(bytes, 16, swap);
  if (originals + count * 8 > bytes.size() || translations + count * 8 > bytes.size())
    return std::nullopt;
  auto stringAt = [&](std::uint64_t table, std::uint64_t index) -> std::optional<std::string> {
    const std::uint64_t length = readWord(bytes, table + index * 8, swap);
    const std::uint64_t offset = readWord(bytes, table + index * 8 + 4, swap);
    if (offset + length > bytes.size()) return std::nullopt;
    std::string text = bytes.substr(offset, length);
    // Plural forms follow the singular after a zero byte; the table uses the singular.
    if (auto zero = text.find('\0'); zero != std::string::npos) text.resize(zero);
    return text;
  };
  Catalogue catalogue;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::optional<std::string> key = stringAt(originals, i);
    const std::optional<std::string> text = stringAt(translations, i);
    if (!key || !text) return std::nullopt;
    if (key->empty() || text->empty()) continue;  // the header, untranslated entries
    catalogue.emplace(*key, *text);
  }
  return catalogue;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// "fr_FR.UTF-8@euro" -> "fr_FR".
std::string languageOfLocaleName(std::string name) {
  if (auto at = name.find('@'); at != std::string::npos) name.resize(at);
  if (auto dot = name.find('.'); dot != std::string::npos) name.resize(dot);
  return name;
}

struct Tables {
  std::mutex lock;
  // Table name -> the catalogue of the chosen language (empty: untranslated).
  std::map<std::string, Catalogue> catalogues;
};

Tables& tables() {
  static Tables* sTables = new Tables;  // used until exit, never destroyed
  return *sTables;
}

Catalogue loadTable(const std::string& table) {
  const std::vector<std::string> directories = localizedStringDirectories();
  for (const std::string& language : preferredLanguages()) {
    for (const std::string& directory : directories) {
      if (auto catalogue = readCatalogue(directory + "/" + language + "/LC_MESSAGES/" + table + ".mo"))
        return std::move(*catalogue);
    }
  }
  return {};
}

}  // namespace

std::vector<std::string> preferredLanguages() {
  std::vector<std::string> names;
  const std::string list = environment("LANGUAGE");
  for (std::size_t start = 0; start <= list.size();) {
    std::size_t end = list.find(':', start);
    if (end == std::string::npos) end = list.size();
    if (end > start) names.push_back(list.substr(start, end - start));
    start = end + 1;
  }
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const std::string name = environment(variable);
    if (!name.empty()) {
      names.push_back(name);
      break;
    }
  }
  std::vector<std::string> languages;
  auto add = [&](const std::string& language) {
    for (const std::string& known : languages)
      if (known == language) return;
    languages.push_back(language);
  };
  for (const std::string& name : names) {
    const std::string language = languageOfLocaleName(name);
    if (language == "C" || language == "POSIX") break;  // the untranslated texts
    if (language.empty()) continue;
    add(language);
    if (auto underscore = language.find('_'); underscore != std::string::npos)
      add(language.substr(0, underscore));
  }
  return languages;
}

std::vector<std::string> localizedStringDirectories() {
  std::vector<std::string> directories;
  const std::string chosen = environment("PHONECONDUIT_LOCALEDIR");
  if (!chosen.empty()) directories.push_back(chosen);
#ifdef PC_RELATIVE_LOCALE_DIR
  // Beside the installed program (<prefix>/bin/../share/locale), so that an
  // install moved to another prefix, or staged under DESTDIR, finds its own.
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) directories.push_back((program.parent_path() / PC_RELATIVE_LOCALE_DIR).string());
#endif
#ifdef PC_BUILD_LOCALE_DIR
  directories.push_back(PC_BUILD_LOCALE_DIR);
#endif
#ifdef PC_INSTALL_LOCALE_DIR
  directories.push_back(PC_INSTALL_LOCALE_DIR);
#endif
  return directories;
}

std::string localizedString(const std::string& table, const std::string& key) {
  Tables& all = tables();
  std::lock_guard<std::mutex> guard(all.lock);
  auto found = all.catalogues.find(table);
  if (found == all.catalogues.end()) found = all.catalogues.emplace(table, loadTable(table)).first;
  auto text = found->second.find(key);
  return text == found->second.end() ? key : text->second;
}

void resetLocalizedStrings() {
  Tables& all = tables();
  std::lock_guard<std::mutex> guard(all.lock);
  all.catalogues.clear();
}

}  // namespace pc
