#include "Tools/skelda-fleet/DeviceSender.h"

#include <algorithm>

#include "Analytics/Networking/DataSender/SkeldaDataSenderBase.h"
#include "Analytics/Networking/DataSender/SkeldaDataSenderIndex.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"

namespace skelda::fleet {
namespace {

/// Of the transfer manager, which keeps it to itself; a test plays the same logs through both.
constexpr std::size_t kMostLogsInFolder = 4;

}  // namespace

void Steps::clear() {
  requests.clear();
  overLimit.clear();
  folderFull.clear();
  tryFolderAgainAfter.reset();
}

DeviceSender::DeviceSender() : folderDelay_(SkeldaStreamFrameLogSender::kRetryDelay) {}

// -- The folder of committed logs

void DeviceSender::commit(Log log, Steps& steps) {
  folder_.push_back(log);
  passOverFolder(steps);
}

void DeviceSender::tryFolderAgain(Steps& steps) {
  isReadingFolder_ = false;
  passOverFolder(steps);
}

/// A folder over its limit is cut back below it by a quarter of the limit; the log that is being
/// taken over stays. Then they become blocks, oldest first, one at a time.
void DeviceSender::passOverFolder(Steps& steps) {
  if (folder_.size() > kMostLogsInFolder) {
    const std::size_t budget = folder_.size() - kMostLogsInFolder + kMostLogsInFolder / 4;
    const std::size_t from = isReadingFolder_ ? 1 : 0;
    const std::size_t until = std::min(from + budget, folder_.size());
    const auto first = folder_.begin() + static_cast<std::ptrdiff_t>(from);
    const auto last = folder_.begin() + static_cast<std::ptrdiff_t>(until);
    steps.folderFull.insert(steps.folderFull.end(), first, last);
    folder_.erase(first, last);
  }
  while (!isReadingFolder_ && !folder_.empty()) {
    if (!store(folder_.front(), steps)) {
      isReadingFolder_ = true;
      steps.tryFolderAgainAfter = folderDelay_.next();
      return;
    }
    folderDelay_.reset();
    folder_.erase(folder_.begin());
  }
}

// -- Blocks and requests

bool DeviceSender::store(Log log, Steps& steps) {
  if (!canStore_) return false;
  // The next block would push out one that the server is about to take.
  if (running_ > 0 && lastWasTaken_ && blocks_.size() >= kSkeldaMostBlocks) return false;
  blocks_.push_back({log & ((1U << 30) - 1), 0, 0});
  discardOldest(kSkeldaMostBlocks, steps);
  if (hasWindow()) begin(blocks_.back(), steps);
  return true;
}

bool DeviceSender::hasWindow() const noexcept {
  return running_ <= kSkeldaMaxOngoingHTTPTasksNumber;
}

void DeviceSender::begin(Block& block, Steps& steps) {
  block.isRunning = 1;
  ++running_;
  steps.requests.push_back(block.log);
}

void DeviceSender::ended(Log log, Ending ending, Steps& steps) {
  const auto block = std::find_if(blocks_.begin(), blocks_.end(),
                                  [&](const Block& one) { return one.log == log; });
  if (block == blocks_.end() || block->isRunning == 0) return;
  block->isRunning = 0;
  --running_;
  lastWasTaken_ = ending == Ending::taken;
  if (ending != Ending::failed) blocks_.erase(block);
  if (ending == Ending::taken) retransmit(steps);
  if (running_ == 0) discardOldest(kSkeldaMaxReportedNotSentSessions, steps);
}

void DeviceSender::networkReturned(Steps& steps) {
  retransmit(steps);
}

void DeviceSender::retransmit(Steps& steps) {
  for (auto& block : blocks_) {
    if (!hasWindow()) return;
    if (block.isRunning == 0) begin(block, steps);
  }
}

void DeviceSender::discardOldest(std::size_t most, Steps& steps) {
  if (blocks_.size() <= most) return;
  std::size_t excess = blocks_.size() - most;
  std::erase_if(blocks_, [&](const Block& block) {
    if (excess == 0 || block.isRunning != 0) return false;
    --excess;
    if (block.isStored == 0) steps.overLimit.push_back(block.log);
    return true;
  });
}

void DeviceSender::restart(Steps& steps) {
  for (auto& block : blocks_) block.isRunning = 0;
  running_ = 0;
  isReadingFolder_ = false;
  folderDelay_.reset();
  passOverFolder(steps);
}

bool DeviceSender::markStored(Log log) {
  const auto block = std::find_if(blocks_.begin(), blocks_.end(),
                                  [&](const Block& one) { return one.log == log; });
  if (block == blocks_.end() || block->isStored != 0) return false;
  block->isStored = 1;
  return true;
}

std::size_t DeviceSender::notStored() const noexcept {
  return folder_.size() + static_cast<std::size_t>(std::count_if(
                              blocks_.begin(), blocks_.end(),
                              [](const Block& block) { return block.isStored == 0; }));
}

std::vector<Log> DeviceSender::waiting() const {
  std::vector<Log> logs;
  for (const auto& block : blocks_) logs.push_back(block.log);
  return logs;
}

}  // namespace skelda::fleet
