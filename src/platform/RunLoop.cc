#include "platform/RunLoop.h"

#include <unistd.h>

#include <algorithm>
#include <limits>

namespace pc {

// ---------------------------------------------------------------------------
// Threads.

Thread::Thread(std::thread::id id) : _id(id), _runLoop(std::make_shared<RunLoop>(id)) {}

std::shared_ptr<Thread> Thread::currentThread() {
  thread_local std::shared_ptr<Thread> current = std::make_shared<Thread>(std::this_thread::get_id());
  return current;
}

bool Thread::isMainThread() { return gettid() == getpid(); }

// ---------------------------------------------------------------------------
// Timers.

namespace {
// What a repeating timer with no positive interval repeats at.
constexpr RunLoopTimer::Clock::duration kMinimumTimerInterval = std::chrono::microseconds(100);
}  // namespace

RunLoopTimer::RunLoopTimer(Clock::time_point fireDate, Clock::duration interval,
                           std::function<void(RunLoopTimer&)> callback)
    : _fireDate(fireDate),
      // A repeating timer needs a positive interval: a negative one would never
      // move its fire date forward.
      _interval(interval < Clock::duration::zero() ? kMinimumTimerInterval : interval),
      _callback(std::move(callback)) {}

std::shared_ptr<RunLoopTimer> RunLoopTimer::timerWithInterval(
    Clock::duration interval, bool repeats, std::function<void(RunLoopTimer&)> callback) {
  const Clock::duration wait = std::max(interval, Clock::duration::zero());
  Clock::duration repeat = Clock::duration::zero();
  if (repeats) repeat = interval > Clock::duration::zero() ? interval : kMinimumTimerInterval;
  return std::make_shared<RunLoopTimer>(Clock::now() + wait, repeat,
                                        std::move(callback));
}

void RunLoopTimer::invalidate() {
  std::lock_guard guard(_lock);
  _valid = false;
}

bool RunLoopTimer::isValid() const {
  std::lock_guard guard(_lock);
  return _valid;
}

RunLoopTimer::Clock::time_point RunLoopTimer::fireDate() const {
  std::lock_guard guard(_lock);
  return _fireDate;
}

// ---------------------------------------------------------------------------
// Run loops.

std::shared_ptr<RunLoop> RunLoop::currentRunLoop() { return Thread::currentThread()->runLoop(); }

void RunLoop::addCommonMode(const std::string& mode) {
  std::lock_guard guard(_lock);
  _commonModes.insert(mode);
}

bool RunLoop::isCommonMode(const std::string& mode) const {
  std::lock_guard guard(_lock);
  return mode == kRunLoopDefaultMode || _commonModes.count(mode) > 0;
}

bool RunLoop::appliesTo(const std::string& queuedMode, const std::string& runMode) const {
  if (queuedMode == runMode) return true;
  return queuedMode == kRunLoopCommonModes &&
         (runMode == kRunLoopDefaultMode || _commonModes.count(runMode) > 0);
}

void RunLoop::perform(std::function<void()> call, const std::string& mode, const void* owner) {
  {
    std::lock_guard guard(_lock);
    _calls.push_back(Call{std::move(call), mode, owner, _nextSequence++});
  }
  _wake.notify_all();
}

void RunLoop::cancel(const void* owner) {
  std::deque<Call> dropped;  // destroyed outside the lock: a call may own anything
  std::lock_guard guard(_lock);
  auto kept = std::stable_partition(_calls.begin(), _calls.end(),
                                    [&](const Call& c) { return c.owner != owner; });
  std::move(kept, _calls.end(), std::back_inserter(dropped));
  _calls.erase(kept, _calls.end());
}

void RunLoop::addTimer(std::shared_ptr<RunLoopTimer> timer, const std::string& mode) {
  {
    std::lock_guard guard(_lock);
    _timers.push_back(TimerEntry{std::move(timer), mode});
  }
  _wake.notify_all();
}

void RunLoop::stop() {
  {
    std::lock_guard guard(_lock);
    _stopRequested = true;
  }
  _wake.notify_all();
}

std::string RunLoop::currentMode() const {
  std::lock_guard guard(_lock);
  return _runningModes.empty() ? std::string() : _runningModes.back();
}

bool RunLoop::takeCall(const std::string& mode, std::uint64_t sequence,
                       std::function<void()>& call) {
  for (auto it = _calls.begin(); it != _calls.end(); ++it) {
    if (it->sequence >= sequence) break;  // queued in order
    if (!appliesTo(it->mode, mode)) continue;
    call = std::move(it->call);
    _calls.erase(it);
    return true;
  }
  return false;
}

std::shared_ptr<RunLoopTimer> RunLoop::takeDueTimer(const std::string& mode, Clock::time_point now,
                                                    Clock::time_point& nextFire) {
  nextFire = Clock::time_point::max();
  std::shared_ptr<RunLoopTimer> due;
  for (auto it = _timers.begin(); it != _timers.end();) {
    if (!it->timer->isValid()) {
      it = _timers.erase(it);
      continue;
    }
    if (appliesTo(it->mode, mode)) {
      const auto fire = it->timer->fireDate();
      if (!due && fire <= now) {
        due = it->timer;
      } else {
        nextFire = std::min(nextFire, fire);
      }
    }
    ++it;
  }
  return due;
}

RunLoopResult RunLoop::runInMode(const std::string& mode, double seconds,
                                 bool returnAfterSourceHandled) {
  const auto start = Clock::now();
  // Long runs (the engine waits in turns of 100000 s) must not overflow.
  const auto limit = std::chrono::duration<double>(std::clamp(seconds, 0.0, 1e9));
  const auto deadline = start + std::chrono::duration_cast<Clock::duration>(limit);

  std::unique_lock guard(_lock);
  _runningModes.push_back(mode);
  // Once the time is up, only calls queued before now still run.
  const std::uint64_t queuedAtStart = _nextSequence;
  // Leaves the run with the lock held, also when a call throws.
  struct Leave {
    RunLoop& loop;
    std::unique_lock<std::mutex>& guard;
    ~Leave() {
      if (!guard.owns_lock()) guard.lock();
      loop._runningModes.pop_back();
    }
  };
  RunLoopResult result = RunLoopResult::TimedOut;
  {
    Leave leave{*this, guard};
    for (;;) {
      if (_stopRequested) {
        _stopRequested = false;
        result = RunLoopResult::Stopped;
        break;
      }
      std::function<void()> call;
      Clock::time_point nextFire;
      std::shared_ptr<RunLoopTimer> timer;
      const bool timeIsUp = Clock::now() >= deadline;
      const std::uint64_t callsBefore =
          timeIsUp ? queuedAtStart : std::numeric_limits<std::uint64_t>::max();
      // Likewise only the timers due when the run began: each fires at most once more.
      if (!takeCall(mode, callsBefore, call))
        timer = takeDueTimer(mode, timeIsUp ? start : Clock::now(), nextFire);
      if (call || timer) {
        guard.unlock();
        if (call) {
          call();
          call = nullptr;  // whatever it captured goes before the lock is taken again
        } else {
          std::function<void(RunLoopTimer&)> callback;
          {
            std::lock_guard timerGuard(timer->_lock);
            if (timer->_interval == Clock::duration::zero()) {
              timer->_valid = false;
            } else {
              // Skips missed intervals rather than firing them all at once.
              const auto now = Clock::now();
              const auto interval = timer->_interval;
              if (timer->_fireDate <= now)
                timer->_fireDate += ((now - timer->_fireDate) / interval + 1) * interval;
              else
                timer->_fireDate += interval;
            }
            callback = timer->_callback;
          }
          callback(*timer);
        }
        guard.lock();
        if (returnAfterSourceHandled) {
          result = RunLoopResult::HandledSource;
          break;
        }
        continue;
      }
      if (timeIsUp) break;
      _wake.wait_until(guard, std::min(deadline, nextFire));
    }
  }
  return result;
}

}  // namespace pc
