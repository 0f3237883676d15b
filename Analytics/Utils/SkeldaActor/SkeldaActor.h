#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>

#include "Analytics/Utils/SkeldaGuards.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Block.h"
#include "Platform/Dispatch/Group.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/Time.h"
#include "Platform/Dispatch/Work.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

class SkeldaActorDeferredQueue;
class SkeldaActorOperationQueue;

/// The first line of every `onqueue_` method of an actor: a sanitizer build ends the process when
/// the method runs anywhere but on its actor.
#ifdef SKELDA_CHECK_QUEUES
#define SKELDA_ON_QUEUE() this->assertRunningInActor()
#else
#define SKELDA_ON_QUEUE() static_cast<void>(0)
#endif

/// Guards every actor's active thread, the making of its operation queue and the suspend counts of
/// deferred queues. Held for a few instructions; no code of a block ever runs under it.
extern pthread_mutex_t SkeldaActor_Lock;

/// The same lock as the compiler's analysis knows it.
class CAPABILITY("mutex") SkeldaActorLock {
 public:
  void lock() ACQUIRE() { pthread_mutex_lock(&SkeldaActor_Lock); }
  void unlock() RELEASE() { pthread_mutex_unlock(&SkeldaActor_Lock); }
};
inline constinit SkeldaActorLock skeldaActorLock;

/// The key of the calling thread's slot that holds the actor it runs.
inline constexpr std::string_view kSkeldaActorCurrentActor = "kSkeldaActorCurrentActor";

/// As a callback queue: call back at once, on the calling thread. Stands for one real queue on
/// which nothing is ever run; that queue is made on first use, so a static initialiser may name it.
struct SkeldaActorNoQueue {
  operator const platform::QueueRef&() const;  // NOLINT: it is a queue
  friend bool operator==(const platform::QueueRef& a, SkeldaActorNoQueue b) {
    return a == static_cast<const platform::QueueRef&>(b);
  }
};
inline constexpr SkeldaActorNoQueue kSkeldaActorNoQueue{};

/// A callable, or null where a block may be left out.
template <class F>
concept SkeldaActorBlock =
    std::is_null_pointer_v<std::remove_cvref_t<F>> || std::is_invocable_v < std::decay_t<F>
& > ;

/// An object with a serial queue of its own, on which all of its state is touched. Public methods
/// post to the queue, `onqueue_` methods run there. The actor knows which thread runs inside it, so
/// a synchronous call from within runs inline instead of dead-locking. Every operation is safe from
/// any thread.
///
///     void Counter::add(int n) { post<&Counter::onqueue_add>(n); }
///     void Counter::onqueue_add(int n) {
///       SKELDA_ON_QUEUE();
///       count_ += n;
///     }
///
/// An actor lives in a shared pointer: make it with made(), which then calls didInit(). No
/// constructor uses selfOf(this).
class SkeldaActor : public platform::Object, public std::enable_shared_from_this<SkeldaActor> {
 public:
  /// What the platform waits for a group with.
  using WaitResult = long;
  using ExceptionHandOff = std::function<void(const platform::Exception&)>;

  /// Not to be used: raises "Description is required".
  SkeldaActor();
  /// The description labels the queue; a missing one raises. With a target the actor's blocks run
  /// on that queue, so that several actors can be funnelled through one.
  explicit SkeldaActor(std::optional<std::string> description, platform::QueueRef target = nullptr);
  virtual ~SkeldaActor();
  SkeldaActor(const SkeldaActor&) = delete;
  SkeldaActor& operator=(const SkeldaActor&) = delete;

  /// Takes over a fresh actor and tells it so: the first moment at which it may post work and hand
  /// out references to itself.
  template <class T>
  static std::shared_ptr<T> made(T* fresh) {
    return {takenOver(fresh), fresh};
  }
  template <class T>
  static std::shared_ptr<T> selfOf(T* self) {
    return std::shared_ptr<T>(self->shared_from_this(), self);
  }
  /// The actor whose block the calling thread is running, or null.
  static std::shared_ptr<SkeldaActor> currentActor();

  virtual void didInit() {}
  std::string_view className() const noexcept override { return "SkeldaActor"; }
  const platform::QueueRef& queue() const noexcept { return queue_; }
  /// The thread that is running a block of this actor; no thread's id when none is.
  std::thread::id activeThread() const;

  /// Runs the block on the actor and returns when it has finished; inline when the calling thread
  /// is inside the actor already. What the block throws reaches the caller. Null does nothing.
  template <SkeldaActorBlock F>
  void syncBlock(F&& block) {
    if (isNull(block)) return;
    if constexpr (!std::is_null_pointer_v<std::remove_cvref_t<F>>) {
      runSync(platform::BlockRef(block), *queue_, true);
    }
  }

