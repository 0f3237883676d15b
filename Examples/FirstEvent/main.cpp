#include <Skelda_Watch/SkeldaOptional.h>
#include <Skelda_Watch/SkeldaWatch.h>

#include <cstdio>
#include <thread>

int main(int count, char** words) {  // FirstEvent [ADDRESS SOCKET]
  if (count > 1) SkeldaWatch::setServerURL(words[1]);
  if (count > 2) SkeldaListenForPhone(words[2]);
  SkeldaWatch::logWatchEvent("LapDone", {{"lap", 3}, {"pace", "5:10"}});
  if (!SkeldaWatch::waitUntilStored(std::chrono::seconds(10))) return 1;
  std::puts("stored");
  while (count > 2 && SkeldaWatch::account().blocks.acknowledged == 0)  // until a server has it
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}
