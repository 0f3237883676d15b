#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Intake/Journal/SkeldaIntake.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserId.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaCCPASource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaEventFrameSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserPropertiesSource.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tests/Analytics/Intake/Account/IntakeFiles.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace {

using testing::AllOf, testing::Ge, testing::Le;
using Kind = SkeldaIntakeCall::Kind;
using Outcome = SkeldaIntakeOutcome;

struct Pipeline : RecordingStage {
  void streamMessage(Message message) override {
    RecordingStage::streamMessage(message);
    if (stores) SkeldaAccounting::settle(message->intakeTicket(), Outcome::stored);
  }
  std::atomic<bool> stores{true};
};

/// A run of the agent as far as the intake goes: four sources before one pipeline.
struct AgentRun {
  std::shared_ptr<SkeldaIntakeFile> file;
  std::shared_ptr<SkeldaIntakePump> pump;
  std::shared_ptr<Pipeline> pipeline = std::make_shared<Pipeline>();

  explicit AgentRun(std::shared_ptr<SkeldaIntakeFile> of) : file(std::move(of)) {
    SkeldaAccounting::setFile(file);
    pump = SkeldaIntakePump::pumpOf(file);
  }
  /// As a kill: what is on its way to the pipeline stays unsettled.
  ~AgentRun() {
    pump->syncBlock([] {});
    SkeldaAccounting::setFile(nullptr);
    // A source may be settling in it at this moment; an agent's own file is never let go of.
    static NeverDestroyed<std::vector<std::shared_ptr<SkeldaIntakeFile>>> kept;
    kept->push_back(std::move(file));
  }
  template <class Source>
  std::shared_ptr<Source> before(std::shared_ptr<Source> source) const {
    source->registerNextStageComponent(pipeline);
    return source;
  }
  void start() {
    pump->start({before(SkeldaEventFrameSource::getSourceInstance()),
                 before(SkeldaUserPropertiesSource::getSourceInstance()),
                 before(SkeldaCCPASource::getSourceInstance()),
                 before(SkeldaUserDemographicsSource::getSourceInstance()),
                 {}});
  }
  template <class... Given>
  bool call(Kind kind, const Given&... given) const {
    const auto accept = [&](const auto&... to) { return pump->accept(kind, {std::cref(to)...}); };
    return accept(Value(given)...);
  }
  bool event(const std::string& name) const { return call(Kind::event, name, nullptr); }
  bool isStored() const { return file->waitUntilSettled(std::chrono::steady_clock::now() + 20s); }
  std::uint64_t settled(SkeldaIntakeFile::Kind kind, Outcome outcome) const {
    return at(file->page().settled[static_cast<std::size_t>(kind) - 1], outcome);
  }
};

std::string saidBy(const ISkeldaStreamMessage& message) {
  if (const auto* event = dynamic_cast<const SkeldaStreamEvent*>(&message))
    return base64Decoded(*event->eventName())->string();
  if (const auto* property = dynamic_cast<const SkeldaStreamUserProperties*>(&message))
    return *property->propertyName();
  if (const auto* user = dynamic_cast<const SkeldaStreamUserId*>(&message)) return *user->userId();
  return std::to_string(message.frameType());
}
Texts saidBy(const std::vector<Message>& messages) {
  Texts said;
  for (const auto& message : messages) said.push_back(saidBy(*message));
  return said;
}

TEST(SkeldaIntakePump, KeepsTheOrderOfCallsOverAllSources) {
  AgentRun run(SkeldaIntakeFile::inMemory(1 << 20));
  std::mt19937 random(7);
  Texts said;
  for (int i = 0; i < 2000; ++i) {
    if (i == 500) run.start();
    const std::string text = "call " + std::to_string(i);
    const auto kind = random() % 7;
    if (kind == 0) run.call(Kind::userId, Value(text));
    if (kind == 1) run.call(Kind::addProperties, Value(text), Value(Array{"v"}));
    if (kind == 2) run.call(Kind::optOut, Value(true));
    if (kind == 3) run.call(Kind::deletion);
    if (kind == 4) run.call(Kind::clearProperties, Value(text));
    if (kind > 4) run.event(text);
    said.push_back(kind == 2 ? "174" : kind == 3 ? "175" : text);
  }
  ASSERT_TRUE(run.isStored());
  EXPECT_EQ(saidBy(run.pipeline->messages(said.size())), said);
}

