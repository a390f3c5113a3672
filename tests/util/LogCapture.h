#pragma once
// Collects the messages logged while it lives, at every level and domain.

#include <memory>
#include <string>
#include <vector>

#include "async/AYLogger.h"

namespace pc::test {

class LogCapture {
 public:
  LogCapture() { QVTAYLogger::addLogger(_logger, std::nullopt, kAllLevels); }
  ~LogCapture() { QVTAYLogger::removeLogger(_logger, std::nullopt, kAllLevels); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  const std::vector<std::string>& messages() const { return _logger->messages; }

 private:
  static constexpr int kAllLevels = kLogError | kLogWarning | kLogImportant | kLogInfo;

  struct Logger : QVTAYLogger {
    std::string className() const override { return "LogCaptureLogger"; }
    void dumpLogInFile(const char*, const char*, unsigned, const std::string&, int,
                       const std::string& message) override {
      messages.push_back(message);
    }
    std::optional<URL> urlToFile() const override { return std::nullopt; }
    std::vector<std::string> messages;
  };
  std::shared_ptr<Logger> _logger = std::make_shared<Logger>();
};

}  // namespace pc::test
