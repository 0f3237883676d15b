#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaAccountPage.h"
#include "Analytics/Intake/Account/SkeldaIntakeFile.h"
#include "Skelda_Watch/SkeldaAccount.h"

/// The account of this process, as every room reaches it: counts go into the intake file's first
/// page once that is open, and into a page in memory before, whose counts are added then. Any
/// thread; nothing here throws, and what counts neither
/// blocks nor allocates.
namespace SkeldaAccounting {

/// From now on counts go into this file's page; null takes it back to memory. For the intake, and
/// for tests.
void setFile(std::shared_ptr<SkeldaIntakeFile> file);

SkeldaAccountPage& page() noexcept;
/// Its counters, named; what waits is not among them.
SkeldaAccount accountOf(const SkeldaAccountPage& page) noexcept;
/// Keeps the address that the host has set, so that whoever looks at the files alone can tell where
/// logs are sent. Of one that is too long, the begin.
void noteServer(std::string_view address) noexcept;
inline void add(SkeldaAccountPage::Counter& counter, std::uint64_t count = 1) noexcept {
  counter.fetch_add(count, std::memory_order_relaxed);
}
/// Settles, before anything moves, what a kill between a thing's coming or going and its count has
/// left: what is there counts as come. Returns how many came and are neither there nor counted as
/// gone, so that the caller names them.
std::uint64_t raise(SkeldaAccountPage::Counter& come, std::uint64_t thereOrGone) noexcept;
void refused(SkeldaRefusal reason) noexcept;
void logRemoved(SkeldaLogRemoval reason, std::uint64_t count = 1) noexcept;
void blockRemoved(SkeldaBlockRemoval reason, std::uint64_t count = 1) noexcept;

/// What became of the record behind a message; without a file, or for ticket 0, nothing happens.
void settle(SkeldaIntakeTicket ticket, SkeldaIntakeOutcome outcome) noexcept;

}  // namespace SkeldaAccounting
