// What reaches the logs, frame by frame, whatever ends a session or a log.

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"

#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamConsent.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaEventFrameSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaStreamFlushSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserPropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace {

// The messages of start-up that a session needs; "S-" is all of them but the identifiers, 140.
const Texts kStickies{"132", "133", "139", "140", "141"};
const Texts kOtherStickies{"146", "148", "149", "156", "162"};

bool isSticky(const std::string& word) {
  return std::ranges::count(kStickies, word) + std::ranges::count(kOtherStickies, word) > 0;
}

/// The agent's own pipeline, sources and providers, with nobody who takes the logs away.
class Pipeline : public SkeldaWatchStreamManager {
 public:
  static std::shared_ptr<Pipeline> make() { return made(new Pipeline()); }
  std::shared_ptr<SkeldaSessionDevicePropertiesDataProvider> provider() {
    return module<SkeldaSessionDevicePropertiesDataProvider>();
  }
  void helperSetupTransferModule() override {}
  void setupPipelineWithCorePolicy(const StageRef& policy, const StageRef& dropHandler,
                                   const StageRef& stickyHandler) override {
    SkeldaWatchStreamManager::setupPipelineWithCorePolicy(policy, dropHandler, stickyHandler);
    stages_ = {streamBuffer(), policy, dropHandler, stickyHandler, logwriter()};
  }
  void sendWord(const std::string& word) {
    if (word == "S" || word == "S-") {
      for (const auto& type : kStickies)
        if (word == "S" || type != "140") sendWord(type);
    } else if (word == "start") {
      logwriter()->writePendingFiles();
    } else if (word.starts_with("flush")) {
      module<ISkeldaStreamFlushSource>()->flushWithStatus(word.back() - '0');
    } else if (word == "consent") {
      streamBuffer()->streamMessage(SkeldaStreamConsent::gdprScope(true, {}));
    } else if (word[0] == 'e') {
      streamBuffer()->streamMessage(eventAt(std::stoll(word.substr(1))));
    } else {
      streamBuffer()->streamMessage(plainMessage(std::stoi(word)));
    }
    settleAll();
  }
  /// Twice round: the provider's snapshot sets out when the policy has finalized a session.
  void settleAll() {
    const auto settleActor = [](auto of) { settle(*std::dynamic_pointer_cast<SkeldaActor>(of)); };
    for (int round = 0; round < 2; ++round) {
      settleActor(provider());
      for (const auto& entry : skelda::sourceChain()) settleActor(moduleIfPresent(entry[1]));
      for (const auto& stage : stages_) settleActor(stage);
    }
  }

 private:
  std::vector<StageRef> stages_;
};

/// The words with stickies that stand side by side in order, since their replay has none of its
/// own, and "S" or "S-" for what they name.
std::string withoutOrderOfStickies(const std::string& words) {
  std::istringstream in(words);
  Texts all{std::istream_iterator<std::string>(in), {}};
  for (auto at = all.begin(); at != all.end();) {
    const auto end = std::find_if_not(at, all.end(), isSticky);
    std::sort(at, end);
    at = std::find_if(end, all.end(), isSticky);
  }
  auto out = fmt::format("{}", fmt::join(all, " "));
  for (const auto& [stickies, name] :
       {std::pair{"132 133 139 140 141", "S"}, {"132 133 139 141", "S-"}})
    for (auto at = out.find(stickies); at != out.npos; at = out.find(stickies))
      out.replace(at, std::strlen(stickies), name);
  return out;
}

/// Sends the words through processes of one installation; "restart" kills one and starts the next.
/// Answers all its logs, oldest first, the open one behind the last bar.
std::string logsAfter(const std::string& words) {
  const FoldersInMemory inMemory;
  const AgentHome home;
  std::istringstream in(words);
  std::shared_ptr<Pipeline> pipeline;
  const auto begin = [&] {
    AgentHome::forget();
    pipeline = Pipeline::make();
    const auto snapshot = SkeldaSessionDevicePropertiesData::currentSnapshot(true);
    pipeline->provider()->setDevicePropertiesData(snapshot);
  };
  begin();
  for (std::string word; in >> word;) {
    if (word == "restart") {
      begin();
      word = "start";
    }
    pipeline->sendWord(word);
  }
  std::string logs;
  for (const auto& path : logPaths(Pipeline::commitedFrameLogsFilePath()))
    logs += withoutOrderOfStickies(logWords(readFile(path))) + " | ";
  const auto open = readFile(Pipeline::currentFrameLogFilePathWithName());
  return logs + withoutOrderOfStickies(logWords(open));
}

