#include "Platform/WatchKit/WKInterfaceDevice.h"

#include <sys/utsname.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/SystemFiles.h"
#include "Platform/Security/Digest.h"

namespace skelda::platform {

namespace {

/// Found by name as well; whoever links this class has it registered before main.
[[maybe_unused]] const bool registered = [] {
  ClassRegistry::shared().registerClass(
      {"WKInterfaceDevice", "", {}, [] { return WKInterfaceDevice::currentDevice(); }});
  return true;
}();

struct ::utsname kernelNames() {
  struct ::utsname names {};
  ::uname(&names);
  return names;
}

/// The value of KEY=value or KEY="value".
std::optional<std::string> osReleaseValue(std::string_view text, std::string_view key) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size() - 1);
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (!line.starts_with(key) || !line.substr(key.size()).starts_with("=")) continue;
    line.remove_prefix(key.size() + 1);
    if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') &&
        line.back() == line.front()) {
      line = line.substr(1, line.size() - 2);
    }
    if (!line.empty()) return std::string(line);
  }
  return std::nullopt;
}

/// "396x484", with whatever follows it.
std::optional<ScreenBounds> parsedBounds(std::string_view text) {
  unsigned width = 0;
  unsigned height = 0;
  const char* end = text.data() + text.size();
  const auto first = std::from_chars(text.data(), end, width);
  if (first.ec != std::errc{} || first.ptr == end || *first.ptr != 'x') return std::nullopt;
  if (std::from_chars(first.ptr + 1, end, height).ec != std::errc{}) return std::nullopt;
  return ScreenBounds{static_cast<double>(width), static_cast<double>(height)};
}

}  // namespace

std::shared_ptr<WKInterfaceDevice> WKInterfaceDevice::currentDevice() {
  static NeverDestroyed<std::shared_ptr<WKInterfaceDevice>> device(
      makeCounted<WKInterfaceDevice>());
  return *device;
}

std::string WKInterfaceDevice::systemVersion() const {
  for (const auto path : {"/etc/os-release", "/usr/lib/os-release"}) {
    if (const auto text = readSystemFile(path)) {
      if (auto version = osReleaseValue(*text, "VERSION_ID")) return *std::move(version);
    }
  }
  return kernelNames().release;
}

std::string WKInterfaceDevice::model() const {
  for (const auto path : {"/proc/device-tree/model", "/sys/class/dmi/id/product_name"}) {
    if (auto name = readSystemLine(path)) return *std::move(name);
  }
  return kernelNames().machine;
}

ScreenBounds WKInterfaceDevice::screenBounds() const {
  if (const char* given = ::secure_getenv("SKELDA_SCREEN")) {
    if (const auto bounds = parsedBounds(given)) return *bounds;
  }
  const std::string displays = "/sys/class/drm/";
  for (const std::string& display : systemFolderEntries(displays)) {
    if (readSystemLine(displays + display + "/status") != "connected") continue;
    const auto modes = readSystemLine(displays + display + "/modes");
    if (const auto bounds = modes ? parsedBounds(*modes) : std::nullopt) return *bounds;
  }
  return {};
}

std::string WKInterfaceDevice::identifierForVendor() const {
  const auto machine = machineID();
  if (!machine) return {};
  std::string digest =
      hmacSHA256(*machine, "vendor identifier\n" + Bundle::main()->bundleIdentifier().value_or(""));
  if (digest.size() < 16) return {};
  // Version 8, variant 1: a UUID of the maker's own design.
  digest[6] = static_cast<char>((digest[6] & 0x0F) | 0x80);
  digest[8] = static_cast<char>((digest[8] & 0x3F) | 0x80);
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    const auto byte = static_cast<unsigned char>(digest[i]);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0x0F];
  }
  return text;
}

}  // namespace skelda::platform
