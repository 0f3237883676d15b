#include "Skelda_Watch/SkeldaOptional.h"

#include "Analytics/Reachability/SkeldaReachability.h"
#include "Platform/WatchConnectivity/WCDefaultSession.h"
#include "Platform/WatchConnectivity/WCSocketTransport.h"

bool SkeldaReachabilityLink() noexcept {
  try {
    SkeldaReachability::registerClass();
    return true;
  } catch (...) {
    return false;
  }
}

void SkeldaListenForPhone(const std::string& socketPath) noexcept {
  try {
    skelda::platform::installWatchConnectivity(
        skelda::platform::WCSocketTransport::make(socketPath));
  } catch (...) {
    // Out of memory at start-up: the process goes on without a phone, as if it were out of reach.
  }
}
