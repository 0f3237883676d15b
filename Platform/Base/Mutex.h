#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// What a lock guards is said in its declaration and checked by clang's thread-safety analysis; for
// other compilers the words mean nothing.
//
//     Mutex mutex_;
//     int waiting_ GUARDED_BY(mutex_) = 0;
//     void wakeOne() REQUIRES(mutex_);
#if defined(__clang__)
#define SKELDA_THREAD_SAFETY(...) __attribute__((__VA_ARGS__))
#else
#define SKELDA_THREAD_SAFETY(...)
#endif
#define CAPABILITY(name) SKELDA_THREAD_SAFETY(capability(name))
#define SCOPED_CAPABILITY SKELDA_THREAD_SAFETY(scoped_lockable)
#define GUARDED_BY(mutex) SKELDA_THREAD_SAFETY(guarded_by(mutex))
/// What the pointer points to is guarded, not the pointer.
#define PT_GUARDED_BY(mutex) SKELDA_THREAD_SAFETY(pt_guarded_by(mutex))
/// The caller holds it.
#define REQUIRES(...) SKELDA_THREAD_SAFETY(requires_capability(__VA_ARGS__))
/// The caller does not hold it.
#define EXCLUDES(...) SKELDA_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) SKELDA_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) SKELDA_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) SKELDA_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(mutex) SKELDA_THREAD_SAFETY(lock_returned(mutex))
/// Each use says why the analysis cannot follow.
#define NO_THREAD_SAFETY_ANALYSIS SKELDA_THREAD_SAFETY(no_thread_safety_analysis)

namespace skelda::platform {

/// A mutex that the compiler knows. Taking one of these does not throw, which the standard's may
/// for uses that are none here: every caller would carry code for it.
class CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() noexcept ACQUIRE() { mutex_.lock(); }
  bool try_lock() noexcept TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() noexcept RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex_;
};

/// One that its holder may take again.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() noexcept ACQUIRE() { mutex_.lock(); }
  void unlock() noexcept RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

/// Holds a mutex while it lives, but between unlock() and lock().
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) noexcept ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() {
    if (holds_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void unlock() noexcept RELEASE() {
    holds_ = false;
    mutex_.unlock();
  }
  void lock() noexcept ACQUIRE() {
    mutex_.lock();
    holds_ = true;
  }

 private:
  friend class Condition;
  Mutex& mutex_;
  bool holds_ = true;
};

/// Holds a recursive mutex while it lives.
class SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  explicit RecursiveMutexLock(RecursiveMutex& mutex) noexcept ACQUIRE(mutex) : mutex_(mutex) {
    mutex_.lock();
  }
  ~RecursiveMutexLock() RELEASE() { mutex_.unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex& mutex_;
};

/// What a holder of a lock waits for, in a loop around the condition itself: the analysis does not
/// see through a predicate.
///
///     while (!done_) changed_.wait(lock);
class Condition {
 public:
  void wait(MutexLock& lock) noexcept { condition_.wait(Held(lock)); }
  /// False once the time has come.
  template <class Clock, class Duration>
  bool waitUntil(MutexLock& lock, const std::chrono::time_point<Clock, Duration>& deadline) {
    return condition_.wait_until(Held(lock), deadline) == std::cv_status::no_timeout;
  }
  template <class Rep, class Period>
  bool waitFor(MutexLock& lock, const std::chrono::duration<Rep, Period>& longest) {
    return condition_.wait_for(Held(lock), longest) == std::cv_status::no_timeout;
  }
  void notifyOne() noexcept { condition_.notify_one(); }
  void notifyAll() noexcept { condition_.notify_all(); }

 private:
  /// The mutex in the shape in which the standard waits with it; it stays the lock's.
  struct Held {
    explicit Held(MutexLock& held) : taken(held.mutex_.mutex_, std::adopt_lock) {}
    ~Held() { taken.release(); }
    operator std::unique_lock<std::mutex>&() { return taken; }  // NOLINT: it is one
    std::unique_lock<std::mutex> taken;
  };

  std::condition_variable condition_;
};

}  // namespace skelda::platform
