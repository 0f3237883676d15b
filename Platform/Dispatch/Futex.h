#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Dispatch/Time.h"

namespace skelda::platform {

/// Sleeps while `word` holds `expected`, at most until `deadline`; may return early. False when the
/// deadline has come.
bool futexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
               DispatchTime deadline = DispatchTime::forever) noexcept;
/// Wakes up to `count` sleepers. The word itself is not touched, it may be gone already.
void futexWake(std::atomic<std::uint32_t>& word, int count) noexcept;

/// Lets the processor breathe in a short loop that polls.
inline void relaxProcessor() noexcept {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield");
#endif
}

}  // namespace skelda::platform
