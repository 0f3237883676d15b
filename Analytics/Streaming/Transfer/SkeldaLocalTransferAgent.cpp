#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"

#include <algorithm>
#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"

SkeldaLocalTransferAgent::SkeldaLocalTransferAgent(
    std::shared_ptr<ISkeldaStreamFileReader> fileReader,
    std::shared_ptr<ISkeldaStreamFileManager> fileManager)
    : SkeldaActorStreamComponentBase("SkeldaLocalTransferAgent"),
      fileReader_(std::move(fileReader)),
      fileManager_(std::move(fileManager)) {}

std::shared_ptr<SkeldaLocalTransferAgent>
SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
    std::shared_ptr<ISkeldaStreamFileReader> fileReader,
    std::shared_ptr<ISkeldaStreamFileManager> fileManager) {
  return made(new SkeldaLocalTransferAgent(std::move(fileReader), std::move(fileManager)));
}

void SkeldaLocalTransferAgent::didInit() {
  if (fileReader_ != nullptr) fileReader_->setDelegate(selfOf(this));
}

void SkeldaLocalTransferAgent::startup() {}

void SkeldaLocalTransferAgent::setDelegate(
    std::weak_ptr<ISkeldaFileTransferAgentDelegate> delegate) {
  asyncBlock([self = selfOf(this), delegate = std::move(delegate)] { self->delegate_ = delegate; });
}

void SkeldaLocalTransferAgent::startTransfer(SkeldaFileStateRef file) {
  post<&SkeldaLocalTransferAgent::onqueue_startTransfer>(std::move(file));
}

void SkeldaLocalTransferAgent::cancelTransfer(SkeldaFileStateRef file) {
  post<&SkeldaLocalTransferAgent::onqueue_cancelTransfer>(std::move(file));
}

void SkeldaLocalTransferAgent::resumeTransfer(SkeldaFileStateRef file) {
  post<&SkeldaLocalTransferAgent::onqueue_resumeTransfer>(std::move(file));
}

std::vector<SkeldaFileStateRef> SkeldaLocalTransferAgent::listTransfers() {
  std::vector<SkeldaFileStateRef> transfers;
  syncBlock([&] { transfers = transferQueue_; });
  return transfers;
}

void SkeldaLocalTransferAgent::finishTransferWithFileName(const std::string& fileName) {
  post<&SkeldaLocalTransferAgent::onqueue_finishTransferWithFileName>(fileName);
}

void SkeldaLocalTransferAgent::processingCompleteForFile(const std::string& fileName) {
  post<&SkeldaLocalTransferAgent::onqueue_processingDidEnd>(fileName, nullptr);
}

void SkeldaLocalTransferAgent::processingFailedForFile(const std::string& fileName,
                                                       platform::ErrorRef withError) {
  // To the delegate an error that is not there is a success. A file without bytes is none, and is
  // to use up its attempts.
  if (withError == nullptr) {
    withError =
        platform::makeCounted<const platform::Error>(platform::makeErrorDomain("file is empty"), 0);
  }
  post<&SkeldaLocalTransferAgent::onqueue_processingDidEnd>(fileName, std::move(withError));
}

// -- On the queue

void SkeldaLocalTransferAgent::onqueue_startTransfer(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  constexpr std::string_view kMethod = "-[SkeldaLocalTransferAgent onqueue_startTransfer:]";
  if (!SkeldaUtil::assertNotNil(file, kMethod)) {
    return onqueue_refuseTransfer(file, "passed in file is nil");
  }
  if (!SkeldaUtil::assertNotNil(fileReader_, kMethod)) {
    return onqueue_refuseTransfer(file, "file reader not available, unable to transfer");
  }
  if (!SkeldaUtil::assertNotNil(fileManager_, kMethod)) {
    return onqueue_refuseTransfer(file, "file manager is nil");
  }
  transferQueue_.push_back(file);
  if (fileManager_->isFilePresentAtPath(file->fullPath())) {
    file->setFileState(kSkeldaFileStateReading);
    fileReader_->processFile(file->fileName(), file->filePath());
    return;
  }
  file->setFileState(kSkeldaFileStateError);
  SkeldaUtil::assert_(false, kMethod);
  // No completion, but whoever counts transfers must not wait for one.
  if (const auto delegate = delegate_.lock()) delegate->didAbandonTransfer();
}

void SkeldaLocalTransferAgent::onqueue_refuseTransfer(const SkeldaFileStateRef& file,
                                                      std::string_view reason) {
  SKELDA_ON_QUEUE();
  if (const auto delegate = delegate_.lock()) {
    delegate->didCompleteTransfer(
        file != nullptr ? file->fileName() : std::string(),
        platform::makeCounted<const platform::Error>(platform::makeErrorDomain(reason), 0));
  }
}

void SkeldaLocalTransferAgent::onqueue_cancelTransfer(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  if (!SkeldaUtil::assertNotNil(file, "-[SkeldaLocalTransferAgent onqueue_cancelTransfer:]")) {
    return;
  }
  std::erase(transferQueue_, file);
}

void SkeldaLocalTransferAgent::onqueue_resumeTransfer(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  if (!SkeldaUtil::assertNotNil(file, "-[SkeldaLocalTransferAgent onqueue_resumeTransfer:]")) {
    return;
  }
  if (std::find(transferQueue_.begin(), transferQueue_.end(), file) == transferQueue_.end()) {
    transferQueue_.push_back(file);
  }
}

void SkeldaLocalTransferAgent::onqueue_finishTransferWithFileName(const std::string& fileName) {
  SKELDA_ON_QUEUE();
  const auto found = std::find_if(transferQueue_.begin(), transferQueue_.end(),
                                  [&](const auto& file) { return file->fileName() == fileName; });
  if (found != transferQueue_.end()) transferQueue_.erase(found);
}

void SkeldaLocalTransferAgent::onqueue_processingDidEnd(const std::string& fileName,
                                                        const platform::ErrorRef& error) {
  SKELDA_ON_QUEUE();
  if (const auto delegate = delegate_.lock()) delegate->didCompleteTransfer(fileName, error);
  onqueue_finishTransferWithFileName(fileName);
}
