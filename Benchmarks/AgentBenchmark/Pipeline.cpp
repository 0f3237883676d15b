#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "Benchmarks/AgentBenchmark/ClosedLogKeeper.h"
#include "Benchmarks/AgentBenchmark/Measurements.h"

namespace measure {

namespace {

double wallClock() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

double userSeconds(int who) {
  rusage usage{};
  ::getrusage(who, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec) / 1e6;
}

/// How often the agent's threads have given the processor up: all threads but the calling one.
std::int64_t voluntarySwitches() {
  rusage all{};
  rusage own{};
  ::getrusage(RUSAGE_SELF, &all);
  ::getrusage(RUSAGE_THREAD, &own);
  return all.ru_nvcsw - own.ru_nvcsw;
}

/// When the open log was last written to: the moment the pipeline had caught up.
double lastWritten() {
  struct stat status {};
  const auto log = storageFolder() / "SkeldaFiles" / ".skeldaFrameLog_261.archive";
  if (::stat(log.c_str(), &status) != 0) return 0;
  return static_cast<double>(status.st_mtim.tv_sec) +
         static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
}

void burst(std::uint64_t events) {
  for (std::uint64_t i = 1; i <= events; ++i) logEvent(i);
}

}  // namespace

Json pipeline(std::uint64_t events, const std::filesystem::path& keepClosed) {
  if (!keepClosed.empty()) ClosedLogKeeper::install(keepClosed);
  logEvent(0);
  rest();
  const double userBefore = userSeconds(RUSAGE_SELF);
  const auto switchesBefore = voluntarySwitches();
  const double began = wallClock();
  burst(events);
  const double called = wallClock();
  // Looking whether the folder is quiet is not the agent's work.
  const double looking = userSeconds(RUSAGE_THREAD);
  const bool rested = rest();
  const double used =
      userSeconds(RUSAGE_SELF) - userBefore - (userSeconds(RUSAGE_THREAD) - looking);
  return {{"events", events},
          {"seconds", lastWritten() - began},
          {"calling_seconds", called - began},
          {"user_us_per_event", used * 1e6 / static_cast<double>(events)},
          {"voluntary_switches", voluntarySwitches() - switchesBefore},
          {"rested", rested}};
}

Json burstAndRest(std::uint64_t events) {
  logEvent(0);
  rest();
  burst(events);
  const double called = wallClock();
  const bool rested = rest();
  return {{"events", events}, {"ms_behind", (lastWritten() - called) * 1000}, {"rested", rested}};
}

void burstAndKill(std::uint64_t events, bool settled, const std::filesystem::path& keepClosed) {
  if (!keepClosed.empty()) ClosedLogKeeper::install(keepClosed);
  logEvent(0);
  rest();
  burst(events);
  if (settled) rest();
  ::kill(::getpid(), SIGKILL);
  std::abort();
}

}  // namespace measure