// Sessions of at most 5 events or 10 minutes. Numbers are frame types: 146 a user id, 174 an
// opt-out, 175 a request to delete. A "propsStart" behind a counter is the provider's own.
const std::pair<const char*, const char*> kOrder[] = {
    // The first log after a start; what came before the start waits for it.
    {"start", "counter1"},
    {"S e0 start e1", "counter1 S session@0 flush1 | counter2 S e0 session@0 e1"},
    // The set is completed by the first event, or by another message.
    {"start S e0", "counter1 S session@0 flush1 | counter2 S e0 session@0"},
    {"start S- e0 140 e1", "counter1 S- session@0 e0 140 flush1 | counter2 S session@0 e1"},
    // Full by count: the event that fills it is in it. Complete; never complete; complete too late,
    // when what did not fit any more is gone.
    {"start S e0 e1 e2 e3 e4 e5",
     "counter1 S session@0 flush1 | "
     "counter2 S e0 session@0 e1 e2 e3 session@0..11 propsEnd e4 flush3 | "
     "counter3 S propsStart session@5 flush1 | counter4 S e5 session@5"},
    {"start S- e0 e1 e2 e3 e4 e5", "counter1 S- session@0 e0 e1 e2 e3 session@0..11 propsEnd e4"},
    {"start S- e0 e1 e2 e3 e4 e5 140 e6",
     "counter1 S- session@0 e0 e1 e2 e3 session@0..11 propsEnd e4 140 flush3 | "
     "counter2 S propsStart session@6 flush1 | counter3 S e6 session@6"},
    // Over by time: the event that finds it over is in the next one, be it the last that would have
    // fitted; with an incomplete set there is no next one yet.
    {"start S e0 e600000 e600001",
     "counter1 S session@0 flush1 | "
     "counter2 S e0 session@0 e600000 session@0..600007 propsEnd flush3 | "
     "counter3 S session@600001 propsStart flush1 | counter4 S e600001 session@600001"},
    {"start S e0 e1 e2 e3 e600001",
     "counter1 S session@0 flush1 | "
     "counter2 S e0 session@0 e1 e2 e3 session@0..600007 propsEnd flush3 | "
     "counter3 S session@600001 propsStart flush1 | counter4 S e600001 session@600001"},
    {"start S e0 e600001 e600002 e600003 e600004 e600005",
     "counter1 S session@0 flush1 | "
     "counter2 S e0 session@0 session@0..600007 propsEnd flush3 | "
     "counter3 S session@600001 propsStart flush1 | "
     "counter4 S e600001 session@600001 e600002 e600003 e600004 session@600001..600012 propsEnd "
     "e600005 flush3 | counter5 S propsStart"},
    {"start S- e0 e600001 e600002 140 e600003",
     "counter1 S- session@0 e0 session@0..600007 propsEnd 140 flush3 | "
     "counter2 S propsStart session@600003 flush1 | counter3 S e600003 session@600003"},
    // A flush that is asked for ends a log and no session, whatever its status.
    {"start S flush5", "counter1 S flush5 | counter2 S"},
    {"start S- e0 flush5 e1 140",
     "counter1 S- session@0 e0 flush5 | counter2 S- e1 140 flush1 | counter3 S session@0"},
    {"start S e0 flush5 flush6 e1",
     "counter1 S session@0 flush1 | counter2 S e0 session@0 flush5 | counter3 S flush6 | "
     "counter4 S e1"},
    {"start S e0 flush3 e1 e2 e3 e4",
     "counter1 S session@0 flush1 | counter2 S e0 session@0 flush3 | "
     "counter3 S e1 e2 e3 session@0..11 propsEnd e4 flush3 | counter4 S propsStart"},
    // A request to delete ends the log, which is uploaded with all that it holds: in a session,
    // before one, before a phone has given identifiers, and in a session that ended and waits for
    // them. The privacy page says so, and that consent reaches no log.
    {"start S e0 175 e1",
     "counter1 S session@0 flush1 | counter2 S e0 session@0 175 flush6 | counter3 S session@0 e1"},
    {"start S 175 e0",
     "counter1 S 175 flush6 | counter2 S session@0 flush1 | counter3 S e0 session@0"},
    {"start S- e0 175 e1", "counter1 S- session@0 e0 175 flush6 | counter2 S- session@0 e1"},
    {"start S- e0 e1 e2 e3 e4 175 140",
     "counter1 S- session@0 e0 e1 e2 e3 session@0..11 propsEnd e4 175 flush6 | "
     "counter2 S- session@0..11 140 flush3 | counter3 S propsStart"},
    // The user and the user's choices end nothing; consent reaches no log, the user id every one.
    {"start S e0 consent 174 146 e1 flush5",
     "counter1 S session@0 flush1 | counter2 S e0 session@0 174 146 e1 flush5 | counter3 S 146"},
    // What each log begins with, the latest of each kind; figures of the device are not repeated.
    {"start S 148 149 156 162 153 148 flush5 flush5",
     "counter1 S 148 149 156 162 153 148 flush5 | counter2 S 148 149 156 162 flush5 | "
     "counter3 S 148 149 156 162"},
    // A kill: in the first log, in a session, between sessions with their archive, after a session
    // that was over by time and so left none, and in the session after one that left an archive.
    {"start restart", "counter1 flush4 | counter2"},
    {"start S e0 restart S e5",
     "counter1 S session@0 flush1 | counter2 S e0 session@0 flush4 | "
     "counter3 S session@5 flush1 | counter4 S e5 session@5"},
    {"start S e0 e1 e2 e3 e4 restart restart",
     "counter1 S session@0 flush1 | "
     "counter2 S e0 session@0 e1 e2 e3 session@0..11 propsEnd e4 flush3 | "
     "counter3 S propsStart session@4 flush4 | counter4 session@4 flush4 | counter5"},
    {"start S- e0 e600001 140 restart",
     "counter1 S- session@0 e0 session@0..600007 propsEnd 140 flush3 | "
     "counter2 S propsStart flush4 | counter3"},
    {"start S e0 e1 e2 e3 e4 e5 restart",
     "counter1 S session@0 flush1 | "
     "counter2 S e0 session@0 e1 e2 e3 session@0..11 propsEnd e4 flush3 | "
     "counter3 S propsStart session@5 flush1 | counter4 S e5 session@5 flush4 | counter5"}};

