#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Analytics/Networking/DataSender/SkeldaDataSender.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Base/Log.h"
#include "Platform/Foundation/FileManager.h"
#include "Skelda_Watch/SkeldaConstants.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/LoopbackServer.h"

// What the transfer side costs beside what its work costs by itself, over TLS on the loopback.

namespace {

using namespace skelda::testing;
using Clock = std::chrono::steady_clock;
constexpr std::size_t kLogBytes = 10'000;
constexpr int kBacklog = 50;

double seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

template <class Condition>
void pollUntil(Condition condition) {
  while (!condition()) std::this_thread::sleep_for(std::chrono::microseconds(500));
}

double quantile(std::vector<double> values, double q) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(q * static_cast<double>(values.size() - 1))];
}

/// A server that takes everything, and a storage folder of its own.
class Stage {
 public:
  Stage()
      : server_(
            [](ServerConnection& connection, const ReceivedRequest&) { connection.answer(200); },
            {authority_.issue()}) {
    platform::Log::setSink({});
    SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL(server_.url());
  }
  ~Stage() {
    if (monitor_ != nullptr) monitor_->removeObserver(manager_);
  }

  std::shared_ptr<SkeldaDataSender> makeSender() {
    return SkeldaDataSender::senderWithQueue(platform::Queue::serial("benchmark.LogSender"),
                                             SkeldaBackgroundTaskTracker::defaultTracker(), "key");
  }
  void startTransferSide(std::shared_ptr<ISkeldaFrameLogDataSender> sender, int mostLogs = 0) {
    const auto files = SkeldaStreamFileManager::fileManager();
    monitor_ = SkeldaNodeDataProvider::nodeDataProviderWithFilePath(folder(), files);
    manager_ = SkeldaStreamTransferManager::transferManagerWithConfig(
        {{kSkeldaStreamConfigOptionMaxFileUploadCount, 1},
         {kSkeldaStreamConfigOptionMaxFileTransferCount, mostLogs}},
        monitor_, folder(), files,
        SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
            SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
                SkeldaStreamFileHandle::fileHandle(), std::move(sender)),
            files));
    manager_->startup(nullptr);
  }
  std::string folder() const { return home_.storageFolder() + "/CommitedFrameLogs"; }
  std::string storage() const { return home_.storageFolder(); }
  LoopbackServer& server() { return server_; }
  SkeldaStreamTransferManager& manager() { return *manager_; }

 private:
  AgentHome home_;
  TestAuthority authority_;
  LoopbackServer server_;
  std::shared_ptr<SkeldaNodeDataProvider> monitor_;
  std::shared_ptr<SkeldaStreamTransferManager> manager_;
};

/// One handle that keeps its connection: the plainest way to send.
class BareClient {
 public:
  explicit BareClient(const std::string& url) : handle_(curl_easy_init()) {
    fields_ = curl_slist_append(nullptr, "content-type: application/octet-stream");
    fields_ = curl_slist_append(fields_, "X-Skelda-Api-Key: key");
    curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, fields_);
    curl_easy_setopt(handle_, CURLOPT_CAINFO, std::getenv("SSL_CERT_FILE"));
    curl_easy_setopt(handle_, CURLOPT_POST, 1L);
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
  }
  ~BareClient() {
    curl_easy_cleanup(handle_);
    curl_slist_free_all(fields_);
  }
  bool post(const std::string& body) {
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    return curl_easy_perform(handle_) == CURLE_OK;
  }

 private:
  CURL* handle_;
  curl_slist* fields_ = nullptr;
};

double bareBacklogSeconds(Stage& stage, const std::string& log) {
  const auto begin = Clock::now();
  BareClient client(stage.server().url());
  for (int i = 0; i < kBacklog; ++i) {
    if (!client.post(log)) std::abort();
  }
  return seconds(Clock::now() - begin);
}

struct Emptied {
  double answered;  // the last block is accepted
  double empty;     // and on disk neither its file nor its entry is left
};

Emptied agentBacklogSeconds(Stage& stage, const std::string& log) {
  const auto sender = stage.makeSender();
  for (int i = 0; i < kBacklog; ++i) sender->storeData(platform::Data(log));
  const auto index = sender->dataIndex();
  const std::string key = sender->dataKey();
  const std::string file = stage.storage() + "/" + std::string(kSkeldaSenderIndexFileName);
  Emptied taken{};
  const auto begin = Clock::now();
  sender->retransmitNotSentBlocks();
  pollUntil([&] { return index->notSentBlocksForDataKey(key).empty(); });
  taken.answered = seconds(Clock::now() - begin);
  pollUntil([&] { return readFile(file).find("identifier") == std::string::npos; });
  taken.empty = seconds(Clock::now() - begin);
  return taken;
}

