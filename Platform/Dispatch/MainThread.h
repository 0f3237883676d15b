#pragma once

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/QueueCore.h"
#include "Platform/Dispatch/Wanted.h"
#include "Platform/Dispatch/WorkList.h"

namespace skelda::platform {

/// The root below the main queue: one thread at a time serves it, the host's while that is in
/// MainQueue::run(), else one of the layer's own, which comes with the first work and goes when it
/// has had none for a while.
class MainThread final : public QueueCore, public Wanted {
 public:
  static MainThread& shared();
  static QueueRef sharedRoot();

  MainThread() : QueueCore("main thread", nullptr, true) {}

  bool serveForHost();
  void stopHost();
  static bool isCurrentThread() noexcept;
  /// Has the host, where it waits, ask for what is wanted.
  void keepAsking() noexcept;

  void push(Work* work) override;
  bool tryEnter(bool) override { return false; }
  void leave() override {}
  void suspend() override {}
  void resume() override {}
  bool runsAlone() const noexcept override { return true; }

 private:
  static void serveForLayer(void* self);
  void serveForLayer();
  bool obtain() noexcept override;
  /// A thread of the layer's, where one is needed. False when the system has none.
  bool startLayerThread() noexcept REQUIRES(mutex_);
  /// Null when there was nothing to do for a while.
  Work* nextForLayer();
  /// Null when it is to stop.
  Work* nextForHost();
  Work* takeFirst() REQUIRES(mutex_);
  void run(Work* work, const std::atomic<bool>* yield);

  Mutex mutex_;
  Condition changed_;
  WorkList waiting_ GUARDED_BY(mutex_);
  bool layerThread_ GUARDED_BY(mutex_) = false;  // one exists
  bool working_ GUARDED_BY(mutex_) = false;      // somebody runs a block
  bool host_ GUARDED_BY(mutex_) = false;         // the host serves, or waits to
  std::atomic<bool> stop_{false};  // asked of the host, and not yet obeyed; ends its turn
};

}  // namespace skelda::platform
