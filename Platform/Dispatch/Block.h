#pragma once

#include <cstddef>
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
      operations_ = &kInline<Callable>;
    } else {
      ::new (static_cast<void*>(storage_)) Callable*(new Callable(std::forward<F>(f)));
      operations_ = &kBoxed<Callable>;
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

  explicit operator bool() const noexcept { return operations_ != nullptr; }
  void operator()() { operations_->call(storage_); }

 private:
  struct Operations {
    void (*call)(void* storage);
    void (*move)(void* from, void* to) noexcept;  // and destroys what it moved from
    void (*destroy)(void* storage) noexcept;
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
  template <class C>
  static constexpr Operations kInline{[](void* s) { (*as<C>(s))(); },
                                      [](void* from, void* to) noexcept {
                                        ::new (to) C(std::move(*as<C>(from)));
                                        as<C>(from)->~C();
                                      },
                                      [](void* s) noexcept { as<C>(s)->~C(); }};
  template <class C>
  static constexpr Operations kBoxed{
      [](void* s) { (**as<C*>(s))(); },
      [](void* from, void* to) noexcept { ::new (to) C*(*as<C*>(from)); },
      [](void* s) noexcept { delete *as<C*>(s); }};

  void take(Block& other) noexcept {
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) operations_->move(other.storage_, storage_);
  }
  void reset() noexcept {
    if (operations_ != nullptr) std::exchange(operations_, nullptr)->destroy(storage_);
  }

  alignas(std::max_align_t) std::byte storage_[kInlineSize];
  const Operations* operations_ = nullptr;
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
