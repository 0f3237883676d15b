#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <future>

#include "Platform/Base/LogDestination.h"
#include "Platform/Base/LogFormat.h"
#include "Tests/Support/Testing.h"

namespace {

/// Something else as standard error, for as long as it lives.
class StandardError {
 public:
  explicit StandardError(int descriptor) { ::dup2(descriptor, STDERR_FILENO); }
  explicit StandardError(std::string path) : path_(std::move(path)) {
    const int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    ::dup2(file, STDERR_FILENO);
    ::close(file);
  }
  ~StandardError() {
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }
  std::string linesWithoutPrefix(std::string_view butFor) const {
    std::ifstream lines(path_);
    std::string result;
    for (std::string line; std::getline(lines, line);)
      if (line.find(butFor) == line.npos) result += line.substr(line.find("] ") + 2) + '\n';
    return result;
  }

 private:
  const int saved_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
  std::string path_;
};

/// The next line, empty where there is none.
std::string lineOf(int descriptor) {
  std::string line;
  for (char c = 0; ::read(descriptor, &c, 1) == 1 && c != '\n';) line += c;
  return line;
}

struct LogTest : testing::Test {
  ~LogTest() override { select({}); }
  void select(const std::optional<std::string>& setting) {
    environment_.set("SKELDA_LOG", setting);
    Log::resetSink();
  }

  TemporaryDirectory folder_;
  ScopedEnvironment environment_;
};

TEST_F(LogTest, AppendsOnePrefixedLineForEveryRecordToAFileOfItsOwn) {
  const std::string path = folder_ / "agent.log";
  select(path);
  Log::write("first\nrecord\twith \x1b[31m\xC2\x85 controls \xC3\xA5");
  SKELDA_PLATFORM_LOG("{}: message = {}", "-[Class method:]", 7);
  select(path);
  Log::write("appended");
  std::istringstream lines(readFile(path));
  const char* const texts[] = {R"(first\\nrecord\\twith \\x1b\[31m\\xc2\\x85 controls å)",
                               R"(-\[Class method:\]: message = 7)", "appended"};
  std::string line;
  for (const std::string text : texts) {
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_THAT(line, testing::MatchesRegex(
                          "[0-9]{4}-[0-9]{2}-[0-9]{2}T([0-9]{2}:){2}[0-9]{2}\\.[0-9]{3}Z \\[" +
                          std::to_string(::getpid()) + "\\] " + text));
  }
  EXPECT_FALSE(std::getline(lines, line));
  EXPECT_EQ(modeOf(path), 0600U);
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

TEST_F(LogTest, ShowsNoticesAloneUntilSomebodyAsks) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto showDetails = [] {
    ::setenv("SKELDA_LOG_VALUES", "1", 1);
    const bool values = Log::showsValues();  // before anything else is asked of the log
    ::unsetenv("SKELDA_LOG");
    Log::resetSink();
    Log::showDetails();
    Log::write("asked for by the host's settings");
    std::exit(values ? 0 : 1);
  };
  EXPECT_EXIT(showDetails(), testing::ExitedWithCode(0), "asked for by the host's settings");
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {std::nullopt, "notice\n"},     {"", "notice\n"},
      {"stderr", "detail\nnotice\n"}, {"off", ""},
      {folder_ / "elsewhere", ""},    {folder_ / "absent/log", "detail\nnotice\n"}};
  for (const auto& [setting, expected] : cases) {
    StandardError errors(folder_ / "stderr");
    select(setting);
    Log::write("detail");
    SKELDA_PLATFORM_NOTICE("{}", "notice");
    EXPECT_EQ(errors.linesWithoutPrefix("SKELDA_LOG"), expected) << setting.value_or("unset");
  }
  EXPECT_FALSE(Log::showsValues());
}

TEST_F(LogTest, ASinkMayWriteThrowAndReplaceItself) {
  Texts lines;
  Log::setSink([&lines](std::string_view line) {
    EXPECT_TRUE(Log::insideSink());
    lines.emplace_back(line);
    Log::write("from inside is dropped");
    EXPECT_FALSE(Log::flush(kPatience)) << "and does not wait for itself";
    if (line == "two\\r") Log::setSink([&lines](std::string_view) { lines.emplace_back("new"); });
    throw std::runtime_error("sink");
  });
  for (const char* line : {"one", "two\r", "three"}) Log::write(line);
  EXPECT_FALSE(Log::insideSink());
  Log::setSink(nullptr);
  EXPECT_EQ(lines, (Texts{"one", "two\\r", "new"}));
}

TEST_F(LogTest, CallsASinkInOrderAndNoMoreOnceItIsReplaced) {
  Log::setSink(nullptr);
  std::atomic<bool> done{false};
  std::thread writers([&done] {
    inThreads(3, [&done](unsigned) {
      for (int line = 0; !done; ++line) Log::write(std::to_string(line));
    });
  });
  int lines = 0;
  for (int i = 0; i < 30 || lines == 0; ++i) {
    std::atomic<bool> alive{true};
    std::atomic<int> inside{0};
    Log::setSink([&](std::string_view) {
      EXPECT_TRUE(alive);
      EXPECT_EQ(++inside, 1) << "one at a time";
      ++lines;
      --inside;
    });
    Log::setSink(nullptr);
    alive = false;
  }
  done = true;
  writers.join();
}

