// The start of the writer: what the last run left is repaired, marked as crashed and committed.

#include <algorithm>
#include <exception>
#include <utility>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameIterator.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"
#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileHandle.h"

namespace {

constexpr std::string_view kWritePendingFiles =
    "-[SkeldaStreamFrameLogWriter onqueue_writePendingFiles]";
constexpr std::string_view kValidatePendingLogFile =
    "-[SkeldaStreamFrameLogWriter onqueue_validatePendingLogFile]";
constexpr std::string_view kLoadSessionId =
    "-[SkeldaStreamFrameLogWriter onqueue_loadSessionIdFromDisk]";

/// How often a log that cannot be read is tried before it is set aside.
constexpr int kReadAttempts = 8;
constexpr std::chrono::nanoseconds kLongestRetryDelay = std::chrono::minutes(1);

}  // namespace

void SkeldaStreamFrameLogWriter::writePendingFiles() {
  asyncBlock([self = selfOf(this)] { self->onqueue_writePendingFiles(0); });
}

void SkeldaStreamFrameLogWriter::onqueue_writePendingFiles(int attempt) {
  const bool patient = attempt < kReadAttempts;
  bool pending = isPendingLogFilePresent();
  if (pending && !onqueue_loadSessionIdIfCrashed() && patient) return onqueue_tryAgain(attempt);
  if (pending && !onqueue_validatePendingLogFile()) {
    if (patient || !onqueue_setLogAside()) return onqueue_tryAgain(attempt);
    pending = false;
  }
  if (pending) {
    onqueue_closeCrashedLog();
    onqueue_rollLogFile();
  } else {
    onqueue_writeCounterFrame();
  }
  updateState(kStateReady);
}

void SkeldaStreamFrameLogWriter::onqueue_tryAgain(int attempt) {
  // The stages before hold their messages meanwhile: writing on would put frames behind a tail that
  // may be torn, and the next roll would destroy what could not be read.
  const auto delay = std::min(firstRetryDelay_ * (1 << std::min(attempt, 20)), kLongestRetryDelay);
  SKELDA_LOG(1, "{}: unable to read frame log file at path {}, trying again", kWritePendingFiles,
             *logPath_);
  asyncBlock([self = selfOf(this), attempt] { self->onqueue_writePendingFiles(attempt + 1); },
             std::int64_t{delay.count()});
}

bool SkeldaStreamFrameLogWriter::onqueue_setLogAside() {
  const std::string aside =
      fmt::format("{}.unread_{:.6f}", *logPath_, platform::Date::now().timeIntervalSince1970());
  if (platform::FileCalls::current().renameNoReplace(logPath_->c_str(), aside.c_str()) != 0) {
    return false;
  }
  SKELDA_LOG(0, "{}: unable to read frame log file at path {}, kept as {}", kWritePendingFiles,
             *logPath_, aside);
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_validatePendingLogFile() {
  try {
    ReadableLog readable;
    return onqueue_readPendingLog(readable) && onqueue_cutPendingLog(readable);
  } catch (const std::exception& exception) {
    // No memory for what was left, for one: the pipeline must become ready all the same.
    SkeldaUtil::handleException(exception);
    fileHandle_->closeFile();
    return false;
  }
}

bool SkeldaStreamFrameLogWriter::onqueue_readPendingLog(ReadableLog& readable) {
  const auto iterator =
      SkeldaStreamFrameIterator::frameIteratorWithFileHandle(fileHandle_, deserializer_);
  platform::ErrorRef error;
  const bool opened = iterator->open(*logPath_, &error) != SkeldaStreamFrameIterator::kError;
  bool intact = opened;
  while (intact && iterator->hasNext()) {
    const auto frame = iterator->nextWithError(&error);
    intact = !error && onqueue_keepFrame(frame, readable);
  }
  iterator->close();
  if (!opened) return false;
  return !intact || onqueue_readOn(readable);
}

bool SkeldaStreamFrameLogWriter::onqueue_readOn(ReadableLog& readable) {
  // The iterator is over where its buffer happens to drain at the end of a frame, and a read error
  // looks like a torn tail to it. Neither is a reason to throw away what follows.
  platform::ErrorRef error;
  std::optional<platform::Data> data;
  fileHandle_->openForReadingFile(*logPath_, &error);
  if (!error) data = fileHandle_->availableDataWithError(&error);
  fileHandle_->closeFile();
  if (error || !data) return false;

  std::string_view rest = data->view();
  rest.remove_prefix(std::min(rest.size(), readable.lengthInFile));
  while (deserializer_->isAtLeastOneFrameInData(rest)) {
    std::size_t taken = 0;
    const auto frame = deserializer_->streamFrameFromData(rest, &taken, &error);
    if (error || !onqueue_keepFrame(frame, readable)) break;
    rest.remove_prefix(taken);
  }
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_keepFrame(const SkeldaStreamFrame::Ref& frame,
                                                   ReadableLog& readable) {
  if (!frame) return false;
  const std::size_t length = frame->totalLength();
  const auto message = SkeldaStreamMessage::streamMessageFromFrame(std::move(*frame));
  const auto bytes = serializer_->frameFromStreamMessage(*message);
  if (!bytes) return false;
  readable.frames.append(bytes->view());
  readable.lengthInFile += length;
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_cutPendingLog(const ReadableLog& readable) {
  platform::ErrorRef error;
  if (platformFileManager_->writeData(readable.frames, *logPath_, true, &error)) return true;
  SKELDA_LOG(1, "{}: unable to write frame log file at path {}, error = {}",
             kValidatePendingLogFile, *logPath_, platform::description(error));
  // No room for a second copy, perhaps: then the log is cut where it stands.
  const auto handle = platform::FileHandle::forWritingAtPath(*logPath_);
  if (!handle) return false;
  handle->truncateFileAtOffset(readable.lengthInFile);
  handle->synchronizeFile();
  return true;
}

void SkeldaStreamFrameLogWriter::onqueue_closeCrashedLog() {
  platform::Data closing;
  const auto append = [&](const ISkeldaStreamMessage& message) {
    if (const auto frame = serializer_->frameFromStreamMessage(message)) {
      closing.append(frame->view());
    }
  };
  if (sessionIdFromDisk_ && onqueue_crashFlag()) append(*sessionIdFromDisk_->copy());
  append(*SkeldaStreamFlush::streamFlushWithStatus(SkeldaStreamFlush::kAppCrashed));
  onqueue_writeData(std::move(closing), true);
}

bool SkeldaStreamFrameLogWriter::onqueue_crashFlag() const {
  return SkeldaKVStorage::sharedInstance()->booleanForKey(std::string(kCrashFlagKey));
}

bool SkeldaStreamFrameLogWriter::onqueue_loadSessionIdIfCrashed() {
  return !onqueue_crashFlag() || onqueue_loadSessionIdFromDisk();
}

bool SkeldaStreamFrameLogWriter::onqueue_loadSessionIdFromDisk() {
  if (sessionIdFromDisk_) return true;
  const std::string path = currentWatchSessionIdFilePath();
  SKELDA_LOG(0, "{}, path: {}", kLoadSessionId, path);
  platform::ErrorRef error;
  const auto archive = SkeldaUtil::safeUnarchiveObjectWithFile(path, &error);
  if (archive) sessionIdFromDisk_ = SkeldaStreamSessionId::fromArchive(*archive);
  return error == nullptr;
}
