#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"

/// The stage that decides where watch sessions and frame logs end.
class ISkeldaStreamCorePolicy : public virtual ISkeldaStreamComponent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCorePolicy";
};
