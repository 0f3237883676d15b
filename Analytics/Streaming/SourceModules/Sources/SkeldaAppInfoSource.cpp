#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppInfoSource.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppInfo.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Bundle.h"

void SkeldaAppInfoSource::setAppVersion(platform::Value version) {
  post<&SkeldaAppInfoSource::onqueue_setAppVersion>(std::move(version));
}

void SkeldaAppInfoSource::onqueue_setAppVersion(platform::Value version) {
  SKELDA_ON_QUEUE();
  if (!skelda::isWellFormedText(version)) {
    SKELDA_LOG(1, "{}: app version is not UTF-8 text",
               "-[SkeldaAppInfoSource onqueue_setAppVersion:]");
    return;
  }
  // Only kept: an override that comes after start-up is reported by the next process.
  versionOverride_ = skelda::textOf(std::move(version));
}

void SkeldaAppInfoSource::onqueue_startup() {
  SKELDA_ON_QUEUE();
  const auto bundle = platform::Bundle::main();
  onqueue_streamMessage(SkeldaStreamAppInfo::appInfoWithVersion(
      skelda::textOf(bundle->objectForInfoDictionaryKey("CFBundleShortVersionString")),
      skelda::textOf(bundle->objectForInfoDictionaryKey("CFBundleVersion")), versionOverride_,
      bundle->bundleIdentifier(), SkeldaUtil::buildEnvironment()));
}
