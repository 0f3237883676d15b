#include "Analytics/Utils/SkeldaAgentFiles.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>

#include "Analytics/Utils/SkeldaAgentVersion.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

std::uint64_t hashOf(const std::optional<std::string>& apiKey) {
  return apiKey ? platform::stableHash(*apiKey) : 0;
}

/// How many files of a folder have such a name; null where that cannot be told.
std::optional<std::uint64_t> filesIn(const std::string& folder,
                                     bool (*isNamedSo)(const std::string& name)) {
  platform::ErrorRef error;
  const auto names =
      platform::FileManager::defaultManager()->contentsOfDirectoryAtPath(folder, &error);
  if (!names) return error->code() == ENOENT ? std::optional<std::uint64_t>(0) : std::nullopt;
  return std::ranges::count_if(*names, isNamedSo);
}

}  // namespace

std::string SkeldaAgentFiles::storageFolder() {
  return SkeldaUtil::filePathDirectory();
}

std::string SkeldaAgentFiles::storageFolderPath() {
  return fmt::format("{}/{}", platform::FileManager::applicationSupportDirectory(),
                     kStorageFolderName);
}

std::string SkeldaAgentFiles::inStorageFolder(std::string_view name) {
  const std::string folder = storageFolder();
  std::string path;
  path.reserve(folder.size() + 1 + name.size());
  return path.append(folder).append("/").append(name);
}

std::string SkeldaAgentFiles::lockFile() {
  return inStorageFolder(kLockFileName);
}

std::string SkeldaAgentFiles::reserveFile() {
  return inStorageFolder(kReserveFileName);
}

std::string SkeldaAgentFiles::intakeJournalName() {
  return fmt::format(".skeldaIntake_{}.journal", kSkeldaAgentVersion);
}

std::string SkeldaAgentFiles::intakeJournal() {
  return inStorageFolder(intakeJournalName());
}

std::string SkeldaAgentFiles::currentFrameLogName() {
  return fmt::format(".skeldaFrameLog_{}.archive", kSkeldaAgentVersion);
}

std::string SkeldaAgentFiles::currentFrameLog() {
  return inStorageFolder(currentFrameLogName());
}

std::string SkeldaAgentFiles::setAside(std::string_view path, double secondsSince1970) {
  return fmt::format("{}.unread_{:.6f}", path, secondsSince1970);
}

std::string SkeldaAgentFiles::crashedFrameLogName() {
  return fmt::format(".skeldaCrashedFrameLog_{}.archive", kSkeldaAgentVersion);
}

std::string SkeldaAgentFiles::commitedFrameLogsFolder() {
  return inStorageFolder(kCommitedFrameLogsFolderName);
}

std::string SkeldaAgentFiles::commitedFrameLogName() {
  return fmt::format(".skeldaCommitedFrameLog_{}.archive", kSkeldaAgentVersion);
}

std::string SkeldaAgentFiles::currentWatchSessionId(const std::optional<std::string>& apiKey) {
  // Only the low half of the hash goes into the name, as a signed number.
  const auto hash = static_cast<std::int32_t>(static_cast<std::uint32_t>(hashOf(apiKey)));
  return inStorageFolder(
      fmt::format(".skeldaCurrentWatchSessionId{}_{}.archive", hash, kSkeldaAgentVersion));
}

std::string SkeldaAgentFiles::senderIndex() {
  return inStorageFolder(kSenderIndexFileName);
}

std::string SkeldaAgentFiles::block(std::string_view identifier) {
  return inStorageFolder(identifier);
}

std::optional<std::uint64_t> SkeldaAgentFiles::commitedFrameLogCount(
    const std::string& storageFolder) {
  return filesIn(fmt::format("{}/{}", storageFolder, kCommitedFrameLogsFolderName),
                 [](const std::string& name) { return name.starts_with(commitedFrameLogName()); });
}

std::optional<std::uint64_t> SkeldaAgentFiles::blockCount(const std::string& storageFolder) {
  // Blocks are named by nothing but a UUID.
  return filesIn(storageFolder, [](const std::string& name) {
    return name.size() == 36 && std::ranges::count(name, '-') == 4;
  });
}

std::string SkeldaAgentFiles::kvStorage() {
  return storageFolder() + std::string(kKVStorageName);
}

std::string SkeldaAgentFiles::dataKey(const std::optional<std::string>& apiKey) {
  return fmt::format("Data_{}_{}", hashOf(apiKey), kSkeldaAgentVersion);
}
