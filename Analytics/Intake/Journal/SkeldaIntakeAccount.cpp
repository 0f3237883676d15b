#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Intake/Journal/SkeldaIntake.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"

namespace {

std::uint64_t at(const SkeldaAccountPage::Counter& counter) noexcept {
  return counter.load(std::memory_order_relaxed);
}

}  // namespace

void SkeldaIntake::settleLogs() noexcept {
  skelda::guardedResult(false, [] {
    auto& page = SkeldaAccounting::page();
    const auto waiting = SkeldaAgentFiles::commitedFrameLogCount(SkeldaAgentFiles::storageFolder());
    if (!waiting) return false;
    std::uint64_t logs = at(page.logsStored) + *waiting;
    for (const auto& removed : page.logsRemoved) logs += at(removed);
    // One that could not be copied never came there.
    logs -= at(page.logsRemoved[static_cast<std::size_t>(SkeldaLogRemoval::copyFailed)]);
    SkeldaAccounting::logRemoved(SkeldaLogRemoval::unreadable,
                                 SkeldaAccounting::raise(page.logsCommited, logs));
    return true;
  });
}

SkeldaAccount SkeldaIntake::account() noexcept {
  return skelda::guardedResult(SkeldaAccount(), [] {
    SkeldaAccount account = SkeldaAccounting::accountOf(SkeldaAccounting::page());
    const auto file = openFile();
    if (file == nullptr) return account;  // Nothing of this process is in the storage folder.
    account.events.waiting = file->waitingCount(SkeldaIntakeFile::Kind::event);
    account.choices.waiting = file->waitingCount(SkeldaIntakeFile::Kind::choice);
    const auto folder = SkeldaAgentFiles::storageFolder();
    account.logs.waiting = SkeldaAgentFiles::commitedFrameLogCount(folder).value_or(0);
    account.blocks.waiting = SkeldaAgentFiles::blockCount(folder).value_or(0);
    return account;
  });
}
