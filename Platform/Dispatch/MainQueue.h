#pragma once

#include "../Base/Export.h"

namespace skelda::platform {

/// The main queue and who serves it. Without the host's help a thread of the layer's own does.
class SKELDA_EXPORT MainQueue {
 public:
  /// Serves the main queue on the calling thread, which is the main thread from here on, until
  /// stop() is called from anywhere; then the layer's own thread takes the queue back. A second
  /// caller meanwhile gets false at once. A stop() that came while nobody was serving ends the next
  /// call at once, so a host may post the block that stops it before it begins to serve.
  static bool run();
  static void stop();
  /// Whether the calling thread is the one that serves the main queue.
  static bool isMainThread() noexcept;
};

}  // namespace skelda::platform
