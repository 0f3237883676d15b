#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Tests/Support/AgentHome.h"

struct ISampleSource : ISkeldaFrameSource {
  static constexpr std::string_view kProtocolName = "ISampleSource";
};

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

class Manager : public SkeldaStreamBaseManager {
 public:
  static std::shared_ptr<Manager> make() { return made(new Manager()); }
  std::string_view className() const noexcept override { return "Manager"; }
  using SkeldaStreamBaseManager::createOrGetProviderModule;
  using SkeldaStreamBaseManager::startup;

 private:
  Manager() : SkeldaStreamBaseManager("Manager") {}
};

struct SkeldaStreamBaseManagerTest : testing::Test {
  SkeldaStreamBaseManagerTest() {
    ClassRegistry::shared().registerClass({"SampleSource",
                                           "SkeldaActorStreamComponentBase",
                                           {"ISampleSource", "ISkeldaFrameSource"},
                                           [] { return SampleSource::getSourceInstance(); }});
  }

  AgentHome home_;
  std::shared_ptr<Manager> manager_ = Manager::make();
};

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
      [&] { manager_->startup({"never mentioned"}); }};
  for (const auto& call : calls) EXPECT_THROW(call(), Exception);
}

TEST_F(SkeldaStreamBaseManagerTest, LeavesOutClassesThatAreNotLinkedInWithWhatDependsOnThem) {
  manager_->helperSetupCoreStreamingModules();
  manager_->chainSourceModules({{"NoSource", "INoSource"}, {"SampleSource", "ISampleSource"}});
  manager_->chainProviderClassObservers(
      {{"NoSuchProvider", "ISampleSource"}, {"SkeldaSessionInfoDataProvider", "INoSource"}});
  EXPECT_EQ(manager_->moduleIfPresent("INoSource"), nullptr);
  EXPECT_NE(manager_->module<SkeldaSessionInfoDataProvider>(), nullptr);
  manager_->startup({"INoSource", "NoSuchProvider", "ISampleSource"});
  EXPECT_EQ(std::static_pointer_cast<SampleSource>(manager_->module<ISampleSource>())->starts, 1);
}

TEST_F(SkeldaStreamBaseManagerTest, AModuleThatThrowsKeepsNoOtherFromStartingAndIsNamed) {
  LogCapture log;
  const auto make = []() -> ObjectRef { throw std::runtime_error("no memory"); };
  auto& registry = ClassRegistry::shared();
  registry.registerClass(
      {"BrokenSource", "SkeldaActorStreamComponentBase", {"ISkeldaFrameSource"}, make});
  registry.registerClass({"BrokenProvider", "SkeldaDataProvider", {}, make});
  manager_->chainSourceModules({{"BrokenSource", "IBrokenSource"},
                                {"SampleSource", "ISampleSource"},
                                {"SampleSource", "ISkeldaFrameSource"}});
  manager_->chainProviderClassObservers(
      {{"BrokenProvider", ""}, {"SkeldaSessionInfoDataProvider", "IBrokenSource"}});
  const auto source = std::static_pointer_cast<SampleSource>(manager_->module<ISampleSource>());
  source->throws = true;
  manager_->startup({"IBrokenSource", "BrokenProvider", "ISampleSource", "ISkeldaFrameSource"});
  const auto next = manager_->moduleIfPresent("ISkeldaFrameSource");
  EXPECT_EQ(std::dynamic_pointer_cast<SampleSource>(next)->starts, 1);
  for (const char* line :
       {"BrokenSource is left out: no memory", "BrokenProvider is left out: no memory",
        "ISampleSource did not start: not today"})
    EXPECT_EQ(log.count("Skelda: " + std::string(line)), 1U) << line;
}

TEST(SkeldaWatchStreamManager, HoldsTheThresholdsWithinTheirRangeAndSaysSo) {
  const AgentHome home;
  const std::string event = "Skelda Watch Event Threshold";
  const std::string duration = "Skelda Watch Duration Threshold";
  // What becomes of it, of the other one 10, and what a line says that it may not be.
  const std::tuple<std::string, Value, int, std::string> cases[] = {
      {event, 50, 50, ""},      {event, 4, 5, "below 5"},    {event, "many", 5, "below 5"},
      {event, 7.9, 7, ""},      {event, -1, 5, "below 5"},   {event, 1e30, 50, "above 50"},
      {event, "20", 20, ""},    {event, 51, 50, "above 50"}, {duration, 61, 60, "above 60"},
      {duration, 60, 60, ""},   {event, true, 5, "below 5"}, {event, Array{12}, 5, "below 5"},
      {event, nullptr, 10, ""}, {duration, 4, 5, "below 5"}, {event, Data("\x0c"), 5, "below 5"}};
  for (const auto& [key, value, result, refusal] : cases) {
    LogCapture log;
    const HostBundle bundle({{key, value}});
    const auto manager = SkeldaWatchStreamManager::streamManager();
    const auto name = key == event ? "event" : "duration";
    EXPECT_EQ(manager->watchSessionEventThreshold(), key == event ? result : 10) << refusal;
    EXPECT_EQ(manager->watchSessionDurationThreshold(), key == event ? 10 : result) << refusal;
    EXPECT_EQ(log.count("threshold may not be"), refusal.empty() ? 0U : 1U);
    const auto line = fmt::format("Watch {} threshold may not be {}", name, refusal);
    EXPECT_EQ(log.count(line), refusal.empty() ? 0U : 1U) << line;
  }
}

}  // namespace
