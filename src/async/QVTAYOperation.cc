#include "async/QVTAYOperation.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <deque>
#include <thread>

#include <fmt/format.h>

#include "async/Log.h"
#include "platform/ConditionLock.h"
#include "platform/Exception.h"
#include "platform/ThreadDictionary.h"

namespace pc {

namespace {

constexpr const char* kOperationLog = "QVTAYOPERATION";
constexpr const char* kOperationRunLoopMode = "QVTAYOperationRunLoopMode";
constexpr const char* kAYEventDomain = "AYEventDomain";
constexpr double kLongTurn = 100000;

std::string describe(const ErrorPtr& error) { return error ? error->description() : "(null)"; }

const QVTAYEventPtr& _ay_abortEvent() {
  static const auto* event = new QVTAYEventPtr(QVTAYEvent::eventWithDomain(kAYEventDomain, -1));
  return *event;
}

// Every thread that runs or starts operations handles the operation mode
// with its common modes, so that calls performed on it for an operation run
// whichever of the two it runs.
void registerOperationModeOnThisThread() {
  thread_local bool registered = false;
  if (registered) return;
  registered = true;
  QVT_LOG(kLogInfo, kOperationLog, "Initing thread and registering {} as a common modes",
          kOperationRunLoopMode);
  RunLoop::currentRunLoop()->addCommonMode(kOperationRunLoopMode);
}

void setCurrentOperation(const QVTAYOperationPtr& operation) {
  if (operation)
    currentThreadDictionary().set(kQVTAYCurrentOperationKey, Value(operation));
  else
    currentThreadDictionary().remove(kQVTAYCurrentOperationKey);
}

}  // namespace

std::function<ErrorPtr(const ErrorPtr&)> QVTAYVeryPrivateAbortErrorConstructor;

ErrorPtr QVTAYAbortError() {
  static const auto* error = new ErrorPtr(Error::errorWithDomain(
      QVTAYErrorDomain, kQVTAYAbortedErrorCode,
      Dictionary{{kErrorDescriptionKey, "Async Operation was aborted"}}));
  return *error;
}

// ---------------------------------------------------------------------------
// The process-wide queue.

struct QVTAYOperationEngine {
  // Condition 1 while the queue is not empty, set on every unlock.
  ConditionLock _operationsLock{0};
  std::deque<QVTAYInvocationPtr> _operationsQueue;
  std::deque<QVTAYInvocationPtr> _blockedOperations;
  std::vector<QVTAYOperationPtr> _dispatchedOperations;
  const int _maxThreadCount = 15;
  int _currentThreadCount = 0;
  std::atomic<std::thread::id> _reservedThread{};
  std::atomic<std::thread::id> _finalizingThread{};
  std::atomic<double> _idleSeconds{20};
  // The process's first thread, recorded the first time it uses the engine.
  std::shared_ptr<Thread> _mainThread;
  std::once_flag mainThreadInited;

  void noteMainThread() {
    if (Thread::isMainThread())
      std::call_once(mainThreadInited, [this] { _mainThread = Thread::currentThread(); });
  }

  static QVTAYOperationEngine& shared() {
    static auto* engine = new QVTAYOperationEngine;
    return *engine;
  }

  bool onThread(const std::atomic<std::thread::id>& thread) const {
    return thread.load() == std::this_thread::get_id();
  }
  void lockOperations() {
    if (!onThread(_reservedThread)) _operationsLock.lock();
  }
  void unlockOperations() {
    if (!onThread(_reservedThread)) _operationsLock.unlockWithCondition(_operationsQueue.empty() ? 0 : 1);
  }
  // Locks unless called while a group is told that an operation ended (the
  // worker holds the lock then).
  bool lockUnlessFinalizing() {
    if (onThread(_finalizingThread)) return false;
    lockOperations();
    return true;
  }

  void _launchOneThread() {
    if (_currentThreadCount >= _maxThreadCount) return;
    ++_currentThreadCount;
    QVT_LOG(kLogInfo, kOperationLog, "Current thread count is {} (++)", _currentThreadCount);
    std::thread([this] { _workerThread(); }).detach();
  }

