#include "Platform/Foundation/OperationQueue.h"

#include <utility>

namespace skelda::platform {

namespace {

void runAndDrop(Operation& operation) noexcept {
  try {
    operation.main();
  } catch (...) {  // an operation has nobody to report to
  }
}

}  // namespace

OperationQueue::OperationQueue() : queue_(Queue::global()) {}

void OperationQueue::setUnderlyingQueue(QueueRef queue) {
  const MutexLock lock(mutex_);
  queue_ = queue != nullptr ? std::move(queue) : Queue::global();
}

QueueRef OperationQueue::underlyingQueue() const {
  const MutexLock lock(mutex_);
  return queue_;
}

void OperationQueue::addOperation(OperationRef operation) {
  underlyingQueue()->post([operation = std::move(operation)] { runAndDrop(*operation); });
}

void OperationQueue::addOperations(const std::vector<OperationRef>& operations,
                                   bool waitUntilFinished) {
  const GroupRef group = Group::make();
  const QueueRef queue = underlyingQueue();
  for (const OperationRef& operation : operations) {
    queue->groupAsync(group, [operation] { runAndDrop(*operation); });
  }
  if (waitUntilFinished) group->wait(DispatchTime::forever);
}

}  // namespace skelda::platform
