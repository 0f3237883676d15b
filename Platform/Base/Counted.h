#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace skelda::platform {

/// Memory for one object and for the count of those who share it, in this order of events: taken,
/// filled by whoever took it, handed to the count.
class CountedRoom {
 public:
  /// What the count takes of the room, in front of the object.
  static constexpr std::size_t kCount = 48;
  using End = void (*)(void* object) noexcept;

  explicit CountedRoom(std::size_t size) : memory_(::operator new(kCount + size)) {}
  ~CountedRoom();
  CountedRoom(const CountedRoom&) = delete;
  CountedRoom& operator=(const CountedRoom&) = delete;

  void* object() const noexcept { return static_cast<std::byte*>(memory_) + kCount; }
  /// The object that was made in the room, for the caller to take. Its last holder calls `end` on
  /// it; the room goes with the last who knows of it.
  std::shared_ptr<void>&& handOver(End end) noexcept;

 private:
  void* memory_;
  std::shared_ptr<void> counted_;
};

/// What std::make_shared does, in one allocation as well. That brings a class with a table, a name
/// and four functions into the library for every type that is made; here they share one, which only
/// knows how to end what it counts.
template <class T, class... Arguments>
std::shared_ptr<T> makeCounted(Arguments&&... arguments) {
  using Kept = std::remove_const_t<T>;
  if constexpr (requires(Kept & object) { object.shared_from_this(); }) {
    return std::make_shared<T>(std::forward<Arguments>(arguments)...);  // It tells the object.
  } else {
    static_assert(alignof(Kept) <= alignof(std::max_align_t));
    CountedRoom room(sizeof(Kept));
    auto* const object = ::new (room.object()) Kept(std::forward<Arguments>(arguments)...);
    return {room.handOver([](void* ended) noexcept { static_cast<Kept*>(ended)->Kept::~Kept(); }),
            object};
  }
}

/// The count of an object that was made with new, and that its last holder calls `end` on.
std::shared_ptr<void> countedWithEnd(void* fresh, CountedRoom::End end);

/// What makeCounted does, for an object that only its own class can make: one allocation more.
template <class T>
std::shared_ptr<T> counted(T* fresh) {
  static_assert(
      !requires { fresh->shared_from_this(); }, "nobody would tell it");
  using Kept = std::remove_const_t<T>;
  return {countedWithEnd(const_cast<Kept*>(fresh),
                         [](void* ended) noexcept { delete static_cast<Kept*>(ended); }),
          fresh};
}

}  // namespace skelda::platform
