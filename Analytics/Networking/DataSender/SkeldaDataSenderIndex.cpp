#include "Analytics/Networking/DataSender/SkeldaDataSenderIndex.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <list>
#include <set>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/ArmOnce.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

/// How long the file may be behind removals: what a kill leaves is an entry without a file, which
/// is dropped when its turn comes.
constexpr std::chrono::seconds kSaveDelay{2};
/// A write of the index that fails is made again at once: a log waits for it in a folder that holds
/// four.
constexpr int kWriteTries = 3;

void account(SkeldaDataSenderIndex::Fate fate, std::size_t blocks) noexcept {
  using Fate = SkeldaDataSenderIndex::Fate;
  SkeldaAccountPage& page = SkeldaAccounting::page();
  if (fate == Fate::acknowledged) SkeldaAccounting::add(page.blocksAcknowledged, blocks);
  if (fate == Fate::rejected) SkeldaAccounting::add(page.blocksRejected, blocks);
  if (fate == Fate::damaged) SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::damaged, blocks);
}

bool isOlder(const SkeldaDataSenderIndex::BlockRef& a, const SkeldaDataSenderIndex::BlockRef& b) {
  return a->creationDate() < b->creationDate();
}

/// Those of one age stay in their order. Nearly always there is nothing to do; where there is, it
/// goes by way of a list, whose sorting is little code.
void sortByAge(SkeldaDataSenderIndex::Blocks& blocks) {
  if (std::ranges::is_sorted(blocks, isOlder)) return;
  std::list<SkeldaDataSenderIndex::BlockRef> sorted(blocks.begin(), blocks.end());
  sorted.sort(isOlder);
  blocks.assign(sorted.begin(), sorted.end());
}

}  // namespace

SkeldaDataSenderIndex::SkeldaDataSenderIndex(std::string fileName)
    : fileName_(std::move(fileName)),
      indexMapQueue_(platform::Queue::serial("com.skelda.analytics.indexMapQueue")),
      saveQueue_(platform::Queue::serial("com.skelda.analytics.indexSaveQueue")) {}

std::shared_ptr<SkeldaDataSenderIndex> SkeldaDataSenderIndex::instantiatedIndexWithIndexFile(
    const std::string& fileName) {
  SkeldaUtil::assertThreadIsNotMain();
  std::shared_ptr<SkeldaDataSenderIndex> index(new SkeldaDataSenderIndex(fileName));
  index->isReadable();
  return index;
}

// -- Reading and writing the file

std::string SkeldaDataSenderIndex::filePath() const {
  return SkeldaAgentFiles::inStorageFolder(fileName_);
}

bool SkeldaDataSenderIndex::isReadable() {
  bool readable = false;
  indexMapQueue_->sync([&] { readable = onqueue_read(); });
  return readable;
}

bool SkeldaDataSenderIndex::onqueue_read() {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  if (read_) return true;
  platform::ErrorRef error;
  const auto archive = SkeldaUtil::safeUnarchiveObjectWithFile(filePath(), &error);
  if (error != nullptr) {
    SKELDA_LOG(1, "SkeldaSender: unable to read the index just now, error = {}",
               platform::description(error));
    return false;
  }
  const bool undamaged = archive && isUndamaged(*archive);
  indexMap_ = undamaged ? blocksFromArchive(*archive) : Map();
  if (!onqueue_settleUnnamedBlocks(!undamaged)) return false;
  read_ = true;
  onqueue_settleAccount();
  if (undamaged) {
    sentReportSuccessfully_ = saysSentReportSuccessfully(*archive);
    SKELDA_LOG(2, "SkeldaSender restored from index: {}", onqueue_description());
  }
  return true;
}

std::string SkeldaDataSenderIndex::onqueue_description() const {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  std::string text = "SkeldaDataSenderIndex";
  for (const auto& [key, blocks] : indexMap_) {
    text += fmt::format(" [{}: {} blocks]", key, blocks.size());
  }
  return text;
}

/// A block that nobody counted as gone, and that is not there, is named as damaged.
void SkeldaDataSenderIndex::onqueue_settleAccount() const {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  auto& page = SkeldaAccounting::page();
  std::uint64_t blocks = page.blocksAcknowledged + page.blocksRejected;
  for (const auto& removed : page.blocksRemoved) blocks += removed;
  for (const auto& [key, waiting] : indexMap_) blocks += waiting.size();
  SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::damaged,
                                 SkeldaAccounting::raise(page.blocksStored, blocks));
}

