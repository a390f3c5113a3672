#include "platform/ConditionLock.h"

namespace pc {

ConditionLock::Waiters& ConditionLock::waitersFor(int condition) {
  auto& waiters = _byCondition[condition];
  if (!waiters) waiters = std::make_unique<Waiters>();
  return *waiters;
}

void ConditionLock::lock() {
  std::unique_lock guard(_mutex);
  ++_anyCondition.count;
  _anyCondition.ready.wait(guard, [&] { return !_locked; });
  --_anyCondition.count;
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
  std::lock_guard guard(_mutex);
  _condition = condition;
  _locked = false;
  // A woken thread that finds the lock taken waits again; the taker wakes
  // the next one when it unlocks, so no wake-up is lost.
  if (_anyCondition.count > 0) _anyCondition.ready.notify_one();
  if (auto found = _byCondition.find(condition); found != _byCondition.end() && found->second->count > 0)
    found->second->ready.notify_one();
}

void ConditionLock::lockWhenCondition(int condition) {
  std::unique_lock guard(_mutex);
  Waiters& waiters = waitersFor(condition);
  ++waiters.count;
  waiters.ready.wait(guard, [&] { return !_locked && _condition == condition; });
  --waiters.count;
  _locked = true;
}

bool ConditionLock::lockWhenCondition(int condition,
                                      std::chrono::steady_clock::time_point deadline) {
  std::unique_lock guard(_mutex);
  Waiters& waiters = waitersFor(condition);
  ++waiters.count;
  const bool got = waiters.ready.wait_until(
      guard, deadline, [&] { return !_locked && _condition == condition; });
  --waiters.count;
  if (!got) {
    // The wake-up this thread may have taken goes to the next waiter.
    if (!_locked && _condition == condition && waiters.count > 0) waiters.ready.notify_one();
    return false;
  }
  _locked = true;
  return true;
}

}  // namespace pc
