#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeData.h"
#include "Analytics/Utils/ISkeldaStreamFileManager.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Platform/Base/RetryDelay.h"
#include "Platform/Dispatch/FolderSource.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Platform.h"

/// Watches the folder of committed logs and tells its observers when it was written. A watch that
/// is lost, because the folder was removed or replaced, is made again together with the folder; one
/// that the system has no room for is tried again after 50 ms, and then half as often each time
/// down to once a minute. Until it stands, each try counts as a change, and so does each commit of
/// the writer (kSkeldaFrameLogWasCommitedNotification).
class SkeldaNodeDataProvider : public SkeldaActor, public ISkeldaNodeDataProvider {
 public:
  static std::shared_ptr<SkeldaNodeDataProvider> nodeDataProviderWithFilePath(
      std::string filePath, std::shared_ptr<ISkeldaStreamFileManager> fileManager);
  ~SkeldaNodeDataProvider() override;

  std::string_view className() const noexcept override { return "SkeldaNodeDataProvider"; }
  const std::string& filePath() const noexcept { return filePath_; }
  void addObserver(std::shared_ptr<SkeldaNodeDataProviderObserver> observer) override;
  void forceRefresh(Completion completion) override;
  void willRemove(const std::string& name) override;

  // -- Fixed by the system, and not called by the agent itself
  void removeObserver(const std::shared_ptr<SkeldaNodeDataProviderObserver>& observer) override;
  /// Cancels the watch and begins it afresh.
  void recreateDispatchSource();
  /// Does nothing.
  static void wipe() {}

 protected:
  void onqueue_alertDelegateOfEvents(unsigned events);

 private:
  friend class SkeldaActor;
  SkeldaNodeDataProvider(std::string filePath,
                         std::shared_ptr<ISkeldaStreamFileManager> fileManager);

  void didInit() override;
  void onqueue_frameLogWasCommited();
  void onqueue_forceRefresh(const Completion& completion);
  void onqueue_beginMonitoringFile();
  void onqueue_watchAgainLater();
  void onqueue_recreateDispatchSource();
  void onqueue_sourceWasCancelled(int descriptor);
  void onqueue_notifyObserver();

  const std::string filePath_;
  const std::shared_ptr<ISkeldaStreamFileManager> fileManager_;
  std::vector<std::shared_ptr<SkeldaNodeDataProviderObserver>> observerArray_;
  std::shared_ptr<platform::FolderSource> source_;
  int fileDescriptor_ = 0;
  bool keepMonitoringFile_ = false;
  platform::RetryDelay retryDelay_{std::chrono::milliseconds(50), std::chrono::minutes(1)};
  bool changeSeen_ = false;
  std::atomic<bool> isWatching_ = false;
  platform::NotificationCenter::Token commitToken_ = 0;
};
