#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace skelda::platform {

/// Hears, on the event thread, that its descriptor has something to read.
class ReadListener {
 public:
  virtual ~ReadListener() = default;
  virtual void descriptorReady() = 0;
};

/// The descriptors of all read sources, behind one descriptor of the event thread. A descriptor is
/// told of once, until it is armed again. Any thread.
class ReadWatcher {
 public:
  using WatchId = std::uint64_t;

  static ReadWatcher& shared();
  /// 0 when the system refuses: nothing will be told.
  WatchId add(int descriptor, std::weak_ptr<ReadListener> listener);
  void arm(WatchId watch, int descriptor) noexcept;
  /// Nothing is told after a call that has begun is over.
  void remove(WatchId watch, int descriptor) noexcept;

 private:
  ReadWatcher();
  static void takeEvents(void* self);

  const int epoll_;
  std::mutex mutex_;
  std::map<WatchId, std::weak_ptr<ReadListener>> listeners_;
  WatchId lastId_ = 0;
};

}  // namespace skelda::platform
