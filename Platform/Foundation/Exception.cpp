#include "Platform/Foundation/Exception.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace skelda::platform {

Exception::Exception(std::string_view name, std::string_view reason, Value userInfo)
    : name_(name), reason_(reason), userInfo_(std::move(userInfo)), what_(name_ + ": " + reason_) {}

const char* Exception::what() const noexcept {
  return what_.c_str();
}

void assertionFailure(std::string_view reason) {
  throw Exception(kInternalInconsistencyException, reason);
}

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
