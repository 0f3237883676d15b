#include "Analytics/Streaming/SourceModules/Sources/SkeldaDevicePropertiesSource.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/WatchKit/WKInterfaceDevice.h"

namespace {

std::uint32_t wholePoints(double size) {
  constexpr double kMost = std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(std::clamp(size, 0.0, kMost));
}

}  // namespace

void SkeldaDevicePropertiesSource::onqueue_startup() {
  SKELDA_ON_QUEUE();
  const auto screen = SkeldaUtil::deviceScreenBounds();
  onqueue_streamMessage(SkeldaStreamDeviceProperties::devicePropertiesWithDeviceModel(
      SkeldaUtil::devicePlatform(), platform::WKInterfaceDevice::currentDevice()->systemVersion(),
      systemArch(),
      skelda::textOf(platform::Bundle::main()->objectForInfoDictionaryKey("CFBundleVersion")),
      wholePoints(screen.width), wholePoints(screen.height)));
}
