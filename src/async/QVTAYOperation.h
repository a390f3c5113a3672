#pragma once
// Asynchronous operations.
//
// An operation is an object whose methods (registered in the method table
// under their selectors) run on a pool of at most 15 worker threads.
// `async()` answers a proxy; a message sent to it is captured as an
// invocation (the method and its arguments) and queued; a worker later
// performs it. `syncFor(parent)` answers a proxy that runs the message at
// once on the calling thread, as a child of the parent.
//
// Operations may belong to a group that decides whether a queued operation
// starts now, waits (blocked until the group unblocks it) or is refused. An
// abort travels as an event to the operation's thread and down the chain of
// its running child operations. The end of an operation, its marks and other
// notices go to its parent, its delegate, or the observers on the thread that
// started it. Operations are held by shared pointers (make them with
// std::make_shared): the queue and the notices keep them alive.
//
// Errors: domain "AYErrorDomain", code 1 aborted, 2 timed out.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Error.h"
#include "platform/Notification.h"
#include "platform/Object.h"
#include "platform/Registry.h"
#include "platform/RunLoop.h"
#include "platform/Value.h"

namespace pc {

class QVTAYOperation;
using QVTAYOperationPtr = std::shared_ptr<QVTAYOperation>;

inline constexpr const char* QVTAYErrorDomain = "AYErrorDomain";
inline constexpr long kQVTAYAbortedErrorCode = 1;
inline constexpr long kQVTAYTimedOutErrorCode = 2;
inline constexpr const char* AYTimeOutLengthKey = "AYTimeOutLengthKey";
inline constexpr const char* AYMarkTagKey = "AYMarkTagKey";
inline constexpr const char* QVTAYOperationEndedNotification = "QVTAYOperationEndedNotification";
inline constexpr const char* QVTAYMarkNotification = "QVTAYMarkNotification";
inline constexpr const char* kAYBadOperationName = "AYBadOperationName";
inline constexpr const char* kQVTAYCurrentOperationKey = "QVTAYCurrentOperation";
inline constexpr const char* kQVTAYPendingOperationsToEndKey = "QVTAYPendingOperationsToEnd";
inline constexpr const char* kQVTAYOperationCompanionKey = "_AY_OPERATION_COMPANION";

// Marks the engine sets; applications use other values.
inline constexpr int kQVTAYMarkQueued = -3;
inline constexpr int kQVTAYMarkBlocked = -4;
inline constexpr int kQVTAYMarkDispatched = -2;

// The shared error of aborted operations: "Async Operation was aborted".
ErrorPtr QVTAYAbortError();
// When set, builds the error of an aborted operation from the error it had
// (possibly null). Set it before operations run.
extern std::function<ErrorPtr(const ErrorPtr&)> QVTAYVeryPrivateAbortErrorConstructor;

class QVTAYEvent : public Object {
 public:
  QVTAYEvent(std::string domain, int code, Dictionary userInfo = Dictionary())
      : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo)) {}
  static std::shared_ptr<QVTAYEvent> eventWithDomain(std::string domain, int code,
                                                     Dictionary userInfo = Dictionary()) {
    return std::make_shared<QVTAYEvent>(std::move(domain), code, std::move(userInfo));
  }
  std::string className() const override { return "QVTAYEvent"; }
  const std::string& domain() const { return _domain; }
  int code() const { return _code; }
  const Dictionary& userInfo() const { return _userInfo; }
  // "<QVTAYEvent 0x...: domain code>".
  std::string description() const override;

 private:
  std::string _domain;
  int _code;
  Dictionary _userInfo;
};
using QVTAYEventPtr = std::shared_ptr<QVTAYEvent>;

// Decides when the operations of a group start.
class AYGroup {
 public:
  virtual ~AYGroup() = default;
  // True to start it now. False blocks it until unblockAllOperationsForGroup,
  // or, when the operation already carries an error, refuses it: it ends with
  // that error without running.
  virtual bool operationShouldBeLaunchedNow(QVTAYOperation& operation) = 0;
  // Called on the worker once an operation of the group has ended. The
  // engine's queue calls made from here do not lock again.
  virtual void operationHasEnded(QVTAYOperation& operation) = 0;
};

class AYNotificationDelegate {
 public:
  virtual ~AYNotificationDelegate() = default;
  virtual void operation(QVTAYOperation& operation, const Notification& notification) = 0;
};

// A message to an operation, captured with its arguments.
class QVTAYInvocation : public Object {
 public:
  QVTAYInvocation(QVTAYOperationPtr target, const MethodInfo* method, std::vector<Value> arguments)
      : _target(std::move(target)), _method(method), _arguments(std::move(arguments)) {}
  std::string className() const override { return "QVTAYInvocation"; }
  const QVTAYOperationPtr& target() const { return _target; }
  const std::string& selector() const { return _method->selector; }
  const std::vector<Value>& arguments() const { return _arguments; }
  Value invoke();
  // "-[<class> <selector>]".
  std::string description() const override;

