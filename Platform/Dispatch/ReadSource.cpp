#include "Platform/Dispatch/ReadSource.h"

#include <mutex>
#include <utility>

#include "Platform/Dispatch/ReadWatcher.h"

namespace skelda::platform {

namespace {

class WatchedDescriptor final : public ReadSource,
                                public ReadListener,
                                public std::enable_shared_from_this<WatchedDescriptor> {
 public:
  WatchedDescriptor(int descriptor, QueueRef queue)
      : descriptor_(descriptor), queue_(std::move(queue)) {}
  ~WatchedDescriptor() override { cancel(); }

  void beginWatching() {
    watch_ = ReadWatcher::shared().add(descriptor_,
                                       std::static_pointer_cast<ReadListener>(shared_from_this()));
  }

  void setEventHandler(std::function<void()> handler) override {
    const std::lock_guard lock(mutex_);
    if (!cancelled_) handler_ = std::move(handler);
  }

  void setCancelHandler(Block handler) override {
    const std::lock_guard lock(mutex_);
    if (!cancelled_) cancelHandler_ = std::move(handler);
  }

  void resume() override {
    const std::lock_guard lock(mutex_);
    resumed_ = true;
    if (!cancelled_) ReadWatcher::shared().arm(watch_, descriptor_);
  }

  void cancel() override {
    std::function<void()> handler;  // what it holds goes after the lock
    Block cancelHandler;
    {
      const std::lock_guard lock(mutex_);
      if (std::exchange(cancelled_, true)) return;
      handler = std::move(handler_);
      cancelHandler = std::move(cancelHandler_);
      ReadWatcher::shared().remove(watch_, descriptor_);
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
      const std::lock_guard lock(mutex_);
      // A hang-up is told even of a descriptor that is not armed; arming tells it again.
      if (!cancelled_ && resumed_) handler = handler_;
    }
    if (!handler) return;
    handler();
    resume();
  }

  const int descriptor_;
  const QueueRef queue_;
  ReadWatcher::WatchId watch_ = 0;
  std::mutex mutex_;
  std::function<void()> handler_;
  Block cancelHandler_;
  bool resumed_ = false;
  bool cancelled_ = false;
};

}  // namespace

std::shared_ptr<ReadSource> ReadSource::make(int descriptor, QueueRef queue) {
  auto source = std::make_shared<WatchedDescriptor>(descriptor, std::move(queue));
  source->beginWatching();
  return source;
}

}  // namespace skelda::platform
