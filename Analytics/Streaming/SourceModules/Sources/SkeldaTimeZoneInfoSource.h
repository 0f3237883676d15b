#pragma once

#include "Analytics/Streaming/SourceModules/Sources/SkeldaNotifiedSource.h"

/// Reports the local time zone.
class ISkeldaTimeZoneInfoSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaTimeZoneInfoSource";
};

class SkeldaTimeZoneInfoSource
    : public SkeldaNotifiedSource<SkeldaTimeZoneInfoSource, ISkeldaTimeZoneInfoSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaTimeZoneInfoSource";

 private:
  friend SkeldaSource;
  friend SkeldaNotifiedSource;
  SkeldaTimeZoneInfoSource()
      : SkeldaNotifiedSource(platform::kSystemTimeZoneDidChangeNotification,
                             &SkeldaTimeZoneInfoSource::timeZoneDidChange) {}
  void timeZoneDidChange() { post<&SkeldaTimeZoneInfoSource::onqueue_fetchAndSendTimeZone>(); }
  void onqueue_fetchAndSend() override { onqueue_fetchAndSendTimeZone(); }
  void onqueue_fetchAndSendTimeZone();
};
