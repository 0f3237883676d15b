#include "Platform/Dispatch/FolderSource.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "Platform/Base/Counted.h"
#include "Platform/Base/LogFormat.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/FolderWatcher.h"

namespace skelda::platform {

namespace {

class WatchedFolder final : public FolderSource, public FolderListener {
 public:
  explicit WatchedFolder(QueueRef queue) : queue_(std::move(queue)) {}

  ~WatchedFolder() { cancel(); }

  bool beginWatching(int descriptor) {
    stands_ = FolderWatcher::shared().add(descriptor, shared_from_this());
    return stands_;
  }
  bool stands() const noexcept override { return stands_; }

  void setEventHandler(std::function<void(unsigned)> handler) override {
    const MutexLock lock(mutex_);
    if (!cancelled_) handler_ = std::move(handler);
  }

  void setCancelHandler(Block handler) override {
    const MutexLock lock(mutex_);
    if (!cancelled_) cancelHandler_ = std::move(handler);
  }

  void resume() override {
    {
      const MutexLock lock(mutex_);
      resumed_ = true;
    }
    postIfDue();
  }

  void expectRemoval(const std::string& name) override {
    FolderWatcher::shared().expectRemoval(*this, name);
  }

  void cancel() override {
    std::function<void(unsigned)> handler;  // what it holds goes after the lock
    Block cancelHandler;
    {
      const MutexLock lock(mutex_);
      if (std::exchange(cancelled_, true)) return;
      handler = std::move(handler_);
      cancelHandler = std::move(cancelHandler_);
    }
    FolderWatcher::shared().remove(*this);
    if (cancelHandler) queue_->barrierAsync(std::move(cancelHandler));
  }

  void folderChanged(unsigned events) override {
    {
      const MutexLock lock(mutex_);
      pending_ |= events;
    }
    postIfDue();
  }

 private:
  /// Events that come before the handler has run are told in one call. Whoever is woken by it wants
  /// the lock.
  void postIfDue() EXCLUDES(mutex_) {
    {
      const MutexLock lock(mutex_);
      if (!resumed_ || cancelled_ || posted_ || pending_ == 0) return;
      posted_ = true;
    }
    try {
      queue_->barrierPost(
          [self = std::static_pointer_cast<WatchedFolder>(shared_from_this())] { self->tell(); });
    } catch (const std::bad_alloc&) {
      const MutexLock lock(mutex_);
      posted_ = false;  // what is pending goes with the next event
      throw;
    }
  }

  void tell() {
    std::function<void(unsigned)> handler;
    unsigned events = 0;
    {
      const MutexLock lock(mutex_);
      posted_ = false;
      if (!cancelled_) handler = handler_;
      events = std::exchange(pending_, 0);
    }
    if (!handler) return;
    try {
      handler(events);
    } catch (const std::bad_alloc&) {
      const MutexLock lock(mutex_);
      pending_ |= events;  // told again with the next event
      throw;
    }
  }

  const QueueRef queue_;
  bool stands_ = false;  // as it was made
  Mutex mutex_;
  std::function<void(unsigned)> handler_ GUARDED_BY(mutex_);
  Block cancelHandler_ GUARDED_BY(mutex_);
  unsigned pending_ GUARDED_BY(mutex_) = 0;
  bool resumed_ GUARDED_BY(mutex_) = false;
  bool posted_ GUARDED_BY(mutex_) = false;
  bool cancelled_ GUARDED_BY(mutex_) = false;
};

}  // namespace

std::shared_ptr<FolderSource> FolderSource::make(int descriptor, QueueRef queue) {
  auto source = makeCounted<WatchedFolder>(std::move(queue));
  if (!source->beginWatching(descriptor)) {
    SKELDA_PLATFORM_LOG("platform::FolderSource: the folder cannot be watched: {}",
                        std::strerror(errno));
  }
  return source;
}

}  // namespace skelda::platform
