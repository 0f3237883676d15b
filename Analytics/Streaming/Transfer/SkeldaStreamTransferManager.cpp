#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"

#include <algorithm>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeData.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/ArmOnce.h"
#include "Platform/Foundation/URLError.h"
#include "Skelda_Watch/SkeldaConstants.h"

namespace {

constexpr std::int32_t kDefaultMaxFileCount = 4;
constexpr std::int32_t kDefaultMaxUploadCount = 5;
constexpr std::int32_t kMaxUploadAttempts = 3;
constexpr std::int32_t kMaxRemoveAttempts = 3;

std::int32_t limitIn(const platform::Dictionary& config, std::string_view key,
                     std::int32_t fallback) {
  const auto* option = config.find(key);
  const std::int64_t value = option != nullptr ? option->integerValue() : 0;
  return value < 1 ? fallback : static_cast<std::int32_t>(std::min<std::int64_t>(value, INT32_MAX));
}

bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

/// Takes the run of digits off the front of `text`, without its leading zeros.
std::string_view takeNumber(std::string_view& text) noexcept {
  std::size_t length = 0;
  while (length < text.size() && isDigit(text[length])) ++length;
  std::string_view number = text.substr(0, length);
  text.remove_prefix(length);
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  return number;
}

/// Being off line costs a file nothing. Domains are told apart by identity.
bool isOffline(const platform::Error& error) noexcept {
  return error.hasDomain(platform::urlErrorDomain()) &&
         (error.code() == platform::kURLErrorNotConnectedToInternet ||
          error.code() == platform::kURLErrorNetworkConnectionLost);
}

}  // namespace

bool SkeldaStreamTransferManager::isOrderedBefore(std::string_view left,
                                                  std::string_view right) noexcept {
  // Logs' names differ in their last digits only.
  auto same = static_cast<std::size_t>(
      std::mismatch(left.begin(), left.end(), right.begin(), right.end()).first - left.begin());
  while (same > 0 && isDigit(left[same - 1])) --same;
  std::string_view a = left.substr(same);
  std::string_view b = right.substr(same);
  while (!a.empty() && !b.empty()) {
    if (isDigit(a.front()) && isDigit(b.front())) {
      const std::string_view x = takeNumber(a);
      const std::string_view y = takeNumber(b);
      if (x.size() != y.size()) return x.size() < y.size();
      if (x != y) return x < y;
      continue;
    }
    if (a.front() != b.front()) {
      return static_cast<unsigned char>(a.front()) < static_cast<unsigned char>(b.front());
    }
    a.remove_prefix(1);
    b.remove_prefix(1);
  }
  if (a.empty() != b.empty()) return a.empty();
  return left < right;  // "1" and "01": any fixed order will do
}

SkeldaStreamTransferManager::SkeldaStreamTransferManager(
    const platform::Dictionary& config, std::shared_ptr<ISkeldaNodeDataProvider> nodeDataProvider,
    std::string filePath, std::shared_ptr<ISkeldaStreamFileManager> fileManager,
    std::shared_ptr<ISkeldaFileTransferAgent> fileTransferAgent)
    : SkeldaActor("SkeldaStreamTransferManager"),
      nodeDataProvider_(std::move(nodeDataProvider)),
      fileTransferAgent_(std::move(fileTransferAgent)),
      filePath_(std::move(filePath)),
      fileManager_(std::move(fileManager)),
      maxUploadCount_(
          limitIn(config, kSkeldaStreamConfigOptionMaxFileUploadCount, kDefaultMaxUploadCount)),
      maxFileCount_(
          limitIn(config, kSkeldaStreamConfigOptionMaxFileTransferCount, kDefaultMaxFileCount)) {}

std::shared_ptr<SkeldaStreamTransferManager> SkeldaStreamTransferManager::transferManagerWithConfig(
    platform::Dictionary config, std::shared_ptr<ISkeldaNodeDataProvider> nodeDataProvider,
    std::string filePath, std::shared_ptr<ISkeldaStreamFileManager> fileManager,
    std::shared_ptr<ISkeldaFileTransferAgent> fileTransferAgent) {
  return made(new SkeldaStreamTransferManager(config, std::move(nodeDataProvider),
                                              std::move(filePath), std::move(fileManager),
                                              std::move(fileTransferAgent)));
}

