#include "Analytics/Intake/Account/SkeldaAccounting.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <utility>

#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"

namespace {

using Counter = SkeldaAccountPage::Counter;
constexpr std::size_t kCounterCount = sizeof(SkeldaAccountPage) / sizeof(Counter);

/// What is counted before there is a file, and in a forked child for good.
alignas(64) constinit SkeldaAccountPage memory{};
constinit std::atomic<bool> memoryWasAskedFor{false};
constinit std::atomic<SkeldaIntakeFile*> current{nullptr};

struct Owned {
  platform::Mutex mutex;
  std::shared_ptr<SkeldaIntakeFile> file GUARDED_BY(mutex);
  /// Another thread may be counting in it still.
  std::shared_ptr<SkeldaIntakeFile> previous GUARDED_BY(mutex);
  std::array<char, SkeldaIntakeFile::kLongestServer> server GUARDED_BY(mutex){};
  std::size_t serverLength GUARDED_BY(mutex) = 0;

  void noteServer() noexcept REQUIRES(mutex) {
    if (file) file->setServer(std::string_view(server.data(), serverLength));
  }
};

Owned& owned() {
  static platform::NeverDestroyed<Owned> shared;
  return *shared;
}

bool isLast(const Counter& counter) {
  return &counter == &memory.lastAnswer || &counter == &memory.lastAnswerTime;
}

/// Moves what was counted in memory. A thread that had asked for the page before there was a file
/// may count there even later: so this is done again whenever the page is asked for.
void moveInto(SkeldaAccountPage& page) noexcept {
  auto* from = reinterpret_cast<Counter*>(&memory);
  auto* to = reinterpret_cast<Counter*>(&page);
  for (std::size_t i = 0; i < kCounterCount; ++i) {
    if (from[i].load(std::memory_order_relaxed) == 0) continue;
    const std::uint64_t count = from[i].exchange(0, std::memory_order_relaxed);
    if (isLast(from[i])) {
      to[i].store(count, std::memory_order_relaxed);
    } else {
      to[i].fetch_add(count, std::memory_order_relaxed);
    }
  }
}

}  // namespace

void SkeldaAccounting::setFile(std::shared_ptr<SkeldaIntakeFile> file) {
  // A child has no part in the file: it is not even mapped there.
  static const int atFork =
      ::pthread_atfork(nullptr, nullptr, [] { current.store(nullptr, std::memory_order_relaxed); });
  static_cast<void>(atFork);
  Owned& shared = owned();
  const platform::MutexLock lock(shared.mutex);
  shared.previous = std::exchange(shared.file, std::move(file));
  current.store(shared.file.get(), std::memory_order_release);
  if (shared.file) moveInto(shared.file->page());
  shared.noteServer();
}

void SkeldaAccounting::noteServer(std::string_view address) noexcept {
  Owned& shared = owned();
  const platform::MutexLock lock(shared.mutex);
  shared.serverLength = address.copy(shared.server.data(), shared.server.size());
  shared.noteServer();
}

SkeldaAccountPage& SkeldaAccounting::page() noexcept {
  SkeldaIntakeFile* file = current.load(std::memory_order_acquire);
  if (file == nullptr) {
    memoryWasAskedFor.store(true, std::memory_order_relaxed);
    return memory;
  }
  if (memoryWasAskedFor.load(std::memory_order_relaxed)) moveInto(file->page());
  return file->page();
}

std::uint64_t SkeldaAccounting::raise(Counter& come, std::uint64_t thereOrGone) noexcept {
  const std::uint64_t counted = come.load(std::memory_order_relaxed);
  if (counted > thereOrGone) return counted - thereOrGone;
  come.store(thereOrGone, std::memory_order_relaxed);
  return 0;
}

void SkeldaAccounting::refused(SkeldaRefusal reason) noexcept {
  add(page().refused[static_cast<std::size_t>(reason)]);
}

void SkeldaAccounting::logRemoved(SkeldaLogRemoval reason, std::uint64_t count) noexcept {
  add(page().logsRemoved[static_cast<std::size_t>(reason)], count);
}

void SkeldaAccounting::blockRemoved(SkeldaBlockRemoval reason, std::uint64_t count) noexcept {
  add(page().blocksRemoved[static_cast<std::size_t>(reason)], count);
}

void SkeldaAccounting::settle(SkeldaIntakeTicket ticket, SkeldaIntakeOutcome outcome) noexcept {
  if (ticket == kSkeldaNoTicket) return;
  if (SkeldaIntakeFile* file = current.load(std::memory_order_acquire)) {
    file->settle(ticket, outcome);
  }
}
