#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace skelda::platform {

/// A move-only callable without arguments, with room inside for a few captured pointers.
/// An empty block is false and must not be called.
class Block {
 public:
  static constexpr std::size_t kInlineSize = 64;

  Block() noexcept = default;
  Block(std::nullptr_t) noexcept {}
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, Block> && std::is_invocable_v<F&>)
      Block(F&& f) {  // NOLINT: callables convert to blocks
    using Callable = std::decay_t<F>;
    if constexpr (fitsInline<Callable>()) {
      ::new (static_cast<void*>(storage_)) Callable(std::forward<F>(f));
      operate_ = &operateInline<Callable>;
    } else {
      ::new (static_cast<void*>(storage_)) Callable*(new Callable(std::forward<F>(f)));
      operate_ = &operateBoxed<Callable>;
    }
  }
  Block(Block&& other) noexcept { take(other); }
  Block& operator=(Block&& other) noexcept {
    if (this != &other) {
      reset();
      take(other);
    }
    return *this;
  }
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { reset(); }

  explicit operator bool() const noexcept { return operate_ != nullptr; }
  void operator()() { operate_(Step::call, storage_, nullptr); }

 private:
  enum class Step : std::uint8_t {
    call,  ///< alone may throw
    move,  ///< and destroy what was moved from
    destroy
  };

  template <class C>
  static constexpr bool fitsInline() {
    return sizeof(C) <= kInlineSize && alignof(C) <= alignof(std::max_align_t) &&
           std::is_nothrow_move_constructible_v<C>;
  }
  template <class C>
  static C* as(void* storage) noexcept {
    return std::launder(static_cast<C*>(storage));
  }
  // All that is done with a callable is one function of its type, of which there are many.
  template <class C>
  static void operateInline(Step step, void* storage, void* to) {
    C& callable = *as<C>(storage);
    if (step == Step::call) return static_cast<void>(callable());
    if (step == Step::move) ::new (to) C(std::move(callable));
    callable.~C();
  }
  template <class C>
  static void operateBoxed(Step step, void* storage, void* to) {
    C* const callable = *as<C*>(storage);
    if (step == Step::call) return static_cast<void>((*callable)());
    if (step == Step::move) {
      ::new (to) C*(callable);
    } else {
      delete callable;
    }
  }

  void take(Block& other) noexcept {
    operate_ = std::exchange(other.operate_, nullptr);
    if (operate_ != nullptr) operate_(Step::move, other.storage_, storage_);
  }
  void reset() noexcept {
    if (operate_ != nullptr) std::exchange(operate_, nullptr)(Step::destroy, storage_, nullptr);
  }

  alignas(std::max_align_t) std::byte storage_[kInlineSize];
  void (*operate_)(Step step, void* storage, void* to) = nullptr;
};

/// A reference to a callable that outlives the call it is passed to: what synchronous submissions
/// take, without an allocation.
class BlockRef {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, BlockRef> && std::is_invocable_v<F&>)
      BlockRef(F&& f)
  noexcept  // NOLINT: callables convert to references
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        call_([](void* object) { (*static_cast<std::remove_reference_t<F>*>(object))(); }) {}
  void operator()() const { call_(object_); }

 private:
  void* object_;
  void (*call_)(void*);
};

}  // namespace skelda::platform
