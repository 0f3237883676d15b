#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"

#include "Analytics/Utils/SkeldaActor/SkeldaActorDeferredQueue.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActorLockGuard.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActorOperationQueue.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/MainQueue.h"

// Spins a little before it sleeps: it is never held for long.
constinit pthread_mutex_t SkeldaActor_Lock = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;

namespace {

// The slot of kSkeldaActorCurrentActor. Whoever is in it is held by the block that put it there.
thread_local SkeldaActor* currentActorOfThread __attribute__((tls_model("initial-exec"))) = nullptr;

// Who waits for the block that the thread runs; nobody's id while it works for itself.
thread_local std::thread::id waitingCaller __attribute__((tls_model("initial-exec")));

constexpr std::string_view kInvalidParameter = "Invalid parameter not satisfying: ";

}  // namespace

SkeldaActorNoQueue::operator const platform::QueueRef&() const {
  static platform::NeverDestroyed<platform::QueueRef> queue(
      platform::Queue::serial("com.skelda.ActorNoDispatchQueue"));
  return *queue;
}

SkeldaActor::SkeldaActor() {
  platform::assertionFailure("Description is required");
}

SkeldaActor::SkeldaActor(std::optional<std::string> description, platform::QueueRef target) {
  if (!description.has_value()) raiseInvalidParameter("description");
  queue_ = platform::Queue::serial(*description, std::move(target));
}

SkeldaActor::~SkeldaActor() = default;

std::shared_ptr<SkeldaActor> SkeldaActor::takenOver(SkeldaActor* fresh) {
  std::shared_ptr<SkeldaActor> actor(fresh);
  actor->didInit();
  return actor;
}

std::shared_ptr<SkeldaActor> SkeldaActor::currentActor() {
  return currentActorOfThread != nullptr ? currentActorOfThread->shared_from_this() : nullptr;
}

std::thread::id SkeldaActor::activeThread() const {
  const SkeldaActorLockGuard lock;
  return activeThread_;
}

SkeldaActor::Context::Context(SkeldaActor& actor, std::thread::id owner) noexcept
    : actor_(actor),
      previousActor_(std::exchange(currentActorOfThread, &actor)),
      previousCaller_(std::exchange(waitingCaller, owner)) {
  const SkeldaActorLockGuard lock;
  previousThread_ = std::exchange(actor.activeThread_, owner);
}

SkeldaActor::Context::~Context() {
  {
    const SkeldaActorLockGuard lock;
    actor_.activeThread_ = previousThread_;
  }
  currentActorOfThread = previousActor_;
  waitingCaller = previousCaller_;
}

void SkeldaActor::runSync(platform::BlockRef block, platform::Queue& on, bool barrier) {
  const std::shared_ptr<SkeldaActor> self = shared_from_this();
  // A chain of waiting threads is one caller: whichever of them runs the block, a call back into an
  // actor of the chain is a call from within.
  const std::thread::id caller = callingThread();
  std::exception_ptr thrown;
  auto inContext = [&] {
    const Context context(*this, caller);
    try {
      block();
    } catch (const platform::Exception&) {
      thrown = std::current_exception();
    }
  };
  if (activeThread() == caller || queue_->isCurrent()) {
    inContext();
  } else if (barrier) {
    on.barrierSync(inContext);
  } else {
    on.sync(inContext);
  }
  if (thrown != nullptr) std::rethrow_exception(thrown);
}

void SkeldaActor::runOnMainThread(platform::BlockRef block) {
  if (platform::MainQueue::isMainThread()) {
    block();
  } else {
    platform::Queue::main()->sync(block);
  }
}

void SkeldaActor::runCallback(platform::Block callback, const platform::QueueRef& queue) {
  if (queue == kSkeldaActorNoQueue) {
    callback();
  } else {
    (queue != nullptr ? queue : platform::Queue::global())->async(std::move(callback));
  }
}

void SkeldaActor::runInside(void* body, void (*take)(void* body, Step step)) noexcept {
  const Context context(*this);
  try {
    take(body, Step::run);
  } catch (...) {
    skelda::countException();
  }
  take(body, Step::drop);
}

SkeldaActor::Posted* SkeldaActor::newPosted(std::size_t sizeOfBody, Posted::Take take) {
  auto self = shared_from_this();
  const std::size_t size = sizeof(Posted) + sizeOfBody;
  return ::new (platform::takeWorkMemory(size)) Posted(std::move(self), take, size);
}

void SkeldaActor::giveBack(Posted* posted) noexcept {
  const std::size_t size = posted->size;
  posted->~Posted();
  platform::giveBackWorkMemory(posted, size);
}

void SkeldaActor::Posted::finishAndGiveBack(Work* work, bool run) {
  auto* const posted = static_cast<Posted*>(work);
  if (run) {
    posted->self->runInside(posted->body(), posted->take);
  } else {
    posted->take(posted->body(), Step::drop);
  }
  giveBack(posted);
}

platform::Block SkeldaActor::wrapSyncBlock(platform::Block block, ExceptionHandOff handOff,
                                           std::thread::id thread) {
  return [self = shared_from_this(), body = std::move(block), hand = std::move(handOff),
          thread]() mutable {
    const Context context(*self, thread);
    try {
      body();
    } catch (const platform::Exception& exception) {
      hand(exception);
    }
  };
}

void SkeldaActor::assertRunningInActor() const {
  if (currentActorOfThread != this) {
    platform::abortOnFailedAssertion("[SkeldaActor currentActor] == self");
  }
}

std::shared_ptr<SkeldaActorDeferredQueue> SkeldaActor::createDeferredQueueWithDescription(
    std::optional<std::string> description) {
  return platform::makeCounted<SkeldaActorDeferredQueue>(std::move(description),
                                                         shared_from_this());
}

std::shared_ptr<SkeldaActorOperationQueue> SkeldaActor::operationQueue() {
  const SkeldaActorLockGuard lock;
  if (operationQueue_ == nullptr) {
    operationQueue_ = platform::makeCounted<SkeldaActorOperationQueue>(shared_from_this());
  }
  return operationQueue_;
}

void SkeldaActor::setOperationQueue(std::shared_ptr<SkeldaActorOperationQueue> queue) {
  const SkeldaActorLockGuard lock;
  std::swap(operationQueue_, queue);
}

std::thread::id SkeldaActor::callingThread() noexcept {
  return waitingCaller != std::thread::id() ? waitingCaller : std::this_thread::get_id();
}

void SkeldaActor::raiseInvalidParameter(std::string_view parameter) {
  platform::assertionFailure(std::string(kInvalidParameter).append(parameter));
}

platform::DispatchTime SkeldaActor::dispatchTimeOf(const platform::Date& date) noexcept {
  constexpr std::int64_t kPerSecond = 1'000'000;
  const std::int64_t microseconds = date.microsecondsSince1970().count();
  return platform::dispatchWallTime(microseconds / kPerSecond, microseconds % kPerSecond * 1000);
}
