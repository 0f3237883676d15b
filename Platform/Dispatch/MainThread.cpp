#include "Platform/Dispatch/MainThread.h"

#include <chrono>

#include "Platform/Base/Thread.h"
#include "Platform/Dispatch/MainQueue.h"

namespace skelda::platform {

namespace {

constexpr std::chrono::seconds kLinger{2};

thread_local bool servesMainQueue __attribute__((tls_model("initial-exec"))) = false;

const std::shared_ptr<MainThread>& theMainThread() {
  static const auto* const thread = new std::shared_ptr<MainThread>(std::make_shared<MainThread>());
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
  Lock lock(mutex_);
  waiting_.append(work);
  changed_.notify_all();
  if (!host_) startLayerThread(lock);
}

void MainThread::startLayerThread(Lock&) {
  if (layerThread_) return;
  layerThread_ = startThread("skelda-main", &MainThread::serveForLayer, this);
}

void MainThread::runFirst(Lock& lock) {
  Work* const work = waiting_.pop();
  working_ = true;
  lock.unlock();
  Turn turn;
  execute(work, nullptr, turn);
  lock.lock();
  working_ = false;
  changed_.notify_all();
}

void MainThread::serveForLayer(void* self) {
  static_cast<MainThread*>(self)->serveForLayer();
}

void MainThread::serveForLayer() {
  servesMainQueue = true;
  Lock lock(mutex_);
  for (;;) {
    const auto mayWork = [this] { return !host_ && !working_ && !waiting_.empty(); };
    if (changed_.wait_for(lock, kLinger, mayWork)) {
      runFirst(lock);
    } else {
      break;
    }
  }
  layerThread_ = false;
}

bool MainThread::serveForHost() {
  // From inside a block of the main queue it could only wait for itself.
  if (servesMainQueue) return false;
  Lock lock(mutex_);
  if (host_) return false;
  host_ = true;
  changed_.wait(lock, [this] { return !working_; });
  servesMainQueue = true;
  for (;;) {
    changed_.wait(lock, [this] { return stop_ || !waiting_.empty(); });
    if (stop_) break;
    runFirst(lock);
  }
  stop_ = false;
  servesMainQueue = false;
  host_ = false;
  if (!waiting_.empty()) startLayerThread(lock);
  changed_.notify_all();
  return true;
}

void MainThread::stopHost() {
  const std::lock_guard lock(mutex_);
  stop_ = true;
  changed_.notify_all();
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