  /// Posts the block and returns at once. What it throws is dropped (and counted, see
  /// skelda::swallowedExceptions). The block holds the actor until it has run. Null raises.
  template <SkeldaActorBlock F>
  void asyncBlock(F&& block) {
    if (isNull(block)) raiseInvalidParameter("block");
    if constexpr (!std::is_null_pointer_v<std::remove_cvref_t<F>>) {
      postMade([&] { return std::decay_t<F>(std::forward<F>(block)); });
    }
  }
  /// The group is entered now and left when the block has run. Without a group like asyncBlock.
  template <SkeldaActorBlock F>
  void asyncBlock(F&& block, const platform::GroupRef& group) {
    if (group == nullptr) return asyncBlock(std::forward<F>(block));
    queue_->groupAsync(group, wrapped(std::forward<F>(block)));
  }
  template <SkeldaActorBlock F>
  void asyncBlock(F&& block, std::int64_t delayInNanoseconds) {
    queue_->after(platform::dispatchTimeAfter(std::chrono::nanoseconds(delayInNanoseconds)),
                  wrapped(std::forward<F>(block)));
  }
  /// At that time of the wall clock, whose changes are followed.
  template <SkeldaActorBlock F>
  void asyncBlock(F&& block, const platform::Date& date) {
    queue_->after(dispatchTimeOf(date), wrapped(std::forward<F>(block)));
  }

  /// Posts a call of a method of this actor, with copies of the arguments: what a public method
  /// does when an `onqueue_` method does the work.
  ///
  ///     void Counter::add(int n) { post<&Counter::onqueue_add>(n); }
  template <auto Method, class... Arguments>
  void post(Arguments&&... arguments) {
    auto* const self = static_cast<ClassOf<decltype(Method)>*>(this);  // The block holds the actor.
    postMade([&] {
      return
          [self, ... kept = std::decay_t<Arguments>(std::forward<Arguments>(arguments))]() mutable {
            (self->*Method)(std::move(kept)...);
          };
    });
  }

  void groupEnter(const platform::GroupRef& group) { group->enter(); }
  void groupLeave(const platform::GroupRef& group) { group->leave(); }
  template <SkeldaActorBlock F>
  void groupNotify(F&& block, const platform::GroupRef& group) {
    group->notify(queue_, wrapped(std::forward<F>(block)));
  }
  /// 0 when the group emptied in time; runs nothing on the actor.
  WaitResult syncGroup(const platform::GroupRef& group, platform::DispatchTime timeout) {
    return group->wait(timeout);
  }

  /// Delivers a callback outside the actor: inline for kSkeldaActorNoQueue, else on the queue given
  /// or on the global one. The block has neither the actor's context nor its guard. Null raises.
  template <SkeldaActorBlock F>
  void asyncCallback(F&& callback, const platform::QueueRef& queue = nullptr) {
    if (isNull(callback)) raiseInvalidParameter("callback");
    runCallback(std::forward<F>(callback), queue);
  }

  /// Runs the block on the main thread and waits, inline when this is the main thread. Null does
  /// nothing.
  template <SkeldaActorBlock F>
  void syncMainThreadBlock(F&& block) {
    if (isNull(block)) return;
    if constexpr (!std::is_null_pointer_v<std::remove_cvref_t<F>>) {
      runOnMainThread(platform::BlockRef(block));
    }
  }

  /// The block in the context of this actor, with `thread` as its active thread. A platform
  /// exception is given to `handOff` (which runs while it is being handled); anything else that is
  /// thrown passes.
  platform::Block wrapSyncBlock(platform::Block block, ExceptionHandOff handOff,
                                std::thread::id thread);
  /// The block in the context of this actor, on whichever thread runs it, to be run once. Whatever
  /// it throws is dropped. Null raises.
  template <SkeldaActorBlock F>
  platform::Block wrapAsyncBlock(F&& block) {
    return wrapped(std::forward<F>(block));
  }

  /// Ends the process unless the calling thread runs a block of this actor.
  void assertRunningInActor() const;

  std::shared_ptr<SkeldaActorDeferredQueue> createDeferredQueueWithDescription(
      std::optional<std::string> description);
  /// Made on first use. It holds its actor, so an actor that made one lives on until it is unset.
  std::shared_ptr<SkeldaActorOperationQueue> operationQueue();
  void setOperationQueue(std::shared_ptr<SkeldaActorOperationQueue> queue);

 private:
  friend class SkeldaActorDeferredQueue;
  friend class SkeldaActorOperationQueue;