 private:
  QVTAYOperationPtr _target;
  const MethodInfo* _method;
  std::vector<Value> _arguments;
};
using QVTAYInvocationPtr = std::shared_ptr<QVTAYInvocation>;

// The proxy answered by async() and syncFor(). Not owned by the operation's
// users: the operation keeps it.
class QVT_AYProxy : public Object {
 public:
  QVT_AYProxy(QVTAYOperation* operation, bool asyncLaunch)
      : _operation(operation), _asyncLaunch(asyncLaunch) {}
  std::string className() const override { return "QVT_AYProxy"; }
  bool asyncLaunch() const { return _asyncLaunch; }
  void setAsyncLaunch(bool flag) { _asyncLaunch = flag; }
  bool respondsToSelector(const std::string& selector) const;
  // Whether the proxy itself, or else its operation, is a `Protocol`.
  template <class Protocol>
  bool conformsToProtocol() const {
    return dynamic_cast<const Protocol*>(this) || dynamic_cast<const Protocol*>(_operation);
  }
  // The argument type codes of the operation's method, or none.
  std::optional<std::string> methodSignatureForSelector(const std::string& selector) const;
  // Sends a message. Asynchronous: queued, answers null. Synchronous: runs
  // now and answers the method's result. A selector the operation does not
  // answer, or arguments that do not fit it, raise "invalid-argument".
  Value send(const std::string& selector, std::vector<Value> arguments = {});
  // "Async proxy for <operation>".
  std::string description() const override;

 private:
  QVTAYOperation* _operation;
  bool _asyncLaunch;
};

// Calls the companion object's "postOperationForOperation:" when it has one.
class QVTAYSimpleOperationCompanion : public Object {
 public:
  explicit QVTAYSimpleOperationCompanion(ObjectPtr object = nullptr) : _object(std::move(object)) {}
  std::string className() const override { return "QVTAYSimpleOperationCompanion"; }
  const ObjectPtr& object() const { return _object; }
  virtual void postOperationForOperation(QVTAYOperation& operation);

 private:
  ObjectPtr _object;
};

class QVTAYOperation : public Object {
 public:
  QVTAYOperation();
  ~QVTAYOperation() override;
  QVTAYOperation(const QVTAYOperation&) = delete;
  QVTAYOperation& operator=(const QVTAYOperation&) = delete;

  std::string className() const override { return "QVTAYOperation"; }

  // --- Starting.
  std::shared_ptr<QVT_AYProxy> async();
  std::shared_ptr<QVT_AYProxy> syncFor(QVTAYOperation* parent);
  // syncFor the thread's current operation.
  std::shared_ptr<QVT_AYProxy> synchronous();
  void resetOperation();
  static std::string operationRunLoopMode();
  // The operation running on this thread, or null.
  static QVTAYOperationPtr currentOperation();

  // --- State.
  bool isAsync() const { return _mainOperation.load() != nullptr; }
  bool hasOperationEnded() const { return operationEnded.load(); }
  bool isAborting() const { return inAbortProcess.load(); }
  // Ended by an abort (queued or running).
  bool wasAborted() const { return operationAborted.load(); }
  bool canAbortNow() const { return _canAbortNow.load(); }
  void setCanAbortNow(bool flag);
  bool isSilent() const { return silent.load(); }
  void setSilent(bool flag) { silent = flag; }
  int currentMark() const { return _currentMark.load(); }
  QVTAYOperation* parentOperation() const { return _parentOperation.load(); }
  QVTAYOperation* mainOperation() const { return _mainOperation.load(); }
  QVTAYOperation* currentChildOperation() const { return _currentChildOperation.load(); }
  std::shared_ptr<Thread> operationThread() const;
  std::shared_ptr<Thread> baseThread() const;
  std::shared_ptr<AYGroup> operationGroup() const;
  void setOperationGroup(std::shared_ptr<AYGroup> group);
  void setNotificationDelegate(AYNotificationDelegate* delegate) { notificationDelegate = delegate; }
  std::shared_ptr<QVTAYSimpleOperationCompanion> operationCompanion() const;
  // Null removes it.
  void setOperationCompanion(std::shared_ptr<QVTAYSimpleOperationCompanion> companion);
  void setInfo(const Value& info, const std::string& key);
  Value infoForKey(const std::string& key) const;
  void removeInfoForKey(const std::string& key);
  ErrorPtr error() const;
  // Replacing a different error logs it.
  void setError(ErrorPtr error);

