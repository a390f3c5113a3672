#pragma once
// A lock with an integer condition: a thread can take it unconditionally or
// wait until the condition has a given value (with or without a deadline),
// and sets the condition when it unlocks.

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

namespace pc {

class ConditionLock {
 public:
  explicit ConditionLock(int condition = 0) : _condition(condition) {}
  ConditionLock(const ConditionLock&) = delete;
  ConditionLock& operator=(const ConditionLock&) = delete;

  void lock();
  bool tryLock();
  // Unlocks and leaves the condition as it is.
  void unlock();
  void unlockWithCondition(int condition);
  void lockWhenCondition(int condition);
  // False when the deadline passed first (the lock is then not held).
  bool lockWhenCondition(int condition, std::chrono::steady_clock::time_point deadline);
  // Meaningful while the lock is held.
  int condition() const { return _condition; }

 private:
  // Threads waiting for one condition value; an unlock wakes one of those
  // waiting for the new condition and one waiting for any, not all of them.
  struct Waiters {
    std::condition_variable ready;
    int count = 0;
  };
  Waiters& waitersFor(int condition);

  std::mutex _mutex;
  Waiters _anyCondition;
  std::map<int, std::unique_ptr<Waiters>> _byCondition;
  bool _locked = false;
  int _condition;
};

}  // namespace pc
