#include "Analytics/Utils/SkeldaGuards.h"

#include <atomic>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Exception.h"

namespace skelda {

namespace {

constinit std::atomic<std::uint64_t> swallowed{0};

}  // namespace

std::string reasonOf(const std::exception_ptr& thrown) {
  try {
    std::rethrow_exception(thrown);
  } catch (const platform::Exception& exception) {
    return exception.reason();
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "something that is no exception";
  }
}

std::uint64_t swallowedExceptions() noexcept {
  return swallowed.load(std::memory_order_relaxed);
}

void countException() noexcept {
  swallowed.fetch_add(1, std::memory_order_relaxed);
}

std::string reportException() noexcept {
  countException();
  SkeldaUtil::handleException(std::current_exception());
  try {
    return reasonOf(std::current_exception());
  } catch (...) {  // want of memory for the text
    return {};
  }
}

}  // namespace skelda