  /// While it lives the calling thread runs inside the actor. Entries nest; leaving restores what
  /// was before.
  class Context {
   public:
    explicit Context(SkeldaActor& actor) noexcept : Context(actor, callingThread()) {}
    Context(SkeldaActor& actor, std::thread::id owner) noexcept;
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

   private:
    SkeldaActor& actor_;
    SkeldaActor* previousActor_;
    std::thread::id previousThread_;
    std::thread::id previousCaller_;
  };

  template <class Method>
  struct MethodOf;
  template <class Result, class Self, class... Parameters>
  struct MethodOf<Result (Self::*)(Parameters...)> {
    using Class = Self;
  };
  template <class Method>
  using ClassOf = typename MethodOf<Method>::Class;

  template <class F>
  static bool isNull(const F& block) noexcept {
    if constexpr (std::is_null_pointer_v<F>) {
      return true;
    } else if constexpr (std::is_constructible_v<bool, const F&>) {
      return !static_cast<bool>(block);
    } else {
      return false;
    }
  }

  /// What is done with the body of a posted block.
  enum class Step : bool { run, drop };
  /// Runs the body in the context of this actor, where what it throws is dropped and counted, and
  /// drops it there, so that what it held may still call into the actor as it goes.
  void runInside(void* body, void (*take)(void* body, Step step)) noexcept;

  /// A posted block as its queue keeps it, with its body behind it: one kind of work for all
  /// blocks, whose types differ in nothing but how their body is run and dropped.
  struct alignas(std::max_align_t) Posted : platform::Work {
    using Take = void (*)(void* body, Step step);
    Posted(std::shared_ptr<SkeldaActor> actor, Take takeBody, std::size_t sizeOfAll) noexcept
        : Work(Kind::block, &finishAndGiveBack),
          self(std::move(actor)),
          take(takeBody),
          size(sizeOfAll) {}
    void* body() noexcept { return this + 1; }
    static void finishAndGiveBack(Work* work, bool run);

    std::shared_ptr<SkeldaActor> self;
    Take take;
    std::size_t size;
  };
  /// With room for a body, and none in it; the caller's to send or to give back.
  Posted* newPosted(std::size_t sizeOfBody, Posted::Take take);
  static void giveBack(Posted* posted) noexcept;
  /// Gives back what was not sent. Inlined, it is no code where nothing is thrown.
  struct Unsent {
    [[gnu::always_inline]] ~Unsent() {
      if (posted != nullptr) giveBack(posted);
    }
    Posted* posted;
  };

  /// Posts the body that `make` returns, which is made where it is kept.
  template <class Make>
  void postMade(Make make) {
    using Body = decltype(make());
    static_assert(alignof(Body) <= alignof(std::max_align_t));
    Posted* const posted = newPosted(sizeof(Body), [](void* kept, Step step) {
      Body& body = *static_cast<Body*>(kept);
      step == Step::run ? static_cast<void>(body()) : body.~Body();
    });
    Unsent unsent{posted};
    ::new (posted->body()) Body(make());
    unsent.posted = nullptr;
    queue_->barrierPostWork(posted);
  }

  /// wrapAsyncBlock for any callable, in one piece with it.
  template <SkeldaActorBlock F>
  auto wrapped(F&& block) {
    if (isNull(block)) raiseInvalidParameter("block");
    if constexpr (std::is_null_pointer_v<std::remove_cvref_t<F>>) {
      return [] {};
    } else {
      using Body = std::optional<std::decay_t<F>>;
      return [self = shared_from_this(), body = Body(std::forward<F>(block))]() mutable {
        self->runInside(&body, [](void* kept, Step step) {
          auto& held = *static_cast<Body*>(kept);
          step == Step::run ? static_cast<void>((*held)()) : held.reset();
        });
      };
    }
  }

  /// Counted as an actor, whatever it is: one kind of count for all.
  static std::shared_ptr<SkeldaActor> takenOver(SkeldaActor* fresh);
  /// Whom the calling thread works for: itself, or the thread that waits for the block it runs.
  static std::thread::id callingThread() noexcept;
  [[noreturn]] static void raiseInvalidParameter(std::string_view parameter);
  static platform::DispatchTime dispatchTimeOf(const platform::Date& date) noexcept;
  void runSync(platform::BlockRef block, platform::Queue& on, bool barrier);
  static void runOnMainThread(platform::BlockRef block);
  static void runCallback(platform::Block callback, const platform::QueueRef& queue);

  std::shared_ptr<SkeldaActorOperationQueue> operationQueue_ GUARDED_BY(skeldaActorLock);
  platform::QueueRef queue_;
  std::thread::id activeThread_ GUARDED_BY(skeldaActorLock);
};