void SkeldaStreamTransferManager::didInit() {
  fileTransferAgent_->setDelegate(selfOf(this));
}

void SkeldaStreamTransferManager::startup(Completion completion) {
  post<&SkeldaStreamTransferManager::onqueue_startup>(std::move(completion));
}

void SkeldaStreamTransferManager::didCompleteTransfer(const std::string& fileName,
                                                      platform::ErrorRef withError) {
  post<&SkeldaStreamTransferManager::onqueue_didCompleteTransfer>(fileName, std::move(withError));
}

void SkeldaStreamTransferManager::didAbandonTransfer() {
  post<&SkeldaStreamTransferManager::onqueue_processFiles>();
}

void SkeldaStreamTransferManager::fileMonitor(ISkeldaNodeDataProvider&,
                                              std::uint32_t didSeeChange) {
  if (didSeeChange != kSkeldaNodeChangeWritten) return;
  // One that waits to be looked at stands for all that come meanwhile.
  platform::armOnce(changePosted_, [&] {
    post<&SkeldaStreamTransferManager::onqueue_nodeDataProviderDidSeeChange>(didSeeChange);
  });
}

SkeldaStreamTransferManager::Records SkeldaStreamTransferManager::fileUploadStatusDictionary() {
  Records records;
  syncBlock([&] { records = fileUploadStatusDictionary_; });
  return records;
}

std::int32_t SkeldaStreamTransferManager::currentUploadCount() {
  std::int32_t count = 0;
  syncBlock([&] { count = currentUploadCount_; });
  return count;
}

void SkeldaStreamTransferManager::onqueue_startup(const Completion& completion) {
  SKELDA_ON_QUEUE();
  nodeDataProvider_->addObserver(selfOf(this));
  nodeDataProvider_->forceRefresh([completion](platform::ErrorRef error) {
    constexpr std::string_view kMethod = "-[SkeldaStreamTransferManager onqueue_startup:]";
    if (error != nullptr) {
      SKELDA_LOG(1, "{}: error starting up node data provider, error = {}", kMethod,
                 platform::description(error));
    } else {
      SKELDA_LOG(2, "{}: #streaming: Node data provider start successful", kMethod);
    }
    if (completion) completion(error);
  });
}

// -- The pass over all files

void SkeldaStreamTransferManager::onqueue_processFiles() {
  SKELDA_ON_QUEUE();
  // Where the count of transfers turned out too high, a file that waited may go now.
  if (onqueue_processFilesOnce()) onqueue_processFilesOnce();
  if (goneSinceLook_ == 0) return;
  if (hasArrears_ || (lookAgainPending_ && !onqueue_mayPutOffLook())) onqueue_lookIntoFolder();
}

bool SkeldaStreamTransferManager::onqueue_processFilesOnce() {
  SKELDA_ON_QUEUE();
  // A folder over its limit is cut back below it by a quarter of the limit more, so that not every
  // new file deletes an old one.
  auto& records = fileUploadStatusDictionary_;
  const auto count =
      static_cast<std::int32_t>(std::min<std::size_t>(records.size(), INT32_MAX / 2));
  maxDeleteFileCount_ = count > maxFileCount_ ? (count - maxFileCount_) + maxFileCount_ / 4 : 0;
  deletedFileCount_ = 0;
  localUploadCounter_ = 0;
  auto from = records.begin();
  for (const auto& [name, file] : Records(attended_)) {
    onqueue_processWaitingFiles(from, records.lower_bound(name));
    onqueue_processFile(file);
    from = records.upper_bound(name);
  }
  onqueue_processWaitingFiles(from, records.end());
  return onqueue_reconcileUploadCount();
}

