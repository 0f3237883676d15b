#include "Analytics/Streaming/Core/StreamManager/SkeldaStreamBaseManager.h"

#include <utility>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/SkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"
#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/Exception.h"
#include "Skelda_Watch/SkeldaConstants.h"

namespace {

constexpr unsigned kManagerLogLevel = 3;
constexpr std::string_view kSetupTransfer = "-[SkeldaStreamBaseManager helperSetupTransferModule]";

}  // namespace

SkeldaStreamBaseManager::SkeldaStreamBaseManager(std::string_view className)
    : SkeldaActor(std::string(className)) {
  skelda::registerModules();
  SkeldaUtil::setLogLevel(kManagerLogLevel);
}

// -- The registry

void SkeldaStreamBaseManager::setModule(platform::ObjectRef object, const SkeldaModuleKey& key) {
  SkeldaUtil::assert_(!key.text().empty(), "Key should be Class or Protocol");
  if (object == nullptr) return;
  asyncBlock([self = selfOf(this), object = std::move(object), text = key.text()] {
    SkeldaUtil::assert_(!self->map_.contains(text), "Key string already exists");
    self->map_.insert_or_assign(text, object);
  });
}

platform::ObjectRef SkeldaStreamBaseManager::getModule(const SkeldaModuleKey& key) {
  if (key.text().empty()) return nullptr;
  platform::ObjectRef module;
  syncBlock([&] { module = onqueue_getIntanceForProtocolOrClass(key.text()); });
  return module;
}

platform::ObjectRef SkeldaStreamBaseManager::getObjectForSourceModule(std::string_view protocol) {
  platform::ObjectRef module;
  syncBlock([&] { module = onqueue_getIntanceForProtocolOrClass(protocol); });
  return module;
}

platform::ObjectRef SkeldaStreamBaseManager::getObjectForProviderModule(
    std::string_view className) {
  platform::ObjectRef module;
  syncBlock([&] { module = onqueue_getIntanceForProtocolOrClass(className); });
  return module;
}

platform::ObjectRef SkeldaStreamBaseManager::moduleIfPresent(std::string_view key) noexcept {
  return skelda::guardedResult(platform::ObjectRef(), [&] {
    platform::ObjectRef module;
    syncBlock([&] {
      const auto found = map_.find(key);
      if (found != map_.end()) module = found->second;
    });
    return module;
  });
}

std::vector<platform::ObjectRef> SkeldaStreamBaseManager::modules() {
  std::vector<platform::ObjectRef> all;
  syncBlock([&] {
    for (const auto& [key, module] : map_) all.push_back(module);
  });
  return all;
}

platform::ObjectRef SkeldaStreamBaseManager::onqueue_getIntanceForProtocolOrClass(
    std::string_view key) {
  const auto found = map_.find(key);
  if (found == map_.end()) platform::assertionFailure("id is missing!");
  const auto& module = found->second;
  if (!module->conformsToProtocol(key) &&
      !module->conformsToProtocol(ISkeldaDataProvider::kProtocolName)) {
    platform::assertionFailure("wrong id added to the dictionary");
  }
  return module;
}

void SkeldaStreamBaseManager::addModule(platform::ObjectRef object,
                                        const std::string& moduleString) {
  if (map_.contains(moduleString)) platform::assertionFailure("Module already exists");
  if (object != nullptr) map_.emplace(moduleString, std::move(object));
}

platform::ObjectRef SkeldaStreamBaseManager::createOrGetProviderModule(
    const std::string& className) {
  auto& registry = platform::ClassRegistry::shared();
  if (!registry.isSubclass(className, "SkeldaDataProvider")) {
    platform::assertionFailure("wrong class being sent");
  }
  const auto found = map_.find(className);
  if (found != map_.end()) return found->second;
  auto provider = madeOrLeftOut(className, {});
  if (provider != nullptr) map_.emplace(className, provider);
  return provider;
}

// -- Chaining

bool SkeldaStreamBaseManager::isPresentOrLeftOut(const std::string& className,
                                                 const std::string& key) {
  if (platform::ClassRegistry::shared().hasClass(className)) return true;
  leaveOut(className, key, "it is not linked in");
  return false;
}

platform::ObjectRef SkeldaStreamBaseManager::madeOrLeftOut(const std::string& className,
                                                           const std::string& key) {
  try {
    return platform::ClassRegistry::shared().make(className);
  } catch (...) {
    leaveOut(className, key, skelda::reasonOf(std::current_exception()));
    return nullptr;
  }
}

void SkeldaStreamBaseManager::leaveOut(const std::string& className, const std::string& key,
                                       std::string_view reason) {
  SKELDA_NOTICE("Skelda: {} is left out: {}", className, reason);
  leftOut_.insert(className);
  if (!key.empty()) leftOut_.insert(key);
}

