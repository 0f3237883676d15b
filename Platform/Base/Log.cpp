#include "Platform/Base/Log.h"

#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "Platform/Base/LogDestination.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Base/Thread.h"

namespace skelda::platform {
namespace {

using namespace std::chrono_literals;
using Shows = LogDestination::Shows;
using DestinationRef = std::shared_ptr<LogDestination>;

/// What waits for its reader, in bytes.
constexpr std::size_t kRoom = 256 * 1024;
/// How long the log's thread outlives the last line that needed it.
constexpr std::chrono::seconds kLinger{5};
/// What exit() waits for lines that still go out, and for the next one of them.
constexpr std::chrono::seconds kLongestWaitAtExit{2};
constexpr std::chrono::milliseconds kPatienceAtExit{200};
constexpr std::chrono::seconds kPatienceWithSink{1};
constexpr const char* kSyslogSocket = "/dev/log";

/// What is shown, for enabled(): -1 while nobody asked yet.
constexpr int kUnknown = -1;
std::atomic<int> shown{kUnknown};
std::atomic<bool> valuesAreShown{false};
std::atomic<std::uint64_t> droppedInAll{0};
thread_local bool threadIsInSink = false;

struct Line {
  Log::Kind kind;
  timespec when;
  std::string text;
  bool isRest = false;  ///< of a line of which the beginning went out, with its prefix
};

std::size_t size(const Line& line) noexcept {
  return sizeof(Line) + line.text.size();
}

bool isShown(Log::Kind kind, Shows shows) noexcept {
  return shows >= (kind == Log::Kind::notice ? Shows::notices : Shows::everything);
}

/// False where the line is lost.
bool deliver(LogDestination& destination, const Line& line) noexcept {
  if (!isShown(line.kind, destination.shows())) return true;
  threadIsInSink = destination.isSink();
  bool wasTaken = true;
  try {
    wasTaken = destination.write(line.isRest ? line.text : destination.text(line.when, line.text));
  } catch (...) {
    // What a sink throws, and a want of memory, end with the line.
  }
  threadIsInSink = false;
  return wasTaken;
}

std::string_view variable(const char* name) noexcept {
  const char* const value = ::secure_getenv(name);
  return value != nullptr ? value : "";
}

/// The one log of the process.
class Lines {
 public:
  static Lines& shared() {
    static NeverDestroyed<Lines> lines;
    return *lines;
  }

  void prepare() EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (destination_ == nullptr) useEnvironment();
  }
  void say(std::string_view line, Log::Kind kind) EXCLUDES(mutex_);
  void install(DestinationRef destination) EXCLUDES(mutex_);
  void showDetails() EXCLUDES(mutex_);
  bool flush(std::chrono::steady_clock::time_point deadline) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return wait(lock, deadline);
  }

 private:
  void useEnvironment() REQUIRES(mutex_);
  void use(DestinationRef destination) REQUIRES(mutex_);
  void take(Line line) REQUIRES(mutex_);
  bool wasWrittenNow(Line& line) REQUIRES(mutex_);
  void keep(Line line) REQUIRES(mutex_);
  bool saidWhatWasDropped() REQUIRES(mutex_);
  void drop() REQUIRES(mutex_) {
    ++dropped_;
    droppedInAll.fetch_add(1, std::memory_order_relaxed);
  }
  void needThread() REQUIRES(mutex_);
  void run(std::uintptr_t turn) EXCLUDES(mutex_);
  Line takeFirst() REQUIRES(mutex_);
  void finishSink() EXCLUDES(mutex_);
  bool wait(MutexLock& lock, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex_);
  void finishOnExit() EXCLUDES(mutex_);

  Mutex mutex_;
  Condition work_;
  Condition delivered_;
  DestinationRef destination_ GUARDED_BY(mutex_);  ///< null until the first use
  std::list<Line> waiting_ GUARDED_BY(mutex_);
  std::size_t waitingBytes_ GUARDED_BY(mutex_) = 0;
  std::uint64_t dropped_ GUARDED_BY(mutex_) = 0;  ///< since it was said last
  std::uint64_t kept_ GUARDED_BY(mutex_) = 0;     ///< lines that ever waited
  std::uint64_t gone_ GUARDED_BY(mutex_) = 0;     ///< those of them that wait no more
  bool isDelivering_ GUARDED_BY(mutex_) = false;
  bool threadRuns_ GUARDED_BY(mutex_) = false;
  /// Whose turn it is: a thread that hangs in a place given up is left to itself.
  std::uintptr_t turn_ GUARDED_BY(mutex_) = 0;
  bool detailsAsked_ GUARDED_BY(mutex_) = false;
  bool isDefault_ GUARDED_BY(mutex_) = false;
  bool exitIsSeen_ GUARDED_BY(mutex_) = false;
};

