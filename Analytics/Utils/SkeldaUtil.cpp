#include "Analytics/Utils/SkeldaUtil.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/MainQueue.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Kernel/Kernel.h"

namespace {

constexpr std::string_view kDashes = "Skelda: -----------------------------------------";

/// The name of an exception: its own, or that of its class.
std::string nameOf(const std::exception& exception) {
  if (const auto* platformException = dynamic_cast<const platform::Exception*>(&exception)) {
    return platformException->name();
  }
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(
      abi::__cxa_demangle(typeid(exception).name(), nullptr, nullptr, &status), &std::free);
  return status == 0 ? name.get() : typeid(exception).name();
}

struct Counters {
  platform::Mutex mutex;
  std::map<std::string, std::int64_t, std::less<>> values GUARDED_BY(mutex);
};

Counters& counters() {
  static platform::NeverDestroyed<Counters> shared;
  return *shared;
}

/// The counter's new value.
std::int64_t addToCounter(std::string_view name, std::int64_t change) {
  Counters& all = counters();
  const platform::MutexLock lock(all.mutex);
  const auto found = all.values.find(name);
  if (found != all.values.end()) return found->second += change;
  return all.values.emplace(std::string(name), change).first->second;
}

std::string locatedName(std::string_view name, std::string_view locationName) {
  return fmt::format("{}_location_{}", name, locationName);
}

/// Runs a report; a failure to report is no reason to fail.
template <class Report>
void quietly(Report report) noexcept {
  try {
    report();
  } catch (...) {  // want of memory for a log line
  }
}

}  // namespace

void SkeldaUtil::handleException(const std::exception& exception) noexcept {
  if (!isShowErrorInLogEnabled()) return;
  quietly([&] {
    const auto* platformException = dynamic_cast<const platform::Exception*>(&exception);
    SKELDA_LOG(2, "Skelda: Caught Exception in Skelda Analytics Code");
    SKELDA_LOG(2, kDashes);
    SKELDA_LOG(2, "Skelda: Name:{} Reason:{}", nameOf(exception),
               platformException != nullptr ? platformException->reason() : exception.what());
    SKELDA_LOG(
        2, "Skelda: {}",
        platformException != nullptr ? platformException->userInfo().description() : "(null)");
  });
}

void SkeldaUtil::handleException(const platform::ErrorRef& error) noexcept {
  if (!isShowErrorInLogEnabled() || error == nullptr) return;
  quietly([&] {
    SKELDA_LOG(2, "Skelda: Caught Error in Skelda Analytics Code");
    SKELDA_LOG(2, kDashes);
    SKELDA_LOG(2, "Skelda: Code:{} Domain:{}", error->code(), error->domain());
    SKELDA_LOG(2, "Skelda: {}", error->userInfo().description());
  });
}

void SkeldaUtil::handleException(const platform::Value& object) noexcept {
  if (!isShowErrorInLogEnabled()) return;
  quietly([&] {
    SKELDA_LOG(2, "Skelda: Caught Error in Skelda Analytics Code");
    SKELDA_LOG(2, "Skelda: {}", object.description());
  });
}

bool SkeldaUtil::says(unsigned minimumLevel) noexcept {
  return logs(minimumLevel) && platform::Log::enabled();
}

void SkeldaUtil::handleException(const std::exception_ptr& thrown) noexcept {
  if (thrown == nullptr) return;
  try {
    std::rethrow_exception(thrown);
  } catch (const std::exception& exception) {
    handleException(exception);
  } catch (const platform::ErrorRef& error) {
    handleException(error);
  } catch (const platform::Value& object) {
    handleException(object);
  } catch (...) {
    handleException(platform::Value());
  }
}

void SkeldaUtil::assertionFailed(std::string_view tag) noexcept {
  if (!isDebugAssertEnabled()) return;
  quietly([&] { SKELDA_LOG(2, "{}: [Line {}], {}", "+[SkeldaUtil assert:tag:]", __LINE__, tag); });
  platform::abortOnFailedAssertion(tag);
}

void SkeldaUtil::nilAssertionFailed(std::string_view tag) noexcept {
  if (!isDebugAssertEnabled()) return;
  quietly([&] {
    SKELDA_LOG(2, "{}: [Line {}], obj {} is nil. {}", "+[SkeldaUtil assertNotNil:tag:]", __LINE__,
               "(null)", tag);
  });
  platform::abortOnFailedAssertion(tag);
}

void SkeldaUtil::assertThreadIsNotMain() {
  if (platform::MainQueue::isMainThread()) platform::assertionFailure("![NSThread isMainThread]");
}

void SkeldaUtil::assertRunningOnQueue(const std::shared_ptr<platform::Queue>& queue) {
  if (queue == nullptr || !queue->isCurrent()) {
    platform::assertionFailure("dispatch_get_current_queue() == queue");
  }
}

void SkeldaUtil::assertNotRunningOnQueue(const std::shared_ptr<platform::Queue>& queue) {
  if (queue != nullptr && queue->isCurrent()) {
    platform::assertionFailure("dispatch_get_current_queue() != queue");
  }
}

double SkeldaUtil::uptime() noexcept {
  const auto sinceBoot = platform::uptime();
  return sinceBoot ? std::chrono::duration<double>(*sinceBoot).count() : 0;
}

std::int64_t SkeldaUtil::uptimeInMilliseconds() noexcept {
  const auto sinceBoot = platform::uptime().value_or(std::chrono::nanoseconds(0));
  return std::chrono::duration_cast<std::chrono::milliseconds>(sinceBoot).count();
}

std::int64_t SkeldaUtil::lastBootTime() noexcept {
  const auto boot = platform::bootTime();
  if (!boot) {
    quietly([] { SKELDA_LOG(2, "Failed to get last boot time"); });
    return 0;
  }
  return std::chrono::duration_cast<std::chrono::seconds>(boot->microsecondsSince1970()).count();
}

void SkeldaUtil::incrementCounter(std::string_view name) {
  const std::int64_t value = addToCounter(name, 1);
  SKELDA_LOG(2, "incrementCounter: counter name = {}, value = {}", name, value);
}

void SkeldaUtil::decrementCounter(std::string_view name) {
  const std::int64_t value = addToCounter(name, -1);
  SKELDA_LOG(2, "decrementCounter: counter name = {}, value = {}", name, value);
}

void SkeldaUtil::incrementCounter(std::string_view name, std::string_view locationName) {
  incrementCounter(locatedName(name, locationName));
}

void SkeldaUtil::decrementCounter(std::string_view name, std::string_view locationName) {
  decrementCounter(locatedName(name, locationName));
}

void SkeldaUtil::printCounters() {
  constexpr std::string_view kTitle = "=========== Printing All Counters [name, value] ===========";
  SKELDA_LOG(2, kTitle);
  for (const auto& [name, value] : allCounters()) SKELDA_LOG(2, "[{:<100}=> {:5}]", name, value);
  SKELDA_LOG(2, "{:=<{}}", "", kTitle.size());
}

std::map<std::string, std::int64_t, std::less<>> SkeldaUtil::allCounters() {
  Counters& all = counters();
  const platform::MutexLock lock(all.mutex);
  return all.values;
}
