#pragma once

#include <functional>
#include <new>
#include <optional>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Intake/Journal/SkeldaIntake.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Platform/Base/Log.h"
#include "Platform/Foundation/Value.h"

namespace skelda {

/// Why no call may go in at this moment, if so: in a forked child all there is belongs to the
/// parent, and inside a log sink the agent may be holding what the call would wait for.
inline std::optional<SkeldaRefusal> refusalAtTheDoor() noexcept {
  if (SkeldaIntake::isForkedChild()) return SkeldaRefusal::forkedChild;
  if (platform::Log::insideSink()) return SkeldaRefusal::insideSink;
  return std::nullopt;
}

/// What every call of the public face goes through: nothing that is thrown reaches the host.
template <class Result, class Body>
Result publicEntry(Result refused, Body&& body) noexcept {
  if (refusalAtTheDoor()) return refused;
  return guardedResult(std::move(refused), std::forward<Body>(body));
}

template <class Body>
void publicEntry(Body&& body) noexcept {
  publicEntry(0, [&] {
    std::forward<Body>(body)();
    return 0;
  });
}

/// The same for a call that has an effect: one that is refused is counted.
template <class Result, class Body>
Result effectiveEntry(Result refused, Body&& body) noexcept {
  if (const auto reason = refusalAtTheDoor()) {
    SkeldaAccounting::refused(*reason);
    return refused;
  }
  return guardedResult(refused, [&] {
    try {
      return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
      SkeldaAccounting::refused(SkeldaRefusal::noMemory);
      return refused;
    }
  });
}

/// What must hold before anything is kept: an API key, and that this is a watch extension. It holds
/// for good. `what` is an event or a choice, as the log has it.
bool mayKeep(const char* what);

/// Keeps a choice, which starts nothing: what the host says of its user. False where it is refused.
bool keepChoice(SkeldaIntakeCall::Kind kind, SkeldaIntakeCall::Values values);

/// keepChoice() for the values of a call, which go with it.
template <class... Given>
void choice(SkeldaIntakeCall::Kind kind, Given... values) noexcept {
  effectiveEntry(false, [&] { return keepChoice(kind, {std::cref<platform::Value>(values)...}); });
}

}  // namespace skelda
