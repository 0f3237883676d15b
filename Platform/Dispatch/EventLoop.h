#pragma once

#include <atomic>
#include <chrono>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Wanted.h"

namespace skelda::platform {

/// The one thread that waits for descriptors: timers, folder events and the tick of the pool.
/// It comes with the first of them and sleeps while none has anything to say. Where the system
/// refuses it something, it comes later.
class EventLoop final : public Wanted {
 public:
  /// A descriptor that the thread waits for, made when it is first asked for. Lives for ever.
  class Source final : public Wanted {
   public:
    using Make = int (*)(const void* context) noexcept;
    using Call = void (*)(void* context);

    /// `readable` is called on the thread whenever there is something to read; `late`, on any
    /// thread, once the system has given what descriptor() was refused. Each gets `context`.
    Source(Make make, Call readable, Call late, void* context) noexcept
        : make_(make), readable_(readable), late_(late), context_(context) {}
    /// -1 while the system refuses.
    int get() noexcept;

   private:
    friend class EventLoop;
    bool obtain() noexcept override;

    const Make make_;
    const Call readable_;
    const Call late_;
    void* const context_;
    std::atomic<int> descriptor_{-1};
    std::atomic<bool> watched_{false};
  };

  static EventLoop& shared();

  /// Calls WorkerPool::tick() once, so much later; zero: does not, after all.
  void setPoolTick(std::chrono::nanoseconds after) noexcept;
  /// Has the thread ask for what is wanted; false where there is no thread.
  bool keepAsking() noexcept;

 private:
  static void run(void* self);
  void run();
  static void tell(const Source& source) noexcept;
  bool obtain() noexcept override;
  bool watch(Source& source) noexcept;
  bool stand() noexcept REQUIRES(mutex_);
  void arm(std::chrono::nanoseconds after) const noexcept;

  Mutex mutex_;
  // Both stay what they are once the thread stands.
  int epoll_ = -1;
  int tick_ = -1;
  bool tickIsWatched_ GUARDED_BY(mutex_) = false;
  std::atomic<bool> stands_{false};
  std::atomic<std::chrono::nanoseconds> tickAfter_{};
  std::atomic<bool> asks_{false};  // wakes up by itself, to ask for what is wanted
};

}  // namespace skelda::platform
