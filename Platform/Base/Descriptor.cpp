#include "Platform/Base/Descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace skelda::platform {

int aboveStandardDescriptors(int descriptor) noexcept {
  if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
  const int above = ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  ::close(descriptor);
  errno = error;
  return above;
}

}  // namespace skelda::platform
