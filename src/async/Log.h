#pragma once
// The logging interface every log site uses. Levels: 1 error, 2 warning,
// 4 important, 8 info. Domains: "QVT" (QVTLOG) or dotted ones such as
// ".sync.FormattingMethods" (phcFormatLogDomain(".sync.", phcSimplifyFileName(__FILE__))).
//
// The emitting pattern: nothing is evaluated or formatted unless a logger
// matches the level and the domain. Messages use fmt's format syntax; the
// rendered text is the system's log text, exactly.
//
//   QVT_LOG(1, QVTLOG, "cannot parse data: {}", error);
//   if (!QVT_CHECK(record)) return {};   // logs condition "record" failed

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "platform/Value.h"

namespace pc {

inline constexpr const char* QVTLOG = "QVT";
inline constexpr const char* QVTDAVLOG = "QVTDAV";
inline constexpr const char* QVTSDVLOG = "QVTSDV";
inline constexpr int kLogError = 1;
inline constexpr int kLogWarning = 2;
inline constexpr int kLogImportant = 4;
inline constexpr int kLogInfo = 8;

class QVTAYLogger;
using QVTAYLoggerPtr = std::shared_ptr<QVTAYLogger>;
using QVTAYLoggerList = std::vector<QVTAYLoggerPtr>;

// Declared here, defined with the logger registry (async/AYLogger.h).
bool AYHasLogForLevel(int level);
std::string ROOTLogDomain();
std::string phcFormatLogDomain(std::string_view prefix, std::string_view name);
std::string phcSimplifyFileName(std::string_view path);

namespace detail {
// The loggers for (domain, level), or nullptr when none matches.
std::unique_ptr<QVTAYLoggerList> loggersForTypeLevel(const std::string& domain, int level);
void logWithLoggers(const QVTAYLoggerList& loggers, const char* file, const char* function,
                    unsigned line, const std::string& domain, int level,
                    const std::string& message);

// Where a log call comes from. The logging entry points called directly from
// a log site take few enough arguments to pass them all in registers, so
// that their frames lie at the same distance below the calling function's
// frame whichever entry point it calls (the file logger's depth relies on it).
struct LogSite {
  const char* file;
  const char* function;
  unsigned line;
  int level;
  const std::string& domain;
};
void logAtSite(const QVTAYLoggerList& loggers, const LogSite& site, const std::string& message);
// Formats once, for the given loggers or (null) those registered for the
// site's domain and level; nothing is formatted when there are none.
void vlogAtSite(const QVTAYLoggerList* loggers, const LogSite& site, fmt::string_view format,
                fmt::format_args args);
// Logs `condition "<text>" failed` at level 1 in "QVT"; answers `ok`.
bool checkCondition(bool ok, const char* text, const char* function, unsigned line);

// Renders a message. When an argument cannot be rendered (its formatter
// throws), the failure goes to the console log and the message reads
// "**** Undisplayable message ****": logging never throws at a log site.
std::string vformatLogMessage(fmt::string_view format, fmt::format_args args);
template <class... T>
std::string formatLogMessage(fmt::format_string<T...> format, T&&... args) {
  return vformatLogMessage(format, fmt::make_format_args(args...));
}
}  // namespace detail

}  // namespace pc

#define QVT_LOG(level, domain, ...)                                                          \
  do {                                                                                       \
    const int qvtLogLevel_ = (level);                                                        \
    if (::pc::AYHasLogForLevel(qvtLogLevel_)) {                                              \
      const ::std::string qvtLogDomain_ = (domain);                                          \
      if (auto qvtLoggers_ = ::pc::detail::loggersForTypeLevel(qvtLogDomain_, qvtLogLevel_)) \
        ::pc::detail::logAtSite(                                                             \
            *qvtLoggers_,                                                                    \
            ::pc::detail::LogSite{nullptr, __PRETTY_FUNCTION__, __LINE__, qvtLogLevel_,      \
                                  qvtLogDomain_},                                            \
            ::pc::detail::formatLogMessage(__VA_ARGS__));                                    \
    }                                                                                        \
  } while (0)

// Evaluates the condition once; when false, logs `condition "<cond>" failed`
// at level 1 in "QVT". Answers the condition, so that the caller goes on with
// the missing value.
#define QVT_CHECK(cond) \
  ::pc::detail::checkCondition(static_cast<bool>(cond), #cond, __PRETTY_FUNCTION__, __LINE__)
