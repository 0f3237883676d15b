#include "Platform/Foundation/URLSessionEngine.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <thread>
#include <utility>

#include "Platform/Base/Descriptor.h"
#include "Platform/Base/LogFormat.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Base/Thread.h"
#include "Platform/Foundation/LibraryPages.h"
#include "Platform/Foundation/URLSessionTransfer.h"

namespace skelda::platform {

namespace {

/// How long the thread and its connections outlive the last transfer.
constexpr std::chrono::seconds kLinger{5};
constexpr std::chrono::seconds kLongestWaitAtExit{2};
/// Only where the thread cannot be woken, for want of descriptors.
constexpr std::chrono::milliseconds kPollWithoutWakeup{100};
constexpr std::chrono::milliseconds kMemoryPatience{10};
constexpr long kKeptConnections = 16;

}  // namespace

URLSessionEngine& URLSessionEngine::shared() {
  static NeverDestroyed<URLSessionEngine> engine([] { return URLSessionEngine(); });
  return *engine;
}

// -- Any thread

void URLSessionEngine::start(URLSessionTaskRef task) {
  submit({Command::Kind::start, std::move(task), std::nullopt});
}

void URLSessionEngine::cancel(URLSessionTaskRef task) {
  submit({Command::Kind::cancel, std::move(task), std::nullopt});
}

void URLSessionEngine::decideRedirect(URLSessionTaskRef task, std::optional<URLRequest> request) {
  submit({Command::Kind::redirect, std::move(task), std::move(request)});
}

void URLSessionEngine::submit(Command command) {
  MutexLock lock(mutex_);
  if (resting_ || (!threadRuns_ && command.kind != Command::Kind::start)) return;
  commands_.push_back(std::move(command));
  if (!threadRuns_) return startThread();
  if (waits_) {
    lock.unlock();  // whoever is woken wants it
    changed_.notifyOne();
  } else if (wakeable_ != nullptr) {
    curl_multi_wakeup(wakeable_);
  }
}

void URLSessionEngine::startThread() {
  static const bool registered = std::atexit(&restOnExit) == 0;
  static_cast<void>(registered);
  threadRuns_ = skelda::platform::startThread(
      "skelda.network", [](void* engine) { static_cast<URLSessionEngine*>(engine)->run(); }, this);
  if (threadRuns_) return;
  SKELDA_PLATFORM_LOG("URLSession: the system has no thread for the network");
  failEverything("no network thread");
}

void URLSessionEngine::restOnExit() {
  auto& engine = shared();
  const auto patience = std::chrono::steady_clock::now() + kLongestWaitAtExit;
  MutexLock lock(engine.mutex_);
  engine.resting_ = true;
  if (!engine.threadRuns_) return;
  engine.changed_.notifyAll();
  if (engine.wakeable_ != nullptr) curl_multi_wakeup(engine.wakeable_);
  while (!engine.atRest_ && engine.changed_.waitUntil(lock, patience)) {
  }
}

// -- The network thread

void URLSessionEngine::run() {
  if (!setUp()) {
    const MutexLock lock(mutex_);
    return failEverything("no network library");
  }
  for (;;) {
    try {
      if (!step()) return;
    } catch (const std::bad_alloc&) {
      // A command that was not carried out stands yet; a transfer that could not be ended times
      // out.
      Log::write("platform::URLSession: a step is tried again for want of memory");
      std::this_thread::sleep_for(kMemoryPatience);
    }
  }
}

/// False when the thread is to end.
bool URLSessionEngine::step() {
  runCommands();
  if (transfers_.empty()) return waitForCommands();
  int running = 0;
  curl_multi_perform(multi_, &running);
  collectFinished();
  expire();
  startWhatWaited();
  if (!transfers_.empty()) poll();
  return true;
}

bool URLSessionEngine::setUp() {
  static const bool ready = [] {
    const bool initialised = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    // After the TLS library's own handler, so that the thread rests before that one runs.
    std::atexit(&restOnExit);
    return initialised;
  }();
  const StandardDescriptorsHeld held;  // the library keeps a pair to be woken by
  auto* multi = ready ? curl_multi_init() : nullptr;
  if (multi == nullptr) return false;
  multi_ = multi;
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
  curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, kKeptConnections);
  canBeWoken_ = curl_multi_wakeup(multi) == CURLM_OK;
  share_ = curl_share_init();  // null shares nothing; no lock, since one thread uses it
  curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  const MutexLock lock(mutex_);
  wakeable_ = multi;
  return true;
}

void URLSessionEngine::runCommands() {
  std::list<Command> commands;
  {
    MutexLock lock(mutex_);
    if (resting_) {
      lock.unlock();
      restForever();
    }
    commands.swap(commands_);
  }
  try {
    for (; !commands.empty(); commands.pop_front()) runCommand(commands.front());
  } catch (const std::bad_alloc&) {
    const MutexLock lock(mutex_);
    commands_.splice(commands_.begin(), commands);
    throw;
  }
}

void URLSessionEngine::runCommand(const Command& command) {
  if (command.kind == Command::Kind::start) return startTransfer(command.task);
  const auto found = transfers_.find(command.task.get());
  if (found == transfers_.end()) return;
  auto& transfer = *found->second;
  if (command.kind == Command::Kind::cancel) {
    complete(transfer, urlError(kURLErrorCancelled));
  } else if (transfer.awaitsDecision()) {
    transfer.setAwaitsDecision(false);
    try {
      goOn(transfer, command.request);
    } catch (const std::bad_alloc&) {
      transfer.setAwaitsDecision(true);
      throw;
    }
  }
}

