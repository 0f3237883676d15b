#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

namespace skelda::platform {

/// A process-wide object that is made on first use and never destroyed: queues and threads work on
/// while the process exits, and find it whole. For function-local statics:
///
///     static NeverDestroyed<Names> names(made);
///     static NeverDestroyed<Engine> engine([] { return Engine(); });  // a private constructor
template <class T>
class NeverDestroyed {
 public:
  NeverDestroyed() requires std::is_default_constructible_v<T> {
    ::new (static_cast<void*>(storage_)) T();
  }
  /// From what `make` answers, which is not moved.
  template <class F>
  requires std::is_same_v<std::invoke_result_t<F>, T>
  explicit NeverDestroyed(F&& make) {
    ::new (static_cast<void*>(storage_)) T(std::forward<F>(make)());
  }
  template <class... Arguments>
  requires std::is_constructible_v<T, Arguments...>
  explicit NeverDestroyed(Arguments&&... arguments) {
    ::new (static_cast<void*>(storage_)) T(std::forward<Arguments>(arguments)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }
  T* operator->() noexcept { return &**this; }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
};

}  // namespace skelda::platform
