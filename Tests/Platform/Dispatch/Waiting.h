#pragma once

#include "Platform/Dispatch/Queue.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

class Happening {
 public:
  explicit Happening(int times = 1) {
    for (int i = 0; i < times; ++i) group_->enter();
  }
  void happen() const { group_->leave(); }
  [[nodiscard]] bool cameInTime(std::chrono::nanoseconds limit = 20s) const {
    return group_->wait(dispatchTimeAfter(limit)) == 0;
  }

 private:
  GroupRef group_ = Group::make();
};

inline void expectDrained(const QueueRef& queue) {
  const Happening drained;
  queue->barrierAsync([drained] { drained.happen(); });
  EXPECT_TRUE(drained.cameInTime());
}

}  // namespace skelda::testing
