#include "Analytics/Utils/SkeldaActor/SkeldaActorDeferredQueue.h"

#include "Analytics/Utils/SkeldaActor/SkeldaActorLockGuard.h"

SkeldaActorDeferredQueue::SkeldaActorDeferredQueue() {
  platform::assertionFailure("Not to be directly allocated");
}

SkeldaActorDeferredQueue::SkeldaActorDeferredQueue(std::optional<std::string> description,
                                                   const std::shared_ptr<SkeldaActor>& actor)
    : actor_(actor) {
  if (!description.has_value()) SkeldaActor::raiseInvalidParameter("description");
  if (actor == nullptr) SkeldaActor::raiseInvalidParameter("actor");
  queue_ = platform::Queue::concurrent(*description, actor->queue());
  queue_->suspend();
  suspendCount_ = 1;
}

void SkeldaActorDeferredQueue::suspend() {
  const SkeldaActorLockGuard lock;
  ++suspendCount_;
  queue_->suspend();
}

void SkeldaActorDeferredQueue::resume() {
  const SkeldaActorLockGuard lock;
  --suspendCount_;
  queue_->resume();
}

std::uint32_t SkeldaActorDeferredQueue::suspendCount() const {
  const SkeldaActorLockGuard lock;
  return suspendCount_;
}
