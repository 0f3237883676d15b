#include "Analytics/Networking/DataSender/SkeldaDataSenderBase.h"

#include <algorithm>
#include <utility>

#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Exception.h"
#include "Skelda_Watch/SkeldaConstants.h"

SkeldaDataSenderBase::SkeldaDataSenderBase(
    platform::QueueRef queue, std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTaskTracker)
    : queue_(std::move(queue)), backgroundTaskTracker_(std::move(backgroundTaskTracker)) {}

SkeldaDataSenderBase::~SkeldaDataSenderBase() {
  // One that was not made to its end observes nothing.
  if (networkToken_ == 0) return;
  platform::NotificationCenter::defaultCenter().removeObserver(networkToken_);
}

void SkeldaDataSenderBase::didInit() {
  networkToken_ = platform::NotificationCenter::defaultCenter().addObserver(
      kSkeldaNetworkStatusChangedNotification,
      [weak = weak_from_this()](const platform::Notification& notification) {
        if (const auto self = weak.lock()) self->networkStatusChanged(notification);
      });
}

void SkeldaDataSenderBase::post(std::function<void()> work) {
  queue_->async(skelda::guarded([self = shared_from_this(), work = std::move(work)] { work(); }));
}

void SkeldaDataSenderBase::runOnQueue(const std::function<void()>& work) {
  if (queue_->isCurrent()) return work();
  queue_->sync(work);
}

bool SkeldaDataSenderBase::isRunning(const TaskRef& task) const noexcept {
  return std::find(runningTasks_.begin(), runningTasks_.end(), task) != runningTasks_.end();
}

void SkeldaDataSenderBase::registerNewTask(const TaskRef& task) {
  SKELDA_ON_RAW_QUEUE(queue_);
  SkeldaUtil::assertThreadIsNotMain();
  if (!SkeldaUtil::assertNotNil(task, "-[SkeldaDataSenderBase registerNewTask:]")) return;
  backgroundTaskTracker_->startBackgroundTaskTrackingIfNeeded();
  runningTasks_.push_back(task);
}

void SkeldaDataSenderBase::unregisterTask(const TaskRef& task, bool completedSuccessfuly) {
  SKELDA_ON_RAW_QUEUE(queue_);
  if (!isRunning(task)) platform::assertionFailure("[self.runningTasks containsObject:task]");
  std::erase(runningTasks_, task);
  // One good answer means that the network is back.
  if (completedSuccessfuly) performRetransmitNotSentBlocks();
  if (!runningTasks_.empty()) return;
  didCompleteAllTasks();
  backgroundTaskTracker_->stopBackgroundTasksTracking();
  if (const auto handler = std::exchange(completionHandler_, nullptr)) handler();
}

bool SkeldaDataSenderBase::hasOngoingTasksWindow() const noexcept {
  // Inclusive: a ninth task may start.
  return runningTasks_.size() <= kSkeldaMaxOngoingHTTPTasksNumber;
}

void SkeldaDataSenderBase::cancelTasks() {
  SKELDA_ON_RAW_QUEUE(queue_);
  for (const auto& task : runningTasks_) task->cancelTask();
  runningTasks_.clear();
}

void SkeldaDataSenderBase::networkStatusChanged(const platform::Notification&) {
  post([this] {
    const bool reachable =
        SkeldaNetworkReachabilityDataProvider::sharedInstance()->isNetworkReachable();
    SKELDA_LOG(2, "SkeldaDataSenderBase: networkStatusChanged to {} reachable",
               reachable ? "" : "not");
    if (reachable) performRetransmitNotSentBlocks();
  });
}
