#include "Platform/Base/Counted.h"

namespace skelda::platform {
namespace {

/// Gives the count the room that is there for it, and gives the room back when the count goes.
template <class T>
struct InRoom {
  using value_type = T;
  explicit InRoom(void* memory) noexcept : room(memory) {}
  template <class U>
  InRoom(const InRoom<U>& other) noexcept : room(other.room) {}  // NOLINT: as allocators convert

  T* allocate(std::size_t) noexcept {
    static_assert(sizeof(T) <= CountedRoom::kCount);
    return static_cast<T*>(room);
  }
  void deallocate(T* count, std::size_t) noexcept { ::operator delete(count); }
  template <class U>
  bool operator==(const InRoom<U>& other) const noexcept {
    return room == other.room;
  }

  void* room;
};

}  // namespace

CountedRoom::~CountedRoom() {
  ::operator delete(memory_);
}

std::shared_ptr<void>&& CountedRoom::handOver(End end) noexcept {
  void* const filled = object();
  counted_ = {filled, end, InRoom<void>(std::exchange(memory_, nullptr))};
  return std::move(counted_);
}

std::shared_ptr<void> countedWithEnd(void* fresh, CountedRoom::End end) {
  return {fresh, end};
}

}  // namespace skelda::platform
