#pragma once
// Debugging aids: an exception class that records where it was created and
// logs every raise with both stacks, a deliberate crash, hexadecimal dumps of
// byte buffers, and small text forms of booleans and four-character codes.

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Exception.h"
#include "platform/Value.h"

namespace pc {

// The user-info key of the stack captured when a friendly exception is made.
inline constexpr const char* kQVTFriendlyExceptionStackTraceKey = "QVTFriendlyException Stack Trace";
// The per-thread key that keeps a stack capture from re-entering itself.
inline constexpr const char* kQVTFriendlyExceptionGateKey = "QVTFriendlyException gate";
// Exception names raised too often, and harmlessly, to be worth a stack: an
// accessibility query, a cancelled sync and a dead inter-process port.
inline constexpr const char* kAccessibilityException = "AccessibilityException";
inline constexpr const char* kSyncEngineCancelledException = "SyncEngineCancelledException";
inline constexpr const char* kInvalidSendPortException = "InvalidSendPortException";

class QVTFriendlyException : public Exception {
 public:
  // Copies the user info, captures the current stack under
  // kQVTFriendlyExceptionStackTraceKey (except for accessibility exceptions).
  QVTFriendlyException(std::string name, std::string reason, const Dictionary& userInfo = Dictionary());

  // The stack captured at creation ("" when none was).
  std::string creationStack() const;
  // "<reason>\nWhere it all went wrong:\n<creation stack>" when a stack is
  // stored, else the plain reason.
  std::string friendlyReason() const;
  std::string description() const override { return friendlyReason(); }
  const char* what() const noexcept override { return _what.c_str(); }

  // Logs the raise (RAISE when raised where it was made, RE-RAISE with both
  // stacks otherwise) at level 2 in "QVT", then throws.
  [[noreturn]] void raise() const override;

  // The current thread's stack, one "    <symbol line>\n" per frame, without
  // the frames of the exception classes, up to main.
  static std::string symbolsForCurrentThreadStack();
  static std::string stackTrace() { return symbolsForCurrentThreadStack(); }

  // Makes every exception raised through the factory a friendly one, for
  // the whole process; only the first call does anything.
  static void install();

 private:
  static Dictionary withStack(const std::string& name, const Dictionary& userInfo);
  // The current stack, unless this thread is already capturing one (a
  // capture that raises must not capture again): then "".
  static std::string _generateStackTrace();
  std::string _what;
};

// Logs the stack, says so on standard error and stops the process with a
// memory fault.
[[noreturn]] void QVTCrash();

// Each byte as "0x%02x " (five characters per byte).
std::string hexDump(const void* bytes, std::size_t length);
std::string dataDump(const Data& buffer);
// "(empty)", or a newline then lines of 16 bytes: the offset, the bytes in
// hexadecimal in two groups of eight, and the bytes as characters between
// bars (controls, blanks and bytes above 126 as ".").
std::string qvtHexDump(const void* bytes, std::size_t length);
std::string QVTPrettyBytes(const void* bytes, std::size_t length);
std::string hexNiceDump(const Data& buffer);

// "YES" or "NO".
const char* stringOfBool(bool flag);
// The four bytes of a code, most significant first, as characters.
std::string fourCharCodeString(std::uint32_t code);

}  // namespace pc
