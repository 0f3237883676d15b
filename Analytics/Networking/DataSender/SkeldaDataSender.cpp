#include "Analytics/Networking/DataSender/SkeldaDataSender.h"

#include <algorithm>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"

namespace {

constexpr std::int32_t kPost = 2;
constexpr std::int64_t kMalformed = 400;

struct SharedSender {
  platform::Mutex mutex;
  std::shared_ptr<SkeldaDataSender> sender GUARDED_BY(mutex);
  platform::ErrorRef lastFailure GUARDED_BY(mutex);
};

SharedSender& shared() {
  static platform::NeverDestroyed<SharedSender> one;
  return *one;
}

}  // namespace

SkeldaDataSender::SkeldaDataSender(platform::QueueRef queue,
                                   std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTracker,
                                   std::optional<std::string> apiKey)
    : SkeldaDataSenderBase(std::move(queue), std::move(backgroundTracker)),
      apiKey_(std::move(apiKey)),
      dataKey_(SkeldaAgentFiles::dataKey(apiKey_)),
      dataIndex_(SkeldaDataSenderIndex::instantiatedIndexWithIndexFile(
          std::string(kSkeldaSenderIndexFileName))) {}

std::shared_ptr<SkeldaDataSender> SkeldaDataSender::senderWithQueue(
    platform::QueueRef queue, std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTracker,
    std::optional<std::string> apiKey) {
  std::shared_ptr<SkeldaDataSender> sender(
      new SkeldaDataSender(std::move(queue), std::move(backgroundTracker), std::move(apiKey)));
  sender->didInit();
  return sender;
}

void SkeldaDataSender::setupInstanceWithQueue(
    platform::QueueRef queue, std::shared_ptr<SkeldaBackgroundTaskTracker> backgroundTracker) {
  SharedSender& one = shared();
  const platform::MutexLock lock(one.mutex);
  if (one.sender != nullptr) return;
  one.sender =
      senderWithQueue(std::move(queue), std::move(backgroundTracker), SkeldaHostSettings::apiKey());
}

std::string SkeldaDataSender::lastFailure() {
  SharedSender& one = shared();
  const platform::MutexLock lock(one.mutex);
  return one.lastFailure != nullptr ? one.lastFailure->localizedDescription() : "";
}

std::shared_ptr<SkeldaDataSender> SkeldaDataSender::sharedInstance() {
  SharedSender& one = shared();
  const platform::MutexLock lock(one.mutex);
  return one.sender;
}

const std::string& SkeldaDataSender::dataKey() {
  runOnQueue([&] {
    if (indexPrepared_ || !dataIndex_->isReadable()) return;
    dataIndex_->setupForCurrentDataKey(dataKey_);
    indexPrepared_ = true;
  });
  return dataKey_;
}

// -- Storing

std::optional<std::string> SkeldaDataSender::storeData(const platform::Data& data) {
  std::optional<std::string> identifier;
  runOnQueue([&] {
    const std::string& key = dataKey();
    // Before the block's file is there: reading the index sweeps files that it does not name.
    if (!dataIndex_->isReadable()) return;
    const auto block = SkeldaDataSenderBlockInfo::blockWithData(data, key);
    if (block == nullptr) return;
    if (!dataIndex_->addBlockInfo(block, key)) return block->deletePersistentData();
    identifier = block->identifier();
    dataIndex_->discardBlocksBeyondMost(key, onqueue_runningTags());
  });
  return identifier;
}

void SkeldaDataSender::removeStoredDataWithIdentifier(const std::string& identifier, Fate fate) {
  dataIndex_->removeBlockInfoWithIdentifier(identifier, dataKey(), fate);
}

bool SkeldaDataSender::everSentReportSuccessfully() const noexcept {
  return dataIndex_->sentReportSuccessfully();
}

// -- Sending

bool SkeldaDataSender::sendFrameLogData(platform::Data data) {
  return !isFullAndBeingEmptied() && sendFrameLogData(std::move(data), nullptr);
}

/// Whether the next block would push out one that the server is about to take: then a log waits
/// better in its folder.
bool SkeldaDataSender::isFullAndBeingEmptied() {
  bool waits = false;
  runOnQueue([&] {
    waits = !runningTasks().empty() && dataIndex_->sentReportSuccessfully() &&
            dataIndex_->blockCountForDataKey(dataKey()) >= kSkeldaMostBlocks;
  });
  return waits;
}

bool SkeldaDataSender::sendFrameLogData(platform::Data data, CompletionHandler completionHandler) {
  return storeAndSend(std::move(data), std::move(completionHandler)) != Outcome::notStored;
}

