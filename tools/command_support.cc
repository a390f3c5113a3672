#include "command_support.h"

#include <cstdio>
#include <optional>

#include "async/AYLogger.h"
#include "async/Log.h"
#include "commands.h"
#include "platform/PropertyList.h"

namespace pc::tools {

Dictionary readDictionary(const std::string& path) {
  PropertyListError error;
  const std::optional<Value> contents = PropertyList::fromFile(path, &error);
  if (!contents) throw CommandError(path + ": " + error.description());
  if (!contents->isDictionary()) throw CommandError(path + ": not a dictionary");
  return contents->dictionary();
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

QuietDefaultLog::QuietDefaultLog(bool keep) : _active(!keep) {
  if (!_active) return;
  // Removing succeeds only when the default registration is the only one
  // for standard error (errors alone, for every domain).
  const auto before = QVTAYLogger::loggersForType(QVTLOG, kLogError);
  QVTAYLogger::removeLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, kLogError);
  const auto after = QVTAYLogger::loggersForType(QVTLOG, kLogError);
  _active = (before ? before->size() : 0) != (after ? after->size() : 0);
}

QuietDefaultLog::~QuietDefaultLog() {
  if (_active) QVTAYLogger::addLogger(QVTAYLogger::stderrStreamLogger(), std::nullopt, kLogError);
}

}  // namespace pc::tools
