#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"

#include <algorithm>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaMessageTrace.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCounter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Analytics/Utils/ISkeldaStreamFileManager.h"
#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Exception.h"

namespace {

using Flush = SkeldaStreamFlush;

constexpr std::string_view kStreamMessage = "-[SkeldaStreamFrameLogWriter onqueue_streamMessage:]";
constexpr std::string_view kMoveCurrentLog =
    "-[SkeldaStreamFrameLogWriter onqueue_moveCurrentLogFileToCommitedLogFilesPath]";
constexpr std::string_view kOpenFileHandle =
    "-[SkeldaStreamFrameLogWriter onqueue_openFileHandleIfNeeded]";
constexpr std::string_view kWriteData =
    "-[SkeldaStreamFrameLogWriter onqueue_writeData:seekToEOF:]";
constexpr std::string_view kDebugFrameData =
    "-[SkeldaStreamFrameLogWriter debugFrameData:message:]";

bool contains(const std::vector<std::int32_t>& frameTypes, std::int32_t frameType) {
  return std::find(frameTypes.begin(), frameTypes.end(), frameType) != frameTypes.end();
}

void assertTrue(bool condition, std::string_view text) {
  if (!condition) platform::abortOnFailedAssertion(text);
}

}  // namespace

std::shared_ptr<SkeldaStreamFrameLogWriter>
SkeldaStreamFrameLogWriter::fileWriterWithCurrentFrameLogFilePath(
    std::string currentFrameLogFilePath, std::string currentFrameLogFileName,
    std::string commitedFrameLogFilePath, std::string commitedFrameLogFileName,
    std::shared_ptr<ISkeldaStreamFileManager> fileManager,
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaStreamMessageSerializer> serializer,
    std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
    std::vector<std::int32_t> frameTypesForRoll, std::vector<std::int32_t> frameTypesToDrop) {
  return made(new SkeldaStreamFrameLogWriter(
      std::move(currentFrameLogFilePath), std::move(currentFrameLogFileName),
      std::move(commitedFrameLogFilePath), std::move(commitedFrameLogFileName),
      std::move(fileManager), std::move(fileHandle), std::move(serializer), std::move(deserializer),
      std::move(frameTypesForRoll), std::move(frameTypesToDrop)));
}

SkeldaStreamFrameLogWriter::SkeldaStreamFrameLogWriter(
    std::string currentFrameLogFilePath, std::string currentFrameLogFileName,
    std::string commitedFrameLogFilePath, std::string commitedFrameLogFileName,
    std::shared_ptr<ISkeldaStreamFileManager> fileManager,
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaStreamMessageSerializer> serializer,
    std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
    std::vector<std::int32_t> frameTypesForRoll, std::vector<std::int32_t> frameTypesToDrop)
    : SkeldaActorStreamCoreComponent("SkeldaStreamFrameLogWriter"),
      currentFrameLogFilePath_(std::move(currentFrameLogFilePath)),
      commitedFrameLogFilePath_(std::move(commitedFrameLogFilePath)),
      currentFrameLogFileName_(std::move(currentFrameLogFileName)),
      commitedFrameLogFileName_(std::move(commitedFrameLogFileName)),
      fileHandle_(std::move(fileHandle)),
      fileManager_(std::move(fileManager)),
      serializer_(std::move(serializer)),
      deserializer_(std::move(deserializer)),
      frameTypesForRoll_(std::move(frameTypesForRoll)),
      frameTypesToDrop_(std::move(frameTypesToDrop)),
      logPath_(currentFrameLogFilePathWithName()),
      platformFileManager_(platform::FileManager::defaultManager()) {}

void SkeldaStreamFrameLogWriter::startup() {
  asyncBlock([] {});
}

void SkeldaStreamFrameLogWriter::registerNextStageComponent(
    std::shared_ptr<ISkeldaStreamComponent> /*stage*/) {
  platform::abortOnFailedAssertion("0");
}