TEST(SkeldaIntakePump, SettlesWhatASourceRefusesWithItsReason) {
  AgentRun run(SkeldaIntakeFile::inMemory(1 << 16));
  run.start();
  const Value name("n"), broken("\xff"), none;
  run.call(Kind::event, broken, none);
  run.call(Kind::event, name, name);
  run.call(Kind::purchase, name, none, name);
  run.call(Kind::purchase, name, none, Value(Dictionary{{"\xff", "p"}}));
  run.call(Kind::setProperties, name, name);
  run.call(Kind::addProperties, name, Value(Array{"\xff"}));
  run.call(Kind::userId, broken);
  run.call(Kind::userId, none);  // no news
  ASSERT_TRUE(run.isStored());
  using Of = SkeldaIntakeFile::Kind;
  EXPECT_EQ(run.settled(Of::event, Outcome::notUTF8), 2U);
  EXPECT_EQ(run.settled(Of::event, Outcome::wrongKind), 2U);
  EXPECT_EQ(run.settled(Of::choice, Outcome::wrongKind), 1U);
  EXPECT_EQ(run.settled(Of::choice, Outcome::notUTF8), 2U);
  EXPECT_EQ(run.settled(Of::choice, Outcome::stored), 1U);
  EXPECT_TRUE(run.pipeline->messages().empty());
}

TEST(SkeldaIntakePump, LetsAWindowThroughRefusesWhatHasNoRoomAndGoesOn) {
  const LogCapture log;
  AgentRun run(SkeldaIntakeFile::inMemory(1 << 16));
  run.pipeline->stores = false;
  run.start();
  unsigned accepted = 0;
  while (run.event("event " + std::to_string(accepted))) ++accepted;
  EXPECT_FALSE(run.event("one more"));
  ASSERT_GT(accepted, 2 * SkeldaIntakePump::kWindow);
  EXPECT_EQ(log.count("Skelda: Not logged -- 64 KiB wait to be written"), 1U);

  const auto first = run.pipeline->messages(SkeldaIntakePump::kWindow);
  run.pump->syncBlock([] {});
  EXPECT_EQ(run.pipeline->messages().size(), SkeldaIntakePump::kWindow);
  EXPECT_EQ(run.file->takenCount(), SkeldaIntakePump::kWindow);
  run.pipeline->stores = true;
  for (auto& each : first) SkeldaAccounting::settle(each->intakeTicket(), Outcome::stored);
  ASSERT_TRUE(run.isStored());
  EXPECT_EQ(run.pipeline->messages().size(), accepted);
  EXPECT_TRUE(run.event("there is room again"));
  EXPECT_EQ(at(SkeldaAccounting::page().refused, SkeldaRefusal::overTheBound), 2U);
}

TEST(SkeldaIntakePump, LosesNoWakeUpHoweverSettlingAndCallsMeet) {
  AgentRun run(SkeldaIntakeFile::inMemory(4 << 20));
  run.start();
  constexpr unsigned kThreads = 4, kEach = 2000;
  std::atomic<unsigned> accepted{0};
  inThreads(kThreads, [&](unsigned) {
    for (unsigned i = 0; i < kEach; ++i) {
      accepted += run.event("e");
      // Now and then the pump is idle, and each call meets it going to sleep.
      EXPECT_TRUE(i % 100 != 0 || run.isStored());
    }
  });
  EXPECT_EQ(accepted, kThreads * kEach);
  EXPECT_TRUE(run.isStored());
  EXPECT_EQ(run.pipeline->messages().size(), kThreads * kEach);
}

