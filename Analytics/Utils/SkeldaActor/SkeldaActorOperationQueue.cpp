#include "Analytics/Utils/SkeldaActor/SkeldaActorOperationQueue.h"

#include <utility>

#include "Platform/Base/Counted.h"

constinit const bool AKOperationQueue_SupportsUnderlyingQueue =
    platform::OperationQueue::supportsUnderlyingQueue();

SkeldaActorOperationQueue::SkeldaActorOperationQueue(std::shared_ptr<SkeldaActor> owner)
    : owner_(std::move(owner)) {
  if (owner_ == nullptr) SkeldaActor::raiseInvalidParameter("actor");
  if (AKOperationQueue_SupportsUnderlyingQueue) setUnderlyingQueue(owner_->queue());
}

/// Only the main() of the given operation is called, as a block of the owner.
platform::OperationRef SkeldaActorOperationQueue::replacementFor(
    platform::OperationRef operation) const {
  if (operation == nullptr) SkeldaActor::raiseInvalidParameter("operation");
  auto inner = platform::makeCounted<platform::Block>(
      owner_->wrapAsyncBlock([operation = std::move(operation)] { operation->main(); }));
  if (AKOperationQueue_SupportsUnderlyingQueue) {
    return platform::makeCounted<platform::BlockOperation>([inner] { (*inner)(); });
  }
  return platform::makeCounted<platform::BlockOperation>(
      [inner, queue = owner_->queue()] { queue->barrierSync(*inner); });
}

void SkeldaActorOperationQueue::addOperation(platform::OperationRef operation) {
  OperationQueue::addOperation(replacementFor(std::move(operation)));
}

void SkeldaActorOperationQueue::addOperations(const std::vector<platform::OperationRef>& operations,
                                              bool waitUntilFinished) {
  std::vector<platform::OperationRef> replacements;
  replacements.reserve(operations.size());
  for (const auto& operation : operations) replacements.push_back(replacementFor(operation));
  OperationQueue::addOperations(replacements, waitUntilFinished);
}
