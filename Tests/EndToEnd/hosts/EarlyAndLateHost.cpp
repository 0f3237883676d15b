// Logs before main() begins and after it has returned, while other threads still log.

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "Examples/MorningRun/QuietFolder.h"
#include "Skelda_Watch/SkeldaWatch.h"

using namespace std::chrono_literals;

namespace {

struct Early {
  unsigned answer = SkeldaWatch::logWatchEvent("early", {{"when", "static initialiser"}});
  ~Early() { SkeldaWatch::logWatchEvent("late", {{"when", "static destructor"}}); }
} early;

void logForEver() {
  while (true) SkeldaWatch::logWatchEvent("meanwhile", {{"text", "another thread"}});
}

}  // namespace

int main() {
  std::printf("early: %u\n", early.answer);
  std::printf("main: %u\n", SkeldaWatch::logWatchEvent("main"));
  const auto storage =
      std::filesystem::path(std::getenv("XDG_DATA_HOME")) / BUNDLE_IDENTIFIER / "SkeldaFiles";
  const bool rested = QuietFolder(storage).wait(500ms, 20s);
  std::atexit([] { SkeldaWatch::logWatchEvent("late", {{"when", "exit handler"}}); });
  for (int i = 0; i < 2; ++i) std::thread(logForEver).detach();
  std::this_thread::sleep_for(20ms);
  std::exit(rested ? 0 : 1);
}
