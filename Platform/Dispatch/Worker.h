#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Dispatch/StealingRing.h"
#include "Platform/Dispatch/WorkerPool.h"

namespace skelda::platform {

/// One thread of the pool, or the place of one.
struct WorkerPool::Worker {
  StealingRing ring;
  std::atomic<std::uint32_t> woken{0};
  std::atomic<std::uint32_t> progress{0};  // blocks run so far
  std::atomic<bool> yield{false};          // the tick asks for the end of this turn
  std::uint32_t turns = 0;
  void* spareWork = nullptr;  // each begins with a pointer to the next
  std::uint32_t spareWorkCount = 0;
  std::uint32_t blockingDepth = 0;
  bool mayBeOneTooMany = false;

  const Worker* watched = nullptr;  // whose ring held a single piece at the last poll
  std::uint32_t watchedTaken = 0;

  std::uint32_t takenBefore = 0;  // the tick's own

  // Under the pool's lock.
  bool hasThread = false;
  bool isIdle = false;
  Worker* nextIdle = nullptr;  // or retired

  Worker* nextOfAll = nullptr;  // never changes once it is in the list
};

/// The worker that the calling thread is; null for other threads.
extern thread_local WorkerPool::Worker* thisWorker __attribute__((tls_model("initial-exec")));

}  // namespace skelda::platform
