#pragma once

#include <functional>
#include <memory>

#include "Platform/Dispatch/Queue.h"

namespace skelda::platform {

/// Tells when a descriptor (a socket, a pipe) has something to read, an end of file and an error
/// included. Made suspended; the handlers run on `queue`. Each event is told once and the source is
/// armed again when its handler has returned, so a handler reads what is there or as much as it
/// likes. Any thread.
class ReadSource {
 public:
  /// The descriptor stays the caller's, is open while the source lives, and may be closed in the
  /// cancel handler.
  static std::shared_ptr<ReadSource> make(int descriptor, QueueRef queue);
  virtual void setEventHandler(std::function<void()> handler) = 0;
  /// Runs exactly once, after the last event.
  virtual void setCancelHandler(Block handler) = 0;
  virtual void resume() = 0;
  /// Nothing is told until the next resume() (a handler that is running goes on), and whoever
  /// writes at the other end finds it full before long.
  virtual void suspend() = 0;
  virtual void cancel() = 0;

 protected:
  ~ReadSource() = default;
};

}  // namespace skelda::platform
