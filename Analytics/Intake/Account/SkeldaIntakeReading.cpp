#include "Analytics/Intake/Account/SkeldaIntakeReading.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"
#include "Platform/Foundation/FileDescriptor.h"

namespace {

using Counter = SkeldaAccountPage::Counter;
using SkeldaIntakeLayout::Page;

std::uint64_t at(const Counter& counter) noexcept {
  return counter.load(std::memory_order_relaxed);
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

void guessWaiting(SkeldaAccount::Records& records) noexcept {
  const auto gone = records.stored + records.dropped() + records.cutOff;
  records.waiting = records.accepted > gone ? records.accepted - gone : 0;
}

}  // namespace

SkeldaAccount SkeldaAccounting::accountOf(const SkeldaAccountPage& page) noexcept {
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
  return account;
}

std::optional<SkeldaIntakeReading> SkeldaIntakeReading::of(const std::string& path,
                                                           platform::ErrorRef* error) {
  int code = 0;
  const auto file = platform::FileDescriptor::openFile(path, O_RDONLY, code);
  std::string bytes;
  if (code == 0) code = file.read(bytes, sizeof(Page), 0);
  if (code == 0 && bytes.size() < sizeof(Page)) code = EINVAL;
  if (code != 0) {
    platform::setError(error, platform::posixError(code, path));
    return std::nullopt;
  }
  Page page{};
  std::memcpy(static_cast<void*>(&page), bytes.data(), sizeof page);
  if (page.magic != SkeldaIntakeLayout::kMagic || page.format != SkeldaIntakeLayout::kFormat ||
      page.checksum != page.staticChecksum()) {
    platform::setError(error, platform::posixError(EINVAL, path));
    return std::nullopt;
  }
  SkeldaIntakeReading reading{SkeldaAccounting::accountOf(page.account),
                              SkeldaIntakeLayout::serverIn(page), page.keyHash};
  guessWaiting(reading.account.events);
  guessWaiting(reading.account.choices);
  return reading;
}
