#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCounter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Analytics/Utils/ISkeldaStreamFileManager.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaKVStorage.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/ArmOnce.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/NotificationCenter.h"

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

constexpr std::chrono::nanoseconds kLongestRetryDelay = std::chrono::minutes(1);
/// How often a copy, or a value of the store, is tried within a tenth of a second.
constexpr int kTries = 3;

bool contains(const std::vector<std::int32_t>& frameTypes, std::int32_t frameType) {
  return std::find(frameTypes.begin(), frameTypes.end(), frameType) != frameTypes.end();
}

/// What a log begins and ends with: without it the next one means nothing.
std::vector<std::int32_t> kindsOfALog(std::vector<std::int32_t> frameTypesForRoll) {
  frameTypesForRoll.push_back(SkeldaStreamFrameTypeUtil::kCounter);
  return frameTypesForRoll;
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
  return writerOf({std::move(currentFrameLogFilePath), std::move(currentFrameLogFileName),
                   std::move(commitedFrameLogFilePath), std::move(commitedFrameLogFileName),
                   std::move(fileManager), std::move(fileHandle), std::move(serializer),
                   std::move(deserializer), std::move(frameTypesForRoll),
                   std::move(frameTypesToDrop)});
}

std::shared_ptr<SkeldaStreamFrameLogWriter> SkeldaStreamFrameLogWriter::writerOf(
    SkeldaFrameLogWriterParts parts) {
  return made(new SkeldaStreamFrameLogWriter(std::move(parts)));
}

SkeldaStreamFrameLogWriter::SkeldaStreamFrameLogWriter(SkeldaFrameLogWriterParts parts)
    : SkeldaActorStreamCoreComponent("SkeldaStreamFrameLogWriter"),
      parts_(std::move(parts)),
      logPath_(currentFrameLogFilePathWithName()),
      retryDelay_(std::chrono::milliseconds(50), kLongestRetryDelay),
      delayWithinARoll_(std::chrono::milliseconds(25)),
      owed_(kindsOfALog(parts_.frameTypesForRoll)),
      frames_(SkeldaStreamFrameTypeUtil::frameTypesWithRole(SkeldaStreamFrameTypeUtil::kSticky)) {}

void SkeldaStreamFrameLogWriter::setRetryDelays(std::chrono::nanoseconds first,
                                                std::chrono::nanoseconds withinARoll) noexcept {
  retryDelay_ = platform::RetryDelay(first, kLongestRetryDelay);
  delayWithinARoll_ = withinARoll;
}

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
  return fmt::format("{}/{}", parts_.currentFolder, parts_.currentName);
}

std::string SkeldaStreamFrameLogWriter::commitedFrameLogFilePathWithName() const {
  return fmt::format("{}/{}", parts_.commitedFolder, parts_.commitedName);
}

std::string SkeldaStreamFrameLogWriter::currentWatchSessionIdFilePath() {
  return SkeldaAgentFiles::currentWatchSessionId(SkeldaHostSettings::apiKey());
}

bool SkeldaStreamFrameLogWriter::isPendingLogFilePresent() const {
  return platform::FileManager::defaultManager()->fileExistsAtPath(*logPath_);
}

std::shared_ptr<SkeldaStreamSessionId> SkeldaStreamFrameLogWriter::sessionIdFromDisk() {
  std::shared_ptr<SkeldaStreamSessionId> sessionId;
  syncBlock([&] { sessionId = sessionIdFromDisk_; });
  return sessionId;
}

void SkeldaStreamFrameLogWriter::streamMessages(Messages messages) {
  post<&SkeldaStreamFrameLogWriter::onqueue_takeMessages>(std::move(messages));
}

void SkeldaStreamFrameLogWriter::onqueue_takeMessages(const Messages& messages) {
  SKELDA_ON_QUEUE();
  // What one of them throws is not the next one's loss.
  for (const auto& message : messages) skelda::guarded([&] { onqueue_streamMessage(message); })();
}

