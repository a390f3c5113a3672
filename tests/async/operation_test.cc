#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "async/QVTAYOperation.h"
#include "async/QVTCFStreamErrorSupport.h"
#include "platform/Exception.h"
#include "async/AYLogger.h"

namespace pc {
namespace {

using namespace std::chrono_literals;

// An operation whose "run" method calls its body.
class TestOperation : public QVTAYOperation {
 public:
  std::string className() const override { return "TestOperation"; }
  bool isRunLoopBased() const override { return runLoopBased; }
  void operationWillAbort() override { ++willAbort; }
  void finalizeOperation() override { ++finalized; }
  void handleNotificationOfChildOperation(QVTAYOperation&, const Notification& n) override {
    std::lock_guard guard(lock);
    childNotices.push_back(n.name());
  }

  std::function<void(TestOperation&)> body;
  bool runLoopBased = false;
  std::atomic<int> runs{0}, willAbort{0}, finalized{0};
  std::mutex lock;
  std::vector<std::string> childNotices;
};

void registerTestOperation() {
  ClassRegistry::registerClass("TestOperation", "QVTAYOperation", nullptr);
  MethodTable::registerMethod("TestOperation", "run", "", [](Object& self, std::vector<Value>&) {
    auto& operation = static_cast<TestOperation&>(self);
    ++operation.runs;
    if (operation.body) operation.body(operation);
    return Value();
  });
}
PC_REGISTRATION(registerTestOperation());

std::shared_ptr<TestOperation> makeOperation(std::function<void(TestOperation&)> body = nullptr) {
  auto operation = std::make_shared<TestOperation>();
  operation->body = std::move(body);
  return operation;
}

// Runs this thread's loop (where end notices arrive) until `done` holds, or
// fails after a generous deadline.
[[nodiscard]] bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 60s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    RunLoop::currentRunLoop()->runInMode(QVTAYOperation::operationRunLoopMode(), 0.01);
  }
  return true;
}

// A gate the bodies wait at until the test opens it.
class Gate {
 public:
  void wait() {
    std::unique_lock guard(_lock);
    _opened.wait(guard, [&] { return _open; });
  }
  void open() {
    std::lock_guard guard(_lock);
    _open = true;
    _opened.notify_all();
  }

 private:
  std::mutex _lock;
  std::condition_variable _opened;
  bool _open = false;
};

// Counts the end notices of each operation posted on this thread.
class EndCounter {
 public:
  EndCounter() {
    _token = NotificationCenter::defaultCenter().addObserver(
        [this](const Notification& n) { ++_ends[n.object().get()]; },
        QVTAYOperationEndedNotification);
  }
  ~EndCounter() { NotificationCenter::defaultCenter().removeObserver(_token); }
  int ends(const QVTAYOperation& operation) const {
    auto found = _ends.find(&operation);
    return found == _ends.end() ? 0 : found->second;
  }

 private:
  NotificationCenter::Token _token;
  std::map<const Object*, int> _ends;  // only touched on the test's thread
};

class Group : public AYGroup {
 public:
  bool operationShouldBeLaunchedNow(QVTAYOperation&) override { return open; }
  void operationHasEnded(QVTAYOperation&) override { ++ended; }
  std::atomic<bool> open{false};
  std::atomic<int> ended{0};
};

TEST(Operation, SixteenOperationsRunOnAtMostFifteenWorkers) {
  EndCounter counter;
  Gate gate;
  std::vector<std::shared_ptr<TestOperation>> operations;
  for (int i = 0; i < 16; ++i) operations.push_back(makeOperation([&](TestOperation&) { gate.wait(); }));
  for (auto& operation : operations) operation->async()->send("run");

  auto started = [&] {
    int n = 0;
    for (auto& operation : operations) n += operation->runs;
    return n;
  };
  ASSERT_TRUE(runUntil([&] { return started() == 15; }));
  EXPECT_EQ(QVTAYOperation::currentThreadCount(), QVTAYOperation::maxThreadCount());
  EXPECT_EQ(operations.back()->currentMark(), kQVTAYMarkQueued);
  EXPECT_EQ(started(), 15);
  gate.open();
  ASSERT_TRUE(runUntil([&] {
    for (auto& operation : operations)
      if (counter.ends(*operation) != 1) return false;
    return true;
  }));
  for (auto& operation : operations) {
    EXPECT_EQ(operation->runs, 1);
    EXPECT_EQ(operation->finalized, 1);
    EXPECT_EQ(operation->error(), nullptr);
  }
}

