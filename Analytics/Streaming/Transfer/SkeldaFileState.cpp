#include "Analytics/Streaming/Transfer/SkeldaFileState.h"

#include <utility>

SkeldaFileState::SkeldaFileState(std::string fileName, std::string filePath,
                                 std::uint32_t fileState, std::int32_t fileUploadRetryCounter,
                                 std::int32_t fileRemoveRetryCounter,
                                 platform::ObjectRef networkTask)
    : fileName_(std::move(fileName)),
      filePath_(std::move(filePath)),
      fileState_(fileState),
      fileUploadRetryCounter_(fileUploadRetryCounter),
      fileRemoveRetryCounter_(fileRemoveRetryCounter),
      task_(std::move(networkTask)) {}
