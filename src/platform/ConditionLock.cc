#include "platform/ConditionLock.h"

namespace pc {

void ConditionLock::lock() {
  std::unique_lock guard(_mutex);
  _changed.wait(guard, [&] { return !_locked; });
  _locked = true;
}

bool ConditionLock::tryLock() {
  std::lock_guard guard(_mutex);
  if (_locked) return false;
  _locked = true;
  return true;
}

void ConditionLock::unlock() { unlockWithCondition(_condition); }

void ConditionLock::unlockWithCondition(int condition) {
  {
    std::lock_guard guard(_mutex);
    _condition = condition;
    _locked = false;
  }
  // Waiters wait for different conditions: wake them all.
  _changed.notify_all();
}

void ConditionLock::lockWhenCondition(int condition) {
  std::unique_lock guard(_mutex);
  _changed.wait(guard, [&] { return !_locked && _condition == condition; });
  _locked = true;
}

bool ConditionLock::lockWhenCondition(int condition,
                                      std::chrono::steady_clock::time_point deadline) {
  std::unique_lock guard(_mutex);
  if (!_changed.wait_until(guard, deadline,
                           [&] { return !_locked && _condition == condition; }))
    return false;
  _locked = true;
  return true;
}

}  // namespace pc
