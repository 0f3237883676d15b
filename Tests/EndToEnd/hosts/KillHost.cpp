// Logs numbered events as fast as it may, and writes down which calls have returned and how, in a
// file that outlives it: FIRST EVENTS THREADS RATE END TOLD
//
// RATE is events per second and thread, 0 for no bound. The byte of TOLD at a number is 2 once the
// call has returned 1, 1 once it has returned 0. END is what comes behind the last call: "kill"
// kills the process, "linger" waits to be killed, "stored" says when all is stored, and waits, too.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Skelda_Watch/SkeldaWatch.h"

using Clock = std::chrono::steady_clock;

namespace {

/// The whole file; null where it cannot be had.
char* mapped(const char* path) {
  const int file = ::open(path, O_RDWR | O_CLOEXEC);
  struct stat status {};
  if (file < 0 || ::fstat(file, &status) != 0) return nullptr;
  void* bytes = ::mmap(nullptr, static_cast<std::size_t>(status.st_size), PROT_READ | PROT_WRITE,
                       MAP_SHARED, file, 0);
  return bytes == MAP_FAILED ? nullptr : static_cast<char*>(bytes);
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 7) return 2;
  const long first = std::atol(arguments[1]);
  const long events = std::atol(arguments[2]);
  const long threads = std::atol(arguments[3]);
  const long rate = std::atol(arguments[4]);
  const std::string_view end = arguments[5];
  char* told = mapped(arguments[6]);
  if (told == nullptr) return 2;

  // Nobody listens there: what is committed ends as blocks, as it does off line.
  SkeldaWatch::setServerURL("https://127.0.0.1:9/v1/skd.do");
  const auto began = Clock::now();
  const auto work = [&](long thread) {
    for (long i = thread; i < events; i += threads) {
      if (rate > 0)
        std::this_thread::sleep_until(began + i / threads * std::chrono::seconds(1) / rate);
      const unsigned answer = SkeldaWatch::logWatchEvent("numbered", {{"n", first + i}});
      told[first + i] = static_cast<char>(answer + 1);
    }
  };
  std::vector<std::thread> others;
  for (long thread = 1; thread < threads; ++thread) others.emplace_back(work, thread);
  work(0);
  for (auto& other : others) other.join();

  if (end == "kill") ::kill(::getpid(), SIGKILL);
  std::printf("done\n");
  std::fflush(stdout);
  if (end == "stored") {
    std::printf("stored: %d\n", SkeldaWatch::waitUntilStored(std::chrono::seconds(60)));
    std::fflush(stdout);
  }
  for (;;) ::pause();
}
