// skelda-frames, run as a process on logs made for it.

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

using ::testing::EndsWith, ::testing::HasSubstr, ::testing::StartsWith;

namespace {

struct Outcome {
  int exit;
  std::string out, error;
};

std::string event(std::string_view name, std::string_view parameters = "{}") {
  return frameBytes(1, 134,
                    fmt::format(R"({{"sk.event.name":"{}","sk.event.user.parameters":{}}})",
                                base64Encoded(name), parameters));
}

std::string sessionId(std::int64_t start) {
  return frameBytes(1, 128, "{\"sk.session.id\":" + std::to_string(start) + "}");
}

std::string withCrc(std::string bytes, std::uint32_t flaw = 0) {
  const auto crc =
      static_cast<std::uint32_t>(SkeldaUtil::dataChecksum(std::string_view(bytes))) ^ flaw;
  for (unsigned i = 0; i < 4; ++i) bytes += static_cast<char>(crc >> (8 * i));
  return bytes;
}

const std::string kWithCrc = withCrc(frameBytes(0, 134, "{}"));
const std::string kCounter = frameBytes(1, 2, R"({"sk.frame.log.counter":1})");

class SkeldaFramesTool : public ::testing::Test {
 protected:
  /// Runs a line of the shell to its end, in which the tool is `frames`.
  Outcome run(const std::string& line) {
    // What a sanitizer holds back of freed memory is not the tool's.
    writeFile(folder_ / "line", "cd '" + folder_.path() +
                                    "' && exec </dev/null >out 2>error\n"
                                    "export ASAN_OPTIONS=quarantine_size_mb=1\n"
                                    "frames() { \"${SKELDA_FRAMES:-" SKELDA_FRAMES_PROGRAM
                                    "}\" \"$@\"; }\n" +
                                    line);
    const int status = std::system(("bash '" + (folder_ / "line") + "'").c_str());
    const int exit = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return {exit, readFile(folder_ / "out"), readFile(folder_ / "error")};
  }
  Outcome runOn(const std::string& log, const std::string& options = {}) {
    writeFile(folder_ / "log", log);
    return run("frames log " + options);
  }

  TemporaryDirectory folder_;
};

}  // namespace

TEST_F(SkeldaFramesTool, ShowsOneLineAFrame) {
  const auto shown = runOn(kCounter + kWithCrc + withCrc(frameBytes(0x80, 999, "{}", -1, -2), 1));
  EXPECT_EQ(shown.exit, 0);
  EXPECT_EQ(shown.error, "");
  EXPECT_EQ(shown.out,
            "0 v1 2 SkeldaStreamCounter 2020-09-13T12:26:40.000Z up=5000ms len=26 crc=- "
            "{\"sk.frame.log.counter\":1}\n"
            "50 v0 134 SkeldaStreamEvent 2020-09-13T12:26:40.000Z up=5000ms len=2 "
            "crc=ee4b299f:right {}\n"
            "80 v0be 999 - 1969-12-31T23:59:59.999Z up=-2ms len=2 crc=02f545ff:wrong {}\n");
  const auto plain =
      runOn(frameBytes(1, 134, R"({"sk.event.name":"TGFw"})", 253402300799999), "--plain").out;
  EXPECT_THAT(plain, HasSubstr("9999-12-31T23:59:59.999Z"));
  EXPECT_THAT(plain, EndsWith("{\"sk.event.name\":\"Lap\"}\n"));
}

TEST_F(SkeldaFramesTool, ShowsNoControlCharacterAsItIs) {
  const auto shown = runOn(frameBytes(1, 2, "\x1b[2J\n\x7f\xc2\x9b\xe2\x80\xae\xff ok \xc3\xa9"));
  EXPECT_THAT(shown.out, EndsWith("\\u001b[2J\\u000a\\u007f\\u009b\\u202e\\xff ok \xc3\xa9\n"));
  const auto json = runOn(event("a\u009b", "{\"k\":\"\x7f\"}"), "--json --plain");
  EXPECT_THAT(json.out, HasSubstr(R"("sk.event.name":"a\u009b")"));
  EXPECT_THAT(json.out, HasSubstr(R"({"k":"\u007f"})"));
  ASSERT_TRUE(readJSON(json.out));
}

