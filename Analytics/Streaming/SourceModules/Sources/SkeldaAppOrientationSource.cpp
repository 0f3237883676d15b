#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppOrientationSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppOrientation.h"

void SkeldaAppOrientationSource::onqueue_startup() {
  initialOrientation_ = currentOrientation_ = kPortrait;
  onqueue_streamMessage(
      SkeldaStreamAppOrientation::appOrientationWithOrientation(currentOrientation_));
}
