#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "Platform/Foundation/FileCalls.h"

namespace {

/// Whether the descriptor still stands for what lies at the path.
bool isAtPath(int descriptor, const std::string& path) noexcept {
  struct ::stat opened, there;
  return ::fstat(descriptor, &opened) == 0 && ::stat(path.c_str(), &there) == 0 &&
         opened.st_dev == there.st_dev && opened.st_ino == there.st_ino;
}

}  // namespace

SkeldaNodeDataProvider::SkeldaNodeDataProvider(
    std::string filePath, std::shared_ptr<ISkeldaStreamFileManager> fileManager)
    : SkeldaActor("SkeldaNodeDataProvider"),
      filePath_(std::move(filePath)),
      fileManager_(std::move(fileManager)) {}

std::shared_ptr<SkeldaNodeDataProvider> SkeldaNodeDataProvider::nodeDataProviderWithFilePath(
    std::string filePath, std::shared_ptr<ISkeldaStreamFileManager> fileManager) {
  return made(new SkeldaNodeDataProvider(std::move(filePath), std::move(fileManager)));
}

void SkeldaNodeDataProvider::didInit() {
  commitToken_ = platform::NotificationCenter::defaultCenter().addObserver(
      kSkeldaFrameLogWasCommitedNotification,
      [weak = std::weak_ptr(selfOf(this))](const platform::Notification&) {
        const auto self = weak.lock();
        if (self != nullptr && !self->isWatching_)
          self->post<&SkeldaNodeDataProvider::onqueue_frameLogWasCommited>();
      });
}

SkeldaNodeDataProvider::~SkeldaNodeDataProvider() {
  platform::NotificationCenter::defaultCenter().removeObserver(commitToken_);
  if (source_ != nullptr) source_->cancel();
}

void SkeldaNodeDataProvider::addObserver(std::shared_ptr<SkeldaNodeDataProviderObserver> observer) {
  if (observer == nullptr) return;
  syncBlock([&] {
    observerArray_.push_back(std::move(observer));
    if (changeSeen_) onqueue_notifyObserver();
  });
}

void SkeldaNodeDataProvider::removeObserver(
    const std::shared_ptr<SkeldaNodeDataProviderObserver>& observer) {
  syncBlock([&] { std::erase(observerArray_, observer); });
}

void SkeldaNodeDataProvider::forceRefresh(Completion completion) {
  post<&SkeldaNodeDataProvider::onqueue_forceRefresh>(std::move(completion));
}

void SkeldaNodeDataProvider::willRemove(const std::string& name) {
  syncBlock([&] {
    if (source_ != nullptr) source_->expectRemoval(name);
  });
}

void SkeldaNodeDataProvider::recreateDispatchSource() {
  post<&SkeldaNodeDataProvider::onqueue_recreateDispatchSource>();
}

// -- The watch

void SkeldaNodeDataProvider::onqueue_forceRefresh(const Completion& completion) {
  SKELDA_ON_QUEUE();
  keepMonitoringFile_ = false;
  onqueue_beginMonitoringFile();
  if (completion) completion(nullptr);
}

void SkeldaNodeDataProvider::onqueue_beginMonitoringFile() {
  SKELDA_ON_QUEUE();
  if (source_ != nullptr) source_->cancel();
  fileManager_->createIfNotPresentDirectoryAtPath(filePath_);
  const int descriptor = platform::fileCall<&platform::FileCalls::open>(
      filePath_.c_str(), O_PATH | O_DIRECTORY, ::mode_t{0});
  fileDescriptor_ = descriptor;
  source_ = platform::FolderSource::make(descriptor, queue());
  const std::weak_ptr<SkeldaNodeDataProvider> weak = selfOf(this);
  source_->setEventHandler([weak, descriptor](unsigned events) {
    const auto self = weak.lock();
    if (self == nullptr) return;
    self->wrapAsyncBlock([self, descriptor, events] {
      if (self->fileDescriptor_ == descriptor) self->onqueue_alertDelegateOfEvents(events);
    })();
  });
  source_->setCancelHandler([weak, descriptor] {
    if (const auto self = weak.lock()) {
      self->post<&SkeldaNodeDataProvider::onqueue_sourceWasCancelled>(descriptor);
    } else if (descriptor >= 0) {
      ::close(descriptor);
    }
  });
  source_->resume();
  const bool isThere = descriptor >= 0 && isAtPath(descriptor, filePath_);
  isWatching_ = isThere && source_->stands();
  if (isWatching_) {
    retryDelay_.reset();
  } else {
    onqueue_watchAgainLater();
  }
  // What came before the watch stood is seen by looking once now.
  if (isThere) onqueue_alertDelegateOfEvents(platform::kFolderWritten);
}

void SkeldaNodeDataProvider::onqueue_watchAgainLater() {
  SKELDA_ON_QUEUE();
  asyncBlock(
      [self = selfOf(this), descriptor = fileDescriptor_] {
        if (self->fileDescriptor_ == descriptor) self->onqueue_recreateDispatchSource();
      },
      std::int64_t{retryDelay_.next().count()});
}

void SkeldaNodeDataProvider::onqueue_recreateDispatchSource() {
  SKELDA_ON_QUEUE();
  keepMonitoringFile_ = true;
  isWatching_ = false;
  if (source_ != nullptr) source_->cancel();
}

void SkeldaNodeDataProvider::onqueue_sourceWasCancelled(int descriptor) {
  SKELDA_ON_QUEUE();
  if (descriptor >= 0) ::close(descriptor);
  if (descriptor != fileDescriptor_) return;  // another watch has taken its place
  fileDescriptor_ = 0;
  source_ = nullptr;
  if (!std::exchange(keepMonitoringFile_, false)) return;
  onqueue_beginMonitoringFile();
}

// -- Changes

void SkeldaNodeDataProvider::onqueue_frameLogWasCommited() {
  SKELDA_ON_QUEUE();
  if (!isWatching_) onqueue_alertDelegateOfEvents(platform::kFolderWritten);
}

void SkeldaNodeDataProvider::onqueue_alertDelegateOfEvents(unsigned events) {
  SKELDA_ON_QUEUE();
  if ((events & platform::kFolderWritten) != 0) {
    changeSeen_ = true;
    onqueue_notifyObserver();
  }
  // The folder went: with it everything in it, which the watch made anew will tell.
  if ((events & platform::kFolderGone) != 0) onqueue_recreateDispatchSource();
}

void SkeldaNodeDataProvider::onqueue_notifyObserver() {
  SKELDA_ON_QUEUE();
  const auto observers = observerArray_;
  for (const auto& observer : observers) {
    observer->fileMonitor(*this, kSkeldaNodeChangeWritten);
  }
}
