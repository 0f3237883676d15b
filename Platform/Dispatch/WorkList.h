#pragma once

#include <utility>

#include "Platform/Dispatch/Work.h"

namespace skelda::platform {

/// A plain list of work, oldest first, for whoever holds its lock.
class WorkList {
 public:
  bool empty() const noexcept { return first_ == nullptr; }
  /// Only when there is one.
  const Work& first() const noexcept { return *first_; }

  void append(Work* work) noexcept {
    work->next.store(nullptr, std::memory_order_relaxed);
    if (first_ == nullptr) {
      first_ = work;
    } else {
      last_->next.store(work, std::memory_order_relaxed);
    }
    last_ = work;
  }
  /// Null when it is empty.
  Work* pop() noexcept {
    if (first_ == nullptr) return nullptr;
    return std::exchange(first_, first_->next.load(std::memory_order_relaxed));
  }

 private:
  Work* first_ = nullptr;
  Work* last_ = nullptr;
};

}  // namespace skelda::platform
