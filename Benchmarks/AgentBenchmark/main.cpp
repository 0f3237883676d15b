// Measures the whole agent: one measurement a process, one JSON object on standard output.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "Benchmarks/AgentBenchmark/Measurements.h"
#include "Examples/MorningRun/QuietFolder.h"
#include "Skelda_Watch/SkeldaWatch.h"

using namespace std::chrono_literals;

namespace measure {

const SkeldaValue kName = "LapDone";

SkeldaValue fiveParameters(std::uint64_t number) {
  return {
      {"lap", number}, {"pace", "5:10"}, {"heartRate", 151}, {"metres", 1003.5}, {"auto", true}};
}

void logEvent(std::uint64_t number) {
  SkeldaWatch::logWatchEvent(kName, fiveParameters(number));
}

std::filesystem::path storageFolder() {
  return std::filesystem::path(std::getenv("XDG_DATA_HOME")) / BUNDLE_IDENTIFIER;
}

bool rest() {
  return QuietFolder(storageFolder()).wait(1s, 120s);
}

}  // namespace measure

int main(int argc, char** argv) {
  CLI::App app{"Measures the whole agent, one measurement a process.", "AgentBenchmark"};
  app.require_subcommand(1);
  unsigned threads = 1;
  bool settled = false;
  std::uint64_t events = 1000;
  std::string folder;
  std::string scratch;
  bool withTransfer = false;
  std::function<measure::Json()> measurement;
  const auto add = [&](const char* name, std::function<measure::Json()> run) {
    auto* command = app.add_subcommand(name);
    command->callback([&measurement, run = std::move(run)] { measurement = run; });
    return command;
  };
  auto* call = add("call", [&] { return measure::callCost(threads, events); });
  call->add_option("--threads", threads);
  call->add_option("--events", events);
  add("first", [] { return measure::firstCall(); });
  add("flood", [&] { return measure::flood(events); })->add_option("--events", events);
  auto* pipeline = add("pipeline", [&] { return measure::pipeline(events, folder); });
  pipeline->add_option("--events", events);
  pipeline->add_option("--keep-closed", folder);
  auto* bare = add("bare", [&] { return measure::bareLoop(folder, scratch, withTransfer); });
  bare->add_option("--logs", folder)->required();
  bare->add_option("--scratch", scratch)->required();
  bare->add_flag("--with-transfer", withTransfer);
  add("resources", [&] { return measure::resources(events); })->add_option("--events", events);
  auto* kill =
      add("kill", [&]() -> measure::Json { measure::burstAndKill(events, settled, folder); });
  kill->add_option("--events", events);
  kill->add_option("--keep-closed", folder);
  kill->add_flag("--settled", settled);
  add("burst", [&] { return measure::burstAndRest(events); })->add_option("--events", events);
  CLI11_PARSE(app, argc, argv);
  // Nobody listens there: what is measured is the agent, not a network.
  SkeldaWatch::setServerURL("http://127.0.0.1:9/v1/skd.do");
  try {
    std::printf("%s\n", measurement().dump().c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "AgentBenchmark: %s\n", error.what());
    return 1;
  }
  return 0;
}
