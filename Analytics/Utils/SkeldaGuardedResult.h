#pragma once

#include <exception>
#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"

namespace skelda {

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
