#include <Skelda_Watch/SkeldaOptional.h>
#include <Skelda_Watch/SkeldaWatch.h>

#include <csignal>
#include <filesystem>
#include <iostream>

namespace {

/// Sockets that this process has open.
int sockets() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const auto target = std::filesystem::read_symlink(entry.path(), gone).string();
    if (target.rfind("socket:", 0) == 0) ++count;
  }
  return count;
}

}  // namespace

/// Logs an event. With an argument it waits for a phone at that socket, follows the network, and
/// stays until it is asked to end.
int main(int count, char** arguments) {
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  const bool wantsMore = count > 1;
  if (wantsMore && !SkeldaReachabilityLink()) return 2;
  if (wantsMore) SkeldaListenForPhone(arguments[1]);
  if (SkeldaWatch::logWatchEvent("LapDone", {{"lap", 3}, {"pace", "5:10"}}) != 1) return 1;
  if (!SkeldaWatch::waitUntilStored(std::chrono::seconds(60))) return 1;
  std::cout << "sockets: " << sockets() << std::endl;
  int signal = 0;
  return wantsMore ? sigwait(&ending, &signal) : 0;
}
