#pragma once

#include <condition_variable>
#include <mutex>

#include "Platform/Dispatch/QueueCore.h"
#include "Platform/Dispatch/WorkList.h"

namespace skelda::platform {

/// The root below the main queue: one thread at a time serves it, the host's while that is in
/// MainQueue::run(), else one of the layer's own, which comes with the first work and goes when it
/// has had none for a while.
class MainThread final : public QueueCore {
 public:
  static MainThread& shared();
  static QueueRef sharedRoot();

  MainThread() : QueueCore("main thread", nullptr, true) {}

  bool serveForHost();
  void stopHost();
  static bool isCurrentThread() noexcept;

  void push(Work* work) override;
  bool tryEnter(bool) override { return false; }
  void leave() override {}
  void suspend() override {}
  void resume() override {}
  void setTarget(QueueRef) override {}

 private:
  using Lock = std::unique_lock<std::mutex>;

  static void serveForLayer(void* self);
  void serveForLayer();
  void startLayerThread(Lock& lock);
  void runFirst(Lock& lock);

  std::mutex mutex_;
  std::condition_variable changed_;
  WorkList waiting_;
  bool layerThread_ = false;  // one exists
  bool working_ = false;      // somebody runs a block
  bool host_ = false;         // the host serves, or waits to
  bool stop_ = false;         // asked of the host, and not yet obeyed
};

}  // namespace skelda::platform