/// As far as some of them may go or a place is free.
void SkeldaStreamTransferManager::onqueue_processWaitingFiles(Records::iterator from,
                                                              Records::iterator until) {
  SKELDA_ON_QUEUE();
  while (from != until && (onqueue_mayDelete() || currentUploadCount_ < maxUploadCount_)) {
    const SkeldaFileStateRef file = (from++)->second;  // which its handler may erase
    onqueue_processFile(file);
  }
}

bool SkeldaStreamTransferManager::onqueue_reconcileUploadCount() {
  SKELDA_ON_QUEUE();
  constexpr std::string_view kMethod = "-[SkeldaStreamTransferManager onqueue_processFiles]";
  if (currentUploadCount_ == localUploadCounter_) return false;
  SKELDA_LOG(2,
             "{}: something wrong with in progress files, current upload count=[{}], local upload "
             "count = [{}]",
             kMethod, currentUploadCount_, localUploadCounter_);
  SkeldaUtil::assert_(false, kMethod);
  const bool lowered = localUploadCounter_ < currentUploadCount_;
  currentUploadCount_ = localUploadCounter_;
  return lowered;
}

void SkeldaStreamTransferManager::onqueue_processFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  switch (file->fileState()) {
    case kSkeldaFileStateWaiting:
      return onqueue_processWaitingFile(file);
    case kSkeldaFileStateInProgress:
    case kSkeldaFileStateReading:
      return onqueue_processInProgressFile(file);
    case kSkeldaFileStateSuspended:
      return onqueue_processSuspendedFile(file);
    case kSkeldaFileStateDone:
      return onqueue_processDoneFile(file);
    case kSkeldaFileStateRemove:
      return onqueue_processRemoveFile(file);
    case kSkeldaFileStateError:
      return onqueue_processErrorFile(file);
    default:
      return;
  }
}

/// Whether the folder held too much when the pass began and some of it may still go.
bool SkeldaStreamTransferManager::onqueue_mayDelete() const noexcept {
  SKELDA_ON_QUEUE();
  return deletedFileCount_ < maxDeleteFileCount_;
}

bool SkeldaStreamTransferManager::onqueue_deleteFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  nodeDataProvider_->willRemove(file->fileName());
  if (!fileManager_->removeItemAtPath(file->fullPath())) {
    file->setFileRemoveRetryCounter(file->fileRemoveRetryCounter() + 1);
    onqueue_endArrears();
    return false;
  }
  ++deletedFileCount_;
  ++goneSinceLook_;
  attended_.erase(file->fileName());
  fileUploadStatusDictionary_.erase(file->fileName());
  return true;
}

void SkeldaStreamTransferManager::onqueue_processWaitingFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  constexpr std::string_view kMethod = "-[SkeldaStreamTransferManager onqueue_processWaitingFile:]";
  if (onqueue_mayDelete()) {
    SKELDA_LOG(1,
               "{}: Error - Reached max storage capacity on disk. Hence removing file.File Name:{}",
               kMethod, file->fileName());
    if (onqueue_deleteFile(file)) {
      onqueue_accountFullFolder();
      SKELDA_LOG(2,
                 "{}: Removed File :{} as we have reached to our max capacity to store files on "
                 "disk",
                 kMethod, file->fileName());
    }
    return;
  }
  if (currentUploadCount_ >= maxUploadCount_) return;
  ++currentUploadCount_;
  ++localUploadCounter_;
  file->setFileState(kSkeldaFileStateInProgress);
  attended_.emplace(file->fileName(), file);
  fileTransferAgent_->startTransfer(file);
}

void SkeldaStreamTransferManager::onqueue_processInProgressFile(const SkeldaFileStateRef&) {
  SKELDA_ON_QUEUE();
  ++localUploadCounter_;
}

void SkeldaStreamTransferManager::onqueue_processSuspendedFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  SKELDA_LOG(1, "{}: file {} is in suspended state",
             "-[SkeldaStreamTransferManager onqueue_processSuspendedFile:]", file->fileName());
  onqueue_processErrorFile(file);
}

void SkeldaStreamTransferManager::onqueue_processDoneFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  --currentUploadCount_;
  file->setFileState(kSkeldaFileStateRemove);
  onqueue_processRemoveFile(file);
}

