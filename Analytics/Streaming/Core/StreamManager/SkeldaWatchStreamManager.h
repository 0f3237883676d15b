#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>

#include "Analytics/Streaming/Core/StreamManager/SkeldaStreamBaseManager.h"

/// The manager of a watch extension: sixteen sources, four data providers, the session rule and the
/// event drop rule with the thresholds of the host's information dictionary. When it is made it
/// builds everything and starts the transfer side and the core stages; messages wait in the core
/// until startup().
class SkeldaWatchStreamManager : public SkeldaStreamBaseManager {
 public:
  static constexpr std::string_view kClassName = "SkeldaWatchStreamManager";

  /// The one of the process, made by the first call. Null where it could not be made: where another
  /// process holds the storage folder, or what went wrong; the log says so once. Any thread.
  static std::shared_ptr<SkeldaWatchStreamManager> manager();
  /// Takes the lock of the storage folder for this process, and sweeps what a kill left in it.
  /// False where it cannot be had; the log says why, once.
  static bool lockStorageFolder();
  /// A manager of one's own over the storage folder of this moment, which is the caller's to lock.
  static std::shared_ptr<SkeldaWatchStreamManager> streamManager();
  std::string_view className() const noexcept override { return kClassName; }

  using SkeldaStreamBaseManager::startup;
  /// Lets the messages through and starts the modules that do not wait to be told. Any thread,
  /// returns at once.
  void startup() override;
  /// Returns once what startup() set going has handed its first messages to the core buffer. Waits
  /// for the modules' queues, and for the main queue, which a host may serve, at most a second.
  void waitUntilStarted();
  /// Whether startup() was called.
  bool isStarted() const noexcept { return started_.load(std::memory_order_acquire); }

  const std::set<std::int32_t>& mandatoryStickySet() const noexcept { return mandatoryStickySet_; }
  /// Events, 5 to 50.
  std::int32_t watchSessionEventThreshold() const noexcept { return watchSessionEventThreshold_; }
  /// Minutes, 5 to 60.
  std::int32_t watchSessionDurationThreshold() const noexcept {
    return watchSessionDurationThreshold_;
  }

  void helperSetupCoreStreamingModules() override;

  // -- Fixed by the system, and not called by the agent itself

  /// A module of that manager; null where there is no manager or for a key that is neither class
  /// nor protocol; raises for one that nothing is under.
  static platform::ObjectRef getStreamingModule(const SkeldaModuleKey& key);

 protected:
  SkeldaWatchStreamManager();
  void didInit() override;

 private:
  static std::shared_ptr<SkeldaWatchStreamManager> managerOfLockedFolder();
  void onqueue_startup();
  void waitForModules();
  void loadWatchEventThreshold();
  void loadWatchDurationThreshold();
  void helperSetupSourceModules();
  void helperSetupDataProviderModules();

  std::set<std::int32_t> mandatoryStickySet_;
  std::int32_t watchSessionEventThreshold_ = 0;
  std::int32_t watchSessionDurationThreshold_ = 0;
  std::atomic<bool> started_{false};
};
