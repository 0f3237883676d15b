#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"

/// A stage that makes messages. Each source class has a static getSourceInstance(), which the class
/// registry calls by the class's name.
class ISkeldaFrameSource : public virtual ISkeldaStreamComponent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaFrameSource";
};
