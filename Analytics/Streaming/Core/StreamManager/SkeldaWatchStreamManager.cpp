#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"

#include <utility>

#include "Analytics/Streaming/Core/SkeldaStreamCorePolicy.h"
#include "Analytics/Streaming/Core/SkeldaStreamCoreStickyMessagesHandler.h"
#include "Analytics/Streaming/Core/SkeldaStreamDropHandler.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamEventDropRule.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Dispatch/Once.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/StorageLock.h"
#include "Platform/Security/CryptographyLifetime.h"

namespace {

using FrameType = SkeldaStreamFrameTypeUtil;

/// A whole number of the information dictionary, held within its range.
struct Threshold {
  std::string_view key;
  std::string_view name;  // as log lines have it
  std::int32_t least;
  std::int32_t most;
  std::int32_t whenAbsent;

  std::int32_t load() const {
    const auto value = platform::Bundle::main()->objectForInfoDictionaryKey(key);
    if (value.isNull()) return whenAbsent;
    const auto given = value.integerValue();
    if (given < least) {
      SKELDA_LOG(2, "{} may not be below {}", name, least);
      return least;
    }
    if (given > most) {
      SKELDA_LOG(2, "{} may not be above {}", name, most);
      return most;
    }
    return static_cast<std::int32_t>(given);
  }
};

constexpr Threshold kEventThreshold{"Skelda Watch Event Threshold", "Watch event threshold", 5, 50,
                                    10};
constexpr Threshold kDurationThreshold{"Skelda Watch Duration Threshold",
                                       "Watch duration threshold", 5, 60, 10};

}  // namespace

std::shared_ptr<SkeldaWatchStreamManager> SkeldaWatchStreamManager::manager() {
  static constinit platform::Once once;
  static auto& manager = *new std::shared_ptr<SkeldaWatchStreamManager>();
  once([] {
    try {
      manager = managerOfLockedFolder();
    } catch (...) {
      // Counts as done: the calls that come later find nothing and are refused in silence.
      SKELDA_LOG(0, "Skelda: the agent could not be built, nothing is logged");
      SkeldaUtil::handleException(std::current_exception());
    }
  });
  return once.isDone() ? manager : nullptr;
}

bool SkeldaWatchStreamManager::lockStorageFolder() {
  using platform::StorageLock;
  static constinit std::atomic<bool> said{false};
  const auto folder = SkeldaUtil::filePathDirectory();
  const auto lock = StorageLock::acquire(folder);
  if (lock.status == StorageLock::Status::held) {
    // The settings lie beside the folder, and so does what a kill leaves of their replacement.
    static constinit platform::Once swept;
    swept([&] {
      for (const auto& place : {folder, platform::FileManager::applicationSupportDirectory()})
        platform::FileManager::defaultManager()->sweepTemporaryFiles(place);
    });
    return true;
  }
  if (said.exchange(true)) return false;
  if (lock.status == StorageLock::Status::heldByOther) {
    SKELDA_LOG(0, "Skelda: process {} holds the storage folder, nothing is logged by this one",
               lock.holder);
  } else {
    SKELDA_LOG(0, "Skelda: the storage folder cannot be locked, nothing is logged: {}",
               platform::description(lock.error));
  }
  return false;
}

std::shared_ptr<SkeldaWatchStreamManager> SkeldaWatchStreamManager::managerOfLockedFolder() {
  if (!lockStorageFolder()) return nullptr;
  // The agent's queues work on while the process exits.
  platform::keepCryptographyUntilTheEnd();
  return streamManager();
}

platform::ObjectRef SkeldaWatchStreamManager::getStreamingModule(const SkeldaModuleKey& key) {
  const auto shared = manager();
  return shared ? shared->getModule(key) : nullptr;
}

std::shared_ptr<SkeldaWatchStreamManager> SkeldaWatchStreamManager::streamManager() {
  return made(new SkeldaWatchStreamManager());
}

SkeldaWatchStreamManager::SkeldaWatchStreamManager() : SkeldaStreamBaseManager(kClassName) {}

void SkeldaWatchStreamManager::didInit() {
  loadWatchEventThreshold();
  loadWatchDurationThreshold();
  mandatoryStickySet_ = {FrameType::kAppInfo,          FrameType::kAppState,
                         FrameType::kSessionInitInfo,  FrameType::kSessionId,
                         FrameType::kDeviceProperties, FrameType::kReportedIdentifers};
  helperSetupCoreStreamingModules();
  helperSetupDataProcessingModules();
  helperSetupTransferModule();
  helperSetupSourceModules();
  helperSetupDataProviderModules();
}

void SkeldaWatchStreamManager::loadWatchEventThreshold() {
  watchSessionEventThreshold_ = kEventThreshold.load();
}

void SkeldaWatchStreamManager::loadWatchDurationThreshold() {
  watchSessionDurationThreshold_ = kDurationThreshold.load();
}

