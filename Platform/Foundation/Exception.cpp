#include "Platform/Foundation/Exception.h"

namespace skelda::platform {

Exception::Exception(std::string_view name, std::string_view reason, Value userInfo)
    : name_(name), reason_(reason), userInfo_(std::move(userInfo)), what_(name_ + ": " + reason_) {}

const char* Exception::what() const noexcept {
  return what_.c_str();
}

void assertionFailure(std::string_view reason) {
  throw Exception(kInternalInconsistencyException, reason);
}

}  // namespace skelda::platform
