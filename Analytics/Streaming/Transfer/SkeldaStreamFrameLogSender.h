#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Networking/DataSender/SkeldaDataSender.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamFileReader.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamComponentBase.h"
#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Platform/Base/RetryDelay.h"
#include "Platform/Platform.h"

/// What a test application may define under the class name "SkeldaStreamingObserver" to see every
/// frame log that is sent.
class ISkeldaStreamingDataObserver {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamingDataObserver";
  virtual void frameLogFileDidUpdate(const std::string& fullPath) = 0;

 protected:
  ~ISkeldaStreamingDataObserver() = default;
};

/// Reads a frame log whole and gives its bytes to the data sender. A log counts as processed once
/// the data sender has stored it. Where it cannot store, or the device lacks what reading takes,
/// the log stays and the failure is reported as a lost connection, which costs it none of its
/// tries, each time after a longer wait. A log that the disk refuses for longer than the longest
/// wait is a failure like any other: behind it the others wait.
class SkeldaStreamFrameLogSender : public SkeldaActorStreamComponentBase,
                                   public ISkeldaStreamFileReader {
 public:
  using RetryDelay = platform::RetryDelay;
  static constexpr RetryDelay kRetryDelay{std::chrono::milliseconds(50), std::chrono::minutes(1)};

  static std::shared_ptr<SkeldaStreamFrameLogSender> frameLogSenderWithFileHandle(
      std::shared_ptr<ISkeldaStreamFileHandle> fileHandle);
  /// With a data sender of one's own instead of the process-wide one.
  static std::shared_ptr<SkeldaStreamFrameLogSender> frameLogSenderWithFileHandle(
      std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
      std::shared_ptr<ISkeldaFrameLogDataSender> dataSender, RetryDelay retryDelay = kRetryDelay);

  std::string_view className() const noexcept override { return "SkeldaStreamFrameLogSender"; }
  void startup() override;
  void setDelegate(std::weak_ptr<ISkeldaStreamFileReaderDelegate> delegate) override;
  void processFile(const std::string& fileName, const std::string& path) override;

 private:
  friend class SkeldaActor;
  SkeldaStreamFrameLogSender(std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
                             std::shared_ptr<ISkeldaFrameLogDataSender> dataSender,
                             RetryDelay retryDelay);
  void didInit() override;

  void setupDataSender();
  void onqueue_setupDataSender();
  void onqueue_enableTestAppObserver();
  void onqueue_processFile(const std::string& fileName, const std::string& folder);
  void onqueue_reportFailure(const std::string& fileName, const platform::ErrorRef& error);
  std::optional<platform::Data> onqueue_contentsOfFile(const std::string& fullPath,
                                                       platform::ErrorRef* error);
  void onqueue_reportUnreadable(const std::string& fileName, const std::string& fullPath,
                                const platform::ErrorRef& error);
  void onqueue_reportLater(const std::string& fileName);

  const std::shared_ptr<ISkeldaStreamFileHandle> fileHandle_;
  std::shared_ptr<ISkeldaFrameLogDataSender> dataSender_;
  std::weak_ptr<ISkeldaStreamFileReaderDelegate> delegate_;
  std::shared_ptr<ISkeldaStreamingDataObserver> dataObserver_;
  RetryDelay retryDelay_;
};
