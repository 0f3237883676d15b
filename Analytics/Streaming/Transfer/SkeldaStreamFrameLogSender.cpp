#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"

#include <cerrno>
#include <new>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/URLError.h"

namespace {

constexpr std::string_view kProcessFile =
    "-[SkeldaStreamFrameLogSender onqueue_processFile:atPath:]";

/// What keeps a file from being read at this moment, as errno; 0 where nothing does any more. File
/// handles do not say.
int reasonNotReadable(const std::string& path) {
  try {
    platform::ErrorRef error;
    const auto bytes = platform::FileManager::defaultManager()->contentsAtPath(path, &error);
    return bytes ? 0 : static_cast<int>(error->code());
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

/// Whether every other file would fare the same. 0 as well: the next try will tell.
bool isWantOfTheDevice(int reason) noexcept {
  return reason == 0 || reason == EMFILE || reason == ENFILE || reason == ENOMEM;
}

}  // namespace

SkeldaStreamFrameLogSender::SkeldaStreamFrameLogSender(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaFrameLogDataSender> dataSender, RetryDelay retryDelay)
    : SkeldaActorStreamComponentBase("SkeldaStreamFrameLogSender"),
      fileHandle_(std::move(fileHandle)),
      dataSender_(std::move(dataSender)),
      retryDelay_(retryDelay) {}

std::shared_ptr<SkeldaStreamFrameLogSender>
SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle) {
  return frameLogSenderWithFileHandle(std::move(fileHandle), nullptr);
}

std::shared_ptr<SkeldaStreamFrameLogSender>
SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaFrameLogDataSender> dataSender, RetryDelay retryDelay) {
  return made(
      new SkeldaStreamFrameLogSender(std::move(fileHandle), std::move(dataSender), retryDelay));
}

void SkeldaStreamFrameLogSender::didInit() {
  setupDataSender();
}

void SkeldaStreamFrameLogSender::setupDataSender() {
  // Posted: it reads from the disk, and whoever makes the sender may be the host's main thread.
  post<&SkeldaStreamFrameLogSender::onqueue_setupDataSender>();
}

void SkeldaStreamFrameLogSender::onqueue_setupDataSender() {
  SKELDA_ON_QUEUE();
  if (dataSender_ == nullptr) {
    SkeldaDataSender::setupInstanceWithQueue(
        platform::Queue::serial("com.skelda.Analytics.LogSender"));
    dataSender_ = SkeldaDataSender::sharedInstance();
  }
  onqueue_enableTestAppObserver();
}

void SkeldaStreamFrameLogSender::onqueue_enableTestAppObserver() {
  SKELDA_ON_QUEUE();
  dataObserver_ = std::dynamic_pointer_cast<ISkeldaStreamingDataObserver>(
      platform::ClassRegistry::shared().make("SkeldaStreamingObserver"));
}

void SkeldaStreamFrameLogSender::startup() {}

void SkeldaStreamFrameLogSender::setDelegate(
    std::weak_ptr<ISkeldaStreamFileReaderDelegate> delegate) {
  asyncBlock([self = selfOf(this), delegate = std::move(delegate)] { self->delegate_ = delegate; });
}

void SkeldaStreamFrameLogSender::processFile(const std::string& fileName, const std::string& path) {
  post<&SkeldaStreamFrameLogSender::onqueue_processFile>(fileName, path);
}

void SkeldaStreamFrameLogSender::onqueue_processFile(const std::string& fileName,
                                                     const std::string& folder) {
  SKELDA_ON_QUEUE();
  if (!SkeldaUtil::assertNotNil(fileHandle_, kProcessFile)) return;
  const std::string fullPath = folder + "/" + fileName;
  if (dataObserver_ != nullptr) dataObserver_->frameLogFileDidUpdate(fullPath);

  platform::ErrorRef error;
  auto data = onqueue_contentsOfFile(fullPath, &error);
  if (error != nullptr) return onqueue_reportUnreadable(fileName, fullPath, error);
  if (!data || data->empty()) return onqueue_reportFailure(fileName, nullptr);
  if (dataSender_ == nullptr || !dataSender_->sendFrameLogData(std::move(*data))) {
    return onqueue_reportLater(fileName);
  }
  retryDelay_.reset();
  SkeldaAccounting::add(SkeldaAccounting::page().logsStored);
  if (const auto delegate = delegate_.lock()) delegate->processingCompleteForFile(fileName);
}

std::optional<platform::Data> SkeldaStreamFrameLogSender::onqueue_contentsOfFile(
    const std::string& fullPath, platform::ErrorRef* error) {
  SKELDA_ON_QUEUE();
  using Errors = SkeldaStreamErrorConstants;
  auto data = fileHandle_->contentsOfFile(fullPath, error);
  if (*error != nullptr && (*error)->code() != Errors::kFileReadFailure) {
    SKELDA_LOG(1, "{}: unable to open file for reading", kProcessFile);
  } else if (*error != nullptr || !data || data->empty()) {
    SKELDA_LOG(1, "{}: unable to get data from file", kProcessFile);
  }
  return data;
}

void SkeldaStreamFrameLogSender::onqueue_reportFailure(const std::string& fileName,
                                                       const platform::ErrorRef& error) {
  SKELDA_ON_QUEUE();
  if (const auto delegate = delegate_.lock()) delegate->processingFailedForFile(fileName, error);
}

void SkeldaStreamFrameLogSender::onqueue_reportUnreadable(const std::string& fileName,
                                                          const std::string& fullPath,
                                                          const platform::ErrorRef& error) {
  SKELDA_ON_QUEUE();
  const int reason = reasonNotReadable(fullPath);
  const bool ofTheFile = reason == EIO || reason == EACCES;
  if (isWantOfTheDevice(reason) || (ofTheFile && !retryDelay_.isAtLongest())) {
    return onqueue_reportLater(fileName);
  }
  onqueue_reportFailure(fileName, error);
}

void SkeldaStreamFrameLogSender::onqueue_reportLater(const std::string& fileName) {
  SKELDA_ON_QUEUE();
  const auto delay = retryDelay_.next();
  // A lost connection costs the file none of its attempts, and sends it here again at once: so the
  // report waits.
  SKELDA_LOG(1, "{}: unable to store data of file = {}, next attempt in {} ms", kProcessFile,
             fileName, std::chrono::duration_cast<std::chrono::milliseconds>(delay).count());
  asyncBlock(
      [self = selfOf(this), fileName] {
        self->onqueue_reportFailure(
            fileName, platform::urlError(platform::kURLErrorNetworkConnectionLost, "not stored"));
      },
      std::int64_t{delay.count()});
}
