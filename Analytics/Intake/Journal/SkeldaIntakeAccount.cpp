#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Intake/Journal/SkeldaIntake.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"

namespace {

using Counter = SkeldaAccountPage::Counter;

std::uint64_t at(const Counter& counter) noexcept {
  return counter.load(std::memory_order_relaxed);
}

/// How many files of a folder have such a name; null where that cannot be told.
template <class IsNamedSo>
std::optional<std::uint64_t> filesIn(const std::string& folder, IsNamedSo&& isNamedSo) {
  std::error_code error;
  std::uint64_t count = 0;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (isNamedSo(entry->path().filename().string())) ++count;
  }
  if (error && error != std::errc::no_such_file_or_directory) return std::nullopt;
  return count;
}

std::optional<std::uint64_t> waitingLogs() {
  return filesIn(SkeldaAgentFiles::commitedFrameLogsFolder(), [](const std::string& name) {
    return name.starts_with(SkeldaAgentFiles::commitedFrameLogName());
  });
}

/// Blocks are named by nothing but a UUID.
std::optional<std::uint64_t> waitingBlocks() {
  return filesIn(SkeldaAgentFiles::storageFolder(), [](const std::string& name) {
    return name.size() == 36 && std::ranges::count(name, '-') == 4;
  });
}

SkeldaAccount::Records recordsOf(const SkeldaAccountPage& page, SkeldaIntakeFile::Kind kind) {
  using Outcome = SkeldaIntakeOutcome;
  const auto index = static_cast<std::size_t>(kind) - 1;
  const auto settled = [&](Outcome outcome) {
    return at(page.settled[index][static_cast<std::size_t>(outcome)]);
  };
  SkeldaAccount::Records records;
  records.accepted = at(page.accepted[index]);
  records.stored = settled(Outcome::stored);
  records.cutOff = at(page.cutOff[index]);
  records.droppedBySessionCap = settled(Outcome::sessionCap);
  records.droppedBySessionDuration = settled(Outcome::sessionDuration);
  records.droppedAsRepeated = settled(Outcome::repeated);
  records.droppedNotUTF8 = settled(Outcome::notUTF8);
  records.droppedWrongKind = settled(Outcome::wrongKind);
  records.droppedBySerializer = settled(Outcome::serializer);
  records.droppedOtherKey = settled(Outcome::otherKey);
  records.droppedOtherVersion = settled(Outcome::otherVersion);
  records.droppedReplayedTooOften = settled(Outcome::replayedTooOften);
  records.replayed = at(page.replayed[index]);
  records.unprotected = at(page.unprotected[index]);
  return records;
}

SkeldaAccount::Refused refusedOf(const SkeldaAccountPage& page) {
  const auto refused = [&](SkeldaRefusal reason) {
    return at(page.refused[static_cast<std::size_t>(reason)]);
  };
  return {refused(SkeldaRefusal::noKey),        refused(SkeldaRefusal::notAnExtension),
          refused(SkeldaRefusal::badName),      refused(SkeldaRefusal::insideSink),
          refused(SkeldaRefusal::otherProcess), refused(SkeldaRefusal::overTheBound),
          refused(SkeldaRefusal::forkedChild),  refused(SkeldaRefusal::tooDeep),
          refused(SkeldaRefusal::tooLong),      refused(SkeldaRefusal::noMemory)};
}

}  // namespace

void SkeldaIntake::settleLogs() noexcept {
  skelda::guardedResult(false, [] {
    auto& page = SkeldaAccounting::page();
    const auto waiting = waitingLogs();
    if (!waiting) return false;
    std::uint64_t logs = at(page.logsStored) + *waiting;
    for (const Counter& removed : page.logsRemoved) logs += at(removed);
    // One that could not be copied never came there.
    logs -= at(page.logsRemoved[static_cast<std::size_t>(SkeldaLogRemoval::copyFailed)]);
    SkeldaAccounting::logRemoved(SkeldaLogRemoval::unreadable,
                                 SkeldaAccounting::raise(page.logsCommited, logs));
    return true;
  });
}

SkeldaAccount SkeldaIntake::account() noexcept {
  return skelda::guardedResult(SkeldaAccount(), [] {
    const SkeldaAccountPage& page = SkeldaAccounting::page();
    SkeldaAccount account;
    account.events = recordsOf(page, SkeldaIntakeFile::Kind::event);
    account.choices = recordsOf(page, SkeldaIntakeFile::Kind::choice);
    account.refused = refusedOf(page);
    using LogRemoval = SkeldaLogRemoval;
    const auto logs = [&](LogRemoval reason) {
      return at(page.logsRemoved[static_cast<std::size_t>(reason)]);
    };
    account.logs.commited = at(page.logsCommited);
    account.logs.stored = at(page.logsStored);
    account.logs.removedFolderFull = logs(LogRemoval::folderFull);
    account.logs.removedThirdFailedTry = logs(LogRemoval::thirdFailedTry);
    account.logs.removedUnreadable = logs(LogRemoval::unreadable);
    using BlockRemoval = SkeldaBlockRemoval;
    const auto blocks = [&](BlockRemoval reason) {
      return at(page.blocksRemoved[static_cast<std::size_t>(reason)]);
    };
    account.blocks.stored = at(page.blocksStored);
    account.blocks.acknowledged = at(page.blocksAcknowledged);
    account.blocks.rejected = at(page.blocksRejected);
    account.blocks.removedOverLimit = blocks(BlockRemoval::overLimit);
    account.blocks.removedOtherKey = blocks(BlockRemoval::otherKey);
    account.blocks.removedDamaged = blocks(BlockRemoval::damaged);
    account.framesWritten = at(page.framesWritten);
    account.framesLost = at(page.framesLost);
    account.synchronizationsFailed = at(page.synchronizationsFailed);
    account.bytesSent = at(page.bytesSent);
    account.requests = at(page.requests);
    account.lastAnswer = at(page.lastAnswer);
    account.lastAnswerTime = static_cast<std::int64_t>(at(page.lastAnswerTime));
    account.logLinesDropped = at(page.linesDropped);
    account.inconsistentStarts = at(page.inconsistent);
    const auto file = openFile();
    if (file == nullptr) return account;  // Nothing of this process is in the storage folder.
    account.events.waiting = file->waitingCount(SkeldaIntakeFile::Kind::event);
    account.choices.waiting = file->waitingCount(SkeldaIntakeFile::Kind::choice);
    account.logs.waiting = waitingLogs().value_or(0);
    account.blocks.waiting = waitingBlocks().value_or(0);
    return account;
  });
}
