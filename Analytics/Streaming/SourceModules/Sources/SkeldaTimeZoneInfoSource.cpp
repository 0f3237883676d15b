#include "Analytics/Streaming/SourceModules/Sources/SkeldaTimeZoneInfoSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamTimeZoneInfo.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/TimeZone.h"

void SkeldaTimeZoneInfoSource::onqueue_fetchAndSendTimeZone() {
  SKELDA_ON_QUEUE();
  const auto localTimeZone = platform::TimeZone::local();
  // The blank at the end is part of the line.
  SKELDA_LOG(2, "{}: Got New TimeZone Info [{}] ",
             "-[SkeldaTimeZoneInfoSource onqueue_fetchAndSendTimeZone]",
             skelda::textOrNull(localTimeZone.name));
  onqueue_streamMessage(
      SkeldaStreamTimeZoneInfo::streamTimeZoneInfoWithTimeZone(localTimeZone.name));
}
