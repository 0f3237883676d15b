#pragma once

#include <string_view>

/// The stage that decides where watch sessions and frame logs end.
class ISkeldaStreamCorePolicy {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCorePolicy";

 protected:
  ~ISkeldaStreamCorePolicy() = default;
};
