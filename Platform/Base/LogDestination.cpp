#include "Platform/Base/LogDestination.h"

#include <errno.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <utility>

#include "Platform/Base/Counted.h"
#include "Platform/Base/Descriptor.h"
#include "Platform/Base/LogText.h"

namespace skelda::platform {
namespace {

using Result = LogDestination::Result;

/// Holds SIGPIPE back on this thread: a reader of the log that has gone away must not take the
/// host along.
class PipeSignalGuard {
 public:
  PipeSignalGuard() {
    sigset_t pending;
    sigpending(&pending);
    wasPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~PipeSignalGuard() {
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
  bool wasPending_ = false;
  sigset_t pipe_{};
  sigset_t before_{};
};

/// Writes until all is out or the descriptor takes no more; waits only where the descriptor does.
Result writeOut(int descriptor, std::string_view& text, bool isSocket, int socketFlags) {
  while (!text.empty()) {
    const ssize_t written =
        isSocket ? ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL | socketFlags)
                 : ::write(descriptor, text.data(), text.size());
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      return errno == EAGAIN ? Result::wouldWait : Result::lost;
    }
  }
  return Result::written;
}

Result writeOutToPipe(int descriptor, std::string_view& text) {
  PipeSignalGuard guard;
  const Result result = writeOut(descriptor, text, false, 0);
  guard.broken = result == Result::lost && errno == EPIPE;
  return result;
}

/// A pipe or a terminal, which others hold open as well and expect to wait: that it does not wait
/// for us is said of an opening of our own.
Result writeOutByOwnOpening(int descriptor, std::string_view& text) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK) != 0) return writeOutToPipe(descriptor, text);
  const std::string path = fmt::format("/proc/self/fd/{}", descriptor);
  const int own = aboveStandardDescriptors(
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (own < 0) return errno == ENXIO ? Result::lost : Result::wouldWait;
  const Result result = writeOutToPipe(own, text);
  ::close(own);
  return result;
}

class Nowhere : public LogDestination {
 public:
  Shows shows() const noexcept override { return Shows::nothing; }
  std::string text(const timespec&, std::string_view) const override { return {}; }
  Result writeNow(std::string_view&) override { return Result::lost; }
  bool write(std::string_view) override { return false; }
};

class ToSink : public LogDestination {
 public:
  explicit ToSink(Log::Sink sink) : sink_(std::move(sink)) {}
  bool isSink() const noexcept override { return true; }
  std::string text(const timespec&, std::string_view line) const override {
    return escapedLogLine(line);
  }
  Result writeNow(std::string_view&) override { return Result::wouldWait; }
  bool write(std::string_view text) override {
    sink_(text);
    return true;
  }

 private:
  const Log::Sink sink_;
};

class ToDescriptor : public LogDestination {
 public:
  ToDescriptor(int descriptor, bool isOwn, Shows shows)
      : descriptor_(descriptor), isOwn_(isOwn), shows_(shows) {}
  ~ToDescriptor() {
    if (isOwn_) ::close(descriptor_);
  }
  Shows shows() const noexcept override { return shows_; }
  std::string text(const timespec& when, std::string_view line) const override {
    return prefixedLogLine(when, line);
  }
  Result writeNow(std::string_view& text) override {
    // Asked every time: standard error is what the host has there at this moment.
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0) return Result::lost;
    if (S_ISREG(status.st_mode)) return writeOut(descriptor_, text, false, 0);
    if (S_ISSOCK(status.st_mode)) return writeOut(descriptor_, text, true, MSG_DONTWAIT);
    // An own one was opened so that it does not wait.
    return isOwn_ ? writeOutToPipe(descriptor_, text) : writeOutByOwnOpening(descriptor_, text);
  }
  bool write(std::string_view text) override {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0) return false;
    for (;;) {
      const Result result = S_ISSOCK(status.st_mode) ? writeOut(descriptor_, text, true, 0)
                                                     : writeOutToPipe(descriptor_, text);
      if (result != Result::wouldWait) return result == Result::written;
      pollfd ready{descriptor_, POLLOUT, 0};
      if (::poll(&ready, 1, -1) < 0 && errno != EINTR) return false;
    }
  }

 private:
  const int descriptor_;
  const bool isOwn_;
  const Shows shows_;
};

/// Speaks to the system's log itself: the C library's way would take the lowest descriptor there
/// is, and the host's own settings of it with it.
class ToSyslog : public LogDestination {
 public:
  explicit ToSyslog(std::string path) : path_(std::move(path)) {}
  ~ToSyslog() { disconnect(); }
  std::string text(const timespec&, std::string_view line) const override {
    constexpr int kUserInformation = (1 << 3) | 6;
    return fmt::format("<{}>{}[{}]: {}", kUserInformation, program_invocation_short_name,
                       ::getpid(), escapedLogLine(line));
  }
  Result writeNow(std::string_view& text) override { return send(text, MSG_DONTWAIT); }
  bool write(std::string_view text) override { return send(text, 0) == Result::written; }

 private:
  Result send(std::string_view& text, int flags) {
    const bool wasConnected = socket_ >= 0;
    if (!wasConnected && !connect()) return Result::lost;
    const Result result = writeOut(socket_, text, true, flags);
    if (result != Result::lost) return result;
    disconnect();
    // Its reader may have been started anew since the last line.
    return wasConnected ? send(text, flags) : result;
  }
  bool connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) return false;
    path_.copy(address.sun_path, path_.size());
    socket_ = aboveStandardDescriptors(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket_ < 0) return false;
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return true;
    disconnect();
    return false;
  }
  void disconnect() {
    if (socket_ >= 0) ::close(std::exchange(socket_, -1));
  }

  const std::string path_;
  int socket_ = -1;
};

}  // namespace

std::shared_ptr<LogDestination> LogDestination::off() {
  return makeCounted<Nowhere>();
}

std::shared_ptr<LogDestination> LogDestination::toSink(Log::Sink sink) {
  return makeCounted<ToSink>(std::move(sink));
}

std::shared_ptr<LogDestination> LogDestination::toStandardError(Shows shows) {
  return makeCounted<ToDescriptor>(STDERR_FILENO, false, shows);
}

std::shared_ptr<LogDestination> LogDestination::toFile(const std::string& path) {
  const int descriptor = aboveStandardDescriptors(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC | O_NOCTTY,
             S_IRUSR | S_IWUSR));
  if (descriptor < 0) return nullptr;
  return makeCounted<ToDescriptor>(descriptor, true, Shows::everything);
}

std::shared_ptr<LogDestination> LogDestination::toSyslog(std::string socketPath) {
  return makeCounted<ToSyslog>(std::move(socketPath));
}

}  // namespace skelda::platform