/// Of the plain loop's rate, how much the agent reaches; the budget is 0.5.
void BacklogOf50AgainstABareLoop(benchmark::State& state) {
  Stage stage;
  const std::string log(static_cast<std::size_t>(state.range(0)), '\x9c');
  std::vector<double> bare, answered, agent;
  for ([[maybe_unused]] auto round : state) {
    bare.push_back(bareBacklogSeconds(stage, log));
    const Emptied taken = agentBacklogSeconds(stage, log);
    answered.push_back(taken.answered);
    agent.push_back(taken.empty);
    state.SetIterationTime(taken.empty);
  }
  state.counters["bare_ms"] = quantile(bare, 0.5) * 1000;
  state.counters["answered_ms"] = quantile(answered, 0.5) * 1000;
  state.counters["agent_ms"] = quantile(agent, 0.5) * 1000;
  state.counters["of_bare"] = quantile(bare, 0.5) / quantile(agent, 0.5);
}
BENCHMARK(BacklogOf50AgainstABareLoop)
    ->Arg(1'000)
    ->Arg(kLogBytes)
    ->Arg(100'000)
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMillisecond);

/// From the commit of a log to the server's answer, beside the sum of what that takes by itself.
void CommitToAnswer(benchmark::State& state) {
  Stage stage;
  const std::string log(kLogBytes, '\x9c');
  const std::string current = stage.storage() + "/current";
  writeFile(current, log);
  const auto sender = stage.makeSender();
  stage.startTransferSide(sender);
  auto& files = *platform::FileManager::defaultManager();
  BareClient client(stage.server().url());
  client.post(log);
  std::vector<double> whole, parts;
  std::size_t answered = stage.server().requestCount();
  int number = 0;
  const auto isAnswered = [&] {
    return sender->dataIndex()->notSentBlocksForDataKey(sender->dataKey()).empty();
  };
  for ([[maybe_unused]] auto round : state) {
    const std::string name = "/.log" + std::to_string(++number);
    auto begin = Clock::now();
    files.copyItemAtPath(current, stage.folder() + name);
    ++answered;
    pollUntil([&] { return stage.server().requestCount() >= answered && isAnswered(); });
    whole.push_back(seconds(Clock::now() - begin));
    state.SetIterationTime(whole.back());

    begin = Clock::now();
    files.copyItemAtPath(current, stage.storage() + "/../copy");
    files.storeNewFile(platform::Data(log), stage.storage() + "/block" + std::to_string(number));
    files.writeData(platform::Data(std::string(300, 'i')), stage.storage() + "/index", true);
    client.post(log);
    ++answered;
    parts.push_back(seconds(Clock::now() - begin));
    std::filesystem::remove(stage.storage() + "/../copy");
  }
  state.counters["p50_ms"] = quantile(whole, 0.5) * 1000;
  state.counters["p99_ms"] = quantile(whole, 0.99) * 1000;
  state.counters["parts_p50_ms"] = quantile(parts, 0.5) * 1000;
  state.counters["parts_p99_ms"] = quantile(parts, 0.99) * 1000;
}
BENCHMARK(CommitToAnswer)->UseManualTime()->Iterations(200)->Unit(benchmark::kMillisecond);

double residentMiB() {
  std::ifstream statm("/proc/self/statm");
  double total = 0, resident = 0;
  statm >> total >> resident;
  return resident * 4096 / (1024 * 1024);
}

/// What 50 blocks of 1 MiB take in memory while they wait on disk.
void MemoryOf50WaitingMebibytes(benchmark::State& state) {
  Stage stage;
  SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL("http://127.0.0.1:1/");
  for ([[maybe_unused]] auto round : state) {
    const auto sender = stage.makeSender();
    const double before = residentMiB();
    for (int i = 0; i < kBacklog; ++i) {
      sender->sendFrameLogData(platform::Data(std::string(1024 * 1024, 'm')));
    }
    pollUntil([&] {
      bool idle = false;
      sender->queue()->sync([&] { idle = sender->runningTasks().empty(); });
      return idle;
    });
    state.counters["added_MiB"] = residentMiB() - before;
  }
}
BENCHMARK(MemoryOf50WaitingMebibytes)->Iterations(1)->Unit(benchmark::kMillisecond);

/// Takes everything at once, and counts it.
class Sink : public ISkeldaFrameLogDataSender {
 public:
  bool sendFrameLogData(platform::Data) override { return ++taken_ > 0; }
  int taken() const noexcept { return taken_; }

 private:
  std::atomic<int> taken_ = 0;
};

void makeLogs(const Stage& stage, int count) {
  std::filesystem::create_directories(stage.folder());
  for (int i = 0; i < count; ++i) writeFile(stage.folder() + "/.log" + std::to_string(i), "x");
}

/// Lists the folder, and reads and removes what is in it.
double bareEmptyingSeconds(const Stage& stage) {
  auto& files = *platform::FileManager::defaultManager();
  const auto begin = Clock::now();
  const auto names = files.contentsOfDirectoryAtPath(stage.folder());
  if (!names) std::abort();
  for (const auto& name : *names) {
    const std::string path = stage.folder() + "/" + name;
    if (!files.contentsAtPath(path) || !files.removeItemAtPath(path)) std::abort();
  }
  return seconds(Clock::now() - begin);
}

/// A start with many logs in the folder, and a limit that allows for them: each is handed on.
void StartWithCommittedLogs(benchmark::State& state) {
  const auto count = static_cast<int>(state.range(0));
  std::vector<double> bare, agent;
  for ([[maybe_unused]] auto round : state) {
    Stage stage;
    makeLogs(stage, count);
    bare.push_back(bareEmptyingSeconds(stage));
    makeLogs(stage, count);
    const auto sink = std::make_shared<Sink>();
    const auto begin = Clock::now();
    stage.startTransferSide(sink, 2 * count);
    // Whoever looks into the folder keeps removals from it waiting: so not before the last.
    pollUntil([&] { return sink->taken() >= count; });
    pollUntil([&] { return std::filesystem::is_empty(stage.folder()); });
    agent.push_back(seconds(Clock::now() - begin));
    state.SetIterationTime(agent.back());
  }
  state.counters["bare_ms"] = quantile(bare, 0.5) * 1000;
  state.counters["agent_ms"] = quantile(agent, 0.5) * 1000;
}
BENCHMARK(StartWithCommittedLogs)
    ->Arg(1'000)
    ->Arg(10'000)
    ->UseManualTime()
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond);

}  // namespace
