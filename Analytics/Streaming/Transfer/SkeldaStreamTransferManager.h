#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/ISkeldaFileTransferAgent.h"
#include "Analytics/Streaming/Transfer/ISkeldaStreamTransferManager.h"
#include "Analytics/Streaming/Transfer/SkeldaFileState.h"
#include "Analytics/Utils/ISkeldaStreamFileManager.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Platform/Base/RetryDelay.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Keeps one record per file of the committed folder, runs each through its states, and holds to
/// the limits on files kept and on transfers at a time. All state lives on the actor's queue;
/// records live in memory only, so after a restart every file waits again.
///
/// A pass costs what it changes, not what waits: the records are kept in their order, and those
/// that only wait are not looked at once there is nothing to do for them. A look into the folder
/// costs what is there: one change stands for all that come before it is looked at, and where much
/// waits a look is put off until an eighth of it has gone, or for a second.
class SkeldaStreamTransferManager : public SkeldaActor,
                                    public ISkeldaStreamTransferManager,
                                    public ISkeldaFileTransferAgentDelegate,
                                    public SkeldaNodeDataProviderObserver {
 public:
  /// `config` holds numbers under the kSkeldaStreamConfigOption... names: MaxFileTransferCount
  /// (files the folder may hold, 4) and MaxFileUploadCount (transfers at a time, 5); what is absent
  /// or below 1 takes the default. Becomes the agent's delegate.
  static std::shared_ptr<SkeldaStreamTransferManager> transferManagerWithConfig(
      platform::Dictionary config, std::shared_ptr<ISkeldaNodeDataProvider> nodeDataProvider,
      std::string filePath, std::shared_ptr<ISkeldaStreamFileManager> fileManager,
      std::shared_ptr<ISkeldaFileTransferAgent> fileTransferAgent);

  std::string_view className() const noexcept override { return "SkeldaStreamTransferManager"; }
  void startup(Completion completion) override;
  void didCompleteTransfer(const std::string& fileName, platform::ErrorRef withError) override;
  void didAbandonTransfer() override;
  void fileMonitor(ISkeldaNodeDataProvider& monitor, std::uint32_t didSeeChange) override;

  /// Ascending, runs of digits by their number: "log9" comes before "log10".
  static bool isOrderedBefore(std::string_view left, std::string_view right) noexcept;
  struct NameOrder {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const noexcept {
      return isOrderedBefore(left, right);
    }
  };
  using Records = std::map<std::string, SkeldaFileStateRef, NameOrder>;

  /// A copy of the records by name, for those who look.
  Records fileUploadStatusDictionary();
  std::int32_t currentUploadCount();
  std::int32_t maxUploadCount() const noexcept { return maxUploadCount_; }
  std::int32_t maxFileCount() const noexcept { return maxFileCount_; }

 private:
  friend class SkeldaActor;
  SkeldaStreamTransferManager(const platform::Dictionary& config,
                              std::shared_ptr<ISkeldaNodeDataProvider> nodeDataProvider,
                              std::string filePath,
                              std::shared_ptr<ISkeldaStreamFileManager> fileManager,
                              std::shared_ptr<ISkeldaFileTransferAgent> fileTransferAgent);
  void didInit() override;

  void onqueue_startup(const Completion& completion);
  void onqueue_nodeDataProviderDidSeeChange(std::uint32_t changeType);
  void onqueue_lookIntoFolder();
  /// Whether it could be looked into to the end.
  bool onqueue_takeFolderIn();
  void onqueue_lookAgainAfter(platform::RetryDelay::Duration delay);
  bool onqueue_mayPutOffLook() const;
  bool onqueue_hasRoom() const;
  void onqueue_endArrears();
  bool onqueue_setAsideWhatIsNoFile(const std::string& name);
  void onqueue_addToStatusDictionaryNewFilesFromFolder(const std::vector<std::string>& names);
  void onqueue_removeFromDictionaryFilesNotInFolder(const std::vector<std::string>& names);
  void onqueue_didCompleteTransfer(const std::string& fileName, const platform::ErrorRef& error);
  void onqueue_transferFailed(SkeldaFileState& file, const platform::Error& error);
  void onqueue_putBack(SkeldaFileState& file);
  void onqueue_processFiles();
  /// Both: whether the count of transfers was too high.
  bool onqueue_processFilesOnce();
  bool onqueue_reconcileUploadCount();
  void onqueue_processWaitingFiles(Records::iterator from, Records::iterator until);
  void onqueue_processFile(const SkeldaFileStateRef& file);
  void onqueue_processWaitingFile(const SkeldaFileStateRef& file);
  void onqueue_processInProgressFile(const SkeldaFileStateRef& file);
  void onqueue_processSuspendedFile(const SkeldaFileStateRef& file);
  void onqueue_processDoneFile(const SkeldaFileStateRef& file);
  void onqueue_processRemoveFile(const SkeldaFileStateRef& file);
  void onqueue_processErrorFile(const SkeldaFileStateRef& file);
  bool onqueue_deleteFile(const SkeldaFileStateRef& file);
  bool onqueue_mayDelete() const noexcept;
  void onqueue_accountFullFolder();

  const std::shared_ptr<ISkeldaNodeDataProvider> nodeDataProvider_;
  const std::shared_ptr<ISkeldaFileTransferAgent> fileTransferAgent_;
  const std::string filePath_;
  const std::shared_ptr<ISkeldaStreamFileManager> fileManager_;
  Records fileUploadStatusDictionary_;
  Records attended_;  ///< those among them that are not waiting for a place
  std::int32_t currentUploadCount_ = 0;
  std::int32_t maxUploadCount_;
  std::int32_t maxFileCount_;
  std::int32_t maxDeleteFileCount_ = 0;
  std::int32_t deletedFileCount_ = 0;
  std::int32_t localUploadCounter_ = 0;
  std::size_t goneSinceLook_ = 0;
  platform::RetryDelay listRetryDelay_{std::chrono::milliseconds(50), std::chrono::minutes(1)};
  bool lookAgainPending_ = false;
  /// What came while the folder could not be listed is taken in as far as the limit on files goes,
  /// oldest first: nobody has tried to send these, so the limit deletes none. Ends with all of
  /// them, or with the first one that cannot be sent or removed.
  bool hasArrears_ = false;
  std::atomic<bool> changePosted_ = false;
};
