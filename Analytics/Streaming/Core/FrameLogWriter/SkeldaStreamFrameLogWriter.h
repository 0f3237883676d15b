#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/Value.h"

class ISkeldaStreamFileHandle;
class ISkeldaStreamFileManager;
class ISkeldaStreamFrameDeserializer;
class ISkeldaStreamMessageSerializer;
class SkeldaStreamSessionId;

/// The last stage: appends each message as a frame to the current log and synchronises it before it
/// takes the next one. A flush rolls the log: the log is copied into the folder of committed logs,
/// emptied, and begun again with a counter frame. At start-up it repairs what the last run left,
/// marks it as crashed and commits it.
///
/// Files, under the names it was given:
///   <current folder>/<current name>                  the log that is being written
///   <committed folder>/<committed name>_<seconds>    whole logs, waiting to be uploaded
/// A log that was committed but not yet emptied when the process died is committed again: delivery
/// is at least once. A leftover log that cannot be read stays as it is and is tried again while the
/// stages before hold their messages; after some ten seconds it is renamed to
/// <log>.unread_<seconds> and left there.
class SkeldaStreamFrameLogWriter : public SkeldaActorStreamCoreComponent,
                                   public virtual ISkeldaStreamFrameLogWriter {
 public:
  static constexpr std::string_view kFrameCounterKey = "SkeldaStreamFrameCounterKey";
  static constexpr std::string_view kCrashFlagKey = "SkeldaStreamWatchCrashBetween2Sessions";

  static std::shared_ptr<SkeldaStreamFrameLogWriter> fileWriterWithCurrentFrameLogFilePath(
      std::string currentFrameLogFilePath, std::string currentFrameLogFileName,
      std::string commitedFrameLogFilePath, std::string commitedFrameLogFileName,
      std::shared_ptr<ISkeldaStreamFileManager> fileManager,
      std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
      std::shared_ptr<ISkeldaStreamMessageSerializer> serializer,
      std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
      std::vector<std::int32_t> frameTypesForRoll, std::vector<std::int32_t> frameTypesToDrop);
  std::string_view className() const noexcept override { return "SkeldaStreamFrameLogWriter"; }

  void startup() override;
  void writePendingFiles() override;
  /// Nothing comes after the last stage: aborts.
  void registerNextStageComponent(std::shared_ptr<ISkeldaStreamComponent> stage) override;
  /// Nothing comes after the last stage: aborts.
  void nextStageDidChangeState(std::int32_t state) override;
  /// Checks that the frame reads back as the message; aborts where it does not.
  void debugFrameData(const platform::Data& frameData, const ISkeldaStreamMessage::Ref& message);

  bool isPendingLogFilePresent() const;
  std::string currentFrameLogFilePathWithName() const;
  std::string commitedFrameLogFilePathWithName() const;
  static std::string currentWatchSessionIdFilePath();

  bool watchHasReportedIDsSuccess() const noexcept { return watchHasReportedIDsSuccess_; }
  void setWatchHasReportedIDsSuccess(bool success) noexcept {
    watchHasReportedIDsSuccess_ = success;
  }
  const std::string& currentFrameLogFilePath() const noexcept { return currentFrameLogFilePath_; }
  const std::string& commitedFrameLogFilePath() const noexcept { return commitedFrameLogFilePath_; }
  const std::string& currentFrameLogFileName() const noexcept { return currentFrameLogFileName_; }
  const std::string& commitedFrameLogFileName() const noexcept { return commitedFrameLogFileName_; }
  const std::shared_ptr<ISkeldaStreamFileHandle>& fileHandle() const noexcept {
    return fileHandle_;
  }
  const std::shared_ptr<ISkeldaStreamFileManager>& fileManager() const noexcept {
    return fileManager_;
  }
  const std::shared_ptr<ISkeldaStreamMessageSerializer>& serializer() const noexcept {
    return serializer_;
  }
  const std::shared_ptr<ISkeldaStreamFrameDeserializer>& deserializer() const noexcept {
    return deserializer_;
  }
  const std::vector<std::int32_t>& frameTypesForRoll() const noexcept { return frameTypesForRoll_; }
  const std::vector<std::int32_t>& frameTypesToDrop() const noexcept { return frameTypesToDrop_; }
  /// Taken on the writer's queue; any thread.
  std::shared_ptr<SkeldaStreamSessionId> sessionIdFromDisk();

  /// Puts another file system under the writer's own operations (is a log there, the atomic
  /// rewrite). Before the first call only.
  void setPlatformFileManager(std::shared_ptr<platform::FileManager> manager) noexcept {
    platformFileManager_ = std::move(manager);
  }
  /// How long to wait before a leftover log that cannot be read is tried again; doubles from try to
  /// try, up to a minute. Before the first call only.
  void setFirstRetryDelay(std::chrono::nanoseconds delay) noexcept { firstRetryDelay_ = delay; }

 protected:
  void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) override;
  void onqueue_transferUserInfo(const platform::Value& userInfo);

 private:
  SkeldaStreamFrameLogWriter(std::string currentFrameLogFilePath,
                             std::string currentFrameLogFileName,
                             std::string commitedFrameLogFilePath,
                             std::string commitedFrameLogFileName,
                             std::shared_ptr<ISkeldaStreamFileManager> fileManager,
                             std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
                             std::shared_ptr<ISkeldaStreamMessageSerializer> serializer,
                             std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
                             std::vector<std::int32_t> frameTypesForRoll,
                             std::vector<std::int32_t> frameTypesToDrop);

  // Writing (SkeldaStreamFrameLogWriter.cpp)
  void onqueue_rollLogFile();
  void onqueue_moveCurrentLogFileToCommitedLogFilesPath();
  std::string onqueue_freshCommitedPath() const;
  bool onqueue_openFileHandleIfNeeded();
  /// Whether the data are in the log, synchronised.
  bool onqueue_writeData(const std::optional<platform::Data>& data, bool seekToEOF);
  void onqueue_writeCounterFrame();
  void onqueue_setCrashFlag(bool crashed);

  /// The longest run of whole frames at the head of a log, as the serializer writes them, and the
  /// bytes that it takes up in the file.
  struct ReadableLog {
    platform::Data frames;
    std::size_t lengthInFile = 0;
  };
  // Start-up (SkeldaStreamFrameLogWriterRepair.cpp). Those that answer false met a log, or an
  // archive, that cannot be read or cut just now; it is as it was.
  void onqueue_writePendingFiles(int attempt);
  void onqueue_tryAgain(int attempt);
  bool onqueue_setLogAside();
  bool onqueue_validatePendingLogFile();
  bool onqueue_readPendingLog(ReadableLog& readable);
  bool onqueue_readOn(ReadableLog& readable);
  bool onqueue_keepFrame(const SkeldaStreamFrame::Ref& frame, ReadableLog& readable);
  bool onqueue_cutPendingLog(const ReadableLog& readable);
  void onqueue_closeCrashedLog();
  bool onqueue_crashFlag() const;
  bool onqueue_loadSessionIdIfCrashed();
  bool onqueue_loadSessionIdFromDisk();

  std::atomic<bool> watchHasReportedIDsSuccess_{false};
  const std::string currentFrameLogFilePath_;
  const std::string commitedFrameLogFilePath_;
  const std::string currentFrameLogFileName_;
  const std::string commitedFrameLogFileName_;
  const std::shared_ptr<ISkeldaStreamFileHandle> fileHandle_;
  const std::shared_ptr<ISkeldaStreamFileManager> fileManager_;
  const std::shared_ptr<ISkeldaStreamMessageSerializer> serializer_;
  const std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer_;
  const std::vector<std::int32_t> frameTypesForRoll_;
  const std::vector<std::int32_t> frameTypesToDrop_;
  std::shared_ptr<SkeldaStreamSessionId> sessionIdFromDisk_;
  const std::optional<std::string> logPath_;  // Folder and name; the protocols take it so.
  std::shared_ptr<platform::FileManager> platformFileManager_;
  std::chrono::nanoseconds firstRetryDelay_ = std::chrono::milliseconds(50);
};
