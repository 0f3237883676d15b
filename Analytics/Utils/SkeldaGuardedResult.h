#pragma once

#include <exception>
#include <string>
#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Platform.h"

namespace skelda {

/// What was thrown, in words.
inline std::string reasonOf(const std::exception_ptr& thrown) {
  try {
    std::rethrow_exception(thrown);
  } catch (const platform::Exception& exception) {
    return std::string(exception.reason());
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "something that is no exception";
  }
}

/// The result of `operation`; what it throws is reported and becomes `failure`.
template <class Result, class Operation>
Result guardedResult(Result failure, Operation&& operation) noexcept {
  try {
    return std::forward<Operation>(operation)();
  } catch (...) {
    SkeldaUtil::handleException(std::current_exception());
    return failure;
  }
}

}  // namespace skelda
