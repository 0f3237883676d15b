#include "Analytics/Networking/DataSender/SkeldaDataSenderBlockInfo.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <utility>

#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

using platform::FileCalls;

constexpr std::string_view kIdentifier = "identifier";
constexpr std::string_view kDataSize = "dataSize";
constexpr std::string_view kCreationDate = "creationDate";
constexpr std::size_t kLongestDataKey = 255;

/// Whether a system error says that what was stored is not there any more, or may pass.
bool isGone(std::int64_t systemError) noexcept {
  return systemError == ENOENT || systemError == ENOTDIR || systemError == EISDIR ||
         systemError == ELOOP || systemError == EINVAL;
}

}  // namespace

SkeldaDataSenderBlockInfo::SkeldaDataSenderBlockInfo(std::string identifier, std::string dataKey)
    : identifier_(std::move(identifier)), dataKey_(std::move(dataKey)) {}

SkeldaDataSenderBlockInfo::BlockRef SkeldaDataSenderBlockInfo::blockWithData(
    const platform::Data& data, std::string dataKey) {
  const auto block = platform::counted(
      new SkeldaDataSenderBlockInfo(SkeldaUtil::generateCFUUID(), std::move(dataKey)));
  if (block->setData(data)) return block;
  SKELDA_LOG(1, "Failed to create SkeldaDataSenderBlockInfo for data size {}", data.length());
  return nullptr;
}

SkeldaDataSenderBlockInfo::BlockRef SkeldaDataSenderBlockInfo::blockWithCoder(
    const platform::Value& archived) {
  const auto* fields = archived.dictionary();
  if (fields == nullptr) return nullptr;
  const auto* identifier = fields->find(kIdentifier);
  const auto* size = fields->find(kDataSize);
  const auto* date = fields->find(kCreationDate);
  if (identifier == nullptr || identifier->text() == nullptr ||
      !isBlockFileName(*identifier->text()) || size == nullptr || !size->isNumber() ||
      date == nullptr || date->date() == nullptr) {
    return nullptr;
  }
  const auto block = platform::counted(new SkeldaDataSenderBlockInfo(*identifier->text(), {}));
  block->isOf(size->unsignedValue(), *date->date());
  return block;
}

/// The index is written anew with each block, the texts of the others are not.
void SkeldaDataSenderBlockInfo::isOf(std::uint64_t dataSize, platform::Date creationDate) {
  dataSize_ = dataSize;
  creationDate_ = creationDate;
  archivedText_ = platform::archivedText(encoded());
  checkedLine_ = fmt::format("{} {} {}\n", identifier_, dataSize_,
                             creationDate_.microsecondsSince1970().count());
  checkedAfter_ = 0;
}

std::uint64_t SkeldaDataSenderBlockInfo::checkedAfter(std::uint64_t before) const noexcept {
  if (checkedAfter_ == 0 || checkedBefore_ != before) {
    checkedBefore_ = before;
    checkedAfter_ = platform::stableHash(checkedLine_, before);
  }
  return checkedAfter_;
}

platform::Value SkeldaDataSenderBlockInfo::encoded() const {
  return {{std::string(kIdentifier), identifier_},
          {std::string(kDataSize), dataSize_},
          {std::string(kCreationDate), creationDate_}};
}

SkeldaDataSenderBlockInfo::BlockRef SkeldaDataSenderBlockInfo::blockWithFile(
    const std::string& identifier, std::string& dataKey, int& error) {
  const auto block = platform::counted(new SkeldaDataSenderBlockInfo(identifier, {}));
  const std::string path = block->filePath();
  struct ::stat status;
  dataKey.assign(kLongestDataKey, '\0');
  error = platform::fileError<&FileCalls::linkStatusAt>(path.c_str(), &status);
  if (error == 0 && !S_ISREG(status.st_mode)) error = ENODATA;
  if (error != 0) return nullptr;
  const auto length = platform::fileCall<&FileCalls::attribute>(path.c_str(), kDataKeyAttribute,
                                                                dataKey.data(), dataKey.size());
  if (length < 0 && errno != ENOTSUP) {
    error = errno;
    return nullptr;
  }
  dataKey.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  block->isOf(static_cast<std::uint64_t>(status.st_size),
              platform::Date(std::chrono::duration_cast<platform::Date::Microseconds>(
                  std::chrono::seconds(status.st_mtim.tv_sec) +
                  std::chrono::nanoseconds(status.st_mtim.tv_nsec))));
  return block;
}

