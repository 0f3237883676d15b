#include "Platform/Foundation/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace skelda::platform {
namespace {

std::optional<std::string> readAll(int descriptor, std::size_t maximumBytes) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  // One byte more than allowed, to see a file that is longer than it said.
  std::string content(maximumBytes + 1, '\0');
  std::size_t length = 0;
  while (length < content.size()) {
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
