#pragma once

#include <string_view>

/// A reachability monitor, found by the class name "SkeldaReachability" at run time.
class ISkeldaReachability {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaReachability";
  static constexpr std::string_view kClassName = "SkeldaReachability";
  /// Called once, on the reachability provider's queue; must not wait for that queue.
  virtual void startup() = 0;

 protected:
  ~ISkeldaReachability() = default;
};
