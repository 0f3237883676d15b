#include "Platform/Dispatch/MainThread.h"

#include <chrono>

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Base/Thread.h"
#include "Platform/Dispatch/EventLoop.h"
#include "Platform/Dispatch/MainQueue.h"

namespace skelda::platform {

namespace {

constexpr std::chrono::seconds kLinger{2};
constexpr std::chrono::milliseconds kPatience{50};  // between askings for what is wanted

thread_local bool servesMainQueue __attribute__((tls_model("initial-exec"))) = false;

const std::shared_ptr<MainThread>& theMainThread() {
  static NeverDestroyed<std::shared_ptr<MainThread>> thread(makeCounted<MainThread>());
  return *thread;
}

}  // namespace

MainThread& MainThread::shared() {
  return *theMainThread();
}
QueueRef MainThread::sharedRoot() {
  return theMainThread();
}
bool MainThread::isCurrentThread() noexcept {
  return servesMainQueue;
}

void MainThread::push(Work* work) {
  {
    const MutexLock lock(mutex_);
    waiting_.append(work);
    if (!startLayerThread()) askAgain();
  }
  changed_.notifyAll();  // behind the lock: whoever is woken wants it
  afterSubmission();
}

bool MainThread::startLayerThread() noexcept {
  if (host_ || layerThread_ || waiting_.empty()) return true;
  layerThread_ = startThread("skelda-main", &MainThread::serveForLayer, this);
  return layerThread_;
}

bool MainThread::obtain() noexcept {
  const MutexLock lock(mutex_);
  return startLayerThread();
}

void MainThread::keepAsking() noexcept {
  const MutexLock lock(mutex_);
  changed_.notifyAll();
}

Work* MainThread::takeFirst() {
  working_ = true;
  return waiting_.pop();
}

void MainThread::run(Work* work, const std::atomic<bool>* yield) {
  Turn turn(yield);
  execute(work, nullptr, turn);
  const MutexLock lock(mutex_);
  working_ = false;
  changed_.notifyAll();
}

Work* MainThread::nextForLayer() {
  const auto until = std::chrono::steady_clock::now() + kLinger;
  MutexLock lock(mutex_);
  while (host_ || working_ || waiting_.empty()) {
    if (changed_.waitUntil(lock, until) || !(host_ || working_ || waiting_.empty())) continue;
    layerThread_ = false;
    return nullptr;
  }
  return takeFirst();
}

void MainThread::serveForLayer(void* self) {
  static_cast<MainThread*>(self)->serveForLayer();
}

void MainThread::serveForLayer() {
  servesMainQueue = true;
  while (Work* const work = nextForLayer()) run(work, nullptr);
}

Work* MainThread::nextForHost() {
  MutexLock lock(mutex_);
  while (!stop_ && waiting_.empty()) {
    if (!any() || EventLoop::shared().keepAsking()) {
      changed_.wait(lock);
      continue;
    }
    changed_.waitFor(lock, kPatience);
    lock.unlock();
    askForAll();
    lock.lock();
  }
  return stop_ ? nullptr : takeFirst();
}

bool MainThread::serveForHost() {
  // From inside a block of the main queue it could only wait for itself.
  if (servesMainQueue) return false;
  {
    MutexLock lock(mutex_);
    if (host_) return false;
    host_ = true;
    while (working_) changed_.wait(lock);
  }
  servesMainQueue = true;
  while (Work* const work = nextForHost()) run(work, &stop_);
  servesMainQueue = false;
  {
    const MutexLock lock(mutex_);
    stop_ = false;
    host_ = false;
    if (!startLayerThread()) askAgain();
    changed_.notifyAll();
  }
  afterSubmission();
  return true;
}

void MainThread::stopHost() {
  const MutexLock lock(mutex_);
  stop_ = true;
  changed_.notifyAll();
}

bool MainQueue::run() {
  return MainThread::shared().serveForHost();
}
void MainQueue::stop() {
  MainThread::shared().stopHost();
}
bool MainQueue::isMainThread() noexcept {
  return MainThread::isCurrentThread();
}

}  // namespace skelda::platform
