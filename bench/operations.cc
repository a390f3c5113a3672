// Operations dispatched per second through the proxy and the queue, and the
// latency from push to start, each against a plain std::thread pool doing
// the same work in the same run. The counters end in "_ratio": the engine's
// figure over the pool's (throughput: higher is better; latency: lower).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "async/QVTAYOperation.h"

namespace pc {
namespace {

using Clock = std::chrono::steady_clock;

std::atomic<long> sEnded{0};
std::atomic<Clock::rep> sStarted{0};

class EmptyOperation : public QVTAYOperation {
 public:
  std::string className() const override { return "BenchEmptyOperation"; }
  void finalizeOperation() override { ++sEnded; }
};

// Takes the end notices, so that none piles up for a thread that does not
// run its loop.
class Quiet : public AYNotificationDelegate {
 public:
  void operation(QVTAYOperation&, const Notification&) override {}
} sQuiet;

void registerBenchOperation() {
  ClassRegistry::registerClass("BenchEmptyOperation", "QVTAYOperation", nullptr);
  MethodTable::registerMethod("BenchEmptyOperation", "run", "", [](Object&, std::vector<Value>&) {
    sStarted = Clock::now().time_since_epoch().count();
    return Value();
  });
}
PC_REGISTRATION(registerBenchOperation());

// A fixed pool of worker threads over one locked queue.
class ThreadPool {
 public:
  explicit ThreadPool(int threads) {
    for (int i = 0; i < threads; ++i)
      _workers.emplace_back([this] {
        for (;;) {
          std::function<void()> task;
          {
            std::unique_lock guard(_lock);
            _ready.wait(guard, [&] { return _stop || !_tasks.empty(); });
            if (_tasks.empty()) return;
            task = std::move(_tasks.front());
            _tasks.pop_front();
          }
          task();
        }
      });
  }
  ~ThreadPool() {
    {
      std::lock_guard guard(_lock);
      _stop = true;
    }
    _ready.notify_all();
    for (auto& worker : _workers) worker.join();
  }
  void push(std::function<void()> task) {
    {
      std::lock_guard guard(_lock);
      _tasks.push_back(std::move(task));
    }
    _ready.notify_one();
  }

 private:
  std::mutex _lock;
  std::condition_variable _ready;
  std::deque<std::function<void()>> _tasks;
  std::vector<std::thread> _workers;
  bool _stop = false;
};

void waitFor(const std::atomic<long>& counter, long target) {
  while (counter.load() < target) std::this_thread::yield();
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void BM_DispatchEmptyOperations(benchmark::State& state) {
  const long batch = state.range(0);
  ThreadPool pool(QVTAYOperation::maxThreadCount());
  double engineTime = 0, poolTime = 0;
  for (auto _ : state) {
    std::vector<std::shared_ptr<EmptyOperation>> operations(static_cast<std::size_t>(batch));
    for (auto& operation : operations) {
      operation = std::make_shared<EmptyOperation>();
      operation->setNotificationDelegate(&sQuiet);
    }
    sEnded = 0;
    auto start = Clock::now();
    for (auto& operation : operations) operation->async()->send("run");
    waitFor(sEnded, batch);
    engineTime += seconds(Clock::now() - start);

    std::atomic<long> done{0};
    start = Clock::now();
    for (long i = 0; i < batch; ++i)
      pool.push([&done, keep = operations[std::size_t(i)]] { ++done; });
    waitFor(done, batch);
    poolTime += seconds(Clock::now() - start);
  }
  const double total = double(batch) * double(state.iterations());
  state.counters["engine_ops_per_s"] = total / engineTime;
  state.counters["pool_ops_per_s"] = total / poolTime;
  state.counters["throughput_ratio"] = poolTime / engineTime;
}
BENCHMARK(BM_DispatchEmptyOperations)->Arg(2000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PushToStartLatency(benchmark::State& state) {
  ThreadPool pool(QVTAYOperation::maxThreadCount());
  double engineLatency = 0, poolLatency = 0;
  auto operation = std::make_shared<EmptyOperation>();
  operation->setNotificationDelegate(&sQuiet);
  for (auto _ : state) {
    sEnded = 0;
    sStarted = 0;
    const auto pushed = Clock::now();
    operation->async()->send("run");
    waitFor(sEnded, 1);
    engineLatency += seconds(Clock::duration(sStarted.load()) - pushed.time_since_epoch());

    std::atomic<long> done{0};
    std::atomic<Clock::rep> started{0};
    const auto poolPushed = Clock::now();
    pool.push([&] {
      started = Clock::now().time_since_epoch().count();
      ++done;
    });
    waitFor(done, 1);
    poolLatency += seconds(Clock::duration(started.load()) - poolPushed.time_since_epoch());
  }
  const double n = double(state.iterations());
  state.counters["engine_latency_us"] = engineLatency / n * 1e6;
  state.counters["pool_latency_us"] = poolLatency / n * 1e6;
  state.counters["latency_ratio"] = engineLatency / poolLatency;
}
BENCHMARK(BM_PushToStartLatency)->Iterations(2000)->UseRealTime();

}  // namespace
}  // namespace pc

BENCHMARK_MAIN();
