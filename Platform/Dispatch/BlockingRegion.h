#pragma once

namespace skelda::platform {

/// Says that the calling thread is about to wait for other work, or for a slow device, until the
/// end of the scope: a thread of the pool then lets another take its place, and what waits in its
/// own list is taken over. Costs next to nothing when nothing is queued; does nothing on other
/// threads. Regions nest.
class BlockingRegion {
 public:
  BlockingRegion() noexcept;
  ~BlockingRegion();
  BlockingRegion(const BlockingRegion&) = delete;
  BlockingRegion& operator=(const BlockingRegion&) = delete;
};

}  // namespace skelda::platform
