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

StandardDescriptorsHeld::StandardDescriptorsHeld() noexcept {
  for (;;) {
    // Nothing can be read from it or written to it: as if it were closed still.
    const int lowest = ::open("/", O_PATH | O_CLOEXEC);
    if (lowest < 0) return;
    if (lowest > STDERR_FILENO) {
      ::close(lowest);
      return;
    }
    isHeld_[lowest] = true;
  }
}

StandardDescriptorsHeld::~StandardDescriptorsHeld() {
  for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor)
    if (isHeld_[descriptor]) ::close(descriptor);
}

}  // namespace skelda::platform
