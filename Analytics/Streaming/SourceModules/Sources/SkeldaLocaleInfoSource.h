#pragma once

#include "Analytics/Streaming/SourceModules/Sources/SkeldaNotifiedSource.h"

/// Reports the user's locale.
class ISkeldaLocaleInfoSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaLocaleInfoSource";
};

class SkeldaLocaleInfoSource
    : public SkeldaNotifiedSource<SkeldaLocaleInfoSource, ISkeldaLocaleInfoSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaLocaleInfoSource";

 private:
  friend SkeldaSource;
  friend SkeldaNotifiedSource;
  SkeldaLocaleInfoSource()
      : SkeldaNotifiedSource(platform::kCurrentLocaleDidChangeNotification,
                             &SkeldaLocaleInfoSource::localeChanged) {}
  void localeChanged() { post<&SkeldaLocaleInfoSource::onqueue_fetchAndSendLocale>(); }
  void onqueue_fetchAndSend() override { onqueue_fetchAndSendLocale(); }
  void onqueue_fetchAndSendLocale();
};
