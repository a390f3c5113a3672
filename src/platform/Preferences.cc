#include "platform/Preferences.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <vector>

#include "platform/PropertyList.h"

namespace pc {

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// The home directory in the password database, "" when there is no entry.
std::string passwordHome(const char* user) {
  long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  const int status = user ? ::getpwnam_r(user, &entry, buffer.data(), buffer.size(), &found)
                          : ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
  return status == 0 && found && found->pw_dir ? found->pw_dir : "";
}

// The file's preferences; empty, with a report on standard error, when the
// file exists but cannot be used.
Dictionary readPreferences(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) return {};

  PropertyListError error;
  const auto value = PropertyList::fromFile(path, &error);
  if (value && value->isDictionary()) return value->dictionary();
  const std::string reason =
      value ? std::string("its top level is ") + value->kindName() + ", not a dictionary"
            : error.description();
  std::cerr << "phoneconduit: ignoring the preferences in " << path << ": " << reason << std::endl;
  return {};
}

}  // namespace

Preferences& Preferences::standardPreferences() {
  static Preferences preferences(defaultPath());
  return preferences;
}

std::string Preferences::defaultPath() {
  const std::string explicitPath = environment("PHONECONDUIT_PREFERENCES");
  if (!explicitPath.empty()) return expandTildeInPath(explicitPath);
  std::string configHome = environment("XDG_CONFIG_HOME");
  // Relative values are invalid and ignored, as the base-directory convention says.
  if (configHome.empty() || configHome.front() != '/') configHome = homeDirectory() + "/.config";
  return configHome + "/phoneconduit/preferences.plist";
}

Preferences::Preferences(std::string path)
    : _path(std::move(path)), _values(readPreferences(_path)) {}

void Preferences::setPath(std::string path) {
  Dictionary values = readPreferences(path);
  std::lock_guard lock(_lock);
  _path = std::move(path);
  _values = values;
}

void Preferences::reload() {
  std::string path;
  {
    std::lock_guard lock(_lock);
    path = _path;
  }
  Dictionary values = readPreferences(path);
  std::lock_guard lock(_lock);
  _values = values;
}

// Values are handed out and stored as deep copies, so that no caller can
// change the preferences (or see them change) behind the lock.
Value Preferences::objectForKey(const std::string& key) const {
  std::lock_guard lock(_lock);
  return _values.get(Value(key)).deepCopy();
}

bool Preferences::boolForKey(const std::string& key, bool fallback) const {
  const Value value = objectForKey(key);
  return value.isNumber() || value.isString() ? value.boolValue() : fallback;
}

std::int64_t Preferences::integerForKey(const std::string& key, std::int64_t fallback) const {
  const Value value = objectForKey(key);
  return value.isNumber() || value.isString() ? value.integerValue() : fallback;
}

std::optional<std::string> Preferences::stringForKey(const std::string& key) const {
  const Value value = objectForKey(key);
  if (value.isNumber() || value.isString()) return value.stringValue();
  return std::nullopt;
}

std::optional<Array> Preferences::arrayForKey(const std::string& key) const {
  return objectForKey(key).asArray();
}

std::optional<Dictionary> Preferences::dictionaryForKey(const std::string& key) const {
  return objectForKey(key).asDictionary();
}

void Preferences::setObject(const Value& value, const std::string& key) {
  const Value stored = value.deepCopy();
  std::lock_guard lock(_lock);
  if (stored.isNull())
    _values.remove(Value(key));
  else
    _values.set(Value(key), stored);
}

bool Preferences::save() const {
  Dictionary snapshot;
  std::string path;
  {
    std::lock_guard lock(_lock);
    snapshot = _values.deepCopy();
    path = _path;
  }
  std::error_code ignored;  // a missing directory shows up as the write's error
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  PropertyListError error;
  if (PropertyList::writeToFile(Value(snapshot), path, &error)) return true;
  std::cerr << "phoneconduit: cannot save the preferences: " << error.description() << std::endl;
  return false;
}

std::string homeDirectory() {
  std::string home = environment("HOME");
  if (home.empty()) home = passwordHome(nullptr);
  if (home.empty()) return "/";
  if (home.size() > 1 && home.back() == '/') home.pop_back();
  return home;
}

std::string expandTildeInPath(std::string_view path) {
  if (path.empty() || path.front() != '~') return std::string(path);
  const std::size_t slash = path.find('/');
  const std::string_view user =
      path.substr(1, slash == std::string_view::npos ? path.npos : slash - 1);
  std::string home = user.empty() ? homeDirectory() : passwordHome(std::string(user).c_str());
  if (home.empty()) return std::string(path);  // an unknown user: left as written
  if (slash == std::string_view::npos) return home;
  if (home == "/") home.clear();
  return home + std::string(path.substr(slash));
}

}  // namespace pc
