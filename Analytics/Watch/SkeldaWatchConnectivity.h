#pragma once

#include <memory>
#include <string_view>

#include "Analytics/Watch/ISkeldaWatchConnectivityReceiver.h"

// The marker keys of the agent's own messages between watch and phone.
inline constexpr std::string_view kIOSVendorIDKey = "skelda://id1";
inline constexpr std::string_view kIOSInstallationIDKey = "skelda://id2";
inline constexpr std::string_view kWatchOSResponseKey = "skelda://id3";

/// The agent's share in the host's session with the phone. Where no session class is linked it says
/// so once and stays inert. Any thread: every call is posted to its queue.
class SkeldaWatchConnectivity {
 public:
  static std::shared_ptr<SkeldaWatchConnectivity> defaultConnectivty();
  void setup();
  void teardown();
  void transferUserInfo(platform::Dictionary userInfo);
  void setDelegate(std::weak_ptr<ISkeldaWatchConnectivityReceiver> receiver);
  void disableWatchConnectivity();
  void disableTransferSkeldaInfo();

 private:
  SkeldaWatchConnectivity();
};