TEST(SkeldaIntakePump, GoesOnWhereAnEarlierRunWasKilled) {
  const IntakeFiles files;
  const auto now = [] { return Date::now().microsecondsSince1970().count() / 1000; };
  const auto before = now(), uptimeBefore = SkeldaUtil::uptimeInMilliseconds();
  {
    AgentRun killed(files.open());  // before it started the agent
    killed.call(Kind::deletion);
    killed.call(Kind::addProperties, "shoe", Array{"red"});
    killed.call(Kind::consent, true, Dictionary{{"iab", "s"}}, true);
  }
  {
    AgentRun next(files.open());  // killed with its first event on its way
    next.pipeline->stores = false;
    next.call(Kind::purchase, "first", Dictionary{{"lap", "1"}}, Dictionary{{"sk.ProductID", "p"}});
    next.start();
    next.pipeline->messages(3);
  }
  const auto after = now(), uptimeAfter = SkeldaUtil::uptimeInMilliseconds();
  AgentRun run(files.open());
  run.event("second");
  run.start();
  ASSERT_TRUE(run.isStored());
  const auto messages = run.pipeline->messages(4);
  ASSERT_EQ(saidBy(messages), (Texts{"175", "shoe", "first", "second"}));
  for (const auto& message : {messages[0], messages[1], messages[2]}) {
    EXPECT_THAT(message->epochTimeStamp(), AllOf(Ge(before), Le(after)));
    EXPECT_THAT(message->relativeTimeStamp(), AllOf(Ge(uptimeBefore), Le(uptimeAfter)));
  }
  const auto& property = dynamic_cast<const SkeldaStreamUserProperties&>(*messages[1]);
  EXPECT_EQ(*property.dictionaryRepresentation()->find("sk.user.property.uptime"),
            property.relativeTimeStamp());
  const auto& first = dynamic_cast<const SkeldaStreamEvent&>(*messages[2]);
  EXPECT_EQ(first.uptime(), first.relativeTimeStamp());
  EXPECT_EQ(first.parameters(), (Dictionary{{"bGFw", "MQ=="}}));
  EXPECT_TRUE(SkeldaConsentCore::sharedInstance()->getConsent().isGDPRScope());
  EXPECT_TRUE(addsUp(*run.file));
}

/// As if the file's first record had been written before the machine was started again.
void changeBoot(const std::string& path) {
  editFile(path, [](char* bytes) {
    using namespace SkeldaIntakeLayout;
    auto& first = *reinterpret_cast<Record*>(bytes + SkeldaIntakeFile::kHeaderLength);
    first.boot ^= 1U;
    first.checksum = checksumOf(first, Place(SkeldaIntakeFile::kSegmentCount, 0),
                                reinterpret_cast<Page*>(bytes)->salt);
  });
}

TEST(SkeldaIntakePump, GivesARecordOfAnotherBootTheUptimeOfItsReplay) {
  const IntakeFiles files;
  constexpr std::int64_t kLongUptime = std::int64_t{1} << 40;
  const Value name("old"), none;
  std::string bytes(SkeldaIntakeCall::sizeOf({name, none}).length, ' ');
  SkeldaIntakeCall::write(bytes.data(), Kind::event, {name, none});
  {
    const auto file = files.open();
    file->append(SkeldaIntakeFile::Kind::event, IntakeFiles::kDate, kLongUptime, bytes.size(),
                 [&](char* to) { std::copy(bytes.begin(), bytes.end(), to); });
  }
  for (const bool sameBoot : {true, false}) {
    if (!sameBoot) changeBoot(files.path_);
    AgentRun run(files.open());
    run.pipeline->stores = false;
    run.start();
    const auto messages = run.pipeline->messages(1);
    ASSERT_EQ(messages.size(), 1U);
    const auto& event = dynamic_cast<const SkeldaStreamEvent&>(*messages[0]);
    EXPECT_EQ(event.timestamp()->microsecondsSince1970().count(), IntakeFiles::kDate);
    EXPECT_EQ(event.epochTimeStamp(), IntakeFiles::kDate / 1000);
    EXPECT_EQ(event.uptime(), event.relativeTimeStamp());
    EXPECT_EQ(event.relativeTimeStamp() == kLongUptime, sameBoot);
  }
}

TEST(SkeldaIntakeAccount, ALogThatIsThereCountsAndOneThatNobodyCountedAsGoneIsNamed) {
  const AgentHome home;
  EXPECT_TRUE(SkeldaIntake::waitUntilStored({})) << "nothing was accepted yet";
  auto& page = SkeldaAccounting::page();
  const auto& unreadable = at(page.logsRemoved, SkeldaLogRemoval::unreadable);
  const std::string folder = SkeldaAgentFiles::commitedFrameLogsFolder();
  std::filesystem::create_directories(folder);
  std::ofstream(folder + '/' + SkeldaAgentFiles::commitedFrameLogName() + "_1.000000");
  const std::uint64_t commited = page.logsCommited, gone = unreadable;
  SkeldaIntake::settleLogs();
  EXPECT_EQ(page.logsCommited, commited + 1);
  EXPECT_EQ(unreadable, gone);
  std::filesystem::remove_all(folder);
  SkeldaIntake::settleLogs();
  EXPECT_EQ(page.logsCommited, commited + 1);
  EXPECT_EQ(unreadable, gone + 1);
}

}  // namespace
