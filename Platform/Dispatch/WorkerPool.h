#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/RunRing.h"
#include "Platform/Dispatch/WorkList.h"

namespace skelda::platform {

/// The threads that everything but the main queue runs on.
///
/// Each worker has a list of its own: what a block submits stays with the thread that runs it, so a
/// pipeline of queues costs no wake-up per hop. Other threads submit to a shared list. Another
/// worker is woken when the shared list gets work and nobody is looking for some, when a worker's
/// list backs up, and when a worker says that it blocks. What none of these sees (a block that sits
/// in a system call) is seen by a tick: while a worker's list holds anything, the event thread
/// looks in every millisecond, lets somebody take what has lain still, asks for the end of long
/// turns, and adds a worker when none gets on.
///
/// At most as many workers run as there are processors, not counting those that wait for others.
/// Idle ones sleep; all but one of them go after a while.
class WorkerPool {
 public:
  static WorkerPool& shared();

  /// From any thread. Takes the work as it is.
  void submit(Work* work, Queue::Priority priority);
  /// The calling thread, if it is a worker, waits (and no longer does). Calls nest.
  void beginBlocking() noexcept;
  void endBlocking() noexcept;
  /// For the event thread, when the time that was set has come.
  void tick() noexcept;

 private:
  struct Worker;
  using Lock = std::unique_lock<std::mutex>;
  static constexpr std::size_t kPriorities = 4;

  WorkerPool();

  void inject(Work* work, Queue::Priority priority) noexcept;
  void appendInjected(Work* work, std::size_t priority) noexcept;
  Work* popInjected() noexcept;
  Work* takeInjected() noexcept;
  void armTick() noexcept;
  void disarmTick() noexcept;

  Worker* recruit() noexcept;
  void recruitAndRelease(Lock& lock) noexcept;
  Worker* workerWithoutThread() noexcept;
  void retire(Worker& worker) noexcept;
  std::uint32_t running() const noexcept;

  static void runWorker(void* worker);
  void run(Worker& me);
  Work* next(Worker& me);
  Work* search(Worker& me);
  Work* steal(Worker& me) noexcept;
  void stopSearching() noexcept;
  bool makeRoom(Worker& me);
  bool sleep(Worker& me, Lock& lock) noexcept;
  void emptyRing(Worker& me) noexcept;

  bool anythingWaits() const noexcept;
  bool lookAround(bool& lyingStill) noexcept;
  void relieve(bool lyingStill) noexcept;

  const std::uint32_t limit_;  // workers that run at a time
  std::atomic<bool> tickArmed_{false};
  std::atomic<std::uint32_t> injected_{0};   // in the shared lists
  std::atomic<std::uint32_t> searching_{0};  // look for work, or have been woken to
  std::atomic<std::uint32_t> blocked_{0};
  std::atomic<Worker*> all_{nullptr};  // ever made; never freed, used again

  std::mutex mutex_;  // for what follows
  WorkList lists_[kPriorities];
  std::uint32_t takings_ = 0;
  std::uint32_t total_ = 0;
  std::uint32_t idle_ = 0;
  std::uint32_t extra_ = 0;  // above the limit, since the others are stuck
  Worker* idleWorkers_ = nullptr;
  Worker* retired_ = nullptr;

  std::mutex tickMutex_;  // for arming and disarming; taken after the other

  // The tick's own.
  std::uint64_t progressBefore_ = 0;
  std::uint32_t stuckTicks_ = 0;
};

}  // namespace skelda::platform
