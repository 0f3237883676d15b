#include <charconv>
#include <cstdlib>
#include <memory>

#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/WatchKit/WKExtension.h"

namespace {

std::string_view environment(const char* name) {
  const char* value = ::secure_getenv(name);
  return value != nullptr ? std::string_view(value) : std::string_view();
}

}  // namespace

bool SkeldaUtil::isInWatchExtension() {
  const auto bundle = platform::Bundle::main();
  const std::string& path = bundle->executablePath();
  // ".app" stands inside ".appex/" already; asking for both is how it has always been told.
  return path.find(".appex/") != std::string::npos && path.find(".app") != std::string::npos;
}

bool SkeldaUtil::isInAppExtension() {
  return platform::Bundle::main()->bundlePath().ends_with(".appex");
}

std::string SkeldaUtil::devicePlatform() {
  return platform::WKInterfaceDevice::currentDevice()->model();
}

platform::ScreenBounds SkeldaUtil::deviceScreenBounds() {
  const auto device = std::dynamic_pointer_cast<platform::WKInterfaceDevice>(
      platform::ClassRegistry::shared().make("WKInterfaceDevice"));
  return device != nullptr ? device->screenBounds() : platform::ScreenBounds{};
}

platform::FileSystemAttributes SkeldaUtil::documentsFileSystem() {
  platform::ErrorRef error;
  const auto sizes = platform::FileManager::defaultManager()->attributesOfFileSystemForPath(
      platform::FileManager::documentsDirectory(), &error);
  if (!sizes) {
    SKELDA_LOG(2, "Error Obtaining System Memory Info: Domain = {}, Code = {}", error->domain(),
               error->code());
  }
  return sizes.value_or(platform::FileSystemAttributes{});
}

std::uint64_t SkeldaUtil::getDiskSize() {
  return documentsFileSystem().size;
}
std::uint64_t SkeldaUtil::getFreeDiskspace() {
  return documentsFileSystem().freeSize;
}

std::uint8_t SkeldaUtil::buildEnvironment() {
  const std::string_view text = environment("SKELDA_BUILD_ENVIRONMENT");
  std::uint8_t code = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), code);
  return failure == std::errc{} && end == text.data() + text.size() ? code : std::uint8_t{0};
}

bool SkeldaUtil::isAdTrackingEnabled() {
  const std::string_view text = environment("SKELDA_AD_TRACKING");
  return text == "1" || text == "yes" || text == "true";
}

platform::Value SkeldaUtil::getValueForKey(std::string_view key, const platform::Value& instance,
                                           const platform::Value& defaultValue) {
  const platform::Dictionary* dictionary = instance.dictionary();
  const platform::Value* value = dictionary != nullptr ? dictionary->find(key) : nullptr;
  return value != nullptr ? *value : defaultValue;
}

bool SkeldaUtil::isInBackground() {
  using State = platform::WKExtension::ApplicationState;
  return platform::WKExtension::sharedExtension().applicationState() == State::background;
}