// -- Where lines go

void Lines::use(DestinationRef destination) {
  destination_ = std::move(destination);
  shown.store(static_cast<int>(destination_->shows()), std::memory_order_relaxed);
}

void Lines::useEnvironment() {
  valuesAreShown.store(variable("SKELDA_LOG_VALUES") == "1", std::memory_order_relaxed);
  const std::string setting(variable("SKELDA_LOG"));
  isDefault_ = setting.empty();
  if (isDefault_) {
    const Shows shows = detailsAsked_ ? Shows::everything : Shows::notices;
    return use(LogDestination::toStandardError(shows));
  }
  if (setting == "off") return use(LogDestination::off());
  if (setting == "syslog") return use(LogDestination::toSyslog(kSyslogSocket));
  DestinationRef file = setting != "stderr" ? LogDestination::toFile(setting) : nullptr;
  if (file != nullptr) return use(std::move(file));
  const std::string reason = std::generic_category().message(errno);
  use(LogDestination::toStandardError(Shows::everything));
  // A log that cannot be opened does not take its lines along.
  if (setting != "stderr") {
    take({Log::Kind::notice,
          {},
          fmt::format("Skelda: SKELDA_LOG: {}: {}: lines go to standard error", setting, reason)});
  }
}

void Lines::install(DestinationRef destination) {
  if (!threadIsInSink) finishSink();
  DestinationRef old;  // destroyed outside the lock: a sink's captures may call back in here
  MutexLock lock(mutex_);
  old = destination_;
  isDefault_ = false;
  if (destination != nullptr) {
    use(std::move(destination));
  } else {
    useEnvironment();
  }
  // What was said to whom is gone is said to nobody, nor how much of it was dropped.
  const bool isOff = destination_->shows() == Shows::nothing;
  if (isOff) dropped_ = 0;
  while (!waiting_.empty() && (isOff || waiting_.front().isRest)) {
    takeFirst();
    ++gone_;
  }
  delivered_.notifyAll();
  if (!isDelivering_ || old == nullptr) return;
  if (old->isSink()) {
    const std::uint64_t before = gone_;
    while (!threadIsInSink && gone_ == before) delivered_.wait(lock);
    return;
  }
  // Its thread may hang there for ever.
  ++turn_;
  ++gone_;
  isDelivering_ = threadRuns_ = false;
  if (!waiting_.empty()) needThread();
}

/// What was said before a sink is replaced was said to it.
void Lines::finishSink() {
  MutexLock lock(mutex_);
  if (destination_ == nullptr || !destination_->isSink()) return;
  wait(lock, std::chrono::steady_clock::now() + kPatienceWithSink);
}

void Lines::showDetails() {
  const MutexLock lock(mutex_);
  detailsAsked_ = true;
  if (destination_ == nullptr || isDefault_) useEnvironment();
}

// -- Saying a line

void Lines::say(std::string_view line, Log::Kind kind) {
  const MutexLock lock(mutex_);
  if (destination_ == nullptr) useEnvironment();
  // Where lines are missing stands their number, not the next line.
  if (dropped_ > 0 && !saidWhatWasDropped()) return drop();
  take({kind, {}, std::string(line)});
}

void Lines::take(Line line) {
  if (!isShown(line.kind, destination_->shows())) return;
  clock_gettime(CLOCK_REALTIME, &line.when);
  if (waiting_.empty() && !isDelivering_ && wasWrittenNow(line)) return;
  keep(std::move(line));
}

bool Lines::wasWrittenNow(Line& line) {
  if (destination_->isSink()) return false;
  const std::string text = destination_->text(line.when, line.text);
  std::string_view rest(text);
  const auto result = destination_->writeNow(rest);
  if (result == LogDestination::Result::lost) drop();
  if (result != LogDestination::Result::wouldWait) return true;
  line.isRest = rest.size() < text.size();
  if (line.isRest) line.text = rest;
  return false;
}

void Lines::keep(Line line) {
  if (!waiting_.empty() && waitingBytes_ + size(line) > kRoom) return drop();
  waitingBytes_ += size(line);
  waiting_.push_back(std::move(line));
  ++kept_;
  needThread();
}

