#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaFrameLogWriterParts.h"
#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaOwedFrames.h"
#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaReplayedFrames.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"
#include "Platform/Base/RetryDelay.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Value.h"

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
///
/// A frame that cannot be written is owed (SkeldaOwedFrames), and tried again by itself.
class SkeldaStreamFrameLogWriter : public SkeldaActorStreamCoreComponent,
                                   public ISkeldaStreamFrameLogWriter {
 public:
  using Messages = std::vector<ISkeldaStreamMessage::Ref>;

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
  static std::shared_ptr<SkeldaStreamFrameLogWriter> writerOf(SkeldaFrameLogWriterParts parts);
  std::string_view className() const noexcept override { return "SkeldaStreamFrameLogWriter"; }

  /// In one block: what is replayed at the head of each log is many.
  void streamMessages(Messages messages) override;
  void startup() override;
  void writePendingFiles() override;
  /// Nothing comes after the last stage: aborts.
  void registerNextStageComponent(std::shared_ptr<ISkeldaStreamComponent> stage) override;
  /// Nothing comes after the last stage: aborts.
  void nextStageDidChangeState(std::int32_t state) override;

  std::string currentFrameLogFilePathWithName() const;
  std::string commitedFrameLogFilePathWithName() const;
  /// How long to wait before what failed is tried again; doubles from try to try, up to a minute.
  /// `withinARoll` is waited on the writer's own thread. Before the first call only.
  void setRetryDelays(std::chrono::nanoseconds first,
                      std::chrono::nanoseconds withinARoll) noexcept;

  // -- What no code of the agent calls, but the system fixes

  /// Checks that the frame reads back as the message; aborts where it does not.
  void debugFrameData(const platform::Data& frameData, const ISkeldaStreamMessage::Ref& message);
  bool isPendingLogFilePresent() const;
  static std::string currentWatchSessionIdFilePath();
  const std::string& currentFrameLogFilePath() const noexcept { return parts_.currentFolder; }
  const std::string& currentFrameLogFileName() const noexcept { return parts_.currentName; }
  const std::string& commitedFrameLogFilePath() const noexcept { return parts_.commitedFolder; }
  const std::string& commitedFrameLogFileName() const noexcept { return parts_.commitedName; }
  const auto& fileManager() const noexcept { return parts_.fileManager; }
  const auto& fileHandle() const noexcept { return parts_.fileHandle; }
  const auto& serializer() const noexcept { return parts_.serializer; }
  const auto& deserializer() const noexcept { return parts_.deserializer; }
  const auto& frameTypesForRoll() const noexcept { return parts_.frameTypesForRoll; }
  const auto& frameTypesToDrop() const noexcept { return parts_.frameTypesToDrop; }
  bool watchHasReportedIDsSuccess() const noexcept { return watchHasReportedIDsSuccess_; }
  void setWatchHasReportedIDsSuccess(bool success) noexcept {
    watchHasReportedIDsSuccess_ = success;
  }
  /// Taken on the writer's queue; any thread.
  std::shared_ptr<SkeldaStreamSessionId> sessionIdFromDisk();

 protected:
  void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) override;
  void onqueue_transferUserInfo(const platform::Value& userInfo);

 private:
  using Message = ISkeldaStreamMessage::Ref;

  explicit SkeldaStreamFrameLogWriter(SkeldaFrameLogWriterParts parts);
  void onqueue_takeMessages(const Messages& messages);

  // Writing (SkeldaStreamFrameLogWriter.cpp). Those that answer bool say whether it is done.
  bool onqueue_write(const Message& message);
  /// The one place where a message has become a frame of the log; not synchronised where the disk
  /// refused that.
  void onqueue_frameIsWritten(const Message& message, bool synchronized);
  /// What was written so far is on disk: the journal's records of it are settled.
  void onqueue_framesAreKept();
  /// The one place where messages that were owed are given up.
  void onqueue_areLost(const SkeldaOwedFrames::Messages& messages);
  /// The log could not be committed; with it go the frames that were written to it.
  void onqueue_logIsLost();
  void onqueue_rollLogFile(std::optional<bool> crashFlag = std::nullopt);
  bool onqueue_moveCurrentLogFileToCommitedLogFilesPath();
  bool onqueue_commitLog();
  std::string onqueue_freshCommitedPath() const;
  bool onqueue_openFileHandleIfNeeded();
  bool onqueue_writeData(const std::optional<platform::Data>& data, bool seekToEOF);
  void onqueue_synchronize();
  /// Stored, and with it the crash flag where it is to change.
  Message onqueue_nextCounter(std::optional<bool> crashFlag = std::nullopt);
  void onqueue_writeCounterFrame(const Message& counter);
  void onqueue_store(const platform::Dictionary& values);

  // What is owed.
  void onqueue_owe(const Message& message);
  void onqueue_writeOwed();
  void onqueue_payLater();
  void onqueue_payNow();

  // Start-up (SkeldaStreamFrameLogWriterStart.cpp). Those that answer false met a log, or an
  // archive, that cannot be read, cut or written just now; it is as it was.
  enum class Leftover { none, empty, crashed };
  void onqueue_writePendingFiles(int attempt);
  std::optional<Leftover> onqueue_repairLeftover(bool needsSessionId);
  std::optional<Leftover> onqueue_validatePendingLogFile();
  void onqueue_tryAgain(int attempt, std::string_view what);
  bool onqueue_setLogAside();
  bool onqueue_closeCrashedLog();
  bool onqueue_crashFlag() const;
  bool onqueue_loadSessionIdIfCrashed();
  bool onqueue_loadSessionIdFromDisk();

  const SkeldaFrameLogWriterParts parts_;
  const std::optional<std::string> logPath_;  // Folder and name; the protocols take it so.
  std::atomic<bool> watchHasReportedIDsSuccess_{false};
  std::shared_ptr<SkeldaStreamSessionId> sessionIdFromDisk_;
  platform::RetryDelay retryDelay_;
  std::chrono::nanoseconds delayWithinARoll_;
  std::uint64_t framesInLog_ = 0;
  std::uint64_t failedSynchronisations_ = 0;
  /// Of the frames that no synchronisation has covered yet.
  std::vector<SkeldaIntakeTicket> writtenTickets_;
  SkeldaOwedFrames owed_;
  SkeldaReplayedFrames frames_;
  bool willPay_ = false;
};
