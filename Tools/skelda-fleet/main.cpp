// skelda-fleet: what many agents do to a server, simulated, or done to one.

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "Platform/Base/Log.h"
#include "Tools/skelda-fleet/FleetLoad.h"
#include "Tools/skelda-fleet/FleetSimulation.h"
#include "Tools/skelda-fleet/FleetTables.h"

using namespace skelda::fleet;

namespace {

constexpr double kMostMiB = 4096;

double inSeconds(Instant instant) {
  return static_cast<double>(instant.count()) / 1e6;
}

double mostMemoryMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

void describe(CLI::App& app, Scenario& scenario) {
  static const std::map<std::string, Trouble> kTroubles{{"none", Trouble::none},
                                                        {"refused", Trouble::refused},
                                                        {"silent", Trouble::silent},
                                                        {"503", Trouble::status503},
                                                        {"429", Trouble::status429},
                                                        {"reset", Trouble::reset},
                                                        {"network", Trouble::network},
                                                        {"one-key", Trouble::oneKey},
                                                        {"clock-skew", Trouble::clockSkew},
                                                        {"disk", Trouble::disk}};
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
        ->default_str(fmt::format("{:.4g}", inSeconds(target) / 60));
  };
  app.add_option("--devices", scenario.devices, "How many")
      ->check(CLI::Range(1u, 10'000'000u))
      ->capture_default_str();
  app.add_option("--trouble", scenario.trouble,
                 "none, refused, silent, 503, 429, reset, network, one-key, clock-skew or disk")
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
  app.add_option("--longest-wait", scenario.longestWait,
                 "Seconds beyond which a server that sheds answers 503")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--refusal-cost", scenario.refusalCost,
                 "What refusing a log costs, of what taking it does")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  app.add_option("--following", scenario.following,
                 "Share of the devices that are told when there is a network again")
      ->check(CLI::Range(0.0, 1.0))
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
  fmt::print("  in the trouble, at most    {}\n", figures.peakInTrouble);
  fmt::print("  after it, at most          {}\n", figures.peak);
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

// -- Load

struct LoadChoices {
  FleetLoad::Options load;
  std::string to;
  std::vector<std::string> bodies;
  std::size_t bytes = 0;
  std::string run;
  bool newConnections = false;
  bool json = false;
};

void describe(CLI::App& app, LoadChoices& choices) {
  auto& load = choices.load;
  load.requests.timeOut = std::chrono::seconds(20);
  if (const char* authority = std::getenv("SSL_CERT_FILE")) load.requests.authority = authority;
  app.add_option("--to", choices.to, "https://HOST:PORT[,HOST:PORT...], each a collector")
      ->required();
  app.add_option("--bodies", choices.bodies, "Recorded frame logs: files and folders")->required();
  app.add_option("--devices", load.devices, "How many")
      ->check(CLI::Range(1u, 10'000'000u))
      ->capture_default_str();
  app.add_option("--seconds", load.seconds, "How long there are new logs")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--drain", load.drainSeconds, "Seconds for what waits then, at most")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--rate", load.rate, "Logs a second; 0 is as fast as they are taken")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  app.add_option("--bytes", choices.bytes, "Repeat the records of a log until it has so many")
      ->capture_default_str();
  app.add_option("--connections", load.requests.connections, "Requests at a time, at most")
      ->check(CLI::Range(1u, 100'000u))
      ->capture_default_str();
  app.add_flag("--new-connections", choices.newConnections,
               "A connection, and its handshake, for each request");
  app.add_option("--api-key", load.apiKeys, "Of the devices, in turn; may be repeated")
      ->default_str("LOAD");
  app.add_option("--authority", load.requests.authority,
                 "Who signed the collectors' certificates, in PEM; else SSL_CERT_FILE says");
  app.add_option("--ledger", load.ledger,
                 "A file, appended to: a line for each log that was taken, with its SHA-256, its "
                 "bytes, the device and its counter");
  app.add_option("--run", choices.run, "Names the devices; another name, other devices");
  app.add_flag("--json", choices.json, "The report as JSON");
}

std::vector<std::string> urlsOf(const std::string& to) {
  const auto scheme = to.find("://");
  if (scheme == std::string::npos) throw std::invalid_argument("--to " + to + ": no https://");
  std::vector<std::string> urls;
  for (std::size_t begin = scheme + 3; begin <= to.size();) {
    const auto end = std::min(to.find(',', begin), to.size());
    urls.push_back(to.substr(0, scheme + 3) + to.substr(begin, end - begin) + "/v1/skd.do");
    begin = end + 1;
  }
  return urls;
}

std::atomic<bool> isToEnd = false;
static_assert(std::atomic<bool>::is_always_lock_free);

int load(LoadChoices& choices) {
  skelda::platform::Log::setSink({});  // the writer of frames would tell what it does
  signal(SIGPIPE, SIG_IGN);
  for (const int ends : {SIGINT, SIGTERM}) signal(ends, [](int) { isToEnd = true; });
  choices.load.requests.keepsConnections = !choices.newConnections;
  choices.load.urls = urlsOf(choices.to);
  if (choices.load.apiKeys.empty()) choices.load.apiKeys = {"LOAD"};
  const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  if (choices.run.empty()) choices.run = fmt::format("{} {}", now, getpid());
  LoadBodies bodies(choices.bodies, choices.bytes, choices.run, now);
  FleetLoad fleet(choices.load, bodies);
  fleet.run([] { return isToEnd.load(); });
  fmt::print("{}", choices.json ? fleet.report().dump() + "\n" : fleet.text());
  return fleet.isAllTaken() ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"What many agents do to a server.", "skelda-fleet"};
  app.require_subcommand(1);
  app.set_help_flag();
  app.set_help_all_flag("-h,--help", "Print this help message and exit");
  Scenario scenario;
  CLI::App& simulation = *app.add_subcommand(
      "simulate", "Many devices, a network and a server over a simulated clock");
  describe(simulation, scenario);
  CLI::App& tables =
      *app.add_subcommand("table", "A table of docs/fleet.md, from many simulations");
  std::string table;
  std::vector<std::uint32_t> devices;
  tables.add_option("name", table, "Which one")
      ->required()
      ->check(CLI::IsMember(FleetTables::names()));
  tables.add_option("--devices", devices, "How many, instead of those that the document has");
  LoadChoices choices;
  CLI::App& loading = *app.add_subcommand("load", "Many devices that send to real collectors");
  describe(loading, choices);
  CLI11_PARSE(app, argc, argv);
  if (loading.parsed()) {
    try {
      return load(choices);
    } catch (const std::exception& error) {
      fmt::print(stderr, "skelda-fleet: {}\n", error.what());
      return 1;
    }
  }
  if (simulation.parsed()) return simulate(scenario);
  FleetTables::print(table, devices, [](const std::string& line) {
    fmt::print("{}\n", line);
    std::fflush(stdout);
  });
  return 0;
}
