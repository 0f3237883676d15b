#pragma once

#include <memory>

#include "Platform/Dispatch/Block.h"
#include "Platform/Dispatch/Time.h"

namespace skelda::platform {

class Group;
class Queue;
using GroupRef = std::shared_ptr<Group>;

/// Counts work and tells when none is left. Safe from any thread.
class Group : public std::enable_shared_from_this<Group> {
 public:
  static GroupRef make();
  virtual void enter() = 0;
  /// Leaving more often than entering is an error that ends the process.
  virtual void leave() = 0;
  /// Submits the block to `queue` each time it is asked, once the group is empty; at once when it
  /// is empty now.
  virtual void notify(const std::shared_ptr<Queue>& queue, Block block) = 0;
  /// 0 when the group emptied, non-zero when `deadline` came first.
  virtual long wait(DispatchTime deadline) = 0;

 protected:
  ~Group() = default;
};

}  // namespace skelda::platform
