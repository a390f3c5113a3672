#pragma once
// Turns the errors of byte streams (a domain number and a code) into error
// objects with a named domain and the same code.

#include <cstdint>

#include "platform/Error.h"

namespace pc {

// A stream's error: what kind of code it is and the code.
struct StreamError {
  long domain = 0;  // 0: no error
  std::int32_t error = 0;
};

// Stream error domains.
inline constexpr long kStreamErrorDomainPOSIX = 1;
inline constexpr long kStreamErrorDomainOSStatus = 2;
inline constexpr long kStreamErrorDomainNetDB = 12;
inline constexpr long kStreamErrorDomainFTP = 13;
// Errors reported by device drivers (a phone on a cable).
inline constexpr long QVTkAYStreamErrorDomainIOKit = 0x494f4b74;  // 'IOKt'

inline constexpr const char* kAYNetDBErrorDomain = "AYNetDBErrorDomain";
inline constexpr const char* kAYFTPErrorDomain = "AYFTPErrorDomain";
inline constexpr const char* kAYIOKitErrorDomain = "AYIOKitErrorDomain";

// Something that reads bytes and remembers its last error.
class ReadStream {
 public:
  virtual ~ReadStream() = default;
  virtual StreamError streamError() const = 0;
};

namespace QVTCFStreamErrorSupport {

// The error object of a stream error: the POSIX domain, the OS-status
// domain, "AYNetDBErrorDomain", "AYFTPErrorDomain", the device-driver domain,
// or "Error domain <n>" for any other number.
ErrorPtr QVTerrorForCFStreamError(StreamError error);
// The same for a stream's last error.
ErrorPtr QVTbetterStreamError(const ReadStream& stream);

}  // namespace QVTCFStreamErrorSupport

}  // namespace pc
