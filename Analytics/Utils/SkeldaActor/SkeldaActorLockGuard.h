#pragma once

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

/// Holds SkeldaActor_Lock.
class SCOPED_CAPABILITY SkeldaActorLockGuard {
 public:
  SkeldaActorLockGuard() noexcept ACQUIRE(skeldaActorLock) { skeldaActorLock.lock(); }
  ~SkeldaActorLockGuard() RELEASE() { skeldaActorLock.unlock(); }
  SkeldaActorLockGuard(const SkeldaActorLockGuard&) = delete;
  SkeldaActorLockGuard& operator=(const SkeldaActorLockGuard&) = delete;
};
