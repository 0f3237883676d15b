#pragma once

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

/// Holds SkeldaActor_Lock.
class SkeldaActorLockGuard {
 public:
  SkeldaActorLockGuard() noexcept { pthread_mutex_lock(&SkeldaActor_Lock); }
  ~SkeldaActorLockGuard() { pthread_mutex_unlock(&SkeldaActor_Lock); }
  SkeldaActorLockGuard(const SkeldaActorLockGuard&) = delete;
  SkeldaActorLockGuard& operator=(const SkeldaActorLockGuard&) = delete;
};
