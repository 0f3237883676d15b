#include "Analytics/Streaming/SourceModules/Sources/SkeldaLocaleInfoSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamLocaleInfo.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Locale.h"

void SkeldaLocaleInfoSource::onqueue_fetchAndSendLocale() {
  SKELDA_ON_QUEUE();
  const auto locale = platform::Locale::current();
  SKELDA_LOG(2, "{}: Got New Locale language [{}] country [{}]",
             "-[SkeldaLocaleInfoSource onqueue_fetchAndSendLocale]",
             skelda::textOrNull(locale.languageCode), skelda::textOrNull(locale.countryCode));
  onqueue_streamMessage(
      SkeldaStreamLocaleInfo::streamLocaleInfoWithCountry(locale.countryCode, locale.languageCode));
}
