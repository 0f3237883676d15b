#pragma once

#include <memory>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

class SkeldaTransaction;

/// Turns the host's event calls into event messages, in call order. Any thread, returns at once;
/// what the source refuses it says in the log and, where the call has an origin, settles.
class ISkeldaEventFrameSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaEventFrameSource";
  virtual void recordEvent(platform::Value name, platform::Value parameters, bool timed,
                           std::shared_ptr<SkeldaTransaction> transaction, platform::Date timestamp,
                           SkeldaIntakeOrigin origin = {}) = 0;
  virtual void recordEvent(platform::Value name, platform::Value parameters, bool timed,
                           platform::Date timestamp, SkeldaIntakeOrigin origin = {}) = 0;
  virtual void endTimedEvent(platform::Value name, platform::Value parameters,
                             platform::Date timestamp, SkeldaIntakeOrigin origin = {}) = 0;
};
