// skelda-load: carries the logs of the collectors' stream into a database.

#include <fmt/format.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <string>

#include "Tools/skelda-load/Loader.h"

namespace {

using namespace skelda::tools;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kEvery = 10s;  // that figures are told, when they have changed

struct Options {
  LogStream::Options stream;
  std::string database;
  double ackWait = 30;
  int compared = 900;
  bool untilEmpty = false;
  bool showsSchema = false;
};

void describe(CLI::App& app, Options& options) {
  app.add_option("--stream", options.stream.access.servers,
                 "The servers of the stream: nats://host:4222[,host:4222...]")
      ->capture_default_str();
  options.stream.access.describe(app);
  app.add_option("--database", options.database,
                 "The database, as libpq has it: \"host=... dbname=...\" or postgresql://...; what "
                 "is not said comes from PGHOST, PGDATABASE, PGUSER, PGPASSFILE and the like");
  app.add_option("--durable", options.stream.durable,
                 "The name of the consumer; loaders of one name share the work")
      ->capture_default_str();
  app.add_option("--batch", options.stream.logs,
                 "Logs that are taken from the stream and acknowledged together")
      ->check(CLI::Range(1, 4096))
      ->capture_default_str();
  app.add_option("--ack-wait", options.ackWait,
                 "Seconds after which the stream gives out again what was not acknowledged, when "
                 "the consumer is made")
      ->check(CLI::Range(1.0, 3600.0))
      ->capture_default_str();
  app.add_option("--compare", options.compared,
                 "Seconds before a trouble of the stream, from which on it is compared with the "
                 "database")
      ->check(CLI::Range(1, 86400 * 30))
      ->capture_default_str();
  app.add_flag("--until-empty", options.untilEmpty, "End when all of the stream has been loaded");
  app.add_flag("--schema", options.showsSchema, "Print the schema of the database and end");
}

sigset_t endSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

class Figures {
 public:
  void tell(const Loader::Figures& now, bool anyway) {
    const auto at = Clock::now();
    const bool hasChanged = now.logs != told_.logs || now.repeats != told_.repeats;
    if (!anyway && (at < next_ || !hasChanged)) return;
    const double seconds = std::chrono::duration<double>(at - at_).count();
    fmt::print(stderr,
               "skelda-load: {} logs, {} events ({:.0f} a second), {} damaged, {} repeats, {} "
               "behind, {} retries, {} passed over\n",
               now.logs, now.events, static_cast<double>(now.events - told_.events) / seconds,
               now.damaged, now.repeats, now.behind, now.retries, now.passedOver);
    told_ = now;
    at_ = at;
    next_ = at + kEvery;
  }

 private:
  Loader::Figures told_;
  Clock::time_point at_ = Clock::now();
  Clock::time_point next_ = at_ + kEvery;
};

int load(const Options& options) {
  const sigset_t signals = endSignals();
  LogStream stream(options.stream);
  Database database(options.database);
  Figures figures;
  const Loader* running = nullptr;
  const auto pause = [&](std::chrono::nanoseconds length) {
    figures.tell(running->figures(), false);
    const timespec wait{static_cast<time_t>(length / 1s), static_cast<long>((length % 1s).count())};
    return sigtimedwait(&signals, nullptr, &wait) < 0;
  };
  Loader loader(
      stream, database, pause,
      [](const std::string& line) { fmt::print(stderr, "skelda-load: {}\n", line); },
      std::chrono::seconds(options.compared));
  running = &loader;
  loader.run(options.untilEmpty);
  figures.tell(loader.figures(), true);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.stream.access.servers = "nats://127.0.0.1:4222";
  CLI::App app("Carries the logs of the collectors' stream into a PostgreSQL database.");
  describe(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 2;
  }
  if (options.showsSchema) {
    fmt::print("{}", schemaText());
    return 0;
  }
  options.stream.ackWait = std::chrono::milliseconds(static_cast<long>(options.ackWait * 1000));
  // Before there is another thread: all of them leave these signals to the one that waits for them.
  const sigset_t signals = endSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  try {
    return load(options);
  } catch (const std::exception& problem) {
    fmt::print(stderr, "skelda-load: {}\n", problem.what());
    return 1;
  }
}
