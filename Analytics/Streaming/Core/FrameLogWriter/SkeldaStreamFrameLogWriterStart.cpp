// The start of the writer: what the last run left is repaired, marked as crashed and committed.

#include <utility>

#include "Analytics/Streaming/Core/FrameLogWriter/FrameLogRepair.h"
#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/FileCalls.h"

namespace {

constexpr std::string_view kWritePendingFiles =
    "-[SkeldaStreamFrameLogWriter onqueue_writePendingFiles]";
constexpr std::string_view kValidatePendingLogFile =
    "-[SkeldaStreamFrameLogWriter onqueue_validatePendingLogFile]";
constexpr std::string_view kLoadSessionId =
    "-[SkeldaStreamFrameLogWriter onqueue_loadSessionIdFromDisk]";

/// How often a log that cannot be read is tried before it is set aside.
constexpr int kReadAttempts = 8;

}  // namespace

void SkeldaStreamFrameLogWriter::writePendingFiles() {
  post<&SkeldaStreamFrameLogWriter::onqueue_writePendingFiles>(0);
}

void SkeldaStreamFrameLogWriter::onqueue_writePendingFiles(int attempt) {
  SKELDA_ON_QUEUE();
  // Without the store neither the number of the next log is known nor whether the last session
  // ended: it is waited for, however long.
  if (!SkeldaKVStorage::sharedInstance()->isReadable()) {
    return onqueue_tryAgain(attempt, "the key-value store");
  }
  const bool patient = attempt < kReadAttempts;
  auto leftover = onqueue_repairLeftover(patient);
  if (!leftover) {
    if (patient || !onqueue_setLogAside()) return onqueue_tryAgain(attempt + 1, *logPath_);
    leftover = Leftover::none;
  }
  if (leftover == Leftover::crashed && !onqueue_closeCrashedLog() && patient) {
    return onqueue_tryAgain(attempt + 1, *logPath_);
  }
  if (leftover == Leftover::crashed) {
    onqueue_rollLogFile();
  } else {
    onqueue_writeCounterFrame(onqueue_nextCounter());
  }
  retryDelay_.reset();
  updateState(kStateReady);
}

std::optional<SkeldaStreamFrameLogWriter::Leftover>
SkeldaStreamFrameLogWriter::onqueue_repairLeftover(bool needsSessionId) {
  SKELDA_ON_QUEUE();
  if (!isPendingLogFilePresent()) return Leftover::none;
  if (!onqueue_loadSessionIdIfCrashed() && needsSessionId) return std::nullopt;
  // No memory for what was left, for one: the pipeline must become ready all the same.
  return skelda::guardedResult(std::optional<Leftover>(),
                               [this] { return onqueue_validatePendingLogFile(); });
}

std::optional<SkeldaStreamFrameLogWriter::Leftover>
SkeldaStreamFrameLogWriter::onqueue_validatePendingLogFile() {
  SKELDA_ON_QUEUE();
  FrameLogRepair repair(*logPath_, parts_.fileHandle, parts_.serializer, parts_.deserializer);
  const auto log = repair.read();
  if (!log || !repair.cut(*log)) return std::nullopt;
  if (log->end != FrameLogRepair::End::whole) {
    SKELDA_LOG(1, "{}: {} of {} bytes are readable: {}", kValidatePendingLogFile, log->lengthInFile,
               log->lengthOfFile, FrameLogRepair::text(log->end));
  }
  framesInLog_ = log->countOfFrames;
  // The process ended between emptying a log and its first frame: nothing was going on in it.
  return log->lengthOfFile == 0 ? Leftover::empty : Leftover::crashed;
}

void SkeldaStreamFrameLogWriter::onqueue_tryAgain(int attempt, std::string_view what) {
  SKELDA_ON_QUEUE();
  // The stages before hold their messages meanwhile: writing on would put frames behind a tail that
  // may be torn, and the next roll would destroy what could not be read.
  SKELDA_LOG(1, "{}: unable to read frame log file at path {}, trying again", kWritePendingFiles,
             what);
  asyncBlock([this, attempt] { onqueue_writePendingFiles(attempt); },
             std::int64_t{retryDelay_.next().count()});
}

bool SkeldaStreamFrameLogWriter::onqueue_setLogAside() {
  SKELDA_ON_QUEUE();
  const std::string aside =
      SkeldaAgentFiles::setAside(*logPath_, platform::Date::now().timeIntervalSince1970());
  if (platform::fileError<&platform::FileCalls::renameNoReplace>(logPath_->c_str(),
                                                                 aside.c_str()) != 0) {
    return false;
  }
  SKELDA_LOG(0, "{}: unable to read frame log file at path {}, kept as {}", kWritePendingFiles,
             *logPath_, aside);
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_closeCrashedLog() {
  SKELDA_ON_QUEUE();
  platform::Data closing;
  const auto append = [&](const ISkeldaStreamMessage& message) {
    if (const auto frame = parts_.serializer->frameFromStreamMessage(message)) {
      closing.append(frame->view());
    }
  };
  if (sessionIdFromDisk_ && onqueue_crashFlag()) append(*sessionIdFromDisk_->copy());
  append(*SkeldaStreamFlush::streamFlushWithStatus(SkeldaStreamFlush::kAppCrashed));
  return onqueue_writeData(std::move(closing), true);
}

bool SkeldaStreamFrameLogWriter::onqueue_crashFlag() const {
  return SkeldaKVStorage::sharedInstance()->booleanForKey(std::string(kCrashFlagKey));
}

bool SkeldaStreamFrameLogWriter::onqueue_loadSessionIdIfCrashed() {
  SKELDA_ON_QUEUE();
  return !onqueue_crashFlag() || onqueue_loadSessionIdFromDisk();
}

bool SkeldaStreamFrameLogWriter::onqueue_loadSessionIdFromDisk() {
  SKELDA_ON_QUEUE();
  if (sessionIdFromDisk_) return true;
  const std::string path = currentWatchSessionIdFilePath();
  SKELDA_LOG(0, "{}, path: {}", kLoadSessionId, path);
  platform::ErrorRef error;
  const auto archive = SkeldaUtil::safeUnarchiveObjectWithFile(path, &error);
  if (archive) sessionIdFromDisk_ = SkeldaStreamSessionId::fromArchive(*archive);
  return error == nullptr;
}
