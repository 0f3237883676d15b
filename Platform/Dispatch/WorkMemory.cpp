#include <atomic>
#include <new>
#include <utility>

#include "Platform/Dispatch/Work.h"
#include "Platform/Dispatch/Worker.h"

namespace skelda::platform {

namespace {

constexpr std::size_t kRoom = 128;  // what nearly every piece fits into
constexpr std::uint32_t kMostSpare = 64;
constexpr std::uint32_t kBatch = kMostSpare / 2;

/// Where memory is watched for misuse each piece has its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeeps = false;
#else
constexpr bool kKeeps = true;
#endif

/// A list of kBatch pieces, or nothing: from a worker that runs more than it makes to one that
/// makes more than it runs.
constinit std::atomic<void*> spareBatch{nullptr};

void*& nextOf(void* piece) noexcept {
  return *static_cast<void**>(piece);
}

/// False where a batch waits already.
bool passBatchOn(WorkerPool::Worker& me) noexcept {
  if (spareBatch.load(std::memory_order_relaxed) != nullptr) return false;
  void* last = me.spareWork;
  for (std::uint32_t i = 1; i < kBatch; ++i) last = nextOf(last);
  void* const rest = std::exchange(nextOf(last), nullptr);
  void* none = nullptr;
  if (!spareBatch.compare_exchange_strong(none, me.spareWork, std::memory_order_release)) {
    nextOf(last) = rest;
    return false;
  }
  me.spareWork = rest;
  me.spareWorkCount -= kBatch;
  return true;
}

}  // namespace

void* takeWorkMemory(std::size_t size) {
  if (!kKeeps || size > kRoom) return ::operator new(size);
  WorkerPool::Worker* const me = thisWorker;
  if (me == nullptr) return ::operator new(kRoom);
  if (me->spareWork == nullptr) {
    me->spareWork = spareBatch.exchange(nullptr, std::memory_order_acquire);
    if (me->spareWork == nullptr) return ::operator new(kRoom);
    me->spareWorkCount = kBatch;
  }
  --me->spareWorkCount;
  return std::exchange(me->spareWork, nextOf(me->spareWork));
}

void giveBackWorkMemory(void* room, std::size_t size) noexcept {
  WorkerPool::Worker* const me = thisWorker;
  if (!kKeeps || size > kRoom || me == nullptr ||
      (me->spareWorkCount == kMostSpare && !passBatchOn(*me))) {
    return ::operator delete(room);
  }
  ++me->spareWorkCount;
  nextOf(room) = std::exchange(me->spareWork, room);
}

}  // namespace skelda::platform