bool SkeldaDataSender::sendSessionsData(platform::Data data, CompletionHandler completionHandler) {
  const Outcome outcome = storeAndSend(std::move(data), std::move(completionHandler));
  if (outcome != Outcome::sent) {
    SKELDA_LOG(1, "{}: Unable to send session data",
               "-[SkeldaDataSender sendSessionsData:withCompletionHandler:]");
  }
  return outcome != Outcome::notStored;
}

SkeldaDataSender::Outcome SkeldaDataSender::storeAndSend(platform::Data data,
                                                         CompletionHandler completionHandler) {
  if (!SkeldaUtil::assert_(!data.empty(), "0 != data.length")) return Outcome::notStored;
  SkeldaUtil::assertThreadIsNotMain();
  Outcome outcome = Outcome::notStored;
  runOnQueue([&] {
    if (completionHandler) setCompletionHandler(std::move(completionHandler));
    const auto identifier = storeData(data);
    if (!identifier) return;
    outcome = Outcome::stored;
    if (!hasOngoingTasksWindow()) return;
    outcome = Outcome::sent;
    // Stored is stored, whatever becomes of this attempt.
    skelda::guarded([&] {
      sendData(platform::makeCounted<const platform::Data>(std::move(data)), *identifier);
    })();
  });
  return outcome;
}

void SkeldaDataSender::sendData(std::shared_ptr<const platform::Data> data,
                                const std::string& identifier) {
  constexpr std::string_view kModule = "SkeldaDataSender";
  constexpr std::string_view kMethod = "-[SkeldaDataSender sendData:withIdentifier:]";
  SKELDA_ON_RAW_QUEUE(queue());
  SKELDA_LOG(2, "{}: start upload data with id [{}]", kModule, identifier);
  if (data == nullptr) {
    SKELDA_LOG(2, "{}: attempt to send zero size data", kMethod);
    return;
  }
  platform::Dictionary headerFields{{"content-type", "application/octet-stream"},
                                    {"X-Skelda-Api-Key", apiKey_.value_or("")}};
  SKELDA_LOG(2, "{}: posting session via SkeldaURLSessionTask!", kMethod);
  const auto self = std::static_pointer_cast<SkeldaDataSender>(shared_from_this());
  const auto task = SkeldaURLSessionTask::sendMethod(
      kPost, SkeldaNetworkURLsDataProvider::sharedInstance()->serverURL(), std::move(data),
      std::move(headerFields), self, false);
  task->setTag(identifier);
  if (!SkeldaUtil::assert_(!task->tag().empty(), "0 != task.tag.length")) return;
  registerNewTask(task);
  SkeldaAccounting::add(SkeldaAccounting::page().requests);
  platform::Queue::main()->async(skelda::guarded([task] { task->resumeTask(); }));
}

std::set<std::string> SkeldaDataSender::onqueue_runningTags() const {
  SKELDA_ON_RAW_QUEUE(queue());
  std::set<std::string> tags;
  for (const auto& task : runningTasks()) {
    SkeldaUtil::assert_(!task->tag().empty(), "0 != task.tag.length");
    tags.insert(task->tag());
  }
  return tags;
}

void SkeldaDataSender::retransmitNotSentBlocks() {
  post([this] { onqueue_retransmitNotSentBlocks(); });
}

void SkeldaDataSender::performRetransmitNotSentBlocks() {
  onqueue_retransmitNotSentBlocks();
}

void SkeldaDataSender::onqueue_retransmitNotSentBlocks() {
  SKELDA_ON_RAW_QUEUE(queue());
  SkeldaUtil::assertThreadIsNotMain();
  if (!hasOngoingTasksWindow()) return;
  const auto runningTags = onqueue_runningTags();
  const auto blocks = dataIndex_->notSentBlocksForDataKey(dataKey());
  SKELDA_LOG(2, "{}: Not sent blocks count [{}]", "-[SkeldaDataSender retransmitNotSentBlocks]",
             blocks.size());
  for (const auto& block : blocks) {
    if (runningTags.contains(block->identifier()) ||
        runningTags.contains(block->groupIdentifier())) {
      continue;
    }
    if (!hasOngoingTasksWindow()) break;
    block->setGroupIdentifier(SkeldaUtil::generateCFUUID());
    auto status = SkeldaDataSenderBlockInfo::ReadStatus::whole;
    auto data = block->data(&status);
    if (data) {
      sendData(platform::makeCounted<const platform::Data>(std::move(*data)), block->identifier());
    } else if (status == SkeldaDataSenderBlockInfo::ReadStatus::gone) {
      removeStoredDataWithIdentifier(block->identifier(), Fate::damaged);
    }
  }
}

