// What queues and actors cost, each beside the plain means that it takes the place of.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

namespace {

using platform::Queue;

std::shared_ptr<SkeldaActor> makeActor() {
  return SkeldaActor::made(new SkeldaActor("Bench"));
}

// ---- A synchronous call that nobody contends

void mutexLock(benchmark::State& state) {
  std::mutex mutex;
  int value = 0;
  for (auto _ : state) {
    const std::lock_guard lock(mutex);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(mutexLock)->Name("sync/mutex_lock");

void queueSync(benchmark::State& state) {
  const auto queue = Queue::serial("Bench");
  int value = 0;
  for (auto _ : state) queue->sync([&] { benchmark::DoNotOptimize(++value); });
}
BENCHMARK(queueSync)->Name("sync/queue_sync");

void actorSyncBlock(benchmark::State& state) {
  const auto actor = makeActor();
  int value = 0;
  for (auto _ : state) actor->syncBlock([&] { benchmark::DoNotOptimize(++value); });
}
BENCHMARK(actorSyncBlock)->Name("sync/actor_sync_block");

// ---- One hop from thread to thread, under load

constexpr int kHops = 20000;

/// A worker thread with a list under a mutex, and a condition variable to call it with.
class ConditionVariableHandOver {
 public:
  ConditionVariableHandOver() : thread_([this] { run(); }) {}
  ~ConditionVariableHandOver() {
    post({});
    thread_.join();
  }
  void post(std::function<void()> block) {
    {
      const std::lock_guard lock(mutex_);
      blocks_.push_back(std::move(block));
    }
    changed_.notify_one();
  }

 private:
  void run() {
    for (;;) {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return !blocks_.empty(); });
      const std::function<void()> block = std::move(blocks_.front());
      blocks_.pop_front();
      lock.unlock();
      if (!block) return;
      block();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> blocks_;
  std::thread thread_;
};

template <class Post>
void hops(benchmark::State& state, const Post& post) {
  for (auto _ : state) {
    std::atomic<int> left{kHops};
    const auto group = platform::Group::make();
    group->enter();
    for (int i = 0; i < kHops; ++i) {
      post([&left, group = group.get()] {
        if (left.fetch_sub(1, std::memory_order_relaxed) == 1) group->leave();
      });
    }
    group->wait(platform::DispatchTime::forever);
  }
  state.SetItemsProcessed(state.iterations() * kHops);
  state.counters["ns_per_hop"] = benchmark::Counter(
      static_cast<double>(kHops) * 1e-9,
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void conditionVariableHops(benchmark::State& state) {
  ConditionVariableHandOver worker;
  hops(state, [&](auto block) { worker.post(block); });
}
BENCHMARK(conditionVariableHops)
    ->Name("hop/condition_variable")
    ->MeasureProcessCPUTime()
    ->UseRealTime();

void actorHops(benchmark::State& state) {
  const auto actor = makeActor();
  hops(state, [&](auto block) { actor->asyncBlock(block); });
}
BENCHMARK(actorHops)->Name("hop/actor_async_block")->MeasureProcessCPUTime()->UseRealTime();

// ---- What posting costs the caller

constexpr int kPostsPerThread = 20000;

/// Every thread posts as fast as it can; the time of each post is taken by itself.
template <class Post>
void postCost(benchmark::State& state, const Post& post, const std::function<void()>& settle) {
  const auto threadCount = static_cast<std::size_t>(state.range(0));
  std::vector<std::int64_t> costs;
  for (auto _ : state) {
    std::vector<std::vector<std::int64_t>> perThread(threadCount);
    std::atomic<std::size_t> ready{0};
    std::vector<std::thread> threads;
    for (auto& mine : perThread) {
      threads.emplace_back([&] {
        mine.reserve(kPostsPerThread);
        ready.fetch_add(1);
        while (ready.load() < threadCount) std::this_thread::yield();
        auto before = std::chrono::steady_clock::now();
        for (int i = 0; i < kPostsPerThread; ++i) {
          post();
          const auto after = std::chrono::steady_clock::now();
          mine.push_back((after - before).count());
          before = after;
        }
      });
    }
    for (auto& thread : threads) thread.join();
    settle();
    for (const auto& mine : perThread) costs.insert(costs.end(), mine.begin(), mine.end());
  }
  std::sort(costs.begin(), costs.end());
  const auto percentile = [&costs](double share) {
    return static_cast<double>(
        costs[static_cast<std::size_t>(share * static_cast<double>(costs.size() - 1))]);
  };
  state.counters["p50_ns"] = percentile(0.5);
  state.counters["p99_ns"] = percentile(0.99);
  state.counters["p999_ns"] = percentile(0.999);
}

void mutexPostCost(benchmark::State& state) {
  std::mutex mutex;
  std::deque<std::function<void()>> blocks;
  const auto payload = std::make_shared<int>();
  postCost(
      state,
      [&] {
        const std::lock_guard lock(mutex);
        blocks.emplace_back([payload, more = std::shared_ptr<int>()] {});
      },
      [&] { blocks.clear(); });
}
BENCHMARK(mutexPostCost)->Name("post/mutex_guarded_queue")->Arg(1)->Arg(4)->Arg(8)->Iterations(5);

void actorPostCost(benchmark::State& state) {
  const auto actor = makeActor();
  const auto payload = std::make_shared<int>();
  postCost(
      state, [&] { actor->asyncBlock([payload, more = std::shared_ptr<int>()] {}); },
      [&] { actor->syncBlock([] {}); });
}
BENCHMARK(actorPostCost)->Name("post/actor_async_block")->Arg(1)->Arg(4)->Arg(8)->Iterations(5);

// ---- An event's way through a row of actors

double userSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec) * 1e-6;
}

void passOn(const std::vector<std::shared_ptr<SkeldaActor>>& stages, std::size_t at,
            const platform::GroupRef& group) {
  stages[at]->asyncBlock([&stages, at, group] {
    if (at + 1 < stages.size()) {
      passOn(stages, at + 1, group);
    } else {
      group->leave();
    }
  });
}

/// `range(0)` events at a time; the next ones start when these are through.
void pipeline(benchmark::State& state) {
  std::vector<std::shared_ptr<SkeldaActor>> stages;
  for (int i = 0; i < 5; ++i) stages.push_back(makeActor());
  const double before = userSeconds();
  for (auto _ : state) {
    const auto group = platform::Group::make();
    for (int i = 0; i < state.range(0); ++i) {
      group->enter();
      passOn(stages, 0, group);
    }
    group->wait(platform::DispatchTime::forever);
  }
  const auto events = static_cast<double>(state.iterations() * state.range(0));
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["user_us_per_event"] = (userSeconds() - before) * 1e6 / events;
}
BENCHMARK(pipeline)->Name("pipeline/five_actors")->Arg(1)->Arg(100)->Arg(10000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
