#include "Analytics/Status/SkeldaSight.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <set>

#include "Analytics/Intake/Account/SkeldaIntakeReading.h"
#include "Analytics/Networking/DataSender/SkeldaDataSenderBlockInfo.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaKeychainWrapper.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/FolderMaking.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

using platform::FileManager;
using FrameType = SkeldaStreamFrameTypeUtil;

/// The bytes of a file; nothing where there are none, or none that can be read just now.
std::optional<std::string> bytesOf(const std::string& path) {
  int error = 0;
  return platform::readWholeFile(path, error);
}

void lookAtBundle(SkeldaSight& sight) {
  const auto bundle = platform::Bundle::main();
  const auto& information = bundle->infoDictionary();
  sight.bundle = bundle->bundlePath();
  const std::string list = sight.bundle + "/Info.plist";
  if (!FileManager::defaultManager()->fileExistsAtPath(list)) {
    sight.noInformation = fmt::format("there is no {}", list);
  } else if (information.empty()) {
    const auto bytes = bytesOf(list);
    sight.noInformation = fmt::format(
        "{} {}", list, bytes ? "holds no settings, or is no property list" : "cannot be read");
  }
  sight.lines = SkeldaBundleCheck::linesOf(information);
  sight.keyLikeAPIKey = SkeldaBundleCheck::keyLike(SkeldaHostSettings::kAPIKey.key, information);
  sight.hasKey = SkeldaHostSettings::apiKey().has_value();
  sight.isExtension = SkeldaUtil::isInWatchExtension();
  sight.hasIdentifier = bundle->bundleIdentifier().has_value();
  using namespace SkeldaHostSettings;
  sight.isPhoneOff = isSwitchedOn(kDisableConnectivity);
  sight.eventThreshold = inRange(kEventThreshold, valueOf(kEventThreshold));
  sight.durationThreshold = inRange(kDurationThreshold, valueOf(kDurationThreshold));
}

bool statusOf(const std::string& path, struct ::stat& status) {
  return platform::fileError<&platform::FileCalls::statusAt>(path.c_str(), &status) == 0;
}

/// Whether the kernel's list of locks has that process beside that file.
bool isListedAsHolder(::pid_t process, const struct ::stat& file) {
  const std::string locks = bytesOf("/proc/locks").value_or("");
  for (std::string_view rest = locks; !rest.empty();) {
    const auto line = rest.substr(0, rest.find('\n'));
    if (line.find(fmt::format(" {} ", process)) != std::string::npos &&
        line.find(fmt::format(":{} ", file.st_ino)) != std::string::npos) {
      return true;
    }
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
  }
  return false;
}

/// Whether the process has that file open.
bool hasOpen(::pid_t process, const struct ::stat& file) {
  const std::string folder = fmt::format("/proc/{}/fd", process);
  platform::ErrorRef error;
  const auto names = FileManager::defaultManager()->contentsOfDirectoryAtPath(folder, &error);
  // Another user's cannot be looked into.
  if (!names) return error->code() == EACCES && isListedAsHolder(process, file);
  return std::ranges::any_of(*names, [&](const std::string& name) {
    struct ::stat open;
    return statusOf(folder + "/" + name, open) && open.st_ino == file.st_ino &&
           open.st_dev == file.st_dev;
  });
}

/// The lock itself is not touched: whoever asks for it keeps its owner-to-be out.
void lookForHolder(SkeldaSight& sight) {
  const std::string path = fmt::format("{}/{}", sight.storage, SkeldaAgentFiles::kLockFileName);
  const auto text = bytesOf(path);
  struct ::stat file;
  ::pid_t process = 0;
  if (!text || !statusOf(path, file)) return;
  std::from_chars(text->data(), text->data() + text->size(), process);
  if (process <= 0 || !hasOpen(process, file)) return;
  sight.holder = process;
  std::array<char, PATH_MAX> program;
  const auto length =
      ::readlink(fmt::format("/proc/{}/exe", process).c_str(), program.data(), program.size());
  if (length > 0) sight.holderProgram.assign(program.data(), static_cast<std::size_t>(length));
}

