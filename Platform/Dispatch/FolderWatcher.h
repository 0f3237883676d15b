#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace skelda::platform {

/// Hears of what happens to a folder, as FolderEvent bits, on the event thread.
class FolderListener : public std::enable_shared_from_this<FolderListener> {
 public:
  virtual ~FolderListener() = default;
  virtual void folderChanged(unsigned events) = 0;
};

/// The one inotify instance of the process. Any thread.
class FolderWatcher {
 public:
  static FolderWatcher& shared();

  /// False when the descriptor does not stand for a folder, or the system refuses.
  bool add(int descriptor, const std::shared_ptr<FolderListener>& listener);
  /// Nothing is told to the listener after a call that has begun is over.
  void remove(const FolderListener& listener) noexcept;

 private:
  using WatchId = int;
  using Told = std::vector<std::pair<std::shared_ptr<FolderListener>, unsigned>>;

  struct Folder {
    const FolderListener* identity;
    std::weak_ptr<FolderListener> listener;
    int descriptor;  // of our own: tells whether the folder is still linked anywhere
    WatchId folder;
    WatchId parent;  // -1: none
    bool gone = false;
  };

  FolderWatcher();
  static void readEvents(void* self);
  void take(WatchId watch, std::uint32_t mask, Told& told);
  void dropWatch(WatchId watch) noexcept;
  WatchId watchParentOf(int descriptor) noexcept;

  const int inotify_;
  std::mutex mutex_;
  std::vector<Folder> folders_;
  std::map<WatchId, std::uint32_t> users_;
};

}  // namespace skelda::platform
