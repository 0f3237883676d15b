#include "Platform/Dispatch/Once.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Platform/Base/Log.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

TEST(OnceTest, OneCallerRunsTheBodyAndTheOthersSeeWhatItDid) {
  for (int round = 0; round < 50; ++round) {
    Once once;
    int made = 0;
    std::atomic<int> ran{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&] {
        if (once([&] { ++made; })) ++ran;
        EXPECT_EQ(made, 1);
      });
    }
    for (auto& caller : callers) caller.join();
    EXPECT_EQ(ran, 1);
  }
}

TEST(OnceTest, ABodyThatThrowsCountsAsDone) {
  Once once;
  EXPECT_THROW(once([] { throw std::runtime_error("thrown"); }), std::runtime_error);
  EXPECT_TRUE(once.isDone());
  EXPECT_FALSE(once([] { FAIL(); }));
}

TEST(OnceTest, ABodyThatCallsItsOwnGuardGoesOnWithALogLine) {
  std::atomic<int> lines{0};
  Log::setSink([&](std::string_view) { ++lines; });
  Once once;
  bool inner = true;
  EXPECT_TRUE(once([&] { inner = once([] { FAIL(); }); }));
  Log::resetSink();
  EXPECT_FALSE(inner);
  EXPECT_EQ(lines, 1);
}

TEST(OnceTest, WaitingForTheBodyLetsThePoolGrow) {
  // The body needs a thread of the pool while many of them wait for it.
  Once once;
  Happening begun;
  Happening all(33);
  Queue::global()->async([&] {
    once([&] {
      begun.happen();
      Happening done;
      for (int i = 0; i < 32; ++i) {
        Queue::global()->async([&] {
          once([] { FAIL(); });
          EXPECT_TRUE(once.isDone());
          all.happen();
        });
      }
      Queue::global()->async([&] { done.happen(); });
      EXPECT_TRUE(done.cameInTime());
    });
    all.happen();
  });
  EXPECT_TRUE(begun.cameInTime());
  EXPECT_TRUE(all.cameInTime());
}

}  // namespace
}  // namespace skelda::platform
