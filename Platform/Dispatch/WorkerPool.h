#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/Wanted.h"
#include "Platform/Dispatch/WorkList.h"

namespace skelda::platform {

/// The threads that everything but the main queue runs on.
///
/// Each worker has a list of its own: what a block submits stays with the thread that runs it, so a
/// pipeline of queues costs no wake-up per hop. Other threads submit to a shared list. Another
/// worker is woken when the shared list gets work and nobody is looking for some, when a worker's
/// list backs up, and when a worker says that it blocks. What none of these sees (a block that sits
/// in a system call) is seen by a tick: while a worker's list holds anything, the event thread
/// looks in after a millisecond, or up to 32 where it mostly finds nothing lying still, lets
/// somebody take what has, asks for the end of long turns, and adds a worker when none gets on.
///
/// At most as many workers run as there are processors, not counting those that wait for others.
/// Idle ones sleep; all but one of them go after a while.
class WorkerPool final : public Wanted {
 public:
  struct Worker;

  static WorkerPool& shared();

  /// From any thread. Takes the work as it is.
  void submit(Work* work, Queue::Priority priority);
  /// The calling thread, if it is a worker, waits (and no longer does). Calls nest.
  void beginBlocking() noexcept;
  void endBlocking() noexcept;
  /// For the event thread, when the time that was set has come.
  void tick() noexcept;
  /// Has an idle worker, or a new one where there is none, ask for what is wanted.
  void keepAsking() noexcept;

 private:
  /// Somebody who has been called to look for work and is yet to be woken, or given a thread.
  struct Called {
    Worker* worker = nullptr;
    bool sleeps = false;
  };
  /// How one goes to sleep.
  struct Sleep {
    DispatchTime deadline;
    bool last;  // of those who ran
  };
  enum class Waiting { nothing, moving, lyingStill };
  static constexpr std::size_t kPriorities = 4;

  WorkerPool();

  void inject(Work* work, Queue::Priority priority) noexcept;
  void appendInjected(Work* work, std::size_t priority) noexcept REQUIRES(mutex_);
  Work* popInjected() noexcept REQUIRES(mutex_);
  Work* takeInjected() noexcept;
  void armTick() noexcept;
  void disarmTick() noexcept;

  Called callSomebody() noexcept REQUIRES(mutex_);
  void wake(Called called) noexcept EXCLUDES(mutex_);
  bool obtain() noexcept override;
  Worker* workerWithoutThread() noexcept REQUIRES(mutex_);
  void retire(Worker& worker) noexcept REQUIRES(mutex_);
  std::uint32_t running() const noexcept REQUIRES(mutex_);

  static void runWorker(void* worker);
  void run(Worker& me);
  Work* next(Worker& me);
  Work* search(Worker& me);
  Work* steal(Worker& me) noexcept;
  void stopSearching() noexcept;
  bool makeRoom(Worker& me);
  Sleep becomeIdle(Worker& me) noexcept REQUIRES(mutex_);
  bool sleep(Worker& me, Sleep how) noexcept EXCLUDES(mutex_);
  bool mayGo(Worker& me) noexcept;
  void emptyRing(Worker& me) noexcept REQUIRES(mutex_);

  bool anythingWaits() const noexcept;
  Waiting lookAround() noexcept;
  void hurry() noexcept;
  void helpOut() noexcept;

  const std::uint32_t limit_;  // workers that run at a time
  std::atomic<bool> tickArmed_{false};
  std::atomic<std::chrono::milliseconds> tickAfter_{std::chrono::milliseconds(1)};
  std::atomic<std::uint32_t> injected_{0};   // in the shared lists
  std::atomic<std::uint32_t> searching_{0};  // look for work, or have been woken to
  std::atomic<std::uint32_t> blocked_{0};
  std::atomic<Worker*> all_{nullptr};  // ever made; never freed, used again

  Mutex mutex_;
  WorkList lists_[kPriorities] GUARDED_BY(mutex_);
  std::uint32_t injectedTaken_ GUARDED_BY(mutex_) = 0;  // from the shared lists, so far
  std::uint32_t total_ GUARDED_BY(mutex_) = 0;
  std::uint32_t idle_ GUARDED_BY(mutex_) = 0;
  std::uint32_t extra_ GUARDED_BY(mutex_) = 0;  // above the limit, since the others are stuck
  Worker* idleWorkers_ GUARDED_BY(mutex_) = nullptr;
  Worker* retired_ GUARDED_BY(mutex_) = nullptr;

  Mutex tickMutex_;  // for arming and disarming; taken after the other

  // The tick's own.
  std::uint64_t progressBefore_ = 0;
  std::uint32_t stuckTicks_ = 0;
};

}  // namespace skelda::platform