  // An operation with a parent uses its main operation's lock.
  void lockOperation();
  void unlockOperation();

  // --- Hooks for subclasses.
  virtual void operationWillAbort() {}
  virtual void finalizeOperation() {}
  virtual bool isRunLoopBased() const { return false; }
  virtual double operationProgress() const { return 0; }
  virtual double operationTotal() const { return 0; }
  virtual void handleNotificationOfChildOperation(QVTAYOperation& child,
                                                  const Notification& notification);
  // Handles an event on the operation's thread; true when handled. The
  // abort event starts the abort of the deepest running child.
  virtual bool handleEventInThread(const QVTAYEventPtr& event);

  // --- Queue (process-wide).
  static void pushInvocation(QVTAYInvocationPtr invocation);
  // Takes the operation's invocation out of the queue, else out of the
  // blocked list; false when it was in neither.
  static bool popOperation(QVTAYOperation& operation);
  static void unblockAllOperationsForGroup(const AYGroup* group);
  static void endAllPendingOperationsOfGroup(const AYGroup* group, const ErrorPtr& error);
  static int maxThreadCount();
  static int currentThreadCount();
  // How long an idle worker waits for work before it retires (20 s).
  static void setWorkerIdleTime(double seconds);

  // --- Events and abort.
  void sendEventToThread(const QVTAYEventPtr& event);
  void abortOperation();

  // --- Ending and notices.
  void endOperationWithError(ErrorPtr error);
  void markWithTag(int tag, bool notify = true);
  void notifyWithName(const std::string& name, const Dictionary& infos = Dictionary());
  void postOperation();
  // On the base thread only: runs its loop until the end has been delivered.
  void waitForOperationToEnd();
  void waitForOperationToEndInMode(const std::string& mode);
  // Run-loop based operations: runs the operation mode until the operation
  // ends; with a time-out (seconds, 0 for none), a turn with no source
  // handled for that long ends it with the time-out error. Answers whether
  // it ended.
  bool runOperationWithTimeOut(double seconds);

  // The performers that run calls on the base thread and on the thread the
  // operation runs on (null when there is none).
  std::shared_ptr<RunLoopPerformer> proxyInBaseThread() const;
  std::shared_ptr<RunLoopPerformer> proxyInDispatchThread() const;

  // --- Locking shortcuts: the queue's lock is not taken on `thread`'s
  // behalf (a thread that already holds it while it calls back), until
  // _lockForAllThreads.
  static void _noLockForThread(std::thread::id thread);
  static void _lockForAllThreads();

  // The operation's lock, for the engine's locking order; not for users.
  std::recursive_mutex& _operationLockObject();

 private:
  friend class QVT_AYProxy;
  friend struct QVTAYOperationEngine;

  void _setUpDispatchPerformer();
  void _dropPerformers();
  void _sendEventToThreadLocked(const QVTAYEventPtr& event);
  void _handleEventRecursively(QVTAYOperation& target, const QVTAYEventPtr& event);
  void _startAbortProcess();
  void _storeError(ErrorPtr error);
  void _deliverInBaseThread(const std::shared_ptr<Notification>& notification);

  std::shared_ptr<QVT_AYProxy> asyncProxy;
  std::shared_ptr<QVT_AYProxy> _syncProxy;
  std::atomic<QVTAYOperation*> _parentOperation{nullptr};
  std::atomic<QVTAYOperation*> _mainOperation{nullptr};
  std::atomic<QVTAYOperation*> _currentChildOperation{nullptr};
  std::recursive_mutex operationLock;
  // Guards the fields below it; a leaf lock, never held while calling out.
  mutable std::mutex _stateLock;
  std::shared_ptr<Thread> _currentThread;
  std::shared_ptr<Thread> _baseThread;
  std::shared_ptr<AYGroup> _group;
  ErrorPtr _error;
  // The performers bound to the base and the dispatch threads' loops, and
  // whether the end notice was delivered on the base thread.
  struct Reserved {
    std::shared_ptr<RunLoopPerformer> baseThreadPerformer;
    std::shared_ptr<RunLoopPerformer> dispatchThreadPerformer;
    std::atomic<bool> endDeliveredInBaseThread{false};
  } reserved;
  Dictionary privateInfos;
  std::atomic<bool> operationEnded{false};
  std::atomic<bool> operationAborted{false};
  std::atomic<bool> silent{false};
  std::atomic<bool> _canAbortNow{true};
  std::atomic<bool> inAbortProcess{false};
  std::atomic<int> _currentMark{0};
  std::atomic<AYNotificationDelegate*> notificationDelegate{nullptr};
};

}  // namespace pc
