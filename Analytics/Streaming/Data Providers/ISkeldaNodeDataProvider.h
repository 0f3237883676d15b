#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// Posted when a log has come into the folder of committed logs.
inline constexpr std::string_view kSkeldaFrameLogWasCommitedNotification =
    "SkeldaFrameLogWasCommitedNotification";

class ISkeldaNodeDataProvider;

/// Hears of changes of a watched folder, on the provider's queue; re-posts at once.
class SkeldaNodeDataProviderObserver {
 public:
  static constexpr std::string_view kProtocolName = "SkeldaNodeDataProviderObserver";
  virtual void fileMonitor(ISkeldaNodeDataProvider& monitor, std::uint32_t didSeeChange) = 0;

 protected:
  ~SkeldaNodeDataProviderObserver() = default;
};

/// Watches one folder. Any thread.
class ISkeldaNodeDataProvider {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaNodeDataProvider";
  using Completion = std::function<void(platform::ErrorRef)>;
  /// Held strongly until removed; null is ignored. Complete on return. Where a change has been seen
  /// already, all observers hear of it at once.
  virtual void addObserver(std::shared_ptr<SkeldaNodeDataProviderObserver> observer) = 0;
  virtual void removeObserver(const std::shared_ptr<SkeldaNodeDataProviderObserver>& observer) = 0;
  /// Makes the folder where it is missing, watches it, and reports one change once the watch
  /// stands, so that what is in the folder already is seen. Then the completion, which may be
  /// empty.
  virtual void forceRefresh(Completion completion) = 0;
  /// An entry of the folder is about to be removed by the caller, who knows: that is no change.
  virtual void willRemove(const std::string& name) = 0;

 protected:
  ~ISkeldaNodeDataProvider() = default;
};
