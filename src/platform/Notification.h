#pragma once
// Notifications: a name, the object that sends it and a user-info
// dictionary, posted to the observers registered for that name (and that
// sender, or any sender) on the posting thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Object.h"
#include "platform/Value.h"

namespace pc {

class Notification : public Object {
 public:
  Notification(std::string name, ObjectPtr object, Dictionary userInfo = Dictionary())
      : _name(std::move(name)), _object(std::move(object)), _userInfo(std::move(userInfo)) {}
  std::string className() const override { return "Notification"; }
  const std::string& name() const { return _name; }
  const ObjectPtr& object() const { return _object; }
  const Dictionary& userInfo() const { return _userInfo; }
  // "Notification <name>".
  std::string description() const override;

 private:
  std::string _name;
  ObjectPtr _object;
  Dictionary _userInfo;
};

class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  using Token = std::uint64_t;

  static NotificationCenter& defaultCenter();

  // Observes `name` ("" for every name) from `sender` (null for any sender;
  // compared by identity, not kept alive).
  Token addObserver(Observer observer, const std::string& name, const Object* sender = nullptr);
  // Once it returns, the observer is not called again, unless it is the
  // caller (an observer may remove itself while it runs).
  void removeObserver(Token token);
  // Calls the matching observers in registration order on this thread.
  void postNotification(const Notification& notification);

 private:
  struct Entry;
  std::mutex _lock;
  std::vector<std::shared_ptr<Entry>> _entries;
  Token _nextToken = 1;
};

}  // namespace pc
