#include "platform/Exception.h"

#include <mutex>

#include "platform/Value.h"

namespace pc {

Exception::Exception(std::string name, std::string reason)
    : Exception(std::move(name), std::move(reason), Dictionary()) {}

Exception::Exception(std::string name, std::string reason, const Dictionary& userInfo)
    : _name(std::move(name)), _reason(std::move(reason)), _userInfo(std::make_unique<Dictionary>(userInfo)) {}

Exception::Exception(const Exception& other)
    : std::exception(other),
      _name(other._name),
      _reason(other._reason),
      _userInfo(std::make_unique<Dictionary>(*other._userInfo)) {}

Exception& Exception::operator=(const Exception& other) {
  if (this != &other) {
    _name = other._name;
    _reason = other._reason;
    _userInfo = std::make_unique<Dictionary>(*other._userInfo);
  }
  return *this;
}

Exception::~Exception() = default;

std::string Exception::description() const { return _name + ": " + _reason; }

void Exception::raise() const { throw *this; }

namespace {

std::mutex& factoryLock() {
  static std::mutex lock;
  return lock;
}

ExceptionFactory& currentFactory() {
  static ExceptionFactory factory;
  return factory;
}

}  // namespace

ExceptionFactory setExceptionFactory(ExceptionFactory factory) {
  std::lock_guard guard(factoryLock());
  return std::exchange(currentFactory(), std::move(factory));
}

void raiseException(const std::string& name, const std::string& reason) {
  raiseException(name, reason, Dictionary());
}

void raiseException(const std::string& name, const std::string& reason, const Dictionary& userInfo) {
  ExceptionFactory factory;
  {
    std::lock_guard guard(factoryLock());
    factory = currentFactory();
  }
  std::unique_ptr<Exception> exception;
  if (factory) exception = factory(name, reason, userInfo);
  if (!exception) throw Exception(name, reason, userInfo);
  exception->raise();
  // Only reached when a replacement class's raise() returns instead of throwing.
  throw Exception(name, reason, userInfo);
}

}  // namespace pc