TEST(Operation, GroupsRefuseBlockUnblockAndEndPendingOperations) {
  EndCounter counter;
  auto group = std::make_shared<Group>();
  auto refused = makeOperation();
  auto refusal = Error::errorWithDomain("Test", 7);
  auto blocked = makeOperation();
  auto cancelled = makeOperation();
  for (auto& operation : {refused, blocked, cancelled}) {
    operation->setOperationGroup(group);
    auto proxy = operation->async();  // starting drops any earlier error
    if (operation == refused) refused->setError(refusal);
    proxy->send("run");
  }
  ASSERT_TRUE(runUntil([&] { return counter.ends(*refused) == 1; }));
  EXPECT_EQ(refused->runs, 0);
  EXPECT_EQ(refused->error(), refusal);
  ASSERT_TRUE(runUntil([&] {
    return blocked->currentMark() == kQVTAYMarkBlocked && cancelled->currentMark() == kQVTAYMarkBlocked;
  }));

  auto cancelError = Error::errorWithDomain("Test", 8);
  // Only the operations of this group are touched.
  QVTAYOperation::endAllPendingOperationsOfGroup(nullptr, cancelError);
  EXPECT_FALSE(cancelled->hasOperationEnded());
  QVTAYOperation::popOperation(*blocked);  // taken out, pushed again below
  QVTAYOperation::endAllPendingOperationsOfGroup(group.get(), cancelError);
  ASSERT_TRUE(runUntil([&] { return counter.ends(*cancelled) == 1; }));
  EXPECT_EQ(cancelled->error(), cancelError);
  EXPECT_EQ(cancelled->runs, 0);

  blocked->async()->send("run");
  ASSERT_TRUE(runUntil([&] { return blocked->currentMark() == kQVTAYMarkBlocked; }));
  EXPECT_EQ(blocked->runs, 0);
  group->open = true;
  QVTAYOperation::unblockAllOperationsForGroup(group.get());
  ASSERT_TRUE(runUntil([&] { return counter.ends(*blocked) == 1; }));
  EXPECT_EQ(blocked->runs, 1);
  EXPECT_EQ(blocked->error(), nullptr);
  EXPECT_EQ(group->ended, 1);  // only the one that ran
}

