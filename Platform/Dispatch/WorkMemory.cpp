#include <new>
#include <utility>

#include "Platform/Dispatch/Work.h"
#include "Platform/Dispatch/Worker.h"

namespace skelda::platform {

namespace {

constexpr std::size_t kRoom = 128;  // what nearly every piece fits into
constexpr std::uint32_t kMostSpare = 64;

/// Where memory is watched for misuse each piece has its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeeps = false;
#else
constexpr bool kKeeps = true;
#endif

}  // namespace

void* takeWorkMemory(std::size_t size) {
  if (!kKeeps || size > kRoom) return ::operator new(size);
  WorkerPool::Worker* const me = thisWorker;
  if (me == nullptr || me->spareWork == nullptr) return ::operator new(kRoom);
  --me->spareWorkCount;
  return std::exchange(me->spareWork, *static_cast<void**>(me->spareWork));
}

void giveBackWorkMemory(void* room, std::size_t size) noexcept {
  WorkerPool::Worker* const me = thisWorker;
  if (!kKeeps || size > kRoom || me == nullptr || me->spareWorkCount == kMostSpare) {
    return ::operator delete(room);
  }
  ++me->spareWorkCount;
  *static_cast<void**>(room) = std::exchange(me->spareWork, room);
}

}  // namespace skelda::platform
