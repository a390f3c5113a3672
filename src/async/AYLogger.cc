#include "async/AYLogger.h"

#include <errno.h>  // program_invocation_short_name
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/CalendarDate.h"
#include "platform/Preferences.h"
#include "platform/Strings.h"
#include "platform/ThreadDictionary.h"
#include "platform/TimeZone.h"

namespace pc {

namespace {

constexpr const char* kUndisplayableMessage = "**** Undisplayable message ****";

const char* programName() { return program_invocation_short_name; }

// ---------------------------------------------------------------------------
// Console log: the module's own complaints.

std::mutex& consoleLock() {
  static auto* lock = new std::mutex;
  return *lock;
}

ConsoleLogSink& consoleSink() {
  static auto* sink = new ConsoleLogSink;
  return *sink;
}

// Fails loudly on a broken internal invariant of the call stack, naming the
// function, this module and the line.
[[noreturn]] void assertionFailure(const char* condition, const char* function, int line) {
  std::fprintf(stderr, "*** Assertion failure in %s, AYLogger:%d: %s\n", function, line,
               condition);
  std::abort();
}

// ---------------------------------------------------------------------------
// Levels and per-level caches.

constexpr std::array<int, 4> kLevels = {kLogError, kLogWarning, kLogImportant, kLogInfo};

// The cache slot of a level, -1 for anything but the four level bits.
int levelIndex(int level) {
  switch (level) {
    case kLogError: return 0;
    case kLogWarning: return 1;
    case kLogImportant: return 2;
    case kLogInfo: return 3;
    default: return -1;
  }
}

// The loggers registered for one level, by type key. Never modified once
// published: a rebuild publishes a new one.
struct LevelCache {
  QVTAYLoggerList anyType;
  std::unordered_map<std::string, QVTAYLoggerList> byType;

  bool empty() const { return anyType.empty() && byType.empty(); }

  // Visits the loggers for `type`: those for all types first, then those of
  // each dotted prefix (".sync" then ".sync.Foo") of a type beginning with
  // ".", or those of exactly the type.
  template <class Visit>
  void forEachLogger(const std::string& type, Visit&& visit) const {
    for (const auto& logger : anyType) visit(logger);
    auto visitKey = [&](const std::string& key) {
      if (auto found = byType.find(key); found != byType.end())
        for (const auto& logger : found->second) visit(logger);
    };
    if (!type.empty() && type.front() == '.') {
      for (std::size_t dot = type.find('.', 1); dot != std::string::npos;
           dot = type.find('.', dot + 1))
        visitKey(type.substr(0, dot));
    }
    visitKey(type);
  }
};

// Published caches, read without the lock. Zero-initialised at load time so
// that a log call during static initialisation finds "no logger".
constinit std::atomic<const LevelCache*> _ay_loggerForErrors{nullptr};
constinit std::atomic<const LevelCache*> _ay_loggerForWarnings{nullptr};
constinit std::atomic<const LevelCache*> _ay_loggerForImportants{nullptr};
constinit std::atomic<const LevelCache*> _ay_loggerForInfos{nullptr};
// The four caches in level order (error, warning, important, info).
constexpr std::array<std::atomic<const LevelCache*>*, 4> kLevelCaches = {
    &_ay_loggerForErrors, &_ay_loggerForWarnings, &_ay_loggerForImportants, &_ay_loggerForInfos};

// Reclaiming replaced caches. A reader announces itself on the counter of
// the current epoch before it loads a cache pointer and leaves when it is
// done with it; read sections are short and never call out. A writer that
// replaced caches waits, for each epoch in turn, until the readers counted
// there have left (flipping the epoch first so that new readers count on the
// other side and cannot keep it waiting). Every reader that could have
// loaded a replaced pointer announced itself before the replacement, so once
// both counters have drained the replaced caches have no reader left.
constinit std::atomic<unsigned> sReaderEpoch{0};
constinit std::array<std::atomic<long>, 2> sReaders{};

class ReadSection {
 public:
  ReadSection() : _slot(sReaderEpoch.load() & 1u) { sReaders[_slot].fetch_add(1); }
  ~ReadSection() { sReaders[_slot].fetch_sub(1); }
  ReadSection(const ReadSection&) = delete;
  ReadSection& operator=(const ReadSection&) = delete;

