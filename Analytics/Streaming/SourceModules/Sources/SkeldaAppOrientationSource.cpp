#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppOrientationSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppOrientation.h"

void SkeldaAppOrientationSource::onqueue_startup() {
  SKELDA_ON_QUEUE();
  onqueue_streamMessage(SkeldaStreamAppOrientation::appOrientationWithOrientation(kPortrait));
}
