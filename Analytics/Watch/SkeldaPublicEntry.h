#pragma once

#include <exception>
#include <memory>
#include <utility>

#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Analytics/Utils/SkeldaGuardedResult.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Log.h"
#include "Platform/Dispatch/Once.h"

namespace skelda {

/// What every call of the public face goes through: nothing that is thrown reaches the host, and a
/// call from inside a log sink is refused, because the agent may be holding what it would wait for.
template <class Result, class Body>
Result publicEntry(Result refused, Body&& body) noexcept {
  if (platform::Log::insideSink()) return refused;
  return guardedResult(std::move(refused), std::forward<Body>(body));
}

template <class Body>
void publicEntry(Body&& body) noexcept {
  publicEntry(0, [&] {
    std::forward<Body>(body)();
    return 0;
  });
}

/// The manager, for what a host says beside its events; null where there is none. Makes it where
/// this is the first thing the host says: the message then waits in the core, which is said once.
inline std::shared_ptr<SkeldaWatchStreamManager> publicManager() {
  static constinit platform::Once once;
  const auto manager = SkeldaWatchStreamManager::manager();
  if (manager != nullptr && !manager->isStarted()) {
    once([] {
      SKELDA_LOG(2, "Skelda: what is said before the first event waits in memory until then");
    });
  }
  return manager;
}

/// The source that takes what a host says beside its events; null without a manager.
template <class Source>
std::shared_ptr<Source> publicSource() {
  const auto manager = publicManager();
  return manager ? manager->module<Source>() : nullptr;
}

}  // namespace skelda
