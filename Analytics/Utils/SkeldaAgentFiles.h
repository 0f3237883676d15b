#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Every file and folder that the agent keeps, by name, here and nowhere else.
///
///   <application support>/
///     SkeldaFiles/                                   the storage folder
///       .skelda-lock                                 the one process that may work here
///       .skelda-reserve                              room of last resort
///       .skeldaIntake_261.journal                    what was accepted and is in no frame yet
///       .skeldaFrameLog_261.archive                  the open log
///       .skeldaFrameLog_261.archive.unread_<time>    an open log that could not be read
///       .skeldaCrashedFrameLog_261.archive           a name that is kept, and no file
///       .skeldaCurrentWatchSessionId<hash>_261.archive  the session that ended last
///       CommitedFrameLogs/                           closed logs
///         .skeldaCommitedFrameLog_261.archive_<time>
///       SkeldaSenderIndex.info                       the stored blocks
///       <UUID>                                       a block
///     SkeldaFilesSkelda.KV.storage                   counter and crash flag, beside the folder
///
/// Functions of a folder's path answer paths without a slash at the end; times are seconds since
/// 1970 with six decimals. Any thread. Pure, but for storageFolder() and what counts files.
namespace SkeldaAgentFiles {

inline constexpr std::string_view kStorageFolderName = "SkeldaFiles";
inline constexpr std::string_view kLockFileName = ".skelda-lock";
inline constexpr std::string_view kReserveFileName = ".skelda-reserve";
inline constexpr std::string_view kCommitedFrameLogsFolderName = "CommitedFrameLogs";
inline constexpr std::string_view kSenderIndexFileName = "SkeldaSenderIndex.info";
inline constexpr std::string_view kKVStorageName = "Skelda.KV.storage";

/// <application support>/SkeldaFiles; see SkeldaUtil::filePathDirectory(), which makes it.
std::string storageFolder();
/// The same, as a text alone: nothing is looked at or made.
std::string storageFolderPath();
/// `name` in the storage folder.
std::string inStorageFolder(std::string_view name);

std::string lockFile();
std::string reserveFile();
std::string intakeJournalName();
std::string intakeJournal();

std::string currentFrameLogName();
std::string currentFrameLog();
/// Where goes what cannot be read, or is no file.
std::string setAside(std::string_view path, double secondsSince1970);
std::string crashedFrameLogName();

std::string commitedFrameLogsFolder();
/// Without the time that follows.
std::string commitedFrameLogName();

/// Named after the API key, whose hash is 0 without one.
std::string currentWatchSessionId(const std::optional<std::string>& apiKey);
std::string senderIndex();
std::string block(std::string_view identifier);
/// How many closed logs, how many blocks lie below that storage folder; nothing where that cannot
/// be told.
std::optional<std::uint64_t> commitedFrameLogCount(const std::string& storageFolder);
std::optional<std::uint64_t> blockCount(const std::string& storageFolder);
/// No separator: the file stands beside the folder, where every earlier version put it.
std::string kvStorage();

/// What the blocks of an API key are filed under in the sender index; the hash is 0 without one.
std::string dataKey(const std::optional<std::string>& apiKey);

}  // namespace SkeldaAgentFiles
