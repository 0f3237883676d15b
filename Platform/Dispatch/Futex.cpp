#include "Platform/Dispatch/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "Platform/Dispatch/TimeParts.h"

namespace skelda::platform {

namespace {

/// FUTEX_WAIT_BITSET with the times that this build has: by the system's own name, a 32-bit kernel
/// takes them with 32 bits.
long wait(std::atomic<std::uint32_t>& word, int operation, std::uint32_t expected,
          const timespec* limit) noexcept {
#ifdef SYS_futex_time64
  const long result =
      syscall(SYS_futex_time64, &word, operation, expected, limit, nullptr, FUTEX_BITSET_MATCH_ANY);
  if (result == 0 || errno != ENOSYS) return result;
  // Before Linux 5.1 there was the other one only.
  long narrow[2] = {};
  if (limit != nullptr) {
    narrow[0] = static_cast<long>(std::min<std::int64_t>(limit->tv_sec, LONG_MAX));
    narrow[1] = limit->tv_nsec;
  }
  const void* const deadline = limit != nullptr ? narrow : nullptr;
#else
  const void* const deadline = limit;
#endif
  return syscall(SYS_futex, &word, operation, expected, deadline, nullptr, FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

bool futexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
               DispatchTime deadline) noexcept {
  int operation = FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG;
  timespec limit{};
  const timespec* limitOrNone = nullptr;
  if (deadline != DispatchTime::forever) {
    if (isWallClock(deadline)) operation |= FUTEX_CLOCK_REALTIME;
    limit = timespecOf(nanosecondsOf(deadline));
    limitOrNone = &limit;
  }
  return wait(word, operation, expected, limitOrNone) == 0 || errno != ETIMEDOUT;
}

void futexWake(std::atomic<std::uint32_t>& word, int count) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

}  // namespace skelda::platform
