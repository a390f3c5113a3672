#pragma once
// An error object: a domain, a code and a user-info dictionary. Its text
// comes from the user info's description entry when there is one.

#include <memory>
#include <string>

#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

// The user-info key of an error's readable description.
inline constexpr const char* kErrorDescriptionKey = "ErrorDescription";
// The error domains of the system's calls: POSIX errno values and status
// codes of the platform's services.
inline constexpr const char* kPOSIXErrorDomain = "POSIXErrorDomain";
inline constexpr const char* kOSStatusErrorDomain = "OSStatusErrorDomain";

class Error : public Object {
 public:
  Error(std::string domain, long code, Dictionary userInfo = Dictionary())
      : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}
  static std::shared_ptr<Error> errorWithDomain(std::string domain, long code,
                                                Dictionary userInfo = Dictionary()) {
    return std::make_shared<Error>(std::move(domain), code, std::move(userInfo));
  }

  std::string className() const override { return "Error"; }
  const std::string& domain() const { return _domain; }
  long code() const { return _code; }
  const Dictionary& userInfo() const { return _userInfo; }
  // The description entry of the user info, else "The operation couldn't be
  // completed. (<domain> error <code>.)".
  std::string localizedDescription() const;
  // "Error Domain=<domain> Code=<code> \"<localized description>\"".
  std::string description() const override;
  // Same domain and code.
  bool isEqual(const Object& other) const override;
  std::size_t hash() const override;

 private:
  std::string _domain;
  long _code;
  Dictionary _userInfo;
};

using ErrorPtr = std::shared_ptr<Error>;

}  // namespace pc
