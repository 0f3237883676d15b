#pragma once

#include <string>

#include "Platform/Foundation/Object.h"

namespace skelda::platform {

/// Sizes in points.
struct ScreenBounds {
  double width = 0;
  double height = 0;
};

/// The watch itself, in so far as a Linux machine can answer for it. Any thread.
class WKInterfaceDevice : public Object {
 public:
  static std::shared_ptr<WKInterfaceDevice> currentDevice();
  std::string_view className() const noexcept override { return "WKInterfaceDevice"; }
  /// The system's own version: VERSION_ID of os-release, else the kernel's release.
  virtual std::string systemVersion() const;
  /// The model: the device tree's or DMI's product name, else the machine's architecture.
  virtual std::string model() const;
  /// SKELDA_SCREEN ("396x484"), else the first connected display mode the kernel lists, else 0 by
  /// 0.
  virtual ScreenBounds screenBounds() const;
  /// A UUID of this machine and this application, from the machine id; empty where there is none.
  virtual std::string identifierForVendor() const;
};

}  // namespace skelda::platform
