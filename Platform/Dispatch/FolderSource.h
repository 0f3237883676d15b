#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Dispatch/Queue.h"

namespace skelda::platform {

/// What happened to a watched folder, as bits.
enum FolderEvent : unsigned {
  kFolderWritten = 1,  ///< an entry came, went or was renamed; an overflow counts as this
  kFolderGone = 2,     ///< the folder itself was removed, renamed or unmounted
};

/// Watches one open folder (inotify, on the layer's one event thread). Made suspended; the handlers
/// run on `queue`, which is serial, the cancel handler exactly once, after the last event. Letting
/// go of the last reference cancels as well. Any thread.
class FolderSource {
 public:
  /// Watches what `descriptor` (of a folder, O_PATH will do) stands for. The descriptor stays the
  /// caller's and may be closed in the cancel handler.
  static std::shared_ptr<FolderSource> make(int descriptor, QueueRef queue);
  /// Whether the folder is watched. A source that was made of a bad descriptor, or while the system
  /// had no watch to give, is not, and never fires: whoever needs one makes another, later.
  virtual bool stands() const noexcept = 0;
  virtual void setEventHandler(std::function<void(unsigned events)> handler) = 0;
  virtual void setCancelHandler(Block handler) = 0;
  virtual void resume() = 0;
  /// The next removal of that entry is the caller's own, and not told. Said before it is removed.
  virtual void expectRemoval(const std::string& name) = 0;
  virtual void cancel() = 0;

 protected:
  ~FolderSource() = default;
};

}  // namespace skelda::platform
