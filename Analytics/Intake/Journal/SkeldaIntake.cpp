#include "Analytics/Intake/Journal/SkeldaIntake.h"

#include <pthread.h>

#include <atomic>
#include <new>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Never destroyed, so that a call during exit finds it.
using PumpRef = std::shared_ptr<SkeldaIntakePump>;
constinit std::atomic<const PumpRef*> openPump{nullptr};

constinit platform::Mutex opening;
/// When a folder that could not be had is asked for again; in the clock's own ticks.
constinit std::atomic<Clock::rep> nextTry{Clock::time_point::min().time_since_epoch().count()};
constexpr std::chrono::seconds kTryAgainAfter{1};

constinit std::atomic<bool> forkedChild{false};

void sayWhatWasFound(const SkeldaIntakeFile::Opening& found) {
  if (!found.setAside.empty()) {
    SKELDA_NOTICE(
        "Skelda: the intake journal could not be read and is begun anew, the old one is {}",
        found.setAside);
  }
  if (found.waiting[0] + found.waiting[1] != 0) {
    SKELDA_LOG(0, "Skelda: the intake journal brought back {} events and {} choices",
               found.waiting[0], found.waiting[1]);
  }
  const auto dropped = found.otherKey + found.otherVersion + found.replayedTooOften;
  if (dropped != 0) {
    SKELDA_NOTICE(
        "Skelda: of the intake journal {} were dropped: {} of another API key, {} of "
        "another version, {} that three starts did not survive",
        dropped, found.otherKey, found.otherVersion, found.replayedTooOften);
  }
}

/// The journal of this application; where there is none, its stand-in in memory, which is said.
std::shared_ptr<SkeldaIntakeFile> openJournal() {
  const auto key = SkeldaHostSettings::apiKey();
  const auto capacity =
      static_cast<std::size_t>(SkeldaHostSettings::numberOf(SkeldaHostSettings::kIntakeCapacity));
  platform::ErrorRef error;
  auto file = SkeldaIntakeFile::open(SkeldaAgentFiles::intakeJournal(), capacity * 1024,
                                     key ? platform::stableHash(*key) : 0, &error);
  if (file == nullptr) throw std::bad_alloc();
  if (!file->isProtected()) {
    SKELDA_NOTICE("Skelda: no intake journal, so what a kill finds unwritten is lost: {}",
                  platform::description(error));
  }
  sayWhatWasFound(file->opening());
  return file;
}

/// The lock goes first, and is let go of by a forked child: see StorageLock.
bool openLocked() {
  static const int registered = ::pthread_atfork(
      nullptr, nullptr, [] { forkedChild.store(true, std::memory_order_relaxed); });
  if (registered != 0) throw std::bad_alloc();
  if (!SkeldaWatchStreamManager::lockStorageFolder()) return false;
  auto file = openJournal();
  auto pump = std::make_unique<PumpRef>(SkeldaIntakePump::pumpOf(file));
  SkeldaAccounting::setFile(std::move(file));
  SkeldaIntake::settleLogs();
  openPump.store(pump.release(), std::memory_order_release);
  return true;
}

}  // namespace

bool SkeldaIntake::isOpen() noexcept {
  return openPump.load(std::memory_order_acquire) != nullptr;
}

bool SkeldaIntake::isForkedChild() noexcept {
  return forkedChild.load(std::memory_order_relaxed);
}

bool SkeldaIntake::open() noexcept {
  if (isOpen()) return true;
  const auto now = Clock::now().time_since_epoch().count();
  bool opened = false;
  auto refusal = SkeldaRefusal::otherProcess;
  if (now >= nextTry.load(std::memory_order_relaxed)) {
    try {
      const platform::MutexLock lock(opening);
      opened = isOpen() || openLocked();
    } catch (const std::bad_alloc&) {
      refusal = SkeldaRefusal::noMemory;
    } catch (...) {
      SkeldaUtil::handleException(std::current_exception());
    }
    if (!opened) {
      nextTry.store((Clock::now() + kTryAgainAfter).time_since_epoch().count(),
                    std::memory_order_relaxed);
    }
  }
  if (!opened) SkeldaAccounting::refused(refusal);
  return opened;
}

bool SkeldaIntake::accept(SkeldaIntakeCall::Kind kind, SkeldaIntakeCall::Values values) noexcept {
  if (!open()) return false;
  return (*openPump.load(std::memory_order_acquire))->accept(kind, values);
}

std::shared_ptr<SkeldaIntakeFile> SkeldaIntake::openFile() noexcept {
  const auto* const pump = openPump.load(std::memory_order_acquire);
  return pump == nullptr ? nullptr : (*pump)->file();
}

void SkeldaIntake::start(SkeldaIntakePump::Sources sources) {
  (*openPump.load(std::memory_order_acquire))->start(std::move(sources));
}

bool SkeldaIntake::waitUntilStored(Clock::time_point deadline) noexcept {
  const auto* const open = openPump.load(std::memory_order_acquire);
  if (open == nullptr) return true;  // Nothing was accepted.
  const auto& pump = *open;
  const auto& file = *pump->file();
  using Kind = SkeldaIntakeFile::Kind;
  if (!pump->isStarted()) {
    return file.waitingCount(Kind::event) + file.waitingCount(Kind::choice) == 0;
  }
  return skelda::guardedResult(false, [&] {
    // A signal that found no memory for its post is made up for.
    pump->signal();
    const platform::BlockingRegion region;
    return pump->file()->waitUntilSettled(deadline);
  });
}
