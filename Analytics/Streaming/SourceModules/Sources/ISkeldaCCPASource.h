#pragma once

#include <string_view>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"

/// Reports the user's CCPA requests. Any thread, returns at once.
class ISkeldaCCPASource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaCCPASource";
  virtual void setCCPAOptOut(bool optOut, SkeldaIntakeOrigin origin = {}) = 0;
  virtual void setCCPADelete(SkeldaIntakeOrigin origin = {}) = 0;
};
