#include <Skelda_Watch/SkeldaOptional.h>
#include <Skelda_Watch/SkeldaWatch.h>

#include <csignal>
#include <cstdlib>

/// Logs an event, and says how many sockets are open. With an argument it waits for a phone at that
/// socket, follows the network, and stays until it is asked to end.
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
  if (std::system("echo sockets: $(ls -l /proc/$PPID/fd | grep -c socket:)") != 0) return 1;
  int signal = 0;
  return wantsMore ? sigwait(&ending, &signal) : 0;
}
