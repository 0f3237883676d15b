#include "Platform/Dispatch/FolderSource.h"

#include <mutex>
#include <utility>

#include "Platform/Base/Log.h"
#include "Platform/Dispatch/FolderWatcher.h"

namespace skelda::platform {

namespace {

class WatchedFolder final : public FolderSource, public FolderListener {
 public:
  explicit WatchedFolder(QueueRef queue) : queue_(std::move(queue)) {}

  ~WatchedFolder() override {
    if (cancelled_) return;
    FolderWatcher::shared().remove(*this);
    if (cancelHandler_) queue_->barrierAsync(std::move(cancelHandler_));
  }

  void setEventHandler(std::function<void(unsigned)> handler) override {
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
    postPending();
  }

  void cancel() override {
    std::function<void(unsigned)> handler;  // what it holds goes after the lock
    Block cancelHandler;
    {
      const std::lock_guard lock(mutex_);
      if (std::exchange(cancelled_, true)) return;
      handler = std::move(handler_);
      cancelHandler = std::move(cancelHandler_);
    }
    FolderWatcher::shared().remove(*this);
    if (cancelHandler) queue_->barrierAsync(std::move(cancelHandler));
  }

  void folderChanged(unsigned events) override {
    const std::lock_guard lock(mutex_);
    pending_ |= events;
    postPending();
  }

 private:
  /// Events that come before the handler has run are told in one call.
  void postPending() {
    if (!resumed_ || cancelled_ || posted_ || pending_ == 0) return;
    posted_ = true;
    queue_->barrierPost(
        [self = std::static_pointer_cast<WatchedFolder>(shared_from_this())] { self->tell(); });
  }

  void tell() {
    std::function<void(unsigned)> handler;
    unsigned events = 0;
    {
      const std::lock_guard lock(mutex_);
      posted_ = false;
      events = std::exchange(pending_, 0);
      if (!cancelled_) handler = handler_;
    }
    if (handler) handler(events);
  }

  const QueueRef queue_;
  std::mutex mutex_;
  std::function<void(unsigned)> handler_;
  Block cancelHandler_;
  unsigned pending_ = 0;
  bool resumed_ = false;
  bool posted_ = false;
  bool cancelled_ = false;
};

}  // namespace

std::shared_ptr<FolderSource> FolderSource::make(int descriptor, QueueRef queue) {
  auto source = std::make_shared<WatchedFolder>(std::move(queue));
  if (!FolderWatcher::shared().add(descriptor, source)) {
    Log::write("platform::FolderSource: the folder cannot be watched");
  }
  return source;
}

}  // namespace skelda::platform
