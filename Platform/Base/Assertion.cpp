#include "Platform/Base/Assertion.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace skelda::platform {

void abortOnFailedAssertion(std::string_view condition) noexcept {
  // No memory is asked for on the way down, and the line goes out in one piece.
  iovec parts[] = {{const_cast<char*>("Assertion failed: "), 18},
                   {const_cast<char*>(condition.data()), condition.size()},
                   {const_cast<char*>("\n"), 1}};
  while (::writev(STDERR_FILENO, parts, 3) < 0 && errno == EINTR) {
  }
  std::abort();
}

}  // namespace skelda::platform