  void _workerThread() {
    registerOperationModeOnThisThread();
    for (;;) {
      const auto idle = std::chrono::duration<double>(_idleSeconds.load());
      if (!_operationsLock.lockWhenCondition(
              1, std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(idle)))
        lockOperations();
      if (!_dispatchNextOperationInQueue()) break;  // the lock is still held
    }
    --_currentThreadCount;
    QVT_LOG(kLogInfo, kOperationLog, "Current thread count is {} (--)", _currentThreadCount);
    unlockOperations();
    endPendingOperations();
  }

  // Ends after the current dispatch (or at once after the lock is released).
  static void scheduleToEnd(const QVTAYInvocationPtr& invocation, const ErrorPtr& error) {
    Dictionary& thread = currentThreadDictionary();
    std::optional<Array> pending = thread.getArray(kQVTAYPendingOperationsToEndKey);
    if (!pending) {
      pending = Array();
      thread.set(kQVTAYPendingOperationsToEndKey, *pending);
    }
    pending->add(Array{Value(invocation), error ? Value(error) : Value()});
  }

  static void endPendingOperations() {
    Dictionary& thread = currentThreadDictionary();
    std::optional<Array> pending = thread.getArray(kQVTAYPendingOperationsToEndKey);
    if (!pending) return;
    thread.remove(kQVTAYPendingOperationsToEndKey);
    for (const Value& entry : *pending) {
      const Array pair = entry.array();
      auto invocation = pair[0].objectAs<QVTAYInvocation>();
      auto error = pair[1].objectAs<Error>();
      QVT_LOG(kLogInfo, kOperationLog, "Ending pending {} with error {}",
              invocation->target()->description(), describe(error));
      invocation->target()->endOperationWithError(error);
    }
  }

  // Lock held on entry; still held when answering false, released when true.
  bool _dispatchNextOperationInQueue() {
    QVTAYInvocationPtr chosen;
    for (auto it = _operationsQueue.begin(); it != _operationsQueue.end();) {
      QVTAYInvocationPtr invocation = *it;
      QVTAYOperation& operation = *invocation->target();
      auto group = operation.operationGroup();
      if (!group || group->operationShouldBeLaunchedNow(operation)) {
        chosen = invocation;
        _operationsQueue.erase(it);
        break;
      }
      it = _operationsQueue.erase(it);
      if (ErrorPtr error = operation.error()) {
        QVT_LOG(kLogInfo, kOperationLog, "{} denies operation {} with error: {}",
                fmt::ptr(group.get()), operation.description(), describe(error));
        // Ended once the lock is released: ending takes the operation's lock,
        // which comes before this one.
        scheduleToEnd(invocation, error);
      } else {
        QVT_LOG(kLogInfo, kOperationLog, "{} blocks operation {}", fmt::ptr(group.get()),
                operation.description());
        if (operation.currentMark() != kQVTAYMarkBlocked)
          operation.markWithTag(kQVTAYMarkBlocked, false);
        _blockedOperations.push_back(invocation);
      }
    }
    if (!chosen) return false;

    QVTAYOperationPtr operation = chosen->target();
    _dispatchedOperations.push_back(operation);
    unlockOperations();
    endPendingOperations();

    {
      std::lock_guard state(operation->_stateLock);
      operation->_currentThread = Thread::currentThread();
    }
    operation->_setUpDispatchPerformer();
    setCurrentOperation(operation);
    QVT_LOG(kLogInfo, kOperationLog, "Dispatching async -[{} {}]", operation->className(),
            chosen->selector());
    operation->markWithTag(kQVTAYMarkDispatched, false);
    // An operation aborted between the queue and here has already ended.
    if (!operation->hasOperationEnded()) {
      try {
        chosen->invoke();
      } catch (const Exception& exception) {
        QVT_LOG(kLogError, kOperationLog, "Async operation {} raised exception {}",
                operation->description(), exception.description());
      }
    }
    if (!operation->isRunLoopBased()) operation->endOperationWithError(operation->error());
    setCurrentOperation(nullptr);

    // Delivers what is pending for it here (an abort that came too late).
    RunLoop::currentRunLoop()->runInMode(kOperationRunLoopMode, 0);
    lockOperations();
    if (auto group = operation->operationGroup()) {
      _finalizingThread = std::this_thread::get_id();
      group->operationHasEnded(*operation);
      _finalizingThread = std::thread::id();
    }
    chosen.reset();
    operation->_dropPerformers();
    std::erase(_dispatchedOperations, operation);
    unlockOperations();
    endPendingOperations();
    return true;
  }

