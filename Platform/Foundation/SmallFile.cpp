#include "Platform/Foundation/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace skelda::platform {
namespace {

std::optional<std::string> readAll(int descriptor, std::size_t maximumBytes) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  // One byte more than it says, and at most one more than allowed, to see that it is longer.
  const auto most = maximumBytes + 1;
  std::string content(std::min(most, static_cast<std::size_t>(status.st_size) + 1), '\0');
  std::size_t length = 0;
  while (length < most) {
    if (length == content.size()) content.resize(std::min(most, 2 * length + 4096));
    const ssize_t count = ::read(descriptor, content.data() + length, content.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  if (length > maximumBytes) return std::nullopt;
  content.resize(length);
  return content;
}

}  // namespace

std::optional<std::string> readSmallFile(const std::string& path, std::size_t maximumBytes) {
  // Without O_NONBLOCK a pipe in the file's place would hold the caller for ever.
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (descriptor < 0) return std::nullopt;
  std::optional<std::string> content = readAll(descriptor, maximumBytes);
  ::close(descriptor);
  return content;
}

}  // namespace skelda::platform