void SkeldaStreamFrameLogWriter::onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) {
  SKELDA_LOG(0, "{}: message = {}", kStreamMessage, skelda::descriptionOf(message));
  if (!message || contains(parts_.frameTypesToDrop, message->frameType())) return;
  onqueue_writeOwed();
  if (!owed_.isEmpty() || !onqueue_write(message)) onqueue_owe(message);
}

bool SkeldaStreamFrameLogWriter::onqueue_write(const Message& message) {
  SKELDA_ON_QUEUE();
  const auto& frame = frames_.frameOf(message, *parts_.serializer);
  if (!frame) {
    SkeldaAccounting::settle(message->intakeTicket(), SkeldaIntakeOutcome::serializer);
    return true;
  }
  const std::uint64_t failedBefore = failedSynchronisations_;
  if (!onqueue_writeData(frame, true)) return false;
  ++framesInLog_;
  onqueue_frameIsWritten(message, failedSynchronisations_ == failedBefore);
  if (!contains(parts_.frameTypesForRoll, message->frameType())) return true;

  // True from the end of a session until the next one has all its sticky messages: a process that
  // stops in between leaves a session whose data is incomplete.
  const auto status = skelda::flushStatusOf(message);
  std::optional<bool> crashFlag;
  if (status == Flush::kSessionFinalized) crashFlag = true;
  if (status == Flush::kStickySetComplete) crashFlag = false;
  SKELDA_LOG(2, "{}: !! Rolling Log File !!", kStreamMessage);
  onqueue_rollLogFile(crashFlag);
  return true;
}

void SkeldaStreamFrameLogWriter::onqueue_frameIsWritten(const Message& message, bool synchronized) {
  SKELDA_ON_QUEUE();
  SkeldaAccounting::add(SkeldaAccounting::page().framesWritten);
  if (message->intakeTicket() != kSkeldaNoTicket)
    writtenTickets_.push_back(message->intakeTicket());
  if (synchronized) onqueue_framesAreKept();
}

void SkeldaStreamFrameLogWriter::onqueue_framesAreKept() {
  SKELDA_ON_QUEUE();
  for (const SkeldaIntakeTicket ticket : writtenTickets_) {
    SkeldaAccounting::settle(ticket, SkeldaIntakeOutcome::stored);
  }
  writtenTickets_.clear();
}

void SkeldaStreamFrameLogWriter::onqueue_areLost(const SkeldaOwedFrames::Messages& messages) {
  SKELDA_ON_QUEUE();
  for (const auto& message : messages) {
    SKELDA_LOG(1, "{}: given up, message = {}", kWriteData, message->className());
  }
  SkeldaAccounting::add(SkeldaAccounting::page().framesLost, messages.size());
}

void SkeldaStreamFrameLogWriter::onqueue_logIsLost() {
  SKELDA_ON_QUEUE();
  SKELDA_LOG(1, "{}: {} frames are lost", kMoveCurrentLog, framesInLog_);
  SkeldaAccounting::add(SkeldaAccounting::page().framesLost, framesInLog_);
  SkeldaAccounting::logRemoved(SkeldaLogRemoval::copyFailed);
  // What the disk never kept is in the journal still, and comes again with the next start.
  writtenTickets_.clear();
}

void SkeldaStreamFrameLogWriter::onqueue_transferUserInfo(const platform::Value& /*userInfo*/) {}

void SkeldaStreamFrameLogWriter::onqueue_rollLogFile(std::optional<bool> crashFlag) {
  SKELDA_ON_QUEUE();
  const Message counter = onqueue_nextCounter(crashFlag);
  // Whether or not the copy succeeded the log is emptied: one that cannot be committed is given up,
  // so that the next session starts a log of its own.
  if (!onqueue_moveCurrentLogFileToCommitedLogFilesPath()) onqueue_logIsLost();
  if (!onqueue_openFileHandleIfNeeded() || !parts_.fileHandle->truncateFileToZeroBytes()) {
    // What is in it is left to the committed copy and must not go into the next one.
    parts_.fileHandle->closeFile();
    parts_.fileManager->removeItemAtPath(logPath_);
  }
  framesInLog_ = 0;
  onqueue_writeCounterFrame(counter);
}