bool Lines::saidWhatWasDropped() {
  if (waitingBytes_ > kRoom / 2) return false;
  const std::uint64_t before = std::exchange(dropped_, 0);
  take({Log::Kind::notice,
        {},
        fmt::format("Skelda: {} lines of the log were dropped, since nobody took them", before)});
  if (dropped_ == 0) return true;
  // Nobody takes this one either: the number is not lost with it.
  dropped_ = before;
  droppedInAll.fetch_sub(1, std::memory_order_relaxed);
  return false;
}

void Lines::needThread() {
  if (threadRuns_) return work_.notifyOne();
  if (!exitIsSeen_) exitIsSeen_ = std::atexit([] { shared().finishOnExit(); }) == 0;
  // Without one the lines wait: the next that is said asks again.
  threadRuns_ = startThread(
      "skelda-log", [](void* turn) { shared().run(reinterpret_cast<std::uintptr_t>(turn)); },
      reinterpret_cast<void*>(turn_));
}

// -- The log's own thread

void Lines::run(std::uintptr_t turn) {
  MutexLock lock(mutex_);
  for (;;) {
    const auto end = std::chrono::steady_clock::now() + kLinger;
    bool inTime = true;
    while (waiting_.empty() && inTime && turn == turn_) inTime = work_.waitUntil(lock, end);
    if (turn != turn_) return;
    if (waiting_.empty()) break;
    const Line line = takeFirst();
    DestinationRef destination = destination_;
    isDelivering_ = true;
    lock.unlock();
    const bool wasTaken = deliver(*destination, line);
    destination.reset();
    lock.lock();
    if (turn != turn_) return;
    isDelivering_ = false;
    ++gone_;
    if (!wasTaken) drop();
    delivered_.notifyAll();
  }
  threadRuns_ = false;
}

Line Lines::takeFirst() {
  Line line = std::move(waiting_.front());
  waiting_.pop_front();
  waitingBytes_ -= size(line);
  return line;
}

bool Lines::wait(MutexLock& lock, std::chrono::steady_clock::time_point deadline) {
  const std::uint64_t said = kept_;
  bool inTime = true;
  while (gone_ < said && inTime) inTime = delivered_.waitUntil(lock, deadline);
  return gone_ >= said;
}

/// What can still go out goes out, as long as its reader takes it. After that no sink is called any
/// more: what it refers to is about to be destroyed.
void Lines::finishOnExit() {
  if (threadIsInSink) return;
  const auto end = std::chrono::steady_clock::now() + kLongestWaitAtExit;
  DestinationRef old;  // destroyed outside the lock
  MutexLock lock(mutex_);
  for (std::uint64_t before = gone_ - 1; gone_ < kept_ && gone_ != before;) {
    before = gone_;
    const auto now = std::chrono::steady_clock::now();
    if (now >= end) break;
    wait(lock, std::min(end, now + kPatienceAtExit));
  }
  old = destination_;
  if (old != nullptr && old->isSink()) use(LogDestination::off());
}

}  // namespace

bool Log::enabled(Kind kind) noexcept {
  int current = shown.load(std::memory_order_relaxed);
  if (current == kUnknown) {
    try {
      Lines::shared().prepare();
    } catch (...) {
      return false;
    }
    current = shown.load(std::memory_order_relaxed);
  }
  return isShown(kind, static_cast<Shows>(current));
}

bool Log::showsValues() noexcept {
  enabled();
  return valuesAreShown.load(std::memory_order_relaxed);
}

void Log::setSink(Sink sink) noexcept {
  try {
    Lines::shared().install(sink ? LogDestination::toSink(std::move(sink)) : LogDestination::off());
  } catch (...) {
    // Without memory the log stays as it was.
  }
}

void Log::resetSink() noexcept {
  try {
    Lines::shared().install(nullptr);
  } catch (...) {
    // Without memory the log stays as it was.
  }
}

void Log::showDetails() noexcept {
  try {
    Lines::shared().showDetails();
  } catch (...) {
    // Without memory the log stays as it was.
  }
}

void Log::write(std::string_view line, Kind kind) noexcept {
  // A line written from inside a sink would come back to the sink for ever.
  if (threadIsInSink || !enabled(kind)) return;
  const int savedErrno = errno;
  try {
    Lines::shared().say(line, kind);
  } catch (...) {
    droppedInAll.fetch_add(1, std::memory_order_relaxed);
  }
  errno = savedErrno;
}

bool Log::flush(std::chrono::milliseconds longest) noexcept {
  if (threadIsInSink) return false;
  return Lines::shared().flush(std::chrono::steady_clock::now() + longest);
}

std::uint64_t Log::droppedLines() noexcept {
  return droppedInAll.load(std::memory_order_relaxed);
}

bool Log::insideSink() noexcept {
  return threadIsInSink;
}

}  // namespace skelda::platform
