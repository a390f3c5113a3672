#pragma once
// Threads and their run loops.
//
// Every thread has one run loop, made on first use. A run loop runs in a
// named mode and handles what is queued for that mode: calls performed on it
// from any thread, and timers. A call or timer added for `kRunLoopCommonModes`
// runs in every mode the loop counts as common (the default mode and those
// added with addCommonMode). Runs nest: a handler may run the loop again,
// and stop() ends the innermost run.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace pc {

class RunLoop;

inline constexpr const char* kRunLoopDefaultMode = "RunLoopDefaultMode";
inline constexpr const char* kRunLoopCommonModes = "RunLoopCommonModes";

// A thread as other threads see it: its identity and its run loop.
class Thread {
 public:
  // The calling thread, made on first use and kept while the thread lives.
  static std::shared_ptr<Thread> currentThread();
  // True on the process's first thread.
  static bool isMainThread();

  std::thread::id threadId() const { return _id; }
  bool isCurrent() const { return _id == std::this_thread::get_id(); }
  const std::shared_ptr<RunLoop>& runLoop() const { return _runLoop; }

  explicit Thread(std::thread::id id);

 private:
  std::thread::id _id;
  std::shared_ptr<RunLoop> _runLoop;
};

// A call repeated (or made once) at a time; added to a run loop, which keeps
// it until it is invalidated or, when not repeating, has fired.
class RunLoopTimer {
 public:
  using Clock = std::chrono::steady_clock;
  RunLoopTimer(Clock::time_point fireDate, Clock::duration interval,
               std::function<void(RunLoopTimer&)> callback);
  static std::shared_ptr<RunLoopTimer> timerWithInterval(Clock::duration interval, bool repeats,
                                                         std::function<void(RunLoopTimer&)> callback);

  void invalidate();
  bool isValid() const;
  Clock::time_point fireDate() const;

 private:
  friend class RunLoop;
  mutable std::mutex _lock;
  Clock::time_point _fireDate;
  Clock::duration _interval;  // zero: fires once; never negative
  std::function<void(RunLoopTimer&)> _callback;
  bool _valid = true;
};

enum class RunLoopResult {
  Stopped,        // stop() was called
  TimedOut,       // the time ran out
  HandledSource,  // a call or timer was handled and the run was to return after one
};

class RunLoop : public std::enable_shared_from_this<RunLoop> {
 public:
  using Clock = std::chrono::steady_clock;

  // The calling thread's run loop.
  static std::shared_ptr<RunLoop> currentRunLoop();

  explicit RunLoop(std::thread::id thread) : _thread(thread) {}
  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;

  // Counts `mode` among the common modes: what is queued for the common
  // modes then runs in it too.
  void addCommonMode(const std::string& mode);
  bool isCommonMode(const std::string& mode) const;
  bool isCurrent() const { return _thread == std::this_thread::get_id(); }

  // Runs in `mode` until `seconds` have passed, stop() is called, or (when
  // asked) one call or timer has been handled. Only on the loop's thread.
  // Zero seconds handles what is due now and returns. Once the time is up,
  // only the calls queued before the run began are still handled: a call
  // that queues another, or a timer that is always due, cannot keep it going.
  RunLoopResult runInMode(const std::string& mode, double seconds,
                          bool returnAfterSourceHandled = false);
  // Makes the innermost current run return; when none runs, the next run
  // returns at once. Any thread.
  void stop();
  // The mode of the innermost current run; "" when not running.
  std::string currentMode() const;

  // Queues `call` for `mode`; any thread. `owner` tags it for cancel().
  void perform(std::function<void()> call, const std::string& mode = kRunLoopCommonModes,
               const void* owner = nullptr);
  // Drops the queued calls tagged with `owner` that have not started.
  void cancel(const void* owner);

  void addTimer(std::shared_ptr<RunLoopTimer> timer, const std::string& mode = kRunLoopCommonModes);

 private:
  struct Call {
    std::function<void()> call;
    std::string mode;
    const void* owner;
    std::uint64_t sequence;  // order of queueing, for the end of a run
  };
  struct TimerEntry {
    std::shared_ptr<RunLoopTimer> timer;
    std::string mode;
  };

  bool appliesTo(const std::string& queuedMode, const std::string& runMode) const;
  // Takes the first call queued for `mode` before `sequence`; false when
  // there is none. Lock held.
  bool takeCall(const std::string& mode, std::uint64_t sequence, std::function<void()>& call);
  // The first due timer for `mode`, and the earliest fire date of the others.
  std::shared_ptr<RunLoopTimer> takeDueTimer(const std::string& mode, Clock::time_point now,
                                             Clock::time_point& nextFire);

  const std::thread::id _thread;
  mutable std::mutex _lock;
  std::condition_variable _wake;
  std::set<std::string> _commonModes;
  std::deque<Call> _calls;
  std::vector<TimerEntry> _timers;
  std::vector<std::string> _runningModes;  // one per nested run
  bool _stopRequested = false;
  std::uint64_t _nextSequence = 0;
};

// Performs calls on one run loop (in the common modes), from any thread, and
// can drop those it queued that have not run yet.
class RunLoopPerformer {
 public:
  // Dropping a performer leaves what it queued in place: use cancelPerforms.
  explicit RunLoopPerformer(std::shared_ptr<RunLoop> loop) : _loop(std::move(loop)) {}
  RunLoopPerformer(const RunLoopPerformer&) = delete;
  RunLoopPerformer& operator=(const RunLoopPerformer&) = delete;

  static std::shared_ptr<RunLoopPerformer> inLoop(std::shared_ptr<RunLoop> loop) {
    return std::make_shared<RunLoopPerformer>(std::move(loop));
  }
  const std::shared_ptr<RunLoop>& runLoop() const { return _loop; }
  // Queues `call` for the loop's thread (also when called there).
  void perform(std::function<void()> call) { _loop->perform(std::move(call), kRunLoopCommonModes, this); }
  void cancelPerforms() { _loop->cancel(this); }

 private:
  std::shared_ptr<RunLoop> _loop;
};

}  // namespace pc