  // Lock held.
  bool popLocked(QVTAYOperation& operation) {
    QVT_LOG(kLogInfo, kOperationLog, "try Dequeuing {}", operation.description());
    bool found = false;
    for (auto* list : {&_operationsQueue, &_blockedOperations}) {
      auto it = std::find_if(list->begin(), list->end(),
                             [&](const auto& inv) { return inv->target().get() == &operation; });
      if (it != list->end()) {
        list->erase(it);
        found = true;
        break;
      }
    }
    QVT_LOG(kLogInfo, kOperationLog, "result is: {}", found ? "YES" : "NO");
    return found;
  }
};

// ---------------------------------------------------------------------------
// Events, invocations, proxies, companions.

std::string QVTAYEvent::description() const {
  return fmt::format("<{} {}: {} {}>", className(), fmt::ptr(this), _domain, _code);
}

Value QVTAYInvocation::invoke() {
  std::vector<Value> arguments = _arguments;
  return _method->call(*_target, arguments);
}

std::string QVTAYInvocation::description() const {
  return fmt::format("-[{} {}]", _target->className(), _method->selector);
}

bool QVT_AYProxy::respondsToSelector(const std::string& selector) const {
  return MethodTable::respondsToSelector(*this, selector) ||
         MethodTable::respondsToSelector(*_operation, selector);
}

std::optional<std::string> QVT_AYProxy::methodSignatureForSelector(const std::string& selector) const {
  if (const MethodInfo* method = MethodTable::lookup(_operation->className(), selector))
    return method->argumentTypes;
  return std::nullopt;
}

std::string QVT_AYProxy::description() const {
  return "Async proxy for " + _operation->description();
}

Value QVT_AYProxy::send(const std::string& selector, std::vector<Value> arguments) {
  QVTAYOperation& operation = *_operation;
  const MethodInfo* method = MethodTable::lookup(operation.className(), selector);
  if (!method)
    raiseException(kInvalidArgumentException,
                   fmt::format("{} does not respond to {}", operation.className(), selector));
  if (arguments.size() != method->argumentCount())
    raiseException(kInvalidArgumentException,
                   fmt::format("{} takes {} arguments, not {}", selector, method->argumentCount(),
                               arguments.size()));
  auto self = std::static_pointer_cast<QVTAYOperation>(operation.shared_from_this());
  auto invocation = std::make_shared<QVTAYInvocation>(self, method, std::move(arguments));

  if (_asyncLaunch) {
    QVT_LOG(kLogInfo, kOperationLog, "async [{} {}]", operation.description(), selector);
    QVTAYOperation::pushInvocation(invocation);
    return Value();
  }

  // Runs now, on this thread, as the current child of its parent.
  QVTAYOperation* parent = operation.parentOperation();
  const QVTAYOperationPtr previous = QVTAYOperation::currentOperation();
  setCurrentOperation(self);
  if (parent) parent->_currentChildOperation = &operation;
  {
    std::lock_guard state(operation._stateLock);
    operation._currentThread = parent ? parent->operationThread() : nullptr;
    if (!operation._currentThread) operation._currentThread = Thread::currentThread();
  }
  operation._setUpDispatchPerformer();
  struct Restore {
    QVTAYOperation& operation;
    QVTAYOperation* parent;
    const QVTAYOperationPtr& previous;
    ~Restore() {
      std::lock_guard lock(operation._operationLockObject());
      {
        std::lock_guard state(operation._stateLock);
        operation.reserved.dispatchThreadPerformer.reset();
        operation._currentThread.reset();
      }
      if (parent) parent->_currentChildOperation = nullptr;
      setCurrentOperation(previous);
    }
  } restore{operation, parent, previous};
  try {
    return invocation->invoke();
  } catch (const Exception& exception) {
    QVT_LOG(kLogError, kOperationLog, "Uncatched exception {} in operation {}",
            exception.description(), operation.description());
  }
  return Value();
}

void QVTAYSimpleOperationCompanion::postOperationForOperation(QVTAYOperation& operation) {
  if (!_object) return;
  if (const MethodInfo* method =
          MethodTable::lookup(_object->className(), "postOperationForOperation:")) {
    std::vector<Value> arguments{Value(operation.shared_from_this())};
    method->call(*_object, arguments);
  }
}

// ---------------------------------------------------------------------------
// Operations.

PC_REGISTER_ABSTRACT_CLASS(QVTAYOperation, "");

QVTAYOperation::QVTAYOperation() = default;
QVTAYOperation::~QVTAYOperation() = default;

std::string QVTAYOperation::operationRunLoopMode() { return kOperationRunLoopMode; }

QVTAYOperationPtr QVTAYOperation::currentOperation() {
  return currentThreadDictionary().get(kQVTAYCurrentOperationKey).objectAs<QVTAYOperation>();
}

std::shared_ptr<QVT_AYProxy> QVTAYOperation::async() {
  QVTAYOperationEngine::shared().noteMainThread();
  registerOperationModeOnThisThread();
  if (!asyncProxy) asyncProxy = std::make_shared<QVT_AYProxy>(this, true);
  asyncProxy->setAsyncLaunch(true);
  _mainOperation = this;
  _parentOperation = nullptr;
  resetOperation();
  std::lock_guard state(_stateLock);
  _baseThread = Thread::currentThread();
  _currentThread.reset();
  return asyncProxy;
}

std::shared_ptr<QVT_AYProxy> QVTAYOperation::syncFor(QVTAYOperation* parent) {
  if (!_syncProxy) _syncProxy = std::make_shared<QVT_AYProxy>(this, false);
  _mainOperation = parent ? parent->mainOperation() : this;
  if (!_mainOperation.load()) _mainOperation = parent;
  _parentOperation = parent;
  resetOperation();
  return _syncProxy;
}

std::shared_ptr<QVT_AYProxy> QVTAYOperation::synchronous() {
  return syncFor(currentOperation().get());
}

void QVTAYOperation::resetOperation() {
  {
    std::lock_guard state(_stateLock);
    _error.reset();
  }
  operationEnded = false;
  inAbortProcess = false;
  reserved.endDeliveredInBaseThread = false;
  _currentMark = 0;
}

void QVTAYOperation::setCanAbortNow(bool flag) {
  _canAbortNow = flag;
  if (flag && inAbortProcess && !operationEnded) {
    operationWillAbort();
    endOperationWithError(error());
  }
}

std::shared_ptr<Thread> QVTAYOperation::operationThread() const {
  std::lock_guard state(_stateLock);
  return _currentThread;
}

std::shared_ptr<Thread> QVTAYOperation::baseThread() const {
  std::lock_guard state(_stateLock);
  return _baseThread;
}

std::shared_ptr<AYGroup> QVTAYOperation::operationGroup() const {
  std::lock_guard state(_stateLock);
  return _group;
}

void QVTAYOperation::setOperationGroup(std::shared_ptr<AYGroup> group) {
  std::lock_guard state(_stateLock);
  _group = std::move(group);
}

std::shared_ptr<QVTAYSimpleOperationCompanion> QVTAYOperation::operationCompanion() const {
  return infoForKey(kQVTAYOperationCompanionKey).objectAs<QVTAYSimpleOperationCompanion>();
}

void QVTAYOperation::setOperationCompanion(std::shared_ptr<QVTAYSimpleOperationCompanion> companion) {
  if (companion)
    setInfo(Value(companion), kQVTAYOperationCompanionKey);
  else
    removeInfoForKey(kQVTAYOperationCompanionKey);
}

void QVTAYOperation::setInfo(const Value& info, const std::string& key) {
  std::lock_guard state(_stateLock);
  privateInfos.set(key, info);
}

Value QVTAYOperation::infoForKey(const std::string& key) const {
  std::lock_guard state(_stateLock);
  return privateInfos.get(key);
}

void QVTAYOperation::removeInfoForKey(const std::string& key) {
  std::lock_guard state(_stateLock);
  privateInfos.remove(key);
}

ErrorPtr QVTAYOperation::error() const {
  std::lock_guard state(_stateLock);
  return _error;
}

void QVTAYOperation::setError(ErrorPtr error) {
  ErrorPtr current;
  {
    std::lock_guard state(_stateLock);
    current = _error;
    _error = error;
  }
  if (current && current != error && !(error && current->isEqual(*error)))
    QVT_LOG(kLogError, kOperationLog, "{} is setting its error twice (current is {} and new is {})",
            description(), describe(current), describe(error));
}

void QVTAYOperation::_storeError(ErrorPtr error) {
  std::lock_guard state(_stateLock);
  _error = std::move(error);
}

std::recursive_mutex& QVTAYOperation::_operationLockObject() {
  QVTAYOperation* main = mainOperation();
  return (parentOperation() && main) ? main->operationLock : operationLock;
}

void QVTAYOperation::lockOperation() { _operationLockObject().lock(); }
void QVTAYOperation::unlockOperation() { _operationLockObject().unlock(); }

void QVTAYOperation::handleNotificationOfChildOperation(QVTAYOperation&, const Notification&) {}

void QVTAYOperation::_setUpDispatchPerformer() {
  std::lock_guard state(_stateLock);
  auto thread = _currentThread ? _currentThread : Thread::currentThread();
  reserved.dispatchThreadPerformer = RunLoopPerformer::inLoop(thread->runLoop());
}

void QVTAYOperation::_dropPerformers() {
  std::lock_guard state(_stateLock);
  reserved.baseThreadPerformer.reset();
  reserved.dispatchThreadPerformer.reset();
}

// ---------------------------------------------------------------------------
// Queue.

void QVTAYOperation::pushInvocation(QVTAYInvocationPtr invocation) {
  auto& engine = QVTAYOperationEngine::shared();
  QVTAYOperation& operation = *invocation->target();
  engine.lockOperations();
  {
    std::lock_guard state(operation._stateLock);
    auto base = operation._baseThread ? operation._baseThread : Thread::currentThread();
    operation.reserved.baseThreadPerformer = RunLoopPerformer::inLoop(base->runLoop());
  }
  operation.markWithTag(kQVTAYMarkQueued, false);
  engine._operationsQueue.push_back(std::move(invocation));
  engine._launchOneThread();
  engine.unlockOperations();
}

bool QVTAYOperation::popOperation(QVTAYOperation& operation) {
  auto& engine = QVTAYOperationEngine::shared();
  engine.lockOperations();
  const bool found = engine.popLocked(operation);
  engine.unlockOperations();
  return found;
}

void QVTAYOperation::unblockAllOperationsForGroup(const AYGroup* group) {
  auto& engine = QVTAYOperationEngine::shared();
  const bool locked = engine.lockUnlessFinalizing();
  auto& blocked = engine._blockedOperations;
  int moved = 0;
  for (auto i = blocked.size(); i-- > 0;) {
    if (blocked[i]->target()->operationGroup().get() != group) continue;
    engine._operationsQueue.push_front(blocked[i]);
    blocked.erase(blocked.begin() + std::ptrdiff_t(i));
    ++moved;
  }
  QVT_LOG(kLogInfo, kOperationLog, "Unblocking {} operations for group {}", moved,
          fmt::ptr(group));
  for (int i = 0; i < moved; ++i) engine._launchOneThread();
  if (locked) engine.unlockOperations();
}

void QVTAYOperation::endAllPendingOperationsOfGroup(const AYGroup* group, const ErrorPtr& error) {
  auto& engine = QVTAYOperationEngine::shared();
  const bool locked = engine.lockUnlessFinalizing();
  std::vector<QVTAYInvocationPtr> taken;
  for (auto* list : {&engine._blockedOperations, &engine._operationsQueue}) {
    for (auto i = list->size(); i-- > 0;) {
      if ((*list)[i]->target()->operationGroup().get() != group) continue;
      taken.push_back((*list)[i]);
      list->erase(list->begin() + std::ptrdiff_t(i));
    }
  }
  if (locked) engine.unlockOperations();
  // Ending takes each operation's lock, which comes before the queue's: from
  // a running operation or a worker that holds the queue, the ends wait until
  // the dispatch is over.
  if (!locked || currentOperation()) {
    QVT_LOG(kLogInfo, kOperationLog, "Scheduling {} operations to end with error {}",
            taken.size(), describe(error));
    for (const auto& invocation : taken) QVTAYOperationEngine::scheduleToEnd(invocation, error);
    return;
  }
  for (const auto& invocation : taken) {
    QVT_LOG(kLogInfo, kOperationLog, "Ending pending {} with error {}",
            invocation->target()->description(), describe(error));
    invocation->target()->endOperationWithError(error);
  }
}

void QVTAYOperation::_noLockForThread(std::thread::id thread) {
  QVTAYOperationEngine::shared()._reservedThread = thread;
}

void QVTAYOperation::_lockForAllThreads() { QVTAYOperationEngine::shared()._reservedThread = std::thread::id(); }

std::shared_ptr<RunLoopPerformer> QVTAYOperation::proxyInBaseThread() const {
  std::lock_guard state(_stateLock);
  return reserved.baseThreadPerformer;
}

std::shared_ptr<RunLoopPerformer> QVTAYOperation::proxyInDispatchThread() const {
  std::lock_guard state(_stateLock);
  return reserved.dispatchThreadPerformer;
}

int QVTAYOperation::maxThreadCount() { return QVTAYOperationEngine::shared()._maxThreadCount; }

int QVTAYOperation::currentThreadCount() {
  auto& engine = QVTAYOperationEngine::shared();
  engine.lockOperations();
  const int count = engine._currentThreadCount;
  engine.unlockOperations();
  return count;
}

void QVTAYOperation::setWorkerIdleTime(double seconds) {
  QVTAYOperationEngine::shared()._idleSeconds = seconds;
}

// ---------------------------------------------------------------------------
// Events and abort.

void QVTAYOperation::sendEventToThread(const QVTAYEventPtr& event) {
  std::lock_guard lock(_operationLockObject());
  if (!operationEnded) _sendEventToThreadLocked(event);
}

void QVTAYOperation::_sendEventToThreadLocked(const QVTAYEventPtr& event) {
  std::shared_ptr<RunLoopPerformer> performer;
  {
    std::lock_guard state(_stateLock);
    if (_currentThread) performer = reserved.dispatchThreadPerformer;
  }
  if (!performer) {
    _handleEventRecursively(*this, event);
    return;
  }
  auto self = std::static_pointer_cast<QVTAYOperation>(shared_from_this());
  performer->perform([self, event] {
    // The walk starts from what runs on that thread now.
    QVTAYOperationPtr current = currentOperation();
    (current ? *current : *self)._handleEventRecursively(*self, event);
  });
}

void QVTAYOperation::_handleEventRecursively(QVTAYOperation& target, const QVTAYEventPtr& event) {
  QVTAYOperation* walk = this;
  while (walk && walk != &target) walk = walk->parentOperation();
  if (!walk) return;
  for (QVTAYOperation* operation = &target; operation;
       operation = operation->currentChildOperation())
    if (operation->handleEventInThread(event)) break;
}

bool QVTAYOperation::handleEventInThread(const QVTAYEventPtr& event) {
  QVT_LOG(kLogInfo, kOperationLog, "{} handling event {} in thread {}", description(),
          event->description(), fmt::ptr(Thread::currentThread().get()));
  if (event != _ay_abortEvent() &&
      !(event->domain() == kAYEventDomain && event->code() == _ay_abortEvent()->code()))
    return false;
  QVTAYOperation* deepest = this;
  while (QVTAYOperation* child = deepest->currentChildOperation()) deepest = child;
  QVT_LOG(kLogInfo, kOperationLog, "{} starting abort process for {}", description(),
          deepest->description());
  deepest->_startAbortProcess();
  return true;
}

void QVTAYOperation::abortOperation() {
  auto& engine = QVTAYOperationEngine::shared();
  std::unique_lock lock(_operationLockObject());
  engine.lockOperations();
  if (operationEnded || inAbortProcess) {
    engine.unlockOperations();
    return;
  }
  if (!isAsync()) {
    engine.unlockOperations();
    QVT_LOG(kLogWarning, kOperationLog, "trying to abort a not asynchronously dispatched operation");
    return;
  }
  if (engine.popLocked(*this)) {
    operationEnded = true;
    operationAborted = true;
    engine.unlockOperations();
    notifyWithName(QVTAYOperationEndedNotification);
    return;
  }
  engine.unlockOperations();
  QVT_LOG(kLogInfo, kOperationLog, "Sending abort event to {}", description());
  _sendEventToThreadLocked(_ay_abortEvent());
}

void QVTAYOperation::_startAbortProcess() {
  if (operationEnded || inAbortProcess.exchange(true)) return;
  if (_canAbortNow) {
    operationWillAbort();
    endOperationWithError(error());
  } else {
    QVT_LOG(kLogInfo, kOperationLog, "Abort process for {} has to wait for operation to really end",
            description());
  }
}

// ---------------------------------------------------------------------------
// Ending and notices.

void QVTAYOperation::endOperationWithError(ErrorPtr error) {
  std::shared_ptr<Thread> thread;
  {
    std::lock_guard lock(_operationLockObject());
    if (operationEnded) return;
    if (error) setError(error);
    if (inAbortProcess) {
      ErrorPtr abortError =
          QVTAYVeryPrivateAbortErrorConstructor ? QVTAYVeryPrivateAbortErrorConstructor(error) : nullptr;
      _storeError(abortError ? abortError : QVTAYAbortError());
      inAbortProcess = false;
      operationAborted = true;
    }
    std::lock_guard state(_stateLock);
    operationEnded = true;
    thread = std::exchange(_currentThread, nullptr);
  }
  if (isRunLoopBased()) (thread ? thread->runLoop() : RunLoop::currentRunLoop())->stop();
  const ErrorPtr ended = this->error();
  if (!ended) finalizeOperation();
  QVT_LOG(kLogInfo, kOperationLog, "Operation of class <{}> ended with error: {}", className(),
          describe(ended));
  postOperation();
  if (!parentOperation()) notifyWithName(QVTAYOperationEndedNotification);
}

void QVTAYOperation::postOperation() {
  if (auto companion = operationCompanion()) companion->postOperationForOperation(*this);
}

void QVTAYOperation::markWithTag(int tag, bool notify) {
  _currentMark = tag;
  if (notify && !silent) notifyWithName(QVTAYMarkNotification, Dictionary{{AYMarkTagKey, tag}});
}

void QVTAYOperation::notifyWithName(const std::string& name, const Dictionary& infos) {
  const bool isEnd = name == QVTAYOperationEndedNotification;
  if (silent && !isEnd) return;
  QVTAYOperation* parent = parentOperation();
  if (isEnd && parent) return;
  auto notification = std::make_shared<Notification>(name, shared_from_this(), infos);
  if (parent) {
    QVT_LOG(kLogInfo, kOperationLog, "{} notifies {} to parent operation {}", description(), name,
            parent->description());
    parent->handleNotificationOfChildOperation(*this, *notification);
  } else if (AYNotificationDelegate* delegate = notificationDelegate) {
    delegate->operation(*this, *notification);
  } else {
    _deliverInBaseThread(notification);
  }
}

void QVTAYOperation::_deliverInBaseThread(const std::shared_ptr<Notification>& notification) {
  std::shared_ptr<RunLoopPerformer> performer;
  {
    std::lock_guard state(_stateLock);
    if (_baseThread) performer = reserved.baseThreadPerformer;
  }
  const bool isEnd = notification->name() == QVTAYOperationEndedNotification;
  if (!performer) {
    QVT_LOG(kLogInfo, kOperationLog, "{} notifies {} to observers", description(),
            notification->name());
    NotificationCenter::defaultCenter().postNotification(*notification);
    if (isEnd) reserved.endDeliveredInBaseThread = true;
    return;
  }
  QVT_LOG(kLogInfo, kOperationLog, "{} notifies {} to observers in base thread", description(),
          notification->name());
  auto self = std::static_pointer_cast<QVTAYOperation>(shared_from_this());
  performer->perform([self, notification, isEnd] {
    NotificationCenter::defaultCenter().postNotification(*notification);
    if (isEnd) self->reserved.endDeliveredInBaseThread = true;
  });
}

namespace {

// Waits on the base thread for the end notice of one operation: runs the
// loop in turns until the notice has arrived. The notice is posted on this
// thread, by this loop, so it cannot pass before the observer is in place.
class QVT_AYOperationEndWaiter {
 public:
  explicit QVT_AYOperationEndWaiter(QVTAYOperationPtr operation) : _operation(std::move(operation)) {
    _token = NotificationCenter::defaultCenter().addObserver(
        [this](const Notification&) { operationEnded(); }, QVTAYOperationEndedNotification,
        _operation.get());
  }
  ~QVT_AYOperationEndWaiter() { NotificationCenter::defaultCenter().removeObserver(_token); }
  QVT_AYOperationEndWaiter(const QVT_AYOperationEndWaiter&) = delete;
  QVT_AYOperationEndWaiter& operator=(const QVT_AYOperationEndWaiter&) = delete;

