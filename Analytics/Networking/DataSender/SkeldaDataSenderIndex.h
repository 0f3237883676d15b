#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Networking/DataSender/SkeldaDataSenderBlockInfo.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// Blocks that one data key may hold once nothing is under way.
inline constexpr std::size_t kSkeldaMaxReportedNotSentSessions = 50;
/// Blocks that it may hold at any time, those under way apart: where requests never end, nothing
/// else would ever go.
inline constexpr std::size_t kSkeldaMostBlocks = 100;

/// The stored blocks per data key, oldest first, kept in one archive in the storage folder. The
/// file is replaced atomically; a block's bytes are on disk before the index names it, and the
/// index that names it before it counts as stored. Behind removals and the flag the file may lag by
/// two seconds. Any thread but the main one. The map is touched on `indexMapQueue` only; the file
/// is written on a queue of its own, from the map as it is then, so that who looks into the map
/// never waits for the disk and removals that come in meanwhile share one write.
///
/// A file that cannot be read just now leaves the index unread: it is tried again at each use, and
/// until it has been read nothing is added, saved or swept. Where there is none, or one whose
/// checksum is not its own, the blocks' own files are the index.
class SkeldaDataSenderIndex final : public platform::Object,
                                    public std::enable_shared_from_this<SkeldaDataSenderIndex> {
 public:
  using BlockRef = std::shared_ptr<SkeldaDataSenderBlockInfo>;
  using Blocks = std::vector<BlockRef>;
  using Map = std::map<std::string, Blocks>;
  /// Why a block goes, for the account.
  enum class Fate { acknowledged, rejected, damaged };

  /// Reads the file of that name. Block files that a kill left without an entry are removed once it
  /// has been read; where it could not be, they are taken up, each under its own key.
  static std::shared_ptr<SkeldaDataSenderIndex> instantiatedIndexWithIndexFile(
      const std::string& fileName);

  std::string_view className() const noexcept override { return "SkeldaDataSenderIndex"; }
  /// Whether the file has been read; tries again if not.
  bool isReadable();

  /// Returns once the index that names the block is on disk. False where it could not be put there;
  /// then the block is not in the index.
  bool addBlockInfo(const BlockRef& block, const std::string& forDataKey);
  /// Every block whose identifier or group identifier it is, with its file. Posted.
  void removeBlockInfoWithIdentifier(const std::string& identifier, const std::string& forDataKey,
                                     Fate fate = Fate::acknowledged);
  /// Drops the blocks of every other key.
  void setupForCurrentDataKey(const std::string& dataKey);
  /// Drops the oldest blocks beyond kSkeldaMostBlocks, but for those named.
  void discardBlocksBeyondMost(const std::string& dataKey, const std::set<std::string>& butFor);
  /// Drops the oldest blocks beyond the limit. Posted.
  void discardOutdatedBlocksForDataKey(const std::string& dataKey);
  /// A copy, oldest first.
  Blocks notSentBlocksForDataKey(const std::string& dataKey);
  std::size_t blockCountForDataKey(const std::string& dataKey);
  /// Writes the whole index; false where that failed or the index is unread.
  bool saveState();

  bool sentReportSuccessfully() const noexcept { return sentReportSuccessfully_; }
  void setSentReportSuccessfully(bool sent);
  const std::string& fileName() const noexcept { return fileName_; }

  // -- The archive (SkeldaDataSenderIndexArchive.cpp)

  static constexpr std::string_view kArchiveClass = "SkeldaDataSenderIndex";
  /// What an archive of the index holds; entries that are no blocks, or say the same twice, are
  /// left out.
  static Map blocksFromArchive(const platform::KeyedArchive& archive);
  static platform::Data archivedDataOf(const Map& map, bool sentReportSuccessfully);
  /// Whether the archive names what was put into it. One of an earlier version does not say.
  static bool isUndamaged(const platform::KeyedArchive& archive);
  static bool saysSentReportSuccessfully(const platform::KeyedArchive& archive);

  // -- Fixed by the system, and not called by the agent itself
  /// As discardOutdatedBlocksForDataKey(), the oldest by creation date.
  void discardOldBlocksForDataKey(const std::string& dataKey);

 private:
  explicit SkeldaDataSenderIndex(std::string fileName);
  std::string filePath() const;

  bool onqueue_read();
  std::string onqueue_description() const;
  void onqueue_settleAccount() const;
  /// False where the files cannot be looked at just now.
  bool onqueue_settleUnnamedBlocks(bool takeUp);
  void onqueue_adoptBlocksWithoutKey(const std::string& dataKey);
  /// The files go now, off the map's queue; the index is written soon.
  void onqueue_didRemove(Blocks blocks);
  void onqueue_discardOldest(const std::string& dataKey, std::size_t most,
                             const std::set<std::string>& butFor = {});
  void onqueue_saveSoon();
  void onsavequeue_writePending();
  bool onsavequeue_write();

  const std::string fileName_;
  const platform::QueueRef indexMapQueue_;
  const platform::QueueRef saveQueue_;
  Map indexMap_;
  std::atomic<bool> sentReportSuccessfully_ = false;
  bool read_ = false;
  bool savePending_ = false;
  bool saveTimed_ = false;
};