 private:
  unsigned _slot;
};

// Waits until no reader can still hold a pointer loaded before this call.
// Caller holds the registry lock (writers are serialised).
void waitForReaders() {
  for (int round = 0; round < 2; ++round) {
    const unsigned drained = sReaderEpoch.fetch_add(1) & 1u;
    while (sReaders[drained].load() != 0) std::this_thread::yield();
  }
}

struct Registration {
  std::optional<std::string> type;
  int mask;
  QVTAYLoggerPtr logger;
};

// Everything behind the registry lock. Never destroyed, so that logging
// during the process's exit stays safe.
struct Registry {
  std::mutex _ay_loggerLock;
  std::vector<Registration> _ay_loggerArray;
  QVTAYLoggerPtr _ay_stderrLogger;
  QVTAYLoggerPtr _ay_fileLogger;
};

Registry& registry() {
  static auto* instance = new Registry;
  return *instance;
}

// Rebuilds the caches of the levels in `mask` from the registrations, in
// registration order, then frees the caches they replace once no reader can
// hold them. Caller holds the lock.
void _recalculateCacheWithMask(Registry& reg, int mask) {
  std::vector<std::unique_ptr<const LevelCache>> replaced;
  for (std::size_t slot = 0; slot < kLevels.size(); ++slot) {
    const int level = kLevels[slot];
    if (!(mask & level)) continue;
    auto cache = std::make_unique<LevelCache>();
    for (const auto& registration : reg._ay_loggerArray) {
      if (!(registration.mask & level)) continue;
      auto& list = registration.type ? cache->byType[*registration.type] : cache->anyType;
      list.push_back(registration.logger);
    }
    const LevelCache* published = cache->empty() ? nullptr : cache.release();
    replaced.emplace_back(kLevelCaches[slot]->exchange(published));
  }
  waitForReaders();
}

const LevelCache* cacheForLevel(int level) {
  const int index = levelIndex(level);
  return index < 0 ? nullptr : kLevelCaches[std::size_t(index)]->load();
}

// The stack position of the function that logs, recorded by the first
// logging entry point it calls (checkCondition, logWithLoggers, ...), so that
// every way of logging from one function gives the file logger the same
// position however many helper frames lie in between.
thread_local std::uintptr_t tLogSiteMarker = 0;

class LogSiteScope {
 public:
  explicit LogSiteScope(const void* frame) : _owner(tLogSiteMarker == 0) {
    if (_owner) tLogSiteMarker = reinterpret_cast<std::uintptr_t>(frame);
  }
  ~LogSiteScope() {
    if (_owner) tLogSiteMarker = 0;
  }
  LogSiteScope(const LogSiteScope&) = delete;
  LogSiteScope& operator=(const LogSiteScope&) = delete;

