#include "Platform/Dispatch/GlobalQueue.h"

#include "Platform/Dispatch/WorkerPool.h"

namespace skelda::platform {

void GlobalQueue::push(Work* work) {
  WorkerPool::shared().submit(work, priority_);
}

}  // namespace skelda::platform