void SkeldaWatchStreamManager::helperSetupCoreStreamingModules() {
  SkeldaStreamBaseManager::helperSetupCoreStreamingModules();
  const auto stickyHandler =
      SkeldaStreamCoreStickyMessagesHandler::stickyMessagesHandlerWithStickySet(
          {FrameType::kLocaleInfo, FrameType::kTimeZoneInfo, FrameType::kDeviceProperties,
           FrameType::kAppInfo, FrameType::kAppState, FrameType::kSessionInitInfo,
           FrameType::kNetworkStatus, FrameType::kAppOrientation, FrameType::kReportedIdentifers,
           FrameType::kUserId},
          /*replayTriggerSet=*/{FrameType::kFlush}, /*arrayFramesSet=*/{});
  const auto sessionRule = SkeldaWatchStreamSessionRule::sessionRuleWithFlushTriggerMap(
      /*triggerMap=*/{}, mandatoryStickySet_, watchSessionEventThreshold_,
      watchSessionDurationThreshold_,
      [weakSelf = std::weak_ptr(selfOf(this))](std::string_view key) {
        const auto self = weakSelf.lock();
        return self ? self->moduleIfPresent(key) : nullptr;
      });
  const auto eventDropRule = SkeldaWatchStreamEventDropRule::eventDropRuleWithMaxEventThreshold(
      watchSessionEventThreshold_, watchSessionDurationThreshold_);
  setupPipelineWithCorePolicy(SkeldaStreamCorePolicy::streamPolicyWithFlushRules({sessionRule}),
                              SkeldaStreamDropHandler::dropHandlerWithRules({eventDropRule}),
                              stickyHandler);
}

void SkeldaWatchStreamManager::helperSetupSourceModules() {
  chainSourceModules({
      {"SkeldaEventFrameSource", "ISkeldaEventFrameSource"},
      {"SkeldaSessionInitInfoSource", "ISkeldaSessionInitInfoSource"},
      {"SkeldaStreamFlushSource", "ISkeldaStreamFlushSource"},
      {"SkeldaReportedIdentifiersSource", "ISkeldaReportedIdentifiersSource"},
      {"SkeldaAppInfoSource", "ISkeldaAppInfoSource"},
      {"SkeldaAppStateSource", "ISkeldaAppStateSource"},
      {"SkeldaDevicePropertiesSource", "ISkeldaDevicePropertiesSource"},
      {"SkeldaUserDemographicsSource", "ISkeldaUserDemographicsSource"},
      {"SkeldaLocaleInfoSource", "ISkeldaLocaleInfoSource"},
      {"SkeldaTimeZoneInfoSource", "ISkeldaTimeZoneInfoSource"},
      {"SkeldaAppOrientationSource", "ISkeldaAppOrientationSource"},
      {"SkeldaNetworkStatusSource", "ISkeldaNetworkStatusSource"},
      {"SkeldaSessionDevicePropertiesSource", "ISkeldaSessionDevicePropertiesSource"},
      {"SkeldaConsentSource", "ISkeldaConsentSource"},
      {"SkeldaUserPropertiesSource", "ISkeldaUserPropertiesSource"},
      {"SkeldaCCPASource", "ISkeldaCCPASource"},
  });
}

void SkeldaWatchStreamManager::helperSetupDataProviderModules() {
  // Under its class's name, so that the list below finds this one.
  addModule(SkeldaNetworkReachabilityDataProvider::sharedInstance(),
            "SkeldaNetworkReachabilityDataProvider");
  chainProviderClassObservers({
      {"SkeldaAppStateDataProvider", "ISkeldaAppStateSource"},
      {"SkeldaSessionInfoDataProvider", "ISkeldaSessionInitInfoSource"},
      {"SkeldaSessionDevicePropertiesDataProvider", "ISkeldaSessionDevicePropertiesSource"},
      {"SkeldaNetworkReachabilityDataProvider", "ISkeldaNetworkStatusSource"},
  });
}

void SkeldaWatchStreamManager::startup() {
  started_.store(true, std::memory_order_release);
  asyncBlock([self = selfOf(this)] {
    // On the writer's queue, so that no frame is written into a folder that may not last.
    if (const auto writer = std::dynamic_pointer_cast<SkeldaActor>(self->logwriter())) {
      writer->asyncBlock([] { SkeldaUtil::synchronizeFilePathDirectory(); });
    }
    self->logwriter()->writePendingFiles();
    self->startup({
        "ISkeldaReportedIdentifiersSource",
        "ISkeldaAppInfoSource",
        "SkeldaAppStateDataProvider",
        "ISkeldaDevicePropertiesSource",
        "ISkeldaLocaleInfoSource",
        "ISkeldaTimeZoneInfoSource",
        "ISkeldaAppOrientationSource",
        "SkeldaNetworkReachabilityDataProvider",
        "SkeldaSessionDevicePropertiesDataProvider",
    });
  });
}

void SkeldaWatchStreamManager::waitUntilStarted() {
  syncBlock([] {});
  // Twice, since a provider tells a source, which then sends.
  for (int round = 0; round < 2; ++round) {
    for (const auto& module : modules()) {
      if (const auto actor = std::dynamic_pointer_cast<SkeldaActor>(module))
        actor->syncBlock([] {});
    }
  }
}
