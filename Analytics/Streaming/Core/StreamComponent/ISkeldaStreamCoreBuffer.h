#pragma once

#include <string_view>

/// The first core stage: every source feeds it.
class ISkeldaStreamCoreBuffer {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCoreBuffer";

 protected:
  ~ISkeldaStreamCoreBuffer() = default;
};
