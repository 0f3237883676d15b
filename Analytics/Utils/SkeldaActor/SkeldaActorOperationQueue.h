#pragma once

#include <memory>
#include <vector>

#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Platform/Foundation/OperationQueue.h"

/// Whether operation queues can be given a dispatch queue to run on.
extern const bool AKOperationQueue_SupportsUnderlyingQueue;

/// An operation queue whose operations run as blocks of an actor: of an operation given only its
/// main() is called, in the actor's context, and what that throws is dropped. Holds its actor. No
/// actor and no operation raise; of several, nothing is added then.
class SkeldaActorOperationQueue : public platform::OperationQueue {
 public:
  explicit SkeldaActorOperationQueue(std::shared_ptr<SkeldaActor> owner);

  const std::shared_ptr<SkeldaActor>& owner() const noexcept { return owner_; }
  void addOperation(platform::OperationRef operation) override;
  void addOperations(const std::vector<platform::OperationRef>& operations,
                     bool waitUntilFinished) override;

 private:
  platform::OperationRef replacementFor(platform::OperationRef operation) const;

  std::shared_ptr<SkeldaActor> owner_;
};
