// The rules that the simulation plays, against the classes that the agent is made of.
#include "Tools/skelda-fleet/DeviceSender.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>

#include "Platform/Foundation/NotificationCenter.h"
#include "Skelda_Watch/SkeldaConstants.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"
#include "Tools/skelda-fleet/FleetSimulation.h"

namespace skelda::testing {
namespace {

using namespace skelda::fleet;

/// Holds each request until the test says how it ends.
class HeldAnswers {
 public:
  LoopbackServer::RequestHandler handler() {
    return [this](ServerConnection& connection, const ReceivedRequest& request) {
      int status = 0;
      {
        std::unique_lock lock(mutex_);
        const Log log = static_cast<Log>(std::stoul(request.body));
        held_.insert(log);
        changed_.wait_for(lock, kPatience, [&] { return answers_.contains(log); });
        status = answers_[log];
        answers_.erase(log);
        held_.erase(log);
      }
      if (status != 0) return static_cast<void>(connection.answer(status));
      // Not before the first byte: what a kept connection loses so early is sent again below us.
      connection.send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n");
      connection.reset();
    };
  }
  void answer(Log log, int status) {
    const std::lock_guard lock(mutex_);
    answers_[log] = status;
    changed_.notify_all();
  }
  std::set<Log> held() const {
    const std::lock_guard lock(mutex_);
    return held_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<Log, int> answers_;
  std::set<Log> held_;
};

class DeviceSenderTest : public SenderTest {
 protected:
  struct State {
    std::set<Log> waiting, running;
    bool operator==(const State&) const = default;
  };

  void apply(const Steps& steps) {
    modelRunning_.insert(steps.requests.begin(), steps.requests.end());
  }
  State modelState() const {
    const auto waiting = model_.waiting();
    return {{waiting.begin(), waiting.end()}, modelRunning_};
  }
  State realState() const {
    State state;
    std::set<std::string> tags;
    sender_->queue()->sync([&] {
      for (const auto& task : sender_->runningTasks()) tags.insert(task->tag());
    });
    for (const auto& block : blocks(sender_)) {
      // Its file goes a little after it left the index.
      const auto bytes = block->data();
      if (!bytes) continue;
      state.waiting.insert(logIn(*bytes));
      if (tags.contains(block->identifier())) state.running.insert(logIn(*bytes));
    }
    return state;
  }
  static Log logIn(const platform::Data& data) {
    return static_cast<Log>(std::stoul(std::string(data.view())));
  }
  void expectTheSame(const std::string& after) {
    EXPECT_TRUE(becomes([&] {
      return answers_.held() == modelRunning_ && realState() == modelState();
    })) << after
        << ": waiting " << ::testing::PrintToString(realState().waiting) << " and "
        << ::testing::PrintToString(modelState().waiting) << ", running "
        << ::testing::PrintToString(realState().running) << " and "
        << ::testing::PrintToString(modelState().running);
  }

  HeldAnswers answers_;
  LoopbackServer server_{answers_.handler()};
  std::shared_ptr<SkeldaDataSender> sender_;
  DeviceSender model_;
  std::set<Log> modelRunning_;
};

TEST_F(DeviceSenderTest, KeepsSendsAndGivesUpWhatTheAgentsOwnSenderDoes) {
  sendTo(server_);
  sender_ = makeSender();
  SkeldaNetworkReachabilityDataProvider::sharedInstance()->setConnectedToNetwork(true);
  std::mt19937 random(7);
  Log next = 0;
  int refusals = 0;
  std::map<int, int> ends;
  for (int step = 0; step < 400 && !HasFailure(); ++step) {
    Steps steps;
    std::string what;
    // Spells in which the server takes all, and spells in which it takes nothing: so the limits
    // come into play, which steps alone never reach.
    const bool isGoodSpell = (step / 100) % 2 == 1;
    const auto dice = random() % 100;
    if (dice < (isGoodSpell ? 15 : 75)) {
      what = "a log";
      const Log log = next++;
      const bool taken = sender_->sendFrameLogData(bytes(std::to_string(log)));
      model_.commit(log, steps);
      EXPECT_EQ(taken, !steps.tryFolderAgainAfter) << step;
      refusals += taken ? 0 : 1;
    } else if (dice < 77) {
      what = "the network";
      platform::NotificationCenter::defaultCenter().post(kSkeldaNetworkStatusChangedNotification);
      model_.networkReturned(steps);
    } else if (!modelRunning_.empty()) {
      auto one = modelRunning_.begin();
      std::advance(one, static_cast<long>(random() % modelRunning_.size()));
      const Log log = *one;
      constexpr int kGood[] = {200, 202, 200, 400};
      constexpr int kBad[] = {503, 429, 0, 503};
      const int status = (isGoodSpell ? kGood : kBad)[random() % 4];
      what = "answer " + std::to_string(status);
      ++ends[status];
      modelRunning_.erase(log);
      answers_.answer(log, status);
      model_.ended(log,
                   status / 100 == 2 ? Ending::taken
                   : status == 400   ? Ending::malformed
                                     : Ending::failed,
                   steps);
    }
    apply(steps);
    expectTheSame(what + " at step " + std::to_string(step));
  }
  EXPECT_EQ(ends.size(), 6u) << "each end was played";
  while (!modelRunning_.empty() && !HasFailure()) {
    Steps steps;
    const Log log = *modelRunning_.begin();
    modelRunning_.erase(log);
    answers_.answer(log, 200);
    model_.ended(log, Ending::taken, steps);
    apply(steps);
    expectTheSame("the rest");
  }
}

}  // namespace
}  // namespace skelda::testing
