#include "Platform/Base/Log.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

namespace skelda::platform {
namespace {

/// Where lines go. Immutable but for its end; shared by the lines that are on their way.
struct Destination {
  enum class Kind { off, descriptor, syslog, sink };

  Kind kind = Kind::off;
  int descriptor = -1;
  bool ownsDescriptor = false;
  bool canRaiseSIGPIPE = false;
  Log::Sink sink;
  /// Outlives this; true when it has ended, under the lock of the state.
  const std::shared_ptr<bool> gone = std::make_shared<bool>(false);

  Destination() = default;
  Destination(const Destination&) = delete;
  Destination& operator=(const Destination&) = delete;
  ~Destination() {
    if (ownsDescriptor) ::close(descriptor);
  }
};

using DestinationRef = std::shared_ptr<const Destination>;

struct State {
  std::mutex lock;
  std::condition_variable released;
  DestinationRef destination;  ///< null until the first use
};

State& state() {
  // Never destroyed: lines are written until the last instant of the process.
  static auto* const instance = new State;
  return *instance;
}

enum class Readers { unknown, none, some };
std::atomic<Readers> readers{Readers::unknown};

thread_local bool threadIsInSink = false;

/// A destination whose end wakes who waits for it.
std::shared_ptr<Destination> makeDestination() {
  return {new Destination, [](Destination* destination) {
            const auto gone = destination->gone;
            delete destination;
            const std::lock_guard guard(state().lock);
            *gone = true;
            state().released.notify_all();
          }};
}

DestinationRef toDescriptor(int descriptor, bool owned) {
  auto destination = makeDestination();
  destination->kind = Destination::Kind::descriptor;
  destination->descriptor = descriptor;
  destination->ownsDescriptor = owned;
  struct stat status {};
  destination->canRaiseSIGPIPE =
      ::fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
  return destination;
}

DestinationRef fromEnvironment() {
  const char* const setting = std::getenv("SKELDA_LOG");
  const std::string_view name = setting != nullptr ? setting : "";
  if (name.empty() || name == "stderr") return toDescriptor(STDERR_FILENO, false);
  if (name == "off" || name == "syslog") {
    auto destination = makeDestination();
    if (name == "syslog") destination->kind = Destination::Kind::syslog;
    return destination;
  }
  const int descriptor =
      ::open(setting, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, S_IRUSR | S_IWUSR);
  // A log that cannot be opened must not take its lines along.
  return descriptor >= 0 ? toDescriptor(descriptor, true) : toDescriptor(STDERR_FILENO, false);
}

/// Puts `destination` in place and waits until nobody is inside the one before, unless the caller
/// is.
void install(DestinationRef destination) {
  State& shared = state();
  std::unique_lock guard(shared.lock);
  readers.store(destination->kind == Destination::Kind::off ? Readers::none : Readers::some,
                std::memory_order_relaxed);
  const auto gone = shared.destination != nullptr ? shared.destination->gone : nullptr;
  shared.destination.swap(destination);
  guard.unlock();
  destination.reset();
  if (threadIsInSink) return;
  guard.lock();
  shared.released.wait(guard, [&gone] { return gone == nullptr || *gone; });
}

DestinationRef currentDestination() {
  {
    const std::lock_guard guard(state().lock);
    if (state().destination != nullptr) return state().destination;
  }
  DestinationRef made = fromEnvironment();
  const std::lock_guard guard(state().lock);
  DestinationRef& current = state().destination;
  if (current == nullptr) {
    current = made;
    readers.store(made->kind == Destination::Kind::off ? Readers::none : Readers::some,
                  std::memory_order_relaxed);
  }
  return current;
}

/// Holds SIGPIPE back on this thread: a reader of the log that has gone away must not take the
/// host along.
class PipeSignalGuard {
 public:
  explicit PipeSignalGuard(bool active) : active_(active) {
    if (!active_) return;
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~PipeSignalGuard() {
    if (!active_) return;
    if (broken && !wasPending_) {
      const timespec atOnce{};
      while (sigtimedwait(&pipe_, nullptr, &atOnce) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  PipeSignalGuard(const PipeSignalGuard&) = delete;
  PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;

  bool broken = false;

 private:
  bool active_;
  bool wasPending_ = false;
  sigset_t pipe_{};
  sigset_t before_{};
};

/// One write for a line; more only where the system took a part of it. What still does not go out
/// is lost: there is nowhere left to say so.
void writeAll(const Destination& destination, std::string_view text) {
  constexpr int kPatienceMilliseconds = 100;
  PipeSignalGuard pipeSignal(destination.canRaiseSIGPIPE);
  while (!text.empty()) {
    const ssize_t written = ::write(destination.descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (errno == EINTR) continue;
    pollfd ready{destination.descriptor, POLLOUT, 0};
    if (errno == EAGAIN && ::poll(&ready, 1, kPatienceMilliseconds) > 0) continue;
    pipeSignal.broken = errno == EPIPE;
    return;
  }
}

bool isControl(std::string_view line, std::size_t at) {
  const auto byte = static_cast<unsigned char>(line[at]);
  if (byte < 0x20 || byte == 0x7F) return true;
  // U+0080 to U+009F, some of which end lines or steer terminals.
  return byte == 0xC2 && at + 1 < line.size() && static_cast<unsigned char>(line[at + 1]) < 0xA0;
}

/// The line with its control characters spelled out, so that one record stays one line.
void appendEscaped(std::string& out, std::string_view line) {
  for (std::size_t at = 0; at < line.size(); ++at) {
    const char c = line[at];
    if (!isControl(line, at)) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
      // The second byte of a two-byte control character goes with the first.
      if (static_cast<unsigned char>(c) == 0xC2)
        out += fmt::format("\\x{:02x}", static_cast<unsigned char>(line[++at]));
    }
  }
}

bool needsEscapes(std::string_view line) {
  for (std::size_t at = 0; at < line.size(); ++at)
    if (isControl(line, at)) return true;
  return false;
}

/// "2024-05-01T12:34:56.789Z [1234] "
void appendPrefix(std::string& out) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  // Not format_to(), which would bring the formatting of every kind of number into the library.
  out += fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z [{}] ", parts.tm_year + 1900,
                     parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                     now.tv_nsec / 1000000, ::getpid());
}

void deliver(const Destination& destination, std::string_view line) {
  std::string text;
  switch (destination.kind) {
    case Destination::Kind::off:
      return;
    case Destination::Kind::descriptor:
      text.reserve(line.size() + 48);
      appendPrefix(text);
      appendEscaped(text, line);
      text += '\n';
      return writeAll(destination, text);
    case Destination::Kind::syslog:
      appendEscaped(text, line);
      return ::syslog(LOG_USER | LOG_INFO, "[%d] %s", static_cast<int>(::getpid()), text.c_str());
    case Destination::Kind::sink:
      if (!needsEscapes(line)) return destination.sink(line);
      appendEscaped(text, line);
      return destination.sink(text);
  }
}

/// Marks the thread as being inside a sink, for as long as it lives.
struct SinkScope {
  SinkScope() { threadIsInSink = true; }
  ~SinkScope() { threadIsInSink = false; }
  SinkScope(const SinkScope&) = delete;
  SinkScope& operator=(const SinkScope&) = delete;
};

}  // namespace

bool Log::enabled() noexcept {
  Readers current = readers.load(std::memory_order_relaxed);
  if (current == Readers::unknown) {
    try {
      currentDestination();
    } catch (...) {
      return false;
    }
    current = readers.load(std::memory_order_relaxed);
  }
  return current == Readers::some;
}

void Log::setSink(Sink sink) noexcept {
  try {
    auto destination = makeDestination();
    if (sink) {
      destination->kind = Destination::Kind::sink;
      destination->sink = std::move(sink);
    }
    install(std::move(destination));
  } catch (...) {
    // Without memory the log stays as it was.
  }
}

void Log::resetSink() noexcept {
  try {
    install(fromEnvironment());
  } catch (...) {
    // Without memory the log stays as it was.
  }
}

void Log::write(std::string_view line) noexcept {
  // A line written from inside a sink would come back to the sink for ever.
  if (threadIsInSink || !enabled()) return;
  const SinkScope scope;
  const int savedErrno = errno;
  try {
    deliver(*currentDestination(), line);
  } catch (...) {
    // What a sink throws, and a want of memory, end with the line.
  }
  errno = savedErrno;
}

bool Log::insideSink() noexcept {
  return threadIsInSink;
}

}  // namespace skelda::platform
