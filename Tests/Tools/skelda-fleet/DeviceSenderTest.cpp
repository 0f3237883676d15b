// The rules that the simulation plays, against the classes that the agent is made of.
#include "Tools/skelda-fleet/DeviceSender.h"

#include <future>
#include <ranges>

#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"
#include "Tests/Analytics/Streaming/Transfer/TransferFakes.h"

namespace {

using namespace skelda::fleet;
using skelda::fleet::Log;

/// Holds each request until the test says how it ends.
class HeldAnswers {
 public:
  LoopbackServer::RequestHandler handler() {
    return [this](ServerConnection& connection, const ReceivedRequest& request) {
      std::unique_lock lock(mutex_);
      auto answer = held_[static_cast<Log>(std::stoul(request.body))].get_future();
      lock.unlock();
      const int status = answer.wait_for(kPatience) == std::future_status::ready ? answer.get() : 0;
      // The agent has no ear for when to come again: who had would come at once.
      if (status != 0)
        return static_cast<void>(connection.answer(status, {}, "Retry-After: 0\r\n"));
      // Not before the first byte: what a kept connection loses so early is sent again below us.
      connection.send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
      connection.reset();
    };
  }
  void answer(Log log, int status) {
    const std::lock_guard lock(mutex_);
    held_.extract(log).mapped().set_value(status);
  }
  std::set<Log> held() {
    const std::lock_guard lock(mutex_);
    const auto logs = held_ | std::views::keys;
    return {logs.begin(), logs.end()};
  }

 private:
  std::mutex mutex_;
  std::map<Log, std::promise<int>> held_;
};

class DeviceSenderTest : public SenderTest {
 protected:
  using State = std::pair<std::set<Log>, std::set<Log>>;  // what waits, what is on its way

  State modelState() const {
    const auto waiting = model_.waiting();
    return {{waiting.begin(), waiting.end()}, modelRunning_};
  }
  State realState() const {
    State state;
    auto& [waiting, running] = state;
    std::set<std::string> tags;
    sender_->queue()->sync([&] {
      for (const auto& task : sender_->runningTasks()) tags.insert(task->tag());
    });
    for (const auto& block : blocks(sender_)) {
      // Its file goes a little after it left the index.
      const auto bytes = block->data();
      if (!bytes) continue;
      const auto log = static_cast<Log>(std::stoul(std::string(bytes->view())));
      waiting.insert(log);
      if (tags.contains(block->identifier())) running.insert(log);
    }
    return state;
  }
  void expectTheSame(const std::string& after) {
    modelRunning_.insert(steps_.requests.begin(), steps_.requests.end());
    steps_ = {};
    becomes([&] { return answers_.held() == modelRunning_ && realState() == modelState(); });
    EXPECT_EQ(answers_.held(), modelRunning_) << after;
    EXPECT_EQ(realState(), modelState()) << after;
  }

  HeldAnswers answers_;
  LoopbackServer server_{answers_.handler()};
  std::shared_ptr<SkeldaDataSender> sender_;
  DeviceSender model_;
  Steps steps_;  // since both were compared
  std::set<Log> modelRunning_;
};

TEST_F(DeviceSenderTest, KeepsSendsAndGivesUpWhatTheAgentsOwnSenderDoes) {
  sendTo(server_);
  sender_ = makeSender();
  SkeldaNetworkReachabilityDataProvider::sharedInstance()->setConnectedToNetwork(true);
  std::mt19937 random(7);
  Log next = 0;
  std::set<int> ends;
  const auto end = [&](Log log, int status) {
    ends.insert(status);
    modelRunning_.erase(log);
    answers_.answer(log, status);
    const Ending bad = status == 400 ? Ending::malformed : Ending::failed;
    model_.ended(log, status / 100 == 2 ? Ending::taken : bad, steps_);
  };
  for (int step = 0; step < 400 && !HasFailure(); ++step) {
    // Spells in which the server takes all, and spells in which it takes nothing: so the limits
    // come into play, which steps alone never reach.
    const bool isGoodSpell = (step / 100) % 2 == 1;
    const auto dice = random() % 100;
    if (dice < (isGoodSpell ? 15 : 75)) {
      const Log log = next++;
      const bool taken = sender_->sendFrameLogData(bytes(std::to_string(log)));
      model_.commit(log, steps_);
      EXPECT_EQ(taken, !steps_.tryFolderAgainAfter) << step;
    } else if (dice < 77) {
      NotificationCenter::defaultCenter().post(kSkeldaNetworkStatusChangedNotification);
      model_.networkReturned(steps_);
    } else if (dice < 78) {
      // An answer that comes after the end would be one that the server gave and nobody heard.
      while (!modelRunning_.empty()) end(*modelRunning_.begin(), 503);
      finish();
      sender_ = makeSender();
      model_.restart(steps_);
    } else if (!modelRunning_.empty()) {
      const auto one =
          std::next(modelRunning_.begin(), static_cast<long>(random() % modelRunning_.size()));
      constexpr int kGood[] = {200, 202, 200, 400};
      constexpr int kBad[] = {503, 429, 0, 503};
      end(*one, (isGoodSpell ? kGood : kBad)[random() % 4]);
    }
    expectTheSame("step " + std::to_string(step) + ", dice " + std::to_string(dice));
  }
  EXPECT_EQ(ends.size(), 6u) << "each end was played";
  while (!modelRunning_.empty() && !HasFailure()) {
    end(*modelRunning_.begin(), 200);
    expectTheSame("the rest");
  }
}

/// A disk that now takes blocks and now does not.
TEST(DeviceSenderFolderTest, LosesOfAFullFolderWhatTheAgentsOwnManagerDeletes) {
  const auto monitor = std::make_shared<FakeMonitor>();
  const auto folder = std::make_shared<FakeFolder>();
  const auto agent = std::make_shared<FakeAgent>();
  const auto manager = SkeldaStreamTransferManager::transferManagerWithConfig(
      {{kSkeldaStreamConfigOptionMaxFileUploadCount, 1}}, monitor, "/logs", folder, agent);
  const auto complete = [&](const ErrorRef& error) {
    manager->didCompleteTransfer(agent->started.back(), error);
    settle(*manager);
  };
  manager->startup(nullptr);
  DeviceSender model;
  std::mt19937 random(3);
  std::size_t given = 0, lost = 0;
  bool canStore = true;
  // What is given while the disk takes nothing waits for its next try.
  const auto storeWhatIsGiven = [&] {
    while (given < agent->started.size()) {
      ++given;
      if (canStore) complete(nullptr);
    }
  };
  for (Log next = 0, step = 0; step < 2000 && !::testing::Test::HasFailure(); ++step) {
    Steps steps;
    const auto dice = random() % 10;
    if (dice < 6) {
      folder->names.insert("log" + std::to_string(next));
      monitor->tell(0);
      settle(*manager);
      model.commit(next++, steps);
    } else if (dice < 8) {
      canStore = !canStore;
      model.setCanStore(canStore);
    } else if (model.inFolder() > 0) {
      complete(urlError(kURLErrorNetworkConnectionLost, "not stored"));
      model.tryFolderAgain(steps);
    }
    storeWhatIsGiven();
    lost += steps.folderFull.size();
    EXPECT_EQ(folder->names.size(), model.inFolder()) << step;
    for (const Log log : steps.folderFull) {
      EXPECT_FALSE(folder->names.contains("log" + std::to_string(log))) << step;
    }
  }
  EXPECT_GT(lost, 100u);
}

}  // namespace
