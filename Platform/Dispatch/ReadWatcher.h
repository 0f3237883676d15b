#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/EventLoop.h"

namespace skelda::platform {

/// Hears, on the event thread, that its descriptor has something to read.
class ReadListener {
 public:
  virtual void descriptorReady() = 0;

 protected:
  ~ReadListener() = default;
};

/// The descriptors of all read sources, behind one descriptor of the event thread. A descriptor is
/// told of once, until it is armed again; where the system refuses to, as soon as it does not. Any
/// thread.
class ReadWatcher final : public Wanted {
 public:
  using WatchId = std::uint64_t;

  static ReadWatcher& shared();
  WatchId add(int descriptor, std::weak_ptr<ReadListener> listener);
  void arm(WatchId watch) noexcept;
  /// Nothing is told after a call that has begun is over.
  void remove(WatchId watch) noexcept;

 private:
  struct Watch {
    int descriptor;
    std::weak_ptr<ReadListener> listener;
    bool isArmed = false;
    bool isKnown = false;  // to epoll
    bool isDue = true;     // the system was not told, or refused
  };

  static int make(const void*) noexcept;
  static void takeEvents(void* self);
  static void addLate(void* self);
  bool obtain() noexcept override;
  bool tell(WatchId id, Watch& watch) noexcept REQUIRES(mutex_);

  EventLoop::Source epoll_{&ReadWatcher::make, &ReadWatcher::takeEvents, &ReadWatcher::addLate,
                           this};
  Mutex mutex_;
  std::map<WatchId, Watch> watches_ GUARDED_BY(mutex_);
  WatchId lastId_ GUARDED_BY(mutex_) = 0;
};

}  // namespace skelda::platform
