#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"

/// The first core stage: every source feeds it.
class ISkeldaStreamCoreBuffer : public virtual ISkeldaStreamComponent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCoreBuffer";
};
