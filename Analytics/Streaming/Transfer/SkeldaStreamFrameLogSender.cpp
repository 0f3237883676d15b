#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"

#include <algorithm>
#include <utility>

#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/URLError.h"

namespace {

constexpr std::string_view kProcessFile =
    "-[SkeldaStreamFrameLogSender onqueue_processFile:atPath:]";

}  // namespace

SkeldaStreamFrameLogSender::SkeldaStreamFrameLogSender(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaFrameLogDataSender> dataSender)
    : SkeldaActorStreamComponentBase("SkeldaStreamFrameLogSender"),
      fileHandle_(std::move(fileHandle)),
      dataSender_(std::move(dataSender)) {}

std::shared_ptr<SkeldaStreamFrameLogSender>
SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle) {
  return frameLogSenderWithFileHandle(std::move(fileHandle), nullptr);
}

std::shared_ptr<SkeldaStreamFrameLogSender>
SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaFrameLogDataSender> dataSender) {
  return made(new SkeldaStreamFrameLogSender(std::move(fileHandle), std::move(dataSender)));
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
  fileHandle_->openForReadingFile(fullPath, &error);
  if (error != nullptr) {
    SKELDA_LOG(1, "{}: unable to open file for reading", kProcessFile);
    return onqueue_reportFailure(fileName, error);
  }
  auto data = fileHandle_->availableDataWithError(&error);
  fileHandle_->closeFile();
  if (error != nullptr || !data || data->empty()) {
    SKELDA_LOG(1, "{}: unable to get data from file", kProcessFile);
    return onqueue_reportFailure(fileName, error);
  }
  if (dataSender_ == nullptr || !dataSender_->sendFrameLogData(std::move(*data))) {
    return onqueue_reportNotStored(fileName);
  }
  storeRetryDelay_.reset();
  if (const auto delegate = delegate_.lock()) delegate->processingCompleteForFile(fileName);
}

void SkeldaStreamFrameLogSender::onqueue_reportFailure(const std::string& fileName,
                                                       const platform::ErrorRef& error) {
  SKELDA_ON_QUEUE();
  if (const auto delegate = delegate_.lock()) delegate->processingFailedForFile(fileName, error);
}

void SkeldaStreamFrameLogSender::onqueue_reportNotStored(const std::string& fileName) {
  SKELDA_ON_QUEUE();
  // A lost connection costs the file none of its attempts, and sends it here again at once: so the
  // report waits.
  const auto delay = storeRetryDelay_.next();
  SKELDA_LOG(1, "{}: unable to store data of file = {}, next attempt in {} s", kProcessFile,
             fileName, std::chrono::duration_cast<std::chrono::seconds>(delay).count());
  asyncBlock(
      [self = selfOf(this), fileName] {
        self->onqueue_reportFailure(
            fileName, platform::urlError(platform::kURLErrorNetworkConnectionLost, "not stored"));
      },
      std::int64_t{delay.count()});
}
