#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"

std::shared_ptr<SkeldaStreamCCPADelete> SkeldaStreamCCPADelete::updateCCPADelete() {
  return std::make_shared<SkeldaStreamCCPADelete>();
}
