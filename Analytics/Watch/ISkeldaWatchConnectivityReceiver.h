#pragma once

#include <string_view>

#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Receives the user-info dictionaries that come from the phone.
class ISkeldaWatchConnectivityReceiver {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaWatchConnectivityReceiver";
  virtual ~ISkeldaWatchConnectivityReceiver() = default;
  /// Whether the dictionary held something for the receiver. Any thread.
  virtual bool didReceiveUserInfo(const platform::Dictionary& userInfo) = 0;
  /// Whether the dictionary is one that the receiver sent. Any thread.
  virtual bool isSkeldaUserInfo(const platform::Dictionary& userInfo) = 0;
};