TEST(Operation, AbortingQueuedRunningAndChildOperations) {
  EndCounter counter;
  // Queued (held back by its group): ends at once, without error, once.
  auto group = std::make_shared<Group>();
  auto queued = makeOperation();
  queued->setOperationGroup(group);
  queued->async()->send("run");
  ASSERT_TRUE(runUntil([&] { return queued->currentMark() == kQVTAYMarkBlocked; }));
  queued->abortOperation();
  queued->abortOperation();
  ASSERT_TRUE(runUntil([&] { return counter.ends(*queued) == 1; }));
  EXPECT_EQ(queued->error(), nullptr);
  EXPECT_FALSE(QVTAYOperation::popOperation(*queued));

  // Running, run-loop based: the abort event reaches its thread.
  std::atomic<bool> running{false};
  auto loopOperation = makeOperation([&](TestOperation& self) {
    running = true;
    self.runOperationWithTimeOut(0);
  });
  loopOperation->runLoopBased = true;
  loopOperation->async()->send("run");
  ASSERT_TRUE(runUntil([&] { return running.load(); }));
  loopOperation->abortOperation();
  ASSERT_TRUE(runUntil([&] { return counter.ends(*loopOperation) == 1; }));
  ASSERT_NE(loopOperation->error(), nullptr);
  EXPECT_EQ(loopOperation->error()->domain(), "AYErrorDomain");
  EXPECT_EQ(loopOperation->error()->code(), 1);
  EXPECT_EQ(loopOperation->willAbort, 1);
  EXPECT_EQ(loopOperation->finalized, 0);

  // A running child: the abort goes down to it; the parent goes on, sees
  // the child's error and ends itself. The abort waits while the child
  // cannot abort, and the hook builds the error.
  QVTAYVeryPrivateAbortErrorConstructor = [](const ErrorPtr& error) {
    return Error::errorWithDomain("Hooked", error ? error->code() : 0);
  };
  auto child = makeOperation([](TestOperation& self) {
    self.setCanAbortNow(false);
    while (!self.isAborting())
      RunLoop::currentRunLoop()->runInMode(QVTAYOperation::operationRunLoopMode(), 0.01, true);
    EXPECT_FALSE(self.hasOperationEnded());
    self.setError(Error::errorWithDomain("Child", 42));
    self.setCanAbortNow(true);
    EXPECT_TRUE(self.hasOperationEnded());
    EXPECT_TRUE(self.runOperationWithTimeOut(0));
  });
  child->runLoopBased = true;
  ErrorPtr seenByParent;
  auto parent = makeOperation([&](TestOperation& self) {
    child->syncFor(&self)->send("run");
    seenByParent = child->error();
    EXPECT_EQ(QVTAYOperation::currentOperation().get(), &self);
  });
  parent->async()->send("run");
  ASSERT_TRUE(runUntil([&] { return parent->currentChildOperation() == child.get(); }));
  parent->abortOperation();
  ASSERT_TRUE(runUntil([&] { return counter.ends(*parent) == 1; }));
  QVTAYVeryPrivateAbortErrorConstructor = nullptr;
  ASSERT_NE(seenByParent, nullptr);
  EXPECT_EQ(seenByParent->domain(), "Hooked");
  EXPECT_EQ(seenByParent->code(), 42);
  EXPECT_EQ(counter.ends(*child), 0);  // a child's end goes to its parent
  EXPECT_EQ(parent->error(), nullptr);
  EXPECT_EQ(parent->willAbort, 0);
}

TEST(Operation, RunLoopTimeOutMeasuresInactivity) {
  EndCounter counter;
  // Sources every 0.3 s keep an operation with a 1 s time-out alive.
  auto busy = makeOperation([](TestOperation& self) {
    int fired = 0;
    auto timer = RunLoopTimer::timerWithInterval(300ms, true, [&](RunLoopTimer& t) {
      if (++fired == 8) {
        t.invalidate();
        self.endOperationWithError(nullptr);
      }
    });
    RunLoop::currentRunLoop()->addTimer(timer);
    self.runOperationWithTimeOut(1);
  });
  busy->runLoopBased = true;
  // Nothing happens: times out after at least a second.
  auto idle = makeOperation([](TestOperation& self) { self.runOperationWithTimeOut(1); });
  idle->runLoopBased = true;
  const auto start = std::chrono::steady_clock::now();
  busy->async()->send("run");
  idle->async()->send("run");
  ASSERT_TRUE(runUntil([&] { return counter.ends(*busy) == 1 && counter.ends(*idle) == 1; }));
  EXPECT_EQ(busy->error(), nullptr);
  ASSERT_NE(idle->error(), nullptr);
  EXPECT_EQ(idle->error()->code(), 2);
  EXPECT_EQ(idle->error()->localizedDescription(), "Async Operation timed out");
  EXPECT_EQ(idle->error()->userInfo().get(AYTimeOutLengthKey), Value(1.0));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);

  // Only run-loop based operations may run their loop.
  auto plain = makeOperation();
  EXPECT_THROW(plain->runOperationWithTimeOut(1), Exception);
}

