#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Streaming/Core/StreamManager/ISkeldaStreamManager.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaModuleKey.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"

/// Makes what every pipeline needs, keeps the modules by name, and wires and starts them. A
/// concrete manager chooses sources, providers and core stages and calls the operations below in
/// its didInit(). Modules of the class registry are found by text; one that is not linked in, or
/// whose factory throws, is left out with whatever depends on it, and one whose startup() throws
/// keeps no other from starting. A line names the module and the reason.
///
/// Checks that a list or a call is right come in two kinds: soft ones (SkeldaUtil::assert_), after
/// which the call goes on as well as it can, and assertion failures, which raise.
class SkeldaStreamBaseManager : public SkeldaActor, public ISkeldaStreamManager {
 public:
  // Where the logs are: the agent's folder for the current one, a folder in it for the committed.
  static std::string currentFrameLogFilePath() { return SkeldaAgentFiles::storageFolder(); }
  static std::string currentFrameLogFileName() { return SkeldaAgentFiles::currentFrameLogName(); }
  static std::string commitedFrameLogsFilePath() {
    return SkeldaAgentFiles::commitedFrameLogsFolder();
  }
  static std::string commitedFrameLogFileName() { return SkeldaAgentFiles::commitedFrameLogName(); }

  /// The module under T's name, as T; null where there is none. Never raises. Any thread; waits for
  /// the manager's queue.
  template <class T>
  std::shared_ptr<T> module() noexcept {
    return std::dynamic_pointer_cast<T>(moduleIfPresent(SkeldaModuleKey::nameOf<T>()));
  }
  platform::ObjectRef moduleIfPresent(std::string_view key) noexcept;

  /// All of them, in no order.
  std::vector<platform::ObjectRef> modules();

  /// Abstract: raises. The concrete manager starts its modules here.
  virtual void startup();
  void startup(const Keys& keys) override;

  void chainSourceModules(const Modules& modules) override;
  void chainProviderClassObservers(const Modules& modules) override;
  void addModule(platform::ObjectRef object, const std::string& moduleString) override;
  void helperSetupCoreStreamingModules() override;
  void helperSetupDataProcessingModules() override;
  void helperSetupTransferModule() override;
  void setupPipelineWithCorePolicy(const StageRef& policy, const StageRef& dropHandler,
                                   const StageRef& stickyHandler) override;

  const StageRef& streamBuffer() const override { return streamBuffer_; }
  const std::shared_ptr<ISkeldaStreamMessageSerializer>& serializer() const override {
    return serializer_;
  }
  const std::shared_ptr<ISkeldaStreamFrameDeserializer>& deserializer() const override {
    return deserializer_;
  }
  const std::shared_ptr<SkeldaStreamFrameLogWriter>& logwriter() const override {
    return logwriter_;
  }
  const std::shared_ptr<ISkeldaFileTransferAgent>& fileTransferAgent() const override {
    return fileTransferAgent_;
  }
  const std::shared_ptr<ISkeldaNodeDataProvider>& nodeDataProvider() const override {
    return nodeDataProvider_;
  }
  const std::shared_ptr<ISkeldaStreamTransferManager>& transferManager() const override {
    return transferManager_;
  }

  // -- Fixed by the system, and not called by the agent itself

  static std::string currentFrameLogFilePathWithName() {
    return SkeldaAgentFiles::currentFrameLog();
  }
  static std::string crashedFrameLogFileName() { return SkeldaAgentFiles::crashedFrameLogName(); }
  // Of the registry: any thread; reads wait for the manager's queue.
  void setModule(platform::ObjectRef object, const SkeldaModuleKey& key);
  /// Null for a key that is neither class nor protocol; raises for one that nothing is under.
  platform::ObjectRef getModule(const SkeldaModuleKey& key);
  platform::ObjectRef getObjectForSourceModule(std::string_view protocol);
  platform::ObjectRef getObjectForProviderModule(std::string_view className);

 protected:
  explicit SkeldaStreamBaseManager(std::string_view className);

  /// The provider under its class name, made on first mention.
  platform::ObjectRef createOrGetProviderModule(const std::string& className);
  /// While the manager is being made, and nobody else has it, also off the queue: what builds it
  /// runs on the thread that makes it.
  platform::ObjectRef onqueue_getIntanceForProtocolOrClass(std::string_view key);

 private:
  /// Whether the class is linked in; where it is not, it is left out, with what is under `key`.
  bool isPresentOrLeftOut(const std::string& className, const std::string& key);
  /// What the class registry makes of the class; null where its factory throws, which leaves it
  /// out.
  platform::ObjectRef madeOrLeftOut(const std::string& className, const std::string& key);
  void leaveOut(const std::string& className, const std::string& key, std::string_view reason);

  std::map<std::string, platform::ObjectRef, std::less<>> map_;
  std::set<std::string, std::less<>> leftOut_;
  StageRef streamBuffer_;
  std::shared_ptr<ISkeldaStreamMessageSerializer> serializer_;
  std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer_;
  std::shared_ptr<SkeldaStreamFrameLogWriter> logwriter_;
  std::shared_ptr<ISkeldaFileTransferAgent> fileTransferAgent_;
  std::shared_ptr<ISkeldaNodeDataProvider> nodeDataProvider_;
  std::shared_ptr<ISkeldaStreamTransferManager> transferManager_;
};
