#pragma once

#include <utility>

namespace skelda {

/// Runs its block when the scope that holds it is left, by whatever way.
template <class F>
class DeferredCleanup {
 public:
  explicit DeferredCleanup(F block) : block_(std::move(block)) {}
  DeferredCleanup(const DeferredCleanup&) = delete;
  DeferredCleanup& operator=(const DeferredCleanup&) = delete;
  ~DeferredCleanup() { block_(); }

 private:
  F block_;
};

}  // namespace skelda

/// `const auto cleanup = skelda_defer_cleanup_block([&] { ... });`
template <class F>
[[nodiscard]] skelda::DeferredCleanup<F> skelda_defer_cleanup_block(F block) {
  return skelda::DeferredCleanup<F>(std::move(block));
}
