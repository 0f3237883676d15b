#include "Analytics/Watch/SkeldaPublicEntry.h"

#include <vector>

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Bundle.h"
#include "Skelda_Watch/SkeldaWatch.h"

bool skelda::mayKeep(const char* what) {
  if (SkeldaIntake::isOpen()) return true;
  if (!SkeldaWatch::apiKey()) {
    SkeldaAccounting::refused(SkeldaRefusal::noKey);
    SKELDA_LOG(2, "No API key provided in plist, unable to log {}", what);
    return false;
  }
  if (!SkeldaUtil::isInWatchExtension()) {
    SkeldaAccounting::refused(SkeldaRefusal::notAnExtension);
    const bool isEvent = std::string_view(what) == "event";
    SKELDA_LOG(2, "Skelda: {} not logged -- this method can only be used in watch extension.",
               isEvent ? "Event" : "Choice");
    SKELDA_NOTICE_ONCE(
        "Skelda: {} is no watch extension: events are refused. The program has to run from below "
        "a folder whose name ends in \".appex\" and that holds an Info.plist",
        platform::Bundle::main()->bundlePath());
    return false;
  }
  return true;
}

bool skelda::keepChoice(SkeldaIntakeCall::Kind kind, SkeldaIntakeCall::Values values) {
  return mayKeep("choice") && SkeldaIntake::accept(kind, values);
}