bool SkeldaDataSenderIndex::onqueue_settleUnnamedBlocks(bool takeUp) {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  std::set<std::string> known;
  for (const auto& [key, blocks] : indexMap_) {
    for (const auto& block : blocks) known.insert(block->identifier());
  }
  auto& files = *platform::FileManager::defaultManager();
  const auto names = files.contentsOfDirectoryAtPath(SkeldaAgentFiles::storageFolder());
  if (!names) return false;
  // Entries without a file: the index was behind their removal when it was written last.
  const std::set<std::string_view> present(names->begin(), names->end());
  for (auto& [key, blocks] : indexMap_) {
    std::erase_if(blocks,
                  [&](const auto& block) { return !present.contains(block->identifier()); });
  }
  std::size_t takenUp = 0;
  for (const auto& name : *names) {
    if (!SkeldaDataSenderBlockInfo::isBlockFileName(name) || known.contains(name)) continue;
    int error = ENODATA;
    std::string key;
    if (takeUp) {
      if (auto block = SkeldaDataSenderBlockInfo::blockWithFile(name, key, error)) {
        indexMap_[key].push_back(std::move(block));
        ++takenUp;
        continue;
      }
    }
    if (error == ENOENT) continue;
    if (error != ENODATA) return false;
    if (takeUp) SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::damaged);
    const bool removed = files.removeItemAtPath(SkeldaAgentFiles::block(name));
    SKELDA_LOG(1, "Skelda: delete orphaned data block with id [{}], success: {:d}", name, removed);
  }
  if (takenUp == 0) return true;
  for (auto& [key, blocks] : indexMap_) sortByAge(blocks);
  SKELDA_LOG(1, "SkeldaSender: no whole index, {} data blocks are taken up by their files",
             takenUp);
  return true;
}

void SkeldaDataSenderIndex::onqueue_adoptBlocksWithoutKey(const std::string& dataKey) {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  const auto adopted = indexMap_.extract("");
  if (adopted.empty()) return;
  auto& blocks = indexMap_[dataKey];
  blocks.insert(blocks.end(), adopted.mapped().begin(), adopted.mapped().end());
  sortByAge(blocks);
  onqueue_saveSoon();
}

std::size_t SkeldaDataSenderIndex::blockCountForDataKey(const std::string& dataKey) {
  std::size_t count = 0;
  indexMapQueue_->sync([&] {
    const auto found = indexMap_.find(dataKey);
    if (found != indexMap_.end()) count = found->second.size();
  });
  return count;
}

bool SkeldaDataSenderIndex::saveState() {
  SkeldaUtil::assertThreadIsNotMain();
  bool saved = false;
  saveQueue_->sync([&] { saved = onsavequeue_write(); });
  return saved;
}

void SkeldaDataSenderIndex::onqueue_didRemove(Blocks blocks) {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  if (blocks.empty()) return;
  saveQueue_->async(skelda::guarded([blocks = std::move(blocks)] {
    for (const auto& block : blocks) block->deletePersistentData();
  }));
  onqueue_saveSoon();
}

void SkeldaDataSenderIndex::onqueue_saveSoon() {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  savePending_ = true;
  // One timer at a time: a burst is written as often as the delay allows, not once a change.
  platform::armOnce(saveTimed_, [this] {
    saveQueue_->after(platform::dispatchTimeAfter(kSaveDelay),
                      skelda::guarded([weak = weak_from_this()] {
                        const auto self = weak.lock();
                        if (self == nullptr) return;
                        self->indexMapQueue_->sync([&] { self->saveTimed_ = false; });
                        self->onsavequeue_writePending();
                      }));
  });
}

void SkeldaDataSenderIndex::setSentReportSuccessfully(bool sent) {
  if (sentReportSuccessfully_.exchange(sent) == sent) return;
  indexMapQueue_->async(skelda::guarded([self = shared_from_this()] { self->onqueue_saveSoon(); }));
}

void SkeldaDataSenderIndex::onsavequeue_writePending() {
  SKELDA_ON_RAW_QUEUE(saveQueue_);
  bool pending = false;
  indexMapQueue_->sync([&] { pending = savePending_; });
  if (pending) onsavequeue_write();
}

bool SkeldaDataSenderIndex::onsavequeue_write() {
  SKELDA_ON_RAW_QUEUE(saveQueue_);
  const platform::BlockingRegion disk;
  const std::string path = filePath();
  if (!SkeldaUtil::assert_(!path.empty(), "0 != thePath.length")) return false;
  platform::Data archive;
  bool removalsPending = false;
  indexMapQueue_->sync([&] {
    removalsPending = std::exchange(savePending_, false);
    if (onqueue_read()) archive = archivedDataOf(indexMap_, sentReportSuccessfully_);
  });
  if (archive.empty()) return false;
  for (int tries = 0; tries < kWriteTries; ++tries) {
    if (SkeldaUtil::storeArchive(archive, path)) return true;
  }
  if (removalsPending) indexMapQueue_->sync([&] { onqueue_saveSoon(); });
  return false;
}

// -- Changes

bool SkeldaDataSenderIndex::addBlockInfo(const BlockRef& block, const std::string& forDataKey) {
  if (!SkeldaUtil::assert_(!forDataKey.empty(), "0 != aDataKey.length")) return false;
  bool added = false;
  indexMapQueue_->sync([&] {
    added = onqueue_read();
    if (added) indexMap_[forDataKey].push_back(block);
  });
  if (!added) return false;
  if (saveState()) {
    SkeldaAccounting::add(SkeldaAccounting::page().blocksStored);
    return true;
  }
  indexMapQueue_->sync([&] { std::erase(indexMap_[forDataKey], block); });
  return false;
}