bool SkeldaStreamFrameLogWriter::onqueue_moveCurrentLogFileToCommitedLogFilesPath() {
  SKELDA_ON_QUEUE();
  for (int tries = 1; !onqueue_commitLog(); ++tries) {
    if (tries == kTries) return false;
    // What is short may be there again in a moment; longer than this nobody behind is held up.
    std::this_thread::sleep_for(delayWithinARoll_ * tries);
  }
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_commitLog() {
  if (!parts_.fileManager->createIfNotPresentDirectoryAtPath(parts_.commitedFolder)) return false;
  if (!parts_.fileManager->isFilePresentAtPath(logPath_)) {
    // Somebody removed the log under the open handle: what goes into it from here on would be lost.
    parts_.fileHandle->closeFile();
    return true;
  }
  const std::string commitedPath = onqueue_freshCommitedPath();
  if (parts_.fileManager->copyFileFrom(logPath_, commitedPath)) {
    onqueue_framesAreKept();  // The copy is synchronised, whatever became of the log.
  } else {
    SKELDA_LOG(1, "{}: Unable to copy frame log file from {} to {}", kMoveCurrentLog, *logPath_,
               commitedPath);
    // A copy that is there is whole, even where its folder could not be synchronised.
    const auto names = parts_.fileManager->fileNamesAtPath(parts_.commitedFolder);
    const std::string name = commitedPath.substr(commitedPath.rfind('/') + 1);
    if (!names || std::ranges::find(*names, name) == names->end()) return false;
  }
  SkeldaAccounting::add(SkeldaAccounting::page().logsCommited);
  skelda::guarded([] {
    platform::NotificationCenter::defaultCenter().post(kSkeldaFrameLogWasCommitedNotification);
  })();
  return true;
}

std::string SkeldaStreamFrameLogWriter::onqueue_freshCommitedPath() const {
  // A copy never replaces a file, so a name that is taken would lose the log. Two rolls can fall
  // into one microsecond, and the wall clock can be set back: then the next free microsecond does.
  constexpr int kNames = 1000;
  constexpr platform::Date::Microseconds kStep{1};
  const std::string base = commitedFrameLogFilePathWithName();
  platform::Date time = platform::Date::now();
  std::string path;
  for (int names = 0; names < kNames; ++names, time = time + kStep) {
    path = fmt::format("{}_{:.6f}", base, time.timeIntervalSince1970());
    if (!parts_.fileManager->isFilePresentAtPath(path)) break;
  }
  return path;
}

bool SkeldaStreamFrameLogWriter::onqueue_openFileHandleIfNeeded() {
  if (parts_.fileHandle->isOpenFile(logPath_)) return true;
  if (!parts_.fileManager->isFilePresentAtPath(logPath_) &&
      !parts_.fileManager->createFileAtPath(logPath_)) {
    SKELDA_LOG(1, "{}: unable to create frame log file for writing data at path {}",
               kOpenFileHandle, *logPath_);
    return SkeldaUtil::assert_(false, kOpenFileHandle);
  }
  platform::ErrorRef error;
  parts_.fileHandle->openForWritingFile(logPath_, &error);
  if (error) {
    SKELDA_LOG(1, "{}: unable to open frame log file for writing data at path {}, error = {}",
               kOpenFileHandle, *logPath_, platform::description(error));
    return SkeldaUtil::assert_(false, kOpenFileHandle);
  }
  return true;
}

bool SkeldaStreamFrameLogWriter::onqueue_writeData(const std::optional<platform::Data>& data,
                                                   bool seekToEOF) {
  SKELDA_ON_QUEUE();
  if (!onqueue_openFileHandleIfNeeded()) return false;
  // Without the seek the write would land on what is there already.
  if (seekToEOF && !parts_.fileHandle->seekToEndOfFile()) return false;
  platform::ErrorRef error;
  parts_.fileHandle->writeData(data, &error);
  onqueue_synchronize();
  if (!error) return true;
  SKELDA_LOG(2, "{}: Error while writing data: {}", kWriteData, platform::description(error));
  return false;
}

void SkeldaStreamFrameLogWriter::onqueue_synchronize() {
  SKELDA_ON_QUEUE();
  if (parts_.fileHandle->synchronizeFile()) return;
  ++failedSynchronisations_;
  SKELDA_LOG(1, "{}: unable to synchronise frame log file at path {}, {} times so far", kWriteData,
             *logPath_, failedSynchronisations_);
  SkeldaAccounting::add(SkeldaAccounting::page().synchronizationsFailed);
}

SkeldaStreamFrameLogWriter::Message SkeldaStreamFrameLogWriter::onqueue_nextCounter(
    std::optional<bool> crashFlag) {
  SKELDA_ON_QUEUE();
  const auto last = static_cast<std::uint32_t>(
      SkeldaKVStorage::sharedInstance()->integerForKey(std::string(kFrameCounterKey)));
  const auto counter = static_cast<std::int32_t>(last + 1U);
  platform::Dictionary values{{std::string(kFrameCounterKey), counter}};
  if (crashFlag) values.append(std::string(kCrashFlagKey), *crashFlag);
  onqueue_store(values);
  return SkeldaStreamCounter::counterFrameWithCounter(counter);
}

void SkeldaStreamFrameLogWriter::onqueue_writeCounterFrame(const Message& counter) {
  SKELDA_ON_QUEUE();
  if (onqueue_write(counter)) return;
  // Whatever is owed goes behind it.
  owed_.addBeforeOthers(counter);
  onqueue_payLater();
}

/// On disk before the log is rolled, so that the crash flag does not lag behind it and no log
/// begins with a number that is given again: one write for both.
void SkeldaStreamFrameLogWriter::onqueue_store(const platform::Dictionary& values) {
  SKELDA_ON_QUEUE();
  for (int tries = 1; tries <= kTries; ++tries) {
    if (SkeldaKVStorage::sharedInstance()->storeObjects(values)) return;
    if (tries < kTries) std::this_thread::sleep_for(delayWithinARoll_ * tries);
  }
  SKELDA_LOG(1, "{}: {} is not on disk", kStreamMessage, platform::Value(values).description());
}

void SkeldaStreamFrameLogWriter::onqueue_owe(const Message& message) {
  SKELDA_ON_QUEUE();
  onqueue_areLost(owed_.add(message));
  onqueue_payLater();
}

void SkeldaStreamFrameLogWriter::onqueue_writeOwed() {
  SKELDA_ON_QUEUE();
  if (!owed_.isEmpty()) owed_.pay([this](const Message& owed) { return onqueue_write(owed); });
}

void SkeldaStreamFrameLogWriter::onqueue_payLater() {
  SKELDA_ON_QUEUE();
  platform::armOnce(willPay_, [this] {
    asyncBlock([this] { onqueue_payNow(); }, std::int64_t{retryDelay_.next().count()});
  });
}

void SkeldaStreamFrameLogWriter::onqueue_payNow() {
  SKELDA_ON_QUEUE();
  willPay_ = false;
  onqueue_writeOwed();
  onqueue_areLost(owed_.wasTriedAgain());
  if (!owed_.isEmpty()) return onqueue_payLater();
  retryDelay_.reset();
}

void SkeldaStreamFrameLogWriter::debugFrameData(const platform::Data& frameData,
                                                const ISkeldaStreamMessage::Ref& message) {
  std::size_t bytesRead = 0;
  platform::ErrorRef error;
  SkeldaStreamFrame::Ref frame;
  if (parts_.deserializer->isAtLeastOneFrameInData(frameData.view())) {
    frame = parts_.deserializer->streamFrameFromData(frameData.view(), &bytesRead, &error);
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