TEST(Operation, WaitingForTheEndOnlyOnTheBaseThread) {
  auto operation = makeOperation([](TestOperation&) { std::this_thread::sleep_for(10ms); });
  operation->async()->send("run");
  std::string raised;
  std::thread([&] {
    try {
      operation->waitForOperationToEnd();
    } catch (const Exception& e) {
      raised = e.name() + ": " + e.reason();
    }
  }).join();
  EXPECT_EQ(raised, "AYBadOperationName: waitForOperationToEnd called in wrong thread");
  operation->waitForOperationToEnd();
  EXPECT_TRUE(operation->hasOperationEnded());
  operation->waitForOperationToEnd();  // already ended and delivered: returns

  auto quick = makeOperation();
  quick->async()->send("run");
  while (!quick->hasOperationEnded()) std::this_thread::yield();
  quick->waitForOperationToEnd();  // ended, notice not yet delivered
  EXPECT_EQ(quick->runs, 1);
}

class Delegate : public AYNotificationDelegate {
 public:
  void operation(QVTAYOperation&, const Notification& n) override {
    std::lock_guard guard(lock);
    names.push_back(n.name() + (n.userInfo().contains(AYMarkTagKey)
                                    ? " " + n.userInfo().get(AYMarkTagKey).description()
                                    : ""));
  }
  std::mutex lock;
  std::vector<std::string> names;
};

// Keeps the errors logged in the operations' domain, from any thread.
class ErrorLog : public QVTAYLogger {
 public:
  ErrorLog() { addLogger(_self, "QVTAYOPERATION", kLogError); }
  ~ErrorLog() override { stop(); }
  void stop() { removeLogger(_self, "QVTAYOPERATION", kLogError); }
  std::string className() const override { return "ErrorLog"; }
  void dumpLogInFile(const char*, const char*, unsigned, const std::string&, int,
                     const std::string& message) override {
    std::lock_guard guard(_lock);
    _messages.push_back(message);
  }
  std::optional<URL> urlToFile() const override { return std::nullopt; }
  std::vector<std::string> messages() {
    std::lock_guard guard(_lock);
    return _messages;
  }

 private:
  std::mutex _lock;
  std::vector<std::string> _messages;
  // Registered through a non-owning pointer: the test owns the log.
  std::shared_ptr<QVTAYLogger> _self{std::shared_ptr<QVTAYLogger>(), this};
};

TEST(Operation, NoticesGoToParentDelegateOrBaseThread) {
  ErrorLog log;
  // To observers on the base thread.
  std::vector<std::string> observed;
  auto token = NotificationCenter::defaultCenter().addObserver(
      [&](const Notification& n) { observed.push_back(n.name()); }, QVTAYMarkNotification);
  auto marking = makeOperation([](TestOperation& self) {
    self.markWithTag(5);
    self.markWithTag(6, false);
  });
  marking->async()->send("run");
  marking->waitForOperationToEnd();
  NotificationCenter::defaultCenter().removeObserver(token);
  EXPECT_THAT(observed, ::testing::ElementsAre(QVTAYMarkNotification));
  EXPECT_EQ(marking->currentMark(), 6);

  // To a delegate, which also gets the end; a silent one only the end.
  Delegate delegate;
  auto delegated = makeOperation([](TestOperation& self) { self.markWithTag(3); });
  delegated->setNotificationDelegate(&delegate);
  auto silent = makeOperation([](TestOperation& self) { self.markWithTag(4); });
  silent->setNotificationDelegate(&delegate);
  silent->setSilent(true);
  delegated->async()->send("run");
  ASSERT_TRUE(runUntil([&] { return delegated->hasOperationEnded(); }));
  silent->async()->send("run");
  ASSERT_TRUE(runUntil([&] {
    std::lock_guard guard(delegate.lock);
    return delegate.names.size() == 3;
  }));
  EXPECT_THAT(delegate.names, ::testing::ElementsAre("QVTAYMarkNotification 3",
                                                     QVTAYOperationEndedNotification,
                                                     QVTAYOperationEndedNotification));

  // From a child to its parent; a child's end is not sent. An exception of
  // the platform's kind is logged and the operation ends normally.
  auto child = makeOperation([](TestOperation& self) {
    self.markWithTag(9);
    self.endOperationWithError(nullptr);
  });
  auto parent = makeOperation([&](TestOperation& self) {
    child->syncFor(&self)->send("run");
    EXPECT_EQ(child->mainOperation(), &self);
    raiseException(kInvalidArgumentException, "bad input");
  });
  parent->async()->send("run");
  parent->waitForOperationToEnd();
  EXPECT_THAT(parent->childNotices, ::testing::ElementsAre(QVTAYMarkNotification));
  EXPECT_TRUE(child->hasOperationEnded());
  EXPECT_EQ(parent->finalized, 1);
  log.stop();
  const auto errors = log.messages();
  EXPECT_TRUE(std::any_of(errors.begin(), errors.end(), [](const std::string& message) {
    return message.find("raised exception") != std::string::npos &&
           message.find("bad input") != std::string::npos;
  }));

  // Messages the operation does not answer are refused at the proxy.
  EXPECT_THROW(makeOperation()->async()->send("fly"), Exception);
  EXPECT_THROW(makeOperation()->async()->send("run", {Value(1)}), Exception);
}