TEST_F(LogTest, NeverHoldsWhoSaysALineAndCountsWhatNobodyTook) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& setting : {std::string("stderr"), fifo}) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::optional<StandardError> errors;
    if (setting == fifo) {
      ::close(std::exchange(ends[0], ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)));
    } else {
      errors.emplace(ends[1]);
    }
    select(setting);
    ::close(ends[1]);
    constexpr int kLines = 20'000;
    const std::uint64_t droppedBefore = Log::droppedLines();
    auto saying = std::async(std::launch::async, [] {
      for (int line = 0; line < kLines; ++line) Log::write("line " + std::to_string(line));
    });
    EXPECT_EQ(saying.wait_for(kPatience), std::future_status::ready) << setting;
    const auto dropped = static_cast<int>(Log::droppedLines() - droppedBefore);
    EXPECT_GT(dropped, 0);
    // A reader that comes late gets what waited, in order, and then the number of the others.
    ::fcntl(ends[0], F_SETFL, 0);
    for (int count = 0; count < kLines - dropped; ++count)
      ASSERT_TRUE(lineOf(ends[0]).ends_with("] line " + std::to_string(count))) << count << setting;
    EXPECT_TRUE(Log::flush(kPatience));
    Log::write("afterwards");
    const auto said =
        fmt::format("{} lines of the log were dropped, since nobody took them", dropped);
    EXPECT_TRUE(lineOf(ends[0]).ends_with("Skelda: " + said));
    EXPECT_TRUE(lineOf(ends[0]).ends_with("afterwards"));
    ::close(ends[0]);
  }
}

TEST_F(LogTest, ASinkThatWaitsForALockHoldsNobody) {
  std::mutex hosts;
  Texts lines;
  Log::setSink([&](std::string_view line) {
    const std::lock_guard lock(hosts);
    lines.emplace_back(line);
  });
  {
    const std::lock_guard lock(hosts);
    Log::write("said while the host holds its lock");
    EXPECT_FALSE(Log::flush(1ms));
  }
  EXPECT_TRUE(Log::flush(kPatience));
  EXPECT_EQ(lines.size(), 1u);
}

TEST_F(LogTest, AHangingStandardErrorIsGivenUpForASink) {
  const std::string line(60'000, 'x');
  for (const bool isOffMeanwhile : {false, true}) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    StandardError errors(ends[1]);
    select("stderr");
    for (int i = 0; i < 3; ++i) Log::write(line);
    // The first line lies there and a piece of the second, its prefix at least.
    for (int lying = 0; lying < 61'000;) ASSERT_EQ(::ioctl(ends[0], FIONREAD, &lying), 0);
    if (isOffMeanwhile) select("off");
    LogCapture log;
    Log::write("to the sink");
    Texts lines = log.take();
    EXPECT_EQ(lines.back(), "to the sink");
    lines.pop_back();
    EXPECT_TRUE(!isOffMeanwhile || lines.empty()) << "said to nobody";
    for (const auto& each : lines) EXPECT_TRUE(each == line) << "no rest of one";
    for (const int end : ends) ::close(end);
  }
}

TEST_F(LogTest, TakesNoneOfTheStandardDescriptorsAndNoPlaceThatNobodyReads) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  StandardError errors(folder_ / "stderr");
  ::close(STDERR_FILENO);
  select(folder_ / "agent.log");
  Log::write("to the file");
  EXPECT_EQ(::open((folder_ / "stderr").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC), STDERR_FILENO);
  EXPECT_TRUE(readFile(folder_ / "agent.log").ends_with("to the file\n"));
  select(fifo);
  Log::write("to standard error");
  EXPECT_TRUE(readFile(folder_ / "stderr").ends_with("to standard error\n"));
  const char* const why = ": No such device or address: lines go to standard error\n";
  EXPECT_EQ(errors.linesWithoutPrefix("] to standard"), "Skelda: SKELDA_LOG: " + fifo + why);
}

TEST_F(LogTest, SpeaksToTheSystemsLogInItsWords) {
  const int log = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (folder_ / "log").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(log, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const auto destination = LogDestination::toSyslog(address.sun_path);
  const std::string text = destination->text({}, "one\nline");
  std::string_view rest(text);
  EXPECT_EQ(destination->writeNow(rest), LogDestination::Result::written);
  char received[256] = {};
  ASSERT_GT(::recv(log, received, sizeof received - 1, 0), 0);
  EXPECT_THAT(received, testing::MatchesRegex("<14>.*\\[[0-9]+\\]: one\\\\nline"));
  ::close(log);
  EXPECT_FALSE(destination->write(text));
}

TEST_F(LogTest, KeepsLinesOfManyThreadsWhole) {
  const std::string path = folder_ / "agent.log";
  select(path);
  constexpr int kLines = 200;
  inThreads(4, [](unsigned i) {
    for (int line = 0; line < kLines; ++line) Log::write(std::string(300, "abcd"[i]));
  });
  std::istringstream lines(readFile(path));
  int whole = 0;
  for (std::string line; std::getline(lines, line); ++whole)
    EXPECT_TRUE(line.ends_with("] " + std::string(300, line.back()))) << line;
  EXPECT_EQ(whole, 4 * kLines);
}

TEST_F(LogTest, OutlivesAReaderThatHasGoneAway) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  StandardError errors(ends[1]);
  ::close(ends[1]);
  select("stderr");
  Log::write("read");
  EXPECT_TRUE(lineOf(ends[0]).ends_with("read"));
  ::close(ends[0]);
  Log::write("not read");  // SIGPIPE would end the process here
}

}  // namespace
