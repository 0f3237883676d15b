#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

namespace skelda::platform {

/// The one thread that waits for descriptors: timers, folder events and the tick of the pool.
/// It comes with the first of them and sleeps while none has anything to say.
class EventLoop {
 public:
  using Handler = void (*)(void* context);

  static EventLoop& shared();

  /// Calls the handler, on the thread, whenever the descriptor can be read. For good; there is room
  /// for the few that the layer has. Says so in the log when the system refuses.
  void watch(int descriptor, Handler handler, void* context) noexcept;
  /// Calls WorkerPool::tick() once, in a millisecond; or does not, after all.
  void setPoolTick(bool on) noexcept;

 private:
  struct Watch {
    Handler handler;
    void* context;
  };

  EventLoop();
  static void run(void* self);
  static void tickPool(void* self);
  bool ensureThread() noexcept;

  int epoll_;
  int tick_;
  std::mutex mutex_;
  std::array<Watch, 8> watches_{};
  std::size_t watchCount_ = 0;
  std::atomic<bool> started_{false};
};

}  // namespace skelda::platform