void SkeldaStreamFrameLogWriter::nextStageDidChangeState(std::int32_t /*state*/) {
  platform::abortOnFailedAssertion("0");
}

std::string SkeldaStreamFrameLogWriter::currentFrameLogFilePathWithName() const {
  return fmt::format("{}/{}", currentFrameLogFilePath_, currentFrameLogFileName_);
}

std::string SkeldaStreamFrameLogWriter::commitedFrameLogFilePathWithName() const {
  return fmt::format("{}/{}", commitedFrameLogFilePath_, commitedFrameLogFileName_);
}

std::string SkeldaStreamFrameLogWriter::currentWatchSessionIdFilePath() {
  return SkeldaWatchStreamSessionRule::currentWatchSessionIdFilePath();
}

bool SkeldaStreamFrameLogWriter::isPendingLogFilePresent() const {
  return platformFileManager_->fileExistsAtPath(*logPath_);
}

std::shared_ptr<SkeldaStreamSessionId> SkeldaStreamFrameLogWriter::sessionIdFromDisk() {
  std::shared_ptr<SkeldaStreamSessionId> sessionId;
  syncBlock([&] { sessionId = sessionIdFromDisk_; });
  return sessionId;
}

void SkeldaStreamFrameLogWriter::onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) {
  SKELDA_LOG(0, "{}: message = {}", kStreamMessage, SkeldaMessageTrace::description(message));
  if (!message || contains(frameTypesToDrop_, message->frameType())) return;
  auto frame = serializer_->frameFromStreamMessage(*message);
  if (!frame) {
    return SkeldaAccounting::settle(message->intakeTicket(), SkeldaIntakeOutcome::serializer);
  }
  if (onqueue_writeData(std::move(frame), true)) {
    SkeldaAccounting::settle(message->intakeTicket(), SkeldaIntakeOutcome::stored);
  }
  if (!contains(frameTypesForRoll_, message->frameType())) return;

  // True from the end of a session until the next one has all its sticky messages: a process that
  // stops in between leaves a session whose data is incomplete.
  const auto status = skelda::flushStatusOf(message);
  if (status == Flush::kSessionFinalized) onqueue_setCrashFlag(true);
  if (status == Flush::kStickySetComplete) onqueue_setCrashFlag(false);
  SKELDA_LOG(2, "{}: !! Rolling Log File !!", kStreamMessage);
  onqueue_rollLogFile();
}

void SkeldaStreamFrameLogWriter::onqueue_transferUserInfo(const platform::Value& /*userInfo*/) {}

void SkeldaStreamFrameLogWriter::onqueue_rollLogFile() {
  onqueue_moveCurrentLogFileToCommitedLogFilesPath();
  if (!onqueue_openFileHandleIfNeeded()) return;
  // Whether or not the copy succeeded: a log that cannot be committed is given up, so that the next
  // session starts a log of its own.
  fileHandle_->truncateFileToZeroBytes();
  onqueue_writeCounterFrame();
}

void SkeldaStreamFrameLogWriter::onqueue_moveCurrentLogFileToCommitedLogFilesPath() {
  if (!fileManager_->createIfNotPresentDirectoryAtPath(commitedFrameLogFilePath_)) return;
  if (!fileManager_->isFilePresentAtPath(logPath_)) {
    // Somebody removed the log under the open handle: what goes into it from here on would be lost.
    fileHandle_->closeFile();
    return;
  }
  const std::string commitedPath = onqueue_freshCommitedPath();
  if (!fileManager_->copyFileFrom(logPath_, commitedPath)) {
    SKELDA_LOG(1, "{}: Unable to copy frame log file from {} to {}", kMoveCurrentLog, *logPath_,
               commitedPath);
  }
}

