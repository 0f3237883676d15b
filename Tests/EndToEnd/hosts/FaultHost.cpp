// Logs numbered events and closes a log half way, for a run in which one of the system's calls goes
// wrong. Prints what each call answered.
//
//   FaultHost START EVENTS     START names the run in every event

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "Examples/MorningRun/QuietFolder.h"
#include "Skelda_Watch/SkeldaCCPA.h"
#include "Skelda_Watch/SkeldaUserProperties.h"
#include "Skelda_Watch/SkeldaWatch.h"

using namespace std::chrono_literals;

namespace {

/// The preloaded library is told what of this thread is the agent's.
void setInside(bool isInside) {
  static const auto tell =
      reinterpret_cast<void (*)(bool)>(::dlsym(RTLD_DEFAULT, "faultShimInsideCall"));
  if (tell != nullptr) tell(isInside);
}

template <class Call>
auto inside(Call call) {
  setInside(true);
  struct Leaving {
    ~Leaving() { setInside(false); }
  } leaving;
  return call();
}

}  // namespace

int main(int, char** argv) {
  const std::string start = argv[1];
  const int events = std::atoi(argv[2]);
  // Values are made outside and given away: what is allocated inside is the agent's.
  SkeldaValue address = "https://127.0.0.1:9/v1/skd.do";
  inside([&] { SkeldaWatch::setServerURL(std::move(address)); });
  SkeldaValue property = "shoes", kind = "Wolke 7";
  inside([&] { SkeldaUserProperties::setValue(std::move(property), std::move(kind)); });
  for (int number = 1; number <= events; ++number) {
    SkeldaValue name = "event";
    SkeldaValue parameters = {{"start", start}, {"number", number}};
    const unsigned answer =
        inside([&] { return SkeldaWatch::logWatchEvent(std::move(name), std::move(parameters)); });
    std::printf("event %d: %u\n", number, answer);
    std::fflush(stdout);
    if (number == events / 2) inside([] { SkeldaCCPA::setDelete(); });
  }
  std::printf("stored: %d\n", SkeldaWatch::waitUntilStored(3s));
  const auto storage =
      std::filesystem::path(std::getenv("XDG_DATA_HOME")) / BUNDLE_IDENTIFIER / "SkeldaFiles";
  std::printf("rest: %d\n", QuietFolder(storage).wait(300ms, 10s));
}
