// What the folder of committed logs holds, as the transfer manager comes to know of it.

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <utility>

#include "Analytics/Streaming/Data Providers/SkeldaNodeData.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/ArmOnce.h"
#include "Platform/Base/Counted.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/FileCalls.h"

namespace {

/// So many records are few: a look at them costs nothing worth putting off.
constexpr std::size_t kFewRecords = 16;
constexpr std::chrono::nanoseconds kLongestPutOff = std::chrono::seconds(1);

}  // namespace

void SkeldaStreamTransferManager::onqueue_nodeDataProviderDidSeeChange(std::uint32_t changeType) {
  SKELDA_ON_QUEUE();
  if (changeType != kSkeldaNodeChangeWritten) return;
  changePosted_ = false;
  if (onqueue_mayPutOffLook()) return onqueue_lookAgainAfter(kLongestPutOff);
  onqueue_lookIntoFolder();
}

bool SkeldaStreamTransferManager::onqueue_mayPutOffLook() const {
  SKELDA_ON_QUEUE();
  const std::size_t count = fileUploadStatusDictionary_.size();
  return count > kFewRecords && goneSinceLook_ < count / 8;
}

void SkeldaStreamTransferManager::onqueue_lookIntoFolder() {
  SKELDA_ON_QUEUE();
  if (skelda::guardedResult(false, [this] { return onqueue_takeFolderIn(); })) {
    return listRetryDelay_.reset();
  }
  hasArrears_ = true;
  // The change has been told and will not be told again.
  onqueue_lookAgainAfter(listRetryDelay_.next());
}

bool SkeldaStreamTransferManager::onqueue_takeFolderIn() {
  SKELDA_ON_QUEUE();
  constexpr std::string_view kMethod =
      "-[SkeldaStreamTransferManager onqueue_nodeDataProviderDidSeeChange:]";
  if (!SkeldaUtil::assert_(!filePath_.empty(), kMethod)) return true;
  platform::ErrorRef error;
  auto names = fileManager_->fileNamesAtPath(filePath_, &error);
  if (!names || error != nullptr) {
    SKELDA_LOG(1, "{}: unable to retrieve contents at file path = {}, error = {}", kMethod,
               filePath_, platform::description(error));
    return SkeldaUtil::assert_(false, kMethod);
  }
  goneSinceLook_ = 0;
  if (hasArrears_) std::sort(names->begin(), names->end(), isOrderedBefore);
  onqueue_removeFromDictionaryFilesNotInFolder(*names);
  onqueue_addToStatusDictionaryNewFilesFromFolder(*names);
  onqueue_processFiles();
  return true;
}

void SkeldaStreamTransferManager::onqueue_lookAgainAfter(platform::RetryDelay::Duration delay) {
  SKELDA_ON_QUEUE();
  platform::armOnce(lookAgainPending_, [&] {
    asyncBlock(
        [self = selfOf(this)] {
          self->lookAgainPending_ = false;
          self->onqueue_lookIntoFolder();
        },
        std::int64_t{delay.count()});
  });
}

void SkeldaStreamTransferManager::onqueue_addToStatusDictionaryNewFilesFromFolder(
    const std::vector<std::string>& names) {
  SKELDA_ON_QUEUE();
  const bool hadArrears = std::exchange(hasArrears_, false);
  for (const auto& name : names) {
    const auto at = fileUploadStatusDictionary_.lower_bound(name);
    if (at != fileUploadStatusDictionary_.end() && at->first == name) continue;
    if (onqueue_setAsideWhatIsNoFile(name)) continue;
    hasArrears_ = hadArrears && !onqueue_hasRoom();
    if (hasArrears_) return;
    fileUploadStatusDictionary_.emplace_hint(
        at, name,
        platform::makeCounted<SkeldaFileState>(name, filePath_, kSkeldaFileStateWaiting, 0, 0,
                                               nullptr));
  }
}

/// A folder or a pipe is no log, whoever put it there: it would only be in the way of the others.
bool SkeldaStreamTransferManager::onqueue_setAsideWhatIsNoFile(const std::string& name) {
  SKELDA_ON_QUEUE();
  using platform::FileCalls;
  const std::string path = filePath_ + "/" + name;
  struct ::stat status;
  if (platform::fileError<&FileCalls::linkStatusAt>(path.c_str(), &status) != 0) return false;
  if (S_ISREG(status.st_mode)) return false;
  const std::string aside = SkeldaAgentFiles::setAside(
      SkeldaAgentFiles::inStorageFolder(name), platform::Date::now().timeIntervalSince1970());
  const int error = platform::fileError<&FileCalls::rename>(path.c_str(), aside.c_str());
  SKELDA_LOG(1, "SkeldaStreamTransferManager: {} is no file, set aside as {}, success: {:d}", name,
             aside, error == 0);
  return true;
}

void SkeldaStreamTransferManager::onqueue_removeFromDictionaryFilesNotInFolder(
    const std::vector<std::string>& names) {
  SKELDA_ON_QUEUE();
  const std::set<std::string_view> listed(names.begin(), names.end());
  std::erase_if(fileUploadStatusDictionary_, [&](const auto& entry) {
    if (listed.contains(entry.first)) return false;
    fileTransferAgent_->cancelTransfer(entry.second);
    attended_.erase(entry.first);
    return true;
  });
}

bool SkeldaStreamTransferManager::onqueue_hasRoom() const {
  SKELDA_ON_QUEUE();
  return fileUploadStatusDictionary_.size() < static_cast<std::size_t>(maxFileCount_);
}

void SkeldaStreamTransferManager::onqueue_endArrears() {
  SKELDA_ON_QUEUE();
  if (std::exchange(hasArrears_, false)) {
    post<&SkeldaStreamTransferManager::onqueue_lookIntoFolder>();
  }
}
