#pragma once
// Collects what is logged while it lives, at every level and domain.

#include <memory>
#include <string>
#include <vector>

#include "async/AYLogger.h"

namespace pc::test {

struct LogLine {
  std::string type;
  int level;
  std::string message;
};

class LogCapture {
 public:
  LogCapture() { QVTAYLogger::addLogger(_logger, std::nullopt, kAllLevels); }
  ~LogCapture() { QVTAYLogger::removeLogger(_logger, std::nullopt, kAllLevels); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<LogLine>& lines() const { return _logger->lines; }
  std::vector<std::string> messages() const {
    std::vector<std::string> texts;
    for (const LogLine& line : lines()) texts.push_back(line.message);
    return texts;
  }
  // The first line with this message; nullptr when there is none.
  const LogLine* find(const std::string& message) const {
    for (const LogLine& line : lines())
      if (line.message == message) return &line;
    return nullptr;
  }
  bool contains(const std::string& message) const { return find(message) != nullptr; }
  void clear() { _logger->lines.clear(); }

 private:
  static constexpr int kAllLevels = kLogError | kLogWarning | kLogImportant | kLogInfo;

  struct Logger : QVTAYLogger {
    std::string className() const override { return "LogCaptureLogger"; }
    void dumpLogInFile(const char*, const char*, unsigned, const std::string& type, int level,
                       const std::string& message) override {
      lines.push_back({type, level, message});
    }
    std::optional<URL> urlToFile() const override { return std::nullopt; }
    std::vector<LogLine> lines;
  };
  std::shared_ptr<Logger> _logger = std::make_shared<Logger>();
};

}  // namespace pc::test
