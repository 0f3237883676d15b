#include "Platform/Dispatch/Queue.h"

#include "Platform/Dispatch/ConcurrentQueue.h"
#include "Platform/Dispatch/GlobalQueue.h"
#include "Platform/Dispatch/MainThread.h"
#include "Platform/Dispatch/SerialQueue.h"

namespace skelda::platform {

QueueRef Queue::serial(std::string_view label, QueueRef target) {
  return std::make_shared<SerialQueue>(label, target != nullptr ? std::move(target) : global());
}

QueueRef Queue::concurrent(std::string_view label, QueueRef target) {
  return std::make_shared<ConcurrentQueue>(label, target != nullptr ? std::move(target) : global());
}

const QueueRef& Queue::global(Priority priority) {
  static const auto* const queues =
      new QueueRef[]{std::make_shared<GlobalQueue>("global.high", Priority::high),
                     std::make_shared<GlobalQueue>("global.normal", Priority::normal),
                     std::make_shared<GlobalQueue>("global.low", Priority::low),
                     std::make_shared<GlobalQueue>("global.background", Priority::background)};
  return queues[static_cast<std::size_t>(priority)];
}

const QueueRef& Queue::main() {
  static const auto* const queue =
      new QueueRef(std::make_shared<SerialQueue>("main", MainThread::sharedRoot()));
  return *queue;
}

}  // namespace skelda::platform
