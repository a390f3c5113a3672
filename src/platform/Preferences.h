#pragma once
// The user's preferences: a property-list dictionary read from a file. The
// file is $PHONECONDUIT_PREFERENCES when set, else
// $XDG_CONFIG_HOME/phoneconduit/preferences.plist (XDG_CONFIG_HOME defaulting
// to ~/.config). A missing file means no preferences; a file that does not
// parse, or whose top level is not a dictionary, is reported on standard
// error once and read as empty.

#include <mutex>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace pc {

class Preferences {
 public:
  // The process's preferences, read on first use.
  static Preferences& standardPreferences();
  // The path described above.
  static std::string defaultPath();

  explicit Preferences(std::string path);

  const std::string& path() const { return _path; }
  // Points at another file (tests) and reads it.
  void setPath(std::string path);
  // Reads the file again.
  void reload();

  // Null when absent.
  Value objectForKey(const std::string& key) const;
  bool boolForKey(const std::string& key, bool fallback = false) const;
  std::int64_t integerForKey(const std::string& key, std::int64_t fallback = 0) const;
  std::optional<std::string> stringForKey(const std::string& key) const;
  std::optional<Array> arrayForKey(const std::string& key) const;
  std::optional<Dictionary> dictionaryForKey(const std::string& key) const;

  // Sets a value in memory (null removes it); save() writes the file.
  void setObject(const Value& value, const std::string& key);
  bool save() const;

 private:
  mutable std::mutex _lock;
  std::string _path;
  Dictionary _values;
};

// "~" and "~/..." become the home directory ($HOME, else the password entry).
std::string expandTildeInPath(std::string_view path);
std::string homeDirectory();

}  // namespace pc
