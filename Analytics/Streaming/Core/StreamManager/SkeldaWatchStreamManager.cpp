#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"

#include <chrono>
#include <utility>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/SkeldaStreamCorePolicy.h"
#include "Analytics/Streaming/Core/SkeldaStreamCoreStickyMessagesHandler.h"
#include "Analytics/Streaming/Core/SkeldaStreamDropHandler.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamEventDropRule.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/Group.h"
#include "Platform/Dispatch/Once.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/FolderMaking.h"
#include "Platform/Foundation/StorageLock.h"
#include "Platform/Foundation/StorageReserve.h"
#include "Platform/Security/CryptographyLifetime.h"

namespace {

using FrameType = SkeldaStreamFrameTypeUtil;

}  // namespace

std::shared_ptr<SkeldaWatchStreamManager> SkeldaWatchStreamManager::manager() {
  static constinit platform::Once once;
  static platform::NeverDestroyed<std::shared_ptr<SkeldaWatchStreamManager>> manager;
  once([] {
    try {
      *manager = managerOfLockedFolder();
    } catch (...) {
      // Counts as done: the calls that come later find nothing and are refused in silence.
      SKELDA_NOTICE("Skelda: the agent could not be built, nothing is logged: {}",
                    skelda::reasonOf(std::current_exception()));
      SkeldaUtil::handleException(std::current_exception());
    }
  });
  return once.isDone() ? *manager : nullptr;
}

bool SkeldaWatchStreamManager::lockStorageFolder() {
  using platform::StorageLock;
  static constinit std::atomic<bool> said{false};
  const auto folder = SkeldaUtil::filePathDirectory();
  const auto lock = StorageLock::acquire(SkeldaAgentFiles::lockFile());
  if (lock.status == StorageLock::Status::held) {
    static constinit platform::Once prepared;
    prepared([&] {
      platform::StorageReserve::take(SkeldaAgentFiles::reserveFile());
      // The settings lie beside the folder, and so does what a kill leaves of their replacement.
      for (const auto& place : {folder, platform::FileManager::applicationSupportDirectory()})
        platform::FileManager::defaultManager()->sweepTemporaryFiles(place);
    });
    return true;
  }
  if (said.exchange(true)) return false;
  if (lock.status == StorageLock::Status::heldByOther) {
    SKELDA_NOTICE("Skelda: process {} holds the storage folder, nothing is logged by this one",
                  lock.holder);
  } else {
    // What keeps the folder from being made says more than that the lock file is not in it.
    const auto obstacle = platform::whyNotWritable(folder);
    SKELDA_NOTICE("Skelda: {} cannot be used, nothing is logged: {}", folder,
                  obstacle.empty() ? lock.error->localizedDescription() : obstacle);
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
  mandatoryStickySet_ = FrameType::frameTypesWithRole(FrameType::kMandatory);
  helperSetupCoreStreamingModules();
  helperSetupDataProcessingModules();
  helperSetupTransferModule();
  helperSetupSourceModules();
  helperSetupDataProviderModules();
}

void SkeldaWatchStreamManager::loadWatchEventThreshold() {
  watchSessionEventThreshold_ = SkeldaHostSettings::numberOf(SkeldaHostSettings::kEventThreshold);
}

void SkeldaWatchStreamManager::loadWatchDurationThreshold() {
  watchSessionDurationThreshold_ =
      SkeldaHostSettings::numberOf(SkeldaHostSettings::kDurationThreshold);
}

void SkeldaWatchStreamManager::helperSetupCoreStreamingModules() {
  SkeldaStreamBaseManager::helperSetupCoreStreamingModules();
  const auto stickyHandler =
      SkeldaStreamCoreStickyMessagesHandler::stickyMessagesHandlerWithStickySet(
          FrameType::frameTypesWithRole(FrameType::kSticky),
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
  chainSourceModules(skelda::sourceChain());
}

void SkeldaWatchStreamManager::helperSetupDataProviderModules() {
  // Under its class's name, so that the list below finds this one.
  addModule(SkeldaNetworkReachabilityDataProvider::sharedInstance(),
            std::string(SkeldaNetworkReachabilityDataProvider::kClassName));
  chainProviderClassObservers(skelda::providerChain());
}

void SkeldaWatchStreamManager::startup() {
  started_.store(true, std::memory_order_release);
  post<&SkeldaWatchStreamManager::onqueue_startup>();
}

void SkeldaWatchStreamManager::onqueue_startup() {
  SKELDA_ON_QUEUE();
  // On the writer's queue, so that no frame is written into a folder that may not last.
  logwriter()->asyncBlock([] { SkeldaUtil::synchronizeFilePathDirectory(); });
  logwriter()->writePendingFiles();
  startup(skelda::startOrder());
}

void SkeldaWatchStreamManager::waitUntilStarted() {
  syncBlock([] {});
  waitForModules();
  // The state of the application is asked for on the main queue. A host may be late to serve it: a
  // session then lacks that record, and drops what is over its cap until it comes.
  const auto group = platform::Group::make();
  group->enter();
  platform::Queue::main()->async([group] { group->leave(); });
  group->wait(platform::dispatchTimeAfter(std::chrono::seconds(1)));
  // A provider takes up its news, then tells those who observe it, and then a source sends: each
  // posts the next, in whatever order the modules are waited for.
  for (int step = 0; step < 3; ++step) waitForModules();
}

void SkeldaWatchStreamManager::waitForModules() {
  for (const auto& module : modules()) {
    if (const auto actor = std::dynamic_pointer_cast<SkeldaActor>(module)) actor->syncBlock([] {});
  }
}
