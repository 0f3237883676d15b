// Logs numbered events as fast as it may, and writes down which calls have returned and how, in a
// file that outlives it: FIRST EVENTS THREADS RATE END TOLD
//
// RATE is events per second and thread, 0 for no bound. The byte of TOLD at a number is 2 once the
// call has returned 1, 1 once it has returned 0. END is what comes behind the last call: "kill"
// kills the process, "linger" waits to be killed, "stored" says when all is stored, and waits, too.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <vector>

#include "Skelda_Watch/SkeldaWatch.h"

using Clock = std::chrono::steady_clock;

int main(int count, char** arguments) {
  const int told = count == 7 ? ::open(arguments[6], O_WRONLY | O_CLOEXEC) : -1;
  if (told < 0) return 2;
  const long first = std::atol(arguments[1]);
  const long events = std::atol(arguments[2]);
  const long threads = std::atol(arguments[3]);
  const long rate = std::atol(arguments[4]);
  const std::string_view end = arguments[5];

  // Nobody listens there: what is committed ends as blocks, as it does off line.
  SkeldaWatch::setServerURL("https://127.0.0.1:9/v1/skd.do");
  const auto began = Clock::now();
  const auto work = [&](long thread) {
    for (long i = thread; i < events; i += threads) {
      if (rate > 0)
        std::this_thread::sleep_until(began + i / threads * std::chrono::seconds(1) / rate);
      const char answer = SkeldaWatch::logWatchEvent("numbered", {{"n", first + i}}) == 1 ? 2 : 1;
      if (::pwrite(told, &answer, 1, first + i) != 1) std::abort();
    }
  };
  std::vector<std::thread> others;
  for (long thread = 1; thread < threads; ++thread) others.emplace_back(work, thread);
  work(0);
  for (auto& other : others) other.join();

  if (end == "kill") ::kill(::getpid(), SIGKILL);
  std::printf("done\n");
  if (end == "stored")
    std::printf("stored: %d\n", SkeldaWatch::waitUntilStored(std::chrono::seconds(60)));
  std::fflush(stdout);
  for (;;) ::pause();
}
