#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/ConditionLock.h"
#include "platform/Notification.h"
#include "platform/RunLoop.h"

namespace pc {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;

// A run loop on its own thread, running `mode` in short turns until told to
// finish; the test thread posts to it.
class LoopThread {
 public:
  explicit LoopThread(std::string mode) {
    std::promise<std::shared_ptr<RunLoop>> made;
    _thread = std::thread([this, mode, &made] {
      auto loop = RunLoop::currentRunLoop();
      loop->addCommonMode("Custom");
      made.set_value(loop);
      while (!_finish) loop->runInMode(mode, 0.05);
    });
    _loop = made.get_future().get();
  }
  ~LoopThread() {
    _finish = true;
    _thread.join();
  }
  std::shared_ptr<RunLoop> loop() const { return _loop; }

 private:
  std::shared_ptr<RunLoop> _loop;
  std::atomic<bool> _finish{false};
  std::thread _thread;
};

// Waits (generously) for a condition another thread makes true.
bool eventually(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

TEST(RunLoop, CallsRunInTheirModeOrInCommonModes) {
  auto loop = RunLoop::currentRunLoop();
  loop->addCommonMode("Custom");
  std::vector<std::string> ran;
  loop->perform([&] { ran.push_back("common"); });
  loop->perform([&] { ran.push_back("other"); }, "Other");
  loop->perform([&] { ran.push_back("custom"); }, "Custom");
  EXPECT_EQ(loop->runInMode("Custom", 0), RunLoopResult::TimedOut);
  EXPECT_THAT(ran, ElementsAre("common", "custom"));
  EXPECT_EQ(loop->runInMode("Other", 0, true), RunLoopResult::HandledSource);
  EXPECT_THAT(ran, ElementsAre("common", "custom", "other"));

  // Nested runs: stop ends the innermost, the mode is that of the inner run.
  loop->perform([&] {
    loop->perform([&] {
      ran.push_back(loop->currentMode());
      loop->stop();
    });
    ran.push_back(loop->runInMode("Custom", 30) == RunLoopResult::Stopped ? "inner stopped" : "?");
  });
  EXPECT_EQ(loop->runInMode(kRunLoopDefaultMode, 0.2), RunLoopResult::TimedOut);
  EXPECT_THAT(ran, ElementsAre("common", "custom", "other", "Custom", "inner stopped"));
  EXPECT_EQ(loop->currentMode(), "");
  // A stop while not running ends the next run at once.
  loop->stop();
  EXPECT_EQ(loop->runInMode(kRunLoopDefaultMode, 30), RunLoopResult::Stopped);
}

TEST(RunLoop, OtherThreadsPerformStopAndCancel) {
  LoopThread worker("Custom");
  std::atomic<int> calls{0};
  std::thread::id ranOn;
  auto performer = RunLoopPerformer::inLoop(worker.loop());
  performer->perform([&] {
    ranOn = std::this_thread::get_id();
    ++calls;
  });
  ASSERT_TRUE(eventually([&] { return calls == 1; }));
  EXPECT_NE(ranOn, std::this_thread::get_id());

  // A run waiting for a long time is woken by a stop from another thread.
  std::atomic<bool> entering{false}, stopped{false};
  performer->perform([&] {
    entering = true;  // a stop from now on ends the run below
    stopped = RunLoop::currentRunLoop()->runInMode("Custom", 1e6) == RunLoopResult::Stopped;
  });
  ASSERT_TRUE(eventually([&] { return entering.load(); }));
  worker.loop()->stop();
  ASSERT_TRUE(eventually([&] { return stopped.load(); }));

  // Cancelling drops only this performer's calls that have not run.
  auto other = RunLoopPerformer::inLoop(worker.loop());
  std::atomic<bool> release{false};
  performer->perform([&] {
    while (!release) std::this_thread::yield();
  });
  performer->perform([&] { calls += 100; });
  other->perform([&] { calls += 1000; });
  performer->cancelPerforms();
  release = true;
  ASSERT_TRUE(eventually([&] { return calls == 1001; }));
}

TEST(RunLoop, TimersRepeatUntilInvalidated) {
  auto loop = RunLoop::currentRunLoop();
  int fired = 0, once = 0;
  loop->addTimer(RunLoopTimer::timerWithInterval(5ms, true, [&](RunLoopTimer& timer) {
    if (++fired == 3) {
      timer.invalidate();
      loop->stop();
    }
  }));
  auto single = RunLoopTimer::timerWithInterval(1ms, false, [&](RunLoopTimer&) { ++once; });
  loop->addTimer(single, "Elsewhere");
  EXPECT_EQ(loop->runInMode(kRunLoopDefaultMode, 60), RunLoopResult::Stopped);
  EXPECT_EQ(fired, 3);
  EXPECT_EQ(once, 0);  // not in this mode
  EXPECT_EQ(loop->runInMode("Elsewhere", 60, true), RunLoopResult::HandledSource);
  EXPECT_EQ(once, 1);
  EXPECT_FALSE(single->isValid());
}

// Sources that are always ready must not keep a run past its time. Each
// source stops the loop after many turns, so that a run which ignores its
// deadline ends as Stopped instead of hanging the suite.
TEST(RunLoop, DeadlineHoldsWhileSourcesAreAlwaysReady) {
  auto loop = RunLoop::currentRunLoop();

  int turns = 0;
  std::function<void()> again = [&] {
    if (++turns == 1000) return loop->stop();
    loop->perform(again, "Busy");
  };
  loop->perform(again, "Busy");
  loop->perform([&] { turns += 100; }, "Busy");  // queued before the run: still handled
  EXPECT_EQ(loop->runInMode("Busy", 0), RunLoopResult::TimedOut);
  EXPECT_EQ(turns, 101);
  loop->cancel(nullptr);  // the call queued by the last turn

  int fired = 0;
  auto slow = RunLoopTimer::timerWithInterval(1ms, true, [&](RunLoopTimer&) {
    std::this_thread::sleep_for(3ms);
    if (++fired == 1000) loop->stop();
  });
  loop->addTimer(slow, "Slow");
  EXPECT_EQ(loop->runInMode("Slow", 0.02), RunLoopResult::TimedOut);
  EXPECT_LT(fired, 1000);
  slow->invalidate();

  // A negative repeating interval repeats at a small positive one.
  int negative = 0;
  auto backwards = RunLoopTimer::timerWithInterval(-5ms, true, [&](RunLoopTimer&) {
    if (++negative == 1000000) loop->stop();
  });
  loop->addTimer(backwards, "Backwards");
  EXPECT_EQ(loop->runInMode("Backwards", 0.02), RunLoopResult::TimedOut);
  EXPECT_GT(negative, 0);
  EXPECT_LT(negative, 1000000);
  EXPECT_TRUE(backwards->isValid());
  backwards->invalidate();
}

TEST(ConditionLock, WaitsForItsConditionOrItsDeadline) {
  ConditionLock lock(0);
  EXPECT_FALSE(lock.lockWhenCondition(1, std::chrono::steady_clock::now() + 10ms));
  std::atomic<bool> got{false};
  std::thread waiter([&] {
    lock.lockWhenCondition(1);
    got = true;
    lock.unlockWithCondition(2);
  });
  lock.lock();
  lock.unlockWithCondition(1);
  EXPECT_TRUE(lock.lockWhenCondition(2, std::chrono::steady_clock::now() + 60s));
  EXPECT_TRUE(got);
  EXPECT_EQ(lock.condition(), 2);
  lock.unlock();
  waiter.join();
}

class Sender : public Object {
 public:
  std::string className() const override { return "Sender"; }
};

TEST(NotificationCenter, DeliversByNameAndSenderUntilRemoved) {
  auto& center = NotificationCenter::defaultCenter();
  auto a = std::make_shared<Sender>(), b = std::make_shared<Sender>();
  std::vector<std::string> seen;
  auto any = center.addObserver([&](const Notification& n) { seen.push_back("any " + n.name()); }, "");
  auto fromA = center.addObserver([&](const Notification& n) { seen.push_back("a " + n.name()); },
                                  "Ping", a.get());
  center.postNotification(Notification("Ping", a));
  center.postNotification(Notification("Ping", b));
  center.postNotification(Notification("Pong", a, Dictionary{{"k", 1}}));
  center.removeObserver(fromA);
  center.postNotification(Notification("Ping", a));
  center.removeObserver(any);
  center.postNotification(Notification("Ping", a));
  EXPECT_THAT(seen, ElementsAre("any Ping", "a Ping", "any Ping", "any Pong", "any Ping"));

  // An observer may remove itself while it runs.
  int calls = 0;
  NotificationCenter::Token self = 0;
  self = center.addObserver([&](const Notification&) {
    ++calls;
    center.removeObserver(self);
  }, "Once");
  center.postNotification(Notification("Once", nullptr));
  center.postNotification(Notification("Once", nullptr));
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace pc
