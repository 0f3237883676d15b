#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

#include "Platform/Base/Assertion.h"
#include "Platform/Platform.h"

/// The first line of what works on a queue that is no actor's own, as SKELDA_ON_QUEUE() is for what
/// works on an actor's.
#ifdef SKELDA_CHECK_QUEUES
#define SKELDA_ON_RAW_QUEUE(queue) \
  ((queue)->isCurrent() ? void() : platform::abortOnFailedAssertion(#queue " is current"))
#else
#define SKELDA_ON_RAW_QUEUE(queue) static_cast<void>(0)
#endif

// Where something that is thrown ends instead of reaching a host or a thread of the pool. Whatever
// ends in any of these guards is counted, in one counter.
namespace skelda {

/// How many thrown objects the guards have kept since the process began.
std::uint64_t swallowedExceptions() noexcept;

/// What was thrown, in words.
std::string reasonOf(const std::exception_ptr& thrown);

/// Counts what is being handled, without a word: for the block of an actor.
void countException() noexcept;
/// Counts and reports it (SkeldaUtil::handleException). Its text.
std::string reportException() noexcept;

/// The result of `operation`; what it throws becomes `failure`, once `caught` has had its text.
template <class Result, class Operation, class Caught>
Result guardedResult(Result failure, Operation&& operation, Caught&& caught) noexcept {
  try {
    return std::forward<Operation>(operation)();
  } catch (...) {
    caught(reportException());
    return failure;
  }
}
template <class Result, class Operation>
Result guardedResult(Result failure, Operation&& operation) noexcept {
  return guardedResult(std::move(failure), std::forward<Operation>(operation),
                       [](const std::string&) {});
}

/// What runs on a queue that is no actor's own: the block, which ends there with all it throws.
template <class F>
auto guarded(F&& block) {
  return [block = std::forward<F>(block)]() mutable noexcept {
    try {
      block();
    } catch (...) {
      reportException();
    }
  };
}

}  // namespace skelda
