#include "Platform/Dispatch/Queue.h"

#include <array>

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/ConcurrentQueue.h"
#include "Platform/Dispatch/GlobalQueue.h"
#include "Platform/Dispatch/MainThread.h"
#include "Platform/Dispatch/SerialQueue.h"

namespace skelda::platform {

namespace {

/// What the world holds of a queue. The layer holds the queue itself, and is told when the last of
/// the world lets go.
QueueRef handleOf(std::shared_ptr<QueueCore> core) {
  Queue* const queue = core.get();
  return QueueRef(queue, [core = std::move(core)](Queue*) mutable {
    core->abandon();
    core.reset();
  });
}

}  // namespace

QueueRef Queue::serial(std::string_view label, QueueRef target) {
  return handleOf(
      makeCounted<SerialQueue>(label, target != nullptr ? std::move(target) : global()));
}

QueueRef Queue::concurrent(std::string_view label, QueueRef target) {
  return handleOf(
      makeCounted<ConcurrentQueue>(label, target != nullptr ? std::move(target) : global()));
}

const QueueRef& Queue::global(Priority priority) {
  static NeverDestroyed<std::array<QueueRef, 4>> queues([] {
    return std::array<QueueRef, 4>{
        makeCounted<GlobalQueue>("global.high", Priority::high),
        makeCounted<GlobalQueue>("global.normal", Priority::normal),
        makeCounted<GlobalQueue>("global.low", Priority::low),
        makeCounted<GlobalQueue>("global.background", Priority::background)};
  });
  return (*queues)[static_cast<std::size_t>(priority)];
}

const QueueRef& Queue::main() {
  static NeverDestroyed<QueueRef> queue(
      []() -> QueueRef { return makeCounted<SerialQueue>("main", MainThread::sharedRoot()); });
  return *queue;
}

}  // namespace skelda::platform
