#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"

#include "Platform/Base/Counted.h"

std::shared_ptr<SkeldaStreamCCPADelete> SkeldaStreamCCPADelete::updateCCPADelete() {
  return platform::makeCounted<SkeldaStreamCCPADelete>();
}
