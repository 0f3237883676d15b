#include "Analytics/Streaming/SourceModules/Sources/SkeldaStreamFlushSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"

void SkeldaStreamFlushSource::flushWithStatus(std::int32_t status) {
  post<&SkeldaStreamFlushSource::onqueue_flushWithStatus>(status);
}

void SkeldaStreamFlushSource::onqueue_flushWithStatus(std::int32_t status) {
  SKELDA_ON_QUEUE();
  onqueue_streamMessage(SkeldaStreamFlush::streamFlushWithStatus(status));
}
