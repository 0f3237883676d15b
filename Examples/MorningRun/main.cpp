// Morning Run: the extension of a watch application that replays a recorded run through the agent.

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

#include "Examples/MorningRun/Choices.h"
#include "Examples/MorningRun/QuietFolder.h"
#include "Examples/MorningRun/Recording.h"
#include "Examples/MorningRun/Replay.h"
#include "Skelda_Watch/SkeldaOptional.h"
#include "Skelda_Watch/SkeldaWatch.h"

namespace fs = std::filesystem;

namespace {

struct Options {
  Replay::Options replay{.speed = 150};
  std::string recording;
  std::string server;
  std::string phone;
  bool followNetwork = false;
  bool choices = false;
  double linger = 10;
  double rest = 1;
};

fs::path besideThisProgram(const char* name) {
  return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

/// Where the agent keeps this application's files.
fs::path storageFolder() {
  const char* data = std::getenv("XDG_DATA_HOME");
  const char* home = std::getenv("HOME");
  const fs::path base =
      data && *data ? fs::path(data) : fs::path(home ? home : "/") / ".local" / "share";
  return base / MORNING_RUN_BUNDLE_IDENTIFIER;
}

void describe(CLI::App& app, Options& options) {
  app.add_option("--events", options.replay.events,
                 "Events to log; the recording starts again at its end. Default: one pass");
  app.add_option("--rate", options.replay.rate, "Events a second, instead of the recorded times");
  app.add_option("--speed", options.replay.speed,
                 "How much faster than recorded; 0 waits for nothing")
      ->capture_default_str();
  app.add_option("--threads", options.replay.threads, "Threads that log")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  app.add_option("--recording", options.recording, "Another recording than the bundle's own");
  app.add_option("--server", options.server, "The address that logs are uploaded to");
  app.add_option("--phone", options.phone, "Socket on which to wait for the paired phone");
  app.add_flag("--follow-network", options.followNetwork,
               "Follow the machine's links and routes: what waits goes out when they come back");
  app.add_flag("--choices", options.choices,
               "Tell the agent who runs, properties, consent and a purchase, and at the end an "
               "opt-out and a request to delete");
  app.add_option("--linger", options.linger,
                 "Seconds to wait at most, at the end, for the files on disk to come to rest")
      ->capture_default_str();
  app.add_option("--rest", options.rest, "Seconds without a change that count as rest")
      ->capture_default_str();
}

/// What everybody asks first: why nothing has come to the server.
void sayHowLogsGetAway(const Options& options) {
  if (options.phone.empty()) {
    std::puts(
        "Logs are uploaded once a phone has given its identifiers: --phone SOCKET waits for it.");
  } else {
    std::printf("Waiting for a phone; to stand in for one: skelda-phone %s\n",
                options.phone.c_str());
  }
  if (options.server.empty()) std::puts("Nothing leaves this machine without --server ADDRESS.");
}

int run(const Options& options) {
  const auto recording =
      Recording::read(options.recording.empty() ? besideThisProgram("morning-run.csv").string()
                                                : options.recording);
  sayHowLogsGetAway(options);
  if (options.followNetwork) SkeldaReachabilityLink();
  if (!options.phone.empty()) SkeldaListenForPhone(options.phone);
  if (!options.server.empty()) SkeldaWatch::setServerURL(options.server);

  unsigned chosen = options.choices ? Choices::atTheStart() : 0;
  const auto counts = Replay(recording, options.replay).run();
  if (options.choices) chosen += Choices::atTheEnd();
  std::printf("logged in %.1f s\n", counts.took.count());
  std::fflush(stdout);

  const auto milliseconds = [](double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
  };
  const bool rested =
      options.linger <= 0 ||
      QuietFolder(storageFolder()).wait(milliseconds(options.rest), milliseconds(options.linger));
  std::printf("files on disk: %s\naccepted: %llu\nrefused: %llu\n",
              options.linger <= 0 ? "not waited for"
              : rested            ? "at rest"
                                  : "still changing",
              static_cast<unsigned long long>(counts.accepted + chosen),
              static_cast<unsigned long long>(counts.refused));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Replays a recorded morning run through the analytics agent.", "MorningRun"};
  Options options;
  describe(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    return run(options);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "MorningRun: %s\n", error.what());
    return 1;
  }
}
