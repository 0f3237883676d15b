#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/EventLoop.h"

namespace skelda::platform {

/// Hears of what happens to a folder, as FolderEvent bits, on the event thread.
class FolderListener : public std::enable_shared_from_this<FolderListener> {
 public:
  virtual void folderChanged(unsigned events) = 0;

 protected:
  ~FolderListener() = default;
};

/// The one inotify instance of the process. Any thread.
class FolderWatcher {
 public:
  static FolderWatcher& shared();

  /// False, and errno, when the descriptor does not stand for a folder, or the system refuses.
  bool add(int descriptor, const std::shared_ptr<FolderListener>& listener);
  /// The listener's own removal of that entry is not told to it.
  void expectRemoval(const FolderListener& listener, const std::string& name);
  /// Nothing is told to the listener after a call that has begun is over.
  void remove(const FolderListener& listener) noexcept;

 private:
  using WatchId = int;
  static constexpr WatchId kNoWatch = -1;

  struct Folder {
    const FolderListener* identity;
    std::weak_ptr<FolderListener> listener;
    int descriptor;  // of our own: tells whether the folder is still linked anywhere
    WatchId folder;
    WatchId parent;  // or none
    bool gone = false;
    unsigned due = 0;                                       // events, not yet told
    std::set<std::string, std::less<>> expectedRemovals{};  // of names
  };

  static int make(const void*) noexcept;
  static void readEvents(void* self);
  // Neither allocates: an event that was read is not lost.
  void take(WatchId watch, std::uint32_t mask, std::string_view name) noexcept REQUIRES(mutex_);
  bool tellOne();
  void dropWatch(WatchId watch) noexcept REQUIRES(mutex_);
  WatchId addWatch(const std::string& path, std::uint32_t events) REQUIRES(mutex_);
  int watchParentOf(Folder& folder) REQUIRES(mutex_);

  // Nothing to make up for when it comes late: nobody has a watch before.
  EventLoop::Source inotify_{&FolderWatcher::make, &FolderWatcher::readEvents, [](void*) {}, this};
  Mutex mutex_;
  std::vector<Folder> folders_ GUARDED_BY(mutex_);
  std::map<WatchId, std::uint32_t> users_ GUARDED_BY(mutex_);
};

}  // namespace skelda::platform