 private:
  bool _owner;
};

// ---------------------------------------------------------------------------
// Time of a record, in the system time zone, with 0.0005 s added so that the
// printed milliseconds round rather than truncate.

struct LogTime {
  int year, month, day, hour, minute;
  double seconds;
};

LogTime logTimeNow() {
  const Date now = Date::now();
  const double local =
      now.timeIntervalSince1970() + TimeZone::systemTimeZone()->secondsFromGMT(now);
  const double whole = std::floor(local);
  const auto wholeSeconds = static_cast<std::time_t>(whole);
  std::tm fields{};
  gmtime_r(&wholeSeconds, &fields);  // the local wall clock, read as if it were GMT
  return LogTime{fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                 fields.tm_min, fields.tm_sec + (local - whole) + 0.0005};
}

std::string fileURLWithPath(const std::string& path) { return "file://" + path; }

// ---------------------------------------------------------------------------
// Log files.

struct OpenedLogFile {
  std::FILE* stream;
  std::string path;
};

// Finds or makes the log directory: `base` when it is a directory or can be
// made, else the first of "base-1", "base-2", ... that is not a plain file.
std::optional<std::string> logDirectory(const std::string& base) {
  namespace fs = std::filesystem;
  std::error_code ec;
  std::string path = base;
  for (int counter = 1; fs::exists(path, ec) && !fs::is_directory(path, ec); ++counter)
    path = fmt::format("{}-{}", base, counter);
  if (!fs::exists(path, ec)) {
    fs::path sofar;
    for (const auto& component : fs::path(path)) {
      sofar /= component;
      if (fs::create_directory(sofar, ec)) consoleLog(fmt::format("Creating {}", sofar.string()));
    }
  }
  if (!fs::is_directory(path, ec)) {
    consoleLog(fmt::format("**************** Unable to get log directory {}", path));
    return std::nullopt;
  }
  return path;
}

// Opens a new "<program>-YYYY-MM-DD--HH-MM-SS.<extension>" file in the log
// directory of `base`, truncating any file of that name.
std::optional<OpenedLogFile> openLogFile(const std::string& base, const char* extension) {
  const LogTime time = logTimeNow();
  auto directory = logDirectory(base);
  if (!directory) return std::nullopt;
  const std::string path =
      fmt::format("{}/{}-{:04d}-{:02d}-{:02d}--{:02d}-{:02d}-{:02d}.{}", *directory, programName(),
                  time.year, time.month, time.day, time.hour, time.minute,
                  static_cast<int>(time.seconds), extension);
  std::FILE* stream = std::fopen(path.c_str(), "w+");
  if (!stream) {
    consoleLog(fmt::format("Can't open {} for writing", path));
    return std::nullopt;
  }
  return OpenedLogFile{stream, path};
}

// ---------------------------------------------------------------------------
// The file logger's per-thread call stack.

std::shared_ptr<QVTFrame> frameOf(const Value& value) { return value.objectAs<QVTFrame>(); }

// Records a log call from `function` at stack position `marker` and answers
// the number of logging functions now nested on this thread.
int updateCallStack(std::uintptr_t marker, const char* function) {
  Dictionary& threadDico = currentThreadDictionary();
  std::optional<Array> callStack = threadDico.get(kStackKey).asArray();
  if (!callStack) {
    callStack = Array();
    threadDico.set(kStackKey, *callStack);
  }
  std::vector<Value>& frames = callStack->mutableValues();
  // Only this function writes the stack; anything else found there is dropped.
  if (!std::all_of(frames.begin(), frames.end(), [](const Value& v) { return frameOf(v) != nullptr; }))
    frames.clear();
  auto entry = std::make_shared<QVTFrame>(marker, function);

  if (frames.empty() || marker < frameOf(frames.back())->frame()) {
    frames.emplace_back(entry);
    return static_cast<int>(frames.size());
  }
  // The deepest entry at or above the new position.
  std::size_t i = frames.size();
  while (i > 0 && frameOf(frames[i - 1])->frame() < marker) --i;
  if (i == 0) {
    frames.clear();
    frames.emplace_back(entry);
  } else {
    const std::size_t top = i - 1;
    auto existing = frameOf(frames[top]);
    if (existing->isEqualToFrame(*entry)) {
      frames.resize(top + 1);
    } else if (marker < existing->frame()) {
      if (!(top + 1 < frames.size())) assertionFailure("i+1 < depth", __func__, __LINE__);
      frames.resize(top + 1);
      frames.emplace_back(entry);
    } else {
      frames.resize(top);
      frames.emplace_back(entry);
    }
  }
  return static_cast<int>(frames.size());
}

bool isMainThread() { return gettid() == getpid(); }

// ---------------------------------------------------------------------------
// Start-up registration.

std::mutex& startupLock() {
  static auto* lock = new std::mutex;
  return *lock;
}

std::vector<Registration>& startupRegistrations() {
  static auto* registrations = new std::vector<Registration>;
  return *registrations;
}

std::function<void()>& exceptionSubstitutionHook() {
  static auto* hook = new std::function<void()>;
  return *hook;
}

// The emitting pattern, for the start-up messages, which carry fixed lines.
template <class... Args>
void logStartup(unsigned line, fmt::format_string<Args...> format, Args&&... args) {
  if (!AYHasLogForLevel(kLogImportant)) return;
  if (auto loggers = QVTAYLogger::loggersForType(QVTLOG, kLogImportant))
    QVTAYLogger::logWithLoggers(*loggers, nullptr, "QVTRegisterLogs", line, QVTLOG, kLogImportant,
                                format, std::forward<Args>(args)...);
}

}  // namespace

// ---------------------------------------------------------------------------

const char* AYLevelName(int level) {
  switch (level) {
    case kLogError: return "ERROR";
    case kLogWarning: return "WARNING";
    case kLogImportant: return "IMPORTANT";
    case kLogInfo: return "INFO";
    default: return "???";
  }
}

ConsoleLogSink setConsoleLogSink(ConsoleLogSink sink) {
  std::lock_guard guard(consoleLock());
  return std::exchange(consoleSink(), std::move(sink));
}

void consoleLog(const std::string& text) {
  ConsoleLogSink sink;
  {
    std::lock_guard guard(consoleLock());
    sink = consoleSink();
  }
  if (sink) {
    sink(text);
  } else {
    const std::string line = fmt::format("{}[{}]: {}\n", programName(), getpid(), text);
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
}

std::function<void()> setExceptionSubstitutionHook(std::function<void()> hook) {
  std::lock_guard guard(startupLock());
  return std::exchange(exceptionSubstitutionHook(), std::move(hook));
}

bool AYHasLogForLevel(int level) {
  ReadSection reading;
  const LevelCache* cache = cacheForLevel(level);
  return cache != nullptr && !cache->empty();
}

std::string ROOTLogDomain() { return ""; }

std::string phcFormatLogDomain(std::string_view prefix, std::string_view name) {
  std::string domain(prefix);
  domain += name;
  return domain;
}

std::string phcSimplifyFileName(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (auto slash = path.rfind('/'); slash != std::string_view::npos && path.size() > 1)
    path.remove_prefix(slash + 1);
  if (auto dot = path.rfind('.'); dot != std::string_view::npos && dot > 0)
    path = path.substr(0, dot);
  constexpr std::string_view kPrefix = "QVTSync";
  if (auto found = path.find(kPrefix); found != std::string_view::npos)
    path.remove_prefix(found + kPrefix.size());
  return std::string(path);
}

namespace detail {

std::unique_ptr<QVTAYLoggerList> loggersForTypeLevel(const std::string& domain, int level) {
  return QVTAYLogger::loggersForType(domain, level);
}

void logWithLoggers(const QVTAYLoggerList& loggers, const char* file, const char* function,
                    unsigned line, const std::string& domain, int level,
                    const std::string& message) {
  logAtSite(loggers, LogSite{file, function, line, level, domain}, message);
}

void logAtSite(const QVTAYLoggerList& loggers, const LogSite& site, const std::string& message) {
  LogSiteScope scope(__builtin_frame_address(0));
  for (const auto& logger : loggers)
    logger->dumpLogInFile(site.file, site.function, site.line, site.domain, site.level, message);
}

void vlogAtSite(const QVTAYLoggerList* loggers, const LogSite& site, fmt::string_view format,
                fmt::format_args args) {
  LogSiteScope scope(__builtin_frame_address(0));
  std::unique_ptr<QVTAYLoggerList> found;
  if (!loggers) {
    // Copied out of the cache first: a logger may itself log.
    found = QVTAYLogger::loggersForType(site.domain, site.level);
    loggers = found.get();
  }
  if (!loggers || loggers->empty()) return;
  logAtSite(*loggers, site, vformatLogMessage(format, args));
}

std::string vformatLogMessage(fmt::string_view format, fmt::format_args args) {
  try {
    return fmt::vformat(format, args);
  } catch (const std::exception&) {
    consoleLog(fmt::format("initWithFormat: returned nil for format string '{}'!!!!",
                           std::string_view(format.data(), format.size())));
    return kUndisplayableMessage;
  }
}

bool checkCondition(bool ok, const char* text, const char* function, unsigned line) {
  if (!ok && AYHasLogForLevel(kLogError)) {
    LogSiteScope site(__builtin_frame_address(0));
    if (auto loggers = QVTAYLogger::loggersForType(QVTLOG, kLogError))
      QVTAYLogger::logWithLoggers(*loggers, nullptr, function, line, QVTLOG, kLogError,
                                  "condition \"{}\" failed", text);
  }
  return ok;
}

}  // namespace detail

// ---------------------------------------------------------------------------
// Registry.

void QVTAYLogger::addLogger(QVTAYLoggerPtr logger, const std::optional<std::string>& type,
                            int mask) {
  Registry& reg = registry();
  std::lock_guard guard(reg._ay_loggerLock);
  reg._ay_loggerArray.push_back(Registration{type, mask, std::move(logger)});
  _recalculateCacheWithMask(reg, mask);
}

void QVTAYLogger::removeLogger(const QVTAYLoggerPtr& logger,
                               const std::optional<std::string>& type, int mask) {
  Registry& reg = registry();
  std::lock_guard guard(reg._ay_loggerLock);
  auto& list = reg._ay_loggerArray;
  auto found = std::find_if(list.begin(), list.end(), [&](const Registration& r) {
    return r.type == type && r.mask == mask && r.logger == logger;
  });
  if (found != list.end()) list.erase(found);
  _recalculateCacheWithMask(reg, mask);
}

std::unique_ptr<QVTAYLoggerList> QVTAYLogger::loggersForType(const std::string& type, int level) {
  ReadSection reading;
  const LevelCache* cache = cacheForLevel(level);
  if (!cache) return nullptr;
  std::unique_ptr<QVTAYLoggerList> result;
  cache->forEachLogger(type, [&](const QVTAYLoggerPtr& logger) {
    if (!result) result = std::make_unique<QVTAYLoggerList>();
    result->push_back(logger);
  });
  return result;
}

void QVTAYLogger::vlogWithLoggers(const QVTAYLoggerList& loggers, const char* file,
                                  const char* function, unsigned line, const std::string& type,
                                  int level, fmt::string_view format, fmt::format_args args) {
  detail::vlogAtSite(&loggers, detail::LogSite{file, function, line, level, type}, format, args);
}

void QVTAYLogger::vlogInFile(const char* file, const char* function, unsigned line,
                             const std::string& type, int level, fmt::string_view format,
                             fmt::format_args args) {
  detail::vlogAtSite(nullptr, detail::LogSite{file, function, line, level, type}, format, args);
}

QVTAYLoggerPtr QVTAYLogger::stderrStreamLogger() {
  Registry& reg = registry();
  std::lock_guard guard(reg._ay_loggerLock);
  if (!reg._ay_stderrLogger) reg._ay_stderrLogger = std::make_shared<QVT_AYStderrLogger>();
  return reg._ay_stderrLogger;
}

QVTAYLoggerPtr QVTAYLogger::fileStreamLogger() {
  Registry& reg = registry();
  std::lock_guard guard(reg._ay_loggerLock);
  if (!reg._ay_fileLogger) reg._ay_fileLogger = QVT_AYFileLogger::init();
  return reg._ay_fileLogger;
}

std::optional<URL> QVTAYLogger::urlToFileStreamLogger() {
  Registry& reg = registry();
  std::lock_guard guard(reg._ay_loggerLock);
  return reg._ay_fileLogger ? reg._ay_fileLogger->urlToFile() : std::nullopt;
}

// ---------------------------------------------------------------------------
// Loggers.

QVT_AYStreamLogger::QVT_AYStreamLogger(std::FILE* logFile, std::optional<URL> urlToFile)
    : _logFile(logFile), _urlToFile(std::move(urlToFile)) {}

QVT_AYStreamLogger::~QVT_AYStreamLogger() {
  if (_logFile && _logFile != stderr) std::fclose(_logFile);
}

QVTAYLoggerPtr QVT_AYStderrLogger::initWithBaseDir(const std::string& baseDir) {
  auto opened = openLogFile(baseDir, "log");
  if (!opened) return std::make_shared<QVT_AYNoLogger>();
  return std::make_shared<QVT_AYStderrLogger>(opened->stream, URL(fileURLWithPath(opened->path)));
}

void QVT_AYStderrLogger::dumpLogInFile(const char*, const char*, unsigned,
                                       const std::string& type, int level,
                                       const std::string& message) {
  const LogTime time = logTimeNow();
  std::string record = fmt::format("{:02d}:{:02d}:{:06.3f} [{}:{}] {} ({}): ", time.hour,
                                   time.minute, time.seconds, programName(), getpid(),
                                   AYLevelName(level), type);
  // Further lines start with blanks and a ':' under the header's ": ".
  std::string continuation(utf16Length(record), ' ');
  continuation[continuation.size() - 2] = ':';

  std::string_view rest = message;
  for (bool first = true;; first = false) {
    const auto newline = rest.find('\n');
    if (!first) record += continuation;
    record += rest.substr(0, newline);
    record += '\n';
    if (newline == std::string_view::npos) break;
    rest.remove_prefix(newline + 1);
  }
  if (!isValidUTF8(record)) record = std::string(kUndisplayableMessage) + "\n";
  std::fwrite(record.data(), 1, record.size(), logFile());
}

QVTAYLoggerPtr QVT_AYFileLogger::init() {
  return initWithBaseDir(expandTildeInPath(fmt::format("~/Library/Logs/{}", programName())));
}

QVTAYLoggerPtr QVT_AYFileLogger::initWithBaseDir(const std::string& baseDir) {
  auto opened = openLogFile(baseDir, "decalog");
  if (!opened) return std::make_shared<QVT_AYNoLogger>();
  auto logger = std::make_shared<QVT_AYFileLogger>(opened->stream, URL(fileURLWithPath(opened->path)));
  // The first record's text is fixed: it does not reflect the registered masks.
  logger->dumpLogInFile(nullptr, nullptr, 199, "LOG", kLogInfo,
                        "Logging INFOS: YES / WARNINGS: YES / IMPORTANTS: YES / ERRORS: YES");
  return logger;
}

void QVT_AYFileLogger::dumpLogInFile(const char* file, const char* function, unsigned line,
                                     const std::string& type, int level,
                                     const std::string& message) {
  // The logging function's stack position: the frame of the first logging
  // entry point it called, or this frame when it called this directly. Both
  // lie the same fixed distance below the logging function's frame.
  const std::uintptr_t marker = tLogSiteMarker
      ? tLogSiteMarker
      : reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  const int depth = function ? updateCallStack(marker, function) : 0;
  const LogTime time = logTimeNow();

  std::string text = message;
  if (!isValidUTF8(text)) {
    consoleLog("Log system was unable to convert some string to UTF8 string encoding!");
    text = fromUTF16(toUTF16(text));
  }

  std::string record = fmt::format("TIME: {:02d}:{:02d}:{:06.3f}\n", time.hour, time.minute,
                                   time.seconds);
  if (isMainThread())
    record += "THREAD: MAIN\n";
  else
    record += fmt::format("THREAD: {}\n", fmt::ptr(reinterpret_cast<void*>(pthread_self())));
  record += fmt::format("TYPE: {}\nLEVEL: {}\nLINE: {}\n", type, AYLevelName(level), line);
  if (file) record += fmt::format("FILE: {}\n", file);
  if (function) record += fmt::format("FUNCTION: {}\n", function);
  if (depth > 0) record += fmt::format("DEPTH: {}\n", depth);
  // The length counts one byte more than the message, as readers of these
  // files expect.
  record += fmt::format("LENGTH: {}\n\n{}\n\n", text.size() + 1, text);
  if (!isValidUTF8(record)) record = "LENGTH: 31\n\n**** Undisplayable message ****\n\n";

  std::fwrite(record.data(), 1, record.size(), logFile());
  std::fflush(logFile());
}

std::optional<URL> QVT_AYNoLogger::urlToFile() const {
  return URL(fileURLWithPath(expandTildeInPath("~/")));
}

std::string QVTFrame::description() const {
  return fmt::format("{}:{}", _name, fmt::ptr(reinterpret_cast<const void*>(_frame)));
}

// ---------------------------------------------------------------------------

void QVTRegisterLogsUnlessRegistered() {
  {
    std::unique_lock guard(startupLock());
    if (!startupRegistrations().empty()) return;
  }
  QVTRegisterLogs();
}

void QVTRegisterLogs() {
  std::unique_lock guard(startupLock());
  auto& made = startupRegistrations();
  for (const auto& registration : made)
    QVTAYLogger::removeLogger(registration.logger, registration.type, registration.mask);
  made.clear();
  auto add = [&](QVTAYLoggerPtr logger, std::optional<std::string> type, int mask) {
    QVTAYLogger::addLogger(logger, type, mask);
    made.push_back(Registration{std::move(type), mask, std::move(logger)});
  };

  Preferences& preferences = Preferences::standardPreferences();
  int mask = kLogError;
  if (preferences.boolForKey("LogWarnings")) mask |= kLogWarning;
  if (preferences.boolForKey("LogImportants")) mask |= kLogImportant;
  add(QVTAYLogger::stderrStreamLogger(), std::nullopt, mask);

  if (auto additions = preferences.arrayForKey("LogAdditions")) {
    for (const Value& entry : *additions) {
      const std::string* type = entry.asString();
      if (!type) {
        consoleLog(fmt::format("LogAdditions: ignored {} (not a log type)", entry.description()));
        continue;
      }
      logStartup(67, "Additional INFO log for {}", *type);
      add(QVTAYLogger::stderrStreamLogger(), *type, kLogInfo);
    }
  }
  if (preferences.boolForKey("LogInFile"))
    add(QVTAYLogger::fileStreamLogger(), std::nullopt, kLogError | kLogWarning | kLogImportant | kLogInfo);
  if (preferences.boolForKey("LogsExceptions")) {
    logStartup(87, "Exceptions are logged: QVTFriendlyException replaces the exception class");
    // Run outside the lock: the hook may itself log or set hooks.
    std::function<void()> hook = exceptionSubstitutionHook();
    guard.unlock();
    if (hook) hook();
  }
}

}  // namespace pc
