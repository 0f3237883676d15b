#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Benchmarks/AgentBenchmark/Measurements.h"
#include "Skelda_Watch/SkeldaWatch.h"

namespace measure {

namespace {

using Clock = std::chrono::steady_clock;

/// The plain alternative: what a call has to hand over, on a queue under a mutex.
class GuardedQueue {
 public:
  void push(SkeldaValue name, SkeldaValue parameters) {
    {
      const std::lock_guard lock(mutex_);
      entries_.push_back({std::move(name), std::move(parameters), skelda::platform::Date::now()});
    }
    changed_.notify_one();
  }

 private:
  struct Entry {
    SkeldaValue name;
    SkeldaValue parameters;
    skelda::platform::Date date;
  };

  void empty(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    while (changed_.wait(lock, stop, [this] { return !entries_.empty(); })) {
      std::deque<Entry> taken;
      taken.swap(entries_);
      lock.unlock();
      taken.clear();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Entry> entries_;
  std::jthread consumer_{[this](std::stop_token stop) { empty(stop); }};
};

/// Times each call of `work` on so many threads at once, started together.
template <class Work>
Json timed(unsigned threads, std::uint64_t calls, Work work) {
  std::vector<std::vector<std::int64_t>> taken(threads);
  std::barrier together(static_cast<std::ptrdiff_t>(threads));
  {
    std::vector<std::jthread> workers;
    for (auto& times : taken) {
      times.reserve(calls);
      workers.emplace_back([&times, &together, &work, calls] {
        together.arrive_and_wait();
        for (std::uint64_t i = 0; i < calls; ++i) {
          // A host has made its values by the time it calls: only the call counts.
          SkeldaValue name = kName;
          SkeldaValue parameters = fiveParameters(i);
          const auto began = Clock::now();
          work(std::move(name), std::move(parameters));
          times.push_back((Clock::now() - began).count());
        }
      });
    }
  }
  std::vector<std::int64_t> all;
  for (const auto& times : taken) all.insert(all.end(), times.begin(), times.end());
  std::sort(all.begin(), all.end());
  return {{"p50_ns", all[all.size() / 2]}, {"p99_ns", all[all.size() * 99 / 100]}};
}

}  // namespace

Json callCost(unsigned threads, std::uint64_t calls) {
  Json result{{"threads", threads}};
  {
    GuardedQueue queue;
    result["limit"] = timed(threads, calls, [&queue](SkeldaValue name, SkeldaValue parameters) {
      queue.push(std::move(name), std::move(parameters));
    });
  }
  logEvent(0);  // the first call is measured elsewhere
  rest();
  std::atomic<std::uint64_t> refused{0};
  result["agent"] = timed(threads, calls, [&refused](SkeldaValue name, SkeldaValue parameters) {
    if (SkeldaWatch::logWatchEvent(std::move(name), std::move(parameters)) != 1) ++refused;
  });
  result["refused"] = refused.load();
  return result;
}

Json firstCall() {
  SkeldaValue name = kName;
  SkeldaValue parameters = fiveParameters(1);
  const auto began = Clock::now();
  const auto accepted = SkeldaWatch::logWatchEvent(std::move(name), std::move(parameters));
  const std::chrono::duration<double, std::milli> took = Clock::now() - began;
  return {{"ms", took.count()}, {"accepted", accepted}};
}

}  // namespace measure