void SkeldaDataSenderIndex::removeBlockInfoWithIdentifier(const std::string& identifier,
                                                          const std::string& forDataKey,
                                                          Fate fate) {
  indexMapQueue_->async(skelda::guarded([self = shared_from_this(), identifier, forDataKey, fate] {
    const auto found = self->indexMap_.find(forDataKey);
    if (found == self->indexMap_.end()) return;
    auto& blocks = found->second;
    const auto first = std::stable_partition(blocks.begin(), blocks.end(), [&](const auto& block) {
      return block->identifier() != identifier && block->groupIdentifier() != identifier;
    });
    Blocks removed(first, blocks.end());
    blocks.erase(first, blocks.end());
    account(fate, removed.size());
    self->onqueue_didRemove(std::move(removed));
  }));
}

void SkeldaDataSenderIndex::setupForCurrentDataKey(const std::string& dataKey) {
  SkeldaUtil::assertThreadIsNotMain();
  if (!SkeldaUtil::assert_(!dataKey.empty(), "0 != aDataKey.length")) return;
  indexMapQueue_->sync([&] {
    onqueue_adoptBlocksWithoutKey(dataKey);
    Blocks dropped;
    for (auto entry = indexMap_.begin(); entry != indexMap_.end();) {
      if (entry->first == dataKey) {
        ++entry;
        continue;
      }
      dropped.insert(dropped.end(), entry->second.begin(), entry->second.end());
      entry = indexMap_.erase(entry);
    }
    if (dropped.empty()) return;
    SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::otherKey, dropped.size());
    onqueue_discardOldest(dataKey, kSkeldaMaxReportedNotSentSessions);
    onqueue_didRemove(std::move(dropped));
  });
}

void SkeldaDataSenderIndex::onqueue_discardOldest(const std::string& dataKey, std::size_t most,
                                                  const std::set<std::string>& butFor) {
  SKELDA_ON_RAW_QUEUE(indexMapQueue_);
  const auto found = indexMap_.find(dataKey);
  if (found == indexMap_.end() || found->second.size() <= most) return;
  std::size_t excess = found->second.size() - most;
  Blocks kept, outdated;
  for (const auto& block : found->second) {
    if (excess == 0 || butFor.contains(block->identifier())) {
      kept.push_back(block);
      continue;
    }
    --excess;
    SKELDA_LOG(1, "Skelda: discard outdated block id [{}]", block->identifier());
    outdated.push_back(block);
  }
  found->second = std::move(kept);
  SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::overLimit, outdated.size());
  SKELDA_NOTICE_ONCE(
      "Skelda: {} logs were deleted unsent, since more than {} wait: see what keeps the server "
      "from "
      "taking them",
      outdated.size(), most);
  onqueue_didRemove(std::move(outdated));
}

void SkeldaDataSenderIndex::discardBlocksBeyondMost(const std::string& dataKey,
                                                    const std::set<std::string>& butFor) {
  indexMapQueue_->sync([&] { onqueue_discardOldest(dataKey, kSkeldaMostBlocks, butFor); });
}

void SkeldaDataSenderIndex::discardOutdatedBlocksForDataKey(const std::string& dataKey) {
  indexMapQueue_->sync([&] {
    onqueue_discardOldest(dataKey, kSkeldaMaxReportedNotSentSessions);
    // Everything was taken: on disk at once, or a next start would send it again.
    const auto found = indexMap_.find(dataKey);
    if (found == indexMap_.end() || !found->second.empty()) return;
    saveQueue_->async(
        skelda::guarded([self = shared_from_this()] { self->onsavequeue_writePending(); }));
  });
}

void SkeldaDataSenderIndex::discardOldBlocksForDataKey(const std::string& dataKey) {
  indexMapQueue_->async(skelda::guarded([self = shared_from_this(), dataKey] {
    const auto found = self->indexMap_.find(dataKey);
    if (found == self->indexMap_.end()) return;
    sortByAge(found->second);
    self->onqueue_discardOldest(dataKey, kSkeldaMaxReportedNotSentSessions);
  }));
}

SkeldaDataSenderIndex::Blocks SkeldaDataSenderIndex::notSentBlocksForDataKey(
    const std::string& dataKey) {
  Blocks blocks;
  indexMapQueue_->sync([&] {
    onqueue_read();
    const auto found = indexMap_.find(dataKey);
    if (found != indexMap_.end()) blocks = found->second;
  });
  // One more may stand here until the running tasks are done; then the oldest goes.
  SkeldaUtil::assert_(blocks.size() <= kSkeldaMaxReportedNotSentSessions,
                      "theBlocks.count <= kSkeldaMaxReportedNotSentSessions");
  return blocks;
}
