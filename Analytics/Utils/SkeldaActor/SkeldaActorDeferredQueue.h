#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

/// A gate in front of an actor: blocks wait in order while the gate is closed and then run on the
/// actor's queue, in its context. A new gate is closed until its first resume(). It does not keep
/// its actor alive, but a waiting block does. Any thread.
class SkeldaActorDeferredQueue {
 public:
  /// Not to be used: raises "Not to be directly allocated".
  SkeldaActorDeferredQueue();
  /// A missing description or actor raises.
  SkeldaActorDeferredQueue(std::optional<std::string> description,
                           const std::shared_ptr<SkeldaActor>& actor);

  void suspend();
  /// Calls are to be balanced: nothing guards against one too many.
  void resume();
  std::uint32_t suspendCount() const;
  const platform::QueueRef& queue() const noexcept { return queue_; }
  std::shared_ptr<SkeldaActor> actor() const { return actor_.lock(); }

  /// As the actor's, once the gate is open. When the actor is gone the block is dropped.
  template <SkeldaActorBlock F>
  void asyncBlock(F&& block) {
    if (const auto owner = actor_.lock()) queue_->post(owner->wrapped(std::forward<F>(block)));
  }
  /// Waits until the gate is open and the block has run, except from inside the actor: there it
  /// runs at once, so that the actor never waits for its own gate.
  template <SkeldaActorBlock F>
  void syncBlock(F&& block) {
    if (SkeldaActor::isNull(block)) return;
    if constexpr (!std::is_null_pointer_v<std::remove_cvref_t<F>>) {
      const platform::QueueRef queue = queue_;  // The block may drop the gate.
      if (const auto owner = actor_.lock())
        owner->runSync(platform::BlockRef(block), *queue, false);
    }
  }

 private:
  std::uint32_t suspendCount_ GUARDED_BY(skeldaActorLock) = 0;
  platform::QueueRef queue_;
  std::weak_ptr<SkeldaActor> actor_;
};
