#include "Tools/skelda-frames/Output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace skelda::tools {
namespace {

constexpr std::size_t kBufferLength = std::size_t{64} << 10;

}  // namespace

void Output::write(std::string_view text) {
  if (failed()) return;
  buffer_.append(text);
  if (buffer_.size() >= kBufferLength) flush();
}

void Output::flush() {
  std::string_view left = buffer_;
  while (!left.empty() && !failed()) {
    const ssize_t written = ::write(STDOUT_FILENO, left.data(), left.size());
    if (written > 0) {
      left.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      // Whoever shares the terminal or the pipe may have made it non-blocking.
      pollfd writable{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  buffer_.clear();
}

}  // namespace skelda::tools