void SkeldaStreamTransferManager::onqueue_processRemoveFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  constexpr std::string_view kMethod = "-[SkeldaStreamTransferManager onqueue_processRemoveFile:]";
  if (file->fileRemoveRetryCounter() >= kMaxRemoveAttempts) {
    file->setFileState(kSkeldaFileStateError);
    SKELDA_LOG(1,
               "{}: Error - 3 tries failed to remove the file. Hence added error state for File "
               "Name: {}",
               kMethod, file->fileName());
  } else if (onqueue_deleteFile(file)) {
    SKELDA_LOG(2, "{}: #streaming File Removed : {}", kMethod, file->fileName());
  }
}

void SkeldaStreamTransferManager::onqueue_processErrorFile(const SkeldaFileStateRef& file) {
  SKELDA_ON_QUEUE();
  // One that was stored or given up before, and could not be deleted then, is accounted for.
  const bool isUnsent = file->fileRemoveRetryCounter() < kMaxRemoveAttempts;
  if (onqueue_mayDelete() && onqueue_deleteFile(file) && isUnsent) onqueue_accountFullFolder();
}

void SkeldaStreamTransferManager::onqueue_accountFullFolder() {
  SKELDA_ON_QUEUE();
  SkeldaAccounting::logRemoved(SkeldaLogRemoval::folderFull);
  SKELDA_NOTICE_ONCE(
      "Skelda: a log was deleted unsent, since more than {} wait to be stored: see what keeps the "
      "disk from taking them",
      maxFileCount_);
}

// -- How transfers end

void SkeldaStreamTransferManager::onqueue_didCompleteTransfer(const std::string& fileName,
                                                              const platform::ErrorRef& error) {
  SKELDA_ON_QUEUE();
  const auto found = fileUploadStatusDictionary_.find(fileName);
  if (found != fileUploadStatusDictionary_.end()) {
    auto& file = *found->second;
    if (error == nullptr) {
      file.setFileState(kSkeldaFileStateDone);
    } else {
      onqueue_transferFailed(file, *error);
    }
  }
  // For a name that is not known as well: its place is free.
  onqueue_processFiles();
}

void SkeldaStreamTransferManager::onqueue_transferFailed(SkeldaFileState& file,
                                                         const platform::Error& error) {
  SKELDA_ON_QUEUE();
  constexpr std::string_view kMethod =
      "-[SkeldaStreamTransferManager onqueue_didCompleteTransfer:withError:]";
  SKELDA_LOG(2, "{}: Skelda Error in network request to send the data from file :{} Error:{}",
             kMethod, file.fileName(), error.description());
  onqueue_endArrears();
  if (isOffline(error)) {
    // Neither the attempts nor the count of transfers are touched: the pass that follows finds the
    // count too high and corrects it.
    return onqueue_putBack(file);
  }
  file.setFileUploadRetryCounter(file.fileUploadRetryCounter() + 1);
  if (file.fileUploadRetryCounter() >= kMaxUploadAttempts) {
    SKELDA_LOG(1, "{}: Error - 3 tries failed to upload the file.File Name:{} Error:{}", kMethod,
               file.fileName(), error.description());
    SKELDA_NOTICE("Skelda: a log was deleted unsent, since it is empty or cannot be read");
    const bool isUnreadable = error.code() == SkeldaStreamErrorConstants::kFileOpenFailure ||
                              error.code() == SkeldaStreamErrorConstants::kFileReadFailure;
    SkeldaAccounting::logRemoved(isUnreadable ? SkeldaLogRemoval::unreadable
                                              : SkeldaLogRemoval::thirdFailedTry);
    file.setFileState(kSkeldaFileStateDone);
    return;
  }
  onqueue_putBack(file);
  --currentUploadCount_;
}

void SkeldaStreamTransferManager::onqueue_putBack(SkeldaFileState& file) {
  SKELDA_ON_QUEUE();
  file.setFileState(kSkeldaFileStateWaiting);
  attended_.erase(file.fileName());
}
