#include "async/Diagnostics.h"

#include <cxxabi.h>
#include <elfutils/libdwfl.h>
#include <execinfo.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include <fmt/format.h>

#include "async/AYLogger.h"
#include "async/Log.h"
#include "platform/Registry.h"
#include "platform/ThreadDictionary.h"

namespace pc {

namespace {

// ---------------------------------------------------------------------------
// Stack symbols: return addresses from glibc's backtrace, names from the
// symbol tables of the loaded files (elfutils), demangled.

class Symbolizer {
 public:
  // One line per address, "0x...: function (in file)"; empty when no symbol
  // source could be opened.
  std::vector<std::string> symbolize(void* const* addresses, int count) {
    std::lock_guard guard(_lock);
    if (!_dwfl && !open()) return {};
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
      // A return address points after the call: look up the call itself.
      const auto address = reinterpret_cast<Dwarf_Addr>(addresses[i]) - (i > 0 ? 1 : 0);
      Dwfl_Module* module = dwfl_addrmodule(_dwfl, address);
      if (!module && reopen()) module = dwfl_addrmodule(_dwfl, address);
      const char* symbol = module ? dwfl_module_addrname(module, address) : nullptr;
      const char* file = module ? dwfl_module_info(module, nullptr, nullptr, nullptr, nullptr,
                                                   nullptr, nullptr, nullptr)
                                : nullptr;
      lines.push_back(fmt::format("{}: {} (in {})", addresses[i],
                                  symbol ? demangled(symbol) : std::string("???"),
                                  file ? std::filesystem::path(file).filename().string() : "???"));
    }
    return lines;
  }

 private:
  static std::string demangled(const char* symbol) {
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(symbol, nullptr, nullptr, &status), &std::free);
    return status == 0 && name ? std::string(name.get()) : std::string(symbol);
  }

  bool open() {
    _dwfl = dwfl_begin(&_callbacks);
    if (!_dwfl) return false;
    if (dwfl_linux_proc_report(_dwfl, getpid()) != 0 || dwfl_report_end(_dwfl, nullptr, nullptr) != 0) {
      dwfl_end(_dwfl);
      _dwfl = nullptr;
      return false;
    }
    return true;
  }
  // Files loaded since the last report.
  bool reopen() {
    dwfl_end(_dwfl);
    _dwfl = nullptr;
    return open();
  }

  std::mutex _lock;
  char* _debuginfoPath = nullptr;
  Dwfl_Callbacks _callbacks{dwfl_linux_proc_find_elf, dwfl_standard_find_debuginfo, nullptr,
                            &_debuginfoPath};
  Dwfl* _dwfl = nullptr;
};

Symbolizer& symbolizer() {
  static auto* instance = new Symbolizer;
  return *instance;
}

constexpr const char* kNoSymbols = "    <no symbol information available>";

// A listing without the addresses: a raise and a creation in one function
// stand at different addresses of it.
std::string withoutAddresses(const std::string& listing) {
  std::string text;
  std::size_t start = 0;
  while (start < listing.size()) {
    std::size_t end = listing.find('\n', start);
    if (end == std::string::npos) end = listing.size();
    std::string_view line(listing.data() + start, end - start);
    if (auto colon = line.find(": "); colon != std::string_view::npos) line.remove_prefix(colon + 2);
    text.append(line);
    text += '\n';
    start = end + 1;
  }
  return text;
}

}  // namespace

// ---------------------------------------------------------------------------
// Friendly exceptions.

std::string QVTFriendlyException::symbolsForCurrentThreadStack() {
  std::array<void*, 128> addresses{};
  const int count = backtrace(addresses.data(), int(addresses.size()));
  const std::vector<std::string> lines = symbolizer().symbolize(addresses.data(), count);
  if (lines.empty()) return kNoSymbols;
  std::string text;
  text.reserve(1024);
  bool top = true;
  for (const std::string& line : lines) {
    // A sanitizer's wrapper of backtrace may sit above this function.
    if (top && line.find("backtrace") != std::string::npos) continue;
    top = false;
    // The exception classes' own frames, and those of the factory that makes them.
    if (line.find("pc::Exception") != std::string::npos ||
        line.find("pc::QVTFriendlyException") != std::string::npos)
      continue;
    text += fmt::format("    {}\n", line);
    if (line.find(": main (in ") != std::string::npos || line.find(": start (in ") != std::string::npos)
      break;
  }
  return text;
}

std::string QVTFriendlyException::_generateStackTrace() {
  Dictionary& thread = currentThreadDictionary();
  if (thread.contains(kQVTFriendlyExceptionGateKey)) return {};
  thread.set(kQVTFriendlyExceptionGateKey, kQVTFriendlyExceptionGateKey);
  std::string stack;
  try {
    stack = symbolsForCurrentThreadStack();
  } catch (...) {
  }
  thread.remove(kQVTFriendlyExceptionGateKey);
  return stack;
}

Dictionary QVTFriendlyException::withStack(const std::string& name, const Dictionary& userInfo) {
  Dictionary info = Value(userInfo).copy().dictionary();
  info.set(kQVTFriendlyExceptionStackTraceKey,
           name == kAccessibilityException ? std::string() : _generateStackTrace());
  return info;
}

