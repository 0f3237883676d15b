#include "Platform/Foundation/NotificationCenter.h"
#include "Tests/Support/Testing.h"

namespace {

const auto center = &NotificationCenter::defaultCenter;

TEST(NotificationCenterTest, LetsAnObserverAddRemoveAndPost) {
  int later = 0;
  std::vector<NotificationCenter::Token> tokens(3);
  tokens[0] = center().addObserver("R", [&](const Notification&) {
    center().removeObserver(tokens[0]);
    center().removeObserver(tokens[1]);
    tokens[2] = center().addObserver("R", [&](const Notification&) {
      if (++later < 3) center().post("R");
    });
  });
  tokens[1] = center().addObserver("R", [](const Notification&) { FAIL() << "it is removed"; });
  center().post("R");
  EXPECT_EQ(later, 0) << "it came while the post was under way";
  center().post("R");
  EXPECT_EQ(later, 3);
  center().removeObserver(tokens[2]);
}

TEST(NotificationCenterTest, TellsTheOthersWhenOneThrows) {
  int told = 0;
  const NotificationCenter::Token tokens[] = {
      center().addObserver("T", [](const Notification&) { throw std::runtime_error("x"); }),
      center().addObserver("T", [&told](const Notification&) { ++told; })};
  for (int posts = 0; posts < 2; ++posts) {
    EXPECT_NO_THROW(center().post("T"));
    EXPECT_EQ(told, 1);
    center().removeObserver(tokens[1]);
  }
  center().removeObserver(tokens[0]);
}

TEST(NotificationCenterTest, CallsNobodyWhoseRemovalOnTheSameThreadIsDoneWhileOthersPost) {
  std::atomic<bool> done{false};
  std::thread posters([&done] {
    inThreads(2, [&done](unsigned) {
      while (!done) center().post("C");
    });
  });
  std::atomic<int> told{0};
  for (int i = 0; i < 300 || told == 0; ++i) {
    // Shared, since a call may still be running on another thread.
    const auto calls = std::make_shared<std::atomic<int>>(0);
    const auto token = center().addObserver("C", [calls, &told](const Notification&) {
      ++*calls;
      ++told;
    });
    center().removeObserver(token);
  }
  done = true;
  posters.join();
  EXPECT_GT(told, 0);
}

}  // namespace
