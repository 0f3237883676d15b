#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Base/Mutex.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// One stored payload: what the index says of it, and a file in the storage folder, named by the
/// identifier, that holds its bytes. The file is whole from the moment it has its name, and carries
/// its data key in an extended attribute, so that it can be taken up without the index. Disk work
/// is done on the calling thread, never the main one.
class SkeldaDataSenderBlockInfo final : public platform::Object {
 public:
  using BlockRef = std::shared_ptr<SkeldaDataSenderBlockInfo>;
  /// What reading the file came to: `gone` is for good (no file, or not the bytes that were
  /// stored), `unreadable` may pass (no descriptors, an input error).
  enum class ReadStatus { whole, gone, unreadable };

  static constexpr const char* kDataKeyAttribute = "user.skelda.key";

  /// Stores `data` under a new identifier, synchronised; null where that fails (logged).
  static BlockRef blockWithData(const platform::Data& data, std::string dataKey);
  /// From an archive; null for what is no block, or names a file that no block can have.
  static BlockRef blockWithCoder(const platform::Value& archived);
  platform::Value encoded() const;
  /// The text of encoded() in an archive.
  const std::string& archivedText() const noexcept { return archivedText_; }
  /// A checksum of the index that goes on from `before` over this block. Most blocks stay where
  /// they are, behind the same others. On one queue at a time.
  std::uint64_t checkedAfter(std::uint64_t before) const noexcept;
  /// From a block's file alone, stored when the file was. Null, and in `error`: ENODATA where the
  /// file does not say its key, ENOENT where it is gone, else what is in the way just now. On a
  /// file system without attributes the block comes with an empty key.
  static BlockRef blockWithFile(const std::string& identifier, std::string& dataKey, int& error);
  /// Whether a file of that name can be a block's.
  static bool isBlockFileName(std::string_view name) noexcept;

  std::string_view className() const noexcept override { return "SkeldaDataSenderBlockInfo"; }
  const std::string& identifier() const noexcept { return identifier_; }
  /// Set while the block is being sent again; empty before. Not archived.
  std::string groupIdentifier() const;
  void setGroupIdentifier(std::string groupIdentifier);
  std::uint64_t dataSize() const noexcept { return dataSize_; }
  platform::Date creationDate() const noexcept { return creationDate_; }

  /// The stored bytes; nothing where the file is missing or holds something else.
  std::optional<platform::Data> data(ReadStatus* readStatus = nullptr) const;
  bool setData(const platform::Data& data);
  void deletePersistentData() const;
  std::string description() const;

 private:
  SkeldaDataSenderBlockInfo(std::string identifier, std::string dataKey);
  std::string filePath() const;
  bool storeFile(const platform::Data& data, const std::string& path) const;
  void isOf(std::uint64_t dataSize, platform::Date creationDate);

  const std::string identifier_;
  const std::string dataKey_;  // of a block that is stored here; the index knows the others'
  mutable platform::Mutex mutex_;
  // The index compares it on a queue of its own.
  std::string groupIdentifier_ GUARDED_BY(mutex_);
  std::uint64_t dataSize_ = 0;
  platform::Date creationDate_{};
  std::string archivedText_;
  std::string checkedLine_;
  mutable std::uint64_t checkedBefore_ = 0;
  mutable std::uint64_t checkedAfter_ = 0;  // 0 where nothing is known
};
