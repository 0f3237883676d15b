#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamFileReader.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamComponentBase.h"
#include "Analytics/Streaming/Transfer/ISkeldaFileTransferAgent.h"
#include "Analytics/Utils/ISkeldaStreamFileManager.h"
#include "Platform/Platform.h"

/// Stands between the transfer manager and the file reader: keeps the queue of files under way,
/// sees that a file is still there before it is read, and turns the reader's outcome into the
/// manager's.
class SkeldaLocalTransferAgent : public SkeldaActorStreamComponentBase,
                                 public ISkeldaFileTransferAgent,
                                 public ISkeldaStreamFileReaderDelegate {
 public:
  /// Becomes the reader's delegate.
  static std::shared_ptr<SkeldaLocalTransferAgent> localTransferAgentWithStreamFileReader(
      std::shared_ptr<ISkeldaStreamFileReader> fileReader,
      std::shared_ptr<ISkeldaStreamFileManager> fileManager);

  std::string_view className() const noexcept override { return "SkeldaLocalTransferAgent"; }
  void startup() override;
  void setDelegate(std::weak_ptr<ISkeldaFileTransferAgentDelegate> delegate) override;
  void startTransfer(SkeldaFileStateRef file) override;
  void cancelTransfer(SkeldaFileStateRef file) override;
  void processingCompleteForFile(const std::string& fileName) override;
  void processingFailedForFile(const std::string& fileName, platform::ErrorRef withError) override;

  // -- Fixed by the system, and not called by the agent itself
  void resumeTransfer(SkeldaFileStateRef file) override;
  std::vector<SkeldaFileStateRef> listTransfers() override;
  void finishTransferWithFileName(const std::string& fileName);

 private:
  friend class SkeldaActor;
  SkeldaLocalTransferAgent(std::shared_ptr<ISkeldaStreamFileReader> fileReader,
                           std::shared_ptr<ISkeldaStreamFileManager> fileManager);
  void didInit() override;

  void onqueue_startTransfer(const SkeldaFileStateRef& file);
  void onqueue_cancelTransfer(const SkeldaFileStateRef& file);
  void onqueue_resumeTransfer(const SkeldaFileStateRef& file);
  void onqueue_finishTransferWithFileName(const std::string& fileName);
  void onqueue_processingDidEnd(const std::string& fileName, const platform::ErrorRef& error);
  void onqueue_refuseTransfer(const SkeldaFileStateRef& file, std::string_view reason);

  std::weak_ptr<ISkeldaFileTransferAgentDelegate> delegate_;
  const std::shared_ptr<ISkeldaStreamFileReader> fileReader_;
  const std::shared_ptr<ISkeldaStreamFileManager> fileManager_;
  std::vector<SkeldaFileStateRef> transferQueue_;
};
