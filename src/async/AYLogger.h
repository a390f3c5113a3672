#pragma once
// The logger registry and the loggers.
//
// A registration is (type or all types, level mask, logger). Lookups go through
// one cache per level, an immutable snapshot rebuilt under the registry lock
// whenever registrations change and published through an atomic pointer, so
// that log sites read it without taking the lock.
//
// Loggers: QVT_AYStderrLogger writes one-line records (on standard error or a
// ".log" file), QVT_AYFileLogger writes multi-line records in a ".decalog"
// file, QVT_AYNoLogger writes nothing (it stands in when no log file can be
// opened).

#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "async/Log.h"
#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

// The text written in records for a level: "ERROR", "WARNING", "IMPORTANT",
// "INFO", "???" for any other value.
const char* AYLevelName(int level);

// The module's own complaints (a log directory that cannot be made, a file
// that cannot be opened) go to this channel, never to the loggers. By default
// a line "<program>[<pid>]: <text>" on standard error. setConsoleLogSink
// replaces it (an empty function restores the default) and answers the
// previous sink.
using ConsoleLogSink = std::function<void(const std::string& text)>;
ConsoleLogSink setConsoleLogSink(ConsoleLogSink sink);
void consoleLog(const std::string& text);

// Called by QVTRegisterLogs when "LogsExceptions" is set, to put the
// diagnostics module's exception class in place (the diagnostics module sets
// it at start-up to QVTFriendlyException::install). Answers the previous hook.
std::function<void()> setExceptionSubstitutionHook(std::function<void()> hook);

// Registers the loggers the user's preferences ask for ("LogWarnings",
// "LogImportants", "LogAdditions", "LogInFile", "LogsExceptions"); errors
// always go to standard error. Calling it again replaces the registrations
// made by the previous call, so a second call never doubles the output.
void QVTRegisterLogs();
// Registers the loggers as QVTRegisterLogs does unless the process has
// registered them already (what a caller removed since stays removed).
void QVTRegisterLogsUnlessRegistered();

class QVTAYLogger : public Object {
 public:
  std::string className() const override { return "QVTAYLogger"; }

  // Writes one record. `file` and `function` may be null.
  virtual void dumpLogInFile(const char* file, const char* function, unsigned line,
                             const std::string& type, int level, const std::string& message) = 0;
  // The file written to, if any.
  virtual std::optional<URL> urlToFile() const = 0;

  // Registry. A type without value means all types.
  static void addLogger(QVTAYLoggerPtr logger, const std::optional<std::string>& type, int mask);
  // Removes the first registration with an equal type, exactly this mask and
  // this very logger; nothing when there is none.
  static void removeLogger(const QVTAYLoggerPtr& logger, const std::optional<std::string>& type,
                           int mask);
  // The loggers for all types, then those of each dotted prefix of a type
  // beginning with "." (".sync", then ".sync.Foo"), or of exactly the type
  // otherwise. Duplicates are kept. nullptr when none matches.
  static std::unique_ptr<QVTAYLoggerList> loggersForType(const std::string& type, int level);

  // Formats once and hands the message to each logger in order. A format
  // that cannot be rendered is reported on the console log and replaced by
  // "**** Undisplayable message ****".
  // Inlined into the caller, so that the file logger sees the caller's depth.
  template <class... Args>
  [[gnu::always_inline]] static void logWithLoggers(const QVTAYLoggerList& loggers, const char* file, const char* function,
                             unsigned line, const std::string& type, int level,
                             fmt::format_string<Args...> format, Args&&... args) {
    detail::vlogAtSite(&loggers, detail::LogSite{file, function, line, level, type}, format,
                       fmt::make_format_args(args...));
  }
  static void vlogWithLoggers(const QVTAYLoggerList& loggers, const char* file,
                              const char* function, unsigned line, const std::string& type,
                              int level, fmt::string_view format, fmt::format_args args);

  // Looks the loggers up and logs in one call; formats only when a logger
  // matches, and once.
  template <class... Args>
  [[gnu::always_inline]] static void logInFile(const char* file, const char* function, unsigned line,
                        const std::string& type, int level, fmt::format_string<Args...> format,
                        Args&&... args) {
    detail::vlogAtSite(nullptr, detail::LogSite{file, function, line, level, type}, format,
                       fmt::make_format_args(args...));
  }
  static void vlogInFile(const char* file, const char* function, unsigned line,
                         const std::string& type, int level, fmt::string_view format,
                         fmt::format_args args);

