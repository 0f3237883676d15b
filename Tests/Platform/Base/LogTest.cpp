#include "Platform/Base/Log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Platform/Base/LogFormat.h"
#include "Platform/Platform.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using platform::Log;
using skelda::testing::readFile;

class LogTest : public testing::Test {
 protected:
  ~LogTest() override {
    environment_.set("SKELDA_LOG", std::nullopt);
    Log::resetSink();
  }

  void select(const std::string& setting) {
    environment_.set("SKELDA_LOG", setting);
    Log::resetSink();
  }

  skelda::testing::TemporaryDirectory folder_;
  skelda::testing::ScopedEnvironment environment_;
};

TEST_F(LogTest, AppendsOnePrefixedLineForEveryRecordToAFileOfItsOwn) {
  const std::string path = folder_ / "agent.log";
  select(path);
  Log::write("first\nrecord\twith \x1b[31m\xC2\x85 controls \xC3\xA5");
  SKELDA_PLATFORM_LOG("{}: message = {}", "-[Class method:]", 7);
  select(path);
  Log::write("appended");
  std::istringstream lines(readFile(path));
  const std::string texts[] = {
      R"(first\\nrecord\\twith \\x1b\[31m\\xc2\\x85 controls å)",
      R"(-\[Class method:\]: message = 7)",
      "appended",
  };
  std::string line;
  for (const std::string& text : texts) {
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_THAT(line, testing::MatchesRegex(
                          "[0-9]{4}-[0-9]{2}-[0-9]{2}T([0-9]{2}:){2}[0-9]{2}\\.[0-9]{3}Z \\[" +
                          std::to_string(::getpid()) + "\\] " + text));
  }
  EXPECT_FALSE(std::getline(lines, line));
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(LogTest, EvaluatesNothingWhileItIsOff) {
  select("off");
  int evaluated = 0;
  SKELDA_PLATFORM_LOG("{}", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  EXPECT_FALSE(Log::enabled());
  Log::setSink([](std::string_view) {});
  EXPECT_TRUE(Log::enabled());
  Log::setSink(nullptr);
  EXPECT_FALSE(Log::enabled());
}

TEST_F(LogTest, ASinkMayWriteThrowAndReplaceItself) {
  std::vector<std::string> lines;
  Log::setSink([&lines](std::string_view line) {
    EXPECT_TRUE(Log::insideSink());
    lines.emplace_back(line);
    Log::write("from inside is dropped");
    if (line == "two\\r") Log::setSink([&lines](std::string_view) { lines.emplace_back("new"); });
    throw std::runtime_error("sink");
  });
  for (const char* line : {"one", "two\r", "three"}) Log::write(line);
  EXPECT_FALSE(Log::insideSink());
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two\\r", "new"}));
}

TEST_F(LogTest, CallsNoSinkAnyMoreOnceItIsReplaced) {
  Log::setSink(nullptr);
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  for (int i = 0; i < 3; ++i)
    writers.emplace_back([&done] {
      while (!done) Log::write("line");
    });
  std::atomic<int> lines{0};
  for (int i = 0; i < 200; ++i) {
    std::atomic<bool> alive{true};
    Log::setSink([&alive, &lines](std::string_view) {
      EXPECT_TRUE(alive);
      ++lines;
    });
    if (i == 0)
      while (lines == 0) std::this_thread::yield();
    Log::setSink(nullptr);
    alive = false;
  }
  done = true;
  for (std::thread& writer : writers) writer.join();
  EXPECT_GT(lines, 0);
}

TEST_F(LogTest, KeepsLinesOfManyThreadsWhole) {
  const std::string path = folder_ / "agent.log";
  select(path);
  constexpr int kLines = 200;
  std::vector<std::thread> writers;
  for (int i = 0; i < 4; ++i)
    writers.emplace_back([i] {
      for (int line = 0; line < kLines; ++line)
        Log::write(std::string(300, static_cast<char>('a' + i)));
    });
  for (std::thread& writer : writers) writer.join();
  std::istringstream lines(readFile(path));
  std::string line;
  int whole = 0;
  while (std::getline(lines, line)) {
    const std::string text = line.substr(line.find("] ") + 2);
    EXPECT_EQ(text, std::string(300, text[0]));
    ++whole;
  }
  EXPECT_EQ(whole, 4 * kLines);
}

TEST_F(LogTest, OutlivesAReaderThatHasGoneAway) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const int saved = ::dup(STDERR_FILENO);
  ::dup2(ends[1], STDERR_FILENO);
  select("stderr");
  Log::write("read");
  char text[64] = {};
  const ssize_t length = ::read(ends[0], text, sizeof text);
  ::close(ends[0]);
  Log::write("not read");  // SIGPIPE would end the process here
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  ::close(ends[1]);
  EXPECT_TRUE(std::string_view(text, static_cast<std::size_t>(length)).ends_with("read\n"));
}

}  // namespace