// A companion object answering postOperationForOperation:.
class Companion : public Object {
 public:
  std::string className() const override { return "TestCompanion"; }
  std::atomic<int> calls{0};
};
void registerCompanion() {
  MethodTable::registerMethod("TestCompanion", "postOperationForOperation:", "@",
                              [](Object& self, std::vector<Value>&) {
                                ++static_cast<Companion&>(self).calls;
                                return Value();
                              });
}
PC_REGISTRATION(registerCompanion());

// Thousands of short operations with random groups and aborts: each ends
// once, and each end is notified once.
TEST(Operation, StressEveryOperationEndsOnce) {
  EndCounter counter;
  std::mt19937 random(20261122);
  auto group = std::make_shared<Group>();
  group->open = true;
  auto refusing = std::make_shared<Group>();
  constexpr int kCount = 3000;
  std::vector<std::shared_ptr<TestOperation>> operations;
  std::vector<std::shared_ptr<Companion>> companions;
  for (int i = 0; i < kCount; ++i) {
    auto operation = makeOperation();
    auto companion = std::make_shared<Companion>();
    operation->setOperationCompanion(std::make_shared<QVTAYSimpleOperationCompanion>(companion));
    auto proxy = operation->async();
    switch (random() % 4) {
      case 0: operation->setOperationGroup(group); break;
      case 1:
        operation->setOperationGroup(refusing);
        operation->setError(Error::errorWithDomain("Refused", i));
        break;
      default: break;
    }
    proxy->send("run");
    if (random() % 5 == 0) operation->abortOperation();
    operations.push_back(operation);
    companions.push_back(companion);
  }
  ASSERT_TRUE(runUntil([&] {
    for (auto& operation : operations)
      if (counter.ends(*operation) == 0) return false;
    return true;
  }, 120s));
  // Late duplicates would arrive now.
  RunLoop::currentRunLoop()->runInMode(QVTAYOperation::operationRunLoopMode(), 0.2);
  for (int i = 0; i < kCount; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(counter.ends(*operations[std::size_t(i)]), 1);
    EXPECT_LE(operations[std::size_t(i)]->runs, 1);
    EXPECT_LE(companions[std::size_t(i)]->calls, 1);
    EXPECT_LE(operations[std::size_t(i)]->finalized, 1);
  }
}

TEST(StreamErrors, MapDomainNumbersToNamedDomainsKeepingTheCode) {
  using namespace QVTCFStreamErrorSupport;
  const std::pair<long, std::string> table[] = {
      {2, kOSStatusErrorDomain}, {QVTkAYStreamErrorDomainIOKit, kAYIOKitErrorDomain}, {-3, "Error domain -3"}};
  for (const auto& [domain, name] : table) {
    ErrorPtr error = QVTerrorForCFStreamError({domain, -9806});
    EXPECT_EQ(error->domain(), name);
    EXPECT_EQ(error->code(), -9806);
  }
  struct Stream : ReadStream {
    StreamError streamError() const override { return {1, 61}; }
  };
  EXPECT_EQ(QVTbetterStreamError(Stream())->description(),
            "Error Domain=POSIXErrorDomain Code=61 \"The operation couldn't be completed. "
            "(POSIXErrorDomain error 61.)\"");
}

}  // namespace
}  // namespace pc
