#include "Analytics/Streaming/SourceModules/Sources/SkeldaCCPASource.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPAOptOut.h"

void SkeldaCCPASource::setCCPAOptOut(bool optOut, SkeldaIntakeOrigin origin) {
  post<&SkeldaCCPASource::onqueue_setCCPAOptOut>(optOut, origin);
}

void SkeldaCCPASource::setCCPADelete(SkeldaIntakeOrigin origin) {
  post<&SkeldaCCPASource::onqueue_setCCPADelete>(origin);
}

void SkeldaCCPASource::onqueue_setCCPAOptOut(bool optOut, SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  auto message = SkeldaStreamCCPAOptOut::updateCCPAOptOut(optOut);
  message->takeOrigin(origin);
  onqueue_streamMessage(std::move(message));
}

void SkeldaCCPASource::onqueue_setCCPADelete(SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  auto message = SkeldaStreamCCPADelete::updateCCPADelete();
  message->takeOrigin(origin);
  onqueue_streamMessage(std::move(message));
}