std::string SkeldaStreamFrameLogWriter::onqueue_freshCommitedPath() const {
  // A copy never replaces a file, so a name that is taken would lose the log. Two rolls can fall
  // into one microsecond, and the wall clock can be set back: then the next free microsecond does.
  constexpr int kTries = 1000;
  constexpr platform::Date::Microseconds kStep{1};
  const std::string base = commitedFrameLogFilePathWithName();
  platform::Date time = platform::Date::now();
  std::string path;
  for (int tries = 0; tries < kTries; ++tries, time = time + kStep) {
    path = fmt::format("{}_{:.6f}", base, time.timeIntervalSince1970());
    if (!fileManager_->isFilePresentAtPath(path)) break;
  }
  return path;
}

bool SkeldaStreamFrameLogWriter::onqueue_openFileHandleIfNeeded() {
  if (fileHandle_->isOpenFile(logPath_)) return true;
  if (!fileManager_->isFilePresentAtPath(logPath_) && !fileManager_->createFileAtPath(logPath_)) {
    SKELDA_LOG(1, "{}: unable to create frame log file for writing data at path {}",
               kOpenFileHandle, *logPath_);
    return SkeldaUtil::assert_(false, kOpenFileHandle);
  }
  platform::ErrorRef error;
  fileHandle_->openForWritingFile(logPath_, &error);
  if (error) {
    SKELDA_LOG(1, "{}: unable to open frame log file for writing data at path {}, error = {}",
               kOpenFileHandle, *logPath_, platform::description(error));
    return SkeldaUtil::assert_(false, kOpenFileHandle);
  }
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_writeData(const std::optional<platform::Data>& data,
                                                   bool seekToEOF) {
  if (!onqueue_openFileHandleIfNeeded()) return false;
  // Without the seek the write would land on what is there already.
  if (seekToEOF && !fileHandle_->seekToEndOfFile()) return false;
  platform::ErrorRef error;
  fileHandle_->writeData(data, &error);
  fileHandle_->synchronizeFile();
  if (error) {
    SKELDA_LOG(2, "{}: Error while writing data: {}", kWriteData, platform::description(error));
  }
  return error == nullptr;
}

void SkeldaStreamFrameLogWriter::onqueue_writeCounterFrame() {
  const auto storage = SkeldaKVStorage::sharedInstance();
  const std::string key(kFrameCounterKey);
  const auto last = static_cast<std::uint32_t>(storage->integerForKey(key));
  const auto counter = static_cast<std::int32_t>(last + 1U);
  // On disk before the frame is, so that no log begins with a number that is given again.
  storage->storeObject(counter, key);
  const auto message = SkeldaStreamCounter::counterFrameWithCounter(counter);
  onqueue_writeData(serializer_->frameFromStreamMessage(*message), true);
}

void SkeldaStreamFrameLogWriter::onqueue_setCrashFlag(bool crashed) {
  // On disk before the log is rolled: the flag never lags behind it.
  SkeldaKVStorage::sharedInstance()->storeObject(crashed, std::string(kCrashFlagKey));
}

void SkeldaStreamFrameLogWriter::debugFrameData(const platform::Data& frameData,
                                                const ISkeldaStreamMessage::Ref& message) {
  std::size_t bytesRead = 0;
  platform::ErrorRef error;
  SkeldaStreamFrame::Ref frame;
  if (deserializer_->isAtLeastOneFrameInData(frameData.view())) {
    frame = deserializer_->streamFrameFromData(frameData.view(), &bytesRead, &error);
  }
  SKELDA_LOG(2, "{}: frame = {}, bytes read = {}, error = {}", kDebugFrameData,
             frame ? frame->description() : "(null)", bytesRead, platform::description(error));
  const auto payload = message ? message->payload() : std::nullopt;
  const platform::Data expected = payload.value_or(platform::Data());
  const platform::Data decoded = frame ? frame->payload() : platform::Data();
  assertTrue(frameData.length() == bytesRead, "frameData.length == bytesRead");
  assertTrue(expected.length() == decoded.length(),
             "message.payload.length == frame.payload.length");
  assertTrue(decoded == expected, "[frame.payload isEqualToData:message.payload]");
  assertTrue(error == nullptr, "error == nil");
}