TEST_F(SkeldaFramesTool, NamesTheOffsetWhereALogStopsBeingWhole) {
  const std::string torn = event("name").substr(0, 40);
  const std::pair<std::string, std::string> cases[] = {
      {"", "whole, 0 frames, 0 bytes"},
      {kCounter + event("a"), "whole, 2 frames, 128 bytes"},
      {kCounter + kWithCrc, "whole, 2 frames, 80 bytes"},
      {kCounter + torn, "offset 50: torn frame: 40 of 82 bytes"},
      {kCounter + "\1", "offset 50: torn frame: 1 of 24 bytes"},
      {kCounter + kWithCrc.substr(0, 28), "offset 50: torn frame: 28 of 30 bytes"},
      {kCounter + std::string(100, '\xAA'),
       "offset 50: damaged frame: first byte 0xaa: bits 4 to 6 must be 0"},
      {kCounter + frameBytes(1, 134, ""), "offset 50: damaged frame: a payload of length 0"},
      {kCounter + frameBytes(1, 9, "{}"), "offset 50: damaged frame: unknown frame type 9"},
      {kCounter + frameBytes(1, 134, "{"),
       "offset 50: damaged frame: the payload is no JSON object"},
      {withCrc(frameBytes(0, 134, "{}"), 1) + kCounter, "offset 0: damaged frame: CRC "},
  };
  for (const auto& [log, verdict] : cases) {
    const auto checked = runOn(log, "--verify");
    EXPECT_EQ(checked.exit, verdict.starts_with("whole") ? 0 : 1) << verdict;
    EXPECT_THAT(checked.out, StartsWith("log: " + verdict));
    EXPECT_EQ(checked.error, "");
  }
  // Without --verify the whole frames are shown, and the rest is a word on standard error.
  const auto shown = runOn(kCounter + torn);
  EXPECT_EQ(shown.exit, 0);
  EXPECT_EQ(std::count(shown.out.begin(), shown.out.end(), '\n'), 1);
  EXPECT_THAT(shown.error, HasSubstr("offset 50: torn frame: 40 of 82 bytes"));
}

TEST_F(SkeldaFramesTool, CountsFramesSessionsAndEventsByName) {
  const auto counted =
      runOn(kCounter + sessionId(1) + event("Lap") + event("Run") + event("Lap") + sessionId(1) +
                sessionId(2) + frameBytes(1, 128, "{}") + frameBytes(1, 134, "?") +
                frameBytes(1, 134, R"({"sk.event.name":7})"),
            "--summary");
  EXPECT_EQ(counted.out,
            "frames 10\npayload bytes 267\n"
            "from 2020-09-13T12:26:40.000Z\nto 2020-09-13T12:26:40.000Z\n"
            "sessions 2\n"
            "type 2 SkeldaStreamCounter 1\n"
            "type 128 SkeldaStreamSessionId 4\n"
            "type 134 SkeldaStreamEvent 5\n"
            "events 5\nevent 2 Lap\nevent 1 Run\nevent 2 (other names)\n");
}

TEST_F(SkeldaFramesTool, SaysByItsExitStatusWhatWentWrong) {
  EXPECT_EQ(run("frames --help").exit, 0);
  EXPECT_EQ(run("frames --json --summary").exit, 2);
  EXPECT_EQ(run("frames --no-such-option").exit, 2);
  const auto absent = run("frames absent");
  EXPECT_EQ(absent.exit, 3);
  EXPECT_THAT(absent.error, HasSubstr("absent: No such file or directory"));

  // More than a pipe or a buffer holds.
  writeFile(folder_ / "log", frameBytes(1, 2, std::string(std::size_t{1} << 20, 'x')));
  const auto full = run("frames log >/dev/full");
  EXPECT_EQ(full.exit, 4);
  EXPECT_THAT(full.error, HasSubstr("No space left on device"));
  // A reader that has gone, as `head` does, is no reason for words.
  const auto left = run("frames <log | head -c 1; exit ${PIPESTATUS[0]}");
  EXPECT_EQ(left.exit, 4);
  EXPECT_EQ(left.error, "");
}

TEST_F(SkeldaFramesTool, ReadsAnyLengthInConstantMemory) {
  // Frames of 64 KiB, then one that announces 4 GiB and never comes.
  std::string endless = frameBytes(1, 134, "x");
  endless.replace(20, 4, "\xC0\xFF\xFF\xFF");
  writeFile(folder_ / "log", frameBytes(1, 2, std::string(65536 - 24, ' ')));
  writeFile(folder_ / "endless", endless);
  const auto counted =
      run("logs() { yes log | head -n \"$1\" | xargs cat; }\n"
          "{ logs 4000; cat endless; logs 3000; } | frames --summary");
  EXPECT_EQ(counted.exit, 0);
  EXPECT_THAT(counted.out, StartsWith("frames 4000\n"));
  EXPECT_THAT(counted.error,
              HasSubstr("-: offset 262144000: torn frame: 196608025 of 4294967256 bytes"));
  rusage ofAnyRun{};
  ASSERT_EQ(::getrusage(RUSAGE_CHILDREN, &ofAnyRun), 0);
  EXPECT_LT(ofAnyRun.ru_maxrss, 128 * 1024);
}
