#include "async/QVTCFStreamErrorSupport.h"

#include <fmt/format.h>

namespace pc::QVTCFStreamErrorSupport {

ErrorPtr QVTerrorForCFStreamError(StreamError error) {
  std::string domain;
  switch (error.domain) {
    case kStreamErrorDomainPOSIX: domain = kPOSIXErrorDomain; break;
    case kStreamErrorDomainOSStatus: domain = kOSStatusErrorDomain; break;
    case kStreamErrorDomainNetDB: domain = kAYNetDBErrorDomain; break;
    case kStreamErrorDomainFTP: domain = kAYFTPErrorDomain; break;
    case QVTkAYStreamErrorDomainIOKit: domain = kAYIOKitErrorDomain; break;
    default: domain = fmt::format("Error domain {}", error.domain); break;
  }
  return Error::errorWithDomain(std::move(domain), error.error);
}

ErrorPtr QVTbetterStreamError(const ReadStream& stream) {
  return QVTerrorForCFStreamError(stream.streamError());
}

}  // namespace pc::QVTCFStreamErrorSupport
