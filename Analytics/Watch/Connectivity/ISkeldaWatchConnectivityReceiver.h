#pragma once

#include <string_view>

#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

// Keys of the user infos that the agent and the phone's agent exchange.
inline constexpr std::string_view kIOSVendorIDKey = "skelda://id1";
inline constexpr std::string_view kIOSInstallationIDKey = "skelda://id2";
inline constexpr std::string_view kWatchOSResponseKey = "skelda://id3";

/// The agent's own receiver of what comes over the phone session. Called on the connectivity queue.
class ISkeldaWatchConnectivityReceiver {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaWatchConnectivityReceiver";
  /// Every user info, the host's as well. Returns whether it held an identifier.
  virtual bool didReceiveUserInfo(const platform::Dictionary& userInfo) = 0;
  /// Whether a finished transfer was the agent's own.
  virtual bool isSkeldaUserInfo(const platform::Dictionary& userInfo) = 0;

 protected:
  ~ISkeldaWatchConnectivityReceiver() = default;
};