/// With nothing to do: false when the thread is to end, with all it held let go.
bool URLSessionEngine::waitForCommands() {
  const auto end = std::chrono::steady_clock::now() + kLinger;
  MutexLock lock(mutex_);
  bool inTime = true;
  waits_ = true;
  while (commands_.empty() && !resting_ && inTime) inTime = changed_.waitUntil(lock, end);
  waits_ = false;
  if (!commands_.empty() || resting_) return true;
  wakeable_ = nullptr;
  auto* multi = std::exchange(multi_, nullptr);
  auto* share = std::exchange(share_, nullptr);
  threadRuns_ = false;
  lock.unlock();  // from here on a new thread may be at work
  curl_multi_cleanup(multi);
  curl_share_cleanup(share);
  giveBackLibraryPages();
  return false;
}

void URLSessionEngine::startTransfer(const URLSessionTaskRef& task) {
  const auto session = task->session();
  if (session == nullptr) return;
  auto transfer = std::make_unique<URLSessionTransfer>(task, session->configuration());
  auto& placed = *(transfers_[task.get()] = std::move(transfer));
  if (task->isCancelled()) return complete(placed, urlError(kURLErrorCancelled));
  goOn(placed, task->originalRequest());
}

void URLSessionEngine::goOn(URLSessionTransfer& transfer, std::optional<URLRequest> request) {
  if (!request) return complete(transfer, nullptr);
  if (auto error = transfer.prepare(std::move(*request), share_)) {
    return complete(transfer, std::move(error));
  }
  if (transfer.start() <= URLSessionTransfer::Clock::now()) putOnWire(transfer);
}

void URLSessionEngine::putOnWire(URLSessionTransfer& transfer) {
  if (curl_multi_add_handle(multi_, transfer.handle()) != CURLM_OK) {
    return complete(transfer, urlError(kURLErrorUnknown, "out of memory"));
  }
  transfer.setOnWire(true);
}

void URLSessionEngine::collectFinished() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const int result = message->data.result;
    void* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    didFinish(*static_cast<URLSessionTransfer*>(transfer), result);
  }
}

void URLSessionEngine::didFinish(URLSessionTransfer& transfer, int result) {
  curl_multi_remove_handle(multi_, transfer.handle());
  transfer.setOnWire(false);
  auto error = transfer.errorFor(result);
  if (error == nullptr) {
    if (auto proposed = transfer.proposedRedirect()) {
      transfer.setAwaitsDecision(true);
      return proposeRedirect(transfer, std::move(*proposed));
    }
  }
  complete(transfer, std::move(error));
}

void URLSessionEngine::proposeRedirect(URLSessionTransfer& transfer, URLRequest proposed) {
  const auto task = transfer.task();
  const auto session = task->session();
  session->delegateQueue()->async(
      [session, task, response = transfer.response(), proposed = std::move(proposed)]() mutable {
        const auto delegate = session->delegate();
        if (delegate == nullptr) return shared().decideRedirect(task, std::nullopt);
        delegate->willPerformHTTPRedirection(*session, *task, *response, std::move(proposed),
                                             [task](std::optional<URLRequest> request) {
                                               shared().decideRedirect(task, std::move(request));
                                             });
      });
}

void URLSessionEngine::expire() {
  const auto now = URLSessionTransfer::Clock::now();
  std::vector<URLSessionTransfer*> late;
  for (const auto& [task, transfer] : transfers_) {
    if (transfer->deadline() <= now) late.push_back(transfer.get());
  }
  for (auto* transfer : late) complete(*transfer, urlError(kURLErrorTimedOut));
}

void URLSessionEngine::startWhatWaited() {
  const auto now = URLSessionTransfer::Clock::now();
  std::vector<URLSessionTransfer*> due;
  for (const auto& [task, transfer] : transfers_) {
    if (transfer->waits() && transfer->start() <= now) due.push_back(transfer.get());
  }
  for (auto* transfer : due) putOnWire(*transfer);
}

void URLSessionEngine::poll() {
  auto earliest = URLSessionTransfer::Clock::time_point::max();
  for (const auto& [task, transfer] : transfers_) {
    earliest = std::min(earliest, transfer->deadline());
    if (transfer->waits()) earliest = std::min(earliest, transfer->start());
  }
  auto wait =
      std::chrono::ceil<std::chrono::milliseconds>(earliest - URLSessionTransfer::Clock::now());
  if (!canBeWoken_) wait = std::min(wait, kPollWithoutWakeup);
  wait = std::clamp(wait, std::chrono::milliseconds(0),
                    std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::hours(1)));
  curl_multi_poll(multi_, nullptr, 0, static_cast<int>(wait.count()), nullptr);
}

void URLSessionEngine::complete(URLSessionTransfer& transfer, ErrorRef error) {
  if (transfer.isOnWire()) curl_multi_remove_handle(multi_, transfer.handle());
  const auto task = transfer.task();
  task->complete(transfer.response(), transfer.takeBody(), std::move(error));
  transfers_.erase(task.get());
}

void URLSessionEngine::failEverything(std::string_view reason) {
  for (auto& command : std::exchange(commands_, {})) {
    command.task->complete(nullptr, {}, urlError(kURLErrorUnknown, reason));
  }
  threadRuns_ = false;
}

void URLSessionEngine::restForever() {
  {
    const MutexLock lock(mutex_);
    atRest_ = true;
    changed_.notifyAll();
  }
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

}  // namespace skelda::platform
