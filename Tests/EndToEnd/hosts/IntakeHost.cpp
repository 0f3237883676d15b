// Gives the agent much at once and ends as its first argument says, or forks, or waits. Prints what
// the calls answered, "what: number".

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/Dispatch/MainQueue.h"
#include "Platform/Dispatch/Queue.h"
#include "Skelda_Watch/Skelda_Watch.h"

using namespace std::chrono_literals;

namespace {

void print(const char* what, unsigned long long number) {
  std::printf("%s: %llu\n", what, number);
  std::fflush(stdout);
}

unsigned long long logFromThreads(unsigned threads, unsigned each) {
  std::atomic<unsigned long long> accepted{0};
  std::vector<std::thread> loggers;
  for (unsigned thread = 0; thread < threads; ++thread) {
    loggers.emplace_back([&, thread] {
      for (unsigned i = 0; i < each; ++i) {
        accepted += SkeldaWatch::logWatchEvent(
            "lap", {{"thread", thread}, {"i", i}, {"pace", "5:10"}, {"climb", 1.5}, {"on", true}});
      }
    });
  }
  for (auto& logger : loggers) logger.join();
  return accepted;
}

unsigned long long kibibytes(std::string_view field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field)) return std::stoull(line.substr(field.size()));
  }
  return 0;
}

/// Descriptors of the lock that this process has.
unsigned lockDescriptors() {
  unsigned count = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const auto target = std::filesystem::read_symlink(entry.path(), error).string();
    if (target.find(".skelda-lock") != std::string::npos) ++count;
  }
  return count;
}

/// What a forked child may do: nothing, and at once. It outlives its parent, which is killed.
void forks() {
  print("before", SkeldaWatch::logWatchEvent("before the fork"));
  print("stored", SkeldaWatch::waitUntilStored(20s));
  print("parent-locks", lockDescriptors());
  const auto child = ::fork();
  if (child == 0) {
    print("child-event", SkeldaWatch::logWatchEvent("of the child"));
    SkeldaCCPA::setDelete();
    print("child-consent", SkeldaConsent::updateConsentInformation({}));
    print("child-waits", SkeldaWatch::waitUntilStored(20s));
    print("child-locks", lockDescriptors());
    ::pause();
  }
  print("child", static_cast<unsigned long long>(child));
  print("after", SkeldaWatch::logWatchEvent("after the fork"));
  print("stored-after", SkeldaWatch::waitUntilStored(20s));
  print("ready", 1);
  ::pause();
}

/// All of it as fast as it goes, and what it costs in memory.
void flood(unsigned calls) {
  print("first", SkeldaWatch::logWatchEvent("first"));
  SkeldaWatch::waitUntilStored(20s);
  const auto before = kibibytes("VmRSS:");
  print("accepted", logFromThreads(1, calls));
  print("added-KiB", kibibytes("VmHWM:") - before);
  const auto account = SkeldaWatch::account();
  print("account-accepted", account.events.accepted);
  print("account-refused", account.refused.overTheBound);
}

void waits() {
  print("nothing-yet", SkeldaWatch::waitUntilStored(0s));
  SkeldaUserProperties::flag("early");
  print("only-a-choice", SkeldaWatch::waitUntilStored(20s));
  std::atomic<unsigned> stored{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      SkeldaWatch::logWatchEvent("waited for");
      stored += SkeldaWatch::waitUntilStored(20s);
    });
  }
  for (auto& thread : threads) thread.join();
  print("stored", stored);
}

/// What the agent says of itself, once an event was refused or has been stored.
void tellsStatus() {
  print("accepted", SkeldaWatch::logWatchEvent("said"));
  SkeldaWatch::waitUntilStored(20s);
  const auto status = SkeldaWatch::status();
  print("held", status.holdsUp());
  std::string found;
  for (const auto& finding : status.findings) found += " " + finding.code;
  std::printf("found:%s\n", found.c_str());
  std::fflush(stdout);
}

/// On the main queue, which nobody serves meanwhile, as the first thing that the agent is asked.
void waitsOnTheMainQueue() {
  const auto began = std::chrono::steady_clock::now();
  print("accepted", SkeldaWatch::startTimedEvent("lap") + SkeldaWatch::endTimedEvent("lap") +
                        SkeldaWatch::logPurchase("bought", {{"sk.ProductID", "p"}}));
  print("stored", SkeldaWatch::waitUntilStored(20s));
  const auto took = std::chrono::steady_clock::now() - began;
  print("milliseconds", static_cast<unsigned long long>(took / 1ms));
  skelda::platform::MainQueue::stop();
}

}  // namespace

int main(int, char** arguments) {
  const std::string_view way = arguments[1];
  if (way == "fork") forks();
  if (way == "flood") flood(static_cast<unsigned>(std::stoul(arguments[2])));
  if (way == "wait") waits();
  if (way == "status") tellsStatus();
  if (way == "stays") {
    tellsStatus();
    ::pause();
  }
  if (way == "choices") {
    SkeldaCCPA::setDataSaleOptOut(true);
    SkeldaUserProperties::setValue("said", "early");
    SkeldaWatch::setUserID("ann");
    SkeldaCCPA::setDelete();
    ::_exit(0);
  }
  if (way == "kinds") {
    skelda::platform::Queue::main()->async(waitsOnTheMainQueue);
    skelda::platform::MainQueue::run();
  }
  if (way.ends_with("exit")) print("accepted", logFromThreads(4, 5000));
  if (way == "quick_exit") std::quick_exit(0);
  if (way == "_exit") ::_exit(0);
  std::exit(0);
}