QVTFriendlyException::QVTFriendlyException(std::string name, std::string reason,
                                           const Dictionary& userInfo)
    : Exception(name, std::move(reason), withStack(name, userInfo)), _what(friendlyReason()) {}

std::string QVTFriendlyException::creationStack() const {
  return userInfo().getString(kQVTFriendlyExceptionStackTraceKey);
}

std::string QVTFriendlyException::friendlyReason() const {
  const std::string stack = creationStack();
  if (stack.empty()) return reason();
  return fmt::format("{}\nWhere it all went wrong:\n{}", reason(), stack);
}

void QVTFriendlyException::raise() const {
  const std::string& exceptionName = name();
  if (exceptionName != kAccessibilityException && exceptionName != kSyncEngineCancelledException &&
      exceptionName != kInvalidSendPortException) {
    const std::string current = symbolsForCurrentThreadStack();
    const std::string created = creationStack();
    const auto thread = fmt::ptr(reinterpret_cast<void*>(pthread_self()));
    if (withoutAddresses(current) == withoutAddresses(created))
      QVT_LOG(kLogWarning, QVTLOG, "[{}] ##### RAISE {}: {}\nWhere it all went wrong:\n{}", thread,
              exceptionName, reason(), current);
    else
      QVT_LOG(kLogWarning, QVTLOG,
              "[{}] ##### RE-RAISE {}: {}\nWhere it all went wrong:\n{}This exception was created here:\n{}",
              thread, exceptionName, reason(), current, created);
  }
  throw *this;
}

void QVTFriendlyException::install() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    setExceptionFactory([](const std::string& name, const std::string& reason,
                           const Dictionary& userInfo) -> std::unique_ptr<Exception> {
      return std::make_unique<QVTFriendlyException>(name, reason, userInfo);
    });
  });
}

// "LogsExceptions" puts the friendly exceptions in place.
PC_REGISTRATION(setExceptionSubstitutionHook(&QVTFriendlyException::install));

// ---------------------------------------------------------------------------

void QVTCrash() {
  QVT_LOG(kLogError, QVTLOG, "will crash application.  stack is:\n{}",
          QVTFriendlyException::symbolsForCurrentThreadStack());
  static const char kMessage[] = "we are going to crash now...\n";
  std::fwrite(kMessage, 1, sizeof kMessage - 1, stderr);
  std::fflush(stderr);
  // Read through a volatile so that the store is made, and faults.
  static volatile std::uintptr_t address = 0;
  *reinterpret_cast<volatile int*>(address) = 1973;
  std::abort();
}

// ---------------------------------------------------------------------------
// Dumps.

std::string hexDump(const void* bytes, std::size_t length) {
  const auto* p = static_cast<const std::uint8_t*>(bytes);
  std::string text;
  text.reserve(length * 5);
  for (std::size_t i = 0; i < length; ++i) text += fmt::format("0x{:02x} ", p[i]);
  return text;
}

std::string dataDump(const Data& buffer) { return hexDump(buffer.bytes().data(), buffer.length()); }

std::string qvtHexDump(const void* bytes, std::size_t length) {
  if (length == 0) return "(empty)";
  constexpr std::size_t kLineLength = 79;  // offset, bytes, bars, characters, newline
  constexpr std::size_t kBarColumn = 60;
  const auto* p = static_cast<const std::uint8_t*>(bytes);
  const std::size_t lines = (length + 15) / 16;
  std::string text;
  try {
    text.reserve(1 + lines * kLineLength);
  } catch (const std::exception&) {
    QVT_LOG(kLogError, QVTLOG, "Cannot allocate buffer");
    return {};
  }
  text += '\n';
  for (std::size_t offset = 0; offset < length; offset += 16) {
    const std::size_t start = text.size();
    const std::size_t n = std::min<std::size_t>(16, length - offset);
    text += fmt::format("{:08x}  ", offset);
    for (std::size_t i = 0; i < n; ++i) {
      text += fmt::format("{:02x} ", p[offset + i]);
      if (i == 7 || i == 15) text += ' ';
    }
    if (n < 16) text.append((16 - n) * 3 + 1 + (n < 8 ? 1 : 0), ' ');
    if (text.size() - start != kBarColumn) QVT_LOG(kLogError, QVTLOG, "bla");
    text += '|';
    for (std::size_t i = 0; i < n; ++i) {
      const std::uint8_t c = p[offset + i];
      text += (c < 33 || c >= 127) ? '.' : char(c);
    }
    text += "|\n";
    if (n == 16 && text.size() - start != kLineLength) QVT_LOG(kLogError, QVTLOG, "ou la");
  }
  if (text.size() > 1 + lines * kLineLength) QVT_LOG(kLogError, QVTLOG, "pas bon");
  return text;
}

std::string QVTPrettyBytes(const void* bytes, std::size_t length) { return qvtHexDump(bytes, length); }

std::string hexNiceDump(const Data& buffer) { return qvtHexDump(buffer.bytes().data(), buffer.length()); }

const char* stringOfBool(bool flag) { return flag ? "YES" : "NO"; }

std::string fourCharCodeString(std::uint32_t code) {
  return fmt::format("{:c}{:c}{:c}{:c}", char(code >> 24), char((code >> 16) & 0xff),
                     char((code >> 8) & 0xff), char(code & 0xff));
}

}  // namespace pc
