#pragma once

#include <chrono>
#include <memory>

#include "Analytics/Intake/Journal/SkeldaIntakeCall.h"
#include "Analytics/Intake/Journal/SkeldaIntakePump.h"
#include "Skelda_Watch/SkeldaAccount.h"

/// The one way of every public call that has an effect: refused on the spot, or kept from the
/// moment it returns. Any thread; nothing here throws.
namespace SkeldaIntake {

/// Whether this process was forked from one that uses the agent: whatever it inherited is its
/// parent's, and every call is refused.
bool isForkedChild() noexcept;

/// Whether a call has opened the intake; then for good.
bool isOpen() noexcept;

/// Keeps the call, or refuses it, which is counted and said. The first call opens the intake: makes
/// the storage folder, takes its lock and opens the journal, and starts nothing.
bool accept(SkeldaIntakeCall::Kind kind, SkeldaIntakeCall::Values values) noexcept;

/// Opens the intake where it is not open yet. False where the storage folder cannot be had, which
/// is counted as a refusal, said once, and tried again after a second at the earliest.
bool open() noexcept;

/// From now on what is kept goes to these sources, what earlier runs left first. Once, after
/// open().
void start(SkeldaIntakePump::Sources sources);

/// True once all that was accepted before the call is stored or named in the account. False at the
/// deadline; at once, where nothing feeds what waits.
bool waitUntilStored(std::chrono::steady_clock::time_point deadline) noexcept;

/// The open journal; null before there is one.
std::shared_ptr<SkeldaIntakeFile> openFile() noexcept;

/// Puts right what a kill left of the count of logs; one that nobody counted as gone is named as
/// unreadable. At the start of a process, before anything moves them.
void settleLogs() noexcept;

/// What became of everything, as of now.
SkeldaAccount account() noexcept;

}  // namespace SkeldaIntake
