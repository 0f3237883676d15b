#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"

namespace skelda::platform {

/// A piece of work with a body that can be called by itself.
class Operation {
 public:
  virtual void main() = 0;

 protected:
  ~Operation() = default;
};
using OperationRef = std::shared_ptr<Operation>;

/// An operation made of a function.
class BlockOperation : public Operation {
 public:
  explicit BlockOperation(std::function<void()> body) : body_(std::move(body)) {}
  void main() override { body_(); }

 private:
  std::function<void()> body_;
};

/// Runs operations on its underlying queue, in order of addition when that queue is serial.
/// What an operation throws is dropped. Safe from any thread.
class OperationQueue {
 public:
  OperationQueue();
  virtual ~OperationQueue() = default;
  /// Whether operation queues can be given a dispatch queue to run on: they can.
  static constexpr bool supportsUnderlyingQueue() noexcept { return true; }
  /// Takes effect for operations added afterwards.
  void setUnderlyingQueue(QueueRef queue);
  QueueRef underlyingQueue() const;
  virtual void addOperation(OperationRef operation);
  /// With `waitUntilFinished`, returns when all of them have run.
  virtual void addOperations(const std::vector<OperationRef>& operations, bool waitUntilFinished);

 private:
  mutable Mutex mutex_;
  QueueRef queue_ GUARDED_BY(mutex_);
};

}  // namespace skelda::platform
