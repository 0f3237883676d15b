#include "Analytics/Networking/DataSender/SkeldaDataSenderBlockInfo.h"

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <utility>

#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Foundation/FileManager.h"

namespace {

constexpr std::string_view kIdentifier = "identifier";
constexpr std::string_view kDataSize = "dataSize";
constexpr std::string_view kCreationDate = "creationDate";

/// Whether a system error says that what was stored is not there any more, or may pass.
bool isGone(std::int64_t systemError) noexcept {
  return systemError == ENOENT || systemError == ENOTDIR || systemError == EISDIR ||
         systemError == ELOOP || systemError == EINVAL;
}

}  // namespace

SkeldaDataSenderBlockInfo::SkeldaDataSenderBlockInfo(std::string identifier)
    : identifier_(std::move(identifier)) {}

SkeldaDataSenderBlockInfo::BlockRef SkeldaDataSenderBlockInfo::blockWithData(
    const platform::Data& data) {
  BlockRef block(new SkeldaDataSenderBlockInfo(SkeldaUtil::generateCFUUID()));
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
  BlockRef block(new SkeldaDataSenderBlockInfo(*identifier->text()));
  block->dataSize_ = size->unsignedValue();
  block->creationDate_ = *date->date();
  return block;
}

platform::Value SkeldaDataSenderBlockInfo::encoded() const {
  return {{std::string(kIdentifier), identifier_},
          {std::string(kDataSize), dataSize_},
          {std::string(kCreationDate), creationDate_}};
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

std::optional<platform::Data> SkeldaDataSenderBlockInfo::data(ReadStatus* status) const {
  const std::string path = filePath();
  ReadStatus result = ReadStatus::whole;
  std::optional<platform::Data> bytes;
  // The size first: whatever lies there now, no more is read than was stored.
  std::error_code failure;
  const auto size = std::filesystem::file_size(path, failure);
  if (failure) {
    result = isGone(failure.value()) ? ReadStatus::gone : ReadStatus::unreadable;
  } else if (size == dataSize_) {
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
  if (status != nullptr) *status = result;
  return bytes;
}

bool SkeldaDataSenderBlockInfo::setData(const platform::Data& data) {
  const std::string path = filePath();
  if (!SkeldaUtil::assert_(!path.empty(), "0 != filePath.length") ||
      !SkeldaUtil::assert_(!data.empty(), "0 != data.length")) {
    return false;
  }
  const platform::BlockingRegion disk;
  auto& files = *platform::FileManager::defaultManager();
  // A new file's name reaches the disk with the index that names it, in the same folder.
  const bool stored =
      dataSize_ == 0 ? files.storeNewFile(data, path) : files.writeData(data, path, true);
  if (!stored) {
    SKELDA_LOG(1, "Skelda: Failed store block with id [{}]", identifier_);
    return false;
  }
  dataSize_ = data.length();
  creationDate_ = platform::Date::now();
  return true;
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