void SkeldaStreamBaseManager::chainSourceModules(const Modules& modules) {
  auto& registry = platform::ClassRegistry::shared();
  for (const auto& entry : modules) {
    if (!SkeldaUtil::assert_(entry.size() > 1, "incorrect array format")) continue;
    const auto& className = entry[0];
    const auto& key = entry[1];
    if (!isPresentOrLeftOut(className, key)) continue;
    SkeldaUtil::assert_(registry.classConforms(className, ISkeldaFrameSource::kProtocolName),
                        "Source class should conform to frame source protocol.");
    auto instance = madeOrLeftOut(className, key);
    if (leftOut_.contains(key)) continue;
    // One way only: the buffer answers no source.
    if (const auto stage = std::dynamic_pointer_cast<ISkeldaStreamComponent>(instance)) {
      stage->registerNextStageComponent(streamBuffer_);
    }
    if (!SkeldaUtil::assertNotNil(instance, "Source instance should not be nil")) continue;
    map_.insert_or_assign(key, std::move(instance));
  }
}

void SkeldaStreamBaseManager::chainProviderClassObservers(const Modules& modules) {
  for (const auto& entry : modules) {
    if (entry.size() < 2) platform::assertionFailure("incorrect array format");
    const auto& className = entry[0];
    const auto& observerKey = entry[1];
    if (!isPresentOrLeftOut(className, {})) continue;
    const auto provider =
        std::dynamic_pointer_cast<SkeldaDataProvider>(createOrGetProviderModule(className));
    if (observerKey.empty() || leftOut_.contains(observerKey) || provider == nullptr) continue;
    const auto module = onqueue_getIntanceForProtocolOrClass(observerKey);
    const auto observer = std::dynamic_pointer_cast<ISkeldaDataProviderObserver>(module);
    if (SkeldaUtil::assert_(
            observer && module->conformsToProtocol(ISkeldaDataProviderObserver::kProtocolName),
            "Observer should conform to ISkeldaDataProviderObserver protocol")) {
      provider->registerObserver(observer);
    }
  }
}

// -- Building

void SkeldaStreamBaseManager::helperSetupCoreStreamingModules() {
  serializer_ = SkeldaStreamMessageSerializer::streamMessageSerializer();
  deserializer_ = SkeldaStreamFrameDeserializer::streamFrameDeserializer();
  logwriter_ = SkeldaStreamFrameLogWriter::fileWriterWithCurrentFrameLogFilePath(
      currentFrameLogFilePath(), currentFrameLogFileName(), commitedFrameLogsFilePath(),
      commitedFrameLogFileName(), SkeldaStreamFileManager::fileManager(),
      SkeldaStreamFileHandle::fileHandle(), serializer_, deserializer_,
      /*frameTypesForRoll=*/{SkeldaStreamFrameTypeUtil::kFlush}, /*frameTypesToDrop=*/{});
}

void SkeldaStreamBaseManager::helperSetupDataProcessingModules() {
  auto sender = SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
      SkeldaStreamFileHandle::fileHandle());
  fileTransferAgent_ = SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
      std::move(sender), SkeldaStreamFileManager::fileManager());
  nodeDataProvider_ = SkeldaNodeDataProvider::nodeDataProviderWithFilePath(
      commitedFrameLogsFilePath(), SkeldaStreamFileManager::fileManager());
}

void SkeldaStreamBaseManager::helperSetupTransferModule() {
  transferManager_ = SkeldaStreamTransferManager::transferManagerWithConfig(
      {{kSkeldaStreamConfigOptionMaxFileUploadCount, 1}}, nodeDataProvider_,
      commitedFrameLogsFilePath(), SkeldaStreamFileManager::fileManager(), fileTransferAgent_);
  transferManager_->startup([](const platform::ErrorRef& error) {
    if (error == nullptr) return;
    SKELDA_LOG(1, "{}: transfer manager start up failed with error {}", kSetupTransfer,
               platform::description(error));
  });
}

//   sources -> core buffer -> core policy -> drop handler -> sticky messages handler -> log writer
//
// Messages flow to the right, readiness comes back from the right.
void SkeldaStreamBaseManager::setupPipelineWithCorePolicy(const StageRef& policy,
                                                          const StageRef& dropHandler,
                                                          const StageRef& stickyHandler) {
  streamBuffer_ = SkeldaStreamCoreBuffer::streamBuffer();

  streamBuffer_->registerNextStageComponent(policy);
  policy->registerNextStageComponent(dropHandler);
  dropHandler->registerNextStageComponent(stickyHandler);
  stickyHandler->registerNextStageComponent(logwriter_);

  policy->registerPreviousStageComponent(streamBuffer_);
  dropHandler->registerPreviousStageComponent(policy);
  stickyHandler->registerPreviousStageComponent(dropHandler);
  logwriter_->registerPreviousStageComponent(stickyHandler);

  // From the end to the front. The buffer takes messages as soon as it is made.
  logwriter_->startup();
  stickyHandler->startup();
  dropHandler->startup();
  policy->startup();
}

// -- Starting

void SkeldaStreamBaseManager::startup() {
  platform::assertionFailure("need to be implemented from derived classes");
}

void SkeldaStreamBaseManager::startup(const Keys& keys) {
  for (const auto& key : keys) {
    if (leftOut_.contains(key)) continue;
    const auto module = onqueue_getIntanceForProtocolOrClass(key);
    try {
      if (const auto stage = std::dynamic_pointer_cast<ISkeldaStreamComponent>(module)) {
        stage->startup();
      } else if (const auto provider = std::dynamic_pointer_cast<ISkeldaDataProvider>(module)) {
        provider->startup();
      }
    } catch (...) {
      SKELDA_NOTICE("Skelda: {} did not start: {}", key,
                    skelda::reasonOf(std::current_exception()));
    }
  }
}
