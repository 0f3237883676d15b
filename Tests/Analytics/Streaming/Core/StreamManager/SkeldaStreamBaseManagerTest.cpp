#include "Analytics/Streaming/Core/StreamManager/SkeldaStreamBaseManager.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {

class ISampleSource : public virtual ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISampleSource";
};

/// Counts its start-ups.
class SampleSource : public SkeldaSource<SampleSource, ISampleSource> {
 public:
  static constexpr std::string_view kClassName = "SampleSource";
  void startup() override {
    if (throws) throw std::runtime_error("not today");
    ++starts;
  }
  int starts = 0;
  bool throws = false;

 private:
  friend SkeldaSource;
  SampleSource() = default;
};

namespace {

/// Opens to the test what a concrete manager uses while it is made.
class Manager : public SkeldaStreamBaseManager {
 public:
  static std::shared_ptr<Manager> make() { return made(new Manager()); }
  std::string_view className() const noexcept override { return "Manager"; }
  using SkeldaStreamBaseManager::createOrGetProviderModule;
  using SkeldaStreamBaseManager::startup;

 private:
  Manager() : SkeldaStreamBaseManager("Manager") {}
};

class SkeldaStreamBaseManagerTest : public ::testing::Test {
 protected:
  SkeldaStreamBaseManagerTest() {
    platform::ClassRegistry::shared().registerClass(
        {"SampleSource",
         "SkeldaActorStreamComponentBase",
         {"ISampleSource", "ISkeldaFrameSource"},
         [] { return SampleSource::getSourceInstance(); }});
  }
  ~SkeldaStreamBaseManagerTest() override { SkeldaUtil::setLogLevel(0); }

  AgentHome home_;
  std::shared_ptr<Manager> manager_ = Manager::make();
};

TEST_F(SkeldaStreamBaseManagerTest, NamesItsFilesByTheAgentsVersion) {
  const auto folder = home_.storageFolder();
  EXPECT_EQ(Manager::currentFrameLogFilePathWithName(), folder + "/.skeldaFrameLog_261.archive");
  EXPECT_EQ(Manager::commitedFrameLogsFilePath(), folder + "/CommitedFrameLogs");
  EXPECT_EQ(Manager::commitedFrameLogFileName(), ".skeldaCommitedFrameLog_261.archive");
}

TEST_F(SkeldaStreamBaseManagerTest, RaisesForModulesThatAreMissingOrOfTheWrongKind) {
  const auto source = SampleSource::getSourceInstance();
  manager_->setModule(source, SkeldaModuleKey::of<ISampleSource>());
  manager_->setModule(nullptr, SkeldaModuleKey::of<ISampleSource>());  // does not take its place
  EXPECT_EQ(manager_->module<ISampleSource>(), source);
  manager_->setModule(source, SkeldaModuleKey::forProtocol("ISkeldaEventFrameSource"));
  const std::function<void()> calls[] = {
      [&] { manager_->getObjectForSourceModule("absent"); },
      [&] { manager_->getObjectForSourceModule("ISkeldaEventFrameSource"); },
      [&] { manager_->addModule(source, "ISampleSource"); },
      [&] { manager_->createOrGetProviderModule("SampleSource"); },
      [&] { manager_->createOrGetProviderModule("NoSuchClass"); },
      [&] { manager_->chainProviderClassObservers({{"one"}}); },
      [&] { manager_->startup({"never mentioned"}); },
  };
  for (const auto& call : calls) EXPECT_THROW(call(), platform::Exception);
}

TEST_F(SkeldaStreamBaseManagerTest, LeavesOutClassesThatAreNotLinkedInWithWhatDependsOnThem) {
  manager_->helperSetupCoreStreamingModules();
  manager_->chainSourceModules(
      {{"NoSuchSource", "INoSuchSource"}, {"SampleSource", "ISampleSource"}});
  manager_->chainProviderClassObservers(
      {{"NoSuchProvider", "ISampleSource"}, {"SkeldaSessionInfoDataProvider", "INoSuchSource"}});
  EXPECT_EQ(manager_->moduleIfPresent("INoSuchSource"), nullptr);
  EXPECT_NE(manager_->module<SkeldaSessionInfoDataProvider>(), nullptr);
  manager_->startup({"INoSuchSource", "NoSuchProvider", "ISampleSource"});
  EXPECT_EQ(std::dynamic_pointer_cast<SampleSource>(manager_->module<ISampleSource>())->starts, 1);
}

TEST_F(SkeldaStreamBaseManagerTest, AModuleThatThrowsKeepsNoOtherFromStartingAndIsNamed) {
  LogCapture log;
  const auto make = []() -> platform::ObjectRef { throw std::runtime_error("no memory"); };
  auto& registry = platform::ClassRegistry::shared();
  registry.registerClass(
      {"BrokenSource", "SkeldaActorStreamComponentBase", {"ISkeldaFrameSource"}, make});
  registry.registerClass({"BrokenProvider", "SkeldaDataProvider", {}, make});
  manager_->chainSourceModules({{"BrokenSource", "IBrokenSource"},
                                {"SampleSource", "ISampleSource"},
                                {"SampleSource", "ISkeldaFrameSource"}});
  manager_->chainProviderClassObservers(
      {{"BrokenProvider", ""}, {"SkeldaSessionInfoDataProvider", "IBrokenSource"}});
  const auto source = std::dynamic_pointer_cast<SampleSource>(manager_->module<ISampleSource>());
  source->throws = true;
  manager_->startup({"IBrokenSource", "BrokenProvider", "ISampleSource", "ISkeldaFrameSource"});
  const auto next =
      std::dynamic_pointer_cast<SampleSource>(manager_->moduleIfPresent("ISkeldaFrameSource"));
  EXPECT_EQ(next->starts, 1);
  EXPECT_EQ(log.count("Skelda: BrokenSource is left out: no memory"), 1U);
  EXPECT_EQ(log.count("Skelda: BrokenProvider is left out: no memory"), 1U);
  EXPECT_EQ(log.count("Skelda: ISampleSource did not start: not today"), 1U);
}

}  // namespace
}  // namespace skelda::testing
