#include "Analytics/Streaming/Core/StreamManager/SkeldaStreamBaseManager.h"

#include <gtest/gtest.h>

#include <functional>

#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Tests/Support/AgentHome.h"

namespace skelda::testing {
namespace {

class ISampleSource : public virtual ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISampleSource";
};

/// Counts its start-ups.
class SampleSource : public SkeldaSource<SampleSource, ISampleSource> {
 public:
  static constexpr std::string_view kClassName = "SampleSource";
  void startup() override { ++starts; }
  int starts = 0;

 private:
  friend SkeldaSource;
  SampleSource() = default;
};

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

/// The reason of the assertion failure that the call raises; empty where it raises none.
template <class Call>
std::string raisedBy(Call&& call) {
  try {
    call();
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), platform::kInternalInconsistencyException);
    return exception.reason();
  }
  return {};
}

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

TEST_F(SkeldaStreamBaseManagerTest, FindsModulesByClassOrProtocolAndRaisesForWhatIsNotRight) {
  const auto sampleKey = SkeldaModuleKey::of<ISampleSource>();
  manager_->setModule(SampleSource::getSourceInstance(), sampleKey);
  const auto source = SampleSource::getSourceInstance();
  manager_->setModule(source, sampleKey);   // takes the place of the first
  manager_->setModule(nullptr, sampleKey);  // does not
  EXPECT_EQ(manager_->getModule(sampleKey), source);
  EXPECT_EQ(manager_->module<ISampleSource>(), source);
  manager_->setModule(source, SkeldaModuleKey::forProtocol("ISkeldaEventFrameSource"));
  const struct {
    const char* reason;
    std::function<void()> call;
  } raised[] = {
      {"id is missing!", [&] { manager_->getObjectForSourceModule("absent"); }},
      {"wrong id added to the dictionary",
       [&] { manager_->getObjectForSourceModule("ISkeldaEventFrameSource"); }},
      {"Module already exists", [&] { manager_->addModule(source, "ISampleSource"); }},
      {"wrong class being sent", [&] { manager_->createOrGetProviderModule("SampleSource"); }},
      {"wrong class being sent", [&] { manager_->createOrGetProviderModule("NoSuchClass"); }},
      {"incorrect array format", [&] { manager_->chainProviderClassObservers({{"one"}}); }},
      {"id is missing!", [&] { manager_->startup({"never mentioned"}); }},
      {"need to be implemented from derived classes", [&] { manager_->startup(); }},
  };
  for (const auto& [reason, call] : raised) EXPECT_EQ(raisedBy(call), reason);
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

}  // namespace
}  // namespace skelda::testing
