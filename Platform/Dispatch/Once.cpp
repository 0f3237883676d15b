#include "Platform/Dispatch/Once.h"

#include <climits>

#include "Platform/Base/Log.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Dispatch/Futex.h"
#include "Platform/Dispatch/Wanted.h"

namespace skelda::platform {

namespace {

/// A number that no other living thread has.
std::uint64_t thisThread() noexcept {
  static thread_local char mark;
  return reinterpret_cast<std::uintptr_t>(&mark);
}

}  // namespace

bool Once::runSlowly(BlockRef body) {
  std::uint32_t state = kNew;
  if (state_.compare_exchange_strong(state, kRunning, std::memory_order_acquire)) {
    runner_.store(thisThread(), std::memory_order_relaxed);
    struct Finishing {
      Once& once;
      ~Finishing() {
        once.runner_.store(0, std::memory_order_relaxed);
        once.state_.store(kDone, std::memory_order_release);
        futexWake(once.state_, INT_MAX);
      }
    } const finishing{*this};
    body();
    return true;
  }
  if (state == kRunning && runner_.load(std::memory_order_relaxed) == thisThread()) {
    Log::write("platform::Once: the body calls its own guard, which counts as done for it");
    return false;
  }
  const BlockingRegion region;
  while (state_.load(std::memory_order_acquire) != kDone) Wanted::wait(state_, kRunning);
  return false;
}

}  // namespace skelda::platform
