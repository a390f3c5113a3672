#pragma once
// The one exception hierarchy. Every exception carries a name, a reason and a
// user-info dictionary, and every raise goes through one process-wide factory,
// so that a subsystem can put its own exception class in place (for example
// one that records where it was created).

#include <exception>
#include <functional>
#include <memory>
#include <string>

namespace pc {

class Dictionary;

inline constexpr const char* kInvalidArgumentException = "invalid-argument";
inline constexpr const char* kInternalInconsistencyException = "internal-inconsistency";
inline constexpr const char* kNotImplementedInSubClass = "NotImplementedInSubClass";
inline constexpr const char* kRangeException = "range";
inline constexpr const char* kUndefinedKeyException = "undefined-key";
inline constexpr const char* kParseErrorException = "parse-error";

class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason);
  Exception(std::string name, std::string reason, const Dictionary& userInfo);
  Exception(const Exception&);
  Exception& operator=(const Exception&);
  ~Exception() override;

  const std::string& name() const noexcept { return _name; }
  const std::string& reason() const noexcept { return _reason; }
  const Dictionary& userInfo() const noexcept { return *_userInfo; }
  const char* what() const noexcept override { return _reason.c_str(); }

  // "name: reason", what a log line prints for an exception.
  virtual std::string description() const;

  // Throws this exception as its most derived type.
  [[noreturn]] virtual void raise() const;

 private:
  std::string _name;
  std::string _reason;
  std::unique_ptr<Dictionary> _userInfo;
};

using ExceptionFactory =
    std::function<std::unique_ptr<Exception>(const std::string& name, const std::string& reason,
                                              const Dictionary& userInfo)>;

// Replaces the factory for the whole process; an empty function restores the
// default (plain Exception). Answers the previous factory.
ExceptionFactory setExceptionFactory(ExceptionFactory factory);

// Builds an exception through the current factory and throws it.
[[noreturn]] void raiseException(const std::string& name, const std::string& reason);
[[noreturn]] void raiseException(const std::string& name, const std::string& reason,
                                 const Dictionary& userInfo);

}  // namespace pc
