#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// The states of a file on its way out. The numbers are fixed.
enum SkeldaFileTransferState : std::uint32_t {
  kSkeldaFileStateWaiting = 0,
  kSkeldaFileStateInProgress = 1,
  kSkeldaFileStateSuspended = 2,
  kSkeldaFileStateReading = 3,
  kSkeldaFileStateDone = 4,
  kSkeldaFileStateRemove = 5,
  kSkeldaFileStateError = 6,
};

/// One file's record. The state is written by the transfer manager and by the transfer agent, each
/// on its own queue; the counters belong to the manager.
class SkeldaFileState : public platform::Object {
 public:
  SkeldaFileState() = default;
  SkeldaFileState(std::string fileName, std::string filePath, std::uint32_t fileState,
                  std::int32_t fileUploadRetryCounter, std::int32_t fileRemoveRetryCounter,
                  platform::ObjectRef networkTask);

  std::string_view className() const noexcept override { return "SkeldaFileState"; }
  const std::string& fileName() const noexcept { return fileName_; }
  /// The folder's path, not the file's.
  const std::string& filePath() const noexcept { return filePath_; }
  std::string fullPath() const { return filePath_ + "/" + fileName_; }
  std::uint32_t fileState() const noexcept { return fileState_; }
  void setFileState(std::uint32_t state) noexcept { fileState_ = state; }
  std::int32_t fileUploadRetryCounter() const noexcept { return fileUploadRetryCounter_; }
  void setFileUploadRetryCounter(std::int32_t count) noexcept { fileUploadRetryCounter_ = count; }
  std::int32_t fileRemoveRetryCounter() const noexcept { return fileRemoveRetryCounter_; }
  void setFileRemoveRetryCounter(std::int32_t count) noexcept { fileRemoveRetryCounter_ = count; }
  const platform::ObjectRef& task() const noexcept { return task_; }

 private:
  std::string fileName_;
  std::string filePath_;
  std::atomic<std::uint32_t> fileState_ = kSkeldaFileStateWaiting;
  std::int32_t fileUploadRetryCounter_ = 0;
  std::int32_t fileRemoveRetryCounter_ = 0;
  platform::ObjectRef task_;
};
using SkeldaFileStateRef = std::shared_ptr<SkeldaFileState>;