void SkeldaDataSender::didCompleteAllTasks() {
  dataIndex_->discardOutdatedBlocksForDataKey(dataKey());
}

// -- How requests end

namespace {

/// An answer means that the server had the whole body.
void accountAnswer(const SkeldaURLSessionTask& task, const SkeldaHTTPURLResponse& response) {
  {
    SharedSender& one = shared();
    const platform::MutexLock lock(one.mutex);
    one.lastFailure = response.statusCode() == 0 ? response.error() : nullptr;
  }
  if (response.statusCode() == 0) return;
  SkeldaAccountPage& page = SkeldaAccounting::page();
  const auto& body = task.task()->originalRequest().body;
  SkeldaAccounting::add(page.bytesSent, body != nullptr ? body->length() : 0);
  page.lastAnswer = static_cast<std::uint64_t>(response.statusCode());
  page.lastAnswerTime =
      static_cast<std::uint64_t>(platform::Date::now().microsecondsSince1970().count());
}

/// The server is there, and will not change its mind: somebody must.
void sayWhatToMend(const SkeldaURLSessionTask& task, std::int64_t answer) {
  if (answer == kMalformed) {
    SKELDA_NOTICE_ONCE(
        "Skelda: the server answered 400, and the log that it was sent is deleted: see why it "
        "takes "
        "none from this application");
  } else if (answer == 401 || answer == 403) {
    SKELDA_NOTICE_ONCE(
        "Skelda: the server answered {}: it does not take the \"{}\" of this application. What is "
        "logged stays on disk",
        answer, SkeldaHostSettings::kAPIKey.key);
  } else if (answer == 404 || answer == 405) {
    SKELDA_NOTICE_ONCE(
        "Skelda: the server answered {}: it takes no logs at {}. What is logged stays on disk",
        answer, task.task()->originalRequest().url);
  }
}

}  // namespace

void SkeldaDataSender::skeldaUrlRequestDidSucceed(const TaskRef& task,
                                                  const ResponseRef& response) {
  accountAnswer(*task, *response);
  post([this, task, response] { requestSuccessComplete(task, response); });
}

void SkeldaDataSender::skeldaUrlRequestDidFail(const TaskRef& task, const ResponseRef& response) {
  accountAnswer(*task, *response);
  post([this, task, response] {
    SKELDA_LOG(2, "{}: Could not connect to server: {}",
               "-[SkeldaDataSender skeldaUrlRequestDidFail:withResponse:]",
               platform::description(response->error()));
    requestFailedComplete(task, response);
  });
}

void SkeldaDataSender::skeldaUrlRequestDidCancel(const TaskRef& task, const ResponseRef&) {
  post([this, task] { onqueue_taskDidEnd(task, false); });
}

void SkeldaDataSender::requestSuccessComplete(const TaskRef& task, const ResponseRef& response) {
  SKELDA_ON_RAW_QUEUE(queue());
  constexpr std::string_view kMethod = "-[SkeldaDataSender requestSuccessComplete:withResponse:]";
  SKELDA_LOG(2, "{}: session task response code: {}, id [{}]", kMethod, response->statusCode(),
             task->tag());
  if (!response->isSuccess()) {
    SKELDA_LOG(2, "{}: Could not connect to server.", kMethod);
    return requestFailedComplete(task, response);
  }
  dataIndex_->setSentReportSuccessfully(true);
  removeStoredDataWithIdentifier(task->tag());
  onqueue_taskDidEnd(task, true);
}

void SkeldaDataSender::requestFailedComplete(const TaskRef& task, const ResponseRef& response) {
  SKELDA_ON_RAW_QUEUE(queue());
  SKELDA_LOG(2, "{}: session task response code: {}, id [{}]",
             "-[SkeldaDataSender requestFailedComplete:withResponse:]", response->statusCode(),
             task->tag());
  sayWhatToMend(*task, response->statusCode());
  // The server will never take it.
  if (response->statusCode() == kMalformed) {
    removeStoredDataWithIdentifier(task->tag(), Fate::rejected);
  }
  dataIndex_->setSentReportSuccessfully(false);
  onqueue_taskDidEnd(task, false);
}

void SkeldaDataSender::onqueue_taskDidEnd(const TaskRef& task, bool completedSuccessfuly) {
  SKELDA_ON_RAW_QUEUE(queue());
  // A task that cancelTasks() took off the list reports its end as well.
  if (isRunning(task)) unregisterTask(task, completedSuccessfuly);
}