  void waitInMode(const std::string& mode) {
    while (!_received) _loop->runInMode(mode, kLongTurn);
  }

 private:
  void operationEnded() {
    _received = true;
    _loop->stop();
  }

  QVTAYOperationPtr _operation;
  std::shared_ptr<RunLoop> _loop = RunLoop::currentRunLoop();
  bool _received = false;
  NotificationCenter::Token _token = 0;
};

}  // namespace

void QVTAYOperation::waitForOperationToEnd() { waitForOperationToEndInMode(kOperationRunLoopMode); }

void QVTAYOperation::waitForOperationToEndInMode(const std::string& mode) {
  auto base = baseThread();
  if (!base || !base->isCurrent())
    raiseException(kAYBadOperationName, "waitForOperationToEnd called in wrong thread");
  auto loop = RunLoop::currentRunLoop();
  if (operationEnded) {
    if (notificationDelegate) return;
    while (!reserved.endDeliveredInBaseThread) loop->runInMode(mode, kLongTurn, true);
    return;
  }
  QVT_AYOperationEndWaiter waiter(std::static_pointer_cast<QVTAYOperation>(shared_from_this()));
  waiter.waitInMode(mode);
}

bool QVTAYOperation::runOperationWithTimeOut(double seconds) {
  if (!isRunLoopBased()) {
    QVT_LOG(kLogError, kOperationLog, "*** Assertion failure in runOperationWithTimeOut, AYOperation:1156");
    raiseException(kInternalInconsistencyException,
                   "Can't call runOperationWithTimeOut if operation is not declared as run-loop based");
  }
  auto loop = RunLoop::currentRunLoop();
  while (!operationEnded) {
    const std::time_t start = std::time(nullptr);
    const RunLoopResult result =
        loop->runInMode(kOperationRunLoopMode, seconds > 0 ? seconds : kLongTurn, true);
    if (result != RunLoopResult::TimedOut || operationEnded) continue;
    if (seconds > 0 && double(std::time(nullptr) - start) >= seconds) {
      endOperationWithError(Error::errorWithDomain(
          QVTAYErrorDomain, kQVTAYTimedOutErrorCode,
          Dictionary{{kErrorDescriptionKey, "Async Operation timed out"},
                     {AYTimeOutLengthKey, seconds}}));
    } else {
      QVT_LOG(kLogInfo, kOperationLog, "Run loop 'time out' turn with no real time out");
    }
  }
  return operationEnded;
}

}  // namespace pc
