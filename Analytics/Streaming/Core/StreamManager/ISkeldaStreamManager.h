#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

class ISkeldaFileTransferAgent;
class ISkeldaNodeDataProvider;
class ISkeldaStreamFrameDeserializer;
class ISkeldaStreamMessageSerializer;
class ISkeldaStreamTransferManager;
class SkeldaStreamFrameLogWriter;

/// Owns and wires the pipeline. The operations below, but for startup() and the getters, build it
/// and are called while the manager is being made, before it is shared.
class ISkeldaStreamManager {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamManager";
  using StageRef = std::shared_ptr<ISkeldaStreamComponent>;
  /// Registry keys, in order.
  using Keys = std::vector<std::string>;
  /// Entries of [class name, registry key].
  using Modules = std::vector<std::vector<std::string>>;

  /// Starts the modules under the keys, in order. On the manager's queue.
  virtual void startup(const Keys& keys) = 0;
  virtual void chainSourceModules(const Modules& modules) = 0;
  virtual void chainProviderClassObservers(const Modules& modules) = 0;
  virtual void addModule(platform::ObjectRef object, const std::string& moduleString) = 0;
  virtual void helperSetupCoreStreamingModules() = 0;
  virtual void helperSetupDataProcessingModules() = 0;
  virtual void helperSetupTransferModule() = 0;
  virtual void setupPipelineWithCorePolicy(const StageRef& policy, const StageRef& dropHandler,
                                           const StageRef& stickyHandler) = 0;

  virtual const StageRef& streamBuffer() const = 0;
  virtual const std::shared_ptr<ISkeldaStreamMessageSerializer>& serializer() const = 0;
  virtual const std::shared_ptr<ISkeldaStreamFrameDeserializer>& deserializer() const = 0;
  virtual const std::shared_ptr<SkeldaStreamFrameLogWriter>& logwriter() const = 0;
  virtual const std::shared_ptr<ISkeldaFileTransferAgent>& fileTransferAgent() const = 0;
  virtual const std::shared_ptr<ISkeldaNodeDataProvider>& nodeDataProvider() const = 0;
  virtual const std::shared_ptr<ISkeldaStreamTransferManager>& transferManager() const = 0;

 protected:
  ~ISkeldaStreamManager() = default;
};
