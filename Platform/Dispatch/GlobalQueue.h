#pragma once

#include "Platform/Dispatch/QueueCore.h"

namespace skelda::platform {

/// A root: hands its work to the pool. Barriers and suspensions mean nothing to it.
class GlobalQueue final : public QueueCore {
 public:
  GlobalQueue(std::string_view label, Priority priority)
      : QueueCore(label, nullptr, false), priority_(priority) {}

  void push(Work* work) override;
  bool tryEnter(bool) override { return true; }
  void leave() override {}
  void suspend() override {}
  void resume() override {}

 private:
  Priority priority_;
};

}  // namespace skelda::platform
