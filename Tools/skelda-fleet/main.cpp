// skelda-fleet: what many agents do to a server, simulated, or done to one.

#include <sys/resource.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>

#include "Tools/skelda-fleet/FleetSimulation.h"

using namespace skelda::fleet;

namespace {

constexpr double kMostMiB = 4096;

double inSeconds(Instant instant) {
  return static_cast<double>(instant.count()) / 1e6;
}

/// "1 h 5 min", "3.2 s"; "-" for what did not come.
std::string durationText(const std::optional<Instant>& duration) {
  if (!duration) return "-";
  const double seconds = inSeconds(*duration);
  if (seconds < 120) return fmt::format("{:.1f} s", seconds);
  if (seconds < 7200) return fmt::format("{:.0f} min", seconds / 60);
  return fmt::format("{:.1f} h", seconds / 3600);
}

double mostMemoryMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

void describe(CLI::App& app, Scenario& scenario) {
  static const std::map<std::string, Trouble> kTroubles{
      {"none", Trouble::none},           {"refused", Trouble::refused},
      {"silent", Trouble::silent},       {"503", Trouble::status503},
      {"429", Trouble::status429},       {"reset", Trouble::reset},
      {"network", Trouble::network},     {"one-key", Trouble::oneKey},
      {"clock-skew", Trouble::clockSkew}};
  static const std::map<std::string, Admission> kAdmissions{
      {"queue", Admission::queue}, {"shed", Admission::shed}, {"by-key", Admission::byKey}};
  const auto duration = [&app](const char* name, Instant& target, const char* help) {
    app.add_option_function<double>(
           name,
           [&target](double minutes) {
             target = Instant(static_cast<std::int64_t>(minutes * 60e6));
           },
           help)
        ->check(CLI::PositiveNumber)
        ->default_str(fmt::format("{:.3g}", inSeconds(target) / 60));
  };
  app.add_option("--devices", scenario.devices, "How many")
      ->check(CLI::Range(1u, 10'000'000u))
      ->capture_default_str();
  app.add_option("--trouble", scenario.trouble,
                 "none, refused, silent, 503, 429, reset, network, one-key or clock-skew")
      ->transform(CLI::CheckedTransformer(kTroubles));
  app.add_option("--admission", scenario.admission, "queue, shed or by-key")
      ->transform(CLI::CheckedTransformer(kAdmissions));
  duration("--every", scenario.every, "Minutes between two logs of a device, in the mean");
  duration("--trouble-minutes", scenario.length, "How long the trouble lasts");
  duration("--after", scenario.after, "Minutes to go on after it, at most");
  duration("--spread", scenario.spread, "Minutes within which the devices have a network again");
  app.add_option("--capacity", scenario.capacity, "Logs a second that the server takes")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--keys", scenario.keys, "API keys that the devices share")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--restarts", scenario.restarts, "So often a log follows a start of its process")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  app.add_option("--seed", scenario.seed, "Of what is drawn")->capture_default_str();
}

int simulate(const Scenario& scenario) {
  const auto began = std::chrono::steady_clock::now();
  const Figures figures = FleetSimulation(scenario).run();
  const double took =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  const double speed = inSeconds(figures.simulated) / took;
  fmt::print("devices                      {}\n", scenario.devices);
  fmt::print("logs                         {}\n", figures.logs);
  fmt::print("requests                     {}\n", figures.requests);
  fmt::print("  stored / repeats           {} / {}\n", figures.taken, figures.repeats);
  fmt::print("  refused / timed out        {} / {}\n", figures.refusals, figures.timeOuts);
  fmt::print("requests a second, usual     {:.1f}\n", figures.requestsASecondBefore);
  fmt::print("requests a second, peak      {}\n", figures.peak);
  fmt::print("waiting when it was over     {}\n", figures.waitedAtReturn);
  fmt::print("  half / 99 % / all after    {} / {} / {}\n", durationText(figures.half),
             durationText(figures.most), durationText(figures.all));
  fmt::print("  still waiting at the end   {}\n", figures.wantingAtEnd);
  fmt::print("lost: over fifty / in folder {} / {}\n", figures.lostOverLimit, figures.lostInFolder);
  fmt::print("  the first after            {}\n", durationText(figures.firstLoss));
  if (figures.othersRequests > 0) {
    fmt::print("other keys: requests / refused / longest wait  {} / {} / {}\n",
               figures.othersRequests, figures.othersRefusals,
               durationText(figures.othersLongestWait));
  }
  fmt::print("simulated {:.1f} h in {:.1f} s, {:.0f} times real time, {:.0f} MiB\n",
             inSeconds(figures.simulated) / 3600, took, speed, mostMemoryMiB());
  return speed > 1 && mostMemoryMiB() <= kMostMiB ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"What many agents do to a server.", "skelda-fleet"};
  app.require_subcommand(1);
  Scenario scenario;
  CLI::App& simulation = *app.add_subcommand(
      "simulate", "Many devices, a network and a server over a simulated clock");
  describe(simulation, scenario);
  CLI11_PARSE(app, argc, argv);
  return simulate(scenario);
}