  // The shared loggers, created on first use: one-line records on standard
  // error, and multi-line records in the default log directory.
  static QVTAYLoggerPtr stderrStreamLogger();
  static QVTAYLoggerPtr fileStreamLogger();
  // The shared file logger's file; none before the file logger exists.
  static std::optional<URL> urlToFileStreamLogger();
};

// A logger writing to a C stream it owns (closed on destruction unless it is
// standard error).
class QVT_AYStreamLogger : public QVTAYLogger {
 public:
  QVT_AYStreamLogger(std::FILE* logFile, std::optional<URL> urlToFile);
  ~QVT_AYStreamLogger() override;
  QVT_AYStreamLogger(const QVT_AYStreamLogger&) = delete;
  QVT_AYStreamLogger& operator=(const QVT_AYStreamLogger&) = delete;

  std::optional<URL> urlToFile() const override { return _urlToFile; }

 protected:
  std::FILE* logFile() const { return _logFile; }

 private:
  std::FILE* _logFile;
  std::optional<URL> _urlToFile;
};

// One-line records: "HH:MM:SS.sss [program:pid] LEVEL (type): message", the
// further lines of a message indented under the header with a ':' aligned
// under its closing ": ".
class QVT_AYStderrLogger : public QVT_AYStreamLogger {
 public:
  // Writes on `stream` (standard error by default); `url` names its file.
  explicit QVT_AYStderrLogger(std::FILE* stream = stderr, std::optional<URL> url = std::nullopt)
      : QVT_AYStreamLogger(stream, std::move(url)) {}
  // A new "<program>-<date>--<time>.log" file in `baseDir`, or a
  // QVT_AYNoLogger when none can be made.
  static QVTAYLoggerPtr initWithBaseDir(const std::string& baseDir);

  std::string className() const override { return "QVT_AYStderrLogger"; }
  void dumpLogInFile(const char* file, const char* function, unsigned line,
                     const std::string& type, int level, const std::string& message) override;
};

// Multi-line records (TIME, THREAD, TYPE, LEVEL, LINE, FILE, FUNCTION, DEPTH,
// LENGTH, then the message), each written whole and flushed.
class QVT_AYFileLogger : public QVT_AYStreamLogger {
 public:
  QVT_AYFileLogger(std::FILE* stream, URL url) : QVT_AYStreamLogger(stream, std::move(url)) {}
  // A new "<program>-<date>--<time>.decalog" file in "~/Library/Logs/<program>".
  static QVTAYLoggerPtr init();
  // The same in `baseDir`; a QVT_AYNoLogger when no file can be made.
  static QVTAYLoggerPtr initWithBaseDir(const std::string& baseDir);

  std::string className() const override { return "QVT_AYFileLogger"; }
  void dumpLogInFile(const char* file, const char* function, unsigned line,
                     const std::string& type, int level, const std::string& message) override;
};

// Writes nothing.
class QVT_AYNoLogger : public QVTAYLogger {
 public:
  std::string className() const override { return "QVT_AYNoLogger"; }
  void dumpLogInFile(const char*, const char*, unsigned, const std::string&, int,
                     const std::string&) override {}
  // The user's home directory.
  std::optional<URL> urlToFile() const override;
};

// One entry of the file logger's per-thread call stack: a stack-position
// marker (lower is deeper) and the logging function's name.
class QVTFrame : public Object {
 public:
  QVTFrame(std::uintptr_t frame, std::string name) : _frame(frame), _name(std::move(name)) {}

  std::string className() const override { return "QVTFrame"; }
  std::uintptr_t frame() const { return _frame; }
  const std::string& name() const { return _name; }
  bool isEqualToFrame(const QVTFrame& other) const {
    return _frame == other._frame && _name == other._name;
  }
  // "name:0x7ffd...".
  std::string description() const override;

 private:
  std::uintptr_t _frame;
  std::string _name;
};

// The key of the call stack in the per-thread dictionary.
inline constexpr const char* kStackKey = "QVTStackKey";

}  // namespace pc
