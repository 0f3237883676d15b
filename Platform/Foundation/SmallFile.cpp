#include "Platform/Foundation/SmallFile.h"

#include <fcntl.h>

#include "Platform/Foundation/FileDescriptor.h"

namespace skelda::platform {

std::optional<std::string> readSmallFile(const std::string& path, std::size_t maximumBytes) {
  int error = 0;
  // Without O_NONBLOCK a pipe in the file's place would hold the caller for ever.
  const auto file = FileDescriptor::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, error);
  struct ::stat status;
  if (!file || file.status(status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  std::string content;
  // One byte more than allowed, to see that it is longer.
  if (file.read(content, maximumBytes + 1, 0) != 0 || content.size() > maximumBytes) {
    return std::nullopt;
  }
  return content;
}

}  // namespace skelda::platform
