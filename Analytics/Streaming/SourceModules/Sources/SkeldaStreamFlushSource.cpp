#include "Analytics/Streaming/SourceModules/Sources/SkeldaStreamFlushSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"

void SkeldaStreamFlushSource::flushWithStatus(std::int32_t status) {
  asyncBlock([self = selfOf(this), status] { self->onqueue_flushWithStatus(status); });
}

void SkeldaStreamFlushSource::onqueue_flushWithStatus(std::int32_t status) {
  onqueue_streamMessage(SkeldaStreamFlush::streamFlushWithStatus(status));
}
