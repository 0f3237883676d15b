#include "Platform/Dispatch/Futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "Platform/Dispatch/TimeParts.h"

namespace skelda::platform {

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
  const long result =
      syscall(SYS_futex, &word, operation, expected, limitOrNone, nullptr, FUTEX_BITSET_MATCH_ANY);
  return result == 0 || errno != ETIMEDOUT;
}

void futexWake(std::atomic<std::uint32_t>& word, int count) noexcept {
  syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
}

}  // namespace skelda::platform
