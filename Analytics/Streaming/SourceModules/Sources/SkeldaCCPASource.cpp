#include "Analytics/Streaming/SourceModules/Sources/SkeldaCCPASource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPAOptOut.h"

void SkeldaCCPASource::setCCPAOptOut(bool optOut) {
  asyncBlock([self = selfOf(this), optOut] { self->onqueue_setCCPAOptOut(optOut); });
}

void SkeldaCCPASource::setCCPADelete() {
  asyncBlock([self = selfOf(this)] { self->onqueue_setCCPADelete(); });
}

void SkeldaCCPASource::onqueue_setCCPAOptOut(bool optOut) {
  onqueue_streamMessage(SkeldaStreamCCPAOptOut::updateCCPAOptOut(optOut));
}

void SkeldaCCPASource::onqueue_setCCPADelete() {
  onqueue_streamMessage(SkeldaStreamCCPADelete::updateCCPADelete());
}