TEST(MessageOrder, IsFixedForEveryEndOfASessionAndOfALog) {
  const LogCapture quiet;
  const HostBundle bundle(
      {{"CFBundleIdentifier", "com.example.run"}, {"Skelda Watch Event Threshold", 5}});
  for (const auto& [words, logs] : kOrder) EXPECT_EQ(logsAfter(words), logs) << words;
}

TEST(PrivacyPage, ValuesStandInLogLinesOnlyWhereTheyAreAskedFor) {
  ScopedEnvironment environment;
  for (const bool shown : {false, true}) {
    environment.set("SKELDA_LOG_VALUES", shown ? "1" : "0");
    Log::resetSink();
    const AgentHome home;
    LogCapture log;
    const HostBundle bundle({{"CFBundleIdentifier", "com.example.run"}});
    const auto pipeline = Pipeline::make();
    const auto events = pipeline->module<ISkeldaEventFrameSource>();
    const auto now = Date::now();
    const Dictionary parameters{{"Secret", "Secret"}};
    events->recordEvent("Secret", parameters, true, now);
    events->recordEvent("Secret", "no parameters", false, now);
    events->recordEvent(Array{"Secret"}, parameters, false, now);
    events->endTimedEvent("Secret", parameters, now);
    const auto properties = pipeline->module<ISkeldaUserPropertiesSource>();
    properties->setUserProperties("Secret", Array{"Secret"});
    properties->setUserProperties("Secret", "no values");
    properties->setUserProperties("Size", Array{Array{"Secret"}});
    pipeline->module<ISkeldaUserDemographicsSource>()->setUserId("Secret");
    const auto sessionInfo = pipeline->module<SkeldaSessionInfoDataProvider>();
    sessionInfo->startUpWithApiKey("Secret");
    EXPECT_NE(sessionInfo->sessionInfoData(), nullptr);
    std::static_pointer_cast<SkeldaReportedIdentifiersSource>(
        pipeline->module<ISkeldaReportedIdentifiersSource>())
        ->didReceiveUserInfo({{"skelda://id1", "Secret"}, {"skelda://id2", "5ec2e7"}});
    pipeline->settleAll();
    // As it is, as base64 of its text, and the second identifier as it is reported.
    for (auto of : {"Secret", "U2VjcmV0", "XsLn"}) EXPECT_EQ(log.count(of) > 0, shown) << of;
    EXPECT_EQ(log.count("(not shown)") > 0, !shown);
  }
  environment.set("SKELDA_LOG_VALUES", "0");
  Log::resetSink();
}

}  // namespace
