#include "platform/Notification.h"

#include <algorithm>
#include <thread>

namespace pc {

std::string Notification::description() const { return "Notification " + _name; }

struct NotificationCenter::Entry {
  Token token;
  Observer observer;
  std::string name;
  const Object* sender;
  // Held while the observer runs, so that removal waits for a call in
  // progress on another thread.
  std::recursive_mutex running;
  bool removed = false;
};

NotificationCenter& NotificationCenter::defaultCenter() {
  static auto* center = new NotificationCenter;
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(Observer observer, const std::string& name,
                                                          const Object* sender) {
  auto entry = std::make_shared<Entry>();
  entry->observer = std::move(observer);
  entry->name = name;
  entry->sender = sender;
  std::lock_guard guard(_lock);
  entry->token = _nextToken++;
  _entries.push_back(entry);
  return entry->token;
}

void NotificationCenter::removeObserver(Token token) {
  std::shared_ptr<Entry> entry;
  {
    std::lock_guard guard(_lock);
    auto found = std::find_if(_entries.begin(), _entries.end(),
                              [&](const auto& e) { return e->token == token; });
    if (found == _entries.end()) return;
    entry = *found;
    _entries.erase(found);
  }
  std::lock_guard running(entry->running);
  entry->removed = true;
}

void NotificationCenter::postNotification(const Notification& notification) {
  std::vector<std::shared_ptr<Entry>> matching;
  {
    std::lock_guard guard(_lock);
    for (const auto& entry : _entries)
      if ((entry->name.empty() || entry->name == notification.name()) &&
          (!entry->sender || entry->sender == notification.object().get()))
        matching.push_back(entry);
  }
  for (const auto& entry : matching) {
    std::lock_guard running(entry->running);
    if (!entry->removed) entry->observer(notification);
  }
}

}  // namespace pc
