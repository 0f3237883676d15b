#include "Platform/Dispatch/ReadSource.h"

#include <utility>

#include "Platform/Base/Counted.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/ReadWatcher.h"

namespace skelda::platform {

namespace {

class WatchedDescriptor final : public ReadSource,
                                public ReadListener,
                                public std::enable_shared_from_this<WatchedDescriptor> {
 public:
  WatchedDescriptor(int descriptor, QueueRef queue)
      : descriptor_(descriptor), queue_(std::move(queue)) {}
  ~WatchedDescriptor() { cancel(); }

  void beginWatching() {
    watch_ = ReadWatcher::shared().add(descriptor_,
                                       std::static_pointer_cast<ReadListener>(shared_from_this()));
  }

  void setEventHandler(std::function<void()> handler) override {
    const MutexLock lock(mutex_);
    if (!cancelled_) handler_ = std::move(handler);
  }

  void setCancelHandler(Block handler) override {
    const MutexLock lock(mutex_);
    if (!cancelled_) cancelHandler_ = std::move(handler);
  }

  void resume() override {
    const MutexLock lock(mutex_);
    resumed_ = true;
    armIfWanted();
  }

  void suspend() override {
    const MutexLock lock(mutex_);
    resumed_ = false;
  }

  void cancel() override {
    std::function<void()> handler;  // what it holds goes after the lock
    Block cancelHandler;
    {
      const MutexLock lock(mutex_);
      if (std::exchange(cancelled_, true)) return;
      handler = std::move(handler_);
      cancelHandler = std::move(cancelHandler_);
      ReadWatcher::shared().remove(watch_);
    }
    if (cancelHandler) queue_->barrierAsync(std::move(cancelHandler));
  }

  void descriptorReady() override {
    queue_->barrierAsync([self = shared_from_this()] { self->tell(); });
  }

 private:
  void tell() {
    std::function<void()> handler;
    {
      const MutexLock lock(mutex_);
      // A hang-up is told even of a descriptor that is not armed; arming tells it again.
      if (!cancelled_ && resumed_) handler = handler_;
    }
    if (!handler) return;
    handler();
    const MutexLock lock(mutex_);
    armIfWanted();
  }

  void armIfWanted() REQUIRES(mutex_) {
    if (resumed_ && !cancelled_) ReadWatcher::shared().arm(watch_);
  }

  const int descriptor_;
  const QueueRef queue_;
  ReadWatcher::WatchId watch_ = 0;
  Mutex mutex_;
  std::function<void()> handler_ GUARDED_BY(mutex_);
  Block cancelHandler_ GUARDED_BY(mutex_);
  bool resumed_ GUARDED_BY(mutex_) = false;
  bool cancelled_ GUARDED_BY(mutex_) = false;
};

}  // namespace

std::shared_ptr<ReadSource> ReadSource::make(int descriptor, QueueRef queue) {
  auto source = makeCounted<WatchedDescriptor>(descriptor, std::move(queue));
  source->beginWatching();
  return source;
}

}  // namespace skelda::platform