void lookAtStorage(SkeldaSight& sight) {
  sight.storage = SkeldaAgentFiles::storageFolderPath();
  sight.storageProblem = platform::whyNotWritable(sight.storage);
  struct ::stat storage;
  sight.hasStorage = statusOf(sight.storage, storage) && S_ISDIR(storage.st_mode);
  lookForHolder(sight);
}

std::uint64_t blocksOfOtherKeysIn(const std::string& storage) {
  const auto own = SkeldaAgentFiles::dataKey(SkeldaHostSettings::apiKey());
  std::uint64_t count = 0;
  const auto names = FileManager::defaultManager()->contentsOfDirectoryAtPath(storage);
  if (!names) return 0;
  for (const std::string& name : *names) {
    std::array<char, 256> key;
    const auto length = platform::fileCall<&platform::FileCalls::attribute>(
        fmt::format("{}/{}", storage, name).c_str(), SkeldaDataSenderBlockInfo::kDataKeyAttribute,
        key.data(), key.size());
    if (length > 0 && std::string_view(key.data(), static_cast<std::size_t>(length)) != own)
      ++count;
  }
  return count;
}

void lookAtAccount(SkeldaSight& sight) {
  platform::ErrorRef error;
  const auto reading = SkeldaIntakeReading::of(
      fmt::format("{}/{}", sight.storage, SkeldaAgentFiles::intakeJournalName()), &error);
  if (reading) {
    sight.hasAccount = true;
    sight.account = reading->account;
    sight.server = reading->server;
    const auto key = SkeldaHostSettings::apiKey();
    sight.journalIsOfOtherKey = key && reading->keyHash != platform::stableHash(*key);
  } else if (error->code() != ENOENT && error->code() != ENOTDIR) {
    sight.accountProblem = error->localizedDescription();
  }
  sight.account.logs.waiting = SkeldaAgentFiles::commitedFrameLogCount(sight.storage).value_or(0);
  sight.account.blocks.waiting = SkeldaAgentFiles::blockCount(sight.storage).value_or(0);
  sight.blocksOfOtherKeys = blocksOfOtherKeysIn(sight.storage);
}

void lookForIdentifiers(SkeldaSight& sight) {
  using Source = SkeldaReportedIdentifiersSource;
  const SkeldaKeychainWrapper items(kSkeldaKeychainIdentifier);
  const auto has = [&](auto key) { return items.stringForKey(key).has_value(); };
  const auto lacks = [&](auto key) { return items.isAbsent(key); };
  if (has(Source::kWatchVendorIDItem) || has(Source::kWatchInstallationIDItem)) {
    sight.identifiers = SkeldaSight::Seen::yes;
  } else if (lacks(Source::kWatchVendorIDItem) && lacks(Source::kWatchInstallationIDItem)) {
    sight.identifiers = SkeldaSight::Seen::no;
  }
}

void lookAtOpenLog(SkeldaSight& sight) {
  const auto log =
      bytesOf(fmt::format("{}/{}", sight.storage, SkeldaAgentFiles::currentFrameLogName()));
  if (!log) return;
  std::set<std::int32_t> types;
  const auto frames = SkeldaStreamFrameDeserializer::streamFrameDeserializer();
  std::uint32_t length = 0;
  for (std::string_view rest = *log; frames->isAtLeastOneFrameInData(rest, &length);
       rest.remove_prefix(length)) {
    const auto type = static_cast<std::int32_t>(frames->frameTypeFromData(rest));
    types.insert(type);
    if (type == FrameType::kEvent) ++sight.openEvents;
  }
  for (const std::int32_t type : FrameType::frameTypesWithRole(FrameType::kMandatory)) {
    if (types.contains(type)) continue;
    if (!sight.missing.empty()) sight.missing += ", ";
    sight.missing += FrameType::classNameForFrameType(type);
  }
}

}  // namespace

SkeldaSight SkeldaSight::ofFiles() {
  SkeldaSight sight;
  lookAtBundle(sight);
  lookAtStorage(sight);
  lookAtAccount(sight);
  lookForIdentifiers(sight);
  lookAtOpenLog(sight);
  return sight;
}