bool SkeldaDataSenderBlockInfo::isBlockFileName(std::string_view name) noexcept {
  constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  if (name.size() != kForm.size()) return false;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool fits =
        kForm[i] == '-' ? name[i] == '-' : std::isxdigit(static_cast<unsigned char>(name[i])) != 0;
    if (!fits) return false;
  }
  return true;
}

std::string SkeldaDataSenderBlockInfo::groupIdentifier() const {
  const platform::MutexLock lock(mutex_);
  return groupIdentifier_;
}

void SkeldaDataSenderBlockInfo::setGroupIdentifier(std::string groupIdentifier) {
  const platform::MutexLock lock(mutex_);
  groupIdentifier_ = std::move(groupIdentifier);
}

std::string SkeldaDataSenderBlockInfo::filePath() const {
  return SkeldaAgentFiles::block(identifier_);
}

std::optional<platform::Data> SkeldaDataSenderBlockInfo::data(ReadStatus* readStatus) const {
  const std::string path = filePath();
  ReadStatus result = ReadStatus::whole;
  std::optional<platform::Data> bytes;
  // The size first: whatever lies there now, no more is read than was stored.
  struct ::stat status;
  const int failure = platform::fileError<&FileCalls::linkStatusAt>(path.c_str(), &status);
  if (failure != 0) {
    result = isGone(failure) ? ReadStatus::gone : ReadStatus::unreadable;
  } else if (S_ISREG(status.st_mode) && static_cast<std::uint64_t>(status.st_size) == dataSize_) {
    platform::ErrorRef error;
    bytes = platform::FileManager::defaultManager()->contentsAtPath(path, &error);
    if (!bytes) result = error && isGone(error->code()) ? ReadStatus::gone : ReadStatus::unreadable;
  }
  if (result == ReadStatus::whole && (!bytes || bytes->length() != dataSize_)) {
    bytes.reset();
    result = ReadStatus::gone;
  }
  SKELDA_LOG(2, "Skelda: restored data block with id [{}], success: {:d}", identifier_,
             bytes.has_value());
  if (readStatus != nullptr) *readStatus = result;
  return bytes;
}

bool SkeldaDataSenderBlockInfo::setData(const platform::Data& data) {
  const std::string path = filePath();
  if (!SkeldaUtil::assert_(!path.empty(), "0 != filePath.length") ||
      !SkeldaUtil::assert_(!data.empty(), "0 != data.length")) {
    return false;
  }
  const platform::BlockingRegion disk;
  if (!storeFile(data, path)) {
    SKELDA_LOG(1, "Skelda: Failed store block with id [{}]", identifier_);
    return false;
  }
  isOf(data.length(), platform::Date::now());
  return true;
}

bool SkeldaDataSenderBlockInfo::storeFile(const platform::Data& data,
                                          const std::string& path) const {
  const std::string temporary = SkeldaAgentFiles::inStorageFolder(
      std::string(platform::FileManager::kTemporaryPrefix) + identifier_);
  auto& files = *platform::FileManager::defaultManager();
  if (!files.storeNewFile(data, temporary)) return false;
  // Where the file system has no room for an attribute the index alone knows the key.
  platform::fileError<&FileCalls::setAttribute>(temporary.c_str(), kDataKeyAttribute,
                                                dataKey_.data(), dataKey_.size());
  // The new name reaches the disk with the index that says it, in the same folder.
  if (platform::fileError<&FileCalls::rename>(temporary.c_str(), path.c_str()) == 0) return true;
  files.removeItemAtPath(temporary);
  return false;
}

void SkeldaDataSenderBlockInfo::deletePersistentData() const {
  SkeldaUtil::assertThreadIsNotMain();
  const bool removed = platform::FileManager::defaultManager()->removeItemAtPath(filePath());
  SKELDA_LOG(2, "Skelda: delete data block with id [{}], success: {:d}", identifier_, removed);
}

std::string SkeldaDataSenderBlockInfo::description() const {
  const std::string group = groupIdentifier();
  return fmt::format("Block [{}, {}, {}]", identifier_, group.empty() ? "(null)" : group,
                     platform::Value(creationDate_).description());
}
